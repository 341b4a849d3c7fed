#ifndef VELMORA_BENCH_MEASUREMENT_H
#define VELMORA_BENCH_MEASUREMENT_H

#include <netinet/in.h>
#include <string>
#include <sys/types.h>
#include <unordered_set>
#include <vector>

namespace Velmora {
namespace Bench {

/// The address of the host in the private network. The host has no other address.
extern const char* const HOST_ADDRESS;

/// The arguments of a host: HOST DEVICES TIMEOUT. If the arguments are wrong, the constructor ends the
/// program.
struct Options
{
    Options(int argc, char** argv);

    int devices; ///< The number of devices to find.
    int timeout; ///< The time after which the host gives up, in milliseconds.
};

/**
 * Measures what one discovery costs this process. Every host uses it in the same way:
 *
 * @code
 * Measurement measurement(options.devices);    // the host is idle, and its event loop is ready
 * measurement.begin();
 * ... search; at every report: if (measurement.add(codes, address)) leave the event loop
 * measurement.end();
 * measurement.beginAgain();
 * ... search again; call measurement.takeSearch() until it returns true
 * measurement.print("name", "version");
 * @endcode
 *
 * The kernel reports when a search was on the wire. A socket of this object is in the group, so the kernel
 * sends the search also to this socket, with a time stamp. The socket is read only after the last report.
 *
 * Processor time is user and system time of all threads. Memory is the peak of the resident set, minus
 * the resident set at begin().
 */
class Measurement
{
public:
    /// Outside of the private network, nothing may be sent. There, the constructor ends the program.
    explicit Measurement(int devices);
    ~Measurement();
    Measurement(const Measurement&) = delete;
    Measurement& operator=(const Measurement&) = delete;

    /// Starts the measurement. Everything that the host does from now on counts.
    void begin();

    /// Counts and prints the first report of each device. Returns true for the last device.
    bool add(const std::string& codes, const std::string& address);

    /// Ends the measurement. Call it while the sockets of the discovery are still open.
    void end();

    /// Starts the measurement of a later discovery in the same process.
    void beginAgain();

    /// Returns whether the search of this later discovery was on the wire.
    bool takeSearch();

    /// Returns the descriptor of the socket in the group. If it is readable, call takeSearch().
    int descriptor() const { return group; }

    /// Prints one line of JSON on standard output.
    void print(const char* host, const char* version) const;

private:
    double readSearchTime(double since) const;

    int expected;
    int group;
    double began;
    double beganAgain;
    double searched;
    double searchedAgain;
    double processorAtBegin;
    double processorAtLastReport;
    long idleMemory;
    long peakMemory;
    long threads;
    long listenDrops;
    long datagramDrops;
    std::unordered_set<in_addr_t> found;
    std::vector<double> reportTimes;
};

} // namespace Bench
} // namespace Velmora

#endif

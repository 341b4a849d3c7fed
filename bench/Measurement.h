#ifndef VELMORA_BENCH_MEASUREMENT_H
#define VELMORA_BENCH_MEASUREMENT_H

#include <netinet/in.h>
#include <string>
#include <sys/types.h>
#include <unordered_set>
#include <vector>

namespace Velmora {
namespace Bench {

/// The host's only address in the private network in which every host is measured.
extern const char* const HOST_ADDRESS;

/// What a host is asked for on its command line: HOST DEVICES TIMEOUT. Ends the program when it is
/// not that.
struct Options
{
    Options(int argc, char** argv);

    int devices; ///< how many there are to find
    int timeout; ///< when to give up, in milliseconds
};

/**
 * What one discovery costs this process, taken in the same way in every host.
 *
 * @code
 * Measurement measurement(options.devices);    // the host is idle: its event loop stands ready
 * measurement.begin();
 * ... search; at every report: if (measurement.add(codes, address)) leave the event loop
 * measurement.end();
 * measurement.beginAgain();
 * ... search anew; measurement.takeSearch() from time to time until it is true
 * measurement.print("name", "version");
 * @endcode
 *
 * When a search was on the wire is what the kernel says: a socket of this object's own is in the
 * group and gets the looped-back datagram with its time stamp. It is read only after the last report.
 *
 * Processor time is that of all threads, user and system. Memory is the peak of the resident set
 * above what was resident at begin().
 */
class Measurement
{
public:
    /// Ends the program outside of the private network, where nothing may be sent.
    explicit Measurement(int devices);
    ~Measurement();
    Measurement(const Measurement&) = delete;
    Measurement& operator=(const Measurement&) = delete;

    /// The idle host begins: whatever it makes from here on counts.
    void begin();

    /// Prints a report; the first of every device counts. Returns true once every device has reported.
    bool add(const std::string& codes, const std::string& address);

    /// The discovery is over, its sockets still open.
    void end();

    /// A later discovery begins in the same process.
    void beginAgain();

    /// Whether that discovery's search has been on the wire.
    bool takeSearch();

    /// Readable once a search, or anything else to the group, may be taken.
    int descriptor() const { return group; }

    /// One line of JSON on the standard output.
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

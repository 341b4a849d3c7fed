#ifndef VELMORA_TESTS_WIRE_DEVICEPROCESS_H
#define VELMORA_TESTS_WIRE_DEVICEPROCESS_H

#include <simulator/PrivateNetwork.h>
#include <simulator/SimulatedDevice.h>

#include <functional>
#include <string>

namespace Velmora {
namespace Tests {

/**
 * The other side of a private network in processes of their own, so that what is measured in this one
 * is the library alone.
 *
 * Make it before the first thread: it forks a process that does nothing but fork those that are
 * started later, and all of them end with this one.
 */
class DeviceProcess
{
public:
    /// What a started process runs, with the number that start() was given; report() is its voice.
    using Body = std::function<int(int number, const DeviceProcess& process)>;

    DeviceProcess(Simulator::PrivateNetwork& network, const Body& body);
    ~DeviceProcess();
    DeviceProcess(const DeviceProcess&) = delete;
    DeviceProcess& operator=(const DeviceProcess&) = delete;

    /// Starts a process; there is one at a time.
    void start(int number);

    /// Kills it, waits for its end and drops the reports that nobody has read. Harmless when there is none.
    void stop();

    /// In the started process: says @p text to this one.
    void report(const std::string& text) const;

    /// Becomes readable with every report.
    int descriptor() const { return reports[0]; }

    /// The next report; waits for it.
    std::string readReport() const;

private:
    void obey(const Body& body);
    int command(int number);

    int commands[2] = {-1, -1};
    int reports[2] = {-1, -1};
};

/// Runs @p count simulated devices, the first at 10.77.1.1, and reports "ready". The function code of each is its
/// number, counted from 1. @p change sets what is different in the device with that number.
int runSimulatedDevices(int count, const DeviceProcess& process,
                        const std::function<void(int number, Simulator::DeviceOptions& options)>& change);

/// Runs @p test against @p body on the device side of a private network, where the devices have @p addresses
/// from 10.77.1.1 on. Returns its status, or that of a skipped test where there can be no private network.
int runAgainst(const DeviceProcess::Body& body, int addresses, const std::function<int(DeviceProcess&)>& test);

} // namespace Tests
} // namespace Velmora

#endif

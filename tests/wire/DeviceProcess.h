#ifndef VELMORA_TESTS_WIRE_DEVICEPROCESS_H
#define VELMORA_TESTS_WIRE_DEVICEPROCESS_H

#include <simulator/PrivateNetwork.h>
#include <simulator/SimulatedDevice.h>

#include <functional>
#include <string>

namespace Velmora {
namespace Tests {

/**
 * The device side of a private network, in another process. So a measurement of this process measures only the
 * library.
 *
 * Create it before the first thread, because it forks. The forked process starts the processes of the devices. All
 * of them end with this process.
 */
class DeviceProcess
{
public:
    /// What a started process runs. @p number is that of start().
    using Body = std::function<int(int number, const DeviceProcess& process)>;

    DeviceProcess(Simulator::PrivateNetwork& network, const Body& body);
    ~DeviceProcess();
    DeviceProcess(const DeviceProcess&) = delete;
    DeviceProcess& operator=(const DeviceProcess&) = delete;

    /// Starts a process. There is one at a time.
    void start(int number);

    /// Kills the started process, if there is one, and drops the reports that nobody has read.
    void stop();

    /// In the started process: sends @p text to this one.
    void report(const std::string& text) const;

    /// Readable when there is a report.
    int descriptor() const { return reports[0]; }

    /// Waits for the next report.
    std::string readReport() const;

private:
    void obey(const Body& body);
    int command(int number);

    int commands[2] = {-1, -1};
    int reports[2] = {-1, -1};
};

/// Runs @p count simulated devices, the first at 10.77.1.1, and reports "ready". The function code of each is its
/// number, counted from 1. @p change changes the options of the device with that number.
int runSimulatedDevices(int count, const DeviceProcess& process,
                        const std::function<void(int number, Simulator::DeviceOptions& options)>& change);

/// Runs @p test in a private network, with @p body on the device side. There are @p addresses for devices, from
/// 10.77.1.1 on. Returns the status of @p test, or that of a skipped test if there can be no private network.
int runAgainst(const DeviceProcess::Body& body, int addresses, const std::function<int(DeviceProcess&)>& test);

} // namespace Tests
} // namespace Velmora

#endif

#include <tests/wire/DeviceProcess.h>

#include <QtCore/QCoreApplication>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace Velmora {
namespace Tests {

using Simulator::PrivateNetwork;

namespace {

// A command is STOP, or the number of the process to start.
const int STOP = -1;

} // namespace

DeviceProcess::DeviceProcess(PrivateNetwork& network, const Body& body)
{
    for (int* const pair : {commands, reports}) {
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) == -1)
            throw std::runtime_error("no socket pair");
    }
    const pid_t child = fork();
    if (child == -1)
        throw std::runtime_error("cannot fork");
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        network.enter(PrivateNetwork::DeviceSide);
        close(commands[0]);
        obey(body);
        _exit(0);
    }
    close(commands[1]);
}

DeviceProcess::~DeviceProcess()
{
    close(commands[0]);
    for (const int end : reports)
        close(end);
    while (wait(nullptr) == -1 && errno == EINTR) { }
}

void DeviceProcess::obey(const Body& body)
{
    pid_t running = 0;
    int command = STOP;
    while (recv(commands[1], &command, sizeof command, 0) == sizeof command) {
        if (command == STOP) {
            if (running > 0) {
                kill(running, SIGKILL);
                while (waitpid(running, nullptr, 0) == -1 && errno == EINTR) { }
            }
            running = 0;
        } else {
            running = fork();
            if (running == 0) {
                prctl(PR_SET_PDEATHSIG, SIGKILL);
                _exit(body(command, *this));
            }
        }
        if (send(commands[1], &running, sizeof running, MSG_NOSIGNAL) != sizeof running)
            return;
    }
}

int DeviceProcess::command(int number)
{
    pid_t running = -1;
    if (send(commands[0], &number, sizeof number, MSG_NOSIGNAL) != sizeof number
        || recv(commands[0], &running, sizeof running, 0) != sizeof running || running == -1)
        throw std::runtime_error("the device side is gone");
    return running;
}

void DeviceProcess::start(int number)
{
    command(number);
}

void DeviceProcess::stop()
{
    command(STOP);
    char late[4096];
    while (recv(reports[0], late, sizeof late, MSG_DONTWAIT) > 0) { }
}

void DeviceProcess::report(const std::string& text) const
{
    if (send(reports[1], text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size()))
        _exit(1);
}

std::string DeviceProcess::readReport() const
{
    char buffer[4096];
    const ssize_t n = recv(reports[0], buffer, sizeof buffer, 0);
    if (n <= 0)
        throw std::runtime_error("no report");
    return std::string(buffer, static_cast<size_t>(n));
}

int runSimulatedDevices(int count, const DeviceProcess& process,
                        const std::function<void(int number, Simulator::DeviceOptions& options)>& change)
{
    int argc = 1;
    char name[] = "devices";
    char* argv[] = {name, nullptr};
    QCoreApplication application(argc, argv);

    Simulator::SsdpGroup group;
    std::vector<std::unique_ptr<Simulator::SimulatedDevice>> devices;
    for (int number = 1; number <= count; ++number) {
        Simulator::DeviceOptions options;
        options.address =
            QHostAddress(QString::fromStdString(Simulator::PrivateNetwork::addressAfter("10.77.1.1", number - 1)));
        options.functionCode = number;
        options.variables = QStringList({"KO", "Other"});
        options.responseDelayMax = 0;
        // The library searches only once, and a busy kernel may lose that datagram.
        options.announceEvery = 500;
        // If the gap is shorter, a busy machine may read head and body together.
        options.eventGap = 150;
        change(number, options);
        devices.push_back(std::make_unique<Simulator::SimulatedDevice>(&group, options));
        if (!devices.back()->start())
            return 1;
    }
    process.report("ready");
    return QCoreApplication::exec();
}

int runAgainst(const DeviceProcess::Body& body, int addresses, const std::function<int(DeviceProcess&)>& test)
{
    try {
        PrivateNetwork network;
        network.addLink("10.77.0.1/16", "10.77.1.1/16", addresses);
        DeviceProcess devices(network, body);
        return test(devices);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "no private network: %s\n", error.what());
        const char* const required = std::getenv("VELMORA_REQUIRE_NETWORK");
        return required && std::atoi(required) != 0 ? 1 : 77;
    }
}

} // namespace Tests
} // namespace Velmora

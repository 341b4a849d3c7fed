#include <simulator/PrivateNetwork.h>
#include <tools/Output.h>

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using namespace Velmora::Tools;
using Velmora::Simulator::PrivateNetwork;

namespace {

const int FAILED = 125; // as env(1) and timeout(1): not the command's own status

const char HELP[] = R"(Usage: ssdp-lab [options] [options of ssdp-simulator] -- COMMAND...
Runs COMMAND in a private network with simulated devices and ends with its exit status.

The network has a host side, where COMMAND runs, and a device side, where ssdp-simulator runs,
joined by a pair of virtual interfaces. Nothing in it reaches the machine's own network, and
nothing of it stays. It works as root, and without root where the kernel allows user namespaces.

Options:
  --devices N              How many devices (1); 0 leaves the device side empty.
  --first-address ADDRESS  The first device's address (10.77.1.1); the host is .0.1 of the same /16.
  --second-interface       A second pair in the next /16 (10.78.1.1), with as many devices again.
  --rate RATE              How fast the devices may send, as tc(8) takes it, such as 1mbit.
  --verbose                Shows what the simulator prints, on standard error.
  -h, --help               Shows this text.
  -v, --version            Shows the version.
Every other option goes to ssdp-simulator, whose --trace is printed on standard error;
'ssdp-simulator --help' and 'ssdp-simulator --list-faults' tell of them.

Exit status: that of COMMAND, 128 and the number of the signal that ended it, 127 when there is no
such command, 2 for a wrong option, 125 when the network or the simulator could not be set up.

Example: ssdp-lab --devices 3 --fault 2:error-500 -- ssdp-discover
)";

struct Settings
{
    int devices = 1;
    std::string firstAddress = "10.77.1.1";
    bool secondInterface = false;
    std::string rate;
    bool verbose = false;
    std::vector<std::string> simulatorOptions;
    std::vector<std::string> command;
};

[[noreturn]] void failUsage(const std::string& text)
{
    std::fprintf(stderr, "ssdp-lab: %s\nTry 'ssdp-lab --help'.\n", text.c_str());
    std::exit(USAGE_ERROR);
}

/// The value of argument @p i when it is "--name=value" or "--name" and "value"; moves @p i on.
bool takeValue(const std::vector<std::string>& arguments, size_t& i, const std::string& name, std::string& value)
{
    const std::string& argument = arguments[i];
    if (argument.compare(0, name.size() + 1, name + "=") == 0) {
        value = argument.substr(name.size() + 1);
        return true;
    }
    if (argument != name)
        return false;
    if (i + 1 == arguments.size())
        failUsage(name + " takes a value");
    value = arguments[++i];
    return true;
}

int numberOfDevices(const std::string& text)
{
    char* end = nullptr;
    const long number = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || number < 0 || number > 10000)
        failUsage("--devices takes a number from 0 to 10000, not '" + text + "'");
    return static_cast<int>(number);
}

Settings readSettings(const std::vector<std::string>& arguments)
{
    Settings settings;
    std::string devices;
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (argument == "--") {
            settings.command.assign(arguments.begin() + static_cast<std::ptrdiff_t>(i) + 1, arguments.end());
            break;
        }
        if (argument == "-h" || argument == "--help") {
            print(HELP, FAILED);
            std::exit(0);
        } else if (argument == "-v" || argument == "--version") {
            print("ssdp-lab " VELMORA_VERSION "\n", FAILED);
            std::exit(0);
        } else if (argument == "--second-interface") {
            settings.secondInterface = true;
        } else if (argument == "--verbose") {
            settings.verbose = true;
        } else if (takeValue(arguments, i, "--devices", devices)) {
            settings.devices = numberOfDevices(devices);
        } else if (!takeValue(arguments, i, "--first-address", settings.firstAddress)
                   && !takeValue(arguments, i, "--rate", settings.rate)) {
            settings.simulatorOptions.push_back(argument);
        }
    }
    if (settings.command.empty())
        failUsage("give the command after '--'");
    in_addr address;
    if (inet_pton(AF_INET, settings.firstAddress.c_str(), &address) != 1)
        failUsage("'" + settings.firstAddress + "' is not an IPv4 address");
    return settings;
}

/// The address .0.1 of the /16 of @p address.
std::string hostAddress(const std::string& address)
{
    const size_t second = address.find('.', address.find('.') + 1);
    return address.substr(0, second) + ".0.1";
}

void addLink(PrivateNetwork& network, const Settings& settings, const std::string& firstAddress)
{
    const int addresses = settings.devices > 0 ? settings.devices : 1;
    for (int i = 0; i < addresses; ++i) {
        if (PrivateNetwork::addressAfter(firstAddress, i) == hostAddress(firstAddress))
            failUsage("a device would have the host's own address, " + hostAddress(firstAddress));
    }
    network.addLink(hostAddress(firstAddress) + "/16", firstAddress + "/16", addresses, settings.rate);
}

/// Commands are looked for beside this program first, as in a build folder.
void searchHereFirst()
{
    char path[4096];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    if (length == -1)
        return;
    const std::string program(path, static_cast<size_t>(length));
    const char* const others = std::getenv("PATH");
    const std::string here = program.substr(0, program.rfind('/'));
    setenv("PATH", (here + ":" + (others ? others : "/usr/bin:/bin")).c_str(), 1);
}

/// Makes a started process into @p command, which ends when @p parent does.
[[noreturn]] void become(const std::vector<std::string>& command, pid_t parent)
{
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) // has ended already
        _exit(FAILED);
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string& argument : command)
        arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    execvp(arguments.front(), arguments.data());
    std::fprintf(stderr, "ssdp-lab: cannot run '%s': %s\n", command.front().c_str(), std::strerror(errno));
    _exit(errno == ENOENT ? 127 : 126);
}

pid_t startProcess()
{
    const pid_t child = fork();
    if (child == -1)
        throw std::runtime_error(std::string("cannot start a process: ") + std::strerror(errno));
    return child;
}

/// Starts the simulator on the device side. Returns once its devices are on.
pid_t startSimulator(PrivateNetwork& network, const Settings& settings,
                     const std::vector<std::string>& firstAddresses)
{
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) == -1)
        throw std::runtime_error(std::string("cannot make a pipe: ") + std::strerror(errno));
    std::vector<std::string> command = {"ssdp-simulator", "--devices", std::to_string(settings.devices),
                                        "--ready-fd", std::to_string(ready[1])};
    for (const std::string& address : firstAddresses) {
        command.emplace_back("--first-address");
        command.push_back(address);
    }
    if (!settings.verbose)
        command.emplace_back("--quiet");
    command.insert(command.end(), settings.simulatorOptions.begin(), settings.simulatorOptions.end());

    const pid_t parent = getpid();
    const pid_t simulator = startProcess();
    if (simulator == 0) {
        network.enter(PrivateNetwork::DeviceSide);
        // A key press that interrupts the command must not end its devices first.
        setpgid(0, 0);
        fcntl(ready[1], F_SETFD, 0);
        dup2(STDERR_FILENO, STDOUT_FILENO);
        become(command, parent);
    }
    close(ready[1]);
    char line = 0;
    ssize_t length = 0;
    while ((length = read(ready[0], &line, 1)) == -1 && errno == EINTR) { }
    close(ready[0]);
    if (length == 1)
        return simulator;

    int status = 0;
    waitpid(simulator, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == USAGE_ERROR)
        std::exit(USAGE_ERROR);
    throw std::runtime_error("the simulator did not start");
}

int exitStatus(int status)
{
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

/// Lets the simulator say goodbye, though not for ever.
void end(pid_t simulator)
{
    sigset_t childEnded;
    sigemptyset(&childEnded);
    sigaddset(&childEnded, SIGCHLD);
    const timespec patience = {5, 0};
    kill(simulator, SIGTERM);
    while (waitpid(simulator, nullptr, WNOHANG) == 0) {
        if (sigtimedwait(&childEnded, nullptr, &patience) == -1 && errno == EAGAIN)
            kill(simulator, SIGKILL);
    }
}

/// Waits for @p command to end, and passes on to it the signals that this process gets.
int waitFor(pid_t command, pid_t simulator, const sigset_t& signals)
{
    for (;;) {
        siginfo_t information = {};
        const int number = sigwaitinfo(&signals, &information);
        if (number == -1)
            continue;
        if (number != SIGCHLD) {
            // From the terminal the command has it already, like everything in the foreground.
            if (information.si_code == SI_USER)
                kill(command, number);
            continue;
        }
        // One SIGCHLD may stand for several children.
        int status = 0;
        if (simulator > 0 && waitpid(simulator, &status, WNOHANG) == simulator) {
            std::fprintf(stderr, "ssdp-lab: the simulator ended early with status %d\n", exitStatus(status));
            simulator = 0;
        }
        if (waitpid(command, &status, WNOHANG) == command) {
            if (simulator > 0)
                end(simulator);
            return exitStatus(status);
        }
    }
}

} // namespace

int main(int argc, char* argv[])
{
    openStandardDescriptors();
    const Settings settings = readSettings(std::vector<std::string>(argv + 1, argv + argc));
    try {
        std::vector<std::string> firstAddresses = {settings.firstAddress};
        if (settings.secondInterface)
            firstAddresses.push_back(PrivateNetwork::addressAfter(settings.firstAddress, 1 << 16));

        PrivateNetwork network;
        for (const std::string& address : firstAddresses)
            addLink(network, settings, address);
        searchHereFirst();

        // Until here a signal ends this process and with it the simulator; from here on it is the command's.
        const pid_t simulator = settings.devices > 0 ? startSimulator(network, settings, firstAddresses) : 0;
        sigset_t signals;
        sigset_t before;
        sigemptyset(&signals);
        for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGCHLD})
            sigaddset(&signals, number);
        sigprocmask(SIG_BLOCK, &signals, &before);

        const pid_t parent = getpid();
        const pid_t command = startProcess();
        if (command == 0) {
            sigprocmask(SIG_SETMASK, &before, nullptr);
            become(settings.command, parent);
        }
        return waitFor(command, simulator, signals);
    } catch (const std::runtime_error& error) {
        std::fprintf(stderr, "ssdp-lab: %s\n", error.what());
        return FAILED;
    }
}

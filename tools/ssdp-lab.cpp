#include <simulator/PrivateNetwork.h>
#include <tools/Output.h>

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <set>
#include <sstream>
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

// How long the processes that COMMAND leaves, and the simulator, may take to end.
const std::chrono::seconds PATIENCE(5);

const char HELP[] = R"(Usage: ssdp-lab [options] [options of ssdp-simulator] -- COMMAND...
Runs COMMAND in a private network with simulated devices, and ends with its
exit status.

The network has a host side, where COMMAND runs, and a device side, where
ssdp-simulator runs, joined by a pair of virtual interfaces. Nothing in it
reaches the machine's own network. Processes that COMMAND leaves are ended
when it has ended. It works as root, and without root where the kernel allows
user namespaces.

Options:
  --devices N              How many devices (1); 0 leaves the device side
                           empty.
  --first-address ADDRESS  The first device's address (10.77.1.1); the host is
                           .0.1 of the same /16.
  --second-interface       A second pair in the next /16 (10.78.1.1), with as
                           many devices again.
  --rate RATE              How fast the devices may send, as tc(8) takes it,
                           such as 1mbit.
  --verbose                Shows what the simulator prints, on standard error.
  -h, --help               Shows this text.
  -v, --version            Shows the version.
Every other option goes to ssdp-simulator, whose --trace is printed on
standard error; 'ssdp-simulator --help' and 'ssdp-simulator --list-faults'
explain them.

Exit status: that of COMMAND, 128 and the number of the signal that ended it,
127 when there is no such command, 126 when it cannot be run, 2 for a wrong
option, 125 when the network or the simulator could not be set up.

Example: ssdp-lab --devices 3 --fault 2:error-500 -- ssdp-discover
)";

struct Settings
{
    int devices = 1;
    std::vector<std::string> firstAddresses = {"10.77.1.1"}; ///< One for each interface.
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

/// The address with these last two numbers in the /16 of @p address.
std::string inNetworkOf(uint32_t address, const char* lastNumbers)
{
    return std::to_string(address >> 24) + "." + std::to_string(address >> 16 & 0xff) + "." + lastNumbers;
}

uint32_t parseAddress(const std::string& text)
{
    in_addr address = {};
    if (inet_pton(AF_INET, text.c_str(), &address) != 1)
        failUsage("'" + text + "' is not an IPv4 address");
    return ntohl(address.s_addr);
}

/// Fails unless @p devices can have the addresses from @p firstAddress on, beside their host.
void checkAddresses(const std::string& firstAddress, int devices)
{
    const uint32_t first = parseAddress(firstAddress);
    const uint32_t last = first + static_cast<uint32_t>(devices > 0 ? devices - 1 : 0);
    const uint32_t number = first >> 24;
    if (number == 0 || number == 127 || number > 223) {
        failUsage("devices cannot have the address " + firstAddress
                  + ", only one from 1.0.0.2 to 223.255.255.254 that does not begin with 127");
    }
    if ((first & 0xffff) < 2 || last >> 16 != first >> 16 || (last & 0xffff) == 0xffff) {
        failUsage("the addresses of the devices, from " + firstAddress + " on, have to be within "
                  + inNetworkOf(first, "0.2") + " to " + inNetworkOf(first, "255.254"));
    }
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
        } else if (argument == "--ready-fd" || argument.compare(0, 11, "--ready-fd=") == 0) {
            failUsage("--ready-fd is taken: COMMAND starts when the devices are on");
        } else if (!takeValue(arguments, i, "--first-address", settings.firstAddresses.front())
                   && !takeValue(arguments, i, "--rate", settings.rate)) {
            settings.simulatorOptions.push_back(argument);
        }
    }
    if (settings.command.empty())
        failUsage("give the command after '--'");
    if (settings.secondInterface) {
        parseAddress(settings.firstAddresses.front());
        settings.firstAddresses.push_back(PrivateNetwork::addressAfter(settings.firstAddresses.front(), 1 << 16));
    }
    for (const std::string& address : settings.firstAddresses)
        checkAddresses(address, settings.devices);
    return settings;
}

std::string folderOfThisProgram()
{
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    if (length == -1)
        return std::string();
    const std::string program(path, static_cast<size_t>(length));
    return program.substr(0, program.rfind('/'));
}

/// The simulator that was built with this program, wherever COMMAND's programs come from.
std::string simulatorProgram()
{
    const std::string here = folderOfThisProgram() + "/ssdp-simulator";
    return access(here.c_str(), X_OK) == 0 ? here : "ssdp-simulator";
}

/// What is not in the PATH is looked for beside this program, as in a build folder.
void searchHereLast()
{
    const char* const path = std::getenv("PATH");
    setenv("PATH", (std::string(path ? path : "/usr/bin:/bin") + ":" + folderOfThisProgram()).c_str(), 1);
}

/// The signals that are passed on to COMMAND, and SIGCHLD.
sigset_t watchedSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2, SIGCHLD})
        sigaddset(&signals, number);
    return signals;
}

/// From now on @p parent's end sends SIGTERM. A new user namespace clears that.
void followParent(pid_t parent)
{
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) // has ended already
        _exit(FAILED);
}

/// A new process that follows this one; 0 in that process.
pid_t startProcess()
{
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == -1)
        throw std::runtime_error(std::string("cannot start a process: ") + std::strerror(errno));
    if (child == 0)
        followParent(parent);
    return child;
}

/// Makes a started process into @p command.
[[noreturn]] void become(const std::vector<std::string>& command)
{
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string& argument : command)
        arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    execvp(arguments.front(), arguments.data());
    const int error = errno;
    std::fprintf(stderr, "ssdp-lab: cannot run '%s': %s\n", command.front().c_str(), std::strerror(error));
    _exit(error == ENOENT ? 127 : 126);
}

int exitStatus(int status)
{
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

/// Waits for the simulator to end, of which nothing else was expected.
void waitForFailure(pid_t simulator)
{
    int status = 0;
    while (waitpid(simulator, &status, 0) == -1 && errno == EINTR) { }
    if (exitStatus(status) == USAGE_ERROR)
        std::exit(USAGE_ERROR);
}

/// Lets the simulator complain of its options where it would not be started.
void checkSimulatorOptions(const std::vector<std::string>& options)
{
    const pid_t simulator = startProcess();
    if (simulator == 0) {
        dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
        std::vector<std::string> command = {simulatorProgram()};
        command.insert(command.end(), options.begin(), options.end());
        command.emplace_back("--list-faults");
        become(command);
    }
    waitForFailure(simulator);
}

/// Starts the simulator on the device side. Returns once its devices are on.
pid_t startSimulator(PrivateNetwork& network, const Settings& settings)
{
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) == -1)
        throw std::runtime_error(std::string("cannot make a pipe: ") + std::strerror(errno));
    std::vector<std::string> command = {simulatorProgram(), "--devices", std::to_string(settings.devices),
                                        "--ready-fd", std::to_string(ready[1])};
    for (const std::string& address : settings.firstAddresses) {
        command.emplace_back("--first-address");
        command.push_back(address);
    }
    if (!settings.verbose)
        command.emplace_back("--quiet");
    command.insert(command.end(), settings.simulatorOptions.begin(), settings.simulatorOptions.end());

    const pid_t simulator = startProcess();
    if (simulator == 0) {
        network.enter(PrivateNetwork::DeviceSide);
        // A key press that interrupts the command must not end its devices first. Outside the terminal's
        // foreground, what they print could stop them.
        setpgid(0, 0);
        std::signal(SIGTTOU, SIG_IGN);
        fcntl(ready[1], F_SETFD, 0);
        dup2(STDERR_FILENO, STDOUT_FILENO);
        become(command);
    }
    close(ready[1]);
    char line = 0;
    ssize_t length = 0;
    while ((length = read(ready[0], &line, 1)) == -1 && errno == EINTR) { }
    close(ready[0]);
    if (length == 1)
        return simulator;
    waitForFailure(simulator);
    throw std::runtime_error("the simulator did not start");
}

/// Waits for @p command to end, or for @p parent, and passes on to @p command the signals that this process gets.
int waitFor(pid_t command, pid_t simulator, pid_t parent)
{
    const sigset_t signals = watchedSignals();
    for (;;) {
        int status = 0;
        pid_t ended = 0;
        while ((ended = waitpid(-1, &status, WNOHANG)) > 0) {
            if (ended == command)
                return exitStatus(status);
            if (ended == simulator)
                std::fprintf(stderr, "ssdp-lab: the simulator ended early with status %d\n", exitStatus(status));
        }
        siginfo_t information = {};
        const int number = sigwaitinfo(&signals, &information);
        if (getppid() != parent)
            return FAILED;
        // From the terminal the command has it already, like everything in the foreground.
        if (number > 0 && number != SIGCHLD && information.si_code <= 0)
            kill(command, number);
    }
}

std::vector<pid_t> children()
{
    std::vector<pid_t> result;
    DIR* const processes = opendir("/proc");
    while (const dirent* const entry = processes ? readdir(processes) : nullptr) {
        std::ifstream file("/proc/" + std::string(entry->d_name) + "/stat");
        std::string text;
        std::getline(file, text, '\0');
        // The name of the program, in parentheses, may have anything in it.
        const size_t nameEnd = text.rfind(')');
        char state = 0;
        pid_t parent = 0;
        if (nameEnd != std::string::npos && std::istringstream(text.substr(nameEnd + 1)) >> state >> parent
            && parent == getpid())
            result.push_back(static_cast<pid_t>(std::atoi(entry->d_name)));
    }
    if (processes)
        closedir(processes);
    return result;
}

/// Ends what COMMAND has left, and the simulator: lets them say goodbye, though not for ever.
void endChildren()
{
    sigset_t childEnded;
    sigemptyset(&childEnded);
    sigaddset(&childEnded, SIGCHLD);
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    std::set<pid_t> told;
    for (;;) {
        pid_t ended = 0;
        while ((ended = waitpid(-1, nullptr, WNOHANG)) > 0) { }
        if (ended == -1)
            return;
        const bool isLate = std::chrono::steady_clock::now() >= deadline;
        for (const pid_t child : children()) {
            if (isLate)
                kill(child, SIGKILL);
            else if (told.insert(child).second)
                kill(child, SIGTERM);
        }
        const timespec moment = {0, 100L * 1000 * 1000};
        sigtimedwait(&childEnded, nullptr, &moment);
    }
}

/// Makes the network and runs COMMAND in it, with the signals blocked that were before.
int runCommand(const Settings& settings, const sigset_t& blocked, pid_t parent)
{
    if (settings.devices == 0 && !settings.simulatorOptions.empty())
        checkSimulatorOptions(settings.simulatorOptions);
    PrivateNetwork network;
    followParent(parent);
    for (const std::string& address : settings.firstAddresses) {
        network.addLink(inNetworkOf(parseAddress(address), "0.1/16"), address + "/16",
                        settings.devices > 0 ? settings.devices : 1, settings.rate);
    }
    const pid_t simulator = settings.devices > 0 ? startSimulator(network, settings) : 0;

    // Until here a signal ends this process and with it the simulator; from here on it is the command's.
    const sigset_t signals = watchedSignals();
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    const pid_t command = startProcess();
    if (command == 0) {
        sigprocmask(SIG_SETMASK, &blocked, nullptr);
        searchHereLast();
        become(settings.command);
    }
    return waitFor(command, simulator, parent);
}

} // namespace

int main(int argc, char* argv[])
{
    openStandardDescriptors();
    // Some starters leave it ignored; then nobody learns how a child has ended.
    std::signal(SIGCHLD, SIG_DFL);
    const Settings settings = readSettings(std::vector<std::string>(argv + 1, argv + argc));

    const pid_t self = getpid();
    const sigset_t signals = watchedSignals();
    sigset_t blocked;
    sigprocmask(SIG_BLOCK, &signals, &blocked);
    int status = FAILED;
    try {
        // Two processes, each of which cleans up when the other is killed.
        const pid_t keeper = startProcess();
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        if (keeper == 0) {
            sigprocmask(SIG_SETMASK, &blocked, nullptr);
            status = runCommand(settings, blocked, self);
        } else {
            status = waitFor(keeper, 0, getppid());
        }
    } catch (const std::runtime_error& error) {
        std::fprintf(stderr, "ssdp-lab: %s\n", error.what());
    }
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    endChildren();
    return status;
}

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

const int FAILED = 125; // as in env(1) and timeout(1), to differ from the statuses of COMMAND

// How long the simulator, and the processes that COMMAND left running, may take to end.
const std::chrono::seconds PATIENCE(5);

const char HELP[] = R"(Usage: ssdp-lab [options] [options of ssdp-simulator] -- COMMAND...
Runs COMMAND in a private network with simulated devices. Its exit status is
that of COMMAND.

COMMAND runs on the host side of the network, and ssdp-simulator on the device
side. A pair of virtual interfaces connects the two sides. The private network
is not connected to the machine's network. When COMMAND has ended, the
processes that it left running are ended. The program needs root, or a kernel
that allows user namespaces.

Options:
  --devices N              The number of devices (1). With 0, there are none.
  --first-address ADDRESS  The address of the first device (10.77.1.1). The
                           host has the address .0.1 of the same /16 network.
  --second-interface       Adds a second pair of interfaces in the next /16
                           network, with the same number of devices.
  --rate RATE              Limits how fast the devices send. The format is
                           that of tc(8), such as 1mbit.
  --verbose                Prints the simulator's output on standard error.
  -h, --help               Shows this text.
  -v, --version            Shows the version.
All other options are passed on to ssdp-simulator. 'ssdp-simulator --help' and
'ssdp-simulator --list-faults' explain them. The messages that --trace prints
are on standard error.

Exit status: that of COMMAND; 128 + n if the signal with the number n ended
COMMAND; 127 if there is no such command; 126 if it cannot be run; 2 if an
option is wrong; 125 if the network or the simulator could not be set up.

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

/// Returns whether argument @p i is the option @p name. If so, sets @p value from the same argument or the next
/// one, and sets @p i to the argument that has the value.
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

/// Returns the address in the /16 network of @p address that ends in @p lastNumbers.
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

/// Ends the program if the devices cannot have the addresses from @p firstAddress on.
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

/// Returns the simulator in the folder of this program. If there is none, it is searched for in PATH.
std::string simulatorProgram()
{
    const std::string here = folderOfThisProgram() + "/ssdp-simulator";
    return access(here.c_str(), X_OK) == 0 ? here : "ssdp-simulator";
}

/// A program that is not in PATH is searched for in the folder of this program, such as a build folder.
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

/// When @p parent ends, this process gets SIGTERM. Call this again after creating a user namespace, which clears
/// the setting.
void followParent(pid_t parent)
{
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) // has ended already
        _exit(FAILED);
}

/// Starts a process that ends with this one. Returns 0 in the new process.
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

/// Replaces this process with @p command.
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

/// Waits for the simulator to end. If an option was wrong, ends this program, too.
void waitForFailure(pid_t simulator)
{
    int status = 0;
    while (waitpid(simulator, &status, 0) == -1 && errno == EINTR) { }
    if (exitStatus(status) == USAGE_ERROR)
        std::exit(USAGE_ERROR);
}

/// Runs the simulator only to check its options. Used when there are no devices.
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

/// Starts the simulator on the device side. Returns when its devices are running.
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
        // Ctrl+C must not end the devices before the command, so they are not in its process group. A process
        // in the background gets SIGTTOU when it prints, and would stop.
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

/// Waits until @p command or @p parent ends. Passes the signals that this process gets on to @p command.
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
        // A signal from the terminal goes to all processes in the foreground, so the command has it already.
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
        // The name of the program, in parentheses, may contain any character.
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

/// Ends the simulator and the processes that COMMAND left running: with SIGTERM, and after PATIENCE with SIGKILL.
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

/// Creates the network and runs COMMAND in it. COMMAND blocks the signals in @p blocked.
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

    // Before this line, a signal ends this process and the simulator. After it, signals go to the command.
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
    // If the parent process ignored SIGCHLD, so does this one. Then waitpid() does not return the status of a
    // child.
    std::signal(SIGCHLD, SIG_DFL);
    const Settings settings = readSettings(std::vector<std::string>(argv + 1, argv + argc));

    const pid_t self = getpid();
    const sigset_t signals = watchedSignals();
    sigset_t blocked;
    sigprocmask(SIG_BLOCK, &signals, &blocked);
    int status = FAILED;
    try {
        // There are two processes. If one is killed, the other cleans up.
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

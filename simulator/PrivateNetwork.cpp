#include <simulator/PrivateNetwork.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/capability.h>
#include <linux/ethtool.h>
#include <linux/rtnetlink.h>
#include <linux/sockios.h>
#include <memory>
#include <net/if.h>
#include <sched.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Velmora {
namespace Simulator {

namespace {

[[noreturn]] void fail(const std::string& what)
{
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

void writeFile(const std::string& path, const std::string& text)
{
    const int file = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (file == -1)
        fail("cannot open " + path);
    const bool written = write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    const int error = errno;
    close(file);
    errno = error;
    if (!written)
        fail("cannot write " + path);
}

/// Returns whether the calling process may create networks in its user namespace.
bool mayMakeNetworks()
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
    const __u32 needed = CAP_TO_MASK(CAP_SYS_ADMIN) | CAP_TO_MASK(CAP_NET_ADMIN);
    return syscall(SYS_capget, &header, sets) == 0 && (sets[0].effective & needed) == needed;
}

void becomeRootOfOwnUserNamespace()
{
    const std::string user = std::to_string(geteuid());
    const std::string group = std::to_string(getegid());
    try {
        if (unshare(CLONE_NEWUSER) == -1)
            fail("cannot make a user namespace");
        writeFile("/proc/self/setgroups", "deny");
        writeFile("/proc/self/uid_map", "0 " + user + " 1");
        writeFile("/proc/self/gid_map", "0 " + group + " 1");
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(
            std::string(
                "a private network needs the capabilities CAP_SYS_ADMIN and CAP_NET_ADMIN, which are missing"
                " here, or a user namespace, which the kernel does not give (")
            + error.what()
            + ").\nRun as root, in a container with '--cap-add SYS_ADMIN --cap-add NET_ADMIN', or allow user"
              " namespaces:\n  sysctl -w user.max_user_namespaces=10000\nand, where they exist,\n"
              "  sysctl -w kernel.unprivileged_userns_clone=1\n"
              "  sysctl -w kernel.apparmor_restrict_unprivileged_userns=0");
    }
}

int newNetwork()
{
    if (unshare(CLONE_NEWNET) == -1)
        fail("the kernel gives no network namespace");
    const int descriptor = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    if (descriptor == -1)
        fail("cannot open /proc/thread-self/ns/net");
    return descriptor;
}

std::string addressOf(const std::string& addressWithPrefix)
{
    return addressWithPrefix.substr(0, addressWithPrefix.find('/'));
}

std::string prefixOf(const std::string& addressWithPrefix)
{
    const size_t slash = addressWithPrefix.find('/');
    return slash == std::string::npos ? std::string("/32") : addressWithPrefix.substr(slash);
}

/// Receives the events of the links in the calling thread's network.
class LinkEvents
{
public:
    LinkEvents()
        : descriptor(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE))
    {
        sockaddr_nl address = {};
        address.nl_family = AF_NETLINK;
        address.nl_groups = RTMGRP_LINK;
        const timeval patience = {5, 0};
        if (descriptor == -1 || bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) == -1
            || setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience) == -1)
            fail("cannot watch the links");
    }
    ~LinkEvents() { close(descriptor); }
    LinkEvents(const LinkEvents&) = delete;
    LinkEvents& operator=(const LinkEvents&) = delete;

    void waitUntilRunning(const std::string& name)
    {
        const int link = ask(name);
        alignas(nlmsghdr) char buffer[16384];
        for (;;) {
            const ssize_t size = recv(descriptor, buffer, sizeof buffer, 0);
            if (size == -1)
                fail("the link does not come up");
            auto left = static_cast<__u32>(size);
            for (auto* message = reinterpret_cast<nlmsghdr*>(buffer); NLMSG_OK(message, left);
                 message = NLMSG_NEXT(message, left)) {
                const auto* const info = static_cast<const ifinfomsg*>(NLMSG_DATA(message));
                if (message->nlmsg_type == RTM_NEWLINK && info->ifi_index == link
                    && (info->ifi_flags & IFF_RUNNING))
                    return;
            }
        }
    }

private:
    /// Returns the index of a link. It also reads the state of the link: newer kernels then update it at once.
    /// Otherwise, the kernel updates it only once a second.
    int ask(const std::string& name)
    {
        ifreq request = {};
        name.copy(request.ifr_name, IFNAMSIZ - 1);
        ethtool_value state = {};
        state.cmd = ETHTOOL_GLINK;
        request.ifr_data = reinterpret_cast<char*>(&state);
        ioctl(descriptor, SIOCETHTOOL, &request);
        if (ioctl(descriptor, SIOCGIFINDEX, &request) == -1)
            fail("cannot find the link " + name);
        return request.ifr_ifindex;
    }

    int descriptor;
};

} // namespace

PrivateNetwork::PrivateNetwork()
    : links(0)
{
    if (!mayMakeNetworks())
        becomeRootOfOwnUserNamespace();
    sides[DeviceSide] = newNetwork();
    sides[HostSide] = newNetwork();
    for (const Side side : {DeviceSide, HostSide})
        run(side, {"ip", "link", "set", "lo", "up"});
}

PrivateNetwork::~PrivateNetwork()
{
    for (const int side : sides)
        close(side);
}

void PrivateNetwork::addLink(const std::string& hostAddress, const std::string& firstDeviceAddress,
                             int deviceAddresses, const std::string& rate)
{
    const std::string number = std::to_string(links++);
    const std::string host = "host" + number;
    const std::string device = "device" + number;
    const std::string deviceSide =
        "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(sides[DeviceSide]);

    std::string batch = "link add " + host + " type veth peer name " + device + " netns " + deviceSide + "\n";
    if (!hostAddress.empty())
        batch += "addr add " + hostAddress + " dev " + host + "\n";
    batch += "link set " + host + " up\n";
    run(HostSide, {"ip", "-batch", "-"}, batch);

    batch.clear();
    for (int i = 0; i < deviceAddresses; ++i) {
        batch += "addr add " + addressAfter(addressOf(firstDeviceAddress), i) + prefixOf(firstDeviceAddress)
            + " dev " + device + "\n";
    }
    batch += "link set " + device + " up\n";
    // Until the kernel has noticed that both ends are up, it drops packets without an error.
    LinkEvents hostEvents;
    std::unique_ptr<LinkEvents> deviceEvents;
    {
        const Scope scope(*this, DeviceSide);
        deviceEvents = std::make_unique<LinkEvents>();
    }
    run(DeviceSide, {"ip", "-batch", "-"}, batch);
    hostEvents.waitUntilRunning(host);
    deviceEvents->waitUntilRunning(device);

    if (!rate.empty()) {
        run(DeviceSide,
            {"tc", "qdisc", "add", "dev", device, "root", "tbf", "rate", rate, "burst", "16kb", "latency",
             "500ms"});
    }
}

void PrivateNetwork::enter(Side side)
{
    if (setns(sides[side], CLONE_NEWNET) == -1)
        fail("cannot change the network namespace");
}

void PrivateNetwork::run(Side side, const std::vector<std::string>& command, const std::string& input)
{
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string& argument : command)
        arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);

    // The input is in a file, because a pipe would block when it is full.
    const int file = memfd_create("input", MFD_CLOEXEC);
    if (file == -1 || write(file, input.data(), input.size()) != static_cast<ssize_t>(input.size())
        || lseek(file, 0, SEEK_SET) != 0)
        fail("cannot write a temporary file");

    const pid_t child = fork();
    if (child == -1)
        fail("cannot start " + command.front());
    if (child == 0) {
        // The PATH of an ordinary user does not contain these folders.
        const char* const path = getenv("PATH");
        setenv("PATH", (std::string(path ? path : "/usr/bin:/bin") + ":/usr/local/sbin:/usr/sbin:/sbin").c_str(),
               1);
        if (setns(sides[side], CLONE_NEWNET) == 0 && dup2(file, STDIN_FILENO) != -1)
            execvp(arguments.front(), arguments.data());
        _exit(127);
    }
    close(file);
    int status = 0;
    while (waitpid(child, &status, 0) == -1) {
        if (errno != EINTR)
            fail("cannot tell how " + command.front() + " has ended");
    }
    if (status != 0) {
        std::string text;
        for (const std::string& argument : command)
            text += (text.empty() ? "" : " ") + argument;
        throw std::runtime_error(
            "'" + text + "' failed"
            + (WIFEXITED(status) && WEXITSTATUS(status) == 127 ? " (is iproute2 installed?)" : ""));
    }
}

void PrivateNetwork::setSetting(Side side, const std::string& name, const std::string& value)
{
    const Scope scope(*this, side);
    writeFile("/proc/sys/" + name, value);
}

std::string PrivateNetwork::addressAfter(const std::string& first, int index)
{
    in_addr address = {};
    if (inet_pton(AF_INET, first.c_str(), &address) != 1)
        throw std::runtime_error("'" + first + "' is not an IPv4 address");
    address.s_addr = htonl(ntohl(address.s_addr) + static_cast<uint32_t>(index));
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &address, text, sizeof text);
}

} // namespace Simulator
} // namespace Velmora

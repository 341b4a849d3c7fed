#include <bench/Measurement.h>

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else
#define CALLGRIND_ZERO_STATS
#define CALLGRIND_DUMP_STATS_AT(position)
#endif

namespace Velmora {
namespace Bench {

namespace {

const double UNKNOWN = -1;

[[noreturn]] void giveUp(const char* reason)
{
    std::fprintf(stderr, "%s\n", reason);
    std::exit(2);
}

double milliseconds(const timespec& time)
{
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
}

double milliseconds(const timeval& time)
{
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
}

/// Returns the time. The kernel uses the same clock for its time stamps.
double now()
{
    timespec time = {};
    clock_gettime(CLOCK_REALTIME, &time);
    return milliseconds(time);
}

double processorTime()
{
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return milliseconds(usage.ru_utime) + milliseconds(usage.ru_stime);
}

/// Returns the value of a line of /proc/self/status. Memory is in KiB.
long statusOf(const std::string& name)
{
    std::ifstream status("/proc/self/status");
    std::string word;
    long value = -1;
    while (status >> word) {
        if (word == name && status >> value)
            return value;
    }
    return value;
}

/// Returns how many connections the full queues of listening sockets refused in this network namespace.
long readListenDrops()
{
    std::ifstream netstat("/proc/net/netstat");
    std::string nameLine;
    std::string valueLine;
    while (std::getline(netstat, nameLine) && std::getline(netstat, valueLine)) {
        std::istringstream names(nameLine);
        std::istringstream values(valueLine);
        std::string name;
        std::string value;
        while (names >> name && values >> value) {
            if (name == "ListenDrops")
                return std::stol(value);
        }
    }
    return -1;
}

/// Returns how many datagrams full receive buffers dropped in this network namespace. The socket @p except
/// does not count.
long readDatagramDrops(int except)
{
    struct stat status = {};
    fstat(except, &status);
    const std::string exceptInode = std::to_string(status.st_ino);

    long drops = 0;
    std::ifstream table("/proc/net/udp");
    std::string line;
    std::getline(table, line);
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::vector<std::string> values;
        std::string value;
        while (fields >> value)
            values.push_back(value);
        if (values.size() >= 13 && values.at(9) != exceptInode)
            drops += std::stol(values.back());
    }
    return drops;
}

} // namespace

const char* const HOST_ADDRESS = "10.77.0.1";

Options::Options(int argc, char** argv)
    : devices(argc == 3 ? std::atoi(argv[1]) : 0)
    , timeout(argc == 3 ? std::atoi(argv[2]) : 0)
{
    if (devices <= 0 || timeout <= 0)
        giveUp("usage: HOST DEVICES TIMEOUT-IN-MILLISECONDS");
}

Measurement::Measurement(int devices)
    : expected(devices)
    , group(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0))
    , began(UNKNOWN)
    , beganAgain(UNKNOWN)
    , searched(UNKNOWN)
    , searchedAgain(UNKNOWN)
    , processorAtBegin(UNKNOWN)
    , processorAtLastReport(UNKNOWN)
    , idleMemory(0)
    , peakMemory(0)
    , threads(0)
    , listenDrops(0)
    , datagramDrops(0)
{
    found.reserve(static_cast<size_t>(devices));
    reportTimes.reserve(static_cast<size_t>(devices));

    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(1900);
    address.sin_addr.s_addr = inet_addr("239.255.255.250");
    ip_mreq membership = {};
    membership.imr_multiaddr = address.sin_addr;
    membership.imr_interface.s_addr = inet_addr(HOST_ADDRESS);
    const int on = 1;
    if (setsockopt(group, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == -1
        || setsockopt(group, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on) == -1
        || bind(group, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1
        || setsockopt(group, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) == -1)
        giveUp("This host is measured in a private network only: run bench/run.");
}

Measurement::~Measurement()
{
    close(group);
}

void Measurement::begin()
{
    // This sets the kernel's peak (VmHWM) to the memory that is resident now (proc(5), clear_refs).
    std::ofstream("/proc/self/clear_refs") << "5";
    idleMemory = statusOf("VmRSS:");
    listenDrops = readListenDrops();
    CALLGRIND_ZERO_STATS;
    processorAtBegin = processorTime();
    began = now();
}

bool Measurement::add(const std::string& codes, const std::string& address)
{
    if (!found.insert(inet_addr(address.c_str())).second)
        return false;
    std::fprintf(stderr, "%s %s\n", address.c_str(), codes.c_str());
    reportTimes.push_back(now());
    processorAtLastReport = processorTime();
    const bool all = reportTimes.size() == static_cast<size_t>(expected);
    if (all)
        CALLGRIND_DUMP_STATS_AT("last report");
    return all;
}

void Measurement::end()
{
    peakMemory = statusOf("VmHWM:");
    threads = statusOf("Threads:");
    listenDrops = readListenDrops() - listenDrops;
    datagramDrops = readDatagramDrops(group);
    searched = readSearchTime(began);
}

void Measurement::beginAgain()
{
    beganAgain = now();
}

bool Measurement::takeSearch()
{
    if (searchedAgain == UNKNOWN)
        searchedAgain = readSearchTime(beganAgain);
    return searchedAgain != UNKNOWN;
}

double Measurement::readSearchTime(double since) const
{
    char text[512];
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(timespec))];
    iovec buffer = {text, sizeof text};
    msghdr message = {};
    message.msg_iov = &buffer;
    message.msg_iovlen = 1;
    for (;;) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        const ssize_t size = recvmsg(group, &message, 0);
        if (size == -1)
            return UNKNOWN;
        const cmsghdr* const header = CMSG_FIRSTHDR(&message);
        if (!header || header->cmsg_type != SCM_TIMESTAMPNS || std::strncmp(text, "M-SEARCH", 8) != 0)
            continue;
        timespec stamp = {};
        std::memcpy(&stamp, CMSG_DATA(header), sizeof stamp);
        if (milliseconds(stamp) >= since)
            return milliseconds(stamp);
    }
}

void Measurement::print(const char* host, const char* version) const
{
    std::printf("{\"host\": \"%s\", \"version\": \"%s\", \"devices\": %d, \"found\": %zu, ", host, version,
                expected, reportTimes.size());
    std::printf("\"processor_ms\": %.3f, \"memory_kib\": %ld, ", processorAtLastReport - processorAtBegin,
                peakMemory - idleMemory);
    std::printf("\"first_start_ms\": %.3f, \"later_start_ms\": %.3f, ", searched - began,
                searchedAgain - beganAgain);
    std::printf("\"threads\": %ld, \"datagram_drops\": %ld, \"listen_drops\": %ld, \"delays_ms\": [", threads,
                datagramDrops, listenDrops);
    const char* separator = "";
    for (const double time : reportTimes) {
        std::printf("%s%.3f", separator, time - searched);
        separator = ", ";
    }
    std::printf("]}\n");
}

} // namespace Bench
} // namespace Velmora

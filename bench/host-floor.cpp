// The minimum cost of the exchange: the same messages over bare sockets and epoll, without a library or an
// XML parser. It reads only the simulator's documents, so it is not an example of a host.

#include <bench/Measurement.h>

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <strings.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

using Velmora::Bench::Measurement;

namespace {

const char* const SERVICE_TYPE = "urn:schemas-velmora-it:service:keyobjects:1";
const int RECEIVE_BUFFER_SIZE = 4 * 1024 * 1024;

enum class Kind { Search, Server, Description, ServiceDescription, Subscription, Event };

struct Connection
{
    Kind kind;
    size_t device;
    std::string input;
};

struct Device
{
    std::string host;
    int port;
    std::string path;
    std::string eventPath;
};

/// Returns the text between the first @p begin after @p from and the next @p end. Empty if there is none.
std::string between(const std::string& text, const std::string& begin, const std::string& end, size_t from = 0)
{
    const size_t first = text.find(begin, from);
    if (first == std::string::npos)
        return {};
    const size_t last = text.find(end, first + begin.size());
    return last == std::string::npos ? std::string()
                                     : text.substr(first + begin.size(), last - first - begin.size());
}

std::string header(const std::string& message, const char* name)
{
    const size_t size = std::strlen(name);
    for (size_t line = 0; line < message.size();) {
        const size_t end = std::min(message.find_first_of("\r\n", line), message.size());
        if (strncasecmp(message.c_str() + line, name, size) == 0 && message[line + size] == ':') {
            const size_t value = message.find_first_not_of(' ', line + size + 1);
            return value < end ? message.substr(value, end - value) : std::string();
        }
        line = end + 1;
    }
    return {};
}

/// Returns the position of the body of @p message. If the message is not complete, returns npos.
size_t completeBody(const std::string& message)
{
    const size_t end = message.find("\r\n\r\n");
    if (end == std::string::npos)
        return end;
    const size_t length = std::strtoul(header(message, "CONTENT-LENGTH").c_str(), nullptr, 10);
    return message.size() >= end + 4 + length ? end + 4 : std::string::npos;
}

sockaddr_in internetAddress(const char* host, int port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = inet_addr(host);
    return address;
}

class Host
{
public:
    explicit Host(const Velmora::Bench::Options& options)
        : options(options)
        , measurement(options.devices)
        , poller(epoll_create1(EPOLL_CLOEXEC))
        , done(false)
    {
    }

    int run()
    {
        measurement.begin();
        open();
        search();
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(options.timeout);
        epoll_event events[64];
        while (!done) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0)
                break;
            const int ready = epoll_wait(poller, events, 64, static_cast<int>(left.count()));
            for (int i = 0; i < ready; ++i)
                read(events[i].data.fd);
        }
        measurement.end();

        close(udp);
        close(server);
        measurement.beginAgain();
        open();
        search();
        measurement.takeSearch();
        measurement.print("floor", "");
        return 0;
    }

private:
    void add(int descriptor, Kind kind, size_t device = 0)
    {
        connections[descriptor] = {kind, device, std::string()};
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.fd = descriptor;
        epoll_ctl(poller, EPOLL_CTL_ADD, descriptor, &event);
    }

    static void bindTo(const sockaddr_in& address, int descriptor)
    {
        if (bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) {
            std::perror("bind");
            std::exit(EXIT_FAILURE);
        }
    }

    void open()
    {
        sockaddr_in address = internetAddress(Velmora::Bench::HOST_ADDRESS, 0);
        udp = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
        bindTo(address, udp);
        setsockopt(udp, SOL_SOCKET, SO_RCVBUF, &RECEIVE_BUFFER_SIZE, sizeof RECEIVE_BUFFER_SIZE);
        add(udp, Kind::Search);

        server = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        bindTo(address, server);
        listen(server, SOMAXCONN);
        socklen_t size = sizeof address;
        getsockname(server, reinterpret_cast<sockaddr*>(&address), &size);
        eventPort = ntohs(address.sin_port);
        add(server, Kind::Server);
    }

    void search()
    {
        const std::string request =
            "M-SEARCH * HTTP/1.1\nHOST: 239.255.255.250:1900\nMAN: \"ssdp:discover\"\nMX: 3\n"
            "ST: upnp:rootdevice\nUSER-AGENT: Floor/1 UPnP/1.1 SSDP/1.0\n\n";
        const sockaddr_in group = internetAddress("239.255.255.250", 1900);
        sendto(udp, request.data(), request.size(), 0, reinterpret_cast<const sockaddr*>(&group), sizeof group);
    }

    void read(int descriptor)
    {
        Connection& connection = connections[descriptor];
        if (connection.kind == Kind::Server) {
            const int event = accept4(descriptor, nullptr, nullptr, SOCK_NONBLOCK);
            if (event != -1)
                add(event, Kind::Event);
            return;
        }

        char chunk[16384];
        const ssize_t size = recv(descriptor, chunk, sizeof chunk, 0);
        if (connection.kind == Kind::Search) {
            if (size > 0)
                addDevice(header(std::string(chunk, static_cast<size_t>(size)), "LOCATION"));
            return;
        }
        if (size <= 0) {
            forget(descriptor);
            return;
        }
        connection.input.append(chunk, static_cast<size_t>(size));
        const size_t body = completeBody(connection.input);
        if (body != std::string::npos)
            handle(descriptor, connection, body);
    }

    void forget(int descriptor)
    {
        close(descriptor);
        connections.erase(descriptor);
    }

    void addDevice(const std::string& location)
    {
        if (location.empty() || !locations.insert(location).second)
            return;
        const std::string authority = between(location, "http://", "/");
        const size_t colon = authority.find(':');
        const int port = colon == std::string::npos ? 80 : std::atoi(authority.c_str() + colon + 1);
        const std::string path = location.substr(location.find('/', std::strlen("http://")));
        devices.push_back({authority.substr(0, colon), port, path, std::string()});
        connectTo(devices.size() - 1, Kind::Description, getRequest(devices.back(), path));
    }

    std::string getRequest(const Device& device, const std::string& path)
    {
        return "GET " + path + " HTTP/1.1\r\nHost: " + device.host + "\r\nConnection: Keep-Alive\r\n\r\n";
    }

    /// The devices are on the same machine. So connecting and sending a few hundred bytes do not block.
    void connectTo(size_t device, Kind kind, const std::string& request)
    {
        const sockaddr_in address = internetAddress(devices[device].host.c_str(), devices[device].port);
        const int descriptor = socket(AF_INET, SOCK_STREAM, 0);
        if (connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) {
            close(descriptor);
            return;
        }
        add(descriptor, kind, device);
        send(descriptor, request.data(), request.size(), MSG_NOSIGNAL);
    }

    void handle(int descriptor, Connection& connection, size_t body)
    {
        const size_t index = connection.device;
        if (connection.kind == Kind::Description) {
            Device& device = devices[index];
            const size_t service = connection.input.find(SERVICE_TYPE, body);
            if (service == std::string::npos)
                return;
            device.eventPath = between(connection.input, "<eventSubURL>", "</eventSubURL>", service);
            const std::string request =
                getRequest(device, between(connection.input, "<SCPDURL>", "</SCPDURL>", service));
            connection.kind = Kind::ServiceDescription;
            connection.input.clear();
            send(descriptor, request.data(), request.size(), MSG_NOSIGNAL);
        } else if (connection.kind == Kind::ServiceDescription) {
            connection.input.clear();
            const Device& device = devices[index];
            connectTo(index, Kind::Subscription,
                      "SUBSCRIBE " + device.eventPath + " HTTP/1.1\nHOST: " + device.host
                          + ":P\nUSER-AGENT: Floor/1 UPnP/1.1 SSDP/1.0\nCALLBACK: <http://"
                          + Velmora::Bench::HOST_ADDRESS + ":" + std::to_string(eventPort) + "/"
                          + std::to_string(index) + ">\nNT: upnp:event\nTIMEOUT: Second-120\n\n");
        } else if (connection.kind == Kind::Subscription) {
            forget(descriptor);
        } else if (connection.kind == Kind::Event) {
            const size_t reported = std::strtoul(between(connection.input, "/", " ").c_str(), nullptr, 10);
            const std::string codes = between(connection.input, "<KO>", "</KO>", body);
            if (!codes.empty() && reported < devices.size())
                done = measurement.add(codes, devices[reported].host);
            forget(descriptor);
        }
    }

    const Velmora::Bench::Options options;
    Measurement measurement;
    int poller;
    int udp = -1;
    int server = -1;
    int eventPort = 0;
    bool done;
    std::map<int, Connection> connections;
    std::set<std::string> locations;
    std::vector<Device> devices;
};

} // namespace

int main(int argc, char** argv)
{
    return Host(Velmora::Bench::Options(argc, argv)).run();
}

#include <tests/wire/Attacker.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace Velmora {
namespace Tests {

namespace {

const std::chrono::seconds PATIENCE(60);

void check(bool done, const char* what)
{
    if (!done)
        throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

sockaddr_in socketAddress(const char* address, uint16_t port)
{
    sockaddr_in result = {};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    result.sin_addr.s_addr = inet_addr(address);
    return result;
}

void bindTo(int descriptor, const char* address, uint16_t port)
{
    const sockaddr_in local = socketAddress(address, port);
    const int on = 1;
    setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    check(bind(descriptor, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0, "bind");
}

bool startsWith(const std::string& text, const std::string& start)
{
    return text.compare(0, start.size(), start) == 0;
}

} // namespace

PlainConnection::PlainConnection(int descriptor)
    : descriptor(descriptor)
{
}

PlainConnection::~PlainConnection()
{
    if (descriptor != -1)
        close(descriptor);
}

bool PlainConnection::send(const std::string& bytes)
{
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = ::send(descriptor, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

void PlainConnection::sendFor(int milliseconds, const std::string& bytes, int pause)
{
    // A host that stops reading must not hold the attack up.
    const timeval patience = {0, 100000};
    setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    while (std::chrono::steady_clock::now() < end) {
        if (!send(bytes) && errno != EAGAIN)
            return;
        std::this_thread::sleep_for(std::chrono::milliseconds(pause));
    }
}

std::string PlainConnection::readHead()
{
    std::string head;
    char buffer[4096];
    while (head.find("\n\n") == std::string::npos && head.find("\n\r\n") == std::string::npos) {
        const ssize_t n = recv(descriptor, buffer, sizeof buffer, 0);
        if (n <= 0)
            return std::string();
        head.append(buffer, static_cast<size_t>(n));
    }
    return head;
}

bool PlainConnection::waitForEnd()
{
    char buffer[4096];
    pollfd end = {descriptor, POLLIN, 0};
    while (poll(&end, 1, 30 * 1000) == 1) {
        if (recv(descriptor, buffer, sizeof buffer, 0) <= 0)
            return true;
    }
    return false;
}

void PlainConnection::flush()
{
    // A peer that has reset the connection takes nothing more.
    pollfd ended = {descriptor, 0, 0};
    int left = 1;
    while (ioctl(descriptor, SIOCOUTQ, &left) == 0 && left > 0 && poll(&ended, 1, 1) == 0) { }
}

void PlainConnection::reset()
{
    const linger atOnce = {1, 0};
    setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    close(descriptor);
    descriptor = -1;
}

const char Attacker::ADDRESS[] = "10.77.1.2";

Attacker::Attacker()
    : searchSocket(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    , answerSocket(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    , searcher()
    , probes(0)
{
    bindTo(searchSocket, "0.0.0.0", 1900);
    const ip_mreq membership = {{inet_addr("239.255.255.250")}, {inet_addr(ADDRESS)}};
    check(setsockopt(searchSocket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) == 0, "join");
    bindTo(answerSocket, ADDRESS, 0);

    serveDocument("/d.xml", deviceDescription(keyObjectService()));
    serveDocument("/scpd.xml", serviceDescription("<stateVariable><name>KO</name></stateVariable>"));
    serve("SUBSCRIBE ", [](PlainConnection& connection, const std::string&) {
        connection.send("HTTP/1.1 200 OK\r\nSID: uuid:2fac1234-31f8-11b4-a222-08002b34c003\r\n\r\n");
    });
    listenAt(PORT);
}

void Attacker::waitForSearch()
{
    // A busy kernel may lose the search; what goes to the group reaches the host as well.
    const timeval patience = {2, 0};
    setsockopt(searchSocket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    searcher = socketAddress("239.255.255.250", 1900);
    char buffer[2048];
    for (;;) {
        sockaddr_in sender = {};
        socklen_t length = sizeof sender;
        const ssize_t n =
            recvfrom(searchSocket, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&sender), &length);
        if (n < 0)
            return;
        if (startsWith(std::string(buffer, static_cast<size_t>(n)), "M-SEARCH")) {
            searcher = sender;
            return;
        }
    }
}

void Attacker::sendDatagram(const std::string& bytes)
{
    check(sendto(answerSocket, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&searcher),
                 sizeof searcher)
              == static_cast<ssize_t>(bytes.size()),
          "datagram");
}

void Attacker::sendLocation(const std::string& location)
{
    sendDatagram("HTTP/1.1 200 OK\r\nST: upnp:rootdevice\r\nLOCATION: " + location + "\r\n\r\n");
}

std::string Attacker::url(const std::string& path, int port)
{
    return std::string("http://") + ADDRESS + ":" + std::to_string(PORT + port) + path;
}

void Attacker::listenAt(uint16_t port)
{
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bindTo(listener, ADDRESS, port);
    check(listen(listener, SOMAXCONN) == 0, "listen");
    listeners.push_back(listener);
    std::thread([this, listener] { accept(listener); }).detach();
}

void Attacker::listenAtPorts(int count)
{
    for (int i = static_cast<int>(listeners.size()); i < count; ++i)
        listenAt(static_cast<uint16_t>(PORT + i));
}

void Attacker::stopListening()
{
    // Wakes the threads that accept.
    for (const int listener : listeners)
        shutdown(listener, SHUT_RDWR);
}

void Attacker::serve(const std::string& start, Handler handler)
{
    const std::lock_guard<std::mutex> lock(mutex);
    handlers.emplace_front(start, std::move(handler));
}

void Attacker::serveDocument(const std::string& path, const std::string& document)
{
    serve("GET " + path + " ",
          [document](PlainConnection& connection, const std::string&) { connection.send(reply(document)); });
}

void Attacker::greet(const std::string& bytes)
{
    const std::lock_guard<std::mutex> lock(mutex);
    greeting = bytes;
}

void Attacker::accept(int listener)
{
    for (;;) {
        const int descriptor = ::accept(listener, nullptr, nullptr);
        if (descriptor == -1 && errno == EINVAL)
            return; // It was shut down.
        if (descriptor != -1)
            std::thread([this, descriptor] { answer(descriptor); }).detach();
    }
}

void Attacker::answer(int descriptor)
{
    PlainConnection connection(descriptor);
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (!greeting.empty())
            connection.send(greeting);
    }
    const std::string request = connection.readHead();
    Handler handler = [](PlainConnection& unknown, const std::string&) {
        unknown.send("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
    };
    {
        const std::lock_guard<std::mutex> lock(mutex);
        const auto found = std::find_if(handlers.begin(), handlers.end(), [&request](const auto& candidate) {
            return startsWith(request, candidate.first);
        });
        if (found != handlers.end())
            handler = found->second;
        requests.push_back(request);
        changed.notify_all();
    }
    handler(connection, request);
    const std::lock_guard<std::mutex> lock(mutex);
    answered.push_back(request);
    changed.notify_all();
}

bool Attacker::waitForCount(const std::vector<std::string>& list, const std::string& start, int count,
                            std::chrono::seconds patience)
{
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, patience, [&list, &start, count] {
        return std::count_if(list.begin(), list.end(),
                             [&start](const std::string& request) { return startsWith(request, start); })
            >= count;
    });
}

void Attacker::waitForRequests(const std::string& start, int count)
{
    if (!waitForCount(requests, start, count, PATIENCE))
        throw std::runtime_error("the host never asked: " + start);
}

void Attacker::waitForAnswer(const std::string& start, int count)
{
    if (!waitForCount(answered, start, count, PATIENCE))
        throw std::runtime_error("there was no end to: " + start);
}

void Attacker::waitForDatagrams()
{
    // The host reads its datagrams in order, so all of them were read once this one has an effect. It is
    // sent again, since a full receive buffer may have lost it; a known location is ignored.
    const std::string path = "/probe" + std::to_string(++probes);
    for (int attempt = 0; attempt < 60; ++attempt) {
        sendLocation(url(path));
        if (waitForCount(requests, "GET " + path + " ", 1, std::chrono::seconds(1)))
            return;
    }
    throw std::runtime_error("the host no longer reads its datagrams");
}

Attacker::Callback Attacker::beSubscribedTo()
{
    sendLocation(url("/d.xml"));
    waitForAnswer("SUBSCRIBE ");
    const std::lock_guard<std::mutex> lock(mutex);
    return callbackOf(*std::find_if(answered.begin(), answered.end(),
                                    [](const std::string& request) { return startsWith(request, "SUBSCRIBE "); }));
}

Attacker::Callback Attacker::callbackOf(const std::string& subscription)
{
    const size_t begin = subscription.find("CALLBACK: <http://");
    if (begin == std::string::npos)
        throw std::runtime_error("a subscription without a callback");
    const std::string rest = subscription.substr(begin + 18);
    const size_t colon = rest.find(':');
    const size_t slash = rest.find('/');
    return {rest.substr(0, colon), static_cast<uint16_t>(std::stoi(rest.substr(colon + 1))),
            rest.substr(slash, rest.find('>') - slash)};
}

int Attacker::startConnecting(const Callback& callback)
{
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    bindTo(descriptor, ADDRESS, 0);
    const sockaddr_in remote = socketAddress(callback.address.c_str(), callback.port);
    check(connect(descriptor, reinterpret_cast<const sockaddr*>(&remote), sizeof remote) == 0
              || errno == EINPROGRESS,
          "connect");
    return descriptor;
}

std::unique_ptr<PlainConnection> Attacker::connectTo(const Callback& callback)
{
    auto connection = std::make_unique<PlainConnection>(startConnecting(callback));
    pollfd connected = {connection->descriptor, POLLOUT, 0};
    check(poll(&connected, 1, 10 * 1000) == 1, "connect");
    const int flags = fcntl(connection->descriptor, F_GETFL);
    check(fcntl(connection->descriptor, F_SETFL, flags & ~O_NONBLOCK) == 0, "connect");
    return connection;
}

std::string Attacker::reply(const std::string& body, const std::string& headers)
{
    return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + headers
        + "Connection: close\r\n\r\n" + body;
}

std::string Attacker::deviceDescription(const std::string& services)
{
    return "<?xml version=\"1.0\"?><root xmlns=\"urn:schemas-upnp-org:device-1-0\"><device><serviceList>"
        + services + "</serviceList></device></root>";
}

std::string Attacker::serviceDescription(const std::string& variables)
{
    return "<?xml version=\"1.0\"?><scpd xmlns=\"urn:schemas-upnp-org:service-1-0\"><serviceStateTable>"
        + variables + "</serviceStateTable></scpd>";
}

std::string Attacker::keyObjectService()
{
    return "<service><serviceType>urn:schemas-velmora-it:service:keyobjects:1</serviceType>"
           "<SCPDURL>/scpd.xml</SCPDURL><eventSubURL>/event</eventSubURL></service>";
}

std::string Attacker::eventHead(const std::string& path, const std::string& contentLength)
{
    return "NOTIFY " + path
        + " HTTP/1.1\r\nNT: upnp:event\r\nNTS: upnp:propchange\r\nCONTENT-LENGTH: " + contentLength + "\r\n\r\n";
}

std::string Attacker::event(const std::string& value)
{
    return "<e:propertyset xmlns:e=\"urn:schemas-upnp-org:event-1-0\"><e:property><KO>" + value
        + "</KO></e:property></e:propertyset>";
}

} // namespace Tests
} // namespace Velmora

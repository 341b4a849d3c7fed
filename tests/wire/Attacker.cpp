#include <tests/wire/Attacker.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>

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

Attacker::Handler sends(const QByteArray& bytes)
{
    return [bytes](PlainConnection& connection) { connection.send(bytes); };
}

} // namespace

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

    serve("GET /d.xml ", sends(reply(deviceDescription())));
    serve("GET /scpd.xml ", sends(reply(serviceDescription())));
    serve("SUBSCRIBE ", sends(subscriptionReply()));
    listenAt(PORT);
}

void Attacker::waitForSearch()
{
    // A busy kernel may lose the search. Then the host is reached through the group.
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
        if (QByteArray(buffer, static_cast<int>(n)).startsWith("M-SEARCH")) {
            searcher = sender;
            return;
        }
    }
}

void Attacker::sendDatagram(const QByteArray& bytes)
{
    check(sendto(answerSocket, bytes.constData(), static_cast<size_t>(bytes.size()), 0,
                 reinterpret_cast<const sockaddr*>(&searcher), sizeof searcher)
              == bytes.size(),
          "datagram");
}

void Attacker::sendLocation(const QByteArray& location)
{
    sendDatagram(searchReply(location));
}

QByteArray Attacker::url(const QByteArray& path, int port)
{
    return QByteArray("http://") + ADDRESS + ':' + QByteArray::number(PORT + port) + path;
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

void Attacker::serve(const QByteArray& start, const Handler& handler)
{
    const std::lock_guard<std::mutex> lock(mutex);
    handlers.emplace_front(start, handler);
}

void Attacker::greet(const QByteArray& bytes)
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
        connection.send(greeting);
    }
    const QByteArray request = connection.readHead();
    Handler handler = sends("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
    {
        const std::lock_guard<std::mutex> lock(mutex);
        const auto found = std::find_if(handlers.begin(), handlers.end(), [&request](const auto& candidate) {
            return request.startsWith(candidate.first);
        });
        if (found != handlers.end())
            handler = found->second;
    }
    handler(connection);
    const std::lock_guard<std::mutex> lock(mutex);
    answered.push_back(request);
    changed.notify_all();
}

bool Attacker::isAnsweredWithin(std::chrono::seconds patience, const QByteArray& start, int count)
{
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, patience, [&] {
        return std::count_if(answered.begin(), answered.end(),
                             [&start](const QByteArray& request) { return request.startsWith(start); })
            >= count;
    });
}

void Attacker::waitForAnswer(const QByteArray& start, int count)
{
    if (!isAnsweredWithin(PATIENCE, start, count))
        throw std::runtime_error("the host did not ask, or there was no end to: " + start.toStdString());
}

void Attacker::waitForDatagrams()
{
    // The host reads its datagrams in order. So all of them were read when this one has an effect. It is sent
    // again, because a full receive buffer may have lost it. The host ignores a location that it knows.
    const QByteArray path = "/probe" + QByteArray::number(++probes);
    for (int attempt = 0; attempt < 60; ++attempt) {
        sendLocation(url(path));
        if (isAnsweredWithin(std::chrono::seconds(1), "GET " + path + ' '))
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
                                    [](const QByteArray& request) { return request.startsWith("SUBSCRIBE "); }));
}

Attacker::Callback Attacker::callbackOf(const QByteArray& subscription)
{
    const QByteArray start = "CALLBACK: <http://";
    const qsizetype begin = subscription.indexOf(start);
    if (begin == -1)
        throw std::runtime_error("a subscription without a callback");
    const QByteArray url = subscription.mid(begin + start.size());
    const qsizetype colon = url.indexOf(':');
    const qsizetype slash = url.indexOf('/');
    return {url.left(colon), url.mid(colon + 1, slash - colon - 1).toUShort(),
            url.mid(slash, url.indexOf('>') - slash)};
}

int Attacker::startConnecting(const Callback& callback)
{
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    bindTo(descriptor, ADDRESS, 0);
    const sockaddr_in remote = socketAddress(callback.address.constData(), callback.port);
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

} // namespace Tests
} // namespace Velmora

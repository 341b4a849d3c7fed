#ifndef VELMORA_TESTS_WIRE_ATTACKER_H
#define VELMORA_TESTS_WIRE_ATTACKER_H

#include <tests/support/Messages.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <linux/sockios.h>
#include <list>
#include <memory>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace Velmora {
namespace Tests {

/// A blocking TCP connection that can do what no library does. Its destructor closes it with a FIN.
class PlainConnection
{
public:
    explicit PlainConnection(int descriptor)
        : descriptor(descriptor)
    {
    }
    ~PlainConnection()
    {
        if (descriptor != -1)
            close(descriptor);
    }
    PlainConnection(const PlainConnection&) = delete;
    PlainConnection& operator=(const PlainConnection&) = delete;

    /// Returns whether all @p bytes were sent.
    bool send(const QByteArray& bytes)
    {
        ssize_t n = 0;
        for (qsizetype sent = 0; sent < bytes.size(); sent += n) {
            const size_t rest = static_cast<size_t>(bytes.size() - sent);
            n = ::send(descriptor, bytes.constData() + sent, rest, MSG_NOSIGNAL);
            if (n <= 0)
                return false;
        }
        return true;
    }

    /// Sends @p bytes again and again for @p milliseconds, or until the peer closes the connection.
    void sendFor(int milliseconds, const QByteArray& bytes, int pause = 0)
    {
        // A host that stops reading must not delay the attack.
        const timeval patience = {0, 100000};
        setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
        while (std::chrono::steady_clock::now() < end) {
            if (!send(bytes) && errno != EAGAIN)
                return;
            std::this_thread::sleep_for(std::chrono::milliseconds(pause));
        }
    }

    /// Reads up to the first empty line. Returns nothing if the peer closes the connection before.
    QByteArray readHead()
    {
        char buffer[4096];
        request.clear();
        while (!request.contains("\n\n") && !request.contains("\n\r\n")) {
            const ssize_t n = recv(descriptor, buffer, sizeof buffer, 0);
            if (n <= 0)
                return QByteArray();
            request.append(buffer, static_cast<int>(n));
        }
        return request;
    }

    /// Returns whether the peer closes the connection within half a minute.
    bool waitForEnd()
    {
        char buffer[4096];
        pollfd end = {descriptor, POLLIN, 0};
        while (poll(&end, 1, 30 * 1000) == 1) {
            if (recv(descriptor, buffer, sizeof buffer, 0) <= 0)
                return true;
        }
        return false;
    }

    /// Waits until the kernel of the peer has all bytes. Nobody can see whether the program has read them.
    void flush()
    {
        // A peer that has reset the connection takes nothing more.
        pollfd ended = {descriptor, 0, 0};
        int left = 1;
        while (ioctl(descriptor, SIOCOUTQ, &left) == 0 && left > 0 && poll(&ended, 1, 1) == 0) { }
    }

    /// Closes the connection with an RST.
    void reset()
    {
        const linger atOnce = {1, 0};
        setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        close(descriptor);
        descriptor = -1;
    }

    int descriptor;
    QByteArray request; ///< The head that was read last.
};

/**
 * The hostile device. The host finds it like any other device. Then it does what the attack says, with blocking
 * sockets and a thread for each connection.
 *
 * If something cannot be done, std::runtime_error is thrown.
 */
class Attacker
{
public:
    using Handler = std::function<void(PlainConnection&)>;

    static const char ADDRESS[];
    static const uint16_t PORT = 8000;

    /// Listens to the group and to TCP, and serves the documents of a good device.
    Attacker();

    /// Waits for the search of the host, at most two seconds.
    void waitForSearch();

    /// Answers the search.
    void sendDatagram(const QByteArray& bytes);
    void sendLocation(const QByteArray& location);

    /// The URL of @p path on this device. @p port is counted from the first port.
    static QByteArray url(const QByteArray& path, int port = 0);

    /// Listens at the first @p count ports, as if there were as many devices.
    void listenAtPorts(int count);
    /// Refuses connections from now on.
    void stopListening();

    /// Lets @p handler answer the requests that begin with @p start, such as "GET /d.xml ".
    void serve(const QByteArray& start, const Handler& handler);
    /// Sends @p bytes on every new connection at once.
    void greet(const QByteArray& bytes);

    /// Waits until the handler of @p count requests that begin with @p start has returned.
    void waitForAnswer(const QByteArray& start, int count = 1);

    /// Waits until the host has read every datagram that was sent so far.
    void waitForDatagrams();

    /// Where events go.
    struct Callback
    {
        QByteArray address;
        uint16_t port;
        QByteArray path;
    };
    static Callback callbackOf(const QByteArray& subscription);

    /// Lets the host find this device, and waits for its subscription.
    Callback beSubscribedTo();

    /// Begins to connect to the event server of the host. Returns the descriptor.
    static int startConnecting(const Callback& callback);
    /// Connects to the event server of the host.
    static std::unique_ptr<PlainConnection> connectTo(const Callback& callback);

    QByteArray seen; ///< A note for the table of the measurements.

private:
    void listenAt(uint16_t port);
    void accept(int listener);
    void answer(int descriptor);
    bool isAnsweredWithin(std::chrono::seconds patience, const QByteArray& start, int count = 1);

    int searchSocket;
    int answerSocket;
    std::vector<int> listeners;
    sockaddr_in searcher;
    std::mutex mutex;
    std::condition_variable changed;
    std::list<std::pair<QByteArray, Handler>> handlers;
    std::vector<QByteArray> answered;
    QByteArray greeting;
    int probes;
};

} // namespace Tests
} // namespace Velmora

#endif

#ifndef VELMORA_TESTS_WIRE_ATTACKER_H
#define VELMORA_TESTS_WIRE_ATTACKER_H

#include <tests/support/Messages.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <netinet/in.h>
#include <utility>
#include <vector>

namespace Velmora {
namespace Tests {

/// A blocking TCP connection that can do what no library does. Its destructor closes it with a FIN.
class PlainConnection
{
public:
    explicit PlainConnection(int descriptor);
    ~PlainConnection();
    PlainConnection(const PlainConnection&) = delete;
    PlainConnection& operator=(const PlainConnection&) = delete;

    /// Returns whether all @p bytes were sent.
    bool send(const QByteArray& bytes);

    /// Sends @p bytes again and again for @p milliseconds, or until the peer closes the connection.
    void sendFor(int milliseconds, const QByteArray& bytes, int pause = 0);

    /// Reads up to the first empty line. Returns nothing if the peer closes the connection before.
    QByteArray readHead();

    /// Returns whether the peer closes the connection within half a minute.
    bool waitForEnd();

    /// Waits until the kernel of the peer has all bytes. Nobody can see whether the program has read them.
    void flush();

    /// Closes the connection with an RST.
    void reset();

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

    /// Listens at the first @p count ports, like as many devices.
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

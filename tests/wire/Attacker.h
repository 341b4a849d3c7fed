#ifndef VELMORA_TESTS_WIRE_ATTACKER_H
#define VELMORA_TESTS_WIRE_ATTACKER_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <netinet/in.h>
#include <string>
#include <utility>
#include <vector>

namespace Velmora {
namespace Tests {

/// A blocking TCP connection that does what no library would: it ends with its object, by a FIN.
class PlainConnection
{
public:
    explicit PlainConnection(int descriptor);
    ~PlainConnection();
    PlainConnection(const PlainConnection&) = delete;
    PlainConnection& operator=(const PlainConnection&) = delete;

    /// Returns whether all of @p bytes went out.
    bool send(const std::string& bytes);

    /// Sends @p bytes again and again for @p milliseconds, or until the peer has enough.
    void sendFor(int milliseconds, const std::string& bytes, int pause = 0);

    /// What came up to the first empty line; empty if the peer ends the connection before it.
    std::string readHead();

    /// Waits for the peer to end the connection. Returns whether it did within half a minute.
    bool waitForEnd();

    /// Waits until the peer's kernel has everything. (Whether the program read it, nobody can see.)
    void flush();

    /// Ends it with RST.
    void reset();

    int descriptor;
};

/**
 * The hostile device: it is found as the good one is, and then sends what the attack says. It works
 * with plain blocking sockets and a thread for each connection, in a process of its own.
 *
 * An operation that cannot be done throws std::runtime_error.
 */
class Attacker
{
public:
    using Handler = std::function<void(PlainConnection&, const std::string& request)>;

    static const char ADDRESS[];
    static const uint16_t PORT = 8000;

    /// Listens to the group and to TCP, and serves the documents of a good device.
    Attacker();

    /// Waits until the host searches, but no longer than two seconds.
    void waitForSearch();

    /// Answers the search.
    void sendDatagram(const std::string& bytes);
    void sendLocation(const std::string& location);

    /// The URL of @p path on this device, at the port so many after the first.
    static std::string url(const std::string& path, int port = 0);

    /// Listens at @p count ports, counted from the first, as so many devices would.
    void listenAtPorts(int count);
    /// Refuses connections from now on.
    void stopListening();

    /// Lets @p handler answer the requests that begin with @p start, such as "GET /d.xml ".
    void serve(const std::string& start, Handler handler);
    /// Lets @p document answer the GETs of @p path.
    void serveDocument(const std::string& path, const std::string& document);
    /// Sends @p bytes on every connection as soon as it exists.
    void greet(const std::string& bytes);

    /// Waits until @p count requests that begin with @p start have come.
    void waitForRequests(const std::string& start, int count = 1);
    /// Waits until @p count requests that begin with @p start were answered to the end.
    void waitForAnswer(const std::string& start, int count = 1);

    /// Waits until the host has dealt with every datagram sent so far.
    void waitForDatagrams();

    /// Where events go.
    struct Callback
    {
        std::string address;
        uint16_t port;
        std::string path;
    };

    /// Is found as a device, and waits for the subscription.
    Callback beSubscribedTo();

    static Callback callbackOf(const std::string& subscription);

    /// Begins to connect to the host's event server. Returns the descriptor.
    static int startConnecting(const Callback& callback);
    /// Connects to it.
    static std::unique_ptr<PlainConnection> connectTo(const Callback& callback);

    std::string seen; ///< What is worth a note beside the measurements.

    static std::string reply(const std::string& body, const std::string& headers = std::string());
    static std::string deviceDescription(const std::string& services);
    static std::string serviceDescription(const std::string& variables);
    static std::string keyObjectService();
    static std::string eventHead(const std::string& path, const std::string& contentLength);
    static std::string event(const std::string& value);

private:
    void listenAt(uint16_t port);
    void accept(int listener);
    void answer(int descriptor);
    bool waitForCount(const std::vector<std::string>& list, const std::string& start, int count,
                      std::chrono::seconds patience);

    int searchSocket;
    int answerSocket;
    std::vector<int> listeners;
    sockaddr_in searcher;
    std::mutex mutex;
    std::condition_variable changed;
    std::list<std::pair<std::string, Handler>> handlers;
    std::vector<std::string> requests;
    std::vector<std::string> answered;
    std::string greeting;
    int probes;
};

} // namespace Tests
} // namespace Velmora

#endif

#ifndef VELMORA_TESTS_FUZZ_HARNESS_H
#define VELMORA_TESTS_FUZZ_HARNESS_H

#include <ssdp/SsdpManager.h>
#include <tests/support/ManagerAccess.h>

#include <QtCore/QByteArray>
#include <QtCore/QCoreApplication>

#include <cstddef>
#include <cstdint>

// The functions that libFuzzer calls. Without libFuzzer, Replay.cpp calls them.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace Velmora {
namespace Fuzz {

/**
 * Tests one input. Each fuzzer defines this function. It may change @p input.
 *
 * The process is in a private network with only a loopback interface. So whatever the library sends, it sends to
 * this process. The log is formatted and dropped.
 */
void test(QByteArray& input);

/// If @p holds is false, aborts the process. libFuzzer then stores the input.
void require(bool holds, const char* what);

/// Runs the event loop, with deferred deletions, as often as one segment needs.
void settle();

/// Removes the first byte of @p input and returns it. Returns 0 if there is none.
int takeByte(QByteArray& input);

/// A control point on the loopback interface.
class ControlPoint : public SSDP::SsdpManager
{
public:
    explicit ControlPoint(QObject* parent = nullptr);

    /// Adds a device with one service. Returns the service. Its identifier is in the seeds.
    SSDP::SsdpService* addService(const QString& location = QLatin1String("http://127.0.0.1:9/description.xml"));

    /// Handles a reply with @p body. It is for the first device, or for @p service.
    void handleReply(const QByteArray& body, SSDP::SsdpService* service = nullptr);

    Tests::ManagerAccess access;
};

/// Returns a control point that listens. It is the same for all inputs.
ControlPoint& listeningControlPoint();

/// One end of a TCP connection in this process. Closing it resets the connection, so nothing is left.
class Peer
{
public:
    explicit Peer(int descriptor);
    ~Peer() { reset(); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    /// Connects to @p port of 127.0.0.1.
    static Peer connectedTo(uint16_t port);

    void send(const QByteArray& bytes);
    /// Sends @p segments. The library handles each segment before the next one is sent.
    void sendSegments(const QList<QByteArray>& segments);
    /// Ends the sending direction of the connection.
    void finish();
    void reset();

private:
    int descriptor;
};

/// A TCP server in this process.
class Server : public QTcpServer
{
public:
    Server() { require(listen(QHostAddress(QHostAddress::LocalHost)), "there is a server"); }

    /// Accepts a connection, which must exist.
    Peer accept() { return Peer(next()); }
    /// Accepts a connection and closes it. Returns false if there is none.
    bool closeNext();

protected:
    void incomingConnection(qintptr descriptor) override { accepted << static_cast<int>(descriptor); }

private:
    int next();

    QList<int> accepted;
};

} // namespace Fuzz
} // namespace Velmora

#endif

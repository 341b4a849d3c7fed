#ifndef VELMORA_TESTS_FUZZ_HARNESS_H
#define VELMORA_TESTS_FUZZ_HARNESS_H

#include <QtCore/QByteArray>
#include <QtCore/QCoreApplication>
#include <QtCore/QUuid>
#include <QtNetwork/QNetworkReply>

#include <cstddef>
#include <cstdint>

/**
 * What the harnesses share. Each of them defines LLVMFuzzerTestOneInput() and is linked either with
 * libFuzzer or with Replay.cpp.
 *
 * Before the first input the process leaves for a private network, where only its loopback is up: what
 * the code under test sends, it sends to this process. The library's log is formatted and dropped.
 */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace Velmora {
namespace SSDP {
class SsdpManager;
class SsdpService;
} // namespace SSDP

namespace Fuzz {

/// Ends the process as a crash, which makes the input a finding, unless @p holds.
void require(bool holds, const char* what);

/// Lets the event loop do everything that is due, deferred deletions included.
void settle();

/// The bytes of an input after the first @p offset.
QByteArray bytesOf(const uint8_t* data, size_t size, size_t offset = 0);

/// A control point that listens on the loopback, the same for all inputs.
SSDP::SsdpManager& listeningManager();

/// Gives @p manager a device at @p location with one service of the identifier serviceId().
SSDP::SsdpService* addService(SSDP::SsdpManager& manager,
                              const QString& location = "http://127.0.0.1:9/description.xml");

/// The one identifier that the seeds use.
QUuid serviceId();

/// The finished reply to a request, with @p body for a body.
class FinishedReply : public QNetworkReply
{
    Q_OBJECT

public:
    explicit FinishedReply(const QByteArray& body);

    void abort() override { }
    qint64 bytesAvailable() const override;
    bool isSequential() const override { return true; }

protected:
    qint64 readData(char* data, qint64 size) override;

private:
    QByteArray body;
};

/// A plain TCP connection from this process to itself, which leaves nothing behind: closing resets it.
class Peer
{
public:
    /// Connects to @p port of 127.0.0.1.
    explicit Peer(uint16_t port);
    ~Peer();
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    void send(const QByteArray& bytes);
    /// Sends nothing more, and says so.
    void finish();
    void reset();

private:
    friend class Server;
    Peer(int descriptor, int);

    int descriptor;
};

/// A server for connections from this process to itself.
class Server
{
public:
    Server();

    uint16_t port;

    /// Takes a connection, which has to be there.
    Peer accept() { return Peer(next(), 0); }
    /// Takes a connection and closes it. Returns false if there is none.
    bool closeNext();

private:
    int next();

    int descriptor;
};

} // namespace Fuzz
} // namespace Velmora

#endif

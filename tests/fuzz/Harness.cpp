#include <tests/fuzz/Harness.h>

#include <simulator/PrivateNetwork.h>
#include <tests/support/Literals.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <sys/socket.h>
#include <unistd.h>

using namespace Velmora::Tests;

namespace {

/// A finished reply.
class Reply : public QNetworkReply
{
public:
    explicit Reply(const QByteArray& body)
        : body(body)
    {
        open(ReadOnly | Unbuffered);
        setFinished(true);
    }
    void abort() override { }
    qint64 bytesAvailable() const override { return body.size() + QNetworkReply::bytesAvailable(); }
    bool isSequential() const override { return true; }

protected:
    qint64 readData(char* data, qint64 size) override
    {
        const qint64 length = qMin(size, static_cast<qint64>(body.size()));
        std::copy_n(body.constData(), length, data);
        body.remove(0, static_cast<int>(length));
        return length;
    }

private:
    QByteArray body;
};

sockaddr_in loopback(uint16_t port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

void drop(QtMsgType, const QMessageLogContext&, const QString&) { }

} // namespace

int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    try {
        static Velmora::Simulator::PrivateNetwork network;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "No private network: %s\n", error.what());
        std::exit(qEnvironmentVariableIntValue("VELMORA_REQUIRE_NETWORK") ? 1 : 77);
    }
    // The event loop of GLib would be slower.
    qputenv("QT_NO_GLIB", "1");
    static QCoreApplication application(*argc, *argv);
    qInstallMessageHandler(drop);
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    QByteArray input(reinterpret_cast<const char*>(data), static_cast<int>(size));
    Velmora::Fuzz::test(input);
    return 0;
}

namespace Velmora {
namespace Fuzz {

void require(bool holds, const char* what)
{
    if (holds)
        return;
    std::fprintf(stderr, "This is not true: %s\n", what);
    std::abort();
}

void settle()
{
    // To accept a connection, to read from it and to delete its socket takes one round each.
    for (int round = 0; round < 3; ++round) {
        QCoreApplication::processEvents();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
}

int takeByte(QByteArray& input)
{
    const int first = input.isEmpty() ? 0 : static_cast<unsigned char>(input.at(0));
    input.remove(0, 1);
    return first;
}

ControlPoint::ControlPoint(QObject* parent)
    : SsdpManager(QHostAddress(QHostAddress::LocalHost), parent)
    , access(*this)
{
}

SSDP::SsdpService* ControlPoint::addService(const QString& location)
{
    auto* const service = new SSDP::SsdpService;
    service->id = QUuid("6f9619ff-8b86-d011-b42d-00c04fc964ff");
    service->eventSubUrl = "/event"_s;
    access.addRecord({service}, location)->address = QHostAddress(QHostAddress::LocalHost);
    return service;
}

void ControlPoint::handleReply(const QByteArray& body, SSDP::SsdpService* service)
{
    auto* const reply = new Reply(body);
    access.deviceReplies().insert(reply, access.devices().constFirst());
    if (service)
        access.serviceReplies().insert(reply, service);
    access.onReplyFinished(reply);
    require(!access.deviceReplies().contains(reply) && !access.serviceReplies().contains(reply),
            "a finished reply is forgotten");
}

ControlPoint& listeningControlPoint()
{
    static ControlPoint* const result = [] {
        auto* const created = new ControlPoint(qApp);
        created->initialize();
        return created;
    }();
    return *result;
}

// Alarms of libFuzzer interrupt the system calls that wait.

Peer::Peer(int descriptor)
    : descriptor(descriptor)
{
    const linger atOnce = {1, 0};
    require(setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce) == 0, "there is a connection");
}

Peer Peer::connectedTo(uint16_t port)
{
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port);
    require(TEMP_FAILURE_RETRY(connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address))
                == 0,
            "the server accepts the connection");
    return Peer(descriptor);
}

void Peer::send(const QByteArray& bytes)
{
    const auto size = static_cast<size_t>(bytes.size());
    // This fails if the library has closed the connection.
    if (size > 0 && TEMP_FAILURE_RETRY(::send(descriptor, bytes.constData(), size, MSG_NOSIGNAL)) < 0)
        reset();
}

void Peer::sendSegments(const QList<QByteArray>& segments)
{
    for (int i = 0; i < segments.size(); ++i) {
        if (i > 0)
            settle();
        send(segments.at(i));
    }
}

void Peer::finish()
{
    if (descriptor != -1)
        shutdown(descriptor, SHUT_WR);
}

void Peer::reset()
{
    if (descriptor != -1)
        close(descriptor);
    descriptor = -1;
}

bool Server::closeNext()
{
    const int descriptor = next();
    return descriptor != -1 && ::close(descriptor) == 0;
}

int Server::next()
{
    if (accepted.isEmpty())
        waitForNewConnection(0);
    return accepted.isEmpty() ? -1 : accepted.takeFirst();
}

} // namespace Fuzz
} // namespace Velmora

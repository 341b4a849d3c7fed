#include <tests/fuzz/Harness.h>

#include <simulator/PrivateNetwork.h>
#include <ssdp/SsdpDevice.h>
#include <ssdp/SsdpService.h>
#include <tests/support/Literals.h>
#include <tests/support/ManagerAccess.h>

#include <QtCore/QCoreApplication>

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <sys/socket.h>
#include <unistd.h>

using namespace Velmora::Tests;
using Velmora::Simulator::PrivateNetwork;

namespace {

sockaddr_in loopback(uint16_t port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

void drop(QtMsgType, const QMessageLogContext&, const QString&) { }

[[noreturn]] void skip(const char* reason)
{
    std::fprintf(stderr, "no private network: %s\n", reason);
    std::exit(qEnvironmentVariableIntValue("VELMORA_REQUIRE_NETWORK") ? 1 : 77);
}

} // namespace

int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    try {
        static PrivateNetwork network;
    } catch (const std::exception& error) {
        skip(error.what());
    }
    // Otherwise GLib's event loop, if it is there, is asked several times an input.
    qputenv("QT_NO_GLIB", "1");
    static QCoreApplication application(*argc, *argv);
    qInstallMessageHandler(drop);
    return 0;
}

namespace Velmora {
namespace Fuzz {

void require(bool holds, const char* what)
{
    if (holds)
        return;
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
}

void settle()
{
    // Accepting a connection, reading it and deleting its socket take one round each.
    for (int round = 0; round < 3; ++round) {
        QCoreApplication::processEvents();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
}

QUuid serviceId()
{
    return QUuid("6f9619ff-8b86-d011-b42d-00c04fc964ff");
}

QByteArray bytesOf(const uint8_t* data, size_t size, size_t offset)
{
    return QByteArray(reinterpret_cast<const char*>(data) + offset, static_cast<int>(size - offset));
}

SSDP::SsdpManager& listeningManager()
{
    static SSDP::SsdpManager* const manager = [] {
        auto* const result = new SSDP::SsdpManager(QHostAddress(QHostAddress::LocalHost), qApp);
        result->initialize();
        return result;
    }();
    return *manager;
}

SSDP::SsdpService* addService(SSDP::SsdpManager& manager, const QString& location)
{
    auto* const device = new SSDP::SsdpDevice;
    auto* const service = new SSDP::SsdpService;
    device->id = QUuid::createUuid();
    device->address = QHostAddress(QHostAddress::LocalHost);
    device->location = location;
    device->services.append(service);
    service->id = serviceId();
    service->eventSubUrl = "/event"_s;
    Tests::ManagerAccess(manager).devices().append(device);
    return service;
}

FinishedReply::FinishedReply(const QByteArray& body)
    : body(body)
{
    open(ReadOnly | Unbuffered);
    setFinished(true);
}

qint64 FinishedReply::bytesAvailable() const
{
    return body.size() + QNetworkReply::bytesAvailable();
}

qint64 FinishedReply::readData(char* data, qint64 size)
{
    const qint64 length = qMin(size, static_cast<qint64>(body.size()));
    std::copy_n(body.constData(), length, data);
    body.remove(0, static_cast<int>(length));
    return length;
}

// The alarms of libFuzzer interrupt what waits.

Peer::Peer(uint16_t port)
    : Peer(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), 0)
{
    const sockaddr_in address = loopback(port);
    require(TEMP_FAILURE_RETRY(connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address))
                == 0,
            "the server takes the connection");
}

Peer::Peer(int descriptor, int)
    : descriptor(descriptor)
{
    const linger atOnce = {1, 0};
    require(setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce) == 0, "there is a connection");
}

Peer::~Peer()
{
    reset();
}

void Peer::send(const QByteArray& bytes)
{
    // The library may have closed the connection already.
    if (!bytes.isEmpty()
        && TEMP_FAILURE_RETRY(
               ::send(descriptor, bytes.constData(), static_cast<size_t>(bytes.size()), MSG_NOSIGNAL))
            < 0)
        reset();
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

Server::Server()
    : port(0)
    , descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
{
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    require(bind(descriptor, reinterpret_cast<sockaddr*>(&address), length) == 0 && listen(descriptor, 8) == 0
                && getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) == 0,
            "there is a server");
    port = ntohs(address.sin_port);
}

bool Server::closeNext()
{
    const int connection = next();
    return connection != -1 && close(connection) == 0;
}

int Server::next()
{
    return TEMP_FAILURE_RETRY(::accept(descriptor, nullptr, nullptr));
}

} // namespace Fuzz
} // namespace Velmora

#include "moc_Harness.cpp"

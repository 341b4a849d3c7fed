#include <tools/doctor/Discovery.h>

#include <ssdp/MulticastSocket.h>
#include <ssdp/SsdpManager.h>

#include <QtCore/QChildEvent>
#include <QtNetwork/QTcpSocket>
#include <QtNetwork/QUdpSocket>

#include <algorithm>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <utility>

namespace Velmora {
namespace Doctor {

using SSDP::MulticastSocket;
using SSDP::Ssdp;
using SSDP::SsdpDevice;
using SSDP::SsdpManager;

namespace {

const int LONGEST_REPLY = 64 * 1024;

} // namespace

Discovery::Discovery(int duration, QObject* parent)
    : QObject(parent)
    , ssdp(duration)
    , isBound(true)
    , hasReport(false)
    , functionCode(0)
    , univocalCode(0)
{
    connect(&ssdp, &Ssdp::discovered, this, [this](int function, int univocal) {
        hasReport = true;
        functionCode = function;
        univocalCode = univocal;
    });
    connect(&ssdp, &Ssdp::timeoutExpired, this, &Discovery::finished);
}

void Discovery::start()
{
    ssdp.discover();
    managers = ssdp.findChildren<SsdpManager*>(QString(), Qt::FindDirectChildrenOnly);
    for (SsdpManager* const manager : std::as_const(managers))
        watch(manager);
}

void Discovery::stop()
{
    ssdp.stop();
}

QList<QHostAddress> Discovery::addresses() const
{
    return searched;
}

QList<quint16> Discovery::searchPorts() const
{
    return ports;
}

bool Discovery::hasPort() const
{
    return isBound;
}

void Discovery::watch(SsdpManager* manager)
{
    // The slot of Ssdp was connected first. So it has already reported the codes when this slot gets the device.
    connect(manager, &SsdpManager::valueChanged, this, [this](const SsdpDevice* device) {
        if (hasReport)
            Q_EMIT found(device->location, device->address, functionCode, univocalCode);
        hasReport = false;
    });

    QHostAddress address;
    quint16 port = 0;
    const QList<QUdpSocket*> sockets = manager->findChildren<QUdpSocket*>(QString(), Qt::FindDirectChildrenOnly);
    for (QUdpSocket* const socket : sockets) {
        const bool isListener = qobject_cast<MulticastSocket*>(socket) != nullptr;
        isBound = isBound && (!isListener || socket->state() == QAbstractSocket::BoundState);
        // If the library cannot join the group, it does not bind this socket to a local address.
        if (!isListener && socket->localAddress() != QHostAddress(QHostAddress::AnyIPv4)
            && socket->localAddress() != QHostAddress(QHostAddress::Any)) {
            address = socket->localAddress();
            port = socket->localPort();
        }
        watchDatagrams(manager, socket, isListener);
    }
    searched << address;
    ports << port;
    manager->installEventFilter(this);
}

void Discovery::watchDatagrams(SsdpManager* manager, QUdpSocket* socket, bool isListener)
{
    // Slots run in the order in which they were connected. The slot of the library removes the datagram, so it
    // must run last.
    const char* const slot = isListener ? SLOT(onMulticastMessageReceived()) : SLOT(onUnicastMessageReceived());
    disconnect(socket, SIGNAL(readyRead()), manager, slot);
    connect(socket, &QUdpSocket::readyRead, this, [this, socket, isListener] { peek(socket, isListener); });
    connect(socket, SIGNAL(readyRead()), manager, slot);
}

void Discovery::peek(const QUdpSocket* socket, bool isListener)
{
    char buffer[64 * 1024];
    sockaddr_in sender = {};
    socklen_t length = sizeof sender;
    const ssize_t size = recvfrom(static_cast<int>(socket->socketDescriptor()), buffer, sizeof buffer,
                                  MSG_PEEK | MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&sender), &length);
    if (size < 0)
        return;
    const auto index = std::find_if(managers.cbegin(), managers.cend(),
                                    [socket](const SsdpManager* manager) { return socket->parent() == manager; });
    const auto position = static_cast<int>(index - managers.cbegin());
    Q_EMIT received({!isListener, searched.value(position), QHostAddress(ntohl(sender.sin_addr.s_addr)),
                     ntohs(sender.sin_port), QByteArray(buffer, static_cast<int>(size))});
}

bool Discovery::eventFilter(QObject* object, QEvent* event)
{
    if (event->type() == QEvent::ChildAdded) {
        // The constructor of the child still runs, so its class is not known yet.
        if (newChildren.isEmpty())
            QMetaObject::invokeMethod(this, &Discovery::watchNewSockets, Qt::QueuedConnection);
        newChildren.append({static_cast<SsdpManager*>(object), static_cast<QChildEvent*>(event)->child()});
    }
    return false;
}

void Discovery::watchNewSockets()
{
    const auto children = std::exchange(newChildren, {});
    for (const auto& child : children) {
        SsdpManager* const manager = child.first;
        auto* const socket = qobject_cast<QTcpSocket*>(child.second.data());
        if (!socket)
            continue;
        disconnect(socket, SIGNAL(readyRead()), manager, SLOT(onRequestSocketReadyRead()));
        connect(socket, &QTcpSocket::connected, this,
                [this, socket] { Q_EMIT subscribed(socket->peerAddress(), socket->peerPort(), QByteArray()); });
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] {
            Q_EMIT subscribed(socket->peerAddress(), socket->peerPort(), socket->peek(LONGEST_REPLY));
        });
        connect(socket, SIGNAL(readyRead()), manager, SLOT(onRequestSocketReadyRead()));
    }
}

} // namespace Doctor
} // namespace Velmora

#include "moc_Discovery.cpp"

#include <tools/Search.h>

#include <ssdp/MulticastSocket.h>
#include <ssdp/SsdpManager.h>

#include <QtNetwork/QNetworkInterface>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace Velmora {
namespace Tools {

using SSDP::MulticastSocket;
using SSDP::Ssdp;
using SSDP::SsdpManager;

namespace {

const quint16 PORT = 1900;

QString bindFailure(const MulticastSocket* socket)
{
    switch (socket->error()) {
    case QAbstractSocket::AddressInUseError:
        return QStringLiteral("a program has UDP port %1 and does not share it;"
                              " 'ss -lunp sport = :%1' shows which one")
            .arg(PORT);
    case QAbstractSocket::SocketAccessError:
        return QStringLiteral("this user is not permitted to listen on UDP port %1").arg(PORT);
    default:
        return QStringLiteral("cannot listen on UDP port %1: %2").arg(PORT).arg(socket->errorString());
    }
}

bool isAnyAddress(const QHostAddress& address)
{
    return address.isNull() || address == QHostAddress(QHostAddress::Any)
        || address == QHostAddress(QHostAddress::AnyIPv4);
}

/// Sends a datagram that does not leave this host, to see whether sending is permitted.
bool maySendFrom(const QHostAddress& address)
{
    MulticastSocket socket;
    return !socket.QUdpSocket::bind(address, 0) || !socket.setMulticastTtl(0)
        || socket.writeDatagram(QByteArray(), SsdpManager::MULTICAST_GROUP_ADDRESS, PORT) == 0;
}

} // namespace

Search::Search(int timeout, const QString& interface)
    : interface(interface)
    , ssdp(timeout)
{
    timer.setSingleShot(true);
    timer.setTimerType(Qt::PreciseTimer);
    timer.setInterval(timeout);
    connect(&ssdp, &Ssdp::discovered, this, &Search::discovered);
    connect(&ssdp, &Ssdp::timeoutExpired, this, &Search::finished);
    connect(&timer, &QTimer::timeout, this, [this] {
        stop();
        Q_EMIT finished();
    });
}

void Search::start()
{
    if (interface.isEmpty()) {
        ssdp.discover();
    } else {
        const QList<LocalAddress> chosen = chosenAddresses();
        for (const LocalAddress& local : chosen) {
            if (local.isUp)
                searchFrom(local.address);
        }
        timer.start();
    }
    examine();
}

void Search::searchFrom(const QHostAddress& address)
{
    auto* const manager = new SsdpManager(address, &ssdp);
    connect(manager, SIGNAL(valueChanged(const SsdpDevice*, const SsdpService*, QString)), &ssdp,
            SLOT(valueChanged(const SsdpDevice*, const SsdpService*, QString)));
    manager->initialize();
    manager->discover();
}

void Search::stop()
{
    ssdp.stop();
    timer.stop();
    const QList<SsdpManager*> managers = ssdp.findChildren<SsdpManager*>();
    for (SsdpManager* const manager : managers)
        manager->stop();
}

QString Search::isolation() const
{
    if (!interface.isEmpty() && !from.isEmpty() && from.constFirst().isLoopback)
        return QString();
    const bool isLoopbackOnly =
        std::all_of(from.cbegin(), from.cend(), [](const LocalAddress& local) { return local.isLoopback; });
    if (isLoopbackOnly)
        return QStringLiteral("no network interface with an IPv4 address is up and connected");
    const bool isConnected =
        std::any_of(from.cbegin(), from.cend(), [](const LocalAddress& local) { return local.isConnected; });
    return isConnected ? QString() : QStringLiteral("no network is connected to %1").arg(describe(from));
}

/// Returns the addresses of the chosen interface. If none was chosen, returns the addresses that are up and not
/// loopback, as Ssdp does.
QList<LocalAddress> Search::chosenAddresses() const
{
    QList<LocalAddress> result;
    const QList<LocalAddress> all = localAddresses();
    for (const LocalAddress& local : all) {
        if (interface.isEmpty() ? local.isUp && !local.isLoopback
                                : interface == local.interface || interface == local.address.toString())
            result.append(local);
    }
    return result;
}

/// Finds out which searches were sent. The library only logs failures, so this looks at its sockets, which are
/// children of the control points.
void Search::examine()
{
    const QList<LocalAddress> chosen = chosenAddresses();
    QList<QHostAddress> bound;
    bool hasFailed = false;
    const QList<SsdpManager*> managers = ssdp.findChildren<SsdpManager*>();
    for (const SsdpManager* const manager : managers)
        hasFailed = !examine(manager, bound) || hasFailed;
    const QList<LocalAddress> all = localAddresses();
    for (const LocalAddress& local : all) {
        if (bound.contains(local.address))
            from.append(local);
    }
    if (hasFailed && problems.isEmpty())
        problems = membershipFailures(chosen);
    if (!from.isEmpty() || !problems.isEmpty())
        return;
    if (interface.isEmpty()) {
        problems << isolation();
    } else if (!chosen.isEmpty()) {
        problems << QStringLiteral("%1 is down or not connected").arg(interface);
    } else if (QNetworkInterface::interfaceFromName(interface).isValid()) {
        problems << QStringLiteral("%1 has no IPv4 address").arg(interface);
    } else {
        problems
            << QStringLiteral("this host has no interface or address '%1', only %2").arg(interface, describe(all));
    }
}

bool Search::examine(const SsdpManager* manager, QList<QHostAddress>& bound)
{
    const MulticastSocket* const listener = manager->findChild<MulticastSocket*>();
    if (listener->state() != QAbstractSocket::BoundState) {
        const QString failure = bindFailure(listener);
        if (!problems.contains(failure))
            problems << failure;
        return false;
    }
    const QList<QUdpSocket*> sockets = manager->findChildren<QUdpSocket*>();
    for (const QUdpSocket* const socket : sockets) {
        // If the library cannot join the group, it does not bind this socket to a local address.
        if (socket == listener || isAnyAddress(socket->localAddress()))
            continue;
        if (maySendFrom(socket->localAddress())) {
            bound.append(socket->localAddress());
            return true;
        }
        problems << QStringLiteral("this host cannot send the search from %1; its own firewall may drop it")
                        .arg(socket->localAddress().toString());
    }
    return false;
}

QStringList Search::membershipFailures(const QList<LocalAddress>& candidates) const
{
    const QHostAddress group = SsdpManager::MULTICAST_GROUP_ADDRESS;
    QStringList result;
    for (const LocalAddress& local : candidates) {
        MulticastSocket socket;
        if (socket.bind(PORT) && !socket.joinMulticastGroup(group, local.address)) {
            const QString reason = QString::fromLocal8Bit(std::strerror(errno));
            result << QStringLiteral("cannot join %1 on %2: %3").arg(group.toString(), describe({local}), reason);
        }
    }
    return result;
}

} // namespace Tools
} // namespace Velmora

#include "moc_Search.cpp"

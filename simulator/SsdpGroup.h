#ifndef VELMORA_SIMULATOR_SSDPGROUP_H
#define VELMORA_SIMULATOR_SSDPGROUP_H

#include <simulator/NetworkNamespace.h>

#include <QtCore/QByteArray>
#include <QtCore/QHash>
#include <QtCore/QObject>
#include <QtNetwork/QHostAddress>
#include <QtNetwork/QUdpSocket>

namespace Velmora {
namespace Simulator {

/// One M-SEARCH.
struct Search
{
    QByteArray text;
    QByteArray target; ///< The value of ST.
    int mx; ///< The value of MX, in seconds; at least 1.
    QHostAddress address; ///< The address of the sender.
    quint16 port; ///< The port of the sender.
    uint interface; ///< The index of the interface that received it.
    QHostAddress destination; ///< The group, or the one address to which it was sent.
};

/**
 * The SSDP socket of all simulated devices. It is bound to port 1900 and joins 239.255.255.250 on every interface
 * that has a device. With one socket for all devices, a datagram wakes only one socket.
 *
 * The socket belongs to the network namespace in which the object was created. So do all sockets that its devices
 * open later, even if the thread is in another namespace then.
 */
class SsdpGroup : public QObject
{
    Q_OBJECT

public:
    static const QHostAddress ADDRESS;
    static const quint16 PORT;

    explicit SsdpGroup(QObject* parent = nullptr);

    /// Joins the group on the interface that has @p address. Returns whether it succeeded.
    bool join(const QHostAddress& address);

    /// Returns the index of the interface that has @p address. Call join() first.
    uint interfaceOf(const QHostAddress& address) const;

    /// Returns why join() failed.
    QString errorString() const;

    /// Sends one datagram from port 1900 of @p from, an address of this host.
    void send(const QHostAddress& from, const QHostAddress& to, quint16 port, const QByteArray& text);

    /// Returns the network namespace in which the object was created.
    const NetworkNamespace& network() const;

Q_SIGNALS:
    /// An M-SEARCH was received, for any target. Emitted once per datagram.
    void searched(const Velmora::Simulator::Search& search);

private:
    void readDatagrams();
    bool readInterfaces();

    NetworkNamespace home;
    QUdpSocket socket;
    QHash<quint32, uint> interfaces; ///< The indices of the interfaces, by address.
    QString error;
};

} // namespace Simulator
} // namespace Velmora

#endif

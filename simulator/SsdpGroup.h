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

/// One M-SEARCH that came to the group.
struct Search
{
    QByteArray text;
    QByteArray target; ///< Its ST header.
    int mx; ///< Within how many seconds an answer is expected; at least 1.
    QHostAddress address; ///< Who searches,
    quint16 port; ///< and where the answer goes.
    uint interface; ///< The index of the one that it came by.
    QHostAddress destination; ///< The group, or the address that was searched alone.
};

/**
 * The SSDP side of any number of simulated devices: one socket on port 1900, a member of
 * 239.255.255.250 on every interface that a device is on, so that a thousand devices do not wake a
 * thousand sockets for every datagram.
 *
 * Belongs to the network namespace in which it was made, like all that its devices open later,
 * wherever the thread is by then.
 */
class SsdpGroup : public QObject
{
    Q_OBJECT

public:
    static const QHostAddress ADDRESS;
    static const quint16 PORT;

    explicit SsdpGroup(QObject* parent = nullptr);

    /// Listens to the group on the interface that has @p address. Returns whether it could.
    bool join(const QHostAddress& address);

    /// The index of the interface that has @p address, which has joined.
    uint interfaceOf(const QHostAddress& address) const;

    /// Why join() failed.
    QString errorString() const;

    /// Sends one datagram from port 1900 of @p from, an address of this host.
    void send(const QHostAddress& from, const QHostAddress& to, quint16 port, const QByteArray& text);

    /// Where it was made.
    const NetworkNamespace& network() const;

Q_SIGNALS:
    /// A search has come. Comes once per datagram, whatever it searches for.
    void searched(const Velmora::Simulator::Search& search);

private:
    void readDatagrams();
    bool readInterfaces();

    NetworkNamespace home;
    QUdpSocket socket;
    QHash<quint32, uint> interfaces; ///< By their addresses.
    QString error;
};

} // namespace Simulator
} // namespace Velmora

#endif

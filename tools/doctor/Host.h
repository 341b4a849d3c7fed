#ifndef VELMORA_DOCTOR_HOST_H
#define VELMORA_DOCTOR_HOST_H

#include <tools/doctor/Findings.h>

#include <QtCore/QList>
#include <QtCore/QString>
#include <QtNetwork/QHostAddress>

namespace Velmora {
namespace Doctor {

/// A local address that the library searches from, or tries to search from.
struct AddressSeen
{
    QHostAddress address;
    int prefixLength = 0;
    QString interface;
    QString kind; ///< The kind of the interface, such as "bridge". Empty for an ordinary interface.
    quint16 searchPort = 0; ///< The port that the search was sent from. 0 if it could not be sent.
    bool hasLoop = false; ///< Whether the search came back to this host.
    quint16 eventPort = 0; ///< The port at which this program receives events.
    bool isEventPortOpen = false; ///< Whether this host can connect to eventPort.
    QString groupError; ///< Why the group cannot be joined. Empty if it can.
};

struct HostSeen
{
    QList<AddressSeen> addresses; ///< In the order of the library.
    bool hasPort = true;
    QStringList portHolders; ///< The programs that may use port 1900, as far as this user can see them.
    QList<Finding> findings;
};

/**
 * Looks at the addresses and the port that the library uses.
 * @param searched, ports the addresses and ports that the search was sent from; null and 0 if it could not be
 *        sent
 * @param hasPort whether the library could open port 1900
 */
HostSeen lookAtHost(const QList<QHostAddress>& searched, const QList<quint16>& ports, bool hasPort);

/// Adds the findings. Call it when the discovery is over. If the user is root, it also reads the packet filter.
void judgeHost(HostSeen& host, bool hasSearched);

/// Returns the kind of an interface in plain words. @p kind is the kernel's name of the kind. Empty for an
/// ordinary interface.
QString kindOfInterface(const QString& name, const QString& kind);

/// Returns the inodes of the sockets that are bound to @p port. @p table is the text of /proc/net/udp.
QList<QByteArray> socketsOnPort(const QByteArray& table, quint16 port);

/// The ports at which events, answers and announcements come in.
struct Ports
{
    QList<quint16> udp;
    QList<quint16> tcp;
};

/**
 * Returns the texts of the rules of a packet filter that drop packets to one of the ports.
 * @param rules the text that "nft list ruleset" or "iptables-save" prints
 * @return an empty list if no such rule was found
 */
QStringList droppingRules(const QString& rules, const Ports& ports);

} // namespace Doctor
} // namespace Velmora

#endif

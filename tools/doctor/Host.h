#ifndef VELMORA_DOCTOR_HOST_H
#define VELMORA_DOCTOR_HOST_H

#include <tools/doctor/Findings.h>

#include <QtCore/QList>
#include <QtCore/QString>
#include <QtNetwork/QHostAddress>

namespace Velmora {
namespace Doctor {

/// An address of this host that the library searches from, or tries to.
struct AddressSeen
{
    QHostAddress address;
    int prefixLength = 0;
    QString interface;
    QString kind; ///< As in "bridge"; empty for an ordinary interface.
    quint16 searchPort = 0; ///< Where the library has searched from; 0 if it could not.
    bool hasLoop = false; ///< The search came back.
    quint16 eventPort = 0; ///< Where this program takes events.
    bool isEventPortOpen = false; ///< From the host itself.
    QString groupError; ///< Why the group cannot be joined; empty if it can.
};

struct HostSeen
{
    QList<AddressSeen> addresses; ///< In the library's order.
    bool hasPort = true;
    QStringList portHolders; ///< Who may hold port 1900 alone, where it can be seen.
    QList<Finding> findings;
};

/**
 * Looks at what the library works with.
 * @param searched, ports the addresses and ports that it has searched from; null and 0 where it could not
 * @param hasPort whether it could open port 1900
 */
HostSeen lookAtHost(const QList<QHostAddress>& searched, const QList<quint16>& ports, bool hasPort);

/// Draws up the findings, once the discovery is over. With root, reads the packet filter too.
void judgeHost(HostSeen& host, bool hasSearched);

/// What @p kind of an interface, as the kernel calls it, or its name says that it is; empty for an ordinary one.
QString kindOfInterface(const QString& name, const QString& kind);

/// The inodes of the sockets that are bound to @p port, in @p table, the text of /proc/net/udp.
QList<QByteArray> socketsOnPort(const QByteArray& table, quint16 port);

/// What an event, an answer or an announcement needs to come in by.
struct Ports
{
    QList<quint16> udp;
    QList<quint16> tcp;
};

/**
 * Which rule of a packet filter drops what comes to one of the ports, in the words of the rule.
 * @param rules the text that "nft list ruleset" or "iptables-save" prints
 * @return empty if none is seen to
 */
QStringList droppingRules(const QString& rules, const Ports& ports);

} // namespace Doctor
} // namespace Velmora

#endif

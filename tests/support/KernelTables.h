#ifndef VELMORA_TESTS_SUPPORT_KERNELTABLES_H
#define VELMORA_TESTS_SUPPORT_KERNELTABLES_H

#include <tests/support/Literals.h>

#include <QtCore/QFile>
#include <QtCore/QStringList>
#include <QtCore/QtEndian>
#include <QtNetwork/QHostAddress>

namespace Velmora {
namespace Tests {

/// The IPv4 sockets in the network namespace of the calling thread. Each is a text, as "10.77.0.1:49152".
namespace KernelTables {

inline QList<QByteArray> linesOf(const char* name)
{
    QFile file("/proc/thread-self/net/"_s + name);
    return file.open(QIODevice::ReadOnly) ? file.readAll().split('\n') : QList<QByteArray>();
}

/// The kernel writes an IPv4 address as a number in the byte order of the machine.
inline QString addressOf(const QByteArray& hexadecimal)
{
    return QHostAddress(qFromBigEndian(hexadecimal.toUInt(nullptr, 16))).toString();
}

inline QStringList socketsOf(const char* table, const QByteArray& state)
{
    QStringList result;
    for (const QByteArray& line : linesOf(table)) {
        // number: local address:port, remote address:port, state, ...
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (fields.value(3) != state)
            continue;
        const QList<QByteArray> local = fields.at(1).split(':');
        result << "%1:%2"_s.arg(addressOf(local.first())).arg(local.last().toUInt(nullptr, 16));
    }
    result.sort();
    return result;
}

/// Returns the UDP sockets that are bound but not connected.
inline QStringList udpSockets()
{
    return socketsOf("udp", "07");
}

/// Returns the TCP sockets that listen.
inline QStringList tcpListeners()
{
    return socketsOf("tcp", "0A");
}

/// Returns how many sockets are members of the SSDP group, as "host0 x 1" for each interface.
inline QStringList groupMembers()
{
    QStringList result;
    QString interface;
    for (const QByteArray& line : linesOf("igmp")) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (!line.startsWith('\t'))
            interface = fields.value(1);
        else if (addressOf(fields.at(0)) == "239.255.255.250")
            result << interface + " x " + fields.value(1);
    }
    return result;
}

} // namespace KernelTables

} // namespace Tests
} // namespace Velmora

#endif

#ifndef VELMORA_TESTS_UNIT_KERNELTABLES_H
#define VELMORA_TESTS_UNIT_KERNELTABLES_H

#include <tests/support/Literals.h>

#include <QtCore/QFile>
#include <QtCore/QStringList>
#include <QtCore/QtEndian>
#include <QtNetwork/QHostAddress>

namespace Velmora {
namespace Tests {

/**
 * What the kernel says of the IPv4 sockets in the network namespace of the calling thread, each as
 * "10.77.0.1:49152" and all sorted.
 */
namespace KernelTables {

/// A file of the namespace, as its lines.
inline QList<QByteArray> linesOf(const char* name)
{
    QFile file("/proc/thread-self/net/"_s + QLatin1String(name));
    return file.open(QIODevice::ReadOnly) ? file.readAll().split('\n') : QList<QByteArray>();
}

/// The kernel prints an IPv4 address as the number that its bytes make in this machine's order.
inline QString addressOf(const QByteArray& hexadecimal)
{
    return QHostAddress(qFromBigEndian(hexadecimal.toUInt(nullptr, 16))).toString();
}

inline QStringList socketsOf(const char* table, const QByteArray& state)
{
    QStringList result;
    const QList<QByteArray> lines = linesOf(table);
    for (const QByteArray& line : lines) {
        // number: local address:port, remote address:port, state, ...
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (fields.size() < 4 || fields.at(3) != state)
            continue;
        const QList<QByteArray> local = fields.at(1).split(':');
        result << addressOf(local.first()) + QLatin1Char(':') + QString::number(local.last().toUInt(nullptr, 16));
    }
    result.sort();
    return result;
}

/// The UDP sockets that are bound and not connected.
inline QStringList udpSockets()
{
    return socketsOf("udp", "07");
}

/// The TCP sockets that listen.
inline QStringList tcpListeners()
{
    return socketsOf("tcp", "0A");
}

/// How many sockets are members of @p group on an interface, as "host0 x 1" for each interface.
inline QStringList membersOf(const QHostAddress& group)
{
    QStringList result;
    QString interface;
    const QList<QByteArray> lines = linesOf("igmp");
    for (const QByteArray& line : lines) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (fields.size() < 2)
            continue;
        if (!line.startsWith('\t'))
            interface = QString::fromLatin1(fields.at(1));
        else if (addressOf(fields.at(0)) == group.toString())
            result << interface + " x "_s + QString::fromLatin1(fields.at(1));
    }
    return result;
}

} // namespace KernelTables

} // namespace Tests
} // namespace Velmora

#endif

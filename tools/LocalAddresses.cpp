#include <tools/LocalAddresses.h>

#include <QtCore/QStringList>
#include <QtNetwork/QNetworkInterface>

namespace Velmora {
namespace Tools {

QList<LocalAddress> localAddresses()
{
    QList<LocalAddress> result;
    const QList<QNetworkInterface> interfaces = QNetworkInterface::allInterfaces();
    for (const QNetworkInterface& interface : interfaces) {
        const QNetworkInterface::InterfaceFlags flags = interface.flags();
        const QList<QNetworkAddressEntry> entries = interface.addressEntries();
        for (const QNetworkAddressEntry& entry : entries) {
            if (entry.ip().protocol() != QAbstractSocket::IPv4Protocol)
                continue;
            result.append({entry.ip(), entry.prefixLength(), interface.name(),
                           flags.testFlag(QNetworkInterface::IsLoopBack), flags.testFlag(QNetworkInterface::IsUp),
                           flags.testFlag(QNetworkInterface::IsRunning)});
        }
    }
    return result;
}

QString describe(const QList<LocalAddress>& addresses)
{
    QStringList result;
    for (const LocalAddress& local : addresses)
        result << QStringLiteral("%1 (%2)").arg(local.address.toString(), local.interface);
    return result.join(QStringLiteral(", "));
}

} // namespace Tools
} // namespace Velmora

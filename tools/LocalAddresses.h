#ifndef VELMORA_TOOLS_LOCALADDRESSES_H
#define VELMORA_TOOLS_LOCALADDRESSES_H

#include <QtCore/QList>
#include <QtCore/QString>
#include <QtNetwork/QHostAddress>

namespace Velmora {
namespace Tools {

/// An IPv4 address of this host, and the state of its interface.
struct LocalAddress
{
    QHostAddress address;
    int prefixLength;
    QString interface;
    bool isLoopback;
    bool isUp;
    bool isConnected; ///< Whether the interface has a link, for example a cable.
};

/// Returns the IPv4 addresses of all interfaces, including those that are not up.
QList<LocalAddress> localAddresses();

/// Returns the addresses and their interfaces as text, such as "10.0.0.1 (eth0), 127.0.0.1 (lo)".
QString describe(const QList<LocalAddress>& addresses);

} // namespace Tools
} // namespace Velmora

#endif

#include <ssdp/MulticastSocket.h>

#include <QtNetwork/QHostAddress>
#include <QtNetwork/QNetworkProxy>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace Velmora {
namespace SSDP {

MulticastSocket::MulticastSocket(QObject* parent)
    : QUdpSocket(parent)
{
    setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
}

MulticastSocket::~MulticastSocket() = default;

bool MulticastSocket::bind(quint16 port)
{
    const BindMode mode = ShareAddress | ReuseAddressHint;
#if QT_VERSION >= QT_VERSION_CHECK(5, 0, 0)
    // Since Qt 5, bind() without an address also binds IPv6. The address of a sender would then be
    // ::ffff:a.b.c.d.
    return QUdpSocket::bind(QHostAddress(QHostAddress::AnyIPv4), port, mode);
#else
    return QUdpSocket::bind(port, mode);
#endif
}

bool MulticastSocket::joinMulticastGroup(const QHostAddress& groupAddress, const QHostAddress& interfaceAddress)
{
    return changeMembership(IP_ADD_MEMBERSHIP, groupAddress, interfaceAddress);
}

bool MulticastSocket::leaveMulticastGroup(const QHostAddress& groupAddress, const QHostAddress& interfaceAddress)
{
    return changeMembership(IP_DROP_MEMBERSHIP, groupAddress, interfaceAddress);
}

bool MulticastSocket::setMulticastTtl(unsigned char ttl)
{
    return setOption(IP_MULTICAST_TTL, &ttl, sizeof ttl);
}

bool MulticastSocket::changeMembership(int option, const QHostAddress& groupAddress,
                                       const QHostAddress& interfaceAddress)
{
    if (groupAddress.protocol() != IPv4Protocol || proxy().type() != QNetworkProxy::NoProxy)
        return fail();

    ip_mreq membership = {};
    membership.imr_multiaddr.s_addr = inet_addr(groupAddress.toString().toUtf8().constData());
    if (!interfaceAddress.isNull())
        membership.imr_interface.s_addr = inet_addr(interfaceAddress.toString().toUtf8().constData());
    return setOption(option, &membership, sizeof membership);
}

bool MulticastSocket::setOption(int option, const void* value, unsigned int size)
{
    const int descriptor = static_cast<int>(socketDescriptor());
    if (descriptor == -1 || setsockopt(descriptor, IPPROTO_IP, option, value, size) < 0)
        return fail();
    return true;
}

bool MulticastSocket::fail()
{
    setSocketError(UnknownSocketError);
    return false;
}

} // namespace SSDP
} // namespace Velmora

#include "moc_MulticastSocket.cpp"

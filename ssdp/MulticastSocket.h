#ifndef VELMORA_SSDP_MULTICASTSOCKET_H
#define VELMORA_SSDP_MULTICASTSOCKET_H

#include <ssdp/QtVersion.h>

#include <QtNetwork/QUdpSocket>

namespace Velmora {
namespace SSDP {

/**
 * A UDP socket for IPv4 multicast. It shares its port with other sockets, joins and leaves groups on a
 * chosen interface, and sets the time-to-live of the datagrams that it sends to a group.
 *
 * @code
 * MulticastSocket socket;
 * socket.bind(1900);
 * socket.joinMulticastGroup(QHostAddress("239.255.255.250"), QHostAddress("192.168.1.10"));
 * @endcode
 *
 * Bind the socket before you join or leave a group or set the time-to-live. These functions are system
 * calls on its descriptor and take effect at once. Each returns whether it succeeded.
 *
 * @note If such a function fails, it sets error() to QAbstractSocket::UnknownSocketError. It changes
 * neither errorString() nor the socket.
 *
 * @note The socket uses no proxy, even if the application or the system sets one. If setProxy() gives it
 * a proxy, it cannot join or leave a group.
 *
 * @warning Use the socket only in the thread that owns it, like any QUdpSocket.
 */
class Q_DECL_EXPORT MulticastSocket : public QUdpSocket
{
    Q_OBJECT

public:
    /// Constructs a socket without a proxy. It is not bound yet.
    explicit MulticastSocket(QObject* parent = nullptr);
    ~MulticastSocket() override;

    /**
     * Binds to @p port (host byte order) on every IPv4 address. The port is shared: other sockets that
     * share it can also bind to it. Each of them receives every datagram that is sent to a group.
     * @return false if another socket has the port and does not share it, or if this socket is already bound
     */
    bool bind(quint16 port);

    /**
     * Joins the group @p groupAddress on the interface that has @p interfaceAddress.
     * If @p interfaceAddress is null, the system chooses the interface.
     * @return false if the socket is not bound or has a proxy; if @p groupAddress is not an IPv4 multicast
     *         address; if no interface has @p interfaceAddress; if the socket is already a member; or if
     *         it has too many memberships (net.ipv4.igmp_max_memberships)
     */
    bool joinMulticastGroup(const QHostAddress& groupAddress, const QHostAddress& interfaceAddress);

    /**
     * Leaves a group that was joined with the same arguments.
     * @return false if the socket is not bound, has a proxy or is not a member
     */
    bool leaveMulticastGroup(const QHostAddress& groupAddress, const QHostAddress& interfaceAddress);

    /**
     * Sets the time-to-live of datagrams that are sent to a group. With 0, they stay on this host. With
     * 1, they stay on the local network. The default of the system is 1.
     * @return false if the socket is not bound
     */
    bool setMulticastTtl(unsigned char ttl);

private:
    Q_DISABLE_COPY(MulticastSocket)

    Q_DECL_HIDDEN bool changeMembership(int option, const QHostAddress& groupAddress,
                                        const QHostAddress& interfaceAddress);
    Q_DECL_HIDDEN bool setOption(int option, const void* value, unsigned int size);
    Q_DECL_HIDDEN bool fail();
};

} // namespace SSDP
} // namespace Velmora

#endif

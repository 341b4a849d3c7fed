#ifndef VELMORA_SSDP_MULTICASTSOCKET_H
#define VELMORA_SSDP_MULTICASTSOCKET_H

#include <ssdp/QtVersion.h>

#include <QtNetwork/QUdpSocket>

namespace Velmora {
namespace SSDP {

/**
 * A UDP socket for IPv4 multicast: it shares its port, joins and leaves a group on a chosen interface
 * and sets the time-to-live of what it sends to a group.
 *
 * @code
 * MulticastSocket socket;
 * socket.bind(1900);
 * socket.joinMulticastGroup(QHostAddress("239.255.255.250"), QHostAddress("192.168.1.10"));
 * @endcode
 *
 * The group operations are system calls on the socket's descriptor: they take effect at once, and
 * they need a socket that is bound. Each returns whether it succeeded; a failure sets error() to
 * QAbstractSocket::UnknownSocketError, leaves errorString() alone and the socket as it was.
 *
 * An application-wide or system proxy does not reach this socket. A socket that was given a proxy
 * later can no longer join or leave.
 *
 * As with any QUdpSocket, use it from the thread that owns it.
 */
class Q_DECL_EXPORT MulticastSocket : public QUdpSocket
{
    Q_OBJECT

public:
    /// Makes a socket without a proxy that is not bound yet.
    explicit MulticastSocket(QObject* parent = nullptr);
    ~MulticastSocket() override;

    /**
     * Binds to @p port (host byte order) on every IPv4 address, sharing it: other sockets that share
     * can be bound to the same port, and each gets every datagram of the groups that it receives.
     * @return false when a socket that does not share holds the port, or this one is bound already
     */
    bool bind(quint16 port);

    /**
     * Receives what is sent to @p groupAddress on the interface that has @p interfaceAddress.
     * A null @p interfaceAddress leaves the choice of the interface to the system.
     * @return false when the socket is not bound or has a proxy, when @p groupAddress is not an IPv4
     *         address, and when the system refuses: no multicast group, no such interface, a member
     *         already, too many memberships (net.ipv4.igmp_max_memberships)
     */
    bool joinMulticastGroup(const QHostAddress& groupAddress, const QHostAddress& interfaceAddress);

    /**
     * Ends the membership that joinMulticastGroup() began with the same arguments.
     * @return false in the same cases, and when the socket is no member
     */
    bool leaveMulticastGroup(const QHostAddress& groupAddress, const QHostAddress& interfaceAddress);

    /**
     * Sets how many hops a datagram sent to a group may take: 0 keeps it on this host, 1 (the
     * system's default) on the local network, 255 is the highest.
     * @return false when the socket is not bound
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

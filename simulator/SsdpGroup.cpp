#include <simulator/SsdpGroup.h>

#include <simulator/MessageText.h>

#include <QtNetwork/QNetworkDatagram>
#include <QtNetwork/QNetworkProxy>

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace Velmora {
namespace Simulator {

namespace {

// A thousand devices may answer one search. The default buffer of the kernel has room for some 280 answers.
const int BUFFER_SIZE = 4 * 1024 * 1024;

const int MULTICAST_TTL = 2;

} // namespace

const QHostAddress SsdpGroup::ADDRESS(QStringLiteral("239.255.255.250"));
const quint16 SsdpGroup::PORT = 1900;

SsdpGroup::SsdpGroup(QObject* parent)
    : QObject(parent)
{
    socket.setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
    connect(&socket, &QUdpSocket::readyRead, this, &SsdpGroup::readDatagrams);
}

bool SsdpGroup::join(const QHostAddress& address)
{
    if (socket.state() != QAbstractSocket::BoundState) {
        const NetworkNamespace::Scope scope(home);
        if (!socket.bind(QHostAddress(QHostAddress::AnyIPv4), PORT,
                         QUdpSocket::ShareAddress | QUdpSocket::ReuseAddressHint)) {
            error = QStringLiteral("cannot bind UDP port %1: %2").arg(PORT).arg(socket.errorString());
            return false;
        }
        socket.setSocketOption(QAbstractSocket::MulticastTtlOption, MULTICAST_TTL);
        socket.setSocketOption(QAbstractSocket::SendBufferSizeSocketOption, BUFFER_SIZE);
        socket.setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, BUFFER_SIZE);
    }

    // QNetworkInterface is not used, because it lists all addresses of the host at each call.
    ip_mreq membership = {};
    membership.imr_multiaddr.s_addr = htonl(ADDRESS.toIPv4Address());
    membership.imr_interface.s_addr = htonl(address.toIPv4Address());
    if (setsockopt(static_cast<int>(socket.socketDescriptor()), IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership,
                   sizeof membership)
            == -1
        && errno != EADDRINUSE) { // another device has joined on this interface
        const QString reason = errno == ENODEV
            ? QStringLiteral("this host has no such address, ssdp-lab makes a network that has it")
            : QString::fromLocal8Bit(std::strerror(errno));
        error = QStringLiteral("cannot join %1 on %2: %3").arg(ADDRESS.toString(), address.toString(), reason);
        return false;
    }
    if (!interfaces.contains(address.toIPv4Address()) && !readInterfaces()) {
        error = QStringLiteral("cannot list the interfaces: %1").arg(QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    return true;
}

uint SsdpGroup::interfaceOf(const QHostAddress& address) const
{
    return interfaces.value(address.toIPv4Address());
}

bool SsdpGroup::readInterfaces()
{
    const NetworkNamespace::Scope scope(home);
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) == -1)
        return false;
    for (const ifaddrs* entry = list; entry; entry = entry->ifa_next) {
        if (entry->ifa_addr && entry->ifa_addr->sa_family == AF_INET) {
            const auto* const address = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr);
            // An alias, such as "eth0:1", has the index of its interface.
            const QByteArray name = QByteArray(entry->ifa_name).split(':').constFirst();
            interfaces.insert(ntohl(address->sin_addr.s_addr), if_nametoindex(name.constData()));
        }
    }
    freeifaddrs(list);
    return true;
}

QString SsdpGroup::errorString() const
{
    return error;
}

void SsdpGroup::send(const QHostAddress& from, const QHostAddress& to, quint16 port, const QByteArray& text)
{
    // QNetworkDatagram::setSender() is not used, because it sets ipi_addr, which the kernel ignores when sending.
    sockaddr_in destination = {};
    destination.sin_family = AF_INET;
    destination.sin_addr.s_addr = htonl(to.toIPv4Address());
    destination.sin_port = htons(port);
    iovec data = {const_cast<char*>(text.constData()), static_cast<size_t>(text.size())};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
    msghdr message = {};
    message.msg_name = &destination;
    message.msg_namelen = sizeof destination;
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = IPPROTO_IP;
    header->cmsg_type = IP_PKTINFO;
    header->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
    in_pktinfo source = {};
    source.ipi_spec_dst.s_addr = htonl(from.toIPv4Address());
    std::memcpy(CMSG_DATA(header), &source, sizeof source);
    sendmsg(static_cast<int>(socket.socketDescriptor()), &message, MSG_DONTWAIT);
}

const NetworkNamespace& SsdpGroup::network() const
{
    return home;
}

void SsdpGroup::readDatagrams()
{
    while (socket.hasPendingDatagrams()) {
        const QNetworkDatagram datagram = socket.receiveDatagram();
        Search search;
        search.text = datagram.data();
        if (!search.text.startsWith("M-SEARCH ") || headerOf(search.text, "MAN") != "\"ssdp:discover\"")
            continue;
        search.target = headerOf(search.text, "ST");
        search.mx = qMax(1, headerOf(search.text, "MX").toInt());
        search.address = datagram.senderAddress();
        search.port = static_cast<quint16>(datagram.senderPort());
        search.interface = datagram.interfaceIndex();
        search.destination = datagram.destinationAddress();
        Q_EMIT searched(search);
    }
}

} // namespace Simulator
} // namespace Velmora

#include "moc_SsdpGroup.cpp"

#include <tests/support/ScriptedDevice.h>

#include <QtNetwork/QNetworkProxy>

#include <arpa/inet.h>
#include <dirent.h>
#include <linux/sockios.h>
#include <memory>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace Velmora {
namespace Tests {

using Simulator::PrivateNetwork;

namespace {

const char GROUP[] = "239.255.255.250";

void require(bool done, const char* what)
{
    if (!done)
        throw std::runtime_error(std::string("the scripted device cannot ") + what);
}

/// The two addresses of a connection, as the descriptor of one of its ends has them.
struct Addresses
{
    explicit Addresses(int descriptor)
    {
        socklen_t length = sizeof own;
        isConnected =
            getsockname(descriptor, reinterpret_cast<sockaddr*>(&own), &length) == 0 && own.sin_family == AF_INET;
        length = sizeof peer;
        isConnected = isConnected && getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &length) == 0;
    }

    bool areOfOtherEnd(const Addresses& other) const
    {
        return isConnected && other.isConnected && equal(own, other.peer) && equal(peer, other.own);
    }

    static bool equal(const sockaddr_in& left, const sockaddr_in& right)
    {
        return left.sin_addr.s_addr == right.sin_addr.s_addr && left.sin_port == right.sin_port;
    }

    sockaddr_in own = {};
    sockaddr_in peer = {};
    bool isConnected;
};

/// The library's end of the connection whose end here is @p descriptor; -1 if it is closed. The library is
/// in this process. The kernel's table of connections takes some milliseconds to read.
int libraryEnd(int descriptor)
{
    const Addresses here(descriptor);
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir("/proc/self/fd"), closedir);
    require(folder != nullptr, "list the descriptors");
    while (const dirent* const entry = readdir(folder.get())) {
        const int candidate = QByteArray(entry->d_name).toInt();
        if (here.areOfOtherEnd(Addresses(candidate)))
            return candidate;
    }
    return -1;
}

} // namespace

Connection::Connection(QTcpSocket* socket, QObject* parent)
    : QObject(parent)
    , socket(socket)
{
    socket->setParent(this);
    socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    connect(socket, &QTcpSocket::readyRead, this, [this] {
        received += this->socket->readAll();
        Q_EMIT arrived();
    });
}

void Connection::send(const QByteArray& bytes)
{
    socket->write(bytes);
    socket->flush();
}

void Connection::close()
{
    socket->disconnectFromHost();
}

void Connection::reset()
{
    const linger hard = {1, 0};
    setsockopt(static_cast<int>(socket->socketDescriptor()), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    socket->abort();
}

bool Connection::isOpen() const
{
    return socket->state() == QAbstractSocket::ConnectedState;
}

bool Connection::wasRead() const
{
    const int descriptor = static_cast<int>(socket->socketDescriptor());
    int unacknowledged = -1;
    if (!isOpen() || socket->bytesToWrite() > 0 || ioctl(descriptor, SIOCOUTQ, &unacknowledged) != 0
        || unacknowledged != 0)
        return false;
    int waiting = -1;
    const int end = libraryEnd(descriptor);
    return end != -1 && ioctl(end, FIONREAD, &waiting) == 0 && waiting == 0;
}

ScriptedDevice::ScriptedDevice(PrivateNetwork& network, const QString& address, quint16 port)
    : address(address)
    , port(port)
    , network(network)
{
    group.setProxy(QNetworkProxy::NoProxy);
    sender.setProxy(QNetworkProxy::NoProxy);
    server.setProxy(QNetworkProxy::NoProxy);

    const PrivateNetwork::Scope scope(network, PrivateNetwork::DeviceSide);
    require(group.bind(QHostAddress(QHostAddress::AnyIPv4), 1900,
                       QUdpSocket::ShareAddress | QUdpSocket::ReuseAddressHint),
            "bind to port 1900");
    ip_mreq membership = {};
    membership.imr_multiaddr.s_addr = inet_addr(GROUP);
    membership.imr_interface.s_addr = htonl(this->address.toIPv4Address());
    require(setsockopt(static_cast<int>(group.socketDescriptor()), IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership,
                       sizeof membership)
                == 0,
            "join the group");

    require(sender.bind(this->address), "bind to its address");
    const int descriptor = static_cast<int>(sender.socketDescriptor());
    const unsigned char noLoop = 0;
    require(setsockopt(descriptor, IPPROTO_IP, IP_MULTICAST_IF, &membership.imr_interface,
                       sizeof membership.imr_interface)
                    == 0
                && setsockopt(descriptor, IPPROTO_IP, IP_MULTICAST_LOOP, &noLoop, sizeof noLoop) == 0,
            "send to the group");
    require(server.listen(this->address, port), "listen");

    connect(&group, &QUdpSocket::readyRead, this, &ScriptedDevice::readDatagrams);
    connect(&server, &QTcpServer::newConnection, this, &ScriptedDevice::accept);
}

void ScriptedDevice::script(const QByteArray& requestStart, const QByteArray& bytes)
{
    scripts.prepend({requestStart, bytes});
}

void ScriptedDevice::answer(const QByteArray& bytes)
{
    require(!searches.isEmpty(), "answer before it was searched");
    require(sender.writeDatagram(bytes, searches.last().sender, searches.last().port) == bytes.size(),
            "answer the search");
}

void ScriptedDevice::announce(const QByteArray& bytes)
{
    require(sender.writeDatagram(bytes, QHostAddress(QLatin1String(GROUP)), 1900) == bytes.size(),
            "announce itself");
}

Connection* ScriptedDevice::connectTo(const QHostAddress& host, quint16 hostPort)
{
    const PrivateNetwork::Scope scope(network, PrivateNetwork::DeviceSide);
    QTcpSocket* const socket = new QTcpSocket;
    socket->setProxy(QNetworkProxy::NoProxy);
    require(socket->bind(address), "bind to its address");
    socket->connectToHost(host, hostPort);
    require(socket->waitForConnected(), "connect to the library");
    return new Connection(socket, this);
}

QList<ScriptedDevice::Request> ScriptedDevice::requestsFor(const QByteArray& start) const
{
    QList<Request> result;
    for (const Request& request : requests) {
        if (request.bytes.startsWith(start))
            result.append(request);
    }
    return result;
}

void ScriptedDevice::forget()
{
    for (const QPointer<Connection>& connection : accepted)
        delete connection;
    accepted.clear();
    handled.clear();
    searches.clear();
    requests.clear();
    scripts.clear();
}

void ScriptedDevice::stopListening()
{
    server.close();
}

const Connection* ScriptedDevice::holdConnections()
{
    // A queue for none holds one.
    server.pauseAccepting();
    require(::listen(static_cast<int>(server.socketDescriptor()), 0) == 0, "shorten its queue");
    return connectTo(address, port);
}

void ScriptedDevice::takeConnections()
{
    server.resumeAccepting();
}

void ScriptedDevice::readDatagrams()
{
    while (group.hasPendingDatagrams()) {
        Datagram datagram;
        datagram.bytes.resize(static_cast<int>(group.pendingDatagramSize()));
        group.readDatagram(datagram.bytes.data(), datagram.bytes.size(), &datagram.sender, &datagram.port);
        searches.append(datagram);
    }
}

void ScriptedDevice::accept()
{
    while (server.hasPendingConnections()) {
        Connection* const connection = new Connection(server.nextPendingConnection(), this);
        accepted.append(connection);
        connect(connection, &Connection::arrived, this, [this, connection] { readRequests(connection); });
    }
}

void ScriptedDevice::readRequests(Connection* connection)
{
    for (;;) {
        const int begin = handled.value(connection);
        int length = 4;
        int end = static_cast<int>(connection->received.indexOf("\r\n\r\n", begin));
        if (end == -1) {
            length = 2;
            end = static_cast<int>(connection->received.indexOf("\n\n", begin));
        }
        if (end == -1)
            return;
        handled.insert(connection, end + length);
        const QByteArray request = connection->received.mid(begin, end + length - begin);
        requests.append({request, connection});
        for (const auto& script : scripts) {
            if (request.startsWith(script.first)) {
                connection->send(script.second);
                break;
            }
        }
    }
}

} // namespace Tests
} // namespace Velmora

#include "moc_ScriptedDevice.cpp"

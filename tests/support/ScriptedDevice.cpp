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

template <typename Value> void setIpOption(const QUdpSocket& socket, int option, const Value& value)
{
    const int descriptor = static_cast<int>(socket.socketDescriptor());
    require(setsockopt(descriptor, IPPROTO_IP, option, &value, sizeof value) == 0, "set an option of a socket");
}

/// Returns the address and port of one end of a connection. @p name is getsockname() or getpeername(). Returns 0
/// if there is no connection.
quint64 endOf(int descriptor, int (*name)(int, sockaddr*, socklen_t*))
{
    sockaddr_in end = {};
    socklen_t length = sizeof end;
    if (name(descriptor, reinterpret_cast<sockaddr*>(&end), &length) != 0 || end.sin_family != AF_INET)
        return 0;
    return (static_cast<quint64>(end.sin_addr.s_addr) << 16) + end.sin_port;
}

/// Returns the descriptor of the library's end of a connection, or -1 if it is closed. The library is in this
/// process. The kernel's table of connections would take milliseconds to read.
int libraryEnd(int descriptor)
{
    const quint64 here = endOf(descriptor, getsockname);
    const quint64 there = endOf(descriptor, getpeername);
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir("/proc/self/fd"), closedir);
    require(folder != nullptr, "list the descriptors");
    while (const dirent* const entry = readdir(folder.get())) {
        const int candidate = QByteArray(entry->d_name).toInt();
        if (endOf(candidate, getsockname) == there && endOf(candidate, getpeername) == here)
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
    connect(socket, &QTcpSocket::readyRead, this, &Connection::read);
}

void Connection::read()
{
    const QByteArray bytes = socket->readAll();
    received += bytes;
    unfinished += bytes;
    // The lines of a GET end with CR LF, those of a subscription with LF.
    for (const char* const end : {"\r\n\r\n", "\n\n"}) {
        int position = 0;
        while ((position = static_cast<int>(unfinished.indexOf(end))) != -1) {
            const QByteArray request = unfinished.left(position + static_cast<int>(qstrlen(end)));
            unfinished.remove(0, static_cast<int>(request.size()));
            Q_EMIT requested(request);
        }
    }
}

void Connection::send(const QByteArray& bytes)
{
    socket->write(bytes);
    socket->flush();
}

void Connection::reset()
{
    const linger hard = {1, 0};
    setsockopt(static_cast<int>(socket->socketDescriptor()), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    socket->abort();
}

bool Connection::wasRead() const
{
    const int descriptor = static_cast<int>(socket->socketDescriptor());
    int bytes = -1;
    if (!isOpen() || socket->bytesToWrite() > 0 || ioctl(descriptor, SIOCOUTQ, &bytes) != 0 || bytes != 0)
        return false;
    const int end = libraryEnd(descriptor);
    return end != -1 && ioctl(end, FIONREAD, &bytes) == 0 && bytes == 0;
}

ScriptedDevice::ScriptedDevice(PrivateNetwork& network, const QString& address, quint16 port)
    : network(network)
    , address(address)
    , port(port)
{
    group.setProxy(QNetworkProxy::NoProxy);
    sender.setProxy(QNetworkProxy::NoProxy);
    server.setProxy(QNetworkProxy::NoProxy);

    const PrivateNetwork::Scope scope(network, PrivateNetwork::DeviceSide);
    const auto shared = QUdpSocket::ShareAddress | QUdpSocket::ReuseAddressHint;
    require(group.bind(QHostAddress(QHostAddress::AnyIPv4), 1900, shared), "bind to port 1900");
    const in_addr own = {htonl(this->address.toIPv4Address())};
    const ip_mreq membership = {{inet_addr(GROUP)}, own};
    setIpOption(group, IP_ADD_MEMBERSHIP, membership);
    require(sender.bind(this->address), "bind to its address");
    setIpOption(sender, IP_MULTICAST_IF, own);
    setIpOption(sender, IP_MULTICAST_LOOP, 0);
    require(server.listen(this->address, port), "listen");

    connect(&group, &QUdpSocket::readyRead, this, &ScriptedDevice::readDatagrams);
    connect(&server, &QTcpServer::newConnection, this, &ScriptedDevice::accept);
}

void ScriptedDevice::answer(const QByteArray& bytes)
{
    require(!searches.isEmpty(), "answer before a search");
    require(sender.writeDatagram(bytes, searches.last().sender, searches.last().port) == bytes.size(),
            "answer a search");
}

void ScriptedDevice::announce(const QByteArray& bytes)
{
    require(sender.writeDatagram(bytes, QHostAddress(QLatin1String(GROUP)), 1900) == bytes.size(),
            "send to the group");
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
    searches.clear();
    requests.clear();
    scripts.clear();
}

const Connection* ScriptedDevice::holdConnections()
{
    // A queue of length 0 holds one connection.
    server.pauseAccepting();
    require(::listen(static_cast<int>(server.socketDescriptor()), 0) == 0, "shorten its queue");
    return connectTo(address, port);
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
        connect(connection, &Connection::requested, this, [this, connection](const QByteArray& request) {
            requests.append({request, connection});
            for (const auto& script : scripts) {
                if (request.startsWith(script.first))
                    return connection->send(script.second);
            }
        });
    }
}

} // namespace Tests
} // namespace Velmora

#include "moc_ScriptedDevice.cpp"

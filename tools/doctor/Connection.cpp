#include <tools/doctor/Connection.h>

#include <QtCore/QSocketNotifier>
#include <QtCore/QTimer>

#include <arpa/inet.h>
#include <cerrno>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Velmora {
namespace Doctor {

Connection* Connection::open(const QHostAddress& address, quint16 port, QObject* parent)
{
    sockaddr_in destination = {};
    destination.sin_family = AF_INET;
    destination.sin_port = htons(port);
    destination.sin_addr.s_addr = htonl(address.toIPv4Address());
    const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const bool hasBegun =
        ::connect(descriptor, reinterpret_cast<const sockaddr*>(&destination), sizeof destination) == 0
        || errno == EINPROGRESS;
    const int error = hasBegun ? 0 : errno;

    auto* const connection = new Connection(descriptor, parent);
    connection->isConnected = false;
    connection->peerAddress = address;
    connection->port = port;
    if (error != 0) {
        connection->reader->setEnabled(false);
        connection->writer->setEnabled(false);
        QTimer::singleShot(0, connection, [connection, error] { connection->end(error); });
    } else {
        connection->reader->setEnabled(false);
        connection->writer->setEnabled(true);
    }
    return connection;
}

Connection::Connection(int descriptor, QObject* parent)
    : QObject(parent)
    , descriptor(descriptor)
    , port(0)
    , reader(new QSocketNotifier(descriptor, QSocketNotifier::Read))
    , writer(new QSocketNotifier(descriptor, QSocketNotifier::Write))
    , isConnected(true)
    , hasEnded(false)
{
    sockaddr_in peer = {};
    socklen_t size = sizeof peer;
    if (getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &size) == 0) {
        peerAddress = QHostAddress(ntohl(peer.sin_addr.s_addr));
        port = ntohs(peer.sin_port);
    }
    const int on = 1;
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    fcntl(descriptor, F_SETFL, fcntl(descriptor, F_GETFL) | O_NONBLOCK);
    writer->setEnabled(false);
    connect(reader.data(), &QSocketNotifier::activated, this, &Connection::onReadable);
    connect(writer.data(), &QSocketNotifier::activated, this, &Connection::onWritable);
}

Connection::~Connection()
{
    reader.reset();
    writer.reset();
    if (descriptor != -1)
        close(descriptor);
}

void Connection::send(const QByteArray& bytes)
{
    unsent += bytes;
    writer->setEnabled(!hasEnded);
}

void Connection::onWritable()
{
    if (!isConnected) {
        int error = 0;
        socklen_t size = sizeof error;
        getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size);
        if (error != 0) {
            end(error);
            return;
        }
        isConnected = true;
        reader->setEnabled(true);
        writer->setEnabled(false);
        Q_EMIT connected();
    }
    if (!unsent.isEmpty()) {
        const ssize_t written =
            ::send(descriptor, unsent.constData(), static_cast<size_t>(unsent.size()), MSG_NOSIGNAL);
        if (written > 0)
            unsent.remove(0, static_cast<int>(written));
        else if (errno != EAGAIN)
            unsent.clear(); // onReadable() reports the error
    }
    writer->setEnabled(!unsent.isEmpty());
}

void Connection::onReadable()
{
    char buffer[64 * 1024];
    const ssize_t size = recv(descriptor, buffer, sizeof buffer, 0);
    if (size > 0)
        Q_EMIT received(QByteArray(buffer, static_cast<int>(size)));
    else if (size == 0)
        end(0);
    else if (errno != EAGAIN && errno != EINTR)
        end(errno);
}

void Connection::end(int error)
{
    if (hasEnded)
        return;
    hasEnded = true;
    reader->setEnabled(false);
    writer->setEnabled(false);
    Q_EMIT ended(error);
}

} // namespace Doctor
} // namespace Velmora

#include "moc_Connection.cpp"

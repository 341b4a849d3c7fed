#ifndef VELMORA_TESTS_SCRIPTEDDEVICE_H
#define VELMORA_TESTS_SCRIPTEDDEVICE_H

#include <simulator/PrivateNetwork.h>

#include <QtCore/QList>
#include <QtCore/QObject>
#include <QtCore/QPointer>
#include <QtNetwork/QHostAddress>
#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>
#include <QtNetwork/QUdpSocket>

namespace Velmora {
namespace Tests {

/// The device's end of a TCP connection to the library.
class Connection : public QObject
{
    Q_OBJECT

public:
    Connection(QTcpSocket* socket, QObject* parent);

    void send(const QByteArray& bytes);

    /// Ends the connection with FIN.
    void close() { socket->disconnectFromHost(); }

    /// Ends the connection with RST, like a device that has restarted.
    void reset();

    /// Ends the connection with RST if @p hard is true, else with FIN.
    void end(bool hard) { hard ? reset() : close(); }

    bool isOpen() const { return socket->state() == QAbstractSocket::ConnectedState; }

    /// Returns whether the library has read everything that was sent and keeps the connection open.
    bool wasRead() const;

    /// Every byte that was received.
    QByteArray received;

Q_SIGNALS:
    /// A request was received. It ends at its first empty line.
    void requested(const QByteArray& request);

private:
    void read();

    QTcpSocket* socket;
    QByteArray unfinished; ///< The beginning of the next request.
};

/**
 * A device that does not know UPnP. It records what it receives, and sends what the test says.
 *
 * It listens to the group and on one TCP port. It answers only the requests that have a script.
 */
class ScriptedDevice : public QObject
{
    Q_OBJECT

public:
    struct Datagram
    {
        QByteArray bytes;
        QHostAddress sender;
        quint16 port;
    };

    struct Request
    {
        QByteArray bytes;
        QPointer<Connection> connection;
    };

    explicit ScriptedDevice(Simulator::PrivateNetwork& network,
                            const QString& address = QLatin1String("10.77.1.1"), quint16 port = 8080);

    /// From now on, answers every request that begins with @p requestStart with @p bytes.
    void script(const QByteArray& requestStart, const QByteArray& bytes)
    {
        scripts.prepend({requestStart, bytes});
    }

    /// Sends a datagram to the sender of the last search.
    void answer(const QByteArray& bytes);

    /// Sends a datagram to the group.
    void announce(const QByteArray& bytes);

    /// Opens a connection to the library.
    Connection* connectTo(const QHostAddress& host, quint16 hostPort);

    /// Returns the requests that begin with @p start. The oldest is the first.
    QList<Request> requestsFor(const QByteArray& start) const;

    /// Closes every accepted connection. Forgets the scripts and everything that was received.
    void forget();

    /// From now on, refuses connections. Those that are open stay open.
    void stopListening() { server.close(); }

    /// From now on, does not react to attempts to connect, because its queue is full. Returns the connection that
    /// fills the queue. Both ends of it belong to the device.
    const Connection* holdConnections();

    /// Ends holdConnections(). The kernel on the library's side tries to connect again after one second
    /// or more.
    void takeConnections() { server.resumeAccepting(); }

    QList<Datagram> searches;
    QList<Request> requests;
    QList<QPointer<Connection>> accepted;

private:
    void readDatagrams();
    void accept();

    Simulator::PrivateNetwork& network;
    const QHostAddress address;
    const quint16 port;
    QUdpSocket group;
    QUdpSocket sender;
    QTcpServer server;
    QList<QPair<QByteArray, QByteArray>> scripts;
};

} // namespace Tests
} // namespace Velmora

#endif

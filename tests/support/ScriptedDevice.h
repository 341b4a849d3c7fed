#ifndef VELMORA_TESTS_SCRIPTEDDEVICE_H
#define VELMORA_TESTS_SCRIPTEDDEVICE_H

#include <simulator/PrivateNetwork.h>

#include <QtCore/QHash>
#include <QtCore/QList>
#include <QtCore/QObject>
#include <QtCore/QPointer>
#include <QtNetwork/QHostAddress>
#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>
#include <QtNetwork/QUdpSocket>

namespace Velmora {
namespace Tests {

/// One TCP connection between a device and the library, whichever of them opened it.
class Connection : public QObject
{
    Q_OBJECT

public:
    /// Takes over @p socket, which belongs to the device side.
    Connection(QTcpSocket* socket, QObject* parent);

    void send(const QByteArray& bytes);

    /// Ends it with FIN, as a device does that is done.
    void close();

    /// Ends it with RST, as a device does that loses its power and comes back.
    void reset();

    /// Ends it with RST if @p hard, else with FIN.
    void end(bool hard) { hard ? reset() : close(); }

    bool isOpen() const;

    /// Whether the library has taken everything that was sent out of the kernel's receive queue and
    /// keeps the connection open.
    bool wasRead() const;

    /// Every byte that came, in the order in which it came.
    QByteArray received;

Q_SIGNALS:
    void arrived();

private:
    QTcpSocket* socket;
};

/**
 * A device that knows nothing of UPnP: it records the bytes that come and sends those it was given.
 *
 * It listens to the group, and to TCP on one port. A request ends at its first empty line; a request
 * that begins as one of the scripted replies says is answered at once, any other is left waiting.
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

    ScriptedDevice(Simulator::PrivateNetwork& network, const QString& address, quint16 port);

    /// Sends @p bytes for every request that begins with @p requestStart from now on.
    void script(const QByteArray& requestStart, const QByteArray& bytes);

    /// Sends a datagram to where the last search came from.
    void answer(const QByteArray& bytes);

    /// Sends a datagram to the group.
    void announce(const QByteArray& bytes);

    /// Opens a connection to the library.
    Connection* connectTo(const QHostAddress& host, quint16 hostPort);

    /// The requests that begin with @p start, oldest first.
    QList<Request> requestsFor(const QByteArray& start) const;

    /// Closes every connection and forgets what came and what was scripted.
    void forget();

    /// Refuses connections from now on; those that exist stay.
    void stopListening();

    /// Leaves connections without an answer from now on, as a device does whose queue is full.
    /// Returns the connection that fills it, which is the device's own at both ends.
    const Connection* holdConnections();

    /// Answers them again; the peer's kernel tries again every second or two.
    void takeConnections();

    QHostAddress address;
    quint16 port;
    QList<Datagram> searches;
    QList<Request> requests;
    QList<QPointer<Connection>> accepted;

private:
    void readDatagrams();
    void accept();
    void readRequests(Connection* connection);

    Simulator::PrivateNetwork& network;
    QUdpSocket group;
    QUdpSocket sender;
    QTcpServer server;
    QHash<Connection*, int> handled;
    QList<QPair<QByteArray, QByteArray>> scripts;
};

} // namespace Tests
} // namespace Velmora

#endif

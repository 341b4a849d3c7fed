#ifndef VELMORA_DOCTOR_CONNECTION_H
#define VELMORA_DOCTOR_CONNECTION_H

#include <QtCore/QByteArray>
#include <QtCore/QObject>
#include <QtCore/QScopedPointer>
#include <QtNetwork/QHostAddress>

class QSocketNotifier;

namespace Velmora {
namespace Doctor {

/**
 * A TCP connection of which every segment is seen as it is read, and every end as the kernel tells it.
 * QTcpSocket has one error for a peer that closes and for one that resets.
 */
class Connection : public QObject
{
    Q_OBJECT

public:
    /// Takes over the descriptor of a connection that was accepted.
    explicit Connection(int descriptor, QObject* parent = nullptr);
    /// Closes the connection.
    ~Connection() override;

    /// Connects to @p address. What comes of it is signalled, never inside this call.
    static Connection* open(const QHostAddress& address, quint16 port, QObject* parent);

    void send(const QByteArray& bytes);

    QHostAddress peer() const { return peerAddress; }
    quint16 peerPort() const { return port; }

Q_SIGNALS:
    void connected();
    /// What one read has given.
    void received(const QByteArray& bytes);
    /// It has ended: 0 when the peer closed it, otherwise the kernel's number of the error. Comes once.
    void ended(int error);

private:
    Q_DISABLE_COPY(Connection)

    void onReadable();
    void onWritable();
    void end(int error);

    int descriptor;
    QHostAddress peerAddress;
    quint16 port;
    QByteArray unsent;
    QScopedPointer<QSocketNotifier> reader;
    QScopedPointer<QSocketNotifier> writer;
    bool isConnected;
    bool hasEnded;
};

} // namespace Doctor
} // namespace Velmora

#endif

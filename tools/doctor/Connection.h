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
 * A TCP connection that reports every read and the kernel's error number at the end. QTcpSocket (Qt 5.15 and
 * 6.4) reports the same error whether the peer closes or resets the connection.
 */
class Connection : public QObject
{
    Q_OBJECT

public:
    /// Takes ownership of the descriptor of an accepted connection.
    explicit Connection(int descriptor, QObject* parent = nullptr);
    /// Closes the connection.
    ~Connection() override;

    /// Connects to @p address. The signals are emitted from the event loop, not inside this call.
    static Connection* open(const QHostAddress& address, quint16 port, QObject* parent);

    void send(const QByteArray& bytes);

    QHostAddress peer() const { return peerAddress; }
    quint16 peerPort() const { return port; }

Q_SIGNALS:
    void connected();
    /// One read has returned @p bytes.
    void received(const QByteArray& bytes);
    /// The connection has ended. @p error is 0 if the peer closed it, otherwise the kernel's error number.
    /// Emitted once.
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

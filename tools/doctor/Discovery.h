#ifndef VELMORA_DOCTOR_DISCOVERY_H
#define VELMORA_DOCTOR_DISCOVERY_H

#include <ssdp/Ssdp.h>

#include <QtCore/QList>
#include <QtCore/QObject>
#include <QtCore/QPointer>
#include <QtNetwork/QHostAddress>

class QUdpSocket;

namespace Velmora {
namespace SSDP {
class SsdpManager;
}
namespace Doctor {

/// A datagram that the library is about to read.
struct Datagram
{
    bool isAnswer; ///< To the search, rather than sent to the group.
    QHostAddress local; ///< The library's address. Of what was sent to the group, one of them.
    QHostAddress sender;
    quint16 port;
    QByteArray text;
};

/**
 * A discovery through the library, which is watched: what it receives is looked at just before it reads
 * it, so that nothing is sent twice and nothing is taken from it.
 */
class Discovery : public QObject
{
    Q_OBJECT

public:
    /// @param duration how long it lasts, in milliseconds
    explicit Discovery(int duration, QObject* parent = nullptr);

    void start();
    void stop();

    /// The local addresses that were searched from, in the library's order; null where it failed to.
    QList<QHostAddress> addresses() const;

    /// The ports of the sockets that have sent the search, in the same order.
    QList<quint16> searchPorts() const;

    /// Whether port 1900 could be bound, by every control point.
    bool hasPort() const;

Q_SIGNALS:
    void received(const Velmora::Doctor::Datagram& datagram);

    /// The library has reported the device with this location.
    void found(const QString& location, const QHostAddress& sender, int functionCode, int univocalCode);

    /// A subscription of the library was sent to a device or was answered; @p reply is empty at first, and
    /// then all that the library reads of the answer.
    void subscribed(const QHostAddress& device, quint16 port, const QByteArray& reply);

    void finished();

protected:
    bool eventFilter(QObject* object, QEvent* event) override;

private:
    void watch(SSDP::SsdpManager* manager);
    void watchDatagrams(SSDP::SsdpManager* manager, QUdpSocket* socket, bool isListener);
    void watchNewSockets();
    void peek(const QUdpSocket* socket, bool isListener);

    SSDP::Ssdp ssdp;
    QList<SSDP::SsdpManager*> managers;
    QList<QHostAddress> searched;
    QList<quint16> ports;
    bool isBound;
    QList<QPair<SSDP::SsdpManager*, QPointer<QObject>>> newChildren;
    bool hasReport; ///< The report whose device is not known yet.
    int functionCode;
    int univocalCode;
};

} // namespace Doctor
} // namespace Velmora

#endif

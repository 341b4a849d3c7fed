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
    bool isAnswer; ///< Whether it answers the search. If not, it was sent to the group.
    QHostAddress local; ///< The local address of the control point that received it.
    QHostAddress sender;
    quint16 port;
    QByteArray text;
};

/**
 * A discovery of the library that can be watched. It looks at every message just before the library reads it,
 * and does not remove the message. So no message is sent a second time, and the library misses nothing.
 */
class Discovery : public QObject
{
    Q_OBJECT

public:
    /// @param duration how long the discovery lasts, in milliseconds
    explicit Discovery(int duration, QObject* parent = nullptr);

    void start();
    void stop();

    /// Returns the local addresses that the search was sent from, in the order of the library. An address is
    /// null if the search could not be sent from it.
    QList<QHostAddress> addresses() const;

    /// Returns the ports that the search was sent from, in the same order.
    QList<quint16> searchPorts() const;

    /// Returns whether every control point could bind port 1900.
    bool hasPort() const;

Q_SIGNALS:
    void received(const Velmora::Doctor::Datagram& datagram);

    /// The library has reported the device with this location.
    void found(const QString& location, const QHostAddress& sender, int functionCode, int univocalCode);

    /// Emitted when the library sends a subscription, with an empty @p reply. Emitted again when the library is
    /// about to read the reply, with the bytes of the reply.
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
    bool hasReport; ///< Whether there is a report whose device is not known yet.
    int functionCode;
    int univocalCode;
};

} // namespace Doctor
} // namespace Velmora

#endif

#ifndef VELMORA_DOCTOR_EVENTSERVER_H
#define VELMORA_DOCTOR_EVENTSERVER_H

#include <tools/doctor/Observation.h>
#include <tools/doctor/Request.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QMap>
#include <QtCore/QSet>
#include <QtCore/QTimer>
#include <QtNetwork/QTcpServer>

namespace Velmora {
namespace Doctor {

/// Receives the events of devices, and records their segments and times.
class EventServer : public QTcpServer
{
    Q_OBJECT

public:
    explicit EventServer(Trace* trace, QObject* parent = nullptr);

    /// Expects events with @p identifier in their path, until forget() is called.
    void expect(const QUuid& identifier);
    void forget(const QUuid& identifier);
    bool expects(const QUuid& identifier) const { return expected.contains(identifier); }

    /// Returns the incomplete events of @p device for @p identifier, or for an identifier that is not expected.
    QList<EventSeen> unfinished(const QUuid& identifier, const QHostAddress& device) const;

Q_SIGNALS:
    /**
     * An event is complete, or its connection was closed.
     * @param identifier the identifier in its path
     * @param age the time since its last segment, in milliseconds
     */
    void arrived(const QUuid& identifier, const QHostAddress& device, const Velmora::Doctor::EventSeen& event,
                 int age);

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    struct Arrival
    {
        QUuid identifier;
        EventSeen event;
        QElapsedTimer clock;
        QTimer* linger = nullptr;
        int announced = 0;
        qint64 bodySize = 0;
    };

    void onReceived(Connection* connection, const QByteArray& bytes);
    void finish(Connection* connection);

    Trace* trace;
    QMap<Connection*, Arrival> arrivals;
    QSet<QUuid> expected;
    QTimer beat; ///< Runs while an event is expected. Shows how late this process reads.
    QElapsedTimer sinceBeat;
    QElapsedTimer sinceStall; ///< The time since this process last read late.
};

} // namespace Doctor
} // namespace Velmora

#endif

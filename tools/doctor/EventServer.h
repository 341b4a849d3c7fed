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

/// Takes the events of devices, and notes how they come.
class EventServer : public QTcpServer
{
    Q_OBJECT

public:
    explicit EventServer(Trace* trace, QObject* parent = nullptr);

    /// From now on until forget(), an event whose path names @p identifier is expected.
    void expect(const QUuid& identifier);
    void forget(const QUuid& identifier);
    bool expects(const QUuid& identifier) const { return expected.contains(identifier); }

    /// What has come from @p device of events that are not complete, for @p identifier or for nobody.
    QList<EventSeen> unfinished(const QUuid& identifier, const QHostAddress& device) const;

Q_SIGNALS:
    /**
     * An event is complete, or its connection was closed.
     * @param identifier what its path names
     * @param age how long ago the last of it came, in milliseconds
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
    QTimer beat; ///< Runs while anything is expected, and shows how late this process is to read.
    QElapsedTimer sinceBeat;
    QElapsedTimer sinceStall; ///< Of this process.
};

} // namespace Doctor
} // namespace Velmora

#endif

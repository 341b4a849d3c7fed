#ifndef VELMORA_DOCTOR_EXAMINATION_H
#define VELMORA_DOCTOR_EXAMINATION_H

#include <tools/doctor/EventServer.h>
#include <tools/doctor/Observation.h>
#include <tools/doctor/Request.h>

#include <QtCore/QSet>
#include <QtCore/QTimer>
#include <QtCore/QUuid>

#include <functional>

namespace Velmora {
namespace Doctor {

/// The data that all examinations of a run share.
struct Examiners
{
    Trace trace;
    QSet<QString> fetched; ///< The requested URLs. Each is requested only once in a run.
    qint64 memory = Q_INT64_C(64) * 1024 * 1024; ///< How many bytes all further bodies together may have.
};

/**
 * Examines one device. It sends the same requests as the library: one GET for each document, and one SUBSCRIBE
 * for each key-object service. Then it waits for the event of the service.
 *
 * @warning All references must stay valid as long as the object exists.
 */
class Examination : public QObject
{
    Q_OBJECT

public:
    /// @param patience how long each step may take, in milliseconds
    Examination(DeviceSeen& device, EventServer& server, int patience, Examiners& examiners, QObject* parent);

    void start();

Q_SIGNALS:
    void finished();

private:
    Q_DISABLE_COPY(Examination)

    void fetch(const QString& url, const std::function<void(const DocumentSeen&)>& then);
    void describeServices();
    void examineService(int number);
    void subscribe();
    void onArrived(const QUuid& identifier, const QHostAddress& sender, const EventSeen& event, int age);
    void endEvents();
    ServiceSeen& service() { return device.services[current]; }

    DeviceSeen& device;
    EventServer& server;
    Examiners& examiners;
    int patience;
    QHostAddress address;
    quint16 port;
    int current;
    QUuid identifier; ///< The identifier of the subscription whose event is expected.
    QTimer eventPatience;
    QElapsedTimer sinceSubscription;
};

} // namespace Doctor
} // namespace Velmora

#endif

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

/// What all examinations of a run share.
struct Examiners
{
    Trace trace;
    QSet<QString> fetched; ///< The URLs that were requested: each is once a run.
    qint64 memory = Q_INT64_C(64) * 1024 * 1024; ///< What bodies may take, all together.
};

/**
 * Goes the way of the library with one device, alone: one GET for each document, one SUBSCRIBE for each
 * key-object service, and waits for its event.
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
    QUuid identifier; ///< Of the subscription whose event is expected.
    QTimer eventPatience;
    QElapsedTimer sinceSubscription;
};

} // namespace Doctor
} // namespace Velmora

#endif

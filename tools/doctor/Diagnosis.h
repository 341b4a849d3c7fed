#ifndef VELMORA_DOCTOR_DIAGNOSIS_H
#define VELMORA_DOCTOR_DIAGNOSIS_H

#include <tools/doctor/Findings.h>
#include <tools/doctor/Observation.h>

#include <ssdp/Documents.h>

namespace Velmora {
namespace Doctor {

// Turns what was seen into findings. No function here uses a socket.

/// What the library reads in a fetched document.
struct Reading
{
    bool isRead = false; ///< Whether the library reads it as a document of the expected kind.
    QList<Finding> findings; ///< Why it is not read. If it is read, the mistakes that are tolerated.
    QList<SSDP::Documents::Service> services; ///< The key-object services in a device description.
    QStringList variables; ///< The state variables in a service description.
};

/// Returns whether @p location is an http URL with a host. If so, sets @p address and @p port. If the host is a
/// name, @p address is null.
bool isUsableLocation(const QString& location, QHostAddress* address, quint16* port);

Reading readDescription(const DocumentSeen& document);
Reading readServiceDescription(const DocumentSeen& document);

/// Returns what is wrong with an event. Empty if it contains a key object.
QList<Finding> judgeEvent(const EventSeen& event);
/// Returns whether the library would read a key object from the event.
bool carriesKeyObject(const EventSeen& event);
/// Returns whether the library treats a body as complete when @p size bytes have come.
bool isWholeBody(qint64 size, int announced);
/// Returns the length that the head of an event announces, as the library reads it.
int announcedLength(const QByteArray& head, bool* hasLength);

/// @p timeout is the time-out of the host, in milliseconds.
QList<Finding> judgeSearch(const DeviceSeen& device, int timeout);
QList<Finding> judgeSubscription(const ServiceSeen& service);

/**
 * Returns the findings of a device. If the device was not found within @p timeout, returns only the first
 * mistake that explains it. If it was found, returns all mistakes that are tolerated. Empty if nothing is wrong.
 */
QList<Finding> diagnose(const DeviceSeen& device, int timeout);

/// Returns whether the library reported the device within @p timeout.
bool isFound(const DeviceSeen& device, int timeout);

/// Returns whether the findings say that the device is of another maker.
bool isOfOtherMaker(const QList<Finding>& findings);

} // namespace Doctor
} // namespace Velmora

#endif

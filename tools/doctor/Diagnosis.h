#ifndef VELMORA_DOCTOR_DIAGNOSIS_H
#define VELMORA_DOCTOR_DIAGNOSIS_H

#include <tools/doctor/Findings.h>
#include <tools/doctor/Observation.h>

#include <ssdp/Documents.h>

namespace Velmora {
namespace Doctor {

// From what was seen to what is wrong. Nothing here has a socket.

/// What the library makes of a document that was fetched.
struct Reading
{
    bool isRead = false; ///< It is a document of the kind that was expected.
    QList<Finding> findings; ///< What keeps it from being read; if it is read, what is odd all the same.
    QList<SSDP::Documents::Service> services; ///< Of a device description: the key-object services.
    QStringList variables; ///< Of a service description.
};

/// Whether @p location is a URL that the library can fetch; @p address and @p port say where from.
bool isUsableLocation(const QString& location, QHostAddress* address, quint16* port);

Reading readDescription(const DocumentSeen& document);
Reading readServiceDescription(const DocumentSeen& document);

/// What is wrong with an event; empty if it carries a key object.
QList<Finding> judgeEvent(const EventSeen& event);
/// Whether the library would have taken the key object from it.
bool carriesKeyObject(const EventSeen& event);
/// Whether the library takes a body of which @p size bytes have come for complete.
bool isWholeBody(qint64 size, int announced);
/// The length that the head of an event announces, as the library reads it.
int announcedLength(const QByteArray& head, bool* hasLength);

/// @p timeout is that of the host, in milliseconds.
QList<Finding> judgeSearch(const DeviceSeen& device, int timeout);
QList<Finding> judgeSubscription(const ServiceSeen& service);

/**
 * Why the device is not found: the first stage at which something is wrong, and that alone. Of a device
 * that was found within @p timeout, everything that is odd all the same. Empty if nothing is wrong.
 */
QList<Finding> diagnose(const DeviceSeen& device, int timeout);

/// Whether the library reported it within @p timeout.
bool isFound(const DeviceSeen& device, int timeout);

/// Whether the findings say that it is no device of the maker.
bool isOfOtherMaker(const QList<Finding>& findings);

} // namespace Doctor
} // namespace Velmora

#endif

#ifndef VELMORA_SSDP_SSDPSERVICE_H
#define VELMORA_SSDP_SSDPSERVICE_H

#include <ssdp/QtVersion.h>

#include <QtCore/QHash>
#include <QtCore/QString>
#include <QtCore/QUuid>

namespace Velmora {
namespace SSDP {

/**
 * A record of one service of a device. It contains what a control point knows of the service.
 *
 * The SsdpDevice that lists the service owns the record. A host reads it in a slot connected to
 * SsdpManager::valueChanged(). The host must not change it.
 *
 * @note The texts are copied from the device description (UPnP Device Architecture 1.1, clause 2.3). They
 * are not trimmed and not checked. If an element is missing, its text is empty.
 *
 * @warning Keep no pointer to a record. SsdpManager::clearDevices() deletes it, and so does every
 * Ssdp::discover().
 */
class Q_DECL_EXPORT SsdpService
{
public:
    /// Constructs a record without state variables. Both identifiers and all texts are null.
    SsdpService();
    virtual ~SsdpService();

    /// The SID in the last reply to a subscription. Null before the first reply, and if the last reply has
    /// no SID.
    QUuid subscriptionId;

    /// The identifier that the control point gives this record. Every record gets a new one. The device
    /// sends it back in the path of an event. So the control point finds the service of the event.
    QUuid id;

    QString serviceType; ///< SsdpManager::VELMORA_SERVICE_FILTER for a key-object service.
    QString serviceId; ///< The identifier that the device gives the service.
    QString controlUrl; ///< The URL for actions. The library does not use it.
    QString eventSubUrl; ///< The path for subscriptions, on the server of the location.
    QString scpdUrl; ///< The path of the service description, on the server of the location.

    /// The last value of each state variable, by name. If the service description lists a variable and no
    /// event has set it yet, its value is null.
    QHash<QString, QString> stateVariables;

private:
    Q_DISABLE_COPY(SsdpService)
};

} // namespace SSDP
} // namespace Velmora

#endif

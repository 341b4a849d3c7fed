#ifndef VELMORA_SSDP_SSDPSERVICE_H
#define VELMORA_SSDP_SSDPSERVICE_H

#include <ssdp/QtVersion.h>

#include <QtCore/QHash>
#include <QtCore/QString>
#include <QtCore/QUuid>

namespace Velmora {
namespace SSDP {

/**
 * What a control point knows of one service of a device: a plain record.
 *
 * The SsdpDevice that lists the service owns the record. A host reads it in a slot connected to
 * SsdpManager::valueChanged().
 *
 * @note The texts are those of the device description (UPnP Device Architecture 1.1, clause 2.3). They
 * are not trimmed and not checked. A missing element gives an empty text.
 *
 * @warning Keep no pointer to a record. It is deleted when the next discovery starts.
 */
class Q_DECL_EXPORT SsdpService
{
public:
    /// Constructs a record without state variables. Both identifiers and all texts are null.
    SsdpService();
    virtual ~SsdpService();

    /// The SID in the last reply to a subscription. Null before the first reply, and if that reply has none.
    QUuid subscriptionId;

    /// The identifier that the control point gives this record. Every record gets a new one. The device
    /// sends it back in the path of an event, which shows the service that the event belongs to.
    QUuid id;

    QString serviceType; ///< SsdpManager::VELMORA_SERVICE_FILTER for a key-object service.
    QString serviceId; ///< The identifier that the device gives the service.
    QString controlUrl; ///< The URL for actions. The library does not use it.
    QString eventSubUrl; ///< The path for subscriptions, on the server of the location.
    QString scpdUrl; ///< The path of the service description, on the server of the location.

    /// The last value of each state variable, by name. The value is null if the service description
    /// lists the variable and no event has set it yet.
    QHash<QString, QString> stateVariables;

private:
    Q_DISABLE_COPY(SsdpService)
};

} // namespace SSDP
} // namespace Velmora

#endif

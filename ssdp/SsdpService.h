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
 * The texts stand as they came from the device description (UPnP Device Architecture 1.1, clause
 * 2.3): neither trimmed nor checked. An element that the description lacks leaves an empty text.
 *
 * The SsdpDevice that lists the service owns it. A host only reads it, in a slot connected to
 * SsdpManager::valueChanged(), and keeps no pointer to it: the record dies when the next discovery
 * starts.
 */
class Q_DECL_EXPORT SsdpService
{
public:
    /// Both identifiers are null, every text is null and the table is empty.
    SsdpService();
    virtual ~SsdpService();

    /// The SID that the device gave to the last subscription; null until then, or when it gave none.
    QUuid subscriptionId;

    /// The control point's own identifier of this record, fresh for every record. It stands in the
    /// callback path of the subscription, and events find their service by it.
    QUuid id;

    QString serviceType; ///< The type, SsdpManager::VELMORA_SERVICE_FILTER for a key-object service.
    QString serviceId; ///< The identifier that the device gives it.
    QString controlUrl; ///< Where its actions would be called, which the library never does.
    QString eventSubUrl; ///< The path that takes subscriptions, on the server of the location.
    QString scpdUrl; ///< The path of its description, on the server of the location.

    /// The last value received of each state variable, by name: null for a variable that the service
    /// description lists and no event has set, no entry for one that neither has named.
    QHash<QString, QString> stateVariables;

private:
    Q_DISABLE_COPY(SsdpService)
};

} // namespace SSDP
} // namespace Velmora

#endif

#ifndef VELMORA_SSDP_RECORDINDEX_H
#define VELMORA_SSDP_RECORDINDEX_H

#include <QtCore/QHash>
#include <QtCore/QList>
#include <QtCore/QMap>
#include <QtCore/QSet>
#include <QtCore/QString>
#include <QtCore/QUuid>

namespace Velmora {
namespace SSDP {

class SsdpDevice;
class SsdpService;

/**
 * Finds the same records as a search through all devices and services, but faster. This matters because
 * a thousand devices send several thousand messages, and a hostile device may list a hundred thousand
 * services.
 *
 * If a record is in the list of devices but was not passed to add(), it is found by a search.
 *
 * @warning The list must exist as long as the index. Call clear() before a record is deleted.
 */
class RecordIndex
{
public:
    explicit RecordIndex(const QList<SsdpDevice*>& devices);

    void add(SsdpDevice* device);
    void add(SsdpDevice* device, SsdpService* service);
    void clear();

    /// Returns whether a device has exactly this location.
    bool hasLocation(const QString& location) const;
    /// Returns the device that lists @p service, or null. Only the pointer is compared.
    SsdpDevice* deviceOf(const SsdpService* service) const;
    /// Returns the service with this identifier, or null.
    SsdpService* serviceOf(const QUuid& id) const;

private:
    bool hasEveryService() const;

    const QList<SsdpDevice*>& devices;
    QSet<QString> locations;
    QHash<const SsdpService*, SsdpDevice*> serviceDevices;
    QMap<QUuid, SsdpService*> services;
};

} // namespace SSDP
} // namespace Velmora

#endif

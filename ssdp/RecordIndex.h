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
 * Answers what a walk over all devices and services would answer, without the walk: a thousand devices
 * send several thousand messages, and a hostile one may list a hundred thousand services.
 *
 * It refers to the list of devices. Records that were put there without add() are found by a walk.
 */
class RecordIndex
{
public:
    explicit RecordIndex(const QList<SsdpDevice*>& devices);

    void add(SsdpDevice* device);
    void add(SsdpDevice* device, SsdpService* service);
    void clear();

    /// Whether a device has exactly this location.
    bool hasLocation(const QString& location) const;
    /// The device that lists @p service, or null. Only the pointer is compared.
    SsdpDevice* deviceOf(const SsdpService* service) const;
    /// The first service with this identifier, or null.
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

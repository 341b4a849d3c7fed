#include <ssdp/RecordIndex.h>

#include <ssdp/SsdpDevice.h>
#include <ssdp/SsdpService.h>

#include <utility>

namespace Velmora {
namespace SSDP {

RecordIndex::RecordIndex(const QList<SsdpDevice*>& devices)
    : devices(devices)
{
}

void RecordIndex::add(SsdpDevice* device)
{
    locations.insert(device->location);
}

void RecordIndex::add(SsdpDevice* device, SsdpService* service)
{
    serviceDevices.insert(service, device);
    services.insert(service->id, service);
}

void RecordIndex::clear()
{
    locations.clear();
    serviceDevices.clear();
    services.clear();
}

bool RecordIndex::hasLocation(const QString& location) const
{
    if (locations.contains(location))
        return true;
    if (locations.size() == devices.size())
        return false;
    for (const SsdpDevice* const device : devices) {
        if (device->location == location)
            return true;
    }
    return false;
}

SsdpDevice* RecordIndex::deviceOf(const SsdpService* service) const
{
    SsdpDevice* const indexed = serviceDevices.value(service);
    if (indexed || hasEveryService())
        return indexed;
    for (SsdpDevice* const device : devices) {
        for (const SsdpService* const candidate : std::as_const(device->services)) {
            if (candidate == service)
                return device;
        }
    }
    return nullptr;
}

SsdpService* RecordIndex::serviceOf(const QUuid& id) const
{
    SsdpService* const indexed = services.value(id);
    if (indexed || hasEveryService())
        return indexed;
    for (const SsdpDevice* const device : devices) {
        for (SsdpService* const service : std::as_const(device->services)) {
            if (service->id == id)
                return service;
        }
    }
    return nullptr;
}

bool RecordIndex::hasEveryService() const
{
    int listed = 0;
    for (const SsdpDevice* const device : devices)
        listed += static_cast<int>(device->services.size());
    return listed == services.size();
}

} // namespace SSDP
} // namespace Velmora

#include <ssdp/SsdpDevice.h>

#include <ssdp/SsdpService.h>

namespace Velmora {
namespace SSDP {

SsdpDevice::SsdpDevice() = default;

SsdpDevice::~SsdpDevice()
{
    qDeleteAll(services);
    services.clear();
}

} // namespace SSDP
} // namespace Velmora

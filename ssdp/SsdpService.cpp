#include <ssdp/SsdpService.h>

namespace Velmora {
namespace SSDP {

SsdpService::SsdpService() = default;

SsdpService::~SsdpService() = default;

} // namespace SSDP
} // namespace Velmora

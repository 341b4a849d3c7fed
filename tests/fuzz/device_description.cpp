// The body of the reply to the request for a device description, as far as the requests for the
// descriptions of its services.

#include <tests/fuzz/Harness.h>

#include <ssdp/SsdpDevice.h>
#include <ssdp/SsdpService.h>
#include <tests/support/ManagerAccess.h>

using namespace Velmora;

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static auto* const manager = new SSDP::SsdpManager(QHostAddress(QHostAddress::LocalHost), qApp);
    Tests::ManagerAccess access(*manager);
    Fuzz::addService(*manager);
    SSDP::SsdpDevice* const device = access.devices().constFirst();
    auto* const reply = new Fuzz::FinishedReply(Fuzz::bytesOf(data, size));
    access.deviceReplies().insert(reply, device);
    access.onReplyFinished(reply);

    int toDescribe = 0;
    for (int i = 1; i < device->services.size(); ++i) {
        Fuzz::require(!device->services.at(i)->id.isNull(), "every service has an identifier");
        if (device->services.at(i)->serviceType == SSDP::SsdpManager::VELMORA_SERVICE_FILTER)
            ++toDescribe;
    }
    Fuzz::require(access.deviceReplies().size() == toDescribe, "one request for every key-object service");
    Fuzz::require(access.serviceReplies().size() == toDescribe, "each of them for its service");

    Fuzz::settle();
    manager->clearDevices();
    Fuzz::settle();
    Fuzz::require(access.deviceReplies().isEmpty() && access.serviceReplies().isEmpty(), "nothing is left");
    return 0;
}

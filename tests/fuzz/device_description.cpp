// A device description. The fuzzer checks the requests for the service descriptions.

#include <tests/fuzz/Harness.h>

using namespace Velmora::Fuzz;
using Velmora::SSDP::SsdpManager;
using Velmora::SSDP::SsdpService;

void Velmora::Fuzz::test(QByteArray& input)
{
    static auto* const control = new ControlPoint(qApp);
    const SsdpService* const own = control->addService();
    control->handleReply(input);

    int toDescribe = 0;
    const QList<SsdpService*>& services = control->access.devices().constFirst()->services;
    for (const SsdpService* const service : services) {
        require(!service->id.isNull(), "every service has an identifier");
        if (service != own && service->serviceType == SsdpManager::VELMORA_SERVICE_FILTER)
            ++toDescribe;
    }
    require(control->access.deviceReplies().size() == toDescribe,
            "there is a request for every key-object service");
    require(control->access.serviceReplies().size() == toDescribe, "every request has its service");

    settle();
    control->clearDevices();
    settle();
    require(control->access.deviceReplies().isEmpty() && control->access.serviceReplies().isEmpty(),
            "nothing is left");
}

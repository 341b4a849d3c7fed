// The body of the reply to the request for a service description, as far as the subscription sockets.

#include <tests/fuzz/Harness.h>

#include <ssdp/SsdpDevice.h>
#include <ssdp/SsdpService.h>
#include <tests/support/ManagerAccess.h>

using namespace Velmora;

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // A new one for every input, since a subscription that fails stays listed with its manager.
    SSDP::SsdpManager manager{QHostAddress(QHostAddress::LocalHost)};
    Tests::ManagerAccess access(manager);
    SSDP::SsdpService* const service = Fuzz::addService(manager);
    auto* const reply = new Fuzz::FinishedReply(Fuzz::bytesOf(data, size));
    access.deviceReplies().insert(reply, access.devices().constFirst());
    access.serviceReplies().insert(reply, service);
    access.onReplyFinished(reply);

    Fuzz::require(!access.serviceReplies().contains(reply), "a finished reply is forgotten");
    Fuzz::require(access.requestSockets().size() == access.requestSocketServices().size(),
                  "each socket is for a service");
    Fuzz::require(service->stateVariables.size() <= access.requestSockets().size(),
                  "each variable has its socket");
    Fuzz::settle();
    return 0;
}

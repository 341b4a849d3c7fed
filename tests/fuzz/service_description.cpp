// The body of the reply to the request for a service description, as far as the subscription sockets.

#include <tests/fuzz/Harness.h>

#include <ssdp/SsdpDevice.h>
#include <ssdp/SsdpService.h>
#include <tests/support/Literals.h>
#include <tests/support/ManagerAccess.h>

using namespace Velmora::Tests;
using namespace Velmora;

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // A new one for every input, since a subscription that fails stays listed with its manager.
    SSDP::SsdpManager manager{QHostAddress(QHostAddress::LocalHost)};
    Tests::ManagerAccess access(manager);
    SSDP::SsdpService* const service = Fuzz::addService(manager, "http://127.0.0.1:9/description.xml"_s);
    auto* const reply =
        new Fuzz::FinishedReply(QByteArray(reinterpret_cast<const char*>(data), static_cast<int>(size)));
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

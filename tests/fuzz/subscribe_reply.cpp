// What a device answers to a SUBSCRIBE, over a real connection. The first byte says whether it answers
// before the request was sent, the second how much of it comes in a first segment.

#include <tests/fuzz/Harness.h>

#include <ssdp/SsdpDevice.h>
#include <ssdp/SsdpService.h>
#include <tests/support/Literals.h>
#include <tests/support/ManagerAccess.h>
#include <tests/support/Messages.h>

using namespace Velmora::Tests;
using namespace Velmora;

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    static Fuzz::Server server;

    SSDP::SsdpManager manager{QHostAddress(QHostAddress::LocalHost)};
    Tests::ManagerAccess access(manager);
    SSDP::SsdpService* const service =
        Fuzz::addService(manager, "http://127.0.0.1:%1/description.xml"_s.arg(server.port));
    auto* const description = new Fuzz::FinishedReply(serviceDescription());
    access.deviceReplies().insert(description, access.devices().constFirst());
    access.serviceReplies().insert(description, service);
    access.onReplyFinished(description);
    Fuzz::require(access.requestSockets().size() == 1, "the service is subscribed to");

    Fuzz::Peer device = server.accept();
    if (data[0] & 1)
        Fuzz::settle();
    const QByteArray answer = Fuzz::bytesOf(data, size, 2);
    device.send(answer.left(data[1]));
    Fuzz::settle();
    device.send(answer.mid(data[1]));
    Fuzz::settle();
    Fuzz::require(access.requestSockets().isEmpty() == !answer.isEmpty(), "the first bytes end the subscription");
    Fuzz::require(access.requestSocketServices().size() == access.requestSockets().size(), "in both lists");
    device.reset();
    Fuzz::settle();
    return 0;
}

// What a device answers to a SUBSCRIBE, over a real connection. The first byte says whether it answers
// before the request was sent, the second how much of it comes in a first segment.

#include <tests/fuzz/Harness.h>

#include <ssdp/SsdpDevice.h>
#include <ssdp/SsdpService.h>
#include <tests/support/Literals.h>
#include <tests/support/ManagerAccess.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Velmora::Tests;
using namespace Velmora;

namespace {

const char DESCRIPTION[] = "<scpd xmlns=\"urn:schemas-upnp-org:service-1-0\"><serviceStateTable>"
                           "<stateVariable><name>KO</name></stateVariable></serviceStateTable></scpd>";

sockaddr_in listen(int* listener)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    *listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    Fuzz::require(bind(*listener, reinterpret_cast<sockaddr*>(&address), length) == 0
                      && ::listen(*listener, 8) == 0
                      && getsockname(*listener, reinterpret_cast<sockaddr*>(&address), &length) == 0,
                  "there is a device");
    return address;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    static int listener = -1;
    static const sockaddr_in address = listen(&listener);

    SSDP::SsdpManager manager{QHostAddress(QHostAddress::LocalHost)};
    Tests::ManagerAccess access(manager);
    SSDP::SsdpService* const service =
        Fuzz::addService(manager, QString("http://127.0.0.1:%1/description.xml"_s).arg(ntohs(address.sin_port)));
    auto* const description = new Fuzz::FinishedReply(QByteArray(DESCRIPTION));
    access.deviceReplies().insert(description, access.devices().constFirst());
    access.serviceReplies().insert(description, service);
    access.onReplyFinished(description);
    Fuzz::require(access.requestSockets().size() == 1, "the service is subscribed to");

    Fuzz::Peer device = Fuzz::Peer::accepted(TEMP_FAILURE_RETRY(accept(listener, nullptr, nullptr)));
    if (data[0] & 1)
        Fuzz::settle();
    const QByteArray answer(reinterpret_cast<const char*>(data) + 2, static_cast<int>(size - 2));
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

// The reply to a subscription, over a real connection. The first byte says whether the device waits for the
// request. The second byte says how much of the reply is in the first segment.

#include <tests/fuzz/Harness.h>
#include <tests/support/Messages.h>

using namespace Velmora::Fuzz;
using namespace Velmora::Tests;

void Velmora::Fuzz::test(QByteArray& input)
{
    static Server server;
    const bool waits = takeByte(input) & 1;
    const int first = takeByte(input);
    ControlPoint control;
    SSDP::SsdpService* const service =
        control.addService("http://127.0.0.1:%1/description.xml"_s.arg(server.serverPort()));
    control.handleReply(serviceDescription(), service);
    require(control.access.requestSockets().size() == 1, "there is a subscription");

    Peer device = server.accept();
    if (waits)
        settle();
    device.sendSegments({input.left(first), input.mid(first)});
    settle();
    const auto connections = control.access.requestSockets().size();
    require(connections == (input.isEmpty() ? 1 : 0), "the first bytes end the subscription");
    require(control.access.requestSocketServices().size() == connections, "every connection has its service");
    device.reset();
    settle();
}

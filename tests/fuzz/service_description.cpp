// A service description. The fuzzer checks the connections of the subscriptions.

#include <tests/fuzz/Harness.h>

using namespace Velmora::Fuzz;

void Velmora::Fuzz::test(QByteArray& input)
{
    // A subscription that fails stays listed, so every input gets a new control point.
    ControlPoint control;
    SSDP::SsdpService* const service = control.addService();
    control.handleReply(input, service);
    const auto connections = control.access.requestSockets().size();
    require(control.access.requestSocketServices().size() == connections, "every connection has its service");
    require(service->stateVariables.size() <= connections, "every variable has its connection");
    settle();
}

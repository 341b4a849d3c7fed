// The first bytes of a connection to the event server. The first byte says how much follows in a second segment,
// in sixteenths.

#include <tests/fuzz/Harness.h>

#include <QtNetwork/QTcpSocket>

using namespace Velmora::Fuzz;

void Velmora::Fuzz::test(QByteArray& input)
{
    ControlPoint& control = listeningControlPoint();
    if (control.access.devices().isEmpty())
        control.addService();
    const int late = takeByte(input) & 15;
    const int cut = static_cast<int>(input.size() - input.size() * late / 16);
    Peer device = Peer::connectedTo(control.access.eventServer().serverPort());
    device.send(input.left(cut));
    settle();
    const auto connections = control.access.requestSockets().size();
    require(connections <= 1 && control.access.responseBuffers().size() == connections
                && control.access.responseContentLengths().size() == connections
                && control.access.requestSocketServices().size() == connections,
            "a connection is in every list or in none");
    device.send(input.mid(cut));
    settle();
    device.reset();
    settle();
    require(control.access.eventServer().findChildren<QTcpSocket*>().isEmpty(), "the connection is closed");
    require(control.access.requestSockets().isEmpty() && control.access.responseBuffers().isEmpty()
                && control.access.responseContentLengths().isEmpty()
                && control.access.requestSocketServices().isEmpty(),
            "nothing of it is left");
}

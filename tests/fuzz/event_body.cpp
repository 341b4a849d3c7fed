// The body of an event, in segments. The first byte says how many cuts there are. The second byte says how wrong
// the announced length is. A byte for each cut says where it is, in 255ths of the body.

#include <tests/fuzz/Harness.h>

#include <QtNetwork/QTcpSocket>

#include <algorithm>
#include <vector>

using namespace Velmora::Fuzz;

void Velmora::Fuzz::test(QByteArray& input)
{
    const int cuts = takeByte(input) & 7;
    const auto lengthError = static_cast<int8_t>(takeByte(input));
    const QByteArray body = input.mid(cuts);
    std::vector<int> ends{static_cast<int>(body.size())};
    for (int i = 0; i < cuts; ++i)
        ends.push_back(static_cast<int>(body.size() * takeByte(input) / 255));
    std::sort(ends.begin(), ends.end());

    static ControlPoint& control = listeningControlPoint();
    static SSDP::SsdpService* const service = control.addService();
    service->stateVariables.clear();
    Peer device = Peer::connectedTo(control.access.eventServer().serverPort());
    device.send("NOTIFY /6f9619ff-8b86-d011-b42d-00c04fc964ff_%4 HTTP/1.1\r\nContent-Length: "
                + QByteArray::number(static_cast<int>(body.size()) + lengthError) + "\r\n\r\n");
    settle();
    int begin = 0;
    bool endsEarly = false;
    for (const int end : ends) {
        device.send(body.mid(begin, end - begin));
        settle();
        endsEarly = endsEarly || (end > begin && end == body.size() - 1);
        begin = end;
    }

    if (lengthError == 0 && !body.isEmpty() && !endsEarly && !body.contains('\0')) {
        const QHash<QString, QString> received = service->stateVariables;
        service->stateVariables.clear();
        control.access.updateStateVariables(service, QString::fromLatin1(body));
        require(received == service->stateVariables, "the segments do not change what the event says");
        require(control.access.requestSockets().isEmpty(), "a complete event ends its connection");
    }
    device.reset();
    settle();
    require(control.access.eventServer().findChildren<QTcpSocket*>().isEmpty(), "the connection is closed");
    require(control.access.requestSockets().isEmpty() && control.access.responseBuffers().isEmpty(),
            "nothing of it is left");
}

// The body of an event, in segments: the first byte says how many cuts follow it, a byte each, in
// 255ths of the body; the second how far the announced length is off.

#include <tests/fuzz/Harness.h>

#include <ssdp/SsdpService.h>
#include <tests/support/ManagerAccess.h>

#include <QtNetwork/QTcpSocket>

#include <algorithm>
#include <vector>

using namespace Velmora;

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const size_t cuts = size > 0 ? data[0] & 7 : 0;
    if (size < 2 + cuts)
        return 0;
    static SSDP::SsdpService* const service = Fuzz::addService(Fuzz::listeningManager());
    Tests::ManagerAccess access(Fuzz::listeningManager());
    service->stateVariables.clear();

    const auto lengthError = static_cast<int8_t>(data[1]);
    const QByteArray body = Fuzz::bytesOf(data, size, 2 + cuts);
    std::vector<int> ends;
    for (size_t i = 0; i < cuts; ++i)
        ends.push_back(static_cast<int>(body.size() * data[2 + i] / 255));
    ends.push_back(static_cast<int>(body.size()));
    std::sort(ends.begin(), ends.end());

    Fuzz::Peer device(access.eventServer().serverPort());
    device.send("NOTIFY /6f9619ff-8b86-d011-b42d-00c04fc964ff_%4 HTTP/1.1\r\nContent-Length: "
                + QByteArray::number(static_cast<int>(body.size()) + lengthError) + "\r\n\r\n");
    Fuzz::settle();
    int begin = 0;
    bool endsEarly = false;
    for (const int end : ends) {
        device.send(body.mid(begin, end - begin));
        Fuzz::settle();
        endsEarly = endsEarly || (end > begin && end == body.size() - 1);
        begin = end;
    }

    // Where the cuts can make no difference, they make none.
    if (lengthError == 0 && !body.isEmpty() && !endsEarly && !body.contains('\0')) {
        const QHash<QString, QString> received = service->stateVariables;
        service->stateVariables.clear();
        access.updateStateVariables(service, QString::fromLatin1(body));
        Fuzz::require(received == service->stateVariables, "the event says the same in segments");
        Fuzz::require(access.requestSockets().isEmpty(), "a complete event ends its connection");
    }
    device.reset();
    Fuzz::settle();
    Fuzz::require(access.eventServer().findChildren<QTcpSocket*>().isEmpty(), "the connection is gone");
    Fuzz::require(access.requestSockets().isEmpty() && access.responseBuffers().isEmpty(),
                  "nothing of it is left");
    return 0;
}

// The first bytes on a connection to the event server, and whatever comes after them in one more
// segment: the first byte says how much, in sixteenths.

#include <tests/fuzz/Harness.h>

#include <ssdp/SsdpService.h>
#include <tests/support/ManagerAccess.h>

#include <QtNetwork/QTcpSocket>

using namespace Velmora;

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    static const SSDP::SsdpService* const service = Fuzz::addService(Fuzz::listeningManager());
    Fuzz::require(service, "there is a service for the events");
    Tests::ManagerAccess access(Fuzz::listeningManager());

    Fuzz::Peer device(access.eventServer().serverPort());
    const QByteArray bytes = Fuzz::bytesOf(data, size, 1);
    const int cut = static_cast<int>(bytes.size() - (bytes.size() * (data[0] & 15)) / 16);
    device.send(bytes.left(cut));
    Fuzz::settle();
    Fuzz::require(access.requestSockets().size() <= 1
                      && access.requestSockets().size() == access.responseBuffers().size()
                      && access.requestSockets().size() == access.responseContentLengths().size()
                      && access.requestSockets().size() == access.requestSocketServices().size(),
                  "a connection is in every list or in none");
    device.send(bytes.mid(cut));
    Fuzz::settle();
    device.reset();
    Fuzz::settle();
    Fuzz::require(access.eventServer().findChildren<QTcpSocket*>().isEmpty(), "the connection is gone");
    Fuzz::require(access.requestSockets().isEmpty() && access.responseBuffers().isEmpty()
                      && access.responseContentLengths().isEmpty() && access.requestSocketServices().isEmpty(),
                  "and nothing of it is left");
    return 0;
}

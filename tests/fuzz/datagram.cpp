// A datagram, through a real socket, as far as the request for the description.

#include <tests/fuzz/Harness.h>

#include <ssdp/SsdpDevice.h>
#include <tests/support/ManagerAccess.h>

#include <QtNetwork/QUdpSocket>

#include <arpa/inet.h>
#include <sys/socket.h>

using namespace Velmora;

namespace {

QByteArray lineOf(const QByteArray& datagram, const QByteArray& header)
{
    const QByteArray text(datagram.constData());
    const QList<QByteArray> lines = text.split('\n');
    for (const QByteArray& line : lines) {
        if (line.toLower().startsWith(header) && line.contains(':'))
            return line;
    }
    return QByteArray();
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 65507)
        return 0;
    SSDP::SsdpManager& manager = Fuzz::listeningManager();
    Tests::ManagerAccess access(manager);

    static const int sender = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(access.unicastSocket()->localPort());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Fuzz::require(sendto(sender, data, size, 0, reinterpret_cast<const sockaddr*>(&address), sizeof address)
                      == static_cast<ssize_t>(size),
                  "the datagram goes out");
    access.onUnicastMessageReceived();

    const QByteArray line = lineOf(Fuzz::bytesOf(data, size), "location");
    const QString location = QString::fromLatin1(line.mid(line.indexOf(':') + 1)).trimmed();
    Fuzz::require(access.devices().size() == (location.isEmpty() ? 0 : 1), "a device for every location");
    if (!location.isEmpty()) {
        Fuzz::require(access.devices().constFirst()->location == location, "the location is what the line says");
        Fuzz::require(access.deviceReplies().size() == 1, "one request for every device");
    }

    Fuzz::settle();
    manager.clearDevices();
    Fuzz::settle();
    Fuzz::require(access.devices().isEmpty() && access.deviceReplies().isEmpty(), "nothing is left");
    return 0;
}

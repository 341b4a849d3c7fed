// A datagram, sent through a real socket. The fuzzer checks the record and the request for the description.

#include <tests/fuzz/Harness.h>

#include <QtNetwork/QUdpSocket>

using namespace Velmora::Fuzz;

static QString locationIn(const QByteArray& datagram)
{
    for (const QByteArray& line : QByteArray(datagram.constData()).split('\n')) {
        if (line.toLower().startsWith("location") && line.contains(':'))
            return QString::fromLatin1(line.mid(line.indexOf(':') + 1)).trimmed();
    }
    return QString();
}

void Velmora::Fuzz::test(QByteArray& input)
{
    if (input.size() > 65507)
        return;
    ControlPoint& control = listeningControlPoint();
    QUdpSocket sender;
    const quint16 port = control.access.unicastSocket()->localPort();
    require(sender.writeDatagram(input, QHostAddress(QHostAddress::LocalHost), port) == input.size(),
            "the datagram is sent");
    control.access.onUnicastMessageReceived();

    const QString location = locationIn(input);
    const int devices = location.isEmpty() ? 0 : 1;
    require(control.access.devices().size() == devices, "there is a device if there is a location");
    require(control.access.deviceReplies().size() == devices, "there is a request for every device");
    if (!location.isEmpty())
        require(control.access.devices().constFirst()->location == location, "the location is that of the line");

    settle();
    control.clearDevices();
    settle();
    require(control.access.devices().isEmpty() && control.access.deviceReplies().isEmpty(), "nothing is left");
}

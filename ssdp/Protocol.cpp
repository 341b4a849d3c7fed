#include <ssdp/Protocol.h>

#include <QtCore/QUrl>

#include <algorithm>
#include <sys/utsname.h>

namespace Velmora {
namespace SSDP {
namespace Protocol {

const char GROUP_ADDRESS[] = "239.255.255.250";
const char DEVICE_NAMESPACE[] = "urn:schemas-upnp-org:device";
const char SERVICE_NAMESPACE[] = "urn:schemas-upnp-org:service";
const char DEVICE_TYPE[] = "urn:schemas-velmora-it:device:";
const char KEY_OBJECT_SERVICE_TYPE[] = "urn:schemas-velmora-it:service:keyobjects:1";

namespace {

QString userAgentLine()
{
    return QString(QLatin1String("USER-AGENT: %1 UPnP/1.1 SSDP/1.0\n")).arg(systemInfo());
}

bool beginsWith(const QChar* begin, const QChar* end, const QString& header)
{
    if (end - begin < header.size())
        return false;
    for (int i = 0; i < header.size(); ++i) {
        if (begin[i].toCaseFolded() != header.at(i).toCaseFolded())
            return false;
    }
    return true;
}

} // namespace

// Devices expect lines that end with a line feed alone; see docs/protocol.md, "Search".

QString searchMessage()
{
    QString message;
    message += QLatin1String("M-SEARCH * HTTP/1.1\n");
    message += QString(QLatin1String("HOST: %1:%2\n")).arg(QLatin1String(GROUP_ADDRESS)).arg(SSDP_PORT);
    message += QLatin1String("MAN: \"ssdp:discover\"\n");
    message += QString(QLatin1String("MX: %1\n")).arg(MX);
    message += QLatin1String("ST: upnp:rootdevice\n");
    message += userAgentLine();
    message += QLatin1String("\n");
    return message;
}

QString systemInfo()
{
    utsname system;
    if (uname(&system) != 0)
        return QString(QLatin1String("Undefined/-1"));
    return QString(QLatin1String("%1/%2"))
        .arg(QString::fromLatin1(system.sysname), QString::fromLatin1(system.release));
}

QString headerValue(const QString& message, const QString& header)
{
    // The message is not split into lines, because a message of line feeds would give a million strings.
    const QChar* const messageEnd = message.constData() + message.size();
    const QChar* begin = message.constData();
    for (;;) {
        const QChar* const end = std::find(begin, messageEnd, QLatin1Char('\n'));
        if (beginsWith(begin, end, header)) {
            const QChar* const colon = std::find(begin, end, QLatin1Char(':'));
            if (colon != begin && colon != end)
                return QString(colon + 1, static_cast<int>(end - colon - 1)).trimmed();
        }
        if (end == messageEnd)
            return QString();
        begin = end + 1;
    }
}

QString hostValue(const QString& url)
{
    // Devices expect one character, not the decimal port; see docs/protocol.md, "Subscription".
    const QUrl parsed(url);
    const char port = static_cast<char>(parsed.port(HTTP_PORT));
    return parsed.host() + QLatin1Char(':') + QString::fromLatin1(&port, 1);
}

QString subLocation(const QString& path)
{
    const QLatin1Char slash('/');
    return path.startsWith(slash) ? path : slash + path;
}

QString fullLocation(const QString& location, const QString& path)
{
    const int authority = location.startsWith(QLatin1String("http://")) ? 7 : 0;
    return location.left(location.indexOf(QLatin1Char('/'), authority)) + subLocation(path);
}

QString subscribeMessage(const QString& eventSubUrl, const QString& location, const Callback& callback)
{
    QString identifier = callback.service.toString();
    identifier.remove(QLatin1Char('{'));
    identifier.remove(QLatin1Char('}'));

    QString message;
    message += QString(QLatin1String("SUBSCRIBE %1 HTTP/1.1\n")).arg(subLocation(eventSubUrl));
    message += QString(QLatin1String("HOST: %1\n")).arg(hostValue(location));
    message += userAgentLine();
    // Devices expect the two characters "%4" in the path; see docs/protocol.md, "Subscription".
    message += QString(QLatin1String("CALLBACK: <http://%1:%2/%3_%4>\n"))
                   .arg(callback.address.toString())
                   .arg(callback.port)
                   .arg(identifier);
    message += QLatin1String("NT: upnp:event\n");
    message += QString(QLatin1String("TIMEOUT: Second-%1\n")).arg(SUBSCRIPTION_SECONDS);
    message += QLatin1String("\n");
    return message;
}

QUuid subscriptionIdentifier(const QString& reply)
{
    return QUuid(headerValue(reply, QString(QLatin1String("SID"))).remove(QLatin1String("uuid:")));
}

bool readEventIdentifier(const QString& head, QUuid* identifier)
{
    const QLatin1Char space(' ');
    const QString line = head.left(head.indexOf(QLatin1Char('\n')));
    const int first = static_cast<int>(line.indexOf(space));
    if (first == -1)
        return false;
    const int second = static_cast<int>(line.indexOf(space, first + 1));
    QString path = line.mid(first + 1, second == -1 ? -1 : second - first - 1);
    *identifier = QUuid(path.remove(QLatin1Char('/')));
    return true;
}

} // namespace Protocol
} // namespace SSDP
} // namespace Velmora

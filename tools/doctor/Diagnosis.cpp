#include <tools/doctor/Diagnosis.h>

#include <ssdp/BoundedXml.h>
#include <ssdp/KeyObject.h>
#include <ssdp/Latin1Text.h>
#include <ssdp/Protocol.h>
#include <ssdp/Ssdp.h>

#include <QtCore/QUrl>
#include <QtXml/QDomDocument>

#include <algorithm>
#include <utility>

namespace Velmora {
namespace Doctor {

using SSDP::textUpToZero;
namespace Documents = SSDP::Documents;
namespace Protocol = SSDP::Protocol;

namespace {

// In milliseconds. After a shorter pause between head and body, the library may read both together.
const int SUFFICIENT_GAP = 5;

Finding finding(const char* id, const QString& evidence = QString())
{
    return {QByteArray(id), evidence};
}

/// The identifier is, for example, "description.slow".
Finding finding(const char* stage, const char* what, const QString& evidence = QString())
{
    return {QByteArray(stage) + '.' + what, evidence};
}

QString keyObjectType()
{
    return QString::fromLatin1(Protocol::KEY_OBJECT_SERVICE_TYPE);
}

QString localName(const QString& tagName)
{
    return tagName.mid(tagName.indexOf(QLatin1Char(':')) + 1);
}

bool hasPrefix(const QString& tagName)
{
    return tagName.contains(QLatin1Char(':'));
}

/// Returns the text before the last colon: a service type without its version.
QString withoutVersion(const QString& type)
{
    return type.left(type.lastIndexOf(QLatin1Char(':')));
}

/// Returns the finding of a type that is almost the type of the key-object service. Empty for any other type.
QByteArray missOf(const QString& type)
{
    const QString wanted = keyObjectType();
    if (type.trimmed() == wanted)
        return "service.type-space";
    if (type.trimmed().compare(wanted, Qt::CaseInsensitive) == 0)
        return "service.type-case";
    if (withoutVersion(type.trimmed()).compare(withoutVersion(wanted), Qt::CaseInsensitive) == 0)
        return "service.type-version";
    return QByteArray();
}

QString rate(const DocumentSeen& document)
{
    const qint64 bytes = document.body.size();
    if (bytes == 0 || document.transfer <= 0)
        return QStringLiteral("%1 bytes in %2").arg(bytes).arg(seconds(document.duration));
    const qint64 perSecond = qMax<qint64>(1, bytes * 1000 / document.transfer);
    QString text =
        QStringLiteral("%1 bytes in %2, so %3 a second").arg(bytes).arg(seconds(document.transfer)).arg(perSecond);
    if (document.announced > 0) {
        text += QStringLiteral("; all %1 take %2")
                    .arg(document.announced)
                    .arg(seconds(static_cast<int>(qMin<qint64>(document.announced * 1000 / perSecond, INT_MAX))));
    }
    return text;
}

QString lengths(const DocumentSeen& document)
{
    return QStringLiteral("%1 bytes announced, %2 sent")
        .arg(document.announced)
        .arg(document.body.size() + document.excess);
}

/// Returns what was wrong with the exchange. The library may read the body all the same.
QList<Finding> judgeExchange(const char* stage, const DocumentSeen& document)
{
    switch (document.ending) {
    case Ending::NotTried:
    case Ending::Complete:
        break;
    case Ending::NoConnection:
        return {finding(stage, "no-connection", readable(document.url))};
    case Ending::Refused:
        return {finding(stage, "refused", readable(document.url))};
    case Ending::Silent:
        return {finding(stage, "silent", QStringLiteral("no byte in %1").arg(seconds(document.duration)))};
    case Ending::Closed:
        return {finding(stage, "closed", readable(document.url))};
    case Ending::Reset:
        return {finding(stage, "reset", lengths(document))};
    case Ending::Unfinished:
        return {finding(stage, "slow", rate(document))};
    case Ending::Malformed:
        return {finding(stage, "not-http")};
    case Ending::OutOfBounds:
        return {finding(stage, "out-of-bounds", QStringLiteral("after %1 bytes").arg(document.body.size()))};
    case Ending::Short:
        return {finding(stage, "short", lengths(document))};
    }
    QList<Finding> result;
    const QString status = QStringLiteral("%1 %2").arg(document.status).arg(readable(document.reason, 40));
    if (document.status / 100 == 3)
        result << finding(stage, "redirect", status + QStringLiteral(" to ") + readable(document.redirect));
    else if (document.status != 0 && document.status / 100 != 2)
        result << finding(stage, "status", status);
    if (document.excess > 0)
        result << finding(stage, "long", lengths(document));
    return result;
}

/// Returns why the library does not read @p text. The root element must be @p root, and its namespace must begin
/// with @p xmlns.
Finding judgeText(const char* stage, const QString& text, const char* root, const char* xmlns)
{
    if (!SSDP::isWithinXmlBounds(text))
        return finding(stage, "out-of-bounds", QStringLiteral("%1 characters of XML").arg(text.size()));
    QDomDocument document;
    QString error;
    int line = 0;
    int column = 0;
    if (!document.setContent(text, false, &error, &line, &column)) {
        return finding(stage, "not-xml",
                       text.isEmpty() ? QStringLiteral("the body is empty")
                                      : QStringLiteral("line %1, column %2: %3; it begins with \"%4\"")
                                            .arg(line)
                                            .arg(column)
                                            .arg(readable(error), readable(text, 40)));
    }
    const QDomElement element = document.documentElement();
    const QString name = element.tagName();
    if (hasPrefix(name) && localName(name) == QLatin1String(root))
        return finding(stage, "prefix", readable(name));
    if (name != QLatin1String(root))
        return finding(stage, "no-root", QStringLiteral("the top element is ") + readable(name));
    const QString declared = element.attribute(QStringLiteral("xmlns"));
    return finding(stage, "namespace",
                   declared.isEmpty()
                       ? QStringLiteral("no xmlns on the top element")
                       : QStringLiteral("xmlns=\"%1\", not %2...").arg(readable(declared), QLatin1String(xmlns)));
}

/// Reads @p document into @p dom. Returns whether the library reads it as a document of @p kind.
bool read(const DocumentSeen& document, Documents::Kind kind, QDomDocument& dom)
{
    // With these endings, the library reads nothing. After any other ending, it reads the received part.
    if (document.ending == Ending::OutOfBounds || document.ending == Ending::Malformed
        || document.ending == Ending::Unfinished)
        return false;
    return SSDP::parseXml(dom, textUpToZero(document.body)) && Documents::kindOf(dom) == kind;
}

Finding judgeUnread(const char* stage, const DocumentSeen& document, const char* root, const char* xmlns)
{
    const QList<Finding> exchange = judgeExchange(stage, document);
    return exchange.isEmpty() ? judgeText(stage, textUpToZero(document.body), root, xmlns) : exchange.constFirst();
}

/// Returns the next element below @p root, in document order. Null after the last one.
QDomElement following(const QDomElement& element, const QDomElement& root)
{
    const QDomElement child = element.firstChildElement();
    if (!child.isNull())
        return child;
    for (QDomElement it = element; !it.isNull() && it != root; it = it.parentNode().toElement()) {
        const QDomElement sibling = it.nextSiblingElement();
        if (!sibling.isNull())
            return sibling;
    }
    return QDomElement();
}

/// Returns the first element below @p root that has a prefix and one of @p names. Null if there is none.
QDomElement firstPrefixed(const QDomElement& root, const QStringList& names)
{
    for (QDomElement it = following(root, root); !it.isNull(); it = following(it, root)) {
        if (hasPrefix(it.tagName()) && names.contains(localName(it.tagName())))
            return it;
    }
    return QDomElement();
}

/// Returns why the library finds no key-object service in the device description.
Finding judgeServices(const QDomDocument& dom, const QList<Documents::Service>& services)
{
    QStringList types;
    for (const Documents::Service& service : services) {
        const QByteArray miss = missOf(service.type);
        if (!miss.isEmpty())
            return {miss, QLatin1Char('"') + readable(service.type) + QLatin1Char('"')};
        types << readable(service.type, 60);
    }
    const QDomNodeList all = dom.elementsByTagName(QStringLiteral("serviceType"));
    for (int i = 0; i < all.size(); ++i) {
        const QString type = all.at(i).toElement().text();
        if (type == keyObjectType() || !missOf(type).isEmpty())
            return finding("service.embedded", readable(type));
    }
    const QStringList names = {QStringLiteral("device"), QStringLiteral("serviceList"), QStringLiteral("service"),
                               QStringLiteral("serviceType")};
    const QDomElement prefixed = firstPrefixed(dom.documentElement(), names);
    if (!prefixed.isNull())
        return finding("description.prefix", readable(prefixed.tagName()));

    const QDomElement device = dom.documentElement().firstChildElement(QStringLiteral("device"));
    const QString deviceType = device.firstChildElement(QStringLiteral("deviceType")).text();
    if (!deviceType.isEmpty() && !deviceType.trimmed().startsWith(QLatin1String(Protocol::DEVICE_TYPE)))
        return finding("service.other-maker",
                       QStringLiteral("%1, \"%2\"")
                           .arg(readable(deviceType, 60),
                                readable(device.firstChildElement(QStringLiteral("friendlyName")).text(), 40)));
    if (services.isEmpty())
        return finding("service.none");
    return finding("service.no-key-object", readable(types.join(QStringLiteral(", "))));
}

bool isWholeUrl(const QString& url)
{
    return url.contains(QLatin1String("://"));
}

/// Returns the size of the head of an event, with its empty line. -1 if there is no empty line.
qsizetype headEnd(const QByteArray& bytes)
{
    const qsizetype standard = bytes.indexOf("\r\n\r\n");
    const qsizetype plain = bytes.indexOf("\n\n");
    if (standard == -1)
        return plain == -1 ? -1 : plain + 2;
    return plain == -1 ? standard + 4 : qMin(standard + 4, plain + 2);
}

/// What the library reads of an event: the head from the first segment, and the body from the others.
struct EventReading
{
    bool hasLength = false;
    int length = 0;
    QByteArray body; ///< Ends where the library treats it as complete.
    qint64 sent = 0; ///< How many bytes of the body came, with the head or after it.
    qint64 withHead = 0; ///< How many of them came with the head.
    bool isComplete = false;
};

EventReading readEvent(const EventSeen& event)
{
    EventReading result;
    if (event.segments.isEmpty())
        return result;
    const QByteArray& first = event.segments.constFirst().bytes;
    result.length = announcedLength(first, &result.hasLength);
    const qsizetype end = headEnd(first);
    result.withHead = end == -1 ? 0 : first.size() - end;
    result.sent = result.withHead;
    for (qsizetype i = 1; i < event.segments.size(); ++i) {
        const QByteArray& bytes = event.segments.at(i).bytes;
        result.sent += bytes.size();
        if (result.isComplete)
            continue;
        result.body += bytes;
        result.isComplete = isWholeBody(result.body.size(), result.length);
    }
    return result;
}

Finding judgeEventText(const QString& text)
{
    if (!SSDP::isWithinXmlBounds(text))
        return finding("event.out-of-bounds", QStringLiteral("%1 characters of XML").arg(text.size()));
    QDomDocument document;
    QString error;
    int line = 0;
    int column = 0;
    if (!document.setContent(text, false, &error, &line, &column)) {
        return finding("event.not-xml",
                       QStringLiteral("line %1, column %2: %3; it begins with \"%4\"")
                           .arg(line)
                           .arg(column)
                           .arg(readable(error), readable(text, 40)));
    }
    const QList<Documents::Property> properties = Documents::properties(document);
    QStringList names;
    for (const Documents::Property& property : properties) {
        names << readable(property.name, 40);
        SSDP::KeyObject keyObject = {0, 0};
        if (property.name == SSDP::Ssdp::KO && !SSDP::readKeyObject(property.value, &keyObject))
            return finding("event.ko-malformed", QLatin1Char('"') + readable(property.value) + QLatin1Char('"'));
    }
    const QString root = document.documentElement().tagName();
    if (properties.isEmpty() && localName(root) == QLatin1String("propertyset")) {
        const QString child = document.documentElement().firstChildElement().tagName();
        if (root != QLatin1String("e:propertyset")
            || (!child.isEmpty() && localName(child) == QLatin1String("property")))
            return finding("event.prefix", readable(root) + QStringLiteral(", ") + readable(child));
    }
    return finding("event.no-ko",
                   names.isEmpty() ? QStringLiteral("no property")
                                   : QStringLiteral("only ") + readable(names.join(QStringLiteral(", "))));
}

/// Returns whether the library reads a key object from the body.
bool hasKeyObject(const QByteArray& body)
{
    QDomDocument document;
    if (!SSDP::parseXml(document, textUpToZero(body)))
        return false;
    const QList<Documents::Property> properties = Documents::properties(document);
    return std::any_of(properties.cbegin(), properties.cend(), [](const Documents::Property& property) {
        SSDP::KeyObject keyObject = {0, 0};
        return property.name == SSDP::Ssdp::KO && SSDP::readKeyObject(property.value, &keyObject);
    });
}

QList<Finding> judgeService(const ServiceSeen& service)
{
    const Reading reading = readServiceDescription(service.description);
    if (!reading.isRead && isWholeUrl(service.scpdUrl))
        return {finding("service.scpd-url", readable(service.scpdUrl))};
    if (!reading.isRead || reading.variables.isEmpty())
        return reading.findings;

    QList<Finding> result = reading.findings;
    if (isWholeUrl(service.scpdUrl))
        result << finding("service.scpd-url", readable(service.scpdUrl));
    const bool isTaken = service.subscription.ending == Ending::Complete && service.subscription.status / 100 == 2;
    if (isWholeUrl(service.eventUrl))
        result << finding("service.event-url", readable(service.eventUrl));
    if (!isWholeUrl(service.eventUrl) || isTaken)
        result += judgeSubscription(service);
    if (service.subscription.ending != Ending::Complete || service.subscription.isStandard)
        return result;

    if (service.events.isEmpty()) {
        // If the subscription was refused, that explains why there is no event.
        if (service.subscription.status / 100 == 2)
            result << finding("event.none");
        return result;
    }
    const auto good = std::find_if(service.events.cbegin(), service.events.cend(), carriesKeyObject);
    return result + judgeEvent(good == service.events.cend() ? service.events.constFirst() : *good);
}

/// Devices with these findings are usually found. So if there is another finding, that one is the explanation.
bool isHarmless(const Finding& finding)
{
    static const QList<QByteArray> ids = {"search.duplicates",   "search.after-mx",       "search.announces-only",
                                          "subscription.no-sid", "subscription.late-sid", "event.short-gap",
                                          "description.long",    "description.short",     "scpd.long",
                                          "scpd.short"};
    return ids.contains(finding.id);
}

/// Returns whether this process may have read two segments together that the device sent separately.
bool mayBeOurDelay(const Finding& finding, const DeviceSeen& device)
{
    if (finding.id != "event.one-segment" && finding.id != "event.no-body" && finding.id != "event.short-gap")
        return false;
    return std::any_of(device.services.cbegin(), device.services.cend(), [](const ServiceSeen& service) {
        return std::any_of(service.events.cbegin(), service.events.cend(),
                           [](const EventSeen& event) { return event.isUncertain; });
    });
}

/// If all stages together took longer than the time-out, returns the finding of the longest stage.
Finding judgeTime(const DeviceSeen& device, int timeout)
{
    struct Part
    {
        const char* id;
        int duration;
    };
    const ServiceSeen service = device.services.isEmpty() ? ServiceSeen() : device.services.constFirst();
    int event = service.subscription.duration;
    for (const EventSeen& seen : service.events)
        event = qMax(event, seen.after);
    const QList<Part> parts = {{"search.late", qMax(0, device.search.heard)},
                               {"description.slow", device.description.duration},
                               {"scpd.slow", service.description.duration},
                               {"event.slow", event}};
    int sum = 0;
    Part longest = parts.constFirst();
    QStringList texts;
    for (const Part& part : parts) {
        sum += part.duration;
        if (part.duration > longest.duration)
            longest = part;
        texts << QString::fromLatin1(part.id).section(QLatin1Char('.'), 0, 0) + QLatin1Char(' ')
                + seconds(part.duration);
    }
    if (sum < timeout && device.found < timeout)
        return finding("device.unexplained");
    return finding(longest.id,
                   QStringLiteral("%1, of %2").arg(texts.join(QStringLiteral(", ")), seconds(timeout)));
}

} // namespace

bool isWholeBody(qint64 size, int announced)
{
    return size >= qint64(announced) - 1;
}

int announcedLength(const QByteArray& head, bool* hasLength)
{
    const QString length = Protocol::headerValue(textUpToZero(head), QStringLiteral("CONTENT-LENGTH"));
    *hasLength = !length.isNull();
    return length.toInt();
}

bool isUsableLocation(const QString& location, QHostAddress* address, quint16* port)
{
    const QUrl url(location);
    if (url.scheme().compare(QLatin1String("http"), Qt::CaseInsensitive) != 0 || url.host().isEmpty())
        return false;
    *address = QHostAddress(url.host());
    *port = static_cast<quint16>(url.port(Protocol::HTTP_PORT));
    return true;
}

Reading readDescription(const DocumentSeen& document)
{
    Reading result;
    if (document.ending == Ending::NotTried)
        return result;
    QDomDocument dom;
    result.isRead = read(document, Documents::DeviceDescription, dom);
    if (!result.isRead) {
        result.findings << judgeUnread("description", document, "root", Protocol::DEVICE_NAMESPACE);
        return result;
    }
    result.findings = judgeExchange("description", document);
    const QList<Documents::Service> services = Documents::services(dom);
    std::copy_if(services.cbegin(), services.cend(), std::back_inserter(result.services),
                 [](const Documents::Service& service) { return service.type == keyObjectType(); });
    if (result.services.isEmpty())
        result.findings << judgeServices(dom, services);
    return result;
}

Reading readServiceDescription(const DocumentSeen& document)
{
    Reading result;
    if (document.ending == Ending::NotTried)
        return result;
    QDomDocument dom;
    result.isRead = read(document, Documents::ServiceDescription, dom);
    if (!result.isRead) {
        result.findings << judgeUnread("scpd", document, "scpd", Protocol::SERVICE_NAMESPACE);
        return result;
    }
    result.findings = judgeExchange("scpd", document);
    result.variables = Documents::stateVariables(dom);
    if (result.variables.isEmpty()) {
        const QDomElement prefixed = firstPrefixed(
            dom.documentElement(), {QStringLiteral("serviceStateTable"), QStringLiteral("stateVariable")});
        result.findings << (prefixed.isNull() ? finding("scpd.no-variable")
                                              : finding("scpd.prefix", readable(prefixed.tagName())));
    } else if (!result.variables.contains(SSDP::Ssdp::KO)) {
        result.findings << finding("scpd.no-ko", readable(result.variables.join(QStringLiteral(", "))));
    }
    return result;
}

bool carriesKeyObject(const EventSeen& event)
{
    if (!event.isForSubscription)
        return false;
    const EventReading reading = readEvent(event);
    return reading.isComplete && hasKeyObject(reading.body);
}

QList<Finding> judgeEvent(const EventSeen& event)
{
    const EventReading reading = readEvent(event);
    const QByteArray first = event.segments.isEmpty() ? QByteArray() : event.segments.constFirst().bytes;
    if (!event.isForSubscription)
        return {finding("event.unknown-path", readable(first.left(first.indexOf('\n')).trimmed()))};
    const QString sizes = QStringLiteral("%1 announced, %2 sent").arg(reading.length).arg(reading.sent);

    QList<Finding> result;
    if (!reading.hasLength)
        result << finding("event.no-length");
    if (!reading.isComplete) {
        if (reading.withHead > 0)
            result.prepend(
                finding("event.one-segment", QStringLiteral("%1 bytes with the head").arg(reading.withHead)));
        else if (reading.sent == 0)
            result.prepend(finding("event.no-body"));
        else
            result.prepend(finding("event.long-length", sizes));
        return result;
    }
    if (reading.hasLength && reading.sent > reading.length)
        result << finding("event.short-length", sizes);
    const int gap = event.segments.at(1).time - event.segments.at(0).time;
    if (gap < SUFFICIENT_GAP)
        result << finding("event.short-gap", QStringLiteral("%1 ms").arg(gap));
    if (hasKeyObject(reading.body))
        return result;
    // If the length is too small or a part came with the head, the body is incomplete and not well-formed.
    if (reading.withHead > 0) {
        result.prepend(
            finding("event.one-segment", QStringLiteral("%1 bytes with the head").arg(reading.withHead)));
    } else {
        const Finding text = judgeEventText(textUpToZero(reading.body));
        // An XML declaration without its end is out of bounds.
        const bool isCut =
            (text.id == "event.not-xml" || text.id == "event.out-of-bounds") && reading.sent > reading.body.size();
        // In this case, the missing or too small length is the cause.
        if (!isCut)
            result.prepend(text);
        else if (!reading.hasLength)
            result = {finding("event.no-length", readable(text.evidence))};
        else
            result = {finding("event.short-length", sizes)};
    }
    return result;
}

QList<Finding> judgeSearch(const DeviceSeen& device, int timeout)
{
    const SearchSeen& search = device.search;
    QList<Finding> result;
    if (device.location.isEmpty()) {
        const bool isHeard = !search.message.isEmpty();
        return {isHeard ? finding("search.no-location", readable(search.message)) : finding("search.silent")};
    }
    QHostAddress address;
    quint16 port = 0;
    if (!isUsableLocation(device.location, &address, &port))
        return {
            finding("search.location-no-url", QLatin1Char('"') + readable(device.location) + QLatin1Char('"'))};
    const bool isSender = address == device.sender;

    if (search.answerDelay == -1 && search.announced == -1) {
        // The library received no message of the device.
        if (search.standardDelay != -1)
            result << finding("search.crlf-only",
                              QStringLiteral("answered after ") + seconds(search.standardDelay));
        else if (search.unicastDelay != -1)
            result << finding("search.unicast-only",
                              QStringLiteral("answered after ") + seconds(search.unicastDelay));
        return result;
    }
    if (search.heard > timeout)
        result << finding("search.late",
                          QStringLiteral("after %1, of %2").arg(seconds(search.heard), seconds(timeout)));
    else if (search.answerDelay > Protocol::MX * 1000)
        result << finding("search.after-mx",
                          QStringLiteral("after %1, of %2 s").arg(seconds(search.answerDelay)).arg(Protocol::MX));
    if (search.answerDelay == -1 && search.standardDelay == -1 && search.unicastDelay == -1)
        result << finding("search.announces-only", QStringLiteral("announced after ") + seconds(search.announced));
    if (search.answers > 1)
        result << finding("search.duplicates", QStringLiteral("%1 times").arg(search.answers));
    if (!isSender)
        result << finding("search.location-other-host",
                          QStringLiteral("%1 sent %2").arg(device.sender.toString(), readable(device.location)));
    return result;
}

QList<Finding> judgeSubscription(const ServiceSeen& service)
{
    const SubscriptionSeen& seen = service.subscription;
    const QString status = QStringLiteral("%1 %2").arg(seen.status).arg(readable(seen.reason, 40));
    switch (seen.ending) {
    case Ending::NotTried:
        return {};
    case Ending::NoConnection:
        return {finding("subscription.no-connection")};
    case Ending::Refused:
        return {finding("subscription.refused")};
    case Ending::Closed:
    case Ending::Reset:
    case Ending::Short:
        return {finding("subscription.closed")};
    case Ending::Silent:
    case Ending::Unfinished:
    case Ending::Malformed:
    case Ending::OutOfBounds:
        return {finding("subscription.silent", QStringLiteral("no complete reply in ") + seconds(seen.duration))};
    case Ending::Complete:
        break;
    }
    if (seen.isStandard && seen.status / 100 == 2) {
        return {finding("subscription.standard-only",
                        service.libraryStatus > 0
                            ? QStringLiteral("%1 to the library's").arg(service.libraryStatus)
                            : QStringLiteral("no reply to the library's"))};
    }
    if (seen.status / 100 != 2)
        return {finding("subscription.status", status)};
    if (seen.hasLateSid)
        return {finding("subscription.late-sid")};
    if (!seen.hasSid)
        return {finding("subscription.no-sid")};
    return {};
}

bool isFound(const DeviceSeen& device, int timeout)
{
    return device.found != -1 && device.found <= timeout;
}

bool isOfOtherMaker(const QList<Finding>& findings)
{
    return !findings.isEmpty() && findings.constFirst().id == "service.other-maker";
}

QList<Finding> diagnose(const DeviceSeen& device, int timeout)
{
    QList<Finding> all = judgeSearch(device, timeout);
    if (device.isExamined) {
        const Reading description = readDescription(device.description);
        all += description.findings;
        for (const ServiceSeen& service : device.services)
            all += judgeService(service);
    }
    if (isFound(device, timeout)) {
        QList<Finding> notes;
        for (const Finding& finding : std::as_const(all)) {
            if (!mayBeOurDelay(finding, device))
                notes << finding;
        }
        return notes;
    }

    for (const Finding& finding : std::as_const(all)) {
        if (!isHarmless(finding))
            return {finding};
    }
    const Finding time = judgeTime(device, timeout);
    if (time.id == "device.unexplained" && !all.isEmpty())
        return {all.constLast()};
    return {time};
}

} // namespace Doctor
} // namespace Velmora

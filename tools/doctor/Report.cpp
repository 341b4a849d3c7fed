#include <tools/doctor/Report.h>

#include <QtCore/QJsonArray>
#include <QtCore/QStringList>

#include <algorithm>

namespace Velmora {
namespace Doctor {

using Tools::Terminal;

namespace {

const int NARROW = 60;
const int LABEL_WIDTH = 11;

/// Lines of text that fit the width of the terminal.
class Lines
{
public:
    explicit Lines(const Style& style)
        : style(style)
        , indent(style.width < NARROW ? 2 : LABEL_WIDTH)
    {
    }

    /// Adds a line that begins with @p label in @p colour.
    void head(const char* label, Terminal::Colour colour, const QString& text)
    {
        const QString shown = QString::fromLatin1(label).leftJustified(LABEL_WIDTH);
        const QStringList lines = broken(text, LABEL_WIDTH);
        result += style.coloured(shown, colour) + lines.constFirst() + QLatin1Char('\n');
        for (const QString& line : lines.mid(1))
            result += QString(indent, QLatin1Char(' ')) + line + QLatin1Char('\n');
    }

    /// Adds text below a head.
    void body(const QString& text) { add(text, indent); }
    void line(const QString& text) { add(text, 0); }
    void space() { result += QLatin1Char('\n'); }

    QString result;

private:
    void add(const QString& text, int margin)
    {
        const QStringList lines = broken(text, margin);
        for (const QString& line : lines)
            result += QString(margin, QLatin1Char(' ')) + line + QLatin1Char('\n');
    }

    /// Breaks @p text into lines. The first line is shorter by @p margin characters, the others by the indent.
    QStringList broken(const QString& text, int margin) const
    {
        const auto room = [this](int used) { return qMax(10, style.width - used); };
        if (text.size() <= room(margin))
            return {text};
        QStringList lines(QString{});
        int width = room(margin);
        const QStringList words = text.split(QLatin1Char(' '), Qt::SkipEmptyParts);
        for (QString word : words) {
            QString& last = lines.last();
            if (!last.isEmpty() && last.size() + 1 + word.size() > width) {
                lines << QString();
                width = room(qMin(margin, indent));
            }
            // A word may be longer than a line, for example a URL.
            while (lines.last().isEmpty() && word.size() > width) {
                lines.last() = word.left(width);
                word.remove(0, width);
                lines << QString();
                width = room(qMin(margin, indent));
            }
            lines.last() += (lines.last().isEmpty() ? QString() : QStringLiteral(" ")) + word;
        }
        return lines;
    }

    Style style;
    int indent;
};

QString plural(int count)
{
    return count == 1 ? QString() : QStringLiteral("s");
}

QString whatWasSeen(const Finding& finding)
{
    const QString meaning = QString::fromLatin1(findingText(finding.id).meaning);
    return finding.evidence.isEmpty() ? meaning : meaning + QStringLiteral(" Seen: ") + finding.evidence;
}

QString whatToChange(const Finding& finding)
{
    const FindingText& text = findingText(finding.id);
    QString result = QStringLiteral("Change: ") + QLatin1String(text.change);
    if (text.section == 0)
        return result;
    return result.chopped(1) + QStringLiteral(" (docs/protocol.md, section %1).").arg(text.section);
}

QString id(const Finding& finding)
{
    return QLatin1Char('[') + QLatin1String(finding.id) + QLatin1Char(']');
}

void addDevice(Lines& lines, const Diagnosed& device)
{
    const DeviceSeen& seen = device.seen;
    const QString address = seen.sender.toString();
    switch (device.result) {
    case Diagnosed::Found:
        lines.head("found", Terminal::Green,
                   QStringLiteral("%1  function %2, univocal %3, after %4")
                       .arg(address)
                       .arg(seen.functionCode)
                       .arg(seen.univocalCode)
                       .arg(seen.found == -1 ? QString() : seconds(seen.found)));
        for (const Finding& finding : device.findings)
            lines.body(QStringLiteral("Note: ") + whatWasSeen(finding) + QLatin1Char(' ') + id(finding));
        return;
    case Diagnosed::OfOtherMaker:
        lines.head("other", Terminal::Bold,
                   QStringLiteral("%1  not the maker's: %2").arg(address, device.findings.constFirst().evidence));
        return;
    case Diagnosed::NotFound:
        break;
    }
    lines.head("NOT FOUND", Terminal::Red,
               seen.location.isEmpty() ? address : address + QStringLiteral("  ") + readable(seen.location));
    for (const Finding& finding : device.findings) {
        lines.body(whatWasSeen(finding));
        lines.body(whatToChange(finding));
        lines.body(id(finding));
    }
}

QString describe(const AddressSeen& address)
{
    QString text = address.address.toString() + QStringLiteral(" (") + address.interface;
    if (!address.kind.isEmpty())
        text += QStringLiteral(", ") + address.kind;
    return text + QLatin1Char(')');
}

/// Returns whether every device that answered was found. Then mistakes of the host explain nothing.
bool isAllFound(const Results& results)
{
    return results.hasAnswers() && results.count(Diagnosed::NotFound) == 0;
}

void addHost(Lines& lines, const Results& results)
{
    for (const Finding& finding : results.host.findings) {
        if (isAllFound(results) && finding.id != "host.no-group")
            continue;
        lines.head("this host", Terminal::Bold, whatWasSeen(finding));
        lines.body(whatToChange(finding));
        lines.body(id(finding));
    }
    if (results.hasAnswers() || !results.host.findings.isEmpty())
        return;
    const bool isVirtual = std::all_of(results.host.addresses.cbegin(), results.host.addresses.cend(),
                                       [](const AddressSeen& address) { return !address.kind.isEmpty(); });
    lines.line(QStringLiteral("The devices may be in another network. Routers do not forward multicast, and many"
                              " wireless access points drop it. To search for one device, give its address."));
    if (isVirtual)
        lines.line(QStringLiteral("This host has searched only from virtual interfaces."));
}

QJsonObject jsonOf(const DocumentSeen& document)
{
    static const char* const endings[] = {"not tried",     "no connection", "refused",    "silent",
                                          "closed",        "reset",         "unfinished", "malformed",
                                          "out of bounds", "short",         "complete"};
    QJsonObject object = {
        {QStringLiteral("url"), readable(document.url, 400)},
        {QStringLiteral("ending"), QLatin1String(endings[static_cast<int>(document.ending)])},
        {QStringLiteral("milliseconds"), document.duration},
    };
    if (document.status != 0) {
        object.insert(QStringLiteral("status"), document.status);
        object.insert(QStringLiteral("bytes"), static_cast<double>(document.body.size()));
        object.insert(QStringLiteral("begin"), readable(document.body.left(200), 200));
    }
    if (document.announced >= 0)
        object.insert(QStringLiteral("announced"), static_cast<double>(document.announced));
    return object;
}

QJsonObject jsonOf(const EventSeen& event)
{
    QJsonArray segments;
    for (const EventSeen::Segment& segment : event.segments.mid(0, 20)) {
        segments.append(QJsonObject{{QStringLiteral("milliseconds"), segment.time},
                                    {QStringLiteral("bytes"), static_cast<double>(segment.bytes.size())},
                                    {QStringLiteral("begin"), readable(segment.bytes.left(200), 200)}});
    }
    return {{QStringLiteral("milliseconds"), event.after},
            {QStringLiteral("rightPath"), event.isForSubscription},
            {QStringLiteral("segments"), segments}};
}

QJsonArray jsonOf(const QList<Finding>& findings)
{
    QJsonArray array;
    for (const Finding& finding : findings) {
        QJsonObject object = {{QStringLiteral("id"), QLatin1String(finding.id)}};
        if (!finding.evidence.isEmpty())
            object.insert(QStringLiteral("evidence"), finding.evidence);
        if (findingText(finding.id).section > 0)
            object.insert(QStringLiteral("section"), findingText(finding.id).section);
        array.append(object);
    }
    return array;
}

} // namespace

int Results::count(Diagnosed::Result result) const
{
    return static_cast<int>(std::count_if(devices.cbegin(), devices.cend(),
                                          [result](const Diagnosed& device) { return device.result == result; }));
}

bool Results::hasAnswers() const
{
    return std::any_of(devices.cbegin(), devices.cend(),
                       [](const Diagnosed& device) { return !device.seen.search.message.isEmpty(); });
}

QString textOf(const Results& results, const Style& style)
{
    Lines lines(style);
    QStringList addresses;
    for (const AddressSeen& address : results.host.addresses)
        addresses << describe(address);
    if (!addresses.isEmpty())
        lines.line(QStringLiteral("Searched from ") + addresses.join(QStringLiteral(", ")) + QLatin1Char('.'));
    for (const Diagnosed& device : results.devices)
        addDevice(lines, device);

    const int found = results.count(Diagnosed::Found);
    const int all = found + results.count(Diagnosed::NotFound);
    if (!results.hasAnswers())
        lines.line(QStringLiteral("Nothing answered in %1.").arg(seconds(results.duration)));
    else
        lines.line(QStringLiteral("%1 of %2 device%3 found in %4.")
                       .arg(found)
                       .arg(all)
                       .arg(plural(all), seconds(results.duration)));
    if (results.omitted > 0)
        lines.line(
            QStringLiteral("Too many devices to list them all. Messages left out: %1.").arg(results.omitted));
    addHost(lines, results);
    return lines.result;
}

QJsonObject jsonOf(const Diagnosed& device)
{
    static const char* const results[] = {"found", "not found", "other"};
    const DeviceSeen& seen = device.seen;
    const auto delay = [](int milliseconds) {
        return milliseconds == -1 ? QJsonValue() : QJsonValue(milliseconds);
    };
    QJsonObject search = {
        {QStringLiteral("answer"), delay(seen.search.answerDelay)},
        {QStringLiteral("answers"), seen.search.answers},
        {QStringLiteral("standardAnswer"), delay(seen.search.standardDelay)},
        {QStringLiteral("unicastAnswer"), delay(seen.search.unicastDelay)},
        {QStringLiteral("announced"), delay(seen.search.announced)},
        {QStringLiteral("message"), readable(seen.search.message, 400)},
    };
    QJsonObject object = {
        {QStringLiteral("result"), QLatin1String(results[device.result])},
        {QStringLiteral("location"), readable(seen.location, 400)},
        {QStringLiteral("sender"), seen.sender.toString()},
        {QStringLiteral("findings"), jsonOf(device.findings)},
        {QStringLiteral("search"), search},
    };
    if (seen.found != -1) {
        object.insert(QStringLiteral("functionCode"), seen.functionCode);
        object.insert(QStringLiteral("univocalCode"), seen.univocalCode);
        object.insert(QStringLiteral("after"), seen.found);
    }
    if (!seen.isExamined)
        return object;
    object.insert(QStringLiteral("description"), jsonOf(seen.description));
    QJsonArray services;
    for (const ServiceSeen& service : seen.services) {
        QJsonArray events;
        for (const EventSeen& event : service.events)
            events.append(jsonOf(event));
        services.append(QJsonObject{{QStringLiteral("scpdUrl"), readable(service.scpdUrl)},
                                    {QStringLiteral("eventSubUrl"), readable(service.eventUrl)},
                                    {QStringLiteral("scpd"), jsonOf(service.description)},
                                    {QStringLiteral("subscription"),
                                     QJsonObject{{QStringLiteral("standard"), service.subscription.isStandard},
                                                 {QStringLiteral("status"), service.subscription.status},
                                                 {QStringLiteral("sid"), service.subscription.hasSid},
                                                 {QStringLiteral("milliseconds"), service.subscription.duration}}},
                                    {QStringLiteral("events"), events}});
    }
    object.insert(QStringLiteral("services"), services);
    return object;
}

QJsonObject jsonOf(const HostSeen& host)
{
    QJsonArray addresses;
    for (const AddressSeen& address : host.addresses) {
        addresses.append(QJsonObject{{QStringLiteral("address"), address.address.toString()},
                                     {QStringLiteral("interface"), address.interface},
                                     {QStringLiteral("kind"), address.kind},
                                     {QStringLiteral("searchPort"), address.searchPort},
                                     {QStringLiteral("loop"), address.hasLoop},
                                     {QStringLiteral("eventPort"), address.isEventPortOpen}});
    }
    return {{QStringLiteral("host"),
             QJsonObject{{QStringLiteral("addresses"), addresses},
                         {QStringLiteral("port1900"), host.hasPort},
                         {QStringLiteral("findings"), jsonOf(host.findings)}}}};
}

} // namespace Doctor
} // namespace Velmora

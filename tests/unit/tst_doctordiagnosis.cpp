#include <tests/support/Messages.h>
#include <tests/support/Table.h>
#include <tools/doctor/Diagnosis.h>
#include <tools/doctor/Host.h>
#include <tools/doctor/Report.h>

#include <QtCore/QFile>
#include <QtTest/QtTest>

#include <climits>

using namespace Velmora::Doctor;
using namespace Velmora::Tests;

namespace {

DocumentSeen document(const QByteArray& body, Ending ending = Ending::Complete, int status = 200)
{
    DocumentSeen seen;
    seen.ending = ending;
    seen.status = status;
    seen.body = body;
    return seen;
}

/// An event of these segments, one after each gap.
EventSeen arrived(const QList<QByteArray>& segments, int gap = 50)
{
    EventSeen seen;
    seen.isForSubscription = true;
    for (const QByteArray& bytes : segments)
        seen.segments.append({static_cast<int>(seen.segments.size()) * gap, bytes});
    return seen;
}

/// The head of an event with a body of @p length bytes.
QByteArray head(qsizetype length)
{
    return eventHead("/x", QByteArray::number(length));
}

/// A device that did nothing wrong. The body of its event came @p gap milliseconds after its head.
DeviceSeen examinedDevice(int gap)
{
    DeviceSeen device;
    device.sender = QHostAddress("10.0.0.5");
    device.location = "http://10.0.0.5/d.xml";
    device.search.message = "x";
    device.search.answerDelay = device.search.heard = 10;
    device.isExamined = true;
    device.description = document(deviceDescription());
    ServiceSeen seen;
    seen.description = document(serviceDescription());
    seen.subscription.ending = Ending::Complete;
    seen.subscription.status = 200;
    seen.subscription.hasSid = true;
    const QByteArray event = eventBody("KO", "1,2");
    seen.events << arrived({head(event.size()), event}, gap);
    device.services << seen;
    return device;
}

QByteArray ids(const QList<Finding>& findings)
{
    QByteArrayList result;
    for (const Finding& finding : findings)
        result << finding.id;
    return result.join(' ');
}

} // namespace

/// What the doctor says about what was seen of devices and of the host.
class DoctorDiagnosisTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:

    void saysWhatIsWrong_data()
    {
        const Table<QByteArray, QString> row("found", "expected");
        const auto description = [&](const char* name, const DocumentSeen& seen, const char* expected) {
            row("description, "_ba + name, ids(readDescription(seen).findings), expected);
        };
        const auto services = [&](const char* name, const QByteArray& elements, const char* expected) {
            description(name, document(deviceDescription(elements)), expected);
        };
        const QByteArray good = deviceDescription();
        description("good", document(good), "");
        description("good with an error status", document(good, Ending::Complete, 500), "description.status");
        description("good but cut by the peer", document(good, Ending::Short), "description.short");
        description("no connection", document("", Ending::NoConnection, 0), "description.no-connection");
        description("refused", document("", Ending::Refused, 0), "description.refused");
        description("silent", document("", Ending::Silent, 0), "description.silent");
        description("closed", document("", Ending::Closed, 0), "description.closed");
        description("reset", document("<root", Ending::Reset), "description.reset");
        description("slow", document(good, Ending::Unfinished), "description.slow");
        description("no HTTP", document("", Ending::Malformed, 0), "description.not-http");
        description("endless", document("", Ending::OutOfBounds), "description.out-of-bounds");
        description("redirect", document("<p>", Ending::Complete, 301), "description.redirect");
        description("not found", document("<p>", Ending::Complete, 404), "description.status");
        description("empty", document(""), "description.not-xml");
        description("no XML", document("<root>"), "description.not-xml");
        description("subset", document("<!DOCTYPE root [<!ENTITY a \"b\">]><root/>"), "description.out-of-bounds");
        description("web page", document("<html/>"), "description.no-root");
        description("no namespace", document("<root/>"), "description.namespace");
        description("prefixed root", document("<d:root xmlns:d=\"urn:schemas-upnp-org:device-1-0\"/>"),
                    "description.prefix");
        description("prefixed below",
                    document("<root xmlns=\"urn:schemas-upnp-org:device-1-0\" xmlns:d=\"x\"><d:device/></root>"),
                    "description.prefix");
        description("not tried", DocumentSeen(), "");
        services("no service", "", "service.none");
        services("another service", serviceElement("urn:x:service:y:1"), "service.no-key-object");
        services("version", serviceElement("urn:schemas-velmora-it:service:keyobjects:12"),
                 "service.type-version");
        services("case", serviceElement("urn:schemas-velmora-it:service:KeyObjects:1"), "service.type-case");
        services("space", serviceElement(KEY_OBJECT_TYPE + " "_ba), "service.type-space");
        services("embedded",
                 "</serviceList><deviceList><device><serviceList>" + serviceElement()
                     + "</serviceList></device></deviceList><serviceList>",
                 "service.embedded");

        const auto scpd = [&](const char* name, const DocumentSeen& seen, const char* expected) {
            row("service description, "_ba + name, ids(readServiceDescription(seen).findings), expected);
        };
        scpd("KO", document(serviceDescription({"KO"})), "");
        scpd("no KO", document(serviceDescription({"ko"})), "scpd.no-ko");
        scpd("no variable", document(serviceDescription({})), "scpd.no-variable");
        scpd("prefix",
             document(serviceDescription()
                          .replace("<serviceStateTable", "<x:serviceStateTable xmlns:x=\"y\"")
                          .replace("</serviceStateTable", "</x:serviceStateTable")),
             "scpd.prefix");
        scpd("device description", document(good), "scpd.no-root");
        scpd("status", document("", Ending::Complete, 404), "scpd.status");

        const auto event = [&](const char* name, const EventSeen& seen, const char* expected) {
            row("event, "_ba + name, ids(judgeEvent(seen)), expected);
        };
        const auto whole = [](const QByteArray& body) { return arrived({head(body.size()), body}); };
        const QByteArray noLength = eventHead("/x", QByteArray());
        const QByteArray body = eventBody("KO", "1,2");
        const QByteArray begin = body.left(9);
        const QByteArray rest = body.mid(9);
        const QByteArray length = head(body.size());
        event("good", whole(body), "");
        event("in pieces", arrived({length, begin, rest}), "");
        event("one character short", arrived({head(body.size() + 1), body}), "");
        event("two characters short", arrived({head(body.size() + 2), body}), "event.long-length");
        event("no length", arrived({noLength, body}), "event.no-length");
        event("no length, in pieces", arrived({noLength, begin, rest}), "event.no-length");
        event("short length, cut", arrived({head(9), begin, rest}), "event.short-length");
        event("short length, not cut", arrived({head(9), body}), "event.short-length");
        event("at once", arrived({length + body}), "event.one-segment");
        event("begun with the head", arrived({length + begin, rest}), "event.one-segment");
        event("soon", arrived({length, body}, 4), "event.short-gap");
        event("head only", arrived({length}), "event.no-body");
        event("no XML", arrived({head(9), "<e:proper"}), "event.not-xml");
        event("prefix", whole(QByteArray(body).replace("e:prop", "f:prop").replace(":e=", ":f=")), "event.prefix");
        event("no KO", whole(eventBody("A", "1")), "event.no-ko");
        event("malformed", whole(eventBody("KO", "7;1,2,3")), "event.ko-malformed");
        EventSeen strange = whole(body);
        strange.isForSubscription = false;
        event("unknown path", strange, "event.unknown-path");

        // The times are in milliseconds, or -1 if the message did not come. They belong to these messages:
        // - the answer to the library's search;
        // - the answer to the standard search;
        // - the answer to a search sent to the address;
        // - the announcement;
        // - the first message that the library received.
        const auto search = [&](const char* name, const char* location, const QList<int>& times,
                                const char* expected) {
            DeviceSeen device;
            device.sender = QHostAddress("10.0.0.5");
            device.location = location;
            device.search.message = "HTTP/1.1 200 OK";
            device.search.answerDelay = times.at(0);
            device.search.standardDelay = times.at(1);
            device.search.unicastDelay = times.at(2);
            device.search.announced = times.at(3);
            device.search.heard = times.at(4);
            row("search, "_ba + name, ids(judgeSearch(device, 5000)), expected);
        };
        const char URL[] = "http://10.0.0.5:80/d.xml";
        search("good", URL, {100, 200, -1, -1, 100}, "");
        search("standard only", URL, {-1, 200, -1, -1, -1}, "search.crlf-only");
        search("unicast only", URL, {-1, -1, 200, -1, -1}, "search.unicast-only");
        search("announces only", URL, {-1, -1, -1, 400, 400}, "search.announces-only");
        search("announced, and answers the standard search", URL, {-1, 200, -1, 400, 400}, "");
        search("late", URL, {6000, 200, -1, -1, 6000}, "search.late");
        search("after MX", URL, {3001, 200, -1, -1, 3001}, "search.after-mx");
        search("another host", "http://10.0.0.6/d.xml", {100, -1, -1, -1, 100}, "search.location-other-host");
        search("a name", "http://device/d.xml", {100, -1, -1, -1, 100}, "search.location-other-host");
        search("file", "file:///etc/passwd", {100, -1, -1, -1, 100}, "search.location-no-url");
        search("text", "nothing", {100, -1, -1, -1, 100}, "search.location-no-url");
        search("none", "", {100, -1, -1, -1, 100}, "search.no-location");
    }

    void saysWhatIsWrong()
    {
        QFETCH(QByteArray, found);
        QFETCH(QString, expected);
        QCOMPARE(QString(found), expected);
    }

    void blamesTheLongestStageForTheTime()
    {
        DeviceSeen device = examinedDevice(50);
        device.search.answerDelay = device.search.heard = 1000;
        device.description.duration = 1500;
        QCOMPARE(ids(diagnose(device, 2400)), "description.slow"_ba);
        QCOMPARE(ids(diagnose(device, 5000)), "device.unexplained"_ba);
        device.services[0].events[0].after = 1600;
        QCOMPARE(ids(diagnose(device, 2400)), "event.slow"_ba);
        device.found = 2300;
        QCOMPARE(ids(diagnose(device, 2400)), ""_ba);
    }

    void forgivesAFoundDeviceWhatMayBeOurDelay()
    {
        DeviceSeen device = examinedDevice(1);
        device.found = 100;
        QCOMPARE(ids(diagnose(device, 5000)), "event.short-gap"_ba);
        device.services[0].events[0].isUncertain = true;
        QCOMPARE(ids(diagnose(device, 5000)), ""_ba);
    }

    void tellsOtherMakersApart()
    {
        DocumentSeen seen = document(
            "<root xmlns=\"urn:schemas-upnp-org:device-1-0\"><device><deviceType>urn:x:device:tv:1</deviceType>"
            "<friendlyName>TV</friendlyName></device></root>");
        QVERIFY(isOfOtherMaker(readDescription(seen).findings));
        const QByteArray service = serviceElement("urn:schemas-velmora-it:service:keyobjects:2");
        seen.body.replace("</device>", "<serviceList>" + service + "</serviceList></device>");
        QVERIFY(!isOfOtherMaker(readDescription(seen).findings));
    }

    void everyFindingHasItsText()
    {
        QSet<QByteArray> seen;
        for (const FindingText& text : findingTexts()) {
            QVERIFY2(!seen.contains(text.id), text.id);
            seen.insert(text.id);
            QVERIFY2(QByteArray(text.meaning).endsWith('.') && QByteArray(text.change).endsWith('.'), text.id);
            QVERIFY2(text.section >= 0 && text.section <= 7, text.id);
            QCOMPARE(findingText(text.id).id, text.id);
        }
    }

    void manualListsEveryFinding()
    {
        QFile file(QStringLiteral(MANUAL));
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray manual = file.readAll();
        for (const FindingText& text : findingTexts())
            QVERIFY2(manual.contains(".It Ql "_ba + text.id + '\n' + text.meaning + '\n'), text.id);
        QCOMPARE(manual.count("\n.It Ql "), findingTexts().size());
    }

    void showsNothingButPrintableText()
    {
        QCOMPARE(readable(QByteArray("a\x1b[31m\0\xff\r\n", 10)), "a\\x1b[31m\\x00\\xff\\x0d\\x0a"_s);
        QCOMPARE(readable(QByteArray(200, 'a'), 10), QString(10, QLatin1Char('a')) + "..."_s);
        QCOMPARE(readable(QString(QChar(0x202e))), "\\xe2\\x80\\xae"_s);
    }

    void breaksLines()
    {
        Results results;
        Diagnosed device;
        device.seen.sender = QHostAddress("10.0.0.5");
        device.seen.location = "http://10.0.0.5:49152/"_s + QString(300, QLatin1Char('x'));
        device.seen.search.message = "x";
        device.findings = {{"description.status", QString(200, QLatin1Char('y'))}};
        results.devices << device;
        const auto plain = [&](const QString& text, Velmora::Tools::Terminal::Colour) { return text; };
        for (const int width : {30, 40, 80, 160}) {
            const QStringList lines = textOf(results, {width, plain}).split("\n");
            QVERIFY(lines.size() > 5);
            for (const QString& line : lines)
                QVERIFY2(line.size() <= width, qPrintable(line));
        }
        QCOMPARE(textOf(results, {INT_MAX, plain}).count("\n"), 5);
    }

    void namesKindsOfInterfaces_data()
    {
        const Table<QString, QString> row("kind", "expected");
        const auto add = [&](const char* name, const char* kind, const char* expected) {
            row(name, kindOfInterface(name, kind), expected);
        };
        add("eth0", "", "");
        add("bond0", "bond", "");
        add("eth0.5", "vlan", "");
        add("br0", "bridge", "bridge");
        add("docker0", "bridge", "bridge of containers");
        add("br-0123456789ab", "bridge", "bridge of containers");
        add("host0", "veth", "container");
        add("tun0", "tun", "tunnel");
        add("wg0", "wireguard", "tunnel");
        add("dummy0", "dummy", "no network");
    }

    void namesKindsOfInterfaces()
    {
        QFETCH(QString, kind);
        QFETCH(QString, expected);
        QCOMPARE(kind, expected);
    }

    void findsSocketsOnAPort()
    {
        const QByteArray table =
            R"(   sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode ref
  123: 00000000:076C 00000000:0000 07 00000000:00000000 00:00000000 00000000     0        0 41234 2 0 0
  124: 0100007F:0035 00000000:0000 07 00000000:00000000 00:00000000 00000000     0        0 41235 2 0 0
)";
        QCOMPARE(socketsOnPort(table, 1900), QList<QByteArray>{"41234"});
    }

    void findsRulesThatDrop_data()
    {
        // The second column has the beginning of each finding.
        const Table<QString, QStringList> row("rules", "expected");
        const QStringList all = {"UDP 1900", "UDP 49152", "TCP 40000"};
        const auto iptables = [&](const char* name, const char* policy, const char* rules,
                                  const QStringList& expected) {
            row("iptables, "_ba + name, "*filter\n:INPUT %1 [0:0]\n%2COMMIT\n"_s.arg(policy, rules), expected);
        };
        const auto nft = [&](const char* name, const char* policy, const char* rules, const QStringList& expected,
                             const char* others = "") {
            const QString text = "table inet filter {\n%1\tchain input {\n\t\ttype filter hook input priority 0;"
                                 " policy %2;\n%3\t}\n}\n"_s;
            row("nft, "_ba + name, text.arg(others, policy, rules), expected);
        };
        row("nothing", "", QStringList());
        row("iptables, another table", "*nat\n:INPUT DROP [0:0]\nCOMMIT\n", QStringList());
        iptables("all in", "ACCEPT", "", {});
        iptables("nothing in", "DROP", "-A INPUT -i lo -j ACCEPT\n", all);
        iptables("one port out", "ACCEPT", "-A INPUT -p udp -m udp --dport 1900 -j DROP\n", all.mid(0, 1));
        iptables("ports in", "DROP",
                 "-A INPUT -p udp -m udp --dport 1900 -j ACCEPT\n"
                 "-A INPUT -p udp -m multiport --dports 49152:65534 -j ACCEPT\n-A INPUT -p tcp -j ACCEPT\n",
                 {});
        iptables("a drop that depends", "ACCEPT", "-A INPUT -s 1.2.3.4/32 -j DROP\n", {});
        nft("policy", "drop", "\t\tct state established,related accept\n", all);
        nft("a rule", "accept", "\t\tudp dport { 53, 1900 } drop\n", all.mid(0, 1));
        nft("ports in", "drop", "\t\tudp dport { 1900, 49152-65534 } accept\n\t\ttcp dport 32768-60999 accept\n",
            {});
        nft("another hook", "accept", "", {},
            "\tchain forward {\n\t\ttype filter hook forward priority 0; policy drop;\n\t}\n");
    }

    void findsRulesThatDrop()
    {
        QFETCH(QString, rules);
        QFETCH(QStringList, expected);
        const QStringList drops = droppingRules(rules, {{1900, 49152}, {40000}});
        QCOMPARE(drops.size(), expected.size());
        for (int i = 0; i < expected.size(); ++i)
            QVERIFY2(drops.at(i).startsWith(expected.at(i) + ":"), qPrintable(drops.at(i)));
    }
};

QTEST_GUILESS_MAIN(DoctorDiagnosisTest)

#include "tst_doctordiagnosis.moc"

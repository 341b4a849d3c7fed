#include <tests/support/NamesAlike.h>
#include <tests/support/WireTest.h>

using namespace Velmora::Tests;
using Velmora::SSDP::SsdpDevice;
using Velmora::SSDP::SsdpManager;
using Velmora::SSDP::SsdpService;

/// How the library handles the replies to its requests for descriptions. tests/unit/tst_documents.cpp tests what a
/// document says.
class DescriptionTest : public WireTest
{
    Q_OBJECT

    /// Answers the request for the description with @p bytes. Waits until the library has handled this reply.
    bool answerDescription(const QByteArray& bytes)
    {
        device->script("GET /desc.xml ", bytes);
        return search() && answerSearch() && waitUntil([this] {
                   const auto replies = manager().deviceReplies();
                   return std::all_of(replies.keyBegin(), replies.keyEnd(), [](const QNetworkReply* reply) {
                       return !reply->url().path().endsWith("desc.xml");
                   });
               });
    }

    static QString textsOf(const SsdpService* service)
    {
        return QStringList({service->serviceType, service->serviceId, service->scpdUrl, service->controlUrl,
                            service->eventSubUrl})
            .join('|');
    }

    QStringList requestedPaths() const
    {
        QStringList result;
        for (const ScriptedDevice::Request& request : device->requestsFor("GET "))
            result << QString::fromLatin1(request.bytes.split(' ').at(1));
        return result;
    }

private Q_SLOTS:
    void logTellsHowADeviceIsFound()
    {
        QVERIFY(findDevice());
        QVERIFY(sendLastEvent());
        QCOMPARE(log().join('\n'),
                 QString(R"(0|Ssdp Server bound to %1
0|Ssdp device|http://10.77.1.1:8080/desc.xml
0|SSDP Device service|/scpd.xml
0|SSDP response state variable|KO
0|Device with FC:77 and UC:1 found at 10.77.1.1)")
                     .arg(callback().port));
    }

    void keyObjectServicesAreRequestedAndNoOthers()
    {
        const QByteArray version("urn:schemas-velmora-it:service:keyobjects:");
        const QList<QByteArray> others =
            listOf("urn:schemas-upnp-org:service:SwitchPower:1", version + '2', version + "11", version,
                   version + "1 ", ' ' + version + '1', "urn:schemas-velmora-it:service:KeyObjects:1", "");
        QByteArray services = serviceElement(KEY_OBJECT_TYPE, "/2.xml");
        for (const QByteArray& type : others)
            services += serviceElement(type, "/no.xml");
        services += serviceElement(KEY_OBJECT_TYPE, "1.xml?a=b") + serviceElement(KEY_OBJECT_TYPE, "");
        QVERIFY(answerDescription(reply(deviceDescription(services))));
        VERIFY_SOON(device->requests.size() >= 4);
        QVERIFY(answerSearch(LAST_LOCATION));
        QStringList paths = requestedPaths();
        paths.sort();
        QCOMPARE(paths, (QStringList{"/", "/1.xml?a=b", "/2.xml", "/desc.xml", "/last"}));

        QStringList logged{"0|SSDP Device service|/2.xml"};
        for (int i = 0; i < others.size(); ++i) {
            QCOMPARE(record()->services.at(i + 1)->serviceType, QString(others.at(i)));
            logged << "0|SSDP Device service|/no.xml";
        }
        logged << "0|SSDP Device service|1.xml?a=b"
               << "0|SSDP Device service|";
        QCOMPARE(log().filter("SSDP Device service"), logged);
        QCOMPARE(record()->services.size(), others.size() + 3);
    }

    void recordHoldsTheTextsOfTheDescription()
    {
        QVERIFY(answerDescription(reply(deviceDescription(
            serviceElement()
            + "<service><serviceType> a\n</serviceType><serviceId>b&amp;c</serviceId><SCPDURL>d e</SCPDURL>"
              "<controlURL>http://f/</controlURL><eventSubURL>\xe9</eventSubURL></service><service/>"))));
        QCOMPARE(record()->address, QHostAddress("10.77.1.1"));
        QCOMPARE(record()->location, "http://10.77.1.1:8080/desc.xml"_s);
        QVERIFY(!record()->id.isNull());
        QCOMPARE(record()->services.size(), 3);

        const SsdpService* const first = record()->services.at(0);
        const SsdpService* const second = record()->services.at(1);
        const SsdpService* const third = record()->services.at(2);
        QCOMPARE(textsOf(first),
                 KEY_OBJECT_TYPE + "|urn:velmora-it:serviceId:keyobjects|/scpd.xml|/control|/event"_s);
        QCOMPARE(textsOf(second), " a\n|b&c|d e|http://f/|\xe9"_s);
        QCOMPARE(textsOf(third), "||||"_s);
        QVERIFY(first->subscriptionId.isNull());
        QVERIFY(first->stateVariables.isEmpty());
        QVERIFY(!first->id.isNull() && !second->id.isNull() && !third->id.isNull());
        QVERIFY(first->id != second->id && second->id != third->id && third->id != first->id);
    }

    void documentDecidesWhatItIs_data()
    {
        const Table<QByteArray, int, QStringList> row("body", "services", "logged");
        const QByteArray good = deviceDescription();
        const QByteArray deep = "<a>"_ba.repeated(129) + "</a>"_ba.repeated(129);
        const QByteArray flat = "<a/>"_ba.repeated(100000) + "<device>";
        const QString notParsed = REPLY_NOT_PARSED;
        row("two services", deviceDescription(serviceElement() + "<x/>" + serviceElement()), 2, {});
        row("namespace of a service", QByteArray(good).replace("device-1-0", "service-1-0"), 0, {});
        row("service description", serviceDescription(), 0, {});
        row("text after a zero byte", good + '\0' + "<", 1, {});
        row("100,000 siblings", QByteArray(good).replace("<device>", flat), 1, {});
        row("empty", "", 0, {notParsed});
        row("not XML", "404 \xe9", 0, {notParsed + "404 \xe9"_s});
        row("cut by a zero byte", good.left(60) + '\0' + good.mid(60), 0, {notParsed + good.left(60)});
        row("a zero byte first", '\0' + good, 0, {notParsed});
        row("deeper than 128 levels", deep, 0, {notParsed + deep});
    }

    void documentDecidesWhatItIs()
    {
        QFETCH(const QByteArray, body);
        QFETCH(const int, services);
        QFETCH(const QStringList, logged);
        QVERIFY(answerDescription(reply(body)));
        QCOMPARE(record()->services.size(), services);
        QCOMPARE(manager().serviceReplies().size(), services);
        QVERIFY(manager().requestSockets().isEmpty());
        QCOMPARE(log().size(), 2 + services + logged.size());
        QCOMPARE(log().filter("1|"), logged);
    }

    void redirectIsNotFollowed()
    {
        const auto redirect = [](const QByteArray& body) {
            return reply(body).replace("200 OK", "302 Found\r\nLOCATION: http://10.77.1.1:8080/elsewhere.xml");
        };
        device->script("GET /scpd.xml ", redirect("<no>"));
        QVERIFY(answerDescription(redirect(deviceDescription())));
        QCOMPARE(record()->services.size(), 1);
        COMPARE_SOON(log().constLast(), REPLY_NOT_PARSED + "<no>"_s);
        QVERIFY(answerSearch(LAST_LOCATION));
        QCOMPARE(requestedPaths(), (QStringList{"/desc.xml", "/scpd.xml", "/last"}));
    }

    void serviceDescriptionUrlMayAnswerWithADeviceDescription()
    {
        device->script("GET /scpd.xml ", reply(deviceDescription(serviceElement("another", "/other.xml"))));
        QVERIFY(answerDescription(reply(deviceDescription())));
        VERIFY_SOON(record()->services.size() == 2);
        QCOMPARE(record()->services.at(1)->serviceType, "another"_s);
        QCOMPARE(log().mid(2),
                 (QStringList{"0|SSDP Device service|/scpd.xml", "0|SSDP Device service|/other.xml"}));
        QVERIFY(manager().deviceReplies().isEmpty());
        QVERIFY(manager().serviceReplies().isEmpty());
        QVERIFY(manager().requestSockets().isEmpty());
    }

    void everyStateVariableHasItsOwnConnection_data()
    {
        const Table<QByteArray, QStringList> row("document", "variables");
        const QByteArray good = serviceDescription();
        row("five, one of them twice", serviceDescription({"KO", "A", "B", "A", "C"}), {"KO", "A", "B", "A", "C"});
        row("any version", QByteArray(good).replace("service-1-0", "service-9-9"), {"KO"});
        row("no name", serviceDescription({""}), {""});
        row("no variable", serviceDescription({}), {});
        row("namespace of a device", QByteArray(good).replace("service-1-0", "device-1-0"), {});
    }

    void everyStateVariableHasItsOwnConnection()
    {
        QFETCH(const QByteArray, document);
        QFETCH(const QStringList, variables);
        device->script("GET /scpd.xml ", reply(document));
        QVERIFY(answerDescription(reply(deviceDescription())));
        VERIFY_SOON(manager().deviceReplies().isEmpty());
        VERIFY_SOON(device->requestsFor("SUBSCRIBE ").size() == variables.size());
        QStringList lines;
        for (const QString& name : variables)
            lines << "0|SSDP response state variable|" + name;
        QCOMPARE(log().mid(3), lines);
        const auto& held = service()->stateVariables;
        QCOMPARE(QSet<QString>(held.keyBegin(), held.keyEnd()), QSet<QString>(variables.begin(), variables.end()));
        for (const QString& value : held)
            QVERIFY(value.isNull());
        QCOMPARE(manager().requestSockets().size(), variables.size());
        QCOMPARE(manager().requestSocketServices().size(), variables.size());
        QVERIFY(manager().serviceReplies().isEmpty());
    }

    void serviceDescriptionsMayComeInAnyOrder()
    {
        const QByteArray two =
            serviceElement(KEY_OBJECT_TYPE, "/1.xml") + serviceElement(KEY_OBJECT_TYPE, "/2.xml");
        QVERIFY(answerDescription(reply(deviceDescription(two))));
        VERIFY_SOON(device->requests.size() == 3);
        requestFor("GET /2.xml ")->send(reply(serviceDescription({"SECOND"})));
        VERIFY_SOON(device->requestsFor("SUBSCRIBE ").size() == 1);
        requestFor("GET /1.xml ")->send(reply(serviceDescription({"FIRST"})));
        VERIFY_SOON(device->requestsFor("SUBSCRIBE ").size() == 2);
        QCOMPARE(QStringList(service()->stateVariables.keys()), QStringList{"FIRST"});
        QCOMPARE(QStringList(record()->services.at(1)->stateVariables.keys()), QStringList{"SECOND"});
    }

    void everyNameIsAnEntry_data()
    {
        const Table<QList<QByteArray>, int> row("names", "entries");
        // Without a bound, so many names with the same hash would take minutes.
        const int alike = QT_VERSION_MAJOR == 5 ? 64 : 20000;
        row("different names", manyNames(20000), 20000);
        row("names with the same hash on Qt 5", manyNames(20000, true), alike);
    }

    void everyNameIsAnEntry()
    {
        QFETCH(const QList<QByteArray>, names);
        QFETCH(const int, entries);
        // The names are state variables of a service. Each gets a connection.
        const QList<QByteArray> described = names.mid(0, 100);
        device->script("GET /desc.xml ", reply(deviceDescription()));
        device->script("GET /scpd.xml ", reply(serviceDescription(described)));
        device->script("SUBSCRIBE ", "");
        QVERIFY(search() && answerSearch());
        VERIFY_SOON(!manager().requestSockets().isEmpty());
        SsdpService* const service = WireTest::service();
        const int variables = qMin(100, entries);
        QCOMPARE(manager().requestSockets().size(), variables);
        QCOMPARE(service->stateVariables.size(), variables);
        for (const QByteArray& name : described.mid(0, variables))
            QVERIFY(service->stateVariables.contains(name));

        // The names are properties of an event.
        QStringList changes;
        const QObject context;
        connect(
            controlPoint(), &SsdpManager::valueChanged, &context,
            [names = &changes](const SsdpDevice*, const SsdpService*, const QString& name) { *names << name; });
        service->stateVariables = {{"KO", ""}};
        const QList<QByteArray> reported = names.mid(0, entries);
        // The second event is reported completely, because the table contains its names.
        for (const QList<QByteArray>& sent : {names, reported}) {
            changes.clear();
            manager().updateStateVariables(service, eventOf(sent));
            QCOMPARE(changes.size(), entries);
            QVERIFY(std::equal(changes.cbegin(), changes.cend(), reported.cbegin()));
            QCOMPARE(service->stateVariables.size(), entries + 1);
        }
    }
};

VELMORA_WIRE_TEST_MAIN(DescriptionTest)
#include "tst_description.moc"

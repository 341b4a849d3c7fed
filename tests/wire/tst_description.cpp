#include <tests/support/Literals.h>
#include <tests/support/WireTest.h>

using namespace Velmora::Tests;
using Velmora::SSDP::SsdpDevice;
using Velmora::SSDP::SsdpService;

namespace {

const char UNPARSED[] = "1|void Velmora::SSDP::SsdpManager::handleServerResponse(QNetworkReply*)|"
                        "Could not parse server response|";

} // namespace

/// What is made of the answers to the requests for descriptions.
class DescriptionTest : public WireTest
{
    Q_OBJECT

public:
    using WireTest::WireTest;

private:
    /// Answers the request for the description with @p bytes and waits until that was handled.
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

    SsdpDevice* record() const { return manager().devices().at(0); }

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

    void logTellsTheWholeRoadOfADevice()
    {
        QVERIFY(findDevice());
        QVERIFY(sendLastEvent());
        QCOMPARE(log(),
                 (QStringList{
                     "0|Ssdp Server bound to %1"_s.arg(callback().port),
                     "0|Ssdp device|http://10.77.1.1:8080/desc.xml"_s,
                     "0|SSDP Device service|/scpd.xml"_s,
                     "0|SSDP response state variable|KO"_s,
                     "0|Device with FC:77 and UC:1 found at 10.77.1.1"_s,
                 }));
        QList<int> pieces;
        for (const LogLine& line : CapturedLog::lines())
            pieces << static_cast<int>(line.pieces.size());
        QCOMPARE(pieces, (QList<int>{1, 2, 2, 2, 1}));
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
        services += serviceElement(KEY_OBJECT_TYPE, "/1.xml") + serviceElement(KEY_OBJECT_TYPE, "/2.xml");
        QVERIFY(answerDescription(reply(deviceDescription(services))));
        VERIFY_SOON(device->requests.size() >= 4);
        QVERIFY(answerSearch("http://10.77.1.1:8080/last"));
        QStringList paths = requestedPaths();
        paths.sort();
        QCOMPARE(paths, (QStringList{"/1.xml", "/2.xml", "/2.xml", "/desc.xml", "/last"}));

        QStringList logged{"0|SSDP Device service|/2.xml"};
        for (int i = 0; i < others.size(); ++i) {
            QCOMPARE(record()->services.at(i + 1)->serviceType, QString(others.at(i)));
            logged << "0|SSDP Device service|/no.xml";
        }
        logged << "0|SSDP Device service|/1.xml"
               << "0|SSDP Device service|/2.xml";
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
        QCOMPARE(
            textsOf(first),
            "urn:schemas-velmora-it:service:keyobjects:1|urn:velmora-it:serviceId:keyobjects|/scpd.xml|/control|/event"_s);
        QCOMPARE(textsOf(second), " a\n|b&c|d e|http://f/|\xe9"_s);
        QCOMPARE(textsOf(third), "||||"_s);
        QVERIFY(first->subscriptionId.isNull());
        QVERIFY(first->stateVariables.isEmpty());
        QVERIFY(!first->id.isNull() && !second->id.isNull() && !third->id.isNull());
        QVERIFY(first->id != second->id && second->id != third->id && third->id != first->id);
    }

    void serviceDescriptionUrl_data()
    {
        QTest::addColumn<QByteArray>("location");
        QTest::addColumn<QByteArray>("url");
        QTest::addColumn<QByteArray>("path");
        const auto add = [](const char* name, const QByteArray& location, const QByteArray& url,
                            const QByteArray& path) { QTest::newRow(name) << location << url << path; };
        add("absolute path", "/desc.xml", "/a/scpd.xml", "/a/scpd.xml");
        add("relative path", "/b/desc.xml", "scpd.xml", "/scpd.xml");
        add("full URL", "/desc.xml", "http://10.77.1.2/x", "/http://10.77.1.2/x");
        add("empty", "/desc.xml", "", "/");
        add("query", "/desc.xml?a/b", "s?c=d", "/s?c=d");
    }

    void serviceDescriptionUrl()
    {
        QFETCH(const QByteArray, location);
        QFETCH(const QByteArray, url);
        QFETCH(const QByteArray, path);
        device->script("GET " + location, reply(deviceDescription(serviceElement(KEY_OBJECT_TYPE, url))));
        QVERIFY(search());
        QVERIFY(answerSearch("http://10.77.1.1:8080" + location));
        VERIFY_SOON(device->requests.size() == 2);
        QCOMPARE(device->requests.at(1).bytes.split('\r').at(0), "GET " + path + " HTTP/1.1");
    }

    void documentDecidesWhatItIs_data()
    {
        QTest::addColumn<QByteArray>("document");
        QTest::addColumn<int>("services");
        const QByteArray root("<root xmlns=\"urn:schemas-upnp-org:device-1-0\">");
        const QByteArray rest = "<device><serviceList>" + serviceElement() + "</serviceList></device></root>";
        QTest::newRow("device description") << root + rest << 1;
        QTest::newRow("two services") << deviceDescription(serviceElement() + "<x/>" + serviceElement()) << 2;
        QTest::newRow("no service") << deviceDescription("") << 0;
        QTest::newRow("no namespace") << "<root>" + rest << 0;
        QTest::newRow("namespace of a service") << "<root xmlns=\"urn:schemas-upnp-org:service-1-0\">" + rest << 0;
        QTest::newRow("service description") << serviceDescription() << 0;
        QTest::newRow("a DOCTYPE") << "<!DOCTYPE root SYSTEM \"a[b\">" + root + rest << 1;
        QTest::newRow("text after a zero byte") << root + rest + '\0' + "<" << 1;
        QTest::newRow("128 levels") << root + "<a>"_ba.repeated(127) + "</a>"_ba.repeated(127) + rest << 1;
        QTest::newRow("100,000 siblings") << root + "<a/>"_ba.repeated(100000) + rest << 1;
    }

    void documentDecidesWhatItIs()
    {
        QFETCH(const QByteArray, document);
        QFETCH(const int, services);
        QVERIFY(answerDescription(reply(document)));
        QCOMPARE(record()->services.size(), services);
        QCOMPARE(manager().serviceReplies().size(), services);
        QVERIFY(manager().requestSockets().isEmpty());
        QCOMPARE(log().size(), 2 + services);
        QCOMPARE(log().filter("1|"), QStringList());
    }

    void bodyThatDoesNotParseIsLogged_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QByteArray>("logged");
        const QByteArray good = deviceDescription();
        const auto add = [](const char* name, const QByteArray& body) { QTest::newRow(name) << body << body; };
        add("empty", "");
        add("no XML", "404 \xe9");
        add("a page of HTML", "<html><br></html>");
        add("cut", good.chopped(3));
        QTest::newRow("cut by a zero byte") << good.left(60) + '\0' + good.mid(60) << good.left(60);
        QTest::newRow("a zero byte first") << '\0' + good << QByteArray();
        add("deeper than 128 levels", "<a>"_ba.repeated(129) + "</a>"_ba.repeated(129));
        add("internal subset", "<!DOCTYPE root [<!ENTITY x 'y'>]>" + good.mid(good.indexOf("<root")));
    }

    void bodyThatDoesNotParseIsLogged()
    {
        QFETCH(const QByteArray, body);
        QFETCH(const QByteArray, logged);
        QVERIFY(answerDescription(reply(body)));
        QCOMPARE(log().mid(2), QStringList{QString(UNPARSED) + QString::fromLatin1(logged)});
        QCOMPARE(CapturedLog::lines().constLast().pieces.size(), 3);
        QVERIFY(record()->services.isEmpty());
        QVERIFY(manager().serviceReplies().isEmpty());
    }

    void formOfTheReplyDoesNotMatter_data()
    {
        QTest::addColumn<QList<QByteArray>>("segments");
        const QByteArray whole = reply(deviceDescription());
        QTest::newRow("404") << QList<QByteArray>{QByteArray(whole).replace("200 OK", "404 Not Found")};
        QTest::newRow("no length") << QList<QByteArray>{"HTTP/1.0 200 OK\r\n\r\n" + deviceDescription()};
        QTest::newRow("segments") << QList<QByteArray>{whole.left(20), whole.mid(20, 100), whole.mid(120)};
    }

    void formOfTheReplyDoesNotMatter()
    {
        QFETCH(const QList<QByteArray>, segments);
        QVERIFY(search());
        QVERIFY(answerSearch());
        const QPointer<Connection> connection = device->requests.at(0).connection;
        for (const QByteArray& segment : segments) {
            connection->send(segment);
            VERIFY_SOON(connection->wasRead() || !connection->isOpen());
        }
        connection->close();
        VERIFY_SOON(!record()->services.isEmpty());
        QCOMPARE(record()->services.size(), 1);
        QCOMPARE(log().filter("1|"), QStringList());
        VERIFY_SOON(device->requestsFor("GET /scpd.xml ").size() == 1);
    }

    void redirectIsNotFollowed()
    {
        const auto redirect = [](const QByteArray& body) {
            return reply(body).replace("200 OK", "302 Found\r\nLOCATION: http://10.77.1.1:8080/elsewhere.xml");
        };
        device->script("GET /scpd.xml ", redirect("<no>"));
        QVERIFY(answerDescription(redirect(deviceDescription())));
        QCOMPARE(record()->services.size(), 1);
        COMPARE_SOON(log().constLast(), UNPARSED + "<no>"_s);
        QVERIFY(answerSearch("http://10.77.1.1:8080/last"));
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
        QTest::addColumn<QByteArray>("document");
        QTest::addColumn<QStringList>("variables");
        const QByteArray good = serviceDescription();
        const QByteArray version("service-1-0");
        const QStringList five{"KO", "A", "B", "A", "C"};
        QTest::newRow("five, one of them twice") << serviceDescription({"KO", "A", "B", "A", "C"}) << five;
        QTest::newRow("any version") << QByteArray(good).replace(version, "service-9-9") << QStringList("KO");
        QTest::newRow("no version") << QByteArray(good).replace(version, "service") << QStringList("KO");
        QTest::newRow("no name") << serviceDescription({""}) << QStringList("");
        QTest::newRow("spaces") << serviceDescription({"KO"}).replace("KO", " KO ") << QStringList(" KO ");
        QTest::newRow("no variable") << serviceDescription({}) << QStringList();
        QTest::newRow("namespace of a device") << QByteArray(good).replace(version, "device-1-0") << QStringList();
        QTest::newRow("root in place of scpd") << QByteArray(good).replace("scpd", "root") << QStringList();
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
        const auto& held = record()->services.at(0)->stateVariables;
        QCOMPARE(QSet<QString>(held.keyBegin(), held.keyEnd()), QSet<QString>(variables.begin(), variables.end()));
        for (const QString& value : held)
            QVERIFY(value.isNull());
        QCOMPARE(manager().requestSockets().size(), variables.size());
        QCOMPARE(manager().requestSocketServices().size(), variables.size());
        QVERIFY(manager().serviceReplies().isEmpty());
    }

    void serviceDescriptionsMayComeInAnyOrder()
    {
        QVERIFY(answerDescription(reply(deviceDescription(serviceElement(KEY_OBJECT_TYPE, "/1.xml")
                                                          + serviceElement(KEY_OBJECT_TYPE, "/2.xml")))));
        VERIFY_SOON(device->requests.size() == 3);
        device->requestsFor("GET /2.xml ").at(0).connection->send(reply(serviceDescription({"SECOND"})));
        VERIFY_SOON(device->requestsFor("SUBSCRIBE ").size() == 1);
        device->requestsFor("GET /1.xml ").at(0).connection->send(reply(serviceDescription({"FIRST"})));
        VERIFY_SOON(device->requestsFor("SUBSCRIBE ").size() == 2);
        QCOMPARE(QStringList(record()->services.at(0)->stateVariables.keys()), QStringList{"FIRST"});
        QCOMPARE(QStringList(record()->services.at(1)->stateVariables.keys()), QStringList{"SECOND"});
    }

    void replyBeyond16MiBFailsWithoutABody()
    {
        device->script("GET /desc.xml ", reply(QByteArray(2 * 16 * 1024 * 1024, ' ')));
        QVERIFY(search());
        QVERIFY(answerSearch());
        COMPARE_SOON(log().constLast(), QString(UNPARSED));
        QVERIFY(manager().deviceReplies().isEmpty());
        const QPointer<Connection> connection = device->requestsFor("GET /desc.xml ").at(0).connection;
        VERIFY_SOON(!connection->isOpen());
    }
};

VELMORA_WIRE_TEST_MAIN(DescriptionTest)

#include "tst_description.moc"

#include <tests/support/Literals.h>
#include <tests/support/WireTest.h>

using namespace Velmora::Tests;
using Velmora::SSDP::SsdpDevice;
using Velmora::SSDP::SsdpService;

namespace {

/// A service that is described but of no interest.
QByteArray otherService(const QByteArray& type, const QByteArray& url)
{
    return "<service><serviceType>" + type + "</serviceType><SCPDURL>" + url + "</SCPDURL></service>";
}

const char UNPARSED[] = "1|void Velmora::SSDP::SsdpManager::handleServerResponse(QNetworkReply*)|"
                        "Could not parse server response|";

} // namespace

/// What is made of the answers to the requests for descriptions.
class DescriptionTest : public WireTest
{
    Q_OBJECT

public:
    using WireTest::WireTest;

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

    void onlyTheKeyObjectServiceOfThreeIsAskedFor()
    {
        QVERIFY(answerDescription(reply(deviceDescription(
            otherService("urn:schemas-upnp-org:service:SwitchPower:1", "/1.xml") + serviceElement()
            + otherService("urn:schemas-upnp-org:service:Dimming:1", "/3.xml")))));
        VERIFY_SOON(device->requests.size() >= 2);
        QCOMPARE(record()->services.size(), 3);
        QCOMPARE(log().filter("SSDP Device service"),
                 (QStringList{"0|SSDP Device service|/1.xml", "0|SSDP Device service|/scpd.xml",
                              "0|SSDP Device service|/3.xml"}));
        QVERIFY(answerSearch("http://10.77.1.1:8080/last"));
        QCOMPARE(pathsAskedFor(), (QStringList{"/desc.xml", "/scpd.xml", "/last"}));
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
        QCOMPARE(first->serviceType, "urn:schemas-velmora-it:service:keyobjects:1"_s);
        QCOMPARE(first->serviceId, "urn:velmora-it:serviceId:keyobjects"_s);
        QCOMPARE(first->scpdUrl, "/scpd.xml"_s);
        QCOMPARE(first->controlUrl, "/control"_s);
        QCOMPARE(first->eventSubUrl, "/event"_s);
        QVERIFY(first->subscriptionId.isNull());
        QVERIFY(first->stateVariables.isEmpty());

        const SsdpService* const second = record()->services.at(1);
        QCOMPARE(second->serviceType, " a\n"_s);
        QCOMPARE(second->serviceId, "b&c"_s);
        QCOMPARE(second->scpdUrl, "d e"_s);
        QCOMPARE(second->controlUrl, "http://f/"_s);
        QCOMPARE(second->eventSubUrl, QString(QChar(0xe9)));

        const SsdpService* const third = record()->services.at(2);
        QCOMPARE(third->serviceType + third->serviceId + third->scpdUrl + third->controlUrl + third->eventSubUrl,
                 QString());
        QVERIFY(!first->id.isNull() && !second->id.isNull() && !third->id.isNull());
        QVERIFY(first->id != second->id && second->id != third->id && third->id != first->id);
    }

    void everyKeyObjectServiceIsAskedFor()
    {
        QVERIFY(answerDescription(
            reply(deviceDescription(otherService("urn:schemas-velmora-it:service:keyobjects:1", "/1.xml")
                                    + otherService("urn:schemas-velmora-it:service:keyobjects:1", "/2.xml")
                                    + otherService("urn:schemas-velmora-it:service:keyobjects:1", "/2.xml")))));
        VERIFY_SOON(device->requests.size() >= 4);
        QStringList paths = pathsAskedFor();
        paths.sort();
        QCOMPARE(paths, (QStringList{"/1.xml", "/2.xml", "/2.xml", "/desc.xml"}));
    }

    void otherServiceTypesAreNotAskedFor_data()
    {
        QTest::addColumn<QByteArray>("type");
        QTest::newRow("next version") << "urn:schemas-velmora-it:service:keyobjects:2"_ba;
        QTest::newRow("two digits") << "urn:schemas-velmora-it:service:keyobjects:11"_ba;
        QTest::newRow("no version") << "urn:schemas-velmora-it:service:keyobjects:"_ba;
        QTest::newRow("trailing blank") << "urn:schemas-velmora-it:service:keyobjects:1 "_ba;
        QTest::newRow("leading blank") << " urn:schemas-velmora-it:service:keyobjects:1"_ba;
        QTest::newRow("letter case") << "urn:schemas-velmora-it:service:KeyObjects:1"_ba;
        QTest::newRow("empty") << QByteArray();
    }

    void otherServiceTypesAreNotAskedFor()
    {
        QFETCH(const QByteArray, type);
        QVERIFY(answerDescription(reply(deviceDescription(otherService(type, "/no.xml") + serviceElement()))));
        VERIFY_SOON(device->requests.size() >= 2);
        QVERIFY(answerSearch("http://10.77.1.1:8080/last"));
        QCOMPARE(pathsAskedFor(), (QStringList{"/desc.xml", "/scpd.xml", "/last"}));
        QCOMPARE(record()->services.size(), 2);
        QCOMPARE(record()->services.at(0)->serviceType, QString::fromLatin1(type));
    }

    void serviceIsReadFromItsPlaceOnly_data()
    {
        const QByteArray root("<root xmlns=\"urn:schemas-upnp-org:device-1-0\">");
        const QByteArray service = serviceElement();
        const QByteArray list = "<serviceList>" + service + "</serviceList>";

        QTest::addColumn<QByteArray>("document");
        QTest::addColumn<int>("services");
        QTest::newRow("in its place") << root + "<device>" + list + "</device></root>" << 1;
        QTest::newRow("behind other elements")
            << root + "<specVersion/><device><friendlyName/>" + list + "</device></root>" << 1;
        QTest::newRow("behind other elements of the list")
            << root + "<device><serviceList><x/>" + service + "<x/>" + service + "</serviceList></device></root>"
            << 2;
        QTest::newRow("of an embedded device")
            << root + "<device>" + list + "<deviceList><device>" + list + "</device></deviceList></device></root>"
            << 1;
        QTest::newRow("of embedded devices only")
            << root + "<device><deviceList><device>" + list + "</device></deviceList></device></root>" << 0;
        QTest::newRow("of the first device only")
            << root + "<device>" + list + "</device><device>" + list + "</device></root>" << 1;
        QTest::newRow("of the second device, when the first has none")
            << root + "<device/><device>" + list + "</device></root>" << 0;
        QTest::newRow("of the first list only") << root + "<device>" + list + list + "</device></root>" << 1;
        QTest::newRow("outside a list") << root + "<device>" + service + "</device></root>" << 0;
        QTest::newRow("outside a device") << root + list + "</root>" << 0;
        QTest::newRow("deeper in the list")
            << root + "<device><serviceList><x>" + service + "</x></serviceList></device></root>" << 0;
        QTest::newRow("other letter case")
            << root + "<device><serviceList><Service/></serviceList></device></root>" << 0;
        QTest::newRow("with a prefix") << root + "<device><serviceList><u:service/></serviceList></device></root>"
                                       << 0;
        QTest::newRow("an empty list") << root + "<device><serviceList/></device></root>" << 0;
        QTest::newRow("no list") << root + "<device/></root>" << 0;
        QTest::newRow("no device") << root + "</root>" << 0;
    }

    void serviceIsReadFromItsPlaceOnly()
    {
        QFETCH(const QByteArray, document);
        QFETCH(const int, services);
        QVERIFY(answerDescription(reply(document)));
        QCOMPARE(record()->services.size(), services);
        QCOMPARE(log().filter("SSDP Device service").size(), services);
        QCOMPARE(log().filter("1|"), QStringList());
    }

    void serviceDescriptionUrl_data()
    {
        QTest::addColumn<QByteArray>("location");
        QTest::addColumn<QByteArray>("url");
        QTest::addColumn<QByteArray>("path");
        QTest::newRow("absolute path") << "/desc.xml"_ba
                                       << "/a/scpd.xml"_ba
                                       << "/a/scpd.xml"_ba;
        QTest::newRow("relative path") << "/b/desc.xml"_ba
                                       << "scpd.xml"_ba
                                       << "/scpd.xml"_ba;
        QTest::newRow("full URL") << "/desc.xml"_ba
                                  << "http://10.77.1.2/x"_ba
                                  << "/http://10.77.1.2/x"_ba;
        QTest::newRow("empty") << "/desc.xml"_ba << QByteArray() << "/"_ba;
        QTest::newRow("query") << "/desc.xml?a/b"_ba
                               << "s?c=d"_ba
                               << "/s?c=d"_ba;
    }

    void serviceDescriptionUrl()
    {
        QFETCH(const QByteArray, location);
        QFETCH(const QByteArray, url);
        QFETCH(const QByteArray, path);
        device->script("GET " + location,
                       reply(deviceDescription(otherService("urn:schemas-velmora-it:service:keyobjects:1", url))));
        QVERIFY(search());
        QVERIFY(answerSearch("http://10.77.1.1:8080" + location));
        VERIFY_SOON(device->requests.size() == 2);
        QCOMPARE(device->requests.at(1).bytes.split('\r').at(0), "GET " + path + " HTTP/1.1");
    }

    void documentDecidesWhatItIs_data()
    {
        const QByteArray rest = "<device><serviceList>" + serviceElement() + "</serviceList></device>";

        QTest::addColumn<QByteArray>("document");
        QTest::addColumn<int>("services");
        QTest::newRow("version 1.0") << "<root xmlns=\"urn:schemas-upnp-org:device-1-0\">" + rest + "</root>" << 1;
        QTest::newRow("version 7.5") << "<root xmlns='urn:schemas-upnp-org:device-7-5'>" + rest + "</root>" << 1;
        QTest::newRow("no version") << "<root xmlns=\"urn:schemas-upnp-org:device\">" + rest + "</root>" << 1;
        QTest::newRow("any end") << "<root xmlns=\"urn:schemas-upnp-org:deviceful\">" + rest + "</root>" << 1;
        QTest::newRow("one letter short") << "<root xmlns=\"urn:schemas-upnp-org:devic\">" + rest + "</root>" << 0;
        QTest::newRow("leading blank") << "<root xmlns=\" urn:schemas-upnp-org:device-1-0\">" + rest + "</root>"
                                       << 0;
        QTest::newRow("letter case") << "<root xmlns=\"URN:schemas-upnp-org:device-1-0\">" + rest + "</root>" << 0;
        QTest::newRow("none") << "<root>" + rest + "</root>" << 0;
        QTest::newRow("empty") << "<root xmlns=\"\">" + rest + "</root>" << 0;
        QTest::newRow("under a prefix")
            << "<root xmlns:x=\"urn:schemas-upnp-org:device-1-0\">" + rest + "</root>" << 0;
        QTest::newRow("root with a prefix")
            << "<x:root xmlns=\"urn:schemas-upnp-org:device-1-0\">" + rest + "</x:root>" << 0;
        QTest::newRow("of a service") << "<root xmlns=\"urn:schemas-upnp-org:service-1-0\">" + rest + "</root>"
                                      << 0;
        QTest::newRow("on scpd") << "<scpd xmlns=\"urn:schemas-upnp-org:device-1-0\">" + rest + "</scpd>" << 0;
        QTest::newRow("on another element")
            << "<Root xmlns=\"urn:schemas-upnp-org:device-1-0\">" + rest + "</Root>" << 0;
        QTest::newRow("on an inner root")
            << "<x><root xmlns=\"urn:schemas-upnp-org:device-1-0\">" + rest + "</root></x>" << 0;
        QTest::newRow("behind a declaration, a DOCTYPE and a comment")
            << "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<!DOCTYPE root>\n<!-- <root> -->\n"
               "<root xmlns=\"urn:schemas-upnp-org:device-1-0\">"
                + rest + "</root>\n"
            << 1;
    }

    void documentDecidesWhatItIs()
    {
        QFETCH(const QByteArray, document);
        QFETCH(const int, services);
        QVERIFY(answerDescription(reply(document)));
        QCOMPARE(record()->services.size(), services);
        QCOMPARE(log().filter("1|"), QStringList());
        QCOMPARE(manager().serviceReplies().size(), services);
    }

    void bodyThatDoesNotParseIsLogged_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QByteArray>("logged");
        const QByteArray good = deviceDescription();
        QByteArray attributes;
        for (int i = 0; i < 257; ++i)
            attributes += " a" + QByteArray::number(i) + "=''";
        const QByteArray subset = "<!DOCTYPE root [<!ENTITY x 'y'>]>" + good.mid(good.indexOf("<root"));
        const QByteArray deep = "<a>"_ba.repeated(129) + "</a>"_ba.repeated(129);
        const QByteArray wide = "<root xmlns=\"urn:schemas-upnp-org:device-1-0\"" + attributes + "/>";

        QTest::newRow("empty") << QByteArray() << QByteArray();
        QTest::newRow("no XML") << "404 \xe9"_ba
                                << "404 \xe9"_ba;
        QTest::newRow("a page of HTML") << "<html><br></html>"_ba
                                        << "<html><br></html>"_ba;
        QTest::newRow("cut") << good.left(good.size() - 3) << good.left(good.size() - 3);
        QTest::newRow("cut by a zero byte") << good.left(60) + '\0' + good.mid(60) << good.left(60);
        QTest::newRow("a zero byte in front") << '\0' + good << QByteArray();
        QTest::newRow("deeper than 128 levels") << deep << deep;
        QTest::newRow("more than 256 attributes") << wide << wide;
        QTest::newRow("internal subset") << subset << subset;
    }

    void bodyThatDoesNotParseIsLogged()
    {
        QFETCH(const QByteArray, body);
        QFETCH(const QByteArray, logged);
        QVERIFY(answerDescription(reply(body)));
        QCOMPARE(log().mid(2), QStringList{QLatin1String(UNPARSED) + QString::fromLatin1(logged)});
        QCOMPARE(CapturedLog::lines().constLast().pieces.size(), 3);
        QVERIFY(record()->services.isEmpty());
        QVERIFY(manager().serviceReplies().isEmpty());
    }

    void documentWithinTheBoundsParses_data()
    {
        QTest::addColumn<QByteArray>("document");
        const QByteArray start("<root xmlns=\"urn:schemas-upnp-org:device-1-0\"");
        const QByteArray rest = "<device><serviceList>" + serviceElement() + "</serviceList></device></root>";
        QByteArray attributes;
        for (int i = 0; i < 255; ++i)
            attributes += " a" + QByteArray::number(i) + "=''";

        QTest::newRow("text behind a zero byte") << start + ">" + rest + '\0' + "<";
        QTest::newRow("128 levels") << start + ">" + "<a>"_ba.repeated(127) + "</a>"_ba.repeated(127) + rest;
        QTest::newRow("256 attributes") << start + attributes + ">" + rest;
        QTest::newRow("100,000 siblings") << start + ">" + "<a/>"_ba.repeated(100000) + rest;
        QTest::newRow("DOCTYPE without a subset") << "<!DOCTYPE root SYSTEM \"a[b\">" + start + ">" + rest;
    }

    void documentWithinTheBoundsParses()
    {
        QFETCH(const QByteArray, document);
        QVERIFY(answerDescription(reply(document)));
        QCOMPARE(record()->services.size(), 1);
        QCOMPARE(log().filter("1|"), QStringList());
    }

    void statusOfTheReplyDoesNotMatter_data()
    {
        QTest::addColumn<QByteArray>("status");
        QTest::newRow("not found") << "404 Not Found"_ba;
        QTest::newRow("server error") << "500 Internal Server Error"_ba;
        QTest::newRow("unavailable") << "503 Service Unavailable"_ba;
        QTest::newRow("gone") << "410 Gone"_ba;
        QTest::newRow("created") << "201 Created"_ba;
    }

    void statusOfTheReplyDoesNotMatter()
    {
        QFETCH(const QByteArray, status);
        QVERIFY(answerDescription(reply(deviceDescription()).replace("200 OK", status)));
        QCOMPARE(record()->services.size(), 1);
        QCOMPARE(log().filter("1|"), QStringList());
        VERIFY_SOON(device->requestsFor("GET /scpd.xml ").size() == 1);
    }

    void redirectIsNotFollowed_data()
    {
        QTest::addColumn<QByteArray>("status");
        QTest::newRow("301") << "301 Moved Permanently"_ba;
        QTest::newRow("302") << "302 Found"_ba;
        QTest::newRow("303") << "303 See Other"_ba;
        QTest::newRow("307") << "307 Temporary Redirect"_ba;
        QTest::newRow("308") << "308 Permanent Redirect"_ba;
    }

    void redirectIsNotFollowed()
    {
        QFETCH(const QByteArray, status);
        const QByteArray target("LOCATION: http://10.77.1.1:8080/elsewhere.xml\r\nCONTENT-TYPE");
        device->script("GET /scpd.xml ", reply("<no>").replace("200 OK", status).replace("CONTENT-TYPE", target));
        QVERIFY(answerDescription(
            reply(deviceDescription()).replace("200 OK", status).replace("CONTENT-TYPE", target)));
        QCOMPARE(record()->services.size(), 1);
        COMPARE_SOON(log().constLast(), QLatin1String(UNPARSED) + "<no>"_s);
        QVERIFY(answerSearch("http://10.77.1.1:8080/last"));
        QCOMPARE(pathsAskedFor(), (QStringList{"/desc.xml", "/scpd.xml", "/last"}));
    }

    void framingOfTheReplyDoesNotMatter_data()
    {
        QTest::addColumn<QList<QByteArray>>("chunks");
        const QByteArray body = deviceDescription();
        QTest::newRow("until the end of the connection")
            << QList<QByteArray>{"HTTP/1.1 200 OK\r\nCONNECTION: close\r\n\r\n" + body};
        QTest::newRow("HTTP/1.0") << QList<QByteArray>{"HTTP/1.0 200 OK\r\n\r\n" + body};
        QTest::newRow("three chunks") << QList<QByteArray>{
            "HTTP/1.1 200 OK\r\nCONNECTION: close\r\nCONTENT-LENGTH: " + QByteArray::number(body.size()) + "\r\n",
            "\r\n" + body.left(100), body.mid(100)};
        QTest::newRow("chunked") << QList<QByteArray>{"HTTP/1.1 200 OK\r\nTRANSFER-ENCODING: chunked\r\n\r\n"
                                                      + QByteArray::number(body.size(), 16) + "\r\n" + body
                                                      + "\r\n0\r\n\r\n"};
    }

    void framingOfTheReplyDoesNotMatter()
    {
        QFETCH(const QList<QByteArray>, chunks);
        QVERIFY(search());
        QVERIFY(answerSearch());
        const QPointer<Connection> connection = device->requests.at(0).connection;
        for (int i = 0; i < chunks.size(); ++i) {
            connection->send(chunks.at(i));
            if (i + 1 < chunks.size())
                VERIFY_SOON(connection->wasRead());
        }
        connection->close();
        VERIFY_SOON(!record()->services.isEmpty());
        QCOMPARE(record()->services.size(), 1);
        QCOMPARE(log().filter("1|"), QStringList());
    }

    void codingThatWasNotOfferedIsNotRead()
    {
        // qCompress() puts the length before the zlib stream, in four bytes.
        const QByteArray body = qCompress(deviceDescription()).mid(4);
        QVERIFY(answerDescription(
            "HTTP/1.1 200 OK\r\nCONNECTION: close\r\nCONTENT-ENCODING: deflate\r\nCONTENT-LENGTH: "
            + QByteArray::number(body.size()) + "\r\n\r\n" + body));
        QVERIFY(!device->requestsFor("GET ").at(0).bytes.toLower().contains("accept-encoding"));
        QCOMPARE(static_cast<int>(record()->services.size()), 0);
        QVERIFY(log().constLast().startsWith(QLatin1String(UNPARSED)));
    }

    void cookiesAreNotSentBack()
    {
        const QByteArray body = deviceDescription();
        QVERIFY(answerDescription("HTTP/1.1 200 OK\r\nSet-Cookie: a=b\r\nCONTENT-LENGTH: "
                                  + QByteArray::number(body.size()) + "\r\n\r\n" + body));
        VERIFY_SOON(device->requestsFor("GET ").size() == 2);
        QVERIFY(!device->requestsFor("GET ").at(1).bytes.toLower().contains("cookie"));
    }

    void serviceDescriptionUrlMayAnswerWithADeviceDescription()
    {
        device->script("GET /scpd.xml ", reply(deviceDescription(otherService("another", "/other.xml"))));
        QVERIFY(answerDescription(reply(deviceDescription())));
        VERIFY_SOON(record()->services.size() == 2);
        QCOMPARE(record()->services.at(1)->serviceType, "another"_s);
        QCOMPARE(log().mid(2),
                 (QStringList{"0|SSDP Device service|/scpd.xml", "0|SSDP Device service|/other.xml"}));
        QVERIFY(manager().deviceReplies().isEmpty());
        QVERIFY(manager().serviceReplies().isEmpty());
        QVERIFY(manager().requestSockets().isEmpty());
    }

    void locationThatAnswersWithAServiceDescriptionDoesNothing()
    {
        QVERIFY(answerDescription(reply(serviceDescription())));
        QVERIFY(record()->services.isEmpty());
        QVERIFY(manager().requestSockets().isEmpty());
        QCOMPARE(log().size(), 2);
    }

    void everyStateVariableHasItsOwnConnection()
    {
        device->script("GET /scpd.xml ", reply(serviceDescription({"KO", "A", "B", "A", "C"})));
        QVERIFY(answerDescription(reply(deviceDescription())));
        VERIFY_SOON(device->requestsFor("SUBSCRIBE ").size() == 5);

        const auto& variables = record()->services.at(0)->stateVariables;
        QStringList names = variables.keys();
        names.sort();
        QCOMPARE(names, (QStringList{"A", "B", "C", "KO"}));
        for (const QString& value : variables)
            QVERIFY(value.isNull());
        QCOMPARE(log().mid(3),
                 (QStringList{"0|SSDP response state variable|KO", "0|SSDP response state variable|A",
                              "0|SSDP response state variable|B", "0|SSDP response state variable|A",
                              "0|SSDP response state variable|C"}));
        QCOMPARE(manager().requestSockets().size(), 5);
        QCOMPARE(manager().requestSocketServices().size(), 5);
        QVERIFY(manager().deviceReplies().isEmpty());
        QVERIFY(manager().serviceReplies().isEmpty());
    }

    void stateVariableIsReadFromItsPlaceOnly_data()
    {
        const QByteArray start("<scpd xmlns=\"urn:schemas-upnp-org:service-1-0\">");
        const QByteArray variable("<stateVariable><name>KO</name></stateVariable>");
        const QByteArray table = "<serviceStateTable>" + variable + "</serviceStateTable>";

        QTest::addColumn<QByteArray>("document");
        QTest::addColumn<QStringList>("variables");
        const QStringList one{"KO"_s};
        QTest::newRow("in its place") << start + table + "</scpd>" << one;
        QTest::newRow("any version") << "<scpd xmlns=\"urn:schemas-upnp-org:service-9-9\">" + table + "</scpd>"
                                     << one;
        QTest::newRow("no version") << "<scpd xmlns=\"urn:schemas-upnp-org:service\">" + table + "</scpd>" << one;
        QTest::newRow("behind the actions")
            << start + "<actionList><action/></actionList>" + table + "</scpd>" << one;
        QTest::newRow("whether it sends events or not") << start
                + "<serviceStateTable><stateVariable sendEvents=\"no\"><dataType/><name>KO</name>"
                  "</stateVariable></serviceStateTable></scpd>"
                                                        << one;
        QTest::newRow("without a name")
            << start + "<serviceStateTable><stateVariable/></serviceStateTable></scpd>" << QStringList{QString()};
        QTest::newRow("with two names") << start
                + "<serviceStateTable><stateVariable><name>KO</name><name>B</name></stateVariable>"
                  "</serviceStateTable></scpd>"
                                        << one;
        QTest::newRow("a name with blanks") << start
                + "<serviceStateTable><stateVariable><name> KO </name></stateVariable></serviceStateTable></scpd>"
                                            << QStringList{" KO "};
        QTest::newRow("of the first table only") << start + table + table + "</scpd>" << one;
        QTest::newRow("outside a table") << start + variable + "</scpd>" << QStringList();
        QTest::newRow("an empty table") << start + "<serviceStateTable/></scpd>" << QStringList();
        QTest::newRow("no table") << start + "</scpd>" << QStringList();
        QTest::newRow("no namespace") << "<scpd>" + table + "</scpd>" << QStringList();
        QTest::newRow("namespace of a device")
            << "<scpd xmlns=\"urn:schemas-upnp-org:device-1-0\">" + table + "</scpd>" << QStringList();
        QTest::newRow("namespace of a service on root")
            << "<root xmlns=\"urn:schemas-upnp-org:service-1-0\">" + table + "</root>" << QStringList();
    }

    void stateVariableIsReadFromItsPlaceOnly()
    {
        QFETCH(const QByteArray, document);
        QFETCH(const QStringList, variables);
        device->script("GET /scpd.xml ", reply(document));
        QVERIFY(answerDescription(reply(deviceDescription())));
        VERIFY_SOON(manager().deviceReplies().isEmpty());
        QStringList lines;
        for (const QString& name : variables)
            lines << "0|SSDP response state variable|"_s + name;
        QCOMPARE(log().mid(3), lines);
        QCOMPARE(QStringList(record()->services.at(0)->stateVariables.keys()), variables);
        QCOMPARE(manager().requestSockets().size(), variables.size());
        QVERIFY(manager().serviceReplies().isEmpty());
    }

    void serviceDescriptionsMayComeInAnyOrder()
    {
        QVERIFY(answerDescription(
            reply(deviceDescription(otherService("urn:schemas-velmora-it:service:keyobjects:1", "/1.xml")
                                    + otherService("urn:schemas-velmora-it:service:keyobjects:1", "/2.xml")))));
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
        COMPARE_SOON(log().constLast(), QLatin1String(UNPARSED));
        QVERIFY(manager().deviceReplies().isEmpty());
        const QPointer<Connection> connection = device->requestsFor("GET /desc.xml ").at(0).connection;
        VERIFY_SOON(!connection->isOpen());
    }

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

    QStringList pathsAskedFor() const
    {
        QStringList result;
        for (const ScriptedDevice::Request& request : device->requestsFor("GET "))
            result << QString::fromLatin1(request.bytes.split(' ').at(1));
        return result;
    }
};

VELMORA_WIRE_TEST_MAIN(DescriptionTest)

#include "tst_description.moc"

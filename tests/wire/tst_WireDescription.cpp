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
class WireDescriptionTest : public WireTest
{
    Q_OBJECT

public:
    using WireTest::WireTest;

private Q_SLOTS:
    void logTellsTheWholeRoadOfADevice();
    void onlyTheKeyObjectServiceOfThreeIsAskedFor();
    void recordHoldsTheTextsOfTheDescription();
    void everyKeyObjectServiceIsAskedFor();
    void otherServiceTypesAreNotAskedFor_data();
    void otherServiceTypesAreNotAskedFor();
    void serviceIsReadFromItsPlaceOnly_data();
    void serviceIsReadFromItsPlaceOnly();
    void serviceDescriptionUrl_data();
    void serviceDescriptionUrl();
    void documentDecidesWhatItIs_data();
    void documentDecidesWhatItIs();
    void bodyThatDoesNotParseIsLogged_data();
    void bodyThatDoesNotParseIsLogged();
    void documentWithinTheBoundsParses_data();
    void documentWithinTheBoundsParses();
    void statusOfTheReplyDoesNotMatter_data();
    void statusOfTheReplyDoesNotMatter();
    void redirectIsNotFollowed_data();
    void redirectIsNotFollowed();
    void framingOfTheReplyDoesNotMatter_data();
    void framingOfTheReplyDoesNotMatter();
    void codingThatWasNotOfferedIsNotRead();
    void cookiesAreNotSentBack();
    void serviceDescriptionUrlMayAnswerWithADeviceDescription();
    void locationThatAnswersWithAServiceDescriptionDoesNothing();
    void everyStateVariableHasItsOwnConnection();
    void stateVariableIsReadFromItsPlaceOnly_data();
    void stateVariableIsReadFromItsPlaceOnly();
    void serviceDescriptionsMayComeInAnyOrder();
    void replyBeyond16MiBFailsWithoutABody();

private:
    /// Answers the request for the description with @p bytes and waits until that was handled.
    bool answerDescription(const QByteArray& bytes)
    {
        device->script("GET /desc.xml ", bytes);
        return search() && answerSearch() && waitUntil([this] {
                   const auto replies = manager().deviceReplies();
                   return std::all_of(replies.keyBegin(), replies.keyEnd(), [](const QNetworkReply* reply) {
                       return !reply->url().path().endsWith(QLatin1String("desc.xml"));
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

void WireDescriptionTest::logTellsTheWholeRoadOfADevice()
{
    QVERIFY(findDevice());
    QVERIFY(sendLastEvent());
    QCOMPARE(log(),
             (QStringList{
                 QStringLiteral("0|Ssdp Server bound to %1").arg(callback().port),
                 QStringLiteral("0|Ssdp device|http://10.77.1.1:8080/desc.xml"),
                 QStringLiteral("0|SSDP Device service|/scpd.xml"),
                 QStringLiteral("0|SSDP response state variable|KO"),
                 QStringLiteral("0|Device with FC:77 and UC:1 found at 10.77.1.1"),
             }));
    QList<int> pieces;
    for (const LogLine& line : CapturedLog::lines())
        pieces << static_cast<int>(line.pieces.size());
    QCOMPARE(pieces, (QList<int>{1, 2, 2, 2, 1}));
}

void WireDescriptionTest::onlyTheKeyObjectServiceOfThreeIsAskedFor()
{
    QVERIFY(answerDescription(
        reply(deviceDescription(otherService("urn:schemas-upnp-org:service:SwitchPower:1", "/1.xml") + KEY_OBJECTS
                                + otherService("urn:schemas-upnp-org:service:Dimming:1", "/3.xml")))));
    VERIFY_SOON(device->requests.size() >= 2);
    QCOMPARE(record()->services.size(), 3);
    QCOMPARE(log().filter(QStringLiteral("SSDP Device service")),
             (QStringList{QStringLiteral("0|SSDP Device service|/1.xml"),
                          QStringLiteral("0|SSDP Device service|/scpd.xml"),
                          QStringLiteral("0|SSDP Device service|/3.xml")}));
    QVERIFY(answerSearch("http://10.77.1.1:8080/last"));
    QCOMPARE(pathsAskedFor(),
             (QStringList{QStringLiteral("/desc.xml"), QStringLiteral("/scpd.xml"), QStringLiteral("/last")}));
}

void WireDescriptionTest::recordHoldsTheTextsOfTheDescription()
{
    QVERIFY(answerDescription(reply(deviceDescription(
        QByteArray(KEY_OBJECTS)
        + "<service><serviceType> a\n</serviceType><serviceId>b&amp;c</serviceId><SCPDURL>d e</SCPDURL>"
          "<controlURL>http://f/</controlURL><eventSubURL>\xe9</eventSubURL></service><service/>"))));
    QCOMPARE(record()->address, QHostAddress(QStringLiteral("10.77.1.1")));
    QCOMPARE(record()->location, QStringLiteral("http://10.77.1.1:8080/desc.xml"));
    QVERIFY(!record()->id.isNull());
    QCOMPARE(record()->services.size(), 3);

    const SsdpService* const first = record()->services.at(0);
    QCOMPARE(first->serviceType, QStringLiteral("urn:schemas-velmora-it:service:keyobjects:1"));
    QCOMPARE(first->serviceId, QStringLiteral("urn:velmora-it:serviceId:keyobjects"));
    QCOMPARE(first->scpdUrl, QStringLiteral("/scpd.xml"));
    QCOMPARE(first->controlUrl, QStringLiteral("/control"));
    QCOMPARE(first->eventSubUrl, QStringLiteral("/event"));
    QVERIFY(first->subscriptionId.isNull());
    QVERIFY(first->stateVariables.isEmpty());

    const SsdpService* const second = record()->services.at(1);
    QCOMPARE(second->serviceType, QStringLiteral(" a\n"));
    QCOMPARE(second->serviceId, QStringLiteral("b&c"));
    QCOMPARE(second->scpdUrl, QStringLiteral("d e"));
    QCOMPARE(second->controlUrl, QStringLiteral("http://f/"));
    QCOMPARE(second->eventSubUrl, QString(QChar(0xe9)));

    const SsdpService* const third = record()->services.at(2);
    QCOMPARE(third->serviceType + third->serviceId + third->scpdUrl + third->controlUrl + third->eventSubUrl,
             QString());
    QVERIFY(!first->id.isNull() && !second->id.isNull() && !third->id.isNull());
    QVERIFY(first->id != second->id && second->id != third->id && third->id != first->id);
}

void WireDescriptionTest::everyKeyObjectServiceIsAskedFor()
{
    QVERIFY(answerDescription(
        reply(deviceDescription(otherService("urn:schemas-velmora-it:service:keyobjects:1", "/1.xml")
                                + otherService("urn:schemas-velmora-it:service:keyobjects:1", "/2.xml")
                                + otherService("urn:schemas-velmora-it:service:keyobjects:1", "/2.xml")))));
    VERIFY_SOON(device->requests.size() >= 4);
    QStringList paths = pathsAskedFor();
    paths.sort();
    QCOMPARE(paths,
             (QStringList{QStringLiteral("/1.xml"), QStringLiteral("/2.xml"), QStringLiteral("/2.xml"),
                          QStringLiteral("/desc.xml")}));
}

void WireDescriptionTest::otherServiceTypesAreNotAskedFor_data()
{
    QTest::addColumn<QByteArray>("type");
    QTest::newRow("next version") << QByteArray("urn:schemas-velmora-it:service:keyobjects:2");
    QTest::newRow("two digits") << QByteArray("urn:schemas-velmora-it:service:keyobjects:11");
    QTest::newRow("no version") << QByteArray("urn:schemas-velmora-it:service:keyobjects:");
    QTest::newRow("trailing blank") << QByteArray("urn:schemas-velmora-it:service:keyobjects:1 ");
    QTest::newRow("leading blank") << QByteArray(" urn:schemas-velmora-it:service:keyobjects:1");
    QTest::newRow("letter case") << QByteArray("urn:schemas-velmora-it:service:KeyObjects:1");
    QTest::newRow("empty") << QByteArray();
}

void WireDescriptionTest::otherServiceTypesAreNotAskedFor()
{
    QFETCH(const QByteArray, type);
    QVERIFY(answerDescription(reply(deviceDescription(otherService(type, "/no.xml") + KEY_OBJECTS))));
    VERIFY_SOON(device->requests.size() >= 2);
    QVERIFY(answerSearch("http://10.77.1.1:8080/last"));
    QCOMPARE(pathsAskedFor(),
             (QStringList{QStringLiteral("/desc.xml"), QStringLiteral("/scpd.xml"), QStringLiteral("/last")}));
    QCOMPARE(record()->services.size(), 2);
    QCOMPARE(record()->services.at(0)->serviceType, QString::fromLatin1(type));
}

void WireDescriptionTest::serviceIsReadFromItsPlaceOnly_data()
{
    const QByteArray root("<root xmlns=\"urn:schemas-upnp-org:device-1-0\">");
    const QByteArray service(KEY_OBJECTS);
    const QByteArray list = "<serviceList>" + service + "</serviceList>";

    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<int>("services");
    QTest::newRow("in its place") << root + "<device>" + list + "</device></root>" << 1;
    QTest::newRow("behind other elements")
        << root + "<specVersion/><device><friendlyName/>" + list + "</device></root>" << 1;
    QTest::newRow("behind other elements of the list")
        << root + "<device><serviceList><x/>" + service + "<x/>" + service + "</serviceList></device></root>" << 2;
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
    QTest::newRow("other letter case") << root + "<device><serviceList><Service/></serviceList></device></root>"
                                       << 0;
    QTest::newRow("with a prefix") << root + "<device><serviceList><u:service/></serviceList></device></root>"
                                   << 0;
    QTest::newRow("an empty list") << root + "<device><serviceList/></device></root>" << 0;
    QTest::newRow("no list") << root + "<device/></root>" << 0;
    QTest::newRow("no device") << root + "</root>" << 0;
}

void WireDescriptionTest::serviceIsReadFromItsPlaceOnly()
{
    QFETCH(const QByteArray, document);
    QFETCH(const int, services);
    QVERIFY(answerDescription(reply(document)));
    QCOMPARE(record()->services.size(), services);
    QCOMPARE(log().filter(QStringLiteral("SSDP Device service")).size(), services);
    QCOMPARE(log().filter(QStringLiteral("1|")), QStringList());
}

void WireDescriptionTest::serviceDescriptionUrl_data()
{
    QTest::addColumn<QByteArray>("location");
    QTest::addColumn<QByteArray>("url");
    QTest::addColumn<QByteArray>("path");
    QTest::newRow("absolute path") << QByteArray("/desc.xml") << QByteArray("/a/scpd.xml")
                                   << QByteArray("/a/scpd.xml");
    QTest::newRow("relative path") << QByteArray("/b/desc.xml") << QByteArray("scpd.xml")
                                   << QByteArray("/scpd.xml");
    QTest::newRow("full URL") << QByteArray("/desc.xml") << QByteArray("http://10.77.1.2/x")
                              << QByteArray("/http://10.77.1.2/x");
    QTest::newRow("empty") << QByteArray("/desc.xml") << QByteArray() << QByteArray("/");
    QTest::newRow("query") << QByteArray("/desc.xml?a/b") << QByteArray("s?c=d") << QByteArray("/s?c=d");
}

void WireDescriptionTest::serviceDescriptionUrl()
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

void WireDescriptionTest::documentDecidesWhatItIs_data()
{
    const QByteArray rest = "<device><serviceList>" + QByteArray(KEY_OBJECTS) + "</serviceList></device>";

    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<int>("services");
    QTest::newRow("version 1.0") << "<root xmlns=\"urn:schemas-upnp-org:device-1-0\">" + rest + "</root>" << 1;
    QTest::newRow("version 7.5") << "<root xmlns='urn:schemas-upnp-org:device-7-5'>" + rest + "</root>" << 1;
    QTest::newRow("no version") << "<root xmlns=\"urn:schemas-upnp-org:device\">" + rest + "</root>" << 1;
    QTest::newRow("any end") << "<root xmlns=\"urn:schemas-upnp-org:deviceful\">" + rest + "</root>" << 1;
    QTest::newRow("one letter short") << "<root xmlns=\"urn:schemas-upnp-org:devic\">" + rest + "</root>" << 0;
    QTest::newRow("leading blank") << "<root xmlns=\" urn:schemas-upnp-org:device-1-0\">" + rest + "</root>" << 0;
    QTest::newRow("letter case") << "<root xmlns=\"URN:schemas-upnp-org:device-1-0\">" + rest + "</root>" << 0;
    QTest::newRow("none") << "<root>" + rest + "</root>" << 0;
    QTest::newRow("empty") << "<root xmlns=\"\">" + rest + "</root>" << 0;
    QTest::newRow("under a prefix") << "<root xmlns:x=\"urn:schemas-upnp-org:device-1-0\">" + rest + "</root>"
                                    << 0;
    QTest::newRow("root with a prefix")
        << "<x:root xmlns=\"urn:schemas-upnp-org:device-1-0\">" + rest + "</x:root>" << 0;
    QTest::newRow("of a service") << "<root xmlns=\"urn:schemas-upnp-org:service-1-0\">" + rest + "</root>" << 0;
    QTest::newRow("on scpd") << "<scpd xmlns=\"urn:schemas-upnp-org:device-1-0\">" + rest + "</scpd>" << 0;
    QTest::newRow("on another element")
        << "<Root xmlns=\"urn:schemas-upnp-org:device-1-0\">" + rest + "</Root>" << 0;
    QTest::newRow("on an inner root") << "<x><root xmlns=\"urn:schemas-upnp-org:device-1-0\">" + rest
            + "</root></x>" << 0;
    QTest::newRow("behind a declaration, a DOCTYPE and a comment")
        << "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<!DOCTYPE root>\n<!-- <root> -->\n"
           "<root xmlns=\"urn:schemas-upnp-org:device-1-0\">"
            + rest + "</root>\n"
        << 1;
}

void WireDescriptionTest::documentDecidesWhatItIs()
{
    QFETCH(const QByteArray, document);
    QFETCH(const int, services);
    QVERIFY(answerDescription(reply(document)));
    QCOMPARE(record()->services.size(), services);
    QCOMPARE(log().filter(QStringLiteral("1|")), QStringList());
    QCOMPARE(manager().serviceReplies().size(), services);
}

void WireDescriptionTest::bodyThatDoesNotParseIsLogged_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QByteArray>("logged");
    const QByteArray good = deviceDescription(KEY_OBJECTS);
    QByteArray attributes;
    for (int i = 0; i < 257; ++i)
        attributes += " a" + QByteArray::number(i) + "=''";
    const QByteArray subset = "<!DOCTYPE root [<!ENTITY x 'y'>]>" + good.mid(good.indexOf("<root"));
    const QByteArray deep = QByteArray("<a>").repeated(129) + QByteArray("</a>").repeated(129);
    const QByteArray wide = "<root xmlns=\"urn:schemas-upnp-org:device-1-0\"" + attributes + "/>";

    QTest::newRow("empty") << QByteArray() << QByteArray();
    QTest::newRow("no XML") << QByteArray("404 \xe9") << QByteArray("404 \xe9");
    QTest::newRow("a page of HTML") << QByteArray("<html><br></html>") << QByteArray("<html><br></html>");
    QTest::newRow("cut") << good.left(good.size() - 3) << good.left(good.size() - 3);
    QTest::newRow("cut by a zero byte") << good.left(60) + '\0' + good.mid(60) << good.left(60);
    QTest::newRow("a zero byte in front") << '\0' + good << QByteArray();
    QTest::newRow("deeper than 128 levels") << deep << deep;
    QTest::newRow("more than 256 attributes") << wide << wide;
    QTest::newRow("internal subset") << subset << subset;
}

void WireDescriptionTest::bodyThatDoesNotParseIsLogged()
{
    QFETCH(const QByteArray, body);
    QFETCH(const QByteArray, logged);
    QVERIFY(answerDescription(reply(body)));
    QCOMPARE(log().mid(2), QStringList{QLatin1String(UNPARSED) + QString::fromLatin1(logged)});
    QCOMPARE(CapturedLog::lines().constLast().pieces.size(), 3);
    QVERIFY(record()->services.isEmpty());
    QVERIFY(manager().serviceReplies().isEmpty());
}

void WireDescriptionTest::documentWithinTheBoundsParses_data()
{
    QTest::addColumn<QByteArray>("document");
    const QByteArray start("<root xmlns=\"urn:schemas-upnp-org:device-1-0\"");
    const QByteArray rest = "<device><serviceList>" + QByteArray(KEY_OBJECTS) + "</serviceList></device></root>";
    QByteArray attributes;
    for (int i = 0; i < 255; ++i)
        attributes += " a" + QByteArray::number(i) + "=''";

    QTest::newRow("text behind a zero byte") << start + ">" + rest + '\0' + "<";
    QTest::newRow("128 levels") << start + ">" + QByteArray("<a>").repeated(127) + QByteArray("</a>").repeated(127)
            + rest;
    QTest::newRow("256 attributes") << start + attributes + ">" + rest;
    QTest::newRow("100,000 siblings") << start + ">" + QByteArray("<a/>").repeated(100000) + rest;
    QTest::newRow("DOCTYPE without a subset") << "<!DOCTYPE root SYSTEM \"a[b\">" + start + ">" + rest;
}

void WireDescriptionTest::documentWithinTheBoundsParses()
{
    QFETCH(const QByteArray, document);
    QVERIFY(answerDescription(reply(document)));
    QCOMPARE(record()->services.size(), 1);
    QCOMPARE(log().filter(QStringLiteral("1|")), QStringList());
}

void WireDescriptionTest::statusOfTheReplyDoesNotMatter_data()
{
    QTest::addColumn<QByteArray>("status");
    QTest::newRow("not found") << QByteArray("404 Not Found");
    QTest::newRow("server error") << QByteArray("500 Internal Server Error");
    QTest::newRow("unavailable") << QByteArray("503 Service Unavailable");
    QTest::newRow("gone") << QByteArray("410 Gone");
    QTest::newRow("created") << QByteArray("201 Created");
}

void WireDescriptionTest::statusOfTheReplyDoesNotMatter()
{
    QFETCH(const QByteArray, status);
    QVERIFY(answerDescription(reply(deviceDescription(KEY_OBJECTS)).replace("200 OK", status)));
    QCOMPARE(record()->services.size(), 1);
    QCOMPARE(log().filter(QStringLiteral("1|")), QStringList());
    VERIFY_SOON(device->requestsFor("GET /scpd.xml ").size() == 1);
}

void WireDescriptionTest::redirectIsNotFollowed_data()
{
    QTest::addColumn<QByteArray>("status");
    QTest::newRow("301") << QByteArray("301 Moved Permanently");
    QTest::newRow("302") << QByteArray("302 Found");
    QTest::newRow("303") << QByteArray("303 See Other");
    QTest::newRow("307") << QByteArray("307 Temporary Redirect");
    QTest::newRow("308") << QByteArray("308 Permanent Redirect");
}

void WireDescriptionTest::redirectIsNotFollowed()
{
    QFETCH(const QByteArray, status);
    const QByteArray target("LOCATION: http://10.77.1.1:8080/elsewhere.xml\r\nCONTENT-TYPE");
    device->script("GET /scpd.xml ", reply("<no>").replace("200 OK", status).replace("CONTENT-TYPE", target));
    QVERIFY(answerDescription(
        reply(deviceDescription(KEY_OBJECTS)).replace("200 OK", status).replace("CONTENT-TYPE", target)));
    QCOMPARE(record()->services.size(), 1);
    COMPARE_SOON(log().constLast(), QLatin1String(UNPARSED) + QLatin1String("<no>"));
    QVERIFY(answerSearch("http://10.77.1.1:8080/last"));
    QCOMPARE(pathsAskedFor(),
             (QStringList{QStringLiteral("/desc.xml"), QStringLiteral("/scpd.xml"), QStringLiteral("/last")}));
}

void WireDescriptionTest::framingOfTheReplyDoesNotMatter_data()
{
    QTest::addColumn<QList<QByteArray>>("chunks");
    const QByteArray body = deviceDescription(KEY_OBJECTS);
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

void WireDescriptionTest::framingOfTheReplyDoesNotMatter()
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
    QCOMPARE(log().filter(QStringLiteral("1|")), QStringList());
}

void WireDescriptionTest::codingThatWasNotOfferedIsNotRead()
{
    // qCompress() puts the length before the zlib stream, in four bytes.
    const QByteArray body = qCompress(deviceDescription(KEY_OBJECTS)).mid(4);
    QVERIFY(
        answerDescription("HTTP/1.1 200 OK\r\nCONNECTION: close\r\nCONTENT-ENCODING: deflate\r\nCONTENT-LENGTH: "
                          + QByteArray::number(body.size()) + "\r\n\r\n" + body));
    QVERIFY(!device->requestsFor("GET ").at(0).bytes.toLower().contains("accept-encoding"));
    QCOMPARE(static_cast<int>(record()->services.size()), 0);
    QVERIFY(log().constLast().startsWith(QLatin1String(UNPARSED)));
}

void WireDescriptionTest::cookiesAreNotSentBack()
{
    const QByteArray body = deviceDescription(KEY_OBJECTS);
    QVERIFY(answerDescription("HTTP/1.1 200 OK\r\nSet-Cookie: a=b\r\nCONTENT-LENGTH: "
                              + QByteArray::number(body.size()) + "\r\n\r\n" + body));
    VERIFY_SOON(device->requestsFor("GET ").size() == 2);
    QVERIFY(!device->requestsFor("GET ").at(1).bytes.toLower().contains("cookie"));
}

void WireDescriptionTest::serviceDescriptionUrlMayAnswerWithADeviceDescription()
{
    device->script("GET /scpd.xml ", reply(deviceDescription(otherService("another", "/other.xml"))));
    QVERIFY(answerDescription(reply(deviceDescription(KEY_OBJECTS))));
    VERIFY_SOON(record()->services.size() == 2);
    QCOMPARE(record()->services.at(1)->serviceType, QStringLiteral("another"));
    QCOMPARE(log().mid(2),
             (QStringList{QStringLiteral("0|SSDP Device service|/scpd.xml"),
                          QStringLiteral("0|SSDP Device service|/other.xml")}));
    QVERIFY(manager().deviceReplies().isEmpty());
    QVERIFY(manager().serviceReplies().isEmpty());
    QVERIFY(manager().requestSockets().isEmpty());
}

void WireDescriptionTest::locationThatAnswersWithAServiceDescriptionDoesNothing()
{
    QVERIFY(answerDescription(reply(serviceDescription({"KO"}))));
    QVERIFY(record()->services.isEmpty());
    QVERIFY(manager().requestSockets().isEmpty());
    QCOMPARE(log().size(), 2);
}

void WireDescriptionTest::everyStateVariableHasItsOwnConnection()
{
    device->script("GET /scpd.xml ", reply(serviceDescription({"KO", "A", "B", "A", "C"})));
    QVERIFY(answerDescription(reply(deviceDescription(KEY_OBJECTS))));
    VERIFY_SOON(device->requestsFor("SUBSCRIBE ").size() == 5);

    const auto& variables = record()->services.at(0)->stateVariables;
    QStringList names = variables.keys();
    names.sort();
    QCOMPARE(names,
             (QStringList{QStringLiteral("A"), QStringLiteral("B"), QStringLiteral("C"), QStringLiteral("KO")}));
    for (const QString& value : variables)
        QVERIFY(value.isNull());
    QCOMPARE(log().mid(3),
             (QStringList{QStringLiteral("0|SSDP response state variable|KO"),
                          QStringLiteral("0|SSDP response state variable|A"),
                          QStringLiteral("0|SSDP response state variable|B"),
                          QStringLiteral("0|SSDP response state variable|A"),
                          QStringLiteral("0|SSDP response state variable|C")}));
    QCOMPARE(manager().requestSockets().size(), 5);
    QCOMPARE(manager().requestSocketServices().size(), 5);
    QVERIFY(manager().deviceReplies().isEmpty());
    QVERIFY(manager().serviceReplies().isEmpty());
}

void WireDescriptionTest::stateVariableIsReadFromItsPlaceOnly_data()
{
    const QByteArray start("<scpd xmlns=\"urn:schemas-upnp-org:service-1-0\">");
    const QByteArray variable("<stateVariable><name>KO</name></stateVariable>");
    const QByteArray table = "<serviceStateTable>" + variable + "</serviceStateTable>";

    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<QStringList>("variables");
    const QStringList one{QStringLiteral("KO")};
    QTest::newRow("in its place") << start + table + "</scpd>" << one;
    QTest::newRow("any version") << "<scpd xmlns=\"urn:schemas-upnp-org:service-9-9\">" + table + "</scpd>" << one;
    QTest::newRow("no version") << "<scpd xmlns=\"urn:schemas-upnp-org:service\">" + table + "</scpd>" << one;
    QTest::newRow("behind the actions") << start + "<actionList><action/></actionList>" + table + "</scpd>" << one;
    QTest::newRow("whether it sends events or not") << start
            + "<serviceStateTable><stateVariable sendEvents=\"no\"><dataType/><name>KO</name>"
              "</stateVariable></serviceStateTable></scpd>"
                                                    << one;
    QTest::newRow("without a name") << start + "<serviceStateTable><stateVariable/></serviceStateTable></scpd>"
                                    << QStringList{QString()};
    QTest::newRow("with two names") << start
            + "<serviceStateTable><stateVariable><name>KO</name><name>B</name></stateVariable>"
              "</serviceStateTable></scpd>"
                                    << one;
    QTest::newRow("a name with blanks")
        << start + "<serviceStateTable><stateVariable><name> KO </name></stateVariable></serviceStateTable></scpd>"
        << QStringList{QStringLiteral(" KO ")};
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

void WireDescriptionTest::stateVariableIsReadFromItsPlaceOnly()
{
    QFETCH(const QByteArray, document);
    QFETCH(const QStringList, variables);
    device->script("GET /scpd.xml ", reply(document));
    QVERIFY(answerDescription(reply(deviceDescription(KEY_OBJECTS))));
    VERIFY_SOON(manager().deviceReplies().isEmpty());
    QStringList lines;
    for (const QString& name : variables)
        lines << QStringLiteral("0|SSDP response state variable|") + name;
    QCOMPARE(log().mid(3), lines);
    QCOMPARE(QStringList(record()->services.at(0)->stateVariables.keys()), variables);
    QCOMPARE(manager().requestSockets().size(), variables.size());
    QVERIFY(manager().serviceReplies().isEmpty());
}

void WireDescriptionTest::serviceDescriptionsMayComeInAnyOrder()
{
    QVERIFY(answerDescription(
        reply(deviceDescription(otherService("urn:schemas-velmora-it:service:keyobjects:1", "/1.xml")
                                + otherService("urn:schemas-velmora-it:service:keyobjects:1", "/2.xml")))));
    VERIFY_SOON(device->requests.size() == 3);
    device->requestsFor("GET /2.xml ").at(0).connection->send(reply(serviceDescription({"SECOND"})));
    VERIFY_SOON(device->requestsFor("SUBSCRIBE ").size() == 1);
    device->requestsFor("GET /1.xml ").at(0).connection->send(reply(serviceDescription({"FIRST"})));
    VERIFY_SOON(device->requestsFor("SUBSCRIBE ").size() == 2);
    QCOMPARE(QStringList(record()->services.at(0)->stateVariables.keys()), QStringList{QStringLiteral("FIRST")});
    QCOMPARE(QStringList(record()->services.at(1)->stateVariables.keys()), QStringList{QStringLiteral("SECOND")});
}

void WireDescriptionTest::replyBeyond16MiBFailsWithoutABody()
{
    device->script("GET /desc.xml ", reply(QByteArray(2 * 16 * 1024 * 1024, ' ')));
    QVERIFY(search());
    QVERIFY(answerSearch());
    COMPARE_SOON(log().constLast(), QLatin1String(UNPARSED));
    QVERIFY(manager().deviceReplies().isEmpty());
    const QPointer<Connection> connection = device->requestsFor("GET /desc.xml ").at(0).connection;
    VERIFY_SOON(!connection->isOpen());
}

VELMORA_WIRE_TEST_MAIN(WireDescriptionTest)

#include "tst_WireDescription.moc"

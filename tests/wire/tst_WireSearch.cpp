#include <tests/support/WireTest.h>

#include <ssdp/SsdpManager.h>

#include <sys/utsname.h>

using namespace Velmora::Tests;

/// The search, and what is made of the datagrams that come.
class WireSearchTest : public WireTest
{
    Q_OBJECT

public:
    using WireTest::WireTest;

private Q_SLOTS:
    void searchIsSevenLinesEachEndedByALineFeed();
    void searchIsSentOnceAndFromPort49152();
    void secondDiscoverSaysThreeAndSendsNothing();
    void descriptionIsAskedForInPlainHttp();
    void datagramWithALocationIsADevice_data();
    void datagramWithALocationIsADevice();
    void datagramWithoutALocationIsIgnored_data();
    void datagramWithoutALocationIsIgnored();
    void announcementIsADevice();
    void ownSearchIsNoDevice();
    void sameLocationFromAnswerAndAnnouncementGivesOneRequest();
    void sameLocationFromAnotherSenderChangesNothing();
    void locationsThatDifferInLetterCaseAreTwoDevices();
    void onlyOneDatagramIsReadPerSignal();
    void reportNamesTheSenderAndNotTheLocation();
    void announcedDeviceIsReportedWithAnIPv4Address();
    void locationThatCannotBeAskedIsADeviceAllTheSame_data();
    void locationThatCannotBeAskedIsADeviceAllTheSame();

private:
    /// The locations of the devices that were logged so far.
    static QStringList found()
    {
        return log()
            .filter(QStringLiteral("0|Ssdp device|"))
            .replaceInStrings(QStringLiteral("0|Ssdp device|"), QString());
    }

    /// The location with which each of these tests ends.
    static const char LAST[];
};

const char WireSearchTest::LAST[] = "http://10.77.1.1:8080/last";

void WireSearchTest::searchIsSevenLinesEachEndedByALineFeed()
{
    utsname system = {};
    QCOMPARE(uname(&system), 0);
    QVERIFY(search());
    QCOMPARE(device->searches.at(0).bytes,
             "M-SEARCH * HTTP/1.1\n"
             "HOST: 239.255.255.250:1900\n"
             "MAN: \"ssdp:discover\"\n"
             "MX: 3\n"
             "ST: upnp:rootdevice\n"
             "USER-AGENT: "
                 + QByteArray(system.sysname) + "/" + QByteArray(system.release)
                 + " UPnP/1.1 SSDP/1.0\n"
                   "\n");
}

void WireSearchTest::searchIsSentOnceAndFromPort49152()
{
    QVERIFY(findDevice());
    QVERIFY(sendLastEvent());
    QCOMPARE(device->searches.size(), 1);
    QCOMPARE(device->searches.at(0).sender, QHostAddress(QStringLiteral("10.77.0.1")));
    QCOMPARE(device->searches.at(0).port, quint16(49152));
}

void WireSearchTest::secondDiscoverSaysThreeAndSendsNothing()
{
    QCOMPARE(ssdp->discover(), 3);
    const QStringList before = log();
    QCOMPARE(ssdp->discover(), 3);
    QCOMPARE(log(), before);

    VERIFY_SOON(!device->searches.isEmpty());
    QVERIFY(answerSearch(LAST));
    QCOMPARE(device->searches.size(), 1);
}

void WireSearchTest::descriptionIsAskedForInPlainHttp()
{
    QVERIFY(search());
    QVERIFY(answerSearch());
    const QByteArray request = device->requests.at(0).bytes;
    QVERIFY2(request.startsWith("GET /desc.xml HTTP/1.1\r\nHost: 10.77.1.1:8080\r\n"), request.constData());
    QVERIFY2(request.endsWith("\r\n\r\n"), request.constData());
    QVERIFY2(!request.toLower().contains("upgrade"), request.constData());
    QVERIFY2(!request.toLower().contains("http2"), request.constData());
    QVERIFY2(!request.toLower().contains("\r\ncookie"), request.constData());
    QVERIFY2(!request.toLower().contains("\r\ncontent-"), request.constData());
}

void WireSearchTest::datagramWithALocationIsADevice_data()
{
    QTest::addColumn<QByteArray>("datagram");
    QTest::newRow("carriage return and line feed") << QByteArray(
        "HTTP/1.1 200 OK\r\nLOCATION: http://10.77.1.1:8080/desc.xml\r\nST: upnp:rootdevice\r\n\r\n");
    QTest::newRow("line feed") << QByteArray("HTTP/1.1 200 OK\nLOCATION: http://10.77.1.1:8080/desc.xml\n\n");
    QTest::newRow("no end of line") << QByteArray("HTTP/1.1 200 OK\nLOCATION: http://10.77.1.1:8080/desc.xml");
    QTest::newRow("no blank after the colon") << QByteArray("Location:http://10.77.1.1:8080/desc.xml\r\n");
    QTest::newRow("blanks and tabs around") << QByteArray("location : \t http://10.77.1.1:8080/desc.xml \t\r\n");
    QTest::newRow("a longer name") << QByteArray("location-extra: http://10.77.1.1:8080/desc.xml\r\n");
    QTest::newRow("the first of two") << QByteArray(
        "LOCATION: http://10.77.1.1:8080/desc.xml\r\nLOCATION: http://10.77.1.1:8080/other\r\n");
    QTest::newRow("a line of the name without a colon before it")
        << QByteArray("LOCATION http\r\nLOCATION: http://10.77.1.1:8080/desc.xml\r\n");
    QTest::newRow("text behind a zero byte")
        << QByteArray("LOCATION: http://10.77.1.1:8080/desc.xml") + '\0' + "/more\r\n";
    QTest::newRow("a byebye that has one")
        << QByteArray("NOTIFY * HTTP/1.1\r\nNTS: ssdp:byebye\r\nLOCATION: http://10.77.1.1:8080/desc.xml\r\n\r\n");
    QTest::newRow("any first line") << QByteArray(
        "HTTP/1.1 404 Not Found\r\nLOCATION: http://10.77.1.1:8080/desc.xml\r\n\r\n");
    QTest::newRow("60,000 bytes before it")
        << QByteArray("X: " + QByteArray(60000, 'x') + "\r\nLOCATION: http://10.77.1.1:8080/desc.xml\r\n");
}

void WireSearchTest::datagramWithALocationIsADevice()
{
    QFETCH(const QByteArray, datagram);
    QVERIFY(search());
    device->answer(datagram);
    VERIFY_SOON(!device->requests.isEmpty());
    QCOMPARE(found(), QStringList{QStringLiteral("http://10.77.1.1:8080/desc.xml")});
    QVERIFY(device->requests.at(0).bytes.startsWith("GET /desc.xml HTTP/1.1\r\n"));
}

void WireSearchTest::datagramWithoutALocationIsIgnored_data()
{
    QTest::addColumn<QByteArray>("datagram");
    QTest::newRow("no bytes") << QByteArray();
    QTest::newRow("one zero byte") << QByteArray(1, '\0');
    QTest::newRow("no header") << QByteArray("HTTP/1.1 200 OK\r\nST: upnp:rootdevice\r\n\r\n");
    QTest::newRow("an empty value") << QByteArray("LOCATION:\r\n");
    QTest::newRow("a value of blanks") << QByteArray("LOCATION:  \t\r\n");
    QTest::newRow("an empty value before a good one")
        << QByteArray("LOCATION:\r\nLOCATION: http://10.77.1.1:8080/desc.xml\r\n");
    QTest::newRow("behind a zero byte")
        << QByteArray("X: ") + '\0' + "\r\nLOCATION: http://10.77.1.1:8080/desc.xml\r\n";
    QTest::newRow("behind a blank") << QByteArray(" LOCATION: http://10.77.1.1:8080/desc.xml\r\n");
    QTest::newRow("behind a carriage return alone")
        << QByteArray("HTTP/1.1 200 OK\rLOCATION: http://10.77.1.1:8080/desc.xml\r\n");
    QTest::newRow("no colon") << QByteArray("LOCATION http//10.77.1.1/desc.xml\r\n");
    QTest::newRow("a byebye") << QByteArray("NOTIFY * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\n"
                                            "NT: upnp:rootdevice\r\nNTS: ssdp:byebye\r\nUSN: uuid:1\r\n\r\n");
}

void WireSearchTest::datagramWithoutALocationIsIgnored()
{
    QFETCH(const QByteArray, datagram);
    QVERIFY(search());
    device->announce(datagram);
    device->answer(datagram);
    // Each socket is shown to have come to the next datagram.
    device->announce("LOCATION: http://10.77.1.1:8080/announced\r\n");
    device->answer("LOCATION: http://10.77.1.1:8080/last\r\n");
    VERIFY_SOON(device->requests.size() >= 2);
    QStringList expected{QStringLiteral("http://10.77.1.1:8080/announced"), QString::fromLatin1(LAST)};
    QStringList locations = found();
    locations.sort();
    QCOMPARE(locations, expected);
    QCOMPARE(device->requests.size(), 2);
}

void WireSearchTest::announcementIsADevice()
{
    QVERIFY(search());
    device->announce("NOTIFY * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nCACHE-CONTROL: max-age=1800\r\n"
                     "LOCATION: http://10.77.1.1:8080/desc.xml\r\nNT: upnp:rootdevice\r\nNTS: ssdp:alive\r\n"
                     "USN: uuid:1::upnp:rootdevice\r\n\r\n");
    VERIFY_SOON(!device->requests.isEmpty());
    QVERIFY(device->requests.at(0).bytes.startsWith("GET /desc.xml HTTP/1.1\r\n"));
    QCOMPARE(found(), QStringList{QStringLiteral("http://10.77.1.1:8080/desc.xml")});
}

void WireSearchTest::ownSearchIsNoDevice()
{
    QVERIFY(search());
    device->announce("M-SEARCH * HTTP/1.1\nHOST: 239.255.255.250:1900\nMAN: \"ssdp:discover\"\n\n");
    QVERIFY(answerSearch(LAST));
    QCOMPARE(found(), QStringList{QString::fromLatin1(LAST)});
}

void WireSearchTest::sameLocationFromAnswerAndAnnouncementGivesOneRequest()
{
    QVERIFY(search());
    QVERIFY(answerSearch());
    const QByteArray datagram("LOCATION: http://10.77.1.1:8080/desc.xml\r\n");
    device->answer(datagram);
    device->announce(datagram);
    device->announce("LOCATION: http://10.77.1.1:8080/announced\r\n");
    device->answer("LOCATION: http://10.77.1.1:8080/last\r\n");
    VERIFY_SOON(device->requests.size() >= 3);
    QCOMPARE(device->requestsFor("GET /desc.xml ").size(), 1);
    QCOMPARE(device->requests.size(), 3);
    QCOMPARE(found().size(), 3);
}

void WireSearchTest::sameLocationFromAnotherSenderChangesNothing()
{
    ScriptedDevice other(network, QStringLiteral("10.77.1.2"), 8080);
    scriptDevice();
    QVERIFY(search());
    VERIFY_SOON(!other.searches.isEmpty());
    QVERIFY(answerSearch());
    other.answer("LOCATION: http://10.77.1.1:8080/desc.xml\r\n");
    VERIFY_SOON(!device->requestsFor("SUBSCRIBE ").isEmpty());
    QVERIFY(answerSearch(LAST));
    QVERIFY(sendLastEvent());
    QCOMPARE(device->requestsFor("GET /desc.xml ").size(), 1);
    QCOMPARE(reports, QStringList{QStringLiteral("77,1 at 10.77.1.1")});
}

void WireSearchTest::locationsThatDifferInLetterCaseAreTwoDevices()
{
    QVERIFY(search());
    QVERIFY(answerSearch("http://10.77.1.1:8080/desc.xml"));
    QVERIFY(answerSearch("http://10.77.1.1:8080/DESC.xml"));
    QCOMPARE(found(),
             (QStringList{QStringLiteral("http://10.77.1.1:8080/desc.xml"),
                          QStringLiteral("http://10.77.1.1:8080/DESC.xml")}));
}

void WireSearchTest::onlyOneDatagramIsReadPerSignal()
{
    QVERIFY(search());
    QList<int> foundAtSignal;
    const QObject context;
    const QList<QUdpSocket*> sockets = ssdp->findChildren<QUdpSocket*>();
    QCOMPARE(sockets.size(), 2);
    for (const QUdpSocket* const socket : sockets) {
        connect(socket, &QUdpSocket::readyRead, &context,
                [counts = &foundAtSignal] { *counts << static_cast<int>(found().size()); });
    }
    device->answer("LOCATION: http://10.77.1.1:8080/1\r\n");
    device->answer("LOCATION: http://10.77.1.1:8080/2\r\n");
    device->answer("LOCATION: http://10.77.1.1:8080/3\r\n");
    VERIFY_SOON(device->requests.size() == 3);
    QCOMPARE(foundAtSignal, (QList<int>{1, 2, 3}));
}

void WireSearchTest::reportNamesTheSenderAndNotTheLocation()
{
    ScriptedDevice other(network, QStringLiteral("10.77.1.2"), 8080);
    scriptDevice();
    QVERIFY(search());
    VERIFY_SOON(!other.searches.isEmpty());
    other.answer("LOCATION: http://10.77.1.1:8080/desc.xml\r\n");
    VERIFY_SOON(!device->requestsFor("SUBSCRIBE ").isEmpty());
    QVERIFY(sendEvent(callback(), event("KO", "12,34")));
    COMPARE_SOON(reports, QStringList{QStringLiteral("12,34 at 10.77.1.2")});
}

void WireSearchTest::announcedDeviceIsReportedWithAnIPv4Address()
{
    QList<QHostAddress> addresses;
    const QObject context;
    connect(ssdp.get(), &Velmora::SSDP::Ssdp::discovered, &context,
            [list = &addresses](int, int, const QHostAddress& address) { *list << address; });
    scriptDevice();
    QVERIFY(search());
    device->announce("NOTIFY * HTTP/1.1\r\nLOCATION: http://10.77.1.1:8080/desc.xml\r\nNTS: ssdp:alive\r\n\r\n");
    VERIFY_SOON(!device->requestsFor("SUBSCRIBE ").isEmpty());
    QVERIFY(sendLastEvent());
    QCOMPARE(addresses, QList<QHostAddress>{QHostAddress(QStringLiteral("10.77.1.1"))});
}

void WireSearchTest::locationThatCannotBeAskedIsADeviceAllTheSame_data()
{
    QTest::addColumn<QByteArray>("location");
    QTest::newRow("no scheme") << QByteArray("10.77.1.1:8080/desc.xml");
    QTest::newRow("no text of a URL") << QByteArray("%%% [ ]");
    QTest::newRow("no such scheme") << QByteArray("coap://10.77.1.1/desc.xml");
    QTest::newRow("no server") << QByteArray("http://10.77.1.1:1/desc.xml");
    QTest::newRow("a local file") << QByteArray("file:///proc/self/status");
    QTest::newRow("a local file in capitals") << QByteArray("FILE:/proc/self/status");
    // Somebody listens there, and a client would wait for the greeting.
    QTest::newRow("a file transfer") << QByteArray("ftp://10.77.1.1:8080/desc.xml");
    QTest::newRow("a file transfer in capitals") << QByteArray("FTP://10.77.1.1:8080/desc.xml");
}

void WireSearchTest::locationThatCannotBeAskedIsADeviceAllTheSame()
{
    QFETCH(const QByteArray, location);
    QVERIFY(search());
    device->answer("LOCATION: " + location + "\r\n");
    // The request fails with an empty body, which does not parse.
    const QString failure(QStringLiteral("1|void Velmora::SSDP::SsdpManager::handleServerResponse(QNetworkReply*)|"
                                         "Could not parse server response|"));
    VERIFY_SOON(log().contains(failure));
    QCOMPARE(found(), QStringList{QString::fromLatin1(location)});

    // Known from now on, so it is not asked for again.
    const auto lines = log().size();
    device->answer("LOCATION: " + location + "\r\n");
    QVERIFY(answerSearch(LAST));
    QCOMPARE(log().size(), lines + 1);
}

VELMORA_WIRE_TEST_MAIN(WireSearchTest)

#include "tst_WireSearch.moc"

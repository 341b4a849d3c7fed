#include <tests/support/Literals.h>
#include <tests/support/WireTest.h>

#include <ssdp/SsdpManager.h>

#include <sys/utsname.h>

using namespace Velmora::Tests;

/// The search, and what is made of the datagrams that come.
class SearchTest : public WireTest
{
    Q_OBJECT

public:
    using WireTest::WireTest;

private Q_SLOTS:

    void searchIsSevenLinesEachEndedByALineFeed()
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

    void searchIsSentOnceAndFromPort49152()
    {
        QVERIFY(findDevice());
        QVERIFY(sendLastEvent());
        QCOMPARE(device->searches.size(), 1);
        QCOMPARE(device->searches.at(0).sender, QHostAddress("10.77.0.1"));
        QCOMPARE(device->searches.at(0).port, quint16(49152));
    }

    void secondDiscoverSaysThreeAndSendsNothing()
    {
        QCOMPARE(ssdp->discover(), 3);
        const QStringList before = log();
        QCOMPARE(ssdp->discover(), 3);
        QCOMPARE(log(), before);

        VERIFY_SOON(!device->searches.isEmpty());
        QVERIFY(answerSearch(LAST));
        QCOMPARE(device->searches.size(), 1);
    }

    void descriptionIsAskedForInPlainHttp()
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

    void datagramWithALocationIsADevice_data()
    {
        QTest::addColumn<QByteArray>("datagram");
        QTest::newRow("carriage return and line feed")
            << "HTTP/1.1 200 OK\r\nLOCATION: http://10.77.1.1:8080/desc.xml\r\nST: upnp:rootdevice\r\n\r\n"_ba;
        QTest::newRow("line feed") << "HTTP/1.1 200 OK\nLOCATION: http://10.77.1.1:8080/desc.xml\n\n"_ba;
        QTest::newRow("no end of line") << "HTTP/1.1 200 OK\nLOCATION: http://10.77.1.1:8080/desc.xml"_ba;
        QTest::newRow("no blank after the colon") << "Location:http://10.77.1.1:8080/desc.xml\r\n"_ba;
        QTest::newRow("blanks and tabs around") << "location : \t http://10.77.1.1:8080/desc.xml \t\r\n"_ba;
        QTest::newRow("a longer name") << "location-extra: http://10.77.1.1:8080/desc.xml\r\n"_ba;
        QTest::newRow("the first of two")
            << "LOCATION: http://10.77.1.1:8080/desc.xml\r\nLOCATION: http://10.77.1.1:8080/other\r\n"_ba;
        QTest::newRow("a line of the name without a colon before it")
            << "LOCATION http\r\nLOCATION: http://10.77.1.1:8080/desc.xml\r\n"_ba;
        QTest::newRow("text behind a zero byte")
            << "LOCATION: http://10.77.1.1:8080/desc.xml"_ba + '\0' + "/more\r\n";
        QTest::newRow("a byebye that has one")
            << "NOTIFY * HTTP/1.1\r\nNTS: ssdp:byebye\r\nLOCATION: http://10.77.1.1:8080/desc.xml\r\n\r\n"_ba;
        QTest::newRow("any first line")
            << "HTTP/1.1 404 Not Found\r\nLOCATION: http://10.77.1.1:8080/desc.xml\r\n\r\n"_ba;
        QTest::newRow("60,000 bytes before it")
            << QByteArray("X: " + QByteArray(60000, 'x') + "\r\nLOCATION: http://10.77.1.1:8080/desc.xml\r\n");
    }

    void datagramWithALocationIsADevice()
    {
        QFETCH(const QByteArray, datagram);
        QVERIFY(search());
        device->answer(datagram);
        VERIFY_SOON(!device->requests.isEmpty());
        QCOMPARE(found(), QStringList{"http://10.77.1.1:8080/desc.xml"});
        QVERIFY(device->requests.at(0).bytes.startsWith("GET /desc.xml HTTP/1.1\r\n"));
    }

    void datagramWithoutALocationIsIgnored_data()
    {
        QTest::addColumn<QByteArray>("datagram");
        QTest::newRow("no bytes") << QByteArray();
        QTest::newRow("one zero byte") << QByteArray(1, '\0');
        QTest::newRow("no header") << "HTTP/1.1 200 OK\r\nST: upnp:rootdevice\r\n\r\n"_ba;
        QTest::newRow("an empty value") << "LOCATION:\r\n"_ba;
        QTest::newRow("a value of blanks") << "LOCATION:  \t\r\n"_ba;
        QTest::newRow("an empty value before a good one")
            << "LOCATION:\r\nLOCATION: http://10.77.1.1:8080/desc.xml\r\n"_ba;
        QTest::newRow("behind a zero byte")
            << "X: "_ba + '\0' + "\r\nLOCATION: http://10.77.1.1:8080/desc.xml\r\n";
        QTest::newRow("behind a blank") << " LOCATION: http://10.77.1.1:8080/desc.xml\r\n"_ba;
        QTest::newRow("behind a carriage return alone")
            << "HTTP/1.1 200 OK\rLOCATION: http://10.77.1.1:8080/desc.xml\r\n"_ba;
        QTest::newRow("no colon") << "LOCATION http//10.77.1.1/desc.xml\r\n"_ba;
        QTest::newRow("a byebye") << "NOTIFY * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\n"
                                     "NT: upnp:rootdevice\r\nNTS: ssdp:byebye\r\nUSN: uuid:1\r\n\r\n"_ba;
    }

    void datagramWithoutALocationIsIgnored()
    {
        QFETCH(const QByteArray, datagram);
        QVERIFY(search());
        device->announce(datagram);
        device->answer(datagram);
        // Each socket is shown to have come to the next datagram.
        device->announce("LOCATION: http://10.77.1.1:8080/announced\r\n");
        device->answer("LOCATION: http://10.77.1.1:8080/last\r\n");
        VERIFY_SOON(device->requests.size() >= 2);
        QStringList expected{"http://10.77.1.1:8080/announced"_s, QString::fromLatin1(LAST)};
        QStringList locations = found();
        locations.sort();
        QCOMPARE(locations, expected);
        QCOMPARE(device->requests.size(), 2);
    }

    void announcementIsADevice()
    {
        QVERIFY(search());
        device->announce("NOTIFY * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nCACHE-CONTROL: max-age=1800\r\n"
                         "LOCATION: http://10.77.1.1:8080/desc.xml\r\nNT: upnp:rootdevice\r\nNTS: ssdp:alive\r\n"
                         "USN: uuid:1::upnp:rootdevice\r\n\r\n");
        VERIFY_SOON(!device->requests.isEmpty());
        QVERIFY(device->requests.at(0).bytes.startsWith("GET /desc.xml HTTP/1.1\r\n"));
        QCOMPARE(found(), QStringList{"http://10.77.1.1:8080/desc.xml"});
    }

    void ownSearchIsNoDevice()
    {
        QVERIFY(search());
        device->announce("M-SEARCH * HTTP/1.1\nHOST: 239.255.255.250:1900\nMAN: \"ssdp:discover\"\n\n");
        QVERIFY(answerSearch(LAST));
        QCOMPARE(found(), QStringList{QString::fromLatin1(LAST)});
    }

    void sameLocationFromAnswerAndAnnouncementGivesOneRequest()
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

    void sameLocationFromAnotherSenderChangesNothing()
    {
        ScriptedDevice other(network, "10.77.1.2"_s, 8080);
        scriptDevice();
        QVERIFY(search());
        VERIFY_SOON(!other.searches.isEmpty());
        QVERIFY(answerSearch());
        other.answer("LOCATION: http://10.77.1.1:8080/desc.xml\r\n");
        VERIFY_SOON(!device->requestsFor("SUBSCRIBE ").isEmpty());
        QVERIFY(answerSearch(LAST));
        QVERIFY(sendLastEvent());
        QCOMPARE(device->requestsFor("GET /desc.xml ").size(), 1);
        QCOMPARE(reports, QStringList{"77,1 at 10.77.1.1"});
    }

    void locationsThatDifferInLetterCaseAreTwoDevices()
    {
        QVERIFY(search());
        QVERIFY(answerSearch("http://10.77.1.1:8080/desc.xml"));
        QVERIFY(answerSearch("http://10.77.1.1:8080/DESC.xml"));
        QCOMPARE(found(), (QStringList{"http://10.77.1.1:8080/desc.xml", "http://10.77.1.1:8080/DESC.xml"}));
    }

    void onlyOneDatagramIsReadPerSignal()
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

    void reportNamesTheSenderAndNotTheLocation()
    {
        ScriptedDevice other(network, "10.77.1.2"_s, 8080);
        scriptDevice();
        QVERIFY(search());
        VERIFY_SOON(!other.searches.isEmpty());
        other.answer("LOCATION: http://10.77.1.1:8080/desc.xml\r\n");
        VERIFY_SOON(!device->requestsFor("SUBSCRIBE ").isEmpty());
        QVERIFY(sendEvent(callback(), eventBody("KO", "12,34")));
        COMPARE_SOON(reports, QStringList{"12,34 at 10.77.1.2"});
    }

    void announcedDeviceIsReportedWithAnIPv4Address()
    {
        QList<QHostAddress> addresses;
        const QObject context;
        connect(ssdp.get(), &Velmora::SSDP::Ssdp::discovered, &context,
                [list = &addresses](int, int, const QHostAddress& address) { *list << address; });
        scriptDevice();
        QVERIFY(search());
        device->announce(
            "NOTIFY * HTTP/1.1\r\nLOCATION: http://10.77.1.1:8080/desc.xml\r\nNTS: ssdp:alive\r\n\r\n");
        VERIFY_SOON(!device->requestsFor("SUBSCRIBE ").isEmpty());
        QVERIFY(sendLastEvent());
        QCOMPARE(addresses, QList<QHostAddress>{QHostAddress("10.77.1.1")});
    }

    void locationThatCannotBeAskedIsADeviceAllTheSame_data()
    {
        QTest::addColumn<QByteArray>("location");
        QTest::newRow("no scheme") << "10.77.1.1:8080/desc.xml"_ba;
        QTest::newRow("no text of a URL") << "%%% [ ]"_ba;
        QTest::newRow("no such scheme") << "coap://10.77.1.1/desc.xml"_ba;
        QTest::newRow("no server") << "http://10.77.1.1:1/desc.xml"_ba;
        QTest::newRow("a local file") << "file:///proc/self/status"_ba;
        QTest::newRow("a local file in capitals") << "FILE:/proc/self/status"_ba;
        // Somebody listens there, and a client would wait for the greeting.
        QTest::newRow("a file transfer") << "ftp://10.77.1.1:8080/desc.xml"_ba;
        QTest::newRow("a file transfer in capitals") << "FTP://10.77.1.1:8080/desc.xml"_ba;
    }

    void locationThatCannotBeAskedIsADeviceAllTheSame()
    {
        QFETCH(const QByteArray, location);
        QVERIFY(search());
        device->answer("LOCATION: " + location + "\r\n");
        // The request fails with an empty body, which does not parse.
        const QString failure("1|void Velmora::SSDP::SsdpManager::handleServerResponse(QNetworkReply*)|"
                              "Could not parse server response|"_s);
        VERIFY_SOON(log().contains(failure));
        QCOMPARE(found(), QStringList{QString::fromLatin1(location)});

        // Known from now on, so it is not asked for again.
        const auto lines = log().size();
        device->answer("LOCATION: " + location + "\r\n");
        QVERIFY(answerSearch(LAST));
        QCOMPARE(log().size(), lines + 1);
    }

private:
    /// The locations of the devices that were logged so far.
    static QStringList found()
    {
        return log().filter("0|Ssdp device|").replaceInStrings("0|Ssdp device|"_s, QString());
    }

    /// The location with which each of these tests ends.
    static constexpr char LAST[] = "http://10.77.1.1:8080/last";
};

VELMORA_WIRE_TEST_MAIN(SearchTest)

#include "tst_search.moc"

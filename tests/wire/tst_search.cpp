#include <tests/support/WireTest.h>

using namespace Velmora::Tests;

const char LINE[] = "LOCATION: http://10.77.1.1:8080/desc.xml\r\n";
const char ANNOUNCED[] = "http://10.77.1.1:8080/announced";

/// The search, and how the library reads datagrams.
class SearchTest : public WireTest
{
    Q_OBJECT

    /// Returns the locations of the devices in the log.
    static QStringList found()
    {
        return log().filter("0|Ssdp device|").replaceInStrings("0|Ssdp device|"_s, QString());
    }

private Q_SLOTS:
    void searchIsSentOnceAndFromPort49152()
    {
        QVERIFY(findDevice());
        QVERIFY(sendLastEvent());
        QCOMPARE(device->searches.size(), 1);
        QCOMPARE(device->searches.at(0).bytes, controlPoint()->createSearchMessage().toLatin1());
        QCOMPARE(device->searches.at(0).sender, QHostAddress("10.77.0.1"));
        QCOMPARE(device->searches.at(0).port, quint16(49152));
    }

    void requestHasNothingButPathAndHost()
    {
        QVERIFY(search() && answerSearch());
        QCOMPARE(device->requests.at(0).bytes, "GET /desc.xml HTTP/1.1\r\nHost: 10.77.1.1:8080\r\n\r\n"_ba);
    }

    void datagramWithALocationIsADevice_data()
    {
        const Table<QByteArray, bool> row("datagram", "hasLocation");
        row("reply", searchReply(LOCATION), true);
        row("header alone", LINE, true);
        row("text after a zero byte", "LOCATION: "_ba + LOCATION + '\0' + "/more\r\n", true);
        row("byebye that has one", "NOTIFY * HTTP/1.1\r\nNTS: ssdp:byebye\r\n"_ba + LINE + "\r\n", true);
        row("any first line", "HTTP/1.1 404 Not Found\r\n"_ba + LINE + "\r\n", true);
        row("60,000 bytes before it", "X: " + QByteArray(60000, 'x') + "\r\n" + LINE, true);
        row("no bytes", "", false);
        row("one zero byte", "\0"_ba, false);
        row("no header", "HTTP/1.1 200 OK\r\nST: upnp:rootdevice\r\n\r\n", false);
        row("an empty value before a good one", "LOCATION:\r\n"_ba + LINE, false);
        row("after a zero byte", "X: \0\r\n"_ba + LINE, false);
        row("a byebye", "NOTIFY * HTTP/1.1\r\nNTS: ssdp:byebye\r\nUSN: uuid:1\r\n\r\n", false);
        row("a search", "M-SEARCH * HTTP/1.1\nHOST: 239.255.255.250:1900\nMAN: \"ssdp:discover\"\n\n", false);
    }

    void datagramWithALocationIsADevice()
    {
        QFETCH(const QByteArray, datagram);
        QFETCH(const bool, hasLocation);
        QVERIFY(search());
        device->announce(datagram);
        device->answer(datagram);
        // When these are read, both sockets have read the earlier datagram.
        device->announce(searchReply(ANNOUNCED));
        device->answer(searchReply(LAST_LOCATION));
        QStringList expected{ANNOUNCED, LAST_LOCATION};
        if (hasLocation)
            expected.insert(1, LOCATION);
        VERIFY_SOON(device->requests.size() >= expected.size());
        QStringList locations = found();
        locations.sort();
        QCOMPARE(locations, expected);
        QCOMPARE(device->requests.size(), expected.size());
        QCOMPARE(device->requestsFor("GET /desc.xml HTTP/1.1\r\n").size(), hasLocation ? 1 : 0);
    }

    void sameLocationFromAnotherSenderChangesNothing()
    {
        ScriptedDevice other(network, "10.77.1.2");
        scriptDevice();
        QVERIFY(search());
        VERIFY_SOON(!other.searches.isEmpty());
        QVERIFY(answerSearch());
        other.answer(searchReply(LOCATION));
        VERIFY_SOON(!device->requestsFor("SUBSCRIBE ").isEmpty());
        QVERIFY(answerSearch(LAST_LOCATION));
        QVERIFY(sendLastEvent());
        QCOMPARE(device->requestsFor("GET /desc.xml ").size(), 1);
        QCOMPARE(reports, QStringList{LAST_REPORT});
    }

    void locationsThatDifferInLetterCaseAreTwoDevices()
    {
        QVERIFY(search());
        const char* const capitals = "http://10.77.1.1:8080/DESC.xml";
        QVERIFY(answerSearch());
        QVERIFY(answerSearch(capitals));
        QCOMPARE(found(), (QStringList{LOCATION, capitals}));
    }

    void onlyOneDatagramIsReadPerSignal()
    {
        QVERIFY(search());
        QList<int> foundAtSignal;
        const QObject context;
        connect(manager().unicastSocket(), &QUdpSocket::readyRead, &context,
                [counts = &foundAtSignal] { *counts << static_cast<int>(found().size()); });
        for (const char* const path : {"1", "2", "3"})
            device->answer(searchReply("http://10.77.1.1:8080/"_ba + path));
        VERIFY_SOON(device->requests.size() == 3);
        QCOMPARE(foundAtSignal, (QList<int>{1, 2, 3}));
    }

    void reportNamesTheSenderAndNotTheLocation()
    {
        ScriptedDevice other(network, "10.77.1.2");
        scriptDevice();
        QVERIFY(search());
        VERIFY_SOON(!other.searches.isEmpty());
        other.answer(searchReply(LOCATION));
        VERIFY_SOON(!device->requestsFor("SUBSCRIBE ").isEmpty());
        QVERIFY(sendEvent(callback(), eventBody("KO", "12,34")));
        COMPARE_SOON(reports, QStringList{"12,34 at 10.77.1.2"});
    }

    void announcedDeviceIsReportedWithItsIPv4Address()
    {
        scriptDevice();
        QVERIFY(search());
        device->announce(announcement(LOCATION));
        VERIFY_SOON(!device->requestsFor("SUBSCRIBE ").isEmpty());
        QCOMPARE(found(), QStringList{LOCATION});
        QCOMPARE(allReports(), QStringList{LAST_REPORT});
    }

    void locationThatCannotBeRequestedIsADevice_data()
    {
        const Table<QByteArray> row("location");
        row("no scheme", "10.77.1.1:8080/desc.xml");
        row("no text of a URL", "%%% [ ]");
        row("no such scheme", "coap://10.77.1.1/%1");
        row("no server", "http://10.77.1.1:1/desc.xml");
        row("a local file", "file:///proc/self/status");
        row("a local file in capitals", "FILE:/proc/self/status");
        // The device listens there. A client would wait for its greeting.
        row("a file transfer", "ftp://10.77.1.1:8080/desc.xml");
        row("a file transfer in capitals", "FTP://10.77.1.1:8080/desc.xml");
    }

    void locationThatCannotBeRequestedIsADevice()
    {
        QFETCH(const QByteArray, location);
        QVERIFY(search());
        device->answer(searchReply(location));
        // The request fails with an empty body, which does not parse.
        VERIFY_SOON(log().contains(REPLY_NOT_PARSED));
        QCOMPARE(found(), QStringList{QString::fromLatin1(location)});

        // The device is known now, so it is not requested again.
        const auto lines = log().size();
        device->answer(searchReply(location));
        QVERIFY(answerSearch(LAST_LOCATION));
        QCOMPARE(log().size(), lines + 1);
    }
};

VELMORA_WIRE_TEST_MAIN(SearchTest)
#include "tst_search.moc"

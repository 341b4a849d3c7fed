#include <tests/support/Literals.h>
#include <tests/support/WireTest.h>

using namespace Velmora::Tests;
using Velmora::SSDP::Ssdp;
using Velmora::SSDP::SsdpManager;

namespace {

const char LOCATION[] = "http://10.77.1.1:8080/desc.xml";
const char LINE[] = "LOCATION: http://10.77.1.1:8080/desc.xml\r\n";
const char ANNOUNCED[] = "http://10.77.1.1:8080/announced";

/// The location with which a test ends: what was sent before it has had its turn.
const char LAST[] = "http://10.77.1.1:8080/last";

} // namespace

/// The search, and what is made of the datagrams that come.
class SearchTest : public WireTest
{
    Q_OBJECT

public:
    using WireTest::WireTest;

private:
    /// The locations of the devices that were logged so far.
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
        QCOMPARE(device->searches.at(0).bytes, ssdp->findChild<SsdpManager*>()->createSearchMessage().toLatin1());
        QCOMPARE(device->searches.at(0).sender, QHostAddress("10.77.0.1"));
        QCOMPARE(device->searches.at(0).port, quint16(49152));
    }

    void descriptionIsRequestedInPlainHttp()
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
        QTest::newRow("reply") << searchReply(LOCATION);
        QTest::newRow("header alone") << QByteArray(LINE);
        QTest::newRow("text after a zero byte") << "LOCATION: "_ba + LOCATION + '\0' + "/more\r\n";
        QTest::newRow("byebye that has one") << "NOTIFY * HTTP/1.1\r\nNTS: ssdp:byebye\r\n"_ba + LINE + "\r\n";
        QTest::newRow("any first line") << "HTTP/1.1 404 Not Found\r\n"_ba + LINE + "\r\n";
        QTest::newRow("60,000 bytes before it") << "X: " + QByteArray(60000, 'x') + "\r\n" + LINE;
    }

    void datagramWithALocationIsADevice()
    {
        QFETCH(const QByteArray, datagram);
        QVERIFY(search());
        device->answer(datagram);
        VERIFY_SOON(!device->requests.isEmpty());
        QCOMPARE(found(), QStringList{LOCATION});
        QVERIFY(device->requests.at(0).bytes.startsWith("GET /desc.xml HTTP/1.1\r\n"));
    }

    void datagramWithoutALocationIsIgnored_data()
    {
        QTest::addColumn<QByteArray>("datagram");
        QTest::newRow("no bytes") << ""_ba;
        QTest::newRow("one zero byte") << "\0"_ba;
        QTest::newRow("no header") << "HTTP/1.1 200 OK\r\nST: upnp:rootdevice\r\n\r\n"_ba;
        QTest::newRow("an empty value before a good one") << "LOCATION:\r\n"_ba + LINE;
        QTest::newRow("after a zero byte") << "X: \0\r\n"_ba + LINE;
        QTest::newRow("a byebye") << "NOTIFY * HTTP/1.1\r\nNTS: ssdp:byebye\r\nUSN: uuid:1\r\n\r\n"_ba;
        QTest::newRow("a search")
            << "M-SEARCH * HTTP/1.1\nHOST: 239.255.255.250:1900\nMAN: \"ssdp:discover\"\n\n"_ba;
    }

    void datagramWithoutALocationIsIgnored()
    {
        QFETCH(const QByteArray, datagram);
        QVERIFY(search());
        device->announce(datagram);
        device->answer(datagram);
        // Each socket is shown to have come to the next datagram.
        device->announce(searchReply(ANNOUNCED));
        device->answer(searchReply(LAST));
        VERIFY_SOON(device->requests.size() >= 2);
        QStringList locations = found();
        locations.sort();
        QCOMPARE(locations, (QStringList{ANNOUNCED, LAST}));
        QCOMPARE(device->requests.size(), 2);
    }

    void sameLocationFromAnswerAndAnnouncementGivesOneRequest()
    {
        QVERIFY(search());
        QVERIFY(answerSearch(LOCATION));
        device->answer(searchReply(LOCATION));
        device->announce(announcement(LOCATION));
        device->announce(announcement(ANNOUNCED));
        device->answer(searchReply(LAST));
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
        other.answer(searchReply(LOCATION));
        VERIFY_SOON(!device->requestsFor("SUBSCRIBE ").isEmpty());
        QVERIFY(answerSearch(LAST));
        QVERIFY(sendLastEvent());
        QCOMPARE(device->requestsFor("GET /desc.xml ").size(), 1);
        QCOMPARE(reports, QStringList{"77,1 at 10.77.1.1"});
    }

    void locationsThatDifferInLetterCaseAreTwoDevices()
    {
        QVERIFY(search());
        const char* const capitals = "http://10.77.1.1:8080/DESC.xml";
        QVERIFY(answerSearch(LOCATION));
        QVERIFY(answerSearch(capitals));
        QCOMPARE(found(), (QStringList{LOCATION, capitals}));
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
        for (const char* const path : {"1", "2", "3"})
            device->answer(searchReply("http://10.77.1.1:8080/"_ba + path));
        VERIFY_SOON(device->requests.size() == 3);
        QCOMPARE(foundAtSignal, (QList<int>{1, 2, 3}));
    }

    void reportNamesTheSenderAndNotTheLocation()
    {
        ScriptedDevice other(network, "10.77.1.2"_s, 8080);
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
        QList<QHostAddress> addresses;
        const QObject context;
        connect(ssdp.get(), &Ssdp::discovered, &context,
                [list = &addresses](int, int, const QHostAddress& address) { *list << address; });
        scriptDevice();
        QVERIFY(search());
        device->announce(announcement(LOCATION));
        VERIFY_SOON(!device->requestsFor("SUBSCRIBE ").isEmpty());
        QCOMPARE(found(), QStringList{LOCATION});
        QVERIFY(sendLastEvent());
        QCOMPARE(addresses, QList<QHostAddress>{QHostAddress("10.77.1.1")});
    }

    void locationThatCannotBeRequestedIsADevice_data()
    {
        QTest::addColumn<QByteArray>("location");
        QTest::newRow("no scheme") << "10.77.1.1:8080/desc.xml"_ba;
        QTest::newRow("no text of a URL") << "%%% [ ]"_ba;
        QTest::newRow("no such scheme") << "coap://10.77.1.1/%1"_ba;
        QTest::newRow("no server") << "http://10.77.1.1:1/desc.xml"_ba;
        QTest::newRow("a local file") << "file:///proc/self/status"_ba;
        QTest::newRow("a local file in capitals") << "FILE:/proc/self/status"_ba;
        // Somebody listens there, and a client would wait for the greeting.
        QTest::newRow("a file transfer") << "ftp://10.77.1.1:8080/desc.xml"_ba;
        QTest::newRow("a file transfer in capitals") << "FTP://10.77.1.1:8080/desc.xml"_ba;
    }

    void locationThatCannotBeRequestedIsADevice()
    {
        QFETCH(const QByteArray, location);
        QVERIFY(search());
        device->answer(searchReply(location));
        // The request fails with an empty body, which does not parse.
        const QString failure("1|void Velmora::SSDP::SsdpManager::handleServerResponse(QNetworkReply*)|"
                              "Could not parse server response|"_s);
        VERIFY_SOON(log().contains(failure));
        QCOMPARE(found(), QStringList{QString::fromLatin1(location)});

        // Known from now on, so it is not requested again.
        const auto lines = log().size();
        device->answer(searchReply(location));
        QVERIFY(answerSearch(LAST));
        QCOMPARE(log().size(), lines + 1);
    }
};

VELMORA_WIRE_TEST_MAIN(SearchTest)

#include "tst_search.moc"

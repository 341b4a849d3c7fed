#include <tests/support/Literals.h>
#include <tests/support/WireTest.h>

using namespace Velmora::Tests;
using Velmora::SSDP::SsdpManager;
using Velmora::SSDP::SsdpService;

namespace {

const char LAST[] = "http://10.77.1.1:8080/last";

} // namespace

/// How a discovery ends, and what is left of it for the next one.
class DiscoveryTest : public WireTest
{
    Q_OBJECT

public:
    using WireTest::WireTest;

private Q_SLOTS:

    void timeoutIsLoggedAndSignalledOnce()
    {
        ssdp = newController(50);
        connect(ssdp.get(), &Velmora::SSDP::Ssdp::timeoutExpired, this, [this] {
            logInTheSlot = log();
            stoppedInTheSlot =
                ssdp->findChildren<QUdpSocket*>().isEmpty() && !ssdp->findChild<QTimer*>()->isActive();
        });
        QVERIFY(search());
        const QString port = QString::number(manager().eventServer().serverPort());
        VERIFY_SOON(timeouts > 0);
        QCOMPARE(timeouts, 1);
        QVERIFY(stoppedInTheSlot);
        QCOMPARE(logInTheSlot,
                 (QStringList{"0|Ssdp Server bound to "_s + port, "0|SSDP timeout expired not found"_s}));
        QVERIFY(manager().eventServer().isListening());
    }

    void timeoutComesAlsoAfterAReport()
    {
        ssdp = newController(2000);
        QVERIFY(findDevice());
        QVERIFY(sendLastEvent());
        QCOMPARE(timeouts, 0);
        VERIFY_SOON(timeouts == 1);
        QCOMPARE(log().constLast(), "0|SSDP timeout expired not found"_s);
        QCOMPARE(reports.size(), 1);
    }

    void stopEndsADiscoveryWithoutTheSignal()
    {
        QVERIFY(findDevice());
        const QStringList before = log();
        ssdp->stop();
        QVERIFY(ssdp->findChildren<QUdpSocket*>().isEmpty());
        QVERIFY(!ssdp->findChild<QTimer*>()->isActive());
        QVERIFY(manager().eventServer().isListening());
        QCOMPARE(manager().devices().size(), 1);
        QCOMPARE(log(), before);
        QCOMPARE(timeouts, 0);
    }

    void stopOfAnIdleControllerDoesNothing()
    {
        ssdp->stop();
        QVERIFY(!ssdp->findChild<SsdpManager*>());
        QVERIFY(search());
        ssdp->stop();
        const QStringList before = log();
        ssdp->stop();
        QCOMPARE(log(), before);
        QCOMPARE(timeouts, 0);
        QCOMPARE(ssdp->discover(), 3);
    }

    void secondDiscoverLeavesTheTimerRunning()
    {
        const QTimer* const timer = ssdp->findChild<QTimer*>();
        QVERIFY(search());
        VERIFY_SOON(timer->remainingTime() < 59500);
        ssdp->discover();
        QVERIFY(timer->remainingTime() < 59500);
        QCOMPARE(timer->interval(), 60000);
        QVERIFY(!timer->isSingleShot());

        ssdp->stop();
        ssdp->discover();
        QVERIFY(timer->remainingTime() >= 59500);
    }

    void nextDiscoveryStartsAnew_data()
    {
        QTest::addColumn<bool>("stopped");
        QTest::newRow("after stop()") << true;
        QTest::newRow("after the time-out") << false;
    }

    void nextDiscoveryStartsAnew()
    {
        QFETCH(const bool, stopped);
        QVERIFY(findDevice());
        QVERIFY(sendLastEvent());
        const QList<SsdpManager*> controlPoints = ssdp->findChildren<SsdpManager*>();
        const QString port = QString::number(callback().port);
        if (stopped) {
            ssdp->stop();
        } else {
            ssdp->findChild<QTimer*>()->start(0);
            VERIFY_SOON(timeouts == 1);
        }
        CapturedLog::clear();
        reports.clear();

        QCOMPARE(ssdp->discover(), 3);
        QCOMPARE(log(),
                 (QStringList{"1|void Velmora::SSDP::SsdpManager::initialize()|"
                              "Could not bind local Ssdp server"_s,
                              "0|Ssdp Server bound to "_s + port}));
        QCOMPARE(CapturedLog::lines().at(0).pieces.size(), 2);
        QCOMPARE(ssdp->findChildren<SsdpManager*>(), controlPoints);
        QVERIFY(manager().devices().isEmpty());

        VERIFY_SOON(device->searches.size() == 2);
        QCOMPARE(device->searches.at(1).bytes, device->searches.at(0).bytes);
        QCOMPARE(device->searches.at(1).port, quint16(49152));
        QVERIFY(answerSearch());
        VERIFY_SOON(device->requestsFor("SUBSCRIBE ").size() == 2);
        QVERIFY(sendLastEvent());
        QCOMPARE(device->requestsFor("GET /desc.xml ").size(), 2);
        QCOMPARE(reports, QStringList{"77,1 at 10.77.1.1"});
    }

    void datagramBetweenDiscoveriesIsLost()
    {
        QVERIFY(search());
        ssdp->stop();
        const QByteArray datagram("LOCATION: http://10.77.1.1:8080/desc.xml\r\n");
        device->answer(datagram);
        device->announce(datagram);
        QVERIFY(search());
        QVERIFY(answerSearch(LAST));
        QCOMPARE(log().filter("Ssdp device"), QStringList{"0|Ssdp device|"_s + QLatin1String(LAST)});
    }

    void descriptionOfAnEarlierDiscoveryIsDropped_data()
    {
        QTest::addColumn<QByteArray>("pending");
        QTest::addColumn<QByteArray>("begun");
        QTest::newRow("description, silent") << "GET /desc.xml "_ba << QByteArray();
        QTest::newRow("description, begun") << "GET /desc.xml "_ba << reply(deviceDescription()).chopped(20);
        QTest::newRow("service description, silent") << "GET /scpd.xml "_ba << QByteArray();
        QTest::newRow("service description, begun")
            << "GET /scpd.xml "_ba << reply(serviceDescription()).chopped(20);
    }

    void descriptionOfAnEarlierDiscoveryIsDropped()
    {
        QFETCH(const QByteArray, pending);
        QFETCH(const QByteArray, begun);
        device->script("GET /desc.xml ", reply(deviceDescription()));
        device->script(pending, begun);
        QVERIFY(search());
        QVERIFY(answerSearch());
        VERIFY_SOON(device->requestsFor(pending).size() == 1);
        const QPointer<Connection> connection = device->requestsFor(pending).at(0).connection;
        VERIFY_SOON(connection->wasRead());
        QCOMPARE(manager().deviceReplies().size(), 1);

        CapturedLog::clear();
        restart();
        QVERIFY(manager().deviceReplies().isEmpty());
        QVERIFY(manager().serviceReplies().isEmpty());
        VERIFY_SOON(!connection->isOpen());

        VERIFY_SOON(device->searches.size() == 2);
        scriptDevice();
        QVERIFY(beFound());
        QVERIFY(sendLastEvent());
        QCOMPARE(
            log().mid(2),
            (QStringList{"0|Ssdp device|http://10.77.1.1:8080/desc.xml", "0|SSDP Device service|/scpd.xml",
                         "0|SSDP response state variable|KO", "0|Device with FC:77 and UC:1 found at 10.77.1.1"}));
    }

    void requestThatFailedAlreadyIsDroppedToo()
    {
        QVERIFY(search());
        // No such scheme: the reply has its end queued already.
        manager().addSsdpDevice(QHostAddress("10.77.1.1"), "coap://10.77.1.1/"_s);
        QCOMPARE(manager().deviceReplies().size(), 1);
        restart();
        VERIFY_SOON(device->searches.size() == 2);
        QVERIFY(answerSearch(LAST));
        QCOMPARE(log().filter("handleServerResponse"), QStringList());
    }

    void eventOfAnEarlierDiscoveryIsDropped_data()
    {
        QTest::addColumn<QByteArray>("contentLength");
        QTest::addColumn<int>("sent");
        QTest::newRow("head") << "120"_ba << 0;
        QTest::newRow("head and half of the body") << "120"_ba << 60;
        QTest::newRow("head with a negative length") << "-1"_ba << 0;
    }

    void eventOfAnEarlierDiscoveryIsDropped()
    {
        QFETCH(const QByteArray, contentLength);
        QFETCH(const int, sent);
        QVERIFY(findDevice());
        const QByteArray body = eventBody("KO", "12,34");
        Connection* const connection = sendHead(callback(), contentLength);
        QVERIFY(connection);
        connection->send(body.left(sent));
        VERIFY_SOON(connection->wasRead());

        ssdp->stop();
        QVERIFY(findDevice());
        QVERIFY(connection->isOpen());
        QCOMPARE(manager().requestSocketServices().values(), QList<SsdpService*>{nullptr});
        const auto lines = log().size();
        connection->send(body.mid(sent));
        VERIFY_SOON(!connection->isOpen());
        VERIFY_SOON(manager().requestSockets().isEmpty());
        QVERIFY(manager().responseBuffers().isEmpty());
        QCOMPARE(log().size(), lines);
        QVERIFY(service()->stateVariables.value("KO").isNull());
        QVERIFY(sendLastEvent());
        QCOMPARE(reports, QStringList{"77,1 at 10.77.1.1"});
    }

    void callbackOfAnEarlierDiscoveryIsUnknown()
    {
        QVERIFY(findDevice());
        const Callback earlier = callback();
        ssdp->stop();
        QVERIFY(findDevice());
        QVERIFY(callback().path != earlier.path);
        QCOMPARE(callback().port, earlier.port);
        Connection* const connection = device->connectTo(earlier.host, earlier.port);
        connection->send("NOTIFY " + earlier.path + " HTTP/1.1\r\nCONTENT-LENGTH: 120\r\n\r\n");
        VERIFY_SOON(!connection->isOpen());
        QVERIFY(sendLastEvent());
        QCOMPARE(reports, QStringList{"77,1 at 10.77.1.1"});
    }

    void subscriptionOfAnEarlierDiscoveryHasNoService()
    {
        scriptDevice();
        device->script("SUBSCRIBE ", "");
        QVERIFY(search());
        QVERIFY(answerSearch());
        VERIFY_SOON(device->requestsFor("SUBSCRIBE ").size() == 1);

        restart();
        VERIFY_SOON(device->searches.size() == 2);
        QVERIFY(answerSearch());
        VERIFY_SOON(device->requestsFor("SUBSCRIBE ").size() == 2);
        QCOMPARE(manager().requestSockets().size(), 2);
        QTcpSocket* const earlier = manager().requestSockets().at(0);
        QCOMPARE(manager().requestSocketServices().value(earlier, service()), nullptr);
        QCOMPARE(manager().requestSocketServices().value(manager().requestSockets().at(1)), service());

        bool signalled = false;
        const QObject context;
        connect(earlier, &QTcpSocket::readyRead, &context, [flag = &signalled] { *flag = true; });
        device->requestsFor("SUBSCRIBE ")
            .at(0)
            .connection->send("HTTP/1.1 200 OK\r\nSID: uuid:2fac1234-31f8-11b4-a222-08002b34c003\r\n\r\n");
        VERIFY_SOON(signalled);
        QVERIFY(service()->subscriptionId.isNull());
        QCOMPARE(manager().requestSockets().size(), 2);
        QVERIFY(device->requestsFor("SUBSCRIBE ").at(0).connection->isOpen());
        QVERIFY(sendLastEvent());
    }

    void connectionOfAnEarlierDiscoverySendsNothing()
    {
        device->script("GET /desc.xml ", reply(deviceDescription()));
        QVERIFY(search());
        QVERIFY(answerSearch());
        VERIFY_SOON(device->requestsFor("GET /scpd.xml ").size() == 1);
        device->holdConnections();
        device->requestsFor("GET /scpd.xml ").at(0).connection->send(reply(serviceDescription()));
        VERIFY_SOON(manager().requestSockets().size() == 1);
        QTcpSocket* const earlier = manager().requestSockets().at(0);
        QCOMPARE(earlier->state(), QAbstractSocket::ConnectingState);

        restart();
        device->takeConnections();
        VERIFY_SOON(earlier->state() == QAbstractSocket::ConnectedState);
        VERIFY_SOON(device->searches.size() == 2);
        scriptDevice();
        QVERIFY(beFound());
        QVERIFY(sendLastEvent());
        QCOMPARE(device->requestsFor("SUBSCRIBE ").size(), 1);
        QCOMPARE(manager().requestSockets(), QList<QTcpSocket*>{earlier});
    }

private:
    void restart()
    {
        ssdp->stop();
        ssdp->discover();
    }

    SsdpService* service() const { return manager().devices().at(0)->services.at(0); }

    QStringList logInTheSlot;
    bool stoppedInTheSlot = false;
};

VELMORA_WIRE_TEST_MAIN(DiscoveryTest)

#include "tst_discovery.moc"

#include <tests/support/WireTest.h>

using namespace Velmora::Tests;
using Velmora::SSDP::SsdpManager;
using Velmora::SSDP::SsdpService;

namespace {

const char LAST[] = "http://10.77.1.1:8080/last";

} // namespace

/// How a discovery ends, and what is left of it for the next one.
class WireDiscoveryTest : public WireTest
{
    Q_OBJECT

public:
    using WireTest::WireTest;

private Q_SLOTS:
    void timeoutIsLoggedAndSignalledOnce();
    void timeoutComesAlsoAfterAReport();
    void stopEndsADiscoveryWithoutTheSignal();
    void stopOfAnIdleControllerDoesNothing();
    void secondDiscoverLeavesTheTimerRunning();
    void nextDiscoveryStartsAnew_data();
    void nextDiscoveryStartsAnew();
    void datagramBetweenDiscoveriesIsLost();
    void descriptionOfAnEarlierDiscoveryIsDropped_data();
    void descriptionOfAnEarlierDiscoveryIsDropped();
    void requestThatFailedAlreadyIsDroppedToo();
    void eventOfAnEarlierDiscoveryIsDropped_data();
    void eventOfAnEarlierDiscoveryIsDropped();
    void callbackOfAnEarlierDiscoveryIsUnknown();
    void subscriptionOfAnEarlierDiscoveryHasNoService();
    void connectionOfAnEarlierDiscoverySendsNothing();

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

void WireDiscoveryTest::timeoutIsLoggedAndSignalledOnce()
{
    ssdp = newController(50);
    connect(ssdp.get(), &Velmora::SSDP::Ssdp::timeoutExpired, this, [this] {
        logInTheSlot = log();
        stoppedInTheSlot = ssdp->findChildren<QUdpSocket*>().isEmpty() && !ssdp->findChild<QTimer*>()->isActive();
    });
    QVERIFY(search());
    const QString port = QString::number(manager().eventServer().serverPort());
    VERIFY_SOON(timeouts > 0);
    QCOMPARE(timeouts, 1);
    QVERIFY(stoppedInTheSlot);
    QCOMPARE(logInTheSlot,
             (QStringList{QStringLiteral("0|Ssdp Server bound to ") + port,
                          QStringLiteral("0|SSDP timeout expired not found")}));
    QVERIFY(manager().eventServer().isListening());
}

void WireDiscoveryTest::timeoutComesAlsoAfterAReport()
{
    ssdp = newController(2000);
    QVERIFY(findDevice());
    QVERIFY(sendLastEvent());
    QCOMPARE(timeouts, 0);
    VERIFY_SOON(timeouts == 1);
    QCOMPARE(log().constLast(), QStringLiteral("0|SSDP timeout expired not found"));
    QCOMPARE(reports.size(), 1);
}

void WireDiscoveryTest::stopEndsADiscoveryWithoutTheSignal()
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

void WireDiscoveryTest::stopOfAnIdleControllerDoesNothing()
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

void WireDiscoveryTest::secondDiscoverLeavesTheTimerRunning()
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

void WireDiscoveryTest::nextDiscoveryStartsAnew_data()
{
    QTest::addColumn<bool>("stopped");
    QTest::newRow("after stop()") << true;
    QTest::newRow("after the time-out") << false;
}

void WireDiscoveryTest::nextDiscoveryStartsAnew()
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
             (QStringList{QStringLiteral("1|void Velmora::SSDP::SsdpManager::initialize()|"
                                         "Could not bind local Ssdp server"),
                          QStringLiteral("0|Ssdp Server bound to ") + port}));
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
    QCOMPARE(reports, QStringList{QStringLiteral("77,1 at 10.77.1.1")});
}

void WireDiscoveryTest::datagramBetweenDiscoveriesIsLost()
{
    QVERIFY(search());
    ssdp->stop();
    const QByteArray datagram("LOCATION: http://10.77.1.1:8080/desc.xml\r\n");
    device->answer(datagram);
    device->announce(datagram);
    QVERIFY(search());
    QVERIFY(answerSearch(LAST));
    QCOMPARE(log().filter(QStringLiteral("Ssdp device")),
             QStringList{QStringLiteral("0|Ssdp device|") + QLatin1String(LAST)});
}

void WireDiscoveryTest::descriptionOfAnEarlierDiscoveryIsDropped_data()
{
    QTest::addColumn<QByteArray>("pending");
    QTest::addColumn<QByteArray>("begun");
    QTest::newRow("description, silent") << QByteArray("GET /desc.xml ") << QByteArray();
    QTest::newRow("description, begun")
        << QByteArray("GET /desc.xml ") << reply(deviceDescription(KEY_OBJECTS)).chopped(20);
    QTest::newRow("service description, silent") << QByteArray("GET /scpd.xml ") << QByteArray();
    QTest::newRow("service description, begun")
        << QByteArray("GET /scpd.xml ") << reply(serviceDescription({"KO"})).chopped(20);
}

void WireDiscoveryTest::descriptionOfAnEarlierDiscoveryIsDropped()
{
    QFETCH(const QByteArray, pending);
    QFETCH(const QByteArray, begun);
    device->script("GET /desc.xml ", reply(deviceDescription(KEY_OBJECTS)));
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
    QCOMPARE(log().mid(2),
             (QStringList{QStringLiteral("0|Ssdp device|http://10.77.1.1:8080/desc.xml"),
                          QStringLiteral("0|SSDP Device service|/scpd.xml"),
                          QStringLiteral("0|SSDP response state variable|KO"),
                          QStringLiteral("0|Device with FC:77 and UC:1 found at 10.77.1.1")}));
}

void WireDiscoveryTest::requestThatFailedAlreadyIsDroppedToo()
{
    QVERIFY(search());
    // No such scheme: the reply has its end queued already.
    manager().addSsdpDevice(QHostAddress(QStringLiteral("10.77.1.1")), QStringLiteral("coap://10.77.1.1/"));
    QCOMPARE(manager().deviceReplies().size(), 1);
    restart();
    VERIFY_SOON(device->searches.size() == 2);
    QVERIFY(answerSearch(LAST));
    QCOMPARE(log().filter(QStringLiteral("handleServerResponse")), QStringList());
}

void WireDiscoveryTest::eventOfAnEarlierDiscoveryIsDropped_data()
{
    QTest::addColumn<QByteArray>("contentLength");
    QTest::addColumn<int>("sent");
    QTest::newRow("head") << QByteArray("120") << 0;
    QTest::newRow("head and half of the body") << QByteArray("120") << 60;
    QTest::newRow("head with a negative length") << QByteArray("-1") << 0;
}

void WireDiscoveryTest::eventOfAnEarlierDiscoveryIsDropped()
{
    QFETCH(const QByteArray, contentLength);
    QFETCH(const int, sent);
    QVERIFY(findDevice());
    const QByteArray body = event("KO", "12,34");
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
    QVERIFY(service()->stateVariables.value(QStringLiteral("KO")).isNull());
    QVERIFY(sendLastEvent());
    QCOMPARE(reports, QStringList{QStringLiteral("77,1 at 10.77.1.1")});
}

void WireDiscoveryTest::callbackOfAnEarlierDiscoveryIsUnknown()
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
    QCOMPARE(reports, QStringList{QStringLiteral("77,1 at 10.77.1.1")});
}

void WireDiscoveryTest::subscriptionOfAnEarlierDiscoveryHasNoService()
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

void WireDiscoveryTest::connectionOfAnEarlierDiscoverySendsNothing()
{
    device->script("GET /desc.xml ", reply(deviceDescription(KEY_OBJECTS)));
    QVERIFY(search());
    QVERIFY(answerSearch());
    VERIFY_SOON(device->requestsFor("GET /scpd.xml ").size() == 1);
    device->holdConnections();
    device->requestsFor("GET /scpd.xml ").at(0).connection->send(reply(serviceDescription({"KO"})));
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

VELMORA_WIRE_TEST_MAIN(WireDiscoveryTest)

#include "tst_WireDiscovery.moc"

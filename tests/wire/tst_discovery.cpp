#include <tests/support/KeptMessages.h>
#include <tests/support/KernelTables.h>
#include <tests/support/WireTest.h>

#include <QtNetwork/QNetworkProxy>

using namespace Velmora::Tests;
using Velmora::SSDP::Ssdp;
using Velmora::SSDP::SsdpManager;
using Velmora::SSDP::SsdpService;

const char TIMEOUT_LINE[] = "0|SSDP timeout expired not found";

/// How a discovery begins and ends, and what the next one ignores of it.
class DiscoveryTest : public WireTest
{
    Q_OBJECT

    bool restart()
    {
        ssdp->stop();
        return search();
    }

    static QStringList sockets() { return KernelTables::udpSockets() + KernelTables::tcpListeners(); }

    bool isDiscovering() const
    {
        return timer()->isActive() && KernelTables::udpSockets() == QStringList{"0.0.0.0:1900", "10.77.0.1:49152"};
    }

    bool isIdle() const { return !timer()->isActive() && KernelTables::udpSockets().isEmpty(); }

private Q_SLOTS:
    void idleControllerDoesNothing()
    {
        QCOMPARE(ssdp->findChildren<QTimer*>().size(), 1);
        QVERIFY(!timer()->isSingleShot());
        QCOMPARE(timer()->timerType(), Qt::PreciseTimer);
        ssdp->stop();
        ssdp->stop();
        QVERIFY(!controlPoint());
        QVERIFY(isIdle());
        QCOMPARE(log(), QStringList());

        QVERIFY(search());
        ssdp->stop();
        const QStringList before = log();
        ssdp->stop();
        QCOMPARE(log(), before);
        QCOMPARE(timeouts, 0);
        QVERIFY(search());
        QCOMPARE(device->searches.size(), 2);
    }

    void controlPointDoesNothingBeforeInitialize()
    {
        SsdpManager idle(QHostAddress("10.77.0.1"));
        idle.discover();
        idle.stop();
        idle.stop();
        ManagerAccess(idle).onUnicastMessageReceived();
        QMetaObject::invokeMethod(&idle, "onResponseSocketDisconnected", Qt::DirectConnection);
        QCOMPARE(idle.children(), QObjectList());
        QCOMPARE(ManagerAccess(idle).multicastSocket(), nullptr);
        QCOMPARE(ManagerAccess(idle).unicastSocket(), nullptr);
        QCOMPARE(sockets() + log(), QStringList());

        idle.initialize();
        const QStringList before = sockets();
        idle.clearDevices();
        QCOMPARE(sockets(), before);
        idle.discover();
        idle.stop();
        QCOMPARE(idle.children(), QObjectList());
        QCOMPARE(ManagerAccess(idle).multicastSocket(), nullptr);
        QCOMPARE(ManagerAccess(idle).unicastSocket(), nullptr);
        idle.discover();

        ssdp->discover();
        VERIFY_SOON(device->searches.size() >= 2);
        QVERIFY(answerSearch(LAST_LOCATION));
        QCOMPARE(device->searches.size(), 2);
    }

    void secondDiscoverDoesNothing()
    {
        QCOMPARE(ssdp->discover(), 3);
        QVERIFY(isDiscovering());
        QCOMPARE(timer()->interval(), 60000);
        QVERIFY(!timer()->isSingleShot());

        // A new start would set the interval to the time-out of the controller.
        timer()->start(50000);
        const QStringList lines = log();
        QCOMPARE(ssdp->discover(), 3);
        QVERIFY(isDiscovering());
        QCOMPARE(timer()->interval(), 50000);
        QCOMPARE(log(), lines);
        VERIFY_SOON(!device->searches.isEmpty());
        QVERIFY(answerSearch(LAST_LOCATION));
        QCOMPARE(device->searches.size(), 1);

        ssdp->stop();
        QCOMPARE(ssdp->discover(), 3);
        QCOMPARE(timer()->interval(), 60000);
    }

    void timeoutIsLoggedAndSignalledOnce()
    {
        makeController(50);
        QStringList logInTheSlot;
        bool idleInTheSlot = false;
        const QObject context;
        connect(ssdp.get(), &Ssdp::timeoutExpired, &context, [this, lines = &logInTheSlot, idle = &idleInTheSlot] {
            *lines = log();
            *idle = isIdle();
        });
        QVERIFY(search());
        const QString port = QString::number(manager().eventServer().serverPort());
        VERIFY_SOON(timeouts > 0);
        QCOMPARE(timeouts, 1);
        QVERIFY(idleInTheSlot);
        QCOMPARE(logInTheSlot, (QStringList{"0|Ssdp Server bound to " + port, TIMEOUT_LINE}));
        QVERIFY(search());
        VERIFY_SOON(timeouts > 1);
        QCOMPARE(timeouts, 2);
        QVERIFY(manager().eventServer().isListening());
    }

    void hostMayDiscoverAgainAtEveryTimeout()
    {
        makeController(0);
        connect(ssdp.get(), &Ssdp::timeoutExpired, this, [this] {
            if (timeouts < 3)
                QCOMPARE(ssdp->discover(), 3);
        });
        QCOMPARE(ssdp->discover(), 3);
        QCOMPARE(timeouts, 0);
        VERIFY_SOON(timeouts == 3 && device->searches.size() == 3);
        QVERIFY(isIdle());
        QCOMPARE(ssdp->findChildren<SsdpManager*>().size(), 1);
    }

    void reportDoesNotEndADiscovery()
    {
        QVERIFY(findDevice());
        QVERIFY(sendLastEvent());
        QVERIFY(isDiscovering());
        const QStringList lines = log();
        QCOMPARE(ssdp->discover(), 3);
        QCOMPARE(log(), lines);
        QCOMPARE(timeouts, 0);
        timer()->start(0);
        VERIFY_SOON(timeouts == 1);
        QCOMPARE(log(), lines + QStringList{TIMEOUT_LINE});
        QCOMPARE(reports.size(), 1);
    }

    void nextDiscoveryKnowsNoDevice_data()
    {
        const Table<bool> row("stopped");
        row("after stop()", true);
        row("after the time-out", false);
    }

    void nextDiscoveryKnowsNoDevice()
    {
        QFETCH(const bool, stopped);
        QVERIFY(findDevice());
        QVERIFY(sendLastEvent());
        const QList<SsdpManager*> controlPoints = ssdp->findChildren<SsdpManager*>();
        const QString port = QString::number(callback().port);
        const QStringList before = log();
        if (stopped)
            ssdp->stop();
        else
            timer()->start(0);
        VERIFY_SOON(isIdle());
        QCOMPARE(timeouts, stopped ? 0 : 1);
        QCOMPARE(log(), stopped ? before : before + QStringList{TIMEOUT_LINE});
        QCOMPARE(KernelTables::groupMembers(), QStringList());
        QVERIFY(ssdp->findChildren<QUdpSocket*>().isEmpty());
        QVERIFY(manager().eventServer().isListening());
        QCOMPARE(manager().devices().size(), 1);
        CapturedLog::clear();
        reports.clear();

        QCOMPARE(ssdp->discover(), 3);
        QCOMPARE(log(),
                 (QStringList{"1|void Velmora::SSDP::SsdpManager::initialize()|Could not bind local Ssdp server",
                              "0|Ssdp Server bound to " + port}));
        QCOMPARE(ssdp->findChildren<SsdpManager*>(), controlPoints);
        QVERIFY(manager().devices().isEmpty());
        QVERIFY(isDiscovering());
        QCOMPARE(KernelTables::tcpListeners(), QStringList{"10.77.0.1:" + port});

        VERIFY_SOON(device->searches.size() == 2);
        QCOMPARE(device->searches.at(1).bytes, device->searches.at(0).bytes);
        QCOMPARE(device->searches.at(1).port, quint16(49152));
        QVERIFY(beFound());
        QVERIFY(sendLastEvent());
        QCOMPARE(device->requestsFor("GET /desc.xml ").size(), 2);
        QCOMPARE(reports, QStringList{LAST_REPORT});
    }

    void datagramBetweenDiscoveriesIsLost()
    {
        QVERIFY(search());
        ssdp->stop();
        device->answer(searchReply(LOCATION));
        device->announce(searchReply(LOCATION));
        QVERIFY(search());
        QVERIFY(answerSearch(LAST_LOCATION));
        QCOMPARE(log().filter("Ssdp device"), QStringList{"0|Ssdp device|"_s + LAST_LOCATION});
    }

    void descriptionOfAnEarlierDiscoveryIsDropped_data()
    {
        const Table<QByteArray, QByteArray> row("pending", "begun");
        row("description, silent", "GET /desc.xml ", "");
        row("description, begun", "GET /desc.xml ", reply(deviceDescription()).chopped(20));
        row("service description, silent", "GET /scpd.xml ", "");
        row("service description, begun", "GET /scpd.xml ", reply(serviceDescription()).chopped(20));
    }

    void descriptionOfAnEarlierDiscoveryIsDropped()
    {
        QFETCH(const QByteArray, pending);
        QFETCH(const QByteArray, begun);
        device->script("GET /desc.xml ", reply(deviceDescription()));
        device->script(pending, begun);
        QVERIFY(search() && answerSearch());
        Connection* const connection = requestFor(pending);
        QVERIFY(connection && send(connection, ""));
        QCOMPARE(manager().deviceReplies().size(), 1);

        CapturedLog::clear();
        QVERIFY(restart());
        QVERIFY(manager().deviceReplies().isEmpty());
        QVERIFY(manager().serviceReplies().isEmpty());
        VERIFY_SOON(!connection->isOpen());

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
        // The scheme is unknown, so the request has failed, and its finished() is queued.
        manager().addSsdpDevice(QHostAddress("10.77.1.1"), "coap://10.77.1.1/");
        QCOMPARE(manager().deviceReplies().size(), 1);
        QVERIFY(restart());
        QVERIFY(answerSearch(LAST_LOCATION));
        QCOMPARE(log().filter("handleServerResponse"), QStringList());
    }

    void eventOfAnEarlierDiscoveryIsDropped_data()
    {
        const Table<QByteArray, int> row("contentLength", "sent");
        row("head", "120", 0);
        row("head and half of the body", "120", 60);
        row("head with a negative length", "-1", 0);
    }

    void eventOfAnEarlierDiscoveryIsDropped()
    {
        QFETCH(const QByteArray, contentLength);
        QFETCH(const int, sent);
        QVERIFY(findDevice());
        const QByteArray body = eventBody("KO", "12,34");
        Connection* const connection = sendHead(callback(), contentLength);
        QVERIFY(connection);
        QVERIFY(send(connection, body.left(sent)));

        ssdp->stop();
        QVERIFY(findDevice());
        QVERIFY(connection->isOpen());
        QCOMPARE(manager().requestSocketServices().values(), QList<SsdpService*>{nullptr});
        const auto lines = log().size();
        connection->send(body.mid(sent));
        VERIFY_SOON(!connection->isOpen());
        VERIFY_SOON(nothingIsListed());
        QCOMPARE(log().size(), lines);
        QVERIFY(service()->stateVariables.value("KO").isNull());
        QCOMPARE(allReports(), QStringList{LAST_REPORT});
    }

    void callbackOfAnEarlierDiscoveryIsUnknown()
    {
        QVERIFY(findDevice());
        const Callback earlier = callback();
        ssdp->stop();
        QVERIFY(findDevice());
        QVERIFY(callback().path != earlier.path);
        QCOMPARE(callback().port, earlier.port);
        Connection* const connection = connectTo(earlier);
        connection->send(eventHead(earlier.path, "120"));
        VERIFY_SOON(!connection->isOpen());
        QCOMPARE(allReports(), QStringList{LAST_REPORT});
    }

    void subscriptionOfAnEarlierDiscoveryHasNoService()
    {
        scriptDevice();
        device->script("SUBSCRIBE ", "");
        QVERIFY(search() && answerSearch());
        Connection* const connection = requestFor("SUBSCRIBE ");
        QVERIFY(connection && restart() && answerSearch());
        VERIFY_SOON(device->requestsFor("SUBSCRIBE ").size() == 2);
        QCOMPARE(manager().requestSockets().size(), 2);
        QTcpSocket* const earlier = manager().requestSockets().at(0);
        QCOMPARE(manager().requestSocketServices().value(earlier, service()), nullptr);
        QCOMPARE(manager().requestSocketServices().value(manager().requestSockets().at(1)), service());

        bool signalled = false;
        const QObject context;
        connect(earlier, &QTcpSocket::readyRead, &context, [flag = &signalled] { *flag = true; });
        connection->send(subscriptionReply());
        VERIFY_SOON(signalled);
        QVERIFY(service()->subscriptionId.isNull());
        QCOMPARE(manager().requestSockets().size(), 2);
        QVERIFY(connection->isOpen());
        QVERIFY(sendLastEvent());
    }

    void proxyIsNotUsed_data()
    {
        const Table<int> row("type");
        row("http_proxy in the environment", QNetworkProxy::DefaultProxy);
        row("HTTP proxy of the application", QNetworkProxy::HttpProxy);
        row("SOCKS proxy of the application", QNetworkProxy::Socks5Proxy);
    }

    void proxyIsNotUsed()
    {
        QFETCH(const int, type);
        const ScriptedDevice proxy(network, "10.77.1.3", 3128);
        const auto end = qScopeGuard([] {
            qunsetenv("http_proxy");
            QNetworkProxy::setApplicationProxy(QNetworkProxy());
        });
        if (type == QNetworkProxy::DefaultProxy) {
            qputenv("http_proxy", "http://10.77.1.3:3128");
            QNetworkProxyFactory::setUseSystemConfiguration(true);
        } else {
            const auto proxyType = static_cast<QNetworkProxy::ProxyType>(type);
            QNetworkProxy::setApplicationProxy(QNetworkProxy(proxyType, "10.77.1.3", 3128));
        }
        // Qt itself would use the proxy.
        const QNetworkProxyQuery query{QUrl(LOCATION)};
        QCOMPARE(QNetworkProxyFactory::proxyForQuery(query).at(0).hostName(), "10.77.1.3"_s);

        QVERIFY(findDevice());
        QVERIFY(sendLastEvent());
        QVERIFY(proxy.accepted.isEmpty());
        QCOMPARE(device->searches.at(0).port, quint16(49152));
        QCOMPARE(log().filter("1|"), QStringList());
    }

    void connectionOfAnEarlierDiscoverySendsNothing()
    {
        device->script("GET /desc.xml ", reply(deviceDescription()));
        QVERIFY(search() && answerSearch());
        Connection* const connection = requestFor("GET /scpd.xml ");
        QVERIFY(connection);
        device->holdConnections();
        connection->send(reply(serviceDescription()));
        VERIFY_SOON(manager().requestSockets().size() == 1);
        QTcpSocket* const earlier = manager().requestSockets().at(0);
        QCOMPARE(earlier->state(), QAbstractSocket::ConnectingState);

        QVERIFY(restart());
        device->takeConnections();
        VERIFY_SOON(earlier->state() == QAbstractSocket::ConnectedState);
        scriptDevice();
        QVERIFY(beFound());
        QVERIFY(sendLastEvent());
        QCOMPARE(device->requestsFor("SUBSCRIBE ").size(), 1);
        QCOMPARE(manager().requestSockets(), QList<QTcpSocket*>{earlier});
    }

    void nothingIsPrintedForForgottenRequests()
    {
        device->script("GET /answered", reply("<a/>"));
        QVERIFY(search());
        const KeptMessages kept;
        // The last four locations are a port where nobody listens, an address without a route, a path that the
        // device does not answer, and a path that it answers.
        for (const QByteArray& location :
             listOf("", "none:/a", "file:///dev/null", "http://10.77.1.1:9/a", "http://192.0.2.1/a",
                    "http://10.77.1.1:8080/a", "http://10.77.1.1:8080/answered")) {
            // The more turns, the more requests have finished before the others are forgotten.
            for (int turns = 0; turns < 20; ++turns) {
                for (int i = 0; i < 10; ++i)
                    manager().addSsdpDevice(QHostAddress("10.77.1.1"), location + QByteArray::number(i));
                for (int turn = 0; turn < turns; ++turn)
                    QCoreApplication::processEvents();
                controlPoint()->clearDevices();
                QCOMPARE(manager().deviceReplies().size(), 0);
            }
        }
        ssdp->stop();
        QVERIFY(findDevice());
        QCOMPARE(kept.texts(), QStringList());
    }
};

VELMORA_WIRE_TEST_MAIN(DiscoveryTest)
#include "tst_discovery.moc"

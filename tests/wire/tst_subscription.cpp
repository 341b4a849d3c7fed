#include <tests/support/Literals.h>
#include <tests/support/WireTest.h>

using namespace Velmora::Tests;
using Velmora::SSDP::SsdpManager;
using Velmora::SSDP::SsdpService;

/// The subscriptions: what they say, and what becomes of the answer.
class SubscriptionTest : public WireTest
{
    Q_OBJECT

public:
    using WireTest::WireTest;

private:
    /// Finds a device with these state variables that does not answer its subscriptions.
    bool subscribe(const QList<QByteArray>& names)
    {
        scriptDevice();
        device->script("GET /scpd.xml ", reply(serviceDescription(names)));
        device->script("SUBSCRIBE ", "");
        return search() && answerSearch()
            && waitUntil([&] { return device->requestsFor("SUBSCRIBE ").size() == names.size(); });
    }

    SsdpService* service() const { return manager().devices().at(0)->services.at(0); }

    Connection* subscription(int index) const { return device->requestsFor("SUBSCRIBE ").at(index).connection; }

private Q_SLOTS:
    void subscriptionNamesTheEventServer_data()
    {
        QTest::addColumn<QByteArray>("authority");
        QTest::addColumn<quint16>("port");
        QTest::addColumn<QByteArray>("host");
        QTest::newRow("no port") << "10.77.1.2"_ba << quint16(80) << "10.77.1.2:P"_ba;
        QTest::newRow("port 8080") << "10.77.1.2:8080"_ba << quint16(8080) << "10.77.1.2:\x90"_ba;
        QTest::newRow("port 49152") << "10.77.1.2:49152"_ba << quint16(49152) << "10.77.1.2:\0"_ba;
    }

    void subscriptionNamesTheEventServer()
    {
        QFETCH(const QByteArray, authority);
        QFETCH(const quint16, port);
        QFETCH(const QByteArray, host);
        device = std::make_unique<ScriptedDevice>(network, "10.77.1.2"_s, port);
        scriptDevice();
        device->script("GET /desc.xml ",
                       reply(deviceDescription(serviceElement(KEY_OBJECT_TYPE, "/scpd.xml", "a b?\xe9=%1"))));
        device->script("SUBSCRIBE ", "");
        QVERIFY(search() && answerSearch("http://" + authority + "/desc.xml"));
        VERIFY_SOON(device->requestsFor("SUBSCRIBE ").size() == 1);

        const QByteArray expected = "SUBSCRIBE /a b?\xe9=%1 HTTP/1.1\nHOST: " + host + "\nUSER-AGENT: "
            + SsdpManager::getSystemInfo().toLatin1() + " UPnP/1.1 SSDP/1.0\nCALLBACK: <http://10.77.0.1:"
            + QByteArray::number(manager().eventServer().serverPort()) + "/"
            + service()->id.toByteArray(QUuid::WithoutBraces) + "_%4>\nNT: upnp:event\nTIMEOUT: Second-120\n\n";
        QCOMPARE(subscription(0)->received.toPercentEncoding(), expected.toPercentEncoding());

        // The device is the one that ends it: nothing comes after the empty line.
        subscription(0)->close();
        QVERIFY(answerSearch("http://" + authority + "/last"));
        QCOMPARE(device->requestsFor("SUBSCRIBE ").at(0).bytes, expected);
    }

    void everyStateVariableSendsTheSameSubscription()
    {
        QVERIFY(subscribe({"KO", "A", "B"}));
        QVERIFY(subscription(0) != subscription(1) && subscription(1) != subscription(2)
                && subscription(0) != subscription(2));
        QCOMPARE(subscription(1)->received, subscription(0)->received);
        QCOMPARE(subscription(2)->received, subscription(0)->received);
    }

    void answerSetsTheIdentifier_data()
    {
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<QUuid>("identifier");
        const QByteArray status = "HTTP/1.1 200 OK\r\n";
        const QByteArray known = "2fac1234-31f8-11b4-a222-08002b34c003";
        const QByteArray sid = "SID: uuid:" + known + "\r\n";
        const QUuid set(QString::fromLatin1(known));
        QTest::newRow("with uuid:") << status + sid + "\r\n" << set;
        QTest::newRow("without uuid:") << status + "SID: " + known + "\r\n\r\n" << set;
        QTest::newRow("uuid: twice") << "SID: uuid:uuid:" + known + "\r\n" << set;
        QTest::newRow("UUID:") << "SID: UUID:" + known + "\r\n" << QUuid();
        QTest::newRow("lower-case header") << "HTTP/1.1 200 OK\nsid:uuid:" + known + "\n\n" << set;
        QTest::newRow("upper-case identifier") << "SID: uuid:" + known.toUpper() + "\r\n" << set;
        QTest::newRow("longer header") << "SIDE: uuid:" + known + "\r\n" << set;
        QTest::newRow("first of two") << sid + "SID: uuid:00000000-0000-0000-0000-000000000001\r\n" << set;
        QTest::newRow("error status") << "HTTP/1.1 412 Precondition Failed\r\n" + sid + "\r\n" << set;
        QTest::newRow("missing") << "HTTP/1.1 503 Service Unavailable\r\n\r\n"_ba << QUuid();
        QTest::newRow("no identifier") << "SID: uuid:none\r\n"_ba << QUuid();
        QTest::newRow("cut identifier") << "SID: uuid:2fac1234-31f8\r\n"_ba << QUuid();
        QTest::newRow("after a zero byte") << "X: \0\r\n"_ba + sid << QUuid();
        QTest::newRow("one byte") << "H"_ba << QUuid();
        // What comes later is not read.
        QTest::newRow("status alone") << status << QUuid();
    }

    void answerSetsTheIdentifier()
    {
        QFETCH(const QByteArray, answer);
        QFETCH(const QUuid, identifier);
        QVERIFY(subscribe({"KO"}));
        QCOMPARE(service()->subscriptionId, QUuid());
        service()->subscriptionId = QUuid("{11111111-1111-1111-1111-111111111111}");
        subscription(0)->send(answer);
        VERIFY_SOON(!subscription(0)->isOpen());
        QCOMPARE(service()->subscriptionId, identifier);
        QVERIFY(nothingIsListed());
        QCOMPARE(log().filter("1|"), QStringList());

        // The subscription is what counts, not its answer.
        QVERIFY(sendLastEvent());
    }

    void laterAnswerReplacesTheIdentifier()
    {
        QVERIFY(subscribe({"KO", "A", "B"}));
        const QList<QByteArray> sent{"2fac1234-31f8-11b4-a222-000000000001",
                                     "2fac1234-31f8-11b4-a222-000000000002"};
        for (int i = 0; i < 2; ++i) {
            subscription(i)->send("HTTP/1.1 200 OK\r\nSID: uuid:" + sent.at(i) + "\r\n\r\n");
            VERIFY_SOON(!subscription(i)->isOpen());
            QCOMPARE(service()->subscriptionId, QUuid(QString::fromLatin1(sent.at(i))));
            QCOMPARE(manager().requestSockets().size(), 2 - i);
        }
        subscription(2)->send("HTTP/1.1 500 Internal Server Error\r\n\r\n");
        VERIFY_SOON(!subscription(2)->isOpen());
        QCOMPARE(service()->subscriptionId, QUuid());
    }

    void subscriptionGoesToTheLocationAndNotToItsUrl()
    {
        ScriptedDevice other(network, "10.77.1.2"_s, 8080);
        scriptDevice();
        const QByteArray service = serviceElement(KEY_OBJECT_TYPE, "/scpd.xml", "http://10.77.1.2:8080/event");
        device->script("GET /desc.xml ", reply(deviceDescription(service)));
        QVERIFY(search() && answerSearch());
        VERIFY_SOON(device->requestsFor("SUBSCRIBE ").size() == 1);
        QVERIFY(sendLastEvent());
        QVERIFY(other.accepted.isEmpty());
    }

    void refusedConnectionStaysListed()
    {
        device->script("GET /desc.xml ", reply(deviceDescription()));
        QVERIFY(search() && answerSearch());
        VERIFY_SOON(device->requestsFor("GET /scpd.xml ").size() == 1);
        device->stopListening();
        device->requestsFor("GET /scpd.xml ").at(0).connection->send(reply(serviceDescription()));
        VERIFY_SOON(manager().requestSockets().size() == 1);
        VERIFY_SOON(manager().requestSockets().at(0)->error() == QAbstractSocket::ConnectionRefusedError);
        QCOMPARE(manager().requestSockets().at(0)->state(), QAbstractSocket::UnconnectedState);
        QCOMPARE(manager().requestSocketServices().value(manager().requestSockets().at(0)), service());
        QCOMPARE(log().filter("1|"), QStringList());
        QVERIFY(device->requestsFor("SUBSCRIBE ").isEmpty());
    }

    void connectionThatThePeerEndsStaysListed_data()
    {
        QTest::addColumn<bool>("hard");
        QTest::newRow("closed") << false;
        QTest::newRow("reset") << true;
    }

    void connectionThatThePeerEndsStaysListed()
    {
        QFETCH(const bool, hard);
        QVERIFY(subscribe({"KO"}));
        subscription(0)->end(hard);
        QTcpSocket* const socket = manager().requestSockets().at(0);
        VERIFY_SOON(socket->state() == QAbstractSocket::UnconnectedState);
        QCOMPARE(manager().requestSockets(), QList<QTcpSocket*>{socket});
        QCOMPARE(manager().requestSocketServices().value(socket), service());
        QCOMPARE(device->requestsFor("SUBSCRIBE ").size(), 1);
        QVERIFY(sendLastEvent());
    }
};

VELMORA_WIRE_TEST_MAIN(SubscriptionTest)

#include "tst_subscription.moc"

#include <tests/support/WireTest.h>

#include <sys/utsname.h>

using namespace Velmora::Tests;
using Velmora::SSDP::SsdpService;

/// The subscriptions: what they say, and what becomes of the answer.
class WireSubscriptionTest : public WireTest
{
    Q_OBJECT

public:
    using WireTest::WireTest;

private Q_SLOTS:
    void subscriptionIsSevenLinesEachEndedByALineFeed_data();
    void subscriptionIsSevenLinesEachEndedByALineFeed();
    void targetIsThePathOfTheDescription_data();
    void targetIsThePathOfTheDescription();
    void everyStateVariableSendsTheSameSubscription();
    void answerSetsTheIdentifier_data();
    void answerSetsTheIdentifier();
    void onlyTheFirstChunkOfTheAnswerCounts();
    void laterAnswerReplacesTheIdentifier();
    void subscriptionGoesToTheLocationAndNotToItsUrl();
    void refusedConnectionStaysListed();
    void connectionThatThePeerEndsStaysListed_data();
    void connectionThatThePeerEndsStaysListed();

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
};

void WireSubscriptionTest::subscriptionIsSevenLinesEachEndedByALineFeed_data()
{
    QTest::addColumn<QByteArray>("authority");
    QTest::addColumn<quint16>("port");
    QTest::addColumn<QByteArray>("host");
    QTest::newRow("port 80") << QByteArray("10.77.1.2:80") << quint16(80) << QByteArray("10.77.1.2:P");
    QTest::newRow("no port") << QByteArray("10.77.1.2") << quint16(80) << QByteArray("10.77.1.2:P");
    QTest::newRow("port 8080") << QByteArray("10.77.1.2:8080") << quint16(8080) << QByteArray("10.77.1.2:\x90");
    QTest::newRow("port 49152") << QByteArray("10.77.1.2:49152") << quint16(49152)
                                << QByteArray("10.77.1.2:\0", 11);
    QTest::newRow("port 65535") << QByteArray("10.77.1.2:65535") << quint16(65535) << QByteArray("10.77.1.2:\xff");
}

void WireSubscriptionTest::subscriptionIsSevenLinesEachEndedByALineFeed()
{
    QFETCH(const QByteArray, authority);
    QFETCH(const quint16, port);
    QFETCH(const QByteArray, host);
    utsname system = {};
    QCOMPARE(uname(&system), 0);
    device = std::make_unique<ScriptedDevice>(network, QStringLiteral("10.77.1.2"), port);
    scriptDevice();
    device->script("SUBSCRIBE ", "");
    QVERIFY(search());
    QVERIFY(answerSearch("http://" + authority + "/desc.xml"));
    VERIFY_SOON(device->requestsFor("SUBSCRIBE ").size() == 1);

    const QString bound = log().at(0);
    QVERIFY(bound.startsWith(QStringLiteral("0|Ssdp Server bound to ")));
    const QByteArray eventPort = bound.mid(23).toLatin1();
    const QByteArray id = service()->id.toByteArray().mid(1, 36);
    const QByteArray expected = "SUBSCRIBE /event HTTP/1.1\n"
                                "HOST: "
        + host
        + "\n"
          "USER-AGENT: "
        + QByteArray(system.sysname) + "/" + QByteArray(system.release)
        + " UPnP/1.1 SSDP/1.0\n"
          "CALLBACK: <http://10.77.0.1:"
        + eventPort + "/" + id
        + "_%4>\n"
          "NT: upnp:event\n"
          "TIMEOUT: Second-120\n"
          "\n";
    QCOMPARE(subscription(0)->received.toPercentEncoding(), expected.toPercentEncoding());

    // The device is the one that ends it: nothing comes behind the empty line.
    subscription(0)->close();
    QVERIFY(answerSearch("http://" + authority + "/last"));
    QCOMPARE(device->requestsFor("SUBSCRIBE ").at(0).bytes, expected);
}

void WireSubscriptionTest::targetIsThePathOfTheDescription_data()
{
    QTest::addColumn<QByteArray>("url");
    QTest::addColumn<QByteArray>("target");
    QTest::newRow("absolute path") << QByteArray("/a/event") << QByteArray("/a/event");
    QTest::newRow("relative path") << QByteArray("event?x=1") << QByteArray("/event?x=1");
    QTest::newRow("full URL") << QByteArray("http://10.77.1.2/event") << QByteArray("/http://10.77.1.2/event");
    QTest::newRow("empty") << QByteArray() << QByteArray("/");
    QTest::newRow("blank") << QByteArray("/a b") << QByteArray("/a b");
    QTest::newRow("the character 0xe9") << QByteArray("/\xe9") << QByteArray("/\xe9");
    QTest::newRow("a placeholder") << QByteArray("/%1/%2") << QByteArray("/%1/%2");
}

void WireSubscriptionTest::targetIsThePathOfTheDescription()
{
    QFETCH(const QByteArray, url);
    QFETCH(const QByteArray, target);
    scriptDevice();
    device->script("GET /desc.xml ",
                   reply(deviceDescription(QByteArray(KEY_OBJECTS).replace("/event<", url + "<"))));
    QVERIFY(search());
    QVERIFY(answerSearch());
    VERIFY_SOON(device->requestsFor("SUBSCRIBE ").size() == 1);
    QCOMPARE(device->requestsFor("SUBSCRIBE ").at(0).bytes.split('\n').at(0), "SUBSCRIBE " + target + " HTTP/1.1");
}

void WireSubscriptionTest::everyStateVariableSendsTheSameSubscription()
{
    QVERIFY(subscribe({"KO", "A", "B"}));
    QVERIFY(subscription(0) != subscription(1) && subscription(1) != subscription(2)
            && subscription(0) != subscription(2));
    QCOMPARE(subscription(1)->received, subscription(0)->received);
    QCOMPARE(subscription(2)->received, subscription(0)->received);
}

void WireSubscriptionTest::answerSetsTheIdentifier_data()
{
    QTest::addColumn<QByteArray>("answer");
    QTest::addColumn<QUuid>("identifier");
    const QUuid known(QStringLiteral("{2fac1234-31f8-11b4-a222-08002b34c003}"));

    QTest::newRow("with uuid:") << QByteArray(
        "HTTP/1.1 200 OK\r\nSID: uuid:2fac1234-31f8-11b4-a222-08002b34c003\r\n\r\n")
                                << known;
    QTest::newRow("without uuid:") << QByteArray(
        "HTTP/1.1 200 OK\r\nSID: 2fac1234-31f8-11b4-a222-08002b34c003\r\n\r\n")
                                   << known;
    QTest::newRow("uuid: twice") << QByteArray("SID: uuid:uuid:2fac1234-31f8-11b4-a222-08002b34c003\r\n") << known;
    QTest::newRow("UUID:") << QByteArray("SID: UUID:2fac1234-31f8-11b4-a222-08002b34c003\r\n") << QUuid();
    QTest::newRow("lower-case header") << QByteArray(
        "HTTP/1.1 200 OK\nsid:uuid:2fac1234-31f8-11b4-a222-08002b34c003\n\n")
                                       << known;
    QTest::newRow("upper-case identifier")
        << QByteArray("SID: uuid:2FAC1234-31F8-11B4-A222-08002B34C003\r\n") << known;
    QTest::newRow("longer header") << QByteArray("SIDE: uuid:2fac1234-31f8-11b4-a222-08002b34c003\r\n") << known;
    QTest::newRow("the first of two") << QByteArray("SID: uuid:2fac1234-31f8-11b4-a222-08002b34c003\r\n"
                                                    "SID: uuid:00000000-0000-0000-0000-000000000001\r\n")
                                      << known;
    QTest::newRow("error status") << QByteArray(
        "HTTP/1.1 412 Precondition Failed\r\nSID: uuid:2fac1234-31f8-11b4-a222-08002b34c003\r\n\r\n")
                                  << known;
    QTest::newRow("missing") << QByteArray("HTTP/1.1 503 Service Unavailable\r\n\r\n") << QUuid();
    QTest::newRow("no identifier") << QByteArray("SID: uuid:none\r\n") << QUuid();
    QTest::newRow("cut identifier") << QByteArray("SID: uuid:2fac1234-31f8\r\n") << QUuid();
    QTest::newRow("behind a zero byte")
        << QByteArray("X: ") + '\0' + "\r\nSID: uuid:2fac1234-31f8-11b4-a222-08002b34c003\r\n"
        << QUuid();
    QTest::newRow("one byte") << QByteArray("H") << QUuid();
}

void WireSubscriptionTest::answerSetsTheIdentifier()
{
    QFETCH(const QByteArray, answer);
    QFETCH(const QUuid, identifier);
    QVERIFY(subscribe({"KO"}));
    QCOMPARE(service()->subscriptionId, QUuid());
    service()->subscriptionId = QUuid(QStringLiteral("{11111111-1111-1111-1111-111111111111}"));
    subscription(0)->send(answer);
    VERIFY_SOON(!subscription(0)->isOpen());
    QCOMPARE(service()->subscriptionId, identifier);
    QVERIFY(manager().requestSockets().isEmpty());
    QVERIFY(manager().requestSocketServices().isEmpty());
    QCOMPARE(log().filter(QStringLiteral("1|")), QStringList());

    // The subscription is what counts, not its answer.
    QVERIFY(sendLastEvent());
}

void WireSubscriptionTest::onlyTheFirstChunkOfTheAnswerCounts()
{
    QVERIFY(subscribe({"KO"}));
    subscription(0)->send("HTTP/1.1 200 OK\r\n");
    VERIFY_SOON(!subscription(0)->isOpen());
    QCOMPARE(service()->subscriptionId, QUuid());
    QVERIFY(manager().requestSockets().isEmpty());
}

void WireSubscriptionTest::laterAnswerReplacesTheIdentifier()
{
    QVERIFY(subscribe({"KO", "A", "B"}));
    const QList<QByteArray> sent{"2fac1234-31f8-11b4-a222-000000000001", "2fac1234-31f8-11b4-a222-000000000002"};
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

void WireSubscriptionTest::subscriptionGoesToTheLocationAndNotToItsUrl()
{
    ScriptedDevice other(network, QStringLiteral("10.77.1.2"), 8080);
    scriptDevice();
    device->script(
        "GET /desc.xml ",
        reply(deviceDescription(QByteArray(KEY_OBJECTS).replace("/event<", "http://10.77.1.2:8080/event<"))));
    QVERIFY(search());
    QVERIFY(answerSearch());
    VERIFY_SOON(device->requestsFor("SUBSCRIBE ").size() == 1);
    QVERIFY(sendLastEvent());
    QVERIFY(other.accepted.isEmpty());
}

void WireSubscriptionTest::refusedConnectionStaysListed()
{
    device->script("GET /desc.xml ", reply(deviceDescription(KEY_OBJECTS)));
    QVERIFY(search());
    QVERIFY(answerSearch());
    VERIFY_SOON(device->requestsFor("GET /scpd.xml ").size() == 1);
    device->stopListening();
    device->requestsFor("GET /scpd.xml ").at(0).connection->send(reply(serviceDescription({"KO"})));
    VERIFY_SOON(manager().requestSockets().size() == 1);
    VERIFY_SOON(manager().requestSockets().at(0)->error() == QAbstractSocket::ConnectionRefusedError);
    QCOMPARE(manager().requestSockets().at(0)->state(), QAbstractSocket::UnconnectedState);
    QCOMPARE(manager().requestSocketServices().value(manager().requestSockets().at(0)), service());
    QCOMPARE(log().filter(QStringLiteral("1|")), QStringList());
    QVERIFY(device->requestsFor("SUBSCRIBE ").isEmpty());
}

void WireSubscriptionTest::connectionThatThePeerEndsStaysListed_data()
{
    QTest::addColumn<bool>("hard");
    QTest::newRow("closed") << false;
    QTest::newRow("reset") << true;
}

void WireSubscriptionTest::connectionThatThePeerEndsStaysListed()
{
    QFETCH(const bool, hard);
    QVERIFY(subscribe({"KO"}));
    if (hard)
        subscription(0)->reset();
    else
        subscription(0)->close();
    QTcpSocket* const socket = manager().requestSockets().at(0);
    VERIFY_SOON(socket->state() == QAbstractSocket::UnconnectedState);
    QCOMPARE(manager().requestSockets(), QList<QTcpSocket*>{socket});
    QCOMPARE(manager().requestSocketServices().value(socket), service());
    QCOMPARE(device->requestsFor("SUBSCRIBE ").size(), 1);
    QVERIFY(sendLastEvent());
}

VELMORA_WIRE_TEST_MAIN(WireSubscriptionTest)

#include "tst_WireSubscription.moc"

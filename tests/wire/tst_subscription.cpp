#include <tests/support/WireTest.h>

using namespace Velmora::Tests;
using Velmora::SSDP::SsdpManager;

/// The subscriptions, and what the library does with the answers.
class SubscriptionTest : public WireTest
{
    Q_OBJECT

    /// Finds a device with these state variables. It does not answer its subscriptions.
    bool subscribe(const QList<QByteArray>& names)
    {
        scriptDevice();
        device->script("GET /scpd.xml ", reply(serviceDescription(names)));
        device->script("SUBSCRIBE ", "");
        return search() && answerSearch()
            && waitUntil([&] { return device->requestsFor("SUBSCRIBE ").size() == names.size(); });
    }

    Connection* subscription(int index) const { return device->requestsFor("SUBSCRIBE ").at(index).connection; }

private Q_SLOTS:
    void subscriptionNamesTheEventServer_data()
    {
        const Table<QByteArray, quint16, QByteArray> row("authority", "port", "host");
        row("no port", "10.77.1.2", 80, "10.77.1.2:P");
        row("port 8080", "10.77.1.2:8080", 8080, "10.77.1.2:\x90");
        row("port 49152", "10.77.1.2:49152", 49152, "10.77.1.2:\0"_ba);
    }

    void subscriptionNamesTheEventServer()
    {
        QFETCH(const QByteArray, authority);
        QFETCH(const quint16, port);
        QFETCH(const QByteArray, host);
        makeDevice("10.77.1.2", port);
        scriptDevice();
        device->script("GET /desc.xml ",
                       reply(deviceDescription(serviceElement(KEY_OBJECT_TYPE, "/scpd.xml", "a b?\xe9=%1"))));
        device->script("SUBSCRIBE ", "");
        QVERIFY(search() && answerSearch("http://" + authority + "/desc.xml"));
        Connection* const connection = requestFor("SUBSCRIBE ");
        QVERIFY(connection);

        const QByteArray expected = "SUBSCRIBE /a b?\xe9=%1 HTTP/1.1\nHOST: " + host + "\nUSER-AGENT: "
            + SsdpManager::getSystemInfo().toLatin1() + " UPnP/1.1 SSDP/1.0\nCALLBACK: <http://10.77.0.1:"
            + QByteArray::number(manager().eventServer().serverPort()) + "/"
            + service()->id.toByteArray(QUuid::WithoutBraces) + "_%4>\nNT: upnp:event\nTIMEOUT: Second-120\n\n";
        QCOMPARE(connection->received.toPercentEncoding(), expected.toPercentEncoding());

        // After the end of the connection, it is certain that nothing follows the empty line.
        connection->close();
        QVERIFY(answerSearch("http://" + authority + "/last"));
        QCOMPARE(device->requestsFor("SUBSCRIBE ").at(0).bytes, expected);
    }

    void answerSetsTheIdentifier_data()
    {
        const Table<QByteArray, QUuid> row("answer", "identifier");
        const QByteArray known = "2fac1234-31f8-11b4-a222-08002b34c003";
        const QByteArray sid = "SID: uuid:" + known + "\r\n";
        const QUuid set(QString::fromLatin1(known));
        row("with uuid:", subscriptionReply(), set);
        row("without uuid:", "HTTP/1.1 200 OK\r\nSID: " + known + "\r\n\r\n", set);
        row("uuid: twice", "SID: uuid:uuid:" + known + "\r\n", set);
        row("UUID:", "SID: UUID:" + known + "\r\n", QUuid());
        row("lower-case header", "HTTP/1.1 200 OK\nsid:uuid:" + known + "\n\n", set);
        row("upper-case identifier", "SID: uuid:" + known.toUpper() + "\r\n", set);
        row("longer header", "SIDE: uuid:" + known + "\r\n", set);
        row("first of two", sid + "SID: uuid:00000000-0000-0000-0000-000000000001\r\n", set);
        row("error status", "HTTP/1.1 412 Precondition Failed\r\n" + sid + "\r\n", set);
        row("missing", "HTTP/1.1 503 Service Unavailable\r\n\r\n", QUuid());
        row("not an identifier", "SID: uuid:none\r\n", QUuid());
        row("cut identifier", "SID: uuid:2fac1234-31f8\r\n", QUuid());
        row("after a zero byte", "X: \0\r\n"_ba + sid, QUuid());
        row("one byte", "H", QUuid());
        // The library does not read what follows.
        row("status alone", "HTTP/1.1 200 OK\r\n", QUuid());
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

        // Whatever the answer is, events are accepted.
        QVERIFY(sendLastEvent());
    }

    void everyStateVariableSendsTheSameSubscription()
    {
        QVERIFY(subscribe({"KO", "A", "B"}));
        QVERIFY(subscription(0) != subscription(1) && subscription(1) != subscription(2)
                && subscription(0) != subscription(2));
        QCOMPARE(subscription(1)->received, subscription(0)->received);
        QCOMPARE(subscription(2)->received, subscription(0)->received);

        // The last answer sets the identifier.
        for (int i = 0; i < 2; ++i) {
            const QByteArray identifier = "2fac1234-31f8-11b4-a222-00000000000" + QByteArray::number(i);
            subscription(i)->send("HTTP/1.1 200 OK\r\nSID: uuid:" + identifier + "\r\n\r\n");
            VERIFY_SOON(!subscription(i)->isOpen());
            QCOMPARE(service()->subscriptionId, QUuid(QString(identifier)));
            QCOMPARE(manager().requestSockets().size(), 2 - i);
        }
        subscription(2)->send("HTTP/1.1 500 Internal Server Error\r\n\r\n");
        VERIFY_SOON(!subscription(2)->isOpen());
        QCOMPARE(service()->subscriptionId, QUuid());
    }

    void subscriptionGoesToTheServerOfTheLocation()
    {
        const ScriptedDevice other(network, "10.77.1.2");
        scriptDevice();
        const QByteArray elsewhere = serviceElement(KEY_OBJECT_TYPE, "/scpd.xml", "http://10.77.1.2:8080/event");
        device->script("GET /desc.xml ", reply(deviceDescription(elsewhere)));
        QVERIFY(search() && beFound());
        QVERIFY(sendLastEvent());
        QVERIFY(other.accepted.isEmpty());
    }

    void refusedConnectionStaysListed()
    {
        device->script("GET /desc.xml ", reply(deviceDescription()));
        QVERIFY(search() && answerSearch());
        Connection* const connection = requestFor("GET /scpd.xml ");
        QVERIFY(connection);
        device->stopListening();
        connection->send(reply(serviceDescription()));
        VERIFY_SOON(manager().requestSockets().size() == 1);
        const QTcpSocket* const socket = manager().requestSockets().at(0);
        VERIFY_SOON(socket->error() == QAbstractSocket::ConnectionRefusedError);
        QCOMPARE(socket->state(), QAbstractSocket::UnconnectedState);
        QCOMPARE(manager().requestSocketServices().values(), QList<Velmora::SSDP::SsdpService*>{service()});
        QCOMPARE(log().filter("1|"), QStringList());
        QVERIFY(device->requestsFor("SUBSCRIBE ").isEmpty());
    }

    void connectionThatThePeerEndsStaysListed_data()
    {
        const Table<bool> row("hard");
        row("closed", false);
        row("reset", true);
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

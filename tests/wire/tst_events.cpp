#include <tests/support/Literals.h>
#include <tests/support/WireTest.h>

using namespace Velmora::Tests;
using Velmora::SSDP::SsdpDevice;
using Velmora::SSDP::SsdpManager;
using Velmora::SSDP::SsdpService;

namespace {

const char REPORT[] = "12,34 at 10.77.1.1";
const char LAST_REPORT[] = "77,1 at 10.77.1.1";
const char NOT_PARSED[] = "1|void Velmora::SSDP::SsdpManager::updateStateVariables("
                          "Velmora::SSDP::SsdpService*, const QString&)|Could not parse event xml";

} // namespace

/// What the event server takes for an event, and what becomes of it.
class EventsTest : public WireTest
{
    Q_OBJECT

public:
    using WireTest::WireTest;

private:
    /// The event that is reported as REPORT.
    const QByteArray event = eventBody("KO", "12,34");
    const QByteArray eventLength = QByteArray::number(event.size());
    QStringList changes;

    /// An event body of exactly @p length characters that is reported as REPORT.
    static QByteArray bodyOf(int length)
    {
        const QByteArray body("<e:propertyset><e:property><KO>12,34</KO></e:property></e:propertyset>");
        return body + QByteArray(length - static_cast<int>(body.size()), '\n');
    }

    const QHash<QString, QString>& variables() const
    {
        return manager().devices().at(0)->services.at(0)->stateVariables;
    }

    Connection* connectToServer() { return device->connectTo(callback().host, callback().port); }

    /// Sends @p bytes on a connection and returns it. Null if they were not read.
    static Connection* send(Connection* connection, const QByteArray& bytes)
    {
        connection->send(bytes);
        return waitUntil([&] { return connection->wasRead(); }) ? connection : nullptr;
    }

private Q_SLOTS:
    void init()
    {
        WireTest::init();
        QVERIFY(findDevice());
        changes.clear();
        connect(ssdp->findChild<SsdpManager*>(), &SsdpManager::valueChanged, this,
                [this](const SsdpDevice* from, const SsdpService* service, const QString& name) {
                    changes << name + QLatin1Char('=') + service->stateVariables.value(name);
                    QVERIFY(from == manager().devices().at(0));
                    QVERIFY(from->services.contains(const_cast<SsdpService*>(service)));
                });
    }

    void bodyMayBeOneCharacterShort_data()
    {
        QTest::addColumn<int>("length");
        QTest::newRow("one short") << 119;
        QTest::newRow("exact") << 120;
        QTest::newRow("one too long") << 121;
        QTest::newRow("much too long") << 5000;
    }

    void bodyMayBeOneCharacterShort()
    {
        QFETCH(const int, length);
        Connection* const connection = sendHead(callback(), "120");
        QVERIFY(connection);
        connection->send(bodyOf(length));
        VERIFY_SOON(!connection->isOpen());
        QCOMPARE(reports, QStringList{REPORT});
        VERIFY_SOON(nothingIsListed());
        QCOMPARE(connection->received, QByteArray());
    }

    void bodyTwoCharactersShortWaitsForMore()
    {
        Connection* const connection = sendHead(callback(), "120");
        // Characters count, and each byte is one.
        QVERIFY(connection && send(connection, bodyOf(109) + "<!--\xe9\xe9-->"));
        QVERIFY(sendLastEvent());
        QCOMPARE(reports, QStringList{LAST_REPORT});
        QVERIFY(connection->isOpen());
        QCOMPARE(manager().responseBuffers().size(), 1);

        connection->send("\n");
        VERIFY_SOON(!connection->isOpen());
        QCOMPARE(reports, (QStringList{LAST_REPORT, REPORT}));
    }

    void bodyInTheChunkOfTheHeadIsDropped()
    {
        Connection* const connection = send(connectToServer(), eventHead(callback().path, eventLength) + event);
        QVERIFY(connection);
        QVERIFY(sendLastEvent());
        QCOMPARE(reports, QStringList{LAST_REPORT});
        QCOMPARE(changes, QStringList{"KO=77,1"});
        QVERIFY(connection->isOpen());
        QCOMPARE(manager().requestSockets().size(), 1);
        QCOMPARE(manager().responseBuffers().values(), QStringList{QString()});

        connection->close();
        VERIFY_SOON(nothingIsListed());
        QCOMPARE(reports, QStringList{LAST_REPORT});
    }

    void headDecidesTheLengthOfTheBody_data()
    {
        QTest::addColumn<QByteArray>("field");
        QTest::newRow("none") << QByteArray();
        QTest::newRow("zero") << "CONTENT-LENGTH: 0\r\n"_ba;
        QTest::newRow("one") << "CONTENT-LENGTH: 1\r\n"_ba;
        QTest::newRow("empty") << "CONTENT-LENGTH:\r\n"_ba;
        QTest::newRow("no number") << "CONTENT-LENGTH: many\r\n"_ba;
        QTest::newRow("hexadecimal") << "CONTENT-LENGTH: 0x1000\r\n"_ba;
        QTest::newRow("a number and more") << "CONTENT-LENGTH: 5000 bytes\r\n"_ba;
        QTest::newRow("beyond int") << "CONTENT-LENGTH: 99999999999\r\n"_ba;
        QTest::newRow("beyond int, negative") << "CONTENT-LENGTH: -99999999999\r\n"_ba;
        QTest::newRow("exact") << "CONTENT-LENGTH: " + eventLength + "\r\n";
        QTest::newRow("line feed only") << "CONTENT-LENGTH: " + eventLength + "\n";
        QTest::newRow("spaces around") << "CONTENT-LENGTH :  " + eventLength + "\t\r\n";
        QTest::newRow("sign") << "CONTENT-LENGTH: +" + eventLength + "\r\n";
        QTest::newRow("letter case") << "content-Length: " + eventLength + "\r\n";
        QTest::newRow("a longer name") << "CONTENT-LENGTHY: " + eventLength + "\r\n";
        QTest::newRow("first of two") << "CONTENT-LENGTH: " + eventLength + "\r\nCONTENT-LENGTH: 5000\r\n";
        QTest::newRow("after a zero byte") << "\0CONTENT-LENGTH: 5000\r\n"_ba;
    }

    void headDecidesTheLengthOfTheBody()
    {
        QFETCH(const QByteArray, field);
        const QByteArray line = "NOTIFY " + callback().path + " HTTP/1.1\r\n";
        Connection* const connection = send(connectToServer(), line + "NT: upnp:event\r\n" + field + "\r\n");
        QVERIFY(connection);
        QCOMPARE(reports, QStringList());
        connection->send(event);
        VERIFY_SOON(!connection->isOpen());
        QCOMPARE(reports, QStringList{REPORT});
        VERIFY_SOON(nothingIsListed());
    }

    void negativeLengthKeepsTheConnectionInTheHeadAndLeavesNoEntry()
    {
        const QByteArray negative = eventHead(callback().path, "-1");
        Connection* const connection = sendHead(callback(), "-1");
        QVERIFY(connection);
        // A chunk that is no event but a head again, and one that is of no service.
        connection->send(event);
        VERIFY_SOON(!connection->isOpen() && nothingIsListed());

        Connection* const patient = sendHead(callback(), "-120");
        QVERIFY(patient);
        for (int i = 0; i < 3; ++i)
            QVERIFY(send(patient, negative + event));
        QCOMPARE(reports, QStringList());
        QCOMPARE(manager().requestSockets().size(), 1);
        QVERIFY(send(patient, eventHead(callback().path, eventLength)));
        patient->send(event);
        VERIFY_SOON(!patient->isOpen());
        QCOMPARE(reports, QStringList{REPORT});
        VERIFY_SOON(nothingIsListed());

        Connection* const endedByThePeer = sendHead(callback(), "-1");
        QVERIFY(endedByThePeer && send(endedByThePeer, negative));
        endedByThePeer->close();
        VERIFY_SOON(nothingIsListed());
        QVERIFY(sendLastEvent());
    }

    void bodyMayComeInManyChunks()
    {
        Connection* const connection = sendHead(callback(), eventLength);
        QVERIFY(connection);
        int sent = 0;
        for (; sent + 10 < event.size(); sent += 10) {
            QVERIFY(send(connection, event.mid(sent, 10)));
            QCOMPARE(reports, QStringList());
        }
        connection->send(event.mid(sent));
        VERIFY_SOON(!connection->isOpen());
        QCOMPARE(reports, QStringList{REPORT});
    }

    void zeroByteEndsTheTextOfItsChunk()
    {
        Connection* const connection = sendHead(callback(), eventLength);
        QVERIFY(connection);
        QVERIFY(send(connection, event.left(50) + '\0' + QByteArray(5000, 'x')));
        QVERIFY(send(connection, QByteArray(5000, '\0')));
        connection->send(event.mid(50) + '\0' + "<x>");
        VERIFY_SOON(!connection->isOpen());
        QCOMPARE(reports, QStringList{REPORT});
    }

    void requestLineFindsTheService_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::newRow("as subscribed") << "NOTIFY /ID_%4 HTTP/1.1"_ba;
        QTest::newRow("no tail") << "NOTIFY /ID HTTP/1.1"_ba;
        QTest::newRow("another tail") << "NOTIFY /ID-1234/a?b#c HTTP/1.1"_ba;
        QTest::newRow("no protocol") << "NOTIFY /ID_%4"_ba;
        QTest::newRow("another method") << "GET /ID_%4 HTTP/0.9"_ba;
        QTest::newRow("no method") << " /ID_%4"_ba;
        QTest::newRow("no slash") << "NOTIFY ID_%4 HTTP/1.1"_ba;
        QTest::newRow("many slashes") << "NOTIFY //ID/_%4/ HTTP/1.1"_ba;
        QTest::newRow("slashes within") << "NOTIFY /I/D_%4 HTTP/1.1"_ba;
        QTest::newRow("upper case") << "NOTIFY /UPPER_%4 HTTP/1.1"_ba;
        QTest::newRow("braces") << "NOTIFY /{ID} HTTP/1.1"_ba;
    }

    void requestLineFindsTheService()
    {
        QFETCH(QByteArray, line);
        const QByteArray id = callback().path.mid(1, 36);
        line.replace("UPPER", id.toUpper()).replace("I/D", id.left(9) + "/" + id.mid(9)).replace("ID", id);
        Connection* const connection = send(connectToServer(), line + "\r\nHOST: 10.77.0.1\r\n\r\n");
        QVERIFY(connection);
        connection->send(event);
        VERIFY_SOON(!connection->isOpen());
        QCOMPARE(reports, QStringList{REPORT});
    }

    void requestLineWithoutAServiceClosesTheConnection_data()
    {
        QTest::addColumn<QByteArray>("head");
        const QByteArray unknown = "NOTIFY /6f9619ff-8b86-d011-b42d-00c04fc964ff_%4 HTTP/1.1\r\n";
        QTest::newRow("unknown identifier") << unknown + "CONTENT-LENGTH: 5\r\n\r\n";
        QTest::newRow("unknown identifier, negative length") << unknown + "CONTENT-LENGTH: -5\r\n\r\n";
        QTest::newRow("no identifier") << "NOTIFY /event HTTP/1.1\r\nCONTENT-LENGTH: 5\r\n\r\n"_ba;
        QTest::newRow("null identifier") << "NOTIFY /00000000-0000-0000-0000-000000000000_%4 HTTP/1.1\r\n\r\n"_ba;
        QTest::newRow("uuid: in front") << "NOTIFY /uuid:ID_%4 HTTP/1.1\r\n\r\n"_ba;
        QTest::newRow("35 characters of it") << "NOTIFY /CUT HTTP/1.1\r\n\r\n"_ba;
        QTest::newRow("two spaces") << "NOTIFY  /ID_%4 HTTP/1.1\r\n\r\n"_ba;
        QTest::newRow("a tab for the space") << "NOTIFY\t/ID_%4\tHTTP/1.1\r\n\r\n"_ba;
        QTest::newRow("one field") << "/ID_%4\r\n\r\n"_ba;
        QTest::newRow("in the second line") << "\r\nNOTIFY /ID_%4 HTTP/1.1\r\n\r\n"_ba;
        QTest::newRow("after a zero byte") << "NOTIFY \0/ID_%4 HTTP/1.1\r\n\r\n"_ba;
        QTest::newRow("an empty line") << "\n"_ba;
        QTest::newRow("a zero byte") << "\0"_ba;
    }

    void requestLineWithoutAServiceClosesTheConnection()
    {
        QFETCH(QByteArray, head);
        const QByteArray id = callback().path.mid(1, 36);
        head.replace("ID", id).replace("CUT", id.left(35));
        const QStringList before = log();
        Connection* const connection = connectToServer();
        connection->send(head);
        VERIFY_SOON(!connection->isOpen());
        QCOMPARE(connection->received, QByteArray());
        VERIFY_SOON(nothingIsListed());
        QCOMPARE(log(), before);
        QVERIFY(sendLastEvent());
        QCOMPARE(reports, QStringList{LAST_REPORT});
    }

    void bodySetsStateVariables_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QStringList>("expected");
        const auto add = [](const char* name, const QByteArray& properties, const QStringList& expected) {
            QTest::newRow(name) << propertySet(properties) << expected;
        };
        const QByteArray A = eventProperty("A", "1");
        add("two properties", eventProperty("KO1", "a") + eventProperty("KO2", "b"), {"KO1=a", "KO2=b"});
        add("other way round", eventProperty("KO2", "b") + eventProperty("KO1", "a"), {"KO2=b", "KO1=a"});
        add("the same variable twice", A + eventProperty("A", "2"), {"A=1", "A=2"});
        add("two elements in a property", "<e:property><A>1</A><B>2</B></e:property>", {"A=1"});
        add("text in front of the element", "<e:property>x<A>1</A></e:property>", {"A=1"});
        add("property without an element", "<e:property/>", {"="});
        add("property with text only", "<e:property>x</e:property>", {"="});
        add("empty value", "<e:property><A/></e:property>", {"A="});
        add("spaces are kept", eventProperty("A", " 1 \n2 "), {"A= 1 \n2 "});
        add("entities and CDATA", eventProperty("A", "&lt;&amp;&#65;<![CDATA[<b>]]>"), {"A=<&A<b>"});
        add("elements within the value", eventProperty("A", "1<b>2</b>3"), {"A=123"});
        add("8-bit text", eventProperty("A", "\xe9"), {"A="_s + QChar(0xe9)});
        add("other elements between", "<x/>" + A + "<property><B/></property>" + A, {"A=1", "A=1"});
        add("empty property set", "", {});
        add("other letter case", "<e:Property><A>1</A></e:Property>", {});
        add("deeper property", "<x>" + A + "</x>", {});
        QTest::newRow("deeper property set") << "<x><e:propertyset>" + A + "</e:propertyset></x>" << QStringList();
        QTest::newRow("no namespace") << "<e:propertyset>" + A + "</e:propertyset>" << QStringList{"A=1"};
    }

    void bodySetsStateVariables()
    {
        QFETCH(const QByteArray, body);
        QFETCH(const QStringList, expected);
        const QStringList before = log();
        QVERIFY(sendEvent(callback(), body));
        QCOMPARE(changes, expected);
        QCOMPARE(log(), before);
        QVERIFY(variables().value("KO").isNull());
        QVERIFY(sendLastEvent());
        QCOMPARE(reports, QStringList{LAST_REPORT});
    }

    void bodyThatDoesNotParseIsLogged_data()
    {
        QByteArray attributes;
        for (int i = 0; i < 257; ++i)
            attributes += " a" + QByteArray::number(i) + "=''";
        const QByteArray subset = "<!DOCTYPE a [<!ENTITY b 'c'>]><e:propertyset ";
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("no text") << "\0"_ba;
        QTest::newRow("no XML") << "KO=12,34"_ba;
        QTest::newRow("cut") << event.chopped(1);
        QTest::newRow("deeper than 128 levels") << "<a>"_ba.repeated(129) + "</a>"_ba.repeated(129);
        QTest::newRow("more than 256 attributes") << QByteArray(event).replace("<KO>", "<KO" + attributes + ">");
        QTest::newRow("internal subset") << QByteArray(event).replace("<e:propertyset ", subset);
    }

    void bodyThatDoesNotParseIsLogged()
    {
        QFETCH(const QByteArray, body);
        const auto lines = log().size();
        QVERIFY(sendEvent(callback(), body));
        QCOMPARE(log().mid(lines), QStringList{NOT_PARSED});
        QCOMPARE(changes, QStringList());
        QCOMPARE(variables().size(), 1);
        VERIFY_SOON(nothingIsListed());
        QVERIFY(sendLastEvent());
    }

    void laterEventKeepsTheKeyObject()
    {
        QVERIFY(sendEvent(callback(), event));
        QVERIFY(sendEvent(callback(), eventBody("Ko", "1,1")));
        QVERIFY(sendEvent(callback(), eventBody("KO2", "2,2")));
        QCOMPARE(variables().value("KO"), "12,34"_s);
        QCOMPARE(reports, QStringList{REPORT});
        QCOMPARE(changes, (QStringList{"KO=12,34", "Ko=1,1", "KO2=2,2"}));
        QCOMPARE(variables().size(), 3);
    }

    void connectionMayEndAtAnyTime_data()
    {
        QTest::addColumn<int>("chunks");
        QTest::addColumn<bool>("hard");
        QTest::newRow("closed without a byte") << 0 << false;
        QTest::newRow("reset without a byte") << 0 << true;
        QTest::newRow("closed after the head") << 1 << false;
        QTest::newRow("reset after the head") << 1 << true;
        QTest::newRow("closed within the body") << 2 << false;
        QTest::newRow("reset within the body") << 2 << true;
    }

    void connectionMayEndAtAnyTime()
    {
        QFETCH(const int, chunks);
        QFETCH(const bool, hard);
        Connection* const connection = chunks == 0 ? connectToServer() : sendHead(callback(), "120");
        QVERIFY(connection);
        if (chunks == 2)
            QVERIFY(send(connection, bodyOf(118)));
        QCOMPARE(manager().requestSockets().size(), chunks == 0 ? 0 : 1);
        connection->end(hard);
        VERIFY_SOON(nothingIsListed());
        QVERIFY(sendLastEvent());
        QCOMPARE(reports, QStringList{LAST_REPORT});
    }

    void connectionMaySayNothing()
    {
        const Connection* const silent = connectToServer();
        QVERIFY(sendLastEvent());
        QVERIFY(silent->isOpen());
        VERIFY_SOON(nothingIsListed());
    }

    void eventsOfSeveralConnectionsDoNotMix()
    {
        const QByteArray first = eventBody("KO", "1,1");
        const QByteArray second = eventBody("KO", "2,2");
        Connection* const one = sendHead(callback(), QByteArray::number(first.size()));
        Connection* const two = sendHead(callback(), QByteArray::number(second.size()));
        QVERIFY(one && two);
        QVERIFY(send(one, first.left(90)) && send(two, second.left(80)));
        two->send(second.mid(80));
        VERIFY_SOON(!two->isOpen());
        one->send(first.mid(90));
        VERIFY_SOON(!one->isOpen());
        QCOMPARE(reports, (QStringList{"2,2 at 10.77.1.1", "1,1 at 10.77.1.1"}));
    }

    void sameEventTwiceGivesTheSameReportTwice()
    {
        const auto lines = log().size();
        QVERIFY(sendEvent(callback(), event));
        QVERIFY(sendEvent(callback(), event));
        QCOMPARE(reports, (QStringList{REPORT, REPORT}));
        const QString line = "0|Device with FC:12 and UC:34 found at 10.77.1.1";
        QCOMPARE(log().mid(lines), (QStringList{line, line}));
    }

    void eventAfterTheDiscoveryIsReported_data()
    {
        QTest::addColumn<bool>("stopped");
        QTest::newRow("after stop()") << true;
        QTest::newRow("after the time-out") << false;
    }

    void eventAfterTheDiscoveryIsReported()
    {
        QFETCH(const bool, stopped);
        QTimer* const timer = ssdp->findChild<QTimer*>();
        if (stopped)
            ssdp->stop();
        else
            timer->start(0);
        VERIFY_SOON(!timer->isActive());
        QVERIFY(sendEvent(callback(), event));
        QCOMPARE(reports, QStringList{REPORT});
        QCOMPARE(timeouts, stopped ? 0 : 1);
        QVERIFY(!timer->isActive());
    }
};

VELMORA_WIRE_TEST_MAIN(EventsTest)

#include "tst_events.moc"

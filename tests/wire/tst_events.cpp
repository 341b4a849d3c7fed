#include <tests/support/ProcessState.h>
#include <tests/support/WireTest.h>

using namespace Velmora::Tests;
using Velmora::SSDP::SsdpDevice;
using Velmora::SSDP::SsdpManager;
using Velmora::SSDP::SsdpService;

const char REPORT[] = "12,34 at 10.77.1.1";
const char EVENT_NOT_PARSED[] = "1|void Velmora::SSDP::SsdpManager::updateStateVariables("
                                "Velmora::SSDP::SsdpService*, const QString&)|Could not parse event xml";

/// How the event server reads events. tests/unit/tst_text.cpp tests which service a request line names,
/// tests/unit/tst_documents.cpp what a body says.
class EventsTest : public WireTest
{
    Q_OBJECT

    /// An event that gives REPORT.
    const QByteArray event = eventBody("KO", "12,34");
    const QByteArray eventLength = QByteArray::number(event.size());
    QStringList changes;

    /// Returns an event body of exactly @p length characters that gives REPORT.
    static QByteArray bodyOf(int length)
    {
        const QByteArray body("<e:propertyset><e:property><KO>12,34</KO></e:property></e:propertyset>");
        return body + QByteArray(length - static_cast<int>(body.size()), '\n');
    }

private Q_SLOTS:
    void init()
    {
        WireTest::init();
        QVERIFY(findDevice());
        changes.clear();
        connect(controlPoint(), &SsdpManager::valueChanged, this,
                [this](const SsdpDevice* from, const SsdpService* service, const QString& name) {
                    changes << name + QLatin1Char('=') + service->stateVariables.value(name);
                    QVERIFY(from == record());
                    QVERIFY(from->services.contains(const_cast<SsdpService*>(service)));
                });
    }

    void bodyMayBeOneCharacterShort_data()
    {
        const Table<int> row("length");
        row("one short", 119);
        row("exact", 120);
        row("one too long", 121);
        row("much too long", 5000);
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
        // The length counts characters. Every byte is a character.
        QVERIFY(connection);
        QVERIFY(send(connection, bodyOf(109) + "<!--\xe9\xe9-->"));
        QCOMPARE(allReports(), QStringList{LAST_REPORT});
        QVERIFY(connection->isOpen());
        QCOMPARE(manager().responseBuffers().size(), 1);

        connection->send("\n");
        VERIFY_SOON(!connection->isOpen());
        QCOMPARE(reports, (QStringList{LAST_REPORT, REPORT}));
    }

    void bodyInTheSegmentOfTheHeadIsDropped()
    {
        Connection* const connection = connectTo(callback());
        QVERIFY(send(connection, eventHead(callback().path, eventLength) + event));
        QCOMPARE(allReports(), QStringList{LAST_REPORT});
        QCOMPARE(changes, QStringList{"KO=77,1"});
        QVERIFY(connection->isOpen());
        QCOMPARE(manager().requestSockets().size(), 1);
        QCOMPARE(manager().responseBuffers().values(), QStringList{QString()});

        connection->close();
        VERIFY_SOON(nothingIsListed());
        QCOMPARE(reports, QStringList{LAST_REPORT});
    }

    void headSaysTheLengthOfTheBody_data()
    {
        const Table<QByteArray> row("field");
        row("none", "");
        row("zero", "CONTENT-LENGTH: 0\r\n");
        row("one", "CONTENT-LENGTH: 1\r\n");
        row("empty", "CONTENT-LENGTH:\r\n");
        row("not a number", "CONTENT-LENGTH: many\r\n");
        row("hexadecimal", "CONTENT-LENGTH: 0x1000\r\n");
        row("a number and more", "CONTENT-LENGTH: 5000 bytes\r\n");
        row("beyond int", "CONTENT-LENGTH: 99999999999\r\n");
        row("beyond int, negative", "CONTENT-LENGTH: -99999999999\r\n");
        row("exact", "CONTENT-LENGTH: " + eventLength + "\r\n");
        row("sign", "CONTENT-LENGTH: +" + eventLength + "\r\n");
        row("after a zero byte", "\0CONTENT-LENGTH: 5000\r\n"_ba);
    }

    void headSaysTheLengthOfTheBody()
    {
        QFETCH(const QByteArray, field);
        Connection* const connection = connectTo(callback());
        QVERIFY(
            send(connection, "NOTIFY " + callback().path + " HTTP/1.1\r\nNT: upnp:event\r\n" + field + "\r\n"));
        QCOMPARE(reports, QStringList());
        connection->send(event);
        VERIFY_SOON(!connection->isOpen());
        QCOMPARE(reports, QStringList{REPORT});
        VERIFY_SOON(nothingIsListed());
    }

    void segmentAfterANegativeLengthIsAnotherHead()
    {
        const QByteArray negative = eventHead(callback().path, "-1");
        Connection* const bodyForAHead = sendHead(callback(), "-1");
        QVERIFY(bodyForAHead);
        bodyForAHead->send(event);
        VERIFY_SOON(!bodyForAHead->isOpen() && nothingIsListed());

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

    void bodyMayComeInManySegments()
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

    void zeroByteEndsTheTextOfItsSegment()
    {
        Connection* const connection = sendHead(callback(), eventLength);
        QVERIFY(connection);
        QVERIFY(send(connection, event.left(50) + '\0' + QByteArray(5000, 'x')));
        QVERIFY(send(connection, QByteArray(5000, '\0')));
        connection->send(event.mid(50) + '\0' + "<x>");
        VERIFY_SOON(!connection->isOpen());
        QCOMPARE(reports, QStringList{REPORT});
    }

    void headWithoutAServiceClosesTheConnection_data()
    {
        const Table<QByteArray> row("head");
        const QByteArray unknown = "NOTIFY /6f9619ff-8b86-d011-b42d-00c04fc964ff_%4 HTTP/1.1\r\n";
        row("unknown identifier", unknown + "CONTENT-LENGTH: 5\r\n\r\n");
        row("unknown identifier, negative length", unknown + "CONTENT-LENGTH: -5\r\n\r\n");
        row("identifier after a zero byte", "NOTIFY \0/ID_%4 HTTP/1.1\r\n\r\n"_ba);
        row("an empty line", "\n");
        row("a zero byte", "\0"_ba);
    }

    void headWithoutAServiceClosesTheConnection()
    {
        QFETCH(QByteArray, head);
        const QStringList before = log();
        Connection* const connection = connectTo(callback());
        connection->send(head.replace("/ID_%4", callback().path));
        VERIFY_SOON(!connection->isOpen());
        QCOMPARE(connection->received, QByteArray());
        VERIFY_SOON(nothingIsListed());
        QCOMPARE(log(), before);
        QCOMPARE(allReports(), QStringList{LAST_REPORT});
    }

    void bodySetsStateVariables_data()
    {
        const Table<QByteArray, QStringList, QStringList> row("body", "expected", "logged");
        const QByteArray first = eventProperty("KO1", "a");
        const QByteArray second = eventProperty("KO2", "b");
        row("two properties", propertySet(first + second), {"KO1=a", "KO2=b"}, {});
        row("other way round", propertySet(second + first), {"KO2=b", "KO1=a"}, {});
        row("the same variable twice", propertySet(first + eventProperty("KO1", "c")), {"KO1=a", "KO1=c"}, {});
        row("property without an element", propertySet("<e:property/>"), {"="}, {});
        row("8-bit text", propertySet(eventProperty("A", "\xe9")), {"A=\xe9"_s}, {});
        row("empty property set", propertySet(""), {}, {});
        row("no namespace", "<e:propertyset>" + first + "</e:propertyset>", {"KO1=a"}, {});
        row("no text", "\0"_ba, {}, {EVENT_NOT_PARSED});
        row("cut", event.chopped(1), {}, {EVENT_NOT_PARSED});
        row("too deep", "<a>"_ba.repeated(129) + "</a>"_ba.repeated(129), {}, {EVENT_NOT_PARSED});
    }

    void bodySetsStateVariables()
    {
        QFETCH(const QByteArray, body);
        QFETCH(const QStringList, expected);
        QFETCH(const QStringList, logged);
        const auto lines = log().size();
        QVERIFY(sendEvent(callback(), body));
        QCOMPARE(changes, expected);
        QCOMPARE(log().mid(lines), logged);
        QVERIFY(logged.isEmpty() || service()->stateVariables.size() == 1);
        QVERIFY(service()->stateVariables.value("KO").isNull());
        VERIFY_SOON(nothingIsListed());
        QCOMPARE(allReports(), QStringList{LAST_REPORT});
    }

    void laterEventKeepsTheKeyObject()
    {
        QVERIFY(sendEvent(callback(), event));
        QVERIFY(sendEvent(callback(), eventBody("Ko", "1,1")));
        QVERIFY(sendEvent(callback(), eventBody("KO2", "2,2")));
        QCOMPARE(service()->stateVariables.value("KO"), "12,34"_s);
        QCOMPARE(reports, QStringList{REPORT});
        QCOMPARE(changes, (QStringList{"KO=12,34", "Ko=1,1", "KO2=2,2"}));
        QCOMPARE(service()->stateVariables.size(), 3);
    }

    void connectionMayEndAtAnyTime_data()
    {
        const Table<int, bool> row("segments", "hard");
        row("closed without a byte", 0, false);
        row("reset without a byte", 0, true);
        row("closed after the head", 1, false);
        row("reset after the head", 1, true);
        row("closed within the body", 2, false);
        row("reset within the body", 2, true);
    }

    void connectionMayEndAtAnyTime()
    {
        QFETCH(const int, segments);
        QFETCH(const bool, hard);
        Connection* const connection = segments == 0 ? connectTo(callback()) : sendHead(callback(), "120");
        QVERIFY(connection);
        if (segments == 2)
            QVERIFY(send(connection, bodyOf(118)));
        QCOMPARE(manager().requestSockets().size(), segments == 0 ? 0 : 1);
        connection->end(hard);
        VERIFY_SOON(nothingIsListed());
        QCOMPARE(allReports(), QStringList{LAST_REPORT});
    }

    void eventsOfSeveralConnectionsDoNotMix()
    {
        const QByteArray first = eventBody("KO", "1,1");
        const QByteArray second = eventBody("KO", "2,2");
        const Connection* const silent = connectTo(callback());
        Connection* const one = sendHead(callback(), QByteArray::number(first.size()));
        Connection* const two = sendHead(callback(), QByteArray::number(second.size()));
        QVERIFY(one && two);
        QVERIFY(send(one, first.left(90)) && send(two, second.left(80)));
        two->send(second.mid(80));
        VERIFY_SOON(!two->isOpen());
        one->send(first.mid(90));
        VERIFY_SOON(!one->isOpen());
        QCOMPARE(reports, (QStringList{"2,2 at 10.77.1.1", "1,1 at 10.77.1.1"}));
        QVERIFY(silent->isOpen());
        VERIFY_SOON(nothingIsListed());
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
        const Table<bool> row("stopped");
        row("after stop()", true);
        row("after the time-out", false);
    }

    void eventAfterTheDiscoveryIsReported()
    {
        QFETCH(const bool, stopped);
        if (stopped)
            ssdp->stop();
        else
            timer()->start(0);
        VERIFY_SOON(!timer()->isActive());
        QVERIFY(sendEvent(callback(), event));
        QCOMPARE(reports, QStringList{REPORT});
        QCOMPARE(timeouts, stopped ? 0 : 1);
        QVERIFY(!timer()->isActive());
    }

    void serverAcceptsAgainAfterItsFirstAcceptHadNoDescriptor()
    {
        const Callback to = callback();
        // The server has not accepted them yet, because the event loop does not run.
        const QList<Connection*> connections{connectTo(to), connectTo(to), connectTo(to)};

        QSignalSpy failures(&manager().eventServer(), &QTcpServer::acceptError);
        {
            const ProcessState::DescriptorLimit none(ProcessState::nextDescriptor());
            VERIFY_SOON(failures.count() > 0);
        }
        for (Connection* const connection : connections) {
            QVERIFY(send(connection, eventHead(to.path, eventLength)));
            connection->send(event);
            VERIFY_SOON(!connection->isOpen());
        }
        QCOMPARE(reports.size(), 3);
        // The server keeps its first error, so it may pause again after every connection.
        for (int i = 0; i < 3; ++i)
            QVERIFY(sendEvent(to, event));
        QCOMPARE(reports.size(), 6);
    }

    void connectionWaitsForTheHostAndKeepsNoFlood()
    {
        const Callback to = callback();
        Connection* const connection = sendHead(to, eventLength);
        QVERIFY(connection);
        const QTcpSocket* const socket = manager().requestSockets().at(0);
        bool isOpenInSlot = false;
        qint64 keptInSlot = -1;
        const QObject context;
        connect(ssdp.get(), &Velmora::SSDP::Ssdp::discovered, &context,
                [this, connection, socket, to, wasOpen = &isOpenInSlot, kept = &keptInSlot] {
                    // If the library had closed the connection, the device would know before this event ends.
                    QVERIFY(sendEvent(to, eventBody("A", "1")));
                    *wasOpen = connection->isOpen();
                    connection->send(QByteArray(16 * 1024 * 1024, 'x'));
                    for (int i = 0; i < 20; ++i)
                        QVERIFY(sendEvent(to, eventBody("A", "1")));
                    *kept = socket->bytesAvailable();
                });
        connection->send(event);
        VERIFY_SOON(!connection->isOpen());
        QVERIFY(isOpenInSlot);
        QCOMPARE(connection->received, QByteArray());
        QVERIFY2(keptInSlot >= 0 && keptInSlot <= 64 * 1024, QByteArray::number(keptInSlot).constData());
    }
};

VELMORA_WIRE_TEST_MAIN(EventsTest)
#include "tst_events.moc"

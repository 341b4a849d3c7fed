#include <tests/support/KeptMessages.h>
#include <tests/support/Literals.h>
#include <tests/support/NamesAlike.h>
#include <tests/support/ProcessState.h>
#include <tests/support/WireTest.h>

using namespace Velmora::Tests;
using Velmora::SSDP::Ssdp;
using Velmora::SSDP::SsdpDevice;
using Velmora::SSDP::SsdpManager;
using Velmora::SSDP::SsdpService;

/// A test for each defect that the control point has had.
class RegressionsTest : public WireTest
{
    Q_OBJECT

private Q_SLOTS:
    void serverAcceptsAgainAfterItsFirstAcceptHadNoDescriptor()
    {
        QVERIFY(findDevice());
        const Callback to = callback();
        const QByteArray body = eventBody("KO", "12,34");
        // The server has not accepted them yet, because the event loop does not run.
        const QList<Connection*> connections{connectTo(to), connectTo(to), connectTo(to)};

        QSignalSpy failures(&manager().eventServer(), &QTcpServer::acceptError);
        {
            const ProcessState::DescriptorLimit none(ProcessState::nextDescriptor());
            VERIFY_SOON(failures.count() > 0);
        }
        for (Connection* const connection : connections) {
            QVERIFY(send(connection, eventHead(to.path, QByteArray::number(body.size()))));
            connection->send(body);
            VERIFY_SOON(!connection->isOpen());
        }
        QCOMPARE(reports.size(), 3);
        // The server keeps its first error, so it may pause again after every connection.
        for (int i = 0; i < 3; ++i)
            QVERIFY(sendEvent(to, body));
        QCOMPARE(reports.size(), 6);
    }

    void everyNameIsAnEntry_data()
    {
        const Table<QList<QByteArray>, int> row("names", "entries");
        // Without a bound, so many names with the same hash would take minutes.
        const int alike = QT_VERSION_MAJOR == 5 ? 64 : 20000;
        row("different names", manyNames(20000), 20000);
        row("names with the same hash on Qt 5", manyNames(20000, true), alike);
    }

    void everyNameIsAnEntry()
    {
        QFETCH(const QList<QByteArray>, names);
        QFETCH(const int, entries);
        // The names are state variables of a service. Each gets a connection.
        const QList<QByteArray> described = names.mid(0, 100);
        device->script("GET /desc.xml ", reply(deviceDescription()));
        device->script("GET /scpd.xml ", reply(serviceDescription(described)));
        device->script("SUBSCRIBE ", "");
        QVERIFY(search() && answerSearch());
        VERIFY_SOON(!manager().requestSockets().isEmpty());
        SsdpService* const service = WireTest::service();
        const int variables = qMin(100, entries);
        QCOMPARE(manager().requestSockets().size(), variables);
        QCOMPARE(service->stateVariables.size(), variables);
        for (const QByteArray& name : described.mid(0, variables))
            QVERIFY(service->stateVariables.contains(name));

        // The names are properties of an event.
        QStringList changes;
        connect(controlPoint(), &SsdpManager::valueChanged, this,
                [&changes](const SsdpDevice*, const SsdpService*, const QString& name) { changes << name; });
        service->stateVariables = {{"KO", ""}};
        const QList<QByteArray> reported = names.mid(0, entries);
        // The second event is reported completely, because the table contains its names.
        for (const QList<QByteArray>& sent : {names, reported}) {
            changes.clear();
            manager().updateStateVariables(service, eventOf(sent));
            QCOMPARE(changes.size(), entries);
            QVERIFY(std::equal(changes.cbegin(), changes.cend(), reported.cbegin()));
            QCOMPARE(service->stateVariables.size(), entries + 1);
        }
    }

    void nothingIsPrintedForForgottenRequests_data()
    {
        const Table<QString> row("location");
        row("no URL", "");
        row("unknown scheme", "none:/a");
        row("local file", "file:///dev/null");
        row("refused connection", "http://10.77.1.1:9/a");
        row("no route", "http://192.0.2.1/a");
        row("no answer", "http://10.77.1.1:8080/a");
        row("answer", "http://10.77.1.1:8080/answered");
    }

    void nothingIsPrintedForForgottenRequests()
    {
        QFETCH(const QString, location);
        device->script("GET /answered", reply("<a/>"));
        QVERIFY(search());
        const QHostAddress address("10.77.1.1"_s);
        const KeptMessages kept;
        // With more turns of the event loop, more requests have finished when the others are forgotten.
        for (int turns = 0; turns < 20; ++turns) {
            for (int i = 0; i < 10; ++i)
                manager().addSsdpDevice(address, location + QString::number(i));
            for (int turn = 0; turn < turns; ++turn)
                QCoreApplication::processEvents();
            controlPoint()->clearDevices();
            QCOMPARE(manager().deviceReplies().size(), 0);
        }
        ssdp->stop();
        QVERIFY(findDevice());
        QCOMPARE(kept.texts(), QStringList());
    }

    void connectionWaitsForTheHostAndKeepsNoFlood()
    {
        QVERIFY(findDevice());
        const Callback to = callback();
        const QByteArray body = eventBody("KO", "12,34");
        Connection* const connection = sendHead(to, QByteArray::number(body.size()));
        QVERIFY(connection);
        const QTcpSocket* const socket = manager().requestSockets().at(0);
        bool wasOpen = false;
        qint64 kept = -1;
        connect(ssdp.get(), &Ssdp::discovered, this, [&] {
            // If the library had closed the connection, the device would know before this event ends.
            QVERIFY(sendEvent(to, eventBody("A", "1")));
            wasOpen = connection->isOpen();
            connection->send(QByteArray(16 * 1024 * 1024, 'x'));
            for (int i = 0; i < 20; ++i)
                QVERIFY(sendEvent(to, eventBody("A", "1")));
            kept = socket->bytesAvailable();
        });
        connection->send(body);
        VERIFY_SOON(!connection->isOpen());
        QVERIFY(wasOpen);
        QCOMPARE(connection->received, QByteArray());
        QVERIFY2(kept >= 0 && kept <= 64 * 1024, QByteArray::number(kept).constData());
    }
};

VELMORA_WIRE_TEST_MAIN(RegressionsTest)
#include "tst_regressions.moc"

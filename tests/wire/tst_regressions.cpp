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

namespace {

/// What a host does in its slot for a changed variable.
enum Deletion {
    Directly,
    InAnEventLoop,
    InAnEventLoopWhileThePeerFloods,
    InTheSlotForAnotherEvent, ///< that arrives in an event loop of the slot
};

} // namespace

/// One test for each defect that was found in the control point.
class RegressionsTest : public WireTest
{
    Q_OBJECT

public:
    using WireTest::WireTest;

private Q_SLOTS:

    void serverAcceptsAgainAfterItsFirstAcceptHadNoDescriptor()
    {
        QVERIFY(findDevice());
        const Callback to = callback();
        const QByteArray body = eventBody("KO", "12,34");
        // The kernel connects them; the server has not yet come to accept any.
        QList<Connection*> connections;
        for (int i = 0; i < 3; ++i)
            connections << device->connectTo(to.host, to.port);

        const QObject context;
        int failures = 0;
        connect(&manager().eventServer(), &QTcpServer::acceptError, &context, [&failures] { ++failures; });
        {
            const ProcessState::DescriptorLimit none(ProcessState::nextDescriptor());
            VERIFY_SOON(failures > 0);
        }
        for (Connection* const connection : std::as_const(connections)) {
            connection->send(eventHead(to.path, QByteArray::number(body.size())));
            VERIFY_SOON(connection->wasRead());
            connection->send(body);
            VERIFY_SOON(!connection->isOpen());
        }
        QCOMPARE(reports.size(), 3);
        // The server pauses again after every connection, since it keeps its first error.
        for (int i = 0; i < 3; ++i)
            QVERIFY(sendEvent(to, body));
        QCOMPARE(reports.size(), 6);
    }

    void everyNameIsAnEntry_data()
    {
        QTest::addColumn<QList<QByteArray>>("names");
        QTest::addColumn<int>("entries");
        // Without a bound, so many names that hash alike would take minutes.
        const int alike = QT_VERSION_MAJOR == 5 ? 64 : 20000;
        QTest::newRow("different names") << manyNames(20000) << 20000;
        QTest::newRow("names that Qt 5 hashes alike") << manyNames(20000, true) << alike;
    }

    void everyNameIsAnEntry()
    {
        QFETCH(const QList<QByteArray>, names);
        QFETCH(const int, entries);
        // As state variables of a service, of which each gets a connection.
        const QList<QByteArray> described = names.mid(0, 100);
        device->script("GET /desc.xml ", reply(deviceDescription()));
        device->script("GET /scpd.xml ", reply(serviceDescription(described)));
        device->script("SUBSCRIBE ", "");
        QVERIFY(search() && answerSearch());
        VERIFY_SOON(!manager().requestSockets().isEmpty());
        SsdpService* const service = manager().devices().at(0)->services.at(0);
        const int variables = qMin(100, entries);
        QCOMPARE(manager().requestSockets().size(), variables);
        QCOMPARE(service->stateVariables.size(), variables);
        for (const QByteArray& name : described.mid(0, variables))
            QVERIFY(service->stateVariables.contains(name));

        // As properties of an event.
        QStringList changes;
        connect(ssdp->findChild<SsdpManager*>(), &SsdpManager::valueChanged, this,
                [&changes](const SsdpDevice*, const SsdpService*, const QString& name) { changes << name; });
        service->stateVariables = {{"KO", ""}};
        const QList<QByteArray> reported = names.mid(0, entries);
        // Names that the table has are reported however many hash alike.
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
        QTest::addColumn<QString>("location");
        // Nobody listens, no route, no answer, and an answer.
        for (const QByteArray& location :
             listOf("", "none:/a", "file:///dev/null", "http://10.77.1.1:9/a", "http://192.0.2.1/a",
                    "http://10.77.1.1:8080/a", "http://10.77.1.1:8080/answered"))
            QTest::newRow(location.isEmpty() ? "no URL" : location.constData()) << QString(location);
    }

    void nothingIsPrintedForForgottenRequests()
    {
        QFETCH(const QString, location);
        device->script("GET /answered", reply("<a/>"));
        QVERIFY(search());
        const QHostAddress address("10.77.1.1"_s);
        const KeptMessages kept;
        // At once, with events handled in between, and while the requests finish one after the other.
        for (int turns = 0; turns < 20; ++turns) {
            for (int i = 0; i < 10; ++i)
                manager().addSsdpDevice(address, location + QString::number(i));
            for (int turn = 0; turn < turns; ++turn)
                QCoreApplication::processEvents();
            ssdp->findChild<SsdpManager*>()->clearDevices();
            QCOMPARE(manager().deviceReplies().size(), 0);
        }
        ssdp->stop();
        QVERIFY(findDevice());
        QCOMPARE(kept.texts(), QStringList());
    }

    void hostMayDeleteTheControlPointInItsSlot_data()
    {
        QTest::addColumn<int>("deletion");
        QTest::newRow("directly") << int(Directly);
        QTest::newRow("in an event loop") << int(InAnEventLoop);
        QTest::newRow("in an event loop while the peer floods") << int(InAnEventLoopWhileThePeerFloods);
        QTest::newRow("in the slot for another event") << int(InTheSlotForAnotherEvent);
    }

    void hostMayDeleteTheControlPointInItsSlot()
    {
        QFETCH(const int, deletion);
        ssdp.reset();
        scriptDevice();
        auto control = std::make_unique<SsdpManager>(QHostAddress("10.77.0.1"));
        control->initialize();
        control->discover();
        VERIFY_SOON(!device->searches.isEmpty());
        QVERIFY(beFound());
        const Callback to = callback();
        const QByteArray body = propertySet(eventProperty("KO", "1,1") + eventProperty("KO", "2,2"));
        Connection* const connection = sendHead(to, QByteArray::number(body.size()));
        Connection* const another = sendHead(to, QByteArray::number(body.size()));
        QVERIFY(connection && another);

        int changes = 0;
        connect(control.get(), &SsdpManager::valueChanged, this, [&] {
            ++changes;
            if (deletion == Directly || changes == 2) {
                control.reset();
                return;
            }
            if (deletion == InAnEventLoopWhileThePeerFloods)
                connection->send(QByteArray(1024 * 1024, 'x'));
            if (deletion == InTheSlotForAnotherEvent)
                another->send(body);
            else
                QMetaObject::invokeMethod(
                    this, [&control] { control.reset(); }, Qt::QueuedConnection);
            QVERIFY(waitUntil([&control] { return !control; }));
        });
        connection->send(body);
        VERIFY_SOON(!connection->isOpen() && !another->isOpen());
        QVERIFY(!control);
        QCOMPARE(changes, deletion == InTheSlotForAnotherEvent ? 2 : 1);
    }

    void connectionIsOpenWhileTheHostIsInItsSlot()
    {
        QVERIFY(findDevice());
        const Callback to = callback();
        const QByteArray body = eventBody("KO", "12,34");
        Connection* const connection = sendHead(to, QByteArray::number(body.size()));
        QVERIFY(connection);
        bool wasOpen = false;
        connect(ssdp.get(), &Ssdp::discovered, this, [&] {
            // A close would have reached the device before the end of a whole event.
            QVERIFY(sendEvent(to, eventBody("A", "1")));
            wasOpen = connection->isOpen();
        });
        connection->send(body);
        VERIFY_SOON(!connection->isOpen());
        QVERIFY(wasOpen);
        QCOMPARE(connection->received, QByteArray());
    }

    void floodWhileTheHostIsInItsSlotIsNotKept()
    {
        QVERIFY(findDevice());
        const Callback to = callback();
        const QByteArray body = eventBody("KO", "12,34");
        Connection* const connection = sendHead(to, QByteArray::number(body.size()));
        QVERIFY(connection);
        const QTcpSocket* const socket = manager().requestSockets().at(0);
        qint64 kept = -1;
        connect(ssdp.get(), &Ssdp::discovered, this, [&] {
            connection->send(QByteArray(16 * 1024 * 1024, 'x'));
            for (int i = 0; i < 20; ++i)
                QVERIFY(sendEvent(to, eventBody("A", "1")));
            kept = socket->bytesAvailable();
        });
        connection->send(body);
        VERIFY_SOON(!connection->isOpen());
        QVERIFY2(kept >= 0 && kept <= 64 * 1024, QByteArray::number(kept).constData());
    }
};

VELMORA_WIRE_TEST_MAIN(RegressionsTest)

#include "tst_regressions.moc"

#include <tests/support/Literals.h>
#include <tests/support/WireTest.h>

using namespace Velmora::Tests;
using Velmora::SSDP::Ssdp;

namespace {

/// What a host does in its slot.
enum Action {
    Stop,
    Discover,
    StopAndDiscover,
    DeleteLater,
    Delete,
    RunLoop, ///< an event loop of its own, in which another event arrives
    RunLoopWhilePeerCloses,
    RunLoopWhilePeerResets,
    RunLoopAndRestart,
    RunLoopAndDelete,
};

/// How far a discovery has come.
enum Stage {
    Idle,
    Searching,
    DescriptionAskedFor,
    DescriptionBegun,
    ServiceDescriptionAskedFor,
    Connecting,
    Subscribing,
    Subscribed,
    SilentEventConnection,
    SilentBesideHeadSeen,
    HeadSeen,
    NegativeLength,
    BodyBegun,
};

} // namespace

/// What a host may do with the controller, and when.
class LifetimeTest : public WireTest
{
    Q_OBJECT

public:
    using WireTest::WireTest;

private Q_SLOTS:

    void hostMayActInItsSlotForADevice_data()
    {
        QTest::addColumn<int>("action");
        QTest::addColumn<int>("expectedReports");
        QTest::newRow("stop") << int(Stop) << 3;
        QTest::newRow("discover") << int(Discover) << 3;
        QTest::newRow("stop and discover") << int(StopAndDiscover) << 1;
        QTest::newRow("deleteLater") << int(DeleteLater) << 3;
        QTest::newRow("delete") << int(Delete) << 1;
        QTest::newRow("event loop") << int(RunLoop) << 4;
        QTest::newRow("event loop while the device closes the connection") << int(RunLoopWhilePeerCloses) << 3;
        QTest::newRow("event loop while the device resets the connection") << int(RunLoopWhilePeerResets) << 3;
        QTest::newRow("event loop with stop and discover") << int(RunLoopAndRestart) << 1;
        QTest::newRow("event loop with delete") << int(RunLoopAndDelete) << 1;
    }

    void hostMayActInItsSlotForADevice()
    {
        QFETCH(const int, action);
        QFETCH(const int, expectedReports);
        acted = false;
        connect(ssdp.get(), &Ssdp::discovered, this, [this, action] {
            if (!acted) {
                acted = true;
                act(static_cast<Action>(action));
            }
        });
        QVERIFY(findDevice());
        const QByteArray body(
            "<e:propertyset><e:property><KO>1,1</KO></e:property><e:property><KO>2,2</KO></e:property>"
            "<e:property><KO>3,3</KO></e:property></e:propertyset>");
        eventConnection = sendHead(callback(), QByteArray::number(body.size()));
        QVERIFY(eventConnection);
        eventSocket = manager().requestSockets().at(0);
        const QPointer<Ssdp> controller(ssdp.get());
        eventConnection->send(body);
        VERIFY_SOON(acted && !eventConnection->isOpen());
        QCOMPARE(reports.size(), expectedReports);
        QCOMPARE(reports.at(0), "1,1 at 10.77.1.1"_s);

        if (!ssdp) {
            VERIFY_SOON(!controller);
            VERIFY_SOON(allIsClosed());
            return;
        }
        VERIFY_SOON(manager().requestSockets().isEmpty());
        QVERIFY(manager().requestSocketServices().isEmpty());
        QVERIFY(manager().responseContentLengths().isEmpty());
        QVERIFY(manager().responseBuffers().isEmpty());

        // The controller is as good as new.
        ssdp->stop();
        QVERIFY(findDevice());
        QVERIFY(sendLastEvent());
        QCOMPARE(reports.size(), expectedReports + 1);
    }

    void hostMayActInItsSlotForTheTimeout_data()
    {
        QTest::addColumn<int>("action");
        QTest::newRow("stop") << int(Stop);
        QTest::newRow("discover") << int(Discover);
        QTest::newRow("stop and discover") << int(StopAndDiscover);
        QTest::newRow("deleteLater") << int(DeleteLater);
        QTest::newRow("delete") << int(Delete);
        QTest::newRow("event loop") << int(RunLoop);
        QTest::newRow("event loop with stop and discover") << int(RunLoopAndRestart);
        QTest::newRow("event loop with delete") << int(RunLoopAndDelete);
    }

    void hostMayActInItsSlotForTheTimeout()
    {
        QFETCH(const int, action);
        acted = false;
        connect(ssdp.get(), &Ssdp::timeoutExpired, this, [this, action] {
            if (!acted) {
                acted = true;
                act(static_cast<Action>(action));
            }
        });
        QVERIFY(findDevice());
        const QPointer<Ssdp> controller(ssdp.get());
        ssdp->findChild<QTimer*>()->start(0);
        VERIFY_SOON(acted);
        QCOMPARE(timeouts, 1);

        if (!ssdp) {
            VERIFY_SOON(!controller);
            VERIFY_SOON(allIsClosed());
            return;
        }
        ssdp->stop();
        QVERIFY(findDevice());
        QVERIFY(sendLastEvent());
        QCOMPARE(timeouts, 1);
    }

    void controllerMayGoAtAnyStage_data()
    {
        QTest::addColumn<int>("stage");
        QTest::addColumn<bool>("later");
        const QList<QPair<const char*, Stage>> stages{
            {"idle", Idle},
            {"searching", Searching},
            {"description asked for", DescriptionAskedFor},
            {"description begun", DescriptionBegun},
            {"service description asked for", ServiceDescriptionAskedFor},
            {"connecting", Connecting},
            {"subscribing", Subscribing},
            {"subscribed", Subscribed},
            {"silent event connection", SilentEventConnection},
            {"silent event connection and head of an event seen", SilentBesideHeadSeen},
            {"head of an event seen", HeadSeen},
            {"head with a negative length seen", NegativeLength},
            {"body of an event begun", BodyBegun},
        };
        for (const auto& stage : stages) {
            QTest::addRow("%s, delete", stage.first) << int(stage.second) << false;
            QTest::addRow("%s, deleteLater", stage.first) << int(stage.second) << true;
        }
    }

    void controllerMayGoAtAnyStage()
    {
        QFETCH(const int, stage);
        QFETCH(const bool, later);
        filler = nullptr;
        QVERIFY(comeTo(static_cast<Stage>(stage)));
        const QStringList before = log();
        if (later) {
            const QPointer<Ssdp> controller(ssdp.get());
            ssdp.release()->deleteLater();
            VERIFY_SOON(!controller);
        } else {
            ssdp.reset();
        }
        VERIFY_SOON(allIsClosed());
        QCOMPARE(log(), before);
        QCOMPARE(reports, QStringList());
        QCOMPARE(timeouts, 0);

        // Its port is free again.
        CapturedLog::clear();
        ssdp = newController(60000);
        device.reset();
        device = std::make_unique<ScriptedDevice>(network, "10.77.1.1"_s, quint16(8080));
        QVERIFY(findDevice());
        QVERIFY(sendLastEvent());
        QCOMPARE(device->searches.last().port, quint16(49152));
    }

private:
    /// Runs an event loop, as a host does that shows a dialog, until @p condition holds.
    static void runLoopUntil(const std::function<bool()>& condition)
    {
        QEventLoop loop;
        QTimer tick;
        connect(&tick, &QTimer::timeout, &loop, [&] {
            if (condition())
                loop.quit();
        });
        tick.start(2);
        loop.exec();
    }

    void act(Action action)
    {
        const QPointer<Ssdp> alive(ssdp.get());
        switch (action) {
        case Stop:
            ssdp->stop();
            break;
        case Discover:
            QCOMPARE(ssdp->discover(), 3);
            break;
        case StopAndDiscover:
            ssdp->stop();
            ssdp->discover();
            break;
        case DeleteLater:
            ssdp.release()->deleteLater();
            break;
        case Delete:
            ssdp.reset();
            break;
        case RunLoop: {
            const Callback to = callback();
            Connection* const another = device->connectTo(to.host, to.port);
            another->send("NOTIFY " + to.path + " HTTP/1.1\r\nCONTENT-LENGTH: 5000\r\n\r\n");
            runLoopUntil([&] { return another->wasRead(); });
            another->send(eventBody("KO", "5,6") + QByteArray(5000, '\n'));
            runLoopUntil([&] { return reports.contains("5,6 at 10.77.1.1") && !another->isOpen(); });
            break;
        }
        case RunLoopWhilePeerCloses:
        case RunLoopWhilePeerResets: {
            if (action == RunLoopWhilePeerCloses)
                eventConnection->close();
            else
                eventConnection->reset();
            runLoopUntil([&] { return eventSocket->state() == QAbstractSocket::UnconnectedState; });
            break;
        }
        case RunLoopAndRestart: {
            const auto before = device->searches.size();
            QTimer soon;
            connect(&soon, &QTimer::timeout, this, [this] {
                ssdp->stop();
                ssdp->discover();
            });
            soon.setSingleShot(true);
            soon.start(0);
            runLoopUntil([&] { return device->searches.size() > before; });
            break;
        }
        case RunLoopAndDelete: {
            QTimer soon;
            connect(&soon, &QTimer::timeout, this, [this] { ssdp.reset(); });
            soon.setSingleShot(true);
            soon.start(0);
            runLoopUntil([&] { return !alive; });
            break;
        }
        }
    }

    bool comeTo(Stage stage)
    {
        if (stage == Idle)
            return true;
        if (stage == Searching)
            return search();

        scriptDevice();
        if (stage == DescriptionAskedFor || stage == DescriptionBegun) {
            device->script("GET /desc.xml ",
                           stage == DescriptionBegun ? reply(deviceDescription()).chopped(20) : QByteArray());
        }
        if (stage == ServiceDescriptionAskedFor || stage == Connecting)
            device->script("GET /scpd.xml ", "");
        if (stage == Subscribing)
            device->script("SUBSCRIBE ", "");
        if (!search() || !answerSearch())
            return false;

        switch (stage) {
        case Idle:
        case Searching:
            return true;
        case DescriptionAskedFor:
        case DescriptionBegun:
            return waitUntil([this] { return device->requests.at(0).connection->wasRead(); });
        case ServiceDescriptionAskedFor:
            return waitUntil([this] { return device->requestsFor("GET /scpd.xml ").size() == 1; });
        case Connecting:
            if (!waitUntil([this] { return device->requestsFor("GET /scpd.xml ").size() == 1; }))
                return false;
            filler = device->holdConnections();
            device->requestsFor("GET /scpd.xml ").at(0).connection->send(reply(serviceDescription({"KO", "A"})));
            return waitUntil([this] { return manager().requestSockets().size() == 2; });
        case Subscribing:
            return waitUntil([this] { return device->requestsFor("SUBSCRIBE ").size() == 1; });
        default:
            break;
        }

        if (!waitUntil([this] { return device->requestsFor("SUBSCRIBE ").size() == 1; }))
            return false;
        const Callback to = callback();
        switch (stage) {
        case SilentEventConnection:
            // A connection that is answered shows that the library has accepted the one before it.
            return device->connectTo(to.host, to.port) && sendEvent(to, eventBody("A", "1"));
        case SilentBesideHeadSeen:
            return device->connectTo(to.host, to.port) && sendHead(to, "120");
        case HeadSeen:
            return sendHead(to, "120") != nullptr;
        case NegativeLength:
            return sendHead(to, "-1") != nullptr;
        case BodyBegun: {
            Connection* const connection = sendHead(to, "120");
            if (!connection)
                return false;
            connection->send("<e:propertyset>");
            return waitUntil([connection] { return connection->wasRead(); });
        }
        default:
            return true;
        }
    }

    /// Whether every connection between the device and the library is closed.
    bool allIsClosed() const
    {
        const QList<Connection*> all = device->findChildren<Connection*>();
        return std::none_of(all.cbegin(), all.cend(), [this](const Connection* connection) {
            return connection != filler && connection->isOpen();
        });
    }

    bool acted = false;
    QPointer<Connection> eventConnection;
    QPointer<QTcpSocket> eventSocket; ///< The other end of it.
    const Connection* filler = nullptr;
};

VELMORA_WIRE_TEST_MAIN(LifetimeTest)

#include "tst_lifetime.moc"

#include <tests/support/KernelTables.h>
#include <tests/support/Literals.h>
#include <tests/support/WireTest.h>

#include <algorithm>

using namespace Velmora::Tests;
using Velmora::SSDP::Ssdp;

/// What a host may do with the controller, and when.
class LifetimeTest : public WireTest
{
    Q_OBJECT

public:
    using WireTest::WireTest;

private:
    /// What a host does in its slot, and how many reports it gets of an event with three.
    struct Action
    {
        const char* name;
        int reports;
        std::function<void()> act;
    };

    /// How far a discovery has come.
    struct Stage
    {
        const char* name;
        std::function<bool()> reach;
    };

    QPointer<Connection> eventConnection;
    QPointer<QTcpSocket> eventSocket; ///< The other end of it.
    const Connection* filler = nullptr;

    QTimer* timer() const { return ssdp->findChild<QTimer*>(); }

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

    void discover()
    {
        const bool wasRunning = timer()->isActive();
        const auto lines = log().size();
        QCOMPARE(ssdp->discover(), 3);
        QCOMPARE(log().size() - lines, wasRunning ? 0 : 2);
        QVERIFY(timer()->isActive());
        QCOMPARE(KernelTables::udpSockets().size(), 2);
    }

    void stop()
    {
        ssdp->stop();
        QVERIFY(!timer()->isActive());
        QCOMPARE(KernelTables::udpSockets(), QStringList());
    }

    void receiveAnotherEventInALoop()
    {
        const Callback to = callback();
        Connection* const another = device->connectTo(to.host, to.port);
        another->send(eventHead(to.path, "5000"));
        runLoopUntil([&] { return another->wasRead(); });
        another->send(eventBody("KO", "5,6") + QByteArray(5000, '\n'));
        runLoopUntil([&] { return reports.contains("5,6 at 10.77.1.1") && !another->isOpen(); });
    }

    void restart()
    {
        stop();
        discover();
    }

    void restartInALoop()
    {
        const auto before = device->searches.size();
        QTimer::singleShot(0, this, [this] { restart(); });
        runLoopUntil([&] { return device->searches.size() > before; });
    }

    void deleteInALoop()
    {
        QTimer::singleShot(0, this, [this] { ssdp.reset(); });
        runLoopUntil([this] { return !ssdp; });
    }

    void reachTheTimeoutInALoop()
    {
        timer()->start(0);
        runLoopUntil([this] { return timeouts == 1; });
    }

    void endTheConnectionInALoop(bool hard)
    {
        eventConnection->end(hard);
        runLoopUntil([this] { return eventSocket->state() == QAbstractSocket::UnconnectedState; });
    }

    QList<Action> actionsAtAnyTime()
    {
        return {
            {"stop", 3, [this] { stop(); }},
            {"discover", 3, [this] { discover(); }},
            {"stop and discover", 1, [this] { restart(); }},
            {"deleteLater", 3, [this] { ssdp.release()->deleteLater(); }},
            {"delete", 1, [this] { ssdp.reset(); }},
            {"event loop with another event", 4, [this] { receiveAnotherEventInALoop(); }},
            {"event loop with stop and discover", 1, [this] { restartInALoop(); }},
            {"event loop with delete", 1, [this] { deleteInALoop(); }},
        };
    }

    QList<Action> actionsForADevice()
    {
        const QList<Action> more{
            {"event loop with the time-out", 3, [this] { reachTheTimeoutInALoop(); }},
            {"event loop while the device closes the connection", 3, [this] { endTheConnectionInALoop(false); }},
            {"event loop while the device resets the connection", 3, [this] { endTheConnectionInALoop(true); }},
        };
        return actionsAtAnyTime() + more;
    }

    /// Waits until the library has read @p bytes as the answer to the request that begins with @p start.
    bool answerWith(const QByteArray& start, const QByteArray& bytes)
    {
        scriptDevice();
        device->script(start, bytes);
        return search() && answerSearch() && waitUntil([&] {
                   const auto requests = device->requestsFor(start);
                   return requests.size() == 1 && requests.at(0).connection->wasRead();
               });
    }

    bool beginToConnect()
    {
        if (!answerWith("GET /scpd.xml ", ""))
            return false;
        filler = device->holdConnections();
        device->requestsFor("GET /scpd.xml ").at(0).connection->send(reply(serviceDescription({"KO", "A"})));
        return waitUntil([this] { return manager().requestSockets().size() == 2; });
    }

    bool connectSilently() { return findDevice() && device->connectTo(callback().host, callback().port); }

    bool beginBody()
    {
        Connection* const connection = findDevice() ? sendHead(callback(), "120") : nullptr;
        if (!connection)
            return false;
        connection->send("<e:propertyset>");
        return waitUntil([connection] { return connection->wasRead(); });
    }

    QList<Stage> stages()
    {
        const QByteArray begun = reply(deviceDescription()).chopped(20);
        return {
            {"idle", [] { return true; }},
            {"searching", [this] { return search(); }},
            {"description requested", [this] { return answerWith("GET /desc.xml ", ""); }},
            {"description begun", [this, begun] { return answerWith("GET /desc.xml ", begun); }},
            {"service description requested", [this] { return answerWith("GET /scpd.xml ", ""); }},
            {"connecting", [this] { return beginToConnect(); }},
            {"subscribing", [this] { return answerWith("SUBSCRIBE ", ""); }},
            {"subscribed", [this] { return findDevice(); }},
            // A connection that is answered shows that the library has accepted the one before it.
            {"silent event connection",
             [this] { return connectSilently() && sendEvent(callback(), eventBody("A", "1")); }},
            {"silent event connection and head of an event seen",
             [this] { return connectSilently() && sendHead(callback(), "120"); }},
            {"head of an event seen", [this] { return findDevice() && sendHead(callback(), "120"); }},
            {"head with a negative length seen", [this] { return findDevice() && sendHead(callback(), "-1"); }},
            {"body of an event begun", [this] { return beginBody(); }},
        };
    }

    /// Whether every connection between the device and the library is closed.
    bool allIsClosed() const
    {
        const QList<Connection*> all = device->findChildren<Connection*>();
        return std::none_of(all.cbegin(), all.cend(), [this](const Connection* connection) {
            return connection != filler && connection->isOpen();
        });
    }

    /// Calls @p act in the first @p signal.
    template <typename Signal> void actOnce(Signal signal, const std::function<void()>& act, bool* acted)
    {
        connect(ssdp.get(), signal, this, [act, acted] {
            if (!*acted) {
                *acted = true;
                act();
            }
        });
    }

    static void addRows(const QList<Action>& actions)
    {
        QTest::addColumn<int>("index");
        for (int i = 0; i < actions.size(); ++i)
            QTest::newRow(actions.at(i).name) << i;
    }

private Q_SLOTS:
    void hostMayActInItsSlotForADevice_data() { addRows(actionsForADevice()); }

    void hostMayActInItsSlotForADevice()
    {
        QFETCH(const int, index);
        const Action action = actionsForADevice().at(index);
        bool acted = false;
        actOnce(&Ssdp::discovered, action.act, &acted);
        QVERIFY(findDevice());
        const QByteArray body =
            propertySet(eventProperty("KO", "1,1") + eventProperty("KO", "2,2") + eventProperty("KO", "3,3"));
        eventConnection = sendHead(callback(), QByteArray::number(body.size()));
        QVERIFY(eventConnection);
        eventSocket = manager().requestSockets().at(0);
        const QPointer<Ssdp> controller(ssdp.get());
        eventConnection->send(body);
        VERIFY_SOON(acted && !eventConnection->isOpen());
        QCOMPARE(reports.size(), action.reports);
        QCOMPARE(reports.at(0), "1,1 at 10.77.1.1"_s);

        if (!ssdp) {
            VERIFY_SOON(!controller && allIsClosed());
            return;
        }
        VERIFY_SOON(nothingIsListed());

        // The controller is as good as new.
        ssdp->stop();
        QVERIFY(findDevice());
        QVERIFY(sendLastEvent());
        QCOMPARE(reports.size(), action.reports + 1);
    }

    void hostMayActInItsSlotForTheTimeout_data() { addRows(actionsAtAnyTime()); }

    void hostMayActInItsSlotForTheTimeout()
    {
        QFETCH(const int, index);
        bool acted = false;
        actOnce(&Ssdp::timeoutExpired, actionsAtAnyTime().at(index).act, &acted);
        QVERIFY(findDevice());
        const QPointer<Ssdp> controller(ssdp.get());
        timer()->start(0);
        VERIFY_SOON(acted);
        QCOMPARE(timeouts, 1);

        if (!ssdp) {
            VERIFY_SOON(!controller && allIsClosed());
            return;
        }
        ssdp->stop();
        QVERIFY(findDevice());
        QVERIFY(sendLastEvent());
        QCOMPARE(timeouts, 1);
    }

    void controllerMayGoAtAnyStage_data()
    {
        QTest::addColumn<int>("index");
        QTest::addColumn<bool>("later");
        const QList<Stage> all = stages();
        for (int i = 0; i < all.size(); ++i) {
            QTest::addRow("%s, delete", all.at(i).name) << i << false;
            QTest::addRow("%s, deleteLater", all.at(i).name) << i << true;
        }
    }

    void controllerMayGoAtAnyStage()
    {
        QFETCH(const int, index);
        QFETCH(const bool, later);
        filler = nullptr;
        QVERIFY(stages().at(index).reach());
        const QStringList before = log();
        if (later) {
            const QPointer<Ssdp> controller(ssdp.get());
            ssdp.release()->deleteLater();
            VERIFY_SOON(!controller);
        } else {
            ssdp.reset();
        }
        VERIFY_SOON(allIsClosed());
        QCOMPARE(KernelTables::udpSockets() + KernelTables::tcpListeners(), QStringList());
        QCOMPARE(KernelTables::groupMembers(), QStringList());
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
};

VELMORA_WIRE_TEST_MAIN(LifetimeTest)

#include "tst_lifetime.moc"

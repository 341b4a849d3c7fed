#include <tests/support/KernelTables.h>
#include <tests/support/WireTest.h>

#include <algorithm>

using namespace Velmora::Tests;
using Velmora::SSDP::Ssdp;

/// What a host may do with the controller, and when.
class LifetimeTest : public WireTest
{
    Q_OBJECT

    /// What a host does in its slot, and how many reports it gets of an event with three key objects.
    struct Action
    {
        const char* name;
        int reports;
        std::function<void()> act;
    };

    /// A stage of a discovery.
    struct Stage
    {
        const char* name;
        std::function<bool()> reach;
    };

    QPointer<Connection> eventConnection;
    QPointer<QTcpSocket> eventSocket; ///< The other end of it.
    const Connection* filler = nullptr;

    /// Runs an event loop until @p condition is true, like a host that shows a dialog.
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
        Connection* const another = connectTo(callback());
        another->send(eventHead(callback().path, "5000"));
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

    void deleteInALoop(int floodBytes = 0)
    {
        if (floodBytes > 0)
            eventConnection->send(QByteArray(floodBytes, 'x'));
        QTimer::singleShot(0, this, [this] { ssdp.reset(); });
        runLoopUntil([this] { return !ssdp; });
    }

    void deleteInTheSlotForAnotherEvent()
    {
        connect(ssdp.get(), &Ssdp::discovered, this, [this] { ssdp.reset(); });
        receiveAnotherEventInALoop();
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

    /// Returns the first @p count actions. The first eight are possible in every slot.
    QList<Action> actions(int count)
    {
        return QList<Action>{
            {"stop", 3, [this] { stop(); }},
            {"discover", 3, [this] { discover(); }},
            {"stop and discover", 1, [this] { restart(); }},
            {"deleteLater", 3, [this] { ssdp.release()->deleteLater(); }},
            {"delete", 1, [this] { ssdp.reset(); }},
            {"event loop with another event", 4, [this] { receiveAnotherEventInALoop(); }},
            {"event loop with stop and discover", 1, [this] { restartInALoop(); }},
            {"event loop with delete", 1, [this] { deleteInALoop(); }},
            {"event loop with delete while the device floods", 1, [this] { deleteInALoop(1024 * 1024); }},
            {"event loop with delete in the slot for another event", 2,
             [this] { deleteInTheSlotForAnotherEvent(); }},
            {"event loop with the time-out", 3, [this] { reachTheTimeoutInALoop(); }},
            {"event loop while the device closes the connection", 3, [this] { endTheConnectionInALoop(false); }},
            {"event loop while the device resets the connection", 3, [this] { endTheConnectionInALoop(true); }},
        }
            .mid(0, count);
    }

    /// Answers the request that begins with @p start with @p bytes. Waits until the library has read them.
    bool answerWith(const QByteArray& start, const QByteArray& bytes)
    {
        scriptDevice();
        device->script(start, bytes);
        Connection* const connection = search() && answerSearch() ? requestFor(start) : nullptr;
        return connection && waitUntil([&] { return connection->wasRead(); });
    }

    bool beginToConnect()
    {
        if (!answerWith("GET /scpd.xml ", ""))
            return false;
        filler = device->holdConnections();
        requestFor("GET /scpd.xml ")->send(reply(serviceDescription({"KO", "A"})));
        return waitUntil([this] { return manager().requestSockets().size() == 2; });
    }

    bool connectSilently() { return findDevice() && connectTo(callback()); }

    bool beginBody()
    {
        Connection* const connection = findDevice() ? sendHead(callback(), "120") : nullptr;
        return connection && send(connection, "<e:propertyset>");
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
            // If the library has read from a connection, it has accepted the earlier ones.
            {"silent connection",
             [this] { return connectSilently() && sendEvent(callback(), eventBody("A", "1")); }},
            {"silent connection, event", [this] { return connectSilently() && sendHead(callback(), "120"); }},
            {"head of an event", [this] { return findDevice() && sendHead(callback(), "120"); }},
            {"head with a negative length", [this] { return findDevice() && sendHead(callback(), "-1"); }},
            {"body of an event begun", [this] { return beginBody(); }},
        };
    }

    /// Returns whether every connection between the device and the library, except the filler, is closed.
    bool allIsClosed() const
    {
        const QList<Connection*> all = device->findChildren<Connection*>();
        return std::none_of(all.cbegin(), all.cend(), [this](const Connection* connection) {
            return connection != filler && connection->isOpen();
        });
    }

    /// Calls @p act in the first slot for @p signal.
    template <typename Signal> void actOnce(Signal signal, const std::function<void()>& act, bool* acted)
    {
        connect(ssdp.get(), signal, this, [act, acted] {
            if (!*acted) {
                *acted = true;
                act();
            }
        });
    }

    void addRows(int count)
    {
        const Table<int> row("index");
        for (int i = 0; i < count; ++i)
            row(actions(count).at(i).name, i);
    }

private Q_SLOTS:
    void hostMayActInItsSlotForADevice_data() { addRows(13); }

    void hostMayActInItsSlotForADevice()
    {
        QFETCH(const int, index);
        const Action action = actions(index + 1).at(index);
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

        // The controller finds the device again.
        ssdp->stop();
        QVERIFY(findDevice());
        QVERIFY(sendLastEvent());
        QCOMPARE(reports.size(), action.reports + 1);
    }

    void hostMayActInItsSlotForTheTimeout_data() { addRows(8); }

    void hostMayActInItsSlotForTheTimeout()
    {
        QFETCH(const int, index);
        bool acted = false;
        actOnce(&Ssdp::timeoutExpired, actions(index + 1).at(index).act, &acted);
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
        const Table<int, bool> row("index", "later");
        const QList<Stage> all = stages();
        for (int i = 0; i < all.size(); ++i) {
            row(QByteArray(all.at(i).name) + ", delete", i, false);
            row(QByteArray(all.at(i).name) + ", deleteLater", i, true);
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
        makeController();
        makeDevice();
        QVERIFY(findDevice());
        QVERIFY(sendLastEvent());
        QCOMPARE(device->searches.last().port, quint16(49152));
    }
};

VELMORA_WIRE_TEST_MAIN(LifetimeTest)
#include "tst_lifetime.moc"

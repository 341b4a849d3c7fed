#include <simulator/SimulatedDevice.h>
#include <tests/support/ProcessState.h>
#include <tests/support/WireTest.h>

#include <QtCore/QSet>

#include <malloc.h>

using namespace Velmora::Simulator;
using namespace Velmora::Tests;

const int WARM_UP = 5;
const int DISCOVERIES = 20;

const int KEPT_BYTES = 4 * 1024; ///< What a connection that stays listed may take.
const int SLACK = 16 * 1024; ///< How many more bytes may be on the heap for other reasons.

const char FOUND[] = "Device with FC:1 ";
const char NOT_PARSED[] = "Could not parse server response";

/// What remains after a discovery. It does not grow from the fifth to the twentieth discovery, for any fault of
/// the device. Only connections of subscriptions without a reply stay listed.
class FlatTest : public WireTest
{
    Q_OBJECT

    /// What the library holds at a time.
    struct Holdings
    {
        int descriptors;
        int objects; ///< Without the listed connections.
        int pending; ///< Requests and event connections.
        int connections; ///< The listed connections of subscriptions and events.
        int services; ///< The services of these connections, one for each.
        int records; ///< Devices and services.
        qint64 memory; ///< On the heap, in bytes.
    };

    Holdings holdings() const
    {
        ManagerAccess held = manager();
        auto objects = ssdp->findChildren<QObject*>().size()
            + held.networkManager().findChildren<QObject*>().size()
            + held.eventServer().findChildren<QObject*>().size();
        for (const QTcpSocket* const socket : std::as_const(held.requestSockets()))
            objects -= 1 + socket->findChildren<QObject*>().size();
        auto records = held.devices().size();
        for (const Velmora::SSDP::SsdpDevice* const found : std::as_const(held.devices()))
            records += found->services.size();
        return {ProcessState::descriptors(),
                static_cast<int>(objects),
                static_cast<int>(held.deviceReplies().size() + held.serviceReplies().size()
                                 + held.responseContentLengths().size() + held.responseBuffers().size()),
                static_cast<int>(held.requestSockets().size()),
                static_cast<int>(held.requestSocketServices().size()),
                static_cast<int>(records),
                static_cast<qint64>(mallinfo2().uordblks)};
    }

    /// Returns whether everything of the discovery has ended.
    bool isSettled() const
    {
        ManagerAccess held = manager();
        const QList<QTcpSocket*> sockets = held.requestSockets();
        return held.deviceReplies().isEmpty() && held.eventServer().findChildren<QTcpSocket*>().isEmpty()
            && std::all_of(sockets.cbegin(), sockets.cend(), [](const QTcpSocket* socket) {
                   return socket->state() == QAbstractSocket::UnconnectedState;
               });
    }

    /// Runs twenty discoveries. Compares the holdings after the fifth and after the twentieth. Each discovery may
    /// keep @p kept connections.
    void repeat(int kept, const std::function<void()>& discover)
    {
        Holdings before = {};
        for (int discovery = 1; discovery <= DISCOVERIES; ++discovery) {
            discover();
            if (QTest::currentTestFailed())
                return;
            ssdp->stop();
            VERIFY_SOON(isSettled());
            reports = QStringList();
            CapturedLog::clear();
            if (discovery == WARM_UP)
                before = holdings();
        }
        const Holdings after = holdings();
        const int keptInAll = (DISCOVERIES - WARM_UP) * kept;
        QCOMPARE(after.descriptors, before.descriptors);
        QCOMPARE(after.objects, before.objects);
        QCOMPARE(after.pending, 0);
        QCOMPARE(before.connections, WARM_UP * kept);
        QCOMPARE(after.connections, DISCOVERIES * kept);
        QCOMPARE(after.services, after.connections);
        QCOMPARE(after.records, before.records);
        QVERIFY2(after.memory - before.memory <= keptInAll * KEPT_BYTES + SLACK,
                 QByteArray::number(after.memory - before.memory).constData());
    }

    /// Repeats discoveries. @p open opens a connection, on which the device sends @p late in the next discovery.
    void repeatLate(const QByteArray& late, int kept, const std::function<Connection*()>& open)
    {
        repeat(kept, [&] {
            makeDevice();
            Connection* const connection = open();
            QVERIFY(connection);
            VERIFY_SOON(connection->wasRead());
            ssdp->stop();
            QVERIFY(search());
            connection->send(late);
            if (late.size() > 65536)
                VERIFY_SOON(connection->wasRead());
            // The library does not close the connection of a subscription that it has forgotten.
            if (kept > 0)
                connection->close();
            VERIFY_SOON(!connection->isOpen());
            QCOMPARE(reports, QStringList());
            device.reset();
        });
    }

    void discoverWithFault(const QString& fault, const QByteArray& lastSign)
    {
        device.reset();
        network.enter(PrivateNetwork::DeviceSide);
        SsdpGroup group;
        network.enter(PrivateNetwork::HostSide);
        DeviceOptions options;
        options.address = QHostAddress("10.77.1.2");
        options.responseDelayMax = 0;
        options.eventGap = 5;
        QCOMPARE(options.addFault(fault), QString());
        SimulatedDevice faulty(&group, options);
        QByteArray signs;
        connect(&faulty, &SimulatedDevice::message, this,
                [&signs](bool, const QString&, const QByteArray& text) { signs += text; });
        QVERIFY(faulty.start());
        ssdp->discover();
        faulty.announce();
        VERIFY_SOON(signs.contains(lastSign) || log().join(QString()).contains(QLatin1String(lastSign)));
    }

    QSet<QString> tried;

private Q_SLOTS:
    void initTestCase()
    {
        WireTest::initTestCase();
        // What the process allocates only once is not counted.
        init();
        for (int discovery = 1; discovery <= 2 * WARM_UP; ++discovery) {
            discoverWithFault("duplicate-responses", FOUND);
            ssdp->stop();
        }
        cleanup();
    }

    void init()
    {
        WireTest::init();
        ssdp->discover();
        ssdp->stop();
    }

    void faultLeavesNothingBehind_data()
    {
        const Table<QString, QByteArray, int> row("fault", "lastSign", "kept");
        const auto add = [&](const char* lastSign, const QList<QByteArray>& faults, int kept = 0) {
            for (const QByteArray& fault : faults)
                row(fault, fault, lastSign, kept);
        };
        add(FOUND,
            listOf("ignore-search", "duplicate-responses", "announce-only", "crlf-search-only",
                   "unicast-search-only", "slow-answer=5", "no-location", "no-sid", "late-sid=5",
                   "event-many-chunks", "event-no-length", "die-after=event"));
        add(NOT_PARSED,
            listOf("location-garbage", "reset-mid-body", "wrong-length", "truncated-xml", "deep-xml",
                   "html-instead", "redirect", "error-500", "scpd-url", "die-after=search",
                   "die-after=description"));
        add("Ssdp device", listOf("location-other-host"));
        add("GET /description.xml", listOf("silent-http"));
        add("CONTENT-LENGTH", listOf("slow-http=5000"));
        add("</root>", listOf("namespace", "no-service", "service-type", "embedded-service"));
        add("</document>", listOf("root-element"));
        add("</d:root>", listOf("description-prefix"));
        add("SUBSCRIBE ", listOf("event-url"));
        add("SUBSCRIBE ", listOf("never-answer-subscribe"), 1);
        add("</scpd>", listOf("no-variable"));
        add("400 ", listOf("standard-subscribe-only"));
        add("412 Precondition", listOf("refuse-subscribe"));
        add("SSDP response state variable", listOf("die-after=scpd"), 1);
        add("SID: ", listOf("no-event", "die-after=subscribe"));
        add("NOTIFY /", listOf("event-unknown-path", "die-after=event-head"));
        add("</e:propertyset>", listOf("event-one-chunk", "event-length", "event-no-ko", "ko-malformed"));
        add("</ev:propertyset>", listOf("event-prefix"));
        add("Could not parse event xml", listOf("event-bad-xml"));
    }

    void faultLeavesNothingBehind()
    {
        QFETCH(const QString, fault);
        QFETCH(const QByteArray, lastSign);
        QFETCH(const int, kept);
        tried.insert(fault.section(QLatin1Char('='), 0, 0));
        repeat(kept, [&] { discoverWithFault(fault, lastSign); });
    }

    void lateReplyLeavesNothingBehind_data()
    {
        const Table<QByteArray, QByteArray, QByteArray, int> row("request", "early", "late", "kept");
        const QByteArray description = reply(deviceDescription());
        const QByteArray tooLong = subscriptionReply() + QByteArray(100000, 'x');
        row("description", "GET /desc.xml ", "", description, 0);
        row("rest of a description", "GET /desc.xml ", description.chopped(20), description.right(20), 0);
        row("service description", "GET /scpd.xml ", "", reply(serviceDescription()), 0);
        row("subscription", "SUBSCRIBE ", "", subscriptionReply(), 1);
        row("subscription, too long", "SUBSCRIBE ", "", tooLong, 1);
    }

    void lateReplyLeavesNothingBehind()
    {
        QFETCH(const QByteArray, request);
        QFETCH(const QByteArray, early);
        QFETCH(const QByteArray, late);
        QFETCH(const int, kept);
        repeatLate(late, kept, [&]() -> Connection* {
            scriptDevice();
            device->script(request, early);
            return search() && answerSearch() ? requestFor(request) : nullptr;
        });
    }

    void lateEventLeavesNothingBehind_data()
    {
        const Table<QByteArray, QByteArray, QByteArray> row("length", "early", "late");
        const QByteArray body = eventBody("KO", "12,34") + QByteArray(1000, '\n');
        const QByteArray head(
            "NOTIFY /6f9619ff-8b86-d011-b42d-00c04fc964ff HTTP/1.1\r\nCONTENT-LENGTH: 1000\r\n\r\n");
        row("head", QByteArray(), QByteArray(), head);
        row("head after a negative length", "-1", QByteArray(), head);
        row("body", "1000", QByteArray(), body);
        row("rest of the body", "1000", "<e:propertyset>" + QByteArray(960, '\n'), body);
    }

    void lateEventLeavesNothingBehind()
    {
        QFETCH(const QByteArray, length);
        QFETCH(const QByteArray, early);
        QFETCH(const QByteArray, late);
        repeatLate(late, 0, [&]() -> Connection* {
            if (!findDevice())
                return nullptr;
            Connection* const connection = length.isEmpty() ? connectTo(callback()) : sendHead(callback(), length);
            if (connection)
                connection->send(early);
            // If the library has read this event, it has accepted the connection.
            return sendEvent(callback(), eventBody("A", "1")) ? connection : nullptr;
        });
    }

    void everyFaultIsTried()
    {
        if (QCoreApplication::arguments().size() > 1)
            QSKIP("only some of the tests were run");
        for (const Fault& fault : SimulatedDevice::faults())
            QVERIFY2(tried.contains(QString::fromLatin1(fault.name)), fault.name);
    }
};

VELMORA_WIRE_TEST_MAIN(FlatTest)
#include "tst_flat.moc"

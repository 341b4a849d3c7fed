#include <simulator/SimulatedDevice.h>
#include <tests/support/Literals.h>
#include <tests/support/ProcessState.h>
#include <tests/support/WireTest.h>

#include <QtCore/QSet>

#include <malloc.h>

using namespace Velmora::Simulator;
using namespace Velmora::Tests;

namespace {

const int WARM_UP = 5;
const int DISCOVERIES = 20;

// What a connection that stays listed may take, and what all else may differ by, in bytes.
const int KEPT_BYTES = 4 * 1024;
const int SLACK = 12 * 1024;

/// A stage whose answer comes after the next discovery has begun.
enum Late {
    LateDescription,
    LateRestOfADescription,
    LateServiceDescription,
    LateSubscriptionReply,
    LateSubscriptionReplyWithoutAnEnd,
    LateEventHead,
    LateEventHeadWithANegativeLength,
    LateEventBody,
    LateRestOfAnEventBody,
};

const char SUBSCRIPTION_REPLY[] = "HTTP/1.1 200 OK\r\nSID: uuid:2fac1234-31f8-11b4-a222-08002b34c003\r\n"
                                  "TIMEOUT: Second-120\r\nCONTENT-LENGTH: 0\r\n\r\n";

const char FOUND[] = "Device with FC:1 ";
const char NOT_PARSED[] = "Could not parse server response";

} // namespace

/**
 * What a discovery leaves behind: after twenty it is what it was after five, whatever the device does
 * wrong, apart from the connections of subscriptions that never got a reply. Those stay listed.
 */
class FlatTest : public WireTest
{
    Q_OBJECT

public:
    using WireTest::WireTest;

private Q_SLOTS:

    void initTestCase()
    {
        WireTest::initTestCase();
        // What is allocated once is no growth.
        init();
        for (int discovery = 1; discovery <= 2 * WARM_UP; ++discovery) {
            discoverWithFault("duplicate-responses"_s, FOUND);
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
        QTest::addColumn<QString>("fault");
        QTest::addColumn<QByteArray>("lastSign");
        QTest::addColumn<int>("kept");
        const auto add = [](const char* fault, const char* lastSign, int kept = 0) {
            QTest::newRow(fault) << QString::fromLatin1(fault) << QByteArray(lastSign) << kept;
        };
        add("ignore-search", FOUND);
        add("duplicate-responses", FOUND);
        add("announce-only", FOUND);
        add("crlf-search-only", FOUND);
        add("unicast-search-only", FOUND);
        add("slow-answer=5", FOUND);
        add("no-location", FOUND);
        add("location-garbage", NOT_PARSED);
        add("location-other-host", "Ssdp device");
        add("silent-http", "GET /description.xml");
        add("slow-http=5000", "CONTENT-LENGTH");
        add("reset-mid-body", NOT_PARSED);
        add("wrong-length", NOT_PARSED);
        add("truncated-xml", NOT_PARSED);
        add("deep-xml", NOT_PARSED);
        add("html-instead", NOT_PARSED);
        add("redirect", NOT_PARSED);
        add("error-500", NOT_PARSED);
        add("namespace", "</root>");
        add("root-element", "</document>");
        add("description-prefix", "</d:root>");
        add("no-service", "</root>");
        add("service-type", "</root>");
        add("embedded-service", "</root>");
        add("scpd-url", NOT_PARSED);
        add("event-url", "SUBSCRIBE ");
        add("no-variable", "</scpd>");
        add("standard-subscribe-only", "400 ");
        add("refuse-subscribe", "412 Precondition");
        add("never-answer-subscribe", "SUBSCRIBE ", 1);
        add("no-sid", FOUND);
        add("late-sid=5", FOUND);
        add("event-one-chunk", "</e:propertyset>");
        add("event-many-chunks", FOUND);
        add("event-unknown-path", "NOTIFY /");
        add("event-bad-xml", "Could not parse event xml");
        add("event-no-length", FOUND);
        add("event-length", "</e:propertyset>");
        add("event-prefix", "</ev:propertyset>");
        add("event-no-ko", "</e:propertyset>");
        add("ko-malformed", "</e:propertyset>");
        add("no-event", "SID: ");
        add("die-after=search", NOT_PARSED);
        add("die-after=description", NOT_PARSED);
        add("die-after=scpd", "SSDP response state variable", 1);
        add("die-after=subscribe", "SID: ");
        add("die-after=event-head", "NOTIFY /");
        add("die-after=event", FOUND);
    }

    void faultLeavesNothingBehind()
    {
        QFETCH(const QString, fault);
        QFETCH(const QByteArray, lastSign);
        QFETCH(const int, kept);
        tried.insert(fault.section(QLatin1Char('='), 0, 0));
        repeat([&] { discoverWithFault(fault, lastSign); }, kept);
    }

    void lateAnswerLeavesNothingBehind_data()
    {
        QTest::addColumn<int>("late");
        QTest::addColumn<int>("kept");
        QTest::newRow("description") << int(LateDescription) << 0;
        QTest::newRow("rest of a description") << int(LateRestOfADescription) << 0;
        QTest::newRow("service description") << int(LateServiceDescription) << 0;
        QTest::newRow("reply to a subscription") << int(LateSubscriptionReply) << 1;
        QTest::newRow("reply to a subscription, too long") << int(LateSubscriptionReplyWithoutAnEnd) << 1;
        QTest::newRow("head of an event") << int(LateEventHead) << 0;
        QTest::newRow("head after a negative length") << int(LateEventHeadWithANegativeLength) << 0;
        QTest::newRow("body of an event") << int(LateEventBody) << 0;
        QTest::newRow("rest of the body of an event") << int(LateRestOfAnEventBody) << 0;
    }

    void lateAnswerLeavesNothingBehind()
    {
        QFETCH(const int, late);
        QFETCH(const int, kept);
        repeat([&] { discoverAndAnswerLate(static_cast<Late>(late)); }, kept);
    }

    void everyFaultIsTried()
    {
        if (QCoreApplication::arguments().size() > 1)
            QSKIP("only some of the tests were run");
        for (const Fault& fault : SimulatedDevice::faults())
            QVERIFY2(tried.contains(QString::fromLatin1(fault.name)), fault.name);
    }

private:
    /// What the library holds.
    struct Holdings
    {
        int descriptors;
        int objects; ///< Apart from the connections below.
        int requests; ///< Of devices and services, in both maps.
        int connections; ///< Of subscriptions and events, as listed.
        int services; ///< As many as connections.
        int lengths;
        int buffers;
        int records; ///< Devices and their services.
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
                static_cast<int>(held.deviceReplies().size() + held.serviceReplies().size()),
                static_cast<int>(held.requestSockets().size()),
                static_cast<int>(held.requestSocketServices().size()),
                static_cast<int>(held.responseContentLengths().size()),
                static_cast<int>(held.responseBuffers().size()),
                static_cast<int>(records),
                static_cast<qint64>(mallinfo2().uordblks)};
    }

    /// Whether nothing of the discovery is under way any more.
    bool isSettled() const
    {
        ManagerAccess held = manager();
        const QList<QTcpSocket*> sockets = held.requestSockets();
        return held.deviceReplies().isEmpty() && held.eventServer().findChildren<QTcpSocket*>().isEmpty()
            && std::all_of(sockets.cbegin(), sockets.cend(), [](const QTcpSocket* socket) {
                   return socket->state() == QAbstractSocket::UnconnectedState;
               });
    }

    /// Each discovery leaves @p kept connections listed.
    void repeat(const std::function<void()>& discover, int kept)
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
        QCOMPARE(after.requests, 0);
        QCOMPARE(before.connections, WARM_UP * kept);
        QCOMPARE(after.connections, DISCOVERIES * kept);
        QCOMPARE(after.services, after.connections);
        QCOMPARE(after.lengths, 0);
        QCOMPARE(after.buffers, 0);
        QCOMPARE(after.records, before.records);
        QVERIFY2(after.memory - before.memory <= keptInAll * KEPT_BYTES + SLACK,
                 QByteArray::number(after.memory - before.memory).constData());
    }

    void discoverWithFault(const QString& fault, const QByteArray& lastSign)
    {
        device.reset();
        std::unique_ptr<SsdpGroup> group;
        {
            const PrivateNetwork::Scope scope(network, PrivateNetwork::DeviceSide);
            group = std::make_unique<SsdpGroup>();
        }
        DeviceOptions options;
        options.address = QHostAddress("10.77.1.2");
        options.responseDelayMax = 0;
        options.eventGap = 5;
        QCOMPARE(options.addFault(fault), QString());
        SimulatedDevice faulty(group.get(), options);
        QByteArray signs;
        connect(&faulty, &SimulatedDevice::message, this,
                [&signs](bool, const QString&, const QByteArray& text) { signs += text; });
        QVERIFY(faulty.start());
        ssdp->discover();
        faulty.announce();
        VERIFY_SOON(signs.contains(lastSign) || log().join(QString()).contains(QLatin1String(lastSign)));
    }

    void discoverAndAnswerLate(Late late)
    {
        device.reset();
        device = std::make_unique<ScriptedDevice>(network, "10.77.1.1"_s, quint16(8080));
        QVERIFY(comeTo(late));
        const Callback to = late >= LateEventHead ? callback() : Callback();
        ssdp->stop();
        QVERIFY(search());
        switch (late) {
        case LateDescription:
            waiting->send(reply(deviceDescription()));
            break;
        case LateRestOfADescription:
            waiting->send(reply(deviceDescription()).right(20));
            break;
        case LateServiceDescription:
            waiting->send(reply(serviceDescription()));
            break;
        case LateSubscriptionReply:
            waiting->send(SUBSCRIPTION_REPLY);
            waiting->close();
            break;
        case LateSubscriptionReplyWithoutAnEnd:
            waiting->send(SUBSCRIPTION_REPLY + QByteArray(100 * 1000, 'x'));
            VERIFY_SOON(waiting->wasRead());
            waiting->close();
            break;
        case LateEventHead:
        case LateEventHeadWithANegativeLength:
            waiting->send("NOTIFY " + to.path + " HTTP/1.1\r\nCONTENT-LENGTH: 1000\r\n\r\n");
            break;
        case LateEventBody:
        case LateRestOfAnEventBody:
            waiting->send(eventBody("KO", "12,34") + QByteArray(1000, '\n'));
            break;
        }
        VERIFY_SOON(!waiting->isOpen());
        QCOMPARE(reports, QStringList());
        device.reset();
    }

    bool comeTo(Late late)
    {
        scriptDevice();
        const QByteArray description = reply(deviceDescription());
        if (late == LateDescription)
            device->script("GET /desc.xml ", "");
        if (late == LateRestOfADescription)
            device->script("GET /desc.xml ", description.chopped(20));
        if (late == LateServiceDescription)
            device->script("GET /scpd.xml ", "");
        if (late == LateSubscriptionReply || late == LateSubscriptionReplyWithoutAnEnd)
            device->script("SUBSCRIBE ", "");
        if (!search() || !answerSearch())
            return false;

        switch (late) {
        case LateDescription:
        case LateRestOfADescription:
            waiting = device->requestsFor("GET /desc.xml ").at(0).connection;
            return waitUntil([this] { return waiting->wasRead(); });
        case LateServiceDescription:
            if (!waitUntil([this] { return device->requestsFor("GET /scpd.xml ").size() == 1; }))
                return false;
            waiting = device->requestsFor("GET /scpd.xml ").at(0).connection;
            return true;
        default:
            break;
        }
        if (!waitUntil([this] { return device->requestsFor("SUBSCRIBE ").size() == 1; }))
            return false;
        switch (late) {
        case LateSubscriptionReply:
        case LateSubscriptionReplyWithoutAnEnd:
            waiting = device->requestsFor("SUBSCRIBE ").at(0).connection;
            return true;
        case LateEventHead:
            waiting = device->connectTo(callback().host, callback().port);
            // A connection that is answered shows that the library has accepted the one before it.
            return sendEvent(callback(), eventBody("A", "1"));
        case LateEventHeadWithANegativeLength:
            waiting = sendHead(callback(), "-1");
            return waiting;
        case LateEventBody:
            waiting = sendHead(callback(), "1000");
            return waiting;
        case LateRestOfAnEventBody:
            waiting = sendHead(callback(), "1000");
            if (!waiting)
                return false;
            waiting->send(QByteArray(999, '\n').replace(0, 15, "<e:propertyset>").chopped(20));
            return waitUntil([this] { return waiting->wasRead(); });
        default:
            return false;
        }
    }

    QSet<QString> tried;
    QPointer<Connection> waiting; ///< What the late answer goes to.
};

VELMORA_WIRE_TEST_MAIN(FlatTest)

#include "tst_flat.moc"

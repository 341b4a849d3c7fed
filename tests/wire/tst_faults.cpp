#include <simulator/SimulatedDevice.h>
#include <tests/support/Literals.h>
#include <tests/support/Table.h>
#include <tests/support/WireTest.h>

#include <ssdp/Protocol.h>

#include <QtCore/QSet>
#include <QtNetwork/QUdpSocket>

using namespace Velmora::Simulator;
using namespace Velmora::Tests;

namespace {

const char UNPARSED_REPLY[] = "1|void Velmora::SSDP::SsdpManager::handleServerResponse(QNetworkReply*)|"
                              "Could not parse server response|";
const char UNPARSED_EVENT[] = "1|void Velmora::SSDP::SsdpManager::updateStateVariables("
                              "Velmora::SSDP::SsdpService*, const QString&)|Could not parse event xml";

const char FAULTY_REPORT[] = "1,2 at 10.77.1.2";
const char SOUND_REPORT[] = "1,3 at 10.77.1.3";

} // namespace

/// Whether a device with a fault is found. The next device must always be found.
class FaultsTest : public WireTest
{
    Q_OBJECT

public:
    using WireTest::WireTest;

private:
    std::unique_ptr<SimulatedDevice> start(int number, DeviceOptions options)
    {
        options.address = QHostAddress("10.77.1.%1"_s.arg(number));
        options.univocalCode = number;
        options.responseDelayMax = 0;
        auto result = std::make_unique<SimulatedDevice>(group.get(), options);
        if (!result->start())
            qFatal("%s", qPrintable(result->errorString()));
        return result;
    }

    void discoverBoth(const DeviceOptions& options)
    {
        {
            const PrivateNetwork::Scope scope(network, PrivateNetwork::DeviceSide);
            group = std::make_unique<SsdpGroup>();
        }
        sound = start(3, DeviceOptions());
        faulty = start(2, options);
        connect(faulty.get(), &SimulatedDevice::message, this,
                [this](bool, const QString&, const QByteArray& text) { transcript += text; });
        // No test waits for the time-out.
        ssdp = newController(60 * 60 * 1000);
        ssdp->discover();
    }

    void discoverBoth(const QString& fault)
    {
        DeviceOptions options;
        QCOMPARE(options.addFault(fault), QString());
        tried.insert(options.faults.firstKey());
        discoverBoth(options);
    }

    static void addFaults(const Table<QString, QString>& row, const QList<QByteArray>& faults,
                          const QString& lastMessage, const QString& line)
    {
        for (const QByteArray& fault : faults)
            row(fault, lastMessage, line);
    }

    bool faultWasShown() const { return faulty->hasShown(faulty->options().faults.firstKey()); }

    static QStringList errors() { return log().filter(QRegularExpression("^1\\|")); }
    static QStringList locations() { return log().filter("0|Ssdp device|http://10.77.1.2"); }

    std::unique_ptr<SsdpGroup> group;
    std::unique_ptr<SimulatedDevice> faulty;
    std::unique_ptr<SimulatedDevice> sound;
    QByteArray transcript; ///< The messages of the faulty device.
    QSet<Fault::Id> tried;

private Q_SLOTS:

    void cleanup()
    {
        ssdp.reset();
        faulty.reset();
        sound.reset();
        group.reset();
        transcript.clear();
        WireTest::cleanup();
    }

    void deviceIsFoundDespiteTheFault_data()
    {
        const Table<QString> row("fault");
        for (const QByteArray& fault :
             listOf("duplicate-responses", "duplicate-responses=20", "slow-http=5000", "wrong-length=100",
                    "no-sid", "late-sid", "event-many-chunks", "event-no-length", "event-length=-20", "event-url",
                    "announce-only=50", "slow-answer=50", "die-after=event"))
            row(fault, QString(fault));
    }

    void deviceIsFoundDespiteTheFault()
    {
        QFETCH(QString, fault);
        discoverBoth(fault);
        VERIFY_SOON(reports.contains(FAULTY_REPORT));
        VERIFY_SOON(reports.contains(SOUND_REPORT));
        QCOMPARE(reports.size(), 2);
        QCOMPARE(locations().size(), 1);
        QCOMPARE(faulty->count(SimulatedDevice::Described), 1);
        QCOMPARE(errors(), QStringList());
        QVERIFY(faultWasShown());
    }

    void deviceIsNotFound_data()
    {
        const Table<QString, QString> row("lastMessage", "line");
        addFaults(row, {"location-garbage"}, "LOCATION: no location", UNPARSED_REPLY);
        addFaults(row, {"location-other-host"}, "LOCATION: http://192.0.2.1:", UNPARSED_REPLY);
        addFaults(row, {"no-location"}, "HTTP/1.1 200 OK", "");
        addFaults(row, {"silent-http"}, "GET /description.xml", "");
        addFaults(row,
                  listOf("reset-mid-body", "wrong-length", "truncated-xml", "deep-xml", "die-after=description"),
                  "<root", UNPARSED_REPLY);
        addFaults(row, {"html-instead"}, "Welcome", UNPARSED_REPLY);
        addFaults(row, {"redirect"}, "302 Found", UNPARSED_REPLY);
        addFaults(row, {"error-500"}, "500 Internal", UNPARSED_REPLY);
        addFaults(row, {"scpd-url"}, "404 Not Found", UNPARSED_REPLY);
        addFaults(row, {"die-after=search"}, "HTTP/1.1 200 OK", UNPARSED_REPLY);
        addFaults(row, {"namespace"}, "<root xmlns=\"urn:example-org:other\"", "");
        addFaults(row, {"root-element"}, "</document>", "");
        addFaults(row, {"description-prefix"}, "</d:root>", "");
        addFaults(row, {"no-service"}, "</serviceList>", "");
        addFaults(row, {"service-type"}, "keyobjects:2", "");
        addFaults(row, {"embedded-service"}, "</deviceList>", "");
        addFaults(row, {"no-variable"}, "</scpd>", "");
        addFaults(row, {"die-after=scpd"}, "<scpd", "");
        addFaults(row, {"refuse-subscribe"}, "412 Precondition", "");
        addFaults(row, {"standard-subscribe-only"}, "400 Bad Request", "");
        addFaults(row, {"never-answer-subscribe"}, "SUBSCRIBE ", "");
        addFaults(row, listOf("no-event", "die-after=subscribe"), "SID: ", "");
        addFaults(row, listOf("event-unknown-path", "die-after=event-head"), "NOTIFY /", "");
        addFaults(row, {"event-bad-xml"}, "</KO>", UNPARSED_EVENT);
        addFaults(row, listOf("event-one-chunk", "event-length", "event-no-ko"), "</e:propertyset>", "");
        addFaults(row, {"event-prefix"}, "</ev:propertyset>", "");
        addFaults(row, {"ko-malformed"}, "<KO>12</KO>", "");
    }

    void deviceIsNotFound()
    {
        QFETCH(QString, lastMessage);
        QFETCH(QString, line);
        discoverBoth(QTest::currentDataTag());
        VERIFY_SOON(transcript.contains(lastMessage.toLatin1()));
        VERIFY_SOON(reports.contains(SOUND_REPORT));
        if (!line.isEmpty())
            VERIFY_SOON(!errors().isEmpty());

        // The library reads in order. When it reports the next event of the other device, it has read everything
        // that the faulty device sent before.
        const auto before = reports.size();
        sound->sendEvents();
        VERIFY_SOON(reports.size() > before);
        QVERIFY2(!reports.contains(FAULTY_REPORT), transcript.constData());
        QCOMPARE(errors().size(), line.isEmpty() ? 0 : 1);
        QVERIFY2(line.isEmpty() || errors().constFirst().startsWith(line), qPrintable(errors().join("")));
        QVERIFY(faultWasShown());
    }

    void silentDeviceIsFoundByItsAnnouncement()
    {
        discoverBoth("ignore-search");
        VERIFY_SOON(reports.contains(SOUND_REPORT));
        QCOMPARE(locations(), QStringList());
        QVERIFY(faultWasShown());
        faulty->sayGoodbye();
        faulty->announce();
        VERIFY_SOON(reports.contains(FAULTY_REPORT));
        QCOMPARE(locations().size(), 1);
    }

    void deviceAnswersAnotherSearchOnly_data()
    {
        const Table<QString, QString, int> row("target", "lineEnd", "soundSearches");
        row("crlf-search-only", "239.255.255.250", "\r\n", 2);
        // Only the device with this address gets the search.
        row("unicast-search-only", "10.77.1.2", "\n", 1);
    }

    void deviceAnswersAnotherSearchOnly()
    {
        QFETCH(QString, target);
        QFETCH(QString, lineEnd);
        QFETCH(int, soundSearches);
        discoverBoth(QTest::currentDataTag());
        VERIFY_SOON(reports.contains(SOUND_REPORT));
        QCOMPARE(faulty->count(SimulatedDevice::Searched), 0);
        QVERIFY(faultWasShown());

        QUdpSocket socket;
        QVERIFY(socket.bind(QHostAddress("10.77.0.1")));
        const QString text = Velmora::SSDP::Protocol::searchMessage().replace("\n", lineEnd);
        socket.writeDatagram(text.toLatin1(), QHostAddress(target), 1900);
        VERIFY_SOON(faulty->count(SimulatedDevice::Searched) == 1);
        COMPARE_SOON(sound->count(SimulatedDevice::Searched), soundSearches);
    }

    void eventWithATailIsComplete()
    {
        DeviceOptions options;
        options.eventTail = true;
        discoverBoth(options);
        VERIFY_SOON(reports.contains(FAULTY_REPORT));
        QCOMPARE(errors(), QStringList());
    }

    void everyFaultIsTried()
    {
        if (QTest::currentAppName() && QCoreApplication::arguments().size() > 1)
            QSKIP("only some of the tests were run");
        for (const Fault& fault : SimulatedDevice::faults())
            QVERIFY2(tried.contains(fault.id), fault.name);
    }
};

VELMORA_WIRE_TEST_MAIN(FaultsTest)

#include "tst_faults.moc"

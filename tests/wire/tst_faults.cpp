#include <simulator/SimulatedDevice.h>
#include <tests/support/Literals.h>
#include <tests/support/WireTest.h>

#include <ssdp/Protocol.h>

#include <QtCore/QSet>
#include <QtNetwork/QUdpSocket>

using namespace Velmora::Simulator;
using namespace Velmora::Tests;

namespace {

// No test waits for the time-out.
const int LONGEST_TEST = 60 * 60 * 1000;

const char NO_LINE[] = "";
const char UNPARSED_REPLY[] = "1|void Velmora::SSDP::SsdpManager::handleServerResponse(QNetworkReply*)|"
                              "Could not parse server response|";
const char UNPARSED_EVENT[] = "1|void Velmora::SSDP::SsdpManager::updateStateVariables("
                              "Velmora::SSDP::SsdpService*, const QString&)|Could not parse event xml";

const char FAULTY_REPORT[] = "1,2 at 10.77.1.2";
const char SOUND_REPORT[] = "1,3 at 10.77.1.3";

} // namespace

/// What a device that goes wrong does to its own discovery, and that the next device is found all the same.
class FaultsTest : public WireTest
{
    Q_OBJECT

public:
    using WireTest::WireTest;

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
        QTest::addColumn<QString>("fault");
        for (const char* const fault :
             {"duplicate-responses", "duplicate-responses=20", "slow-http=5000", "wrong-length=100", "no-sid",
              "late-sid", "event-many-chunks", "event-no-length", "event-length=-20", "event-url",
              "announce-only=50", "slow-answer=50", "die-after=event"}) {
            QTest::newRow(fault) << QString::fromLatin1(fault);
        }
    }

    void deviceIsFoundDespiteTheFault()
    {
        QFETCH(QString, fault);
        startBoth(fault);
        ssdp->discover();
        VERIFY_SOON(reports.contains(QLatin1String(FAULTY_REPORT)));
        VERIFY_SOON(reports.contains(QLatin1String(SOUND_REPORT)));
        QCOMPARE(reports.size(), 2);
        QCOMPARE(locations().size(), 1);
        QCOMPARE(faulty->count(SimulatedDevice::Described), 1);
        QCOMPARE(errors(), QStringList());
    }

    void deviceIsNotFound_data()
    {
        QTest::addColumn<QString>("fault");
        QTest::addColumn<QByteArray>("lastMessage");
        QTest::addColumn<QString>("line");
        const auto add = [](const char* fault, const char* lastMessage, const char* line) {
            QTest::newRow(fault) << QString::fromLatin1(fault) << QByteArray(lastMessage)
                                 << QString::fromLatin1(line);
        };
        add("location-garbage", "LOCATION: no location", UNPARSED_REPLY);
        add("location-other-host", "LOCATION: http://192.0.2.1:", UNPARSED_REPLY);
        add("no-location", "HTTP/1.1 200 OK", NO_LINE);
        add("silent-http", "GET /description.xml", NO_LINE);
        add("reset-mid-body", "<root", UNPARSED_REPLY);
        add("wrong-length", "<root", UNPARSED_REPLY);
        add("truncated-xml", "<root", UNPARSED_REPLY);
        add("deep-xml", "<root", UNPARSED_REPLY);
        add("html-instead", "Welcome", UNPARSED_REPLY);
        add("redirect", "302 Found", UNPARSED_REPLY);
        add("error-500", "500 Internal", UNPARSED_REPLY);
        add("namespace", "<root xmlns=\"urn:example-org:other\"", NO_LINE);
        add("root-element", "</document>", NO_LINE);
        add("description-prefix", "</d:root>", NO_LINE);
        add("no-service", "</serviceList>", NO_LINE);
        add("service-type", "keyobjects:2", NO_LINE);
        add("embedded-service", "</deviceList>", NO_LINE);
        add("scpd-url", "404 Not Found", UNPARSED_REPLY);
        add("no-variable", "</scpd>", NO_LINE);
        add("refuse-subscribe", "412 Precondition", NO_LINE);
        add("standard-subscribe-only", "400 Bad Request", NO_LINE);
        add("never-answer-subscribe", "SUBSCRIBE ", NO_LINE);
        add("no-event", "SID: ", NO_LINE);
        add("event-one-chunk", "</e:propertyset>", NO_LINE);
        add("event-unknown-path", "NOTIFY /", NO_LINE);
        add("event-bad-xml", "</KO>", UNPARSED_EVENT);
        add("event-length", "</e:propertyset>", NO_LINE);
        add("event-prefix", "</ev:propertyset>", NO_LINE);
        add("event-no-ko", "</e:propertyset>", NO_LINE);
        add("ko-malformed", "<KO>12</KO>", NO_LINE);
        add("die-after=search", "HTTP/1.1 200 OK", UNPARSED_REPLY);
        add("die-after=description", "<root", UNPARSED_REPLY);
        add("die-after=scpd", "<scpd", NO_LINE);
        add("die-after=subscribe", "SID: ", NO_LINE);
        add("die-after=event-head", "NOTIFY /", NO_LINE);
    }

    void deviceIsNotFound()
    {
        QFETCH(QString, fault);
        QFETCH(QByteArray, lastMessage);
        QFETCH(QString, line);
        startBoth(fault);
        ssdp->discover();
        VERIFY_SOON(transcript.contains(lastMessage));
        VERIFY_SOON(reports.contains(QLatin1String(SOUND_REPORT)));
        if (!line.isEmpty())
            VERIFY_SOON(!errors().isEmpty());

        // What the faulty device has sent by now has had its turn when the other one's next event has.
        const auto before = reports.size();
        sound->sendEvents();
        VERIFY_SOON(reports.size() > before);
        QVERIFY2(!reports.contains(QLatin1String(FAULTY_REPORT)), transcript.constData());
        QCOMPARE(errors().size(), line.isEmpty() ? 0 : 1);
        QVERIFY2(line.isEmpty() || errors().constFirst().startsWith(line), qPrintable(errors().join(QString())));
    }

    void silentDeviceIsFoundByItsAnnouncement()
    {
        startBoth("ignore-search"_s);
        ssdp->discover();
        VERIFY_SOON(reports.contains(QLatin1String(SOUND_REPORT)));
        QCOMPARE(locations(), QStringList());
        faulty->sayGoodbye();
        faulty->announce();
        VERIFY_SOON(reports.contains(QLatin1String(FAULTY_REPORT)));
        QCOMPARE(locations().size(), 1);
    }

    void deviceAnswersAnotherSearchOnly_data()
    {
        QTest::addColumn<QString>("target");
        QTest::addColumn<QByteArray>("lineEnd");
        QTest::newRow("crlf-search-only") << "239.255.255.250"
                                          << "\r\n"_ba;
        QTest::newRow("unicast-search-only") << "10.77.1.2"
                                             << "\n"_ba;
    }

    void deviceAnswersAnotherSearchOnly()
    {
        QFETCH(QString, target);
        QFETCH(QByteArray, lineEnd);
        startBoth(QString::fromLatin1(QTest::currentDataTag()));
        ssdp->discover();
        VERIFY_SOON(reports.contains(QLatin1String(SOUND_REPORT)));
        QCOMPARE(faulty->count(SimulatedDevice::Searched), 0);

        QUdpSocket socket;
        QVERIFY(socket.bind(QHostAddress("10.77.0.1")));
        const QByteArray text = Velmora::SSDP::Protocol::searchMessage().toLatin1().replace("\n", lineEnd);
        socket.writeDatagram(text, QHostAddress(target), 1900);
        VERIFY_SOON(faulty->count(SimulatedDevice::Searched) == 1);
        // One that is sent to an address is for the device there alone.
        const bool isForAll = QHostAddress(target).isMulticast();
        if (isForAll)
            VERIFY_SOON(sound->count(SimulatedDevice::Searched) == 2);
        QCOMPARE(sound->count(SimulatedDevice::Searched), isForAll ? 2 : 1);
    }

    void eventWithATailIsComplete()
    {
        startBoth(QString());
        faulty.reset();
        DeviceOptions options;
        options.eventTail = true;
        faulty = start(2, options);
        ssdp->discover();
        VERIFY_SOON(reports.contains(QLatin1String(FAULTY_REPORT)));
        QCOMPARE(errors(), QStringList());
    }

    void everyFaultIsTried()
    {
        if (QTest::currentAppName() && QCoreApplication::arguments().size() > 1)
            QSKIP("only some of the tests were run");
        for (const Fault& fault : SimulatedDevice::faults())
            QVERIFY2(tried.contains(QString::fromLatin1(fault.name)), fault.name);
    }

private:
    std::unique_ptr<SimulatedDevice> start(int number, const DeviceOptions& given)
    {
        DeviceOptions options = given;
        options.address = QHostAddress("10.77.1.%1"_s.arg(number));
        options.univocalCode = number;
        options.responseDelayMax = 0;
        auto result = std::make_unique<SimulatedDevice>(group.get(), options);
        if (!result->start())
            qFatal("%s", qPrintable(result->errorString()));
        return result;
    }

    void startBoth(const QString& fault)
    {
        {
            const PrivateNetwork::Scope scope(network, PrivateNetwork::DeviceSide);
            group = std::make_unique<SsdpGroup>();
        }
        DeviceOptions options;
        if (!fault.isEmpty()) {
            QCOMPARE(options.addFault(fault), QString());
            tried.insert(fault.section(QLatin1Char('='), 0, 0));
        }
        sound = start(3, DeviceOptions());
        faulty = start(2, options);
        connect(faulty.get(), &SimulatedDevice::message, this,
                [this](bool, const QString&, const QByteArray& text) { transcript += text; });
        ssdp = newController(LONGEST_TEST);
    }

    QStringList errors() const { return log().filter(QRegularExpression("^1\\|"_s)); }

    QStringList locations() const { return log().filter("0|Ssdp device|http://10.77.1.2"); }

    std::unique_ptr<SsdpGroup> group;
    std::unique_ptr<SimulatedDevice> faulty;
    std::unique_ptr<SimulatedDevice> sound;
    QByteArray transcript; ///< What the faulty device got and sent.
    QSet<QString> tried;
};

VELMORA_WIRE_TEST_MAIN(FaultsTest)

#include "tst_faults.moc"

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

    void startBoth(const DeviceOptions& options)
    {
        {
            const PrivateNetwork::Scope scope(network, PrivateNetwork::DeviceSide);
            group = std::make_unique<SsdpGroup>();
        }
        sound = start(3, DeviceOptions());
        faulty = start(2, options);
        connect(faulty.get(), &SimulatedDevice::message, this,
                [this](bool, const QString&, const QByteArray& text) { transcript += text; });
        ssdp = newController(LONGEST_TEST);
    }

    void startBoth(const QString& fault)
    {
        DeviceOptions options;
        QCOMPARE(options.addFault(fault), QString());
        tried.insert(options.faults.firstKey());
        startBoth(options);
    }

    bool faultWasShown() const { return faulty->hasShown(faulty->options().faults.firstKey()); }

    static QStringList errors() { return log().filter(QRegularExpression("^1\\|")); }
    static QStringList locations() { return log().filter("0|Ssdp device|http://10.77.1.2"); }

    std::unique_ptr<SsdpGroup> group;
    std::unique_ptr<SimulatedDevice> faulty;
    std::unique_ptr<SimulatedDevice> sound;
    QByteArray transcript; ///< What the faulty device got and sent.
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
        QTest::addColumn<QString>("fault");
        const auto add = [](Fault::Id fault, const char* value = nullptr) {
            const QString text = Fault::text(fault, value);
            QTest::newRow(qPrintable(text)) << text;
        };
        add(Fault::DuplicateResponses);
        add(Fault::DuplicateResponses, "20");
        add(Fault::SlowHttp, "5000");
        add(Fault::WrongLength, "100");
        add(Fault::NoSid);
        add(Fault::LateSid);
        add(Fault::EventManyChunks);
        add(Fault::EventNoLength);
        add(Fault::EventLength, "-20");
        add(Fault::EventUrl);
        add(Fault::AnnounceOnly, "50");
        add(Fault::SlowAnswer, "50");
        add(Fault::DieAfter, "event");
    }

    void deviceIsFoundDespiteTheFault()
    {
        QFETCH(QString, fault);
        startBoth(fault);
        ssdp->discover();
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
        QTest::addColumn<QString>("fault");
        QTest::addColumn<QByteArray>("lastMessage");
        QTest::addColumn<QString>("line");
        const auto add = [](Fault::Id fault, const char* lastMessage, const char* line = "",
                            const char* value = nullptr) {
            const QString text = Fault::text(fault, value);
            QTest::newRow(qPrintable(text)) << text << QByteArray(lastMessage) << QString(line);
        };
        add(Fault::LocationGarbage, "LOCATION: no location", UNPARSED_REPLY);
        add(Fault::LocationOtherHost, "LOCATION: http://192.0.2.1:", UNPARSED_REPLY);
        add(Fault::NoLocation, "HTTP/1.1 200 OK");
        add(Fault::SilentHttp, "GET /description.xml");
        add(Fault::ResetMidBody, "<root", UNPARSED_REPLY);
        add(Fault::WrongLength, "<root", UNPARSED_REPLY);
        add(Fault::TruncatedXml, "<root", UNPARSED_REPLY);
        add(Fault::DeepXml, "<root", UNPARSED_REPLY);
        add(Fault::HtmlInstead, "Welcome", UNPARSED_REPLY);
        add(Fault::Redirect, "302 Found", UNPARSED_REPLY);
        add(Fault::Error500, "500 Internal", UNPARSED_REPLY);
        add(Fault::Namespace, "<root xmlns=\"urn:example-org:other\"");
        add(Fault::RootElement, "</document>");
        add(Fault::DescriptionPrefix, "</d:root>");
        add(Fault::NoService, "</serviceList>");
        add(Fault::ServiceType, "keyobjects:2");
        add(Fault::EmbeddedService, "</deviceList>");
        add(Fault::ScpdUrl, "404 Not Found", UNPARSED_REPLY);
        add(Fault::NoVariable, "</scpd>");
        add(Fault::RefuseSubscribe, "412 Precondition");
        add(Fault::StandardSubscribeOnly, "400 Bad Request");
        add(Fault::NeverAnswerSubscribe, "SUBSCRIBE ");
        add(Fault::NoEvent, "SID: ");
        add(Fault::EventOneChunk, "</e:propertyset>");
        add(Fault::EventUnknownPath, "NOTIFY /");
        add(Fault::EventBadXml, "</KO>", UNPARSED_EVENT);
        add(Fault::EventLength, "</e:propertyset>");
        add(Fault::EventPrefix, "</ev:propertyset>");
        add(Fault::EventNoKo, "</e:propertyset>");
        add(Fault::KoMalformed, "<KO>12</KO>");
        add(Fault::DieAfter, "HTTP/1.1 200 OK", UNPARSED_REPLY, "search");
        add(Fault::DieAfter, "<root", UNPARSED_REPLY, "description");
        add(Fault::DieAfter, "<scpd", "", "scpd");
        add(Fault::DieAfter, "SID: ", "", "subscribe");
        add(Fault::DieAfter, "NOTIFY /", "", "event-head");
    }

    void deviceIsNotFound()
    {
        QFETCH(QString, fault);
        QFETCH(QByteArray, lastMessage);
        QFETCH(QString, line);
        startBoth(fault);
        ssdp->discover();
        VERIFY_SOON(transcript.contains(lastMessage));
        VERIFY_SOON(reports.contains(SOUND_REPORT));
        if (!line.isEmpty())
            VERIFY_SOON(!errors().isEmpty());

        // What the faulty device has sent by now has had its turn when the other one's next event has.
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
        startBoth(Fault::text(Fault::IgnoreSearch));
        ssdp->discover();
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
        QTest::addColumn<QString>("fault");
        QTest::addColumn<QString>("target");
        QTest::addColumn<QByteArray>("lineEnd");
        QTest::newRow("line ends") << Fault::text(Fault::CrlfSearchOnly) << "239.255.255.250"
                                   << "\r\n"_ba;
        QTest::newRow("address") << Fault::text(Fault::UnicastSearchOnly) << "10.77.1.2"
                                 << "\n"_ba;
    }

    void deviceAnswersAnotherSearchOnly()
    {
        QFETCH(QString, fault);
        QFETCH(QString, target);
        QFETCH(QByteArray, lineEnd);
        startBoth(fault);
        ssdp->discover();
        VERIFY_SOON(reports.contains(SOUND_REPORT));
        QCOMPARE(faulty->count(SimulatedDevice::Searched), 0);
        QVERIFY(faultWasShown());

        QUdpSocket socket;
        QVERIFY(socket.bind(QHostAddress("10.77.0.1")));
        const QByteArray text = Velmora::SSDP::Protocol::searchMessage().toLatin1().replace("\n", lineEnd);
        socket.writeDatagram(text, QHostAddress(target), 1900);
        VERIFY_SOON(faulty->count(SimulatedDevice::Searched) == 1);
        // One that is sent to an address is for the device there alone.
        const int soundSearches = QHostAddress(target).isMulticast() ? 2 : 1;
        COMPARE_SOON(sound->count(SimulatedDevice::Searched), soundSearches);
    }

    void eventWithATailIsComplete()
    {
        DeviceOptions options;
        options.eventTail = true;
        startBoth(options);
        ssdp->discover();
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

#include <ssdp/Ssdp.h>
#include <ssdp/SsdpManager.h>
#include <tests/support/Literals.h>
#include <tests/support/WireTest.h>
#include <tests/unit/KernelTables.h>

#include <QtNetwork/QNetworkInterface>
#include <QtNetwork/QUdpSocket>
#include <QtTest/QtTest>

#include <functional>
#include <memory>

using namespace Velmora;
using namespace Velmora::Tests;
using namespace Velmora::SSDP;
using Velmora::Simulator::PrivateNetwork;

namespace {

const int LONG = 600000;
const int SHORT = 20;

} // namespace

/// Each test makes the interfaces that it needs in a network of its own.
class ControllerTest : public QObject
{
    Q_OBJECT

public:
    explicit ControllerTest(PrivateNetwork&) { }

private:
    std::unique_ptr<PrivateNetwork> network;
    std::unique_ptr<QUdpSocket> device;

    void addLink(const std::string& hostAddress, const std::string& deviceAddress)
    {
        network->addLink(hostAddress, deviceAddress);
    }

    /// One interface, host0, with the address 10.77.0.1.
    void addUsualLink() { addLink("10.77.0.1/16", "10.77.1.1/16"); }

    void onHost(const std::vector<std::string>& command) { network->run(PrivateNetwork::HostSide, command); }

    /// From now on, what is sent to the group is kept on the device side of host0.
    bool listenOnDevice()
    {
        const PrivateNetwork::Scope scope(*network, PrivateNetwork::DeviceSide);
        device = std::make_unique<QUdpSocket>();
        return device->bind(QHostAddress(QHostAddress::AnyIPv4), 1900)
            && device->joinMulticastGroup(SsdpManager::MULTICAST_GROUP_ADDRESS,
                                          QNetworkInterface::interfaceFromName("device0"_s));
    }

    /// The first words of the datagrams that reached the device, up to a last one sent here.
    QStringList datagramsSoFar()
    {
        QUdpSocket last;
        last.bind(QHostAddress("10.77.0.1"), 0);
        last.writeDatagram("last"_ba, SsdpManager::MULTICAST_GROUP_ADDRESS, 1900);
        QStringList result;
        QSignalSpy arrived(device.get(), SIGNAL(readyRead()));
        while (device->hasPendingDatagrams() || arrived.wait()) {
            QByteArray datagram(static_cast<int>(device->pendingDatagramSize()), '\0');
            device->readDatagram(datagram.data(), datagram.size());
            if (datagram == "last")
                return result;
            result << QString::fromLatin1(datagram.split(' ').first());
        }
        return QStringList{"the last datagram did not come"};
    }

    static QTimer* timerOf(const Ssdp& controller) { return controller.findChild<QTimer*>(); }

    static QList<SsdpManager*> managersOf(const Ssdp& controller)
    {
        return controller.findChildren<SsdpManager*>();
    }

    /// The addresses whose servers were set up, in the order of the log.
    static QStringList addressesInOrder()
    {
        const QString start = "0|Ssdp Server bound to "_s;
        const QStringList listeners = KernelTables::tcpListeners();
        QStringList result;
        const QStringList lines = CapturedLog::all().filter(start);
        for (const QString& line : lines) {
            const QString port = QLatin1Char(':') + line.mid(start.size());
            for (const QString& listener : listeners) {
                if (listener.endsWith(port))
                    result << listener.chopped(port.size());
            }
        }
        return result;
    }

    static int managersInitialized()
    {
        return static_cast<int>(CapturedLog::all().filter("Ssdp Server bound to").size());
    }

    /// Whether a manager of the controller has UDP sockets.
    static bool isListening() { return !KernelTables::udpSockets().isEmpty(); }

    /// Answers the search of 10.77.0.1. The location is none that needs a network to be asked for.
    static void answerSearch(const QByteArray& location)
    {
        QUdpSocket().writeDatagram("HTTP/1.1 200 OK\nLOCATION: " + location + "\n\n", QHostAddress("10.77.0.1"),
                                   49152);
    }

    static QStringList devices() { return CapturedLog::all().filter("0|Ssdp device|"); }

    /// Reports KO = 12,34 through the first manager.
    static void report(const Ssdp& controller)
    {
        SsdpDevice record;
        record.address = QHostAddress("10.77.1.1");
        SsdpService service;
        service.stateVariables.insert("KO", "12,34"_s);
        Q_EMIT managersOf(controller).constFirst()->valueChanged(&record, &service, "KO"_s);
    }

private Q_SLOTS:
    void initTestCase()
    {
        // For QSignalSpy on Qt 5.
        qRegisterMetaType<QHostAddress>("QHostAddress");
    }

    void init()
    {
        CapturedLog::clear();
        network = std::make_unique<PrivateNetwork>();
    }

    void cleanup()
    {
        device.reset();
        QCOMPARE(KernelTables::udpSockets(), QStringList());
        QCOMPARE(KernelTables::tcpListeners(), QStringList());
    }

    void freshControllerBindsAndSendsNothing()
    {
        addUsualLink();
        const Ssdp controller(LONG);
        QVERIFY(managersOf(controller).isEmpty());
        QVERIFY(!timerOf(controller)->isActive());
        QVERIFY(!isListening());
        QCOMPARE(CapturedLog::all(), QStringList());
    }

    void timerIsAChildAndNotSingleShot()
    {
        const Ssdp controller(LONG);
        QCOMPARE(controller.findChildren<QTimer*>().size(), qsizetype(1));
        QVERIFY(!timerOf(controller)->isSingleShot());
    }

    void discoverReturnsThreeTwice()
    {
        addUsualLink();
        Ssdp controller(LONG);
        QCOMPARE(controller.discover(), 3);
        QCOMPARE(controller.discover(), 3);
    }

    void discoverStartsTheTimerWithTheTimeout()
    {
        addUsualLink();
        Ssdp controller(12345);
        controller.discover();
        QVERIFY(timerOf(controller)->isActive());
        QCOMPARE(timerOf(controller)->interval(), 12345);
        QVERIFY(!timerOf(controller)->isSingleShot());
    }

    void secondDiscoverLeavesTheTimerRunning()
    {
        addUsualLink();
        Ssdp controller(LONG);
        controller.discover();
        // A start with the controller's own time-out would be seen by the interval.
        timerOf(controller)->start(LONG / 2);
        controller.discover();
        QCOMPARE(timerOf(controller)->interval(), LONG / 2);
    }

    void secondDiscoverSendsNothing()
    {
        addUsualLink();
        QVERIFY(listenOnDevice());
        Ssdp controller(LONG);
        controller.discover();
        const QStringList before = KernelTables::udpSockets();
        controller.discover();
        QCOMPARE(datagramsSoFar(), QStringList{"M-SEARCH"});
        QCOMPARE(managersInitialized(), 1);
        QCOMPARE(KernelTables::udpSockets(), before);
    }

    void discoverMakesItsManagersChildren()
    {
        addUsualLink();
        Ssdp controller(LONG);
        controller.discover();
        QCOMPARE(managersOf(controller).size(), qsizetype(1));
        QCOMPARE(managersOf(controller).constFirst()->parent(), &controller);
    }

    void stopOnAnIdleControllerDoesNothing()
    {
        addUsualLink();
        Ssdp controller(LONG);
        const QSignalSpy expired(&controller, SIGNAL(timeoutExpired()));
        controller.stop();
        controller.stop();
        QVERIFY(managersOf(controller).isEmpty());
        QCOMPARE(expired.count(), 0);
        QCOMPARE(CapturedLog::all(), QStringList());
        QCOMPARE(controller.discover(), 3);
    }

    void stopEndsTheDiscoveryWithoutASignalOrALine()
    {
        addUsualLink();
        Ssdp controller(LONG);
        const QSignalSpy expired(&controller, SIGNAL(timeoutExpired()));
        controller.discover();
        CapturedLog::clear();
        controller.stop();
        QVERIFY(!timerOf(controller)->isActive());
        QVERIFY(!isListening());
        QCOMPARE(expired.count(), 0);
        QCOMPARE(CapturedLog::all(), QStringList());
    }

    void stopStopsEveryManagerAndKeepsIt()
    {
        addUsualLink();
        addLink("10.78.0.1/16", "10.78.1.1/16");
        Ssdp controller(LONG);
        controller.discover();
        const QList<SsdpManager*> managers = managersOf(controller);
        controller.stop();
        QVERIFY(!isListening());
        QCOMPARE(managersOf(controller), managers);
        QCOMPARE(KernelTables::tcpListeners().size(), qsizetype(2));
    }

    void discoverAfterStopSearchesAgainWithTheFullTimeout()
    {
        addUsualLink();
        QVERIFY(listenOnDevice());
        Ssdp controller(LONG);
        controller.discover();
        const QList<SsdpManager*> managers = managersOf(controller);
        controller.stop();
        QCOMPARE(controller.discover(), 3);
        QVERIFY(timerOf(controller)->isActive());
        QCOMPARE(timerOf(controller)->interval(), LONG);
        QCOMPARE(managersOf(controller), managers);
        QVERIFY(isListening());
        QCOMPARE(datagramsSoFar(), (QStringList{"M-SEARCH", "M-SEARCH"}));
    }

    void discoverAfterTheTimeoutSearchesAgain()
    {
        addUsualLink();
        QVERIFY(listenOnDevice());
        Ssdp controller(SHORT);
        QSignalSpy expired(&controller, SIGNAL(timeoutExpired()));
        for (int discovery = 1; discovery <= 3; ++discovery) {
            QCOMPARE(controller.discover(), 3);
            QTRY_COMPARE(expired.count(), discovery);
        }
        QCOMPARE(datagramsSoFar().size(), qsizetype(3));
        QCOMPARE(managersOf(controller).size(), qsizetype(1));
    }

    void everyDiscoveryForgetsTheDevicesOfTheLast()
    {
        addUsualLink();
        Ssdp controller(LONG);
        controller.discover();
        answerSearch("none:/a");
        answerSearch("none:/a");
        answerSearch("none:/b");
        QTRY_VERIFY(devices().contains("0|Ssdp device|none:/b"));
        QCOMPARE(devices().size(), qsizetype(2));
        controller.stop();
        controller.discover();
        answerSearch("none:/a");
        QTRY_COMPARE(devices().size(), qsizetype(3));
        QCOMPARE(devices().constLast(), "0|Ssdp device|none:/a"_s);
    }

    void timeoutIsLoggedAndSignalled()
    {
        addUsualLink();
        Ssdp controller(SHORT);
        QSignalSpy expired(&controller, SIGNAL(timeoutExpired()));
        controller.discover();
        CapturedLog::clear();
        QCOMPARE(expired.count(), 0);
        QTRY_COMPARE(expired.count(), 1);
        QCOMPARE(CapturedLog::all(), QStringList{"0|SSDP timeout expired not found"});
        QVERIFY(!timerOf(controller)->isActive());
    }

    void timeoutIsLoggedBeforeItIsSignalled()
    {
        addUsualLink();
        Ssdp controller(SHORT);
        QStringList logged;
        connect(&controller, &Ssdp::timeoutExpired, this, [&logged] { logged = CapturedLog::all(); });
        controller.discover();
        QTRY_VERIFY(logged.contains("0|SSDP timeout expired not found"));
    }

    void everyManagerIsStoppedWhenTheTimeoutIsSignalled()
    {
        addUsualLink();
        Ssdp controller(SHORT);
        bool expired = false;
        bool listening = true;
        bool ticking = true;
        connect(&controller, &Ssdp::timeoutExpired, this, [&] {
            listening = isListening();
            ticking = timerOf(controller)->isActive();
            expired = true;
        });
        controller.discover();
        QTRY_VERIFY(expired);
        QVERIFY(!listening);
        QVERIFY(!ticking);
    }

    void timeoutComesAfterReportsToo()
    {
        addUsualLink();
        Ssdp controller(SHORT);
        const QSignalSpy discovered(&controller, SIGNAL(discovered(int, int, QHostAddress)));
        QSignalSpy expired(&controller, SIGNAL(timeoutExpired()));
        controller.discover();
        report(controller);
        QCOMPARE(discovered.count(), 1);
        QVERIFY(timerOf(controller)->isActive());
        QTRY_COMPARE(expired.count(), 1);
        QVERIFY(CapturedLog::all().contains("0|SSDP timeout expired not found"));
    }

    void timeoutDoesNotExpireInsideDiscover()
    {
        addUsualLink();
        Ssdp controller(0);
        QSignalSpy expired(&controller, SIGNAL(timeoutExpired()));
        QCOMPARE(controller.discover(), 3);
        QCOMPARE(expired.count(), 0);
        QTRY_COMPARE(expired.count(), 1);
    }

    void reportLeavesTheDiscoveryRunning()
    {
        addUsualLink();
        Ssdp controller(LONG);
        controller.discover();
        report(controller);
        QVERIFY(timerOf(controller)->isActive());
        QVERIFY(isListening());
        QCOMPARE(controller.discover(), 3);
        QCOMPARE(managersInitialized(), 1);
    }

    void reportAfterStopIsSignalled()
    {
        addUsualLink();
        Ssdp controller(LONG);
        const QSignalSpy discovered(&controller, SIGNAL(discovered(int, int, QHostAddress)));
        controller.discover();
        controller.stop();
        report(controller);
        QCOMPARE(discovered.count(), 1);
        QCOMPARE(discovered.constFirst().at(0).toInt(), 12);
        QCOMPARE(discovered.constFirst().at(1).toInt(), 34);
    }

    void reportAfterTheTimeoutIsSignalled()
    {
        addUsualLink();
        Ssdp controller(SHORT);
        const QSignalSpy discovered(&controller, SIGNAL(discovered(int, int, QHostAddress)));
        QSignalSpy expired(&controller, SIGNAL(timeoutExpired()));
        controller.discover();
        QTRY_COMPARE(expired.count(), 1);
        report(controller);
        QCOMPARE(discovered.count(), 1);
        QVERIFY(!timerOf(controller)->isActive());
    }

    void reportIsSignalledOncePerManagerAndDiscovery()
    {
        addUsualLink();
        Ssdp controller(LONG);
        const QSignalSpy discovered(&controller, SIGNAL(discovered(int, int, QHostAddress)));
        for (int discovery = 0; discovery < 3; ++discovery) {
            controller.discover();
            controller.stop();
        }
        report(controller);
        QCOMPARE(discovered.count(), 1);
    }

    void lastInterfaceComesFirst()
    {
        addUsualLink();
        addLink("10.78.0.1/16", "10.78.1.1/16");
        addLink("10.79.0.1/16", "10.79.1.1/16");
        Ssdp controller(LONG);
        controller.discover();
        QCOMPARE(addressesInOrder(), (QStringList{"10.79.0.1", "10.78.0.1", "10.77.0.1"}));
    }

    void everyAddressOfAnInterfaceIsTakenInItsOrder()
    {
        addUsualLink();
        onHost({"ip", "addr", "add", "10.77.0.9/16", "dev", "host0"});
        onHost({"ip", "addr", "add", "10.77.0.2/16", "dev", "host0"});
        addLink("10.78.0.1/16", "10.78.1.1/16");
        Ssdp controller(LONG);
        controller.discover();
        QCOMPARE(addressesInOrder(), (QStringList{"10.78.0.1", "10.77.0.1", "10.77.0.9", "10.77.0.2"}));
    }

    void addressOfTwoInterfacesIsTakenTwice()
    {
        addUsualLink();
        addLink("10.77.0.1/16", "10.77.1.2/16");
        Ssdp controller(LONG);
        controller.discover();
        QCOMPARE(addressesInOrder(), (QStringList{"10.77.0.1", "10.77.0.1"}));
    }

    void interfaceThatIsDownIsSkipped()
    {
        addUsualLink();
        addLink("10.78.0.1/16", "10.78.1.1/16");
        onHost({"ip", "link", "set", "host1", "down"});
        Ssdp controller(LONG);
        controller.discover();
        QCOMPARE(addressesInOrder(), QStringList{"10.77.0.1"});
    }

    void interfaceWithOnlyIPv6IsSkipped()
    {
        addUsualLink();
        addLink("", "10.78.1.1/16");
        if (!QFile::exists("/proc/thread-self/net/if_inet6"_s))
            QSKIP("the kernel has no IPv6");
        onHost({"ip", "addr", "add", "fd00:77::1/64", "dev", "host1", "nodad"});
        onHost({"ip", "addr", "add", "fd00:78::1/64", "dev", "host0", "nodad"});
        Ssdp controller(LONG);
        controller.discover();
        QCOMPARE(addressesInOrder(), QStringList{"10.77.0.1"});
        QCOMPARE(managersOf(controller).size(), qsizetype(1));
    }

    void loopbackIsSkippedWhereThereIsAnother()
    {
        addUsualLink();
        onHost({"ip", "addr", "add", "10.99.0.1/32", "dev", "lo"});
        Ssdp controller(LONG);
        controller.discover();
        QCOMPARE(addressesInOrder(), QStringList{"10.77.0.1"});
    }

    void loopbackAloneGivesOneManagerOn127001()
    {
        onHost({"ip", "addr", "add", "10.99.0.1/32", "dev", "lo"});
        Ssdp controller(LONG);
        controller.discover();
        QCOMPARE(managersOf(controller).size(), qsizetype(1));
        QCOMPARE(addressesInOrder(), QStringList{"127.0.0.1"});
    }

    void interfaceThatComesLaterIsNotTakenUp()
    {
        addUsualLink();
        Ssdp controller(LONG);
        controller.discover();
        controller.stop();
        addLink("10.78.0.1/16", "10.78.1.1/16");
        controller.discover();
        QCOMPARE(managersOf(controller).size(), qsizetype(1));
        QVERIFY(!addressesInOrder().contains("10.78.0.1"));
    }

    void oneSearchGoesOutOnEveryInterface()
    {
        addUsualLink();
        addLink("10.78.0.1/16", "10.78.1.1/16");
        QSet<QString> senders;
        const PrivateNetwork::Scope scope(*network, PrivateNetwork::DeviceSide);
        QUdpSocket group;
        QVERIFY(group.bind(QHostAddress(QHostAddress::AnyIPv4), 1900));
        for (const char* const name : {"device0", "device1"}) {
            QVERIFY(group.joinMulticastGroup(SsdpManager::MULTICAST_GROUP_ADDRESS,
                                             QNetworkInterface::interfaceFromName(QLatin1String(name))));
        }
        connect(&group, &QUdpSocket::readyRead, this, [&] {
            while (group.hasPendingDatagrams()) {
                QHostAddress sender;
                group.readDatagram(nullptr, 0, &sender);
                senders << sender.toString();
            }
        });
        network->enter(PrivateNetwork::HostSide);
        Ssdp controller(LONG);
        controller.discover();
        QTRY_COMPARE(senders, (QSet<QString>{"10.77.0.1"_s, "10.78.0.1"_s}));
    }

    void managerThatFailsLeavesTheDiscoveryRunning()
    {
        addUsualLink();
        QUdpSocket other;
        QVERIFY(other.bind(QHostAddress(QHostAddress::AnyIPv4), 1900, QUdpSocket::DontShareAddress));
        Ssdp controller(LONG);
        QCOMPARE(controller.discover(), 3);
        QVERIFY(timerOf(controller)->isActive());
    }

    void hostMayStopAndDiscoverFromItsSlot_data()
    {
        QTest::addColumn<int>("calls");
        QTest::addColumn<bool>("runsAfterwards");
        QTest::newRow("stop") << 1 << false;
        QTest::newRow("discover") << 2 << true;
        QTest::newRow("stop and discover") << 3 << true;
    }

    void hostMayStopAndDiscoverFromItsSlot()
    {
        QFETCH(const int, calls);
        QFETCH(const bool, runsAfterwards);
        addUsualLink();
        Ssdp controller(LONG);
        connect(&controller, &Ssdp::discovered, this, [&] {
            if (calls & 1)
                controller.stop();
            if (calls & 2)
                QCOMPARE(controller.discover(), 3);
        });
        controller.discover();
        report(controller);
        QCOMPARE(timerOf(controller)->isActive(), runsAfterwards);
        QCOMPARE(isListening(), runsAfterwards);
        QCOMPARE(managersInitialized(), calls == 3 ? 2 : 1);
    }

    void hostMayDiscoverAgainWhenTheTimeoutExpires()
    {
        addUsualLink();
        QVERIFY(listenOnDevice());
        Ssdp controller(SHORT);
        int expirations = 0;
        connect(&controller, &Ssdp::timeoutExpired, this, [&] {
            if (++expirations < 3)
                QCOMPARE(controller.discover(), 3);
        });
        controller.discover();
        QTRY_COMPARE(expirations, 3);
        QVERIFY(!timerOf(controller)->isActive());
        QCOMPARE(datagramsSoFar().size(), qsizetype(3));
    }

    void hostMayRunAnEventLoopInItsSlot()
    {
        addUsualLink();
        Ssdp controller(SHORT);
        QSignalSpy expired(&controller, SIGNAL(timeoutExpired()));
        connect(&controller, &Ssdp::discovered, this, [&] { QVERIFY(expired.wait()); });
        controller.discover();
        report(controller);
        QCOMPARE(expired.count(), 1);
    }

    void hostMayLetTheControllerGoFromItsSlots_data()
    {
        QTest::addColumn<bool>("whenDiscovered");
        QTest::newRow("discovered") << true;
        QTest::newRow("timeoutExpired") << false;
    }

    void hostMayLetTheControllerGoFromItsSlots()
    {
        QFETCH(const bool, whenDiscovered);
        addUsualLink();
        const QPointer<Ssdp> controller(new Ssdp(whenDiscovered ? LONG : SHORT));
        const auto let = [&controller] { controller->deleteLater(); };
        if (whenDiscovered)
            connect(controller, &Ssdp::discovered, this, let);
        else
            connect(controller, &Ssdp::timeoutExpired, this, let);
        controller->discover();
        if (whenDiscovered)
            report(*controller);
        QTRY_VERIFY(controller.isNull());
    }

    void deletionInTheMiddleOfADiscoveryClosesEverything()
    {
        addUsualLink();
        addLink("10.78.0.1/16", "10.78.1.1/16");
        auto controller = std::make_unique<Ssdp>(LONG);
        controller->discover();
        QVERIFY(isListening());
        CapturedLog::clear();
        controller.reset();
        QVERIFY(!isListening());
        QCOMPARE(KernelTables::tcpListeners(), QStringList());
        QCOMPARE(KernelTables::membersOf(SsdpManager::MULTICAST_GROUP_ADDRESS), QStringList());
        QCOMPARE(CapturedLog::all(), QStringList());
    }

    void twoControllersWorkSideBySide()
    {
        addUsualLink();
        Ssdp first(LONG);
        Ssdp second(LONG);
        first.discover();
        second.discover();
        QCOMPARE(managersInitialized(), 2);
        QCOMPARE(CapturedLog::joined(1), QStringList());
    }
};

VELMORA_WIRE_TEST_MAIN(ControllerTest)
#include "tst_controller.moc"

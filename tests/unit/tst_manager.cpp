#include <ssdp/MulticastSocket.h>
#include <ssdp/SsdpManager.h>
#include <tests/support/Literals.h>
#include <tests/support/ManagerAccess.h>
#include <tests/support/WireTest.h>
#include <tests/unit/KernelTables.h>

#include <QtNetwork/QNetworkInterface>
#include <QtNetwork/QTcpServer>
#include <QtNetwork/QUdpSocket>
#include <QtTest/QtTest>

#include <memory>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

using namespace Velmora;
using namespace Velmora::Tests;
using namespace Velmora::SSDP;
using Velmora::Simulator::PrivateNetwork;

namespace {

const char INITIALIZE[] = "1|void Velmora::SSDP::SsdpManager::initialize()|";

QString failure(const char* text)
{
    return QLatin1String(INITIALIZE) + QLatin1String(text);
}

QString boundTo(const QString& port)
{
    return "0|Ssdp Server bound to "_s + port;
}

/// Counts its deletions.
class CountedService : public SsdpService
{
public:
    CountedService(int number, QList<int>& deletions)
        : number(number)
        , deletions(deletions)
    {
    }
    ~CountedService() override { deletions.append(number); }

private:
    int number;
    QList<int>& deletions;
};

} // namespace

class ManagerTest : public QObject
{
    Q_OBJECT

public:
    explicit ManagerTest(PrivateNetwork& network)
        : network(network)
    {
    }

private:
    PrivateNetwork& network;
    const QHostAddress local = QHostAddress("10.77.0.1");
    std::unique_ptr<SsdpManager> manager;
    std::unique_ptr<QUdpSocket> device;

    /// The port of the one listening socket there is.
    static QString serverPort()
    {
        const QStringList listeners = KernelTables::tcpListeners();
        return listeners.size() == 1 ? listeners.constFirst().section(QLatin1Char(':'), 1) : QString();
    }

    static QStringList members() { return KernelTables::membersOf(SsdpManager::MULTICAST_GROUP_ADDRESS); }

    SsdpDevice* addDevice(const QList<SsdpService*>& services)
    {
        SsdpDevice* const added = new SsdpDevice;
        added->services = services;
        ManagerAccess(*manager).devices().append(added);
        return added;
    }

    /// Holds a UDP port of every address and shares it with nobody.
    static std::unique_ptr<QUdpSocket> holder(quint16 port)
    {
        auto socket = std::make_unique<QUdpSocket>();
        if (!socket->bind(QHostAddress(QHostAddress::AnyIPv4), port, QUdpSocket::DontShareAddress))
            return nullptr;
        return socket;
    }

    /// The datagram that the device side got, with where it came from; waits for one.
    QByteArray nextDatagram(QString* sender = nullptr)
    {
        QSignalSpy arrived(device.get(), SIGNAL(readyRead()));
        if (!device->hasPendingDatagrams() && !arrived.wait())
            return QByteArray();
        QByteArray datagram(static_cast<int>(device->pendingDatagramSize()), '\0');
        QHostAddress address;
        quint16 port = 0;
        device->readDatagram(datagram.data(), datagram.size(), &address, &port);
        if (sender)
            *sender = address.toString() + QLatin1Char(':') + QString::number(port);
        return datagram;
    }

private Q_SLOTS:
    void initTestCase()
    {
        network.addLink("10.77.0.1/16", "10.77.1.1/16");
        network.run(PrivateNetwork::HostSide, {"ip", "route", "add", "224.0.0.0/4", "dev", "host0"});
    }

    void init()
    {
        CapturedLog::clear();
        manager = std::make_unique<SsdpManager>(local);
        const PrivateNetwork::Scope scope(network, PrivateNetwork::DeviceSide);
        device = std::make_unique<QUdpSocket>();
        QVERIFY(device->bind(QHostAddress(QHostAddress::AnyIPv4), 1900));
        QVERIFY(device->joinMulticastGroup(SsdpManager::MULTICAST_GROUP_ADDRESS,
                                           QNetworkInterface::interfaceFromName("device0"_s)));
    }

    void cleanup()
    {
        manager.reset();
        device.reset();
        for (const int descriptor : holders)
            close(descriptor);
        holders.clear();
        network.setSetting(PrivateNetwork::HostSide, "net/ipv4/igmp_max_memberships", "20");
        network.setSetting(PrivateNetwork::HostSide, "net/ipv4/ip_local_port_range", "32768 60999");
        QCOMPARE(KernelTables::udpSockets(), QStringList());
        QCOMPARE(KernelTables::tcpListeners(), QStringList());
    }

    void freshManagerHasNoSockets()
    {
        QCOMPARE(manager->findChildren<QUdpSocket*>().size(), qsizetype(0));
        QCOMPARE(ManagerAccess(*manager).multicastSocket(), nullptr);
        QCOMPARE(ManagerAccess(*manager).unicastSocket(), nullptr);
        QCOMPARE(KernelTables::udpSockets(), QStringList());
        QCOMPARE(KernelTables::tcpListeners(), QStringList());
        QCOMPARE(CapturedLog::all(), QStringList());
    }

    void initializeBindsBothSocketsAndListens()
    {
        manager->initialize();
        QCOMPARE(KernelTables::udpSockets(), (QStringList{"0.0.0.0:1900", "10.77.0.1:49152"}));
        QCOMPARE(KernelTables::tcpListeners(), QStringList{"10.77.0.1:"_s + serverPort()});
    }

    void initializeJoinsTheGroupOnItsAddress()
    {
        manager->initialize();
        QCOMPARE(members(), QStringList{"host0 x 1"});
    }

    void initializeLogsThePortOfTheServer()
    {
        manager->initialize();
        QCOMPARE(CapturedLog::all(), QStringList{boundTo(serverPort())});
    }

    void socketsAreChildrenOfTheManager()
    {
        manager->initialize();
        ManagerAccess access(*manager);
        QCOMPARE(access.multicastSocket()->parent(), manager.get());
        QCOMPARE(access.unicastSocket()->parent(), manager.get());
        QCOMPARE(access.eventServer().parent(), nullptr);
        QCOMPARE(access.networkManager().parent(), nullptr);
    }

    void unicastSocketTakesTheFirstFreePortFrom49152On()
    {
        const auto first = holder(49152);
        const auto second = holder(49153);
        const auto fourth = holder(49155);
        QVERIFY(first && second && fourth);
        manager->initialize();
        QVERIFY(KernelTables::udpSockets().contains("10.77.0.1:49154"));
    }

    void unicastSocketTakes65534AsItsLastPort()
    {
        QVERIFY(holdEveryPortTo(65533));
        manager->initialize();
        QVERIFY(KernelTables::udpSockets().contains("10.77.0.1:65534"));
        QCOMPARE(CapturedLog::all(), QStringList{boundTo(serverPort())});
    }

    void withEveryPortTakenInitializeGoesOnWithoutAWord()
    {
        QVERIFY(holdEveryPortTo(65534));
        manager->initialize();
        QCOMPARE(ManagerAccess(*manager).unicastSocket()->state(), QAbstractSocket::UnconnectedState);
        QVERIFY(!KernelTables::udpSockets().contains("10.77.0.1:65535"));
        QCOMPARE(CapturedLog::all(), QStringList{boundTo(serverPort())});
        QVERIFY(!serverPort().isEmpty());
    }

    void failedBindIsLoggedAndEndsInitialize()
    {
        const auto other = holder(1900);
        QVERIFY(other);
        manager->initialize();
        QCOMPARE(CapturedLog::all(), QStringList{failure("Failed to bind multicast socket for listening")});
        QCOMPARE(KernelTables::udpSockets(), QStringList{"0.0.0.0:1900"});
        QCOMPARE(KernelTables::tcpListeners(), QStringList());
        QCOMPARE(members(), QStringList());
    }

    void failedJoinIsLoggedAndEndsInitialize()
    {
        network.setSetting(PrivateNetwork::HostSide, "net/ipv4/igmp_max_memberships", "0");
        manager->initialize();
        QCOMPARE(CapturedLog::all(), QStringList{failure("Could n``ot join 239.255.255.250")});
        QCOMPARE(KernelTables::udpSockets(), QStringList{"0.0.0.0:1900"});
        QCOMPARE(KernelTables::tcpListeners(), QStringList());
    }

    void addressOfAnotherHostIsAFailedJoin()
    {
        SsdpManager other(QHostAddress("10.77.1.1"));
        other.initialize();
        QCOMPARE(CapturedLog::all(), QStringList{failure("Could n``ot join 239.255.255.250")});
    }

    void searchIsSentAfterAFailedBindToo()
    {
        const auto other = holder(1900);
        QVERIFY(other);
        manager->initialize();
        manager->discover();
        QVERIFY(nextDatagram().startsWith("M-SEARCH * HTTP/1.1\n"));
    }

    void searchIsSentAfterAFailedJoinToo()
    {
        network.setSetting(PrivateNetwork::HostSide, "net/ipv4/igmp_max_memberships", "0");
        manager->initialize();
        manager->discover();
        QVERIFY(nextDatagram().startsWith("M-SEARCH * HTTP/1.1\n"));
    }

    void afterAFailedInitializeStopReleasesTheSockets()
    {
        network.setSetting(PrivateNetwork::HostSide, "net/ipv4/igmp_max_memberships", "0");
        manager->initialize();
        QCOMPARE(manager->findChildren<QUdpSocket*>().size(), qsizetype(2));
        manager->stop();
        QCOMPARE(manager->findChildren<QUdpSocket*>().size(), qsizetype(0));
        QCOMPARE(KernelTables::udpSockets(), QStringList());
    }

    void failedListenIsLoggedBeforePortZero()
    {
        network.setSetting(PrivateNetwork::HostSide, "net/ipv4/ip_local_port_range", "50000 50000");
        QTcpServer other;
        QVERIFY(other.listen(local, 50000));
        manager->initialize();
        QCOMPARE(CapturedLog::all(), (QStringList{failure("Could not bind local Ssdp server"), boundTo("0")}));
        QVERIFY(KernelTables::udpSockets().contains("10.77.0.1:49152"));
    }

    void secondInitializeFindsTheServerListening()
    {
        manager->initialize();
        const QString port = serverPort();
        manager->stop();
        CapturedLog::clear();
        manager->initialize();
        QCOMPARE(CapturedLog::all(), (QStringList{failure("Could not bind local Ssdp server"), boundTo(port)}));
        QCOMPARE(serverPort(), port);
    }

    void initializeWithoutStopKeepsTheOldSockets()
    {
        manager->initialize();
        manager->initialize();
        QCOMPARE(KernelTables::udpSockets(),
                 (QStringList{"0.0.0.0:1900", "0.0.0.0:1900", "10.77.0.1:49152", "10.77.0.1:49153"}));
        QCOMPARE(members(), QStringList{"host0 x 2"});
    }

    void everyMessageIsAPieceOfItsOwn()
    {
        const auto other = holder(1900);
        manager->initialize();
        QCOMPARE(CapturedLog::lines().size(), qsizetype(1));
        QCOMPARE(CapturedLog::lines().constFirst().severity, 1);
        QCOMPARE(CapturedLog::lines().constFirst().pieces,
                 (QStringList{"void Velmora::SSDP::SsdpManager::initialize()",
                              "Failed to bind multicast socket for listening"}));
    }

    void discoverSendsOneSearchFromTheUnicastSocket()
    {
        manager->initialize();
        manager->discover();
        QUdpSocket last;
        QVERIFY(last.bind(local, 0));
        last.writeDatagram("last"_ba, SsdpManager::MULTICAST_GROUP_ADDRESS, 1900);
        QString sender;
        QCOMPARE(nextDatagram(&sender), manager->createSearchMessage().toLatin1());
        QCOMPARE(sender, "10.77.0.1:49152"_s);
        QCOMPARE(nextDatagram(), "last"_ba);
    }

    void discoverWithoutInitializeSendsNothing()
    {
        manager->discover();
        manager->initialize();
        manager->discover();
        manager->stop();
        manager->discover();
        QUdpSocket last;
        QVERIFY(last.bind(local, 0));
        last.writeDatagram("last"_ba, SsdpManager::MULTICAST_GROUP_ADDRESS, 1900);
        QVERIFY(nextDatagram().startsWith("M-SEARCH"));
        QCOMPARE(nextDatagram(), "last"_ba);
    }

    void stopClosesTheUdpSocketsAtOnce()
    {
        manager->initialize();
        manager->stop();
        QCOMPARE(KernelTables::udpSockets(), QStringList());
        QCOMPARE(members(), QStringList());
        QCOMPARE(manager->findChildren<QUdpSocket*>().size(), qsizetype(0));
        QCOMPARE(ManagerAccess(*manager).multicastSocket(), nullptr);
        QCOMPARE(ManagerAccess(*manager).unicastSocket(), nullptr);
    }

    void stopLeavesTheServerListening()
    {
        manager->initialize();
        const QString port = serverPort();
        manager->stop();
        QVERIFY(!port.isEmpty());
        QCOMPARE(serverPort(), port);
    }

    void stopLeavesTheDevices()
    {
        SsdpService* const service = new SsdpService;
        const SsdpDevice* const added = addDevice({service});
        manager->initialize();
        manager->stop();
        QCOMPARE(manager->getDeviceForService(service), added);
    }

    void stopWithoutInitializeDoesNothing()
    {
        manager->stop();
        manager->stop();
        QCOMPARE(CapturedLog::all(), QStringList());
        QCOMPARE(manager->children().size(), qsizetype(0));
    }

    void stopLogsNothing()
    {
        manager->initialize();
        CapturedLog::clear();
        manager->stop();
        manager->stop();
        QCOMPARE(CapturedLog::all(), QStringList());
    }

    void clearDevicesDeletesThemInListOrder()
    {
        QList<int> deletions;
        addDevice({new CountedService(1, deletions), new CountedService(2, deletions)});
        addDevice({});
        addDevice({new CountedService(3, deletions)});
        manager->clearDevices();
        QCOMPARE(deletions, (QList<int>{1, 2, 3}));
        QVERIFY(ManagerAccess(*manager).devices().isEmpty());
        manager->clearDevices();
        QCOMPARE(deletions.size(), qsizetype(3));
    }

    void clearDevicesLeavesTheSockets()
    {
        manager->initialize();
        const QStringList before = KernelTables::udpSockets() + KernelTables::tcpListeners();
        manager->clearDevices();
        QCOMPARE(KernelTables::udpSockets() + KernelTables::tcpListeners(), before);
    }

    void destructionDeletesTheDevicesInListOrder()
    {
        QList<int> deletions;
        addDevice({new CountedService(1, deletions), new CountedService(2, deletions)});
        addDevice({new CountedService(3, deletions)});
        manager.reset();
        QCOMPARE(deletions, (QList<int>{1, 2, 3}));
    }

    void destructionClosesEverySocket()
    {
        manager->initialize();
        CapturedLog::clear();
        manager.reset();
        QCOMPARE(KernelTables::udpSockets(), QStringList());
        QCOMPARE(KernelTables::tcpListeners(), QStringList());
        QCOMPARE(members(), QStringList());
        QCOMPARE(CapturedLog::all(), QStringList());
    }

    void serviceIsFoundInItsDevice()
    {
        SsdpService* const services[] = {new SsdpService, new SsdpService, new SsdpService, new SsdpService};
        addDevice({});
        const SsdpDevice* const second = addDevice({services[0]});
        const SsdpDevice* const third = addDevice({services[1], services[2], services[3]});
        QCOMPARE(manager->getDeviceForService(services[0]), second);
        QCOMPARE(manager->getDeviceForService(services[1]), third);
        QCOMPARE(manager->getDeviceForService(services[2]), third);
        QCOMPARE(manager->getDeviceForService(services[3]), third);
    }

    void firstDeviceThatListsAServiceHasIt()
    {
        SsdpService* const shared = new SsdpService;
        const SsdpDevice* const first = addDevice({shared});
        SsdpDevice* const second = addDevice({shared});
        QCOMPARE(manager->getDeviceForService(shared), first);
        second->services.clear();
    }

    void serviceIsKnownByItsPointerAlone()
    {
        SsdpService* const listed = new SsdpService;
        listed->id = QUuid::createUuid();
        addDevice({listed});
        SsdpService same;
        same.id = listed->id;
        QCOMPARE(manager->getDeviceForService(&same), nullptr);
    }

    void unknownServiceHasNoDevice()
    {
        const SsdpService service;
        QCOMPARE(manager->getDeviceForService(&service), nullptr);
        QCOMPARE(manager->getDeviceForService(nullptr), nullptr);
        addDevice({});
        addDevice({new SsdpService});
        QCOMPARE(manager->getDeviceForService(&service), nullptr);
        QCOMPARE(manager->getDeviceForService(nullptr), nullptr);
    }

private:
    std::vector<int> holders;

    /// Holds the UDP ports from 49152 to @p last until cleanup(), by plain sockets since there are many.
    bool holdEveryPortTo(int last)
    {
        rlimit limit = {};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
        for (int port = 49152; port <= last; ++port) {
            sockaddr_in address = {};
            address.sin_family = AF_INET;
            address.sin_port = htons(static_cast<uint16_t>(port));
            holders.push_back(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
            if (::bind(holders.back(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
                return false;
        }
        return true;
    }
};

VELMORA_WIRE_TEST_MAIN(ManagerTest)
#include "tst_manager.moc"

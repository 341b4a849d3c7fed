#include <tests/support/Literals.h>
#include <tests/support/WireTest.h>

#include <QtNetwork/QNetworkInterface>

#include <algorithm>

using namespace Velmora::Tests;
using Velmora::Simulator::PrivateNetwork;
using Velmora::SSDP::SsdpManager;

namespace {

const char SIGNATURE[] = "1|void Velmora::SSDP::SsdpManager::initialize()|";

} // namespace

/// On which addresses the library works, and what it does when it cannot.
class AddressesTest : public WireTest
{
    Q_OBJECT

public:
    using WireTest::WireTest;

private Q_SLOTS:
    void initTestCase() { }

    void init()
    {
        ssdp = newController(60000);
        reports.clear();
        timeouts = 0;
        CapturedLog::clear();
    }

    void cleanup()
    {
        WireTest::cleanup();
        // Their names count on over all tests.
        for (const QNetworkInterface& interface : QNetworkInterface::allInterfaces()) {
            if (interface.name().startsWith("host"))
                host("ip link del "_s + interface.name());
        }
    }

    void onlyLoopbackGivesOneControlPoint()
    {
        QCOMPARE(ssdp->discover(), 3);
        QCOMPARE(addresses(), QStringList{"127.0.0.1"});
        QCOMPARE(log(), QStringList{"0|Ssdp Server bound to %1"_s.arg(manager().eventServer().serverPort())});
        QVERIFY(manager().eventServer().serverPort() != 0);
    }

    void interfaceThatIsDownIsSkipped()
    {
        const QString down = addLink("10.77.0.1/16", "10.77.1.1/16");
        addLink("10.78.0.1/16", "10.78.1.1/16");
        host("ip link set %1 down"_s.arg(down));
        ssdp->discover();
        QCOMPARE(addresses(), QStringList{"10.78.0.1"});
    }

    void interfaceWithIPv6OnlyGivesNoControlPoint()
    {
        const QString link = addLink("", "10.77.1.1/16");
        host("ip addr add fd00::1/64 dev %1 nodad"_s.arg(link));
        ssdp->discover();
        QCOMPARE(addresses(), QStringList{"127.0.0.1"});

        addLink("10.78.0.1/16", "10.78.1.1/16");
        ssdp = newController(60000);
        ssdp->discover();
        QCOMPARE(addresses(), QStringList{"10.78.0.1"});
    }

    void lastInterfaceComesFirst()
    {
        addLink("10.77.0.1/16", "10.77.1.1/16");
        addLink("10.78.0.1/16", "10.78.1.1/16");
        addLink("10.79.0.1/16", "10.79.1.1/16");
        ssdp->discover();
        QCOMPARE(addresses(), (QStringList{"10.79.0.1", "10.78.0.1", "10.77.0.1"}));
        QStringList lines;
        for (SsdpManager* const controlPoint : ssdp->findChildren<SsdpManager*>())
            lines << "0|Ssdp Server bound to %1"_s.arg(ManagerAccess(*controlPoint).eventServer().serverPort());
        QCOMPARE(log(), lines);
    }

    void everyAddressOfAnInterfaceIsTakenInOrder()
    {
        const QString link = addLink("10.77.0.3/16", "10.77.1.1/16");
        host("ip addr add 10.77.0.1/16 dev %1"_s.arg(link));
        host("ip addr add fd00::1/64 dev %1 nodad"_s.arg(link));
        host("ip addr add 10.77.0.2/24 dev %1"_s.arg(link));
        addLink("10.78.0.1/16", "10.78.1.1/16");
        ssdp->discover();
        // The kernel lists the first address of each network before the others.
        QCOMPARE(addresses(), (QStringList{"10.78.0.1", "10.77.0.3", "10.77.0.2", "10.77.0.1"}));
    }

    void addressOfTwoInterfacesIsTakenTwice()
    {
        addLink("10.77.0.1/16", "10.77.1.1/16");
        addLink("10.77.0.1/16", "10.77.1.2/16");
        ssdp->discover();
        QCOMPARE(addresses(), (QStringList{"10.77.0.1", "10.77.0.1"}));
    }

    void addressThatComesLaterIsNotTaken()
    {
        addLink("10.77.0.1/16", "10.77.1.1/16");
        ssdp->discover();
        addLink("10.78.0.1/16", "10.78.1.1/16");
        ssdp->stop();
        const QList<SsdpManager*> before = ssdp->findChildren<SsdpManager*>();
        ssdp->discover();
        QCOMPARE(ssdp->findChildren<SsdpManager*>(), before);
        QCOMPARE(addresses(), QStringList{"10.77.0.1"});
    }

    void everyControlPointSearchesFromItsAddress()
    {
        const QString link = addLink("10.77.0.1/16", "10.77.1.1/16");
        host("ip addr add 10.77.0.2/16 dev %1"_s.arg(link));
        addLink("10.78.0.1/16", "10.78.1.1/16");
        const ScriptedDevice one(network, "10.77.1.1"_s, 8080);
        const ScriptedDevice other(network, "10.78.1.1"_s, 8080);
        ssdp->discover();
        // Each of them gets what comes to any interface of the device side.
        VERIFY_SOON(other.searches.size() >= 3);
        QStringList senders;
        for (const ScriptedDevice::Datagram& datagram : other.searches)
            senders << "%1:%2"_s.arg(datagram.sender.toString()).arg(datagram.port);
        senders.sort();
        QCOMPARE(senders, (QStringList{"10.77.0.1:49152", "10.77.0.2:49152", "10.78.0.1:49152"}));
    }

    void announcementReachesEveryControlPoint()
    {
        addLink("10.77.0.1/16", "10.77.1.1/16");
        addLink("10.78.0.1/16", "10.78.1.1/16");
        device = std::make_unique<ScriptedDevice>(network, "10.77.1.1"_s, 8080);
        scriptDevice();
        ssdp->discover();
        device->announce(
            "NOTIFY * HTTP/1.1\r\nLOCATION: http://10.77.1.1:8080/desc.xml\r\nNTS: ssdp:alive\r\n\r\n");
        VERIFY_SOON(device->requestsFor("SUBSCRIBE ").size() == 2);
        QCOMPARE(device->requestsFor("GET /desc.xml ").size(), 2);
        QCOMPARE(log().filter("Ssdp device").size(), 2);

        // Each is told by the device on its own, and each reports.
        for (const ScriptedDevice::Request& request : device->requestsFor("SUBSCRIBE "))
            QVERIFY(sendEvent(callbackOf(request.bytes), eventBody("KO", "12,34")));
        QCOMPARE(reports, (QStringList{"12,34 at 10.77.1.1", "12,34 at 10.77.1.1"}));
    }

    void answerReachesTheControlPointThatSearched()
    {
        addLink("10.77.0.1/16", "10.77.1.1/16");
        addLink("10.78.0.1/16", "10.78.1.1/16");
        device = std::make_unique<ScriptedDevice>(network, "10.77.1.1"_s, 8080);
        scriptDevice();
        ssdp->discover();
        const auto fromThere = [](const ScriptedDevice::Datagram& datagram) {
            return datagram.sender == QHostAddress("10.77.0.1");
        };
        VERIFY_SOON(std::any_of(device->searches.cbegin(), device->searches.cend(), fromThere));
        while (!fromThere(device->searches.last()))
            device->searches.removeLast();
        QVERIFY(answerSearch());
        VERIFY_SOON(device->requestsFor("SUBSCRIBE ").size() == 1);
        QCOMPARE(callback().host, QHostAddress("10.77.0.1"));
        QVERIFY(sendLastEvent());
        QCOMPARE(device->requestsFor("GET ").size(), 2);
        QCOMPARE(reports.size(), 1);
    }

    void searchGoesOutFromTheFirstFreePort()
    {
        addLink("10.77.0.1/16", "10.77.1.1/16");
        device = std::make_unique<ScriptedDevice>(network, "10.77.1.1"_s, 8080);
        const auto first = occupy(QHostAddress("10.77.0.1"), 49152);
        const auto second = occupy(QHostAddress(QHostAddress::AnyIPv4), 49153);
        QVERIFY(first && second);
        QVERIFY(search());
        QCOMPARE(device->searches.at(0).port, quint16(49154));
        QCOMPARE(log().filter("1|"), QStringList());
    }

    void searchGoesOutWhenThePortIsTaken()
    {
        const QString link = addLink("10.77.0.1/16", "10.77.1.1/16");
        host("ip route add 224.0.0.0/4 dev %1"_s.arg(link));
        device = std::make_unique<ScriptedDevice>(network, "10.77.1.1"_s, 8080);
        const auto occupied = occupy(QHostAddress(QHostAddress::AnyIPv4), 1900);
        QVERIFY(occupied);
        QVERIFY(search());
        QCOMPARE(log(), QStringList{QLatin1String(SIGNATURE) + "Failed to bind multicast socket for listening"_s});
        QCOMPARE(CapturedLog::lines().at(0).pieces.size(), 2);
        QVERIFY(device->searches.at(0).bytes.startsWith("M-SEARCH * HTTP/1.1\nHOST: 239.255.255.250:1900\n"));
        QCOMPARE(device->searches.at(0).sender, QHostAddress("10.77.0.1"));
        QVERIFY(!manager().eventServer().isListening());
    }

    void searchGoesOutWhenTheGroupCannotBeJoined()
    {
        const QString link = addLink("10.77.0.1/16", "10.77.1.1/16");
        host("ip route add 224.0.0.0/4 dev %1"_s.arg(link));
        device = std::make_unique<ScriptedDevice>(network, "10.77.1.1"_s, 8080);
        network.setSetting(PrivateNetwork::HostSide, "net/ipv4/igmp_max_memberships", "0");
        const bool searched = search();
        network.setSetting(PrivateNetwork::HostSide, "net/ipv4/igmp_max_memberships", "20");
        QVERIFY(searched);
        QCOMPARE(log(), QStringList{QLatin1String(SIGNATURE) + "Could n``ot join 239.255.255.250"_s});
        QCOMPARE(CapturedLog::lines().at(0).pieces.size(), 2);
        QVERIFY(device->searches.at(0).bytes.startsWith("M-SEARCH * HTTP/1.1\nHOST: 239.255.255.250:1900\n"));
        QVERIFY(!manager().eventServer().isListening());
    }

    void failedBindIsTriedAgainByTheNextDiscovery()
    {
        const QString link = addLink("10.77.0.1/16", "10.77.1.1/16");
        host("ip route add 224.0.0.0/4 dev %1"_s.arg(link));
        device = std::make_unique<ScriptedDevice>(network, "10.77.1.1"_s, 8080);
        auto occupied = occupy(QHostAddress(QHostAddress::AnyIPv4), 1900);
        QVERIFY(search());
        ssdp->stop();
        occupied.reset();
        QVERIFY(findDevice());
        QVERIFY(sendLastEvent());
        QCOMPARE(device->searches.last().port, quint16(49152));
    }

private:
    void host(const QString& command)
    {
        std::vector<std::string> words;
        for (const QString& word : command.split(QLatin1Char(' ')))
            words.push_back(word.toStdString());
        network.run(PrivateNetwork::HostSide, words);
    }

    /// A socket of another program of the host, which shares nothing.
    static std::unique_ptr<QUdpSocket> occupy(const QHostAddress& address, quint16 port)
    {
        auto socket = std::make_unique<QUdpSocket>();
        return socket->bind(address, port, QUdpSocket::DontShareAddress) ? std::move(socket) : nullptr;
    }

    /// The addresses of the control points, in their order.
    QStringList addresses() const
    {
        QStringList result;
        for (SsdpManager* const controlPoint : ssdp->findChildren<SsdpManager*>())
            result << ManagerAccess(*controlPoint).eventServer().serverAddress().toString();
        return result;
    }
};

VELMORA_WIRE_TEST_MAIN(AddressesTest)

#include "tst_addresses.moc"

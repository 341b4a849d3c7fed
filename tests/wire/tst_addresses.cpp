#include <ssdp/MulticastSocket.h>
#include <tests/support/KernelTables.h>
#include <tests/support/WireTest.h>

#include <QtNetwork/QNetworkInterface>

#include <algorithm>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Velmora::Tests;
using Velmora::Simulator::PrivateNetwork;
using Velmora::SSDP::SsdpManager;

/// Which addresses and ports the library uses, and what it does when it cannot use them.
class AddressesTest : public WireTest
{
    Q_OBJECT

    std::vector<int> held;

    void host(const QString& command)
    {
        std::vector<std::string> words;
        for (const QString& word : command.split(QLatin1Char(' ')))
            words.push_back(word.toStdString());
        network.run(PrivateNetwork::HostSide, words);
    }

    void setOnHost(const char* setting, const char* value)
    {
        network.setSetting(PrivateNetwork::HostSide, setting, value);
    }

    /// Adds what WireTest::initTestCase() adds, and a device. Returns the name of the host's interface.
    QString addUsualLink()
    {
        QString link = addLink("10.77.0.1/16", "10.77.1.1/16");
        host("ip route add 224.0.0.0/4 dev "_s + link);
        makeDevice();
        return link;
    }

    /// Returns a socket that does not share its port, or null.
    static std::unique_ptr<QUdpSocket> occupy(const QHostAddress& address, quint16 port)
    {
        auto socket = std::make_unique<QUdpSocket>();
        return socket->bind(address, port, QUdpSocket::DontShareAddress) ? std::move(socket) : nullptr;
    }

    /// Binds to the search ports up to @p last, until cleanup(). Thousands of QUdpSocket would take longer.
    bool holdEveryPortTo(int last)
    {
        rlimit limit = {};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
        for (int port = 49152 + static_cast<int>(held.size()); port <= last; ++port) {
            sockaddr_in address = {};
            address.sin_family = AF_INET;
            address.sin_port = htons(static_cast<uint16_t>(port));
            held.push_back(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
            if (::bind(held.back(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
                return false;
        }
        return true;
    }

    QList<SsdpManager*> controlPoints() const { return ssdp->findChildren<SsdpManager*>(); }

    /// Returns @p text once for each control point, with the address and port of its event server.
    QStringList eventServers(const QString& text) const
    {
        QStringList result;
        for (SsdpManager* const controlPoint : controlPoints()) {
            const QTcpServer& server = ManagerAccess(*controlPoint).eventServer();
            result << QString(text)
                          .replace("ADDRESS", server.serverAddress().toString())
                          .replace("PORT", QString::number(server.serverPort()));
        }
        return result;
    }

    QStringList addresses() const { return eventServers("ADDRESS"); }
    QStringList boundLines() const { return eventServers("0|Ssdp Server bound to PORT"); }

    static QString failure(const QString& text)
    {
        return "1|void Velmora::SSDP::SsdpManager::initialize()|"_s + text;
    }

private Q_SLOTS:
    void initTestCase() { }

    void init() { makeController(); }

    void cleanup()
    {
        WireTest::cleanup();
        for (const int descriptor : held)
            close(descriptor);
        held.clear();
        host("ip addr flush dev lo scope global");
        setOnHost("net/ipv4/igmp_max_memberships", "20");
        setOnHost("net/ipv4/ip_local_port_range", "32768 60999");
        // The number in the name of an interface grows from test to test.
        for (const QNetworkInterface& interface : QNetworkInterface::allInterfaces()) {
            if (interface.name().startsWith("host"))
                host("ip link del "_s + interface.name());
        }
        QCOMPARE(KernelTables::udpSockets() + KernelTables::tcpListeners(), QStringList());
    }

    void unusableInterfaceIsSkipped_data()
    {
        const Table<bool, QString> row("hasIPv4", "command");
        row("another address of the loopback interface", false, "ip addr replace 10.99.0.1/32 dev lo");
        row("down", true, "ip link set %1 down");
        row("IPv6 only", false, "ip addr add fd00::1/64 dev %1 nodad");
    }

    void unusableInterfaceIsSkipped()
    {
        QFETCH(const bool, hasIPv4);
        QFETCH(const QString, command);
        const QString link = addLink(hasIPv4 ? "10.77.0.1/16" : "", "10.77.1.1/16");
        host(QString(command).replace("%1", link));
        QCOMPARE(ssdp->discover(), 3);
        QCOMPARE(addresses(), QStringList{"127.0.0.1"});
        QCOMPARE(log(), boundLines());

        addLink("10.78.0.1/16", "10.78.1.1/16");
        makeController();
        ssdp->discover();
        QCOMPARE(addresses(), QStringList{"10.78.0.1"});
    }

    void lastInterfaceComesFirst()
    {
        addLink("10.77.0.1/16", "10.77.1.1/16");
        addLink("10.78.0.1/16", "10.78.1.1/16");
        // An address of two interfaces is used twice.
        addLink("10.78.0.1/16", "10.78.1.2/16");
        ssdp->discover();
        QCOMPARE(addresses(), (QStringList{"10.78.0.1", "10.78.0.1", "10.77.0.1"}));
        QCOMPARE(log(), boundLines());
    }

    void everyAddressOfAnInterfaceIsTakenInOrder()
    {
        const QString link = addLink("10.77.0.3/16", "10.77.1.1/16");
        host("ip addr add 10.77.0.1/16 dev "_s + link);
        host("ip addr add fd00::1/64 dev %1 nodad"_s.arg(link));
        host("ip addr add 10.77.0.2/24 dev "_s + link);
        addLink("10.78.0.1/16", "10.78.1.1/16");
        ssdp->discover();
        // The kernel lists the first address of each network before the others.
        QCOMPARE(addresses(), (QStringList{"10.78.0.1", "10.77.0.3", "10.77.0.2", "10.77.0.1"}));
    }

    void addressThatComesLaterIsNotTaken()
    {
        addLink("10.77.0.1/16", "10.77.1.1/16");
        ssdp->discover();
        addLink("10.78.0.1/16", "10.78.1.1/16");
        ssdp->stop();
        const QList<SsdpManager*> before = controlPoints();
        ssdp->discover();
        QCOMPARE(controlPoints(), before);
        QCOMPARE(addresses(), QStringList{"10.77.0.1"});
    }

    void everyControlPointHasTwoSocketsAndAServer()
    {
        const QString link = addUsualLink();
        ssdp->discover();
        QCOMPARE(KernelTables::udpSockets(), (QStringList{"0.0.0.0:1900", "10.77.0.1:49152"}));
        QCOMPARE(KernelTables::tcpListeners(),
                 QStringList{"10.77.0.1:%1"_s.arg(manager().eventServer().serverPort())});
        QCOMPARE(KernelTables::groupMembers(), QStringList{link + " x 1"});

        QCOMPARE(controlPoint()->parent(), ssdp.get());
        QCOMPARE(manager().multicastSocket()->parent(), controlPoint());
        QCOMPARE(manager().unicastSocket()->parent(), controlPoint());
        QCOMPARE(manager().eventServer().parent(), nullptr);
        QCOMPARE(manager().networkManager().parent(), nullptr);

        // Two controllers may use the same address. A second initialize() keeps the earlier sockets open.
        const auto other = newController(60000);
        other->discover();
        controlPoint()->initialize();
        QCOMPARE(KernelTables::udpSockets(),
                 (QStringList{"0.0.0.0:1900", "0.0.0.0:1900", "0.0.0.0:1900", "10.77.0.1:49152", "10.77.0.1:49153",
                              "10.77.0.1:49154"}));
        QCOMPARE(KernelTables::groupMembers(), QStringList{link + " x 3"});
        QCOMPARE(log().filter("1|"), QStringList{failure("Could not bind local Ssdp server")});
    }

    void searchSocketsHaveALargeReceiveBuffer()
    {
        const auto option = QAbstractSocket::ReceiveBufferSizeSocketOption;
        QUdpSocket usual;
        QUdpSocket large;
        QVERIFY(usual.bind() && large.bind());
        large.setSocketOption(option, 4 * 1024 * 1024);
        // The kernel limits the size, but not to its default.
        const int size = large.socketOption(option).toInt();
        QVERIFY(size > usual.socketOption(option).toInt());

        addUsualLink();
        ssdp->discover();
        QCOMPARE(manager().multicastSocket()->socketOption(option).toInt(), size);
        QCOMPARE(manager().unicastSocket()->socketOption(option).toInt(), size);
    }

    void eventServerQueuesMoreConnectionsThanQtDoes()
    {
        addUsualLink();
        ssdp->discover();
        // The server accepts nothing here, because the event loop does not run. connectTo() fails if a connection
        // is not queued.
        const Callback to = {QHostAddress("10.77.0.1"), manager().eventServer().serverPort(), ""};
        for (int i = 0; i < 100; ++i)
            QVERIFY(connectTo(to)->isOpen());
    }

    void socketsOfEveryAddressAreReleased()
    {
        addLink("10.77.0.1/16", "10.77.1.1/16");
        addLink("10.78.0.1/16", "10.78.1.1/16");
        ssdp->discover();
        const QList<SsdpManager*> before = controlPoints();
        QCOMPARE(KernelTables::groupMembers().size(), 2);
        ssdp->stop();
        QCOMPARE(KernelTables::udpSockets() + KernelTables::groupMembers(), QStringList());
        QCOMPARE(controlPoints(), before);
        QCOMPARE(KernelTables::tcpListeners().size(), 2);

        ssdp->discover();
        CapturedLog::clear();
        ssdp.reset();
        QCOMPARE(KernelTables::udpSockets() + KernelTables::groupMembers(), QStringList());
        QCOMPARE(KernelTables::tcpListeners(), QStringList());
        QCOMPARE(log(), QStringList());
    }

    void everyControlPointSearchesFromItsAddress()
    {
        const QString link = addLink("10.77.0.1/16", "10.77.1.1/16");
        host("ip addr add 10.77.0.2/16 dev "_s + link);
        addLink("10.78.0.1/16", "10.78.1.1/16");
        const ScriptedDevice one(network, "10.77.1.1");
        const ScriptedDevice other(network, "10.78.1.1");
        ssdp->discover();
        // Every device receives from every interface of the device side.
        VERIFY_SOON(other.searches.size() >= 3);
        QStringList senders;
        for (const ScriptedDevice::Datagram& datagram : other.searches)
            senders << "%1:%2"_s.arg(datagram.sender.toString()).arg(datagram.port);
        senders.sort();
        QCOMPARE(senders, (QStringList{"10.77.0.1:49152", "10.77.0.2:49152", "10.78.0.1:49152"}));
    }

    void announcementReachesEveryControlPoint()
    {
        addUsualLink();
        addLink("10.78.0.1/16", "10.78.1.1/16");
        scriptDevice();
        ssdp->discover();
        device->announce(announcement(LOCATION));
        VERIFY_SOON(device->requestsFor("SUBSCRIBE ").size() == 2);
        QCOMPARE(device->requestsFor("GET /desc.xml ").size(), 2);
        QCOMPARE(log().filter("Ssdp device").size(), 2);

        // Each control point reports the events for its own subscription.
        for (const ScriptedDevice::Request& request : device->requestsFor("SUBSCRIBE "))
            QVERIFY(sendEvent(callbackOf(request.bytes), eventBody("KO", "12,34")));
        QCOMPARE(reports, (QStringList{"12,34 at 10.77.1.1", "12,34 at 10.77.1.1"}));
    }

    void answerReachesTheControlPointThatSearched()
    {
        addUsualLink();
        addLink("10.78.0.1/16", "10.78.1.1/16");
        scriptDevice();
        ssdp->discover();
        const auto fromThere = [](const ScriptedDevice::Datagram& datagram) {
            return datagram.sender == QHostAddress("10.77.0.1");
        };
        VERIFY_SOON(std::any_of(device->searches.cbegin(), device->searches.cend(), fromThere));
        while (!fromThere(device->searches.last()))
            device->searches.removeLast();
        QVERIFY(beFound());
        QCOMPARE(callback().host, QHostAddress("10.77.0.1"));
        QVERIFY(sendLastEvent());
        QCOMPARE(device->requestsFor("GET ").size(), 2);
        QCOMPARE(reports.size(), 1);
    }

    void searchLeavesFromTheFirstFreePort()
    {
        addUsualLink();
        const auto first = occupy(QHostAddress("10.77.0.1"), 49152);
        const auto second = occupy(QHostAddress(QHostAddress::AnyIPv4), 49153);
        const auto fourth = occupy(QHostAddress(QHostAddress::AnyIPv4), 49155);
        QVERIFY(first && second && fourth);
        QVERIFY(search());
        QCOMPARE(device->searches.at(0).port, quint16(49154));
        QCOMPARE(log(), boundLines());
    }

    void lastSearchPortIs65534()
    {
        addUsualLink();
        QVERIFY(holdEveryPortTo(65533));
        QVERIFY(search());
        QCOMPARE(device->searches.at(0).port, quint16(65534));
        QCOMPARE(log(), boundLines());
        ssdp.reset();

        // If no search port is free, the system chooses a port. This is not logged.
        QVERIFY(holdEveryPortTo(65534));
        makeController();
        QVERIFY(search());
        QVERIFY(device->searches.at(1).port < 49152);
        QCOMPARE(log(), boundLines());
        QVERIFY(manager().eventServer().isListening());
    }

    void discoveryRunsWithoutTheGroup_data()
    {
        const Table<bool, QString> row("portIsTaken", "text");
        row("port taken", true, "Failed to bind multicast socket for listening");
        row("no memberships", false, "Could n``ot join 239.255.255.250");
    }

    void discoveryRunsWithoutTheGroup()
    {
        QFETCH(const bool, portIsTaken);
        QFETCH(const QString, text);
        addUsualLink();
        auto other = portIsTaken ? occupy(QHostAddress(QHostAddress::AnyIPv4), 1900) : nullptr;
        setOnHost("net/ipv4/igmp_max_memberships", portIsTaken ? "20" : "0");
        setOnHost("net/ipv4/ip_local_port_range", "32768 40000");
        QVERIFY(search());
        QCOMPARE(log(), QStringList{failure(text)});
        QVERIFY(device->searches.at(0).bytes.startsWith("M-SEARCH * HTTP/1.1\nHOST: 239.255.255.250:1900\n"));
        QCOMPARE(device->searches.at(0).sender, QHostAddress("10.77.0.1"));
        QVERIFY(device->searches.at(0).port <= 40000);
        QCOMPARE(KernelTables::udpSockets().constFirst(), "0.0.0.0:1900"_s);
        QCOMPARE(KernelTables::tcpListeners() + KernelTables::groupMembers(), QStringList());
        QVERIFY(timer()->isActive());
        QCOMPARE(ssdp->discover(), 3);

        QCOMPARE(ssdp->findChildren<QUdpSocket*>().size(), 2);
        ssdp->stop();
        QCOMPARE(ssdp->findChildren<QUdpSocket*>().size(), 0);
        QCOMPARE(KernelTables::udpSockets(), portIsTaken ? QStringList{"0.0.0.0:1900"} : QStringList());

        // The next discovery tries again.
        other.reset();
        setOnHost("net/ipv4/igmp_max_memberships", "20");
        QVERIFY(findDevice());
        QVERIFY(sendLastEvent());
        QCOMPARE(device->searches.last().port, quint16(49152));
    }

    void addressOfAnotherHostCannotJoin()
    {
        addUsualLink();
        SsdpManager other(QHostAddress("10.77.1.1"));
        other.initialize();
        QCOMPARE(log(), QStringList{failure("Could n``ot join 239.255.255.250")});
    }

    void discoveryRunsWithoutTheEventServer()
    {
        addUsualLink();
        setOnHost("net/ipv4/ip_local_port_range", "50000 50000");
        QTcpServer other;
        QVERIFY(other.listen(QHostAddress("10.77.0.1"), 50000));
        QVERIFY(search());
        QCOMPARE(log(), (QStringList{failure("Could not bind local Ssdp server"), "0|Ssdp Server bound to 0"}));
        QCOMPARE(device->searches.at(0).port, quint16(49152));
    }
};

VELMORA_WIRE_TEST_MAIN(AddressesTest)
#include "tst_addresses.moc"

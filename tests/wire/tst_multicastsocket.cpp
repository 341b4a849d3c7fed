#include <ssdp/MulticastSocket.h>
#include <tests/support/KernelTables.h>
#include <tests/support/WireTest.h>

#include <QtNetwork/QNetworkProxy>
#include <QtTest/QtTest>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace Velmora::Tests;
using Velmora::Simulator::PrivateNetwork;
using Velmora::SSDP::MulticastSocket;

const quint16 PORT = 1900;
const char GROUP[] = "239.255.255.250";
const char FIRST[] = "10.77.0.1";
const char SECOND[] = "10.78.0.1";
const char IPV6[] = "fe80::1";

/// The options that are set at level IPPROTO_IP while a test watches, as "35 effffffa0a4d0001".
static QStringList* watchedOptions = nullptr;

// The library also calls this function, and not that of the C library.
extern "C" Q_DECL_EXPORT int setsockopt(int descriptor, int level, int option, const void* value,
                                        socklen_t size) noexcept
{
    if (watchedOptions && level == IPPROTO_IP) {
        const QByteArray bytes(static_cast<const char*>(value), static_cast<int>(size));
        *watchedOptions << "%1 %2"_s.arg(option).arg(QString::fromLatin1(bytes.toHex()));
    }
    return static_cast<int>(syscall(SYS_setsockopt, descriptor, level, option, value, size));
}

/// The socket of the group on a host with two interfaces, the second of which has the route to the group.
class MulticastSocketTest : public WireTest
{
    Q_OBJECT

    class WatchedOptions
    {
    public:
        WatchedOptions() { watchedOptions = &options; }
        ~WatchedOptions() { watchedOptions = nullptr; }
        Q_DISABLE_COPY(WatchedOptions)

        QStringList options;
    };

    const QHostAddress group = QHostAddress(GROUP);
    const QHostAddress first = QHostAddress(FIRST);
    std::unique_ptr<MulticastSocket> socket;

    static QStringList members() { return KernelTables::groupMembers(); }

    int timeToLive() const { return socket->socketOption(QAbstractSocket::MulticastTtlOption).toInt(); }

private Q_SLOTS:
    void initTestCase()
    {
        addLink("10.77.0.1/16", "10.77.1.1/16");
        addLink("10.78.0.1/16", "10.78.1.1/16");
        network.run(PrivateNetwork::HostSide, {"ip", "route", "add", "239.0.0.0/8", "dev", "host1"});
    }

    void init()
    {
        socket = std::make_unique<MulticastSocket>();
        QCOMPARE(members(), QStringList());
    }

    void cleanup() { socket.reset(); }

    void applicationsProxyDoesNotReachTheSocket()
    {
        QNetworkProxy::setApplicationProxy(QNetworkProxy(QNetworkProxy::Socks5Proxy, "h"_s, 1080));
        MulticastSocket fresh;
        const QNetworkProxy proxy = fresh.proxy();
        const bool bound = fresh.bind(PORT);
        QNetworkProxy::setApplicationProxy(QNetworkProxy(QNetworkProxy::DefaultProxy));
        QCOMPARE(proxy, QNetworkProxy(QNetworkProxy::NoProxy, QString(), 0, QString(), QString()));
        QVERIFY(bound);
    }

    void bindTakesThePortOfEveryIPv4Address()
    {
        QVERIFY(socket->bind(PORT));
        QCOMPARE(socket->localPort(), PORT);
        QCOMPARE(socket->localAddress(), QHostAddress(QHostAddress::AnyIPv4));
        QCOMPARE(KernelTables::udpSockets(), QStringList{"0.0.0.0:1900"});
        QCOMPARE(KernelTables::linesOf("udp6").size(), 2);
        QCOMPARE(members(), QStringList());
    }

    void bothSocketsOfAPortReceive()
    {
        MulticastSocket other;
        QVERIFY(socket->bind(PORT));
        QVERIFY(other.bind(PORT));
        QVERIFY(socket->joinMulticastGroup(group, first));
        QVERIFY(other.joinMulticastGroup(group, first));
        QSignalSpy atOne(socket.get(), SIGNAL(readyRead()));
        QSignalSpy atOther(&other, SIGNAL(readyRead()));

        const PrivateNetwork::Scope scope(network, PrivateNetwork::DeviceSide);
        QUdpSocket sender;
        QVERIFY(sender.bind(QHostAddress("10.77.1.1"), 0));
        QCOMPARE(sender.writeDatagram("x"_ba, group, PORT), qint64(1));
        QTRY_COMPARE(atOne.count(), 1);
        QTRY_COMPARE(atOther.count(), 1);
    }

    void bindFailsWhereASocketDoesNotShare()
    {
        QUdpSocket other;
        QVERIFY(other.bind(QHostAddress(QHostAddress::AnyIPv4), PORT, QUdpSocket::DontShareAddress));
        QVERIFY(!socket->bind(PORT));
        QCOMPARE(socket->error(), QAbstractSocket::AddressInUseError);

        // A later failure changes error(), but not errorString().
        const QString errorString = socket->errorString();
        QVERIFY(!socket->joinMulticastGroup(QHostAddress("ff02::c"), first));
        QCOMPARE(socket->error(), QAbstractSocket::UnknownSocketError);
        QCOMPARE(socket->errorString(), errorString);
    }

    void membershipIsOnTheInterfaceOfTheAddress_data()
    {
        const Table<QString, QString, QString, QString> row("address", "another", "interface", "bytes");
        row("of the first", FIRST, SECOND, "host0", "0a4d0001");
        row("of the second", SECOND, FIRST, "host1", "0a4e0001");
        row("none, so the system chooses", "", FIRST, "host1", "00000000");
    }

    void membershipIsOnTheInterfaceOfTheAddress()
    {
        QFETCH(const QString, address);
        QFETCH(const QString, another);
        QFETCH(const QString, interface);
        QFETCH(const QString, bytes);
        const QStringList membership{interface + " x 1"};
        QVERIFY(socket->bind(PORT));
        QVERIFY(!socket->leaveMulticastGroup(group, QHostAddress(address)));
        QCOMPARE(socket->error(), QAbstractSocket::UnknownSocketError);
        QVERIFY(socket->joinMulticastGroup(group, QHostAddress(address)));
        QCOMPARE(members(), membership);
        QVERIFY(!socket->joinMulticastGroup(group, QHostAddress(address)));
        QCOMPARE(socket->error(), QAbstractSocket::UnknownSocketError);
        QVERIFY(!socket->leaveMulticastGroup(group, QHostAddress(another)));
        QCOMPARE(members(), membership);
        QVERIFY(socket->leaveMulticastGroup(group, QHostAddress(address)));
        QCOMPARE(members(), QStringList());

        {
            // The system gets the group and the interface in network byte order.
            const WatchedOptions watched;
            QVERIFY(socket->joinMulticastGroup(group, QHostAddress(address)));
            QVERIFY(socket->leaveMulticastGroup(group, QHostAddress(address)));
            QCOMPARE(watched.options, (QStringList{"35 effffffa" + bytes, "36 effffffa" + bytes}));
        }
        QVERIFY(socket->joinMulticastGroup(group, QHostAddress(address)));
        socket.reset();
        QCOMPARE(members() + KernelTables::udpSockets(), QStringList());
    }

    void groupOperationFails_data()
    {
        const Table<bool, QString, QString, QStringList> row("bound", "group", "interface", "options");
        row("before bind", false, GROUP, FIRST, {});
        row("before bind, on any interface", false, GROUP, "", {});
        row("for an IPv6 group", true, "ff02::c", FIRST, {});
        row("for an IPv4 group in IPv6", true, "::ffff:239.255.255.250", FIRST, {});
        row("for a null group", true, "", FIRST, {});
        row("for any address", true, "0.0.0.0", FIRST, {"35 000000000a4d0001", "36 000000000a4d0001"});
        row("for no multicast group", true, "10.77.1.1", FIRST, {"35 0a4d01010a4d0001", "36 0a4d01010a4d0001"});
        row("on an address of another host", true, GROUP, "10.77.1.1",
            {"35 effffffa0a4d0101", "36 effffffa0a4d0101"});
        row("on an IPv6 address", true, GROUP, IPV6, {"35 effffffaffffffff", "36 effffffaffffffff"});
    }

    void groupOperationFails()
    {
        QFETCH(const bool, bound);
        QFETCH(const QString, group);
        QFETCH(const QString, interface);
        QFETCH(const QStringList, options);
        if (bound)
            QVERIFY(socket->bind(PORT));
        const QString errorString = socket->errorString();
        const WatchedOptions watched;
        QVERIFY(!socket->joinMulticastGroup(QHostAddress(group), QHostAddress(interface)));
        QCOMPARE(socket->error(), QAbstractSocket::UnknownSocketError);
        QVERIFY(!socket->leaveMulticastGroup(QHostAddress(group), QHostAddress(interface)));
        QCOMPARE(socket->error(), QAbstractSocket::UnknownSocketError);
        if (!bound)
            QVERIFY(!socket->setMulticastTtl(4));
        QCOMPARE(watched.options, options);
        QCOMPARE(socket->errorString(), errorString);
        QCOMPARE(socket->state(), bound ? QAbstractSocket::BoundState : QAbstractSocket::UnconnectedState);
        QCOMPARE(members(), QStringList());
    }

    void proxyForbidsTheGroupsAndNotTheTimeToLive_data()
    {
        const Table<int> row("type");
        row("the default proxy", QNetworkProxy::DefaultProxy);
        row("SOCKS 5", QNetworkProxy::Socks5Proxy);
        row("HTTP", QNetworkProxy::HttpProxy);
        row("caching HTTP", QNetworkProxy::HttpCachingProxy);
        row("caching FTP", QNetworkProxy::FtpCachingProxy);
    }

    void proxyForbidsTheGroupsAndNotTheTimeToLive()
    {
        QFETCH(const int, type);
        QVERIFY(socket->bind(PORT));
        QVERIFY(socket->joinMulticastGroup(group, first));
        socket->setProxy(QNetworkProxy(static_cast<QNetworkProxy::ProxyType>(type)));
        {
            const WatchedOptions watched;
            QVERIFY(!socket->joinMulticastGroup(group, first));
            QCOMPARE(socket->error(), QAbstractSocket::UnknownSocketError);
            QVERIFY(!socket->leaveMulticastGroup(group, first));
            QCOMPARE(watched.options, QStringList());
        }
        QCOMPARE(members(), QStringList{"host0 x 1"});
        QVERIFY(socket->setMulticastTtl(7));
        QCOMPARE(timeToLive(), 7);
        socket->setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
        QVERIFY(socket->leaveMulticastGroup(group, first));
    }

    void timeToLiveIsPassedAsOneByte()
    {
        QVERIFY(socket->bind(PORT));
        const WatchedOptions watched;
        for (const int ttl : {0, 1, 4, 128, 255}) {
            QVERIFY(socket->setMulticastTtl(static_cast<unsigned char>(ttl)));
            QCOMPARE(timeToLive(), ttl);
        }
        QCOMPARE(watched.options, (QStringList{"33 00", "33 01", "33 04", "33 80", "33 ff"}));
    }
};

VELMORA_WIRE_TEST_MAIN(MulticastSocketTest)
#include "tst_multicastsocket.moc"

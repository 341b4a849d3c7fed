#include <ssdp/MulticastSocket.h>
#include <tests/support/Literals.h>
#include <tests/support/WireTest.h>
#include <tests/unit/KernelTables.h>

#include <QtNetwork/QNetworkProxy>
#include <QtTest/QtTest>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace Velmora;
using namespace Velmora::Tests;
using namespace Velmora::SSDP;
using Velmora::Simulator::PrivateNetwork;

namespace {

/// The options that were set at level IPPROTO_IP while a test watched, as "35 efff.... 0a4d0001".
QStringList* watchedOptions = nullptr;

} // namespace

// Stands before the C library's for the library under test too.
extern "C" Q_DECL_EXPORT int setsockopt(int descriptor, int level, int option, const void* value,
                                        socklen_t size) noexcept
{
    if (watchedOptions && level == IPPROTO_IP) {
        const QByteArray bytes(static_cast<const char*>(value), static_cast<int>(size));
        *watchedOptions << QString::number(option) + QLatin1Char(' ') + QString::fromLatin1(bytes.toHex());
    }
    return static_cast<int>(syscall(SYS_setsockopt, descriptor, level, option, value, size));
}

class MulticastSocketTest : public QObject
{
    Q_OBJECT

public:
    explicit MulticastSocketTest(PrivateNetwork& network)
        : network(network)
    {
    }

private:
    class WatchedOptions
    {
    public:
        WatchedOptions() { watchedOptions = &options; }
        ~WatchedOptions() { watchedOptions = nullptr; }
        Q_DISABLE_COPY(WatchedOptions)

        QStringList options;
    };

    PrivateNetwork& network;
    const quint16 port = 1900;
    const QString GROUP = "239.255.255.250"_s;
    const QString LOCAL = "10.77.0.1"_s;
    const QHostAddress group = QHostAddress(GROUP);
    const QHostAddress local = QHostAddress(LOCAL);
    QScopedPointer<MulticastSocket> socket;

    QStringList members() const { return KernelTables::membersOf(group); }

    bool join() { return socket->joinMulticastGroup(group, local); }

    bool leave() { return socket->leaveMulticastGroup(group, local); }

    int timeToLive() const
    {
        int ttl = -1;
        socklen_t size = sizeof ttl;
        getsockopt(static_cast<int>(socket->socketDescriptor()), IPPROTO_IP, IP_MULTICAST_TTL, &ttl, &size);
        return ttl;
    }

private Q_SLOTS:
    void initTestCase()
    {
        network.addLink("10.77.0.1/16", "10.77.1.1/16");
        network.addLink("10.78.0.1/16", "10.78.1.1/16");
    }

    void init()
    {
        socket.reset(new MulticastSocket);
        QCOMPARE(members(), QStringList());
    }

    void cleanup() { socket.reset(); }

    void freshSocketUsesNoProxy()
    {
        QCOMPARE(socket->proxy(), QNetworkProxy(QNetworkProxy::NoProxy, QString(), 0, QString(), QString()));
    }

    void applicationsProxyDoesNotReachTheSocket()
    {
        QNetworkProxy::setApplicationProxy(QNetworkProxy(QNetworkProxy::Socks5Proxy, "h"_s, 1080));
        MulticastSocket fresh;
        const QNetworkProxy::ProxyType type = fresh.proxy().type();
        const bool bound = fresh.bind(port);
        QNetworkProxy::setApplicationProxy(QNetworkProxy(QNetworkProxy::DefaultProxy));
        QCOMPARE(type, QNetworkProxy::NoProxy);
        QVERIFY(bound);
    }

    void bindTakesThePortOfEveryIPv4Address()
    {
        QVERIFY(socket->bind(port));
        QCOMPARE(socket->localPort(), port);
        QCOMPARE(socket->localAddress(), QHostAddress(QHostAddress::AnyIPv4));
        QCOMPARE(KernelTables::udpSockets(), QStringList{"0.0.0.0:1900"});
        QVERIFY(KernelTables::linesOf("udp6").size() == 2);
    }

    void twoSocketsShareAPort()
    {
        MulticastSocket other;
        QVERIFY(socket->bind(port));
        QVERIFY(other.bind(port));
    }

    void bothSocketsOfAPortReceive()
    {
        MulticastSocket other;
        QVERIFY(socket->bind(port));
        QVERIFY(other.bind(port));
        QVERIFY(join());
        QVERIFY(other.joinMulticastGroup(group, local));
        QSignalSpy first(socket.data(), SIGNAL(readyRead()));
        QSignalSpy second(&other, SIGNAL(readyRead()));

        const PrivateNetwork::Scope scope(network, PrivateNetwork::DeviceSide);
        QUdpSocket sender;
        QVERIFY(sender.bind(QHostAddress("10.77.1.1"), 0));
        QCOMPARE(sender.writeDatagram("x"_ba, group, port), qint64(1));
        QTRY_COMPARE(first.count(), 1);
        QTRY_COMPARE(second.count(), 1);
    }

    void bindFailsWhereASocketDoesNotShare()
    {
        QUdpSocket other;
        QVERIFY(other.bind(QHostAddress(QHostAddress::AnyIPv4), port, QUdpSocket::DontShareAddress));
        QVERIFY(!socket->bind(port));
        QCOMPARE(socket->error(), QAbstractSocket::AddressInUseError);
    }

    void joinMakesTheSocketAMemberOnItsInterface()
    {
        QVERIFY(socket->bind(port));
        QVERIFY(join());
        QCOMPARE(members(), QStringList{"host0 x 1"});
    }

    void joinChoosesTheInterfaceByItsAddress()
    {
        QVERIFY(socket->bind(port));
        QVERIFY(socket->joinMulticastGroup(group, QHostAddress("10.78.0.1")));
        QCOMPARE(members(), QStringList{"host1 x 1"});
    }

    void joinWithANullInterfaceLeavesTheChoiceToTheSystem()
    {
        network.run(PrivateNetwork::HostSide, {"ip", "route", "add", "239.0.0.0/8", "dev", "host1"});
        QVERIFY(socket->bind(port));
        const bool joined = socket->joinMulticastGroup(group, QHostAddress());
        const QStringList during = members();
        const bool left = socket->leaveMulticastGroup(group, QHostAddress());
        network.run(PrivateNetwork::HostSide, {"ip", "route", "del", "239.0.0.0/8", "dev", "host1"});
        QVERIFY(joined);
        QCOMPARE(during, QStringList{"host1 x 1"});
        QVERIFY(left);
        QCOMPARE(members(), QStringList());
    }

    void leaveEndsTheMembership()
    {
        QVERIFY(socket->bind(port));
        QVERIFY(join());
        QVERIFY(leave());
        QCOMPARE(members(), QStringList());
    }

    void systemGetsGroupAndInterfaceInNetworkByteOrder_data()
    {
        QTest::addColumn<QString>("interface");
        QTest::addColumn<QString>("join");
        QTest::addColumn<QString>("leave");
        QTest::newRow("an address") << LOCAL << "35 effffffa0a4d0001"
                                    << "36 effffffa0a4d0001";
        QTest::newRow("none") << QString() << "35 effffffa00000000"
                              << "36 effffffa00000000";
        QTest::newRow("an address that is no IPv4 address") << "fe80::1"
                                                            << "35 effffffaffffffff"
                                                            << "36 effffffaffffffff";
    }

    void systemGetsGroupAndInterfaceInNetworkByteOrder()
    {
        QFETCH(const QString, interface);
        QFETCH(const QString, join);
        QFETCH(const QString, leave);
        QVERIFY(socket->bind(port));
        const WatchedOptions watched;
        socket->joinMulticastGroup(group, QHostAddress(interface));
        socket->leaveMulticastGroup(group, QHostAddress(interface));
        QCOMPARE(watched.options, (QStringList{join, leave}));
    }

    void groupOperationFails_data()
    {
        QTest::addColumn<bool>("bound");
        QTest::addColumn<QString>("group");
        QTest::addColumn<QString>("interface");
        QTest::addColumn<bool>("reachesTheSystem");
        QTest::newRow("before bind") << false << GROUP << LOCAL << false;
        QTest::newRow("before bind, on any interface") << false << GROUP << QString() << false;
        QTest::newRow("for an IPv6 group") << true << "ff02::c" << LOCAL << false;
        QTest::newRow("for an IPv4 group in IPv6") << true << "::ffff:239.255.255.250" << LOCAL << false;
        QTest::newRow("for a null group") << true << QString() << LOCAL << false;
        QTest::newRow("for any address") << true << "0.0.0.0" << LOCAL << true;
        QTest::newRow("for no multicast group") << true << "10.77.1.1" << LOCAL << true;
        QTest::newRow("on an address of another host") << true << GROUP << "10.77.1.1" << true;
        QTest::newRow("on an IPv6 address") << true << GROUP << "fe80::1" << true;
    }

    void groupOperationFails()
    {
        QFETCH(const bool, bound);
        QFETCH(const QString, group);
        QFETCH(const QString, interface);
        QFETCH(const bool, reachesTheSystem);
        if (bound)
            QVERIFY(socket->bind(port));
        const QString errorString = socket->errorString();
        const WatchedOptions watched;
        QVERIFY(!socket->joinMulticastGroup(QHostAddress(group), QHostAddress(interface)));
        QCOMPARE(socket->error(), QAbstractSocket::UnknownSocketError);
        QVERIFY(!socket->leaveMulticastGroup(QHostAddress(group), QHostAddress(interface)));
        QCOMPARE(socket->error(), QAbstractSocket::UnknownSocketError);
        QCOMPARE(watched.options.size(), qsizetype(reachesTheSystem ? 2 : 0));
        QCOMPARE(socket->errorString(), errorString);
        QCOMPARE(socket->state(), bound ? QAbstractSocket::BoundState : QAbstractSocket::UnconnectedState);
        QCOMPARE(members(), QStringList());
    }

    void failureReplacesAnEarlierError()
    {
        QUdpSocket other;
        QVERIFY(other.bind(QHostAddress(QHostAddress::AnyIPv4), port, QUdpSocket::DontShareAddress));
        QVERIFY(!socket->bind(port));
        const QString errorString = socket->errorString();
        QVERIFY(!socket->joinMulticastGroup(QHostAddress("ff02::c"), local));
        QCOMPARE(socket->error(), QAbstractSocket::UnknownSocketError);
        QCOMPARE(socket->errorString(), errorString);
    }

    void joinTwiceFailsAndLeavesTheMembership()
    {
        QVERIFY(socket->bind(port));
        QVERIFY(join());
        QVERIFY(!join());
        QCOMPARE(socket->error(), QAbstractSocket::UnknownSocketError);
        QCOMPARE(members(), QStringList{"host0 x 1"});
    }

    void leaveWithoutJoinFails()
    {
        QVERIFY(socket->bind(port));
        QVERIFY(!leave());
        QCOMPARE(socket->error(), QAbstractSocket::UnknownSocketError);
    }

    void failedLeaveLeavesTheMembership()
    {
        QVERIFY(socket->bind(port));
        QVERIFY(join());
        QVERIFY(!socket->leaveMulticastGroup(group, QHostAddress("10.78.0.1")));
        QCOMPARE(members(), QStringList{"host0 x 1"});
        QVERIFY(leave());
    }

    void proxyForbidsTheGroupsAndNotTheTimeToLive_data()
    {
        QTest::addColumn<int>("type");
        QTest::newRow("the default proxy") << static_cast<int>(QNetworkProxy::DefaultProxy);
        QTest::newRow("SOCKS 5") << static_cast<int>(QNetworkProxy::Socks5Proxy);
        QTest::newRow("HTTP") << static_cast<int>(QNetworkProxy::HttpProxy);
        QTest::newRow("caching HTTP") << static_cast<int>(QNetworkProxy::HttpCachingProxy);
        QTest::newRow("caching FTP") << static_cast<int>(QNetworkProxy::FtpCachingProxy);
    }

    void proxyForbidsTheGroupsAndNotTheTimeToLive()
    {
        QFETCH(const int, type);
        QVERIFY(socket->bind(port));
        socket->setProxy(QNetworkProxy(static_cast<QNetworkProxy::ProxyType>(type)));
        const WatchedOptions watched;
        QVERIFY(!join());
        QCOMPARE(socket->error(), QAbstractSocket::UnknownSocketError);
        QVERIFY(!leave());
        QCOMPARE(watched.options, QStringList());
        QVERIFY(socket->setMulticastTtl(7));
        QCOMPARE(timeToLive(), 7);
    }

    void proxyForbidsLeavingTooAndKeepsTheMembership()
    {
        QVERIFY(socket->bind(port));
        QVERIFY(join());
        socket->setProxy(QNetworkProxy(QNetworkProxy::HttpProxy));
        QVERIFY(!leave());
        QCOMPARE(members(), QStringList{"host0 x 1"});
        socket->setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
        QVERIFY(leave());
    }

    void timeToLiveIsPassedThroughAsOneByte_data()
    {
        QTest::addColumn<int>("ttl");
        QTest::addColumn<QString>("option");
        QTest::newRow("0") << 0 << "33 00";
        QTest::newRow("1") << 1 << "33 01";
        QTest::newRow("4") << 4 << "33 04";
        QTest::newRow("128") << 128 << "33 80";
        QTest::newRow("255") << 255 << "33 ff";
    }

    void timeToLiveIsPassedThroughAsOneByte()
    {
        QFETCH(const int, ttl);
        QFETCH(const QString, option);
        QVERIFY(socket->bind(port));
        const WatchedOptions watched;
        QVERIFY(socket->setMulticastTtl(static_cast<unsigned char>(ttl)));
        QCOMPARE(watched.options, QStringList{option});
        QCOMPARE(timeToLive(), ttl);
    }

    void timeToLiveBeforeBindFails()
    {
        const QString errorString = socket->errorString();
        const WatchedOptions watched;
        QVERIFY(!socket->setMulticastTtl(4));
        QCOMPARE(socket->error(), QAbstractSocket::UnknownSocketError);
        QCOMPARE(socket->errorString(), errorString);
        QCOMPARE(watched.options, QStringList());
    }

    void bindingJoinsNothing()
    {
        QVERIFY(socket->bind(port));
        QCOMPARE(members(), QStringList());
    }

    void destructionEndsTheMembership()
    {
        QVERIFY(socket->bind(port));
        QVERIFY(join());
        socket.reset();
        QCOMPARE(members(), QStringList());
        QCOMPARE(KernelTables::udpSockets(), QStringList());
    }
};

VELMORA_WIRE_TEST_MAIN(MulticastSocketTest)
#include "tst_multicastsocket.moc"

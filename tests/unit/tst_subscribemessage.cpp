#include <ssdp/SsdpManager.h>
#include <tests/support/Literals.h>
#include <tests/support/ManagerAccess.h>
#include <tests/support/WireTest.h>

#include <QtTest/QtTest>

#include <sys/utsname.h>

using namespace Velmora;
using namespace Velmora::Tests;
using namespace Velmora::SSDP;
using Velmora::Simulator::PrivateNetwork;

/// The event server listens on 192.168.1.10, port 49152.
class SubscribeMessageTest : public QObject
{
    Q_OBJECT

public:
    explicit SubscribeMessageTest(PrivateNetwork& network)
        : network(network)
        , manager(QHostAddress("192.168.1.10"))
    {
    }

private:
    PrivateNetwork& network;
    SsdpManager manager;
    SsdpService* service = nullptr;

    static QByteArray systemInfo()
    {
        utsname system = {};
        uname(&system);
        return QByteArray(system.sysname) + "/"_ba + QByteArray(system.release);
    }

    SsdpService* addService(const char* location, const char* eventSubUrl)
    {
        SsdpDevice* const device = new SsdpDevice;
        device->location = QString::fromLatin1(location);
        SsdpService* const added = new SsdpService;
        added->id = QUuid("{6f9619ff-8b86-d011-b42d-00c04fc964ff}");
        added->eventSubUrl = QString::fromLatin1(eventSubUrl);
        device->services.append(added);
        ManagerAccess(manager).devices().append(device);
        return added;
    }

    QByteArray line(int number)
    {
        return manager.createSubscribeMessage(service).toLatin1().split('\n').value(number);
    }

private Q_SLOTS:
    void initTestCase()
    {
        network.addLink("192.168.1.10/24", "192.168.1.20/24");
        network.setSetting(PrivateNetwork::HostSide, "net/ipv4/ip_local_port_range", "49152 49152");
        manager.initialize();
        QCOMPARE(CapturedLog::all(), QStringList{"0|Ssdp Server bound to 49152"});
    }

    void init()
    {
        manager.clearDevices();
        service = addService("http://192.168.1.20/desc.xml", "/event");
    }

    void subscriptionIsSevenLinesEndedByLineFeeds()
    {
        QCOMPARE(manager.createSubscribeMessage(service).toLatin1(),
                 "SUBSCRIBE /event HTTP/1.1\n"
                 "HOST: 192.168.1.20:P\n"
                 "USER-AGENT: "_ba
                     + systemInfo()
                     + " UPnP/1.1 SSDP/1.0\n"
                       "CALLBACK: <http://192.168.1.10:49152/6f9619ff-8b86-d011-b42d-00c04fc964ff_%4>\n"
                       "NT: upnp:event\n"
                       "TIMEOUT: Second-120\n"
                       "\n"_ba);
    }

    void subscriptionHasNoCarriageReturn()
    {
        QVERIFY(!manager.createSubscribeMessage(service).contains(QLatin1Char('\r')));
    }

    void firstLineNamesTheEventUrlsPath_data()
    {
        QTest::addColumn<QByteArray>("eventSubUrl");
        QTest::addColumn<QByteArray>("line");
        QTest::newRow("a slash") << "/a/b"_ba
                                 << "SUBSCRIBE /a/b HTTP/1.1"_ba;
        QTest::newRow("no slash") << "a/b"_ba
                                  << "SUBSCRIBE /a/b HTTP/1.1"_ba;
        QTest::newRow("nothing") << ""_ba
                                 << "SUBSCRIBE / HTTP/1.1"_ba;
        QTest::newRow("a whole URL") << "http://h/a"_ba
                                     << "SUBSCRIBE /http://h/a HTTP/1.1"_ba;
        QTest::newRow("placeholders") << "/%1%2%3"_ba
                                      << "SUBSCRIBE /%1%2%3 HTTP/1.1"_ba;
        QTest::newRow("Latin-1") << "/\xe9"_ba
                                 << "SUBSCRIBE /\xe9 HTTP/1.1"_ba;
    }

    void firstLineNamesTheEventUrlsPath()
    {
        QFETCH(const QByteArray, eventSubUrl);
        QFETCH(const QByteArray, line);
        service->eventSubUrl = QString::fromLatin1(eventSubUrl);
        QCOMPARE(this->line(0), line);
    }

    void hostLineHasOneCharacterForThePortOfTheLocation_data()
    {
        QTest::addColumn<QByteArray>("location");
        QTest::addColumn<QByteArray>("line");
        QTest::newRow("none") << "http://192.168.1.20/d"_ba
                              << "HOST: 192.168.1.20:P"_ba;
        QTest::newRow("80") << "http://192.168.1.20:80/d"_ba
                            << "HOST: 192.168.1.20:P"_ba;
        QTest::newRow("8080") << "http://192.168.1.20:8080/d"_ba
                              << "HOST: 192.168.1.20:\x90"_ba;
        QTest::newRow("49152") << "http://192.168.1.20:49152/d"_ba << QByteArray("HOST: 192.168.1.20:\0", 20);
    }

    void hostLineHasOneCharacterForThePortOfTheLocation()
    {
        QFETCH(const QByteArray, location);
        QFETCH(const QByteArray, line);
        ManagerAccess(manager).devices().constFirst()->location = QString::fromLatin1(location);
        QCOMPARE(this->line(1), line);
    }

    void hostIsThatOfTheServicesOwnDevice()
    {
        service = addService("http://192.168.1.30/desc.xml", "/event");
        QCOMPARE(line(1), "HOST: 192.168.1.30:P"_ba);
    }

    void callbackNamesTheServicesIdentifierInLowerCase()
    {
        service->id = QUuid("{ABCDEF01-2345-6789-ABCD-EF0123456789}");
        QCOMPARE(line(3), "CALLBACK: <http://192.168.1.10:49152/abcdef01-2345-6789-abcd-ef0123456789_%4>"_ba);
    }

    void serviceWithoutDeviceHasAnEmptySubscription()
    {
        SsdpService other;
        QCOMPARE(manager.createSubscribeMessage(&other), QString());
        QCOMPARE(manager.createSubscribeMessage(nullptr), QString());
    }

    void serverThatDoesNotListenIsPortZero()
    {
        SsdpManager idle(QHostAddress("192.168.1.10"));
        SsdpDevice* const device = new SsdpDevice;
        device->services.append(new SsdpService);
        ManagerAccess(idle).devices().append(device);
        const QByteArray message = idle.createSubscribeMessage(device->services.constFirst()).toLatin1();
        QCOMPARE(message.split('\n').value(3), "CALLBACK: <http://:0/00000000-0000-0000-0000-000000000000_%4>"_ba);
    }
};

VELMORA_WIRE_TEST_MAIN(SubscribeMessageTest)
#include "tst_subscribemessage.moc"

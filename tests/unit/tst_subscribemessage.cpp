#include <ssdp/SsdpManager.h>
#include <tests/support/Literals.h>
#include <tests/support/ManagerAccess.h>

#include <QtTest/QtTest>

using namespace Velmora;
using namespace Velmora::Tests;
using namespace Velmora::SSDP;

/// The text of a subscription, from a control point whose event server does not listen.
class SubscribeMessageTest : public QObject
{
    Q_OBJECT

private:
    SsdpManager manager{QHostAddress(QHostAddress::LocalHost)};

    SsdpService* addService(const QByteArray& location, const QByteArray& eventSubUrl)
    {
        SsdpDevice* const device = new SsdpDevice;
        device->location = QString::fromLatin1(location);
        SsdpService* const service = new SsdpService;
        service->id = QUuid("{6F9619FF-8B86-D011-B42D-00C04FC964FF}");
        service->eventSubUrl = QString::fromLatin1(eventSubUrl);
        device->services.append(service);
        ManagerAccess(manager).devices().append(device);
        return service;
    }

private Q_SLOTS:
    void init() { manager.clearDevices(); }

    void subscriptionIsSevenLinesEndedByLineFeeds_data()
    {
        QTest::addColumn<QByteArray>("location");
        QTest::addColumn<QByteArray>("eventSubUrl");
        QTest::addColumn<QByteArray>("path");
        QTest::addColumn<QByteArray>("host");
        const auto path = [](const char* name, const QByteArray& eventSubUrl, const QByteArray& expected) {
            QTest::newRow(name) << "http://192.168.1.20/d"_ba << eventSubUrl << expected << "192.168.1.20:P"_ba;
        };
        path("a slash", "/a/b", "/a/b");
        path("no slash", "a/b?x=1", "/a/b?x=1");
        path("nothing", "", "/");
        path("a whole URL", "http://h/a", "/http://h/a");
        path("placeholders", "/%1%2%3", "/%1%2%3");
        path("a space", "/a b", "/a b");
        path("Latin-1", "/\xe9", "/\xe9");
        const auto host = [](const char* name, const QByteArray& location, const QByteArray& expected) {
            const QByteArray event = "/event";
            QTest::newRow(name) << location << event << event << expected;
        };
        host("port 80", "http://192.168.1.20:80/d", "192.168.1.20:P");
        host("port 8080", "http://192.168.1.20:8080/d", "192.168.1.20:\x90");
        host("port 49152", "http://192.168.1.20:49152/d", "192.168.1.20:\0"_ba);
        host("port 65535", "http://192.168.1.20:65535/d", "192.168.1.20:\xff");
    }

    void subscriptionIsSevenLinesEndedByLineFeeds()
    {
        QFETCH(const QByteArray, location);
        QFETCH(const QByteArray, eventSubUrl);
        QFETCH(const QByteArray, path);
        QFETCH(const QByteArray, host);
        addService("http://192.168.1.30:99/d", "/other");
        SsdpService* const service = addService(location, eventSubUrl);
        QCOMPARE(manager.createSubscribeMessage(service).toLatin1(),
                 "SUBSCRIBE " + path + " HTTP/1.1\nHOST: " + host
                     + "\nUSER-AGENT: " + SsdpManager::getSystemInfo().toLatin1()
                     + " UPnP/1.1 SSDP/1.0\nCALLBACK: <http://:0/6f9619ff-8b86-d011-b42d-00c04fc964ff_%4>\n"
                       "NT: upnp:event\nTIMEOUT: Second-120\n\n");
    }

    void serviceWithoutDeviceHasAnEmptySubscription()
    {
        SsdpService other;
        QCOMPARE(manager.createSubscribeMessage(&other), QString());
        QCOMPARE(manager.createSubscribeMessage(nullptr), QString());
    }
};

QTEST_GUILESS_MAIN(SubscribeMessageTest)
#include "tst_subscribemessage.moc"

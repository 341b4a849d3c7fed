#ifndef VELMORA_TESTS_WIRETEST_H
#define VELMORA_TESTS_WIRETEST_H

#include <simulator/PrivateNetwork.h>
#include <ssdp/Ssdp.h>
#include <tests/support/CapturedLog.h>
#include <tests/support/ManagerAccess.h>
#include <tests/support/Messages.h>
#include <tests/support/ScriptedDevice.h>
#include <tests/support/Table.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QStringList>
#include <QtTest/QtTest>

#include <functional>
#include <memory>

/// QVERIFY that waits until an event has made @p condition true.
#define VERIFY_SOON(condition) QVERIFY(waitUntil([&] { return (condition); }))

/// QCOMPARE that waits until an event has made both equal.
#define COMPARE_SOON(actual, expected)                                                                            \
    do {                                                                                                          \
        waitUntil([&] { return (actual) == (expected); });                                                        \
        QCOMPARE(actual, expected);                                                                               \
    } while (false)

namespace Velmora {
namespace Tests {

const char LOCATION[] = "http://10.77.1.1:8080/desc.xml";

/// When the library has found a device here, it has read every earlier datagram.
const char LAST_LOCATION[] = "http://10.77.1.1:8080/last";

/// The report of WireTest::sendLastEvent().
const char LAST_REPORT[] = "77,1 at 10.77.1.1";

/// The log line for a description that does not parse. The body follows.
const char REPLY_NOT_PARSED[] = "1|void Velmora::SSDP::SsdpManager::handleServerResponse(QNetworkReply*)|"
                                "Could not parse server response|";

/**
 * A test of the library with a scripted device in a private network. The host is 10.77.0.1. The devices are
 * 10.77.1.1 to 10.77.1.3. Each test begins with an idle controller, a device at 10.77.1.1:8080 and an empty log.
 */
class WireTest : public QObject
{
    Q_OBJECT

public:
    /// Uses the network of makeNetworkOrExit().
    WireTest();
    explicit WireTest(Simulator::PrivateNetwork& network);

protected:
    /// Calls PrivateNetwork::addLink(). Returns the name of the host's interface.
    QString addLink(const char* hostAddress, const char* firstDeviceAddress, int deviceAddresses = 1);

    /// Handles events until @p condition is true. Returns false if it is not true after 20 seconds.
    static bool waitUntil(const std::function<bool()>& condition);

    /// Returns a controller. Its signals are recorded in reports and timeouts.
    std::unique_ptr<SSDP::Ssdp> newController(int timeout);

    /// Replaces the controller by a new one, and forgets the log and what earlier ones have reported.
    void makeController(int timeout = 60000);

    /// Replaces the device by a new one, which has no script.
    void makeDevice(const char* address = "10.77.1.1", quint16 port = 8080);

    /// Starts a discovery. Waits until its search reaches the device.
    bool search();

    /// Answers the search with @p location. Waits for the request for the description.
    bool answerSearch(const QByteArray& location = LOCATION);

    /// Scripts a device with one key-object service, which has the variable KO.
    void scriptDevice();

    /// Answers the search. Waits until the library has closed the connection of its subscription.
    bool beFound();

    /// Calls search(), scriptDevice() and beFound().
    bool findDevice();

    /// Waits for the only request that begins with @p start. Returns its connection, or null.
    Connection* requestFor(const QByteArray& start) const;

    /// Sends @p bytes. Returns whether the library has read them and keeps the connection open.
    static bool send(Connection* connection, const QByteArray& bytes);

    /// The first control point of the controller, and its members.
    SSDP::SsdpManager* controlPoint() const { return ssdp->findChild<SSDP::SsdpManager*>(); }
    ManagerAccess manager() const { return ManagerAccess(*controlPoint()); }

    /// Its first device, and the first service of this device.
    SSDP::SsdpDevice* record() const { return manager().devices().at(0); }
    SSDP::SsdpService* service() const { return record()->services.at(0); }

    /// The timer of the discovery.
    QTimer* timer() const { return ssdp->findChild<QTimer*>(); }

    /// Returns whether the first control point lists no connection of a subscription or an event.
    bool nothingIsListed() const;

    /// Returns the log. Each line is a text, as "0|piece|piece".
    static QStringList log() { return CapturedLog::all(); }

    /// The host, port and path to which a subscription requests events.
    struct Callback
    {
        QHostAddress host;
        quint16 port;
        QByteArray path;
    };
    static Callback callbackOf(const QByteArray& request);

    /// Returns the callback of the last subscription.
    Callback callback() const { return callbackOf(device->requestsFor("SUBSCRIBE ").last().bytes); }

    /// Opens a connection to the event server.
    Connection* connectTo(const Callback& to) { return device->connectTo(to.host, to.port); }

    /// Opens an event connection and sends the head. Returns null if the library does not read it.
    Connection* sendHead(const Callback& to, const QByteArray& contentLength);

    /// Sends an event as devices do, the body in a second segment. Returns whether the library closes the
    /// connection without an answer.
    bool sendEvent(const Callback& to, const QByteArray& body);

    /// Sends an event with KO = 77,1 and waits for LAST_REPORT. So the library has read what was sent before.
    bool sendLastEvent();

    /// Calls sendLastEvent(). Returns all reports.
    QStringList allReports();

    Simulator::PrivateNetwork& network;
    std::unique_ptr<ScriptedDevice> device;
    std::unique_ptr<SSDP::Ssdp> ssdp;
    QStringList reports;
    int timeouts = 0;
    int links = 0;

protected Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
};

/// Returns the private network of a test program. If there cannot be one, ends the program.
std::unique_ptr<Simulator::PrivateNetwork> makeNetworkOrExit();

/// Defines main(). PrivateNetwork must exist before the first thread, so before the application.
#define VELMORA_WIRE_TEST_MAIN(TestClass)                                                                         \
    int main(int argc, char** argv)                                                                               \
    {                                                                                                             \
        const auto network = Velmora::Tests::makeNetworkOrExit();                                                 \
        const QCoreApplication application(argc, argv);                                                           \
        TestClass test;                                                                                           \
        return QTest::qExec(&test, argc, argv);                                                                   \
    }

} // namespace Tests
} // namespace Velmora

#endif

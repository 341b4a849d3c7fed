#ifndef VELMORA_TESTS_WIRETEST_H
#define VELMORA_TESTS_WIRETEST_H

#include <simulator/PrivateNetwork.h>
#include <ssdp/Ssdp.h>
#include <tests/support/CapturedLog.h>
#include <tests/support/ManagerAccess.h>
#include <tests/support/Messages.h>
#include <tests/support/ScriptedDevice.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QStringList>
#include <QtTest/QtTest>

#include <functional>
#include <memory>

/// As QVERIFY, once an event has made it true.
#define VERIFY_SOON(condition) QVERIFY(waitUntil([&] { return (condition); }))

/// As QCOMPARE, once an event has made both equal.
#define COMPARE_SOON(actual, expected)                                                                            \
    do {                                                                                                          \
        waitUntil([&] { return (actual) == (expected); });                                                        \
        QCOMPARE(actual, expected);                                                                               \
    } while (false)

namespace Velmora {
namespace Tests {

/**
 * The library against a scripted device, over a private network: host 10.77.0.1, devices 10.77.1.1 to
 * 10.77.1.3, and a route to the groups on the host. Each test begins with an idle controller, a device
 * at 10.77.1.1:8080 and an empty log.
 */
class WireTest : public QObject
{
    Q_OBJECT

public:
    explicit WireTest(Simulator::PrivateNetwork& network);

protected:
    /// Joins the sides as PrivateNetwork::addLink() does. Returns the name of the host's interface.
    QString addLink(const char* hostAddress, const char* firstDeviceAddress, int deviceAddresses = 1);

    /// Handles events until @p condition holds. Returns whether it did in the end.
    static bool waitUntil(const std::function<bool()>& condition);

    /// A controller whose reports and time-outs are written to the lists below.
    std::unique_ptr<SSDP::Ssdp> newController(int timeout);

    /// Starts a discovery and waits for its search to reach the device.
    bool search();

    /// Lets the device be found at @p location and waits for the request for its description.
    bool answerSearch(const QByteArray& location = "http://10.77.1.1:8080/desc.xml");

    /// Gives the device a description with one key-object service with the variable KO.
    void scriptDevice();

    /// Lets the scripted device be found and waits until its subscription was answered.
    bool beFound();

    /// All of it: searches, lets the device be found and its subscription be answered.
    bool findDevice();

    /// What the controller's first control point holds.
    ManagerAccess manager() const;

    /// Whether the first control point has no connection of a subscription or an event.
    bool nothingIsListed() const;

    /// The log so far: "0|piece|piece" and so on, one text for each line.
    static QStringList log();

    /// Where the subscription @p request asks for events: host, port and path.
    struct Callback
    {
        QHostAddress host;
        quint16 port;
        QByteArray path;
    };
    static Callback callbackOf(const QByteArray& request);

    /// The callback of the last subscription that reached the device.
    Callback callback() const;

    /// Opens an event connection, sends the head and waits until it was read. Null if it was not.
    Connection* sendHead(const Callback& to, const QByteArray& contentLength);

    /// Sends an event as devices do, in two chunks. Returns whether the library closed it without an answer.
    bool sendEvent(const Callback& to, const QByteArray& body);

    /// Sends an event with KO = 77,1 and waits for its report: what was sent before it has had its turn.
    bool sendLastEvent();

    Simulator::PrivateNetwork& network;
    std::unique_ptr<ScriptedDevice> device;
    std::unique_ptr<SSDP::Ssdp> ssdp;
    QStringList reports;
    int timeouts;
    int links;

protected Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
};

/// The private network of a test program; ends the program where there can be none.
std::unique_ptr<Simulator::PrivateNetwork> makeNetworkOrExit();

/// The main() of a wire test: the network comes before the first thread, so before the application.
#define VELMORA_WIRE_TEST_MAIN(TestClass)                                                                         \
    int main(int argc, char** argv)                                                                               \
    {                                                                                                             \
        const auto network = Velmora::Tests::makeNetworkOrExit();                                                 \
        const QCoreApplication application(argc, argv);                                                           \
        TestClass test(*network);                                                                                 \
        return QTest::qExec(&test, argc, argv);                                                                   \
    }

} // namespace Tests
} // namespace Velmora

#endif

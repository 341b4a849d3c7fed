#include <tests/wire/DeviceProcess.h>

#include <simulator/SimulatedDevice.h>
#include <tests/support/ProcessState.h>
#include <tests/support/WireTest.h>

#include <QtCore/QThread>
#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>

#include <algorithm>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

using namespace Velmora::Simulator;
using namespace Velmora::Tests;
using Velmora::SSDP::Ssdp;

namespace {

const int MAX_TEST_TIME = 60 * 60 * 1000;
const char REFUSED[] = "1|Too few file descriptors are left; a connection was not opened";

/// How many devices there are.
enum Devices {
    DeviceOfManyVariables = 2, ///< The first is a good device. The second has many variables.
    ThreeDevices = 3,
    TwentyDevices = 20,
};

int runLimitedDevices(int count, const DeviceProcess& process)
{
    return runSimulatedDevices(count, process, [count](int number, DeviceOptions& options) {
        if (count != DeviceOfManyVariables || number != 2)
            return;
        for (int variable = 0; variable < 300; ++variable)
            options.variables << "V%1"_s.arg(variable);
        options.addFault(Fault::NeverAnswerSubscribe);
    });
}

/// Takes the descriptors below @p end. Does so again before each event, because other threads close some.
class TakenDescriptors : public QObject
{
public:
    explicit TakenDescriptors(int end)
        : end(end)
    {
        take();
        qApp->installEventFilter(this);
    }

    ~TakenDescriptors() override
    {
        for (const int descriptor : descriptors)
            close(descriptor);
    }

    bool eventFilter(QObject*, QEvent*) override
    {
        take();
        return false;
    }

private:
    void take()
    {
        int descriptor = -1;
        while ((descriptor = open("/", O_PATH | O_CLOEXEC)) != -1 && descriptor < end)
            descriptors.push_back(descriptor);
        if (descriptor != -1)
            close(descriptor);
    }

    const int end;
    std::vector<int> descriptors;
};

} // namespace

/// A process with few free descriptors, and the number of its threads.
class LimitsTest : public WireTest
{
    Q_OBJECT

public:
    LimitsTest(PrivateNetwork& network, DeviceProcess& devices)
        : WireTest(network)
        , devices(devices)
    {
    }

private Q_SLOTS:
    void initTestCase() { }

    void init()
    {
        found.clear();
        makeController(MAX_TEST_TIME);
        connect(ssdp.get(), &Ssdp::discovered, this, [this](int functionCode) { found << functionCode; });
    }

    void cleanup()
    {
        ssdp.reset();
        devices.stop();
    }

    void nextDiscoveryFindsEveryDevice_data()
    {
        // Each device takes a descriptor for its descriptions, one for each of its two subscriptions and one for
        // each event.
        const Table<int> row("left");
        for (int left = 0; left <= 8; ++left)
            row(QByteArray::number(left) + " descriptors are free after the search", left);
    }

    void nextDiscoveryFindsEveryDevice()
    {
        QFETCH(const int, left);
        start(ThreeDevices);
        ssdp->discover();
        {
            const int next = ProcessState::nextDescriptor();
            const ProcessState::DescriptorLimit limit(next + left);
            // On Qt 5, a thread for D-Bus closes a descriptor soon after the first control point was made.
            const TakenDescriptors taken(next);
            VERIFY_SOON(manager().devices().size() == 3 && manager().deviceReplies().isEmpty());
            QVERIFY(left > 0 || manager().devices().at(0)->services.isEmpty());
        }
        ssdp->stop();
        found.clear();
        ssdp->discover();
        VERIFY_SOON(hasFound(3));
    }

    void nextDiscoveryFindsEveryDeviceAfterASearchWithoutSockets()
    {
        start(ThreeDevices);
        // Only the first search looks up the interfaces, which takes a descriptor.
        ssdp->discover();
        ssdp->stop();
        {
            const ProcessState::DescriptorLimit none(ProcessState::nextDescriptor());
            ssdp->discover();
            ssdp->stop();
        }
        ssdp->discover();
        VERIFY_SOON(hasFound(3));
    }

    void hostMayStartAThreadWhenADeviceHasTakenTheDescriptors()
    {
        start(DeviceOfManyVariables);
        const ProcessState::DescriptorLimit limit(128);
        for (int discovery = 1; discovery <= 2; ++discovery) {
            ssdp->discover();
            VERIFY_SOON(manager().devices().size() == 2 && manager().deviceReplies().isEmpty());
            // If there is no descriptor for the event loop of the thread, Qt (4.8 to 6.4) ends the process.
            QThread thread;
            thread.start();
            thread.quit();
            QVERIFY(thread.wait());
            QCOMPARE(log().count(QLatin1String(REFUSED)), discovery);
            ssdp->stop();
        }
        QVERIFY(manager().requestSockets().size() > 300);

        // When the device ends, the connections to it are closed. The next discovery closes the descriptors of the
        // refused connections.
        devices.stop();
        VERIFY_SOON(std::none_of(
            manager().requestSockets().cbegin(), manager().requestSockets().cend(),
            [](const QTcpSocket* socket) { return socket->state() != QTcpSocket::UnconnectedState; }));
        ssdp->discover();
        ssdp->stop();
        VERIFY_SOON(ProcessState::descriptors() < 64);
        start(ThreeDevices);
        found.clear();
        ssdp->discover();
        VERIFY_SOON(hasFound(3));
    }

    void connectionsForEventsLeaveTheLastDescriptors()
    {
        // This device is in the same process, so a connection takes two descriptors.
        ScriptedDevice other(network);
        const ProcessState::DescriptorLimit limit(ProcessState::nextDescriptor() + 60);
        ssdp->discover();
        QTcpServer& server = manager().eventServer();
        const Connection* last = nullptr;
        int accepted = 0;
        do {
            last = other.connectTo(QHostAddress("10.77.0.1"), server.serverPort());
            VERIFY_SOON(!last->isOpen() || server.findChildren<QTcpSocket*>().size() > accepted);
            ++accepted;
        } while (last->isOpen());
        QVERIFY(accepted > 20);
        QCOMPARE(log().count(REFUSED), 1);
        ProcessState::nextDescriptor();
    }

    void nameIsNotLookedUpForTheLastDescriptors()
    {
        // This opens the event server.
        ssdp->discover();
        ssdp->stop();
        const TakenDescriptors taken(100);
        // The library keeps a sixteenth of the limit free. The search takes two descriptors.
        const ProcessState::DescriptorLimit limit(ProcessState::nextDescriptor() + 6);
        CapturedLog::clear();
        ssdp->discover();
        const int threads = ProcessState::threads();
        const QHostAddress address("10.77.1.1"_s);
        manager().addSsdpDevice(address, "http://localhost:9/a"_s);
        manager().addSsdpDevice(address, "http://localhost:9/b"_s);
        QCOMPARE(ProcessState::threads(), threads);
        VERIFY_SOON(manager().deviceReplies().isEmpty());
        QCOMPARE(ProcessState::threads(), threads);
        QCOMPARE(log().count(QLatin1String(REFUSED)), 1);
    }

    void connectionIsRefusedIfDescriptorsRanOutDuringTheLookUp()
    {
        QTcpServer server;
        QVERIFY(server.listen(QHostAddress::LocalHost));
        const ProcessState::DescriptorLimit limit(256);
        ssdp->discover();
        manager().addSsdpDevice(QHostAddress("10.77.1.1"_s), "http://localhost:%1/"_s.arg(server.serverPort()));
        QCOMPARE(manager().deviceReplies().size(), 1);
        // The library keeps a sixteenth of the limit free.
        const TakenDescriptors taken(256 - 256 / 16);
        VERIFY_SOON(manager().deviceReplies().isEmpty());
        QCOMPARE(log().count(QLatin1String(REFUSED)), 1);
        VERIFY_SOON(server.hasPendingConnections());
        QTcpSocket* const connection = server.nextPendingConnection();
        VERIFY_SOON(connection->state() == QTcpSocket::UnconnectedState);
        QCOMPARE(connection->bytesAvailable(), qint64(0));
    }

    void libraryStartsNoThread()
    {
        start(TwentyDevices);
        // Some versions of QtTest start a thread.
        const int before = ProcessState::threads();
        int most = 0;
        const QObject context;
        connect(ssdp.get(), &Ssdp::discovered, &context,
                [count = &most] { *count = qMax(*count, ProcessState::threads()); });
        ssdp->discover();
        QVERIFY(waitUntil([&] {
            most = qMax(most, ProcessState::threads());
            return hasFound(TwentyDevices);
        }));
        QCOMPARE(most, before);
        ssdp->stop();
        QCOMPARE(ProcessState::threads(), before);
    }

private:
    void start(Devices which)
    {
        devices.start(which);
        QCOMPARE(devices.readReport(), std::string("ready"));
    }

    bool hasFound(int count) const { return QSet<int>(found.cbegin(), found.cend()).size() == count; }

    DeviceProcess& devices;
    QList<int> found; ///< The function codes, as they were reported.
};

int main(int argc, char** argv)
{
    const auto network = makeNetworkOrExit();
    network->addLink("10.77.0.1/16", "10.77.1.1/16", TwentyDevices);
    DeviceProcess devices(*network, runLimitedDevices);
    const QCoreApplication application(argc, argv);
    LimitsTest test(*network, devices);
    return QTest::qExec(&test, argc, argv);
}

#include "tst_limits.moc"

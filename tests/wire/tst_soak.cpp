#include <tests/wire/DeviceProcess.h>

#include <simulator/SimulatedDevice.h>
#include <ssdp/Ssdp.h>
#include <tests/support/Literals.h>
#include <tests/support/ManagerAccess.h>
#include <tests/support/ProcessState.h>
#include <tests/support/Sanitized.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QLoggingCategory>
#include <QtCore/QSet>
#include <QtTest/QtTest>

#include <malloc.h>
#include <memory>
#include <unistd.h>
#include <vector>

using namespace Velmora;
using namespace Velmora::Tests;
using Simulator::DeviceOptions;
using Simulator::Fault;
using Simulator::PrivateNetwork;

namespace {

const int DEVICES = 20;
/// One of the two devices with a fault never answers a subscription: what the discovery leaves of it is a
/// socket for each state variable.
const int SOCKETS_LEFT = 2;
const int WARM_UP = 10;

/// The devices 1 to 18 are good.
int runSoakedDevices(int, const DeviceProcess& process)
{
    return runSimulatedDevices(DEVICES, process, [](int number, DeviceOptions& options) {
        options.announceEvery = 1000;
        options.eventGap = 300;
        if (number == DEVICES - 1)
            options.addFault(Fault::NeverAnswerSubscribe);
        if (number == DEVICES)
            options.addFault(Fault::ResetMidBody);
    });
}

struct Holdings
{
    int descriptors;
    int objects;
    int sockets;
    qint64 memory; ///< In KB.
};

Holdings holdingsOf(SSDP::Ssdp& ssdp)
{
    malloc_trim(0);
    ManagerAccess manager(*ssdp.findChild<SSDP::SsdpManager*>());
    QFile file("/proc/self/statm");
    const qint64 pages = file.open(QIODevice::ReadOnly) ? file.readAll().split(' ').at(1).toLongLong() : 0;
    return {ProcessState::descriptors(),
            static_cast<int>(ssdp.findChildren<QObject*>().size() + manager.networkManager().children().size()
                             + manager.eventServer().children().size()),
            static_cast<int>(manager.requestSockets().size()), pages * sysconf(_SC_PAGESIZE) / 1024};
}

} // namespace

/**
 * One discovery after the other in one process: 30 of them, or as many as VELMORA_SOAK says, against
 * twenty devices of which two have a fault. The tenth has to be as the last, apart from the sockets of
 * subscriptions that were never answered, which stay listed with their control point by design.
 */
class SoakTest : public QObject
{
    Q_OBJECT

public:
    explicit SoakTest(DeviceProcess& devices)
        : devices(devices)
    {
    }

private Q_SLOTS:

    void discoveriesLeaveNothingBehind()
    {
        QLoggingCategory::setFilterRules("velmora.ssdp=false");
        const int wanted = qEnvironmentVariableIntValue("VELMORA_SOAK");
        const int discoveries = wanted > WARM_UP ? wanted : 30;
        devices.start(0);
        QCOMPARE(devices.readReport(), std::string("ready"));

        SSDP::Ssdp ssdp(120 * 1000);
        for (int i = 0; i < WARM_UP; ++i) {
            discover(ssdp);
            if (QTest::currentTestFailed())
                return;
        }
        const Holdings before = holdingsOf(ssdp);
        QCOMPARE(before.sockets, WARM_UP * SOCKETS_LEFT);
        for (int i = WARM_UP; i < discoveries; ++i) {
            discover(ssdp);
            if (QTest::currentTestFailed())
                return;
        }
        const Holdings after = holdingsOf(ssdp);
        const int left = (discoveries - WARM_UP) * SOCKETS_LEFT;
        qInfo("%d discoveries: descriptors %d, then %d; objects %d, then %d; sockets %d, then %d; memory %lld KB, "
              "then %lld KB",
              discoveries, before.descriptors, after.descriptors, before.objects, after.objects, before.sockets,
              after.sockets, static_cast<long long>(before.memory), static_cast<long long>(after.memory));

        QCOMPARE(after.sockets - before.sockets, left);
        QCOMPARE(after.descriptors - before.descriptors, left);
        // The socket, its engine and their notifiers.
        const int objectsOfASocket = (after.objects - before.objects) / left;
        QCOMPARE(after.objects - before.objects, left * objectsOfASocket);
        QVERIFY2(SANITIZED || after.memory - before.memory < 4 * 1024 + left * 40,
                 "a socket takes less than 40 KB");
    }

private:
    void discover(SSDP::Ssdp& ssdp)
    {
        QHash<int, int> reports;
        int complete = 0;
        const auto connection = connect(&ssdp, &SSDP::Ssdp::discovered, this, [&](int functionCode) {
            // Each of the two subscriptions of a good device brings its report.
            if (++reports[functionCode] == 2)
                ++complete;
        });
        ssdp.discover();
        ManagerAccess manager(*ssdp.findChild<SSDP::SsdpManager*>());
        QTRY_COMPARE_WITH_TIMEOUT(complete, DEVICES - 2, 20000);
        QTRY_VERIFY(manager.deviceReplies().isEmpty());
        QTRY_VERIFY(manager.eventServer().findChildren<QTcpSocket*>().isEmpty());
        ssdp.stop();
        disconnect(connection);
    }

    DeviceProcess& devices;
};

int main(int argc, char** argv)
{
    return runAgainst(runSoakedDevices, DEVICES, [&](DeviceProcess& devices) {
        const QCoreApplication application(argc, argv);
        // A thousand discoveries take longer than the five minutes that QtTest gives a function.
        qputenv("QTEST_FUNCTION_TIMEOUT", "3600000");
        SoakTest test(devices);
        return QTest::qExec(&test, argc, argv);
    });
}

#include "tst_soak.moc"

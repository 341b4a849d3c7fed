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
#include <QtTest/QtTest>

#include <malloc.h>
#include <unistd.h>

using namespace Velmora;
using namespace Velmora::Tests;
using Simulator::DeviceOptions;
using Simulator::Fault;

namespace {

// The last two devices have a fault. One of them never answers a subscription, so each discovery leaves a socket
// for each of its state variables. They stay listed by design.
const int DEVICES = 20;
const int GOOD_DEVICES = DEVICES - 2;
const int SOCKETS_LEFT = 2;
const int WARM_UP = 10;

int runSoakedDevices(int, const DeviceProcess& process)
{
    return runSimulatedDevices(DEVICES, process, [](int number, DeviceOptions& options) {
        options.announceEvery = 1000;
        options.eventGap = 300;
        if (number > GOOD_DEVICES)
            options.addFault(number == DEVICES ? Fault::ResetMidBody : Fault::NeverAnswerSubscribe);
    });
}

struct Holdings
{
    int descriptors;
    int objects;
    int sockets;
    qint64 memory; ///< In KiB.
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

/// Many discoveries in one process: 30, or as many as VELMORA_SOAK says. The last one must leave what the tenth
/// left, apart from the sockets above.
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
        Holdings before = {};
        for (int i = 0; i < discoveries; ++i) {
            if (i == WARM_UP)
                before = holdingsOf(ssdp);
            discover(ssdp);
            if (QTest::currentTestFailed())
                return;
        }
        const Holdings after = holdingsOf(ssdp);
        qInfo("%d discoveries: descriptors %d, then %d; objects %d, then %d; sockets %d, then %d; memory %lld KB, "
              "then %lld KB",
              discoveries, before.descriptors, after.descriptors, before.objects, after.objects, before.sockets,
              after.sockets, static_cast<long long>(before.memory), static_cast<long long>(after.memory));

        const int left = (discoveries - WARM_UP) * SOCKETS_LEFT;
        QCOMPARE(before.sockets, WARM_UP * SOCKETS_LEFT);
        QCOMPARE(after.sockets - before.sockets, left);
        QCOMPARE(after.descriptors - before.descriptors, left);
        // Each socket has the same number of children: its engine and their notifiers.
        QCOMPARE((after.objects - before.objects) % left, 0);
        QVERIFY2(SANITIZED || after.memory - before.memory < 4 * 1024 + left * 40,
                 "a socket takes less than 40 KB");
    }

private:
    void discover(SSDP::Ssdp& ssdp)
    {
        QHash<int, int> reports;
        int complete = 0;
        const auto connection = connect(&ssdp, &SSDP::Ssdp::discovered, this, [&](int functionCode) {
            // A good device reports once for each of its two subscriptions.
            if (++reports[functionCode] == 2)
                ++complete;
        });
        ssdp.discover();
        ManagerAccess manager(*ssdp.findChild<SSDP::SsdpManager*>());
        QTRY_COMPARE_WITH_TIMEOUT(complete, GOOD_DEVICES, 20000);
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

#include <tests/wire/Attacks.h>
#include <tests/wire/DeviceProcess.h>

#include <simulator/SimulatedDevice.h>
#include <ssdp/Ssdp.h>
#include <tests/support/Literals.h>
#include <tests/support/ManagerAccess.h>
#include <tests/support/ProcessState.h>
#include <tests/support/Sanitized.h>
#include <tests/support/Table.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QSocketNotifier>
#include <QtCore/QThread>
#include <QtCore/QTimer>
#include <QtCore/QtEndian>
#include <QtNetwork/QTcpSocket>
#include <QtTest/QtTest>

#include <algorithm>
#include <atomic>
#include <malloc.h>
#include <stdexcept>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

using namespace Velmora;
using namespace Velmora::Tests;
using Simulator::DeviceOptions;
using Simulator::SimulatedDevice;
using Simulator::SsdpGroup;

namespace {

// A release build needs less than 2 s. The rest is for slow machines.
const int LONGEST_BLOCK = (SANITIZED ? 12 : 6) * 1000;

// For the attacks that must delay nothing.
const int LONGEST_DELAY = SANITIZED ? 500 : 100;
const int MOST_RUNS = 10;

// The number of attacks in each table of docs/robustness.md.
const int SHOWN = 10;

// The process of the library.
const pid_t HOST = getpid();

const char GOOD_ADDRESS[] = "10.77.1.1";
const int TICK = 5;
// The kernel takes some milliseconds to list its connections.
const int PEEK = 20;
const int PATIENCE = 90 * 1000;

/// Returns the longest pause of the good device between head and body of its event, in milliseconds. The library
/// loses a body that it reads with the head. So the longest pause is longer than the time for which the host may
/// be busy. The pause ends earlier if the attack has ended and the host has read the head. An attack with the
/// trait Prompt must not keep the host busy. So its longest pause is short.
int eventGap(const Attack& attack)
{
    return attack.traits & Attack::Prompt ? 3 * LONGEST_DELAY : 2 * LONGEST_BLOCK;
}

/// Returns the limit of the memory in KiB. It is three times what a release build needs. With sanitizers, it is
/// larger.
qint64 peakMemory(const Attack& attack)
{
    if (SANITIZED)
        return Q_INT64_C(6000) * 1024;
    return (attack.traits & Attack::Large ? Q_INT64_C(2100) : Q_INT64_C(200)) * 1024;
}

/// Returns whether bytes of the good device's connections wait in the kernel, on the side of @p process.
bool hasBytesWaiting(pid_t process)
{
    const quint32 number = qToBigEndian(QHostAddress(GOOD_ADDRESS).toIPv4Address());
    const QByteArray address = QByteArray::number(number, 16).rightJustified(8, '0').toUpper();
    QFile table("/proc/%1/net/tcp"_s.arg(process));
    if (!table.open(QIODevice::ReadOnly))
        return true;
    const QList<QByteArray> lines = table.readAll().split('\n');
    return std::any_of(lines.cbegin(), lines.cend(), [&address](const QByteArray& line) {
        // Number, local address, remote address, state, bytes to send and to read.
        return line.contains(' ' + address + ':') && line.simplified().split(' ').at(4) != "00000000:00000000";
    });
}

/// The good device and the attacker of one attack.
int runDevices(int number, const DeviceProcess& process)
{
    int argc = 1;
    char name[] = "devices";
    char* argv[] = {name, nullptr};
    QCoreApplication application(argc, argv);

    SsdpGroup group;
    DeviceOptions options;
    options.address = QHostAddress(GOOD_ADDRESS);
    options.functionCode = 7;
    options.univocalCode = 1;
    options.responseDelayMax = 0;
    // The library searches only once, and a busy kernel may lose that datagram.
    options.announceEvery = 1000;
    const Attack& attack = attacks()[static_cast<size_t>(number)];
    options.eventGap = eventGap(attack);
    SimulatedDevice device(&group, options);
    if (!device.start())
        return 1;

    Attacker attacker;
    std::atomic<bool> isDone = false;
    std::thread([&] {
        try {
            attacker.waitForSearch();
            attack.run(attacker);
            isDone = true;
            process.report("done " + attacker.seen.toStdString());
        } catch (const std::exception& error) {
            process.report(std::string("failed: ") + error.what());
        }
    }).detach();
    // The body of the event comes when the attack has ended and the host has read the head.
    QTimer gap;
    QObject::connect(&device, &SimulatedDevice::reached, &gap, [&gap](SimulatedDevice::Stage stage) {
        if (stage == SimulatedDevice::EventBegun)
            gap.start(PEEK);
        if (stage == SimulatedDevice::EventSent)
            gap.stop();
    });
    QObject::connect(&gap, &QTimer::timeout, &device, [&] {
        if (isDone && !hasBytesWaiting(getpid()) && !hasBytesWaiting(HOST))
            device.endGaps();
    });
    process.report("ready");
    return QCoreApplication::exec();
}

/// Returns a value of /proc/self/status, in KiB.
qint64 memory(const char* field)
{
    QFile file("/proc/self/status");
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    return QString(file.readAll()).section(field + ":"_s, 1).trimmed().section(" ", 0, 0).toLongLong();
}

void forgetPeakMemory()
{
    malloc_trim(0);
    QFile file("/proc/self/clear_refs");
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Unbuffered));
    QCOMPARE(file.write("5"), 1);
}

/// Sets the limit, or the highest one that is permitted.
void limitDescriptors(rlim_t count)
{
    rlimit limit = {};
    QCOMPARE(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = qMin(count, limit.rlim_max);
    QCOMPARE(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

/// The cells of an attack in the table.
using Cost = QStringList;

QString tableOf(const QList<Cost>& costs)
{
    QString table = "| Attack | Longest work, ms | Longest block, ms | Memory, MB | Letting go, ms "
                    "| The good device, and what is listed in the end |\n|---|---|---|---|---|---|\n"_s;
    for (const Cost& cost : costs)
        table += "| "_s + cost.join(" | ") + " |\n";
    return table;
}

void writeFile(const QString& name, const QString& text)
{
    QFile file(name);
    QVERIFY2(file.open(QIODevice::WriteOnly), qPrintable(file.errorString()));
    QVERIFY(file.write(text.toUtf8()) > 0);
}

} // namespace

/// The library under attack. Each time, it must also find a good device. docs/robustness.md explains the two
/// environment variables.
class HostileTest : public QObject
{
    Q_OBJECT

public:
    explicit HostileTest(DeviceProcess& devices)
        : devices(devices)
    {
    }

private Q_SLOTS:

    void initTestCase()
    {
        // Otherwise the test would also measure the log.
        QLoggingCategory::setFilterRules("velmora.ssdp=false");
        // The first control point of a process loads plugins of Qt 5. They keep descriptors.
        const SSDP::SsdpManager first{QHostAddress("10.77.0.1")};
    }

    void goodDeviceIsFound_data()
    {
        const Table<int> row("number");
        const bool all = qEnvironmentVariableIsSet("VELMORA_ALL_ATTACKS")
            || qEnvironmentVariableIsSet("VELMORA_WRITE_ROBUSTNESS");
        int number = 0;
        for (const Attack& attack : attacks()) {
            if (all || (attack.traits & Attack::Quick))
                row(attack.name, number);
            ++number;
        }
    }

    void goodDeviceIsFound()
    {
        QFETCH(int, number);
        const Attack& attack = attacks()[static_cast<size_t>(number)];

        if (usuallyFoundAfter == -1 && (attack.traits & Attack::Prompt))
            usuallyFoundAfter = foundAfter(0);

        devices.start(number);
        QCOMPARE(devices.readReport(), std::string("ready"));
        forgetPeakMemory();
        const qint64 memoryBefore = memory("VmRSS");
        const int descriptorsBefore = ProcessState::descriptors();
        if (attack.traits & Attack::FewDescriptors)
            limitDescriptors(1024);

        auto ssdp = std::make_unique<SSDP::Ssdp>(2 * PATIENCE);
        const Measured measured = discover(*ssdp, attack);
        const qint64 peak = memory("VmHWM") - memoryBefore;
        ManagerAccess manager(*ssdp->findChild<SSDP::SsdpManager*>());
        const QString result = left(manager);

        QVERIFY2(measured.isDone, qPrintable("the attack is not done: " + result));
        QVERIFY2(measured.report.startsWith("done"), measured.report.constData());
        QVERIFY2(measured.foundAfter >= 0, qPrintable(result));
        if (!(attack.traits & Attack::Oversized))
            QVERIFY2(measured.longestWork < LONGEST_BLOCK, qPrintable(QString::number(measured.longestWork)));
        if (!(attack.traits & Attack::ManyRecords))
            QVERIFY2(peak < peakMemory(attack), qPrintable(QString::number(peak)));
        QVERIFY2(manager.devices().size() > attack.devices, qPrintable(result));

        const QByteArray seen = measured.report.mid(5);
        QElapsedTimer elapsed;
        elapsed.start();
        ssdp.reset();
        const qint64 lettingGo = elapsed.elapsed();
        QCOMPARE(ProcessState::descriptors(), descriptorsBefore);

        if (attack.traits & Attack::Prompt) {
            QVERIFY2(lettingGo <= LONGEST_DELAY, qPrintable(QString::number(lettingGo)));
            // Other work of the machine makes the delay longer, so the shortest counts.
            int delay = measured.foundAfter - usuallyFoundAfter;
            for (int run = 1; run < MOST_RUNS && delay > LONGEST_DELAY; ++run) {
                const int usual = foundAfter(0);
                delay = qMin(delay, foundAfter(number) - usual);
            }
            QVERIFY2(delay <= LONGEST_DELAY, qPrintable(QString::number(delay)));
        }
        costs << Cost{QString::fromLatin1(attack.name),
                      QString::number(measured.longestWork),
                      QString::number(measured.longestBlock),
                      QString::number(qMax(peak, Q_INT64_C(0)) / 1024),
                      QString::number(lettingGo),
                      "found after %1 ms; %2%3"_s.arg(measured.foundAfter)
                          .arg(result, seen.isEmpty() ? QString() : "; " + QString(seen))};
    }

    void cleanup()
    {
        limitDescriptors(RLIM_INFINITY);
        devices.stop();
    }

    void cleanupTestCase()
    {
        const QString name = qEnvironmentVariable("VELMORA_WRITE_ROBUSTNESS");
        if (name.isEmpty())
            return;
        const QString passed =
            "Qt %1: %2 of %3 attacks passed.\n\n"_s.arg(qVersion()).arg(costs.size()).arg(attacks().size());
        writeFile(QCoreApplication::applicationDirPath() + "/robustness.md", passed + tableOf(costs));

        QFile file(name);
        QVERIFY2(file.open(QIODevice::ReadOnly), qPrintable(file.errorString()));
        QString text = QString::fromUtf8(file.readAll());
        const QString begin = "<!-- measured with Qt %1 -->\n"_s.arg(QT_VERSION_MAJOR);
        const auto from = text.indexOf(begin);
        QVERIFY2(from != -1, "the file has no section for this Qt");
        std::stable_sort(costs.begin(), costs.end(),
                         [](const Cost& a, const Cost& b) { return a.at(1).toInt() > b.at(1).toInt(); });
        text.replace(from, text.indexOf("<!-- end -->\n", from) - from,
                     begin + passed + tableOf(costs.mid(0, SHOWN)));
        writeFile(name, text);
    }

private:
    struct Measured
    {
        int longestBlock = 0; ///< In milliseconds.
        int longestWork = 0; ///< How long the thread had a processor in a block, in milliseconds.
        int foundAfter = -1;
        bool isDone = false;
        QByteArray report;
    };

    Measured discover(SSDP::Ssdp& ssdp, const Attack& attack)
    {
        Measured measured;
        QElapsedTimer elapsed;
        connect(&ssdp, &SSDP::Ssdp::discovered, this, [&](int functionCode, int, const QHostAddress& address) {
            if (functionCode == 7 && address == QHostAddress(GOOD_ADDRESS) && measured.foundAfter < 0)
                measured.foundAfter = static_cast<int>(elapsed.elapsed());
        });
        QSocketNotifier reports(devices.descriptor(), QSocketNotifier::Read);
        connect(&reports, &QSocketNotifier::activated, this,
                [&] { measured.report = QByteArray::fromStdString(devices.readReport()); });

        QEventLoop loop;
        QElapsedTimer sinceTick;
        qint64 workBefore = ProcessState::processorTime();
        QTimer ticker;
        ticker.setTimerType(Qt::PreciseTimer);
        connect(&ticker, &QTimer::timeout, this, [&] {
            measured.longestBlock = qMax(measured.longestBlock, static_cast<int>(sinceTick.restart()) - TICK);
            const qint64 work = ProcessState::processorTime();
            measured.longestWork = qMax(measured.longestWork, static_cast<int>((work - workBefore) / 1000));
            workBefore = work;
            ManagerAccess manager(*ssdp.findChild<SSDP::SsdpManager*>());
            const bool settled = (attack.traits & Attack::Unending) || manager.deviceReplies().isEmpty();
            measured.isDone = measured.report.startsWith("failed")
                || (!measured.report.isEmpty() && measured.foundAfter >= 0 && settled);
            if (measured.isDone || elapsed.elapsed() > PATIENCE)
                loop.quit();
            if (attack.traits & Attack::FewDescriptors) {
                // Qt (4.8 to 6.4) ends the process if no descriptor is left for the event loop of the thread.
                QThread thread;
                thread.start();
                thread.quit();
                thread.wait();
            }
        });

        elapsed.start();
        sinceTick.start();
        ticker.start(TICK);
        ssdp.discover();
        if (attack.traits & Attack::Stalled)
            QTest::qSleep(400);
        loop.exec();
        return measured;
    }

    /// Returns after how many milliseconds the good device is found during the attack with this number.
    int foundAfter(int number)
    {
        devices.stop();
        devices.start(number);
        devices.readReport();
        SSDP::Ssdp ssdp(2 * PATIENCE);
        const int result = discover(ssdp, attacks()[static_cast<size_t>(number)]).foundAfter;
        devices.stop();
        return result;
    }

    static QString left(ManagerAccess manager)
    {
        int services = 0;
        for (const SSDP::SsdpDevice* const device : std::as_const(manager.devices()))
            services += static_cast<int>(device->services.size());
        return "devices %1, services %2, requests %3, sockets %4, event connections %5"_s
            .arg(manager.devices().size())
            .arg(services)
            .arg(manager.deviceReplies().size())
            .arg(manager.requestSockets().size())
            .arg(manager.eventServer().findChildren<QTcpSocket*>().size());
    }

    DeviceProcess& devices;
    QList<Cost> costs; ///< Of the attacks that passed.
    int usuallyFoundAfter = -1; ///< Without an attack.
};

int main(int argc, char** argv)
{
    return runAgainst(runDevices, 2, [&](DeviceProcess& devices) {
        const QCoreApplication application(argc, argv);
        HostileTest test(devices);
        return QTest::qExec(&test, argc, argv);
    });
}

#include "tst_hostile.moc"

#include <tests/support/Literals.h>
#include <tests/wire/Attacks.h>
#include <tests/wire/DeviceProcess.h>

#include <simulator/PrivateNetwork.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QProcess>
#include <QtTest/QtTest>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <thread>
#include <unistd.h>

using namespace Velmora;
using namespace Velmora::Tests;
using Simulator::PrivateNetwork;

namespace {

// How many attacks run side by side, each in a network of its own.
const int AT_ONCE = 12;

const int PATIENCE = 120 * 1000;

// What the run of one attack ends with.
const int SURVIVED = 0;
const int SKIPPED = 77;
const int FAILED = 1;

int runAttacker(int number, const DeviceProcess& process)
{
    Attacker attacker;
    process.report("ready");
    std::thread([&attacker, number] {
        try {
            attacker.waitForSearch();
            attacks()[static_cast<size_t>(number)].run(attacker);
        } catch (const std::exception&) {
            // The doctor need not do what the attack waits for.
        }
    }).detach();
    for (;;)
        pause();
}

bool isPrintable(const QByteArray& text)
{
    return std::all_of(text.cbegin(), text.cend(),
                       [](char byte) { return byte == '\n' || (byte >= ' ' && byte <= '~'); });
}

/// Lets the doctor meet one attacker. Says on standard output what was wrong.
int meet(int number, int argc, char** argv)
{
    std::unique_ptr<PrivateNetwork> network;
    std::unique_ptr<DeviceProcess> devices;
    try {
        network = std::make_unique<PrivateNetwork>();
        network->addLink("10.77.0.1/16", "10.77.1.1/16", 2);
        devices = std::make_unique<DeviceProcess>(*network, runAttacker);
    } catch (const std::exception& error) {
        std::printf("no private network: %s\n", error.what());
        return SKIPPED;
    }
    const QCoreApplication application(argc, argv);
    devices->start(number);
    devices->readReport();

    QProcess doctor;
    doctor.start(QStringLiteral(SSDP_DOCTOR), {"--timeout"_s, "2000"_s});
    if (!doctor.waitForFinished(PATIENCE)) {
        std::puts("it does not end");
        doctor.kill();
        doctor.waitForFinished();
        return FAILED;
    }
    const QByteArray out = doctor.readAllStandardOutput();
    const QByteArray err = doctor.readAllStandardError();
    if (doctor.exitStatus() != QProcess::NormalExit || doctor.exitCode() > 3 || doctor.exitCode() == 2
        || !isPrintable(out) || !isPrintable(err) || out.isEmpty()) {
        std::printf("status %d, signalled %d: %s%s\n", doctor.exitCode(),
                    doctor.exitStatus() != QProcess::NormalExit, out.left(2000).constData(),
                    err.left(2000).constData());
        return FAILED;
    }
    return SURVIVED;
}

} // namespace

/// ssdp-doctor against the devices that attack the library.
class HostileDoctorTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:

    void survivesAttacks()
    {
        const bool all = qEnvironmentVariableIsSet("VELMORA_ALL_ATTACKS");
        QList<int> numbers;
        for (int i = 0; i < static_cast<int>(attacks().size()); ++i) {
            const int traits = attacks()[static_cast<size_t>(i)].traits;
            if (all || (traits & Attack::Quick))
                numbers << i;
        }
        QMap<int, std::shared_ptr<QProcess>> running;
        while (!numbers.isEmpty() || !running.isEmpty()) {
            while (!numbers.isEmpty() && running.size() < AT_ONCE) {
                const auto process = std::make_shared<QProcess>();
                const int number = numbers.takeFirst();
                process->setProcessChannelMode(QProcess::MergedChannels);
                process->start(QCoreApplication::applicationFilePath(), {"--attack"_s, QString::number(number)});
                running.insert(number, process);
            }
            const int number = running.firstKey();
            const std::shared_ptr<QProcess> process = running.take(number);
            const char* const name = attacks()[static_cast<size_t>(number)].name.c_str();
            QVERIFY2(process->waitForFinished(2 * PATIENCE), name);
            if (process->exitCode() == SKIPPED && qEnvironmentVariableIntValue("VELMORA_REQUIRE_NETWORK") == 0)
                QSKIP(process->readAll().constData());
            QVERIFY2(process->exitStatus() == QProcess::NormalExit && process->exitCode() == SURVIVED,
                     (QByteArray(name) + ": " + process->readAll()).constData());
        }
    }
};

int main(int argc, char** argv)
{
    if (argc == 3 && qstrcmp(argv[1], "--attack") == 0)
        return meet(QByteArray(argv[2]).toInt(), argc, argv);
    const QCoreApplication application(argc, argv);
    HostileDoctorTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_hostiledoctor.moc"

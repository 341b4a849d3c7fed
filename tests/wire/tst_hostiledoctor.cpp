#include <tests/support/Literals.h>
#include <tests/wire/Attacks.h>
#include <tests/wire/DeviceProcess.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QProcess>
#include <QtTest/QtTest>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <thread>
#include <unistd.h>

using namespace Velmora::Tests;

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

/// Lets the doctor meet the attacker. Says on standard output what was wrong.
int examine()
{
    QProcess doctor;
    doctor.start(SSDP_DOCTOR, {"--timeout", "2000"});
    if (!doctor.waitForFinished(PATIENCE)) {
        std::puts("it does not end");
        doctor.kill();
        doctor.waitForFinished();
        return FAILED;
    }
    const QByteArray out = doctor.readAllStandardOutput();
    const QByteArray err = doctor.readAllStandardError();
    const bool hasEnded = doctor.exitStatus() == QProcess::NormalExit;
    const int status = doctor.exitCode();
    if (hasEnded && status <= 3 && status != 2 && isPrintable(out) && isPrintable(err) && !out.isEmpty())
        return SURVIVED;
    std::printf("status %d, signalled %d: %s%s\n", status, !hasEnded, out.left(2000).constData(),
                err.left(2000).constData());
    return FAILED;
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
        for (size_t i = 0; i < attacks().size(); ++i) {
            if (all || (attacks()[i].traits & Attack::Quick))
                numbers << static_cast<int>(i);
        }
        QMap<int, std::shared_ptr<QProcess>> running;
        while (!numbers.isEmpty() || !running.isEmpty()) {
            while (!numbers.isEmpty() && running.size() < AT_ONCE) {
                const auto process = std::make_shared<QProcess>();
                const int number = numbers.takeFirst();
                process->setProcessChannelMode(QProcess::MergedChannels);
                process->start(QCoreApplication::applicationFilePath(), {"--attack", QString::number(number)});
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
    if (argc != 3 || qstrcmp(argv[1], "--attack") != 0) {
        const QCoreApplication application(argc, argv);
        HostileDoctorTest test;
        return QTest::qExec(&test, argc, argv);
    }
    return runAgainst(runAttacker, 2, [&](DeviceProcess& devices) {
        const QCoreApplication application(argc, argv);
        devices.start(QByteArray(argv[2]).toInt());
        devices.readReport();
        return examine();
    });
}

#include "tst_hostiledoctor.moc"

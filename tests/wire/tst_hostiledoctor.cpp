#include <tests/support/Literals.h>
#include <tests/support/Table.h>
#include <tests/wire/Attacks.h>
#include <tests/wire/DeviceProcess.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QProcess>
#include <QtCore/QRegularExpression>

#include <cstdio>
#include <stdexcept>
#include <thread>
#include <unistd.h>

using namespace Velmora::Tests;

namespace {

// How many attacks run side by side. Each has a network of its own, and waits for most of its time.
const int AT_ONCE = 16;

const int PATIENCE = 120 * 1000;

// How the program ends when it runs one attack.
const int SURVIVED = 0;
const int FAILED = 1;
const int SKIPPED = 77;

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

/// Runs the doctor against the attacker. Prints what was wrong.
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
    static const QRegularExpression unprintable("[^\n -~]");
    if (hasEnded && status <= 3 && status != 2 && !out.isEmpty()
        && !QString::fromLatin1(out + err).contains(unprintable))
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

private:
    QList<int> waiting;
    QMap<int, std::shared_ptr<QProcess>> running;

private Q_SLOTS:

    void survives_data()
    {
        QTest::addColumn<int>("number");
        const bool all = qEnvironmentVariableIsSet("VELMORA_ALL_ATTACKS");
        int number = 0;
        for (const Attack& attack : attacks()) {
            if (all || (attack.traits & Attack::Quick)) {
                addRow(attack.name, number);
                waiting << number;
            }
            ++number;
        }
    }

    void survives()
    {
        QFETCH(int, number);
        // The rows before this one were not run if it was chosen on the command line.
        while (waiting.contains(number) && waiting.constFirst() != number && running.isEmpty())
            waiting.removeFirst();
        while (!waiting.isEmpty() && running.size() < AT_ONCE) {
            const int next = waiting.takeFirst();
            const auto process = std::make_shared<QProcess>();
            process->setProcessChannelMode(QProcess::MergedChannels);
            process->start(QCoreApplication::applicationFilePath(), {"--attack", QString::number(next)});
            running.insert(next, process);
        }
        const std::shared_ptr<QProcess> process = running.take(number);
        QVERIFY(process->waitForFinished(2 * PATIENCE));
        const QByteArray printed = process->readAll();
        if (process->exitCode() == SKIPPED && qEnvironmentVariableIntValue("VELMORA_REQUIRE_NETWORK") == 0)
            QSKIP(printed.constData());
        QVERIFY2(process->exitStatus() == QProcess::NormalExit, printed.constData());
        QVERIFY2(process->exitCode() == SURVIVED, printed.constData());
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

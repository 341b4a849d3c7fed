#include <tests/support/Literals.h>
#include <tests/support/Table.h>
#include <tests/wire/Attacks.h>
#include <tests/wire/DeviceProcess.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QProcess>
#include <QtCore/QRegularExpression>

#include <stdexcept>
#include <thread>
#include <unistd.h>

using namespace Velmora::Tests;

namespace {

// How many attacks run side by side. Each has a network of its own, and waits for most of its time.
const int AT_ONCE = 16;

// In seconds.
const int LONGEST_RUN = 120;

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
        const Table<int> row("number");
        const bool all = qEnvironmentVariableIsSet("VELMORA_ALL_ATTACKS");
        int number = 0;
        for (const Attack& attack : attacks()) {
            if (all || (attack.traits & Attack::Quick)) {
                row(attack.name, number);
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
            process->start(QCoreApplication::applicationFilePath(), {"--attack", QString::number(next)});
            running.insert(next, process);
        }
        const std::shared_ptr<QProcess> process = running.take(number);
        QVERIFY(process->waitForFinished(2 * LONGEST_RUN * 1000));
        const QByteArray out = process->readAllStandardOutput();
        const QByteArray err = process->readAllStandardError();
        const int status = process->exitCode();
        if (status == 77 && qEnvironmentVariableIntValue("VELMORA_REQUIRE_NETWORK") == 0)
            QSKIP(err.constData());
        const QString seen = "status %1\n"_s.arg(status) + out.left(2000) + err.left(2000);
        QVERIFY2(process->exitStatus() == QProcess::NormalExit, qPrintable(seen));
        QVERIFY2(status == 0 || status == 1 || status == 3, qPrintable(seen));
        QVERIFY2(!out.isEmpty(), qPrintable(seen));
        static const QRegularExpression unprintable("[^\n -~]");
        QVERIFY2(!QString::fromLatin1(out + err).contains(unprintable), qPrintable(seen));
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
        const QString limit = QString::number(LONGEST_RUN);
        return QProcess::execute("timeout", {"-s", "KILL", limit, SSDP_DOCTOR, "--timeout", "2000"});
    });
}

#include "tst_hostiledoctor.moc"

#include "ToolRun.h"

#include <QtTest/QtTest>

using namespace Velmora::Tests;

/// ssdp-lab as a user runs it.
class LabTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void endsWithTheStatusOfTheCommand_data();
    void endsWithTheStatusOfTheCommand();
    void commandSeesThePrivateNetworkOnly();
    void endsTheSimulatorWhenItIsEnded();
    void tellsOfWrongOptions();
    void saysWhenItCannotWrite();
};

void LabTest::endsWithTheStatusOfTheCommand_data()
{
    QTest::addColumn<QStringList>("command");
    QTest::addColumn<int>("status");
    QTest::newRow("success") << words("true") << 0;
    QTest::newRow("status") << QStringList{QStringLiteral("sh"), QStringLiteral("-c"), QStringLiteral("exit 7")}
                            << 7;
    QTest::newRow("signal") << QStringList{QStringLiteral("sh"), QStringLiteral("-c"),
                                           QStringLiteral("kill -9 $$")}
                            << 128 + SIGKILL;
    QTest::newRow("no such command") << words("no-such-command") << 127;
}

void LabTest::endsWithTheStatusOfTheCommand()
{
    QFETCH(QStringList, command);
    QFETCH(int, status);
    QCOMPARE(run(SSDP_LAB, words("--devices 2 --") + command).status, status);
}

void LabTest::commandSeesThePrivateNetworkOnly()
{
    const Run result = lab("--second-interface --rate 10mbit -- ip -oneline -4 address");
    QCOMPARE(result.status, 0);
    QCOMPARE(result.lines().size(), 3);
    QVERIFY(result.out.contains(QStringLiteral("127.0.0.1/8")));
    QVERIFY(result.out.contains(QStringLiteral("10.77.0.1/16")));
    QVERIFY(result.out.contains(QStringLiteral("10.78.0.1/16")));
}

void LabTest::endsTheSimulatorWhenItIsEnded()
{
    Program program(QStringLiteral(SSDP_LAB),
                    words("--devices 2 --verbose -- sh -c") << QStringLiteral("echo started; exec sleep 60"));
    QVERIFY(program.waitFor("started"));
    program.signal(SIGTERM);
    const Run result = program.finish();
    QCOMPARE(result.status, 128 + SIGTERM);
    // Its last line, which it prints when it has said byebye.
    QVERIFY2(result.err.contains(QStringLiteral("answered 0 searches")), qPrintable(result.err));
}

void LabTest::tellsOfWrongOptions()
{
    QCOMPARE(lab("--devices 2").status, 2);
    QCOMPARE(lab("--devices two -- true").status, 2);
    QCOMPARE(lab("--fault no-such-fault -- true").status, 2);
    QCOMPARE(lab("--first-address 10.77.0.1 -- true").status, 2);
    QCOMPARE(lab("--first-address 300.1.1.1 -- true").status, 2);
    QCOMPARE(lab("--help").status, 0);
    QCOMPARE(lab("--version").status, 0);
}

void LabTest::saysWhenItCannotWrite()
{
    for (const char* const option : {"--help", "--version"}) {
        const Run result = shell(QStringLiteral("$lab %1 >/dev/full").arg(QLatin1String(option)));
        QCOMPARE(result.status, 125);
        QCOMPARE(result.err, QStringLiteral("ssdp-lab: cannot write: No space left on device\n"));
    }
}

int main(int argc, char** argv)
{
    const int status = prepareTools();
    if (status != 0)
        return status;
    const QCoreApplication application(argc, argv);
    LabTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_lab.moc"

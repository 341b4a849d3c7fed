#include <tests/support/Literals.h>
#include <tests/wire/ToolRun.h>

#include <QtCore/QFile>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

#include <cerrno>

using namespace Velmora::Tests;

/// ssdp-lab as a user runs it.
class LabTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:

    void initTestCase()
    {
        ignoring = startLab("--devices 0 -- bash -c",
                            "read -r left < <(trap '' TERM; echo $BASHPID; exec sleep 1000); echo $left; exit 3");
    }

    void endsWithTheStatusOfTheCommand_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<QString>("argument");
        QTest::addColumn<int>("status");
        QTest::newRow("success") << "true"
                                 << "" << 0;
        QTest::newRow("status") << "sh -c"
                                << "exit 7" << 7;
        QTest::newRow("signal") << "sh -c"
                                << "kill -9 $$" << 128 + SIGKILL;
        QTest::newRow("no such command") << "no-such-command"
                                         << "" << 127;
        QTest::newRow("a folder") << "/usr"
                                  << "" << 126;
        QTest::newRow("no program") << "/etc/passwd"
                                    << "" << 126;
        QTest::newRow("below a file") << "/etc/passwd/program"
                                      << "" << 126;
    }

    void endsWithTheStatusOfTheCommand()
    {
        QFETCH(QString, command);
        QFETCH(QString, argument);
        QFETCH(int, status);
        QCOMPARE(lab("--devices 2 -- " + command, argument).status, status);
    }

    void commandSeesThePrivateNetworkOnly()
    {
        const Run result = lab("--second-interface --rate 10mbit -- ip -oneline -4 address");
        QCOMPARE(result.status, 0);
        QCOMPARE(result.lines().size(), 3);
        QVERIFY(result.out.contains("127.0.0.1/8"));
        QVERIFY(result.out.contains("10.77.0.1/16"));
        QVERIFY(result.out.contains("10.78.0.1/16"));
    }

    void endsTheSimulatorWhenItIsEnded()
    {
        const Running program = startLab("--devices 2 --verbose -- sh -c", "echo started; exec sleep 60");
        QVERIFY(program->waitFor("started"));
        program->signal(SIGTERM);
        const Run result = program->finish();
        QCOMPARE(result.status, 128 + SIGTERM);
        // Its last line, which it prints when it has said byebye.
        QVERIFY2(result.err.contains("answered 0 searches"), qPrintable(result.err));
    }

    void endsWhatTheCommandLeaves_data()
    {
        QTest::addColumn<int>("signal");
        QTest::newRow("ended") << 0;
        QTest::newRow("terminated") << SIGTERM;
        QTest::newRow("killed") << SIGKILL;
    }

    void endsWhatTheCommandLeaves()
    {
        QFETCH(int, signal);
        const QString end = signal == 0 ? "exit 1" : "wait";
        const Running program = startLab("-- sh -c", "setsid sleep 1000 & echo $! left; " + end);
        QVERIFY(program->waitFor("left\n"));
        if (signal != 0)
            program->signal(signal);
        const Run result = program->finish();
        QCOMPARE(result.status, signal == 0 ? 1 : 128 + signal);
        const pid_t left = result.out.section(" ", 0, 0).toInt();
        QVERIFY(left > 0);
        const auto hasEnded = [left] { return kill(left, 0) == -1 && errno == ESRCH; };
        if (signal == SIGKILL)
            QTRY_VERIFY(hasEnded());
        else
            QVERIFY(hasEnded());
    }

    void mayBeStartedWithChildrenIgnored()
    {
        QCOMPARE(shell("exec env --ignore-signal=CHLD $lab -- sh -c 'exit 7'").status, 7);
        const Run result = shell("exec env --ignore-signal=CHLD $lab --rate fast -- true");
        QCOMPARE(result.status, 125);
        QVERIFY2(result.err.contains("ssdp-lab: 'tc qdisc add"), qPrintable(result.err));
    }

    void leavesThePathOfTheCommand()
    {
        const QTemporaryDir folder;
        QFile own(folder.filePath("ssdp-discover"));
        QVERIFY(own.open(QIODevice::WriteOnly));
        QVERIFY(own.write("#!/bin/sh\necho own\n") > 0);
        QVERIFY(own.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
        own.close();
        const QString command = "PATH=%1:/usr/bin:/bin; $lab -- ssdp-discover --version"_s;
        QCOMPARE(shell(command.arg(folder.path())).out, "own\n");
        // Only what is nowhere else is looked for beside ssdp-lab.
        QVERIFY(own.remove());
        const Run result = shell(command.arg(folder.path()));
        QVERIFY2(result.out.startsWith("ssdp-discover "), qPrintable(result.err));
    }

    void worksWithLittle_data()
    {
        QTest::addColumn<QString>("script");
        QTest::newRow("no path") << "PATH=/no/such/folder; $lab --rate 10mbit -- /bin/echo started";
        QTest::newRow("root without capabilities")
            << "$lab --devices 0 -- setpriv --bounding-set=-sys_admin,-net_admin $lab --devices 2 -- echo started";
        QTest::newRow("no place for files")
            << "$lab --devices 0 -- unshare --mount sh -c '"
               "mount --bind /tmp /tmp && mount -o remount,bind,ro /tmp || exit 9\n"
               "touch /tmp/file 2>/dev/null && exit 8\n"
               "exec \"$0\" --devices 2 -- echo started' $lab";
    }

    void worksWithLittle()
    {
        QFETCH(QString, script);
        const Run result = shell(script);
        QCOMPARE(result.err, QString());
        QCOMPARE(result.out, "started\n");
    }

    void saysWhichCapabilitiesItNeeds()
    {
        // Without any, the kernel does not give root a user namespace either.
        const Run result = shell("$lab --devices 0 -- setpriv --bounding-set=-all $lab -- echo in");
        QCOMPARE(result.status, 125);
        const QString begin =
            "ssdp-lab: a private network needs the capabilities CAP_SYS_ADMIN and CAP_NET_ADMIN, "
            "which are missing here, or"_s;
        QVERIFY2(result.err.startsWith(begin), qPrintable(result.err));
        QVERIFY2(result.err.contains("Operation not permitted"), qPrintable(result.err));
    }

    void printsToATerminalThatStopsBackgroundOutput()
    {
        const Run result = startOnTerminal("stty tostop; exec $lab --verbose -- echo started")->finish();
        QCOMPARE(result.status, 0);
        QVERIFY2(result.out.contains("ssdp-simulator: 1 device at 10.77.1.1\r\n"), qPrintable(result.out));
    }

    void tellsOfWrongOptions_data()
    {
        QTest::addColumn<QString>("options");
        QTest::addColumn<QString>("message");
        const auto row = [](const char* options, const char* message) {
            QTest::newRow(options) << QString(options) << QString(message);
        };
        row("--devices 2", "give the command after '--'");
        row("--devices two -- true", "--devices takes a number from 0 to 10000, not 'two'");
        row("--fault no-such-fault -- true", "there is no fault 'no-such-fault'");
        row("--devices 0 --nonsense -- true", "Unknown option 'nonsense'.");
        row("--devices 0 --port 0 -- true", "--port takes a number from 1 to 65535, not '0'");
        row("--ready-fd 1 -- true", "--ready-fd is taken");
        row("--ready-fd=1 -- true", "--ready-fd is taken");
        row("--first-address 300.1.1.1 -- true", "'300.1.1.1' is not an IPv4 address");
        const char* const range = "have to be within 10.77.0.2 to 10.77.255.254";
        row("--first-address 10.77.0.0 -- true", range);
        row("--first-address 10.77.0.1 -- true", range);
        row("--first-address 10.77.255.255 -- true", range);
        row("--first-address 10.77.255.250 --devices 6 -- true", range);
        row("--first-address 10.76.255.255 --second-interface -- true", "within 10.76.0.2 to 10.76.255.254");
        const char* const unusable = "only one from 1.0.0.2 to 223.255.255.254 that does not begin with 127";
        row("--first-address 0.0.0.1 -- true", unusable);
        row("--first-address 127.0.1.1 -- true", unusable);
        row("--first-address 126.1.1.1 --second-interface --devices 0 -- true", "");
        row("--first-address 126.255.1.1 --second-interface -- true", unusable);
        row("--first-address 224.0.1.1 -- true", unusable);
        row("--first-address 255.255.255.255 -- true", unusable);
    }

    void tellsOfWrongOptions()
    {
        QFETCH(QString, options);
        QFETCH(QString, message);
        const Run result = lab(options);
        QVERIFY2(result.err.contains(message), qPrintable(result.err));
        QCOMPARE(result.status, message.isEmpty() ? 0 : 2);
    }

    void tellsOfItself()
    {
        QCOMPARE(lab("--help").status, 0);
        QVERIFY(lab("--version").out.startsWith("ssdp-lab "));
    }

    void saysWhenTheCommandIsMissingEvenIfNobodyHears()
    {
        QCOMPARE(shell("$lab --devices 0 -- no-such-command 2>/dev/full").status, 127);
    }

    void saysWhenItCannotWrite()
    {
        for (const char* const option : {"--help", "--version"}) {
            const Run result = shell("$lab %1 >/dev/full"_s.arg(option));
            QCOMPARE(result.status, 125);
            QCOMPARE(result.err, "ssdp-lab: cannot write: No space left on device\n");
        }
    }

    void endsWhatIgnoresItsEnd()
    {
        const Run result = ignoring->finish();
        QCOMPARE(result.status, 3);
        const pid_t left = result.out.toInt();
        QVERIFY(left > 0);
        QCOMPARE(kill(left, 0), -1);
    }

private:
    Running ignoring; ///< Runs for seconds.
};

VELMORA_TOOL_TEST_MAIN(LabTest)

#include "tst_lab.moc"

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

private:
    Running ignoring; ///< Takes some seconds.

private Q_SLOTS:

    void initTestCase()
    {
        ignoring = startLab("--devices 0 -- bash -c",
                            "read -r left < <(trap '' TERM; echo $BASHPID; exec sleep 1000); echo $left; exit 3");
    }

    void endsWithTheStatusOfTheCommand_data()
    {
        const Table<QString, QString, int> row("command", "argument", "status");
        row("success", "true", "", 0);
        row("status", "sh -c", "exit 7", 7);
        row("signal", "sh -c", "kill -9 $$", 128 + SIGKILL);
        row("no such command", "no-such-command", "", 127);
        row("a folder", "/usr", "", 126);
        row("no program", "/etc/passwd", "", 126);
        row("below a file", "/etc/passwd/program", "", 126);
    }

    void endsWithTheStatusOfTheCommand()
    {
        QFETCH(QString, command);
        QFETCH(QString, argument);
        QFETCH(int, status);
        VERIFY_RUN(lab("--devices 2 -- " + command, argument), {status, "", "**"});
    }

    void commandSeesThePrivateNetworkOnly()
    {
        VERIFY_RUN(lab("--second-interface --rate 10mbit -- ip -oneline -4 address"),
                   {0, "* 127.0.0.1/8 *\n* 10.77.0.1/16 *\n* 10.78.0.1/16 *\n"});
    }

    void endsTheSimulatorWhenItIsEnded()
    {
        const Running program = startLab("--devices 2 --verbose -- sh -c", "echo started; exec sleep 60");
        QVERIFY(program->waitFor("started"));
        program->signal(SIGTERM);
        // The simulator prints this line after its byebye.
        VERIFY_RUN(program->finish(), {128 + SIGTERM, "**", "**answered 0 searches**"});
    }

    void endsWhatTheCommandLeaves_data()
    {
        const Table<int, int> row("signal", "status");
        row("ended", 0, 1);
        row("terminated", SIGTERM, 128 + SIGTERM);
        row("killed", SIGKILL, 128 + SIGKILL);
    }

    void endsWhatTheCommandLeaves()
    {
        QFETCH(int, signal);
        QFETCH(int, status);
        const QString end = signal == 0 ? "exit 1" : "wait";
        const Running program = startLab("-- sh -c", "setsid sleep 1000 & echo $! left; " + end);
        QVERIFY(program->waitFor("left\n"));
        if (signal != 0)
            program->signal(signal);
        const Run run = program->finish();
        QCOMPARE(run.status, status);
        const pid_t left = run.out.section(" ", 0, 0).toInt();
        QVERIFY(left > 0);
        const auto hasEnded = [left] { return kill(left, 0) == -1 && errno == ESRCH; };
        if (signal == SIGKILL)
            QTRY_VERIFY(hasEnded());
        else
            QVERIFY(hasEnded());
    }

    void mayBeStartedWithChildrenIgnored()
    {
        const QString ignoring = "exec env --ignore-signal=CHLD $lab "_s;
        VERIFY_RUN(shell(ignoring + "-- sh -c 'exit 7'"), {7, ""});
        VERIFY_RUN(shell(ignoring + "--rate fast -- true"), {125, "", "**ssdp-lab: 'tc qdisc add**"});
    }

    void leavesThePathOfTheCommand()
    {
        const QTemporaryDir folder;
        QFile own(folder.filePath("ssdp-discover"));
        QVERIFY(own.open(QIODevice::WriteOnly));
        QVERIFY(own.write("#!/bin/sh\necho own\n") > 0);
        QVERIFY(own.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
        own.close();
        const QString command = "PATH=%1:/usr/bin:/bin; $lab -- ssdp-discover --version"_s.arg(folder.path());
        VERIFY_RUN(shell(command), {0, "own\n"});
        // The lab runs the program beside it only if there is none in PATH.
        QVERIFY(own.remove());
        VERIFY_RUN(shell(command), {0, "ssdp-discover *\n"});
    }

    void worksWithLittle_data()
    {
        const Table<QString> row("script");
        row("no path", "PATH=/no/such/folder; $lab --rate 10mbit -- /bin/echo started");
        row("root without capabilities",
            "$lab --devices 0 -- setpriv --bounding-set=-sys_admin,-net_admin $lab --devices 2 -- echo started");
        row("no place for files", R"($lab --devices 0 -- unshare --mount sh -c '
            mount --bind /tmp /tmp && mount -o remount,bind,ro /tmp || exit 9
            touch /tmp/file 2>/dev/null && exit 8
            exec "$0" --devices 2 -- echo started' $lab)");
    }

    void worksWithLittle()
    {
        QFETCH(QString, script);
        VERIFY_RUN(shell(script), {0, "started\n"});
    }

    void saysWhichCapabilitiesItNeeds()
    {
        // Without any capability, the kernel does not give root a user namespace either.
        VERIFY_RUN(shell("$lab --devices 0 -- setpriv --bounding-set=-all $lab -- echo in"),
                   {125, "",
                    "ssdp-lab: a private network needs the capabilities CAP_SYS_ADMIN and CAP_NET_ADMIN, which are"
                    " missing here, or**Operation not permitted**"});
    }

    void printsToATerminalThatStopsBackgroundOutput()
    {
        VERIFY_RUN(startOnTerminal("stty tostop; exec $lab --verbose -- echo started")->finish(),
                   {0, "**ssdp-simulator: 1 device at 10.77.1.1\r\n**"});
    }

    void tellsOfWrongOptions_data()
    {
        const Table<QString> row("message");
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
        QFETCH(QString, message);
        VERIFY_RUN(lab(QTest::currentDataTag()), {message.isEmpty() ? 0 : 2, "", "**" + message + "**"});
    }

    void tellsOfItself()
    {
        VERIFY_RUN(lab("--help"), {0, "**"});
        VERIFY_RUN(lab("--version"), {0, "ssdp-lab *\n"});
    }

    void saysWhenTheCommandIsMissingEvenIfNobodyHears()
    {
        VERIFY_RUN(shell("$lab --devices 0 -- no-such-command 2>/dev/full"), {127, ""});
    }

    void saysWhenItCannotWrite()
    {
        const QString full = ": cannot write: No space left on device\n"_s;
        VERIFY_RUN(shell("$lab --help >/dev/full"), {125, "", "ssdp-lab" + full});
        VERIFY_RUN(shell("$lab --version >/dev/full"), {125, "", "ssdp-lab" + full});
        // The command inherits neither a closed descriptor nor a socket in its place.
        VERIFY_RUN(shell("$lab --devices 0 -- ssdp-discover --version >&-"),
                   {4, "", "ssdp-discover: cannot write: Bad file descriptor\n"});
    }

    void endsWhatIgnoresItsEnd()
    {
        const Run run = ignoring->finish();
        QCOMPARE(run.status, 3);
        const pid_t left = run.out.toInt();
        QVERIFY(left > 0);
        QCOMPARE(kill(left, 0), -1);
    }
};

VELMORA_TOOL_TEST_MAIN(LabTest)

#include "tst_lab.moc"

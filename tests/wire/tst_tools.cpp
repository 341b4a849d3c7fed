#include <tests/support/Literals.h>
#include <tests/wire/ToolRun.h>

#include <simulator/SimulatedDevice.h>

#include <QtCore/QFile>
#include <QtCore/QRegularExpression>
#include <QtTest/QtTest>

#include <cerrno>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace Velmora::Tests;
using Velmora::Simulator::Fault;
using Velmora::Simulator::SimulatedDevice;

namespace {

const char FROM_LOOPBACK[] = "Searching from 127.0.0.1 (lo)\n";

/// Returns the devices in the table of ssdp-discover, without the time.
QStringList devicesOf(const QString& out)
{
    static const QRegularExpression form("^[ +-]? *(\\d+) +(\\d+) +([0-9.]+)( |$)");
    QStringList devices;
    const QStringList lines = linesOf(out);
    for (const QString& line : lines) {
        const QRegularExpressionMatch match = form.match(line);
        if (match.hasMatch())
            devices << match.capturedTexts().mid(1, 3).join(" ");
    }
    devices.sort();
    return devices;
}

/// Returns the first devices of a lab.
QStringList devices(int count)
{
    QStringList result;
    for (int i = 1; i <= count; ++i)
        result << "1 %1 10.77.1.%1"_s.arg(i);
    result.sort();
    return result;
}

/// As --list-faults and the manual page word it.
QString explanationOf(const Fault& fault)
{
    return fault.value ? "%1 (%2)"_s.arg(fault.explanation, fault.standard) : QString(fault.explanation);
}

} // namespace

/// The tools as a user runs them.
class ToolsTest : public QObject
{
    Q_OBJECT

private:
    /// ssdp-discover, and a shell that runs @p reaction for every line of its output.
    static Running startReacting(const QString& setup, const QString& options, const QString& reaction)
    {
        return startLab("--response-delay 0-0 -- bash -c", R"(
            start() { ssdp-simulator --first-address 10.77.0.1 --quiet & device=$!; }
            %1; coproc ssdp-discover --repeat 1 %2
            while IFS= read -r line; do echo "$line"; %3; done <&${COPROC[0]}
            wait $COPROC_PID)"_s.arg(setup, options, reaction));
    }

    static void addCommands(const Table<QString>& row, const QByteArray& start, const QList<QByteArray>& ends)
    {
        for (const QByteArray& end : ends)
            row(start + end, QString(start + end));
    }

    const Shell withDevice{"--response-delay 0-0"};
    const Shell withoutDevice{"--devices 0"};
    Programs running;

private Q_SLOTS:

    /// Starts what takes long.
    void initTestCase()
    {
        // One of them answers so late that it is not read when three seconds are over.
        running["late"] = startLab("--devices 10 --seed 41 -- ssdp-discover");
        running["hundred"] = startLab("--devices 100 --event-gap 300 -- ssdp-discover --count 100 --timeout 6000");
        running["comings"] = startReacting("true", "", R"(case $line in
            Searching*) start ;;
            +*10.77.0.1*) kill $device; ((++times < 2)) || kill $COPROC_PID ;;
            -*) start ;;
        esac)");
        running["later interface"] = startReacting("ip link set host0 down", "--timeout 500", R"(
            [[ $line != *'127.0.0.1 (lo)' ]] || ip link set host0 up
            [[ $line != +*' 10.77.1.1 '* ]] || kill $COPROC_PID)");
        running["lost interface"] =
            startReacting("true", "--verbose", "[[ $line != +* ]] || ip link set host0 down");
        running["short"] = startLab("--response-delay 0-0 --fault die-after=event -- "
                                    "ssdp-discover --timeout 500 --repeat 1 --verbose");
        const QString variables = "--variables KO,A,B --response-delay 0-100 -- ssdp-discover --timeout 2000 "_s;
        running["once"] = startLab("--devices 3 " + variables);
        running["all"] = startLab(variables + "--all");
    }

    void endsWhenNobodyReads_data()
    {
        const Table<QString> row("command");
        addCommands(row, "ssdp-discover --repeat 1 ",
                    listOf("--timeout 1000 --json | head -n 1", "--verbose --quiet 2>&1 | head -n 1"));
        addCommands(row, "ssdp-simulator --first-address 127.0.0.1 | head -n 1", listOf(""));
        addCommands(row, "ssdp-doctor --timeout 100 | echo ended", listOf(""));
    }

    void endsWhenNobodyReads()
    {
        QFETCH(QString, command);
        VERIFY_RUN(withDevice.run(command + "; exit ${PIPESTATUS[0]}"), {141, "*\n"});
    }

    void saysWhenItCannotWrite_data()
    {
        const Table<QString> row("command");
        addCommands(row, "ssdp-discover ", listOf("", "--json", "--help", "--version"));
        addCommands(row, "ssdp-simulator ",
                    listOf("--first-address 127.0.0.1", "--help", "--list-faults",
                           "--trace --quiet --first-address 127.0.0.1"));
        addCommands(row, "ssdp-doctor ", listOf("--help"));
    }

    void saysWhenItCannotWrite()
    {
        QFETCH(QString, command);
        const QString error = words(command).at(0) + ": cannot write: "_s;
        VERIFY_RUN(withDevice.run(command + " >/dev/full"), {4, "", error + "No space left on device\n"});
        // The program starts with its standard output closed. None of its sockets may get descriptor 1.
        VERIFY_RUN(withDevice.run(command + " >&-"), {4, "", error + "Bad file descriptor\n"});
    }

    void canBeEndedWhileNobodyReads()
    {
        int ends[2];
        QCOMPARE(pipe(ends), 0);
        QCOMPARE(fcntl(ends[1], F_SETFL, O_NONBLOCK), 0);
        while (write(ends[1], "x", 1) == 1) { }
        QCOMPARE(errno, EAGAIN);
        QCOMPARE(fcntl(ends[1], F_SETFL, 0), 0);

        Program program("bash", {"-c", "exec ssdp-simulator --list-faults >&%1"_s.arg(ends[1])});
        const auto waitsForTheReader = [&program] {
            QFile file("/proc/%1/syscall"_s.arg(program.id()));
            if (!file.open(QIODevice::ReadOnly))
                return false;
            const int call = file.readAll().split(' ').constFirst().toInt();
            return call == SYS_write || call == SYS_ppoll;
        };
        QTRY_VERIFY(waitsForTheReader());
        program.signal(SIGTERM);
        QCOMPARE(program.finish().status, 128 + SIGTERM);
        close(ends[0]);
        close(ends[1]);
    }

    void saysWhichOptionIsWrong_data()
    {
        const Table<QString> row("command");
        addCommands(row, "ssdp-discover ",
                    listOf("--no-such-option", "--help-all", "--timeout 0", "--timeout soon", "--count 0",
                           "--first --count 2", "--repeat 1 --first", "--address 10.77", "--address 10.77.1.1/33",
                           "--address ::1", "argument"));
        addCommands(row, "ssdp-simulator ",
                    listOf("--no-such-option", "--help-all", "--devices 0", "--first-address here",
                           "--response-delay 5", "--response-delay 9-5", "--variables KO,,B",
                           "--fault no-such-fault", "--fault 2:error-500", "--fault error-500=1",
                           "--fault slow-http=0", "--fault die-after=birth", "argument"));
        addCommands(row, "ssdp-doctor ",
                    listOf("--nonsense", "--timeout 0", "--timeout soon", "10.77", "nobody", "239.255.255.250",
                           "0.0.0.0", "255.255.255.255", "::1"));
    }

    void saysWhichOptionIsWrong()
    {
        QFETCH(QString, command);
        VERIFY_RUN(withoutDevice.run(command), {2, "", "%1: *\nTry '%1 --help'.\n"_s.arg(words(command).at(0))});
    }

    void discoverPrintsJson()
    {
        const QString device = R"({"address":"10.77.1.1","event":"found","functionCode":-3,)"
                               R"("time":"####-##-##T##:##:##.###Z","univocalCode":77})";
        VERIFY_RUN(
            lab("--function-code -3 --univocal-code 77 --response-delay 0-0 -- ssdp-discover --json --first"),
            {0, device + "\n"});
    }

    void discoverStopsEarly()
    {
        // The time-out is so long that the test would not end.
        const QString discover = "--devices 3 --response-delay 0-0 -- ssdp-discover --timeout 3600000 "_s;
        VERIFY_RUN(lab(discover + "--count 2"), {0, "*\n*\n*10.77.1.*\n*10.77.1.*\n2 devices found in *\n"});
        VERIFY_RUN(lab(discover + "--first --quiet"), {0, ""});
    }

    void discoverAdvisesWhenNothingIsFound()
    {
        const QString discover = "ssdp-discover --timeout 100"_s;
        VERIFY_RUN(withoutDevice.run(discover), {1, "*\nNo device found in *\n", "*\n*\n*try --timeout 5000*\n"});
        VERIFY_RUN(withoutDevice.run(discover + " --quiet"), {1, ""});
    }

    void discoverLogsOnlyWhenAsked()
    {
        VERIFY_RUN(withDevice.run("ssdp-discover --first"), {0, "**"});
        const Run run = withDevice.run("ssdp-discover --first --verbose --quiet");
        VERIFY_RUN(
            run,
            {0, "", "**Z Searching from 10.77.0.1 (host0)\n**Device with FC:1 and UC:1 found at 10.77.1.1**"});
        const QStringList lines = linesOf(run.err);
        for (const QString& line : lines)
            QVERIFY2(isLike(line, "####-##-##T##:##:##.###Z *"), qPrintable(line));
    }

    void discoverSaysWhenItCannotSearch_data()
    {
        const Table<QString, QString> row("script", "message");
        const char* const none = "no network interface with an IPv4 address is up and connected";
        row("port taken", R"(exec python3 -c '
import socket, subprocess, sys
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.bind(("", 1900))
sys.exit(subprocess.call(sys.argv[1:]))' $discover)",
            "a program has UDP port 1900 and does not share it; 'ss -lunp sport = :1900' shows which one");
        row("not permitted",
            "echo 2000 >/proc/sys/net/ipv4/ip_unprivileged_port_start;"
            "setpriv --bounding-set=-net_bind_service $discover",
            "this user is not permitted to listen on UDP port 1900");
        row("firewall", "ip xfrm policy add dir out src 0.0.0.0/0 dst 239.255.255.250/32 action block; $discover",
            "this host cannot send the search from 10.77.0.1; its own firewall may drop it");
        row("group", "echo 0 >/proc/sys/net/ipv4/igmp_max_memberships; $discover",
            "cannot join 239.255.255.250 on 10.77.0.1 (host0): No buffer space available");
        row("no interface", "ip link set host0 down; ip link set lo down; $discover", none);
        row("loopback only", "ip link set host0 down; $discover", none);
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0) // Qt 5 takes an interface without a link for one that is down.
        row("not connected",
            "ip link set host0 down; ip link add end0 type veth peer name end1;"
            "ip addr add 10.79.0.1/16 dev end0; ip link set end0 up; $discover",
            "no network is connected to 10.79.0.1 (end0)");
#endif
        row("no such interface", "$discover --interface eth7",
            "this host has no interface or address 'eth7', only 127.0.0.1 (lo), 10.77.0.1 (host0)");
        row("interface down", "ip link set host0 down; $discover --interface host0",
            "host0 is down or not connected");
        row("no address", "ip addr flush dev host0; $discover --interface host0", "host0 has no IPv4 address");
    }

    void discoverSaysWhenItCannotSearch()
    {
        QFETCH(QString, script);
        QFETCH(QString, message);
        const QString discover = "discover='ssdp-discover --timeout 100 --quiet'; "_s;
        VERIFY_RUN(lab("--devices 0 -- sh -c", discover + script),
                   {3, "", "ssdp-discover: cannot search: %1\n"_s.arg(message)});
    }

    void discoverAdvisesOnWhatItSaw_data()
    {
        const Table<Running, QString> row("program", "advice");
        const auto add = [&](const char* fault, const char* advice) {
            const QString devices = "--devices 2 --response-delay 0-0 --fault %1 -- "_s.arg(fault);
            row(fault, startLab(devices + "ssdp-discover --timeout 500"), advice);
        };
        add("error-500",
            "no description could be read: a device may be faulty, or a firewall may drop the HTTP "
            "connections to it");
        add("never-answer-subscribe",
            "none reported: a firewall may drop the TCP connections that devices open to this program");
        add("event-bad-xml", "an event is not well-formed XML");
    }

    void discoverAdvisesOnWhatItSaw()
    {
        QFETCH(Running, program);
        QFETCH(QString, advice);
        VERIFY_RUN(
            program->finish(),
            {1, "**",
             "2 devices answered, but "_s + advice
                 + ".\nThe time may be too short: try --timeout 5000. 'ssdp-doctor' says what is wrong.\n"});
    }

    void discoverPrintsDevices_data()
    {
        const Table<Running, QStringList, QString> row("program", "found", "out");
        const auto filter = [&](const char* options, const QStringList& found, const char* others) {
            const QString discover = "--devices 3 --response-delay 0-0 -- ssdp-discover --timeout 1500 "_s;
            row(options, startLab(discover + options), found, "**, %1 left out\n"_s.arg(others));
        };
        filter("--univocal-code 2", devices(3).mid(1, 1), "2 others");
        filter("--address 10.77.1.3", devices(3).mid(2), "2 others");
        filter("--address 10.77.1.2/31", devices(3).mid(1), "1 other");
        filter("--function-code 1 --univocal-code 1", devices(1), "2 others");
        filter("--function-code 2", {}, "3 others");
        const QString second = "--second-interface --response-delay 0-0 -- ssdp-discover "_s;
        for (const char* const interface : {"host1", "10.78.0.1"}) {
            row(interface, startLab(second + "--timeout 500 --interface " + interface),
                QStringList{"1 2 10.78.1.1"}, "Searching from 10.78.0.1 (host1)\n**");
        }
        row("both interfaces", startLab("--devices 2 " + second + "--count 4 --timeout 20000"),
            devices(2) << "1 3 10.78.1.1"
                       << "1 4 10.78.1.2",
            "**");
        row("once", running["once"], devices(3), R"(Searching from 10.77.0.1 (host0)
   FUNCTION     UNIVOCAL  ADDRESS             AFTER
          1            #  10.77.1.#           #.# s
          1            #  10.77.1.#           #.# s
          1            #  10.77.1.#           #.# s
3 devices found in *
)");
        row("all", running["all"], devices(1) + devices(1) + devices(1), "**1 device found in *\n");
        row("hundred", running["hundred"], devices(100), "**");
        row("late", running["late"], devices(10), "**10 devices found in 5.*\n");
    }

    void discoverPrintsDevices()
    {
        QFETCH(Running, program);
        QFETCH(QStringList, found);
        QFETCH(QString, out);
        const Run run = program->finish();
        VERIFY_RUN(run, {found.isEmpty() ? 1 : 0, out});
        QCOMPARE(devicesOf(run.out), found);
    }

    void discoverFollowsTheNetwork_data()
    {
        const Table<Run> row("expected");
        // The device of the host goes and comes back. That of the lab stays.
        row("comings", Run{0, "Searching *\n*\n+*\n+*\n-* 10.77.0.1 *\n+*\n2 devices found in *\n"});
        const QString later = FROM_LOOPBACK + "Searching from 10.77.0.1 (host0)\n*\n+* 10.77.1.1 *\n"_s;
        row("later interface", Run{0, later + "1 device found in *\n", "**"});
    }

    void discoverFollowsTheNetwork()
    {
        QFETCH(Run, expected);
        VERIFY_RUN(running.at(QTest::currentDataTag())->finish(), expected);
    }

    void discoverKeepsWhatItCannotSee_data()
    {
        const Table<Run> row("expected");
        // The device was found before. The next discovery searches only from the loopback.
        row("lost interface", Run{128 + SIGTERM, "Searching from *\n*\n+*\n"_s + FROM_LOOPBACK, "**"});
        row("short", Run{0, "Searching from *\n*\n+*\n1 device found in *\n", "**"});
    }

    void discoverKeepsWhatItCannotSee()
    {
        QFETCH(Run, expected);
        const Running program = running.at(QTest::currentDataTag());
        // The third discovery begins.
        QVERIFY(program->waitFor("Ssdp Server bound", 3));
        program->signal(SIGTERM);
        const Run run = program->finish();
        VERIFY_RUN(run, expected);
        QVERIFY2(!run.err.contains("Could not"), qPrintable(run.err));
    }

    void endsWithTheSummaryWhenInterrupted_data()
    {
        const Table<QString, Run> row("awaited", "expected");
        row("--response-delay 0-0 -- ssdp-discover --timeout 3600000", "10.77.1.1",
            Run{0, "**1 device found in *\n"});
        // The advice names the time-out only if it has expired.
        row("--devices 0 -- ssdp-discover --verbose --timeout 4000", "Ssdp Server bound",
            Run{1, "**", "**A firewall may *\nThe devices may *\n'ssdp-doctor' says *\n"});
        // With its event, the device is found.
        row("--response-delay 0-0 -- ssdp-doctor --timeout 3600000 --trace", "<KO>1,1</KO>",
            Run{0, "**1 of 1 device found in *\n", "**"});
    }

    void endsWithTheSummaryWhenInterrupted()
    {
        QFETCH(QString, awaited);
        QFETCH(Run, expected);
        const Running program = startLab(QTest::currentDataTag());
        QVERIFY(program->waitFor(awaited.toLatin1()));
        program->signal(SIGINT);
        VERIFY_RUN(program->finish(), expected);
    }

    void simulatorListsItsFaults()
    {
        QString expected;
        for (const Fault& fault : SimulatedDevice::faults()) {
            const QString value = fault.value ? "[=%1]"_s.arg(fault.value) : QString();
            expected += (fault.name + value).leftJustified(29) + explanationOf(fault) + "\n";
        }
        const Run run = withoutDevice.run("ssdp-simulator --list-faults");
        QCOMPARE(run.out, expected);
        QCOMPARE(run.status, 0);
    }

    void manualExplainsTheFaultsAlike()
    {
        QFile file(MANUAL);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QStringList expected;
        for (const Fault& fault : SimulatedDevice::faults()) {
            const QString value = fault.value ? " Ns Op = Ns Ar " + QString(fault.value).toLower() : QString();
            const QString explanation = explanationOf(fault);
            expected << ".It Ql "_s + fault.name + value << explanation.at(0).toUpper() + explanation.mid(1) + ".";
        }
        const QString section = QString(file.readAll()).section(".Sh FAULTS\n", 1).section(".El\n", 0, 0);
        QCOMPARE(section.split("\n").mid(2, expected.size()), expected);
        QCOMPARE(section.count(".It "), expected.size() / 2);
    }

    void simulatorTracesAndSums()
    {
        const Run run =
            lab("--verbose --trace --json --response-delay 0-0 -- ssdp-discover --first --quiet --timeout 20000");
        QCOMPARE(run.status, 0);
        QStringList texts;
        const QList<QJsonObject> objects = objectsOf(run.err);
        for (const QJsonObject& object : objects) {
            QVERIFY2(!object.isEmpty(), qPrintable(run.err));
            texts << object.value("direction").toString() + " " + object.value("text").toString();
        }
        for (const char* const start : {"in M-SEARCH", "in GET", "in SUBSCRIBE", "out NOTIFY"})
            QVERIFY2(!texts.filter(QRegularExpression("^"_s + start + " ")).isEmpty(), start);
        // Port 49152 is written as the byte 0, which is part of the message.
        const QString subscription = texts.filter("in SUBSCRIBE ").constLast();
        QVERIFY2(isLike(subscription, "**HOST: 10.77.1.1:\0\n**TIMEOUT: Second-120\n\n"_s),
                 qPrintable(subscription));
        const QJsonObject saw = objects.constLast().value("saw").toObject();
        QCOMPARE(saw.value("search").toInt(), 1);
        QCOMPARE(saw.value("event").toInt(), 1);
    }
};

VELMORA_TOOL_TEST_MAIN(ToolsTest)

#include "tst_tools.moc"

#include <tests/support/Literals.h>
#include <tests/wire/ToolRun.h>

#include <simulator/SimulatedDevice.h>

#include <QtCore/QDateTime>
#include <QtCore/QFile>
#include <QtTest/QtTest>

#include <cerrno>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace Velmora::Tests;
using Velmora::Simulator::Fault;
using Velmora::Simulator::SimulatedDevice;

/// ssdp-discover and ssdp-simulator as a user runs them.
class ToolsTest : public QObject
{
    Q_OBJECT

private:
    /// ssdp-discover, while a shell does something with every line that it prints.
    static Running startReacting(const QString& setup, const QString& options, const QString& reaction)
    {
        return startLab("--response-delay 0-0 -- bash -c",
                        "start() { ssdp-simulator --first-address 10.77.0.1 --quiet & device=$!; }\n"
                        "%1; coproc ssdp-discover --repeat 1 %2\n"
                        "while IFS= read -r line; do echo \"$line\"; %3; done <&${COPROC[0]}\n"
                        "wait $COPROC_PID"_s.arg(setup, options, reaction));
    }

    Run finish(const char* name) { return running.at(name)->finish(); }

    /// Ends the program when its third discovery has begun.
    Run finishAfterTwoDiscoveries(const char* name)
    {
        const bool hasBegun = running.at(name)->waitFor("Ssdp Server bound", QProcess::StandardError, 3);
        running.at(name)->signal(SIGTERM);
        if (!hasBegun)
            QTest::qFail("there was no third discovery", __FILE__, __LINE__);
        return finish(name);
    }

    static void addCommands(std::initializer_list<const char*> commands)
    {
        QTest::addColumn<QString>("command");
        for (const char* const command : commands)
            QTest::newRow(command) << QString(command);
    }

    /// As the list of the faults and the manual word it.
    static QString explanationOf(const Fault& fault)
    {
        return fault.value ? "%1 (%2)"_s.arg(fault.explanation, fault.standard) : QString(fault.explanation);
    }

    Programs running;

private Q_SLOTS:

    void initTestCase()
    {
        running["late"] = startLab("--devices 10 --seed 41 -- ssdp-discover");
        running["hundred"] = startLab("--devices 100 --event-gap 300 -- ssdp-discover --count 100 --timeout 6000");
        const char* const comeAndGo = "case $line in"
                                      " Searching*) start ;;"
                                      " +*10.77.0.1*) kill $device; ((++times < 2)) || kill $COPROC_PID ;;"
                                      " -*) start ;;"
                                      " esac";
        const char* const connectAndEnd = "[[ $line != *'127.0.0.1 (lo)' ]] || ip link set host0 up;"
                                          "[[ $line != +*' 10.77.1.1 '* ]] || kill $COPROC_PID";
        running["comings"] = startReacting("true", "", comeAndGo);
        running["lost interface"] =
            startReacting("true", "--verbose", "[[ $line != +* ]] || ip link set host0 down");
        running["later interface"] = startReacting("ip link set host0 down", "--timeout 500", connectAndEnd);
        running["short"] = startLab("--response-delay 0-0 --fault die-after=event -- "
                                    "ssdp-discover --timeout 500 --repeat 1 --verbose");
        running["once"] = startLab("--devices 3 --variables KO,A,B --response-delay 0-100 -- "
                                   "ssdp-discover --timeout 2000");
        running["all"] = startLab("--devices 1 --variables KO,A,B --response-delay 0-100 -- "
                                  "ssdp-discover --timeout 2000 --all");
    }

    void endsWhenNobodyReads_data()
    {
        addCommands({"ssdp-discover --repeat 1 --timeout 1000 --json",
                     "ssdp-discover --repeat 1 --verbose --quiet 2>&1",
                     "ssdp-simulator --first-address 127.0.0.1"});
    }

    void endsWhenNobodyReads()
    {
        QFETCH(QString, command);
        const Run result = shell("$lab --response-delay 0-0 -- %1 | head -n 1\n"
                                 "exit ${PIPESTATUS[0]}"_s.arg(command));
        QCOMPARE(result.status, 141);
        QCOMPARE(result.lines().size(), 1);
        QCOMPARE(result.err, QString());
    }

    void saysWhenItCannotWrite_data()
    {
        addCommands({"ssdp-discover", "ssdp-discover --json", "ssdp-discover --help", "ssdp-discover --version",
                     "ssdp-simulator --first-address 127.0.0.1", "ssdp-simulator --help",
                     "ssdp-simulator --list-faults", "ssdp-simulator --trace --quiet --first-address 127.0.0.1"});
    }

    void saysWhenItCannotWrite()
    {
        QFETCH(QString, command);
        const Run full = shell("$lab --response-delay 0-0 -- %1 >/dev/full"_s.arg(command));
        QCOMPARE(full.status, 4);
        QCOMPARE(full.err, words(command).at(0) + ": cannot write: No space left on device\n");
        // No socket becomes its standard output.
        const Run closed = shell("$lab --response-delay 0-0 -- %1 >&-"_s.arg(command));
        QCOMPARE(closed.status, 4);
        QCOMPARE(closed.err, words(command).at(0) + ": cannot write: Bad file descriptor\n");
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
        QTest::addColumn<QString>("command");
        const auto add = [](const char* tool, const char* options) {
            const QStringList all = QString(options).split("|");
            for (const QString& option : all)
                QTest::newRow(qPrintable(tool + option)) << tool + option;
        };
        add("ssdp-discover ",
            "--no-such-option|--help-all|--timeout 0|--timeout soon|--count 0|--first --count 2|--repeat 1 "
            "--first|"
            "--address 10.77|--address 10.77.1.1/33|--address ::1|argument");
        add("ssdp-simulator ",
            "--no-such-option|--help-all|--devices 0|--first-address here|--response-delay 5|--response-delay 9-5|"
            "--variables KO,,B|--fault no-such-fault|--fault 2:error-500|--fault error-500=1|--fault slow-http=0|"
            "--fault die-after=birth|argument");
        add("ssdp-doctor ",
            "--nonsense|--timeout 0|--timeout soon|10.77|nobody|239.255.255.250|0.0.0.0|255.255.255.255|::1");
    }

    void saysWhichOptionIsWrong()
    {
        QFETCH(QString, command);
        const Run result = lab("--devices 0 -- " + command);
        QCOMPARE(result.status, 2);
        QCOMPARE(result.out, QString());
        QVERIFY(result.err.startsWith(words(command).at(0) + ": "));
    }

    void discoverPrintsEveryDeviceOnce()
    {
        const Run result = finish("once");
        QCOMPARE(result.status, 0);
        QCOMPARE(result.devices(), (QStringList{"1 1 10.77.1.1", "1 2 10.77.1.2", "1 3 10.77.1.3"}));
        QCOMPARE(result.lines().size(), 6);
        QCOMPARE(result.lines().at(0), "Searching from 10.77.0.1 (host0)");
        QVERIFY(result.lines().at(1).contains("FUNCTION"));
        QVERIFY(result.lines().constLast().startsWith("3 devices found in "));
        QVERIFY2(result.err.isEmpty(), qPrintable(result.err));
        for (int i = 2; i < 5; ++i)
            QCOMPARE(result.lines().at(i).size(), result.lines().at(1).size());
    }

    void discoverPrintsEveryReportWithAll()
    {
        const Run result = finish("all");
        QCOMPARE(result.devices().size(), 3);
        QVERIFY(result.lines().constLast().startsWith("1 device found in "));
    }

    void discoverPrintsJson()
    {
        const Run result = lab("--devices 1 --function-code -3 --univocal-code 77 --response-delay 0-0 -- "
                               "ssdp-discover --json --first");
        QCOMPARE(result.lines().size(), 1);
        const QJsonObject object = jsonOf(result.out);
        QCOMPARE(object.value("functionCode").toInt(), -3);
        QCOMPARE(object.value("univocalCode").toInt(), 77);
        QCOMPARE(object.value("address").toString(), "10.77.1.1");
        QVERIFY(QDateTime::fromString(object.value("time").toString(), Qt::ISODateWithMs).isValid());
    }

    void discoverStopsEarly()
    {
        // Far below the time-out, so the test would not end without it.
        const Run result = lab("--devices 3 --response-delay 0-0 -- ssdp-discover --count 2 --timeout 3600000");
        QCOMPARE(result.status, 0);
        QCOMPARE(result.devices().size(), 2);
        const QString quiet =
            "--devices 3 --response-delay 0-0 -- ssdp-discover --first --quiet --timeout 3600000";
        QCOMPARE(lab(quiet).out, QString());
    }

    void discoverFilters_data()
    {
        QTest::addColumn<Running>("program");
        QTest::addColumn<QStringList>("devices");
        const auto add = [](const char* filter, const QStringList& devices) {
            QTest::newRow(filter) << startLab("--devices 3 --response-delay 0-0 -- ssdp-discover --timeout 1500 "_s
                                              + filter)
                                  << devices;
        };
        add("--univocal-code 2", {"1 2 10.77.1.2"});
        add("--address 10.77.1.3", {"1 3 10.77.1.3"});
        add("--address 10.77.1.2/31", {"1 2 10.77.1.2", "1 3 10.77.1.3"});
        add("--function-code 1 --univocal-code 1", {"1 1 10.77.1.1"});
        add("--function-code 2", {});
    }

    void discoverFilters()
    {
        QFETCH(Running, program);
        QFETCH(QStringList, devices);
        const Run result = program->finish();
        QCOMPARE(result.devices(), devices);
        QCOMPARE(result.status, devices.isEmpty() ? 1 : 0);
        const auto others = 3 - devices.size();
        const QString word = others == 1 ? "other"_s : "others"_s;
        QVERIFY(result.out.contains(", %1 %2 left out\n"_s.arg(others).arg(word)));
        QCOMPARE(result.err, QString());
    }

    void discoverAdvisesWhenNothingIsFound()
    {
        const Run result = lab("--devices 0 -- ssdp-discover --timeout 100");
        QCOMPARE(result.status, 1);
        QVERIFY(result.lines().constLast().startsWith("No device found in "));
        QCOMPARE(result.err.count(QLatin1Char('\n')), 3);
        QVERIFY2(result.err.contains("try --timeout 5000"), qPrintable(result.err));
        const Run quiet = lab("--devices 0 -- ssdp-discover --timeout 100 --quiet");
        QCOMPARE(quiet.status, 1);
        QCOMPARE(quiet.out + quiet.err, QString());
    }

    void discoverLogsOnlyWhenAsked()
    {
        QCOMPARE(lab("--response-delay 0-0 -- ssdp-discover --first").err, QString());
        const Run verbose = lab("--response-delay 0-0 -- ssdp-discover --first --verbose --quiet");
        QVERIFY2(verbose.err.contains("Device with FC:1 and UC:1 found at 10.77.1.1"), qPrintable(verbose.err));
        QVERIFY2(verbose.err.contains("Z Searching from 10.77.0.1 (host0)\n"), qPrintable(verbose.err));
        const QStringList lines = verbose.errorLines();
        for (const QString& line : lines) {
            const QString time = words(line).at(0);
            const bool isTime = QDateTime::fromString(time, Qt::ISODateWithMs).isValid() && time.size() == 24;
            QVERIFY2(isTime, qPrintable(line));
        }
    }

    void discoverKeepsWhatAShortDiscoveryMisses()
    {
        const Run result = finishAfterTwoDiscoveries("short");
        QCOMPARE(result.out.count("\n+"), 1);
        QCOMPARE(result.out.count("\n-"), 0);
        QVERIFY2(!result.err.contains("Could not"), qPrintable(result.err));
    }

    void discoverSeesALaterInterface()
    {
        const Run result = finish("later interface");
        QCOMPARE(result.status, 0);
        QVERIFY2(result.out.startsWith("Searching from 127.0.0.1 (lo)\n"), qPrintable(result.out));
        QVERIFY2(result.out.contains("\nSearching from 10.77.0.1 (host0)\n"), qPrintable(result.out));
        QVERIFY2(result.out.contains(" 10.77.1.1 "), qPrintable(result.out));
    }

    void discoverSaysWhenItCannotSearch_data()
    {
        QTest::addColumn<QString>("script");
        QTest::addColumn<QString>("message");
        const auto row = [](const char* name, const char* script, const char* message) {
            QTest::newRow(name) << QString(script) << QString(message);
        };
        const char* const none = "no network interface with an IPv4 address is up and connected";
        row("port taken",
            "exec python3 -c 'import socket, subprocess, sys\n"
            "s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\n"
            "s.bind((\"\", 1900))\n"
            "sys.exit(subprocess.call(sys.argv[1:]))' $discover",
            "UDP port 1900 is taken by a program that does not share it; 'ss -lunp sport = :1900' names it");
        row("not permitted",
            "echo 2000 >/proc/sys/net/ipv4/ip_unprivileged_port_start;"
            "setpriv --bounding-set=-net_bind_service $discover",
            "this user is not permitted to listen on UDP port 1900");
        row("firewall", "ip xfrm policy add dir out src 0.0.0.0/0 dst 239.255.255.250/32 action block; $discover",
            "this host does not let the search out from 10.77.0.1; a firewall of its own may forbid it");
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
            "host0 is not up or not connected");
        row("no address", "ip addr flush dev host0; $discover --interface host0", "host0 has no IPv4 address");
    }

    void discoverSaysWhenItCannotSearch()
    {
        QFETCH(QString, script);
        QFETCH(QString, message);
        const Run result =
            lab("--devices 0 -- sh -c", "discover='ssdp-discover --timeout 100 --quiet'; " + script);
        QCOMPARE(result.err, "ssdp-discover: cannot search: %1\n"_s.arg(message));
        QCOMPARE(result.status, 3);
        QCOMPARE(result.out, QString());
    }

    void discoverAdvisesOnWhatItSaw_data()
    {
        QTest::addColumn<Running>("program");
        QTest::addColumn<QString>("advice");
        const auto add = [](Fault::Id fault, const char* advice) {
            const QString name = Fault::text(fault);
            QTest::newRow(qPrintable(name)) << startLab("--devices 2 --response-delay 0-0 --fault %1 -- "
                                                        "ssdp-discover --timeout 500"_s.arg(name))
                                            << QString(advice);
        };
        add(Fault::Error500, "no description could be read");
        add(Fault::NeverAnswerSubscribe, "drop the TCP connections");
        add(Fault::EventBadXml, "not valid XML");
    }

    void discoverAdvisesOnWhatItSaw()
    {
        QFETCH(Running, program);
        QFETCH(QString, advice);
        const Run result = program->finish();
        QCOMPARE(result.status, 1);
        QVERIFY2(result.err.startsWith("2 devices answered, "), qPrintable(result.err));
        QVERIFY2(result.err.contains(advice), qPrintable(result.err));
        QVERIFY2(!result.err.contains("UDP"), qPrintable(result.err));
    }

    void discoverSearchesFromOneInterface_data()
    {
        QTest::addColumn<Running>("program");
        for (const char* const interface : {"host1", "10.78.0.1"}) {
            QTest::newRow(interface) << startLab("--second-interface --response-delay 0-0 -- "
                                                 "ssdp-discover --timeout 500 --interface "_s
                                                 + interface);
        }
    }

    void discoverSearchesFromOneInterface()
    {
        QFETCH(Running, program);
        const Run result = program->finish();
        QCOMPARE(result.lines().constFirst(), "Searching from 10.78.0.1 (host1)");
        QCOMPARE(result.devices(), QStringList{"1 2 10.78.1.1"});
        QCOMPARE(result.status, 0);
    }

    void discoverEndsWithTheSummaryWhenInterrupted()
    {
        const Running program = startLab("--response-delay 0-0 -- ssdp-discover --timeout 3600000");
        QVERIFY(program->waitFor("10.77.1.1"));
        program->signal(SIGINT);
        const Run result = program->finish();
        QCOMPARE(result.status, 0);
        QVERIFY2(result.out.contains("1 device found in "), qPrintable(result.out));
    }

    void discoverBlamesTheTimeOnlyWhenItRanOut()
    {
        const Running program = startLab("--devices 0 -- ssdp-discover --verbose --timeout 4000");
        QVERIFY(program->waitFor("Ssdp Server bound", QProcess::StandardError));
        program->signal(SIGINT);
        const Run result = program->finish();
        QCOMPARE(result.status, 1);
        QVERIFY2(result.err.contains("A firewall may "), qPrintable(result.err));
        QVERIFY2(!result.err.contains("The time may "), qPrintable(result.err));
    }

    void discoverFindsDevicesOnBothInterfaces()
    {
        const QString arguments =
            "--devices 2 --second-interface --response-delay 0-0 -- ssdp-discover --count 4 --timeout 20000"_s;
        const QStringList expected = {"1 1 10.77.1.1", "1 2 10.77.1.2", "1 3 10.78.1.1", "1 4 10.78.1.2"};
        QCOMPARE(lab(arguments).devices(), expected);
    }

    void simulatorListsItsFaults()
    {
        const Run result = lab("--devices 0 -- ssdp-simulator --list-faults");
        QCOMPARE(result.status, 0);
        QStringList expected;
        for (const Fault& fault : SimulatedDevice::faults()) {
            const QString value = fault.value ? "[=%1]"_s.arg(fault.value) : QString();
            expected << (fault.name + value).leftJustified(29) + explanationOf(fault);
        }
        QCOMPARE(result.lines(), expected);
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
        const Run result =
            lab("--verbose --trace --json --response-delay 0-0 -- ssdp-discover --first --quiet --timeout 20000");
        QCOMPARE(result.status, 0);
        const QStringList lines = result.errorLines();
        QJsonObject last;
        QStringList texts;
        QString subscription;
        for (const QString& line : lines) {
            last = jsonOf(line);
            QVERIFY2(!last.isEmpty(), qPrintable(line));
            const QString text = last.value("text").toString();
            texts << last.value("direction").toString() + " " + text.section(" ", 0, 0);
            if (texts.last() == "in SUBSCRIBE")
                subscription = text;
        }
        for (const char* const text : {"in M-SEARCH", "in GET", "in SUBSCRIBE", "out NOTIFY"})
            QVERIFY2(texts.contains(text), text);
        // Port 49152 is written as the byte 0, which is part of the message.
        QVERIFY2(subscription.contains("HOST: 10.77.1.1:\0\n"_s), qPrintable(subscription));
        QVERIFY2(subscription.endsWith("TIMEOUT: Second-120\n\n"), qPrintable(subscription));
        const QJsonObject saw = last.value("saw").toObject();
        QCOMPARE(saw.value("search").toInt(), 1);
        QCOMPARE(saw.value("event").toInt(), 1);
    }

    void discoverFindsAHundredDevices()
    {
        const Run result = finish("hundred");
        QCOMPARE(result.devices().size(), 100);
    }

    void discoverWaitsForLateDevices()
    {
        // One of them answers so late that it is not read when three seconds are over.
        const Run result = finish("late");
        QCOMPARE(result.devices().size(), 10);
        QVERIFY2(result.lines().constLast().startsWith("10 devices found in 5."), qPrintable(result.out));
    }

    void discoverPrintsWhatCameAndWent()
    {
        // A device beside it goes and comes back; the other stays.
        const Run result = finish("comings");
        QCOMPARE(result.status, 0);
        QCOMPARE(result.out.count("\n+"), 3);
        QCOMPARE(result.out.count("\n-"), 1);
        QVERIFY2(result.out.section("\n-", 1).contains(" 10.77.0.1 "), qPrintable(result.out));
        QVERIFY2(result.lines().constLast().startsWith("2 devices found in "), qPrintable(result.out));
        QCOMPARE(result.err, QString());
    }

    void discoverKeepsWhatALostInterfaceHides()
    {
        // The device was found by then; the next discovery searches from the loopback only.
        const Run result = finishAfterTwoDiscoveries("lost interface");
        QVERIFY2(result.out.contains("\nSearching from 127.0.0.1 (lo)\n"), qPrintable(result.out));
        QCOMPARE(result.out.count("\n+"), 1);
        QCOMPARE(result.out.count("\n-"), 0);
    }
};

VELMORA_TOOL_TEST_MAIN(ToolsTest)

#include "tst_tools.moc"

#include <tests/support/Literals.h>
#include <tests/wire/ToolRun.h>

#include <simulator/SimulatedDevice.h>

#include <QtCore/QDateTime>
#include <QtCore/QFile>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtTest/QtTest>

#include <cerrno>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace Velmora::Tests;

/// ssdp-discover and ssdp-simulator as a user runs them.
class ToolsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:

    void initTestCase()
    {
        late = std::make_unique<Program>("--devices 10 --seed 41 -- ssdp-discover");
        // Each does something with every line that ssdp-discover prints.
        const auto reacting = [](const char* options, const char* script) {
            return std::make_unique<Program>(
                QStringLiteral(SSDP_LAB),
                words("--response-delay 0-0 -- bash -c")
                    << "start() { ssdp-simulator --first-address 10.77.0.1 --quiet & device=$!; }\n"
                       "coproc ssdp-discover --repeat 1 %1\n"
                       "while IFS= read -r line; do echo \"$line\"; %2; done <&${COPROC[0]}\n"
                       "wait $COPROC_PID"_s.arg(QLatin1String(options), QLatin1String(script)));
        };
        comings = reacting("",
                           "case $line in"
                           " Searching*) start ;;"
                           " +*10.77.0.1*) kill $device; ((++times < 2)) || kill $COPROC_PID ;;"
                           " -*) start ;;"
                           " esac");
        lostInterface = reacting("--verbose", "[[ $line != +* ]] || ip link set host0 down");
        hundred = std::make_unique<Program>("--devices 100 --event-gap 300 -- ssdp-discover --timeout 6000");
    }

    void endsWhenNobodyReads_data()
    {
        QTest::addColumn<QString>("command");
        QTest::newRow("discover") << "ssdp-discover --repeat 1 --timeout 1000 --json";
        QTest::newRow("discover, to a log") << "ssdp-discover --repeat 1 --verbose --quiet 2>&1";
        QTest::newRow("simulator") << "ssdp-simulator --first-address 127.0.0.1";
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
        QTest::addColumn<QString>("command");
        for (const char* const command :
             {"ssdp-discover", "ssdp-discover --json", "ssdp-discover --help", "ssdp-discover --version",
              "ssdp-simulator --first-address 127.0.0.1", "ssdp-simulator --help", "ssdp-simulator --list-faults",
              "ssdp-simulator --trace --quiet --first-address 127.0.0.1"}) {
            QTest::newRow(command) << QString::fromLatin1(command);
        }
    }

    void saysWhenItCannotWrite()
    {
        QFETCH(QString, command);
        const Run full = shell("$lab --response-delay 0-0 -- %1 >/dev/full"_s.arg(command));
        QCOMPARE(full.status, 4);
        const QString name = command.section(QLatin1Char(' '), 0, 0);
        QCOMPARE(full.err, name + ": cannot write: No space left on device\n"_s);
        // No socket becomes its standard output.
        const Run closed = shell("$lab --response-delay 0-0 -- %1 >&-"_s.arg(command));
        QCOMPARE(closed.status, 4);
        QCOMPARE(closed.err, name + ": cannot write: Bad file descriptor\n"_s);
    }

    void canBeEndedWhileNobodyReads()
    {
        int ends[2];
        QCOMPARE(pipe(ends), 0);
        QCOMPARE(fcntl(ends[1], F_SETFL, O_NONBLOCK), 0);
        while (write(ends[1], "x", 1) == 1) { }
        QCOMPARE(errno, EAGAIN);
        QCOMPARE(fcntl(ends[1], F_SETFL, 0), 0);

        Program program("bash"_s, {"-c"_s, "exec ssdp-simulator --list-faults >&%1"_s.arg(ends[1])});
        const QString path = "/proc/%1/syscall"_s.arg(program.id());
        const auto waitsForTheReader = [&path] {
            QFile file(path);
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

    void discoverPrintsEveryDeviceOnce()
    {
        const Run result =
            lab("--devices 3 --variables KO,A,B --response-delay 0-100 -- ssdp-discover --timeout 2000");
        QCOMPARE(result.status, 0);
        QCOMPARE(result.devices(), (QStringList{"1 1 10.77.1.1", "1 2 10.77.1.2", "1 3 10.77.1.3"}));
        QCOMPARE(result.lines().size(), 6);
        QCOMPARE(result.lines().at(0), "Searching from 10.77.0.1 (host0)"_s);
        QVERIFY(result.lines().at(1).contains("FUNCTION"));
        QVERIFY(result.lines().constLast().startsWith("3 devices found in "));
        QVERIFY2(result.err.isEmpty(), qPrintable(result.err));
        for (int i = 2; i < 5; ++i)
            QCOMPARE(result.lines().at(i).size(), result.lines().at(1).size());
    }

    void discoverWaitsForLateDevices()
    {
        // One of them answers so late that it is not read when three seconds are over.
        const Run result = late->finish();
        QCOMPARE(result.devices().size(), 10);
        QVERIFY2(result.lines().constLast().startsWith("10 devices found in 5."), qPrintable(result.out));
    }

    void discoverPrintsEveryReportWithAll()
    {
        const Run result =
            lab("--devices 1 --variables KO,A,B --response-delay 0-100 -- ssdp-discover --timeout 2000 --all");
        QCOMPARE(result.devices().size(), 3);
        QVERIFY(result.lines().constLast().startsWith("1 device found in "));
    }

    void discoverPrintsJson()
    {
        const Run result = lab("--devices 1 --function-code -3 --univocal-code 77 --response-delay 0-0 -- "
                               "ssdp-discover --json --first");
        QCOMPARE(result.lines().size(), 1);
        const QJsonObject object = QJsonDocument::fromJson(result.out.toUtf8()).object();
        QCOMPARE(object.value("functionCode").toInt(), -3);
        QCOMPARE(object.value("univocalCode").toInt(), 77);
        QCOMPARE(object.value("address").toString(), "10.77.1.1"_s);
        QVERIFY(QDateTime::fromString(object.value("time").toString(), Qt::ISODateWithMs).isValid());
    }

    void discoverStopsEarly()
    {
        // Far below the time-out, so the test would not end without it.
        const Run result = lab("--devices 3 --response-delay 0-0 -- ssdp-discover --count 2 --timeout 3600000");
        QCOMPARE(result.status, 0);
        QCOMPARE(result.devices().size(), 2);
        QCOMPARE(lab("--devices 3 --response-delay 0-0 -- ssdp-discover --first --quiet --timeout 3600000").out,
                 QString());
    }

    void discoverFilters_data()
    {
        QTest::addColumn<std::shared_ptr<Program>>("program");
        QTest::addColumn<QStringList>("devices");
        const auto with = [](const char* filter) {
            const QStringList fixed = words("--devices 3 --response-delay 0-0 -- ssdp-discover --timeout 1500");
            return std::make_shared<Program>(QStringLiteral(SSDP_LAB), fixed + words(filter));
        };
        const auto device = [](int number) { return "1 %1 10.77.1.%1"_s.arg(number); };
        QTest::newRow("univocal code") << with("--univocal-code 2") << QStringList{device(2)};
        QTest::newRow("address") << with("--address 10.77.1.3") << QStringList{device(3)};
        QTest::newRow("network") << with("--address 10.77.1.2/31") << QStringList{device(2), device(3)};
        QTest::newRow("both codes") << with("--function-code 1 --univocal-code 1") << QStringList{device(1)};
        QTest::newRow("none") << with("--function-code 2") << QStringList();
    }

    void discoverFilters()
    {
        QFETCH(std::shared_ptr<Program>, program);
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

    void discoverTellsOfWrongOptions_data()
    {
        QTest::addColumn<QString>("option");
        for (const char* const option :
             {"--no-such-option", "--help-all", "--timeout 0", "--timeout soon", "--count 0", "--first --count 2",
              "--repeat 1 --first", "--address 10.77", "--address 10.77.1.1/33", "--address ::1", "argument"}) {
            QTest::newRow(option) << QString::fromLatin1(option);
        }
    }

    void discoverTellsOfWrongOptions()
    {
        QFETCH(QString, option);
        const Run result = run(SSDP_LAB, words("--devices 0 -- ssdp-discover") + option.split(QLatin1Char(' ')));
        QCOMPARE(result.status, 2);
        QCOMPARE(result.out, QString());
        QVERIFY(result.err.startsWith("ssdp-discover: "));
    }

    void discoverLogsOnlyWhenAsked()
    {
        const Run silent = lab("--response-delay 0-0 -- ssdp-discover --first");
        QCOMPARE(silent.err, QString());
        const Run verbose = lab("--response-delay 0-0 -- ssdp-discover --first --verbose --quiet");
        QVERIFY2(verbose.err.contains("Device with FC:1 and UC:1 found at 10.77.1.1"), qPrintable(verbose.err));
        QVERIFY2(verbose.err.contains("Z Searching from 10.77.0.1 (host0)\n"), qPrintable(verbose.err));
        const QStringList lines = verbose.err.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        for (const QString& line : lines) {
            const QString time = line.section(QLatin1Char(' '), 0, 0);
            QVERIFY2(QDateTime::fromString(time, Qt::ISODateWithMs).isValid() && time.size() == 24,
                     qPrintable(line));
        }
    }

    void discoverPrintsWhatCameAndWent()
    {
        // A device beside it goes and comes back; the other stays.
        const Run result = comings->finish();
        QCOMPARE(result.status, 0);
        QCOMPARE(result.out.count("\n+"), 3);
        QCOMPARE(result.out.count("\n-"), 1);
        QVERIFY2(result.out.section("\n-"_s, 1).contains(" 10.77.0.1 "), qPrintable(result.out));
        QVERIFY2(result.lines().constLast().startsWith("2 devices found in "), qPrintable(result.out));
        QCOMPARE(result.err, QString());
    }

    void discoverKeepsWhatAShortDiscoveryMisses()
    {
        Program program("--response-delay 0-0 --fault die-after=event -- "
                        "ssdp-discover --timeout 500 --repeat 1 --verbose");
        QVERIFY(program.waitFor("Ssdp Server bound", QProcess::StandardError, 3));
        program.signal(SIGTERM);
        const Run result = program.finish();
        QCOMPARE(result.out.count("\n+"), 1);
        QCOMPARE(result.out.count("\n-"), 0);
        QVERIFY2(!result.err.contains("Could not"), qPrintable(result.err));
    }

    void discoverKeepsWhatALostInterfaceHides()
    {
        // The device was found by then; the next discovery searches from the loopback only.
        QVERIFY(lostInterface->waitFor("Ssdp Server bound", QProcess::StandardError, 3));
        lostInterface->signal(SIGTERM);
        const Run result = lostInterface->finish();
        QVERIFY2(result.out.contains("\nSearching from 127.0.0.1 (lo)\n"), qPrintable(result.out));
        QCOMPARE(result.out.count("\n+"), 1);
        QCOMPARE(result.out.count("\n-"), 0);
    }

    void discoverSeesALaterInterface()
    {
        Program program(QStringLiteral(SSDP_LAB),
                        words("--response-delay 0-0 -- sh -c")
                            << "ip link set host0 down; ssdp-discover --timeout 500 --repeat 1 &"
                               "read -r line; ip link set host0 up; read -r line; kill $!; wait $!"_s);
        QVERIFY(program.waitFor("Searching from 127.0.0.1 (lo)\n"));
        program.write("up\n");
        QVERIFY(program.waitFor(" 10.77.1.1 "));
        const Run result = program.finish();
        QCOMPARE(result.status, 0);
        QVERIFY2(result.out.contains("\nSearching from 10.77.0.1 (host0)\n"), qPrintable(result.out));
    }

    void discoverSaysWhenItCannotSearch_data()
    {
        QTest::addColumn<QString>("setup");
        QTest::addColumn<QString>("options");
        QTest::addColumn<QString>("message");
        const auto row = [](const char* name, const char* setup, const char* options, const char* message) {
            QTest::newRow(name) << QString::fromLatin1(setup) << QString::fromLatin1(options)
                                << QString::fromLatin1(message);
        };
        row("port taken",
            "exec python3 -c 'import socket, subprocess, sys\n"
            "s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\n"
            "s.bind((\"\", 1900))\n"
            "sys.exit(subprocess.call(sys.argv[1:]))'",
            "", "UDP port 1900 is taken by a program that does not share it; 'ss -lunp sport = :1900' names it");
        row("not permitted",
            "echo 2000 >/proc/sys/net/ipv4/ip_unprivileged_port_start; exec setpriv "
            "--bounding-set=-net_bind_service",
            "", "this user is not permitted to listen on UDP port 1900");
        row("firewall", "ip xfrm policy add dir out src 0.0.0.0/0 dst 239.255.255.250/32 action block; exec", "",
            "this host does not let the search out from 10.77.0.1; a firewall of its own may forbid it");
        row("group", "echo 0 >/proc/sys/net/ipv4/igmp_max_memberships; exec", "",
            "cannot join 239.255.255.250 on 10.77.0.1 (host0): No buffer space available");
        row("no interface", "ip link set host0 down; ip link set lo down; exec", "",
            "no network interface with an IPv4 address is up and connected");
        row("loopback only", "ip link set host0 down; exec", "",
            "no network interface with an IPv4 address is up and connected");
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0) // Qt 5 takes an interface without a link for one that is down.
        row("not connected",
            "ip link set host0 down; ip link add end0 type veth peer name end1; ip addr add 10.79.0.1/16 dev end0;"
            "ip link set end0 up; exec",
            "", "no network is connected to 10.79.0.1 (end0)");
#endif
        row("no such interface", "exec", "--interface eth7",
            "this host has no interface or address 'eth7', only 127.0.0.1 (lo), 10.77.0.1 (host0)");
        row("interface down", "ip link set host0 down; exec", "--interface host0",
            "host0 is not up or not connected");
        row("no address", "ip addr flush dev host0; exec", "--interface host0", "host0 has no IPv4 address");
    }

    void discoverSaysWhenItCannotSearch()
    {
        QFETCH(QString, setup);
        QFETCH(QString, options);
        QFETCH(QString, message);
        const Run result = run(SSDP_LAB,
                               words("--devices 0 -- sh -c")
                                   << "%1 ssdp-discover --timeout 100 --quiet %2"_s.arg(setup, options));
        QCOMPARE(result.err, "ssdp-discover: cannot search: %1\n"_s.arg(message));
        QCOMPARE(result.status, 3);
        QCOMPARE(result.out, QString());
    }

    void discoverAdvisesOnWhatItSaw_data()
    {
        QTest::addColumn<QString>("fault");
        QTest::addColumn<QString>("advice");
        QTest::newRow("description") << "error-500"
                                     << "no description could be read";
        QTest::newRow("event") << "never-answer-subscribe"
                               << "drop the TCP connections";
        QTest::newRow("event's text") << "event-bad-xml"
                                      << "not valid XML";
    }

    void discoverAdvisesOnWhatItSaw()
    {
        QFETCH(QString, fault);
        QFETCH(QString, advice);
        const Run result = run(SSDP_LAB,
                               words("--devices 2 --response-delay 0-0 --fault")
                                   << fault << words("-- ssdp-discover --timeout 500"));
        QCOMPARE(result.status, 1);
        QVERIFY2(result.err.startsWith("2 devices answered, "), qPrintable(result.err));
        QVERIFY2(result.err.contains(advice), qPrintable(result.err));
        QVERIFY2(!result.err.contains("UDP"), qPrintable(result.err));
    }

    void discoverSearchesFromOneInterface_data()
    {
        QTest::addColumn<QString>("interface");
        QTest::newRow("name") << "host1";
        QTest::newRow("address") << "10.78.0.1";
    }

    void discoverSearchesFromOneInterface()
    {
        QFETCH(QString, interface);
        const Run result =
            run(SSDP_LAB,
                words("--second-interface --response-delay 0-0 -- ssdp-discover --timeout 500 --interface")
                    << interface);
        QCOMPARE(result.lines().constFirst(), "Searching from 10.78.0.1 (host1)"_s);
        QCOMPARE(result.devices(), QStringList{"1 2 10.78.1.1"});
        QCOMPARE(result.status, 0);
    }

    void discoverEndsWithTheSummaryWhenInterrupted()
    {
        Program program("--response-delay 0-0 -- ssdp-discover --timeout 3600000");
        QVERIFY(program.waitFor("10.77.1.1"));
        program.signal(SIGINT);
        const Run result = program.finish();
        QCOMPARE(result.status, 0);
        QVERIFY2(result.out.contains("1 device found in "), qPrintable(result.out));
    }

    void discoverBlamesTheTimeOnlyWhenItRanOut()
    {
        Program program("--devices 0 -- ssdp-discover --verbose --timeout 4000");
        QVERIFY(program.waitFor("Ssdp Server bound", QProcess::StandardError));
        program.signal(SIGINT);
        const Run result = program.finish();
        QCOMPARE(result.status, 1);
        QVERIFY2(result.err.contains("A firewall may "), qPrintable(result.err));
        QVERIFY2(!result.err.contains("The time may "), qPrintable(result.err));
    }

    void discoverFindsDevicesOnBothInterfaces()
    {
        const Run result =
            lab("--devices 2 --second-interface --response-delay 0-0 -- ssdp-discover --count 4 --timeout 20000");
        QCOMPARE(result.devices(),
                 (QStringList{"1 1 10.77.1.1", "1 2 10.77.1.2", "1 3 10.78.1.1", "1 4 10.78.1.2"}));
    }

    void discoverFindsAHundredDevices()
    {
        // Within the three seconds that the search allows them.
        QCOMPARE(hundred->finish().devices().size(), 100);
    }

    void simulatorListsItsFaults()
    {
        const Run result = lab("--devices 0 -- ssdp-simulator --list-faults");
        QCOMPARE(result.status, 0);
        QCOMPARE(result.lines().size(), Velmora::Simulator::SimulatedDevice::faults().size());
    }

    void simulatorTellsOfWrongOptions_data()
    {
        QTest::addColumn<QString>("option");
        for (const char* const option :
             {"--no-such-option", "--help-all", "--devices 0", "--first-address here", "--response-delay 5",
              "--response-delay 9-5", "--variables KO,,B", "--fault no-such-fault", "--fault 2:error-500",
              "--fault error-500=1", "--fault slow-http=0", "--fault die-after=birth", "argument"}) {
            QTest::newRow(option) << QString::fromLatin1(option);
        }
    }

    void simulatorTellsOfWrongOptions()
    {
        QFETCH(QString, option);
        const Run result = run(SSDP_LAB, words("--devices 0 -- ssdp-simulator") + option.split(QLatin1Char(' ')));
        QCOMPARE(result.status, 2);
        QVERIFY(result.err.startsWith("ssdp-simulator: "));
    }

    void simulatorTracesAndSums()
    {
        const Run result =
            lab("--verbose --trace --json --response-delay 0-0 -- ssdp-discover --first --quiet --timeout 20000");
        QCOMPARE(result.status, 0);
        const QStringList lines = result.err.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        QJsonObject last;
        QStringList texts;
        QString subscription;
        for (const QString& line : lines) {
            last = QJsonDocument::fromJson(line.toUtf8()).object();
            QVERIFY2(!last.isEmpty(), qPrintable(line));
            texts << last.value("direction").toString() + QLatin1Char(' ')
                    + last.value("text").toString().section(QLatin1Char(' '), 0, 0);
            if (texts.last() == "in SUBSCRIBE"_s)
                subscription = last.value("text").toString();
        }
        const QStringList expected = {"in M-SEARCH"_s, "in GET"_s, "in SUBSCRIBE"_s, "out NOTIFY"_s};
        for (const QString& text : expected)
            QVERIFY2(texts.contains(text), qPrintable(text));
        // The byte 0 that stands for port 49152 is part of the message.
        QVERIFY2(subscription.contains("HOST: 10.77.1.1:"_s + QChar(QChar::Null) + QLatin1Char('\n')),
                 qPrintable(subscription));
        QVERIFY2(subscription.endsWith("TIMEOUT: Second-120\n\n"), qPrintable(subscription));
        const QJsonObject saw = last.value("saw").toObject();
        QCOMPARE(saw.value("search").toInt(), 1);
        QCOMPARE(saw.value("event").toInt(), 1);
    }

private:
    // What takes long runs meanwhile.
    std::unique_ptr<Program> late;
    std::unique_ptr<Program> hundred;
    std::unique_ptr<Program> comings;
    std::unique_ptr<Program> lostInterface;
};

int main(int argc, char** argv)
{
    const int status = prepareTools();
    if (status != 0)
        return status;
    const QCoreApplication application(argc, argv);
    ToolsTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_tools.moc"

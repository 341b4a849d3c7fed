#include <simulator/SimulatedDevice.h>

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QProcess>
#include <QtCore/QRegularExpression>
#include <QtCore/QSet>
#include <QtTest/QtTest>

#include <csignal>
#include <cstdio>

namespace {

const int LONGEST_RUN = 60 * 1000;

struct Run
{
    int status;
    QString out;
    QString err;

    QStringList lines() const { return out.split(QLatin1Char('\n'), Qt::SkipEmptyParts); }
};

QStringList words(const char* text)
{
    return QString::fromLatin1(text).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

Run run(const char* program, const QStringList& arguments)
{
    QProcess process;
    process.start(QString::fromLatin1(program), arguments);
    if (!process.waitForFinished(LONGEST_RUN))
        return {-1, QString(), process.errorString()};
    return {process.exitCode(), QString::fromUtf8(process.readAllStandardOutput()),
            QString::fromUtf8(process.readAllStandardError())};
}

Run lab(const char* arguments)
{
    return run(SSDP_LAB, words(arguments));
}

/// Interrupts it once it has printed @p text. What it prints on standard error is in Run::out too.
Run labInterruptedAfter(const char* text, const char* arguments)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QString::fromLatin1(SSDP_LAB), words(arguments));
    QByteArray out;
    while (!out.contains(text) && process.waitForReadyRead(LONGEST_RUN))
        out += process.readAll();
    kill(static_cast<pid_t>(process.processId()), SIGINT);
    if (!process.waitForFinished(LONGEST_RUN))
        return {-1, QString(), process.errorString()};
    return {process.exitCode(), QString::fromUtf8(out + process.readAll()), QString()};
}

/// The rows of a table, each as its cells without the time, in order of the address.
QStringList devicesOf(const Run& result)
{
    static const QRegularExpression form(QStringLiteral("^([ +-])\\s*(\\d+)\\s+(\\d+)\\s+([0-9.]+)\\s"));
    QStringList rows;
    const QStringList lines = result.lines();
    for (const QString& line : lines) {
        const QRegularExpressionMatch match = form.match(line);
        if (match.hasMatch()) {
            rows << match.captured(2) + QLatin1Char(' ') + match.captured(3) + QLatin1Char(' ')
                    + match.captured(4);
        }
    }
    rows.sort();
    return rows;
}

} // namespace

/// The three programs as a user runs them.
class ToolsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void labEndsWithTheStatusOfTheCommand_data();
    void labEndsWithTheStatusOfTheCommand();
    void labCommandSeesThePrivateNetworkOnly();
    void labEndsTheSimulatorWhenItIsEnded();
    void labTellsOfWrongOptions();
    void discoverPrintsEveryDeviceOnce();
    void discoverPrintsEveryReportWithAll();
    void discoverPrintsJson();
    void discoverStopsEarly();
    void discoverFilters_data();
    void discoverFilters();
    void discoverAdvisesWhenNothingIsFound();
    void discoverTellsOfWrongOptions_data();
    void discoverTellsOfWrongOptions();
    void discoverLogsOnlyWhenAsked();
    void discoverPrintsWhatCameAndWent();
    void discoverEndsWithTheSummaryWhenInterrupted();
    void discoverBlamesTheTimeOnlyWhenItRanOut();
    void discoverShowsProgressOnATerminalOnly();
    void discoverFindsDevicesOnBothInterfaces();
    void discoverFindsAHundredDevices();
    void simulatorListsItsFaults();
    void simulatorTellsOfWrongOptions_data();
    void simulatorTellsOfWrongOptions();
    void simulatorTracesAndSums();
};

void ToolsTest::labEndsWithTheStatusOfTheCommand_data()
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

void ToolsTest::labEndsWithTheStatusOfTheCommand()
{
    QFETCH(QStringList, command);
    QFETCH(int, status);
    QCOMPARE(run(SSDP_LAB, words("--devices 2 --") + command).status, status);
}

void ToolsTest::labCommandSeesThePrivateNetworkOnly()
{
    const Run result = lab("--second-interface --rate 10mbit -- ip -oneline -4 address");
    QCOMPARE(result.status, 0);
    QCOMPARE(result.lines().size(), 3);
    QVERIFY(result.out.contains(QStringLiteral("127.0.0.1/8")));
    QVERIFY(result.out.contains(QStringLiteral("10.77.0.1/16")));
    QVERIFY(result.out.contains(QStringLiteral("10.78.0.1/16")));
}

void ToolsTest::labEndsTheSimulatorWhenItIsEnded()
{
    QProcess process;
    process.start(QString::fromLatin1(SSDP_LAB),
                  words("--devices 2 --verbose -- sh -c") << QStringLiteral("echo started; exec sleep 60"));
    QVERIFY(process.waitForReadyRead(LONGEST_RUN));
    process.terminate();
    QVERIFY(process.waitForFinished(LONGEST_RUN));
    QCOMPARE(process.exitCode(), 128 + SIGTERM);
    // Its last line, which it prints when it has said byebye.
    QVERIFY(process.readAllStandardError().contains("answered 0 searches"));
}

void ToolsTest::labTellsOfWrongOptions()
{
    QCOMPARE(lab("--devices 2").status, 2);
    QCOMPARE(lab("--devices two -- true").status, 2);
    QCOMPARE(lab("--fault no-such-fault -- true").status, 2);
    QCOMPARE(lab("--first-address 10.77.0.1 -- true").status, 2);
    QCOMPARE(lab("--first-address 300.1.1.1 -- true").status, 2);
    QCOMPARE(lab("--help").status, 0);
    QCOMPARE(lab("--version").status, 0);
}

void ToolsTest::discoverPrintsEveryDeviceOnce()
{
    const Run result =
        lab("--devices 3 --variables KO,A,B --response-delay 0-100 -- ssdp-discover --timeout 2000");
    QCOMPARE(result.status, 0);
    QCOMPARE(devicesOf(result),
             (QStringList{QStringLiteral("1 1 10.77.1.1"), QStringLiteral("1 2 10.77.1.2"),
                          QStringLiteral("1 3 10.77.1.3")}));
    QCOMPARE(result.lines().size(), 5);
    QVERIFY(result.lines().constFirst().contains(QStringLiteral("FUNCTION")));
    QVERIFY(result.lines().constLast().startsWith(QStringLiteral("3 devices found in ")));
    QVERIFY2(result.err.isEmpty(), qPrintable(result.err));
    for (int i = 1; i < 4; ++i)
        QCOMPARE(result.lines().at(i).size(), result.lines().at(0).size());
}

void ToolsTest::discoverPrintsEveryReportWithAll()
{
    const Run result =
        lab("--devices 1 --variables KO,A,B --response-delay 0-100 -- ssdp-discover --timeout 2000 --all");
    QCOMPARE(devicesOf(result).size(), 3);
    QVERIFY(result.lines().constLast().startsWith(QStringLiteral("1 device found in ")));
}

void ToolsTest::discoverPrintsJson()
{
    const Run result = lab("--devices 1 --function-code -3 --univocal-code 77 --response-delay 0-0 -- "
                           "ssdp-discover --json --first");
    QCOMPARE(result.lines().size(), 1);
    const QJsonObject object = QJsonDocument::fromJson(result.out.toUtf8()).object();
    QCOMPARE(object.value(QStringLiteral("functionCode")).toInt(), -3);
    QCOMPARE(object.value(QStringLiteral("univocalCode")).toInt(), 77);
    QCOMPARE(object.value(QStringLiteral("address")).toString(), QStringLiteral("10.77.1.1"));
    QVERIFY(QDateTime::fromString(object.value(QStringLiteral("time")).toString(), Qt::ISODateWithMs).isValid());
}

void ToolsTest::discoverStopsEarly()
{
    // Far below the time-out, so the test would not end without it.
    const Run result = lab("--devices 3 --response-delay 0-0 -- ssdp-discover --count 2 --timeout 3600000");
    QCOMPARE(result.status, 0);
    QCOMPARE(devicesOf(result).size(), 2);
    QCOMPARE(lab("--devices 3 --response-delay 0-0 -- ssdp-discover --first --quiet --timeout 3600000").out,
             QString());
}

void ToolsTest::discoverFilters_data()
{
    QTest::addColumn<QString>("filter");
    QTest::addColumn<QStringList>("devices");
    const auto device = [](int number) { return QStringLiteral("1 %1 10.77.1.%1").arg(number); };
    QTest::newRow("univocal code") << QStringLiteral("--univocal-code 2") << QStringList{device(2)};
    QTest::newRow("address") << QStringLiteral("--address 10.77.1.3") << QStringList{device(3)};
    QTest::newRow("network") << QStringLiteral("--address 10.77.1.2/31") << QStringList{device(2), device(3)};
    QTest::newRow("both codes") << QStringLiteral("--function-code 1 --univocal-code 1") << QStringList{device(1)};
    QTest::newRow("none") << QStringLiteral("--function-code 2") << QStringList();
}

void ToolsTest::discoverFilters()
{
    QFETCH(QString, filter);
    QFETCH(QStringList, devices);
    const QStringList fixed = words("--devices 3 --response-delay 0-0 -- ssdp-discover --timeout 1500");
    const Run result = run(SSDP_LAB, fixed + filter.split(QLatin1Char(' ')));
    QCOMPARE(devicesOf(result), devices);
    QCOMPARE(result.status, devices.isEmpty() ? 1 : 0);
    const auto others = 3 - devices.size();
    const QString word = others == 1 ? QStringLiteral("other") : QStringLiteral("others");
    QVERIFY(result.out.contains(QStringLiteral(", %1 %2 left out\n").arg(others).arg(word)));
    QCOMPARE(result.err, QString());
}

void ToolsTest::discoverAdvisesWhenNothingIsFound()
{
    const Run result = lab("--devices 0 -- ssdp-discover --timeout 100");
    QCOMPARE(result.status, 1);
    QVERIFY(result.out.startsWith(QStringLiteral("No device found in ")));
    QCOMPARE(result.err.count(QLatin1Char('\n')), 3);
    QVERIFY2(result.err.contains(QStringLiteral("try --timeout 5000")), qPrintable(result.err));
    const Run quiet = lab("--devices 0 -- ssdp-discover --timeout 100 --quiet");
    QCOMPARE(quiet.status, 1);
    QCOMPARE(quiet.out + quiet.err, QString());
}

void ToolsTest::discoverTellsOfWrongOptions_data()
{
    QTest::addColumn<QString>("option");
    for (const char* const option :
         {"--no-such-option", "--help-all", "--timeout 0", "--timeout soon", "--count 0", "--first --count 2",
          "--repeat 1 --first", "--address 10.77", "--address 10.77.1.1/33", "--address ::1", "argument"}) {
        QTest::newRow(option) << QString::fromLatin1(option);
    }
}

void ToolsTest::discoverTellsOfWrongOptions()
{
    QFETCH(QString, option);
    const Run result = run(SSDP_LAB, words("--devices 0 -- ssdp-discover") + option.split(QLatin1Char(' ')));
    QCOMPARE(result.status, 2);
    QCOMPARE(result.out, QString());
    QVERIFY(result.err.startsWith(QStringLiteral("ssdp-discover: ")));
}

void ToolsTest::discoverLogsOnlyWhenAsked()
{
    const Run silent = lab("--response-delay 0-0 -- ssdp-discover --first");
    QCOMPARE(silent.err, QString());
    const Run verbose = lab("--response-delay 0-0 -- ssdp-discover --first --verbose");
    QVERIFY2(verbose.err.contains(QStringLiteral("Device with FC:1 and UC:1 found at 10.77.1.1")),
             qPrintable(verbose.err));
}

void ToolsTest::discoverPrintsWhatCameAndWent()
{
    QProcess process;
    process.start(QString::fromLatin1(SSDP_LAB),
                  words("--devices 2 --response-delay 0-0 --fault 2:die-after=event -- "
                        "ssdp-discover --timeout 1000 --repeat 1"));
    QByteArray out;
    while (!out.contains("\n-") && process.waitForReadyRead(LONGEST_RUN))
        out += process.readAllStandardOutput();
    process.terminate();
    QVERIFY(process.waitForFinished(LONGEST_RUN));
    QCOMPARE(process.exitCode(), 0);
    QCOMPARE(out.count("\n+"), 2);
    QCOMPARE(out.count("\n-"), 1);
    QVERIFY2(out.mid(out.indexOf("\n-")).contains(" 10.77.1.2 "), out.constData());
    QCOMPARE(process.readAllStandardError(), QByteArray());
}

void ToolsTest::discoverEndsWithTheSummaryWhenInterrupted()
{
    const Run result = labInterruptedAfter("10.77.1.1", "--response-delay 0-0 -- ssdp-discover --timeout 3600000");
    QCOMPARE(result.status, 0);
    QVERIFY2(result.out.contains(QStringLiteral("1 device found in ")), qPrintable(result.out));
}

void ToolsTest::discoverBlamesTheTimeOnlyWhenItRanOut()
{
    const Run result =
        labInterruptedAfter("Ssdp Server bound", "--devices 0 -- ssdp-discover --verbose --timeout 4000");
    QCOMPARE(result.status, 1);
    QVERIFY2(result.out.contains(QStringLiteral("A firewall may ")), qPrintable(result.out));
    QVERIFY2(!result.out.contains(QStringLiteral("The time may ")), qPrintable(result.out));
}

void ToolsTest::discoverShowsProgressOnATerminalOnly()
{
    // script(1) gives it a terminal.
    const QString command = QStringLiteral(" " SSDP_LAB " --response-delay 500-500 -- ssdp-discover --first");
    const auto onTerminal = [&command](const char* environment) {
        return run(
            "script",
            {QStringLiteral("-qec"), QString::fromLatin1(environment) + command, QStringLiteral("/dev/null")});
    };
    const Run coloured = onTerminal("env -u NO_COLOR TERM=xterm");
    QCOMPARE(coloured.status, 0);
    QVERIFY2(coloured.out.contains(QStringLiteral("\033[K")), qPrintable(coloured.out));
    QVERIFY(coloured.out.contains(QStringLiteral(" left, 0 devices so far")));
    QVERIFY(coloured.out.contains(QStringLiteral("\033[1m")));
    QVERIFY(!onTerminal("env NO_COLOR=1 TERM=xterm").out.contains(QStringLiteral("\033[1m")));

    const Run piped = lab("--response-delay 500-500 -- ssdp-discover --first");
    QVERIFY(!piped.out.contains(QLatin1Char('\033')));
    QVERIFY(!piped.out.contains(QLatin1Char('\r')));
}

void ToolsTest::discoverFindsDevicesOnBothInterfaces()
{
    const Run result =
        lab("--devices 2 --second-interface --response-delay 0-0 -- ssdp-discover --count 4 --timeout 20000");
    QCOMPARE(devicesOf(result),
             (QStringList{QStringLiteral("1 1 10.77.1.1"), QStringLiteral("1 2 10.77.1.2"),
                          QStringLiteral("1 3 10.78.1.1"), QStringLiteral("1 4 10.78.1.2")}));
}

void ToolsTest::discoverFindsAHundredDevices()
{
    // Within the three seconds that the search allows them.
    const Run result = lab("--devices 100 --event-gap 300 -- ssdp-discover --timeout 6000");
    QCOMPARE(devicesOf(result).size(), 100);
}

void ToolsTest::simulatorListsItsFaults()
{
    const Run result = lab("--devices 0 -- ssdp-simulator --list-faults");
    QCOMPARE(result.status, 0);
    QCOMPARE(result.lines().size(), Velmora::Simulator::SimulatedDevice::faults().size());
}

void ToolsTest::simulatorTellsOfWrongOptions_data()
{
    QTest::addColumn<QString>("option");
    for (const char* const option :
         {"--no-such-option", "--help-all", "--devices 0", "--first-address here", "--response-delay 5",
          "--response-delay 9-5", "--variables KO,,B", "--fault no-such-fault", "--fault 2:error-500",
          "--fault error-500=1", "--fault slow-http=0", "--fault die-after=birth", "argument"}) {
        QTest::newRow(option) << QString::fromLatin1(option);
    }
}

void ToolsTest::simulatorTellsOfWrongOptions()
{
    QFETCH(QString, option);
    const Run result = run(SSDP_LAB, words("--devices 0 -- ssdp-simulator") + option.split(QLatin1Char(' ')));
    QCOMPARE(result.status, 2);
    QVERIFY(result.err.startsWith(QStringLiteral("ssdp-simulator: ")));
}

void ToolsTest::simulatorTracesAndSums()
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
        texts << last.value(QStringLiteral("direction")).toString() + QLatin1Char(' ')
                + last.value(QStringLiteral("text")).toString().section(QLatin1Char(' '), 0, 0);
        if (texts.last() == QStringLiteral("in SUBSCRIBE"))
            subscription = last.value(QStringLiteral("text")).toString();
    }
    const QStringList expected = {QStringLiteral("in M-SEARCH"), QStringLiteral("in GET"),
                                  QStringLiteral("in SUBSCRIBE"), QStringLiteral("out NOTIFY")};
    for (const QString& text : expected)
        QVERIFY2(texts.contains(text), qPrintable(text));
    // The byte 0 that stands for port 49152 is part of the message.
    QVERIFY2(subscription.contains(QStringLiteral("HOST: 10.77.1.1:") + QChar(QChar::Null) + QLatin1Char('\n')),
             qPrintable(subscription));
    QVERIFY2(subscription.endsWith(QStringLiteral("TIMEOUT: Second-120\n\n")), qPrintable(subscription));
    const QJsonObject saw = last.value(QStringLiteral("saw")).toObject();
    QCOMPARE(saw.value(QStringLiteral("search")).toInt(), 1);
    QCOMPARE(saw.value(QStringLiteral("event")).toInt(), 1);
}

int main(int argc, char** argv)
{
    const Run probe = lab("--devices 0 -- true");
    if (probe.status != 0) {
        std::fputs(qPrintable(probe.err), stderr);
        return qEnvironmentVariableIntValue("VELMORA_REQUIRE_NETWORK") == 1 ? 1 : 77;
    }
    const QCoreApplication application(argc, argv);
    ToolsTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_tools.moc"

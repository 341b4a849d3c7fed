#include <tests/support/Literals.h>
#include <tests/wire/ToolRun.h>

#include <simulator/SimulatedDevice.h>
#include <tools/doctor/Findings.h>

#include <QtCore/QFile>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QMap>
#include <QtCore/QRandomGenerator>
#include <QtCore/QSet>
#include <QtTest/QtTest>

#include <algorithm>
#include <iterator>
#include <map>
#include <utility>
#include <vector>

using namespace Velmora::Tests;
using Velmora::Simulator::Fault;
using Velmora::Simulator::SimulatedDevice;

namespace {

const int TIMEOUT = 3000;

// Labs that run side by side; they wait for most of their time.
const int AT_ONCE = 8;

// Of faults, for a device each.
const int PAIRS = 50;
// More of them, of faults that each leave a device found: of the others, few pairs do.
const int HARMLESS_PAIRS = 20;

/// What a device with a fault has to come out as.
struct Expectation
{
    const char* fault; ///< As --fault takes it.
    bool isFound;
    QStringList findings; ///< One of them, and nothing else; none if it is empty.
};

const std::vector<Expectation>& expectations()
{
    const auto one = [](const char* id) { return QStringList(QString::fromLatin1(id)); };
    const QStringList gone = {"description.refused"_s, "description.closed"_s};
    static const std::vector<Expectation> list = {
        {"announce-only", true, one("search.announces-only")},
        {"crlf-search-only", false, one("search.crlf-only")},
        {"slow-answer=4000", false, one("search.late")},
        {"no-location", false, one("search.no-location")},
        {"location-garbage", false, one("search.location-no-url")},
        {"location-garbage=file:///etc/passwd", false, one("search.location-no-url")},
        {"location-other-host", false, one("search.location-other-host")},
        {"duplicate-responses", true, one("search.duplicates")},
        {"silent-http", false, one("description.silent")},
        {"slow-http=200", false, one("description.slow")},
        {"slow-http=5000", true, {}},
        {"reset-mid-body", false, one("description.reset")},
        {"wrong-length", false, one("description.long")},
        {"wrong-length=100", true, {"description.short+scpd.short"_s}},
        {"truncated-xml", false, one("description.not-xml")},
        {"deep-xml", false, one("description.out-of-bounds")},
        {"html-instead", false, one("description.not-xml")},
        {"redirect", false, one("description.redirect")},
        {"error-500", false, one("description.status")},
        {"namespace", false, one("description.namespace")},
        {"root-element", false, one("description.no-root")},
        {"description-prefix", false, one("description.prefix")},
        {"no-service", false, one("service.none")},
        {"service-type", false, one("service.type-version")},
        {"service-type=urn:schemas-velmora-it:service:KeyObjects:1", false, one("service.type-case")},
        {"service-type=urn:schemas-velmora-it:service:keyobjects:1 ", false, one("service.type-space")},
        {"service-type=urn:schemas-velmora-it:service:other:1", false, one("service.no-key-object")},
        {"embedded-service", false, one("service.embedded")},
        {"scpd-url", false, one("service.scpd-url")},
        {"event-url", true, one("service.event-url")},
        {"no-variable", false, one("scpd.no-variable")},
        {"refuse-subscribe", false, one("subscription.status")},
        {"standard-subscribe-only", false, one("subscription.standard-only")},
        {"never-answer-subscribe", false, one("subscription.silent")},
        {"no-sid", true, one("subscription.no-sid")},
        {"late-sid", true, one("subscription.late-sid")},
        {"no-event", false, one("event.none")},
        {"event-one-chunk", false, one("event.one-segment")},
        {"event-many-chunks", true, {}},
        {"event-unknown-path", false, one("event.unknown-path")},
        {"event-bad-xml", false, one("event.not-xml")},
        {"event-no-length", true, one("event.no-length")},
        {"event-length", false, one("event.long-length")},
        {"event-length=-20", true, one("event.short-length")},
        {"event-prefix", false, one("event.prefix")},
        {"event-no-ko", false, one("event.no-ko")},
        {"ko-malformed", false, one("event.ko-malformed")},
        {"die-after=search", false, gone},
        {"die-after=description", false, gone},
        {"die-after=scpd", false, gone},
        {"die-after=subscribe", false, gone},
        {"die-after=event-head", false, gone},
        {"die-after=event", true, gone},
    };
    return list;
}

QString address(int number)
{
    return "10.77.1.%1"_s.arg(number);
}

/// What ssdp-doctor --json says.
struct Answer
{
    QMap<QString, QJsonObject> devices; ///< By their addresses.
    QJsonObject host;

    QSet<QString> found() const
    {
        QSet<QString> result;
        for (auto it = devices.cbegin(); it != devices.cend(); ++it) {
            if (it->value("result") == "found"_s)
                result.insert(it.key());
        }
        return result;
    }

    QStringList findings(const QString& address) const { return idsOf(devices.value(address)); }
    QStringList hostFindings() const { return idsOf(host); }

private:
    static QStringList idsOf(const QJsonObject& object)
    {
        QStringList result;
        const QJsonArray findings = object.value("findings").toArray();
        for (const QJsonValue& finding : findings)
            result << finding.toObject().value("id").toString();
        return result;
    }
};

Answer answerOf(const Run& run)
{
    Answer answer;
    const QStringList lines = run.lines();
    for (const QString& line : lines) {
        const QJsonObject object = QJsonDocument::fromJson(line.toUtf8()).object();
        if (object.contains("host"))
            answer.host = object.value("host").toObject();
        else
            answer.devices.insert(object.value("sender").toString(), object);
    }
    return answer;
}

/// The addresses that ssdp-discover --json prints.
QSet<QString> discovered(const Run& run)
{
    QSet<QString> result;
    const QStringList lines = run.lines();
    for (const QString& line : lines)
        result.insert(QJsonDocument::fromJson(line.toUtf8()).object().value("address").toString());
    return result;
}

using Lab = std::unique_ptr<Program>;

Lab start(const QStringList& labOptions, const QStringList& command)
{
    return std::make_unique<Program>(QStringLiteral(SSDP_LAB), labOptions + QStringList("--"_s) + command);
}

QStringList doctor(const char* options = "")
{
    return words("ssdp-doctor --json --timeout") << QString::number(TIMEOUT) << words(options);
}

QStringList discover()
{
    return words("ssdp-discover --json --timeout") << QString::number(TIMEOUT);
}

QString joined(const QStringList& findings)
{
    return findings.join(QLatin1Char('+'));
}

/// How often a device was asked, as the trace of the simulator has it.
struct Requests
{
    int searches = 0;
    QMap<QString, int> gets; ///< By path.
    int subscriptions = 0;
};

QMap<QString, Requests> requestsOf(const QString& trace)
{
    QMap<QString, Requests> result;
    const QStringList lines = trace.split(QLatin1Char('\n'));
    for (const QString& line : lines) {
        const QJsonObject object = QJsonDocument::fromJson(line.toUtf8()).object();
        if (object.value("direction") != "in"_s)
            continue;
        const QStringList request = object.value("text").toString().split(QLatin1Char(' '));
        Requests& requests = result[object.value("device").toString()];
        if (request.constFirst() == "M-SEARCH"_s)
            ++requests.searches;
        else if (request.constFirst() == "GET"_s)
            ++requests.gets[request.value(1)];
        else if (request.constFirst() == "SUBSCRIBE"_s)
            ++requests.subscriptions;
    }
    return result;
}

} // namespace

/// ssdp-doctor against simulated devices.
class DoctorTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:

    /// Starts what the tests look at: side by side, since each run lasts for seconds and does little.
    void initTestCase()
    {
        const int count = static_cast<int>(expectations().size());
        QStringList faults = words("--response-delay 0-300 --trace --json --devices") << QString::number(count);
        for (int i = 0; i < count; ++i)
            faults << "--fault"
                   << "%1:%2"_s.arg(i + 1).arg(QLatin1String(expectations()[static_cast<size_t>(i)].fault));
        start("faults, examined", faults, doctor());
        start("faults, searched", faults, discover());

        QRandomGenerator random(qEnvironmentVariableIsSet("VELMORA_DOCTOR_SEED")
                                    ? qEnvironmentVariable("VELMORA_DOCTOR_SEED").toUInt()
                                    : 1);
        QStringList all;
        QStringList harmless;
        for (const Expectation& expectation : expectations()) {
            all << QString::fromLatin1(expectation.fault);
            if (expectation.isFound)
                harmless << all.constLast();
        }
        for (int i = 0; i < 2 * (PAIRS + HARMLESS_PAIRS); ++i) {
            const QStringList& faults = i < 2 * PAIRS ? all : harmless;
            pairs << "--fault"
                  << "%1:%2"_s.arg(i / 2 + 1).arg(faults.at(random.bounded(static_cast<int>(faults.size()))));
        }
        const QStringList twice = words("--response-delay 0-300 --devices")
            << QString::number(PAIRS + HARMLESS_PAIRS) << pairs;
        start("pairs, examined", twice, doctor());
        start("pairs, searched", twice, discover());

        // One is found, one is not, one is silent and named, one is silent and nobody's business.
        start("requests",
              words("--devices 4 --variables KO,A --response-delay 0-0 --fault 2:no-event"
                    " --fault 3:unicast-search-only --fault 4:ignore-search --trace --json"),
              doctor("10.77.1.1 10.77.1.2 10.77.1.3"));
        start("named",
              words("--devices 3 --response-delay 0-0 --fault 2:unicast-search-only --fault 3:ignore-search"),
              doctor("10.77.1.2 10.77.1.3"));

        // A socket that does not share holds the port while the doctor looks.
        const QString holder = "import socket, subprocess, sys\n"
                               "s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\n"
                               "s.bind(('0.0.0.0', 1900))\n"
                               "sys.exit(subprocess.call(['ssdp-doctor', '--json', '--timeout', '100']))\n"_s;
        start("port taken", words("--devices 1"), words("python3 -c") << holder);
        start("no group", words("--devices 0"),
              words("sh -c") << "echo 0 >/proc/sys/net/ipv4/igmp_max_memberships;"
                                " exec ssdp-doctor --json --timeout 100"_s);
        start("no interface", words("--devices 0"),
              words("sh -c") << "ip link set host0 down; exec ssdp-doctor --json"_s);
        start("silence", words("--devices 0"), words("ssdp-doctor --timeout 100"));
        start("person", words("--devices 2 --response-delay 0-0 --fault 2:error-500"),
              words("ssdp-doctor --timeout 1000"));
        start("trace", words("--devices 1 --response-delay 0-0"), words("ssdp-doctor --timeout 500 --trace"));
    }

    void everyFaultIsNamed()
    {
        const int count = static_cast<int>(expectations().size());
        const Run run = finish("faults, examined");
        QCOMPARE(run.status, 1);
        const Answer answer = answerOf(run);
        QCOMPARE(answer.hostFindings(), QStringList());
        for (int i = 0; i < count; ++i) {
            const Expectation& expected = expectations()[static_cast<size_t>(i)];
            const QString device = address(i + 1);
            const QString seen = joined(answer.findings(device));
            const bool isExpected =
                expected.findings.isEmpty() ? seen.isEmpty() : expected.findings.contains(seen);
            QVERIFY2(isExpected, qPrintable("%1: %2"_s.arg(QLatin1String(expected.fault), seen)));
            QVERIFY2(answer.found().contains(device) == expected.isFound, expected.fault);
        }
        QCOMPARE(answer.found(), discovered(finish("faults, searched")));

        const QMap<QString, Requests> requests = requestsOf(run.err);
        QVERIFY(requests.size() > count / 2);
        for (auto it = requests.cbegin(); it != requests.cend(); ++it) {
            QVERIFY2(it->searches <= 3, qPrintable(it.key()));
            QVERIFY2(it->subscriptions <= 2, qPrintable(it.key()));
            for (const int count : it->gets)
                QVERIFY2(count <= 2, qPrintable(it.key()));
        }
    }

    void everyFaultHasAnExpectation()
    {
        QSet<QString> expected = {"unicast-search-only"_s, "ignore-search"_s};
        for (const Expectation& expectation : expectations())
            expected.insert(QString::fromLatin1(expectation.fault).section(QLatin1Char('='), 0, 0));
        for (const Fault& fault : SimulatedDevice::faults())
            QVERIFY2(expected.contains(QString::fromLatin1(fault.name)), fault.name);
    }

    void agreesWithDiscover()
    {
        const Answer answer = answerOf(finish("pairs, examined"));
        QVERIFY2(!answer.found().isEmpty(), qPrintable(pairs.join(QLatin1Char(' '))));
        const QSet<QString> found = discovered(finish("pairs, searched"));
        QVERIFY2(answer.found() == found,
                 qPrintable(QStringList((answer.found() - found).values() + (found - answer.found()).values())
                                .join(QLatin1Char(' '))
                            + " of "_s + pairs.join(QLatin1Char(' '))));
        for (auto it = answer.devices.cbegin(); it != answer.devices.cend(); ++it) {
            if (!found.contains(it.key()))
                QVERIFY2(answer.findings(it.key()).size() == 1, qPrintable(it.key()));
        }
    }

    void goodDevicesAreFoundAndNothingElse()
    {
        // Within MX, as devices answer; the rest of the time-out is for reading them.
        static const char* const options[] = {
            "--devices 5 --response-delay 0-0",
            "--devices 5 --response-delay 100-2500",
            "--devices 5 --event-tail --response-delay 0-500",
            "--devices 5 --variables KO,A,B,C --services 4 --response-delay 0-500",
            "--devices 5 --variables A,KO --event-every 300 --announce-every 700 --response-delay 0-500",
            "--devices 2 --second-interface --response-delay 0-500",
            "--devices 5 --event-gap 300 --event-tail --response-delay 0-200",
            ("--devices 20 --event-gap 100 --function-code -5 --univocal-code 2146000000 --port 80 "
             "--response-delay "
             "0-900"),
        };
        const int kinds = static_cast<int>(std::size(options));
        const int runs = qMax(kinds, qEnvironmentVariableIntValue("VELMORA_DOCTOR_RUNS"));
        for (int first = 0; first < runs; first += AT_ONCE) {
            std::vector<std::pair<QByteArray, Lab>> labs;
            for (int i = first; i < qMin(runs, first + AT_ONCE); ++i) {
                const QByteArray text = options[i % kinds] + " --seed "_ba + QByteArray::number(i * 100 + 1);
                labs.emplace_back(text, ::start(words(text.constData()), doctor()));
            }
            for (const auto& lab : labs) {
                const Run run = lab.second->finish();
                const Answer answer = answerOf(run);
                const int devices =
                    words(lab.first.constData()).at(1).toInt() * (lab.first.contains("second") ? 2 : 1);
                QVERIFY2(run.status == 0, (lab.first + run.out.toUtf8() + run.err.toUtf8()).constData());
                QCOMPARE(answer.found().size(), devices);
                QCOMPARE(answer.devices.size(), devices);
                QCOMPARE(answer.hostFindings(), QStringList());
                for (auto it = answer.devices.cbegin(); it != answer.devices.cend(); ++it) {
                    const QString findings = joined(answer.findings(it.key()));
                    QVERIFY2(findings.isEmpty(), (lab.first + ": " + findings.toUtf8()).constData());
                }
            }
        }
    }

    void asksNoMoreThanItMay()
    {
        const Run run = finish("requests");
        QCOMPARE(run.status, 1);
        const QMap<QString, Requests> requests = requestsOf(run.err);
        for (const int number : {1, 2}) {
            const Requests seen = requests.value(address(number));
            QCOMPARE(seen.searches, 2);
            QCOMPARE(seen.gets.size(), 2);
            for (const int count : seen.gets)
                QCOMPARE(count, 2);
            // The library's is one for each variable.
            QCOMPARE(seen.subscriptions, 3);
        }
        // The simulator does not trace what a device does not hear.
        QCOMPARE(requests.value(address(3)).searches, 1);
        QCOMPARE(requests.value(address(3)).gets.size(), 0);
        QVERIFY(!requests.contains(address(4)));
    }

    void searchesANamedAddressAlone()
    {
        const Run run = finish("named");
        const Answer answer = answerOf(run);
        QCOMPARE(run.status, 1);
        QCOMPARE(answer.devices.size(), 2);
        QCOMPARE(joined(answer.findings(address(2))), "search.unicast-only"_s);
        QCOMPARE(joined(answer.findings(address(3))), "search.silent"_s);
    }

    void tellsWhyTheHostCannotSearch()
    {
        const Run run = finish("port taken");
        if (run.status == 127)
            QSKIP("no python3 here");
        QCOMPARE(joined(answerOf(run).hostFindings()), "host.port-taken"_s);
        QVERIFY2(run.out.contains("python3 ("), qPrintable(run.out));
        QCOMPARE(run.status, 3);
        QCOMPARE(joined(answerOf(finish("no group")).hostFindings()), "host.no-group"_s);
        QCOMPARE(joined(answerOf(finish("no interface")).hostFindings()), "host.no-interface"_s);
    }

    void explainsSilence()
    {
        const Run run = finish("silence");
        QCOMPARE(run.status, 3);
        QVERIFY(run.out.contains("Nothing answered"));
        QVERIFY(run.out.contains("another network"));
    }

    void failsOnWrongOptions_data()
    {
        QTest::addColumn<QStringList>("options");
        for (const char* const text : {"--nonsense", "--timeout 0", "--timeout soon", "10.77", "nobody",
                                       "239.255.255.250", "0.0.0.0", "255.255.255.255", "::1"})
            QTest::newRow(text) << words(text);
    }

    void failsOnWrongOptions()
    {
        QFETCH(QStringList, options);
        const Run result = run("ssdp-doctor", options);
        QCOMPARE(result.status, 2);
        QVERIFY(result.out.isEmpty());
        QVERIFY(result.err.contains("ssdp-doctor: "));
    }

    void printsForAPerson()
    {
        const QStringList lines = finish("person").lines();
        QCOMPARE(lines.size(), 7);
        QVERIFY(lines.at(1).startsWith("found      10.77.1.1  function 1, univocal 1, after "));
        QCOMPARE(lines.at(2), "NOT FOUND  10.77.1.2  http://10.77.1.2:49152/description.xml"_s);
        QVERIFY(lines.at(3).endsWith("with an error. Seen: 500 Internal Server Error"));
        QVERIFY(lines.at(4).endsWith("(docs/protocol.md, section 3)."));
        QCOMPARE(lines.at(5).trimmed(), "[description.status]"_s);
        QVERIFY(lines.at(6).startsWith("1 of 2 devices found in "));
    }

    void endsWithTheReportWhenInterrupted()
    {
        Program lab("--devices 1 --response-delay 0-0 -- ssdp-doctor --timeout 3600000 --trace");
        // The event of the device has come, and so its report.
        QVERIFY(lab.waitFor("<KO>1,1</KO>", QProcess::StandardError));
        lab.signal(SIGINT);
        const Run run = lab.finish();
        QCOMPARE(run.status, 0);
        QVERIFY2(run.out.contains("1 of 1 device found in "), qPrintable(run.out));
    }

    void stopsWhenNobodyReads()
    {
        const Run run = shell("$lab --devices 1 -- ssdp-doctor --timeout 100 | true;"
                              " echo ${PIPESTATUS[0]}; $lab --devices 0 -- ssdp-doctor --help"
                              " >/dev/full; echo $?"_s);
        QCOMPARE(run.lines(), (QStringList{"141", "4"}));
    }

    void tracesEveryMessage()
    {
        const QString trace = finish("trace").err;
        for (const char* const text :
             {"-> 239.255.255.250:1900\n    M-SEARCH * HTTP/1.1\\r\\n",
              "<- 10.77.1.1:1900\n    HTTP/1.1 200 OK\\r\\n", "    GET /description.xml HTTP/1.1\\r\\n",
              "    HOST: 10.77.1.1:\\x00\\n", "<KO>1,1</KO>"})
            QVERIFY2(trace.contains(QString::fromLatin1(text)), text);
        for (const QChar character : trace)
            QVERIFY(character == QLatin1Char('\n')
                    || (character >= QLatin1Char(' ') && character <= QLatin1Char('~')));
    }

private:
    void start(const char* name, const QStringList& labOptions, const QStringList& command)
    {
        labs[name] = ::start(labOptions, command);
    }

    Run finish(const char* name) { return labs.at(name)->finish(); }

    std::map<QByteArray, Lab> labs;
    QStringList pairs; ///< Of faults, as the options of the lab.
};

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    if (const int status = prepareTools())
        return status;
    DoctorTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_doctor.moc"

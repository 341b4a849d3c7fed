#include <tests/support/Literals.h>
#include <tests/wire/ToolRun.h>

#include <simulator/SimulatedDevice.h>

#include <QtCore/QJsonArray>
#include <QtCore/QRandomGenerator>
#include <QtCore/QSet>
#include <QtTest/QtTest>

#include <vector>

using namespace Velmora::Tests;
using Velmora::Simulator::Fault;
using Velmora::Simulator::SimulatedDevice;

namespace {

const char DOCTOR[] = "-- ssdp-doctor --json --timeout 3000";
const char DISCOVER[] = "-- ssdp-discover --json --timeout 3000";

// Labs that run side by side; they wait for most of their time.
const int AT_ONCE = 8;

// Of faults, for a device each.
const int PAIRS = 50;
// More of them, of faults that each leave a device found: of the others, few pairs do.
const int HARMLESS_PAIRS = 20;

// A device that has gone refuses connections, or closes the last one.
const char GONE[] = "description.refused|description.closed";

/// What a device with a fault has to come out as.
const struct Expectation
{
    Fault::Id fault;
    bool isFound;
    const char* findings; ///< As in "a+b"; several possibilities as in "a|b".
    const char* value = nullptr; ///< Of the fault; null for the standard one.

    QString text() const { return Fault::text(fault, value); }
} EXPECTATIONS[] = {
    {Fault::AnnounceOnly, true, "search.announces-only"},
    {Fault::CrlfSearchOnly, false, "search.crlf-only"},
    {Fault::SlowAnswer, false, "search.late", "4000"},
    {Fault::NoLocation, false, "search.no-location"},
    {Fault::LocationGarbage, false, "search.location-no-url"},
    {Fault::LocationGarbage, false, "search.location-no-url", "file:///etc/passwd"},
    {Fault::LocationOtherHost, false, "search.location-other-host"},
    {Fault::DuplicateResponses, true, "search.duplicates"},
    {Fault::SilentHttp, false, "description.silent"},
    {Fault::SlowHttp, false, "description.slow", "200"},
    {Fault::SlowHttp, true, "", "5000"},
    {Fault::ResetMidBody, false, "description.reset"},
    {Fault::WrongLength, false, "description.long"},
    {Fault::WrongLength, true, "description.short+scpd.short", "100"},
    {Fault::TruncatedXml, false, "description.not-xml"},
    {Fault::DeepXml, false, "description.out-of-bounds"},
    {Fault::HtmlInstead, false, "description.not-xml"},
    {Fault::Redirect, false, "description.redirect"},
    {Fault::Error500, false, "description.status"},
    {Fault::Namespace, false, "description.namespace"},
    {Fault::RootElement, false, "description.no-root"},
    {Fault::DescriptionPrefix, false, "description.prefix"},
    {Fault::NoService, false, "service.none"},
    {Fault::ServiceType, false, "service.type-version"},
    {Fault::ServiceType, false, "service.type-case", "urn:schemas-velmora-it:service:KeyObjects:1"},
    {Fault::ServiceType, false, "service.type-space", "urn:schemas-velmora-it:service:keyobjects:1 "},
    {Fault::ServiceType, false, "service.no-key-object", "urn:schemas-velmora-it:service:other:1"},
    {Fault::EmbeddedService, false, "service.embedded"},
    {Fault::ScpdUrl, false, "service.scpd-url"},
    {Fault::EventUrl, true, "service.event-url"},
    {Fault::NoVariable, false, "scpd.no-variable"},
    {Fault::RefuseSubscribe, false, "subscription.status"},
    {Fault::StandardSubscribeOnly, false, "subscription.standard-only"},
    {Fault::NeverAnswerSubscribe, false, "subscription.silent"},
    {Fault::NoSid, true, "subscription.no-sid"},
    {Fault::LateSid, true, "subscription.late-sid"},
    {Fault::NoEvent, false, "event.none"},
    {Fault::EventOneChunk, false, "event.one-segment"},
    {Fault::EventManyChunks, true, ""},
    {Fault::EventUnknownPath, false, "event.unknown-path"},
    {Fault::EventBadXml, false, "event.not-xml"},
    {Fault::EventNoLength, true, "event.no-length"},
    {Fault::EventLength, false, "event.long-length"},
    {Fault::EventLength, true, "event.short-length", "-20"},
    {Fault::EventPrefix, false, "event.prefix"},
    {Fault::EventNoKo, false, "event.no-ko"},
    {Fault::KoMalformed, false, "event.ko-malformed"},
    {Fault::DieAfter, false, GONE, "search"},
    {Fault::DieAfter, false, GONE, "description"},
    {Fault::DieAfter, false, GONE, "scpd"},
    {Fault::DieAfter, false, GONE, "subscribe"},
    {Fault::DieAfter, false, GONE, "event-head"},
    {Fault::DieAfter, true, GONE, "event"},
};

QString address(int number)
{
    return "10.77.1.%1"_s.arg(number);
}

/// The findings of a device or of the host, as in "a+b".
QString findingsOf(const QJsonObject& object)
{
    QStringList result;
    const QJsonArray findings = object.value("findings").toArray();
    for (const auto& finding : findings)
        result << finding.toObject().value("id").toString();
    return result.join("+");
}

/// What ssdp-doctor --json says.
struct Answer
{
    explicit Answer(const Run& run)
    {
        const QStringList lines = run.lines();
        for (const QString& line : lines) {
            const QJsonObject object = jsonOf(line);
            if (object.contains("host"))
                host = findingsOf(object.value("host").toObject());
            else
                devices.insert(object.value("sender").toString(), findingsOf(object));
            if (object.value("result") == "found"_s)
                found.insert(object.value("sender").toString());
        }
    }

    QMap<QString, QString> devices; ///< Their findings, by their addresses.
    QSet<QString> found;
    QString host;
};

/// The addresses that ssdp-discover --json prints.
QSet<QString> discovered(const Run& run)
{
    QSet<QString> result;
    const QStringList lines = run.lines();
    for (const QString& line : lines)
        result.insert(jsonOf(line).value("address").toString());
    return result;
}

/// How often a device was asked, as the trace of the simulator has it.
struct Requests
{
    int searches = 0;
    QMap<QString, int> gets; ///< By path.
    int subscriptions = 0;
};

QMap<QString, Requests> requestsOf(const Run& run)
{
    QMap<QString, Requests> result;
    const QStringList lines = run.errorLines();
    for (const QString& line : lines) {
        const QJsonObject object = jsonOf(line);
        if (object.value("direction") != "in"_s)
            continue;
        const QStringList request = object.value("text").toString().split(" ");
        Requests& requests = result[object.value("device").toString()];
        requests.searches += request.constFirst() == "M-SEARCH" ? 1 : 0;
        requests.subscriptions += request.constFirst() == "SUBSCRIBE" ? 1 : 0;
        if (request.constFirst() == "GET")
            ++requests.gets[request.value(1)];
    }
    return result;
}

} // namespace

/// ssdp-doctor against simulated devices.
class DoctorTest : public QObject
{
    Q_OBJECT

private:
    /// Runs both programs against the same devices.
    void startBoth(const QByteArray& name, const QStringList& devices)
    {
        running[name + ", examined"] = startLab(devices + words(DOCTOR));
        running[name + ", searched"] = startLab(devices + words(DISCOVER));
    }

    Run finish(const QByteArray& name) { return running.at(name)->finish(); }

    Programs running;
    QStringList pairs; ///< Of faults, as the options of the lab.

private Q_SLOTS:

    /// Starts what the tests look at: side by side, since each run lasts for seconds and does little.
    void initTestCase()
    {
        QStringList all;
        QStringList harmless;
        QStringList each;
        for (const Expectation& expectation : EXPECTATIONS) {
            all << expectation.text();
            if (expectation.isFound)
                harmless << all.constLast();
            each << "--fault"
                 << "%1:%2"_s.arg(all.size()).arg(all.constLast());
        }
        startBoth("faults", words("--response-delay 0-300 --trace --json --devices %1"_s.arg(all.size())) + each);

        QRandomGenerator random(qEnvironmentVariable("VELMORA_DOCTOR_SEED", "1").toUInt());
        for (int i = 0; i < 2 * (PAIRS + HARMLESS_PAIRS); ++i) {
            const QStringList& faults = i < 2 * PAIRS ? all : harmless;
            const QString& fault = faults.at(random.bounded(static_cast<int>(faults.size())));
            pairs << "--fault"
                  << "%1:%2"_s.arg(i / 2 + 1).arg(fault);
        }
        // A busy machine reads head and body of an event together if the gap is short.
        const QString many = "--response-delay 0-300 --event-gap 300 --devices %1"_s;
        startBoth("pairs", words(many.arg(PAIRS + HARMLESS_PAIRS)) + pairs);

        // One is found, one is not, one is silent and named, one is silent and nobody's business.
        running["requests"] = startLab("--devices 4 --variables KO,A --response-delay 0-0 --fault 2:no-event"
                                       " --fault 3:unicast-search-only --fault 4:ignore-search --trace --json "_s
                                       + DOCTOR + " 10.77.1.1 10.77.1.2 10.77.1.3");
        running["named"] = startLab("--devices 3 --response-delay 0-0 --fault 2:unicast-search-only"
                                    " --fault 3:ignore-search "_s
                                    + DOCTOR + " 10.77.1.2 10.77.1.3");

        // A socket that does not share holds the port while the doctor looks.
        running["port taken"] =
            startLab("--devices 1 -- python3 -c",
                     "import socket, subprocess, sys\n"
                     "s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\n"
                     "s.bind(('0.0.0.0', 1900))\n"
                     "sys.exit(subprocess.call(['ssdp-doctor', '--json', '--timeout', '100']))\n");
        running["no group"] = startLab("--devices 0 -- sh -c",
                                       "echo 0 >/proc/sys/net/ipv4/igmp_max_memberships;"
                                       " exec ssdp-doctor --json --timeout 100");
        running["no interface"] =
            startLab("--devices 0 -- sh -c", "ip link set host0 down; exec ssdp-doctor --json");
        running["silence"] = startLab("--devices 0 -- ssdp-doctor --timeout 100");
        running["person"] = startLab("--devices 2 --response-delay 0-0 --fault 2:error-500 -- "
                                     "ssdp-doctor --timeout 1000");
        running["trace"] = startLab("--devices 1 --response-delay 0-0 -- ssdp-doctor --timeout 500 --trace");
    }

    void everyFaultHasAnExpectation()
    {
        QSet<Fault::Id> expected = {Fault::UnicastSearchOnly, Fault::IgnoreSearch};
        for (const Expectation& expectation : EXPECTATIONS)
            expected.insert(expectation.fault);
        for (const Fault& fault : SimulatedDevice::faults())
            QVERIFY2(expected.contains(fault.id), fault.name);
    }

    void everyFaultIsNamed()
    {
        const Run run = finish("faults, examined");
        QCOMPARE(run.status, 1);
        const Answer answer(run);
        QCOMPARE(answer.host, "");
        int number = 0;
        for (const Expectation& expected : EXPECTATIONS) {
            const QString device = address(++number);
            const QString seen = answer.devices.value(device);
            QVERIFY2(QString(expected.findings).split("|").contains(seen),
                     qPrintable(expected.text() + ": " + seen));
            QVERIFY2(answer.found.contains(device) == expected.isFound, qPrintable(expected.text()));
        }
        QCOMPARE(answer.found, discovered(finish("faults, searched")));

        const QMap<QString, Requests> requests = requestsOf(run);
        QVERIFY(requests.size() > number / 2);
        for (auto it = requests.cbegin(); it != requests.cend(); ++it) {
            QVERIFY2(it->searches <= 3, qPrintable(it.key()));
            QVERIFY2(it->subscriptions <= 2, qPrintable(it.key()));
            for (const int count : it->gets)
                QVERIFY2(count <= 2, qPrintable(it.key()));
        }
    }

    void agreesWithDiscover()
    {
        const Answer answer(finish("pairs, examined"));
        QVERIFY2(!answer.found.isEmpty(), qPrintable(pairs.join(" ")));
        const QSet<QString> found = discovered(finish("pairs, searched"));
        const QSet<QString> different = (answer.found - found) + (found - answer.found);
        const QString addresses = QStringList(different.values()).join(" ");
        QVERIFY2(different.isEmpty(), qPrintable(addresses + " of " + pairs.join(" ")));
        for (auto it = answer.devices.cbegin(); it != answer.devices.cend(); ++it) {
            if (!found.contains(it.key()))
                QVERIFY2(!it->isEmpty() && !it->contains("+"), qPrintable(it.key()));
        }
    }

    /// After the tests above, whose programs have ended by now: a busy machine makes good devices look bad.
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
             "--response-delay 0-900"),
        };
        const int kinds = static_cast<int>(std::size(options));
        const int runs = qMax(kinds, qEnvironmentVariableIntValue("VELMORA_DOCTOR_RUNS"));
        for (int first = 0; first < runs; first += AT_ONCE) {
            std::vector<std::pair<QString, Running>> labs;
            for (int i = first; i < qMin(runs, first + AT_ONCE); ++i) {
                const QString text = "%1 --seed %2 "_s.arg(options[i % kinds]).arg(i * 100 + 1);
                labs.emplace_back(text, startLab(text + DOCTOR));
            }
            for (const auto& lab : labs) {
                const Run run = lab.second->finish();
                const Answer answer(run);
                const int devices = words(lab.first).at(1).toInt() * (lab.first.contains("second") ? 2 : 1);
                QVERIFY2(run.status == 0, qPrintable(lab.first + run.out + run.err));
                QCOMPARE(answer.found.size(), devices);
                QCOMPARE(answer.devices.size(), devices);
                QCOMPARE(answer.host, "");
                const QString findings = QStringList(answer.devices.values()).join("");
                QVERIFY2(findings.isEmpty(), qPrintable(lab.first + findings));
            }
        }
    }

    void asksNoMoreThanItMay()
    {
        const Run run = finish("requests");
        QCOMPARE(run.status, 1);
        const QMap<QString, Requests> requests = requestsOf(run);
        for (const int number : {1, 2}) {
            const Requests seen = requests.value(address(number));
            QCOMPARE(seen.searches, 2);
            QCOMPARE(seen.gets.values(), (QList<int>{2, 2}));
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
        QCOMPARE(run.status, 1);
        const QMap<QString, QString> expected = {{address(2), "search.unicast-only"},
                                                 {address(3), "search.silent"}};
        QCOMPARE(Answer(run).devices, expected);
    }

    void tellsWhyTheHostCannotSearch()
    {
        const Run run = finish("port taken");
        if (run.status == 127)
            QSKIP("no python3 here");
        QCOMPARE(Answer(run).host, "host.port-taken");
        QVERIFY2(run.out.contains("python3 ("), qPrintable(run.out));
        QCOMPARE(run.status, 3);
        QCOMPARE(Answer(finish("no group")).host, "host.no-group");
        QCOMPARE(Answer(finish("no interface")).host, "host.no-interface");
    }

    void explainsSilence()
    {
        const Run run = finish("silence");
        QCOMPARE(run.status, 3);
        QVERIFY(run.out.contains("Nothing answered"));
        QVERIFY(run.out.contains("another network"));
    }

    void printsForAPerson()
    {
        const QStringList lines = finish("person").lines();
        QCOMPARE(lines.size(), 7);
        QVERIFY(lines.at(1).startsWith("found      10.77.1.1  function 1, univocal 1, after "));
        QCOMPARE(lines.at(2), "NOT FOUND  10.77.1.2  http://10.77.1.2:49152/description.xml");
        QVERIFY(lines.at(3).endsWith("with an error. Seen: 500 Internal Server Error"));
        QVERIFY(lines.at(4).endsWith("(docs/protocol.md, section 3)."));
        QCOMPARE(lines.at(5).trimmed(), "[description.status]");
        QVERIFY(lines.at(6).startsWith("1 of 2 devices found in "));
    }

    void endsWithTheReportWhenInterrupted()
    {
        const Running program =
            startLab("--devices 1 --response-delay 0-0 -- ssdp-doctor --timeout 3600000 --trace");
        // The event of the device has come, and so its report.
        QVERIFY(program->waitFor("<KO>1,1</KO>", QProcess::StandardError));
        program->signal(SIGINT);
        const Run run = program->finish();
        QCOMPARE(run.status, 0);
        QVERIFY2(run.out.contains("1 of 1 device found in "), qPrintable(run.out));
    }

    void stopsWhenNobodyReads()
    {
        const Run run = shell("$lab --devices 1 -- ssdp-doctor --timeout 100 | true; echo ${PIPESTATUS[0]};"
                              " $lab --devices 0 -- ssdp-doctor --help >/dev/full; echo $?");
        QCOMPARE(run.lines(), (QStringList{"141", "4"}));
    }

    void tracesEveryMessage()
    {
        const QString trace = finish("trace").err;
        for (const char* const text :
             {"-> 239.255.255.250:1900\n    M-SEARCH * HTTP/1.1\\r\\n",
              "<- 10.77.1.1:1900\n    HTTP/1.1 200 OK\\r\\n", "    GET /description.xml HTTP/1.1\\r\\n",
              "    HOST: 10.77.1.1:\\x00\\n", "<KO>1,1</KO>"})
            QVERIFY2(trace.contains(text), text);
        static const QRegularExpression unprintable("[^\n -~]");
        QVERIFY(!trace.contains(unprintable));
    }
};

VELMORA_TOOL_TEST_MAIN(DoctorTest)

#include "tst_doctor.moc"

#include <tests/support/Literals.h>
#include <tests/wire/ToolRun.h>

#include <simulator/SimulatedDevice.h>

#include <QtCore/QJsonArray>
#include <QtCore/QRandomGenerator>
#include <QtCore/QSet>
#include <QtTest/QtTest>

using namespace Velmora::Tests;
using Velmora::Simulator::Fault;
using Velmora::Simulator::SimulatedDevice;

namespace {

const char DOCTOR[] = "-- ssdp-doctor --json --timeout 3000";
const char DISCOVER[] = "-- ssdp-discover --json --timeout 3000";

// Each device of a pair test has two faults. Most of these devices are not found. So there are also pairs of
// harmless faults. A fault is harmless if a device with this fault alone is found.
const int PAIRS = 50;
const int HARMLESS_PAIRS = 20;

// A device that has shut down refuses the next connection or closes an open one.
const char GONE[] = "description.refused|description.closed";

/// What the doctor has to say about a device with a fault.
const struct Expectation
{
    Fault::Id fault;
    bool isFound;
    const char* findings; ///< "a+b" are two findings, "a|b" two possibilities.
    const char* value = nullptr; ///< Of the fault. Null: the standard value.

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
    {Fault::EventManyChunks, true, "", "4"},
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

/// The findings of a device or of the host, as in "a+b".
QString findingsOf(const QJsonObject& object)
{
    QStringList result;
    const QJsonArray findings = object.value("findings").toArray();
    for (const auto& finding : findings)
        result << finding.toObject().value("id").toString();
    return result.join("+");
}

/// The output of ssdp-doctor --json.
struct Answer
{
    explicit Answer(const Run& run)
    {
        const QList<QJsonObject> objects = objectsOf(run.out);
        for (const QJsonObject& object : objects) {
            const QString sender = object.value("sender").toString();
            if (object.contains("host"))
                host = findingsOf(object.value("host").toObject());
            else
                devices.insert(sender, findingsOf(object));
            if (object.value("result") == "found"_s)
                found.insert(sender);
        }
    }

    QMap<QString, QString> devices; ///< The findings of each address.
    QSet<QString> found;
    QString host;
};

/// The addresses in the output of ssdp-discover --json.
QSet<QString> discovered(const Run& run)
{
    QSet<QString> result;
    const QList<QJsonObject> objects = objectsOf(run.out);
    for (const QJsonObject& object : objects)
        result.insert(object.value("address").toString());
    return result;
}

/// How often a device got a request, by its method. A GET has its path, too.
using Requests = QMap<QString, int>;

/// The requests of each device in the trace of the simulator.
QMap<QString, Requests> requestsOf(const Run& run)
{
    QMap<QString, Requests> result;
    const QList<QJsonObject> objects = objectsOf(run.err);
    for (const QJsonObject& object : objects) {
        const QString text = object.value("text").toString();
        if (object.value("direction") == "in"_s)
            ++result[object.value("device").toString()][text.section(" ", 0, text.startsWith("GET ") ? 1 : 0)];
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

    /// Starts what the tests look at.
    void initTestCase()
    {
        QStringList all;
        QStringList harmless;
        QStringList each;
        for (const Expectation& expectation : EXPECTATIONS) {
            all << expectation.text();
            if (expectation.isFound)
                harmless << all.constLast();
            each << QStringList{"--fault", "%1:%2"_s.arg(all.size()).arg(all.constLast())};
        }
        // If the gap is short, a busy machine reads head and body of an event together.
        const QString many = "--response-delay 0-300 --event-gap 300 --devices %1 "_s;
        startBoth("faults", words(many.arg(all.size()) + "--trace --json") + each);

        QRandomGenerator random(qEnvironmentVariable("VELMORA_DOCTOR_SEED", "1").toUInt());
        for (int i = 0; i < 2 * (PAIRS + HARMLESS_PAIRS); ++i) {
            const QStringList& faults = i < 2 * PAIRS ? all : harmless;
            const QString& fault = faults.at(random.bounded(static_cast<int>(faults.size())));
            pairs << QStringList{"--fault", "%1:%2"_s.arg(i / 2 + 1).arg(fault)};
        }
        startBoth("pairs", words(many.arg(PAIRS + HARMLESS_PAIRS)) + pairs);

        // One is found, one is not, one is silent and named, one is silent and not named.
        running["requests"] = startLab("--devices 4 --variables KO,A --response-delay 0-0 --fault 2:no-event"
                                       " --fault 3:unicast-search-only --fault 4:ignore-search --trace --json "_s
                                       + DOCTOR + " 10.77.1.1 10.77.1.2 10.77.1.3");
        running["named"] = startLab("--devices 3 --response-delay 0-0 --fault 2:unicast-search-only"
                                    " --fault 3:ignore-search "_s
                                    + DOCTOR + " 10.77.1.2 10.77.1.3");

        // While the doctor runs, another socket has the port and does not share it.
        running["port taken"] = startLab("-- python3 -c", R"(
import socket, subprocess, sys
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.bind(('0.0.0.0', 1900))
sys.exit(subprocess.call(['ssdp-doctor', '--json', '--timeout', '100'])))");
        const QString doctor = "exec ssdp-doctor --json --timeout 100"_s;
        running["no group"] =
            startLab("--devices 0 -- sh -c", "echo 0 >/proc/sys/net/ipv4/igmp_max_memberships; " + doctor);
        running["no interface"] = startLab("--devices 0 -- sh -c", "ip link set host0 down; " + doctor);
        running["silence"] = startLab("--devices 0 -- ssdp-doctor --timeout 100");
        running["person"] = startLab("--devices 2 --response-delay 0-0 --fault 2:error-500 -- "
                                     "ssdp-doctor --timeout 1000");
        running["trace"] = startLab("--response-delay 0-0 -- ssdp-doctor --timeout 500 --trace");
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
            const QString device = "10.77.1.%1"_s.arg(++number);
            const QString seen = answer.devices.value(device);
            QVERIFY2(QString(expected.findings).split("|").contains(seen),
                     qPrintable(expected.text() + ": " + seen));
            QVERIFY2(answer.found.contains(device) == expected.isFound, qPrintable(expected.text()));
        }
        QCOMPARE(answer.found, discovered(finish("faults, searched")));

        const QMap<QString, Requests> requests = requestsOf(run);
        QVERIFY(requests.size() > number / 2);
        for (auto device = requests.cbegin(); device != requests.cend(); ++device) {
            for (auto it = device->cbegin(); it != device->cend(); ++it)
                QVERIFY2(it.value() <= (it.key() == "M-SEARCH" ? 3 : 2), qPrintable(device.key() + it.key()));
        }
    }

    void agreesWithDiscover()
    {
        const Answer answer(finish("pairs, examined"));
        QVERIFY2(!answer.found.isEmpty(), qPrintable(pairs.join(" ")));
        const QSet<QString> found = discovered(finish("pairs, searched"));
        const QSet<QString> different = (answer.found - found) + (found - answer.found);
        for (const QString& device : different)
            QFAIL(qPrintable("they do not agree on " + device + " of " + pairs.join(" ")));
        for (auto it = answer.devices.cbegin(); it != answer.devices.cend(); ++it) {
            if (!found.contains(it.key()))
                QVERIFY2(!it->isEmpty() && !it->contains("+"), qPrintable(it.key()));
        }
    }

    /// Runs after the tests above, when their programs have ended. A busy machine makes good devices look bad.
    void goodDevicesAreFoundAndNothingElse()
    {
        // Devices answer within MX. The rest of the time-out is for reading them.
        static const char* const options[] = {
            "--devices 5 --response-delay 0-0",
            "--devices 5 --response-delay 100-2500",
            "--devices 5 --event-tail --response-delay 0-500",
            "--devices 5 --variables KO,A,B,C --services 4 --response-delay 0-500",
            "--devices 5 --variables A,KO --event-every 300 --announce-every 700 --response-delay 0-500",
            "--devices 2 --second-interface --response-delay 0-500",
            "--devices 5 --event-gap 600 --event-tail --response-delay 0-200",
            ("--devices 20 --function-code -5 --univocal-code 2146000000 --port 80 "
             "--response-delay 0-900"),
        };
        const int kinds = static_cast<int>(std::size(options));
        const int runs = qMax(kinds, qEnvironmentVariableIntValue("VELMORA_DOCTOR_RUNS"));
        QList<QPair<QString, Running>> labs;
        for (int started = 0, ended = 0; ended < runs; ++ended) {
            for (; started < qMin(runs, ended + kinds); ++started) {
                const QString text =
                    "--event-gap 300 %1 --seed %2 "_s.arg(options[started % kinds]).arg(started * 100 + 1);
                labs.append({text, startLab(text + DOCTOR)});
            }
            const QString text = labs.constFirst().first;
            const Run run = labs.takeFirst().second->finish();
            const Answer answer(run);
            const int devices = words(text).at(3).toInt() * (text.contains("second") ? 2 : 1);
            QStringList notes;
            for (auto it = answer.devices.cbegin(); it != answer.devices.cend(); ++it) {
                if (!it->isEmpty() || !answer.found.contains(it.key()))
                    notes << it.key() + ": " + it.value();
            }
            QVERIFY2(run.status == 0 && notes.isEmpty(), qPrintable(text + notes.join(" ") + run.err));
            QCOMPARE(answer.found.size(), devices);
            QCOMPARE(answer.devices.size(), devices);
            QCOMPARE(answer.host, "");
        }
    }

    void asksNoMoreThanItMay()
    {
        const Run run = finish("requests");
        QCOMPARE(run.status, 1);
        const QMap<QString, Requests> requests = requestsOf(run);
        // The library sends a SUBSCRIBE for each variable, and the doctor one.
        const Requests examined = {
            {"M-SEARCH", 2}, {"GET /description.xml", 2}, {"GET /service1.xml", 2}, {"SUBSCRIBE", 3}};
        QCOMPARE(requests.value("10.77.1.1"), examined);
        QCOMPARE(requests.value("10.77.1.2"), examined);
        // The simulator does not trace what a device does not hear.
        QCOMPARE(requests.value("10.77.1.3"), (Requests{{"M-SEARCH", 1}}));
        QVERIFY(!requests.contains("10.77.1.4"));
    }

    void searchesANamedAddressAlone()
    {
        const Run run = finish("named");
        QCOMPARE(run.status, 1);
        const QMap<QString, QString> expected = {{"10.77.1.2", "search.unicast-only"},
                                                 {"10.77.1.3", "search.silent"}};
        QCOMPARE(Answer(run).devices, expected);
    }

    void tellsWhyTheHostCannotSearch()
    {
        const Run run = finish("port taken");
        if (run.status == 127)
            QSKIP("no python3 here");
        VERIFY_RUN(run, {3, "**python3 (**", "**"});
        QCOMPARE(Answer(run).host, "host.port-taken");
        QCOMPARE(Answer(finish("no group")).host, "host.no-group");
        QCOMPARE(Answer(finish("no interface")).host, "host.no-interface");
    }

    void explainsSilence() { VERIFY_RUN(finish("silence"), {3, "**Nothing answered**another network**"}); }

    void printsForAPerson()
    {
        VERIFY_RUN(finish("person"), {1, R"(Searched from 10.77.0.1 (*).
found      10.77.1.1  function 1, univocal 1, after *
NOT FOUND  10.77.1.2  http://10.77.1.2:49152/description.xml
           *with an error. Seen: 500 Internal Server Error
           *(docs/protocol.md, section 3).
           [description.status]
1 of 2 devices found in *
)"});
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

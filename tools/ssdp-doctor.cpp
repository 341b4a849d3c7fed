#include <tools/CommandLine.h>
#include <tools/Interruption.h>
#include <tools/Output.h>
#include <tools/Terminal.h>
#include <tools/doctor/Diagnosis.h>
#include <tools/doctor/Doctor.h>
#include <tools/doctor/Report.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QLoggingCategory>
#include <QtCore/QTimer>

#include <algorithm>

using namespace Velmora::Tools;
using Velmora::Doctor::Diagnosed;
using Velmora::Doctor::Doctor;
using Velmora::Doctor::Results;
using Velmora::Doctor::Trace;

namespace {

const int ALL_FOUND = 0;
const int NOT_ALL_FOUND = 1;
const int NOTHING_ANSWERED = 3;

const int PROGRESS_INTERVAL = 100;
const int MAX_TIMEOUT = 60 * 60 * 1000;

struct Settings
{
    Doctor::Settings doctor;
    bool json = false;
    bool trace = false;
};

void addOptions(QCommandLineParser& parser)
{
    parser.setApplicationDescription(
        QStringLiteral("Lists the maker's devices that are found. For each other device, says what is\n"
                       "wrong and what to change. The manual page lists all findings.\n"
                       "\n"
                       "Exit status: 0 if every device that answered was found, 1 if a device was not\n"
                       "found, 2 if an option is wrong, 3 if nothing answered, 4 if the output cannot\n"
                       "be written, 141 if the reader of the output has ended."));
    const auto add = [&parser](const char* name, const char* value, const char* description) {
        parser.addOption(QCommandLineOption(QString::fromLatin1(name), QString::fromLatin1(description),
                                            QString::fromLatin1(value)));
    };
    add("timeout", "MS", "How long the discovery lasts (5000).");
    add("json", "", "Prints one JSON object per line: one for each device, then one for this host.");
    add("trace", "", "Prints each message, sent or received, on standard error.");
    parser.addPositionalArgument(
        QStringLiteral("ADDRESS"),
        QStringLiteral(
            "Examines only the devices at this address. If nothing comes from it, sends one search to it."
            " Can be repeated."),
        QStringLiteral("[ADDRESS...]"));
}

Settings readSettings(const QCommandLineParser& parser)
{
    Settings settings;
    if (parser.isSet(QStringLiteral("timeout")))
        settings.doctor.timeout = numberOf(parser, QStringLiteral("timeout"), 1, MAX_TIMEOUT);
    settings.json = parser.isSet(QStringLiteral("json"));
    settings.trace = parser.isSet(QStringLiteral("trace"));
    const QStringList addresses = parser.positionalArguments();
    for (const QString& text : addresses) {
        const QHostAddress address(text);
        // QHostAddress also accepts short forms: 10.77 means 10.0.0.77.
        if (address.protocol() != QAbstractSocket::IPv4Protocol || address.toString() != text
            || address.isMulticast() || address.isBroadcast() || address.isNull()
            || address == QHostAddress(QHostAddress::AnyIPv4))
            failUsage(QStringLiteral("'%1' is not the IPv4 address of a device").arg(text));
        settings.doctor.named << address;
    }
    return settings;
}

Results resultsOf(const Doctor& doctor, int timeout)
{
    Results results;
    results.host = doctor.host();
    results.omitted = doctor.omitted();
    results.duration = doctor.elapsed();
    for (const auto& seen : doctor.devices()) {
        Diagnosed device;
        device.seen = *seen;
        device.findings = diagnose(*seen, timeout);
        if (isFound(*seen, timeout))
            device.result = Diagnosed::Found;
        else if (isOfOtherMaker(device.findings))
            device.result = Diagnosed::OfOtherMaker;
        results.devices.append(device);
    }
    std::stable_sort(results.devices.begin(), results.devices.end(), [](const Diagnosed& a, const Diagnosed& b) {
        return a.seen.sender.toIPv4Address() < b.seen.sender.toIPv4Address();
    });
    return results;
}

class Screen : public QObject
{
public:
    Screen(const Settings& settings, Doctor& doctor)
        : settings(settings)
        , doctor(doctor)
        , terminal(settings.json)
    {
        connect(&doctor, &Doctor::finished, this, &Screen::finish);
        connect(&progressTimer, &QTimer::timeout, this, &Screen::showProgress);
        // Messages would appear inside the progress line.
        if (settings.trace)
            connect(&doctor.trace(), &Trace::message, this, &Screen::trace);
        else if (terminal.showsProgress())
            progressTimer.start(PROGRESS_INTERVAL);
    }

private:
    void showProgress()
    {
        const int left = doctor.timeLeft();
        const QString phase = left > 0 ? QStringLiteral("%1 left").arg(Velmora::Doctor::seconds(left))
                                       : QStringLiteral("examining %1").arg(doctor.examinations());
        terminal.progress(QStringLiteral("%1, %2 found of %3 so far")
                              .arg(phase)
                              .arg(doctor.foundSoFar())
                              .arg(doctor.devices().size()));
    }

    void trace(bool sent, const QHostAddress& peer, quint16 port, const QByteArray& bytes)
    {
        QByteArray text = Velmora::Doctor::seconds(doctor.elapsed()).toLatin1() + (sent ? " -> " : " <- ")
            + peer.toString().toLatin1() + ':' + QByteArray::number(port) + '\n';
        const QList<QByteArray> lines = bytes.split('\n');
        for (int i = 0; i < lines.size(); ++i) {
            const bool isLast = i + 1 == lines.size();
            if (isLast && lines.at(i).isEmpty())
                break;
            QString line = Velmora::Doctor::readable(lines.at(i), static_cast<int>(4 * lines.at(i).size()));
            if (line.endsWith(QLatin1String("\\x0d")))
                line = line.left(line.size() - 4) + QStringLiteral("\\r");
            text += "    " + line.toLatin1() + (isLast ? "\n" : "\\n\n");
        }
        report(text);
    }

    void finish()
    {
        progressTimer.stop();
        terminal.endProgress();
        const Results results = resultsOf(doctor, settings.doctor.timeout);
        if (settings.json) {
            for (const Diagnosed& device : results.devices)
                print(jsonOf(device));
            print(jsonOf(results.host));
        } else {
            const auto coloured = [this](const QString& text, Terminal::Colour colour) {
                return terminal.coloured(text, colour);
            };
            print(textOf(results, {terminal.columns(), coloured}).toUtf8());
        }
        const bool isOneMissing = results.count(Diagnosed::NotFound) > 0;
        QCoreApplication::exit(!results.hasAnswers() ? NOTHING_ANSWERED
                                   : isOneMissing    ? NOT_ALL_FOUND
                                                     : ALL_FOUND);
    }

    Settings settings;
    Doctor& doctor;
    Terminal terminal;
    QTimer progressTimer;
};

} // namespace

int main(int argc, char* argv[])
{
    openStandardDescriptors();
    QCoreApplication application(argc, argv);
    const Interruption interruption;
    const ReaderWatch readerWatch;
    QCoreApplication::setApplicationName(QStringLiteral("ssdp-doctor"));
    QCoreApplication::setApplicationVersion(QStringLiteral(VELMORA_VERSION));
    QCommandLineParser parser;
    addOptions(parser);
    parseArguments(parser, true);
    const Settings settings = readSettings(parser);
    QLoggingCategory::setFilterRules(QStringLiteral("*=false"));

    Doctor doctor(settings.doctor);
    const Screen screen(settings, doctor);
    QObject::connect(&interruption, &Interruption::interrupted, &doctor, &Doctor::stop);
    QTimer::singleShot(0, &doctor, &Doctor::start);
    return QCoreApplication::exec();
}

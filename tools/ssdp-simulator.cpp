#include <simulator/PrivateNetwork.h>
#include <simulator/SimulatedDevice.h>
#include <tools/CommandLine.h>
#include <tools/Interruption.h>
#include <tools/Output.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QRegularExpression>

#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <stdexcept>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

using namespace Velmora::Simulator;
using namespace Velmora::Tools;

namespace {

const int LONGEST_TIME = 24 * 60 * 60 * 1000;

struct Settings
{
    std::vector<DeviceOptions> devices;
    bool trace = false;
    bool json = false;
    bool quiet = false;
    int readyDescriptor = -1;
    int exitAfter = 0;
};

void addOptions(QCommandLineParser& parser)
{
    parser.setApplicationDescription(
        QStringLiteral("Simulates the maker's devices: answers searches, serves descriptions, sends\n"
                       "events. The addresses of the devices must be addresses of this host; 'ssdp-lab'\n"
                       "runs the program in a private network. On SIGINT, the program sends ssdp:byebye\n"
                       "for every device, prints a summary and ends.\n"
                       "\n"
                       "Exit status: 0 after SIGINT or --exit-after, 1 if an address or a port cannot\n"
                       "be used, 2 if an option is wrong, 4 if the output cannot be written, 141 if the\n"
                       "reader of the output has ended."));
    const auto add = [&parser](const char* name, const char* value, const char* standard,
                               const char* description) {
        parser.addOption(QCommandLineOption(QString::fromLatin1(name), QString::fromLatin1(description),
                                            QString::fromLatin1(value), QString::fromLatin1(standard)));
    };
    add("devices", "N", "1", "The number of devices, at consecutive addresses (1).");
    add("first-address", "ADDRESS", "10.77.1.1",
        "The address of the first device (10.77.1.1). If repeated, each use adds N devices.");
    add("port", "PORT", "49152", "The port of the devices' HTTP servers (49152).");
    add("function-code", "CODE", "1", "The function code of all devices (1).");
    add("univocal-code", "CODE", "1",
        "The univocal code of the first device (1). Each further device has the next number.");
    add("variables", "NAMES", "KO", "The state variables of the key-object service, such as KO,A,B (KO).");
    add("services", "N", "1",
        "The number of services of each device (1). The last one is the key-object service.");
    add("event-gap", "MS", "50",
        "The pause between head and body of an event (50). With 0, both are sent in one write.");
    parser.addOption(
        {QStringLiteral("event-tail"),
         QStringLiteral(
             "After the body and another pause, sends a CRLF that is included in the event's length.")});
    add("response-delay", "MIN-MAX", "",
        "Answers a search after a random delay between these values (0 to its MX).");
    add("seed", "NUMBER", "1", "Makes the random delays repeatable (1).");
    add("announce-every", "MS", "0", "Announces the devices at this interval (0: only at the start).");
    add("event-every", "MS", "0", "Sends events at this interval (0: only the initial event).");
    add("fault", "FAULT", "",
        "NAME or NAME=VALUE for all devices, 2:NAME=VALUE for only the second. Can be repeated.");
    parser.addOption({QStringLiteral("list-faults"), QStringLiteral("Lists and explains all faults.")});
    parser.addOption({QStringLiteral("trace"), QStringLiteral("Prints every message that is sent or received.")});
    parser.addOption({QStringLiteral("json"), QStringLiteral("Prints one JSON object per line instead of text.")});
    parser.addOption({QStringLiteral("quiet"), QStringLiteral("Prints neither the first nor the last line.")});
    add("ready-fd", "DESCRIPTOR", "",
        "When all devices are running, writes a line to this descriptor and closes it.");
    add("exit-after", "MS", "0", "Ends after this time, as on SIGINT (0: never).");
}

void listFaults()
{
    for (const Fault& fault : SimulatedDevice::faults()) {
        QString name = QString::fromLatin1(fault.name);
        QString explanation = QString::fromLatin1(fault.explanation);
        if (fault.value) {
            name += QStringLiteral("[=%1]").arg(QLatin1String(fault.value));
            explanation += QStringLiteral(" (%1)").arg(QLatin1String(fault.standard));
        }
        print(name.leftJustified(28).toUtf8() + ' ' + explanation.toUtf8() + '\n');
    }
}

void setResponseDelay(DeviceOptions& options, const QString& text)
{
    static const QRegularExpression form(QStringLiteral("^(\\d{1,8})-(\\d{1,8})$"));
    const QRegularExpressionMatch match = form.match(text);
    options.responseDelayMin = match.captured(1).toInt();
    options.responseDelayMax = match.captured(2).toInt();
    if (!match.hasMatch() || options.responseDelayMin > options.responseDelayMax)
        failUsage(QStringLiteral("--response-delay takes milliseconds as in 100-2000, not '%1'").arg(text));
}

void setVariables(DeviceOptions& options, const QString& text)
{
    static const QRegularExpression form(QStringLiteral("^[A-Za-z_][A-Za-z0-9_.-]*$"));
    options.variables = text.split(QLatin1Char(','));
    for (const QString& name : std::as_const(options.variables)) {
        if (!form.match(name).hasMatch())
            failUsage(QStringLiteral("'%1' is not the name of a state variable").arg(name));
    }
}

void addFault(std::vector<DeviceOptions>& devices, const QString& text)
{
    static const QRegularExpression form(QStringLiteral("^(\\d+):(.*)$"));
    const QRegularExpressionMatch match = form.match(text);
    const size_t only = match.captured(1).toUInt();
    if (match.hasMatch() && (only < 1 || only > devices.size()))
        failUsage(QStringLiteral("--fault %1: there is no device %2").arg(text, match.captured(1)));
    for (size_t i = 0; i < devices.size(); ++i) {
        if (match.hasMatch() && i + 1 != only)
            continue;
        const QString error = devices[i].addFault(match.hasMatch() ? match.captured(2) : text);
        if (!error.isEmpty())
            failUsage(error + QStringLiteral("; --list-faults explains them"));
    }
}

Settings readSettings(const QCommandLineParser& parser)
{
    const auto number = [&parser](const char* option, int least, int most) {
        return numberOf(parser, QString::fromLatin1(option), least, most);
    };
    DeviceOptions options;
    options.port = static_cast<quint16>(number("port", 1, 65535));
    options.functionCode = number("function-code", INT_MIN, INT_MAX);
    options.univocalCode = number("univocal-code", INT_MIN, INT_MAX - 1000000);
    setVariables(options, parser.value(QStringLiteral("variables")));
    options.services = number("services", 1, 1000);
    options.eventGap = number("event-gap", 0, LONGEST_TIME);
    options.eventTail = parser.isSet(QStringLiteral("event-tail"));
    if (parser.isSet(QStringLiteral("response-delay")))
        setResponseDelay(options, parser.value(QStringLiteral("response-delay")));
    options.seed = static_cast<quint32>(number("seed", 0, INT_MAX));
    options.announceEvery = number("announce-every", 0, LONGEST_TIME);
    options.eventEvery = number("event-every", 0, LONGEST_TIME);

    Settings settings;
    const int count = number("devices", 1, 100000);
    const QStringList firstAddresses = parser.values(QStringLiteral("first-address"));
    for (const QString& first : firstAddresses) {
        for (int i = 0; i < count; ++i) {
            const std::string address = PrivateNetwork::addressAfter(first.toStdString(), i);
            options.address = QHostAddress(QString::fromStdString(address));
            settings.devices.push_back(options);
            ++options.univocalCode;
            ++options.seed;
        }
    }
    const QStringList faults = parser.values(QStringLiteral("fault"));
    for (const QString& fault : faults)
        addFault(settings.devices, fault);

    settings.trace = parser.isSet(QStringLiteral("trace"));
    settings.json = parser.isSet(QStringLiteral("json"));
    settings.quiet = parser.isSet(QStringLiteral("quiet"));
    if (parser.isSet(QStringLiteral("ready-fd")))
        settings.readyDescriptor = number("ready-fd", 0, INT_MAX);
    settings.exitAfter = number("exit-after", 0, LONGEST_TIME);
    return settings;
}

/// Returns @p line as printable text, without carriage returns. Other bytes are shown as \xNN.
QString readable(const QByteArray& line)
{
    QString result;
    for (const char byte : line) {
        const uchar code = static_cast<uchar>(byte);
        if (code >= 0x20 && code < 0x7f)
            result += QLatin1Char(byte);
        else if (code != '\r')
            result += QStringLiteral("\\x%1").arg(code, 2, 16, QLatin1Char('0'));
    }
    return result;
}

class Simulation : public QObject
{
public:
    explicit Simulation(const Settings& settings)
        : settings(settings)
    {
        clock.start();
    }

    bool start()
    {
        for (const DeviceOptions& options : settings.devices) {
            devices.push_back(std::make_unique<SimulatedDevice>(&group, options));
            SimulatedDevice* const device = devices.back().get();
            if (settings.trace) {
                connect(device, &SimulatedDevice::message, this,
                        [this, device](bool sent, const QString& peer, const QByteArray& text) {
                            trace(device->options().address.toString(), sent, peer, text);
                        });
            }
            if (!device->start()) {
                std::fprintf(stderr, "ssdp-simulator: %s\n", qPrintable(device->errorString()));
                return false;
            }
        }
        return true;
    }

    void sayReady() const
    {
        const QString first = settings.devices.front().address.toString();
        const QString last = settings.devices.back().address.toString();
        const int count = static_cast<int>(devices.size());
        if (settings.readyDescriptor != -1) {
            if (write(settings.readyDescriptor, "\n", 1) != 1)
                std::perror("ssdp-simulator: --ready-fd");
            closeReadyDescriptor();
        }
        if (settings.quiet)
            return;
        if (settings.json) {
            print({{QStringLiteral("devices"), count},
                   {QStringLiteral("first"), first},
                   {QStringLiteral("last"), last}});
        } else {
            QString text = QStringLiteral("ssdp-simulator: %1 device%2 at %3")
                               .arg(QString::number(count), count == 1 ? QString() : QStringLiteral("s"), first);
            if (count > 1)
                text += QStringLiteral(" to ") + last;
            print(text.toUtf8() + '\n');
        }
    }

    void finish() const
    {
        for (const auto& device : devices)
            device->sayGoodbye();
        if (settings.quiet)
            return;
        static const char* const texts[SimulatedDevice::STAGES] = {
            "answered %1 searches",      "sent %1 descriptions", "%1 service descriptions",
            "accepted %1 subscriptions", "began %1 events",      "sent %1 to their end"};
        QJsonObject saw;
        QStringList said;
        for (int i = 0; i < SimulatedDevice::STAGES; ++i) {
            const SimulatedDevice::Stage stage = static_cast<SimulatedDevice::Stage>(i);
            int count = 0;
            for (const auto& device : devices)
                count += device->count(stage);
            saw.insert(SimulatedDevice::stageName(stage), count);
            said << QString::fromLatin1(texts[i]).arg(count);
        }
        if (settings.json)
            print({{QStringLiteral("saw"), saw}});
        else
            print("ssdp-simulator: " + said.join(QStringLiteral(", ")).toUtf8() + '\n');
    }

private:
    void closeReadyDescriptor() const
    {
        // If a standard descriptor were closed, the next socket would get its number.
        const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
        if (settings.readyDescriptor > STDERR_FILENO)
            close(settings.readyDescriptor);
        else
            dup2(nothing, settings.readyDescriptor);
        close(nothing);
    }

    void trace(const QString& device, bool sent, const QString& peer, const QByteArray& text) const
    {
        if (settings.json) {
            print({{QStringLiteral("time"), QLatin1String(timeStamp())},
                   {QStringLiteral("device"), device},
                   {QStringLiteral("direction"), sent ? QStringLiteral("out") : QStringLiteral("in")},
                   {QStringLiteral("peer"), peer},
                   // HOST may contain a zero byte. Without the length, Qt 5 ends the text there.
                   {QStringLiteral("text"), QString::fromLatin1(text.constData(), text.size())}});
            return;
        }
        QString out = QStringLiteral("%1 %2 %3 %4\n")
                          .arg(QString::number(static_cast<double>(clock.elapsed()) / 1000, 'f', 3), device,
                               sent ? QStringLiteral("->") : QStringLiteral("<-"), peer);
        QList<QByteArray> lines = text.split('\n');
        while (!lines.isEmpty() && lines.last().trimmed().isEmpty())
            lines.removeLast();
        for (const QByteArray& line : std::as_const(lines))
            out += QStringLiteral("    ") + readable(line) + QLatin1Char('\n');
        print(out.toUtf8());
    }

    Settings settings;
    QElapsedTimer clock;
    SsdpGroup group;
    std::vector<std::unique_ptr<SimulatedDevice>> devices;
};

/// Raises the limit of descriptors. A device needs one, and one more for every connection.
void allowDescriptors()
{
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

} // namespace

int main(int argc, char* argv[])
{
    openStandardDescriptors();
    QCoreApplication application(argc, argv);
    const Interruption interruption;
    const ReaderWatch readerWatch;
    QCoreApplication::setApplicationName(QStringLiteral("ssdp-simulator"));
    QCoreApplication::setApplicationVersion(QStringLiteral(VELMORA_VERSION));
    QCommandLineParser parser;
    addOptions(parser);
    parseArguments(parser);
    try {
        const Settings settings = readSettings(parser);
        if (parser.isSet(QStringLiteral("list-faults"))) {
            listFaults();
            return 0;
        }
        allowDescriptors();
        Simulation simulation(settings);
        if (!simulation.start())
            return 1;
        QObject::connect(&interruption, &Interruption::interrupted, &application, &QCoreApplication::quit);
        if (settings.exitAfter > 0)
            QTimer::singleShot(settings.exitAfter, &application, &QCoreApplication::quit);
        simulation.sayReady();
        QCoreApplication::exec();
        simulation.finish();
        return 0;
    } catch (const std::runtime_error& error) {
        failUsage(QString::fromStdString(error.what()));
    }
}

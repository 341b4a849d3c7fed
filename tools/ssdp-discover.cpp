#include <ssdp/Ssdp.h>
#include <tools/CommandLine.h>
#include <tools/Interruption.h>
#include <tools/Output.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QLoggingCategory>
#include <QtCore/QTimer>
#include <QtNetwork/QHostAddress>

#include <cstdio>
#include <optional>
#include <set>
#include <sys/ioctl.h>
#include <tuple>
#include <unistd.h>

using namespace Velmora::Tools;
using Velmora::SSDP::Ssdp;

namespace {

const int FOUND = 0;
const int NOTHING_FOUND = 1;

const int PROGRESS_INTERVAL = 100;

// Devices answer within 3 s, and then have to be read.
const int SUFFICIENT_TIMEOUT = 5000;

struct Settings
{
    int timeout = 0;
    int count = 0; ///< Of devices after which to stop; 0 for no such limit.
    int repeat = 0; ///< Seconds between discoveries; 0 for one discovery only.
    bool all = false;
    bool json = false;
    bool quiet = false;
    std::optional<int> functionCode;
    std::optional<int> univocalCode;
    std::optional<QPair<QHostAddress, int>> subnet;
};

struct Device
{
    int functionCode;
    int univocalCode;
    QHostAddress address;

    bool operator<(const Device& other) const
    {
        return std::make_tuple(address.toIPv4Address(), functionCode, univocalCode)
            < std::make_tuple(other.address.toIPv4Address(), other.functionCode, other.univocalCode);
    }
};

void addOptions(QCommandLineParser& parser)
{
    parser.setApplicationDescription(
        QStringLiteral("Finds the maker's devices on the local network and prints each once, when it\n"
                       "reports.\n"
                       "\n"
                       "Devices take up to 3 seconds to answer the search and then have to be read.\n"
                       "\n"
                       "Exit status: 0 when a device was found, 1 when none was, 2 for a wrong option,\n"
                       "4 when the output cannot be written, 141 when nobody reads it any more."));
    const auto flag = [&parser](const char* name, const char* description) {
        parser.addOption(QCommandLineOption(QString::fromLatin1(name), QString::fromLatin1(description)));
    };
    const auto value = [&parser](const char* name, const char* value, const char* description) {
        parser.addOption(QCommandLineOption(QString::fromLatin1(name), QString::fromLatin1(description),
                                            QString::fromLatin1(value)));
    };
    value("timeout", "MS", "How long a discovery lasts (5000).");
    value("count", "N", "Stops as soon as N devices were found.");
    flag("first", "Stops at the first device, as --count 1.");
    value("function-code", "CODE", "Only devices with this function code.");
    value("univocal-code", "CODE", "Only devices with this univocal code.");
    value("address", "ADDRESS", "Only devices with this address, or in this network as in 10.0.0.0/8.");
    value("repeat", "SECONDS", "Discovers again and again, with that pause, and prints what came and went.");
    flag("all", "Prints every report, also those of a device that is known.");
    flag("json", "Prints a JSON object a line.");
    flag("quiet", "Prints neither devices nor a summary; the exit status tells.");
    flag("verbose", "Prints the library's log lines on standard error.");
}

Settings readSettings(const QCommandLineParser& parser)
{
    const auto number = [&parser](const char* option, int least, int most, int standard) {
        const QString name = QString::fromLatin1(option);
        return parser.isSet(name) ? numberOf(parser, name, least, most) : standard;
    };
    const auto code = [&parser, &number](const char* option) {
        return parser.isSet(QString::fromLatin1(option)) ? std::optional<int>(number(option, INT_MIN, INT_MAX, 0))
                                                         : std::nullopt;
    };
    Settings settings;
    settings.timeout = number("timeout", 1, INT_MAX, SUFFICIENT_TIMEOUT);
    settings.count = parser.isSet(QStringLiteral("first")) ? 1 : number("count", 1, INT_MAX, 0);
    settings.repeat = number("repeat", 1, 24 * 60 * 60, 0);
    settings.all = parser.isSet(QStringLiteral("all"));
    settings.json = parser.isSet(QStringLiteral("json"));
    settings.quiet = parser.isSet(QStringLiteral("quiet"));
    settings.functionCode = code("function-code");
    settings.univocalCode = code("univocal-code");
    if (parser.isSet(QStringLiteral("first")) && parser.isSet(QStringLiteral("count")))
        failUsage(QStringLiteral("--first and --count do not go together"));
    if (settings.repeat > 0 && settings.count > 0)
        failUsage(QStringLiteral("--repeat goes on until it is interrupted, without --count and --first"));
    if (parser.isSet(QStringLiteral("address"))) {
        const QString text = parser.value(QStringLiteral("address"));
        const QString address = text.section(QLatin1Char('/'), 0, 0);
        // QHostAddress also takes short forms, in which 10.77 is 10.0.0.77.
        const bool isWhole = QHostAddress(address).toString() == address;
        settings.subnet = QHostAddress::parseSubnet(text);
        if (!isWhole || settings.subnet->first.protocol() != QAbstractSocket::IPv4Protocol
            || settings.subnet->second < 0)
            failUsage(QStringLiteral("'%1' is neither an IPv4 address nor a network").arg(text));
    }
    return settings;
}

/// Standard output, which may be a terminal of any width.
class Table
{
public:
    explicit Table(const Settings& settings)
        : isTerminal(isatty(STDOUT_FILENO) == 1 && !settings.json && !settings.quiet)
        , hasColour(isTerminal && qEnvironmentVariableIsEmpty("NO_COLOR") && qgetenv("TERM") != "dumb")
        , marks(settings.repeat > 0)
        , isNarrow(false)
    {
        winsize size = {};
        if (isTerminal && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0)
            isNarrow = size.ws_col > 0 && size.ws_col < WIDTH + (marks ? 1 : 0);
    }

    bool showsProgress() const { return isTerminal; }

    void line(const QString& text)
    {
        print((progressShown ? QByteArray("\r\033[K") : QByteArray()) + text.toUtf8() + '\n');
        progressShown = false;
    }

    void header() { line(coloured(row(' ', {"FUNCTION", "UNIVOCAL", "ADDRESS", "AFTER"}), "1")); }

    void device(char mark, const Device& device, qint64 elapsed)
    {
        const QString text = row(mark,
                                 {QByteArray::number(device.functionCode), QByteArray::number(device.univocalCode),
                                  device.address.toString().toLatin1(), seconds(elapsed)});
        line(!marks || mark == ' ' ? text : coloured(text, mark == '-' ? "31" : "32"));
    }

    void progress(const QString& text)
    {
        print("\r\033[K" + text.toUtf8());
        progressShown = true;
    }

    static QByteArray seconds(qint64 milliseconds)
    {
        return QByteArray::number(static_cast<double>(milliseconds) / 1000, 'f', 1) + " s";
    }

private:
    static const int WIDTH = 51;

    /// Wide enough for any number and address; what a narrow terminal has no room for is left out.
    QString row(char mark, const QList<QByteArray>& cells) const
    {
        char text[128];
        if (isNarrow) {
            std::snprintf(text, sizeof text, "%11s %11s %s", cells.at(0).constData(), cells.at(1).constData(),
                          cells.at(2).constData());
        } else {
            std::snprintf(text, sizeof text, "%11s  %11s  %-15s  %8s", cells.at(0).constData(),
                          cells.at(1).constData(), cells.at(2).constData(), cells.at(3).constData());
        }
        return (marks ? QString(QLatin1Char(mark)) : QString()) + QString::fromLatin1(text);
    }

    QString coloured(const QString& text, const char* colour) const
    {
        return hasColour ? QStringLiteral("\033[%1m%2\033[0m").arg(QLatin1String(colour), text) : text;
    }

    bool isTerminal;
    bool hasColour;
    bool marks;
    bool isNarrow;
    bool progressShown = false;
};

class Host : public QObject
{
public:
    Host(const Settings& settings, bool verbose)
        : settings(settings)
        , output(settings)
        , ssdp(settings.timeout)
    {
        connect(&ssdp, &Ssdp::discovered, this, &Host::onDiscovered);
        connect(&ssdp, &Ssdp::timeoutExpired, this, &Host::onTimeoutExpired);
        connect(&pause, &QTimer::timeout, this, &Host::discover);
        connect(&progressTimer, &QTimer::timeout, this, &Host::showProgress);
        pause.setSingleShot(true);
        // The log lines would break into it.
        if (output.showsProgress() && !verbose)
            progressTimer.start(PROGRESS_INTERVAL);
        clock.start();
    }

    void discover()
    {
        seen.clear();
        round.start();
        ssdp.discover();
    }

    void finish()
    {
        if (finished)
            return;
        finished = true;
        progressTimer.stop();
        ssdp.stop();
        if (!settings.quiet)
            summarise();
        QCoreApplication::exit(found > 0 ? FOUND : NOTHING_FOUND);
    }

private:
    void onDiscovered(int functionCode, int univocalCode, const QHostAddress& address)
    {
        if (finished)
            return;
        const Device device = {functionCode, univocalCode, address};
        if (!isWanted(device)) {
            others.insert(device);
            return;
        }
        seen.insert(device);
        const bool isNew = known.insert(device).second;
        found += isNew ? 1 : 0;
        if (isNew || settings.all)
            show(isNew ? '+' : ' ', device);
        if (static_cast<int>(known.size()) == settings.count)
            finish();
    }

    void onTimeoutExpired()
    {
        if (settings.repeat == 0) {
            finish();
            return;
        }
        for (auto it = known.begin(); it != known.end();) {
            if (seen.count(*it) > 0) {
                ++it;
                continue;
            }
            show('-', *it);
            it = known.erase(it);
        }
        pause.start(settings.repeat * 1000);
    }

    void showProgress()
    {
        const QString devices = QStringLiteral("%1 device%2 so far").arg(known.size()).arg(plural(known.size()));
        if (pause.isActive())
            output.progress(QStringLiteral("pause, %1").arg(devices));
        else
            output.progress(QStringLiteral("%1 left, %2").arg(left(), devices));
    }

    static QString plural(size_t count) { return count == 1 ? QString() : QStringLiteral("s"); }

    QString left() const
    {
        return QString::fromLatin1(Table::seconds(qMax<qint64>(0, settings.timeout - round.elapsed())));
    }

    bool isWanted(const Device& device) const
    {
        return device.functionCode == settings.functionCode.value_or(device.functionCode)
            && device.univocalCode == settings.univocalCode.value_or(device.univocalCode)
            && (!settings.subnet || device.address.isInSubnet(*settings.subnet));
    }

    void show(char mark, const Device& device)
    {
        if (settings.quiet)
            return;
        if (settings.json) {
            const QJsonObject object = {
                {QStringLiteral("time"), QLatin1String(timeStamp())},
                {QStringLiteral("event"), mark == '-' ? QStringLiteral("gone") : QStringLiteral("found")},
                {QStringLiteral("functionCode"), device.functionCode},
                {QStringLiteral("univocalCode"), device.univocalCode},
                {QStringLiteral("address"), device.address.toString()},
            };
            print(object);
            return;
        }
        if (!headerPrinted)
            output.header();
        headerPrinted = true;
        output.device(mark, device, clock.elapsed());
    }

    void summarise()
    {
        if (!settings.json) {
            QString text = found == 0 ? QStringLiteral("No device found")
                                      : QStringLiteral("%1 device%2 found").arg(found).arg(plural(found));
            text += QStringLiteral(" in %1").arg(QLatin1String(Table::seconds(clock.elapsed())));
            if (!others.empty())
                text += QStringLiteral(", %1 other%2 left out").arg(others.size()).arg(plural(others.size()));
            output.line(text);
        }
        if (found == 0 && others.empty())
            advise();
    }

    void advise() const
    {
        const bool wasShort = settings.timeout < SUFFICIENT_TIMEOUT && round.elapsed() >= settings.timeout;
        report("A firewall may drop the answers: let in UDP to ports 1900 and 49152, and TCP to this program.\n"
               "The devices may be in another network: this host needs an interface in theirs.\n");
        report(wasShort
                   ? "The time may be too short: try --timeout 5000, and --verbose to see how far a device came.\n"
                   : "--verbose shows whether a device has answered, and how far it came.\n");
    }

    Settings settings;
    Table output;
    Ssdp ssdp;
    QTimer pause;
    QTimer progressTimer;
    QElapsedTimer clock;
    QElapsedTimer round;
    std::set<Device> known;
    std::set<Device> seen; ///< In the running discovery.
    std::set<Device> others; ///< That the filters left out.
    size_t found = 0;
    bool headerPrinted = false;
    bool finished = false;
};

} // namespace

int main(int argc, char* argv[])
{
    openStandardDescriptors();
    QCoreApplication application(argc, argv);
    const Interruption interruption;
    const ReaderWatch readerWatch;
    QCoreApplication::setApplicationName(QStringLiteral("ssdp-discover"));
    QCoreApplication::setApplicationVersion(QStringLiteral(VELMORA_VERSION));
    QCommandLineParser parser;
    addOptions(parser);
    parseArguments(parser);
    const bool verbose = parser.isSet(QStringLiteral("verbose"));
    if (!verbose) // Qt warns of what the library does too, as when it listens again.
        QLoggingCategory::setFilterRules(QStringLiteral("*=false"));

    Host host(readSettings(parser), verbose);
    QObject::connect(&interruption, &Interruption::interrupted, &host, &Host::finish);
    host.discover();
    return QCoreApplication::exec();
}

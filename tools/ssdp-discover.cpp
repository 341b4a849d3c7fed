#include <tools/CommandLine.h>
#include <tools/Interruption.h>
#include <tools/LibraryLog.h>
#include <tools/Output.h>
#include <tools/Search.h>
#include <tools/Terminal.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QTimer>
#include <QtNetwork/QHostAddress>

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <tuple>

using namespace Velmora::Tools;

namespace {

const int FOUND = 0;
const int NOTHING_FOUND = 1;

const int PROGRESS_INTERVAL = 100;

// Devices answer within 3 s. Then their descriptions are read, and their events come.
const int SUFFICIENT_TIMEOUT = 5000;

struct Settings
{
    int timeout = 0;
    int count = 0; ///< Stop after this number of devices. 0: no limit.
    int repeat = 0; ///< Seconds between two discoveries. 0: only one discovery.
    bool all = false;
    bool json = false;
    bool quiet = false;
    bool verbose = false;
    QString interface; ///< The name or address of the interface. Empty: all interfaces.
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
        QStringLiteral("Finds the maker's devices on the local network. Prints each device once, when\n"
                       "it reports.\n"
                       "\n"
                       "Devices take up to 3 seconds to answer the search. Then the program reads\n"
                       "their descriptions and waits for their events.\n"
                       "\n"
                       "Exit status: 0 if a device was found, 1 if no device was found, 2 if an option\n"
                       "is wrong, 3 if this host cannot search, 4 if the output cannot be written,\n"
                       "141 if the reader of the output has ended."));
    const auto flag = [&parser](const char* name, const char* description) {
        parser.addOption(QCommandLineOption(QString::fromLatin1(name), QString::fromLatin1(description)));
    };
    const auto value = [&parser](const char* name, const char* value, const char* description) {
        parser.addOption(QCommandLineOption(QString::fromLatin1(name), QString::fromLatin1(description),
                                            QString::fromLatin1(value)));
    };
    value("timeout", "MS", "How long a discovery lasts (5000).");
    value("count", "N", "Stops when N devices were found.");
    flag("first", "Stops at the first device, like --count 1.");
    value("function-code", "CODE", "Reports only devices with this function code.");
    value("univocal-code", "CODE", "Reports only devices with this univocal code.");
    value("address", "ADDRESS", "Reports only devices with this address or in this network, such as 10.0.0.0/8.");
    value("interface", "NAME|ADDRESS", "Searches only from this interface of the host.");
    value("repeat", "SECONDS",
          "Repeats the discovery after this pause, and prints which devices are new or gone.");
    flag("all", "Prints every report, even if the device was printed before.");
    flag("json", "Prints one JSON object per line.");
    flag("quiet", "Prints only errors. The exit status says whether a device was found.");
    flag("verbose", "Prints the library's log lines on standard error, each with its time.");
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
    settings.verbose = parser.isSet(QStringLiteral("verbose"));
    settings.interface = parser.value(QStringLiteral("interface"));
    if (parser.isSet(QStringLiteral("interface")) && settings.interface.isEmpty())
        failUsage(QStringLiteral("--interface takes the name or the address of an interface"));
    settings.functionCode = code("function-code");
    settings.univocalCode = code("univocal-code");
    if (parser.isSet(QStringLiteral("first")) && parser.isSet(QStringLiteral("count")))
        failUsage(QStringLiteral("--first and --count cannot be used together"));
    if (settings.repeat > 0 && settings.count > 0)
        failUsage(QStringLiteral("--repeat cannot be used together with --count or --first"));
    if (parser.isSet(QStringLiteral("address"))) {
        const QString text = parser.value(QStringLiteral("address"));
        const QString address = text.section(QLatin1Char('/'), 0, 0);
        // QHostAddress also accepts short forms: 10.77 means 10.0.0.77.
        const bool isWhole = QHostAddress(address).toString() == address;
        settings.subnet = QHostAddress::parseSubnet(text);
        if (!isWhole || settings.subnet->first.protocol() != QAbstractSocket::IPv4Protocol
            || settings.subnet->second < 0)
            failUsage(QStringLiteral("'%1' is neither an IPv4 address nor a network").arg(text));
    }
    return settings;
}

QString seconds(qint64 milliseconds)
{
    return QString::number(static_cast<double>(milliseconds) / 1000, 'f', 1) + QStringLiteral(" s");
}

/// The table of devices. If the terminal is wide enough, every number and address fits its column.
class Table
{
public:
    Table(Terminal& terminal, bool hasMarks)
        : terminal(terminal)
        , hasMarks(hasMarks)
    {
    }

    void add(char mark, const Device& device, qint64 elapsed)
    {
        if (!hasHeader)
            terminal.line(
                terminal.coloured(row(' ', {"FUNCTION", "UNIVOCAL", "ADDRESS", "AFTER"}), Terminal::Bold));
        hasHeader = true;
        const QString text = row(mark,
                                 {QByteArray::number(device.functionCode), QByteArray::number(device.univocalCode),
                                  device.address.toString().toLatin1(), seconds(elapsed).toLatin1()});
        if (hasMarks && mark != ' ')
            terminal.line(terminal.coloured(text, mark == '-' ? Terminal::Red : Terminal::Green));
        else
            terminal.line(text);
    }

private:
    static const int WIDTH = 51;
    static const int WIDTH_WITHOUT_TIME = 39;

    QString row(char mark, const QList<QByteArray>& cells) const
    {
        const int room = terminal.columns() - (hasMarks ? 1 : 0);
        const char* const form = room >= WIDTH ? "%11s  %11s  %-15s  %8s"
            : room >= WIDTH_WITHOUT_TIME       ? "%11s %11s %s"
                                               : "%s %s %s";
        const QString text = QString::asprintf(form, cells.at(0).constData(), cells.at(1).constData(),
                                               cells.at(2).constData(), cells.at(3).constData());
        return hasMarks ? QLatin1Char(mark) + text : text;
    }

    Terminal& terminal;
    bool hasMarks;
    bool hasHeader = false;
};

class Host : public QObject
{
public:
    explicit Host(const Settings& settings)
        : settings(settings)
        , terminal(settings.json || settings.quiet)
        , table(terminal, settings.repeat > 0)
    {
        connect(&pause, &QTimer::timeout, this, &Host::discover);
        connect(&progressTimer, &QTimer::timeout, this, &Host::showProgress);
        pause.setSingleShot(true);
        // Log lines would appear inside the progress line.
        if (terminal.showsProgress() && !settings.verbose)
            progressTimer.start(PROGRESS_INTERVAL);
        clock.start();
    }

    void discover()
    {
        seen.clear();
        clearTraces();
        // A new object uses the addresses that the host has now.
        search = std::make_unique<Search>(settings.timeout, settings.interface);
        connect(search.get(), &Search::discovered, this, &Host::onDiscovered);
        connect(search.get(), &Search::finished, this, &Host::onFinished);
        round.start();
        search->start();
        tellFailures(search->failures());
        tellAddresses();
        if (search->addresses().isEmpty() && settings.repeat == 0)
            QCoreApplication::exit(SEARCH_FAILED);
    }

    void finish()
    {
        if (isFinished)
            return;
        isFinished = true;
        progressTimer.stop();
        search->stop();
        if (!settings.quiet)
            summarise();
        if (!found.empty()) {
            QCoreApplication::exit(FOUND);
        } else if (!others.empty() || search->isolation().isEmpty()) {
            if (others.empty() && search->failures().isEmpty() && !settings.quiet)
                advise();
            QCoreApplication::exit(NOTHING_FOUND);
        } else {
            tellFailures({search->isolation()});
            QCoreApplication::exit(SEARCH_FAILED);
        }
    }

private:
    void onDiscovered(int functionCode, int univocalCode, const QHostAddress& address)
    {
        if (isFinished)
            return;
        const Device device = {functionCode, univocalCode, address};
        if (!isWanted(device)) {
            others.insert(device);
            return;
        }
        seen.insert(device);
        found.insert(device);
        const bool isNew = present.count(device) == 0;
        present[device] = addressesOf(*search);
        if (isNew || settings.all)
            show(isNew ? '+' : ' ', device);
        if (static_cast<int>(found.size()) == settings.count)
            finish();
    }

    void onFinished()
    {
        if (settings.repeat == 0) {
            finish();
            return;
        }
        for (auto it = present.begin(); it != present.end();) {
            if (seen.count(it->first) > 0 || !couldBeSeen(it->first, it->second)) {
                ++it;
                continue;
            }
            show('-', it->first);
            it = present.erase(it);
        }
        pause.start(settings.repeat * 1000);
    }

    /// Returns whether the last discovery would have found @p device if it were present. @p addresses are those of
    /// the search that last found it.
    bool couldBeSeen(const Device& device, const QList<QHostAddress>& addresses) const
    {
        // A device that has answered is present, even if its description could not be read.
        if (settings.timeout < SUFFICIENT_TIMEOUT || traces().hosts.contains(device.address.toString()))
            return false;
        const QList<QHostAddress> searched = addressesOf(*search);
        QList<QHostAddress> connected;
        const QList<LocalAddress> all = localAddresses();
        for (const LocalAddress& local : all) {
            if (!searched.contains(local.address) || !local.isUp || !local.isConnected)
                continue;
            if (device.address.isInSubnet(local.address, local.prefixLength))
                return true;
            connected.append(local.address);
        }
        return std::all_of(addresses.cbegin(), addresses.cend(),
                           [&connected](const QHostAddress& address) { return connected.contains(address); });
    }

    static QList<QHostAddress> addressesOf(const Search& search)
    {
        QList<QHostAddress> result;
        const QList<LocalAddress> all = search.addresses();
        for (const LocalAddress& local : all)
            result.append(local.address);
        return result;
    }

    /// Prints each failure, unless the previous discovery had the same one.
    void tellFailures(const QStringList& failures)
    {
        for (const QString& failure : failures) {
            if (!toldFailures.contains(failure))
                tell(QStringLiteral("ssdp-discover: cannot search: ") + failure);
        }
        toldFailures = failures;
    }

    void tellAddresses()
    {
        const QString text = QStringLiteral("Searching from ") + describe(search->addresses());
        if (search->addresses().isEmpty() || text == toldAddresses)
            return;
        toldAddresses = text;
        if (!settings.quiet && !settings.json)
            terminal.line(text);
        else if (settings.verbose)
            report(timeStamp() + ' ' + text.toUtf8() + '\n');
    }

    void tell(const QString& text)
    {
        terminal.endProgress();
        report(text.toUtf8() + '\n');
    }

    void showProgress()
    {
        const QString devices = QStringLiteral("%1 so far").arg(counted(present.size()));
        if (pause.isActive())
            terminal.progress(QStringLiteral("pause, %1").arg(devices));
        else
            terminal.progress(QStringLiteral("%1 left, %2").arg(left(), devices));
    }

    static QString counted(size_t devices)
    {
        return devices == 1 ? QStringLiteral("1 device") : QStringLiteral("%1 devices").arg(devices);
    }

    QString left() const { return seconds(qMax<qint64>(0, settings.timeout - round.elapsed())); }

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
        table.add(mark, device, clock.elapsed());
    }

    void summarise()
    {
        if (!settings.json) {
            QString text = found.empty() ? QStringLiteral("No device found")
                                         : QStringLiteral("%1 found").arg(counted(found.size()));
            text += QStringLiteral(" in %1").arg(seconds(clock.elapsed()));
            if (!others.empty()) {
                text += QStringLiteral(", %1 other%2 left out")
                            .arg(others.size())
                            .arg(others.size() == 1 ? QString() : QStringLiteral("s"));
            }
            terminal.line(text);
        }
    }

    void advise()
    {
        const Traces seen = traces();
        if (seen.hosts.isEmpty()) {
            tell(QStringLiteral(
                "A firewall may drop the answers: let in UDP to ports 1900 and 49152, and TCP to"
                " this program.\n"
                "The devices may be in another network: this host needs an interface in that network."));
        } else {
            tell(counted(static_cast<size_t>(seen.hosts.size())) + QLatin1Char(' ') + answer(seen));
        }
        const bool wasShort = settings.timeout < SUFFICIENT_TIMEOUT && round.elapsed() >= settings.timeout;
        tell(wasShort ? QStringLiteral(
                 "The time may be too short: try --timeout 5000. 'ssdp-doctor' says what is wrong.")
                      : QStringLiteral("'ssdp-doctor' says what is wrong, and what to change."));
    }

    static QString answer(const Traces& seen)
    {
        if (seen.eventMalformed)
            return QStringLiteral("answered, but an event is not well-formed XML.");
        if (seen.subscribed)
            return QStringLiteral(
                "answered, but none reported: a firewall may drop the TCP connections that devices"
                " open to this program.");
        if (seen.described)
            return QStringLiteral("answered, but none has a key-object service that could be read.");
        return QStringLiteral(
            "answered, but no description could be read: a device may be faulty, or a firewall may"
            " drop the HTTP connections to it.");
    }

    Settings settings;
    Terminal terminal;
    Table table;
    std::unique_ptr<Search> search;
    QTimer pause;
    QTimer progressTimer;
    QElapsedTimer clock;
    QElapsedTimer round;
    std::map<Device, QList<QHostAddress>> present; ///< With the local addresses of the search that found it.
    std::set<Device> seen; ///< Found in the running discovery.
    std::set<Device> found; ///< Found in any discovery.
    std::set<Device> others; ///< Left out by the filters.
    QStringList toldFailures;
    QString toldAddresses;
    bool isFinished = false;
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
    const Settings settings = readSettings(parser);
    watchLog(settings.verbose);

    Host host(settings);
    QObject::connect(&interruption, &Interruption::interrupted, &host, &Host::finish);
    QTimer::singleShot(0, &host, &Host::discover);
    return QCoreApplication::exec();
}

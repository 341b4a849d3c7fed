#include <tools/doctor/Host.h>

#include <ssdp/MulticastSocket.h>
#include <ssdp/Protocol.h>

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QHash>
#include <QtCore/QProcess>
#include <QtCore/QRegularExpression>
#include <QtCore/QStandardPaths>
#include <QtNetwork/QNetworkInterface>
#include <QtNetwork/QUdpSocket>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace Velmora {
namespace Doctor {

namespace Protocol = SSDP::Protocol;

namespace {

const int LONGEST_LISTING = 3000;
const int MAX_RULES = 1024 * 1024;

/// Returns the attribute @p wanted in the @p length bytes from @p first. Null if there is none.
const rtattr* attribute(const rtattr* first, int length, int wanted)
{
    for (const rtattr* it = first; RTA_OK(it, length); it = RTA_NEXT(it, length)) {
        if ((it->rta_type & NLA_TYPE_MASK) == wanted)
            return it;
    }
    return nullptr;
}

/// Returns the kernel's names of the kinds of interfaces, by interface index. Real hardware has no kind.
QHash<int, QString> linkKinds()
{
    QHash<int, QString> result;
    const int descriptor = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    struct
    {
        nlmsghdr header;
        ifinfomsg body;
    } request = {};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = RTM_GETLINK;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    if (send(descriptor, &request, sizeof request, 0) == static_cast<ssize_t>(sizeof request)) {
        alignas(nlmsghdr) char buffer[64 * 1024];
        bool isDone = false;
        while (!isDone) {
            const ssize_t size = recv(descriptor, buffer, sizeof buffer, 0);
            if (size <= 0)
                break;
            auto left = static_cast<unsigned int>(size);
            for (auto* it = reinterpret_cast<nlmsghdr*>(buffer); NLMSG_OK(it, left); it = NLMSG_NEXT(it, left)) {
                isDone = isDone || it->nlmsg_type == NLMSG_DONE || it->nlmsg_type == NLMSG_ERROR;
                if (it->nlmsg_type != RTM_NEWLINK)
                    continue;
                auto* const link = static_cast<ifinfomsg*>(NLMSG_DATA(it));
                const rtattr* const information =
                    attribute(IFLA_RTA(link), static_cast<int>(IFLA_PAYLOAD(it)), IFLA_LINKINFO);
                const rtattr* const kind = information
                    ? attribute(static_cast<const rtattr*>(RTA_DATA(information)),
                                static_cast<int>(RTA_PAYLOAD(information)), IFLA_INFO_KIND)
                    : nullptr;
                if (kind)
                    result.insert(link->ifi_index, QString::fromLatin1(static_cast<const char*>(RTA_DATA(kind))));
            }
        }
    }
    close(descriptor);
    return result;
}

/// Returns why the group cannot be joined on the interface of @p address. Empty if it can.
QString groupErrorOf(const QHostAddress& address)
{
    SSDP::MulticastSocket socket;
    if (!socket.bind(Protocol::SSDP_PORT))
        return QString(); // This is a failure of the port, not of the group.
    if (socket.joinMulticastGroup(QHostAddress(QString::fromLatin1(Protocol::GROUP_ADDRESS)), address))
        return QString();
    return QString::fromLocal8Bit(std::strerror(errno));
}

QByteArray contentOf(const QString& name)
{
    QFile file(name);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// Returns the programs that have one of the sockets, such as "avahi-daemon (712)". A user may not see all of
/// them.
QStringList holdersOf(const QList<QByteArray>& inodes)
{
    QStringList result;
    const QStringList processes = QDir(QStringLiteral("/proc")).entryList({QStringLiteral("[0-9]*")}, QDir::Dirs);
    for (const QString& process : processes) {
        const QString folder = QStringLiteral("/proc/%1/").arg(process);
        const QStringList descriptors =
            QDir(folder + QStringLiteral("fd")).entryList(QDir::System | QDir::Files | QDir::NoDotAndDotDot);
        for (const QString& descriptor : descriptors) {
            char target[64] = {};
            const QByteArray link = QFile::encodeName(folder + QStringLiteral("fd/") + descriptor);
            if (readlink(link.constData(), target, sizeof target - 1) <= 0)
                continue;
            const QByteArray text(target);
            if (!text.startsWith("socket:[") || !inodes.contains(text.mid(8, text.size() - 9)))
                continue;
            const QString name = readable(contentOf(folder + QStringLiteral("comm")).trimmed(), 40);
            if (process.toInt() != getpid())
                result << QStringLiteral("%1 (%2)").arg(name, process);
            break;
        }
    }
    return result;
}

/// Returns whether @p text, the ports in a rule, contains @p port. It may contain lists and ranges.
bool hasPort(const QString& text, quint16 port)
{
    static const QRegularExpression separator(QStringLiteral("[,{} ]+"));
    static const QRegularExpression dash(QStringLiteral("[-:]"));
    const QStringList parts = text.split(separator, Qt::SkipEmptyParts);
    return std::any_of(parts.cbegin(), parts.cend(), [port](const QString& part) {
        const QStringList ends = part.split(dash);
        return port >= ends.constFirst().toInt() && port <= ends.constLast().toInt();
    });
}

/// The part of a rule of an input chain that the program understands.
struct Rule
{
    QString text;
    QString protocol; ///< "udp" or "tcp". Empty: every protocol.
    QString ports; ///< The destination ports. Empty: every port.
    bool accepts;
    bool drops;
    bool isNarrow; ///< Whether it has other conditions, so it may not apply.
};

const QRegularExpression& portForm()
{
    static const QRegularExpression form(QStringLiteral("(?:--dports?|dport)\\s+(\\{[^}]*\\}|[0-9:,-]+)"));
    return form;
}

Rule ruleOf(const QString& text)
{
    static const QRegularExpression protocol(
        QStringLiteral("(?:\\b-p |\\bip protocol |meta l4proto |^\\s*|\\s)(udp|tcp)\\b"));
    static const QRegularExpression verdict(
        QStringLiteral("(?:-j |\\b)(ACCEPT|DROP|REJECT|accept|drop|reject)\\b"));
    static const QRegularExpression narrow(
        QStringLiteral("\\b(saddr|daddr|iif|iifname|ct state|ct mark|sport|icmp\\S*|igmp|fib|limit)\\b|"
                       "(^| )(-s|-d|-i|--sport|--sports|--ctstate|--state|--mark|--limit|--icmp-type) "));
    Rule rule;
    rule.text = text.simplified();
    rule.protocol = protocol.match(text).captured(1);
    rule.ports = portForm().match(text).captured(1);
    const QString word = verdict.match(text).captured(1).toLower();
    rule.accepts = word == QLatin1String("accept");
    rule.drops = word == QLatin1String("drop") || word == QLatin1String("reject");
    rule.isNarrow = narrow.match(text).hasMatch();
    return rule;
}

/// A chain of rules for incoming packets.
struct Chain
{
    QString policy; ///< The line that drops all other packets. Empty if they are accepted.
    QList<Rule> rules;
};

QList<Chain> chainsOfNft(const QStringList& lines)
{
    QList<Chain> result;
    bool isInput = false;
    for (const QString& line : lines) {
        const QString text = line.trimmed();
        if (text.startsWith(QLatin1String("chain ")) || text == QLatin1String("}")) {
            isInput = false;
        } else if (text.contains(QLatin1String("hook input"))) {
            isInput = true;
            Chain chain;
            if (text.contains(QLatin1String("policy drop")))
                chain.policy = text.simplified();
            result.append(chain);
        } else if (isInput && !text.isEmpty()) {
            result.last().rules.append(ruleOf(text));
        }
    }
    return result;
}

QList<Chain> chainsOfIptables(const QStringList& lines)
{
    Chain chain;
    bool isFilter = false;
    for (const QString& line : lines) {
        if (line.startsWith(QLatin1Char('*')))
            isFilter = line.trimmed() == QLatin1String("*filter");
        else if (isFilter && line.startsWith(QLatin1String(":INPUT DROP")))
            chain.policy = QStringLiteral("INPUT DROP");
        else if (isFilter && line.startsWith(QLatin1String("-A INPUT ")))
            chain.rules.append(ruleOf(line.mid(9)));
    }
    return {chain};
}

/// Returns the rule or policy of @p chain that drops packets to @p port. Empty if none is known to drop them.
QString dropOf(const Chain& chain, const QString& protocol, quint16 port)
{
    for (const Rule& rule : chain.rules) {
        const bool concerns = (rule.protocol.isEmpty() || rule.protocol == protocol)
            && (rule.ports.isEmpty() || hasPort(rule.ports, port));
        if (!concerns)
            continue;
        // If a rule with other conditions accepts the port, it may accept the packets of the device. Then no rule
        // is reported.
        if (rule.accepts && (!rule.isNarrow || !rule.ports.isEmpty()))
            return QString();
        if (rule.drops && !rule.isNarrow)
            return rule.text;
    }
    return chain.policy;
}

QString outputOf(const QString& program, const QStringList& arguments)
{
    const QString path = QStandardPaths::findExecutable(
        program, {QStringLiteral("/usr/sbin"), QStringLiteral("/sbin"), QStringLiteral("/usr/bin")});
    if (path.isEmpty())
        return QString();
    QProcess process;
    process.start(path, arguments, QIODevice::ReadOnly);
    if (!process.waitForFinished(LONGEST_LISTING)) {
        process.kill();
        process.waitForFinished();
        return QString();
    }
    return QString::fromUtf8(process.readAllStandardOutput().left(MAX_RULES));
}

} // namespace

QString kindOfInterface(const QString& name, const QString& kind)
{
    struct Meaning
    {
        const char* kind;
        const char* text;
    };
    static const Meaning kinds[] = {
        {"bridge", "bridge"},    {"openvswitch", "bridge"}, {"veth", "container"},   {"macvlan", "container"},
        {"ipvlan", "container"}, {"tun", "tunnel"},         {"wireguard", "tunnel"}, {"ipip", "tunnel"},
        {"gre", "tunnel"},       {"gretap", "tunnel"},      {"sit", "tunnel"},       {"vti", "tunnel"},
        {"xfrm", "tunnel"},      {"vxlan", "tunnel"},       {"geneve", "tunnel"},    {"ppp", "tunnel"},
        {"ip6tnl", "tunnel"},    {"dummy", "no network"},   {"ifb", "no network"},
    };
    // Programs that run containers and virtual machines give these names to their bridges.
    static const QRegularExpression containerName(
        QStringLiteral("^(docker|br-[0-9a-f]{12}|podman|cni|lxc|lxd|virbr|veth)"));
    if (containerName.match(name).hasMatch())
        return kind == QLatin1String("bridge") ? QStringLiteral("bridge of containers")
                                               : QStringLiteral("container");
    for (const Meaning& meaning : kinds) {
        if (kind == QLatin1String(meaning.kind))
            return QString::fromLatin1(meaning.text);
    }
    return QString();
}

QList<QByteArray> socketsOnPort(const QByteArray& table, quint16 port)
{
    const QByteArray end = ':' + QByteArray::number(port, 16).toUpper().rightJustified(4, '0');
    QList<QByteArray> result;
    const QList<QByteArray> lines = table.split('\n');
    for (const QByteArray& line : lines) {
        // sl, local, remote, state, queues, timer, retransmits, uid, time-out, inode
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (fields.size() > 9 && fields.at(1).endsWith(end))
            result.append(fields.at(9));
    }
    return result;
}

QStringList droppingRules(const QString& rules, const Ports& ports)
{
    const QStringList lines = rules.split(QLatin1Char('\n'));
    const bool isNft = rules.contains(QLatin1String("hook input"));
    const QList<Chain> chains = isNft ? chainsOfNft(lines) : chainsOfIptables(lines);
    QStringList result;
    const auto check = [&result, &chains](const QString& protocol, quint16 port) {
        for (const Chain& chain : chains) {
            const QString drop = dropOf(chain, protocol, port);
            if (!drop.isEmpty())
                result << QStringLiteral("%1 %2: %3").arg(protocol.toUpper()).arg(port).arg(readable(drop));
        }
    };
    for (const quint16 port : ports.udp)
        check(QStringLiteral("udp"), port);
    for (const quint16 port : ports.tcp)
        check(QStringLiteral("tcp"), port);
    return result;
}

HostSeen lookAtHost(const QList<QHostAddress>& searched, const QList<quint16>& ports, bool hasPort)
{
    HostSeen host;
    host.hasPort = hasPort;
    const QHash<int, QString> kinds = linkKinds();
    const QList<QNetworkInterface> interfaces = QNetworkInterface::allInterfaces();
    // In the order of the library: from the last interface to the first.
    for (auto it = interfaces.crbegin(); it != interfaces.crend(); ++it) {
        if (!it->flags().testFlag(QNetworkInterface::IsUp) || it->flags().testFlag(QNetworkInterface::IsLoopBack))
            continue;
        const QList<QNetworkAddressEntry> entries = it->addressEntries();
        for (const QNetworkAddressEntry& entry : entries) {
            if (entry.ip().protocol() != QAbstractSocket::IPv4Protocol)
                continue;
            AddressSeen seen;
            seen.address = entry.ip();
            seen.prefixLength = entry.prefixLength();
            seen.interface = it->name();
            seen.kind = kindOfInterface(it->name(), kinds.value(it->index()));
            seen.searchPort = ports.value(searched.indexOf(entry.ip()));
            if (seen.searchPort == 0)
                seen.groupError = groupErrorOf(entry.ip());
            host.addresses.append(seen);
        }
    }
    if (!hasPort)
        host.portHolders =
            holdersOf(socketsOnPort(contentOf(QStringLiteral("/proc/net/udp")), Protocol::SSDP_PORT));
    return host;
}

void judgeHost(HostSeen& host, bool hasSearched)
{
    const auto add = [&host](const char* id, const QString& evidence) {
        host.findings.append({QByteArray(id), evidence});
    };
    if (host.addresses.isEmpty())
        add("host.no-interface", QString());
    if (!host.hasPort) {
        QUdpSocket probe;
        const bool isDenied = !probe.bind(QHostAddress(QHostAddress::AnyIPv4), Protocol::SSDP_PORT)
            && probe.error() == QAbstractSocket::SocketAccessError;
        add(isDenied ? "host.port-denied" : "host.port-taken", host.portHolders.join(QStringLiteral(", ")));
        return;
    }
    if (!hasSearched)
        return;
    Ports ports = {{Protocol::SSDP_PORT}, {}};
    for (const AddressSeen& address : std::as_const(host.addresses)) {
        const QString name = QStringLiteral("%1 (%2)").arg(address.address.toString(), address.interface);
        if (!address.groupError.isEmpty())
            add("host.no-group", QStringLiteral("%1: %2").arg(name, readable(address.groupError)));
        if (address.searchPort == 0)
            continue;
        if (!ports.udp.contains(address.searchPort))
            ports.udp.append(address.searchPort);
        if (!address.hasLoop)
            add("host.no-loop", name);
        if (!address.isEventPortOpen)
            add("host.event-port", name);
        ports.tcp = {address.eventPort};
    }
    if (geteuid() != 0)
        return;
    QStringList drops =
        droppingRules(outputOf(QStringLiteral("nft"), {QStringLiteral("list"), QStringLiteral("ruleset")}), ports);
    if (drops.isEmpty())
        drops = droppingRules(outputOf(QStringLiteral("iptables-save"), {}), ports);
    if (!drops.isEmpty())
        add("host.netfilter", drops.join(QStringLiteral("; ")));
}

} // namespace Doctor
} // namespace Velmora

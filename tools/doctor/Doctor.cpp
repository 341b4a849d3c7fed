#include <tools/doctor/Doctor.h>

#include <tools/doctor/Diagnosis.h>

#include <ssdp/Latin1Text.h>
#include <ssdp/Protocol.h>

#include <QtCore/QUrl>
#include <QtNetwork/QNetworkProxy>

#include <algorithm>
#include <utility>

namespace Velmora {
namespace Doctor {

using SSDP::textUpToZero;
namespace Protocol = SSDP::Protocol;

namespace {

// In milliseconds after the library's search, so that no device must answer two searches at once.
const int STANDARD_SEARCH_AFTER = 1000;
const int NAMED_SEARCH_AFTER = 1500;

// Long enough for answers to every search, even if they come later than MX.
const int SHORTEST_DISCOVERY = Protocol::MX * 1000 + 2000;

const int LONGEST_STEP = 10 * 1000;
const int MAX_DEVICES = 1000;
const int MAX_EXAMINATIONS = 16;

bool isGoodbye(const QByteArray& text)
{
    return Protocol::headerValue(textUpToZero(text), QStringLiteral("NTS")) == QLatin1String("ssdp:byebye");
}

} // namespace

Doctor::Doctor(const Settings& settings, QObject* parent)
    : QObject(parent)
    , settings(settings)
    , duration(qMax(settings.timeout, SHORTEST_DISCOVERY))
    , discovery(duration)
    , standardSent(-1)
    , namedSent(-1)
    , leftOut(0)
    , isTimeOver(false)
    , isDiscoveryOver(false)
    , isFinished(false)
{
    connect(&discovery, &Discovery::received, this, &Doctor::onReceived);
    connect(&discovery, &Discovery::found, this, &Doctor::onFound);
    connect(&discovery, &Discovery::subscribed, this, &Doctor::onSubscribed);
    connect(&discovery, &Discovery::finished, this, &Doctor::onDiscoveryFinished);
    connect(&standardTimer, &QTimer::timeout, this, &Doctor::searchAsOthersDo);
    connect(&namedTimer, &QTimer::timeout, this, &Doctor::searchNamed);
    connect(&timeoutTimer, &QTimer::timeout, this, &Doctor::onTimeout);
    for (QTimer* const timer : {&standardTimer, &namedTimer, &timeoutTimer}) {
        timer->setSingleShot(true);
        timer->setTimerType(Qt::PreciseTimer);
    }
}

Doctor::~Doctor()
{
    qDeleteAll(running);
}

void Doctor::start()
{
    clock.start();
    discovery.start();
    timeoutTimer.start(settings.timeout);
    standardTimer.start(STANDARD_SEARCH_AFTER);
    if (!settings.named.isEmpty())
        namedTimer.start(NAMED_SEARCH_AFTER);
    openSearchSockets();
    hostSeen = lookAtHost(discovery.addresses(), discovery.searchPorts(), discovery.hasPort());
    for (int i = 0; i < hostSeen.addresses.size(); ++i) {
        AddressSeen& address = hostSeen.addresses[i];
        const EventServer* const server = servers.value(address.address.toIPv4Address());
        if (!server || !server->isListening())
            continue;
        address.eventPort = server->serverPort();
        // A firewall that drops this connection of the host to itself also drops the events of devices.
        auto* const probe = Connection::open(server->serverAddress(), server->serverPort(), this);
        connect(probe, &Connection::connected, this, [this, i, probe] {
            hostSeen.addresses[i].isEventPortOpen = true;
            probe->deleteLater();
        });
        connect(probe, &Connection::ended, probe, &QObject::deleteLater);
    }
}

void Doctor::stop()
{
    if (isFinished)
        return;
    isFinished = true;
    for (QTimer* const timer : {&standardTimer, &namedTimer, &timeoutTimer})
        timer->stop();
    for (const QHostAddress& address : std::as_const(settings.named)) {
        const bool isKnown = std::any_of(seen.cbegin(), seen.cend(), [&address](const auto& device) {
            return device->isNamed
                && (device->sender == address || QUrl(device->location).host() == address.toString());
        });
        if (!isKnown && isDiscoveryOver)
            deviceOf(QString(), address, QHostAddress());
    }
    judgeHost(hostSeen, !discovery.addresses().isEmpty());
    discovery.stop();
    Q_EMIT finished();
}

int Doctor::foundSoFar() const
{
    return static_cast<int>(
        std::count_if(seen.cbegin(), seen.cend(), [](const auto& device) { return device->found != -1; }));
}

int Doctor::timeLeft() const
{
    return isDiscoveryOver ? 0 : qMax(0, duration - elapsed());
}

bool Doctor::isWanted(const QString& location, const QHostAddress& sender) const
{
    return settings.named.isEmpty() || settings.named.contains(sender)
        || settings.named.contains(QHostAddress(QUrl(location).host()));
}

DeviceSeen* Doctor::deviceOf(const QString& location, const QHostAddress& sender, const QHostAddress& local)
{
    if (!isWanted(location, sender))
        return nullptr;
    // Each location is one device, as in the library.
    const QString key = location.isEmpty() ? sender.toString() : location;
    if (DeviceSeen* const known = byKey.value(key))
        return known;
    if (seen.size() >= MAX_DEVICES) {
        ++leftOut;
        return nullptr;
    }
    seen.push_back(std::make_unique<DeviceSeen>());
    DeviceSeen* const device = seen.back().get();
    device->location = location;
    device->sender = sender;
    device->local = local;
    device->isNamed = !settings.named.isEmpty();
    byKey.insert(key, device);
    return device;
}

// Search

void Doctor::onReceived(const Datagram& datagram)
{
    Q_EMIT examiners.trace.message(false, datagram.sender, datagram.port, datagram.text);
    const QString text = textUpToZero(datagram.text);
    if (!datagram.isAnswer && text.startsWith(QLatin1String("M-SEARCH"))) {
        for (AddressSeen& address : hostSeen.addresses) {
            if (address.address == datagram.sender && address.searchPort == datagram.port)
                address.hasLoop = true;
        }
        return;
    }
    if (isGoodbye(datagram.text))
        return;
    const QString location = Protocol::headerValue(text, QStringLiteral("Location"));
    DeviceSeen* const device = deviceOf(location, datagram.sender, datagram.local);
    if (!device)
        return;
    SearchSeen& search = device->search;
    if (search.message.isEmpty())
        search.message = datagram.text;
    if (search.heard == -1)
        search.heard = elapsed();
    if (datagram.isAnswer) {
        if (search.answerDelay == -1) {
            search.answerDelay = elapsed();
            device->local = datagram.local;
        }
        if (device->local == datagram.local)
            ++search.answers;
    } else if (search.announced == -1) {
        search.announced = elapsed();
    }
}

void Doctor::openSearchSockets()
{
    const QList<QHostAddress> addresses = discovery.addresses();
    for (const QHostAddress& address : addresses) {
        if (address.isNull() || servers.contains(address.toIPv4Address()))
            continue;
        auto* const server = new EventServer(&examiners.trace, this);
        server->listen(address);
        servers.insert(address.toIPv4Address(), server);

        searchSockets.insert(address.toIPv4Address(), openSearchSocket(address, false));
    }
}

QUdpSocket* Doctor::openSearchSocket(const QHostAddress& address, bool isForOne)
{
    auto* const socket = new QUdpSocket(this);
    socket->setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
    socket->bind(address);
    connect(socket, &QUdpSocket::readyRead, this,
            [this, socket, address, isForOne] { onOwnAnswer(socket, address, isForOne); });
    return socket;
}

void Doctor::searchAsOthersDo()
{
    standardSent = elapsed();
    const QHostAddress group(QString::fromLatin1(Protocol::GROUP_ADDRESS));
    const QByteArray message = Protocol::searchMessage().toLatin1().replace("\n", "\r\n");
    QSet<QString> interfaces;
    for (const AddressSeen& address : std::as_const(hostSeen.addresses)) {
        QUdpSocket* const socket = searchSockets.value(address.address.toIPv4Address());
        // The library sends a search from every address. This search is sent only once from every interface.
        if (!socket || interfaces.contains(address.interface))
            continue;
        interfaces.insert(address.interface);
        Q_EMIT examiners.trace.message(true, group, Protocol::SSDP_PORT, message);
        socket->writeDatagram(message, group, Protocol::SSDP_PORT);
    }
}

void Doctor::searchNamed()
{
    namedSent = elapsed();
    const QByteArray message = Protocol::searchMessage().toLatin1();
    for (const QHostAddress& target : std::as_const(settings.named)) {
        const bool isHeard = std::any_of(seen.cbegin(), seen.cend(),
                                         [&target](const auto& device) { return device->sender == target; });
        const auto local = std::find_if(
            hostSeen.addresses.cbegin(), hostSeen.addresses.cend(), [&target](const AddressSeen& address) {
                return address.prefixLength > 0 && target.isInSubnet(address.address, address.prefixLength);
            });
        if (isHeard || unicastTargets.contains(target.toIPv4Address()))
            continue;
        unicastTargets.insert(target.toIPv4Address());
        // If the target is in no local network, the system chooses the local address.
        const QHostAddress from =
            local == hostSeen.addresses.cend() ? QHostAddress(QHostAddress::AnyIPv4) : local->address;
        QUdpSocket* const socket = openSearchSocket(from, true);
        Q_EMIT examiners.trace.message(true, target, Protocol::SSDP_PORT, message);
        socket->writeDatagram(message, target, Protocol::SSDP_PORT);
    }
}

void Doctor::onOwnAnswer(QUdpSocket* socket, const QHostAddress& local, bool isForOne)
{
    QHostAddress sender;
    quint16 port = 0;
    QByteArray text(static_cast<int>(qMax<qint64>(0, socket->pendingDatagramSize())), '\0');
    text.resize(static_cast<int>(qMax<qint64>(0, socket->readDatagram(text.data(), text.size(), &sender, &port))));
    Q_EMIT examiners.trace.message(false, sender, port, text);
    const QString location = Protocol::headerValue(textUpToZero(text), QStringLiteral("Location"));
    DeviceSeen* const device = deviceOf(location, sender, local);
    if (!device)
        return;
    if (device->search.message.isEmpty())
        device->search.message = text;
    int& delay = isForOne ? device->search.unicastDelay : device->search.standardDelay;
    if (delay == -1)
        delay = elapsed() - (isForOne ? namedSent : standardSent);
}

// Devices

void Doctor::onFound(const QString& location, const QHostAddress& sender, int functionCode, int univocalCode)
{
    DeviceSeen* const device = deviceOf(location, sender, QHostAddress());
    if (!device || device->found != -1)
        return;
    device->found = elapsed();
    device->functionCode = functionCode;
    device->univocalCode = univocalCode;
    if (!isTimeOver)
        request(*device);
}

void Doctor::onSubscribed(const QHostAddress& address, quint16 port, const QByteArray& reply)
{
    if (!reply.isEmpty())
        Q_EMIT examiners.trace.message(false, address, port, reply);
    int status = 0;
    if (!reply.isEmpty()) {
        SSDP::HttpReader reader;
        reader.read(reply.constData(), reply.size());
        status = reader.statusCode();
    }
    for (const auto& device : seen) {
        QHostAddress host;
        quint16 hostPort = 0;
        if (isUsableLocation(device->location, &host, &hostPort) && host == address && hostPort == port)
            device->libraryStatus = qMax(device->libraryStatus, status);
    }
}

void Doctor::onTimeout()
{
    isTimeOver = true;
    for (const auto& device : seen)
        request(*device);
    finishIfDone();
}

/// Examines @p device if it was heard in time and has a usable location. The host in the location must have sent a
/// message or be named on the command line, because nothing is sent to other hosts.
void Doctor::request(DeviceSeen& device)
{
    QHostAddress address;
    quint16 port = 0;
    const bool isHeard = device.search.heard != -1 && device.search.heard <= settings.timeout;
    if (requested.contains(&device) || !isHeard || !isUsableLocation(device.location, &address, &port))
        return;
    const bool hasAnswered = std::any_of(seen.cbegin(), seen.cend(),
                                         [&address](const auto& other) { return other->sender == address; });
    if (!hasAnswered && !settings.named.contains(address))
        return;
    requested.insert(&device);
    waiting.append(&device);
    startWaiting();
}

void Doctor::startWaiting()
{
    while (!isFinished && !waiting.isEmpty() && running.size() < MAX_EXAMINATIONS) {
        DeviceSeen* const device = waiting.takeFirst();
        EventServer* server = servers.value(device->local.toIPv4Address());
        if (!server && !servers.isEmpty())
            server = servers.constBegin().value();
        if (!server)
            continue;
        auto* const examination =
            new Examination(*device, *server, qMin(settings.timeout, LONGEST_STEP), examiners, nullptr);
        running.append(examination);
        connect(examination, &Examination::finished, this, [this, examination] {
            running.removeOne(examination);
            examination->deleteLater();
            startWaiting();
            finishIfDone();
        });
        examination->start();
    }
}

void Doctor::onDiscoveryFinished()
{
    isDiscoveryOver = true;
    finishIfDone();
}

void Doctor::finishIfDone()
{
    if (isDiscoveryOver && isTimeOver && running.isEmpty() && waiting.isEmpty())
        stop();
}

} // namespace Doctor
} // namespace Velmora

#include "moc_Doctor.cpp"

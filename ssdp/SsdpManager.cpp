#include <ssdp/SsdpManager.h>

#include <log/Logger.h>
#include <ssdp/BoundedXml.h>
#include <ssdp/Latin1Text.h>
#include <ssdp/MulticastSocket.h>

#include <QtCore/QPointer>
#include <QtCore/QUrl>
#include <QtCore/QVector>
#include <QtNetwork/QNetworkProxy>
#include <QtNetwork/QNetworkRequest>
#include <QtNetwork/QTcpSocket>
#include <QtNetwork/QUdpSocket>
#include <QtXml/QDomDocument>

#include <cerrno>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <unistd.h>
#include <utility>

namespace Velmora {
namespace SSDP {

using Log::Logger;

namespace {

// A thousand devices answer one search within seconds; the kernel's default holds some 280 answers.
const int RECEIVE_BUFFER_SIZE = 4 * 1024 * 1024;

// A description is a few kilobytes. A longer reply waits here, unread, for the next clearDevices().
const qint64 REPLY_BUFFER_SIZE = Q_INT64_C(16) * 1024 * 1024;

// Descriptors that are left to the rest of the process, where there are a thousand.
const rlim_t SPARE_DESCRIPTORS = 64;

// How many names of one document may hash alike. That two do is rare.
const int MOST_NAMES_ALIKE = 64;

// How often waiting heads are looked for, in milliseconds: well below the pause behind a head.
const int HEAD_INTERVAL = 5;

void askForReceiveBuffer(const QUdpSocket* socket)
{
    // The kernel grants no more than net.core.rmem_max, and refuses a socket without a descriptor.
    setsockopt(static_cast<int>(socket->socketDescriptor()), SOL_SOCKET, SO_RCVBUF, &RECEIVE_BUFFER_SIZE,
               sizeof RECEIVE_BUFFER_SIZE);
}

/// Whether the network has had its share of the descriptors. The next thread that Qt or GLib starts aborts
/// the process when there is none left for it.
bool descriptorsAreScarce()
{
    const int lowest = eventfd(0, EFD_CLOEXEC);
    if (lowest == -1)
        return errno == EMFILE || errno == ENFILE;
    close(lowest);
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return false;
    return static_cast<rlim_t>(lowest) >= limit.rlim_cur - qMin(SPARE_DESCRIPTORS, limit.rlim_cur / 16);
}

/// What a document adds to a table of names. Before Qt 6, names that hash alike do so whatever the seed:
/// thousands of them would make a list of the table, and minutes of a document.
class NewNames
{
public:
    explicit NewNames(const QHash<QString, QString>& table)
        : table(table)
    {
    }

    bool admit(const QString& name) { return table.contains(name) || ++alike[hash(name)] <= MOST_NAMES_ALIKE; }

private:
    static quint64 hash(const QString& name)
    {
#if QT_VERSION >= QT_VERSION_CHECK(5, 6, 0) && QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
        // Without a seed it is another function than that of the table.
        return qHash(name, static_cast<uint>(qGlobalQHashSeed()));
#else
        return qHash(name);
#endif
    }

    const QHash<QString, QString>& table;
    QHash<quint64, int> alike;
};

bool lineBeginsWith(const QString& message, int begin, int end, const QString& header)
{
    if (end - begin < header.size())
        return false;
    for (int i = 0; i < header.size(); ++i) {
        if (message.at(begin + i).toCaseFolded() != header.at(i).toCaseFolded())
            return false;
    }
    return true;
}

QString childText(const QDomNode& parent, const char* name)
{
    return parent.firstChildElement(QLatin1String(name)).text();
}

} // namespace

const QHostAddress SsdpManager::MULTICAST_GROUP_ADDRESS(QString(QLatin1String("239.255.255.250")));
const QString SsdpManager::DEVICE_FILTER(QLatin1String("urn:schemas-upnp-org:device"));
const QString SsdpManager::SERVICE_FILTER(QLatin1String("urn:schemas-upnp-org:service"));
const QString SsdpManager::VELMORA_DEVICE_FILTER(QLatin1String("urn:schemas-velmora-it:device:"));
const QString SsdpManager::VELMORA_SERVICE_FILTER(QLatin1String("urn:schemas-velmora-it:service:keyobjects:1"));

// Lifecycle

SsdpManager::SsdpManager(const QHostAddress& address, QObject* parent)
    : QObject(parent)
    , localAddress(address)
    , multicastSocket(nullptr)
    , unicastSocket(nullptr)
    , generation(0)
{
    networkManager.setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    // Qt 6 follows redirects unless told otherwise; a device is described by its own location only.
    networkManager.setRedirectPolicy(QNetworkRequest::ManualRedirectPolicy);
#endif
    eventServer.setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
    connect(&networkManager, SIGNAL(finished(QNetworkReply*)), this, SLOT(onReplyFinished(QNetworkReply*)));
    connect(&eventServer, SIGNAL(newConnection()), this, SLOT(onNewConnection()));
}

SsdpManager::~SsdpManager()
{
    // The members below still signal while they are destroyed, when no slot may run any more.
    disconnect(&networkManager, nullptr, this, nullptr);
    disconnect(&eventServer, nullptr, this, nullptr);
    for (QTcpSocket* const socket : std::as_const(silentSockets))
        disconnect(socket, nullptr, this, nullptr);

    if (multicastSocket) {
        multicastSocket->leaveMulticastGroup(MULTICAST_GROUP_ADDRESS, localAddress);
        multicastSocket->close();
        delete multicastSocket;
        multicastSocket = nullptr;
    }
    if (unicastSocket) {
        unicastSocket->close();
        delete unicastSocket;
        unicastSocket = nullptr;
    }
    eventServer.close();
    for (QTcpSocket* const socket : std::as_const(requestSockets)) {
        disconnect(socket, SIGNAL(connected()), this, SLOT(onRequestSocketConnected()));
        disconnect(socket, SIGNAL(readyRead()), this, SLOT(onRequestSocketReadyRead()));
        disconnect(socket, SIGNAL(disconnected()), this, SLOT(onResponseSocketDisconnected()));
    }
    qDeleteAll(devices);
}

void SsdpManager::initialize()
{
    static const char signature[] = "void Velmora::SSDP::SsdpManager::initialize()";

    multicastSocket = new MulticastSocket(this);
    unicastSocket = new QUdpSocket(this);
    unicastSocket->setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
    connect(multicastSocket, SIGNAL(readyRead()), this, SLOT(onMulticastMessageReceived()));
    connect(unicastSocket, SIGNAL(readyRead()), this, SLOT(onUnicastMessageReceived()));

    if (!multicastSocket->bind(1900)) {
        Logger(Logger::Error) << signature << "Failed to bind multicast socket for listening";
        return;
    }
    askForReceiveBuffer(multicastSocket);
    if (!multicastSocket->joinMulticastGroup(MULTICAST_GROUP_ADDRESS, localAddress)) {
        const QString text(QLatin1String("Could n``ot join %1"));
        Logger(Logger::Error) << signature << text.arg(MULTICAST_GROUP_ADDRESS.toString());
        return;
    }

    // The socket above takes port 1900 of every address, so the search goes out from 49152 as a rule.
    bool bound = unicastSocket->bind(localAddress, 1900);
    for (quint16 port = 49152; !bound && port < 65535; ++port)
        bound = unicastSocket->bind(localAddress, port);
    askForReceiveBuffer(unicastSocket);

    // A server that listens already keeps its port, and Qt would warn of the call.
    if (!eventServer.isListening() && eventServer.listen(localAddress, 0)) {
        // Qt's own backlog of 50 loses connections when many devices send their event at once.
        ::listen(static_cast<int>(eventServer.socketDescriptor()), SOMAXCONN);
    } else {
        Logger(Logger::Error) << signature << "Could not bind local Ssdp server";
    }
    Logger(Logger::Information) << QString(QLatin1String("Ssdp Server bound to %1")).arg(eventServer.serverPort());
}

void SsdpManager::stop()
{
    if (multicastSocket) {
        disconnect(multicastSocket, SIGNAL(readyRead()), this, SLOT(onMulticastMessageReceived()));
        multicastSocket->leaveMulticastGroup(MULTICAST_GROUP_ADDRESS, localAddress);
        multicastSocket->close();
        delete multicastSocket;
        multicastSocket = nullptr;
    }
    if (unicastSocket) {
        disconnect(unicastSocket, SIGNAL(readyRead()), this, SLOT(onUnicastMessageReceived()));
        unicastSocket->close();
        delete unicastSocket;
        unicastSocket = nullptr;
    }
}

void SsdpManager::clearDevices()
{
    ++generation;

    // Every pending reply is for a device, also those for a service.
    const QList<QNetworkReply*> replies = deviceReplies.keys();
    deviceReplies.clear();
    serviceReplies.clear();
    for (QNetworkReply* const reply : replies) {
        // abort() says finished() itself, and some replies have it queued already.
        reply->disconnect(SIGNAL(finished()));
        reply->abort();
        reply->deleteLater();
    }

    for (auto it = requestSocketServices.begin(); it != requestSocketServices.end(); ++it) {
        it.value() = nullptr;
        // Nobody reads this connection any more, so nothing of it is kept in memory either.
        it.key()->setReadBufferSize(1);
    }

    qDeleteAll(devices);
    devices.clear();
}

SsdpDevice* SsdpManager::getDeviceForService(const SsdpService* service) const
{
    for (SsdpDevice* const device : devices) {
        for (const SsdpService* const candidate : std::as_const(device->services)) {
            if (candidate == service)
                return device;
        }
    }
    return nullptr;
}

// Search

void SsdpManager::discover()
{
    if (!unicastSocket)
        return;
    unicastSocket->writeDatagram(createSearchMessage().toLatin1(), MULTICAST_GROUP_ADDRESS, 1900);
}

QString SsdpManager::createSearchMessage()
{
    QString message;
    message += QLatin1String("M-SEARCH * HTTP/1.1\n");
    message += QString(QLatin1String("HOST: %1:1900\n")).arg(MULTICAST_GROUP_ADDRESS.toString());
    message += QLatin1String("MAN: \"ssdp:discover\"\n");
    message += QLatin1String("MX: 3\n");
    message += QLatin1String("ST: upnp:rootdevice\n");
    message += QString(QLatin1String("USER-AGENT: %1 UPnP/1.1 SSDP/1.0\n")).arg(getSystemInfo());
    message += QLatin1String("\n");
    return message;
}

QString SsdpManager::getSystemInfo()
{
    utsname system;
    if (uname(&system) != 0)
        return QString(QLatin1String("Undefined/-1"));
    return QString(QLatin1String("%1/%2"))
        .arg(QString::fromLatin1(system.sysname), QString::fromLatin1(system.release));
}

void SsdpManager::onMulticastMessageReceived()
{
    readDatagram(multicastSocket);
}

void SsdpManager::onUnicastMessageReceived()
{
    readDatagram(unicastSocket);
}

void SsdpManager::readDatagram(QUdpSocket* socket)
{
    if (!socket)
        return;

    // The socket signals again only once it was read: one read a call, whatever its size is said to
    // be, -1 included.
    const qint64 size = socket->pendingDatagramSize();
    QByteArray datagram(static_cast<int>(size) + 1, '\0');
    QHostAddress address;
    if (socket->readDatagram(datagram.data(), datagram.size(), &address) != size)
        return;

    const QString location = getHeaderValue(textUpToZero(datagram), QString(QLatin1String("Location")));
    if (!location.isEmpty())
        addSsdpDevice(address, location);
}

QString SsdpManager::getHeaderValue(const QString& message, const QString& header)
{
    // No list of lines: a message of nothing but line feeds would make a million of them.
    int end = -1;
    while (end < message.size()) {
        const int begin = end + 1;
        end = static_cast<int>(message.indexOf(QLatin1Char('\n'), begin));
        if (end == -1)
            end = static_cast<int>(message.size());

        if (!lineBeginsWith(message, begin, end, header))
            continue;
        const int colon = static_cast<int>(message.indexOf(QLatin1Char(':'), begin));
        if (colon > begin && colon < end)
            return message.mid(colon + 1, end - colon - 1).trimmed();
    }
    return QString();
}

void SsdpManager::addSsdpDevice(const QHostAddress& address, const QString& location)
{
    for (const SsdpDevice* const known : std::as_const(devices)) {
        if (known->location == location)
            return;
    }

    SsdpDevice* const device = new SsdpDevice;
    device->address = address;
    device->location = location;
    device->id = QUuid::createUuid();
    devices.append(device);
    Logger(Logger::Information) << "Ssdp device" << location;
    deviceReplies.insert(get(location), device);
}

QNetworkReply* SsdpManager::get(const QString& url)
{
    // Qt would open a file as it stands, and opening a pipe or a device may block or harm the host; what
    // it reads by FTP, as long as it could, has no bound. No URL at all fails like one that nobody serves.
    const QUrl parsed(url);
    const bool isRefused =
        parsed.isLocalFile() || parsed.scheme() == QLatin1String("ftp") || descriptorsAreScarce();
    QNetworkRequest request(isRefused ? QUrl() : parsed);
    // A cookie would come back with every later request, and all of them would be searched for each.
    request.setAttribute(QNetworkRequest::CookieLoadControlAttribute, QNetworkRequest::Manual);
    request.setAttribute(QNetworkRequest::CookieSaveControlAttribute, QNetworkRequest::Manual);
    QNetworkReply* const reply = networkManager.get(request);
    reply->setReadBufferSize(REPLY_BUFFER_SIZE);
    return reply;
}

QString SsdpManager::getHost(const QString& url) const
{
    const QUrl parsed(url);
    const char port = static_cast<char>(parsed.port(80));
    return parsed.host() + QLatin1Char(':') + QString::fromLatin1(&port, 1);
}

QString SsdpManager::getSubLocation(const QString& path) const
{
    const QLatin1Char slash('/');
    return path.startsWith(slash) ? path : slash + path;
}

QString SsdpManager::getFullLocation(const QString& location, const QString& path) const
{
    const QLatin1String scheme("http://");
    const int authority = location.startsWith(scheme) ? 7 : 0;
    return location.left(location.indexOf(QLatin1Char('/'), authority)) + getSubLocation(path);
}

// Description

void SsdpManager::onReplyFinished(QNetworkReply* networkReply)
{
    handleServerResponse(networkReply);
    deviceReplies.remove(networkReply);
    serviceReplies.remove(networkReply);
    networkReply->deleteLater();
    readWaitingHeads();
}

void SsdpManager::handleServerResponse(QNetworkReply* networkReply)
{
    // More than the buffer there is only of a reply that Qt has unpacked.
    const qint64 size = qMin(networkReply->bytesAvailable(), REPLY_BUFFER_SIZE);
    const QString body = textUpToZero(networkReply->read(size));
    QDomDocument document;
    if (!parseXml(document, body)) {
        Logger(Logger::Error) << "void Velmora::SSDP::SsdpManager::handleServerResponse(QNetworkReply*)"
                              << "Could not parse server response" << body;
        return;
    }

    QDomElement root = document.firstChildElement(QString(QLatin1String("root")));
    if (root.isNull())
        root = document.firstChildElement(QString(QLatin1String("scpd")));
    const QString xmlns = root.attribute(QString(QLatin1String("xmlns")));

    // The document decides, not the request: a service description may be answered by a device's.
    SsdpDevice* const device = deviceReplies.value(networkReply);
    SsdpService* const service = serviceReplies.value(networkReply);
    if (xmlns.startsWith(DEVICE_FILTER)) {
        if (device)
            handleDeviceResponse(device, document);
    } else if (xmlns.startsWith(SERVICE_FILTER)) {
        if (device && service)
            handleServiceResponse(device, service, document);
    }
}

void SsdpManager::handleDeviceResponse(SsdpDevice* device, const QDomDocument& document)
{
    const QString serviceName(QLatin1String("service"));
    QDomElement element = document.firstChildElement(QString(QLatin1String("root")))
                              .firstChildElement(QString(QLatin1String("device")))
                              .firstChildElement(QString(QLatin1String("serviceList")))
                              .firstChildElement(serviceName);
    while (!element.isNull()) {
        SsdpService* const service = new SsdpService;
        service->id = QUuid::createUuid();
        service->serviceType = childText(element, "serviceType");
        service->serviceId = childText(element, "serviceId");
        service->controlUrl = childText(element, "controlURL");
        service->eventSubUrl = childText(element, "eventSubURL");
        service->scpdUrl = childText(element, "SCPDURL");
        device->services.append(service);
        element = element.nextSiblingElement(serviceName);
        Logger(Logger::Information) << "SSDP Device service" << service->scpdUrl;

        if (service->serviceType != VELMORA_SERVICE_FILTER)
            continue;
        QNetworkReply* const reply = get(getFullLocation(device->location, service->scpdUrl));
        deviceReplies.insert(reply, device);
        serviceReplies.insert(reply, service);
    }
}

void SsdpManager::handleServiceResponse(SsdpDevice* device, SsdpService* service, const QDomDocument& document)
{
    const QString variableName(QLatin1String("stateVariable"));
    const QUrl location(device->location);
    NewNames names(service->stateVariables);
    QDomElement element = document.firstChildElement(QString(QLatin1String("scpd")))
                              .firstChildElement(QString(QLatin1String("serviceStateTable")))
                              .firstChildElement(variableName);
    while (!element.isNull()) {
        const QString name = childText(element, "name");
        element = element.nextSiblingElement(variableName);
        if (!names.admit(name))
            continue;
        service->stateVariables.insert(name, QString());

        QTcpSocket* const socket = new QTcpSocket(this);
        socket->setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
        requestSockets.append(socket);
        requestSocketServices.insert(socket, service);
        connect(socket, SIGNAL(connected()), this, SLOT(onRequestSocketConnected()));
        connect(socket, SIGNAL(readyRead()), this, SLOT(onRequestSocketReadyRead()));
        if (!descriptorsAreScarce())
            socket->connectToHost(location.host(), static_cast<quint16>(location.port(80)), QIODevice::ReadWrite);
        // Without a descriptor it will signal nothing: sender() would only walk it with all the others.
        if (socket->state() == QAbstractSocket::UnconnectedState)
            socket->disconnect(this);
        Logger(Logger::Information) << "SSDP response state variable" << name;
    }
}

// Subscription

void SsdpManager::onRequestSocketConnected()
{
    QTcpSocket* const socket = qobject_cast<QTcpSocket*>(sender());
    SsdpService* const service = requestSocketServices.value(socket);
    if (!service)
        return;
    socket->write(createSubscribeMessage(service).toLatin1());
}

QString SsdpManager::createSubscribeMessage(SsdpService* service)
{
    const SsdpDevice* const device = getDeviceForService(service);
    if (!device)
        return QString();

    QString id = service->id.toString();
    id.replace(QLatin1String("{"), QLatin1String(""));
    id.replace(QLatin1String("}"), QLatin1String(""));

    QString message;
    message += QString(QLatin1String("SUBSCRIBE %1 HTTP/1.1\n")).arg(getSubLocation(service->eventSubUrl));
    message += QString(QLatin1String("HOST: %1\n")).arg(getHost(device->location));
    message += QString(QLatin1String("USER-AGENT: %1 UPnP/1.1 SSDP/1.0\n")).arg(getSystemInfo());
    // "%4" goes out as it stands: devices send it back in the path of their events.
    message += QString(QLatin1String("CALLBACK: <http://%1:%2/%3_%4>\n"))
                   .arg(eventServer.serverAddress().toString())
                   .arg(eventServer.serverPort())
                   .arg(id);
    message += QLatin1String("NT: upnp:event\n");
    message += QLatin1String("TIMEOUT: Second-120\n");
    message += QLatin1String("\n");
    return message;
}

void SsdpManager::onRequestSocketReadyRead()
{
    QTcpSocket* const socket = qobject_cast<QTcpSocket*>(sender());
    SsdpService* const service = requestSocketServices.value(socket);
    if (!service)
        return;

    QString sid = getHeaderValue(textUpToZero(socket->readAll()), QString(QLatin1String("SID")));
    service->subscriptionId = QUuid(sid.remove(QLatin1String("uuid:")));

    socket->disconnectFromHost();
    requestSockets.removeOne(socket);
    requestSocketServices.remove(socket);
    socket->deleteLater();
}

// Events

void SsdpManager::onNewConnection()
{
    while (eventServer.hasPendingConnections()) {
        QTcpSocket* const socket = eventServer.nextPendingConnection();
        if (descriptorsAreScarce()) {
            socket->abort();
            socket->deleteLater();
            continue;
        }
        connect(socket, SIGNAL(readyRead()), this, SLOT(onResponseSocketReadyRead()));
        connect(socket, SIGNAL(disconnected()), this, SLOT(onResponseSocketDisconnected()));
        silentSockets.append(socket);
    }
}

void SsdpManager::readWaitingHeads()
{
    // Qt hands over all that its HTTP thread has ready before it looks at a socket again. With many
    // devices that takes longer than the pause in which the head of an event has to be read.
    if (sinceWaitingHeads.isValid() && sinceWaitingHeads.elapsed() < HEAD_INTERVAL)
        return;
    eventServer.waitForNewConnection(0);

    // One call for all of them, however many connections somebody keeps open.
    const QList<QTcpSocket*> waiting = silentSockets;
    QVector<pollfd> descriptors;
    descriptors.reserve(waiting.size());
    for (const QTcpSocket* const socket : waiting) {
        const pollfd descriptor = {static_cast<int>(socket->socketDescriptor()), POLLIN, 0};
        descriptors.append(descriptor);
    }
    if (poll(descriptors.data(), static_cast<nfds_t>(descriptors.size()), 0) > 0) {
        for (int i = 0; i < descriptors.size(); ++i) {
            if (descriptors.at(i).revents != 0)
                waiting.at(i)->waitForReadyRead(0);
        }
    }
    sinceWaitingHeads.start();
}

void SsdpManager::onResponseSocketReadyRead()
{
    QTcpSocket* const socket = qobject_cast<QTcpSocket*>(sender());
    if (!socket)
        return;

    const int contentLength = responseContentLengths.value(socket, -1);
    if (contentLength < 0) {
        readEventHead(socket);
        return;
    }

    SsdpService* const service = requestSocketServices.value(socket);
    if (!service) {
        socket->disconnectFromHost();
        return;
    }
    QString& buffer = responseBuffers[socket];
    buffer += textUpToZero(socket->readAll());
    if (buffer.size() < contentLength - 1)
        return;

    // A receiver of valueChanged() may run an event loop or let this object go, while the socket is
    // still inside its readyRead(): until it returns, nobody else deletes the socket.
    const QPointer<SsdpManager> self(this);
    const QString body = buffer;
    disconnect(socket, SIGNAL(disconnected()), this, SLOT(onResponseSocketDisconnected()));
    socket->setParent(nullptr);
    updateStateVariables(service, body);
    if (!self) {
        socket->deleteLater();
        return;
    }
    socket->setParent(&eventServer);
    connect(socket, SIGNAL(disconnected()), this, SLOT(onResponseSocketDisconnected()));
    if (socket->state() == QAbstractSocket::UnconnectedState)
        forgetResponseSocket(socket);
    else
        socket->disconnectFromHost();
}

void SsdpManager::readEventHead(QTcpSocket* socket)
{
    silentSockets.removeOne(socket);
    const QString header = textUpToZero(socket->readAll());
    SsdpService* const service = getServiceFromHeader(header);
    const QString contentLength = getHeaderValue(header, QString(QLatin1String("CONTENT-LENGTH")));

    // A negative length brings the connection here again with every chunk.
    if (!responseContentLengths.contains(socket))
        requestSockets.append(socket);
    requestSocketServices.insert(socket, service);
    responseContentLengths.insert(socket, contentLength.toInt());
    responseBuffers.insert(socket, QString());

    // Recorded first, since Qt emits disconnected() from inside the call.
    if (!service)
        socket->disconnectFromHost();
}

SsdpService* SsdpManager::getServiceFromHeader(const QString& header)
{
    const QLatin1Char blank(' ');
    const QString line = header.left(header.indexOf(QLatin1Char('\n')));
    const int first = static_cast<int>(line.indexOf(blank));
    if (first == -1)
        return nullptr;
    const int second = static_cast<int>(line.indexOf(blank, first + 1));
    QString path = line.mid(first + 1, second == -1 ? -1 : second - first - 1);
    const QUuid id(path.remove(QLatin1Char('/')));

    for (const SsdpDevice* const device : std::as_const(devices)) {
        for (SsdpService* const service : std::as_const(device->services)) {
            if (service->id == id)
                return service;
        }
    }
    return nullptr;
}

void SsdpManager::updateStateVariables(SsdpService* service, const QString& xml)
{
    static const char signature[] = "void Velmora::SSDP::SsdpManager::updateStateVariables("
                                    "Velmora::SSDP::SsdpService*, const QString&)";
    if (!service) {
        Logger(Logger::Error) << signature << "No service to update variable";
        return;
    }
    QDomDocument document;
    if (!parseXml(document, xml)) {
        Logger(Logger::Error) << signature << "Could not parse event xml";
        return;
    }

    const QPointer<SsdpManager> self(this);
    const unsigned int current = generation;
    const SsdpDevice* const device = getDeviceForService(service);
    NewNames names(service->stateVariables);
    const QString propertyName(QLatin1String("e:property"));
    QDomElement property =
        document.firstChildElement(QString(QLatin1String("e:propertyset"))).firstChildElement(propertyName);
    while (!property.isNull()) {
        const QDomElement variable = property.firstChildElement();
        const QString name = variable.tagName();
        property = property.nextSiblingElement(propertyName);
        if (!names.admit(name))
            continue;
        service->stateVariables.insert(name, variable.text());
        Q_EMIT valueChanged(device, service, name);
        if (!self || generation != current)
            return;
    }
}

void SsdpManager::onResponseSocketDisconnected()
{
    forgetResponseSocket(qobject_cast<QTcpSocket*>(sender()));
}

void SsdpManager::forgetResponseSocket(QTcpSocket* socket)
{
    if (!socket)
        return;
    silentSockets.removeOne(socket);
    requestSockets.removeOne(socket);
    requestSocketServices.remove(socket);
    responseContentLengths.remove(socket);
    responseBuffers.remove(socket);
    socket->deleteLater();
}

} // namespace SSDP
} // namespace Velmora

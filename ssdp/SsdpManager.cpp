#include <ssdp/SsdpManager.h>

#include <log/Logger.h>
#include <ssdp/BoundedXml.h>
#include <ssdp/Documents.h>
#include <ssdp/HttpFetcher.h>
#include <ssdp/Latin1Text.h>
#include <ssdp/MulticastSocket.h>
#include <ssdp/NameBound.h>
#include <ssdp/Protocol.h>
#include <ssdp/RecordIndex.h>

#include <QtCore/QPointer>
#include <QtCore/QUrl>
#include <QtNetwork/QNetworkProxy>
#include <QtNetwork/QNetworkRequest>
#include <QtNetwork/QTcpSocket>
#include <QtNetwork/QUdpSocket>
#include <QtXml/QDomDocument>

#include <sys/socket.h>
#include <utility>

namespace Velmora {
namespace SSDP {

using Log::Logger;

namespace {

// A thousand devices may answer one search at the same time. The default buffer of Linux 6.1
// (net.core.rmem_default, socket(7)) has space for some 280 answers.
const int RECEIVE_BUFFER_SIZE = 4 * 1024 * 1024;

// The buffer of a connection whose data is not used. The reply to a subscription has a few hundred bytes.
const int UNREAD_BUFFER_SIZE = 4 * 1024;

void enlargeReceiveBuffer(const QUdpSocket* socket)
{
    // The kernel limits the size to net.core.rmem_max (socket(7)). If the socket is not bound, the
    // call fails and changes nothing.
    setsockopt(static_cast<int>(socket->socketDescriptor()), SOL_SOCKET, SO_RCVBUF, &RECEIVE_BUFFER_SIZE,
               sizeof RECEIVE_BUFFER_SIZE);
}

} // namespace

const QHostAddress SsdpManager::MULTICAST_GROUP_ADDRESS =
    QHostAddress(QString(QLatin1String(Protocol::GROUP_ADDRESS)));
const QString SsdpManager::DEVICE_FILTER = QLatin1String(Protocol::DEVICE_NAMESPACE);
const QString SsdpManager::SERVICE_FILTER = QLatin1String(Protocol::SERVICE_NAMESPACE);
const QString SsdpManager::VELMORA_DEVICE_FILTER = QLatin1String(Protocol::DEVICE_TYPE);
const QString SsdpManager::VELMORA_SERVICE_FILTER = QLatin1String(Protocol::KEY_OBJECT_SERVICE_TYPE);

// Lifecycle

SsdpManager::NetworkManager::NetworkManager()
    : fetcher(new HttpFetcher)
{
}

SsdpManager::NetworkManager::~NetworkManager()
{
    delete fetcher;
}

QNetworkReply* SsdpManager::NetworkManager::createRequest(Operation operation, const QNetworkRequest& request,
                                                          QIODevice* outgoingData)
{
    if (operation != GetOperation)
        return QNetworkAccessManager::createRequest(operation, request, outgoingData);
    QNetworkReply* const reply = fetcher->get(request);
    reply->setParent(this);
    return reply;
}

SsdpManager::SsdpManager(const QHostAddress& address, QObject* parent)
    : QObject(parent)
    , localAddress(address)
    , multicastSocket(nullptr)
    , unicastSocket(nullptr)
    , generation(0)
    , index(new RecordIndex(devices))
{
    eventServer.setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
    connect(&networkManager, SIGNAL(finished(QNetworkReply*)), this, SLOT(onReplyFinished(QNetworkReply*)));
    connect(&eventServer, SIGNAL(newConnection()), this, SLOT(onNewConnection()));
#if QT_VERSION >= QT_VERSION_CHECK(5, 0, 0)
    // If there is no free descriptor for a connection, QTcpServer (Qt 5.15 and 6.4) stops accepting. It
    // never clears this error, so it may stop again after every later connection.
    connect(&eventServer, &QTcpServer::acceptError, &eventServer, &QTcpServer::resumeAccepting);
#endif
}

SsdpManager::~SsdpManager()
{
    stop();

    // Members and children emit signals while they are destroyed. No slot of this object may run then.
    disconnect(&networkManager, nullptr, this, nullptr);
    disconnect(&eventServer, nullptr, this, nullptr);
    eventServer.close();
    for (QObject* const connection : eventServer.children())
        disconnect(connection, nullptr, this, nullptr);
    for (QTcpSocket* const socket : std::as_const(requestSockets))
        disconnect(socket, nullptr, this, nullptr);
    qDeleteAll(devices);
    delete index;
}

void SsdpManager::initialize()
{
    static const char signature[] = "void Velmora::SSDP::SsdpManager::initialize()";

    multicastSocket = new MulticastSocket(this);
    unicastSocket = new QUdpSocket(this);
    unicastSocket->setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
    connect(multicastSocket, SIGNAL(readyRead()), this, SLOT(onMulticastMessageReceived()));
    connect(unicastSocket, SIGNAL(readyRead()), this, SLOT(onUnicastMessageReceived()));

    if (!multicastSocket->bind(Protocol::SSDP_PORT)) {
        Logger(Logger::Error) << signature << "Failed to bind multicast socket for listening";
        return;
    }
    enlargeReceiveBuffer(multicastSocket);
    if (!multicastSocket->joinMulticastGroup(MULTICAST_GROUP_ADDRESS, localAddress)) {
        // Operators search for this spelling; see docs/protocol.md, "Log lines".
        const QString text(QLatin1String("Could n``ot join %1"));
        Logger(Logger::Error) << signature << text.arg(MULTICAST_GROUP_ADDRESS.toString());
        return;
    }

    // The socket above has port 1900 of every address. So the search is usually sent from port 49152.
    bool bound = unicastSocket->bind(localAddress, Protocol::SSDP_PORT);
    for (int port = Protocol::FIRST_SEARCH_PORT; !bound && port <= Protocol::LAST_SEARCH_PORT; ++port)
        bound = unicastSocket->bind(localAddress, static_cast<quint16>(port));
    enlargeReceiveBuffer(unicastSocket);

    // A server that is already listening keeps its port. If listen() is called again, QTcpServer
    // (Qt 4.8 to 6.4) prints a warning.
    if (!eventServer.isListening() && eventServer.listen(localAddress, 0)) {
        // QTcpServer (Qt 4.8 to 6.4) sets a backlog of 50 (listen(2)). If many devices send events at once,
        // connections are lost.
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
    networkManager.fetcher->guard.reset();

    // deviceReplies has every pending request, including those for service descriptions.
    networkManager.fetcher->dropAll();
    const QList<QNetworkReply*> replies = deviceReplies.keys();
    deviceReplies.clear();
    serviceReplies.clear();
    for (QNetworkReply* const reply : replies) {
        reply->disconnect();
        reply->abort();
        reply->deleteLater();
    }

    for (auto it = requestSocketServices.begin(); it != requestSocketServices.end(); ++it) {
        it.value() = nullptr;
        it.key()->setReadBufferSize(UNREAD_BUFFER_SIZE);
        // Qt (5.15.8, 6.4.2) closes the descriptor of a refused connection only when the socket gets
        // another.
        if (it.key()->state() == QAbstractSocket::UnconnectedState)
            it.key()->setSocketDescriptor(-1);
    }

    index->clear();
    qDeleteAll(devices);
    devices.clear();
}

SsdpDevice* SsdpManager::getDeviceForService(const SsdpService* service) const
{
    return index->deviceOf(service);
}

// Search

void SsdpManager::discover()
{
    if (!unicastSocket)
        return;
    unicastSocket->writeDatagram(createSearchMessage().toLatin1(), MULTICAST_GROUP_ADDRESS, Protocol::SSDP_PORT);
}

QString SsdpManager::createSearchMessage()
{
    return Protocol::searchMessage();
}

QString SsdpManager::getSystemInfo()
{
    return Protocol::systemInfo();
}

QString SsdpManager::getHeaderValue(const QString& message, const QString& header)
{
    return Protocol::headerValue(message, header);
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

    // QUdpSocket (Qt 4.8 to 6.4) emits readyRead() again only after a read (see its documentation). So
    // exactly one datagram is read, even if its size is -1.
    const qint64 size = socket->pendingDatagramSize();
    QByteArray datagram(static_cast<int>(size) + 1, '\0');
    QHostAddress address;
    if (socket->readDatagram(datagram.data(), datagram.size(), &address) != size)
        return;

    const QString location = getHeaderValue(textUpToZero(datagram), QString(QLatin1String("Location")));
    if (!location.isEmpty())
        addSsdpDevice(address, location);
}

void SsdpManager::addSsdpDevice(const QHostAddress& address, const QString& location)
{
    if (index->hasLocation(location))
        return;

    SsdpDevice* const device = new SsdpDevice;
    device->address = address;
    device->location = location;
    device->id = QUuid::createUuid();
    devices.append(device);
    index->add(device);
    Logger(Logger::Information) << "Ssdp device" << location;
    deviceReplies.insert(requestDocument(location), device);
}

// Description

QNetworkReply* SsdpManager::requestDocument(const QString& url)
{
    return networkManager.get(QNetworkRequest(QUrl(url)));
}

QString SsdpManager::getFullLocation(const QString& location, const QString& path) const
{
    return Protocol::fullLocation(location, path);
}

void SsdpManager::onReplyFinished(QNetworkReply* networkReply)
{
    handleServerResponse(networkReply);
    deviceReplies.remove(networkReply);
    serviceReplies.remove(networkReply);
    networkReply->deleteLater();
}

void SsdpManager::handleServerResponse(QNetworkReply* networkReply)
{
    const QString body = textUpToZero(networkReply->readAll());
    QDomDocument document;
    if (!parseXml(document, body)) {
        Logger(Logger::Error) << "void Velmora::SSDP::SsdpManager::handleServerResponse(QNetworkReply*)"
                              << "Could not parse server response" << body;
        return;
    }

    // A device may send either kind of document for either request. So the document decides which kind it
    // is.
    SsdpDevice* const device = deviceReplies.value(networkReply);
    SsdpService* const service = serviceReplies.value(networkReply);
    switch (Documents::kindOf(document)) {
    case Documents::DeviceDescription:
        if (device)
            handleDeviceResponse(device, document);
        break;
    case Documents::ServiceDescription:
        if (device && service)
            handleServiceResponse(device, service, document);
        break;
    case Documents::Other:
        break;
    }
}

void SsdpManager::handleDeviceResponse(SsdpDevice* device, const QDomDocument& document)
{
    const QList<Documents::Service> described = Documents::services(document);
    for (const Documents::Service& description : described) {
        SsdpService* const service = new SsdpService;
        service->id = QUuid::createUuid();
        service->serviceType = description.type;
        service->serviceId = description.id;
        service->controlUrl = description.controlUrl;
        service->eventSubUrl = description.eventSubUrl;
        service->scpdUrl = description.scpdUrl;
        device->services.append(service);
        index->add(device, service);
        Logger(Logger::Information) << "SSDP Device service" << service->scpdUrl;

        if (service->serviceType != VELMORA_SERVICE_FILTER)
            continue;
        QNetworkReply* const reply = requestDocument(getFullLocation(device->location, service->scpdUrl));
        deviceReplies.insert(reply, device);
        serviceReplies.insert(reply, service);
    }
}

void SsdpManager::handleServiceResponse(SsdpDevice* device, SsdpService* service, const QDomDocument& document)
{
    const QUrl location(device->location);
    const QString host = location.host();
    const quint16 port = static_cast<quint16>(location.port(Protocol::HTTP_PORT));
    NameBound bound(service->stateVariables);
    const QStringList names = Documents::stateVariables(document);
    // Devices expect one subscription per variable; see docs/protocol.md, "Service description".
    for (const QString& name : names) {
        if (!bound.admits(name))
            continue;
        service->stateVariables.insert(name, QString());

        QTcpSocket* const socket = new QTcpSocket(this);
        socket->setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
        requestSockets.append(socket);
        requestSocketServices.insert(socket, service);
        connect(socket, SIGNAL(connected()), this, SLOT(onRequestSocketConnected()));
        connect(socket, SIGNAL(readyRead()), this, SLOT(onRequestSocketReadyRead()));
        networkManager.fetcher->guard.connectToHost(socket, host, port);
        // A socket that could not be opened emits no signals. But QObject::sender() (Qt 4.8 to 6.4) would
        // still search its connections.
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
    // A connection to a host name gets its descriptor only after the look-up. So the check is repeated here.
    if (!service || !networkManager.fetcher->guard.admits(socket))
        return;
    socket->write(createSubscribeMessage(service).toLatin1());
    // Without this, QAbstractSocket sends only when the event loop runs again.
    socket->flush();
}

QString SsdpManager::createSubscribeMessage(SsdpService* service)
{
    const SsdpDevice* const device = getDeviceForService(service);
    if (!device)
        return QString();
    const Protocol::Callback callback = {eventServer.serverAddress(), eventServer.serverPort(), service->id};
    return Protocol::subscribeMessage(service->eventSubUrl, device->location, callback);
}

QString SsdpManager::getHost(const QString& url) const
{
    return Protocol::hostValue(url);
}

QString SsdpManager::getSubLocation(const QString& path) const
{
    return Protocol::subLocation(path);
}

void SsdpManager::onRequestSocketReadyRead()
{
    QTcpSocket* const socket = qobject_cast<QTcpSocket*>(sender());
    SsdpService* const service = requestSocketServices.value(socket);
    if (!service) {
        // The reply is not used. But while the buffer is full, Qt (4.8 to 6.4) does not notice that the
        // peer closes the connection.
        if (socket && socket->bytesAvailable() >= UNREAD_BUFFER_SIZE)
            socket->readAll();
        return;
    }

    service->subscriptionId = Protocol::subscriptionIdentifier(textUpToZero(socket->readAll()));
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
        connect(socket, SIGNAL(readyRead()), this, SLOT(onResponseSocketReadyRead()));
        connect(socket, SIGNAL(disconnected()), this, SLOT(onResponseSocketDisconnected()));
        networkManager.fetcher->guard.admits(socket);
    }
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
    // The body is complete one character before its end; see docs/protocol.md, "Event".
    if (buffer.size() < contentLength - 1)
        return;

    // A receiver of valueChanged() may delete this object. It may also run an event loop, while the peer
    // sends more or closes the connection. The socket must not be deleted inside its readyRead(). So it
    // gets no parent and no slots.
    const QPointer<SsdpManager> self(this);
    const QString body = buffer;
    socket->disconnect(this);
    socket->setParent(nullptr);
    socket->setReadBufferSize(UNREAD_BUFFER_SIZE);
    updateStateVariables(service, body);
    socket->disconnectFromHost();
    socket->deleteLater();
    if (self)
        forgetResponseSocket(socket);
}

void SsdpManager::readEventHead(QTcpSocket* socket)
{
    // All bytes that are read together with the head are dropped; see docs/protocol.md, "Event".
    const QString header = textUpToZero(socket->readAll());
    SsdpService* const service = getServiceFromHeader(header);
    const QString contentLength = getHeaderValue(header, QString(QLatin1String("CONTENT-LENGTH")));

    // If the length is negative, this function runs again for every later segment.
    if (!responseContentLengths.contains(socket))
        requestSockets.append(socket);
    requestSocketServices.insert(socket, service);
    responseContentLengths.insert(socket, contentLength.toInt());
    responseBuffers.insert(socket, QString());

    // This comes last, because disconnectFromHost() of Qt 5.15 and 6.4 emits disconnected().
    if (!service)
        socket->disconnectFromHost();
}

SsdpService* SsdpManager::getServiceFromHeader(const QString& header)
{
    QUuid id;
    return Protocol::readEventIdentifier(header, &id) ? index->serviceOf(id) : nullptr;
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

    // A receiver may delete this object, or start a discovery, which deletes the records.
    const QPointer<SsdpManager> self(this);
    const unsigned int current = generation;
    const SsdpDevice* const device = getDeviceForService(service);
    NameBound bound(service->stateVariables);
    const QList<Documents::Property> properties = Documents::properties(document);
    for (const Documents::Property& property : properties) {
        if (!bound.admits(property.name))
            continue;
        service->stateVariables.insert(property.name, property.value);
        Q_EMIT valueChanged(device, service, property.name);
        if (!self || generation != current)
            return;
    }
}

void SsdpManager::onResponseSocketDisconnected()
{
    QTcpSocket* const socket = qobject_cast<QTcpSocket*>(sender());
    if (!socket)
        return;
    forgetResponseSocket(socket);
    socket->deleteLater();
}

void SsdpManager::forgetResponseSocket(QTcpSocket* socket)
{
    requestSockets.removeOne(socket);
    requestSocketServices.remove(socket);
    responseContentLengths.remove(socket);
    responseBuffers.remove(socket);
}

} // namespace SSDP
} // namespace Velmora

#include "moc_SsdpManager.cpp"

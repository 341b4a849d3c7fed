#include <simulator/SimulatedDevice.h>

#include <simulator/MessageText.h>

#include <QtCore/QUuid>
#include <QtNetwork/QNetworkProxy>
#include <QtNetwork/QTcpSocket>

#include <sys/socket.h>
#include <utility>

namespace Velmora {
namespace Simulator {

namespace {

const char DEVICE_TYPE[] = "urn:schemas-velmora-it:device:simulated:1";
const char KEY_OBJECT_SERVICE[] = "urn:schemas-velmora-it:service:keyobjects:1";
const char OTHER_SERVICE[] = "urn:schemas-velmora-it:service:other:1";
const char SERVER[] = "Linux/1 UPnP/1.1 ssdp-simulator/2";

const int MAX_AGE = 1800;
const int LONGEST_SUBSCRIPTION = 1800;
const int LONGEST_REQUEST = 64 * 1024;
const int MOST_SUBSCRIBERS = 10000;

// libSsdp never answers an event and leaves open what it could not use.
const int EVENT_PATIENCE = 10 * 1000;

// How often slow-http sends another piece.
const int SLOW_INTERVAL = 100;

const char* const STAGE_NAMES[SimulatedDevice::STAGES] = {"search",    "description", "scpd",
                                                          "subscribe", "event-head",  "event"};

QByteArray numbered(const char* format, int number)
{
    return QByteArray(format).replace("%1", QByteArray::number(number));
}

QString peerOf(const QTcpSocket* socket)
{
    return socket->peerAddress().toString() + QLatin1Char(':') + QString::number(socket->peerPort());
}

/// The time-out in "Second-120", within what the device grants.
int subscriptionSeconds(const QByteArray& timeout)
{
    const int seconds = timeout.toLower().startsWith("second-") ? timeout.mid(7).toInt() : 0;
    return seconds > 0 ? qMin(seconds, LONGEST_SUBSCRIPTION) : LONGEST_SUBSCRIPTION;
}

QByteArray htmlPage(const char* title)
{
    return QByteArray("<!DOCTYPE html>\n<html><head><title>%1</title>\n<body><p>%1<br>\n</body></html>\n")
        .replace("%1", title);
}

QByteArray nested(int levels)
{
    QByteArray text = "<?xml version=\"1.0\"?>\n<root xmlns=\"urn:schemas-upnp-org:device-1-0\">";
    for (int i = 0; i < levels; ++i)
        text += "<a>";
    for (int i = 0; i < levels; ++i)
        text += "</a>";
    return text + "</root>\n";
}

QList<QByteArray> cut(const QByteArray& text, qsizetype length)
{
    QList<QByteArray> result;
    for (qsizetype i = 0; i < text.size(); i += length)
        result << text.mid(i, length);
    return result;
}

} // namespace

const QList<Fault>& SimulatedDevice::faults()
{
    static const QList<Fault> list = {
        {"ignore-search", nullptr, "answers no search; only its announcements tell of it"},
        {"duplicate-responses", "TIMES", "answers each search that many times (3)"},
        {"location-garbage", "TEXT", "names that text as its location (\"no location\")"},
        {"silent-http", nullptr, "takes HTTP connections and never answers"},
        {"slow-http", "BYTES", "sends that many bytes of a document per second (500)"},
        {"reset-mid-body", nullptr, "resets the connection half-way through a document"},
        {"wrong-length", "DIFFERENCE", "adds that to a document's Content-Length (-20) and then closes"},
        {"truncated-xml", nullptr, "sends the first half of a document as if it were whole"},
        {"deep-xml", "LEVELS", "sends elements nested that deeply for a document (20000)"},
        {"html-instead", nullptr, "sends a web page for a document"},
        {"redirect", "PATH", "redirects from a document to that path (/moved.xml)"},
        {"error-500", nullptr, "answers with an internal error for a document"},
        {"refuse-subscribe", nullptr, "refuses subscriptions with 412"},
        {"never-answer-subscribe", nullptr, "takes subscriptions without an answer or an event"},
        {"no-sid", nullptr, "accepts subscriptions without giving a SID"},
        {"late-sid", "MS", "gives the SID that long after the status line (50)"},
        {"event-one-chunk", nullptr, "sends head and body of an event in one write"},
        {"event-many-chunks", "PIECES", "sends the body of an event in that many writes (10)"},
        {"event-unknown-path", nullptr, "sends events to a path that nobody gave it"},
        {"event-bad-xml", nullptr, "sends events whose body is no XML"},
        {"event-no-length", nullptr, "sends events without Content-Length"},
        {"die-after", "STAGE",
         "goes silent after search, description, scpd, subscribe, event-head or event (description)"},
    };
    return list;
}

QString SimulatedDevice::stageName(Stage stage)
{
    return QString::fromLatin1(STAGE_NAMES[stage]);
}

SimulatedDevice::SimulatedDevice(SsdpGroup* group, const DeviceOptions& options, QObject* parent)
    : QObject(parent)
    , group(group)
    , settings(options)
    , random(options.seed)
    , lastSid(0)
    , counts()
    , alive(false)
{
    // The same device after a restart, another one at another address.
    const QString name = settings.address.toString() + QLatin1Char(':') + QString::number(settings.port);
    uuid = QUuid::createUuidV5(QUuid(), name).toByteArray(QUuid::WithoutBraces);
    for (const QString& variable : std::as_const(settings.variables))
        values.insert(variable, QString::number(0));
    setVariable(QStringLiteral("KO"),
                QString::number(settings.functionCode) + QLatin1Char(',')
                    + QString::number(settings.univocalCode));

    server.setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
    connect(&server, &QTcpServer::newConnection, this, &SimulatedDevice::onNewConnection);
    connect(group, &SsdpGroup::searched, this, &SimulatedDevice::onSearched);
    connect(&announceTimer, &QTimer::timeout, this, &SimulatedDevice::announce);
    connect(&eventTimer, &QTimer::timeout, this, &SimulatedDevice::sendEvents);
}

SimulatedDevice::~SimulatedDevice()
{
    // A connection says that it is closed while it is destroyed, when no slot may run any more.
    const QList<QTcpSocket*> open = connections();
    for (QTcpSocket* const socket : open) {
        socket->disconnect();
        delete socket;
    }
}

bool SimulatedDevice::start()
{
    {
        const NetworkNamespace::Scope scope(group->network());
        if (!server.listen(settings.address, settings.port))
            return false;
    }
    settings.port = server.serverPort();
    if (!group->join(settings.address))
        return false;
    alive = true;
    announce();
    if (settings.announceEvery > 0)
        announceTimer.start(settings.announceEvery);
    if (settings.eventEvery > 0)
        eventTimer.start(settings.eventEvery);
    return true;
}

QString SimulatedDevice::errorString() const
{
    if (server.isListening())
        return group->errorString();
    return QStringLiteral("cannot listen on %1:%2: %3")
        .arg(settings.address.toString())
        .arg(settings.port)
        .arg(server.errorString());
}

const DeviceOptions& SimulatedDevice::options() const
{
    return settings;
}

QString SimulatedDevice::location() const
{
    return QStringLiteral("http://%1:%2/description.xml").arg(settings.address.toString()).arg(settings.port);
}

QString SimulatedDevice::servicePath(int number)
{
    return QStringLiteral("/service%1.xml").arg(number);
}

void SimulatedDevice::setVariable(const QString& name, const QString& value)
{
    values.insert(name, value);
}

int SimulatedDevice::subscriptions() const
{
    int result = 0;
    for (const Subscription& subscriber : subscribers)
        result += subscriber.expiry.hasExpired() ? 0 : 1;
    return result;
}

int SimulatedDevice::count(Stage stage) const
{
    return counts[stage];
}

bool SimulatedDevice::has(const char* fault) const
{
    return settings.faults.contains(QLatin1String(fault));
}

int SimulatedDevice::valueOf(const char* fault, int standard) const
{
    const QString value = settings.faults.value(QLatin1String(fault));
    return value.isEmpty() ? standard : value.toInt();
}

void SimulatedDevice::reach(Stage stage)
{
    ++counts[stage];
    Q_EMIT reached(stage);
    if (!has("die-after"))
        return;
    const QString last = settings.faults.value(QStringLiteral("die-after"));
    if (stageName(stage) == (last.isEmpty() ? stageName(Described) : last))
        die();
}

void SimulatedDevice::die()
{
    alive = false;
    announceTimer.stop();
    eventTimer.stop();
    server.close();
    subscribers.clear();
    const QList<QTcpSocket*> open = connections();
    for (QTcpSocket* const socket : open)
        socket->disconnectFromHost();
}

QList<QTcpSocket*> SimulatedDevice::connections() const
{
    return findChildren<QTcpSocket*>() + server.findChildren<QTcpSocket*>();
}

// Search

QList<QByteArray> SimulatedDevice::notificationTypes() const
{
    return {"upnp:rootdevice", "uuid:" + uuid, DEVICE_TYPE, KEY_OBJECT_SERVICE};
}

QByteArray SimulatedDevice::uniqueServiceName(const QByteArray& type) const
{
    const QByteArray device = "uuid:" + uuid;
    return type == device ? device : device + "::" + type;
}

void SimulatedDevice::onSearched(const Search& search)
{
    if (!alive || has("ignore-search"))
        return;
    const QList<QByteArray> types = notificationTypes();
    const bool all = search.target == "ssdp:all";
    if (!all && !types.contains(search.target))
        return;

    Q_EMIT message(false, search.address.toString() + QLatin1Char(':') + QString::number(search.port),
                   search.text);
    const int last = settings.responseDelayMax < 0 ? search.mx * 1000 : settings.responseDelayMax;
    const int first = qMin(settings.responseDelayMin, last);
    for (const QByteArray& type : types) {
        if (all || type == search.target) {
            QTimer::singleShot(random.bounded(first, last + 1), Qt::PreciseTimer, this,
                               [this, search, type] { answerSearch(search, type); });
        }
    }
}

void SimulatedDevice::answerSearch(const Search& search, const QByteArray& type)
{
    if (!alive)
        return;
    const QString garbage = settings.faults.value(QStringLiteral("location-garbage"));
    const QByteArray place = !has("location-garbage") ? location().toLatin1()
        : garbage.isEmpty()                           ? QByteArray("no location")
                                                      : garbage.toLatin1();
    const QByteArray text = "HTTP/1.1 200 OK\r\n"
                            "CACHE-CONTROL: max-age="
        + QByteArray::number(MAX_AGE)
        + "\r\n"
          "EXT:\r\n"
          "LOCATION: "
        + place + "\r\nSERVER: " + SERVER + "\r\nST: " + type + "\r\nUSN: " + uniqueServiceName(type) + "\r\n\r\n";
    const int times = has("duplicate-responses") ? valueOf("duplicate-responses", 3) : 1;
    for (int i = 0; i < times; ++i) {
        group->send(settings.address, search.address, search.port, text);
        Q_EMIT message(true, search.address.toString() + QLatin1Char(':') + QString::number(search.port), text);
    }
    reach(Searched);
}

void SimulatedDevice::announce()
{
    notifyGroup(true);
}

void SimulatedDevice::sayGoodbye()
{
    notifyGroup(false);
}

void SimulatedDevice::notifyGroup(bool coming)
{
    if (!alive)
        return;
    const QByteArray host = SsdpGroup::ADDRESS.toString().toLatin1() + ':' + QByteArray::number(SsdpGroup::PORT);
    QByteArray presence;
    if (coming) {
        presence = "CACHE-CONTROL: max-age=" + QByteArray::number(MAX_AGE)
            + "\r\nLOCATION: " + location().toLatin1() + "\r\nSERVER: " + SERVER + "\r\n";
    }
    const QList<QByteArray> types = notificationTypes();
    for (const QByteArray& type : types) {
        const QByteArray text = "NOTIFY * HTTP/1.1\r\nHOST: " + host + "\r\n" + presence + "NT: " + type
            + "\r\nNTS: " + (coming ? "ssdp:alive" : "ssdp:byebye") + "\r\nUSN: " + uniqueServiceName(type)
            + "\r\n\r\n";
        group->send(settings.address, SsdpGroup::ADDRESS, SsdpGroup::PORT, text);
        Q_EMIT message(true, QString::fromLatin1(host), text);
    }
}

// Description

void SimulatedDevice::onNewConnection()
{
    while (QTcpSocket* const socket = server.nextPendingConnection()) {
        socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onRequestReadyRead(socket); });
        connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
            requests.remove(socket);
            socket->deleteLater();
        });
    }
}

void SimulatedDevice::onRequestReadyRead(QTcpSocket* socket)
{
    QByteArray& text = requests[socket];
    text += socket->readAll();
    // One request at a time: control points wait for the answer before they send the next one.
    const int length = headLength(text);
    if (length == -1) {
        if (text.size() > LONGEST_REQUEST)
            reset(socket);
        return;
    }
    const QByteArray head = text.left(length);
    const qsizetype whole = length + headerOf(head, "CONTENT-LENGTH").toInt();
    if (whole > LONGEST_REQUEST) {
        reset(socket);
        return;
    }
    if (text.size() < whole)
        return;
    const QByteArray request = text.left(whole);
    text.remove(0, whole);
    Q_EMIT message(false, peerOf(socket), request);
    answerRequest(socket, head);
}

void SimulatedDevice::answerRequest(QTcpSocket* socket, const QByteArray& head)
{
    const QList<QByteArray> words = head.left(head.indexOf('\n')).trimmed().split(' ');
    const QByteArray& method = words.first();
    const QByteArray path = words.value(1);
    if (method == "SUBSCRIBE")
        answerSubscribe(socket, head);
    else if (method == "UNSUBSCRIBE")
        answerUnsubscribe(socket, head);
    else if (method == "GET" && !has("silent-http"))
        answerGet(socket, head, path);
    else if (method != "GET")
        respond(socket, head, {"501 Not Implemented", QByteArray(), QByteArray(), 0});
}

void SimulatedDevice::answerGet(QTcpSocket* socket, const QByteArray& head, const QByteArray& path)
{
    Response response = {"200 OK", "CONTENT-TYPE: text/xml; charset=\"utf-8\"\r\n", QByteArray(), 0};
    Stage stage = Described;
    if (path == "/description.xml") {
        response.body = description();
    } else {
        stage = ServiceDescribed;
        for (int i = 1; i <= settings.services && response.body.isEmpty(); ++i) {
            if (path == servicePath(i).toLatin1())
                response.body = serviceDescription(i);
        }
    }

    const char html[] = "CONTENT-TYPE: text/html\r\n";
    if (response.body.isEmpty()) {
        response = {"404 Not Found", html, htmlPage("Not found"), 0};
    } else if (has("redirect")) {
        const QString target = settings.faults.value(QStringLiteral("redirect"));
        response = {"302 Found", html, htmlPage("Moved"), 0};
        response.headers += "LOCATION: " + (target.isEmpty() ? "/moved.xml" : target.toLatin1()) + "\r\n";
    } else if (has("error-500")) {
        response = {"500 Internal Server Error", html, htmlPage("Internal error"), 0};
    } else if (has("html-instead")) {
        response = {"200 OK", html, htmlPage("Welcome"), 0};
    } else if (has("deep-xml")) {
        response.body = nested(valueOf("deep-xml", 20000));
    } else if (has("truncated-xml")) {
        response.body.truncate(response.body.size() / 2);
    }
    response.announced = response.body.size();

    std::function<void()> finished = [this, stage] { reach(stage); };
    if (has("wrong-length")) {
        const int difference = valueOf("wrong-length", -20);
        response.announced += difference;
        finished = [this, socket, stage] {
            socket->disconnectFromHost();
            reach(stage);
        };
    } else if (has("reset-mid-body")) {
        response.body.truncate(response.body.size() / 2);
        finished = [this, socket, stage] {
            reset(socket);
            reach(stage);
        };
    }
    respond(socket, head, response, finished);
}

void SimulatedDevice::respond(QTcpSocket* socket, const QByteArray& head, const Response& response,
                              const std::function<void()>& sent)
{
    QByteArray text = "HTTP/1.1 " + response.status + "\r\n" + response.headers + "SERVER: " + SERVER
        + "\r\nCONTENT-LENGTH: " + QByteArray::number(response.announced) + "\r\n";
    const bool last = headerOf(head, "CONNECTION").toLower() == "close"
        || head.left(head.indexOf('\n')).trimmed().endsWith("HTTP/1.0");
    if (last)
        text += "CONNECTION: close\r\n";
    text += "\r\n";

    QList<QByteArray> chunks;
    int gap = 0;
    if (has("slow-http") && !response.body.isEmpty()) {
        chunks << text << cut(response.body, qMax(1, valueOf("slow-http", 500) * SLOW_INTERVAL / 1000));
        gap = SLOW_INTERVAL;
    } else {
        chunks << text + response.body;
    }
    writeChunks(socket, chunks, gap, [this, socket, last, sent] {
        if (last)
            socket->disconnectFromHost();
        if (sent)
            sent();
        // What the control point has sent meanwhile.
        if (alive && !requests.value(socket).isEmpty())
            onRequestReadyRead(socket);
    });
}

QByteArray SimulatedDevice::description() const
{
    QByteArray list;
    for (int i = 1; i <= settings.services; ++i) {
        QByteArray service = "      <service>\n"
                             "        <serviceType>%type</serviceType>\n"
                             "        <serviceId>urn:velmora-it:serviceId:service%1</serviceId>\n"
                             "        <SCPDURL>%scpd</SCPDURL>\n"
                             "        <controlURL>/service%1/control</controlURL>\n"
                             "        <eventSubURL>/service%1/event</eventSubURL>\n"
                             "      </service>\n";
        service.replace("%type", i == settings.services ? KEY_OBJECT_SERVICE : OTHER_SERVICE);
        service.replace("%scpd", servicePath(i).toLatin1());
        list += numbered(service.constData(), i);
    }
    return "<?xml version=\"1.0\"?>\n"
           "<root xmlns=\"urn:schemas-upnp-org:device-1-0\">\n"
           "  <specVersion><major>1</major><minor>1</minor></specVersion>\n"
           "  <device>\n"
           "    <deviceType>"
        + QByteArray(DEVICE_TYPE)
        + "</deviceType>\n"
          "    <friendlyName>Simulated device "
        + QByteArray::number(settings.univocalCode)
        + "</friendlyName>\n"
          "    <manufacturer>Velmora</manufacturer>\n"
          "    <modelName>ssdp-simulator</modelName>\n"
          "    <UDN>uuid:"
        + uuid
        + "</UDN>\n"
          "    <serviceList>\n"
        + list
        + "    </serviceList>\n"
          "  </device>\n"
          "</root>\n";
}

QByteArray SimulatedDevice::serviceDescription(int number) const
{
    QByteArray table;
    const QStringList names =
        number == settings.services ? settings.variables : QStringList(QStringLiteral("Status"));
    for (const QString& name : names) {
        table += "    <stateVariable sendEvents=\"yes\">\n"
                 "      <name>"
            + name.toHtmlEscaped().toUtf8()
            + "</name>\n"
              "      <dataType>string</dataType>\n"
              "    </stateVariable>\n";
    }
    return "<?xml version=\"1.0\"?>\n"
           "<scpd xmlns=\"urn:schemas-upnp-org:service-1-0\">\n"
           "  <specVersion><major>1</major><minor>1</minor></specVersion>\n"
           "  <serviceStateTable>\n"
        + table
        + "  </serviceStateTable>\n"
          "</scpd>\n";
}

// Subscription

void SimulatedDevice::answerSubscribe(QTcpSocket* socket, const QByteArray& head)
{
    if (has("never-answer-subscribe"))
        return;
    const int seconds = subscriptionSeconds(headerOf(head, "TIMEOUT"));
    QByteArray sid = headerOf(head, "SID");
    const bool isNew = sid.isEmpty();
    QByteArray callback = headerOf(head, "CALLBACK");
    callback = callback.mid(callback.indexOf('<') + 1, callback.indexOf('>') - callback.indexOf('<') - 1);
    if (has("refuse-subscribe") || (isNew ? !callback.startsWith("http://") : !subscribers.contains(sid))
        || subscribers.size() >= MOST_SUBSCRIBERS) {
        respond(socket, head, {"412 Precondition Failed", QByteArray(), QByteArray(), 0});
        return;
    }

    if (isNew) {
        const QString name = QString::fromLatin1(uuid) + QString::number(++lastSid);
        sid = "uuid:" + QUuid::createUuidV5(QUuid(), name).toByteArray(QUuid::WithoutBraces);
        subscribers[sid].callback = callback;
    }
    subscribers[sid].expiry = QDeadlineTimer(qint64(seconds) * 1000);

    const auto accepted = [this, sid, isNew] {
        reach(Subscribed);
        if (isNew && alive)
            sendEvent(sid);
    };
    const QByteArray sidLine = has("no-sid") ? QByteArray() : "SID: " + sid + "\r\n";
    const QByteArray timeoutLine = "TIMEOUT: Second-" + QByteArray::number(seconds) + "\r\n";
    if (has("late-sid")) {
        writeChunks(socket, {"HTTP/1.1 200 OK\r\n", sidLine + timeoutLine + "CONTENT-LENGTH: 0\r\n\r\n"},
                    valueOf("late-sid", 50), accepted);
    } else {
        respond(socket, head, {"200 OK", sidLine + timeoutLine, QByteArray(), 0}, accepted);
    }
}

void SimulatedDevice::answerUnsubscribe(QTcpSocket* socket, const QByteArray& head)
{
    const bool known = subscribers.remove(headerOf(head, "SID")) > 0;
    respond(socket, head, {known ? "200 OK" : "412 Precondition Failed", QByteArray(), QByteArray(), 0});
}

// Events

void SimulatedDevice::sendEvents()
{
    const QList<QByteArray> sids = subscribers.keys();
    for (const QByteArray& sid : sids) {
        if (subscribers.value(sid).expiry.hasExpired())
            subscribers.remove(sid);
        else
            sendEvent(sid);
    }
}

void SimulatedDevice::sendEvent(const QByteArray& sid)
{
    // By hand, since the "%4" in the path of libSsdp is no part of a valid URL.
    const QByteArray url = subscribers.value(sid).callback.mid(7);
    const qsizetype slash = url.indexOf('/');
    const QByteArray host = url.left(slash);
    const qsizetype colon = host.indexOf(':');
    const QHostAddress address(QString::fromLatin1(host.left(colon)));
    const quint16 port = colon == -1 ? 80 : host.mid(colon + 1).toUShort();
    const QByteArray path = slash == -1 ? QByteArray("/") : url.mid(slash);
    const QList<QByteArray> chunks = eventChunks(sid, host, path);
    ++subscribers[sid].events;

    QTcpSocket* const socket = new QTcpSocket(this);
    socket->setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
    {
        const NetworkNamespace::Scope scope(group->network());
        socket->bind(settings.address);
    }
    socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    QTimer::singleShot(EVENT_PATIENCE, socket, [socket] {
        socket->abort();
        socket->deleteLater();
    });
    connect(socket, &QTcpSocket::connected, this, [this, socket, chunks] {
        const bool whole = chunks.size() == 1;
        writeChunks(socket, chunks, settings.eventGap, [this, whole] {
            if (whole)
                reach(EventBegun);
            if (alive)
                reach(EventSent);
        });
        if (!whole)
            reach(EventBegun);
    });
    connect(socket, &QTcpSocket::readyRead, this, [this, socket] {
        Q_EMIT message(false, peerOf(socket), socket->readAll());
        socket->disconnectFromHost();
    });
    connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
#if QT_VERSION >= QT_VERSION_CHECK(5, 15, 0)
    connect(socket, &QTcpSocket::errorOccurred, this, [this, socket, sid](QAbstractSocket::SocketError error) {
#else
    connect(socket, QOverload<QAbstractSocket::SocketError>::of(&QTcpSocket::error), this,
            [this, socket, sid](QAbstractSocket::SocketError error) {
#endif
        // Nobody listens there any more.
        if (error == QAbstractSocket::ConnectionRefusedError)
            subscribers.remove(sid);
        socket->deleteLater();
    });
    socket->connectToHost(address, port);
}

QList<QByteArray> SimulatedDevice::eventChunks(const QByteArray& sid, const QByteArray& host,
                                               QByteArray path) const
{
    QByteArray body = "<e:propertyset xmlns:e=\"urn:schemas-upnp-org:event-1-0\">\n";
    for (const QString& name : settings.variables) {
        const QByteArray tag = name.toUtf8();
        body += "<e:property><" + tag + '>' + values.value(name).toHtmlEscaped().toUtf8() + "</" + tag
            + "></e:property>\n";
    }
    body += has("event-bad-xml") ? "<e:property>" : "</e:propertyset>\n";
    const QByteArray tail = settings.eventTail ? "\r\n" : "";
    if (has("event-unknown-path"))
        path = "/" + uuid;

    QByteArray head = "NOTIFY " + path + " HTTP/1.1\r\nHOST: " + host
        + "\r\nCONTENT-TYPE: text/xml; charset=\"utf-8\"\r\nNT: upnp:event\r\nNTS: upnp:propchange\r\nSID: " + sid
        + "\r\nSEQ: " + QByteArray::number(subscribers.value(sid).events) + "\r\n";
    if (!has("event-no-length"))
        head += "CONTENT-LENGTH: " + QByteArray::number(body.size() + tail.size()) + "\r\n";
    head += "\r\n";

    if (has("event-one-chunk") || settings.eventGap == 0)
        return {head + body + tail};
    QList<QByteArray> chunks = {head};
    if (has("event-many-chunks"))
        chunks += cut(body, qMax<qsizetype>(1, body.size() / valueOf("event-many-chunks", 10)));
    else
        chunks += body;
    if (!tail.isEmpty())
        chunks += tail;
    return chunks;
}

// Sending

void SimulatedDevice::write(QTcpSocket* socket, const QByteArray& text)
{
    socket->write(text);
    socket->flush();
    Q_EMIT message(true, peerOf(socket), text);
}

void SimulatedDevice::writeChunks(QTcpSocket* socket, const QList<QByteArray>& chunks, int gap,
                                  const std::function<void()>& finished)
{
    write(socket, chunks.first());
    if (chunks.size() == 1) {
        finished();
        return;
    }
    const QList<QByteArray> rest = chunks.mid(1);
    QTimer::singleShot(gap, Qt::PreciseTimer, socket, [this, socket, rest, gap, finished] {
        if (socket->state() == QAbstractSocket::ConnectedState)
            writeChunks(socket, rest, gap, finished);
    });
}

void SimulatedDevice::reset(QTcpSocket* socket)
{
    const linger none = {1, 0};
    setsockopt(static_cast<int>(socket->socketDescriptor()), SOL_SOCKET, SO_LINGER, &none, sizeof none);
    socket->abort();
}

} // namespace Simulator
} // namespace Velmora

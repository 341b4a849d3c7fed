#include <simulator/SimulatedDevice.h>

#include <simulator/MessageText.h>

#include <QtCore/QUuid>
#include <QtNetwork/QNetworkProxy>
#include <QtNetwork/QTcpSocket>

#include <algorithm>
#include <initializer_list>
#include <iterator>
#include <sys/socket.h>
#include <utility>

namespace Velmora {
namespace Simulator {

namespace {

const char DEVICE_TYPE[] = "urn:schemas-velmora-it:device:simulated:1";
const char KEY_OBJECT_SERVICE[] = "urn:schemas-velmora-it:service:keyobjects:1";
const char OTHER_SERVICE[] = "urn:schemas-velmora-it:service:other:1";
const char XML_TYPE[] = "CONTENT-TYPE: text/xml; charset=\"utf-8\"";
const char SERVER[] = "Linux/1 UPnP/1.1 ssdp-simulator/2";

const int MAX_AGE = 1800;
const int LONGEST_SUBSCRIPTION = 1800;
const int LONGEST_REQUEST = 64 * 1024;
const int MOST_SUBSCRIBERS = 10000;

// libSsdp never answers an event. If the body is incomplete, it leaves the connection open.
const int EVENT_PATIENCE = 10 * 1000;

/// The name of the timers between the parts of a message.
const char GAP[] = "gap";

// The interval at which slow-http sends a piece, in milliseconds.
const int SLOW_INTERVAL = 100;

const char* const STAGE_NAMES[SimulatedDevice::STAGES] = {"search",    "description", "scpd",
                                                          "subscribe", "event-head",  "event"};

// In the order of the enumeration.
constexpr std::array<Fault, Fault::Count> FAULTS = {{
    {Fault::IgnoreSearch, "ignore-search", nullptr, nullptr, "answers no search; it only announces itself"},
    {Fault::DuplicateResponses, "duplicate-responses", "TIMES", "3", "answers each search this many times"},
    {Fault::AnnounceOnly, "announce-only", "MS", "1000",
     "answers no search, and announces itself again after this time"},
    {Fault::CrlfSearchOnly, "crlf-search-only", nullptr, nullptr,
     "ignores searches whose lines end with line feeds alone"},
    {Fault::UnicastSearchOnly, "unicast-search-only", nullptr, nullptr,
     "answers only searches that are sent to its own address"},
    {Fault::SlowAnswer, "slow-answer", "MS", "4000",
     "answers a search after this time, even if its MX is shorter"},
    {Fault::NoLocation, "no-location", nullptr, nullptr, "answers searches without a location"},
    {Fault::LocationGarbage, "location-garbage", "TEXT", "no location", "sends this text as its location"},
    {Fault::LocationOtherHost, "location-other-host", "HOST", "192.0.2.1", "names this host in its location"},
    {Fault::SilentHttp, "silent-http", nullptr, nullptr, "accepts HTTP connections, but answers no GET"},
    {Fault::SlowHttp, "slow-http", "BYTES", "500", "sends this many bytes of a document per second"},
    {Fault::ResetMidBody, "reset-mid-body", nullptr, nullptr, "resets the connection half-way through a document"},
    {Fault::WrongLength, "wrong-length", "DIFFERENCE", "-20",
     "adds this to the announced length of a document, and closes the connection"},
    {Fault::TruncatedXml, "truncated-xml", nullptr, nullptr,
     "sends the first half of a document as if it were whole"},
    {Fault::DeepXml, "deep-xml", "LEVELS", "20000", "sends this many levels of elements instead of a document"},
    {Fault::HtmlInstead, "html-instead", nullptr, nullptr, "sends a web page instead of a document"},
    {Fault::Redirect, "redirect", "PATH", "/moved.xml", "redirects requests for a document to this path"},
    {Fault::Error500, "error-500", nullptr, nullptr, "answers requests for a document with an internal error"},
    {Fault::Namespace, "namespace", "TEXT", "urn:example-org:other", "declares this namespace in its documents"},
    {Fault::RootElement, "root-element", "NAME", "document",
     "gives this name to the root element of its documents"},
    {Fault::DescriptionPrefix, "description-prefix", "PREFIX", "d",
     "writes the elements of its documents with this prefix"},
    {Fault::NoService, "no-service", nullptr, nullptr, "lists no service"},
    {Fault::ServiceType, "service-type", "TYPE", "urn:schemas-velmora-it:service:keyobjects:2",
     "gives this type to its key-object service"},
    {Fault::EmbeddedService, "embedded-service", nullptr, nullptr,
     "lists its services only in an embedded device"},
    {Fault::ScpdUrl, "scpd-url", "URL", "http://10.77.1.1:49152/service1.xml",
     "gives this SCPDURL to its services"},
    {Fault::EventUrl, "event-url", "URL", "http://10.77.1.1:49152/event",
     "gives this eventSubURL to its services"},
    {Fault::NoVariable, "no-variable", nullptr, nullptr, "lists no state variable"},
    {Fault::RefuseSubscribe, "refuse-subscribe", nullptr, nullptr, "refuses subscriptions with status 412"},
    {Fault::StandardSubscribeOnly, "standard-subscribe-only", nullptr, nullptr,
     "answers 400 to subscriptions with line feeds alone or without a decimal port"},
    {Fault::NeverAnswerSubscribe, "never-answer-subscribe", nullptr, nullptr,
     "receives subscriptions, but sends neither an answer nor an event"},
    {Fault::NoSid, "no-sid", nullptr, nullptr, "accepts subscriptions, but sends no SID"},
    {Fault::LateSid, "late-sid", "MS", "50", "sends the SID this long after the status line"},
    {Fault::NoEvent, "no-event", nullptr, nullptr, "accepts subscriptions, but sends no event"},
    {Fault::EventOneChunk, "event-one-chunk", nullptr, nullptr, "sends head and body of an event in one write"},
    {Fault::EventManyChunks, "event-many-chunks", "PIECES", "10",
     "sends the body of an event in about this many writes"},
    {Fault::EventUnknownPath, "event-unknown-path", nullptr, nullptr,
     "sends events to a path that is in no CALLBACK"},
    {Fault::EventBadXml, "event-bad-xml", nullptr, nullptr, "sends events whose body is not XML"},
    {Fault::EventNoLength, "event-no-length", nullptr, nullptr, "sends events without a length"},
    {Fault::EventLength, "event-length", "DIFFERENCE", "20", "adds this to the announced length of an event"},
    {Fault::EventPrefix, "event-prefix", "PREFIX", "ev", "writes events with this prefix instead of e"},
    {Fault::EventNoKo, "event-no-ko", nullptr, nullptr, "sends events without KO"},
    {Fault::KoMalformed, "ko-malformed", "TEXT", "12", "sends this text as KO"},
    {Fault::DieAfter, "die-after", "STAGE", "description",
     "shuts down after this stage: search, description, scpd, subscribe, event-head or event"},
}};

constexpr bool hasARowForEachFault()
{
    for (size_t i = 0; i < FAULTS.size(); ++i) {
        if (FAULTS[i].id != static_cast<Fault::Id>(i) || !FAULTS[i].name || !FAULTS[i].explanation)
            return false;
    }
    return true;
}
static_assert(hasARowForEachFault(), "the table of the faults has a row for each, in their order");

const char DESCRIPTION[] = R"(<?xml version="1.0"?>
<root xmlns="urn:schemas-upnp-org:device-1-0">
  <specVersion><major>1</major><minor>1</minor></specVersion>
  <device>
    <deviceType>%type</deviceType>
    <friendlyName>Simulated device %code</friendlyName>
    <manufacturer>Velmora</manufacturer>
    <modelName>ssdp-simulator</modelName>
    <UDN>uuid:%uuid</UDN>
    <serviceList>
%services    </serviceList>
  </device>
</root>
)";

const char SERVICE[] = R"(      <service>
        <serviceType>%type</serviceType>
        <serviceId>urn:velmora-it:serviceId:service%number</serviceId>
        <SCPDURL>%scpd</SCPDURL>
        <controlURL>/service%number/control</controlURL>
        <eventSubURL>/service%number/event</eventSubURL>
      </service>
)";

const char SERVICE_DESCRIPTION[] = R"(<?xml version="1.0"?>
<scpd xmlns="urn:schemas-upnp-org:service-1-0">
  <specVersion><major>1</major><minor>1</minor></specVersion>
  <serviceStateTable>
%variables  </serviceStateTable>
</scpd>
)";

const char STATE_VARIABLE[] = R"(    <stateVariable sendEvents="yes">
      <name>%name</name>
      <dataType>string</dataType>
    </stateVariable>
)";

QByteArray filled(const char* text, std::initializer_list<std::pair<const char*, QByteArray>> values)
{
    QByteArray result = text;
    for (const auto& value : values)
        result.replace(value.first, value.second);
    return result;
}

QString addressText(const QHostAddress& address, quint16 port)
{
    return address.toString() + QLatin1Char(':') + QString::number(port);
}

QString peerOf(const QTcpSocket* socket)
{
    return addressText(socket->peerAddress(), socket->peerPort());
}

/// Returns the number in a text like "Second-120", limited to the maximum of the device.
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

QString Fault::text(Id id, const char* value)
{
    const QString name = QLatin1String(FAULTS[id].name);
    return value ? name + QLatin1Char('=') + QLatin1String(value) : name;
}

QString DeviceOptions::addFault(Fault::Id id, const QString& given)
{
    const Fault& fault = FAULTS[id];
    const QString name = QLatin1String(fault.name);
    if (!fault.value && !given.isNull())
        return QStringLiteral("fault '%1' takes no value").arg(name);
    const QString value = given.isEmpty() ? QString::fromLatin1(fault.standard) : given;

    bool isNumber = false;
    QByteArray(fault.standard).toInt(&isNumber);
    // A TEXT, such as that of KO, need not be a number.
    isNumber = isNumber && QLatin1String(fault.value) != QLatin1String("TEXT");
    bool isRight = true;
    if (isNumber) {
        const int number = value.toInt(&isRight);
        const bool isDifference = QLatin1String(fault.value) == QLatin1String("DIFFERENCE");
        isRight = isRight && (number > 0 || isDifference);
    } else if (id == Fault::DieAfter) {
        isRight =
            std::find(std::begin(STAGE_NAMES), std::end(STAGE_NAMES), value.toLatin1()) != std::end(STAGE_NAMES);
    }
    if (!isRight)
        return QStringLiteral("'%1' is no value for fault '%2'").arg(value, name);
    faults.insert(id, value);
    return QString();
}

QString DeviceOptions::addFault(const QString& text)
{
    const qsizetype equals = text.indexOf(QLatin1Char('='));
    const QString name = text.left(equals);
    for (const Fault& fault : FAULTS) {
        if (name == QLatin1String(fault.name))
            return addFault(fault.id, equals == -1 ? QString() : text.mid(equals + 1));
    }
    return QStringLiteral("there is no fault '%1'").arg(name);
}

const std::array<Fault, Fault::Count>& SimulatedDevice::faults()
{
    return FAULTS;
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
    // The identifier depends only on address and port, so it is the same after a restart.
    const QString name = addressText(settings.address, settings.port);
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
    // The destructor of a socket emits disconnected(). Then no slot of this object may run.
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
    if (has(Fault::AnnounceOnly))
        settings.announceEvery = valueOf(Fault::AnnounceOnly).toInt();
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

void SimulatedDevice::endGaps()
{
    const QList<QTcpSocket*> sockets = connections();
    for (const QTcpSocket* const socket : sockets) {
        QTimer* const gap = socket->findChild<QTimer*>(QLatin1String(GAP));
        if (gap && gap->interval() > 0 && socket->bytesToWrite() == 0)
            gap->start(0);
    }
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

bool SimulatedDevice::hasShown(Fault::Id fault) const
{
    return shown.test(fault);
}

bool SimulatedDevice::has(Fault::Id fault) const
{
    const bool result = settings.faults.contains(fault);
    if (result)
        shown.set(fault);
    return result;
}

QString SimulatedDevice::valueOf(Fault::Id fault) const
{
    return has(fault) ? settings.faults.value(fault) : QString();
}

void SimulatedDevice::reach(Stage stage)
{
    ++counts[stage];
    Q_EMIT reached(stage);
    if (has(Fault::DieAfter) && valueOf(Fault::DieAfter) == stageName(stage))
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
    const bool isDeaf = has(Fault::IgnoreSearch) || has(Fault::AnnounceOnly);
    if (!alive || isDeaf || search.interface != group->interfaceOf(settings.address))
        return;
    const bool isForGroup = search.destination == SsdpGroup::ADDRESS;
    if (isForGroup ? has(Fault::UnicastSearchOnly) : search.destination != settings.address)
        return;
    if (has(Fault::CrlfSearchOnly) && !search.text.contains("\r\n"))
        return;
    const QList<QByteArray> types = notificationTypes();
    const bool all = search.target == "ssdp:all";
    if (!all && !types.contains(search.target))
        return;

    Q_EMIT message(false, addressText(search.address, search.port), search.text);
    int last = settings.responseDelayMax < 0 ? search.mx * 1000 : settings.responseDelayMax;
    int first = qMin(settings.responseDelayMin, last);
    if (has(Fault::SlowAnswer))
        first = last = valueOf(Fault::SlowAnswer).toInt();
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
    QString place = has(Fault::LocationGarbage) ? valueOf(Fault::LocationGarbage) : location();
    if (has(Fault::LocationOtherHost))
        place.replace(settings.address.toString(), valueOf(Fault::LocationOtherHost));
    QList<QByteArray> lines = {"HTTP/1.1 200 OK",
                               "CACHE-CONTROL: max-age=" + QByteArray::number(MAX_AGE),
                               "EXT:",
                               QByteArray("SERVER: ") + SERVER,
                               "ST: " + type,
                               "USN: " + uniqueServiceName(type)};
    if (!has(Fault::NoLocation))
        lines.insert(3, "LOCATION: " + place.toLatin1());
    const QByteArray text = headOf(lines);
    const int times = has(Fault::DuplicateResponses) ? valueOf(Fault::DuplicateResponses).toInt() : 1;
    for (int i = 0; i < times; ++i) {
        group->send(settings.address, search.address, search.port, text);
        Q_EMIT message(true, addressText(search.address, search.port), text);
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
    const QString host = addressText(SsdpGroup::ADDRESS, SsdpGroup::PORT);
    QList<QByteArray> lines = {"NOTIFY * HTTP/1.1", "HOST: " + host.toLatin1()};
    if (coming) {
        lines << "CACHE-CONTROL: max-age=" + QByteArray::number(MAX_AGE) << "LOCATION: " + location().toLatin1()
              << QByteArray("SERVER: ") + SERVER << "NTS: ssdp:alive";
    } else {
        lines << "NTS: ssdp:byebye";
    }
    const QList<QByteArray> types = notificationTypes();
    for (const QByteArray& type : types) {
        const QByteArray text =
            headOf(lines + QList<QByteArray>{"NT: " + type, "USN: " + uniqueServiceName(type)});
        group->send(settings.address, SsdpGroup::ADDRESS, SsdpGroup::PORT, text);
        Q_EMIT message(true, host, text);
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
    // Only one request is read at a time, because control points wait for the answer before the next request.
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
    else if (method == "GET" && !has(Fault::SilentHttp))
        answerGet(socket, head, path);
    else if (method != "GET")
        respond(socket, head, {"501 Not Implemented", {}, QByteArray(), 0});
}

void SimulatedDevice::answerGet(QTcpSocket* socket, const QByteArray& head, const QByteArray& path)
{
    Response response = {"200 OK", {XML_TYPE}, QByteArray(), 0};
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

    const QList<QByteArray> html = {"CONTENT-TYPE: text/html"};
    if (response.body.isEmpty()) {
        response = {"404 Not Found", html, htmlPage("Not found"), 0};
    } else if (has(Fault::Redirect)) {
        response = {"302 Found", html, htmlPage("Moved"), 0};
        response.headers << "LOCATION: " + valueOf(Fault::Redirect).toLatin1();
    } else if (has(Fault::Error500)) {
        response = {"500 Internal Server Error", html, htmlPage("Internal error"), 0};
    } else if (has(Fault::HtmlInstead)) {
        response = {"200 OK", html, htmlPage("Welcome"), 0};
    } else if (has(Fault::DeepXml)) {
        response.body = nested(valueOf(Fault::DeepXml).toInt());
    } else if (has(Fault::TruncatedXml)) {
        response.body.truncate(response.body.size() / 2);
    }
    response.announced = response.body.size();

    std::function<void()> finished = [this, stage] { reach(stage); };
    if (has(Fault::WrongLength)) {
        const int difference = valueOf(Fault::WrongLength).toInt();
        response.announced += difference;
        finished = [this, socket, stage] {
            socket->disconnectFromHost();
            reach(stage);
        };
    } else if (has(Fault::ResetMidBody)) {
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
    const bool last = headerOf(head, "CONNECTION").toLower() == "close"
        || head.left(head.indexOf('\n')).trimmed().endsWith("HTTP/1.0");
    QList<QByteArray> lines = {"HTTP/1.1 " + response.status, QByteArray("SERVER: ") + SERVER};
    lines += response.headers;
    lines += "CONTENT-LENGTH: " + QByteArray::number(response.announced);
    if (last)
        lines += "CONNECTION: close";
    const QByteArray text = headOf(lines);

    QList<QByteArray> chunks;
    int gap = 0;
    if (has(Fault::SlowHttp) && !response.body.isEmpty()) {
        chunks << text << cut(response.body, qMax(1, valueOf(Fault::SlowHttp).toInt() * SLOW_INTERVAL / 1000));
        gap = SLOW_INTERVAL;
    } else {
        chunks << text + response.body;
    }
    writeChunks(socket, chunks, gap, [this, socket, last, sent] {
        if (last)
            socket->disconnectFromHost();
        if (sent)
            sent();
        // The control point may have sent another request meanwhile.
        if (alive && !requests.value(socket).isEmpty())
            onRequestReadyRead(socket);
    });
}

/// Returns @p document with the faults that concern documents. @p root is its root element, and @p xmlns its
/// namespace.
QByteArray SimulatedDevice::spoilt(QByteArray document, const QByteArray& root, const QByteArray& xmlns) const
{
    if (has(Fault::Namespace))
        document.replace(xmlns, valueOf(Fault::Namespace).toUtf8());
    if (has(Fault::RootElement)) {
        const QByteArray name = valueOf(Fault::RootElement).toUtf8();
        document.replace('<' + root + ' ', '<' + name + ' ');
        document.replace("</" + root + '>', "</" + name + '>');
    }
    if (has(Fault::DescriptionPrefix)) {
        const QByteArray prefix = valueOf(Fault::DescriptionPrefix).toUtf8();
        document.replace("</", "</" + prefix + ':');
        document.replace("xmlns=", "xmlns:" + prefix + '=');
        for (qsizetype i = document.indexOf('<'); i != -1; i = document.indexOf('<', i + 1)) {
            if (document.at(i + 1) != '/' && document.at(i + 1) != '?')
                document.insert(i + 1, prefix + ':');
        }
    }
    return document;
}

QByteArray SimulatedDevice::description() const
{
    const QByteArray keyObjectService =
        has(Fault::ServiceType) ? valueOf(Fault::ServiceType).toUtf8() : QByteArray(KEY_OBJECT_SERVICE);
    QByteArray list;
    for (int i = 1; i <= settings.services && !has(Fault::NoService); ++i) {
        QByteArray service =
            filled(SERVICE,
                   {{"%type", i == settings.services ? keyObjectService : OTHER_SERVICE},
                    {"%scpd", has(Fault::ScpdUrl) ? valueOf(Fault::ScpdUrl).toUtf8() : servicePath(i).toLatin1()},
                    {"%number", QByteArray::number(i)}});
        if (has(Fault::EventUrl))
            service.replace("/service" + QByteArray::number(i) + "/event", valueOf(Fault::EventUrl).toUtf8());
        list += service;
    }
    QByteArray text = filled(DESCRIPTION,
                             {{"%type", DEVICE_TYPE},
                              {"%code", QByteArray::number(settings.univocalCode)},
                              {"%uuid", uuid},
                              {"%services", list}});
    if (has(Fault::EmbeddedService)) {
        text.replace("    <serviceList>", "    <deviceList><device>\n    <serviceList>");
        text.replace("</serviceList>\n", "</serviceList>\n    </device></deviceList>\n");
    }
    return spoilt(text, "root", "urn:schemas-upnp-org:device-1-0");
}

QByteArray SimulatedDevice::serviceDescription(int number) const
{
    const bool isKeyObject = number == settings.services;
    const QStringList names = isKeyObject ? settings.variables : QStringList(QStringLiteral("Status"));
    QByteArray table;
    for (const QString& name : names) {
        if (!has(Fault::NoVariable))
            table += filled(STATE_VARIABLE, {{"%name", name.toUtf8()}});
    }
    return spoilt(filled(SERVICE_DESCRIPTION, {{"%variables", table}}), "scpd",
                  "urn:schemas-upnp-org:service-1-0");
}

// Subscription

void SimulatedDevice::answerSubscribe(QTcpSocket* socket, const QByteArray& head)
{
    if (has(Fault::NeverAnswerSubscribe))
        return;
    const int seconds = subscriptionSeconds(headerOf(head, "TIMEOUT"));
    QByteArray sid = headerOf(head, "SID");
    const bool isNew = sid.isEmpty();
    QByteArray callback = headerOf(head, "CALLBACK");
    callback = callback.mid(callback.indexOf('<') + 1, callback.indexOf('>') - callback.indexOf('<') - 1);
    if (has(Fault::RefuseSubscribe) || (isNew ? !callback.startsWith("http://") : !subscribers.contains(sid))
        || subscribers.size() >= MOST_SUBSCRIBERS) {
        respond(socket, head, {"412 Precondition Failed", {}, QByteArray(), 0});
        return;
    }
    const QByteArray standardHost = addressText(settings.address, settings.port).toLatin1();
    if (has(Fault::StandardSubscribeOnly) && (!head.contains("\r\n") || headerOf(head, "HOST") != standardHost)) {
        respond(socket, head, {"400 Bad Request", {}, QByteArray(), 0});
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
        if (isNew && alive && !has(Fault::NoEvent))
            sendEvent(sid);
    };
    QList<QByteArray> headers = {"TIMEOUT: Second-" + QByteArray::number(seconds)};
    if (!has(Fault::NoSid))
        headers.prepend("SID: " + sid);
    if (has(Fault::LateSid)) {
        headers << "CONTENT-LENGTH: 0";
        // The control point is subscribed even if it closes the connection after the first part.
        writeChunks(socket, {"HTTP/1.1 200 OK\r\n", headOf(headers)}, valueOf(Fault::LateSid).toInt(), [] {});
        accepted();
    } else {
        respond(socket, head, {"200 OK", headers, QByteArray(), 0}, accepted);
    }
}

void SimulatedDevice::answerUnsubscribe(QTcpSocket* socket, const QByteArray& head)
{
    const bool known = subscribers.remove(headerOf(head, "SID")) > 0;
    respond(socket, head, {known ? "200 OK" : "412 Precondition Failed", {}, QByteArray(), 0});
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
    // QUrl is not used, because "%4" in the path is not valid in a URL.
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
    const int duration = static_cast<int>(chunks.size()) * settings.eventGap;
    // The timer is a child of the socket, so it is deleted with the socket.
    QTimer* const patience = new QTimer(socket);
    patience->setSingleShot(true);
    connect(patience, &QTimer::timeout, socket, [socket] {
        socket->abort();
        socket->deleteLater();
    });
    patience->start(duration + EVENT_PATIENCE);
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
        // The control point no longer listens.
        if (error == QAbstractSocket::ConnectionRefusedError)
            subscribers.remove(sid);
        socket->deleteLater();
    });
    socket->connectToHost(address, port);
}

QList<QByteArray> SimulatedDevice::eventChunks(const QByteArray& sid, const QByteArray& host,
                                               QByteArray path) const
{
    const QByteArray prefix = has(Fault::EventPrefix) ? valueOf(Fault::EventPrefix).toUtf8() : "e";
    const QByteArray property = prefix + ":property";
    QByteArray body = '<' + property + "set xmlns:" + prefix + "=\"urn:schemas-upnp-org:event-1-0\">\n";
    for (const QString& name : settings.variables) {
        const bool isKeyObject = name == QLatin1String("KO");
        if (isKeyObject && has(Fault::EventNoKo))
            continue;
        const QString value =
            isKeyObject && has(Fault::KoMalformed) ? valueOf(Fault::KoMalformed) : values.value(name);
        const QByteArray tag = name.toUtf8();
        body += '<' + property + "><" + tag + '>' + value.toHtmlEscaped().toUtf8() + "</" + tag + "></" + property
            + ">\n";
    }
    body += has(Fault::EventBadXml) ? '<' + property + '>' : "</" + property + "set>\n";
    const QByteArray tail = settings.eventTail ? "\r\n" : "";
    if (has(Fault::EventUnknownPath))
        path = "/" + uuid;

    QList<QByteArray> lines = {"NOTIFY " + path + " HTTP/1.1",
                               "HOST: " + host,
                               XML_TYPE,
                               "NT: upnp:event",
                               "NTS: upnp:propchange",
                               "SID: " + sid,
                               "SEQ: " + QByteArray::number(subscribers.value(sid).events)};
    if (!has(Fault::EventNoLength))
        lines << "CONTENT-LENGTH: "
                + QByteArray::number(body.size() + tail.size() + valueOf(Fault::EventLength).toInt());
    const QByteArray head = headOf(lines);

    if (has(Fault::EventOneChunk) || settings.eventGap == 0)
        return {head + body + tail};
    QList<QByteArray> chunks = {head};
    if (has(Fault::EventManyChunks))
        chunks += cut(body, qMax<qsizetype>(1, body.size() / valueOf(Fault::EventManyChunks).toInt()));
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
    QTimer* const timer = new QTimer(socket);
    timer->setObjectName(QLatin1String(GAP));
    timer->setSingleShot(true);
    timer->setTimerType(Qt::PreciseTimer);
    connect(timer, &QTimer::timeout, this, [this, timer, socket, rest, gap, finished] {
        timer->deleteLater();
        if (socket->state() == QAbstractSocket::ConnectedState)
            writeChunks(socket, rest, gap, finished);
    });
    timer->start(gap);
}

void SimulatedDevice::reset(QTcpSocket* socket)
{
    const linger none = {1, 0};
    setsockopt(static_cast<int>(socket->socketDescriptor()), SOL_SOCKET, SO_LINGER, &none, sizeof none);
    socket->abort();
}

} // namespace Simulator
} // namespace Velmora

#include "moc_SimulatedDevice.cpp"

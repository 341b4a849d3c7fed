#include <tests/wire/Attacks.h>

#include <tests/support/KernelTables.h>
#include <tests/support/NamesAlike.h>

#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <thread>

namespace Velmora {
namespace Tests {

namespace {

using Clock = std::chrono::steady_clock;
using Handler = Attacker::Handler;
using Action = std::function<void(Attacker&)>;

const int KB = 1024;
const int MB = 1024 * KB;

const int QUICK = Attack::Quick;
const int MANY = Attack::ManyRecords;
const int UNENDING = Attack::Unending;
const int FEW = Attack::FewDescriptors;
const int LARGE = Attack::Large;

int millisecondsSince(Clock::time_point begin)
{
    return static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count());
}

void pauseAfterHead()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
}

/// Returns @p size bytes of @p unit. In each repetition, "@" is its number.
QByteArray filled(const QByteArray& unit, int size)
{
    if (!unit.contains('@'))
        return unit.repeated(size / static_cast<int>(unit.size()));
    QByteArray result;
    for (int i = 0; result.size() < size; ++i)
        result += QByteArray(unit).replace('@', QByteArray::number(i));
    return result;
}

/// Replaces what is in braces by repetitions of it, so that all of them together have @p size bytes.
QByteArray expanded(const QByteArray& pattern, int size)
{
    const QList<QByteArray> parts = pattern.split('{');
    const int groups = static_cast<int>(parts.size()) - 1;
    QByteArray result = parts.constFirst();
    for (const QByteArray& part : parts.mid(1)) {
        const qsizetype end = part.indexOf('}');
        result += filled(part.left(end), size / groups) + part.mid(end + 1);
    }
    return result;
}

int size(const QByteArray& bytes)
{
    return static_cast<int>(bytes.size());
}

QByteArray ok(const QByteArray& rest = QByteArray())
{
    return "HTTP/1.1 200 OK\r\n" + rest;
}

QByteArray chunked(const QByteArray& rest = QByteArray())
{
    return ok("Transfer-Encoding: chunked\r\n\r\n" + rest);
}

QByteArray root(const QByteArray& content)
{
    return "<root xmlns=\"urn:schemas-upnp-org:device-1-0\">" + content + "</root>";
}

QByteArray doctype(const QByteArray& declarations, const QByteArray& content = QByteArray())
{
    return "<!DOCTYPE root [" + declarations + "]>" + root(content);
}

/// A service description with these elements in its table.
QByteArray stateTable(const QByteArray& elements)
{
    return serviceDescription({}).replace("<serviceStateTable>", "<serviceStateTable>" + elements);
}

/// Eight entities, each ten times as long as the one before.
QByteArray entitiesInEntities()
{
    QByteArray declarations = "<!ENTITY a0 \"" + QByteArray(4000, 'x') + "\">";
    for (int i = 1; i < 8; ++i) {
        const QByteArray reference = "&a" + QByteArray::number(i - 1) + ';';
        declarations += "<!ENTITY a" + QByteArray::number(i) + " \"" + reference.repeated(10) + "\">";
    }
    return doctype(declarations, "{&a7;}");
}

QByteArray inUtf16(const QByteArray& text)
{
    QByteArray result = "\xff\xfe";
    for (const char character : text)
        result.append(character).append(character == '{' || character == '}' ? 0 : 1, '\0');
    return result;
}

Handler sends(const QByteArray& bytes)
{
    return [bytes](PlainConnection& connection) { connection.send(bytes); };
}

Handler sendsFor(int milliseconds, const QByteArray& bytes, int pause = 0)
{
    return [=](PlainConnection& connection) { connection.sendFor(milliseconds, bytes, pause); };
}

/// Makes the document only when it is sent, so that the other processes do not hold it.
Handler sendsDocument(const QByteArray& pattern, int size)
{
    return [pattern, size](PlainConnection& connection) { connection.send(reply(expanded(pattern, size))); };
}

Handler resetsAfter(const QByteArray& bytes)
{
    return [bytes](PlainConnection& connection) {
        connection.send(bytes);
        connection.flush();
        connection.reset();
    };
}

// Kinds of attacks

Attack datagram(const char* name, int traits, const QByteArray& bytes)
{
    const Action run = [bytes](Attacker& attacker) {
        attacker.sendDatagram(bytes);
        attacker.waitForDatagrams();
    };
    return {name, traits, run, 0};
}

Attack locations(const char* name, int traits, const QList<QByteArray>& all)
{
    const Action run = [all](Attacker& attacker) {
        for (const QByteArray& location : all)
            attacker.sendLocation(location);
        attacker.waitForDatagrams();
    };
    return {name, traits, run, static_cast<int>(all.size())};
}

Attack manyLocations(const char* name, int traits, int count, int atOnce)
{
    const Action run = [count, atOnce](Attacker& attacker) {
        for (int i = 1; i <= count; ++i) {
            attacker.sendLocation(Attacker::url("/many/" + QByteArray::number(i)));
            if (i % atOnce == 0)
                attacker.waitForDatagrams();
        }
    };
    return {name, traits, run, count};
}

/// Answers the search with the location of the device. Waits until the device has answered @p count requests that
/// begin with @p request.
void beAskedFor(Attacker& attacker, const QByteArray& request, int count = 1)
{
    attacker.sendLocation(Attacker::url("/d.xml"));
    attacker.waitForAnswer(request, count);
}

/// The device is found, and @p handler answers the request that begins with @p request.
Attack answered(const QByteArray& name, int traits, const QByteArray& request, const Handler& handler)
{
    const Action run = [request, handler](Attacker& attacker) {
        attacker.serve(request, handler);
        beAskedFor(attacker, request);
    };
    return {name, traits, run};
}

Attack http(const char* name, int traits, const Handler& handler)
{
    return answered(name, traits, "GET /d.xml ", handler);
}

/// Like a reply with a body, but @p length is its CONTENT-LENGTH.
Attack httpLength(const char* name, int traits, const QByteArray& length)
{
    return http(name, traits, sends(ok("Content-Length: " + length + "\r\n\r\n" + root(""))));
}

Attack httpHeaders(const char* name, int traits, const QByteArray& headers)
{
    return http(name, traits, sends(reply(root("")).replace("CONTENT-TYPE", headers + "CONTENT-TYPE")));
}

Attack chunkLength(const char* name, int traits, const QByteArray& length)
{
    return http(name, traits, sends(chunked(length + "\r\n" + root("") + "\r\n0\r\n\r\n")));
}

/// Each device has its own port. It replies with @p head. Then it sends @p bytes again and again, for five seconds
/// or until the host closes the connection.
Attack endlessReply(const QByteArray& name, int traits, int devices, const QByteArray& head,
                    const QByteArray& bytes)
{
    const Action run = [head, bytes, devices](Attacker& attacker) {
        attacker.serve("GET /d.xml ", [head, bytes](PlainConnection& connection) {
            connection.send(head);
            connection.sendFor(5000, bytes);
        });
        attacker.listenAtPorts(devices);
        for (int i = 0; i < devices; ++i)
            attacker.sendLocation(Attacker::url("/d.xml", i));
        attacker.waitForAnswer("GET /d.xml ", devices);
    };
    return {name, traits, run, devices};
}

Attack document(const QByteArray& name, int traits, const QByteArray& pattern, int size = 4 * MB)
{
    return answered(name, traits | LARGE, "GET /d.xml ", sendsDocument(pattern, size));
}

Attack serviceDocument(const char* name, int traits, const QByteArray& pattern)
{
    return answered(name, traits | LARGE, "GET /scpd.xml ", sendsDocument(pattern, 4 * MB));
}

Attack subscription(const char* name, int traits, const Handler& handler)
{
    return answered(name, traits, "SUBSCRIBE ", handler);
}

void expectEnd(PlainConnection& connection)
{
    if (!connection.waitForEnd())
        throw std::runtime_error("the host keeps the connection");
}

/// What happens after the last part of an event.
enum End { HostCloses, DeviceResets, PartIsRepeated };

/// An event in two parts. In them, PATH is the path of the subscription, and UPPER the same in upper case.
Attack eventParts(const char* name, int traits, const QByteArray& first, const QByteArray& second, End end)
{
    const Action run = [=](Attacker& attacker) {
        const Attacker::Callback callback = attacker.beSubscribedTo();
        const auto connection = Attacker::connectTo(callback);
        const auto completed = [&callback](QByteArray part) {
            return part.replace("PATH", callback.path).replace("UPPER", callback.path.toUpper());
        };
        connection->send(completed(first));
        if (!first.isEmpty() && !second.isEmpty())
            pauseAfterHead();
        if (end == PartIsRepeated)
            connection->sendFor(1000, completed(second), 1);
        else
            connection->send(second);
        if (end == HostCloses)
            expectEnd(*connection);
        if (end == DeviceResets) {
            connection->flush();
            connection->reset();
        }
        attacker.waitForDatagrams();
    };
    return {name, traits, run};
}

/// Sends an event as a device does. Returns how long the host takes for its body, in milliseconds.
int sendEvent(const Attacker::Callback& callback, const QByteArray& body)
{
    const auto connection = Attacker::connectTo(callback);
    connection->send(eventHead(callback.path, QByteArray::number(body.size())));
    pauseAfterHead();
    const Clock::time_point begin = Clock::now();
    connection->send(body);
    expectEnd(*connection);
    return millisecondsSince(begin);
}

Action sendsEvent(const std::function<QByteArray()>& make)
{
    return [make](Attacker& attacker) { sendEvent(attacker.beSubscribedTo(), make()); };
}

// Attacks of several steps

void locateTheEventServer(Attacker& attacker)
{
    const Attacker::Callback callback = attacker.beSubscribedTo();
    attacker.sendLocation("http://" + callback.address + ':' + QByteArray::number(callback.port) + "/d.xml");
    attacker.waitForDatagrams();
}

void describeADeviceAsAService(Attacker& attacker)
{
    attacker.serve("GET /scpd.xml ", sends(reply(deviceDescription())));
    // Each description makes the library request the next one, until the discovery ends.
    beAskedFor(attacker, "GET /scpd.xml ", 1000);
    attacker.seen = "1,000 requests, one after the other";
}

void replyOneByteAtATime(PlainConnection& connection)
{
    const QByteArray bytes = subscriptionReply();
    for (const char byte : bytes) {
        if (!connection.send(QByteArray(1, byte)))
            return;
        connection.flush();
    }
}

void replyBeforeTheRequest(Attacker& attacker)
{
    attacker.serve("GET /scpd.xml ", [&attacker](PlainConnection& connection) {
        attacker.greet(subscriptionReply());
        connection.send(reply(serviceDescription()));
    });
    beAskedFor(attacker, "GET /scpd.xml ");
}

void replyWithLines(Attacker& attacker)
{
    attacker.serve("GET /scpd.xml ", sends(reply(serviceDescription(manyNames(50)))));
    attacker.serve("SUBSCRIBE ", sends(ok(filled("SID\n", MB))));
    beAskedFor(attacker, "SUBSCRIBE ", 50);
}

void refuseSubscriptions(Attacker& attacker)
{
    attacker.serve("GET /scpd.xml ", [&attacker](PlainConnection& connection) {
        attacker.stopListening();
        connection.send(reply(serviceDescription(manyNames(900))));
    });
    beAskedFor(attacker, "GET /scpd.xml ");
}

void neverAnswer(PlainConnection& connection)
{
    connection.descriptor = -1; // It stays open until this process ends.
}

void sendEventBeforeTheReply(PlainConnection& connection)
{
    sendEvent(Attacker::callbackOf(connection.request), eventBody("KO", "1,1"));
    connection.send(subscriptionReply());
}

void sendManyProperties(Attacker& attacker)
{
    const QByteArray services = QByteArray("<service/>").repeated(100000) + serviceElement();
    attacker.serve("GET /d.xml ", sends(reply(deviceDescription(services))));
    sendEvent(attacker.beSubscribedTo(), propertySet(eventProperty("A", "").repeated(100000)));
}

void sendLongEvents(Attacker& attacker)
{
    const Attacker::Callback callback = attacker.beSubscribedTo();
    const auto event = [](int size) { return eventBody("KO", "12,34;" + QByteArray(size, ' ')); };
    const int quarter = sendEvent(callback, event(16 * MB));
    const int whole = sendEvent(callback, event(64 * MB));
    attacker.seen =
        "16 MB took " + QByteArray::number(quarter) + " ms, 64 MB " + QByteArray::number(whole) + " ms";
    // Four times the length is four times the work. If the work were quadratic, it would be sixteen times.
    if (whole > 10 * quarter + 1000)
        throw std::runtime_error("not linear: " + attacker.seen.toStdString());
}

/// Waits until the good device is connected to the event server.
void waitForTheGoodDevice(const Attacker::Callback& callback)
{
    // In the table of the kernel: the port of the other side, and the number of the state "established".
    const QByteArray port = QByteArray::number(callback.port, 16).toUpper().rightJustified(4, '0');
    const Clock::time_point begin = Clock::now();
    while (!KernelTables::linesOf("tcp").join().contains(':' + port + " 01 ")) {
        if (millisecondsSince(begin) > 10 * 1000)
            throw std::runtime_error("the good device does not connect");
        // The kernel takes some milliseconds to list its connections.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

void useUpDescriptors(Attacker& attacker)
{
    const Attacker::Callback callback = attacker.beSubscribedTo();
    // After the attack, the host accepts no connection.
    waitForTheGoodDevice(callback);
    std::vector<std::unique_ptr<PlainConnection>> connections;
    while (connections.size() < 1100)
        connections.push_back(Attacker::connectTo(callback));
    // When the host closes the last one, it has accepted as many as it can.
    expectEnd(*connections.back());
}

void connectWithoutAWord(Attacker& attacker)
{
    const int count = 1000;
    const Attacker::Callback callback = attacker.beSubscribedTo();
    // They stay open until this process ends.
    static std::vector<pollfd> connections;
    connections.reserve(count);
    const Clock::time_point begin = Clock::now();
    for (int i = 0; i < count; ++i)
        connections.push_back({Attacker::startConnecting(callback), POLLOUT, 0});
    for (pollfd& connection : connections) {
        int error = 0;
        socklen_t length = sizeof error;
        if (poll(&connection, 1, 10 * 1000) != 1
            || getsockopt(connection.fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0)
            throw std::runtime_error("a connection was not accepted");
    }
    const int milliseconds = millisecondsSince(begin);
    attacker.seen = QByteArray::number(count) + " connected within " + QByteArray::number(milliseconds) + " ms";
    // A lost SYN is sent again after a second.
    if (milliseconds > 900)
        throw std::runtime_error("a SYN was lost: " + attacker.seen.toStdString());
    attacker.waitForDatagrams();
}

// The tables

std::vector<Attack> datagramAttacks()
{
    const QByteArray foreign = "LOCATION: http://10.77.1.2:8000/x";
    const QByteArray longName = filled("x", 60 * KB);
    return {
        {"No attack", QUICK, [](Attacker&) {}, 0},
        datagram("Datagram of 0 bytes", QUICK, ""),
        datagram("Datagram of 1 byte", 0, "L"),
        datagram("Datagram of 65,507 bytes", QUICK, QByteArray(65507, 'x')),
        datagram("Datagram of 65,507 line feeds", 0, QByteArray(65507, '\n')),
        datagram("Datagram without an empty line", 0, "NOTIFY * HTTP/1.1\r\n" + foreign),
        datagram("Datagram with zero bytes", 0, QByteArray(2, '\0') + foreign + "\r\n"),
        datagram("Datagram without a colon", 0, ok("LOCATION http//10.77.1.2/x\r\n\r\n")),
        locations("Location of 60 KB", QUICK, {Attacker::url('/' + longName)}),
        locations("Location that is relative", 0, listOf("/d.xml", "d.xml", "../d.xml", "//10.77.1.2:8000/d.xml")),
        locations("Location without a host", 0, listOf("http:///d.xml", "http://", "http:", ":", "http://:80/")),
        locations("Location with port 0 or 99999", 0,
                  listOf("http://10.77.1.2:0/d.xml", "http://10.77.1.2:99999/d.xml")),
        locations("Location of another scheme", QUICK,
                  listOf("file:///etc/hostname", "data:text/xml,<root/>", "ftp://10.77.1.2/x",
                         "https://10.77.1.2:8000/x", "gopher://10.77.1.2/", "qrc:/x",
                         "preconnect-http://10.77.1.2:8000")),
        locations("Location that is /dev/zero", 0, {"file:///dev/zero"}),
        locations("Location with an IPv6 address", 0,
                  listOf("http://[::1]:8000/d.xml", "http://[fe80::1%25host0]:8000/d.xml")),
        {"Location that is the host's own event server", QUICK, locateTheEventServer, 2},
        manyLocations("10,000 different Locations", MANY, 10000, 100),
        manyLocations("2,000 datagrams in a burst, the host busy for 400 ms", QUICK | Attack::Stalled, 2000, 2000),
    };
}

std::vector<Attack> httpAttacks()
{
    return {
        locations("HTTP refused", 0, {"http://10.77.1.2:9/d.xml"}),
        http("HTTP silent", QUICK, sendsFor(500, "", 100)),
        http("HTTP of 1 byte a second", 0, sendsFor(4000, "H", 1000)),
        http("HTTP reset in the head", QUICK, resetsAfter(ok())),
        http("HTTP reset in the body", 0, resetsAfter(ok("Content-Length: 1000\r\n\r\n" + root("")))),
        httpLength("HTTP Content-Length too small", 0, "10"),
        httpLength("HTTP Content-Length too large", 0, "100000"),
        httpLength("HTTP Content-Length of 2^63 - 1", QUICK, "9223372036854775807"),
        httpLength("HTTP Content-Length of 2^64 and more", 0, "99999999999999999999"),
        httpLength("HTTP Content-Length negative", 0, "-1"),
        chunkLength("HTTP chunk length that is no number", QUICK, "ZZZ"),
        chunkLength("HTTP chunk length negative", 0, "-5"),
        chunkLength("HTTP chunk length of 2^63 - 1", 0, "7fffffffffffffff"),
        httpHeaders("HTTP body in a coding that was not requested", 0, "Content-Encoding: gzip\r\n"),
        httpHeaders("HTTP with 101 headers", QUICK, filled("X-@: v\r\n", 905)),
        httpHeaders("HTTP with 1,500 cookies", QUICK, filled("Set-Cookie: c@=v\r\n", 29 * KB)),
        httpHeaders("HTTP with a header of 110 KB", 0, "X-Header: " + filled("x", 110 * KB) + "\r\n"),
        http("HTTP redirect to itself", QUICK,
             sends("HTTP/1.1 302 Found\r\nLocation: /d.xml\r\nContent-Length: 0\r\n\r\n")),
    };
}

std::vector<Attack> documentAttacks()
{
    const QByteArray levels = QByteArray("<a>").repeated(127) + QByteArray("</a>").repeated(127);
    const QByteArray attributes = filled(" a@=\"\"", 1938); // 256 of them
    const QByteArray defaults = filled("<!ATTLIST b a@ CDATA \"x\">", 40 * KB);
    const QByteArray service = "<service><SCPDURL>/s</SCPDURL></service>";
    const QByteArray variable = "<stateVariable><name>%1%2\n%n&#10;%s</name></stateVariable>";
    const auto serviceList = [](const QByteArray& service) { return deviceDescription('{' + service + '}'); };
    std::vector<Attack> all = {
        document("Document of 16 MB, wide", MANY | Attack::Oversized, root("{<a/>}"), 16 * MB - KB),
        document("100,000 services", MANY, serviceList(service), 100000 * size(service)),
        document("10,000 key-object services", MANY | UNENDING, serviceList(serviceElement()),
                 10000 * size(serviceElement())),
        document("Service description in place of a device's", 0, serviceDescription()),
        serviceDocument("100,000 state variables, 1,024 descriptors", MANY | FEW,
                        stateTable("{<stateVariable><name>@</name></stateVariable>}")),
        serviceDocument("Names with line feeds and %1", QUICK, stateTable(variable.repeated(20))),
        {"Device description in place of a service's", UNENDING, describeADeviceAsAService},
    };
    const auto add = [&all](const char* what, int traits, const QByteArray& pattern) {
        all.push_back(document("Document of 4 MB"_ba + what, traits, pattern));
    };
    add(", deep", QUICK, root("{<a>}"));
    add(", deep and well-formed", 0, root("{<a>}{</a>}"));
    add(", wide", QUICK, root("{<a/>}"));
    add(", 128 levels again and again", 0, root('{' + levels + '}'));
    add(", attributes of one element", QUICK, root("<a{ a@=\"\"}/>"));
    add(", 256 attributes for every element", 0, root("{<a" + attributes + "/>}"));
    add(", namespace declarations", 0, root("<a{ xmlns:a@=\"u\"}/>"));
    add(", comments", 0, root("{<!---->}"));
    add(", one comment", 0, root("<!--{- }-->"));
    add(", comments without an end", 0, root("{<!-- }"));
    add(", processing instructions", 0, root("{<?p?>}"));
    add(", XML declarations", 0, "{<?xml ?>}");
    add(", CDATA sections", 0, root("{<![CDATA[]]>}"));
    add(", text", 0, root("{text }"));
    add(", character references", 0, root("{&#65;}"));
    add(", entities in entities", QUICK, entitiesInEntities());
    add(", parameter entities", 0, doctype("<!ENTITY % a \"x\">{%a;}"));
    add(", <!ELEMENT a ((((", 0, doctype("<!ELEMENT a {(}"));
    add(", <!ATTLIST> defaults", 0, doctype(defaults, "{<b/>}"));
    add(", unclosed", 0, "<root>{<a/>}");
    add(", unclosed attribute", 0, "<root a=\"{x}");
    add(", one name", 0, "<{a}/>");
    add(", less-than signs", 0, "{<}");
    add(", end tags", 0, root("{</a>}"));
    add(" in UTF-16 with byte order mark", 0, inUtf16(root("{<a/>}")));
    add(", zero bytes", 0, "{\0}"_ba);
    return all;
}

std::vector<Attack> subscriptionAttacks()
{
    return {
        subscription("SUBSCRIBE reply empty", QUICK, sends("")),
        subscription("SUBSCRIBE reply without an end", 0, sendsFor(5000, QByteArray(65536, 'x'))),
        subscription("SUBSCRIBE reply of one byte at a time", 0, replyOneByteAtATime),
        {"SUBSCRIBE reply before the request", QUICK, replyBeforeTheRequest},
        {"SUBSCRIBE replies of 1 MB of lines without a colon, 50 times", QUICK, replyWithLines},
        {"900 state variables, connections refused, 1,024 descriptors", QUICK | FEW, refuseSubscriptions},
        subscription("SUBSCRIBE that is never answered", UNENDING, neverAnswer),
    };
}

std::vector<Attack> eventAttacks()
{
    const QByteArray body = eventBody("KO", "1,1");
    const QByteArray event = eventHead("PATH", QByteArray::number(body.size())) + body;
    const QByteArray lines = filled("CONTENT-LENGTH\n", MB);
    const QByteArray unknown = "/6f9619ff-8b86-d011-b42d-00c04fc964ff_%4";
    const QByteArray null = "/00000000-0000-0000-0000-000000000000_%4";
    const auto namesAlike = [] { return eventOf(manyNames(20000, true)); };
    const auto deep = [] { return filled("<a>", 4 * MB); };
    return {
        subscription("Event before the SUBSCRIBE reply", QUICK, sendEventBeforeTheReply),
        eventParts("Event with an unknown identifier", QUICK, eventHead(unknown, "100"), "", HostCloses),
        eventParts("Event with the null identifier", 0, eventHead(null, "100"), "", HostCloses),
        eventParts("Event with the identifier in upper case", 0, eventHead("UPPER", "5"), "<a/>\n", HostCloses),
        {"Event of 20,000 names that Qt 5 hashes alike", QUICK | LARGE, sendsEvent(namesAlike)},
        {"Event of 100,000 properties after 100,000 services", MANY, sendManyProperties},
        eventParts("Event head of 1 MB of lines without a colon", QUICK, "NOTIFY PATH HTTP/1.1\r\n" + lines, "",
                   HostCloses),
        {"1,100 event connections, 1,024 descriptors", QUICK | FEW, useUpDescriptors},
        {"1,000 event connections that stay silent", QUICK, connectWithoutAWord},
        {"Event bodies of 16 and 64 MB", MANY, sendLongEvents},
        {"Event body of 4 MB, deep", LARGE, sendsEvent(deep)},
        eventParts("Event body length of 2147483647", QUICK, eventHead("PATH", "2147483647"),
                   QByteArray(1024, 'x'), PartIsRepeated),
        eventParts("Event body length of -2147483648", QUICK, "", eventHead("PATH", "-2147483648"),
                   PartIsRepeated),
        eventParts("Events pipelined in one connection", 0, event.repeated(100), body, HostCloses),
        eventParts("Event reset in the middle", QUICK, eventHead("PATH", "1000"), "<e:propertyset>", DeviceResets),
    };
}

std::vector<Attack> endlessReplies()
{
    const QByteArray headers = QByteArray("X-Header: value\r\n").repeated(1000);
    const QByteArray interim = QByteArray("HTTP/1.1 100 Continue\r\n\r\n").repeated(1000);
    const QByteArray much(65536, 'x');
    const int prompt = QUICK | Attack::Prompt;
    std::vector<Attack> all;
    const auto add = [&all](const char* what, int traits, const QByteArray& head, const QByteArray& bytes) {
        const QByteArray name = "HTTP "_ba + what + " without an end";
        all.push_back(endlessReply(name, traits, 1, head, bytes));
        all.push_back(endlessReply(name + ", 20 times", traits, 20, head, bytes));
    };
    add("head", prompt, ok(), headers);
    add("header line", prompt, ok("X-Header: "), much);
    add("status line", prompt, "HTTP/1.1 200 ", much);
    add("chunk length", prompt, chunked(), QByteArray(65536, '0'));
    add("of interim replies", prompt, "", interim);
    add("trailers", prompt, chunked("0\r\n"), headers);
    add("body", QUICK, ok("\r\n"), much);
    return all;
}

} // namespace

const std::vector<Attack>& attacks()
{
    static const std::vector<Attack> all = [] {
        std::vector<Attack> result;
        for (const auto& kind : {datagramAttacks(), httpAttacks(), documentAttacks(), subscriptionAttacks(),
                                 eventAttacks(), endlessReplies()})
            result.insert(result.end(), kind.begin(), kind.end());
        return result;
    }();
    return all;
}

} // namespace Tests
} // namespace Velmora

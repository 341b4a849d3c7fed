#include <tests/wire/Attacks.h>

#include <tests/support/NamesAlike.h>

#include <QtCore/QByteArray>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <thread>

namespace Velmora {
namespace Tests {

namespace {

using Clock = std::chrono::steady_clock;

const size_t KB = 1024;
const size_t MB = 1024 * KB;
const size_t DOCUMENT_SIZE = 4 * MB;
const int QUICK = Attack::Quick;
const int MANY = Attack::ManyRecords;
const int SHORT_GAP = 300;
const int LONG_GAP = 6000;
const int LONGEST_GAP = 15000;
const char SUBSCRIBED[] = "HTTP/1.1 200 OK\r\nSID: uuid:2fac1234-31f8-11b4-a222-08002b34c003\r\n\r\n";

int millisecondsSince(Clock::time_point begin)
{
    return static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count());
}

std::string repeated(const std::string& text, size_t times)
{
    return QByteArray::fromStdString(text).repeated(static_cast<int>(times)).toStdString();
}

/// Before the number of the repetition and after it, until the text is as long as a document.
std::string numbered(const std::string& before, const std::string& after, size_t size = DOCUMENT_SIZE)
{
    std::string result;
    for (int i = 0; result.size() < size; ++i)
        result.append(before).append(std::to_string(i)).append(after);
    return result;
}

std::string filled(const std::string& text, size_t size = DOCUMENT_SIZE)
{
    return repeated(text, size / text.size());
}

/// The beginning of a reply, and @p rest.
std::string ok(const std::string& rest = std::string())
{
    return "HTTP/1.1 200 OK\r\n" + rest;
}

std::string chunked(const std::string& rest = std::string())
{
    return ok("Transfer-Encoding: chunked\r\n\r\n" + rest);
}

/// A device description around @p content.
std::string root(const std::string& content)
{
    return "<root xmlns=\"urn:schemas-upnp-org:device-1-0\">" + content + "</root>";
}

// Datagrams

Attack datagram(const char* name, const std::string& bytes, int traits = 0)
{
    return {name, traits, SHORT_GAP, 0, [bytes](Attacker& attacker) {
                attacker.sendDatagram(bytes);
                attacker.waitForDatagrams();
            }};
}

Attack locations(const char* name, const std::vector<std::string>& all, int traits = 0)
{
    return {name, traits, SHORT_GAP, static_cast<int>(all.size()), [all](Attacker& attacker) {
                for (const std::string& location : all)
                    attacker.sendLocation(location);
                attacker.waitForDatagrams();
            }};
}

Attack manyLocations(const char* name, int traits, int count, int atOnce)
{
    return {name, traits, LONG_GAP, count, [count, atOnce](Attacker& attacker) {
                for (int i = 1; i <= count; ++i) {
                    attacker.sendLocation(Attacker::url("/many/" + std::to_string(i)));
                    if (i % atOnce == 0)
                        attacker.waitForDatagrams();
                }
            }};
}

// HTTP

using Handler = Attacker::Handler;

Handler sends(const std::string& bytes)
{
    return [bytes](PlainConnection& connection, const std::string&) { connection.send(bytes); };
}

Handler sendsFor(int milliseconds, const std::string& bytes, int pause = 0)
{
    return
        [=](PlainConnection& connection, const std::string&) { connection.sendFor(milliseconds, bytes, pause); };
}

Handler resetsAfter(const std::string& bytes)
{
    return [bytes](PlainConnection& connection, const std::string&) {
        connection.send(bytes);
        connection.flush();
        connection.reset();
    };
}

/// The device is found, and answers so many requests that begin with @p request.
void beAskedFor(Attacker& attacker, const char* request, int count = 1)
{
    attacker.sendLocation(Attacker::url("/d.xml"));
    attacker.waitForAnswer(request, count);
}

/// The device is found, and @p handler answers the request that begins so.
Attack answered(const char* name, const char* request, const Handler& handler, int traits, int gap = SHORT_GAP)
{
    return {name, traits, gap, 1, [request, handler](Attacker& attacker) {
                attacker.serve(request, handler);
                beAskedFor(attacker, request);
            }};
}

Attack http(const char* name, const Handler& handler, int traits = 0)
{
    return answered(name, "GET /d.xml ", handler, traits);
}

/// A reply begins with @p head and goes on with @p bytes for as long as the host takes them. The same comes
/// from as many devices at once, each at a port of its own.
Attack endlessReply(const std::string& name, const std::string& head, const std::string& bytes, int devices,
                    int traits)
{
    return {name, traits, SHORT_GAP, devices, [head, bytes, devices](Attacker& attacker) {
                attacker.serve("GET /d.xml ", [head, bytes](PlainConnection& connection, const std::string&) {
                    connection.send(head);
                    connection.sendFor(5000, bytes);
                });
                attacker.listenAtPorts(devices);
                for (int i = 0; i < devices; ++i)
                    attacker.sendLocation(Attacker::url("/d.xml", i));
                attacker.waitForAnswer("GET /d.xml ", devices);
            }};
}

// Documents

/// Makes a document where it is sent, so that no other process has it in memory.
using Maker = std::function<std::string()>;

Handler sendsDocument(const Maker& make)
{
    return [make](PlainConnection& connection, const std::string&) { connection.send(Attacker::reply(make())); };
}

/// A device description.
Attack document(const char* name, const Maker& make, int traits = 0)
{
    const int gap = traits & Attack::Oversized ? LONGEST_GAP : LONG_GAP;
    return answered(name, "GET /d.xml ", sendsDocument(make), traits, gap);
}

/// A device description of 4 MB that repeats @p text.
Attack filledDocument(const char* name, const char* text, int traits = 0)
{
    const auto make = [text] { return root(filled(text)); };
    return document(name, make, traits);
}

/// A service description with what @p make makes for its variables.
Attack serviceDocument(const char* name, const Maker& make, int traits)
{
    const auto whole = [make] { return Attacker::serviceDescription(make()); };
    return answered(name, "GET /scpd.xml ", sendsDocument(whole), traits, LONG_GAP);
}

std::string variables(int count)
{
    std::string result;
    for (int i = 0; i < count; ++i)
        result += "<stateVariable><name>V" + std::to_string(i) + "</name></stateVariable>";
    return result;
}

std::string services(const std::string& service, size_t count)
{
    return Attacker::deviceDescription(repeated(service, count));
}

std::string withEntities()
{
    std::string result = "<!DOCTYPE root [<!ENTITY a0 \"" + std::string(4000, 'x') + "\">";
    for (int i = 1; i < 8; ++i) {
        const std::string name = "&a" + std::to_string(i - 1) + ";";
        result += "<!ENTITY a" + std::to_string(i) + " \"" + repeated(name, 10) + "\">";
    }
    return result + "]>" + root(filled("&a7;"));
}

std::string withDefaults()
{
    return "<!DOCTYPE root [" + numbered("<!ATTLIST b a", " CDATA \"x\">", 40 * KB) + "]>" + root(filled("<b/>"));
}

std::string inUtf16(const std::string& text)
{
    std::string result = "\xff\xfe";
    for (const char character : text)
        result.append(1, character).append(1, '\0');
    return result;
}

// Subscriptions

Attack subscription(const char* name, const Handler& handler, int traits = 0)
{
    return answered(name, "SUBSCRIBE ", handler, traits);
}

void replyOneByteAtATime(PlainConnection& connection, const std::string&)
{
    for (const char byte : std::string(SUBSCRIBED)) {
        if (!connection.send(std::string(1, byte)))
            return;
        connection.flush();
    }
}

void replyBeforeTheRequest(Attacker& attacker)
{
    attacker.serve("GET /scpd.xml ", [&attacker](PlainConnection& connection, const std::string&) {
        attacker.greet(SUBSCRIBED);
        connection.send(Attacker::reply(Attacker::serviceDescription("<stateVariable/>")));
    });
    beAskedFor(attacker, "GET /scpd.xml ");
}

void replyWithLines(Attacker& attacker)
{
    attacker.serveDocument("/scpd.xml", Attacker::serviceDescription(variables(50)));
    attacker.serve("SUBSCRIBE ", sends(ok(filled("SID\n", MB))));
    beAskedFor(attacker, "SUBSCRIBE ", 50);
}

void refuseSubscriptions(Attacker& attacker)
{
    attacker.serve("GET /scpd.xml ", [&attacker](PlainConnection& connection, const std::string&) {
        attacker.stopListening();
        connection.send(Attacker::reply(Attacker::serviceDescription(variables(900))));
    });
    beAskedFor(attacker, "GET /scpd.xml ");
}

void neverAnswer(Attacker& attacker)
{
    attacker.serve("SUBSCRIBE ", [](PlainConnection& connection, const std::string&) { connection.waitForEnd(); });
    attacker.sendLocation(Attacker::url("/d.xml"));
    attacker.waitForRequests("SUBSCRIBE ");
}

void describeADeviceAsAService(Attacker& attacker)
{
    attacker.serveDocument("/scpd.xml", Attacker::deviceDescription(Attacker::keyObjectService()));
    attacker.sendLocation(Attacker::url("/d.xml"));
    // Each description makes the library request the next one, until the discovery ends.
    attacker.waitForRequests("GET /scpd.xml ", 1000);
    attacker.seen = "1,000 requests, one after the other";
}

// Events

/// @p handler gets a connection to the event server, and the path of the subscription.
Attack eventConnection(const char* name, const Handler& handler, int traits = 0)
{
    return {name, traits, SHORT_GAP, 1, [handler](Attacker& attacker) {
                const Attacker::Callback callback = attacker.beSubscribedTo();
                const auto connection = Attacker::connectTo(callback);
                handler(*connection, callback.path);
                attacker.waitForDatagrams();
            }};
}

void expectEnd(PlainConnection& connection)
{
    if (!connection.waitForEnd())
        throw std::runtime_error("the host keeps the connection");
}

/// Sends @p bytes, and expects the end of the connection.
Handler endsAfter(const std::string& bytes)
{
    return [bytes](PlainConnection& connection, const std::string&) {
        connection.send(bytes);
        expectEnd(connection);
    };
}

/// Sends the head of an event, and after the gap @p body.
void sendInTwoParts(PlainConnection& connection, const std::string& path, const std::string& length,
                    const std::string& body)
{
    connection.send(Attacker::eventHead(path, length));
    std::this_thread::sleep_for(std::chrono::milliseconds(SHORT_GAP));
    connection.send(body);
}

/// Sends an event as a device does. Returns how long the host takes for its body, in milliseconds.
int sendEvent(const Attacker::Callback& callback, const std::string& body)
{
    const auto connection = Attacker::connectTo(callback);
    sendInTwoParts(*connection, callback.path, std::to_string(body.size()), std::string());
    const Clock::time_point begin = Clock::now();
    connection->send(body);
    expectEnd(*connection);
    return millisecondsSince(begin);
}

void sendLongEvents(Attacker& attacker)
{
    const Attacker::Callback callback = attacker.beSubscribedTo();
    const auto event = [](size_t size) { return Attacker::event("12,34;" + std::string(size, ' ')); };
    const int quarter = sendEvent(callback, event(16 * MB));
    const int whole = sendEvent(callback, event(64 * MB));
    attacker.seen = "16 MB took " + std::to_string(quarter) + " ms, 64 MB " + std::to_string(whole) + " ms";
    // Four times the length is four times the work; its square would be sixteen.
    if (whole > 10 * quarter + 1000)
        throw std::runtime_error("not linear: " + attacker.seen);
}

/// An event whose body comes after its head.
Attack eventBody(const char* name, const Maker& make, int traits = 0)
{
    return {name, traits, LONG_GAP, 1, [make](Attacker& attacker) {
                const std::string body = make();
                sendEvent(attacker.beSubscribedTo(), body);
            }};
}

std::string properties(const std::vector<std::string>& names)
{
    std::string result = "<e:propertyset xmlns:e=\"urn:schemas-upnp-org:event-1-0\">";
    for (const std::string& name : names)
        result.append("<e:property><").append(name).append("/></e:property>");
    return result + "</e:propertyset>";
}

/// Waits until the good device is connected to the event server, as the kernel's table of this network says.
void waitForTheGoodDevice(const Attacker::Callback& callback)
{
    // The port of the other side, and the number of the state "established".
    char established[sizeof ":FFFF 01 "];
    std::snprintf(established, sizeof established, ":%04X 01 ", callback.port);
    const Clock::time_point begin = Clock::now();
    std::string table;
    while (table.find(established) == std::string::npos) {
        if (millisecondsSince(begin) > 10 * 1000)
            throw std::runtime_error("the good device does not connect");
        std::ifstream file("/proc/thread-self/net/tcp");
        table.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }
}

void useUpDescriptors(Attacker& attacker)
{
    const Attacker::Callback callback = attacker.beSubscribedTo();
    // Nobody gets a connection after these.
    waitForTheGoodDevice(callback);
    const size_t count = 1100;
    std::vector<std::unique_ptr<PlainConnection>> connections;
    connections.reserve(count);
    while (connections.size() < count)
        connections.push_back(Attacker::connectTo(callback));
    // The host has accepted all that it could when it ends the last one.
    expectEnd(*connections.back());
}

void connectWithoutAWord(Attacker& attacker)
{
    const int count = 1000;
    const Attacker::Callback callback = attacker.beSubscribedTo();
    // They stay until this process ends.
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
    // A lost SYN is sent again after a second.
    if (milliseconds > 900)
        throw std::runtime_error("a SYN was lost: all took " + std::to_string(milliseconds) + " ms");
    attacker.waitForDatagrams();
    attacker.seen = std::to_string(count) + " connected within " + std::to_string(milliseconds) + " ms";
}

void sendEventBeforeTheReply(PlainConnection& connection, const std::string& request)
{
    const Attacker::Callback callback = Attacker::callbackOf(request);
    const auto early = Attacker::connectTo(callback);
    const std::string text = Attacker::event("1,1");
    sendInTwoParts(*early, callback.path, std::to_string(text.size()), text);
    early->waitForEnd();
    connection.send(SUBSCRIBED);
}

void sendManyProperties(Attacker& attacker)
{
    const std::string services = repeated("<service/>", 100000) + Attacker::keyObjectService();
    attacker.serveDocument("/d.xml", Attacker::deviceDescription(services));
    sendEvent(attacker.beSubscribedTo(), properties(std::vector<std::string>(100000, "A")));
}

void sendPipelinedEvents(PlainConnection& connection, const std::string& path)
{
    const std::string text = Attacker::event("1,1");
    connection.send(repeated(Attacker::eventHead(path, std::to_string(text.size())) + text, 100));
    std::this_thread::sleep_for(std::chrono::milliseconds(SHORT_GAP));
    connection.send(text);
    expectEnd(connection);
}

void locateTheEventServer(Attacker& attacker)
{
    const Attacker::Callback callback = attacker.beSubscribedTo();
    attacker.sendLocation("http://" + callback.address + ":" + std::to_string(callback.port) + "/d.xml");
    attacker.waitForDatagrams();
}

std::vector<Attack> datagramAttacks()
{
    const std::string foreign = "LOCATION: http://10.77.1.2:8000/x";
    return {
        {"No attack", QUICK, SHORT_GAP, 0, [](Attacker&) {}},
        datagram("Datagram of 0 bytes", "", QUICK),
        datagram("Datagram of 1 byte", "L"),
        datagram("Datagram of 65,507 bytes", std::string(65507, 'x'), QUICK),
        datagram("Datagram of 65,507 line feeds", std::string(65507, '\n')),
        datagram("Datagram without an empty line", "NOTIFY * HTTP/1.1\r\n" + foreign),
        datagram("Datagram with zero bytes", std::string(2, '\0') + foreign + "\r\n"),
        datagram("Datagram without a colon", ok("LOCATION http//10.77.1.2/x\r\n\r\n")),
        locations("Location of 60 KB", {Attacker::url("/" + std::string(60 * KB, 'x'))}, QUICK),
        locations("Location that is relative", {"/d.xml", "d.xml", "../d.xml", "//10.77.1.2:8000/d.xml"}),
        locations("Location without a host", {"http:///d.xml", "http://", "http:", ":", "http://:80/"}),
        locations("Location with port 0 or 99999", {"http://10.77.1.2:0/d.xml", "http://10.77.1.2:99999/d.xml"}),
        locations("Location of another scheme",
                  {"file:///etc/hostname", "data:text/xml,<root/>", "ftp://10.77.1.2/x",
                   "https://10.77.1.2:8000/x", "gopher://10.77.1.2/", "qrc:/x",
                   "preconnect-http://10.77.1.2:8000"},
                  QUICK),
        locations("Location that is /dev/zero", {"file:///dev/zero"}),
        locations("Location with an IPv6 address",
                  {"http://[::1]:8000/d.xml", "http://[fe80::1%25host0]:8000/d.xml"}),
        {"Location that is the host's own event server", QUICK, SHORT_GAP, 2, locateTheEventServer},
        manyLocations("10,000 different Locations", MANY, 10000, 100),
        manyLocations("2,000 datagrams in a burst, the host busy for 400 ms", QUICK | Attack::Stalled, 2000, 2000),
    };
}

std::vector<Attack> httpAttacks()
{
    const std::string body = root("");
    const std::string chunk = "\r\n" + body + "\r\n0\r\n\r\n";
    const auto withLength = [&body](const char* name, const std::string& length, int traits = 0) {
        return http(name, sends(ok("Content-Length: " + length + "\r\n\r\n" + body)), traits);
    };
    const auto withHeaders = [&body](const char* name, const std::string& headers, int traits = 0) {
        return http(name, sends(Attacker::reply(body, headers)), traits);
    };
    return {
        locations("HTTP refused", {"http://10.77.1.2:9/d.xml"}),
        http("HTTP silent", sendsFor(500, "", 100), QUICK),
        http("HTTP of 1 byte a second", sendsFor(4000, "H", 1000)),
        http("HTTP reset in the head", resetsAfter(ok()), QUICK),
        http("HTTP reset in the body", resetsAfter(ok("Content-Length: 1000\r\n\r\n" + body))),
        withLength("HTTP Content-Length too small", "10"),
        withLength("HTTP Content-Length too large", "100000"),
        withLength("HTTP Content-Length of 2^63 - 1", "9223372036854775807", QUICK),
        withLength("HTTP Content-Length of 2^64 and more", "99999999999999999999"),
        withLength("HTTP Content-Length negative", "-1"),
        http("HTTP chunk length that is no number", sends(chunked("ZZZ" + chunk)), QUICK),
        http("HTTP chunk length negative", sends(chunked("-5" + chunk))),
        http("HTTP chunk length of 2^63 - 1", sends(chunked("7fffffffffffffff" + chunk))),
        withHeaders("HTTP body in a coding that was not requested", "Content-Encoding: gzip\r\n"),
        withHeaders("HTTP with 101 headers", numbered("X-", ": v\r\n", 905), QUICK),
        withHeaders("HTTP with 1,500 cookies", numbered("Set-Cookie: c", "=v\r\n", 29 * KB), QUICK),
        withHeaders("HTTP with a header of 110 KB", "X-Header: " + std::string(110 * KB, 'x') + "\r\n"),
        http("HTTP redirect to itself",
             sends("HTTP/1.1 302 Found\r\nLocation: /d.xml\r\nContent-Length: 0\r\n\r\n"), QUICK),
    };
}

std::vector<Attack> documentAttacks()
{
    const size_t half = DOCUMENT_SIZE / 2;
    const auto doctype = [](const std::string& declarations) {
        return "<!DOCTYPE root [" + declarations + "]>" + root("");
    };
    return {
        filledDocument("Document of 4 MB, deep", "<a>", QUICK),
        document("Document of 4 MB, deep and well-formed",
                 [] { return root(filled("<a>", half) + filled("</a>", half)); }),
        filledDocument("Document of 4 MB, wide", "<a/>", QUICK),
        document(
            "Document of 16 MB, wide", [] { return root(filled("<a/>", 16 * MB - KB)); },
            MANY | Attack::Oversized),
        document("Document of 4 MB, 128 levels again and again",
                 [] { return root(filled(repeated("<a>", 127) + repeated("</a>", 127))); }),
        document(
            "Document of 4 MB, attributes of one element",
            [] { return root("<a" + numbered(" a", "=\"\"") + "/>"); }, QUICK),
        document("Document of 4 MB, 256 attributes for every element",
                 [] { return root(filled("<a" + numbered(" a", "=\"\"", 1938) + "/>")); }),
        document("Document of 4 MB, name-space declarations",
                 [] { return root("<a" + numbered(" xmlns:a", "=\"u\"") + "/>"); }),
        filledDocument("Document of 4 MB, comments", "<!---->"),
        document("Document of 4 MB, one comment", [] { return root("<!--" + filled("- ") + "-->"); }),
        filledDocument("Document of 4 MB, comments without an end", "<!-- "),
        filledDocument("Document of 4 MB, processing instructions", "<?p?>"),
        document("Document of 4 MB, XML declarations", [] { return filled("<?xml ?>"); }),
        filledDocument("Document of 4 MB, CDATA sections", "<![CDATA[]]>"),
        filledDocument("Document of 4 MB, text", "text "),
        filledDocument("Document of 4 MB, character references", "&#65;"),
        document("Document of 4 MB, entities in entities", withEntities, QUICK),
        document("Document of 4 MB, parameter entities",
                 [doctype] { return doctype("<!ENTITY % a \"x\">" + filled("%a;")); }),
        document("Document of 4 MB, <!ELEMENT a ((((",
                 [doctype] { return doctype("<!ELEMENT a " + filled("(")); }),
        document("Document of 4 MB, <!ATTLIST> defaults", withDefaults),
        document("Document of 4 MB, unclosed", [] { return "<root>" + filled("<a/>"); }),
        document("Document of 4 MB, unclosed attribute", [] { return "<root a=\"" + filled("x"); }),
        document("Document of 4 MB, one name", [] { return "<" + filled("a") + "/>"; }),
        document("Document of 4 MB, less-than signs", [] { return filled("<"); }),
        filledDocument("Document of 4 MB, end tags", "</a>"),
        document("Document of 4 MB in UTF-16 with byte order mark",
                 [] { return inUtf16(root(filled("<a/>", half))); }),
        document("Document of 4 MB, zero bytes", [] { return std::string(DOCUMENT_SIZE, '\0'); }),
        document(
            "100,000 services", [] { return services("<service><SCPDURL>/s</SCPDURL></service>", 100000); }, MANY),
        document(
            "10,000 key-object services", [] { return services(Attacker::keyObjectService(), 10000); },
            MANY | Attack::Unending),
        serviceDocument(
            "100,000 state variables, 1,024 descriptors",
            [] { return numbered("<stateVariable><name>", "</name></stateVariable>"); },
            MANY | Attack::FewDescriptors),
        serviceDocument(
            "Names with line feeds and %1",
            [] { return repeated("<stateVariable><name>%1%2\n%n&#10;%s</name></stateVariable>", 20); }, QUICK),
        document("Service description in place of a device's",
                 [] { return Attacker::serviceDescription("<stateVariable/>"); }),
        {"Device description in place of a service's", Attack::Unending, SHORT_GAP, 1, describeADeviceAsAService},
    };
}

std::vector<Attack> subscriptionAttacks()
{
    return {
        subscription("SUBSCRIBE reply empty", sends(""), QUICK),
        subscription("SUBSCRIBE reply without an end", sendsFor(5000, std::string(65536, 'x'))),
        subscription("SUBSCRIBE reply of one byte at a time", replyOneByteAtATime),
        {"SUBSCRIBE reply before the request", QUICK, SHORT_GAP, 1, replyBeforeTheRequest},
        {"SUBSCRIBE replies of 1 MB of lines without a colon, 50 times", QUICK, SHORT_GAP, 1, replyWithLines},
        {"900 state variables, connections refused, 1,024 descriptors", QUICK | Attack::FewDescriptors, SHORT_GAP,
         1, refuseSubscriptions},
        {"SUBSCRIBE that is never answered", Attack::Unending, SHORT_GAP, 1, neverAnswer},
    };
}

std::vector<Attack> eventAttacks()
{
    return {
        subscription("Event before the SUBSCRIBE reply", sendEventBeforeTheReply, QUICK),
        eventConnection("Event with an unknown identifier",
                        endsAfter(Attacker::eventHead("/6f9619ff-8b86-d011-b42d-00c04fc964ff_%4", "100")), QUICK),
        eventConnection("Event with the null identifier",
                        endsAfter(Attacker::eventHead("/00000000-0000-0000-0000-000000000000_%4", "100"))),
        eventConnection("Event with the identifier in upper case",
                        [](PlainConnection& connection, std::string path) {
                            std::transform(path.begin(), path.end(), path.begin(), ::toupper);
                            sendInTwoParts(connection, path, "5", "<a/>\n");
                            expectEnd(connection);
                        }),
        eventBody(
            "Event of 20,000 names that Qt 5 hashes alike", [] { return properties(namesAlike(20000)); }, QUICK),
        {"Event of 100,000 properties after 100,000 services", MANY, LONG_GAP, 1, sendManyProperties},
        eventConnection(
            "Event head of 1 MB of lines without a colon",
            [](PlainConnection& connection, const std::string& path) {
                connection.send("NOTIFY " + path + " HTTP/1.1\r\n" + filled("CONTENT-LENGTH\n", MB));
                expectEnd(connection);
            },
            QUICK),
        {"1,100 event connections, 1,024 descriptors", QUICK | Attack::FewDescriptors, 2000, 1, useUpDescriptors},
        {"1,000 event connections that stay silent", QUICK, SHORT_GAP, 1, connectWithoutAWord},
        {"Event bodies of 16 and 64 MB", MANY, LONG_GAP, 1, sendLongEvents},
        eventBody("Event body of 4 MB, deep", [] { return filled("<a>"); }),
        eventConnection(
            "Event body length of 2147483647",
            [](PlainConnection& connection, const std::string& path) {
                sendInTwoParts(connection, path, "2147483647", "");
                connection.sendFor(1000, std::string(1024, 'x'), 1);
            },
            QUICK),
        eventConnection(
            "Event body length of -2147483648",
            [](PlainConnection& connection, const std::string& path) {
                connection.sendFor(1000, Attacker::eventHead(path, "-2147483648"), 1);
            },
            QUICK),
        eventConnection("Events pipelined in one connection", sendPipelinedEvents),
        eventConnection(
            "Event reset in the middle",
            [](PlainConnection& connection, const std::string& path) {
                sendInTwoParts(connection, path, "1000", "<e:propertyset>");
                connection.flush();
                connection.reset();
            },
            QUICK),
    };
}

/// What goes on for as long as the host takes it, from one device and from twenty.
std::vector<Attack> endlessReplies()
{
    const std::string headers = repeated("X-Header: value\r\n", 1000);
    const std::string interim = repeated("HTTP/1.1 100 Continue\r\n\r\n", 1000);
    const std::string much(65536, 'x');
    const int prompt = QUICK | Attack::Prompt;
    std::vector<Attack> all;
    const auto add = [&all](const std::string& what, const std::string& head, const std::string& bytes,
                            int traits) {
        all.push_back(endlessReply("HTTP " + what + " without an end", head, bytes, 1, traits));
        all.push_back(endlessReply("HTTP " + what + " without an end, 20 times", head, bytes, 20, traits));
    };
    add("head", ok(), headers, prompt);
    add("header line", ok("X-Header: "), much, prompt);
    add("status line", "HTTP/1.1 200 ", much, prompt);
    add("chunk length", chunked(), std::string(65536, '0'), prompt);
    add("of interim replies", "", interim, prompt);
    add("trailers", chunked("0\r\n"), headers, prompt);
    add("body", ok("\r\n"), much, QUICK);
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

#include <tests/wire/Attacks.h>

#include <tests/support/NamesAlike.h>

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
const int SHORT_GAP = 300;
const int LONG_GAP = 6000;
const int LONGEST_GAP = 15000;
const char OK[] = "HTTP/1.1 200 OK\r\n";

int millisecondsSince(Clock::time_point begin)
{
    return static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count());
}

std::string repeated(const std::string& text, size_t times)
{
    std::string result;
    result.reserve(text.size() * times);
    for (size_t i = 0; i < times; ++i)
        result += text;
    return result;
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
                return std::string();
            }};
}

Attack locations(const char* name, const std::vector<std::string>& all, int traits = 0)
{
    return {name, traits, SHORT_GAP, static_cast<int>(all.size()), [all](Attacker& attacker) {
                for (const std::string& location : all)
                    attacker.sendLocation(location);
                attacker.waitForDatagrams();
                return std::string();
            }};
}

std::string sendLocations(Attacker& attacker, int count, int atOnce)
{
    for (int i = 0; i < count; ++i) {
        attacker.sendLocation(Attacker::url("/many/" + std::to_string(i)));
        if ((i + 1) % atOnce == 0)
            attacker.waitForDatagrams();
    }
    return std::string();
}

// HTTP

/// The description is what @p handler sends.
Attack http(const char* name, const Attacker::Handler& handler, int traits = 0)
{
    return {name, traits, SHORT_GAP, 1, [handler](Attacker& attacker) {
                attacker.serve("GET /d.xml ", handler);
                attacker.sendLocation(Attacker::url("/d.xml"));
                attacker.waitForAnswer("GET /d.xml ");
                return std::string();
            }};
}

Attack httpReply(const char* name, const std::string& bytes, int traits = 0)
{
    return http(
        name, [bytes](PlainConnection& connection, const std::string&) { connection.send(bytes); }, traits);
}

/// A reply begins with @p head and goes on with @p bytes for as long as the host takes them. The same comes
/// from as many devices at once, each at a port of its own.
Attack endlessReply(const char* name, const std::string& head, const std::string& bytes, int devices, int traits)
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
                return std::string();
            }};
}

void addEndlessReplies(std::vector<Attack>& all)
{
    const std::string status = OK;
    const std::string much(65536, 'x');
    const auto add = [&all](const char* name, const char* nameOfMany, const std::string& head,
                            const std::string& bytes, int traits) {
        all.push_back(endlessReply(name, head, bytes, 1, traits));
        all.push_back(endlessReply(nameOfMany, head, bytes, 20, traits));
    };
    const int prompt = Attack::Quick | Attack::Prompt;
    add("HTTP head without an end", "HTTP head without an end, 20 times", status,
        repeated("X-Header: value\r\n", 1000), prompt);
    add("HTTP header line without an end", "HTTP header line without an end, 20 times",
        status + "X-Header: ", much, prompt);
    add("HTTP status line without an end", "HTTP status line without an end, 20 times", "HTTP/1.1 200 ", much,
        prompt);
    add("HTTP chunk length without an end", "HTTP chunk length without an end, 20 times",
        status + "Transfer-Encoding: chunked\r\n\r\n", std::string(65536, '0'), prompt);
    add("HTTP of interim replies without an end", "HTTP of interim replies without an end, 20 times", "",
        repeated("HTTP/1.1 100 Continue\r\n\r\n", 1000), prompt);
    add("HTTP trailers without an end", "HTTP trailers without an end, 20 times",
        status + "Transfer-Encoding: chunked\r\n\r\n0\r\n", repeated("X-Header: value\r\n", 1000), prompt);
    add("HTTP body without an end", "HTTP body without an end, 20 times", status + "\r\n", much, Attack::Quick);
}

// Documents

/// @p make makes the device description, so that only the process that sends it has it in memory.
Attack document(const char* name, const std::function<std::string()>& make, int traits = 0)
{
    return {name, traits, traits & Attack::Oversized ? LONGEST_GAP : LONG_GAP, 1, [make](Attacker& attacker) {
                attacker.serveDocument("/d.xml", make());
                attacker.sendLocation(Attacker::url("/d.xml"));
                attacker.waitForAnswer("GET /d.xml ");
                return std::string();
            }};
}

Attack serviceDocument(const char* name, const std::function<std::string()>& make, int traits = 0)
{
    return {name, traits, LONG_GAP, 1, [make](Attacker& attacker) {
                attacker.serveDocument("/scpd.xml", make());
                attacker.sendLocation(Attacker::url("/d.xml"));
                attacker.waitForAnswer("GET /scpd.xml ");
                return std::string();
            }};
}

std::string variables(int count)
{
    std::string result;
    for (int i = 0; i < count; ++i)
        result += "<stateVariable><name>V" + std::to_string(i) + "</name></stateVariable>";
    return result;
}

std::string withEntities()
{
    std::string result = "<!DOCTYPE root [<!ENTITY a0 \"" + std::string(4000, 'x') + "\">";
    for (int i = 1; i < 8; ++i) {
        result +=
            "<!ENTITY a" + std::to_string(i) + " \"" + repeated("&a" + std::to_string(i - 1) + ";", 10) + "\">";
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
    for (const char character : text) {
        result += character;
        result += '\0';
    }
    return result;
}

// Subscriptions

Attack subscription(const char* name, const Attacker::Handler& handler, int traits = 0)
{
    return {name, traits, SHORT_GAP, 1, [handler](Attacker& attacker) {
                attacker.serve("SUBSCRIBE ", handler);
                attacker.sendLocation(Attacker::url("/d.xml"));
                attacker.waitForAnswer("SUBSCRIBE ");
                return std::string();
            }};
}

// Events

/// What an attack with the path of its own subscription does with a connection to the event server.
using EventHandler = std::function<void(PlainConnection&, const std::string& path)>;

Attack eventConnection(const char* name, const EventHandler& handler, int traits = 0)
{
    return {name, traits, SHORT_GAP, 1, [handler](Attacker& attacker) {
                const Attacker::Callback callback = attacker.beSubscribedTo();
                const auto connection = Attacker::connectTo(callback);
                handler(*connection, callback.path);
                attacker.waitForDatagrams();
                return std::string();
            }};
}

void expectEnd(PlainConnection& connection)
{
    if (!connection.waitForEnd())
        throw std::runtime_error("the host keeps the connection");
}

/// Sends an event as a device does. Returns how long the host takes for its body, in milliseconds.
int sendEvent(const Attacker::Callback& callback, const std::string& body)
{
    const auto connection = Attacker::connectTo(callback);
    connection->send(Attacker::eventHead(callback.path, std::to_string(body.size())));
    std::this_thread::sleep_for(std::chrono::milliseconds(SHORT_GAP));
    const Clock::time_point begin = Clock::now();
    connection->send(body);
    expectEnd(*connection);
    return millisecondsSince(begin);
}

std::string sendLongEvents(Attacker& attacker)
{
    const Attacker::Callback callback = attacker.beSubscribedTo();
    const auto event = [](size_t size) { return Attacker::event("12,34;" + std::string(size, ' ')); };
    const int quarter = sendEvent(callback, event(16 * MB));
    const int whole = sendEvent(callback, event(64 * MB));
    std::string times = "16 MB took " + std::to_string(quarter) + " ms, 64 MB " + std::to_string(whole) + " ms";
    // Four times the length is four times the work; its square would be sixteen.
    if (whole > 10 * quarter + 1000)
        throw std::runtime_error("not linear: " + times);
    return times;
}

Attack eventBody(const char* name, const std::function<std::string()>& make, int traits = 0)
{
    return {name, traits, LONG_GAP, 1, [make](Attacker& attacker) {
                const std::string body = make();
                sendEvent(attacker.beSubscribedTo(), body);
                return std::string();
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

std::string useUpDescriptors(Attacker& attacker)
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
    return std::string();
}

std::string connectWithoutAWord(Attacker& attacker)
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
    return std::to_string(count) + " connected within " + std::to_string(milliseconds) + " ms";
}

std::vector<Attack> makeAttacks()
{
    using Connection = PlainConnection;
    const std::string status = OK;
    const std::string body = root("");
    std::vector<Attack> all = {
        {"No attack", Attack::Quick, SHORT_GAP, 0, [](Attacker&) { return std::string(); }},
        datagram("Datagram of 0 bytes", "", Attack::Quick),
        datagram("Datagram of 1 byte", "L"),
        datagram("Datagram of 65,507 bytes", std::string(65507, 'x'), Attack::Quick),
        datagram("Datagram of 65,507 line feeds", std::string(65507, '\n')),
        datagram("Datagram without an empty line", "NOTIFY * HTTP/1.1\r\nLOCATION: http://10.77.1.2:8000/x"),
        datagram("Datagram with zero bytes", std::string(2, '\0') + "LOCATION: http://10.77.1.2:8000/x\r\n"),
        datagram("Datagram without a colon", "HTTP/1.1 200 OK\r\nLOCATION http//10.77.1.2/x\r\n\r\n"),
        locations("Location of 60 KB", {Attacker::url("/" + std::string(60 * KB, 'x'))}, Attack::Quick),
        locations("Location that is relative", {"/d.xml", "d.xml", "../d.xml", "//10.77.1.2:8000/d.xml"}),
        locations("Location without a host", {"http:///d.xml", "http://", "http:", ":", "http://:80/"}),
        locations("Location with port 0 or 99999", {"http://10.77.1.2:0/d.xml", "http://10.77.1.2:99999/d.xml"}),
        locations("Location of another scheme",
                  {"file:///etc/hostname", "data:text/xml,<root/>", "ftp://10.77.1.2/x", "https://10.77.1.2:8000/x",
                   "gopher://10.77.1.2/", "qrc:/x", "preconnect-http://10.77.1.2:8000"},
                  Attack::Quick),
        locations("Location that is /dev/zero", {"file:///dev/zero"}),
        locations("Location with an IPv6 address", {"http://[::1]:8000/d.xml", "http://[fe80::1%25host0]:8000/d.xml"}),
        {"Location that is the host's own event server", Attack::Quick, SHORT_GAP, 2,
         [](Attacker& attacker) {
             const Attacker::Callback callback = attacker.beSubscribedTo();
             attacker.sendLocation("http://" + callback.address + ":" + std::to_string(callback.port) + "/d.xml");
             attacker.waitForDatagrams();
             return std::string();
         }},
        {"10,000 different Locations", Attack::ManyRecords, LONG_GAP, 10000,
         [](Attacker& attacker) { return sendLocations(attacker, 10000, 100); }},
        {"2,000 datagrams in a burst, the host busy for 400 ms", Attack::Quick | Attack::Stalled, LONG_GAP, 2000,
         [](Attacker& attacker) { return sendLocations(attacker, 2000, 2000); }},

        locations("HTTP refused", {"http://10.77.1.2:9/d.xml"}),
        http(
            "HTTP silent", [](Connection& connection, const std::string&) { connection.sendFor(500, "", 100); },
            Attack::Quick),
        http("HTTP of 1 byte a second",
             [](Connection& connection, const std::string&) { connection.sendFor(4000, "H", 1000); }),
        http(
            "HTTP reset in the head",
            [status](Connection& connection, const std::string&) {
                connection.send(status);
                connection.reset();
            },
            Attack::Quick),
        http("HTTP reset in the body",
             [status, body](Connection& connection, const std::string&) {
                 connection.send(status + "Content-Length: 1000\r\n\r\n" + body);
                 connection.flush();
                 connection.reset();
             }),
        httpReply("HTTP Content-Length too small", status + "Content-Length: 10\r\n\r\n" + body),
        httpReply("HTTP Content-Length too large", status + "Content-Length: 100000\r\n\r\n" + body),
        httpReply("HTTP Content-Length of 2^63 - 1", status + "Content-Length: 9223372036854775807\r\n\r\n" + body,
                  Attack::Quick),
        httpReply("HTTP Content-Length of 2^64 and more", status + "Content-Length: 99999999999999999999\r\n\r\n" + body),
        httpReply("HTTP Content-Length negative", status + "Content-Length: -1\r\n\r\n" + body),
        httpReply("HTTP chunk length that is no number",
                  status + "Transfer-Encoding: chunked\r\n\r\nZZZ\r\n" + body + "\r\n0\r\n\r\n", Attack::Quick),
        httpReply("HTTP chunk length negative",
                  status + "Transfer-Encoding: chunked\r\n\r\n-5\r\n" + body + "\r\n0\r\n\r\n"),
        httpReply("HTTP chunk length of 2^63 - 1",
                  status + "Transfer-Encoding: chunked\r\n\r\n7fffffffffffffff\r\n" + body + "\r\n0\r\n\r\n"),
        httpReply("HTTP body in a coding that was not requested", Attacker::reply(body, "Content-Encoding: gzip\r\n")),
        httpReply("HTTP with 101 headers", Attacker::reply(body, numbered("X-", ": v\r\n", 905)), Attack::Quick),
        httpReply("HTTP with 1,500 cookies", Attacker::reply(body, numbered("Set-Cookie: c", "=v\r\n", 29 * KB)),
                  Attack::Quick),
        httpReply("HTTP with a header of 110 KB",
                  Attacker::reply(body, "X-Header: " + std::string(110 * KB, 'x') + "\r\n")),
        httpReply("HTTP redirect to itself",
                  "HTTP/1.1 302 Found\r\nLocation: /d.xml\r\nContent-Length: 0\r\n\r\n", Attack::Quick),

        document("Document of 4 MB, deep", [] { return root(filled("<a>")); }, Attack::Quick),
        document("Document of 4 MB, deep and well-formed",
                 [] { return root(filled("<a>", DOCUMENT_SIZE / 2) + filled("</a>", DOCUMENT_SIZE / 2)); }),
        document("Document of 4 MB, wide", [] { return root(filled("<a/>")); }, Attack::Quick),
        document("Document of 16 MB, wide", [] { return root(filled("<a/>", 16 * MB - KB)); },
                 Attack::ManyRecords | Attack::Oversized),
        document("Document of 4 MB, 128 levels again and again",
                 [] { return root(filled(repeated("<a>", 127) + repeated("</a>", 127))); }),
        document("Document of 4 MB, attributes of one element",
                 [] { return root("<a" + numbered(" a", "=\"\"") + "/>"); }, Attack::Quick),
        document("Document of 4 MB, 256 attributes for every element",
                 [] { return root(filled("<a" + numbered(" a", "=\"\"", 1938) + "/>")); }),
        document("Document of 4 MB, name-space declarations",
                 [] { return root("<a" + numbered(" xmlns:a", "=\"u\"") + "/>"); }),
        document("Document of 4 MB, comments", [] { return root(filled("<!---->")); }),
        document("Document of 4 MB, one comment", [] { return root("<!--" + filled("- ") + "-->"); }),
        document("Document of 4 MB, comments without an end", [] { return root(filled("<!-- ")); }),
        document("Document of 4 MB, processing instructions", [] { return root(filled("<?p?>")); }),
        document("Document of 4 MB, XML declarations", [] { return filled("<?xml ?>"); }),
        document("Document of 4 MB, CDATA sections", [] { return root(filled("<![CDATA[]]>")); }),
        document("Document of 4 MB, text", [] { return root(filled("text ")); }),
        document("Document of 4 MB, character references", [] { return root(filled("&#65;")); }),
        document("Document of 4 MB, entities in entities", withEntities, Attack::Quick),
        document("Document of 4 MB, parameter entities",
                 [] { return "<!DOCTYPE root [<!ENTITY % a \"x\">" + filled("%a;") + "]>" + root(""); }),
        document("Document of 4 MB, <!ELEMENT a ((((",
                 [] { return "<!DOCTYPE root [<!ELEMENT a " + filled("(") + "]>" + root(""); }),
        document("Document of 4 MB, <!ATTLIST> defaults", withDefaults),
        document("Document of 4 MB, unclosed", [] { return "<root>" + filled("<a/>"); }),
        document("Document of 4 MB, unclosed attribute", [] { return "<root a=\"" + filled("x"); }),
        document("Document of 4 MB, one name", [] { return "<" + filled("a") + "/>"; }),
        document("Document of 4 MB, less-than signs", [] { return filled("<"); }),
        document("Document of 4 MB, end tags", [] { return root(filled("</a>")); }),
        document("Document of 4 MB in UTF-16 with byte order mark", [] { return inUtf16(root(filled("<a/>", DOCUMENT_SIZE / 2))); }),
        document("Document of 4 MB, zero bytes", [] { return std::string(DOCUMENT_SIZE, '\0'); }),
        document("100,000 services",
                 [] { return Attacker::deviceDescription(repeated("<service><SCPDURL>/s</SCPDURL></service>", 100000)); },
                 Attack::ManyRecords),
        document("10,000 key-object services",
                 [] { return Attacker::deviceDescription(repeated(Attacker::keyObjectService(), 10000)); },
                 Attack::ManyRecords | Attack::Unending),
        serviceDocument("100,000 state variables, 1,024 descriptors",
                        [] { return Attacker::serviceDescription(numbered("<stateVariable><name>", "</name></stateVariable>")); },
                        Attack::ManyRecords | Attack::FewDescriptors),
        serviceDocument("Names with line feeds and %1",
                        [] {
                            return Attacker::serviceDescription(repeated("<stateVariable><name>%1%2\n%n&#10;%s</name></stateVariable>", 20));
                        },
                        Attack::Quick),
        document("Service description in place of a device's", [] { return Attacker::serviceDescription("<stateVariable/>"); }),
        {"Device description in place of a service's", Attack::Unending, SHORT_GAP, 1,
         [](Attacker& attacker) {
             attacker.serveDocument("/scpd.xml", Attacker::deviceDescription(Attacker::keyObjectService()));
             attacker.sendLocation(Attacker::url("/d.xml"));
             // Each asks for the next one, for as long as the discovery lasts.
             attacker.waitForRequests("GET /scpd.xml ", 1000);
             return std::string("1,000 requests, one after the other");
         }},

        subscription("SUBSCRIBE reply empty", [](Connection&, const std::string&) {}, Attack::Quick),
        subscription("SUBSCRIBE reply without an end",
                     [](Connection& connection, const std::string&) { connection.sendFor(5000, std::string(65536, 'x')); }),
        subscription("SUBSCRIBE reply of one byte at a time",
                     [status](Connection& connection, const std::string&) {
                         for (const char byte : status + "SID: uuid:2fac1234-31f8-11b4-a222-08002b34c003\r\n\r\n") {
                             if (!connection.send(std::string(1, byte)))
                                 return;
                             connection.flush();
                         }
                     }),
        {"SUBSCRIBE reply before the request", Attack::Quick, SHORT_GAP, 1,
         [](Attacker& attacker) {
             attacker.serve("GET /scpd.xml ", [&attacker](Connection& connection, const std::string&) {
                 attacker.greet("HTTP/1.1 200 OK\r\nSID: uuid:2fac1234-31f8-11b4-a222-08002b34c003\r\n\r\n");
                 connection.send(Attacker::reply(Attacker::serviceDescription("<stateVariable/>")));
             });
             attacker.sendLocation(Attacker::url("/d.xml"));
             attacker.waitForAnswer("GET /scpd.xml ");
             return std::string();
         }},
        {"SUBSCRIBE replies of 1 MB of lines without a colon, 50 times", Attack::Quick, SHORT_GAP, 1,
         [status](Attacker& attacker) {
             const std::string lines = filled("SID\n", MB);
             attacker.serveDocument("/scpd.xml", Attacker::serviceDescription(variables(50)));
             attacker.serve("SUBSCRIBE ", [status, lines](Connection& connection, const std::string&) {
                 connection.send(status + lines);
             });
             attacker.sendLocation(Attacker::url("/d.xml"));
             attacker.waitForAnswer("SUBSCRIBE ", 50);
             return std::string();
         }},
        {"900 state variables, connections refused, 1,024 descriptors", Attack::Quick | Attack::FewDescriptors,
         SHORT_GAP, 1,
         [](Attacker& attacker) {
             attacker.serve("GET /scpd.xml ", [&attacker](Connection& connection, const std::string&) {
                 attacker.stopListening();
                 connection.send(Attacker::reply(Attacker::serviceDescription(variables(900))));
             });
             attacker.sendLocation(Attacker::url("/d.xml"));
             attacker.waitForAnswer("GET /scpd.xml ");
             return std::string();
         }},
        {"SUBSCRIBE that is never answered", Attack::Unending, SHORT_GAP, 1,
         [](Attacker& attacker) {
             attacker.serve("SUBSCRIBE ", [](Connection& connection, const std::string&) { connection.waitForEnd(); });
             attacker.sendLocation(Attacker::url("/d.xml"));
             attacker.waitForRequests("SUBSCRIBE ");
             return std::string();
         }},

        {"Event before the SUBSCRIBE reply", Attack::Quick, SHORT_GAP, 1,
         [](Attacker& attacker) {
             attacker.serve("SUBSCRIBE ", [](Connection& connection, const std::string& request) {
                 const Attacker::Callback callback = Attacker::callbackOf(request);
                 const auto early = Attacker::connectTo(callback);
                 const std::string text = Attacker::event("1,1");
                 early->send(Attacker::eventHead(callback.path, std::to_string(text.size())));
                 std::this_thread::sleep_for(std::chrono::milliseconds(SHORT_GAP));
                 early->send(text);
                 early->waitForEnd();
                 connection.send("HTTP/1.1 200 OK\r\nSID: uuid:2fac1234-31f8-11b4-a222-08002b34c003\r\n\r\n");
             });
             attacker.sendLocation(Attacker::url("/d.xml"));
             attacker.waitForAnswer("SUBSCRIBE ");
             return std::string();
         }},
        eventConnection("Event with an unknown identifier",
                        [](Connection& connection, const std::string&) {
                            connection.send(Attacker::eventHead("/6f9619ff-8b86-d011-b42d-00c04fc964ff_%4", "100"));
                            expectEnd(connection);
                        },
                        Attack::Quick),
        eventConnection("Event with the null identifier",
                        [](Connection& connection, const std::string&) {
                            connection.send(Attacker::eventHead("/00000000-0000-0000-0000-000000000000_%4", "100"));
                            expectEnd(connection);
                        }),
        eventConnection("Event with the identifier in upper case",
                        [](Connection& connection, const std::string& path) {
                            std::string upper = path;
                            std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
                            connection.send(Attacker::eventHead(upper, "5"));
                            std::this_thread::sleep_for(std::chrono::milliseconds(SHORT_GAP));
                            connection.send("<a/>\n");
                            expectEnd(connection);
                        }),
        eventBody("Event of 20,000 names that Qt 5 hashes alike", [] { return properties(namesAlike(20000)); },
                  Attack::Quick),
        {"Event of 100,000 properties after 100,000 services", Attack::ManyRecords, LONG_GAP, 1,
         [](Attacker& attacker) {
             attacker.serveDocument("/d.xml", Attacker::deviceDescription(repeated("<service/>", 100000) + Attacker::keyObjectService()));
             sendEvent(attacker.beSubscribedTo(), properties(std::vector<std::string>(100000, "A")));
             return std::string();
         }},
        eventConnection("Event head of 1 MB of lines without a colon",
                        [](Connection& connection, const std::string& path) {
                            connection.send("NOTIFY " + path + " HTTP/1.1\r\n" + filled("CONTENT-LENGTH\n", MB));
                            expectEnd(connection);
                        },
                        Attack::Quick),
        {"1,100 event connections, 1,024 descriptors", Attack::Quick | Attack::FewDescriptors, 2000, 1, useUpDescriptors},
        {"1,000 event connections that stay silent", Attack::Quick, SHORT_GAP, 1, connectWithoutAWord},
        {"Event bodies of 16 and 64 MB", Attack::ManyRecords, LONG_GAP, 1, sendLongEvents},
        eventBody("Event body of 4 MB, deep", [] { return filled("<a>"); }),
        eventConnection("Event body length of 2147483647",
                        [](Connection& connection, const std::string& path) {
                            connection.send(Attacker::eventHead(path, "2147483647"));
                            std::this_thread::sleep_for(std::chrono::milliseconds(SHORT_GAP));
                            connection.sendFor(1000, std::string(1024, 'x'), 1);
                        },
                        Attack::Quick),
        eventConnection("Event body length of -2147483648",
                        [](Connection& connection, const std::string& path) {
                            connection.sendFor(1000, Attacker::eventHead(path, "-2147483648"), 1);
                        },
                        Attack::Quick),
        eventConnection("Events pipelined in one connection",
                        [](Connection& connection, const std::string& path) {
                            const std::string text = Attacker::event("1,1");
                            connection.send(repeated(Attacker::eventHead(path, std::to_string(text.size())) + text, 100));
                            std::this_thread::sleep_for(std::chrono::milliseconds(SHORT_GAP));
                            connection.send(text);
                            expectEnd(connection);
                        }),
        eventConnection("Event reset in the middle",
                        [](Connection& connection, const std::string& path) {
                            connection.send(Attacker::eventHead(path, "1000"));
                            std::this_thread::sleep_for(std::chrono::milliseconds(SHORT_GAP));
                            connection.send("<e:propertyset>");
                            connection.flush();
                            connection.reset();
                        },
                        Attack::Quick),
    };
    addEndlessReplies(all);
    return all;
}

} // namespace

const std::vector<Attack>& attacks()
{
    static const std::vector<Attack> all = makeAttacks();
    return all;
}

} // namespace Tests
} // namespace Velmora

#include <ssdp/Ssdp.h>
#include <ssdp/SsdpManager.h>
#include <tests/support/Literals.h>
#include <tests/support/ManagerAccess.h>
#include <tests/support/Table.h>

#include <cstring>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

using namespace Velmora::Tests;
using namespace Velmora::SSDP;

/// What uname() returns.
struct FakedSystem
{
    int result;
    const char* name;
    const char* release;
};
static const FakedSystem* faked = nullptr; ///< If it is null, uname() returns what the kernel says.

// The library also calls this function, and not that of the C library.
extern "C" Q_DECL_EXPORT int uname(utsname* system) noexcept
{
    if (!faked)
        return static_cast<int>(syscall(SYS_uname, system));
    std::memset(system, 'x', sizeof *system);
    qstrncpy(system->sysname, faked->name, sizeof system->sysname);
    qstrncpy(system->release, faked->release, sizeof system->release);
    return faked->result;
}

/// The texts of search, subscription and event.
class TextTest : public QObject
{
    Q_OBJECT

    SsdpManager manager{QHostAddress(QHostAddress::LocalHost)};

    SsdpService* addService(const QByteArray& location, const QByteArray& eventSubUrl)
    {
        SsdpService* const service = new SsdpService;
        service->id = QUuid("{6F9619FF-8B86-D011-B42D-00C04FC964FF}");
        service->eventSubUrl = QString::fromLatin1(eventSubUrl);
        ManagerAccess(manager).addRecord({service}, QString::fromLatin1(location));
        return service;
    }

private Q_SLOTS:
    void cleanup()
    {
        manager.clearDevices();
        faked = nullptr;
    }

    void constantsHaveTheirValues()
    {
        QCOMPARE(Ssdp::KO, "KO"_s);
        QCOMPARE(SsdpManager::MULTICAST_GROUP_ADDRESS.toString(), "239.255.255.250"_s);
        QCOMPARE(SsdpManager::MULTICAST_GROUP_ADDRESS.protocol(), QAbstractSocket::IPv4Protocol);
        QCOMPARE(SsdpManager::DEVICE_FILTER, "urn:schemas-upnp-org:device"_s);
        QCOMPARE(SsdpManager::SERVICE_FILTER, "urn:schemas-upnp-org:service"_s);
        QCOMPARE(SsdpManager::VELMORA_DEVICE_FILTER, "urn:schemas-velmora-it:device:"_s);
        QCOMPARE(SsdpManager::VELMORA_SERVICE_FILTER, "urn:schemas-velmora-it:service:keyobjects:1"_s);
    }

    void searchIsSevenLinesEndedByLineFeeds()
    {
        const FakedSystem system = {0, "Linux", "6.1.0"};
        faked = &system;
        QCOMPARE(manager.createSearchMessage().toLatin1(),
                 "M-SEARCH * HTTP/1.1\n"
                 "HOST: 239.255.255.250:1900\n"
                 "MAN: \"ssdp:discover\"\n"
                 "MX: 3\n"
                 "ST: upnp:rootdevice\n"
                 "USER-AGENT: Linux/6.1.0 UPnP/1.1 SSDP/1.0\n"
                 "\n"_ba);
    }

    void systemIsItsNameAndRelease_data()
    {
        const Table<int, QByteArray, QByteArray, QString> row("result", "name", "release", "text");
        row("joined by a slash", 0, "Linux", "6.1.0", "Linux/6.1.0");
        row("an empty name", 0, "", "6", "/6");
        row("an empty release", 0, "Linux", "", "Linux/");
        row("a placeholder in the name", 0, "%2", "6", "%2/6");
        row("a placeholder in the release", 0, "Linux", "%1", "Linux/%1");
        row("Latin-1", 0, "\xdcnix", "6", "\xdcnix/6"_s);
        row("no uname", -1, "Linux", "6", "Undefined/-1");
        row("any other result", 1, "Linux", "6", "Undefined/-1");
    }

    void systemIsItsNameAndRelease()
    {
        QFETCH(const int, result);
        QFETCH(const QByteArray, name);
        QFETCH(const QByteArray, release);
        QFETCH(const QString, text);
        const QString before = manager.createSearchMessage();
        const FakedSystem system = {result, name.constData(), release.constData()};
        faked = &system;
        QCOMPARE(SsdpManager::getSystemInfo(), text);
        // The search is written again each time.
        QVERIFY(manager.createSearchMessage() != before);
        QVERIFY(manager.createSearchMessage().contains("\nUSER-AGENT: "_s + text + " UPnP/1.1 SSDP/1.0\n"));
    }

    void systemIsTheKernels()
    {
        utsname kernel;
        QCOMPARE(uname(&kernel), 0);
        QCOMPARE(SsdpManager::getSystemInfo().toLatin1(),
                 QByteArray(kernel.sysname) + "/" + QByteArray(kernel.release));
    }

    void headerIsTheFirstLineThatBeginsWithIt_data()
    {
        const Table<QString, QString, QString> row("message", "header", "value");
        const auto add = [&](const char* name, const QString& message, const QString& value) {
            row(name, message, "Location", value);
        };
        const QString none;
        add("carriage return and line feed", "LOCATION: http://10.0.0.5:49152/desc.xml\r\n",
            "http://10.0.0.5:49152/desc.xml");
        add("line feed alone", "Location: http://a/b\n", "http://a/b");
        add("no line end", "Location: http://a/b", "http://a/b");
        add("no space after the colon", "Location:http://a/b", "http://a/b");
        add("spaces before the colon", "Location  : x", "x");
        add("white space around the value", "Location: \t x y \t\v\f\r\n", "x y");
        add("lower case", "location: x", "x");
        add("after other lines", "HTTP/1.1 200 OK\r\nST: a\r\nLocation: x\r\n\r\n", "x");
        add("the first of two", "Location: x\nLocation: y\n", "x");
        add("the first is empty", "Location:\nLocation: y\n", "");
        add("the first has no colon", "Location\nLocation: y\n", "y");
        add("no colon, but one in the next line", "Location\nST: y\n", none);
        add("a longer name", "LOCATIONX: x", "x");
        add("a longer name with a hyphen", "location-extra: x", "x");
        add("a longer name before the right one", "LocationX: x\nLocation: y\n", "x");
        add("a shorter name", "Locatio: x", none);
        add("the name after a space", " Location: x", none);
        add("the name inside a line", "X-Location: x", none);
        add("lines ended by carriage returns alone", "ST: a\rLocation: x\r", none);
        add("after the empty line", "ST: a\r\n\r\nLocation: x", "x");
        add("the first colon of the line", "Locationa:b:c", "b:c");
        add("another header", "ST: x\r\n", none);
        add("an empty message", none, none);
        add("a message of line feeds", "\n\n\n", none);
        add("an empty value", "Location:", "");
        add("a value of spaces", "Location: \r\n", "");
        row("lower case requested", "LOCATION: x", "location", "x");
        row("a colon requested", "Location: x", "Location:", "x");
        row("the whole line requested", "a:b", "a:b", "b");
        row("any header", "GET\na: x\n", none, "x");
        row("any header, colon first", ":a: x\n", none, none);
        row("any header, second line", ":a: x\nb: y", none, "y");
        row("any header, empty message", none, none, none);
    }

    void headerIsTheFirstLineThatBeginsWithIt()
    {
        QFETCH(const QString, message);
        QFETCH(const QString, header);
        QFETCH(const QString, value);
        const QString found = manager.getHeaderValue(message, header);
        QCOMPARE(found, value);
        QCOMPARE(found.isNull(), value.isNull());
    }

    void hostIsTheNameAndOneCharacterForThePort_data()
    {
        const Table<QString, QString> row("url", "host");
        const auto add = [&](const char* url, const QString& host) {
            row(*url == '\0' ? "no URL" : url, url, host);
        };
        add("http://h/", "h:P");
        add("http://10.0.0.5:80/d.xml", "10.0.0.5:P");
        add("http://10.0.0.5:8080/d.xml", "10.0.0.5:\x90"_s);
        add("http://10.0.0.5:49152/d.xml", "10.0.0.5:\0"_s);
        add("http://10.0.0.5:49153/d.xml", "10.0.0.5:\x01");
        add("http://10.0.0.5:1900/d.xml", "10.0.0.5:l");
        add("http://10.0.0.5:65535/d.xml", "10.0.0.5:\xff"_s);
        add("http://h:255", "h:\xff"_s);
        add("http://h:256", "h:\0"_s);
        add("http://h:10/", "h:\n");
        add("https://h/", "h:P");
        add("http://[fe80::1]:81/", "fe80::1:Q");
        add("desc.xml", ":P");
        add("", ":P");
    }

    void hostIsTheNameAndOneCharacterForThePort()
    {
        QFETCH(const QString, url);
        QFETCH(const QString, host);
        QCOMPARE(manager.getHost(url), host);
    }

    void fullLocationIsThePathOnTheServer_data()
    {
        const Table<QString, QString, QString, QString> row("server", "location", "path", "subLocation");
        const QString server = "http://10.0.0.5:49152";
        const auto path = [&](const char* name, const QString& text, const QString& subLocation) {
            row(name, server, server + "/a/b.xml", text, subLocation);
        };
        path("path with a slash", "/event", "/event");
        path("path without", "event", "/event");
        path("deeper path", "a/b", "/a/b");
        path("path with two slashes", "//a", "//a");
        path("path that is a slash", "/", "/");
        path("path with a space before the slash", " /a", "/ /a");
        path("path with a backslash", "\\a", "/\\a");
        path("path that is a URL", "http://h/a", "/http://h/a");
        path("path with a query", "a?b=c", "/a?b=c");
        path("no path", QString(), "/");
        const auto location = [&](const char* name, const QString& text, const QString& expected) {
            row(name, expected, text, "x", "/x");
        };
        location("location with a query", "http://h:1/a?b/c", "http://h:1");
        location("location without a path", "http://h:1", "http://h:1");
        location("location without a scheme", "h:1", "h:1");
        location("location without a scheme, with a path", "h:1/a/b", "h:1");
        location("location that is a path", "/a/b", "");
        location("https", "https://h/a", "https:");
        location("upper case", "HTTP://h/a", "HTTP:");
        location("location after a space", " http://h/a", " http:");
        location("location that is a scheme", "http://", "http://");
        location("location without a host", "http:///a", "http://");
        location("no location", QString(), "");
    }

    void fullLocationIsThePathOnTheServer()
    {
        QFETCH(const QString, server);
        QFETCH(const QString, location);
        QFETCH(const QString, path);
        QFETCH(const QString, subLocation);
        QCOMPARE(manager.getSubLocation(path), subLocation);
        QCOMPARE(manager.getFullLocation(location, path), server + subLocation);
    }

    void subscriptionIsSevenLinesEndedByLineFeeds_data()
    {
        const Table<QByteArray, QByteArray, QByteArray, QByteArray> row("location", "eventSubUrl", "path", "host");
        row("no path", "http://192.168.1.20/d", "", "/", "192.168.1.20:P");
        row("no slash", "http://192.168.1.20/d", "a/b?x=1", "/a/b?x=1", "192.168.1.20:P");
        row("placeholders", "http://192.168.1.20/d", "/%1%2%3", "/%1%2%3", "192.168.1.20:P");
        row("a space", "http://192.168.1.20:80/d", "/a b", "/a b", "192.168.1.20:P");
        row("Latin-1", "http://192.168.1.20:8080/d", "/\xe9", "/\xe9", "192.168.1.20:\x90");
        row("port 49152", "http://192.168.1.20:49152/d", "/event", "/event", "192.168.1.20:\0"_ba);
        row("port 65535", "http://192.168.1.20:65535/d", "/event", "/event", "192.168.1.20:\xff");
    }

    void subscriptionIsSevenLinesEndedByLineFeeds()
    {
        QFETCH(const QByteArray, location);
        QFETCH(const QByteArray, eventSubUrl);
        QFETCH(const QByteArray, path);
        QFETCH(const QByteArray, host);
        addService("http://192.168.1.30:99/d", "/other");
        // The event server does not listen, so it has no address.
        QCOMPARE(manager.createSubscribeMessage(addService(location, eventSubUrl)).toLatin1(),
                 "SUBSCRIBE " + path + " HTTP/1.1\nHOST: " + host
                     + "\nUSER-AGENT: " + SsdpManager::getSystemInfo().toLatin1()
                     + " UPnP/1.1 SSDP/1.0\nCALLBACK: <http://:0/6f9619ff-8b86-d011-b42d-00c04fc964ff_%4>\n"
                       "NT: upnp:event\nTIMEOUT: Second-120\n\n");
    }

    void serviceWithoutADeviceHasAnEmptySubscription()
    {
        SsdpService other;
        QCOMPARE(manager.createSubscribeMessage(&other), QString());
        QCOMPARE(manager.createSubscribeMessage(nullptr), QString());
    }

    void requestLineNamesTheService_data()
    {
        const Table<QByteArray, bool> row("line", "isFound");
        row("as subscribed", "NOTIFY /ID_%4 HTTP/1.1", true);
        row("no tail", "NOTIFY /ID HTTP/1.1", true);
        row("another tail", "NOTIFY /ID-1234/a?b#c HTTP/1.1", true);
        row("no protocol", "NOTIFY /ID_%4", true);
        row("another method", "GET /ID_%4 HTTP/0.9", true);
        row("no method", " /ID_%4", true);
        row("no slash", "NOTIFY ID_%4 HTTP/1.1", true);
        row("many slashes", "NOTIFY //ID/_%4/ HTTP/1.1", true);
        row("slashes inside", "NOTIFY /6f9619ff-/8b86-d011-b42d-00c04fc964ff_%4 HTTP/1.1", true);
        row("upper case", "NOTIFY /6F9619FF-8B86-D011-B42D-00C04FC964FF_%4 HTTP/1.1", true);
        row("braces", "NOTIFY /{ID} HTTP/1.1", true);
        row("no identifier", "NOTIFY /event HTTP/1.1", false);
        row("null identifier", "NOTIFY /00000000-0000-0000-0000-000000000000_%4 HTTP/1.1", false);
        row("another identifier", "NOTIFY /00000000-0000-0000-0000-000000000001_%4 HTTP/1.1", false);
        row("uuid: before it", "NOTIFY /uuid:ID_%4 HTTP/1.1", false);
        row("35 characters of it", "NOTIFY /6f9619ff-8b86-d011-b42d-00c04fc964f HTTP/1.1", false);
        row("two spaces", "NOTIFY  /ID_%4 HTTP/1.1", false);
        row("tabs", "NOTIFY\t/ID_%4\tHTTP/1.1", false);
        row("one word", "/ID_%4", false);
        row("in the second line", "\r\nNOTIFY /ID_%4 HTTP/1.1", false);
    }

    void requestLineNamesTheService()
    {
        QFETCH(QByteArray, line);
        QFETCH(const bool, isFound);
        SsdpService* const service = addService("http://192.168.1.20/d", "/event");
        line.replace("ID", "6f9619ff-8b86-d011-b42d-00c04fc964ff");
        QCOMPARE(ManagerAccess(manager).getServiceFromHeader(line + "\r\nHOST: 10.77.0.1\r\n\r\n"),
                 isFound ? service : nullptr);
    }
};

QTEST_GUILESS_MAIN(TextTest)
#include "tst_text.moc"

#include <ssdp/Ssdp.h>
#include <ssdp/SsdpManager.h>
#include <tests/support/Literals.h>

#include <QtTest/QtTest>

#include <cstring>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

using namespace Velmora;
using namespace Velmora::Tests;
using namespace Velmora::SSDP;

namespace {

/// What uname() answers; the kernel's own answer while null.
struct FakedSystem
{
    int result;
    const char* name;
    const char* release;
};
const FakedSystem* fakedSystem = nullptr;

class Faked
{
public:
    explicit Faked(const FakedSystem& answer)
        : system(answer)
    {
        fakedSystem = &system;
    }
    ~Faked() { fakedSystem = nullptr; }
    Q_DISABLE_COPY(Faked)

private:
    const FakedSystem system;
};

} // namespace

// Stands before the C library's for the library under test too.
extern "C" Q_DECL_EXPORT int uname(utsname* system) noexcept
{
    if (!fakedSystem)
        return static_cast<int>(syscall(SYS_uname, system));
    std::memset(system, 'x', sizeof *system);
    qstrncpy(system->sysname, fakedSystem->name, sizeof system->sysname);
    qstrncpy(system->release, fakedSystem->release, sizeof system->release);
    return fakedSystem->result;
}

class TextTest : public QObject
{
    Q_OBJECT

public:
    TextTest()
        : manager(QHostAddress(QHostAddress::LocalHost))
    {
    }

private:
    SsdpManager manager;

private Q_SLOTS:
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
        const Faked faked({0, "Linux", "6.1.0"});
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
        QTest::addColumn<int>("result");
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<QByteArray>("release");
        QTest::addColumn<QString>("text");
        const auto add = [](const char* row, int result, const QByteArray& name, const QByteArray& release,
                            const QString& text) { QTest::newRow(row) << result << name << release << text; };
        add("joined by a slash", 0, "Linux", "6.1.0", "Linux/6.1.0");
        add("an empty name", 0, "", "6", "/6");
        add("an empty release", 0, "Linux", "", "Linux/");
        add("a placeholder in the name", 0, "%2", "6", "%2/6");
        add("a placeholder in the release", 0, "Linux", "%1", "Linux/%1");
        add("Latin-1", 0, "\xdcnix", "6", "\xdcnix/6"_s);
        add("no uname", -1, "Linux", "6", "Undefined/-1");
        add("any other result", 1, "Linux", "6", "Undefined/-1");
    }

    void systemIsItsNameAndRelease()
    {
        QFETCH(const int, result);
        QFETCH(const QByteArray, name);
        QFETCH(const QByteArray, release);
        QFETCH(const QString, text);
        const QString before = manager.createSearchMessage();
        const Faked faked({result, name.constData(), release.constData()});
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
        QTest::addColumn<QString>("message");
        QTest::addColumn<QString>("header");
        QTest::addColumn<QString>("value");
        const auto any = [](const char* name, const QString& message, const QString& header,
                            const QString& value) { QTest::newRow(name) << message << header << value; };
        const auto add = [&](const char* name, const QString& message, const QString& value) {
            any(name, message, "Location", value);
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
        any("lower case requested", "LOCATION: x", "location", "x");
        any("a colon requested", "Location: x", "Location:", "x");
        any("the whole line requested", "a:b", "a:b", "b");
        any("any header", "GET\na: x\n", none, "x");
        any("any header, colon first", ":a: x\n", none, none);
        any("any header, second line", ":a: x\nb: y", none, "y");
        any("any header, empty message", none, none, none);
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
        QTest::addColumn<QString>("url");
        QTest::addColumn<QString>("host");
        const auto add = [](const QString& url, const QString& host) {
            QTest::newRow(url.isEmpty() ? "nothing" : qPrintable(url)) << url << host;
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
        QTest::addColumn<QString>("server");
        QTest::addColumn<QString>("location");
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("subLocation");
        const auto path = [](const char* name, const QString& text, const QString& subLocation) {
            QTest::newRow(name) << "http://10.0.0.5:49152"
                                << "http://10.0.0.5:49152/a/b.xml" << text << subLocation;
        };
        path("path with a slash", "/event", "/event");
        path("path without", "event", "/event");
        path("deeper path", "a/b", "/a/b");
        path("path with two slashes", "//a", "//a");
        path("path that is a slash", "/", "/");
        path("path with a space before the slash", " /a", "/ /a");
        path("path with a backslash", "\\a", "/\\a");
        path("path that is a URL", "http://h/a", "/http://h/a");
        path("no path", QString(), "/");
        const auto location = [](const char* name, const QString& text, const QString& server) {
            QTest::newRow(name) << server << text << "x"
                                << "/x";
        };
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
};

QTEST_GUILESS_MAIN(TextTest)
#include "tst_text.moc"

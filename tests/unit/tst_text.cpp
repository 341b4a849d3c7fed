#include <ssdp/Ssdp.h>
#include <ssdp/SsdpManager.h>

#include <QtTest/QtTest>

#include <cstring>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

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
    explicit Faked(const FakedSystem& system) { fakedSystem = &system; }
    ~Faked() { fakedSystem = nullptr; }
    Q_DISABLE_COPY(Faked)
};

const FakedSystem LINUX = {0, "Linux", "6.1.0"};

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

namespace Velmora {
namespace Tests {

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
    void theConstantsHaveTheirValues_data()
    {
        QTest::addColumn<QString>("constant");
        QTest::addColumn<QString>("value");
        QTest::newRow("the key object's name") << Ssdp::KO << QStringLiteral("KO");
        QTest::newRow("the group") << SsdpManager::MULTICAST_GROUP_ADDRESS.toString()
                                   << QStringLiteral("239.255.255.250");
        QTest::newRow("the device namespace")
            << SsdpManager::DEVICE_FILTER << QStringLiteral("urn:schemas-upnp-org:device");
        QTest::newRow("the service namespace")
            << SsdpManager::SERVICE_FILTER << QStringLiteral("urn:schemas-upnp-org:service");
        QTest::newRow("the maker's device types")
            << SsdpManager::VELMORA_DEVICE_FILTER << QStringLiteral("urn:schemas-velmora-it:device:");
        QTest::newRow("the maker's service type") << SsdpManager::VELMORA_SERVICE_FILTER
                                                  << QStringLiteral("urn:schemas-velmora-it:service:keyobjects:1");
    }

    void theConstantsHaveTheirValues()
    {
        QFETCH(const QString, constant);
        QFETCH(const QString, value);
        QCOMPARE(constant, value);
    }

    void theGroupIsAnIPv4Address()
    {
        QCOMPARE(SsdpManager::MULTICAST_GROUP_ADDRESS.protocol(), QAbstractSocket::IPv4Protocol);
    }

    void theSearchIsSevenLinesEndedByLineFeeds()
    {
        const Faked faked(LINUX);
        QCOMPARE(manager.createSearchMessage().toLatin1(),
                 QByteArray("M-SEARCH * HTTP/1.1\n"
                            "HOST: 239.255.255.250:1900\n"
                            "MAN: \"ssdp:discover\"\n"
                            "MX: 3\n"
                            "ST: upnp:rootdevice\n"
                            "USER-AGENT: Linux/6.1.0 UPnP/1.1 SSDP/1.0\n"
                            "\n"));
    }

    void theSearchHasAnUndefinedUserAgentWithoutUname()
    {
        const FakedSystem none = {-1, "Linux", "6.1.0"};
        const Faked faked(none);
        const QString search = manager.createSearchMessage();
        QVERIFY(search.contains(QStringLiteral("\nUSER-AGENT: Undefined/-1 UPnP/1.1 SSDP/1.0\n")));
    }

    void theSearchIsWrittenAfreshEachTime()
    {
        const Faked first(LINUX);
        const QString before = manager.createSearchMessage();
        const FakedSystem other = {0, "Other", "7"};
        const Faked second(other);
        QVERIFY(before != manager.createSearchMessage());
    }

    void theSystemIsItsNameAndRelease_data()
    {
        QTest::addColumn<int>("result");
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<QByteArray>("release");
        QTest::addColumn<QString>("text");
        const QByteArray name("Linux");
        QTest::newRow("joined by a slash") << 0 << name << QByteArray("6.1.0") << QStringLiteral("Linux/6.1.0");
        QTest::newRow("an empty name") << 0 << QByteArray() << QByteArray("6") << QStringLiteral("/6");
        QTest::newRow("an empty release") << 0 << name << QByteArray() << QStringLiteral("Linux/");
        QTest::newRow("a placeholder in the name")
            << 0 << QByteArray("%2") << QByteArray("6") << QStringLiteral("%2/6");
        QTest::newRow("a placeholder in the release")
            << 0 << name << QByteArray("%1") << QStringLiteral("Linux/%1");
        QTest::newRow("Latin-1") << 0 << QByteArray("\xdcnix") << QByteArray("6")
                                 << QStringLiteral(u"\u00dcnix/6");
        QTest::newRow("no uname") << -1 << name << QByteArray("6") << QStringLiteral("Undefined/-1");
        QTest::newRow("any other result") << 1 << name << QByteArray("6") << QStringLiteral("Undefined/-1");
    }

    void theSystemIsItsNameAndRelease()
    {
        QFETCH(const int, result);
        QFETCH(const QByteArray, name);
        QFETCH(const QByteArray, release);
        QFETCH(const QString, text);
        const FakedSystem system = {result, name.constData(), release.constData()};
        const Faked faked(system);
        QCOMPARE(SsdpManager::getSystemInfo(), text);
    }

    void theSystemIsTheKernels()
    {
        utsname kernel;
        QCOMPARE(uname(&kernel), 0);
        QCOMPARE(SsdpManager::getSystemInfo().toLatin1(),
                 QByteArray(kernel.sysname) + QByteArray("/") + QByteArray(kernel.release));
    }

    void aHeaderIsTheFirstLineThatBeginsWithIt_data()
    {
        QTest::addColumn<QString>("message");
        QTest::addColumn<QString>("header");
        QTest::addColumn<QString>("value");
        const QString location = QStringLiteral("Location");
        const QString url = QStringLiteral("http://10.0.0.5:49152/desc.xml");
        QTest::newRow("carriage return and line feed")
            << QStringLiteral("LOCATION: http://10.0.0.5:49152/desc.xml\r\n") << location << url;
        QTest::newRow("line feed alone")
            << QStringLiteral("Location: http://10.0.0.5:49152/desc.xml\n") << location << url;
        QTest::newRow("no line end") << QStringLiteral("Location: http://10.0.0.5:49152/desc.xml") << location
                                     << url;
        QTest::newRow("no blank after the colon")
            << QStringLiteral("Location:http://a/b") << location << QStringLiteral("http://a/b");
        QTest::newRow("blanks before the colon")
            << QStringLiteral("Location  : x") << location << QStringLiteral("x");
        QTest::newRow("white space around the value")
            << QStringLiteral("Location: \t x y \t\v\f\r\n") << location << QStringLiteral("x y");
        QTest::newRow("lower case") << QStringLiteral("location: x") << location << QStringLiteral("x");
        QTest::newRow("lower case asked for")
            << QStringLiteral("LOCATION: x") << QStringLiteral("location") << QStringLiteral("x");
        QTest::newRow("behind other lines") << QStringLiteral("HTTP/1.1 200 OK\r\nST: a\r\nLocation: x\r\n\r\n")
                                            << location << QStringLiteral("x");
        QTest::newRow("the first of two")
            << QStringLiteral("Location: x\nLocation: y\n") << location << QStringLiteral("x");
        QTest::newRow("the first is empty")
            << QStringLiteral("Location:\nLocation: y\n") << location << QStringLiteral("");
        QTest::newRow("the first has no colon")
            << QStringLiteral("Location\nLocation: y\n") << location << QStringLiteral("y");
        QTest::newRow("no colon, but one in the next line")
            << QStringLiteral("Location\nST: y\n") << location << QString();
        QTest::newRow("a longer name") << QStringLiteral("LOCATIONX: x") << location << QStringLiteral("x");
        QTest::newRow("a longer name with a hyphen")
            << QStringLiteral("location-extra: x") << location << QStringLiteral("x");
        QTest::newRow("a longer name before the right one")
            << QStringLiteral("SIDE: x\nSID: y\n") << QStringLiteral("SID") << QStringLiteral("x");
        QTest::newRow("a shorter name") << QStringLiteral("Locatio: x") << location << QString();
        QTest::newRow("the name behind a blank") << QStringLiteral(" Location: x") << location << QString();
        QTest::newRow("the name inside a line") << QStringLiteral("X-Location: x") << location << QString();
        QTest::newRow("lines ended by carriage returns alone")
            << QStringLiteral("ST: a\rLocation: x\r") << location << QString();
        QTest::newRow("after the empty line")
            << QStringLiteral("ST: a\r\n\r\nLocation: x") << location << QStringLiteral("x");
        QTest::newRow("the first colon of the line")
            << QStringLiteral("Location") + QStringLiteral("a:b:c") << location << QStringLiteral("b:c");
        QTest::newRow("a colon asked for")
            << QStringLiteral("Location: x") << QStringLiteral("Location:") << QStringLiteral("x");
        QTest::newRow("the whole line asked for")
            << QStringLiteral("a:b") << QStringLiteral("a:b") << QStringLiteral("b");
        QTest::newRow("another header") << QStringLiteral("ST: x\r\n") << location << QString();
        QTest::newRow("an empty message") << QString() << location << QString();
        QTest::newRow("a message of line feeds") << QStringLiteral("\n\n\n") << location << QString();
        QTest::newRow("an empty value") << QStringLiteral("Location:") << location << QStringLiteral("");
        QTest::newRow("a blank value") << QStringLiteral("Location: \r\n") << location << QStringLiteral("");
        QTest::newRow("any header") << QStringLiteral("GET\na: x\n") << QString() << QStringLiteral("x");
        QTest::newRow("any header, colon in front") << QStringLiteral(":a: x\n") << QString() << QString();
        QTest::newRow("any header, second line")
            << QStringLiteral(":a: x\nb: y") << QString() << QStringLiteral("y");
        QTest::newRow("any header, empty message") << QString() << QString() << QString();
    }

    void aHeaderIsTheFirstLineThatBeginsWithIt()
    {
        QFETCH(const QString, message);
        QFETCH(const QString, header);
        QFETCH(const QString, value);
        const QString found = manager.getHeaderValue(message, header);
        QCOMPARE(found, value);
        QCOMPARE(found.isNull(), value.isNull());
    }

    void theHostIsTheNameAndOneCharacterForThePort_data()
    {
        QTest::addColumn<QString>("url");
        QTest::addColumn<QByteArray>("host");
        QTest::newRow("no port") << QStringLiteral("http://h/") << QByteArray("h:P");
        QTest::newRow("port 80") << QStringLiteral("http://10.0.0.5:80/d.xml") << QByteArray("10.0.0.5:P");
        QTest::newRow("port 8080") << QStringLiteral("http://10.0.0.5:8080/d.xml") << QByteArray("10.0.0.5:\x90");
        QTest::newRow("port 49152") << QStringLiteral("http://10.0.0.5:49152/d.xml")
                                    << QByteArray("10.0.0.5:\0", 10);
        QTest::newRow("port 49153") << QStringLiteral("http://10.0.0.5:49153/d.xml")
                                    << QByteArray("10.0.0.5:\x01");
        QTest::newRow("port 1900") << QStringLiteral("http://10.0.0.5:1900/d.xml") << QByteArray("10.0.0.5:l");
        QTest::newRow("port 65535") << QStringLiteral("http://10.0.0.5:65535/d.xml")
                                    << QByteArray("10.0.0.5:\xff");
        QTest::newRow("port 255") << QStringLiteral("http://h:255") << QByteArray("h:\xff");
        QTest::newRow("port 256") << QStringLiteral("http://h:256") << QByteArray("h:\0", 3);
        QTest::newRow("port 10, a line feed") << QStringLiteral("http://h:10/") << QByteArray("h:\n");
        QTest::newRow("another scheme without port") << QStringLiteral("https://h/") << QByteArray("h:P");
        QTest::newRow("IPv6") << QStringLiteral("http://[fe80::1]:81/") << QByteArray("fe80::1:Q");
        QTest::newRow("no URL") << QStringLiteral("desc.xml") << QByteArray(":P");
        QTest::newRow("nothing") << QString() << QByteArray(":P");
    }

    void theHostIsTheNameAndOneCharacterForThePort()
    {
        QFETCH(const QString, url);
        QFETCH(const QByteArray, host);
        QCOMPARE(manager.getHost(url), QString::fromLatin1(host.constData(), host.size()));
        QCOMPARE(manager.getHost(url).toLatin1(), host);
    }

    void aSubLocationBeginsWithASlash_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("subLocation");
        QTest::newRow("with a slash") << QStringLiteral("/event") << QStringLiteral("/event");
        QTest::newRow("without") << QStringLiteral("event") << QStringLiteral("/event");
        QTest::newRow("deeper") << QStringLiteral("a/b") << QStringLiteral("/a/b");
        QTest::newRow("two slashes") << QStringLiteral("//a") << QStringLiteral("//a");
        QTest::newRow("a slash alone") << QStringLiteral("/") << QStringLiteral("/");
        QTest::newRow("a blank before the slash") << QStringLiteral(" /a") << QStringLiteral("/ /a");
        QTest::newRow("a backslash") << QStringLiteral("\\a") << QStringLiteral("/\\a");
        QTest::newRow("a whole URL") << QStringLiteral("http://h/a") << QStringLiteral("/http://h/a");
        QTest::newRow("nothing") << QString() << QStringLiteral("/");
    }

    void aSubLocationBeginsWithASlash()
    {
        QFETCH(const QString, path);
        QFETCH(const QString, subLocation);
        QCOMPARE(manager.getSubLocation(path), subLocation);
    }

    void aFullLocationIsThePathOnTheServer_data()
    {
        QTest::addColumn<QString>("location");
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("fullLocation");
        const QString location = QStringLiteral("http://10.0.0.5:49152/desc.xml");
        const QString x = QStringLiteral("x");
        QTest::newRow("a path with a slash")
            << location << QStringLiteral("/scpd.xml") << QStringLiteral("http://10.0.0.5:49152/scpd.xml");
        QTest::newRow("a path without")
            << location << QStringLiteral("scpd.xml") << QStringLiteral("http://10.0.0.5:49152/scpd.xml");
        QTest::newRow("a deeper location") << QStringLiteral("http://h:1/a/b.xml") << QStringLiteral("c.xml")
                                           << QStringLiteral("http://h:1/c.xml");
        QTest::newRow("a path that is a URL") << QStringLiteral("http://h:1/a") << QStringLiteral("http://other/x")
                                              << QStringLiteral("http://h:1/http://other/x");
        QTest::newRow("an empty path") << QStringLiteral("http://h:1/a") << QString()
                                       << QStringLiteral("http://h:1/");
        QTest::newRow("no slash behind the host")
            << QStringLiteral("http://h:1") << x << QStringLiteral("http://h:1/x");
        QTest::newRow("no scheme") << QStringLiteral("h:1") << x << QStringLiteral("h:1/x");
        QTest::newRow("no scheme, a path") << QStringLiteral("h:1/a/b") << x << QStringLiteral("h:1/x");
        QTest::newRow("a slash in front") << QStringLiteral("/a/b") << x << QStringLiteral("/x");
        QTest::newRow("https") << QStringLiteral("https://h/a") << x << QStringLiteral("https:/x");
        QTest::newRow("upper case") << QStringLiteral("HTTP://h/a") << x << QStringLiteral("HTTP:/x");
        QTest::newRow("a blank in front") << QStringLiteral(" http://h/a") << x << QStringLiteral(" http:/x");
        QTest::newRow("the scheme alone") << QStringLiteral("http://") << x << QStringLiteral("http:///x");
        QTest::newRow("no host") << QStringLiteral("http:///a") << x << QStringLiteral("http:///x");
        QTest::newRow("nothing") << QString() << x << QStringLiteral("/x");
    }

    void aFullLocationIsThePathOnTheServer()
    {
        QFETCH(const QString, location);
        QFETCH(const QString, path);
        QFETCH(const QString, fullLocation);
        QCOMPARE(manager.getFullLocation(location, path), fullLocation);
    }
};

} // namespace Tests
} // namespace Velmora

QTEST_GUILESS_MAIN(Velmora::Tests::TextTest)
#include "tst_text.moc"

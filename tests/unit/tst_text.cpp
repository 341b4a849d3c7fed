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
    void constantsHaveTheirValues_data()
    {
        QTest::addColumn<QString>("constant");
        QTest::addColumn<QString>("value");
        QTest::newRow("the key object's name") << Ssdp::KO << "KO";
        QTest::newRow("the group") << SsdpManager::MULTICAST_GROUP_ADDRESS.toString() << "239.255.255.250";
        QTest::newRow("the device namespace") << SsdpManager::DEVICE_FILTER << "urn:schemas-upnp-org:device";
        QTest::newRow("the service namespace") << SsdpManager::SERVICE_FILTER << "urn:schemas-upnp-org:service";
        QTest::newRow("the maker's device types")
            << SsdpManager::VELMORA_DEVICE_FILTER << "urn:schemas-velmora-it:device:";
        QTest::newRow("the maker's service type")
            << SsdpManager::VELMORA_SERVICE_FILTER << "urn:schemas-velmora-it:service:keyobjects:1";
    }

    void constantsHaveTheirValues()
    {
        QFETCH(const QString, constant);
        QFETCH(const QString, value);
        QCOMPARE(constant, value);
    }

    void groupIsAnIPv4Address()
    {
        QCOMPARE(SsdpManager::MULTICAST_GROUP_ADDRESS.protocol(), QAbstractSocket::IPv4Protocol);
    }

    void searchIsSevenLinesEndedByLineFeeds()
    {
        const Faked faked(LINUX);
        QCOMPARE(manager.createSearchMessage().toLatin1(),
                 "M-SEARCH * HTTP/1.1\n"
                 "HOST: 239.255.255.250:1900\n"
                 "MAN: \"ssdp:discover\"\n"
                 "MX: 3\n"
                 "ST: upnp:rootdevice\n"
                 "USER-AGENT: Linux/6.1.0 UPnP/1.1 SSDP/1.0\n"
                 "\n"_ba);
    }

    void searchHasAnUndefinedUserAgentWithoutUname()
    {
        const FakedSystem none = {-1, "Linux", "6.1.0"};
        const Faked faked(none);
        const QString search = manager.createSearchMessage();
        QVERIFY(search.contains("\nUSER-AGENT: Undefined/-1 UPnP/1.1 SSDP/1.0\n"));
    }

    void searchIsWrittenAfreshEachTime()
    {
        const Faked first(LINUX);
        const QString before = manager.createSearchMessage();
        const FakedSystem other = {0, "Other", "7"};
        const Faked second(other);
        QVERIFY(before != manager.createSearchMessage());
    }

    void systemIsItsNameAndRelease_data()
    {
        QTest::addColumn<int>("result");
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<QByteArray>("release");
        QTest::addColumn<QString>("text");
        const QByteArray name("Linux");
        QTest::newRow("joined by a slash") << 0 << name << "6.1.0"_ba
                                           << "Linux/6.1.0";
        QTest::newRow("an empty name") << 0 << QByteArray() << "6"_ba
                                       << "/6";
        QTest::newRow("an empty release") << 0 << name << QByteArray() << "Linux/";
        QTest::newRow("a placeholder in the name") << 0 << "%2"_ba
                                                   << "6"_ba
                                                   << "%2/6";
        QTest::newRow("a placeholder in the release") << 0 << name << "%1"_ba
                                                      << "Linux/%1";
        QTest::newRow("Latin-1") << 0 << "\xdcnix"_ba
                                 << "6"_ba << QStringLiteral(u"\u00dcnix/6");
        QTest::newRow("no uname") << -1 << name << "6"_ba
                                  << "Undefined/-1";
        QTest::newRow("any other result") << 1 << name << "6"_ba
                                          << "Undefined/-1";
    }

    void systemIsItsNameAndRelease()
    {
        QFETCH(const int, result);
        QFETCH(const QByteArray, name);
        QFETCH(const QByteArray, release);
        QFETCH(const QString, text);
        const FakedSystem system = {result, name.constData(), release.constData()};
        const Faked faked(system);
        QCOMPARE(SsdpManager::getSystemInfo(), text);
    }

    void systemIsTheKernels()
    {
        utsname kernel;
        QCOMPARE(uname(&kernel), 0);
        QCOMPARE(SsdpManager::getSystemInfo().toLatin1(),
                 QByteArray(kernel.sysname) + "/"_ba + QByteArray(kernel.release));
    }

    void headerIsTheFirstLineThatBeginsWithIt_data()
    {
        QTest::addColumn<QString>("message");
        QTest::addColumn<QString>("header");
        QTest::addColumn<QString>("value");
        const QString location = "Location"_s;
        const QString url = "http://10.0.0.5:49152/desc.xml"_s;
        QTest::newRow("carriage return and line feed") << "LOCATION: http://10.0.0.5:49152/desc.xml\r\n"
                                                       << location << url;
        QTest::newRow("line feed alone") << "Location: http://10.0.0.5:49152/desc.xml\n" << location << url;
        QTest::newRow("no line end") << "Location: http://10.0.0.5:49152/desc.xml" << location << url;
        QTest::newRow("no blank after the colon") << "Location:http://a/b" << location << "http://a/b";
        QTest::newRow("blanks before the colon") << "Location  : x" << location << "x";
        QTest::newRow("white space around the value") << "Location: \t x y \t\v\f\r\n" << location << "x y";
        QTest::newRow("lower case") << "location: x" << location << "x";
        QTest::newRow("lower case asked for") << "LOCATION: x"
                                              << "location"
                                              << "x";
        QTest::newRow("behind other lines") << "HTTP/1.1 200 OK\r\nST: a\r\nLocation: x\r\n\r\n"
                                            << location << "x";
        QTest::newRow("the first of two") << "Location: x\nLocation: y\n" << location << "x";
        QTest::newRow("the first is empty") << "Location:\nLocation: y\n" << location << "";
        QTest::newRow("the first has no colon") << "Location\nLocation: y\n" << location << "y";
        QTest::newRow("no colon, but one in the next line") << "Location\nST: y\n" << location << QString();
        QTest::newRow("a longer name") << "LOCATIONX: x" << location << "x";
        QTest::newRow("a longer name with a hyphen") << "location-extra: x" << location << "x";
        QTest::newRow("a longer name before the right one") << "SIDE: x\nSID: y\n"
                                                            << "SID"
                                                            << "x";
        QTest::newRow("a shorter name") << "Locatio: x" << location << QString();
        QTest::newRow("the name behind a blank") << " Location: x" << location << QString();
        QTest::newRow("the name inside a line") << "X-Location: x" << location << QString();
        QTest::newRow("lines ended by carriage returns alone") << "ST: a\rLocation: x\r" << location << QString();
        QTest::newRow("after the empty line") << "ST: a\r\n\r\nLocation: x" << location << "x";
        QTest::newRow("the first colon of the line") << "Location"_s + "a:b:c"_s << location << "b:c";
        QTest::newRow("a colon asked for") << "Location: x"
                                           << "Location:"
                                           << "x";
        QTest::newRow("the whole line asked for") << "a:b"
                                                  << "a:b"
                                                  << "b";
        QTest::newRow("another header") << "ST: x\r\n" << location << QString();
        QTest::newRow("an empty message") << QString() << location << QString();
        QTest::newRow("a message of line feeds") << "\n\n\n" << location << QString();
        QTest::newRow("an empty value") << "Location:" << location << "";
        QTest::newRow("a blank value") << "Location: \r\n" << location << "";
        QTest::newRow("any header") << "GET\na: x\n" << QString() << "x";
        QTest::newRow("any header, colon in front") << ":a: x\n" << QString() << QString();
        QTest::newRow("any header, second line") << ":a: x\nb: y" << QString() << "y";
        QTest::newRow("any header, empty message") << QString() << QString() << QString();
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
        QTest::addColumn<QByteArray>("host");
        QTest::newRow("no port") << "http://h/"
                                 << "h:P"_ba;
        QTest::newRow("port 80") << "http://10.0.0.5:80/d.xml"
                                 << "10.0.0.5:P"_ba;
        QTest::newRow("port 8080") << "http://10.0.0.5:8080/d.xml"
                                   << "10.0.0.5:\x90"_ba;
        QTest::newRow("port 49152") << "http://10.0.0.5:49152/d.xml" << QByteArray("10.0.0.5:\0", 10);
        QTest::newRow("port 49153") << "http://10.0.0.5:49153/d.xml"
                                    << "10.0.0.5:\x01"_ba;
        QTest::newRow("port 1900") << "http://10.0.0.5:1900/d.xml"
                                   << "10.0.0.5:l"_ba;
        QTest::newRow("port 65535") << "http://10.0.0.5:65535/d.xml"
                                    << "10.0.0.5:\xff"_ba;
        QTest::newRow("port 255") << "http://h:255"
                                  << "h:\xff"_ba;
        QTest::newRow("port 256") << "http://h:256" << QByteArray("h:\0", 3);
        QTest::newRow("port 10, a line feed") << "http://h:10/"
                                              << "h:\n"_ba;
        QTest::newRow("another scheme without port") << "https://h/"
                                                     << "h:P"_ba;
        QTest::newRow("IPv6") << "http://[fe80::1]:81/"
                              << "fe80::1:Q"_ba;
        QTest::newRow("no URL") << "desc.xml"
                                << ":P"_ba;
        QTest::newRow("nothing") << QString() << ":P"_ba;
    }

    void hostIsTheNameAndOneCharacterForThePort()
    {
        QFETCH(const QString, url);
        QFETCH(const QByteArray, host);
        QCOMPARE(manager.getHost(url), QString::fromLatin1(host.constData(), host.size()));
        QCOMPARE(manager.getHost(url).toLatin1(), host);
    }

    void subLocationBeginsWithASlash_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("subLocation");
        QTest::newRow("with a slash") << "/event"
                                      << "/event";
        QTest::newRow("without") << "event"
                                 << "/event";
        QTest::newRow("deeper") << "a/b"
                                << "/a/b";
        QTest::newRow("two slashes") << "//a"
                                     << "//a";
        QTest::newRow("a slash alone") << "/"
                                       << "/";
        QTest::newRow("a blank before the slash") << " /a"
                                                  << "/ /a";
        QTest::newRow("a backslash") << "\\a"
                                     << "/\\a";
        QTest::newRow("a whole URL") << "http://h/a"
                                     << "/http://h/a";
        QTest::newRow("nothing") << QString() << "/";
    }

    void subLocationBeginsWithASlash()
    {
        QFETCH(const QString, path);
        QFETCH(const QString, subLocation);
        QCOMPARE(manager.getSubLocation(path), subLocation);
    }

    void fullLocationIsThePathOnTheServer_data()
    {
        QTest::addColumn<QString>("location");
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("fullLocation");
        const QString location = "http://10.0.0.5:49152/desc.xml"_s;
        const QString x = "x"_s;
        QTest::newRow("a path with a slash") << location << "/scpd.xml"
                                             << "http://10.0.0.5:49152/scpd.xml";
        QTest::newRow("a path without") << location << "scpd.xml"
                                        << "http://10.0.0.5:49152/scpd.xml";
        QTest::newRow("a deeper location") << "http://h:1/a/b.xml"
                                           << "c.xml"
                                           << "http://h:1/c.xml";
        QTest::newRow("a path that is a URL") << "http://h:1/a"
                                              << "http://other/x"
                                              << "http://h:1/http://other/x";
        QTest::newRow("an empty path") << "http://h:1/a" << QString() << "http://h:1/";
        QTest::newRow("no slash behind the host") << "http://h:1" << x << "http://h:1/x";
        QTest::newRow("no scheme") << "h:1" << x << "h:1/x";
        QTest::newRow("no scheme, a path") << "h:1/a/b" << x << "h:1/x";
        QTest::newRow("a slash in front") << "/a/b" << x << "/x";
        QTest::newRow("https") << "https://h/a" << x << "https:/x";
        QTest::newRow("upper case") << "HTTP://h/a" << x << "HTTP:/x";
        QTest::newRow("a blank in front") << " http://h/a" << x << " http:/x";
        QTest::newRow("the scheme alone") << "http://" << x << "http:///x";
        QTest::newRow("no host") << "http:///a" << x << "http:///x";
        QTest::newRow("nothing") << QString() << x << "/x";
    }

    void fullLocationIsThePathOnTheServer()
    {
        QFETCH(const QString, location);
        QFETCH(const QString, path);
        QFETCH(const QString, fullLocation);
        QCOMPARE(manager.getFullLocation(location, path), fullLocation);
    }
};

QTEST_GUILESS_MAIN(TextTest)
#include "tst_text.moc"

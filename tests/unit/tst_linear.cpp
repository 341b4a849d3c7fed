#include <log/Logger.h>
#include <ssdp/BoundedXml.h>
#include <ssdp/Documents.h>
#include <ssdp/HttpReader.h>
#include <ssdp/KeyObject.h>
#include <ssdp/Latin1Text.h>
#include <ssdp/Protocol.h>
#include <tests/support/Literals.h>
#include <tests/support/ManagerAccess.h>
#include <tests/support/NamesAlike.h>
#include <tests/support/ProcessState.h>
#include <tests/support/Sanitized.h>

#include <QtTest/QtTest>
#include <QtXml/QDomDocument>

#include <functional>
#include <limits>
#include <malloc.h>
#include <memory>

using namespace Velmora;
using namespace Velmora::Tests;
using namespace Velmora::SSDP;
using Velmora::Log::Logger;

/// What is measured, with its input made before.
using Work = std::function<void()>;
/// Makes it for an input of a size.
using Maker = std::function<Work(int)>;

Q_DECLARE_METATYPE(Maker)

namespace {

const int KB = 1024;

// Twice the input may take two and a half times the time, so four times the input this much.
const double MOST_GROWTH = 2.5 * 2.5;
const qint64 SHORTEST_RUN = 700; ///< In microseconds.
const int RUNS = 3;
const int MOST_RUNS = 20; ///< Where another program has taken the caches or the clock.

qint64 timeOf(const Work& work, int times)
{
    const qint64 begin = ProcessState::processorTime();
    for (int i = 0; i < times; ++i)
        work();
    return ProcessState::processorTime() - begin;
}

/// @p pattern a whole number of times, between @p begin and @p end.
Maker text(const QByteArray& begin, const QByteArray& pattern, const QByteArray& end,
           const std::function<void(const QString&)>& function)
{
    return [=](int size) -> Work {
        const int times = size / static_cast<int>(pattern.size());
        const QString input = QString::fromLatin1(begin + pattern.repeated(times) + end);
        return [input, function] { function(input); };
    };
}

Maker header(const QByteArray& begin, const QByteArray& pattern, const QByteArray& end = "")
{
    return text(begin, pattern, end, [](const QString& input) { Protocol::headerValue(input, "SID"_s); });
}

Maker eventPath(const QByteArray& begin, const QByteArray& pattern, const QByteArray& end = "")
{
    return text(begin, pattern, end, [](const QString& input) {
        QUuid identifier;
        Protocol::readEventIdentifier(input, &identifier);
    });
}

Maker subscriptionReply(const QByteArray& begin, const QByteArray& pattern, const QByteArray& end = "")
{
    return text(begin, pattern, end, [](const QString& input) { Protocol::subscriptionIdentifier(input); });
}

Maker bounds(const QByteArray& begin, const QByteArray& pattern, const QByteArray& end = "")
{
    return text(begin, pattern, end, [](const QString& input) { isWithinXmlBounds(input); });
}

Maker parsed(const QByteArray& begin, const QByteArray& pattern, const QByteArray& end = "")
{
    return text(begin, pattern, end, [](const QString& input) {
        QDomDocument document;
        parseXml(document, input);
    });
}

Maker keyObject(const QByteArray& pattern)
{
    return text("", pattern, "1,2", [](const QString& input) {
        KeyObject read = {};
        readKeyObject(input, &read);
    });
}

Maker logLine(const QByteArray& pattern)
{
    return text("", pattern, "", [](const QString& input) { Logger(Logger::Information) << "piece" << input; });
}

/// A reply read in segments of @p segment bytes, 0 for all at once.
Maker http(const QByteArray& begin, const QByteArray& pattern, const QByteArray& end, int segment)
{
    return [=](int size) -> Work {
        const int times = size / static_cast<int>(pattern.size());
        const QByteArray input = begin + pattern.repeated(times) + end;
        return [input, segment] {
            HttpReader reader;
            const qint64 step = segment == 0 ? input.size() : segment;
            for (qint64 i = 0; i < input.size() && reader.isReading(); i += step)
                reader.read(input.constData() + i, qMin<qint64>(step, input.size() - i));
            reader.close();
        };
    };
}

/// What @p function reads from the document of @p begin, many times @p pattern, and @p end.
template <typename Function>
Maker document(const QByteArray& begin, const QByteArray& pattern, const QByteArray& end, Function function)
{
    return [=](int size) -> Work {
        const QString input =
            QString::fromLatin1(begin + pattern.repeated(size / static_cast<int>(pattern.size())) + end);
        const auto dom = std::make_shared<QDomDocument>();
        if (!parseXml(*dom, input))
            qFatal("not parsed: %s", qPrintable(input.left(100)));
        return [dom, function] { function(*dom); };
    };
}

/// An event with @p names as its variables.
QString eventOf(const QStringList& names)
{
    QString result("<e:propertyset>"_s);
    for (const QString& name : names)
        result += "<e:property><"_s + name + "/></e:property>"_s;
    return result + "</e:propertyset>"_s;
}

/// A control point that gets one event.
Work eventWork(const QString& event)
{
    return [event] {
        SsdpManager manager{QHostAddress(QHostAddress::LocalHost)};
        ManagerAccess access(manager);
        SsdpDevice* const device = new SsdpDevice;
        device->services.append(new SsdpService);
        access.devices().append(device);
        access.updateStateVariables(device->services.first(), event);
    };
}

void dropMessage(QtMsgType, const QMessageLogContext&, const QString&) { }

} // namespace

/**
 * What is read from the network takes time in proportion to its length, whatever its shape. Each row gets
 * inputs of a size, twice and four times the size.
 */
class LinearTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:

    void initTestCase()
    {
        if (SANITIZED)
            QSKIP("AddressSanitizer's own work would be measured");
        // Memory that is given back to the kernel costs as much as the work, and only large inputs give back any.
        mallopt(M_MMAP_THRESHOLD, 32 * KB * KB);
        mallopt(M_TRIM_THRESHOLD, 1024 * KB * KB);
    }

    void timeGrowsWithTheLength_data()
    {
        QTest::addColumn<int>("size");
        QTest::addColumn<Maker>("maker");
        const auto add = [](const char* name, int size, const Maker& maker) {
            QTest::newRow(name) << size << maker;
        };

        add("header value: lines without a colon", 64 * KB, header("", "SID\n"));
        add("header value: one line without a colon", 64 * KB, header("", "SID"));
        add("header value: line feeds", 64 * KB, header("", "\n"));
        add("header value: lines that begin with the colon", 64 * KB, header("", ":SID\n"));
        add("header value: the beginnings of the name", 64 * KB, header("", "SI\n"));
        add("header value: spaces", 64 * KB, header("SID:", " ", "x"));
        add("header value: colons", 64 * KB, header("SID", ":"));
        add("header value: other lines before it", 64 * KB, header("", "S: x\n", "SID: x"));

        add("event path: slashes", 64 * KB, eventPath("NOTIFY ", "/", " HTTP/1.1\n"));
        add("event path: spaces", 64 * KB, eventPath("NOTIFY", " "));
        add("event path: one field", 64 * KB, eventPath("", "x"));
        add("event path: braces", 64 * KB, eventPath("NOTIFY ", "{"));
        add("event path: slashes within an identifier", 64 * KB, eventPath("NOTIFY 6f9619ff-", "/", "8b86"));
        add("event path: hexadecimal digits", 64 * KB, eventPath("NOTIFY /", "a"));
        add("event path: lines after it", 64 * KB, eventPath("NOTIFY / HTTP/1.1\n", "x\n"));

        add("subscription identifier: uuid: again and again", 64 * KB, subscriptionReply("SID: ", "uuid:"));
        add("subscription identifier: uuid: apart", 64 * KB, subscriptionReply("SID: ", "uuid:x"));
        add("subscription identifier: nearly uuid:", 64 * KB, subscriptionReply("SID: ", "uuid"));
        add("subscription identifier: uuid: within uuid:", 64 * KB, subscriptionReply("SID: ", "uuuid:uid:"));
        add("subscription identifier: lines without a colon", 64 * KB, subscriptionReply("", "SID\n"));

        add("locations: a long path", 16 * KB, text("http://h/", "a", "", [](const QString& input) {
                Protocol::fullLocation(input, "x"_s);
                Protocol::hostValue(input);
            }));
        add("locations: slashes", 16 * KB, text("", "/", "", [](const QString& input) {
                Protocol::fullLocation(input, input);
                Protocol::hostValue(input);
            }));
        add("locations: a long path of a service", 16 * KB, text("", "/x", "", [](const QString& input) {
                Protocol::subLocation(input);
                Protocol::subscribeMessage(input, "http://h/"_s,
                                           {QHostAddress(QHostAddress::LocalHost), 1, QUuid()});
            }));
        add("locations: placeholders in the path of a service", 16 * KB,
            text("", "%1", "", [](const QString& input) {
                Protocol::subscribeMessage(input, "http://h/"_s,
                                           {QHostAddress(QHostAddress::LocalHost), 1, QUuid()});
            }));
        const auto host = [](const QString& input) { Protocol::hostValue(input); };
        add("locations: a long host", 8 * KB, text("http://", "a", "/", host));
        add("locations: a host of many labels", 8 * KB, text("http://", "a.", "/", host));
        add("locations: a host of letters beyond ASCII", 8 * KB, text("http://", "\xe4\xf6\xfc", "/", host));
        add("locations: a host of escapes", 8 * KB, text("http://", "%41", "/", host));
        add("locations: digits for a port", 8 * KB, text("http://h:", "1", "/", host));
        add("locations: an IPv6 address", 8 * KB, text("http://[", "1:", "]/", host));
        add("locations: escapes in the path", 8 * KB, text("http://h/", "%zz", "", host));

        for (const int segment : {0, 1, 1000}) {
            const QByteArray in = segment == 0 ? "at once" : segment == 1 ? "byte by byte" : "in segments";
            const auto addHttp = [&](const char* name, int size, const QByteArray& begin,
                                     const QByteArray& pattern, const QByteArray& end) {
                add(("HTTP "_ba + in + ": " + name).constData(), size, http(begin, pattern, end, segment));
            };
            // Nothing of a head is longer than 64 KiB.
            addHttp("status line", 15 * KB, "HTTP/1.1 200 ", "x", "\r\n\r\n");
            addHttp("spaces in the status line", 15 * KB, "HTTP/1.1", " ", "200 OK\r\n\r\n");
            addHttp("empty lines", 15 * KB, "", "\r\n", "HTTP/1.1 200 OK\r\n\r\n");
            addHttp("one field", 15 * KB, "HTTP/1.1 200 OK\r\nA: ", "x", "\r\n\r\n");
            addHttp("many fields", 15 * KB, "HTTP/1.1 200 OK\r\n", "A:\n", "\r\n");
            addHttp("a folded field", 15 * KB, "HTTP/1.1 200 OK\r\nA: ", "\n x", "\r\n\r\n");
            addHttp("a field folded to spaces", 15 * KB, "HTTP/1.1 200 OK\r\nContent-Length:", "\n  ", "\r\n\r\n");
            addHttp("many lengths", 15 * KB, "HTTP/1.1 200 OK\r\n", "Content-Length:1\n", "\r\nx");
            addHttp("a length of many digits", 15 * KB, "HTTP/1.1 200 OK\r\nContent-Length: ", "0", "1\r\n\r\nx");
            addHttp("a list of codings", 15 * KB, "HTTP/1.1 200 OK\r\nTransfer-Encoding: ", "a,", "\r\n\r\n");
            addHttp("many lists of codings", 15 * KB, "HTTP/1.1 200 OK\r\n", "Transfer-Encoding:,\n", "\r\n");
            addHttp("interim replies", 15 * KB, "", "HTTP/1.1 100 C\r\n\r\n", "HTTP/1.1 200 OK\r\n\r\n");
            // A processor may have no cache for much more than this four times.
            addHttp("body of a length", 32 * KB, "HTTP/1.1 200 OK\r\nContent-Length: 16000000\r\n\r\n", "x", "");
            addHttp("body up to the end", 32 * KB, "HTTP/1.1 200 OK\r\n\r\n", "x", "");
            const char chunked[] = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
            addHttp("chunks of one byte", 128 * KB, chunked, "1\r\nx\r\n", "0\r\n\r\n");
            addHttp("chunks with long extensions", 128 * KB, chunked, "1;xxxxxxxxxxxxxxxxxxxxxxxx\r\nx\r\n",
                    "0\r\n\r\n");
            addHttp("a chunk length of many digits", 15 * KB, chunked, "0", "1\r\nx\r\n0\r\n\r\n");
            addHttp("trailers", 15 * KB, QByteArray(chunked) + "0\r\n", "A:\r\n", "\r\n");
        }
        add("body taken byte by byte", 128 * KB, [](int size) -> Work {
            const QByteArray input = QByteArray(size, 'x');
            return [input] {
                ByteQueue queue;
                queue.append(input.constData(), input.size());
                char taken = 0;
                while (queue.take(&taken, 1) == 1) { }
            };
        });

        add("XML bounds: less-than signs", 64 * KB, bounds("", "<"));
        add("XML bounds: tags", 64 * KB, bounds("<r>", "<a/>", "</r>"));
        add("XML bounds: end tags", 64 * KB, bounds("", "</a>"));
        add("XML bounds: comments", 64 * KB, bounds("", "<!---->"));
        add("XML bounds: comments without an end", 64 * KB, bounds("", "<!--"));
        add("XML bounds: hyphens in a comment", 64 * KB, bounds("<!--", "- "));
        add("XML bounds: CDATA without an end", 64 * KB, bounds("", "<![CDATA["));
        add("XML bounds: brackets in CDATA", 64 * KB, bounds("<![CDATA[", "]]", "]]>"));
        add("XML bounds: declarations", 64 * KB, bounds("", "<!x>"));
        add("XML bounds: declarations without an end", 64 * KB, bounds("", "<!x"));
        add("XML bounds: instructions", 64 * KB, bounds("", "<?x?>"));
        add("XML bounds: instructions without an end", 64 * KB, bounds("", "<?x"));
        add("XML bounds: XML declarations", 64 * KB, bounds("", "<?xml ?>"));
        add("XML bounds: XML declarations without an end", 64 * KB, bounds("", "<?xml "));
        add("XML bounds: quotes", 64 * KB, bounds("<a ", "\""));
        add("XML bounds: quotes of both kinds", 64 * KB, bounds("<a ", "\"'\"'\"'"));
        add("XML bounds: tags with an open quote", 64 * KB, bounds("", "<a \""));
        add("XML bounds: text", 64 * KB, bounds("", "x"));

        add("parsed: siblings", 32 * KB, parsed("<r>", "<a/>", "</r>"));
        add("parsed: attributes", 32 * KB, parsed("<r>", "<a b='' c='' d='' e=''/>", "</r>"));
        add("parsed: text", 64 * KB, parsed("<r>", "x", "</r>"));
        add("parsed: character references", 64 * KB, parsed("<r>", "&#65;", "</r>"));
        add("parsed: comments", 32 * KB, parsed("<r>", "<!---->", "</r>"));
        add("parsed: CDATA sections", 32 * KB, parsed("<r>", "<![CDATA[]]>", "</r>"));
        add("parsed: instructions", 32 * KB, parsed("<r>", "<?p?>", "</r>"));
        add("parsed: one name", 64 * KB, parsed("<", "a", "/>"));
        add("parsed: one attribute", 64 * KB, parsed("<a b='", "x", "'/>"));
        add("parsed: without an end", 32 * KB, parsed("<r>", "<a/>"));
        add("parsed: no XML", 64 * KB, parsed("", "x"));

        const auto services = [](const QDomDocument& dom) { Documents::services(dom); };
        const char description[] = "<root><device><serviceList>";
        const char descriptionEnd[] = "</serviceList></device></root>";
        add("services", 64 * KB, document(description, "<service/>", descriptionEnd, services));
        add("services: other elements", 64 * KB, document(description, "<other/>", descriptionEnd, services));
        add("services: whole ones", 64 * KB,
            document(description,
                     "<service><serviceType>a</serviceType><serviceId>b</serviceId><SCPDURL>c</SCPDURL>"
                     "<controlURL>d</controlURL><eventSubURL>e</eventSubURL></service>",
                     descriptionEnd, services));
        add("services: elements of one", 64 * KB,
            document("<root><device><serviceList><service>", "<x/>", "</service></serviceList></device></root>",
                     services));
        add("services: elements before the list", 64 * KB,
            document("<root><device>", "<x/>", "<serviceList><service/></serviceList></device></root>", services));
        add("services: text in pieces", 64 * KB,
            document("<root><device><serviceList><service><SCPDURL>", "<![CDATA[x]]>",
                     "</SCPDURL></service></serviceList></device></root>", services));
        const auto kind = [](const QDomDocument& dom) { Documents::kindOf(dom); };
        add("kind: a long name space", 64 * KB,
            document("<root xmlns='urn:schemas-upnp-org:device", "x", "'/>", kind));
        add("kind: comments before the root", 64 * KB, document("", "<!---->", "<root/>", kind));
        const auto variables = [](const QDomDocument& dom) { Documents::stateVariables(dom); };
        add("state variables", 64 * KB,
            document("<scpd><serviceStateTable>", "<stateVariable><name>a</name></stateVariable>",
                     "</serviceStateTable></scpd>", variables));
        add("state variables: elements of one", 64 * KB,
            document("<scpd><serviceStateTable><stateVariable>", "<x/>",
                     "</stateVariable></serviceStateTable></scpd>", variables));
        const auto properties = [](const QDomDocument& dom) { Documents::properties(dom); };
        add("properties", 64 * KB,
            document("<e:propertyset>", "<e:property><a>b</a></e:property>", "</e:propertyset>", properties));
        add("properties: empty", 64 * KB,
            document("<e:propertyset>", "<e:property/>", "</e:propertyset>", properties));
        add("properties: comments in one", 64 * KB,
            document("<e:propertyset><e:property>", "<!---->", "</e:property></e:propertyset>", properties));

        add("key object: semicolons", 64 * KB, keyObject(";"));
        add("key object: commas", 64 * KB, keyObject(","));
        add("key object: entries of three parts", 64 * KB, keyObject("1,2,3;"));
        add("key object: spaces", 64 * KB, keyObject(" "));
        add("key object: digits", 64 * KB, keyObject("1"));

        add("log line: letters", 64 * KB, logLine("x"));
        add("log line: control characters", 64 * KB, logLine("\x1b"));
        add("log line: line feeds", 64 * KB, logLine("\n"));
        add("log line: placeholders", 64 * KB, logLine("%1"));

        add("text up to the zero byte", 64 * KB, [](int size) -> Work {
            const QByteArray input = QByteArray(size, '\xfe');
            return [input] { textUpToZero(input); };
        });

        add("event of many variables", 500, [](int size) {
            QStringList names;
            for (int i = 0; i < size; ++i)
                names << "N%1"_s.arg(i);
            return eventWork(eventOf(names));
        });
        add("event of variables that Qt 5 hashes alike", 500, [](int size) {
            QStringList names;
            for (const std::string& name : namesAlike(static_cast<size_t>(size)))
                names << QString::fromStdString(name);
            return eventWork(eventOf(names));
        });
        add("event of one variable again and again", 500, [](int size) {
            QStringList names;
            for (int i = 0; i < size; ++i)
                names << "KO";
            return eventWork(eventOf(names));
        });
        add("announcements of different locations", 100, [](int size) -> Work {
            return [size] {
                SsdpManager manager{QHostAddress(QHostAddress::LocalHost)};
                ManagerAccess access(manager);
                for (int i = 0; i < size; ++i)
                    access.addSsdpDevice(QHostAddress(QHostAddress::LocalHost), "none:/%1"_s.arg(i));
                manager.clearDevices();
                QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
            };
        });
        add("announcements of one location", 1000, [](int size) -> Work {
            return [size] {
                SsdpManager manager{QHostAddress(QHostAddress::LocalHost)};
                ManagerAccess access(manager);
                for (int i = 0; i < size; ++i)
                    access.addSsdpDevice(QHostAddress(QHostAddress::LocalHost), "none:/"_s);
            };
        });
    }

    void timeGrowsWithTheLength()
    {
        QFETCH(const int, size);
        QFETCH(const Maker, maker);
        const Work works[] = {maker(size), maker(2 * size), maker(4 * size)};
        // What is logged is made, but not written.
        const QtMessageHandler before = qInstallMessageHandler(dropMessage);
        int times = 1;
        while (timeOf(works[0], times) < SHORTEST_RUN)
            times *= 2;

        const qint64 never = std::numeric_limits<qint64>::max();
        qint64 shortest[] = {never, never, never};
        // Only the shortest run says what the work takes, since whatever disturbs a run makes it longer.
        for (int run = 0; run < MOST_RUNS; ++run) {
            for (int i = 0; i < 3; ++i)
                shortest[i] = qMin(shortest[i], timeOf(works[i], times));
            if (run + 1 >= RUNS
                && static_cast<double>(shortest[2]) <= MOST_GROWTH * static_cast<double>(shortest[0]))
                break;
        }
        qInstallMessageHandler(before);
        const QString measured =
            "%1 times: %2, %3 and %4 microseconds"_s.arg(times).arg(shortest[0]).arg(shortest[1]).arg(shortest[2]);
        QVERIFY2(static_cast<double>(shortest[2]) <= MOST_GROWTH * static_cast<double>(shortest[0]),
                 qPrintable(measured));
    }
};

QTEST_GUILESS_MAIN(LinearTest)
#include "tst_linear.moc"

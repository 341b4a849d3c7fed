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
#include <tests/support/Table.h>

#include <QtXml/QDomDocument>

#include <functional>
#include <limits>
#include <malloc.h>
#include <memory>

using namespace Velmora::Tests;
using namespace Velmora::SSDP;
using Velmora::Log::Logger;

/// What is measured. Its input exists already.
using Work = std::function<void()>;
/// Returns the work for an input of a size.
using Maker = std::function<Work(int)>;

Q_DECLARE_METATYPE(Maker)

namespace {

const int KIB = 1024;

// Twice the input may take 2.5 times as long. The tests compare four times the input with the input.
const double MAX_GROWTH = 2.5 * 2.5;
const qint64 MIN_RUN = 700; ///< In microseconds.
const int RUNS = 3;
const int MAX_RUNS = 20; ///< If other programs make the runs longer.

qint64 timeOf(const Work& work, int times)
{
    const qint64 begin = ProcessState::processorTime();
    for (int i = 0; i < times; ++i)
        work();
    return ProcessState::processorTime() - begin;
}

/// Returns the input of a shape. A shape is a beginning, a part that is repeated and an end, separated by "~".
QByteArray inputOf(const QByteArray& shape, int size)
{
    const QList<QByteArray> parts = shape.split('~');
    return parts.at(0) + parts.at(1).repeated(size / static_cast<int>(parts.at(1).size())) + parts.value(2);
}

/// Reads @p bytes in segments of @p segment bytes, 0 for all at once.
void readReply(const QByteArray& bytes, int segment)
{
    HttpReader reader;
    const qint64 step = segment == 0 ? bytes.size() : segment;
    for (qint64 i = 0; i < bytes.size() && reader.isReading(); i += step)
        reader.read(bytes.constData() + i, qMin<qint64>(step, bytes.size() - i));
    reader.close();
}

/// Returns the work for one event with @p names as its variables.
Work eventWork(const QList<QByteArray>& names)
{
    const QString event = eventOf(names);
    return [event] {
        SsdpManager manager{QHostAddress(QHostAddress::LocalHost)};
        SsdpDevice* const device = ManagerAccess(manager).addRecord({new SsdpService});
        ManagerAccess(manager).updateStateVariables(device->services.at(0), event);
    };
}

void dropMessage(QtMsgType, const QMessageLogContext&, const QString&) { }

} // namespace

/// The library reads every message in linear time, whatever its content is. Each row has inputs of one, two and
/// four times a size.
class LinearTest : public QObject
{
    Q_OBJECT

    static void row(const char* group, const QByteArray& shape, int size, const Maker& maker)
    {
        const std::unique_ptr<char[]> name(QTest::toString(shape));
        QTest::addRow("%s: %s", group, name.get()) << size << maker;
    }

    static void texts(const char* group, int size, const QList<QByteArray>& shapes,
                      const std::function<void(const QString&)>& function)
    {
        for (const QByteArray& shape : shapes) {
            row(group, shape, size, [=](int length) -> Work {
                const QString input = QString::fromLatin1(inputOf(shape, length));
                return [input, function] { function(input); };
            });
        }
    }

    static void textRows()
    {
        texts("header value", 64 * KIB,
              listOf("~SID\n", "~SID", "~\n", "~:SID\n", "~SI\n", "SID:~ ~x", "SID~:", "~S: x\n~SID: x"),
              [](const QString& input) { Protocol::headerValue(input, "SID"); });
        texts("event path", 64 * KIB,
              listOf("NOTIFY ~/~ HTTP/1.1\n", "NOTIFY~ ", "~x", "NOTIFY ~{", "NOTIFY 6f9619ff-~/~8b86",
                     "NOTIFY /~a", "NOTIFY / HTTP/1.1\n~x\n"),
              [](const QString& input) {
                  QUuid identifier;
                  Protocol::readEventIdentifier(input, &identifier);
              });
        texts("subscription identifier", 64 * KIB,
              listOf("SID: ~uuid:", "SID: ~uuid:x", "SID: ~uuid", "SID: ~uuuid:uid:", "~SID\n"),
              [](const QString& input) { Protocol::subscriptionIdentifier(input); });
        texts("location", 16 * KIB, listOf("http://h/~a", "~/"), [](const QString& input) {
            Protocol::fullLocation(input, input);
            Protocol::hostValue(input);
        });
        texts("host", 8 * KIB,
              listOf("http://~a~/", "http://~a.~/", "http://~\xe4\xf6\xfc~/", "http://~%41~/", "http://h:~1~/",
                     "http://[~1:~]/", "http://h/~%zz"),
              [](const QString& input) { Protocol::hostValue(input); });
        texts("path of a service", 16 * KIB, listOf("~/x", "~%1"), [](const QString& input) {
            Protocol::subLocation(input);
            Protocol::subscribeMessage(input, "http://h/", {QHostAddress(QHostAddress::LocalHost), 1, QUuid()});
        });
        texts("key object", 64 * KIB, listOf("~;~1,2", "~,~1,2", "~1,2,3;~1,2", "~ ~1,2", "~1~1,2"),
              [](const QString& input) {
                  KeyObject read = {};
                  readKeyObject(input, &read);
              });
        texts("log line", 64 * KIB, listOf("~x", "~\x1b", "~\n", "~%1"),
              [](const QString& input) { Logger(Logger::Information) << "piece" << input; });
        row("text", "up to the zero byte", 64 * KIB, [](int size) -> Work {
            const QByteArray input(size, '\xfe');
            return [input] { textUpToZero(input); };
        });
    }

    static void replyRows()
    {
        const QByteArray ok = "HTTP/1.1 200 OK\r\n";
        const QByteArray chunked = ok + "Transfer-Encoding: chunked\r\n\r\n";
        // A head may have 64 KiB.
        const QList<QByteArray> heads =
            listOf("HTTP/1.1 200 ~x~\r\n\r\n", "HTTP/1.1~ ~200 OK\r\n\r\n", "~\r\n~" + ok + "\r\n",
                   ok + "A: ~x~\r\n\r\n", ok + "~A:\n~\r\n", ok + "A: ~\n x~\r\n\r\n",
                   ok + "Content-Length:~\n  ~\r\n\r\n", ok + "~Content-Length:1\n~\r\nx",
                   ok + "Content-Length: ~0~1\r\n\r\nx", ok + "Transfer-Encoding: ~a,~\r\n\r\n",
                   ok + "~Transfer-Encoding:,\n~\r\n", "~HTTP/1.1 100 C\r\n\r\n~" + ok + "\r\n",
                   chunked + "~0~1\r\nx\r\n0\r\n\r\n", chunked + "0\r\n~A:\r\n~\r\n");
        // Four times the size of the bodies and chunks below must fit into the cache of a processor.
        const QList<QByteArray> bodies = listOf(ok + "Content-Length: 16000000\r\n\r\n~x", ok + "\r\n~x");
        const QList<QByteArray> chunks =
            listOf(chunked + "~1\r\nx\r\n~0\r\n\r\n", chunked + "~1;xxxxxxxxxxxxxxxxxxxxxxxx\r\nx\r\n~0\r\n\r\n");
        for (const int segment : {0, 1, 1000}) {
            const char* const group = segment == 0 ? "at once" : segment == 1 ? "byte by byte" : "in segments";
            const auto replies = [&](int size, const QList<QByteArray>& shapes) {
                for (const QByteArray& shape : shapes) {
                    row(group, shape, size, [=](int length) -> Work {
                        const QByteArray input = inputOf(shape, length);
                        return [input, segment] { readReply(input, segment); };
                    });
                }
            };
            replies(15 * KIB, heads);
            replies(32 * KIB, bodies);
            replies(128 * KIB, chunks);
        }
        row("body", "taken byte by byte", 128 * KIB, [](int size) -> Work {
            const QByteArray input(size, 'x');
            return [input] {
                ByteQueue queue;
                queue.append(input.constData(), input.size());
                char taken = 0;
                while (queue.take(&taken, 1) == 1) { }
            };
        });
    }

    static void documentRows()
    {
        texts("XML bounds", 64 * KIB,
              listOf("~<", "~<\"", "~<a>", "<r>~<a/>~</r>", "~</a>", "~<!---->", "~<!--", "~<!-->", "<!--~- ",
                     "<!-~-", "~<![CDATA[", "<a>~<![CDATA[]>", "<![CDATA[~]]~]]>", "~<!x>", "~<!x", "~<!DOCTYPE ",
                     "~<!DOCTYPE a>", "<!DOCTYPE a [<!ELEMENT a ~(", "~<?x?>", "~<?x", "~<?", "~<?xml ?>",
                     "~<?xml ", "~<?xml \"?>", "~<?xml ?>\"", "<a ~\"", "<a ~\"'\"'\"'", "~<a \"", "~<a ",
                     "~<a \"'", "<a~ b=''", "<a~ b", "<a b=\"~<", "~x"),
              [](const QString& input) { isWithinXmlBounds(input); });
        const auto parse = [](const QString& input) {
            QDomDocument document;
            parseXml(document, input);
        };
        texts("parsed", 32 * KIB,
              listOf("<r>~<a/>~</r>", "<r>~<a b='' c='' d='' e=''/>~</r>", "<r>~<!---->~</r>",
                     "<r>~<![CDATA[]]>~</r>", "<r>~<?p?>~</r>", "<r>~<a/>"),
              parse);
        texts("parsed", 64 * KIB, listOf("<r>~x~</r>", "<r>~&#65;~</r>", "<~a~/>", "<a b='~x~'/>", "~x"), parse);

        const auto documents = [](const char* group, const QList<QByteArray>& shapes,
                                  const std::function<void(const QDomDocument&)>& function) {
            for (const QByteArray& shape : shapes) {
                row(group, shape, 64 * KIB, [=](int size) -> Work {
                    const auto dom = std::make_shared<QDomDocument>();
                    if (!parseXml(*dom, QString::fromLatin1(inputOf(shape, size))))
                        qFatal("not parsed: %s", shape.constData());
                    return [dom, function] { function(*dom); };
                });
            }
        };
        documents("kind", listOf("<root xmlns='urn:schemas-upnp-org:device~x~'/>", "~<!---->~<root/>"),
                  [](const QDomDocument& dom) { Documents::kindOf(dom); });
        const QByteArray list = "<root><device><serviceList>";
        const QByteArray listEnd = "</serviceList></device></root>";
        const QByteArray whole =
            "<service><serviceType>a</serviceType><serviceId>b</serviceId><SCPDURL>c</SCPDURL>"
            "<controlURL>d</controlURL><eventSubURL>e</eventSubURL></service>";
        documents("services",
                  listOf(list + "~<service/>~" + listEnd, list + "~<other/>~" + listEnd,
                         list + '~' + whole + '~' + listEnd, list + "<service>~<x/>~</service>" + listEnd,
                         "<root><device>~<x/>~<serviceList><service/>" + listEnd,
                         list + "<service><SCPDURL>~<![CDATA[x]]>~</SCPDURL></service>" + listEnd),
                  [](const QDomDocument& dom) { Documents::services(dom); });
        const QByteArray table = "<scpd><serviceStateTable>";
        const QByteArray tableEnd = "</serviceStateTable></scpd>";
        documents("state variables",
                  listOf(table + "~<stateVariable><name>a</name></stateVariable>~" + tableEnd,
                         table + "<stateVariable>~<x/>~</stateVariable>" + tableEnd),
                  [](const QDomDocument& dom) { Documents::stateVariables(dom); });
        documents("properties",
                  listOf("<e:propertyset>~<e:property><a>b</a></e:property>~</e:propertyset>",
                         "<e:propertyset>~<e:property/>~</e:propertyset>",
                         "<e:propertyset><e:property>~<!---->~</e:property></e:propertyset>"),
                  [](const QDomDocument& dom) { Documents::properties(dom); });
    }

    static void controlPointRows()
    {
        row("event", "many variables", 500, [](int size) { return eventWork(manyNames(size)); });
        row("event", "variables with the same hash on Qt 5", 500,
            [](int size) { return eventWork(manyNames(size, true)); });
        row("event", "one variable again and again", 500, [](int size) {
            QList<QByteArray> names;
            for (int i = 0; i < size; ++i)
                names << "KO";
            return eventWork(names);
        });
        const auto announcements = [](const char* kind, int many, const QString& location) {
            row("announcements", kind, many, [location](int size) -> Work {
                return [location, size] {
                    SsdpManager manager{QHostAddress(QHostAddress::LocalHost)};
                    for (int i = 0; i < size; ++i)
                        ManagerAccess(manager).addSsdpDevice(QHostAddress(QHostAddress::LocalHost),
                                                             QString(location).replace('#', QString::number(i)));
                    manager.clearDevices();
                    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
                };
            });
        };
        // The records and requests of 200 locations fit in the cache of a processor.
        announcements("different locations", 50, "none:/#");
        announcements("one location", 1000, "none:/");
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (SANITIZED)
            QSKIP("AddressSanitizer takes time, too");
        // Without these settings, free() returns large blocks to the kernel. That takes as long as the work.
        mallopt(M_MMAP_THRESHOLD, 32 * KIB * KIB);
        mallopt(M_TRIM_THRESHOLD, 1024 * KIB * KIB);
    }

    void timeGrowsWithTheLength_data()
    {
        const Table<int, Maker> row("size", "maker");
        textRows();
        replyRows();
        documentRows();
        controlPointRows();
    }

    void timeGrowsWithTheLength()
    {
        QFETCH(const int, size);
        QFETCH(const Maker, maker);
        const Work works[] = {maker(size), maker(2 * size), maker(4 * size)};
        // The log lines are made, but not written.
        const QtMessageHandler before = qInstallMessageHandler(dropMessage);
        int times = 1;
        while (timeOf(works[0], times) < MIN_RUN)
            times *= 2;

        const qint64 never = std::numeric_limits<qint64>::max();
        qint64 shortest[] = {never, never, never};
        const auto isLinear = [&] { return double(shortest[2]) <= MAX_GROWTH * double(shortest[0]); };
        // Other programs only make a run longer. So the shortest run counts.
        for (int run = 0; run < MAX_RUNS; ++run) {
            for (int i = 0; i < 3; ++i)
                shortest[i] = qMin(shortest[i], timeOf(works[i], times));
            if (run + 1 >= RUNS && isLinear())
                break;
        }
        qInstallMessageHandler(before);
        QVERIFY2(isLinear(),
                 qPrintable("%1 times: %2, %3 and %4 microseconds"_s.arg(times)
                                .arg(shortest[0])
                                .arg(shortest[1])
                                .arg(shortest[2])));
    }
};

QTEST_GUILESS_MAIN(LinearTest)
#include "tst_linear.moc"

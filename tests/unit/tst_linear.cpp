#include <log/Logger.h>
#include <ssdp/BoundedXml.h>
#include <ssdp/Documents.h>
#include <ssdp/HttpReader.h>
#include <ssdp/KeyObject.h>
#include <ssdp/Latin1Text.h>
#include <ssdp/Protocol.h>
#include <tests/support/Linear.h>
#include <tests/support/Literals.h>
#include <tests/support/ManagerAccess.h>
#include <tests/support/NamesAlike.h>
#include <tests/support/Table.h>

#include <QtXml/QDomDocument>

#include <memory>

using namespace Velmora::Tests;
using namespace Velmora::SSDP;
using Velmora::Log::Logger;

Q_DECLARE_METATYPE(Maker)

namespace {

const int KIB = 1024;

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

/// The library reads every message in linear time, whatever its content is.
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
        texts("header value", 16 * KIB,
              listOf("~SID\n", "~SID", "~\n", "~:SID\n", "~SI\n", "SID:~ ~x", "SID~:", "~S: x\n~SID: x"),
              [](const QString& input) { Protocol::headerValue(input, "SID"); });
        texts("event path", 16 * KIB,
              listOf("NOTIFY ~/~ HTTP/1.1\n", "NOTIFY~ ", "~x", "NOTIFY ~{", "NOTIFY 6f9619ff-~/~8b86",
                     "NOTIFY /~a", "NOTIFY / HTTP/1.1\n~x\n"),
              [](const QString& input) {
                  QUuid identifier;
                  Protocol::readEventIdentifier(input, &identifier);
              });
        texts("subscription identifier", 16 * KIB,
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
        texts("key object", 8 * KIB, listOf("~;~1,2", "~,~1,2", "~1,2,3;~1,2", "~ ~1,2", "~1~1,2"),
              [](const QString& input) {
                  KeyObject read = {};
                  readKeyObject(input, &read);
              });
        texts("log line", 16 * KIB, listOf("~x", "~\x1b", "~\n", "~%1"),
              [](const QString& input) { Logger(Logger::Information) << "piece" << input; });
        row("text", "up to the zero byte", 16 * KIB, [](int size) -> Work {
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
            const int unit = segment == 1 ? KIB : 4 * KIB;
            replies(2 * unit, heads);
            replies(8 * unit, bodies);
            replies(4 * unit, chunks);
        }
        row("body", "taken byte by byte", 32 * KIB, [](int size) -> Work {
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
        texts("XML bounds", 16 * KIB,
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
        texts("parsed", 4 * KIB,
              listOf("<r>~<a/>~</r>", "<r>~<a b='' c='' d='' e=''/>~</r>", "<r>~<!---->~</r>",
                     "<r>~<![CDATA[]]>~</r>", "<r>~<?p?>~</r>", "<r>~<a/>"),
              parse);
        texts("parsed", 8 * KIB, listOf("<r>~x~</r>", "<r>~&#65;~</r>", "<~a~/>", "<a b='~x~'/>", "~x"), parse);

        const auto documents = [](const char* group, const QList<QByteArray>& shapes,
                                  const std::function<void(const QDomDocument&)>& function) {
            for (const QByteArray& shape : shapes) {
                row(group, shape, 16 * KIB, [=](int size) -> Work {
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
        row("event", "many variables", 250, [](int size) { return eventWork(manyNames(size)); });
        row("event", "variables with the same hash on Qt 5", 250,
            [](int size) { return eventWork(manyNames(size, true)); });
        row("event", "one variable again and again", 250, [](int size) {
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
                    QCoreApplication::sendPostedEvents();
                    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
                };
            });
        };
        announcements("different locations", 1000, "none:/#");
        announcements("one location", 500, "none:/");
    }

private Q_SLOTS:
    void timeIsLinear_data()
    {
        const Table<int, Maker> row("size", "maker");
        textRows();
        replyRows();
        documentRows();
        controlPointRows();
    }

    void timeIsLinear()
    {
        QFETCH(const int, size);
        QFETCH(const Maker, maker);
        // The log lines are made, but not written.
        const QtMessageHandler before = qInstallMessageHandler(dropMessage);
        const auto restore = qScopeGuard([before] { qInstallMessageHandler(before); });
        VERIFY_LINEAR(maker, size);
    }
};

QTEST_GUILESS_MAIN(LinearTest)
#include "tst_linear.moc"

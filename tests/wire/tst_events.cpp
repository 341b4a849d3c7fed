#include <tests/support/Literals.h>
#include <tests/support/WireTest.h>

using namespace Velmora::Tests;
using Velmora::SSDP::SsdpDevice;
using Velmora::SSDP::SsdpManager;
using Velmora::SSDP::SsdpService;

namespace {

const char NOT_PARSED[] = "1|void Velmora::SSDP::SsdpManager::updateStateVariables("
                          "Velmora::SSDP::SsdpService*, const QString&)|Could not parse event xml";

} // namespace

/// What the event server takes for an event, and what becomes of it.
class EventsTest : public WireTest
{
    Q_OBJECT

public:
    using WireTest::WireTest;

private Q_SLOTS:

    void init()
    {
        WireTest::init();
        QVERIFY(findDevice());
        changes.clear();
        connect(ssdp->findChild<SsdpManager*>(), &SsdpManager::valueChanged, this,
                [this](const SsdpDevice* from, const SsdpService* service, const QString& name) {
                    changes << name + QLatin1Char('=') + service->stateVariables.value(name);
                    QVERIFY(from == manager().devices().at(0));
                    QVERIFY(from->services.contains(const_cast<SsdpService*>(service)));
                });
    }

    void bodyMayBeOneCharacterShort_data()
    {
        QTest::addColumn<int>("length");
        QTest::newRow("one short") << 119;
        QTest::newRow("exact") << 120;
        QTest::newRow("one too long") << 121;
        QTest::newRow("much too long") << 5000;
    }

    void bodyMayBeOneCharacterShort()
    {
        QFETCH(const int, length);
        Connection* const connection = sendHead(callback(), "120");
        QVERIFY(connection);
        connection->send(bodyOf(length));
        VERIFY_SOON(!connection->isOpen());
        QCOMPARE(reports, QStringList{REPORT});
        VERIFY_SOON(nothingIsListed());
    }

    void bodyTwoCharactersShortWaitsForMore()
    {
        Connection* const connection = sendHead(callback(), "120");
        QVERIFY(connection);
        connection->send(bodyOf(118));
        VERIFY_SOON(connection->wasRead());
        QVERIFY(sendLastEvent());
        QCOMPARE(reports, QStringList{LAST_REPORT});
        QVERIFY(connection->isOpen());
        QCOMPARE(manager().responseBuffers().size(), 1);

        connection->send("\n");
        VERIFY_SOON(!connection->isOpen());
        QCOMPARE(reports, (QStringList{LAST_REPORT, REPORT}));
    }

    void bodyInTheChunkOfTheHeadIsDropped()
    {
        const QByteArray body = eventBody("KO", "12,34");
        Connection* const connection = sendAndWait("NOTIFY " + callback().path + " HTTP/1.1\r\nCONTENT-LENGTH: "
                                                   + QByteArray::number(body.size()) + "\r\n\r\n" + body);
        QVERIFY(connection);
        QVERIFY(sendLastEvent());
        QCOMPARE(reports, QStringList{LAST_REPORT});
        QCOMPARE(changes, QStringList{"KO=77,1"});
        QVERIFY(connection->isOpen());
        QCOMPARE(manager().requestSockets().size(), 1);
        QCOMPARE(manager().responseBuffers().values(), QStringList{QString()});

        connection->close();
        VERIFY_SOON(nothingIsListed());
        QCOMPARE(reports, QStringList{LAST_REPORT});
    }

    void headDecidesTheLengthOfTheBody_data()
    {
        const QByteArray length = QByteArray::number(eventBody("KO", "12,34").size());
        QTest::addColumn<QByteArray>("header");
        QTest::newRow("none") << QByteArray();
        QTest::newRow("zero") << "CONTENT-LENGTH: 0\r\n"_ba;
        QTest::newRow("one") << "CONTENT-LENGTH: 1\r\n"_ba;
        QTest::newRow("empty") << "CONTENT-LENGTH:\r\n"_ba;
        QTest::newRow("no number") << "CONTENT-LENGTH: many\r\n"_ba;
        QTest::newRow("hexadecimal") << "CONTENT-LENGTH: 0x1000\r\n"_ba;
        QTest::newRow("a number and more") << "CONTENT-LENGTH: 5000 bytes\r\n"_ba;
        QTest::newRow("beyond int") << "CONTENT-LENGTH: 99999999999\r\n"_ba;
        QTest::newRow("beyond int, negative") << "CONTENT-LENGTH: -99999999999\r\n"_ba;
        QTest::newRow("exact") << "CONTENT-LENGTH: " + length + "\r\n";
        QTest::newRow("line feed only") << "CONTENT-LENGTH: " + length + "\n";
        QTest::newRow("blanks around") << "CONTENT-LENGTH :  " + length + "\t\r\n";
        QTest::newRow("sign") << "CONTENT-LENGTH: +" + length + "\r\n";
        QTest::newRow("letter case") << "content-Length: " + length + "\r\n";
        QTest::newRow("a longer name") << "CONTENT-LENGTHY: " + length + "\r\n";
        QTest::newRow("the first of two") << "CONTENT-LENGTH: " + length + "\r\nCONTENT-LENGTH: 5000\r\n";
    }

    void headDecidesTheLengthOfTheBody()
    {
        QFETCH(const QByteArray, header);
        Connection* const connection =
            sendAndWait("NOTIFY " + callback().path + " HTTP/1.1\r\nNT: upnp:event\r\n" + header + "\r\n");
        QVERIFY(connection);
        QCOMPARE(reports, QStringList());
        connection->send(eventBody("KO", "12,34"));
        VERIFY_SOON(!connection->isOpen());
        QCOMPARE(reports, QStringList{REPORT});
        VERIFY_SOON(nothingIsListed());
    }

    void negativeLengthKeepsTheConnectionInTheHeadAndLeavesNoEntry()
    {
        const QByteArray body = eventBody("KO", "12,34");
        Connection* const connection = sendHead(callback(), "-1");
        QVERIFY(connection);
        // A chunk that is no event but a head again, and one that is of no service.
        connection->send(body);
        VERIFY_SOON(!connection->isOpen());
        VERIFY_SOON(nothingIsListed());

        Connection* const patient = sendHead(callback(), "-120");
        QVERIFY(patient);
        for (int i = 0; i < 3; ++i) {
            patient->send("NOTIFY " + callback().path + " HTTP/1.1\r\nCONTENT-LENGTH: -1\r\n\r\n" + body);
            VERIFY_SOON(patient->wasRead());
        }
        QCOMPARE(reports, QStringList());
        QCOMPARE(manager().requestSockets().size(), 1);
        patient->send("NOTIFY " + callback().path
                      + " HTTP/1.1\r\nCONTENT-LENGTH: " + QByteArray::number(body.size()) + "\r\n\r\n");
        VERIFY_SOON(patient->wasRead());
        patient->send(body);
        VERIFY_SOON(!patient->isOpen());
        QCOMPARE(reports, QStringList{REPORT});
        VERIFY_SOON(nothingIsListed());

        Connection* const endedByThePeer = sendHead(callback(), "-1");
        QVERIFY(endedByThePeer);
        endedByThePeer->send("NOTIFY " + callback().path + " HTTP/1.1\r\nCONTENT-LENGTH: -1\r\n\r\n");
        VERIFY_SOON(endedByThePeer->wasRead());
        endedByThePeer->close();
        VERIFY_SOON(nothingIsListed());
        QVERIFY(sendLastEvent());
    }

    void bodyMayComeInManyChunks()
    {
        const QByteArray body = eventBody("KO", "12,34");
        Connection* const connection = sendHead(callback(), QByteArray::number(body.size()));
        QVERIFY(connection);
        int sent = 0;
        for (; sent + 10 < body.size(); sent += 10) {
            connection->send(body.mid(sent, 10));
            VERIFY_SOON(connection->wasRead());
            QCOMPARE(reports, QStringList());
        }
        connection->send(body.mid(sent));
        VERIFY_SOON(!connection->isOpen());
        QCOMPARE(reports, QStringList{REPORT});
    }

    void zeroByteEndsTheTextOfItsChunk()
    {
        const QByteArray body = eventBody("KO", "12,34");
        Connection* const connection = sendHead(callback(), QByteArray::number(body.size()));
        QVERIFY(connection);
        connection->send(body.left(50) + '\0' + QByteArray(5000, 'x'));
        VERIFY_SOON(connection->wasRead());
        connection->send(QByteArray(5000, '\0'));
        VERIFY_SOON(connection->wasRead());
        QVERIFY(connection->isOpen());
        connection->send(body.mid(50) + '\0' + "<x>");
        VERIFY_SOON(!connection->isOpen());
        QCOMPARE(reports, QStringList{REPORT});
    }

    void zeroByteEndsTheHead()
    {
        Connection* const connection =
            sendAndWait("NOTIFY " + callback().path + " HTTP/1.1\r\n" + '\0' + "CONTENT-LENGTH: 5000\r\n\r\n");
        QVERIFY(connection);
        connection->send(eventBody("KO", "12,34"));
        VERIFY_SOON(!connection->isOpen());
        QCOMPARE(reports, QStringList{REPORT});
    }

    void requestLineFindsTheService_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::newRow("as subscribed") << "NOTIFY /ID_%4 HTTP/1.1"_ba;
        QTest::newRow("no tail") << "NOTIFY /ID HTTP/1.1"_ba;
        QTest::newRow("another tail") << "NOTIFY /ID-1234/a?b#c HTTP/1.1"_ba;
        QTest::newRow("no protocol") << "NOTIFY /ID_%4"_ba;
        QTest::newRow("another method") << "GET /ID_%4 HTTP/0.9"_ba;
        QTest::newRow("no method") << " /ID_%4"_ba;
        QTest::newRow("no slash") << "NOTIFY ID_%4 HTTP/1.1"_ba;
        QTest::newRow("many slashes") << "NOTIFY //ID/_%4/ HTTP/1.1"_ba;
        QTest::newRow("slashes within") << "NOTIFY /I/D_%4 HTTP/1.1"_ba;
        QTest::newRow("upper case") << "NOTIFY /UPPER_%4 HTTP/1.1"_ba;
        QTest::newRow("braces") << "NOTIFY /{ID} HTTP/1.1"_ba;
    }

    void requestLineFindsTheService()
    {
        QFETCH(QByteArray, line);
        const QByteArray id = callback().path.mid(1, 36);
        line.replace("UPPER", id.toUpper()).replace("I/D", id.left(9) + "/" + id.mid(9)).replace("ID", id);
        Connection* const connection = sendAndWait(line + "\r\nHOST: 10.77.0.1\r\n\r\n");
        QVERIFY(connection);
        connection->send(eventBody("KO", "12,34"));
        VERIFY_SOON(!connection->isOpen());
        QCOMPARE(reports, QStringList{REPORT});
    }

    void requestLineWithoutAServiceClosesTheConnection_data()
    {
        QTest::addColumn<QByteArray>("head");
        QTest::newRow("unknown identifier")
            << "NOTIFY /6f9619ff-8b86-d011-b42d-00c04fc964ff_%4 HTTP/1.1\r\nCONTENT-LENGTH: 5\r\n\r\n"_ba;
        QTest::newRow("unknown identifier, negative length")
            << "NOTIFY /6f9619ff-8b86-d011-b42d-00c04fc964ff_%4 HTTP/1.1\r\nCONTENT-LENGTH: -5\r\n\r\n"_ba;
        QTest::newRow("no identifier") << "NOTIFY /event HTTP/1.1\r\nCONTENT-LENGTH: 5\r\n\r\n"_ba;
        QTest::newRow("null identifier") << "NOTIFY /00000000-0000-0000-0000-000000000000_%4 HTTP/1.1\r\n\r\n"_ba;
        QTest::newRow("uuid: in front") << "NOTIFY /uuid:ID_%4 HTTP/1.1\r\n\r\n"_ba;
        QTest::newRow("35 characters of it") << "NOTIFY /CUT HTTP/1.1\r\n\r\n"_ba;
        QTest::newRow("two blanks") << "NOTIFY  /ID_%4 HTTP/1.1\r\n\r\n"_ba;
        QTest::newRow("a tab for the blank") << "NOTIFY\t/ID_%4\tHTTP/1.1\r\n\r\n"_ba;
        QTest::newRow("one field") << "/ID_%4\r\n\r\n"_ba;
        QTest::newRow("in the second line") << "\r\nNOTIFY /ID_%4 HTTP/1.1\r\n\r\n"_ba;
        QTest::newRow("behind a zero byte") << "NOTIFY "_ba + '\0' + "/ID_%4 HTTP/1.1\r\n\r\n";
        QTest::newRow("an empty line") << "\n"_ba;
        QTest::newRow("a zero byte") << QByteArray(1, '\0');
    }

    void requestLineWithoutAServiceClosesTheConnection()
    {
        QFETCH(QByteArray, head);
        const QByteArray id = callback().path.mid(1, 36);
        head.replace("ID", id).replace("CUT", id.left(35));
        const QStringList before = log();
        Connection* const connection = device->connectTo(callback().host, callback().port);
        connection->send(head);
        VERIFY_SOON(!connection->isOpen());
        QCOMPARE(connection->received, QByteArray());
        VERIFY_SOON(nothingIsListed());
        QCOMPARE(log(), before);
        QVERIFY(sendLastEvent());
        QCOMPARE(reports, QStringList{LAST_REPORT});
    }

    void bodySetsStateVariables_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QStringList>("expected");
        const auto set = [](const QByteArray& properties) {
            return "<e:propertyset xmlns:e=\"urn:schemas-upnp-org:event-1-0\">" + properties + "</e:propertyset>";
        };
        const auto texts = [](const QList<QByteArray>& list) {
            QStringList result;
            for (const QByteArray& text : list)
                result << QString::fromLatin1(text);
            return result;
        };

        QTest::newRow("two properties")
            << set("<e:property><KO1>a</KO1></e:property><e:property><KO2>b</KO2></e:property>")
            << texts({"KO1=a", "KO2=b"});
        QTest::newRow("two properties, the other way round")
            << set("<e:property><KO2>b</KO2></e:property><e:property><KO1>a</KO1></e:property>")
            << texts({"KO2=b", "KO1=a"});
        QTest::newRow("the same variable twice")
            << set("<e:property><A>1</A></e:property><e:property><A>2</A></e:property>") << texts({"A=1", "A=2"});
        QTest::newRow("two elements in a property")
            << set("<e:property><A>1</A><B>2</B></e:property>") << texts({"A=1"});
        QTest::newRow("text in front of the element")
            << set("<e:property>x<A>1</A></e:property>") << texts({"A=1"});
        QTest::newRow("property without an element") << set("<e:property/>") << texts({"="});
        QTest::newRow("property with text only") << set("<e:property>x</e:property>") << texts({"="});
        QTest::newRow("empty value") << set("<e:property><A/></e:property>") << texts({"A="});
        QTest::newRow("blanks are kept") << set("<e:property><A> 1 \n2 </A></e:property>") << texts({"A= 1 \n2 "});
        QTest::newRow("entities and CDATA")
            << set("<e:property><A>&lt;&amp;&#65;<![CDATA[<b>]]></A></e:property>") << texts({"A=<&A<b>"});
        QTest::newRow("elements within the value")
            << set("<e:property><A>1<b>2</b>3</A></e:property>") << texts({"A=123"});
        QTest::newRow("8-bit text") << set("<e:property><A>\xe9</A></e:property>") << texts({"A=\xe9"});
        QTest::newRow("variable with a prefix")
            << set("<e:property><e:A>1</e:A></e:property>") << texts({"e:A=1"});
        QTest::newRow("no namespace") << "<e:propertyset><e:property><A>1</A></e:property></e:propertyset>"_ba
                                      << texts({"A=1"});
        QTest::newRow("other elements between the properties")
            << set("<x/><e:property><A>1</A></e:property><property><B>2</B></property>"
                   "<e:property><C>3</C></e:property>")
            << texts({"A=1", "C=3"});
        QTest::newRow("empty property set") << set("") << QStringList();
        QTest::newRow("no prefix") << "<propertyset><property><A>1</A></property></propertyset>"_ba
                                   << QStringList();
        QTest::newRow("another prefix")
            << "<f:propertyset><f:property><A>1</A></f:property></f:propertyset>"_ba << QStringList();
        QTest::newRow("property without a prefix") << set("<property><A>1</A></property>") << QStringList();
        QTest::newRow("other letter case") << set("<e:Property><A>1</A></e:Property>") << QStringList();
        QTest::newRow("deeper property") << set("<x><e:property><A>1</A></e:property></x>") << QStringList();
        QTest::newRow("deeper property set")
            << "<x>" + set("<e:property><A>1</A></e:property>") + "</x>" << QStringList();
    }

    void bodySetsStateVariables()
    {
        QFETCH(const QByteArray, body);
        QFETCH(const QStringList, expected);
        const QStringList before = log();
        QVERIFY(sendEvent(callback(), body));
        QCOMPARE(changes, expected);
        QCOMPARE(log(), before);
        QVERIFY(manager().devices().at(0)->services.at(0)->stateVariables.value("KO").isNull());
        QVERIFY(sendLastEvent());
        QCOMPARE(reports, QStringList{LAST_REPORT});
    }

    void bodyThatDoesNotParseIsLogged_data()
    {
        QByteArray attributes;
        for (int i = 0; i < 257; ++i)
            attributes += " a" + QByteArray::number(i) + "=''";
        const QByteArray good = eventBody("KO", "12,34");
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("no XML") << "KO=12,34"_ba;
        QTest::newRow("cut") << good.left(good.size() - 1);
        QTest::newRow("deeper than 128 levels") << "<a>"_ba.repeated(129) + "</a>"_ba.repeated(129);
        QTest::newRow("more than 256 attributes") << QByteArray(good).replace("<KO>", "<KO" + attributes + ">");
        QTest::newRow("internal subset")
            << QByteArray(good).replace("<e:propertyset ", "<!DOCTYPE a [<!ENTITY b 'c'>]><e:propertyset ");
    }

    void bodyThatDoesNotParseIsLogged()
    {
        QFETCH(const QByteArray, body);
        const auto lines = log().size();
        QVERIFY(sendEvent(callback(), body));
        QCOMPARE(log().mid(lines), QStringList{QLatin1String(NOT_PARSED)});
        QCOMPARE(CapturedLog::lines().constLast().pieces.size(), 2);
        QCOMPARE(changes, QStringList());
        QCOMPARE(manager().devices().at(0)->services.at(0)->stateVariables.size(), 1);
        VERIFY_SOON(nothingIsListed());
        QVERIFY(sendLastEvent());
    }

    void laterEventKeepsTheKeyObject()
    {
        const auto& variables = manager().devices().at(0)->services.at(0)->stateVariables;
        QVERIFY(sendEvent(callback(), eventBody("KO", "12,34")));
        QVERIFY(sendEvent(callback(), eventBody("Ko", "1,1")));
        QVERIFY(sendEvent(callback(), eventBody("KO2", "2,2")));
        QCOMPARE(variables.value("KO"), "12,34"_s);
        QCOMPARE(reports, QStringList{REPORT});
        QCOMPARE(changes, (QStringList{"KO=12,34", "Ko=1,1", "KO2=2,2"}));
        QCOMPARE(variables.size(), 3);
    }

    void connectionMayEndAtAnyTime_data()
    {
        QTest::addColumn<int>("chunks");
        QTest::addColumn<bool>("hard");
        QTest::newRow("closed without a byte") << 0 << false;
        QTest::newRow("reset without a byte") << 0 << true;
        QTest::newRow("closed after the head") << 1 << false;
        QTest::newRow("reset after the head") << 1 << true;
        QTest::newRow("closed within the body") << 2 << false;
        QTest::newRow("reset within the body") << 2 << true;
    }

    void connectionMayEndAtAnyTime()
    {
        QFETCH(const int, chunks);
        QFETCH(const bool, hard);
        Connection* const connection =
            chunks == 0 ? device->connectTo(callback().host, callback().port) : sendHead(callback(), "120");
        QVERIFY(connection);
        if (chunks == 2) {
            connection->send(bodyOf(118));
            VERIFY_SOON(connection->wasRead());
        }
        QCOMPARE(manager().requestSockets().size(), chunks == 0 ? 0 : 1);
        if (hard)
            connection->reset();
        else
            connection->close();
        VERIFY_SOON(nothingIsListed());
        QVERIFY(sendLastEvent());
        QCOMPARE(reports, QStringList{LAST_REPORT});
    }

    void connectionMaySayNothing()
    {
        const Connection* const silent = device->connectTo(callback().host, callback().port);
        QVERIFY(sendLastEvent());
        QVERIFY(silent->isOpen());
        VERIFY_SOON(nothingIsListed());
    }

    void eventsOfSeveralConnectionsDoNotMix()
    {
        const QByteArray first = eventBody("KO", "1,1");
        const QByteArray second = eventBody("KO", "2,2");
        Connection* const one = sendHead(callback(), QByteArray::number(first.size()));
        Connection* const two = sendHead(callback(), QByteArray::number(second.size()));
        QVERIFY(one && two);
        one->send(first.left(90));
        two->send(second.left(80));
        VERIFY_SOON(one->wasRead() && two->wasRead());
        two->send(second.mid(80));
        VERIFY_SOON(!two->isOpen());
        one->send(first.mid(90));
        VERIFY_SOON(!one->isOpen());
        QCOMPARE(reports, (QStringList{"2,2 at 10.77.1.1", "1,1 at 10.77.1.1"}));
    }

    void sameEventTwiceGivesTheSameReportTwice()
    {
        const auto lines = log().size();
        QVERIFY(sendEvent(callback(), eventBody("KO", "12,34")));
        QVERIFY(sendEvent(callback(), eventBody("KO", "12,34")));
        QCOMPARE(reports, (QStringList{REPORT, REPORT}));
        const QString line = "0|Device with FC:12 and UC:34 found at 10.77.1.1"_s;
        QCOMPARE(log().mid(lines), (QStringList{line, line}));
    }

    void keyObjectIsReported_data()
    {
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<QString>("report");
        QTest::newRow("one entry") << "12,34"_ba
                                   << "12,34 at 10.77.1.1";
        QTest::newRow("two entries") << "12,34;56,78"_ba
                                     << "12,34 at 10.77.1.1";
        QTest::newRow("the first well-formed") << "7;1,2,3;4,5"_ba
                                               << "4,5 at 10.77.1.1";
        QTest::newRow("empty last entry") << "1,2;"_ba
                                          << "1,2 at 10.77.1.1";
        QTest::newRow("empty function code") << ",5"_ba
                                             << "0,5 at 10.77.1.1";
        QTest::newRow("letters") << "x,9"_ba
                                 << "0,9 at 10.77.1.1";
        QTest::newRow("blank") << "12, 34"_ba
                               << "12,34 at 10.77.1.1";
        QTest::newRow("negative") << "-12,34"_ba
                                  << "-12,34 at 10.77.1.1";
        QTest::newRow("eleven digits") << "12345678901,1"_ba
                                       << "0,1 at 10.77.1.1";
        QTest::newRow("empty") << QByteArray() << QString();
        QTest::newRow("one part") << "12"_ba << QString();
        QTest::newRow("three parts") << "1,2,3"_ba << QString();
    }

    void keyObjectIsReported()
    {
        QFETCH(const QByteArray, value);
        QFETCH(const QString, report);
        const auto lines = log().size();
        QVERIFY(sendEvent(callback(), eventBody("KO", value)));
        QCOMPARE(changes, QStringList{"KO="_s + QString::fromLatin1(value)});
        QCOMPARE(reports, report.isNull() ? QStringList() : QStringList{report});
        QCOMPARE(log().size() - lines, reports.size());
    }

    void eventAfterStopIsReported()
    {
        ssdp->stop();
        QVERIFY(sendEvent(callback(), eventBody("KO", "12,34")));
        QCOMPARE(reports, QStringList{REPORT});
        QCOMPARE(timeouts, 0);
    }

    void eventAfterTheTimeoutIsReported()
    {
        QTimer* const timer = ssdp->findChild<QTimer*>();
        timer->start(0);
        VERIFY_SOON(timeouts == 1);
        QVERIFY(sendEvent(callback(), eventBody("KO", "12,34")));
        QCOMPARE(reports, QStringList{REPORT});
    }

    void nothingIsEverAnswered()
    {
        const QByteArray body = eventBody("KO", "12,34");
        Connection* const good = sendHead(callback(), QByteArray::number(body.size()));
        QVERIFY(good);
        good->send(body);
        VERIFY_SOON(!good->isOpen());
        Connection* const bad = sendHead(callback(), "5");
        QVERIFY(bad);
        bad->send("<bad>");
        VERIFY_SOON(!bad->isOpen());
        QCOMPARE(good->received + bad->received, QByteArray());
    }

private:
    /// An event body of exactly @p length characters with KO = 12,34.
    static QByteArray bodyOf(int length)
    {
        const QByteArray body("<e:propertyset><e:property><KO>12,34</KO></e:property></e:propertyset>");
        return body + QByteArray(length - static_cast<int>(body.size()), '\n');
    }

    bool nothingIsListed() const
    {
        return manager().requestSockets().isEmpty() && manager().requestSocketServices().isEmpty()
            && manager().responseContentLengths().isEmpty() && manager().responseBuffers().isEmpty();
    }

    /// A connection to the event server on which @p bytes were sent and read.
    Connection* sendAndWait(const QByteArray& bytes)
    {
        Connection* const connection = device->connectTo(callback().host, callback().port);
        connection->send(bytes);
        return waitUntil([&] { return connection->wasRead(); }) ? connection : nullptr;
    }

    const QString REPORT{"12,34 at 10.77.1.1"_s};
    const QString LAST_REPORT{"77,1 at 10.77.1.1"_s};
    QStringList changes;
};

VELMORA_WIRE_TEST_MAIN(EventsTest)

#include "tst_events.moc"

#include <ssdp/SsdpManager.h>
#include <tests/support/CapturedLog.h>
#include <tests/support/Literals.h>
#include <tests/support/ManagerAccess.h>

#include <QtCore/QFile>
#include <QtCore/QSet>
#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>
#include <QtTest/QtTest>

using namespace Velmora;
using namespace Velmora::Tests;
using namespace Velmora::SSDP;

namespace {

const char PARSE_RESPONSE[] = "1|void Velmora::SSDP::SsdpManager::handleServerResponse(QNetworkReply*)"
                              "|Could not parse server response|";
const char UPDATE_VARIABLES[] = "1|void Velmora::SSDP::SsdpManager::updateStateVariables("
                                "Velmora::SSDP::SsdpService*, const QString&)|";

/// Serves the documents that it is given, each under a path of its own, on loopback.
class DocumentServer : public QTcpServer
{
public:
    DocumentServer()
    {
        if (!listen(QHostAddress(QHostAddress::LocalHost)))
            qFatal("%s", qPrintable(errorString()));
        connect(this, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket* const socket = nextPendingConnection()) {
                connect(socket, &QTcpSocket::readyRead, this, [this, socket] { answer(socket); });
                connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
            }
        });
    }

    /// Returns the path of @p document from now on.
    QString add(const QByteArray& document)
    {
        documents << document;
        return "/%1"_s.arg(documents.size() - 1);
    }

    QString location(const QString& path) const { return "http://127.0.0.1:%1%2"_s.arg(serverPort()).arg(path); }

private:
    void answer(QTcpSocket* socket) const
    {
        const QByteArray path = socket->readAll().split(' ').value(1);
        const QByteArray document = documents.value(path.mid(1).toInt());
        socket->write("HTTP/1.1 200 OK\r\nContent-Length: " + QByteArray::number(document.size()) + "\r\n\r\n"
                      + document);
    }

    QList<QByteArray> documents;
};

QByteArray serviceElement(const QByteArray& type, const QByteArray& url)
{
    return "<service><serviceType>" + type + "</serviceType><SCPDURL>" + url + "</SCPDURL></service>";
}

QByteArray deviceDescription(const QByteArray& services)
{
    return "<root xmlns=\"urn:schemas-upnp-org:device-1-0\"><device><serviceList>" + services
        + "</serviceList></device></root>";
}

int messagesOfQt = 0;

void countMessage(QtMsgType, const QMessageLogContext&, const QString&)
{
    ++messagesOfQt;
}

} // namespace

/// What the control point logs of the network, in a libLog.so.2 that was built by itself.
class LogLinesTest : public QObject
{
    Q_OBJECT

private:
    DocumentServer server;
    QScopedPointer<SsdpManager> manager;

    /// Lets a device be found, and waits until nothing is asked for any more.
    void find(const QString& location)
    {
        ManagerAccess access(*manager);
        access.addSsdpDevice(QHostAddress("10.77.1.1"), location);
        QTRY_VERIFY(access.deviceReplies().isEmpty());
    }

    void findDocument(const QByteArray& document) { find(server.location(server.add(document))); }

private Q_SLOTS:
    void init()
    {
        manager.reset(new SsdpManager(QHostAddress(QHostAddress::LocalHost)));
        CapturedLog::clear();
    }

    void cleanup() { manager.reset(); }

    void substituteIsTheOnlyLogLibraryOfTheProcess()
    {
        QFile maps("/proc/self/maps"_s);
        QVERIFY(maps.open(QIODevice::ReadOnly));
        QSet<QByteArray> libraries;
        const QList<QByteArray> lines = maps.readAll().split('\n');
        for (const QByteArray& line : lines) {
            if (line.contains("/libLog.so."))
                libraries << line.mid(line.indexOf('/'));
        }
        QCOMPARE(libraries.size(), qsizetype(1));
        QVERIFY2((*libraries.constBegin()).contains("/tests/support/libLog.so.2"),
                 (*libraries.constBegin()).constData());
    }

    void substituteGetsTheLinesAndQtNone()
    {
        messagesOfQt = 0;
        const QtMessageHandler previous = qInstallMessageHandler(countMessage);
        ManagerAccess(*manager).updateStateVariables(nullptr, QString());
        qInstallMessageHandler(previous);
        QCOMPARE(messagesOfQt, 0);
        QCOMPARE(CapturedLog::lines().size(), qsizetype(1));
    }

    void deviceIsLoggedWithItsLocation()
    {
        ManagerAccess access(*manager);
        access.addSsdpDevice(QHostAddress("10.77.1.1"), "none:/%1"_s);
        QCOMPARE(CapturedLog::lines().size(), qsizetype(1));
        QCOMPARE(CapturedLog::lines().constFirst().severity, 0);
        QCOMPARE(CapturedLog::lines().constFirst().pieces, (QStringList{"Ssdp device", "none:/%1"}));
        access.addSsdpDevice(QHostAddress("10.77.1.2"), "none:/%1"_s);
        QCOMPARE(CapturedLog::lines().size(), qsizetype(1));
    }

    void everyServiceIsLoggedWithItsUrl()
    {
        const QString location = server.location(server.add(deviceDescription(
            serviceElement("a", "/a.xml") + serviceElement("b", "") + serviceElement("c", "c.xml"))));
        find(location);
        QCOMPARE(CapturedLog::all(),
                 (QStringList{"0|Ssdp device|"_s + location, "0|SSDP Device service|/a.xml"_s,
                              "0|SSDP Device service|"_s, "0|SSDP Device service|c.xml"_s}));
    }

    void everyStateVariableIsLoggedWithItsName()
    {
        const QString path = server.add("<scpd xmlns=\"urn:schemas-upnp-org:service-1-0\"><serviceStateTable>"
                                        "<stateVariable><name>KO</name></stateVariable>"
                                        "<stateVariable/>"
                                        "<stateVariable><name>KO</name></stateVariable>"
                                        "</serviceStateTable></scpd>");
        findDocument(
            deviceDescription(serviceElement("urn:schemas-velmora-it:service:keyobjects:1", path.toLatin1())));
        QCOMPARE(CapturedLog::all().mid(1),
                 (QStringList{"0|SSDP Device service|"_s + path, "0|SSDP response state variable|KO"_s,
                              "0|SSDP response state variable|"_s, "0|SSDP response state variable|KO"_s}));
    }

    void responseThatDoesNotParseIsLoggedWithItsBody_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("logged");
        QTest::newRow("empty") << QByteArray() << QString();
        QTest::newRow("plain text") << "Not %1 found"_ba
                                    << "Not %1 found";
        QTest::newRow("cut short") << "<root>"_ba
                                   << "<root>";
        QTest::newRow("Latin-1") << "\xe9"_ba << QStringLiteral(u"\u00e9");
        QTest::newRow("up to a zero byte") << QByteArray("<a\0/>", 5) << "<a";
        QTest::newRow("a DOCTYPE with a subset") << "<!DOCTYPE a []><a/>"_ba
                                                 << "<!DOCTYPE a []><a/>";
        QTest::newRow("129 levels") << "<a>"_ba.repeated(128) + "<b/>" + "</a>"_ba.repeated(128)
                                    << "<a>"_s.repeated(128) + "<b/>"_s + "</a>"_s.repeated(128);
    }

    void responseThatDoesNotParseIsLoggedWithItsBody()
    {
        QFETCH(const QByteArray, body);
        QFETCH(const QString, logged);
        findDocument(body);
        QCOMPARE(CapturedLog::joined(1), QStringList{QLatin1String(PARSE_RESPONSE + 2) + logged});
        QCOMPARE(CapturedLog::lines().constLast().pieces.size(), qsizetype(3));
    }

    void failedRequestIsLoggedAsAnEmptyBody()
    {
        find("none:/"_s);
        QCOMPARE(CapturedLog::joined(1), QStringList{QLatin1String(PARSE_RESPONSE + 2)});
    }

    void documentOfAnotherNamespaceIsNotLogged()
    {
        findDocument("<root xmlns=\"urn:other\"/>");
        findDocument("<other xmlns=\"urn:schemas-upnp-org:device-1-0\"/>");
        findDocument("<root/>");
        QCOMPARE(CapturedLog::lines().size(), qsizetype(3));
    }

    void eventWithoutServiceIsLogged()
    {
        ManagerAccess(*manager).updateStateVariables(nullptr, "<e:propertyset/>"_s);
        QCOMPARE(CapturedLog::all(),
                 QStringList{QLatin1String(UPDATE_VARIABLES) + "No service to update variable"_s});
        QCOMPARE(CapturedLog::lines().constFirst().pieces.size(), qsizetype(2));
    }

    void eventThatDoesNotParseIsLogged_data()
    {
        QTest::addColumn<QString>("xml");
        QTest::newRow("empty") << QString();
        QTest::newRow("plain text") << "KO";
        QTest::newRow("cut short") << "<e:propertyset>";
        QTest::newRow("a DOCTYPE with a subset") << "<!DOCTYPE a []><e:propertyset/>";
    }

    void eventThatDoesNotParseIsLogged()
    {
        QFETCH(const QString, xml);
        SsdpService service;
        ManagerAccess(*manager).updateStateVariables(&service, xml);
        QCOMPARE(CapturedLog::all(), QStringList{QLatin1String(UPDATE_VARIABLES) + "Could not parse event xml"_s});
        QCOMPARE(CapturedLog::lines().constFirst().pieces.size(), qsizetype(2));
        QVERIFY(service.stateVariables.isEmpty());
    }

    void eventIsNotLogged()
    {
        SsdpService service;
        ManagerAccess(*manager).updateStateVariables(
            &service, "<e:propertyset><e:property><KO>1,2</KO></e:property></e:propertyset>"_s);
        QCOMPARE(service.stateVariables.value("KO"), "1,2"_s);
        QCOMPARE(CapturedLog::all(), QStringList());
    }
};

QTEST_GUILESS_MAIN(LogLinesTest)
#include "tst_loglines.moc"

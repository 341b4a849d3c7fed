#include <ssdp/SsdpManager.h>
#include <tests/support/CapturedLog.h>
#include <tests/support/ManagerAccess.h>

#include <QtCore/QFile>
#include <QtCore/QSet>
#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>
#include <QtTest/QtTest>

using namespace Velmora::SSDP;

namespace Velmora {
namespace Tests {

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
        return QStringLiteral("/%1").arg(documents.size() - 1);
    }

    QString location(const QString& path) const
    {
        return QStringLiteral("http://127.0.0.1:%1%2").arg(serverPort()).arg(path);
    }

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
        access.addSsdpDevice(QHostAddress(QStringLiteral("10.77.1.1")), location);
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

    void theSubstituteIsTheOnlyLogLibraryOfTheProcess()
    {
        QFile maps(QStringLiteral("/proc/self/maps"));
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

    void theSubstituteGetsTheLinesAndQtNone()
    {
        messagesOfQt = 0;
        const QtMessageHandler previous = qInstallMessageHandler(countMessage);
        ManagerAccess(*manager).updateStateVariables(nullptr, QString());
        qInstallMessageHandler(previous);
        QCOMPARE(messagesOfQt, 0);
        QCOMPARE(CapturedLog::lines().size(), qsizetype(1));
    }

    void aDeviceIsLoggedWithItsLocation()
    {
        ManagerAccess access(*manager);
        access.addSsdpDevice(QHostAddress(QStringLiteral("10.77.1.1")), QStringLiteral("none:/%1"));
        QCOMPARE(CapturedLog::lines().size(), qsizetype(1));
        QCOMPARE(CapturedLog::lines().constFirst().severity, 0);
        QCOMPARE(CapturedLog::lines().constFirst().pieces,
                 (QStringList{QStringLiteral("Ssdp device"), QStringLiteral("none:/%1")}));
        access.addSsdpDevice(QHostAddress(QStringLiteral("10.77.1.2")), QStringLiteral("none:/%1"));
        QCOMPARE(CapturedLog::lines().size(), qsizetype(1));
    }

    void everyServiceIsLoggedWithItsUrl()
    {
        const QString location = server.location(server.add(deviceDescription(
            serviceElement("a", "/a.xml") + serviceElement("b", "") + serviceElement("c", "c.xml"))));
        find(location);
        QCOMPARE(CapturedLog::all(),
                 (QStringList{
                     QStringLiteral("0|Ssdp device|") + location, QStringLiteral("0|SSDP Device service|/a.xml"),
                     QStringLiteral("0|SSDP Device service|"), QStringLiteral("0|SSDP Device service|c.xml")}));
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
                 (QStringList{QStringLiteral("0|SSDP Device service|") + path,
                              QStringLiteral("0|SSDP response state variable|KO"),
                              QStringLiteral("0|SSDP response state variable|"),
                              QStringLiteral("0|SSDP response state variable|KO")}));
    }

    void aResponseThatDoesNotParseIsLoggedWithItsBody_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("logged");
        QTest::newRow("empty") << QByteArray() << QString();
        QTest::newRow("plain text") << QByteArray("Not %1 found") << QStringLiteral("Not %1 found");
        QTest::newRow("cut short") << QByteArray("<root>") << QStringLiteral("<root>");
        QTest::newRow("Latin-1") << QByteArray("\xe9") << QStringLiteral(u"\u00e9");
        QTest::newRow("up to a zero byte") << QByteArray("<a\0/>", 5) << QStringLiteral("<a");
        QTest::newRow("a DOCTYPE with a subset")
            << QByteArray("<!DOCTYPE a []><a/>") << QStringLiteral("<!DOCTYPE a []><a/>");
        QTest::newRow("129 levels") << QByteArray("<a>").repeated(128) + "<b/>" + QByteArray("</a>").repeated(128)
                                    << QStringLiteral("<a>").repeated(128) + QStringLiteral("<b/>")
                + QStringLiteral("</a>").repeated(128);
    }

    void aResponseThatDoesNotParseIsLoggedWithItsBody()
    {
        QFETCH(const QByteArray, body);
        QFETCH(const QString, logged);
        findDocument(body);
        QCOMPARE(CapturedLog::joined(1), QStringList{QLatin1String(PARSE_RESPONSE + 2) + logged});
        QCOMPARE(CapturedLog::lines().constLast().pieces.size(), qsizetype(3));
    }

    void aFailedRequestIsLoggedAsAnEmptyBody()
    {
        find(QStringLiteral("none:/"));
        QCOMPARE(CapturedLog::joined(1), QStringList{QLatin1String(PARSE_RESPONSE + 2)});
    }

    void aDocumentOfAnotherNamespaceIsNotLogged()
    {
        findDocument("<root xmlns=\"urn:other\"/>");
        findDocument("<other xmlns=\"urn:schemas-upnp-org:device-1-0\"/>");
        findDocument("<root/>");
        QCOMPARE(CapturedLog::lines().size(), qsizetype(3));
    }

    void anEventWithoutServiceIsLogged()
    {
        ManagerAccess(*manager).updateStateVariables(nullptr, QStringLiteral("<e:propertyset/>"));
        QCOMPARE(CapturedLog::all(),
                 QStringList{QLatin1String(UPDATE_VARIABLES) + QStringLiteral("No service to update variable")});
        QCOMPARE(CapturedLog::lines().constFirst().pieces.size(), qsizetype(2));
    }

    void anEventThatDoesNotParseIsLogged_data()
    {
        QTest::addColumn<QString>("xml");
        QTest::newRow("empty") << QString();
        QTest::newRow("plain text") << QStringLiteral("KO");
        QTest::newRow("cut short") << QStringLiteral("<e:propertyset>");
        QTest::newRow("a DOCTYPE with a subset") << QStringLiteral("<!DOCTYPE a []><e:propertyset/>");
    }

    void anEventThatDoesNotParseIsLogged()
    {
        QFETCH(const QString, xml);
        SsdpService service;
        ManagerAccess(*manager).updateStateVariables(&service, xml);
        QCOMPARE(CapturedLog::all(),
                 QStringList{QLatin1String(UPDATE_VARIABLES) + QStringLiteral("Could not parse event xml")});
        QCOMPARE(CapturedLog::lines().constFirst().pieces.size(), qsizetype(2));
        QVERIFY(service.stateVariables.isEmpty());
    }

    void anEventIsNotLogged()
    {
        SsdpService service;
        ManagerAccess(*manager).updateStateVariables(
            &service, QStringLiteral("<e:propertyset><e:property><KO>1,2</KO></e:property></e:propertyset>"));
        QCOMPARE(service.stateVariables.value(QStringLiteral("KO")), QStringLiteral("1,2"));
        QCOMPARE(CapturedLog::all(), QStringList());
    }
};

} // namespace Tests
} // namespace Velmora

QTEST_GUILESS_MAIN(Velmora::Tests::LogLinesTest)
#include "tst_loglines.moc"

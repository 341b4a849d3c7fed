#include <ssdp/SsdpManager.h>
#include <tests/support/CapturedLog.h>
#include <tests/support/Literals.h>
#include <tests/support/ManagerAccess.h>
#include <tests/support/Messages.h>

#include <QtCore/QFile>
#include <QtCore/QSet>
#include <QtNetwork/QNetworkReply>
#include <QtTest/QtTest>

#include <algorithm>

using namespace Velmora;
using namespace Velmora::Tests;
using namespace Velmora::SSDP;

namespace {

const char UPDATE_VARIABLES[] = "1|void Velmora::SSDP::SsdpManager::updateStateVariables("
                                "Velmora::SSDP::SsdpService*, const QString&)|";

/// A reply that has arrived completely.
class Reply : public QNetworkReply
{
public:
    explicit Reply(const QByteArray& body)
        : body(body)
    {
        open(ReadOnly);
    }
    void abort() override { }
    qint64 bytesAvailable() const override { return body.size() + QNetworkReply::bytesAvailable(); }
    bool isSequential() const override { return true; }

protected:
    qint64 readData(char* data, qint64 size) override
    {
        const qint64 read = std::min<qint64>(size, body.size());
        std::copy_n(body.constData(), read, data);
        body.remove(0, static_cast<int>(read));
        return read;
    }

private:
    QByteArray body;
};

int messagesOfQt = 0;

void countMessage(QtMsgType, const QMessageLogContext&, const QString&)
{
    ++messagesOfQt;
}

} // namespace

/// What a control point logs through a libLog.so.2 that replaces the original.
class LogLinesTest : public QObject
{
    Q_OBJECT

private:
    QScopedPointer<SsdpManager> manager;

    /// Lets a device be found with this description.
    void find(const QByteArray& document)
    {
        ManagerAccess access(*manager);
        access.addSsdpDevice(QHostAddress("10.77.1.1"), "none:/%1");
        Reply* const reply = new Reply(document);
        access.deviceReplies().insert(reply, access.devices().constFirst());
        access.onReplyFinished(reply);
    }

private Q_SLOTS:
    void init()
    {
        manager.reset(new SsdpManager(QHostAddress(QHostAddress::LocalHost)));
        CapturedLog::clear();
    }

    void cleanup() { manager.reset(); }

    void substituteIsTheOnlyLogLibraryOfTheProcess()
    {
        QFile maps("/proc/self/maps");
        QVERIFY(maps.open(QIODevice::ReadOnly));
        QSet<QByteArray> libraries;
        for (const QByteArray& line : maps.readAll().split('\n')) {
            if (line.contains("/libLog.so."))
                libraries << line.mid(line.indexOf('/'));
        }
        QCOMPARE(libraries.size(), 1);
        const QByteArray library = *libraries.constBegin();
        QVERIFY2(library.contains("/tests/support/libLog.so.2"), library.constData());
    }

    void substituteGetsTheLinesAndQtNone()
    {
        messagesOfQt = 0;
        const QtMessageHandler previous = qInstallMessageHandler(countMessage);
        ManagerAccess(*manager).updateStateVariables(nullptr, "<e:propertyset/>");
        qInstallMessageHandler(previous);
        QCOMPARE(messagesOfQt, 0);
        QCOMPARE(CapturedLog::all(), QStringList{UPDATE_VARIABLES + "No service to update variable"_s});
    }

    void everyServiceIsLoggedWithItsUrl()
    {
        find(deviceDescription(serviceElement("a", "/a.xml") + serviceElement("b", "")
                               + serviceElement("c", "%1")));
        QCOMPARE(CapturedLog::all(),
                 (QStringList{"0|Ssdp device|none:/%1", "0|SSDP Device service|/a.xml", "0|SSDP Device service|",
                              "0|SSDP Device service|%1"}));
        ManagerAccess(*manager).addSsdpDevice(QHostAddress("10.77.1.2"), "none:/%1");
        QCOMPARE(CapturedLog::all().size(), 4);
    }

    void responseThatDoesNotParseIsLoggedWithItsBody()
    {
        find("Not %1 found");
        QCOMPARE(CapturedLog::all().mid(1),
                 QStringList{"1|void Velmora::SSDP::SsdpManager::handleServerResponse(QNetworkReply*)"
                             "|Could not parse server response|Not %1 found"});
    }

    void documentOfAnotherNamespaceIsNotLogged()
    {
        find("<root xmlns=\"urn:other\"/>");
        find("<other xmlns=\"urn:schemas-upnp-org:device-1-0\"/>");
        find("<root/>");
        QCOMPARE(CapturedLog::all(), QStringList{"0|Ssdp device|none:/%1"});
    }

    void eventThatDoesNotParseIsLogged()
    {
        SsdpService service;
        ManagerAccess(*manager).updateStateVariables(&service, QString());
        QCOMPARE(CapturedLog::all(), QStringList{UPDATE_VARIABLES + "Could not parse event xml"_s});
        QVERIFY(service.stateVariables.isEmpty());
    }
};

QTEST_GUILESS_MAIN(LogLinesTest)
#include "tst_loglines.moc"

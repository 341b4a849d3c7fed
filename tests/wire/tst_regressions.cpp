#include <tests/support/Literals.h>
#include <tests/support/NamesAlike.h>
#include <tests/support/ProcessState.h>
#include <tests/support/WireTest.h>

using namespace Velmora::Tests;
using Velmora::SSDP::Ssdp;
using Velmora::SSDP::SsdpDevice;
using Velmora::SSDP::SsdpManager;
using Velmora::SSDP::SsdpService;

namespace {

const int MANY_NAMES = 20000;

/// What a host does in its slot for a changed variable.
enum Deletion {
    Directly,
    InAnEventLoop,
    InAnEventLoopWhileThePeerFloods,
    InTheSlotForAnotherEvent, ///< that arrives in an event loop of the slot
};

QStringList messages;

void keepMessage(QtMsgType, const QMessageLogContext&, const QString& text)
{
    messages << text;
}

/// Keeps what Qt or the library prints, for as long as it lives.
class KeptMessages
{
public:
    KeptMessages()
        : before(qInstallMessageHandler(keepMessage))
    {
        messages.clear();
    }
    ~KeptMessages() { qInstallMessageHandler(before); }
    Q_DISABLE_COPY(KeptMessages)

private:
    QtMessageHandler before;
};

QStringList namesOf(const std::vector<std::string>& names)
{
    QStringList result;
    for (const std::string& name : names)
        result << QString::fromStdString(name);
    return result;
}

} // namespace

/// One test for each defect that was found in the control point.
class RegressionsTest : public WireTest
{
    Q_OBJECT

public:
    using WireTest::WireTest;

private Q_SLOTS:

    void lateReplyToASubscriptionClosesItsConnection()
    {
        scriptDevice();
        device->script("GET /scpd.xml ", reply(serviceDescription({"KO", "A", "B", "C", "D"})));
        device->script("SUBSCRIBE ", "");
        int before = -1;
        for (int round = 1; round <= 3; ++round) {
            QVERIFY(search() && answerSearch());
            VERIFY_SOON(device->requestsFor("SUBSCRIBE ").size() == 5 * round);
            ssdp->stop();
            QVERIFY(search());
            for (const ScriptedDevice::Request& request : device->requestsFor("SUBSCRIBE ").mid(5 * (round - 1))) {
                request.connection->send("HTTP/1.1 200 OK\r\nSID: uuid:2fac1234-31f8-11b4-a222-08002b34c003\r\n"
                                         "TIMEOUT: Second-120\r\nCONTENT-LENGTH: 0\r\n\r\n");
                request.connection->close();
            }
            VERIFY_SOON(subscriptionsAreClosed());
            if (before == -1)
                before = ProcessState::descriptors();
            COMPARE_SOON(ProcessState::descriptors(), before);
            ssdp->stop();
        }
    }

    void headerIsFoundAtOnceInAMegabyteOfLines()
    {
        SsdpManager reader(QHostAddress("10.77.0.1"));
        QString message;
        while (message.size() < 1000000)
            message += "SID\n"_s;
        message += "SID: last"_s;
        const qint64 begin = ProcessState::processorTime();
        QCOMPARE(reader.getHeaderValue(message, "SID"_s), "last"_s);
        const qint64 milliseconds = (ProcessState::processorTime() - begin) / 1000;
        QVERIFY2(milliseconds < 1000, QByteArray::number(milliseconds).constData());
    }

    void serverAcceptsAgainAfterItsFirstAcceptHadNoDescriptor()
    {
        QVERIFY(findDevice());
        const Callback to = callback();
        const QByteArray body = eventBody("KO", "12,34");
        // The kernel connects them; the server has not yet come to accept any.
        QList<Connection*> connections;
        for (int i = 0; i < 3; ++i)
            connections << device->connectTo(to.host, to.port);

        const QObject context;
        int failures = 0;
        connect(&manager().eventServer(), &QTcpServer::acceptError, &context, [&failures] { ++failures; });
        {
            const ProcessState::DescriptorLimit none(ProcessState::nextDescriptor());
            VERIFY_SOON(failures > 0);
        }
        for (Connection* const connection : std::as_const(connections)) {
            QVERIFY(sendHeadOn(connection, to, body));
            connection->send(body);
            VERIFY_SOON(!connection->isOpen());
        }
        QCOMPARE(reports.size(), 3);
        // The server pauses again after every connection, since it keeps its first error.
        for (int i = 0; i < 3; ++i)
            QVERIFY(sendEvent(to, body));
        QCOMPARE(reports.size(), 6);
    }

    void everyPropertyIsReportedOnce_data()
    {
        QTest::addColumn<QStringList>("names");
        QTest::addColumn<int>("reported");
        QStringList names;
        for (int i = 0; i < MANY_NAMES; ++i)
            names << "N%1"_s.arg(i);
        QTest::newRow("names of any kind") << names << MANY_NAMES;
        // Without a bound, such an event would take minutes with Qt 5.
        QTest::newRow("names that Qt 5 hashes alike")
            << namesOf(namesAlike(MANY_NAMES)) << (QT_VERSION_MAJOR == 5 ? 64 : MANY_NAMES);
    }

    void everyPropertyIsReportedOnce()
    {
        QFETCH(const QStringList, names);
        QFETCH(const int, reported);
        QVERIFY(findDevice());
        SsdpService* const service = manager().devices().at(0)->services.at(0);
        QStringList changes;
        connect(ssdp->findChild<SsdpManager*>(), &SsdpManager::valueChanged, this,
                [&changes](const SsdpDevice*, const SsdpService*, const QString& name) { changes << name; });

        const qint64 begin = ProcessState::processorTime();
        manager().updateStateVariables(service, eventOf(names));
        const qint64 milliseconds = (ProcessState::processorTime() - begin) / 1000;
        QCOMPARE(changes.size(), reported);
        QVERIFY(changes == names.mid(0, reported));
        QVERIFY2(milliseconds < 2000, QByteArray::number(milliseconds).constData());

        // Names that the table has are reported however many hash alike.
        changes.clear();
        manager().updateStateVariables(service, eventOf(names.mid(0, reported)));
        QCOMPARE(changes.size(), reported);
        QCOMPARE(service->stateVariables.size(), reported + 1);
    }

    void everyVariableIsAnEntry_data()
    {
        QTest::addColumn<QStringList>("names");
        QTest::addColumn<int>("entries");
        QStringList names;
        for (int i = 0; i < 100; ++i)
            names << "N%1"_s.arg(i);
        QTest::newRow("names of any kind") << names << 100;
        QTest::newRow("names that Qt 5 hashes alike")
            << namesOf(namesAlike(100)) << (QT_VERSION_MAJOR == 5 ? 64 : 100);
    }

    void everyVariableIsAnEntry()
    {
        QFETCH(const QStringList, names);
        QFETCH(const int, entries);
        QList<QByteArray> written;
        for (const QString& name : names)
            written << name.toLatin1();
        scriptDevice();
        device->script("GET /scpd.xml ", reply(serviceDescription(written)));
        device->script("SUBSCRIBE ", "");
        QVERIFY(search() && answerSearch());
        VERIFY_SOON(!manager().requestSockets().isEmpty());
        QCOMPARE(manager().requestSockets().size(), entries);
        const SsdpService* const service = manager().devices().at(0)->services.at(0);
        QCOMPARE(service->stateVariables.size(), entries);
        for (const QString& name : names.mid(0, entries))
            QVERIFY(service->stateVariables.contains(name));
    }

    void nothingIsPrintedForForgottenRequests_data()
    {
        QTest::addColumn<QString>("location");
        QTest::addColumn<bool>("isAnswered");
        QTest::newRow("empty URL") << QString() << false;
        QTest::newRow("another scheme") << "none:/a" << false;
        QTest::newRow("a file") << "file:///dev/null" << false;
        QTest::newRow("nobody listens") << "http://10.77.1.1:9/a" << false;
        QTest::newRow("no route") << "http://192.0.2.1/a" << false;
        QTest::newRow("silent") << "http://10.77.1.1:8080/a" << false;
        QTest::newRow("answered") << "http://10.77.1.1:8080/a" << true;
    }

    void nothingIsPrintedForForgottenRequests()
    {
        QFETCH(const QString, location);
        QFETCH(const bool, isAnswered);
        if (isAnswered)
            device->script("GET ", reply("<a/>"));
        QVERIFY(search());
        const QHostAddress address("10.77.1.1"_s);
        const KeptMessages kept;
        // At once, with events handled in between, and while the requests finish one after the other.
        for (int turns = 0; turns < 20; ++turns) {
            for (int i = 0; i < 10; ++i)
                manager().addSsdpDevice(address, location + QString::number(i));
            for (int turn = 0; turn < turns; ++turn)
                QCoreApplication::processEvents();
            ssdp->findChild<SsdpManager*>()->clearDevices();
            QCOMPARE(manager().deviceReplies().size(), 0);
        }
        ssdp->stop();
        QVERIFY(findDevice());
        QCOMPARE(messages, QStringList());
    }

    void hostMayDeleteTheControlPointInItsSlot_data()
    {
        QTest::addColumn<int>("deletion");
        QTest::newRow("directly") << int(Directly);
        QTest::newRow("in an event loop") << int(InAnEventLoop);
        QTest::newRow("in an event loop while the peer floods") << int(InAnEventLoopWhileThePeerFloods);
        QTest::newRow("in the slot for another event") << int(InTheSlotForAnotherEvent);
    }

    void hostMayDeleteTheControlPointInItsSlot()
    {
        QFETCH(const int, deletion);
        ssdp.reset();
        scriptDevice();
        auto control = std::make_unique<SsdpManager>(QHostAddress("10.77.0.1"));
        control->initialize();
        control->discover();
        VERIFY_SOON(!device->searches.isEmpty());
        QVERIFY(beFound());
        const Callback to = callback();
        const QByteArray body("<e:propertyset><e:property><KO>1,1</KO></e:property>"
                              "<e:property><KO>2,2</KO></e:property></e:propertyset>");
        Connection* const connection = sendHead(to, QByteArray::number(body.size()));
        Connection* const another = sendHead(to, QByteArray::number(body.size()));
        QVERIFY(connection && another);

        int changes = 0;
        connect(control.get(), &SsdpManager::valueChanged, this, [&] {
            ++changes;
            if (deletion == Directly || changes == 2) {
                control.reset();
                return;
            }
            if (deletion == InAnEventLoopWhileThePeerFloods)
                connection->send(QByteArray(1024 * 1024, 'x'));
            if (deletion == InTheSlotForAnotherEvent)
                another->send(body);
            else
                QMetaObject::invokeMethod(
                    this, [&control] { control.reset(); }, Qt::QueuedConnection);
            QVERIFY(waitUntil([&control] { return !control; }));
        });
        connection->send(body);
        VERIFY_SOON(!connection->isOpen() && !another->isOpen());
        QVERIFY(!control);
        QCOMPARE(changes, deletion == InTheSlotForAnotherEvent ? 2 : 1);
    }

    void connectionIsOpenWhileTheHostIsInItsSlot()
    {
        QVERIFY(findDevice());
        const Callback to = callback();
        const QByteArray body = eventBody("KO", "12,34");
        Connection* const connection = sendHead(to, QByteArray::number(body.size()));
        QVERIFY(connection);
        bool wasOpen = false;
        connect(ssdp.get(), &Ssdp::discovered, this, [&] {
            // A close would have reached the device before the end of a whole event.
            QVERIFY(sendEvent(to, eventBody("A", "1")));
            wasOpen = connection->isOpen();
        });
        connection->send(body);
        VERIFY_SOON(!connection->isOpen());
        QVERIFY(wasOpen);
        QCOMPARE(connection->received, QByteArray());
    }

    void floodWhileTheHostIsInItsSlotIsNotKept()
    {
        QVERIFY(findDevice());
        const Callback to = callback();
        const QByteArray body = eventBody("KO", "12,34");
        Connection* const connection = sendHead(to, QByteArray::number(body.size()));
        QVERIFY(connection);
        const QTcpSocket* const socket = manager().requestSockets().at(0);
        qint64 kept = -1;
        connect(ssdp.get(), &Ssdp::discovered, this, [&] {
            connection->send(QByteArray(16 * 1024 * 1024, 'x'));
            for (int i = 0; i < 20; ++i)
                QVERIFY(sendEvent(to, eventBody("A", "1")));
            kept = socket->bytesAvailable();
        });
        connection->send(body);
        VERIFY_SOON(!connection->isOpen());
        QVERIFY2(kept >= 0 && kept <= 64 * 1024, QByteArray::number(kept).constData());
    }

private:
    bool subscriptionsAreClosed() const
    {
        const QList<QTcpSocket*> sockets = manager().requestSockets();
        return std::all_of(sockets.cbegin(), sockets.cend(), [](const QTcpSocket* socket) {
            return socket->state() == QAbstractSocket::UnconnectedState;
        });
    }

    static QString eventOf(const QStringList& names)
    {
        QString result("<e:propertyset>"_s);
        for (const QString& name : names)
            result += "<e:property><"_s + name + "/></e:property>"_s;
        return result + "</e:propertyset>"_s;
    }

    bool sendHeadOn(Connection* connection, const Callback& to, const QByteArray& body)
    {
        connection->send("NOTIFY " + to.path + " HTTP/1.1\r\nCONTENT-LENGTH: " + QByteArray::number(body.size())
                         + "\r\n\r\n");
        return waitUntil([&] { return connection->wasRead(); });
    }
};

VELMORA_WIRE_TEST_MAIN(RegressionsTest)

#include "tst_regressions.moc"

#include <ssdp/Ssdp.h>
#include <ssdp/SsdpDevice.h>
#include <ssdp/SsdpManager.h>
#include <ssdp/SsdpService.h>
#include <tests/support/CapturedLog.h>

#include <QtTest/QtTest>

using namespace Velmora::SSDP;

namespace Velmora {
namespace Tests {

// The controller runs no discovery here, and reports all the same.
class KeyObjectsTest : public QObject
{
    Q_OBJECT

private:
    struct Report
    {
        int functionCode;
        int univocalCode;
        QHostAddress address;
    };

    const QHostAddress address = QHostAddress(QStringLiteral("192.168.1.20"));
    QList<Report> reports;
    QStringList loggedBefore;
    Ssdp controller{60000};
    SsdpManager manager{QHostAddress(QHostAddress::LocalHost)};
    QScopedPointer<SsdpDevice> device;
    SsdpService* service = nullptr;

    void setKeyObject(const QString& value) { service->stateVariables.insert(QStringLiteral("KO"), value); }

    void change(const QString& name = QStringLiteral("KO"))
    {
        Q_EMIT manager.valueChanged(device.data(), service, name);
    }

    QStringList reported() const
    {
        QStringList result;
        for (const Report& report : reports) {
            result << QStringLiteral("%1,%2,%3")
                          .arg(report.functionCode)
                          .arg(report.univocalCode)
                          .arg(report.address.toString());
        }
        return result;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(connect(&manager, SIGNAL(valueChanged(const SsdpDevice*, const SsdpService*, QString)),
                        &controller, SLOT(valueChanged(const SsdpDevice*, const SsdpService*, QString))));
        connect(&controller, &Ssdp::discovered, this,
                [this](int functionCode, int univocalCode, const QHostAddress& from) {
                    loggedBefore = CapturedLog::joined(0);
                    reports.append({functionCode, univocalCode, from});
                });
    }

    void init()
    {
        CapturedLog::clear();
        reports.clear();
        loggedBefore.clear();
        device.reset(new SsdpDevice);
        device->address = address;
        service = new SsdpService;
        device->services.append(service);
    }

    void theFirstWellFormedEntryIsReported_data()
    {
        QTest::addColumn<QString>("value");
        QTest::addColumn<int>("functionCode");
        QTest::addColumn<int>("univocalCode");
        QTest::newRow("one entry") << QStringLiteral("12,34") << 12 << 34;
        QTest::newRow("two entries") << QStringLiteral("12,34;56,78") << 12 << 34;
        QTest::newRow("many entries") << QStringLiteral("1,2;3,4;5,6;7,8;9,10;11,12") << 1 << 2;
        QTest::newRow("behind one and three parts") << QStringLiteral("7;1,2,3;4,5") << 4 << 5;
        QTest::newRow("behind many malformed entries") << QStringLiteral("a;;1;,,;1,2,3;;b;x;4,5;6,7") << 4 << 5;
        QTest::newRow("before an empty entry") << QStringLiteral("1,2;") << 1 << 2;
        QTest::newRow("behind an empty entry") << QStringLiteral(";1,2") << 1 << 2;
        QTest::newRow("no first part") << QStringLiteral(",5") << 0 << 5;
        QTest::newRow("no second part") << QStringLiteral("5,") << 5 << 0;
        QTest::newRow("no part") << QStringLiteral(",") << 0 << 0;
        QTest::newRow("an entry of no numbers counts") << QStringLiteral("x,y;1,2") << 0 << 0;
    }

    void theFirstWellFormedEntryIsReported()
    {
        QFETCH(const QString, value);
        QFETCH(const int, functionCode);
        QFETCH(const int, univocalCode);
        setKeyObject(value);
        change();
        QCOMPARE(reports.size(), qsizetype(1));
        QCOMPARE(reports.constFirst().functionCode, functionCode);
        QCOMPARE(reports.constFirst().univocalCode, univocalCode);
        QCOMPARE(reports.constFirst().address, address);
    }

    void aPartIsADecimalIntOrZero_data()
    {
        QTest::addColumn<QString>("part");
        QTest::addColumn<int>("code");
        QTest::newRow("zero") << QStringLiteral("0") << 0;
        QTest::newRow("leading zeros") << QStringLiteral("0012") << 12;
        QTest::newRow("a plus") << QStringLiteral("+8") << 8;
        QTest::newRow("a minus") << QStringLiteral("-7") << -7;
        QTest::newRow("a blank before") << QStringLiteral(" 34") << 34;
        QTest::newRow("a blank behind") << QStringLiteral("34 ") << 34;
        QTest::newRow("a line feed behind") << QStringLiteral("34\n") << 34;
        QTest::newRow("a blank inside") << QStringLiteral("3 4") << 0;
        QTest::newRow("a blank alone") << QStringLiteral(" ") << 0;
        QTest::newRow("letters") << QStringLiteral("x") << 0;
        QTest::newRow("letters behind digits") << QStringLiteral("12abc") << 0;
        QTest::newRow("a fraction") << QStringLiteral("1.5") << 0;
        QTest::newRow("hexadecimal") << QStringLiteral("0x10") << 0;
        QTest::newRow("a sign alone") << QStringLiteral("-") << 0;
        QTest::newRow("two signs") << QStringLiteral("--7") << 0;
        QTest::newRow("the highest int") << QStringLiteral("2147483647") << 2147483647;
        QTest::newRow("one more") << QStringLiteral("2147483648") << 0;
        QTest::newRow("the lowest int") << QStringLiteral("-2147483648") << -2147483647 - 1;
        QTest::newRow("one less") << QStringLiteral("-2147483649") << 0;
        QTest::newRow("eleven digits") << QStringLiteral("12345678901") << 0;
        QTest::newRow("thirty digits") << QStringLiteral("123456789012345678901234567890") << 0;
    }

    void aPartIsADecimalIntOrZero()
    {
        QFETCH(const QString, part);
        QFETCH(const int, code);
        setKeyObject(part + QStringLiteral(",41"));
        change();
        setKeyObject(QStringLiteral("42,") + part);
        change();
        QCOMPARE(reported(),
                 (QStringList{QStringLiteral("%1,41,192.168.1.20").arg(code),
                              QStringLiteral("42,%1,192.168.1.20").arg(code)}));
    }

    void aValueWithoutWellFormedEntryIsNotReported_data()
    {
        QTest::addColumn<QString>("value");
        QTest::newRow("null") << QString();
        QTest::newRow("empty") << QStringLiteral("");
        QTest::newRow("one part") << QStringLiteral("12");
        QTest::newRow("three parts") << QStringLiteral("1,2,3");
        QTest::newRow("empty entries") << QStringLiteral(";;");
        QTest::newRow("another separator") << QStringLiteral("1:2");
        QTest::newRow("entries of one part") << QStringLiteral("1;2");
    }

    void aValueWithoutWellFormedEntryIsNotReported()
    {
        QFETCH(const QString, value);
        setKeyObject(value);
        change();
        QCOMPARE(reported(), QStringList());
        QVERIFY(CapturedLog::lines().isEmpty());
    }

    void aTableWithoutKeyObjectIsNotReported()
    {
        change();
        service->stateVariables.insert(QStringLiteral("ko"), QStringLiteral("1,2"));
        change();
        QCOMPARE(reported(), QStringList());
        QVERIFY(CapturedLog::lines().isEmpty());
        QVERIFY(!service->stateVariables.contains(QStringLiteral("KO")));
    }

    void anotherNameIsIgnored_data()
    {
        QTest::addColumn<QString>("name");
        QTest::newRow("lower case") << QStringLiteral("ko");
        QTest::newRow("mixed case") << QStringLiteral("Ko");
        QTest::newRow("a digit behind") << QStringLiteral("KO1");
        QTest::newRow("a blank behind") << QStringLiteral("KO ");
        QTest::newRow("a blank before") << QStringLiteral(" KO");
        QTest::newRow("a zero behind") << QString::fromLatin1("KO\0", 3);
        QTest::newRow("a prefix") << QStringLiteral("e:KO");
        QTest::newRow("one letter") << QStringLiteral("K");
        QTest::newRow("empty") << QStringLiteral("");
        QTest::newRow("null") << QString();
    }

    void anotherNameIsIgnored()
    {
        QFETCH(const QString, name);
        setKeyObject(QStringLiteral("12,34"));
        service->stateVariables.insert(name, QStringLiteral("56,78"));
        change(name);
        QCOMPARE(reported(), QStringList());
        QVERIFY(CapturedLog::lines().isEmpty());
    }

    void aNullDeviceIsIgnored()
    {
        setKeyObject(QStringLiteral("12,34"));
        Q_EMIT manager.valueChanged(nullptr, service, QStringLiteral("KO"));
        QCOMPARE(reported(), QStringList());
    }

    void aNullServiceIsIgnored()
    {
        Q_EMIT manager.valueChanged(device.data(), nullptr, QStringLiteral("KO"));
        QCOMPARE(reported(), QStringList());
    }

    void aDeviceWithoutAddressIsNotReported()
    {
        device->address = QHostAddress();
        setKeyObject(QStringLiteral("12,34;56,78"));
        change();
        QCOMPARE(reported(), QStringList());
        QVERIFY(CapturedLog::lines().isEmpty());
    }

    void theSameEventTwiceGivesTwoReports()
    {
        setKeyObject(QStringLiteral("12,34"));
        change();
        change();
        const QString report = QStringLiteral("12,34,192.168.1.20");
        const QString line = QStringLiteral("Device with FC:12 and UC:34 found at 192.168.1.20");
        QCOMPARE(reported(), (QStringList{report, report}));
        QCOMPARE(CapturedLog::joined(0), (QStringList{line, line}));
    }

    void theServiceNeedNotBeTheDevices()
    {
        SsdpService other;
        other.stateVariables.insert(QStringLiteral("KO"), QStringLiteral("5,6"));
        Q_EMIT manager.valueChanged(device.data(), &other, QStringLiteral("KO"));
        QCOMPARE(reported(), QStringList{QStringLiteral("5,6,192.168.1.20")});
    }

    void everyReportIsLoggedBeforeItIsSent()
    {
        setKeyObject(QStringLiteral("-12,34"));
        change();
        QCOMPARE(loggedBefore, QStringList{QStringLiteral("Device with FC:-12 and UC:34 found at 192.168.1.20")});
        QCOMPARE(CapturedLog::lines().size(), qsizetype(1));
        QCOMPARE(CapturedLog::lines().constFirst().pieces.size(), qsizetype(1));
    }

    void theTableAndTheDeviceAreOnlyRead()
    {
        setKeyObject(QStringLiteral("12,34"));
        const QHash<QString, QString> before = service->stateVariables;
        change();
        QCOMPARE(service->stateVariables, before);
        QCOMPARE(device->address, address);
    }
};

} // namespace Tests
} // namespace Velmora

QTEST_GUILESS_MAIN(Velmora::Tests::KeyObjectsTest)
#include "tst_keyobjects.moc"

#include <ssdp/Ssdp.h>
#include <ssdp/SsdpDevice.h>
#include <ssdp/SsdpManager.h>
#include <ssdp/SsdpService.h>
#include <tests/support/CapturedLog.h>
#include <tests/support/Literals.h>

#include <QtTest/QtTest>

using namespace Velmora;
using namespace Velmora::Tests;
using namespace Velmora::SSDP;

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

    const QHostAddress address = QHostAddress("192.168.1.20");
    QList<Report> reports;
    QStringList loggedBefore;
    Ssdp controller{60000};
    SsdpManager manager{QHostAddress(QHostAddress::LocalHost)};
    QScopedPointer<SsdpDevice> device;
    SsdpService* service = nullptr;

    void setKeyObject(const QString& value) { service->stateVariables.insert("KO", value); }

    void change(const QString& name = "KO"_s) { Q_EMIT manager.valueChanged(device.data(), service, name); }

    QStringList reported() const
    {
        QStringList result;
        for (const Report& report : reports) {
            result
                << "%1,%2,%3"_s.arg(report.functionCode).arg(report.univocalCode).arg(report.address.toString());
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

    void firstWellFormedEntryIsReported_data()
    {
        QTest::addColumn<QString>("value");
        QTest::addColumn<int>("functionCode");
        QTest::addColumn<int>("univocalCode");
        QTest::newRow("one entry") << "12,34" << 12 << 34;
        QTest::newRow("two entries") << "12,34;56,78" << 12 << 34;
        QTest::newRow("many entries") << "1,2;3,4;5,6;7,8;9,10;11,12" << 1 << 2;
        QTest::newRow("behind one and three parts") << "7;1,2,3;4,5" << 4 << 5;
        QTest::newRow("behind many malformed entries") << "a;;1;,,;1,2,3;;b;x;4,5;6,7" << 4 << 5;
        QTest::newRow("before an empty entry") << "1,2;" << 1 << 2;
        QTest::newRow("behind an empty entry") << ";1,2" << 1 << 2;
        QTest::newRow("no first part") << ",5" << 0 << 5;
        QTest::newRow("no second part") << "5," << 5 << 0;
        QTest::newRow("no part") << "," << 0 << 0;
        QTest::newRow("an entry of no numbers counts") << "x,y;1,2" << 0 << 0;
    }

    void firstWellFormedEntryIsReported()
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

    void partIsADecimalIntOrZero_data()
    {
        QTest::addColumn<QString>("part");
        QTest::addColumn<int>("code");
        QTest::newRow("zero") << "0" << 0;
        QTest::newRow("leading zeros") << "0012" << 12;
        QTest::newRow("a plus") << "+8" << 8;
        QTest::newRow("a minus") << "-7" << -7;
        QTest::newRow("a blank before") << " 34" << 34;
        QTest::newRow("a blank behind") << "34 " << 34;
        QTest::newRow("a line feed behind") << "34\n" << 34;
        QTest::newRow("a blank inside") << "3 4" << 0;
        QTest::newRow("a blank alone") << " " << 0;
        QTest::newRow("letters") << "x" << 0;
        QTest::newRow("letters behind digits") << "12abc" << 0;
        QTest::newRow("a fraction") << "1.5" << 0;
        QTest::newRow("hexadecimal") << "0x10" << 0;
        QTest::newRow("a sign alone") << "-" << 0;
        QTest::newRow("two signs") << "--7" << 0;
        QTest::newRow("the highest int") << "2147483647" << 2147483647;
        QTest::newRow("one more") << "2147483648" << 0;
        QTest::newRow("the lowest int") << "-2147483648" << -2147483647 - 1;
        QTest::newRow("one less") << "-2147483649" << 0;
        QTest::newRow("eleven digits") << "12345678901" << 0;
        QTest::newRow("thirty digits") << "123456789012345678901234567890" << 0;
    }

    void partIsADecimalIntOrZero()
    {
        QFETCH(const QString, part);
        QFETCH(const int, code);
        setKeyObject(part + ",41"_s);
        change();
        setKeyObject("42,"_s + part);
        change();
        QCOMPARE(reported(), (QStringList{"%1,41,192.168.1.20"_s.arg(code), "42,%1,192.168.1.20"_s.arg(code)}));
    }

    void valueWithoutWellFormedEntryIsNotReported_data()
    {
        QTest::addColumn<QString>("value");
        QTest::newRow("null") << QString();
        QTest::newRow("empty") << "";
        QTest::newRow("one part") << "12";
        QTest::newRow("three parts") << "1,2,3";
        QTest::newRow("empty entries") << ";;";
        QTest::newRow("another separator") << "1:2";
        QTest::newRow("entries of one part") << "1;2";
    }

    void valueWithoutWellFormedEntryIsNotReported()
    {
        QFETCH(const QString, value);
        setKeyObject(value);
        change();
        QCOMPARE(reported(), QStringList());
        QVERIFY(CapturedLog::lines().isEmpty());
    }

    void tableWithoutKeyObjectIsNotReported()
    {
        change();
        service->stateVariables.insert("ko", "1,2"_s);
        change();
        QCOMPARE(reported(), QStringList());
        QVERIFY(CapturedLog::lines().isEmpty());
        QVERIFY(!service->stateVariables.contains("KO"));
    }

    void anotherNameIsIgnored_data()
    {
        QTest::addColumn<QString>("name");
        QTest::newRow("lower case") << "ko";
        QTest::newRow("mixed case") << "Ko";
        QTest::newRow("a digit behind") << "KO1";
        QTest::newRow("a blank behind") << "KO ";
        QTest::newRow("a blank before") << " KO";
        QTest::newRow("a zero behind") << QString::fromLatin1("KO\0", 3);
        QTest::newRow("a prefix") << "e:KO";
        QTest::newRow("one letter") << "K";
        QTest::newRow("empty") << "";
        QTest::newRow("null") << QString();
    }

    void anotherNameIsIgnored()
    {
        QFETCH(const QString, name);
        setKeyObject("12,34"_s);
        service->stateVariables.insert(name, "56,78"_s);
        change(name);
        QCOMPARE(reported(), QStringList());
        QVERIFY(CapturedLog::lines().isEmpty());
    }

    void nullDeviceIsIgnored()
    {
        setKeyObject("12,34"_s);
        Q_EMIT manager.valueChanged(nullptr, service, "KO"_s);
        QCOMPARE(reported(), QStringList());
    }

    void nullServiceIsIgnored()
    {
        Q_EMIT manager.valueChanged(device.data(), nullptr, "KO"_s);
        QCOMPARE(reported(), QStringList());
    }

    void deviceWithoutAddressIsNotReported()
    {
        device->address = QHostAddress();
        setKeyObject("12,34;56,78"_s);
        change();
        QCOMPARE(reported(), QStringList());
        QVERIFY(CapturedLog::lines().isEmpty());
    }

    void sameEventTwiceGivesTwoReports()
    {
        setKeyObject("12,34"_s);
        change();
        change();
        const QString report = "12,34,192.168.1.20"_s;
        const QString line = "Device with FC:12 and UC:34 found at 192.168.1.20"_s;
        QCOMPARE(reported(), (QStringList{report, report}));
        QCOMPARE(CapturedLog::joined(0), (QStringList{line, line}));
    }

    void serviceNeedNotBeTheDevices()
    {
        SsdpService other;
        other.stateVariables.insert("KO", "5,6"_s);
        Q_EMIT manager.valueChanged(device.data(), &other, "KO"_s);
        QCOMPARE(reported(), QStringList{"5,6,192.168.1.20"});
    }

    void everyReportIsLoggedBeforeItIsSent()
    {
        setKeyObject("-12,34"_s);
        change();
        QCOMPARE(loggedBefore, QStringList{"Device with FC:-12 and UC:34 found at 192.168.1.20"});
        QCOMPARE(CapturedLog::lines().size(), qsizetype(1));
        QCOMPARE(CapturedLog::lines().constFirst().pieces.size(), qsizetype(1));
    }

    void tableAndTheDeviceAreOnlyRead()
    {
        setKeyObject("12,34"_s);
        const QHash<QString, QString> before = service->stateVariables;
        change();
        QCOMPARE(service->stateVariables, before);
        QCOMPARE(device->address, address);
    }
};

QTEST_GUILESS_MAIN(KeyObjectsTest)
#include "tst_keyobjects.moc"

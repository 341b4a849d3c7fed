#include <ssdp/Ssdp.h>
#include <ssdp/SsdpDevice.h>
#include <ssdp/SsdpManager.h>
#include <ssdp/SsdpService.h>
#include <tests/support/CapturedLog.h>
#include <tests/support/Literals.h>
#include <tests/support/Table.h>

using namespace Velmora;
using namespace Velmora::Tests;
using namespace Velmora::SSDP;

/// What a controller reports of a key object. It runs no discovery, and reports all the same.
class KeyObjectsTest : public QObject
{
    Q_OBJECT

private:
    const QHostAddress address = QHostAddress("192.168.1.20");
    QStringList reports;
    QStringList logAtReport;
    Ssdp controller{60000};
    SsdpManager manager{QHostAddress(QHostAddress::LocalHost)};
    QScopedPointer<SsdpDevice> device;
    SsdpService* service = nullptr;

    /// Sets the key object and lets the control point say so.
    void change(const QString& value)
    {
        service->stateVariables.insert("KO", value);
        Q_EMIT manager.valueChanged(device.data(), service, "KO");
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(connect(&manager, SIGNAL(valueChanged(const SsdpDevice*, const SsdpService*, QString)),
                        &controller, SLOT(valueChanged(const SsdpDevice*, const SsdpService*, QString))));
        connect(&controller, &Ssdp::discovered, this,
                [this](int functionCode, int univocalCode, const QHostAddress& from) {
                    logAtReport = CapturedLog::all();
                    QCOMPARE(from, address);
                    reports << "%1,%2"_s.arg(functionCode).arg(univocalCode);
                });
    }

    void init()
    {
        CapturedLog::clear();
        reports.clear();
        device.reset(new SsdpDevice);
        device->address = address;
        service = new SsdpService;
        device->services.append(service);
    }

    void firstWellFormedEntryIsReported_data()
    {
        const Table<QString, QStringList> row("value", "expected");
        row("one entry", "12,34", {"12,34"});
        row("two entries", "12,34;56,78", {"12,34"});
        row("many entries", "1,2;3,4;5,6;7,8;9,10;11,12", {"1,2"});
        row("after one and three parts", "7;1,2,3;4,5", {"4,5"});
        row("after many malformed entries", "a;;1;,,;1,2,3;;b;x;4,5;6,7", {"4,5"});
        row("before an empty entry", "1,2;", {"1,2"});
        row("after an empty entry", ";1,2", {"1,2"});
        row("no first part", ",5", {"0,5"});
        row("no second part", "5,", {"5,0"});
        row("no part", ",", {"0,0"});
        row("an entry of no numbers counts", "x,y;1,2", {"0,0"});
        row("null", QString(), {});
        row("empty", "", {});
        row("one part", "12", {});
        row("three parts", "1,2,3", {});
        row("empty entries", ";;", {});
        row("another separator", "1:2", {});
        row("entries of one part", "1;2", {});
    }

    void firstWellFormedEntryIsReported()
    {
        QFETCH(const QString, value);
        QFETCH(const QStringList, expected);
        change(value);
        QCOMPARE(reports, expected);
        QCOMPARE(CapturedLog::all().size(), expected.size());
    }

    void partIsADecimalIntOrZero_data()
    {
        const Table<QString, int> row("part", "code");
        row("zero", "0", 0);
        row("leading zeros", "0012", 12);
        row("a plus", "+8", 8);
        row("a minus", "-7", -7);
        row("a space before", " 34", 34);
        row("a space after", "34 ", 34);
        row("a line feed after", "34\n", 34);
        row("a no-break space before", "\xa0\x33\x34"_s, 34);
        row("a space inside", "3 4", 0);
        row("a space alone", " ", 0);
        row("letters", "x", 0);
        row("letters after digits", "12abc", 0);
        row("a fraction", "1.5", 0);
        row("hexadecimal", "0x10", 0);
        row("a sign alone", "-", 0);
        row("two signs", "--7", 0);
        row("the highest int", "2147483647", 2147483647);
        row("one more", "2147483648", 0);
        row("the lowest int", "-2147483648", -2147483647 - 1);
        row("one less", "-2147483649", 0);
        row("eleven digits", "12345678901", 0);
        row("thirty digits", "123456789012345678901234567890", 0);
    }

    void partIsADecimalIntOrZero()
    {
        QFETCH(const QString, part);
        QFETCH(const int, code);
        change(part + ",41");
        change("42," + part);
        QCOMPARE(reports, (QStringList{"%1,41"_s.arg(code), "42,%1"_s.arg(code)}));
    }

    void anotherNameIsIgnored_data()
    {
        const Table<QString> row("name");
        row("lower case", "ko");
        row("mixed case", "Ko");
        row("a digit after", "KO1");
        row("a space after", "KO ");
        row("a space before", " KO");
        row("a zero after", "KO\0"_s);
        row("a prefix", "e:KO");
        row("one letter", "K");
        row("empty", "");
        row("null", QString());
    }

    void anotherNameIsIgnored()
    {
        QFETCH(const QString, name);
        service->stateVariables.insert(name, "56,78");
        // The table has no key object, and then it has one.
        Q_EMIT manager.valueChanged(device.data(), service, "KO");
        QVERIFY(!service->stateVariables.contains("KO"));
        service->stateVariables.insert("KO", "12,34");
        Q_EMIT manager.valueChanged(device.data(), service, name);
        QCOMPARE(reports + CapturedLog::all(), QStringList());
    }

    void nullRecordsAreIgnored()
    {
        service->stateVariables.insert("KO", "12,34");
        Q_EMIT manager.valueChanged(nullptr, service, "KO");
        Q_EMIT manager.valueChanged(device.data(), nullptr, "KO");
        device->address = QHostAddress();
        change("12,34;56,78");
        QCOMPARE(reports + CapturedLog::all(), QStringList());
    }

    void serviceNeedNotBeTheDevices()
    {
        SsdpService other;
        other.stateVariables.insert("KO", "5,6");
        Q_EMIT manager.valueChanged(device.data(), &other, "KO");
        QCOMPARE(reports, QStringList{"5,6"});
    }

    void everyReportIsLoggedBeforeItIsSent()
    {
        change("-12,34");
        const QString line = "0|Device with FC:-12 and UC:34 found at 192.168.1.20";
        QCOMPARE(logAtReport, QStringList{line});
        change("-12,34");
        QCOMPARE(reports, (QStringList{"-12,34", "-12,34"}));
        QCOMPARE(logAtReport, (QStringList{line, line}));
        QCOMPARE(CapturedLog::all(), logAtReport);

        // The records are only read.
        QCOMPARE(service->stateVariables, (QHash<QString, QString>{{"KO", "-12,34"}}));
        QCOMPARE(device->address, address);
    }
};

QTEST_GUILESS_MAIN(KeyObjectsTest)
#include "tst_keyobjects.moc"

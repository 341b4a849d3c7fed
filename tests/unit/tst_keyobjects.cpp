#include <ssdp/Ssdp.h>
#include <ssdp/SsdpDevice.h>
#include <ssdp/SsdpManager.h>
#include <ssdp/SsdpService.h>
#include <tests/support/CapturedLog.h>
#include <tests/support/Literals.h>
#include <tests/support/Table.h>

using namespace Velmora::Tests;
using namespace Velmora::SSDP;

/// How a controller reports key objects. It does so even without a discovery.
class KeyObjectsTest : public QObject
{
    Q_OBJECT

    const QHostAddress address = QHostAddress("192.168.1.20");
    QStringList reports;
    QStringList logAtReport;
    Ssdp controller{60000};
    SsdpManager manager{QHostAddress(QHostAddress::LocalHost)};
    QScopedPointer<SsdpDevice> device;
    SsdpService* service = nullptr;

    /// Sets the key object and emits valueChanged().
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

        const auto part = [&](const QByteArray& name, const QString& text, int code) {
            row(name + ", first part", text + ",41", {"%1,41"_s.arg(code)});
            row(name + ", second part", "42," + text, {"42,%1"_s.arg(code)});
        };
        part("zero", "0", 0);
        part("leading zeros", "0012", 12);
        part("a plus", "+8", 8);
        part("a minus", "-7", -7);
        part("a space before", " 34", 34);
        part("a space after", "34 ", 34);
        part("a line feed after", "34\n", 34);
        part("a no-break space before", "\xa0\x33\x34"_s, 34);
        part("a space inside", "3 4", 0);
        part("a space alone", " ", 0);
        part("letters", "x", 0);
        part("letters after digits", "12abc", 0);
        part("a fraction", "1.5", 0);
        part("hexadecimal", "0x10", 0);
        part("a sign alone", "-", 0);
        part("two signs", "--7", 0);
        part("the highest int", "2147483647", 2147483647);
        part("one more", "2147483648", 0);
        part("the lowest int", "-2147483648", -2147483647 - 1);
        part("one less", "-2147483649", 0);
        part("eleven digits", "12345678901", 0);
        part("thirty digits", "123456789012345678901234567890", 0);
    }

    void firstWellFormedEntryIsReported()
    {
        QFETCH(const QString, value);
        QFETCH(const QStringList, expected);
        change(value);
        QCOMPARE(reports, expected);
        QCOMPARE(CapturedLog::all().size(), expected.size());
    }

    void otherNamesAreIgnored()
    {
        const QStringList names{"ko", "Ko", "KO1", "KO ", " KO", "KO\0"_s, "e:KO", "K", "", QString()};
        for (const QString& name : names)
            service->stateVariables.insert(name, "56,78");
        Q_EMIT manager.valueChanged(device.data(), service, "KO");
        QVERIFY(!service->stateVariables.contains("KO"));
        service->stateVariables.insert("KO", "12,34");
        for (const QString& name : names)
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

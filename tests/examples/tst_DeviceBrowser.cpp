#include <tests/support/WireTest.h>

#include <BrowserWindow.h>
#include <DeviceModel.h>

#include <QtCore/QSortFilterProxyModel>
#include <QtGui/QClipboard>
#include <QtTest/QAbstractItemModelTester>
#include <QtTest/QSignalSpy>
#include <QtTest/QTest>
// In Qt 5 a part of QtWidgets, later of QtGui.
#include <QAction>
#include <QtWidgets/QApplication>
#include <QtWidgets/QLabel>
#include <QtWidgets/QProgressBar>
#include <QtWidgets/QPushButton>
#include <QtWidgets/QSpinBox>
#include <QtWidgets/QTableView>

using Velmora::SSDP::Ssdp;

namespace {

QHostAddress nine()
{
    return QHostAddress(QStringLiteral("10.77.1.9"));
}

QHostAddress ten()
{
    return QHostAddress(QStringLiteral("10.77.1.10"));
}

QDateTime at(int second)
{
    return QDateTime(QDate(2026, 1, 2), QTime(12, 0, second));
}

QString text(const QAbstractItemModel& model, int row, int column)
{
    return model.index(row, column).data().toString();
}

QStringList column(const QAbstractItemModel& model, int column)
{
    QStringList result;
    for (int row = 0; row < model.rowCount(); ++row)
        result << text(model, row, column);
    return result;
}

} // namespace

/// The network is private and empty: what reports is the test alone.
class DeviceBrowserTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void modelCountsTheReportsOfADevice();
    void modelTellsDevicesByAllThreeValues();
    void modelSortsAddressesByNumber();
    void modelForgetsEverything();
    void windowShowsWhatReports();
    void windowSaysWhatToCheckWhenNothingReports();
    void windowRunsTheProgressBarWithTheDiscovery();
    void windowStopsADiscovery();
    void windowTakesALateReport();
    void windowForgetsTheDevicesOfTheLastDiscovery();
    void windowStartsAgainFromTheSignalOfTheEnd();
    void windowCopiesTheSelectedRowsInTheOrderOfTheTable();
};

void DeviceBrowserTest::modelCountsTheReportsOfADevice()
{
    DeviceModel model;
    const QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::QtTest);
    model.addReport(12, 34, nine(), at(1));
    QSignalSpy changed(&model, &QAbstractItemModel::dataChanged);
    model.addReport(12, 34, nine(), at(5));

    QCOMPARE(model.rowCount(), 1);
    QCOMPARE(changed.count(), 1);
    QCOMPARE(text(model, 0, DeviceModel::FunctionCode), QStringLiteral("12"));
    QCOMPARE(text(model, 0, DeviceModel::UnivocalCode), QStringLiteral("34"));
    QCOMPARE(text(model, 0, DeviceModel::Address), QStringLiteral("10.77.1.9"));
    QCOMPARE(text(model, 0, DeviceModel::FirstSeen), QStringLiteral("12:00:01"));
    QCOMPARE(text(model, 0, DeviceModel::LastSeen), QStringLiteral("12:00:05"));
    QCOMPARE(text(model, 0, DeviceModel::Reports), QStringLiteral("2"));
}

void DeviceBrowserTest::modelTellsDevicesByAllThreeValues()
{
    DeviceModel model;
    model.addReport(1, 2, nine());
    model.addReport(2, 2, nine());
    model.addReport(1, 3, nine());
    model.addReport(1, 2, ten());
    QCOMPARE(column(model, DeviceModel::Reports),
             (QStringList{QStringLiteral("1"), QStringLiteral("1"), QStringLiteral("1"), QStringLiteral("1")}));
}

void DeviceBrowserTest::modelSortsAddressesByNumber()
{
    DeviceModel model;
    model.addReport(1, 1, ten());
    model.addReport(1, 1, nine());
    QSortFilterProxyModel sorted;
    sorted.setSourceModel(&model);
    sorted.setSortRole(Qt::UserRole);
    sorted.sort(DeviceModel::Address);
    QCOMPARE(column(sorted, DeviceModel::Address),
             (QStringList{QStringLiteral("10.77.1.9"), QStringLiteral("10.77.1.10")}));
}

void DeviceBrowserTest::modelForgetsEverything()
{
    DeviceModel model;
    const QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::QtTest);
    model.addReport(1, 1, ten());
    model.clear();
    QCOMPARE(model.rowCount(), 0);
    model.addReport(1, 1, ten());
    QCOMPARE(text(model, 0, DeviceModel::Reports), QStringLiteral("1"));
}

namespace {

/// A window with a discovery that runs until the test ends it.
struct Searching
{
    explicit Searching(int timeout = 60000)
        : window(timeout)
        , button(window.findChild<QPushButton*>(QStringLiteral("search")))
        , table(window.findChild<QTableView*>(QStringLiteral("table")))
        , emptyState(window.findChild<QLabel*>(QStringLiteral("emptyState")))
        , finished(&window, &BrowserWindow::finished)
    {
        window.show();
        button->click();
    }

    Ssdp* ssdp() const { return window.findChildren<Ssdp*>().constLast(); }
    void report(int functionCode, int univocalCode, const QHostAddress& address) const
    {
        Q_EMIT ssdp()->discovered(functionCode, univocalCode, address);
    }

    BrowserWindow window;
    QPushButton* button;
    QTableView* table;
    QLabel* emptyState;
    QSignalSpy finished;
};

} // namespace

void DeviceBrowserTest::windowShowsWhatReports()
{
    const Searching searching;
    searching.report(7, 2, ten());
    searching.report(7, 1, nine());
    searching.report(7, 1, nine());
    QVERIFY(searching.table->isVisible());
    QCOMPARE(column(*searching.table->model(), DeviceModel::UnivocalCode),
             (QStringList{QStringLiteral("1"), QStringLiteral("2")}));
    QCOMPARE(column(*searching.table->model(), DeviceModel::Reports),
             (QStringList{QStringLiteral("2"), QStringLiteral("1")}));
}

void DeviceBrowserTest::windowSaysWhatToCheckWhenNothingReports()
{
    Searching searching(100);
    QVERIFY(!searching.emptyState->isVisible());
    QVERIFY(searching.finished.wait());
    QVERIFY(searching.emptyState->isVisible());
    QVERIFY(searching.emptyState->text().contains(QStringLiteral("UDP port 1900")));
    QVERIFY(!searching.table->isVisible());
}

void DeviceBrowserTest::windowRunsTheProgressBarWithTheDiscovery()
{
    Searching searching(1000);
    auto* const progress = searching.window.findChild<QProgressBar*>(QStringLiteral("progress"));
    QSignalSpy moved(progress, &QProgressBar::valueChanged);
    QCOMPARE(progress->maximum(), 1000);
    QVERIFY(!searching.window.findChild<QSpinBox*>(QStringLiteral("timeout"))->isEnabled());
    QVERIFY(searching.finished.wait());
    QVERIFY(moved.count() > 2);
    QCOMPARE(progress->value(), 1000);
    QVERIFY(searching.window.findChild<QSpinBox*>(QStringLiteral("timeout"))->isEnabled());
}

void DeviceBrowserTest::windowStopsADiscovery()
{
    Searching searching;
    QSignalSpy expired(searching.ssdp(), &Ssdp::timeoutExpired);
    searching.button->click();
    QCOMPARE(searching.finished.count(), 1);
    QCOMPARE(expired.count(), 0);
    // It was too early to ask what is wrong.
    QVERIFY(!searching.emptyState->isVisible());
    QCOMPARE(searching.window.findChild<QLabel*>(QStringLiteral("summary"))->text(),
             QStringLiteral("Stopped; devices found: 0"));
    QCOMPARE(searching.window.findChild<QProgressBar*>(QStringLiteral("progress"))->value(), 0);
}

void DeviceBrowserTest::windowTakesALateReport()
{
    Searching searching;
    searching.button->click();
    searching.report(7, 1, nine());
    QVERIFY(searching.table->isVisible());
    QCOMPARE(searching.table->model()->rowCount(), 1);
}

void DeviceBrowserTest::windowForgetsTheDevicesOfTheLastDiscovery()
{
    Searching searching;
    searching.report(7, 1, nine());
    searching.button->click();
    QCOMPARE(searching.table->model()->rowCount(), 1);
    Ssdp* const before = searching.ssdp();
    searching.button->click();
    QCOMPARE(searching.table->model()->rowCount(), 0);
    Q_EMIT before->discovered(7, 1, nine());
    QCOMPARE(searching.table->model()->rowCount(), 0);
    searching.report(7, 2, nine());
    QCOMPARE(searching.table->model()->rowCount(), 1);
}

void DeviceBrowserTest::windowStartsAgainFromTheSignalOfTheEnd()
{
    Searching searching(100);
    const QMetaObject::Connection again =
        connect(&searching.window, &BrowserWindow::finished, searching.button, &QPushButton::click);
    QVERIFY(searching.finished.wait());
    disconnect(again);
    QVERIFY(searching.finished.wait());
    QCOMPARE(searching.finished.count(), 2);
    QCOMPARE(searching.window.findChildren<Ssdp*>().size(), 1);
}

void DeviceBrowserTest::windowCopiesTheSelectedRowsInTheOrderOfTheTable()
{
    const Searching searching;
    searching.report(7, 2, ten());
    searching.report(7, 1, nine());
    searching.report(7, 3, QHostAddress(QStringLiteral("10.77.1.11")));
    searching.table->selectRow(1);
    searching.table->setSelectionMode(QAbstractItemView::MultiSelection);
    searching.table->selectRow(0);
    QCOMPARE(searching.table->actions().size(), 1);
    searching.table->actions().constFirst()->trigger();

    const QStringList lines = QApplication::clipboard()->text().split(QLatin1Char('\n'));
    QCOMPARE(lines.size(), 2);
    QVERIFY(lines.at(0).startsWith(QStringLiteral("7\t1\t10.77.1.9\t")));
    QVERIFY(lines.at(1).startsWith(QStringLiteral("7\t2\t10.77.1.10\t")));
    QCOMPARE(lines.at(0).count(QLatin1Char('\t')), int(DeviceModel::ColumnCount) - 1);
}

int main(int argc, char** argv)
{
    const auto network = Velmora::Tests::makeNetworkOrExit();
    const QApplication application(argc, argv);
    DeviceBrowserTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_DeviceBrowser.moc"

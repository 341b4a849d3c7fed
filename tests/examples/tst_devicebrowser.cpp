#include <tests/support/Literals.h>
#include <tests/support/WireTest.h>

#include <BrowserWindow.h>
#include <DeviceModel.h>

#include <QtCore/QSortFilterProxyModel>
#include <QtGui/QClipboard>
#include <QtTest/QAbstractItemModelTester>
#include <QtTest/QSignalSpy>
#include <QtTest/QTest>
// QAction is in QtWidgets in Qt 5, and in QtGui in Qt 6.
#include <QAction>
#include <QtWidgets/QApplication>
#include <QtWidgets/QLabel>
#include <QtWidgets/QProgressBar>
#include <QtWidgets/QPushButton>
#include <QtWidgets/QSpinBox>
#include <QtWidgets/QTableView>

using namespace Velmora::Tests;
using Velmora::SSDP::Ssdp;

namespace {

const char NINE[] = "10.77.1.9";
const char TEN[] = "10.77.1.10";

QDateTime at(int second)
{
    return QDateTime(QDate(2026, 1, 2), QTime(12, 0, second));
}

QStringList column(const QAbstractItemModel& model, int column)
{
    QStringList result;
    for (int row = 0; row < model.rowCount(); ++row)
        result << model.index(row, column).data().toString();
    return result;
}

/// A window in which a discovery runs.
struct Searching
{
    explicit Searching(int timeout = 60000)
        : window(timeout)
        , button(window.findChild<QPushButton*>("search"))
        , table(window.findChild<QTableView*>("table"))
        , emptyState(window.findChild<QLabel*>("emptyState"))
        , finished(&window, &BrowserWindow::finished)
    {
        window.show();
        button->click();
    }

    Ssdp* ssdp() const { return window.findChildren<Ssdp*>().constLast(); }
    void report(int functionCode, int univocalCode, const char* address) const
    {
        Q_EMIT ssdp()->discovered(functionCode, univocalCode, QHostAddress(address));
    }

    BrowserWindow window;
    QPushButton* button;
    QTableView* table;
    QLabel* emptyState;
    QSignalSpy finished;
};

} // namespace

/// The window in a private network without devices. Only the test reports.
class DeviceBrowserTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:

    void modelCountsTheReportsOfADevice()
    {
        DeviceModel model;
        const QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::QtTest);
        model.addReport(12, 34, QHostAddress(NINE), at(1));
        QSignalSpy changed(&model, &QAbstractItemModel::dataChanged);
        model.addReport(12, 34, QHostAddress(NINE), at(5));

        QCOMPARE(changed.count(), 1);
        QCOMPARE(column(model, DeviceModel::FunctionCode), QStringList{"12"});
        QCOMPARE(column(model, DeviceModel::UnivocalCode), QStringList{"34"});
        QCOMPARE(column(model, DeviceModel::Address), QStringList{"10.77.1.9"});
        QCOMPARE(column(model, DeviceModel::FirstSeen), QStringList{"12:00:01"});
        QCOMPARE(column(model, DeviceModel::LastSeen), QStringList{"12:00:05"});
        QCOMPARE(column(model, DeviceModel::Reports), QStringList{"2"});
    }

    void modelTellsDevicesByAllThreeValues()
    {
        DeviceModel model;
        model.addReport(1, 2, QHostAddress(NINE));
        model.addReport(2, 2, QHostAddress(NINE));
        model.addReport(1, 3, QHostAddress(NINE));
        model.addReport(1, 2, QHostAddress(TEN));
        QCOMPARE(column(model, DeviceModel::Reports), (QStringList{"1", "1", "1", "1"}));
    }

    void modelSortsAddressesByNumber()
    {
        DeviceModel model;
        model.addReport(1, 1, QHostAddress(TEN));
        model.addReport(1, 1, QHostAddress(NINE));
        QSortFilterProxyModel sorted;
        sorted.setSourceModel(&model);
        sorted.setSortRole(Qt::UserRole);
        sorted.sort(DeviceModel::Address);
        QCOMPARE(column(sorted, DeviceModel::Address), (QStringList{"10.77.1.9", "10.77.1.10"}));
    }

    void modelForgetsEverything()
    {
        DeviceModel model;
        const QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::QtTest);
        model.addReport(1, 1, QHostAddress(TEN));
        model.clear();
        QCOMPARE(model.rowCount(), 0);
        model.addReport(1, 1, QHostAddress(TEN));
        QCOMPARE(column(model, DeviceModel::Reports), QStringList{"1"});
    }

    void windowShowsWhatReports()
    {
        const Searching searching;
        searching.report(7, 2, TEN);
        searching.report(7, 1, NINE);
        searching.report(7, 1, NINE);
        QVERIFY(searching.table->isVisible());
        QCOMPARE(column(*searching.table->model(), DeviceModel::UnivocalCode), (QStringList{"1", "2"}));
        QCOMPARE(column(*searching.table->model(), DeviceModel::Reports), (QStringList{"2", "1"}));
    }

    void windowSaysWhatToCheckWhenNothingReports()
    {
        Searching searching(100);
        QVERIFY(!searching.emptyState->isVisible());
        QVERIFY(searching.finished.wait());
        QVERIFY(searching.emptyState->isVisible());
        QVERIFY(searching.emptyState->text().contains("UDP to port 1900"));
        QVERIFY(!searching.table->isVisible());
    }

    void windowRunsTheProgressBarWithTheDiscovery()
    {
        Searching searching(1000);
        auto* const progress = searching.window.findChild<QProgressBar*>("progress");
        QSignalSpy moved(progress, &QProgressBar::valueChanged);
        QCOMPARE(progress->maximum(), 1000);
        const auto* const timeout = searching.window.findChild<QSpinBox*>("timeout");
        QVERIFY(!timeout->isEnabled());
        QVERIFY(searching.finished.wait());
        QVERIFY(moved.count() > 2);
        QCOMPARE(progress->value(), 1000);
        QVERIFY(timeout->isEnabled());
    }

    void windowStopsADiscovery()
    {
        Searching searching;
        QSignalSpy expired(searching.ssdp(), &Ssdp::timeoutExpired);
        searching.button->click();
        QCOMPARE(searching.finished.count(), 1);
        QCOMPARE(expired.count(), 0);
        // It is too early to say that nothing was found.
        QVERIFY(!searching.emptyState->isVisible());
        QCOMPARE(searching.window.findChild<QLabel*>("summary")->text(), "Stopped; devices found: 0"_s);
        QCOMPARE(searching.window.findChild<QProgressBar*>("progress")->value(), 0);
    }

    void windowTakesALateReport()
    {
        Searching searching;
        searching.button->click();
        searching.report(7, 1, NINE);
        QVERIFY(searching.table->isVisible());
        QCOMPARE(searching.table->model()->rowCount(), 1);
    }

    void windowForgetsTheDevicesOfTheLastDiscovery()
    {
        Searching searching;
        searching.report(7, 1, NINE);
        searching.button->click();
        QCOMPARE(searching.table->model()->rowCount(), 1);
        Ssdp* const before = searching.ssdp();
        searching.button->click();
        QCOMPARE(searching.table->model()->rowCount(), 0);
        Q_EMIT before->discovered(7, 1, QHostAddress(NINE));
        QCOMPARE(searching.table->model()->rowCount(), 0);
        searching.report(7, 2, NINE);
        QCOMPARE(searching.table->model()->rowCount(), 1);
    }

    void windowStartsAgainFromTheSignalOfTheEnd()
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

    void windowCopiesTheSelectedRowsInTheOrderOfTheTable()
    {
        const Searching searching;
        searching.report(7, 2, TEN);
        searching.report(7, 1, NINE);
        searching.report(7, 3, "10.77.1.11");
        searching.table->selectRow(1);
        searching.table->setSelectionMode(QAbstractItemView::MultiSelection);
        searching.table->selectRow(0);
        QCOMPARE(searching.table->actions().size(), 1);
        searching.table->actions().constFirst()->trigger();

        const QStringList lines = QApplication::clipboard()->text().split(QLatin1Char('\n'));
        QCOMPARE(lines.size(), 2);
        QVERIFY(lines.at(0).startsWith("7\t1\t10.77.1.9\t"));
        QVERIFY(lines.at(1).startsWith("7\t2\t10.77.1.10\t"));
        QCOMPARE(lines.at(0).count(QLatin1Char('\t')), int(DeviceModel::ColumnCount) - 1);
    }
};

int main(int argc, char** argv)
{
    const auto network = Velmora::Tests::makeNetworkOrExit();
    const QApplication application(argc, argv);
    DeviceBrowserTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_devicebrowser.moc"

#include "BrowserWindow.h"

// QAction is in QtWidgets in Qt 5, and in QtGui in Qt 6.
#include <QAction>
#include <QtCore/QItemSelectionModel>
#include <QtCore/QSortFilterProxyModel>
#include <QtCore/QStringList>
#include <QtGui/QClipboard>
#include <QtGui/QGuiApplication>
#include <QtWidgets/QHBoxLayout>
#include <QtWidgets/QHeaderView>
#include <QtWidgets/QLabel>
#include <QtWidgets/QProgressBar>
#include <QtWidgets/QPushButton>
#include <QtWidgets/QSpinBox>
#include <QtWidgets/QStackedWidget>
#include <QtWidgets/QTableView>
#include <QtWidgets/QVBoxLayout>

#include <algorithm>

using Velmora::SSDP::Ssdp;

BrowserWindow::BrowserWindow(int timeout, QWidget* parent)
    : QWidget(parent)
    , ssdp(nullptr)
    , devices(new DeviceModel(this))
    , sortedDevices(new QSortFilterProxyModel(this))
    , searchButton(new QPushButton(this))
    , timeoutField(new QSpinBox(this))
    , progress(new QProgressBar(this))
    , pages(new QStackedWidget(this))
    , table(new QTableView(this))
    , summary(new QLabel(this))
{
    setWindowTitle(tr("Device browser"));
    setMinimumSize(600, 320);
    resize(720, 360);

    sortedDevices->setSourceModel(devices);
    sortedDevices->setSortRole(Qt::UserRole);
    table->setObjectName(QStringLiteral("table"));
    table->setModel(sortedDevices);
    table->setSortingEnabled(true);
    table->sortByColumn(DeviceModel::Address, Qt::AscendingOrder);
    table->setSelectionBehavior(QAbstractItemView::SelectRows);
    table->setAlternatingRowColors(true);
    table->verticalHeader()->hide();
    table->horizontalHeader()->setSectionResizeMode(QHeaderView::Stretch);

    QAction* const copy = new QAction(tr("&Copy rows"), this);
    copy->setShortcut(QKeySequence::Copy);
    connect(copy, &QAction::triggered, this, &BrowserWindow::copySelectedRows);
    table->addAction(copy);
    table->setContextMenuPolicy(Qt::ActionsContextMenu);

    QLabel* const emptyState = new QLabel(this);
    emptyState->setObjectName(QStringLiteral("emptyState"));
    emptyState->setWordWrap(true);
    emptyState->setMargin(24);
    emptyState->setAlignment(Qt::AlignCenter);
    emptyState->setText(tr("<p><b>No device has reported.</b></p>"
                           "<p>Is an interface of this computer connected to the network of the device?</p>"
                           "<p>Does the firewall accept UDP to port 1900, and the TCP connections that devices "
                           "open to send their events?</p>"
                           "<p>Devices take up to three seconds to answer. Is the time-out long enough?</p>"));
    pages->addWidget(emptyState);
    pages->addWidget(table);

    timeoutField->setObjectName(QStringLiteral("timeout"));
    timeoutField->setRange(100, 600000);
    timeoutField->setSingleStep(500);
    timeoutField->setSuffix(tr(" ms"));
    timeoutField->setValue(timeout);
    QLabel* const timeoutLabel = new QLabel(tr("&Time-out:"), this);
    timeoutLabel->setBuddy(timeoutField);

    searchButton->setObjectName(QStringLiteral("search"));
    searchButton->setDefault(true);
    connect(searchButton, &QPushButton::clicked, this, &BrowserWindow::startOrStop);

    progress->setObjectName(QStringLiteral("progress"));
    progress->setTextVisible(false);
    progressTimer.setInterval(50);
    connect(&progressTimer, &QTimer::timeout, this, &BrowserWindow::showProgress);

    QHBoxLayout* const controls = new QHBoxLayout;
    controls->addWidget(searchButton);
    controls->addWidget(timeoutLabel);
    controls->addWidget(timeoutField);
    controls->addWidget(progress, 1);
    QVBoxLayout* const layout = new QVBoxLayout(this);
    layout->addLayout(controls);
    layout->addWidget(pages, 1);
    layout->addWidget(summary);

    summary->setObjectName(QStringLiteral("summary"));
    searchButton->setText(tr("&Search"));
    showSummary();
}

void BrowserWindow::startOrStop()
{
    if (progressTimer.isActive()) {
        ssdp->stop();
        isStopped = true;
        finish();
    } else {
        start();
    }
}

void BrowserWindow::start()
{
    // The time-out of an Ssdp object cannot be changed, so every discovery gets a new object. This code may
    // run in a slot of the previous object, so that object is deleted later.
    if (ssdp) {
        ssdp->disconnect(this);
        ssdp->deleteLater();
    }
    ssdp = new Ssdp(timeoutField->value(), this);
    connect(ssdp, &Ssdp::discovered, this, &BrowserWindow::addDevice);
    connect(ssdp, &Ssdp::timeoutExpired, this, &BrowserWindow::finish);

    isStopped = false;
    devices->clear();
    progress->setRange(0, timeoutField->value());
    timeoutField->setEnabled(false);
    searchButton->setText(tr("&Stop"));
    elapsed.start();
    progressTimer.start();
    ssdp->discover();
    showProgress();
    showSummary();
}

void BrowserWindow::finish()
{
    progressTimer.stop();
    progress->setValue(isStopped ? 0 : progress->maximum());
    timeoutField->setEnabled(true);
    searchButton->setText(tr("&Search"));
    showSummary();
    Q_EMIT finished();
}

void BrowserWindow::addDevice(int functionCode, int univocalCode, const QHostAddress& address)
{
    devices->addReport(functionCode, univocalCode, address);
    showSummary();
}

void BrowserWindow::showProgress()
{
    progress->setValue(static_cast<int>(std::min<qint64>(elapsed.elapsed(), progress->maximum())));
}

void BrowserWindow::showSummary()
{
    const int count = devices->rowCount();
    const bool isSearching = progressTimer.isActive();
    const bool isComplete = ssdp && !isSearching && !isStopped;
    pages->setCurrentIndex(isComplete && count == 0 ? 0 : 1);
    if (isSearching)
        summary->setText(tr("Searching; devices so far: %1").arg(count));
    else if (isStopped)
        summary->setText(tr("Stopped; devices found: %1").arg(count));
    else if (ssdp)
        summary->setText(tr("Devices found: %1").arg(count));
    else
        summary->setText(tr("Press Search."));
}

void BrowserWindow::copySelectedRows()
{
    QModelIndexList rows = table->selectionModel()->selectedRows();
    std::sort(rows.begin(), rows.end());
    QStringList lines;
    for (const QModelIndex& row : rows) {
        QStringList cells;
        for (int column = 0; column < DeviceModel::ColumnCount; ++column)
            cells << row.sibling(row.row(), column).data().toString();
        lines << cells.join(QLatin1Char('\t'));
    }
    if (!lines.isEmpty())
        QGuiApplication::clipboard()->setText(lines.join(QLatin1Char('\n')));
}

#include "moc_BrowserWindow.cpp"

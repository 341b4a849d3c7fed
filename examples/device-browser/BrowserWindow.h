#ifndef DEVICEBROWSER_BROWSERWINDOW_H
#define DEVICEBROWSER_BROWSERWINDOW_H

#include "DeviceModel.h"

#include <ssdp/Ssdp.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QTimer>
#include <QtWidgets/QWidget>

class QLabel;
class QProgressBar;
class QPushButton;
class QSortFilterProxyModel;
class QSpinBox;
class QStackedWidget;
class QTableView;

/**
 * A window over Velmora::SSDP::Ssdp: searches at the push of a button and lists the devices as they
 * report. The selected rows are copied as text with tabs.
 */
class BrowserWindow : public QWidget
{
    Q_OBJECT

public:
    /// @param timeout what the time-out field says at first, in milliseconds
    explicit BrowserWindow(int timeout = 5000, QWidget* parent = nullptr);

public Q_SLOTS:
    /// Starts a discovery with the time-out of the field, or ends the one that runs.
    void startOrStop();

    /// Puts the selected rows, in the order of the table, on the clipboard.
    void copySelectedRows();

Q_SIGNALS:
    /// A discovery has ended, by its time-out or by the button.
    void finished();

private:
    void addDevice(int functionCode, int univocalCode, const QHostAddress& address);
    void start();
    void finish();
    void showProgress();
    void showSummary();

    Velmora::SSDP::Ssdp* ssdp;
    DeviceModel* devices;
    QSortFilterProxyModel* sortedDevices;
    QElapsedTimer elapsed;
    QTimer progressTimer;
    bool isStopped = false; ///< The last discovery ended by the button.

    QPushButton* searchButton;
    QSpinBox* timeoutField;
    QProgressBar* progress;
    QStackedWidget* pages;
    QTableView* table;
    QLabel* summary;
};

#endif

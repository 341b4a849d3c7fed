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
 * A window that uses Velmora::SSDP::Ssdp. A button starts a discovery, and a table lists the devices that
 * report. Selected rows can be copied as text with tabs.
 */
class BrowserWindow : public QWidget
{
    Q_OBJECT

public:
    /// @param timeout the initial value of the time-out field, in milliseconds
    explicit BrowserWindow(int timeout = 5000, QWidget* parent = nullptr);

public Q_SLOTS:
    /// If a discovery is running, ends it. Otherwise starts one with the time-out of the field.
    void startOrStop();

    /// Copies the selected rows to the clipboard, in the order of the table.
    void copySelectedRows();

Q_SIGNALS:
    /// A discovery has ended: it reached its time-out, or the button ended it.
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
    bool isStopped = false; ///< Whether the button ended the last discovery.

    QPushButton* searchButton;
    QSpinBox* timeoutField;
    QProgressBar* progress;
    QStackedWidget* pages;
    QTableView* table;
    QLabel* summary;
};

#endif

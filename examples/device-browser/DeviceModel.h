#ifndef DEVICEBROWSER_DEVICEMODEL_H
#define DEVICEBROWSER_DEVICEMODEL_H

#include <QtCore/QAbstractTableModel>
#include <QtCore/QDateTime>
#include <QtCore/QList>
#include <QtNetwork/QHostAddress>

/**
 * The devices that have reported, one row for each. The two codes and the address together identify a
 * device. If a device reports several times, its row shows the number of reports.
 *
 * Qt::DisplayRole gives the text of a cell. Qt::UserRole gives the value for sorting.
 */
class DeviceModel : public QAbstractTableModel
{
    Q_OBJECT

public:
    enum Column { FunctionCode, UnivocalCode, Address, FirstSeen, LastSeen, Reports, ColumnCount };

    explicit DeviceModel(QObject* parent = nullptr);

    /// Adds the device. If it is already in the model, counts the report. @p when is the time of the report.
    void addReport(int functionCode, int univocalCode, const QHostAddress& address,
                   const QDateTime& when = QDateTime::currentDateTime());

    void clear();

    int rowCount(const QModelIndex& parent = QModelIndex()) const override;
    int columnCount(const QModelIndex& parent = QModelIndex()) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;

private:
    struct Device
    {
        int functionCode;
        int univocalCode;
        QHostAddress address;
        QDateTime firstSeen;
        QDateTime lastSeen;
        int reports;
    };

    QList<Device> devices;
};

#endif

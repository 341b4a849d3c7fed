#include "DeviceModel.h"

namespace {

int alignment(int column)
{
    const bool isNumber = column == DeviceModel::FunctionCode || column == DeviceModel::UnivocalCode
        || column == DeviceModel::Reports;
    return int((isNumber ? Qt::AlignRight : Qt::AlignLeft) | Qt::AlignVCenter);
}

} // namespace

DeviceModel::DeviceModel(QObject* parent)
    : QAbstractTableModel(parent)
{
}

void DeviceModel::addReport(int functionCode, int univocalCode, const QHostAddress& address, const QDateTime& when)
{
    for (int row = 0; row < devices.size(); ++row) {
        Device& device = devices[row];
        if (device.functionCode == functionCode && device.univocalCode == univocalCode
            && device.address == address) {
            device.lastSeen = when;
            ++device.reports;
            Q_EMIT dataChanged(index(row, LastSeen), index(row, Reports));
            return;
        }
    }
    const int row = static_cast<int>(devices.size());
    beginInsertRows(QModelIndex(), row, row);
    devices.append({functionCode, univocalCode, address, when, when, 1});
    endInsertRows();
}

void DeviceModel::clear()
{
    beginResetModel();
    devices.clear();
    endResetModel();
}

int DeviceModel::rowCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : static_cast<int>(devices.size());
}

int DeviceModel::columnCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : ColumnCount;
}

QVariant DeviceModel::data(const QModelIndex& index, int role) const
{
    if (!index.isValid())
        return QVariant();

    if (role == Qt::TextAlignmentRole)
        return alignment(index.column());
    if (role != Qt::DisplayRole && role != Qt::UserRole)
        return QVariant();

    const Device& device = devices.at(index.row());
    const bool forSorting = role == Qt::UserRole;
    const QString timeFormat = QStringLiteral("HH:mm:ss");
    switch (index.column()) {
    case FunctionCode:
        return device.functionCode;
    case UnivocalCode:
        return device.univocalCode;
    case Address:
        // Sorted as a number, 10.0.0.9 comes before 10.0.0.10. Sorted as text, it comes after.
        return forSorting ? QVariant(device.address.toIPv4Address()) : QVariant(device.address.toString());
    case FirstSeen:
        return forSorting ? QVariant(device.firstSeen) : QVariant(device.firstSeen.toString(timeFormat));
    case LastSeen:
        return forSorting ? QVariant(device.lastSeen) : QVariant(device.lastSeen.toString(timeFormat));
    case Reports:
        return device.reports;
    default:
        return QVariant();
    }
}

QVariant DeviceModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation == Qt::Horizontal && role == Qt::TextAlignmentRole)
        return alignment(section);
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole)
        return QVariant();
    switch (section) {
    case FunctionCode:
        return tr("Function code");
    case UnivocalCode:
        return tr("Univocal code");
    case Address:
        return tr("Address");
    case FirstSeen:
        return tr("First seen");
    case LastSeen:
        return tr("Last seen");
    case Reports:
        return tr("Reports");
    default:
        return QVariant();
    }
}

#include "moc_DeviceModel.cpp"

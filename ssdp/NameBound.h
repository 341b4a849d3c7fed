#ifndef VELMORA_SSDP_NAMEBOUND_H
#define VELMORA_SSDP_NAMEBOUND_H

#include <QtCore/QHash>
#include <QtCore/QString>

namespace Velmora {
namespace SSDP {

/**
 * Bounds how many of the names that a document adds to a table may hash alike, on Qt 5 only.
 *
 * In Qt 5.15 there are strings that have the same hash under every seed. Tens of thousands of them
 * degrade a QHash to a list: a document then takes minutes. No such strings are known for Qt 6. Qt 4.8
 * has no seed and reduces the hash by a known prime, which no bound on the hash can cover.
 */
class NameBound
{
public:
    explicit NameBound(const QHash<QString, QString>& table)
        : table(table)
    {
    }

    /// Whether @p name may be added to the table.
    bool admits(const QString& name)
    {
#if QT_VERSION >= QT_VERSION_CHECK(5, 6, 0) && QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
        // Two names that hash alike are rare already. The seed is that of the table.
        const int MAX_ALIKE = 64;
        return table.contains(name) || ++alike[qHash(name, static_cast<uint>(qGlobalQHashSeed()))] <= MAX_ALIKE;
#else
        Q_UNUSED(table)
        Q_UNUSED(name)
        Q_UNUSED(table)
        return true;
#endif
    }

private:
    const QHash<QString, QString>& table;
    QHash<uint, int> alike;
};

} // namespace SSDP
} // namespace Velmora

#endif

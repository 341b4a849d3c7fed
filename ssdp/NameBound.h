#ifndef VELMORA_SSDP_NAMEBOUND_H
#define VELMORA_SSDP_NAMEBOUND_H

#include <QtCore/QHash>
#include <QtCore/QString>

namespace Velmora {
namespace SSDP {

/**
 * Limits how many names with the same hash a document may add to a table. The limit is on Qt 5 only.
 *
 * With Qt 5.15, some strings have the same hash with every seed. Tens of thousands of them degrade the
 * hash table to a list: a document then takes minutes. For Qt 6, no such strings are known. Qt 4.8 has no
 * seed, and the size of its table is a known prime. There, different hashes may share a place in the
 * table, so a limit for equal hashes would not help.
 *
 * @warning The table must exist as long as this object.
 */
class NameBound
{
public:
    explicit NameBound(const QHash<QString, QString>& table)
        : table(table)
    {
    }

    /// Returns whether @p name may be added to the table. Call this once for each name.
    bool admits(const QString& name)
    {
#if QT_VERSION >= QT_VERSION_CHECK(5, 6, 0) && QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
        // Except in an attack, even two names with the same hash are rare. The table uses this seed, too.
        const int MAX_SAME_HASH = 64;
        const uint hash = qHash(name, static_cast<uint>(qGlobalQHashSeed()));
        return table.contains(name) || ++hashCounts[hash] <= MAX_SAME_HASH;
#else
        Q_UNUSED(table)
        Q_UNUSED(name)
        return true;
#endif
    }

private:
    const QHash<QString, QString>& table;
    QHash<uint, int> hashCounts; ///< The number of names with each hash.
};

} // namespace SSDP
} // namespace Velmora

#endif

#ifndef VELMORA_SSDP_NAMEBOUND_H
#define VELMORA_SSDP_NAMEBOUND_H

#include <QtCore/QHash>
#include <QtCore/QString>

namespace Velmora {
namespace SSDP {

/**
 * Limits how many names with the same hash a document may add to a table, on Qt 5 only.
 *
 * Qt 5.15 has strings with the same hash under every seed. Tens of thousands of them degrade the hash
 * table to a list: a document then takes minutes. No such strings are known for Qt 6. Qt 4.8 has no seed
 * and takes the hash modulo a known prime, so a limit for equal hashes would not help there.
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
        // In other documents, even two names with the same hash are rare. The table uses the same seed.
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

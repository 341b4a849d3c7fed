#ifndef VELMORA_TESTS_SUPPORT_NAMESALIKE_H
#define VELMORA_TESTS_SUPPORT_NAMESALIKE_H

#include <tests/support/Messages.h>

#include <QtCore/QHash>
#include <QtCore/QString>

#include <string>
#include <vector>

namespace Velmora {
namespace Tests {

/// Returns different names. On Qt 5, they have the same hash with every seed except 0, if the processor can
/// calculate a CRC. The hash is then a CRC: if one bit of a name changes, always the same bits of the hash change.
/// The names differ from the first one in several bits. Together, these changes leave the hash as it was.
inline std::vector<std::string> namesAlike(size_t count)
{
    const std::string base(14, 'H');
    const auto hash = [](const std::string& name) {
        return static_cast<uint>(qHash(QString::fromStdString(name), 1));
    };
    const auto changed = [&base](quint64 mask) {
        std::string name = base;
        // A letter stays a letter if any of these four bits change.
        for (size_t i = 0; i < name.size() * 4; ++i) {
            if ((mask >> i) & 1)
                name[i / 4] = static_cast<char>(name[i / 4] ^ "\x01\x02\x04\x20"[i % 4]);
        }
        return name;
    };
    struct Change
    {
        uint result;
        quint64 mask;
    };
    std::vector<Change> independent;
    std::vector<quint64> cancelling;
    for (size_t i = 0; i < base.size() * 4; ++i) {
        const quint64 bit = Q_UINT64_C(1) << i;
        Change change = {hash(changed(bit)) ^ hash(base), bit};
        for (const Change& other : independent) {
            if ((change.result ^ other.result) < change.result)
                change = {change.result ^ other.result, change.mask ^ other.mask};
        }
        if (change.result == 0)
            cancelling.push_back(change.mask);
        else
            independent.push_back(change);
    }
    std::vector<std::string> names;
    names.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        quint64 mask = 0;
        for (size_t j = 0; j < cancelling.size(); ++j)
            mask ^= ((i >> j) & 1) ? cancelling[j] : 0;
        names.push_back(changed(mask));
    }
    return names;
}

/// Returns @p count different names. If @p areAlike is true, they have the same hash on Qt 5.
inline QList<QByteArray> manyNames(int count, bool areAlike = false)
{
    QList<QByteArray> result;
    for (int i = 0; i < count && !areAlike; ++i)
        result << 'N' + QByteArray::number(i);
    for (const std::string& name : namesAlike(static_cast<size_t>(areAlike ? count : 0)))
        result << QByteArray::fromStdString(name);
    return result;
}

/// Returns an event with these variables.
inline QByteArray eventOf(const QList<QByteArray>& names)
{
    QByteArray properties;
    for (const QByteArray& name : names)
        properties += eventProperty(name, "");
    return propertySet(properties);
}

} // namespace Tests
} // namespace Velmora

#endif

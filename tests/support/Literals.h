#ifndef VELMORA_TESTS_SUPPORT_LITERALS_H
#define VELMORA_TESTS_SUPPORT_LITERALS_H

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QString>

namespace Velmora {
namespace Tests {

/// A QString of Latin-1 text, for where a plain literal would stay a pointer: in `"a"_s + b`, or in `auto`.
inline QString operator""_s(const char* text, size_t length)
{
    return QString::fromLatin1(text, static_cast<int>(length));
}

/// A QByteArray, which may have zero bytes.
inline QByteArray operator""_ba(const char* bytes, size_t length)
{
    return QByteArray(bytes, static_cast<int>(length));
}

/// Texts for rows that differ in nothing else. As arguments they fill a line, in braces each takes its own.
template <typename... Text> QList<QByteArray> listOf(const Text&... texts)
{
    return {QByteArray(texts)...};
}

} // namespace Tests
} // namespace Velmora

#endif

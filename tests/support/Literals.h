#ifndef VELMORA_TESTS_SUPPORT_LITERALS_H
#define VELMORA_TESTS_SUPPORT_LITERALS_H

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QString>

namespace Velmora {
namespace Tests {

/// A QString of Latin-1 text. Without the suffix, `auto a = "a"` is a pointer.
inline QString operator""_s(const char* text, size_t length)
{
    return QString::fromLatin1(text, static_cast<int>(length));
}

/// A QByteArray. It may contain zero bytes.
inline QByteArray operator""_ba(const char* bytes, size_t length)
{
    return QByteArray(bytes, static_cast<int>(length));
}

/// A list of texts. In braces, clang-format would write each text of a long list on its own line.
template <typename... Text> QList<QByteArray> listOf(const Text&... texts)
{
    return {QByteArray(texts)...};
}

} // namespace Tests
} // namespace Velmora

#endif

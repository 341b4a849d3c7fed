#ifndef VELMORA_TESTS_SUPPORT_LITERALS_H
#define VELMORA_TESTS_SUPPORT_LITERALS_H

#include <tests/support/Literals.h>

#include <QtCore/QByteArray>
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

} // namespace Tests
} // namespace Velmora

#endif

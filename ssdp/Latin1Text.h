#ifndef VELMORA_SSDP_LATIN1TEXT_H
#define VELMORA_SSDP_LATIN1TEXT_H

#include <QtCore/QByteArray>
#include <QtCore/QString>

namespace Velmora {
namespace SSDP {

/// @p bytes up to the first zero byte, each a character of Latin-1.
inline QString textUpToZero(const QByteArray& bytes)
{
    return QString::fromLatin1(bytes.constData());
}

} // namespace SSDP
} // namespace Velmora

#endif

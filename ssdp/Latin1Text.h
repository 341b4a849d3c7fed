#ifndef VELMORA_SSDP_LATIN1TEXT_H
#define VELMORA_SSDP_LATIN1TEXT_H

#include <QtCore/QByteArray>
#include <QtCore/QString>

namespace Velmora {
namespace SSDP {

/// Returns the bytes before the first zero byte, read as Latin-1.
inline QString textUpToZero(const QByteArray& bytes)
{
    return QString::fromLatin1(bytes.constData());
}

} // namespace SSDP
} // namespace Velmora

#endif

#ifndef VELMORA_SIMULATOR_MESSAGETEXT_H
#define VELMORA_SIMULATOR_MESSAGETEXT_H

#include <QtCore/QByteArray>
#include <QtCore/QList>

namespace Velmora {
namespace Simulator {

/// How many bytes of @p text the head of a message takes, its empty line included; -1 when there is
/// no empty line yet. Lines end with or without a carriage return.
int headLength(const QByteArray& text);

/// The value of the header @p name (without regard to case), trimmed; null when there is none.
QByteArray headerOf(const QByteArray& head, const char* name);

/// The head that these lines make, each ended by CRLF, with its empty line.
QByteArray headOf(const QList<QByteArray>& lines);

} // namespace Simulator
} // namespace Velmora

#endif

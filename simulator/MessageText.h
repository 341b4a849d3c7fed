#ifndef VELMORA_SIMULATOR_MESSAGETEXT_H
#define VELMORA_SIMULATOR_MESSAGETEXT_H

#include <QtCore/QByteArray>
#include <QtCore/QList>

namespace Velmora {
namespace Simulator {

/// Returns the size of the head of the message @p text, with its empty line. -1 if there is no empty line yet.
/// Lines end with CR LF or LF.
int headLength(const QByteArray& text);

/// Returns the trimmed value of the header @p name, in upper or lower case. Null if there is none.
QByteArray headerOf(const QByteArray& head, const char* name);

/// Returns the head with these lines and an empty line. Every line ends with CR LF.
QByteArray headOf(const QList<QByteArray>& lines);

} // namespace Simulator
} // namespace Velmora

#endif

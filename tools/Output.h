#ifndef VELMORA_TOOLS_OUTPUT_H
#define VELMORA_TOOLS_OUTPUT_H

#include <tools/ExitStatus.h>

#include <QtCore/QByteArray>
#include <QtCore/QJsonObject>
#include <QtCore/QSocketNotifier>

namespace Velmora {
namespace Tools {

/// Opens the standard descriptors that the program was started without, so that no socket becomes one of
/// them. Reading finds the end, writing fails. To be called first in main().
void openStandardDescriptors();

/**
 * Writes @p text to standard output at once.
 *
 * Ends the program when that fails: with READER_GONE and without a word when nobody reads any more, otherwise
 * with a message and @p failure. While a reader is slow, the signals of Interruption end the program.
 */
void print(const QByteArray& text, int failure = WRITE_ERROR);

/// Prints @p object as a line of JSON.
void print(const QJsonObject& object);

/// Writes @p text to standard error at once. Ends the program when nobody reads any more, as print() does.
void report(const QByteArray& text);

/// Ends the program as print() does when the reader of standard output goes away, even if the program has
/// nothing to write. To be made after the application object.
class ReaderWatch
{
public:
    ReaderWatch();

private:
    QSocketNotifier notifier;
};

/// The time as the tools print it: UTC, ISO 8601, with milliseconds.
QByteArray timeStamp();

} // namespace Tools
} // namespace Velmora

#endif

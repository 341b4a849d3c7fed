#ifndef VELMORA_TOOLS_OUTPUT_H
#define VELMORA_TOOLS_OUTPUT_H

#include <tools/ExitStatus.h>

#include <QtCore/QByteArray>
#include <QtCore/QJsonObject>
#include <QtCore/QSocketNotifier>

namespace Velmora {
namespace Tools {

/// Opens standard input, output and error if they are closed. Otherwise a socket could become one of them.
/// Reading from such a descriptor finds the end of file, and writing fails. Call this first in main().
void openStandardDescriptors();

/**
 * Writes @p text to standard output at once.
 *
 * If the reader has ended, ends the program with READER_GONE and without a message. If writing fails for another
 * reason, ends it with @p failure and a message. While the program waits for a slow reader, the signals of
 * Interruption end it.
 */
void print(const QByteArray& text, int failure = WRITE_ERROR);

/// Prints @p object as a line of JSON.
void print(const QJsonObject& object);

/// Writes @p text to standard error at once. If the reader has ended, ends the program with READER_GONE.
void report(const QByteArray& text);

/// Ends the program with READER_GONE when the reader of standard output ends, even if the program has nothing to
/// write.
///
/// @warning Create it after the application object.
class ReaderWatch
{
public:
    ReaderWatch();

private:
    QSocketNotifier notifier;
};

/// Returns the current time as the tools print it: UTC, ISO 8601, with milliseconds.
QByteArray timeStamp();

} // namespace Tools
} // namespace Velmora

#endif

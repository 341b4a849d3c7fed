#ifndef VELMORA_TOOLS_LIBRARYLOG_H
#define VELMORA_TOOLS_LIBRARYLOG_H

#include <QtCore/QSet>
#include <QtCore/QString>

namespace Velmora {
namespace Tools {

/// The progress of the library with the devices that answered. It is read from the log of the library.
struct Traces
{
    QSet<QString> hosts; ///< The hosts in the locations of devices that answered or announced themselves.
    bool described = false; ///< The description of at least one device was read.
    bool subscribed = false; ///< The library read a service description and subscribed to its state variables.
    bool eventMalformed = false; ///< An event came, but it was not XML or exceeded a bound.
};

/// Reads all log lines from now on. If @p verbose is true, prints each line with its time on standard error.
void watchLog(bool verbose);

/// Returns what the log has shown since watchLog() or clearTraces().
Traces traces();
void clearTraces();

} // namespace Tools
} // namespace Velmora

#endif

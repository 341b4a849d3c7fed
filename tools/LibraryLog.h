#ifndef VELMORA_TOOLS_LIBRARYLOG_H
#define VELMORA_TOOLS_LIBRARYLOG_H

#include <QtCore/QSet>
#include <QtCore/QString>

namespace Velmora {
namespace Tools {

/// How far the library came with the devices that answered, as its log says.
struct Traces
{
    QSet<QString> hosts; ///< In the locations of the devices that have answered or announced themselves.
    bool described = false; ///< The description of some device was read.
    bool subscribed = false; ///< Some device has a key-object service, and was asked for events.
    bool eventMalformed = false; ///< An event came, but was no XML within bounds.
};

/// What is logged from now on: with @p verbose it is printed on standard error, each line with its time.
void watchLog(bool verbose);

/// What the log says since watchLog() or clearTraces().
Traces traces();
void clearTraces();

} // namespace Tools
} // namespace Velmora

#endif

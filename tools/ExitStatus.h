#ifndef VELMORA_TOOLS_EXITSTATUS_H
#define VELMORA_TOOLS_EXITSTATUS_H

namespace Velmora {
namespace Tools {

// How the tools end when something is wrong; each adds what it finds, and 0 for success.

/// The command line makes no sense.
const int USAGE_ERROR = 2;

/// This host cannot search: no interface, no permission, or the port is taken.
const int SEARCH_FAILED = 3;

/// Standard output cannot be written, as on a full disk.
const int WRITE_ERROR = 4;

/// The reader of standard output has gone away: 128 and SIGPIPE, as shells say of other programs.
const int READER_GONE = 141;

} // namespace Tools
} // namespace Velmora

#endif

#ifndef VELMORA_TOOLS_EXITSTATUS_H
#define VELMORA_TOOLS_EXITSTATUS_H

namespace Velmora {
namespace Tools {

// The exit statuses of the tools for failures. Success is 0. Each tool also has statuses for its results.

/// An option or argument is wrong.
const int USAGE_ERROR = 2;

/// This host cannot search: there is no interface or no permission, or another program uses the port.
const int SEARCH_FAILED = 3;

/// Standard output cannot be written, for example because the disk is full.
const int WRITE_ERROR = 4;

/// The reader of standard output has ended. The value is 128 + SIGPIPE, as in a shell.
const int READER_GONE = 141;

} // namespace Tools
} // namespace Velmora

#endif

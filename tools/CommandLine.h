#ifndef VELMORA_TOOLS_COMMANDLINE_H
#define VELMORA_TOOLS_COMMANDLINE_H

#include <QtCore/QCommandLineParser>
#include <QtCore/QString>

namespace Velmora {
namespace Tools {

/// Prints @p text and a hint to --help. Ends the program with USAGE_ERROR.
[[noreturn]] void failUsage(const QString& text);

/// Parses the arguments of the program and handles --help and --version. If an argument is unknown, ends the
/// program with USAGE_ERROR. QCommandLineParser::process() would end it with status 1.
/// @param takesArguments whether the program takes arguments that are not options
void parseArguments(QCommandLineParser& parser, bool takesArguments = false);

/// Returns the value of @p option. If it is not a whole number from @p minimum to @p maximum, ends the program
/// with USAGE_ERROR.
int numberOf(const QCommandLineParser& parser, const QString& option, int minimum, int maximum);

} // namespace Tools
} // namespace Velmora

#endif

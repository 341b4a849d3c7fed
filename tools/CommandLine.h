#ifndef VELMORA_TOOLS_COMMANDLINE_H
#define VELMORA_TOOLS_COMMANDLINE_H

#include <QtCore/QCommandLineParser>
#include <QtCore/QString>

namespace Velmora {
namespace Tools {

/// Ends the program with @p text and the way to --help.
[[noreturn]] void failUsage(const QString& text);

/// Parses the program's arguments, answers --help and --version, and fails on what it does not know.
/// QCommandLineParser::process() would end with status 1.
/// @param takesArguments whether anything but options is expected
void parseArguments(QCommandLineParser& parser, bool takesArguments = false);

/// The value of @p option, which has to be a whole number from @p least to @p most.
int numberOf(const QCommandLineParser& parser, const QString& option, int least, int most);

} // namespace Tools
} // namespace Velmora

#endif

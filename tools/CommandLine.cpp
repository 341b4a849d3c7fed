#include <tools/CommandLine.h>

#include <QtCore/QCoreApplication>

#include <cstdio>
#include <cstdlib>

namespace Velmora {
namespace Tools {

void failUsage(const QString& text)
{
    const QString name = QCoreApplication::applicationName();
    std::fprintf(stderr, "%s: %s\nTry '%s --help'.\n", qPrintable(name), qPrintable(text), qPrintable(name));
    std::exit(USAGE_ERROR);
}

void parseArguments(QCommandLineParser& parser)
{
    // Not addHelpOption(): newer versions of Qt add --help-all, which only their process() answers.
    const QCommandLineOption help({QStringLiteral("h"), QStringLiteral("help")},
                                  QStringLiteral("Shows this text."));
    parser.addOption(help);
    const QCommandLineOption version = parser.addVersionOption();
    const bool parsed = parser.parse(QCoreApplication::arguments());
    if (parsed && parser.isSet(help))
        parser.showHelp();
    if (parsed && parser.isSet(version))
        parser.showVersion();
    if (!parsed)
        failUsage(parser.errorText());
    if (!parser.positionalArguments().isEmpty())
        failUsage(QStringLiteral("unexpected argument '%1'").arg(parser.positionalArguments().constFirst()));
}

int numberOf(const QCommandLineParser& parser, const QString& option, int least, int most)
{
    const QString text = parser.value(option);
    bool isNumber = false;
    const int number = text.toInt(&isNumber);
    if (!isNumber || number < least || number > most) {
        failUsage(QStringLiteral("--%1 takes a number from %2 to %3, not '%4'")
                      .arg(option)
                      .arg(least)
                      .arg(most)
                      .arg(text));
    }
    return number;
}

} // namespace Tools
} // namespace Velmora

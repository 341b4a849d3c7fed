#include <tools/CommandLine.h>

#include <tools/Output.h>

#include <QtCore/QCoreApplication>

#include <cstdlib>

namespace Velmora {
namespace Tools {

void failUsage(const QString& text)
{
    const QString message = QStringLiteral("%1: %2\nTry '%1 --help'.\n");
    report(message.arg(QCoreApplication::applicationName(), text).toLocal8Bit());
    std::exit(USAGE_ERROR);
}

void parseArguments(QCommandLineParser& parser, bool takesArguments)
{
    // Not addHelpOption(): newer versions of Qt also add --help-all, which only process() handles.
    const QCommandLineOption help({QStringLiteral("h"), QStringLiteral("help")},
                                  QStringLiteral("Shows this text."));
    parser.addOption(help);
    const QCommandLineOption version = parser.addVersionOption();
    const bool parsed = parser.parse(QCoreApplication::arguments());
    if (parsed && parser.isSet(help)) {
        print(parser.helpText().toLocal8Bit());
        std::exit(0);
    }
    if (parsed && parser.isSet(version)) {
        const QString text = QStringLiteral("%1 %2\n");
        print(text.arg(QCoreApplication::applicationName(), QCoreApplication::applicationVersion()).toLocal8Bit());
        std::exit(0);
    }
    if (!parsed)
        failUsage(parser.errorText());
    if (!takesArguments && !parser.positionalArguments().isEmpty())
        failUsage(QStringLiteral("unexpected argument '%1'").arg(parser.positionalArguments().constFirst()));
}

int numberOf(const QCommandLineParser& parser, const QString& option, int minimum, int maximum)
{
    const QString text = parser.value(option);
    bool isNumber = false;
    const int number = text.toInt(&isNumber);
    if (!isNumber || number < minimum || number > maximum) {
        failUsage(QStringLiteral("--%1 takes a number from %2 to %3, not '%4'")
                      .arg(option)
                      .arg(minimum)
                      .arg(maximum)
                      .arg(text));
    }
    return number;
}

} // namespace Tools
} // namespace Velmora

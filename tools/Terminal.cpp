#include <tools/Terminal.h>

#include <tools/Output.h>

#include <climits>
#include <sys/ioctl.h>
#include <unistd.h>

namespace Velmora {
namespace Tools {

Terminal::Terminal(bool isPlain)
    : isTerminal(isatty(STDOUT_FILENO) == 1)
    , canMove(isTerminal && !isPlain && !qEnvironmentVariableIsEmpty("TERM") && qgetenv("TERM") != "dumb")
    , hasColour(canMove && qEnvironmentVariableIsEmpty("NO_COLOR"))
{
}

int Terminal::columns() const
{
    winsize size = {};
    if (!isTerminal || ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == -1 || size.ws_col == 0)
        return INT_MAX;
    return size.ws_col;
}

void Terminal::line(const QString& text)
{
    endProgress();
    print(text.toUtf8() + '\n');
}

void Terminal::progress(const QString& text)
{
    // The cursor waits at the beginning of the line. It stays there even if the terminal becomes narrower and
    // breaks the line.
    print("\r\033[J" + text.left(columns() - 1).toUtf8() + '\r');
    isProgressShown = true;
}

void Terminal::endProgress()
{
    if (isProgressShown)
        print("\r\033[J"); // also removes typed characters, such as ^C
    isProgressShown = false;
}

QString Terminal::coloured(const QString& text, Colour colour) const
{
    return hasColour ? QStringLiteral("\033[%1m%2\033[0m").arg(QString::number(colour), text) : text;
}

} // namespace Tools
} // namespace Velmora

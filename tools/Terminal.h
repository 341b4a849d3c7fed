#ifndef VELMORA_TOOLS_TERMINAL_H
#define VELMORA_TOOLS_TERMINAL_H

#include <QtCore/QString>

namespace Velmora {
namespace Tools {

/// Prints lines on standard output. If it is a terminal that can show them, also prints colours and a line of
/// progress.
class Terminal
{
public:
    enum Colour { Bold = 1, Red = 31, Green = 32 };

    /// @param isPlain whether to print plain lines even on a terminal, for example for JSON
    explicit Terminal(bool isPlain);

    bool showsProgress() const { return canMove; }

    /// Returns the current number of columns. If it is not known, returns INT_MAX.
    int columns() const;

    void line(const QString& text);

    /// Shows @p text below the lines, until the next line() or endProgress(). If it does not fit, it is cut.
    void progress(const QString& text);
    void endProgress();

    QString coloured(const QString& text, Colour colour) const;

private:
    bool isTerminal;
    bool canMove; ///< Whether the terminal can move its cursor.
    bool hasColour;
    bool isProgressShown = false;
};

} // namespace Tools
} // namespace Velmora

#endif

#ifndef VELMORA_TOOLS_TERMINAL_H
#define VELMORA_TOOLS_TERMINAL_H

#include <QtCore/QString>

namespace Velmora {
namespace Tools {

/// Standard output as a person sees it: with colours and a line of progress on a terminal that can show them,
/// and as plain lines of text anywhere else.
class Terminal
{
public:
    enum Colour { Bold = 1, Red = 31, Green = 32 };

    /// @param isPlain whether it is plain lines even on a terminal, as JSON is
    explicit Terminal(bool isPlain);

    bool showsProgress() const { return canMove; }

    /// How many columns there are at the moment: INT_MAX where lines have no end.
    int columns() const;

    void line(const QString& text);

    /// Shows @p text below the lines, until the next line or endProgress(). What does not fit is left out.
    void progress(const QString& text);
    void endProgress();

    QString coloured(const QString& text, Colour colour) const;

private:
    bool isTerminal;
    bool canMove; ///< The cursor.
    bool hasColour;
    bool isProgressShown = false;
};

} // namespace Tools
} // namespace Velmora

#endif

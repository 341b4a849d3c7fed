#include <ssdp/BoundedXml.h>

#include <QtCore/QString>
#include <QtXml/QDomDocument>

namespace Velmora {
namespace SSDP {

namespace {

const int MAX_DEPTH = 128;
const int MAX_ATTRIBUTES = 256;

bool hasTextAt(const QString& text, int position, const char* expected)
{
    for (; *expected != '\0'; ++expected, ++position) {
        if (position >= text.size() || text.at(position) != QLatin1Char(*expected))
            return false;
    }
    return true;
}

/// Returns the position after the next @p end. If there is none, returns the end of the text.
int positionAfter(const QString& text, const char* end, int position)
{
    const int found = static_cast<int>(text.indexOf(QLatin1String(end), position));
    return found == -1 ? static_cast<int>(text.size()) : found + static_cast<int>(qstrlen(end));
}

/// Returns the position of the next ">" or "[" outside quotes. If there is none, returns the end of the
/// text. Counts the quoted texts before this position.
int tagEnd(const QString& text, int position, int* quotedTexts)
{
    for (; position < text.size(); ++position) {
        const QChar character = text.at(position);
        if (character == QLatin1Char('>') || character == QLatin1Char('['))
            return position;
        if (character == QLatin1Char('"') || character == QLatin1Char('\'')) {
            ++*quotedTexts;
            position = static_cast<int>(text.indexOf(character, position + 1));
            if (position == -1)
                break;
        }
    }
    return static_cast<int>(text.size());
}

bool isXmlDeclaration(const QString& text, int position)
{
    return hasTextAt(text, position, "?xml") && position + 4 < text.size() && text.at(position + 4).isSpace();
}

} // namespace

// Up to the first error, this scan and the parser see the same tags. The parser stops at that error. So it
// does not matter what the scan sees after it.
bool isWithinXmlBounds(const QString& text)
{
    int level = 0;
    int position = 0;
    while ((position = static_cast<int>(text.indexOf(QLatin1Char('<'), position))) != -1) {
        ++position;
        int quotedTexts = 0;
        if (hasTextAt(text, position, "!--")) {
            position = positionAfter(text, "-->", position + 3);
        } else if (hasTextAt(text, position, "![CDATA[")) {
            position = positionAfter(text, "]]>", position + 8);
        } else if (hasTextAt(text, position, "!")) {
            position = tagEnd(text, position, &quotedTexts);
            if (position < text.size() && text.at(position) == QLatin1Char('['))
                return false;
        } else if (hasTextAt(text, position, "?")) {
            const int end = positionAfter(text, "?>", position);
            // A parser skips "?>" in the quoted values of an XML declaration. Such a declaration is refused.
            if (isXmlDeclaration(text, position) && tagEnd(text, position, &quotedTexts) != end - 1)
                return false;
            position = end;
        } else if (hasTextAt(text, position, "/")) {
            position = positionAfter(text, ">", position);
            level = qMax(level - 1, 0);
        } else {
            position = tagEnd(text, position, &quotedTexts);
            if (level == MAX_DEPTH || quotedTexts > MAX_ATTRIBUTES)
                return false;
            if (text.at(position - 1) != QLatin1Char('/'))
                ++level;
        }
    }
    return true;
}

bool parseXml(QDomDocument& document, const QString& text)
{
    return isWithinXmlBounds(text) && static_cast<bool>(document.setContent(text));
}

} // namespace SSDP
} // namespace Velmora

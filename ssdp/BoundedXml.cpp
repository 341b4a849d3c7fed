#include <ssdp/BoundedXml.h>

#include <QtCore/QString>
#include <QtXml/QDomDocument>

namespace Velmora {
namespace SSDP {

namespace {

const int MAX_DEPTH = 128;
const int MAX_ATTRIBUTES = 256;

bool standsAt(const QString& text, int position, const char* expected)
{
    for (; *expected != '\0'; ++expected, ++position) {
        if (position >= text.size() || text.at(position) != QLatin1Char(*expected))
            return false;
    }
    return true;
}

/// The position after the next @p end, or the end of the text.
int behind(const QString& text, const char* end, int position)
{
    const int found = static_cast<int>(text.indexOf(QLatin1String(end), position));
    return found == -1 ? static_cast<int>(text.size()) : found + static_cast<int>(qstrlen(end));
}

/// The position of the next ">" or "[" outside quotes, or the end of the text. Counts the quoted texts
/// before it.
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
    return standsAt(text, position, "?xml") && position + 4 < text.size() && text.at(position + 4).isSpace();
}

} // namespace

// Scans like a parser, which stops at its first error. Up to there both see the same tags. The parser
// never reads what comes after the error.
bool isWithinXmlBounds(const QString& text)
{
    int level = 0;
    int position = 0;
    while ((position = static_cast<int>(text.indexOf(QLatin1Char('<'), position))) != -1) {
        ++position;
        int quotedTexts = 0;
        if (standsAt(text, position, "!--")) {
            position = behind(text, "-->", position + 3);
        } else if (standsAt(text, position, "![CDATA[")) {
            position = behind(text, "]]>", position + 8);
        } else if (standsAt(text, position, "!")) {
            position = tagEnd(text, position, &quotedTexts);
            if (position < text.size() && text.at(position) == QLatin1Char('['))
                return false;
        } else if (standsAt(text, position, "?")) {
            const int end = behind(text, "?>", position);
            // A parser does not look for the end of an XML declaration inside its quoted values.
            if (isXmlDeclaration(text, position) && tagEnd(text, position, &quotedTexts) != end - 1)
                return false;
            position = end;
        } else if (standsAt(text, position, "/")) {
            position = behind(text, ">", position);
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

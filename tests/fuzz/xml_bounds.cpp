// A document. The fuzzer compares isWithinXmlBounds() with what another parser counts. Three control characters,
// which no document has, turn a short input into a long text. The sequence is \1, a byte n, a text, \2. It is
// replaced by the text, repeated 16 * n times. In each repetition, \3 is replaced by the number of the
// repetition.

#include <tests/fuzz/Harness.h>
#include <tests/support/Literals.h>

#include <ssdp/BoundedXml.h>

#include <QtCore/QRegularExpression>
#include <QtCore/QXmlStreamReader>
#include <QtXml/QDomDocument>

using namespace Velmora;
using namespace Velmora::Tests;

namespace {

const int LONGEST_TEXT = 64 * 1024;

QByteArray expanded(const QByteArray& input)
{
    QByteArray result;
    for (int i = 0; i < input.size() && result.size() < LONGEST_TEXT; ++i) {
        const int end = static_cast<int>(input.indexOf('\2', i));
        if (input.at(i) != '\1' || end < i + 2) {
            result += input.at(i);
            continue;
        }
        const QByteArray repeated = input.mid(i + 2, end - i - 2);
        const int times = static_cast<unsigned char>(input.at(i + 1)) * 16;
        for (int n = 0; n < times && result.size() < LONGEST_TEXT; ++n)
            result += QByteArray(repeated).replace('\3', QByteArray::number(n));
        i = end;
    }
    return result;
}

/// Returns whether @p text is well-formed.
bool readSlowly(const QString& text, bool* isWithinBounds)
{
    static const QRegularExpression quoted("\"[^\"]*\"|'[^']*'"_s);
    *isWithinBounds = true;
    QXmlStreamReader reader(text);
    reader.setNamespaceProcessing(false);
    int level = 0;
    while (!reader.atEnd()) {
        switch (reader.readNext()) {
        case QXmlStreamReader::DTD:
            // Outside quotes, "[" begins an internal subset.
            if (reader.text().toString().remove(quoted).contains(QLatin1Char('[')))
                *isWithinBounds = false;
            break;
        case QXmlStreamReader::StartElement:
            if (++level > 128 || reader.attributes().size() > 256)
                *isWithinBounds = false;
            break;
        case QXmlStreamReader::EndElement:
            --level;
            break;
        default:
            break;
        }
    }
    return !reader.hasError();
}

} // namespace

void Velmora::Fuzz::test(QByteArray& input)
{
    const QString text = QString::fromLatin1(expanded(input).constData());
    bool isWithinBounds = false;
    const bool isWellFormed = readSlowly(text, &isWithinBounds);
    const bool accepted = SSDP::isWithinXmlBounds(text);
    require(!accepted || isWithinBounds, "a document out of bounds is refused");
    require(accepted || !isWellFormed || !isWithinBounds, "a well-formed document within the bounds is accepted");

    QDomDocument document;
    require(!SSDP::parseXml(document, text) || accepted, "only a document within the bounds is parsed");
}

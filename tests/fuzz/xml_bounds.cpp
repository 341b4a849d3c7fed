// The bounds of XML, against a parser that keeps count. Three control characters, which no document
// has, let a short input stand for a long one: in \1<n>text\2 the text is repeated n times 16, with
// every \3 in it replaced by the number of the repetition.

#include <tests/fuzz/Harness.h>
#include <tests/support/Literals.h>

#include <ssdp/BoundedXml.h>

#include <QtCore/QRegularExpression>
#include <QtCore/QXmlStreamReader>
#include <QtXml/QDomDocument>

using namespace Velmora::Tests;
using namespace Velmora;

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

struct Reading
{
    bool isWithinBounds;
    bool isWellFormed;
};

Reading readSlowly(const QString& text)
{
    static const QRegularExpression quoted("\"[^\"]*\"|'[^']*'"_s);
    Reading reading = {true, true};
    QXmlStreamReader reader(text);
    reader.setNamespaceProcessing(false);
    int level = 0;
    while (!reader.atEnd()) {
        switch (reader.readNext()) {
        case QXmlStreamReader::DTD:
            // Outside the quotes of an external identifier a "[" opens an internal subset.
            if (reader.text().toString().remove(quoted).contains(QLatin1Char('[')))
                reading.isWithinBounds = false;
            break;
        case QXmlStreamReader::StartElement:
            if (++level > 128 || reader.attributes().size() > 256)
                reading.isWithinBounds = false;
            break;
        case QXmlStreamReader::EndElement:
            --level;
            break;
        default:
            break;
        }
    }
    reading.isWellFormed = !reader.hasError();
    return reading;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray text = expanded(Fuzz::bytesOf(data, size));
    const QString latin1 = QString::fromLatin1(text.constData());
    const Reading reading = readSlowly(latin1);
    const bool accepted = SSDP::isWithinXmlBounds(latin1);
    if (reading.isWellFormed)
        Fuzz::require(accepted == reading.isWithinBounds, "both agree on a document");
    else
        Fuzz::require(!accepted || reading.isWithinBounds, "nothing out of bounds reaches a parser");

    QDomDocument document;
    const bool parsed = SSDP::parseXml(document, latin1);
    Fuzz::require(!parsed || accepted, "only what is within bounds is parsed");
    return 0;
}

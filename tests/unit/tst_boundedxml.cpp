#include <ssdp/BoundedXml.h>

#include <QtTest/QtTest>
#include <QtXml/QDomDocument>

using Velmora::SSDP::isWithinXmlBounds;
using Velmora::SSDP::parseXml;

namespace Velmora {
namespace Tests {

namespace {

const int FOUR_MEGABYTES = 4 * 1024 * 1024;

// A hundred times what the slowest build needs; whatever takes the square of the length needs hours.
const qint64 LONGEST_DECISION_MS = 5000;

QString nested(int levels, const QString& innermost = QString())
{
    return QStringLiteral("<a>").repeated(levels) + innermost + QStringLiteral("</a>").repeated(levels);
}

QString withAttributes(int number, char quote = '"')
{
    QString result = QStringLiteral("<a");
    for (int i = 0; i < number; ++i)
        result += QStringLiteral(" b%1=%2x%2").arg(i).arg(QLatin1Char(quote));
    return result + QStringLiteral("/>");
}

/// @p pattern as often as it fits into four megabytes.
QString fourMegabytesOf(const char* pattern)
{
    const QString text = QString::fromLatin1(pattern);
    return text.repeated(static_cast<int>(FOUR_MEGABYTES / text.size()));
}

/// A decoy behind which deep nesting must still be seen.
struct Decoy
{
    const char* name;
    const char* text;
};

const Decoy DECOYS[] = {
    {"a comment", "<!-- x -->"},
    {"a comment with an end tag", "<!-- </r></a> -->"},
    {"a comment with a quote", "<!-- \" -->"},
    {"a comment with an apostrophe", "<!-- ' -->"},
    {"a comment with '>'", "<!-- > -> - > -->"},
    {"a comment with CDATA", "<!-- <![CDATA[ -->"},
    {"a comment with '<?'", "<!-- <? -->"},
    {"the shortest comment", "<!---->"},
    {"CDATA", "<![CDATA[x]]>"},
    {"CDATA with an end tag", "<![CDATA[</a></a></a>]]>"},
    {"CDATA with a comment", "<![CDATA[<!--]]>"},
    {"CDATA with a quote", "<![CDATA[\"]]>"},
    {"CDATA with brackets", "<![CDATA[]]]]>"},
    {"an instruction", "<?x y?>"},
    {"an instruction with an end tag", "<?x </a></a>?>"},
    {"an instruction with a comment", "<?x <!-- ?>"},
    {"an instruction with a quote", "<?x \" ?>"},
    {"an instruction with '>'", "<?x > ?>"},
    {"an instruction like the declaration", "<?xml-stylesheet href=\"?>"},
    {"a quoted '>'", "<b c=\">\"/>"},
    {"a quoted '/>'", "<b c='/>'/>"},
    {"a quoted apostrophe", "<b c=\"'\"/>"},
    {"a quoted quote", "<b c='\"'/>"},
    {"a quoted end tag", "<b c=\"</b>\"/>"},
    {"a quoted comment", "<b c=\"<!--\"/>"},
    {"a quoted bracket", "<b c='['/>"},
    {"a quote in text", "x \" y"},
    {"an apostrophe in text", "x ' y"},
    {"'>' in text", "x > y"},
    {"'/>' in text", "x /> y"},
    {"end tags in text", "&lt;/a&gt;&lt;/a&gt;"},
    {"an end tag with blanks", "<b></b \n>"},
    {"an empty element with a blank", "<b />"},
    {"an unquoted '/'", "<b / >"},
    {"an end tag too many", "</b>"},
    {"an element like a comment", "<!-x>"},
    {"a short comment", "<!-->"},
    {"another short comment", "<!--->"},
    {"a double hyphen", "<!-- -- -->"},
    {"three hyphens at the end", "<!-- --->"},
    {"a declaration", "<!x>"},
    {"an open CDATA", "<![CDATA[ ]>"},
    {"an instruction that ends at once", "<?>"},
    {"an instruction without name", "<? ?>"},
    {"an end tag with an attribute", "</b c=\"'\">"},
    {"an end tag with a quoted '>'", "<b></b c=\">\">"},
    {"an attribute without value", "<b c/>"},
    {"an attribute without quotes", "<b c=\\\"/>"},
    {"a quote behind a tag name", "<b \">\"/>"},
    {"a reference", "&amp;"},
    {"a bad reference", "&<b;/>"},
};

} // namespace

class BoundedXmlTest : public QObject
{
    Q_OBJECT

private:
    static void decide_data(const QList<QPair<const char*, QString>>& rows)
    {
        QTest::addColumn<QString>("text");
        for (const auto& row : rows)
            QTest::newRow(row.first) << row.second;
    }

    static void addDecoys()
    {
        QTest::addColumn<QString>("decoy");
        for (const Decoy& decoy : DECOYS)
            QTest::newRow(decoy.name) << QString::fromLatin1(decoy.text);
    }

private Q_SLOTS:
    void whatIsWithinTheBoundsIsParsedAsQtParsesIt_data()
    {
        decide_data({
            {"one element", QStringLiteral("<a/>")},
            {"text", QStringLiteral("<a>x</a>")},
            {"128 levels", nested(128)},
            {"an empty element at level 128", nested(127, QStringLiteral("<b/>"))},
            {"128 levels twice", QStringLiteral("<r>") + nested(127).repeated(2) + QStringLiteral("</r>")},
            {"128 levels with text", nested(128, QStringLiteral("x"))},
            {"many empty elements at level 128", nested(127, QStringLiteral("<b/>").repeated(1000))},
            {"256 attributes", withAttributes(256)},
            {"256 attributes in apostrophes", withAttributes(256, '\'')},
            {"256 attributes twice",
             QStringLiteral("<r>") + withAttributes(256).repeated(2) + QStringLiteral("</r>")},
            {"100,000 elements in a row",
             QStringLiteral("<r>") + QStringLiteral("<a/>").repeated(100000) + QStringLiteral("</r>")},
            {"100,000 elements with text",
             QStringLiteral("<r>") + QStringLiteral("<a>x</a>").repeated(100000) + QStringLiteral("</r>")},
            {"an XML declaration", QStringLiteral("<?xml version=\"1.0\"?><a/>")},
            {"an XML declaration with apostrophes",
             QStringLiteral("<?xml version='1.0' encoding='utf-8'?>\n<a/>")},
            {"a DOCTYPE", QStringLiteral("<!DOCTYPE a><a/>")},
            {"a DOCTYPE with a system identifier", QStringLiteral("<!DOCTYPE a SYSTEM \"a.dtd\"><a/>")},
            {"a DOCTYPE with a public identifier", QStringLiteral("<!DOCTYPE a PUBLIC \"-//A//B\" 'a.dtd'><a/>")},
            {"a DOCTYPE with a bracket in its identifier",
             QStringLiteral("<!DOCTYPE a SYSTEM \"a[b]>.dtd\"><a/>")},
            {"a comment with tags", QStringLiteral("<a><!-- ") + nested(500) + QStringLiteral(" --></a>")},
            {"a comment with start tags only",
             QStringLiteral("<a><!-- ") + QStringLiteral("<b>").repeated(500) + QStringLiteral(" --></a>")},
            {"CDATA with start tags",
             QStringLiteral("<a><![CDATA[") + QStringLiteral("<b>").repeated(500) + QStringLiteral("]]></a>")},
            {"an instruction with start tags",
             QStringLiteral("<a><?b ") + QStringLiteral("<b>").repeated(500) + QStringLiteral("?></a>")},
            {"a comment with a DOCTYPE", QStringLiteral("<!-- <!DOCTYPE a [ --><a/>")},
            {"CDATA with a DOCTYPE", QStringLiteral("<a><![CDATA[<!DOCTYPE a []>]]></a>")},
            {"an instruction with a DOCTYPE", QStringLiteral("<?b <!DOCTYPE a [ ?><a/>")},
            {"a comment with 1,000 quotes",
             QStringLiteral("<a><!-- <b ") + QStringLiteral("\"x\" ").repeated(1000) + QStringLiteral("--></a>")},
            {"text with 1,000 quotes",
             QStringLiteral("<a>") + QStringLiteral("\"x\"").repeated(1000) + QStringLiteral("</a>")},
            {"a quoted '>' and many quotes", QStringLiteral("<a b='>\">\">\"' c=\"'>'>'\">x</a>")},
            {"'[' in text", QStringLiteral("<a>[x]</a>")},
            {"a prefix that is not declared", QStringLiteral("<e:propertyset><e:property/></e:propertyset>")},
            {"a default namespace", QStringLiteral("<root xmlns=\"urn:schemas-upnp-org:device-1-0\"/>")},
            {"white space in tags", QStringLiteral("<a\n b = 'x'\t>\n</a\n>")},
            {"a text of 4 MB",
             QStringLiteral("<a>") + QString(FOUR_MEGABYTES, QLatin1Char('x')) + QStringLiteral("</a>")},
        });
    }

    void whatIsWithinTheBoundsIsParsedAsQtParsesIt()
    {
        QFETCH(const QString, text);
        QVERIFY(isWithinXmlBounds(text));
        QDomDocument expected;
        QVERIFY(static_cast<bool>(expected.setContent(text)));
        QDomDocument document;
        QVERIFY(parseXml(document, text));
        QCOMPARE(document.toString(), expected.toString());
    }

    void whatIsOutOfBoundsIsNotParsed_data()
    {
        decide_data({
            {"129 levels", nested(129)},
            {"an empty element at level 129", nested(128, QStringLiteral("<b/>"))},
            {"an empty element with a blank at level 129", nested(128, QStringLiteral("<b />"))},
            {"an element with attributes at level 129", nested(128, QStringLiteral("<b c='d'/>"))},
            {"129 levels behind a flat part",
             QStringLiteral("<r>") + QStringLiteral("<a/>").repeated(1000) + nested(128) + QStringLiteral("</r>")},
            {"129 levels behind 128", QStringLiteral("<r>") + nested(127) + nested(128) + QStringLiteral("</r>")},
            {"257 attributes", withAttributes(257)},
            {"257 attributes in apostrophes", withAttributes(257, '\'')},
            {"257 attributes deep inside", nested(100, withAttributes(257))},
            {"a DOCTYPE with an empty internal subset", QStringLiteral("<!DOCTYPE a []><a/>")},
            {"a DOCTYPE with an entity", QStringLiteral("<!DOCTYPE a [<!ENTITY b 'c'>]><a>&b;</a>")},
            {"a DOCTYPE with an element", QStringLiteral("<!DOCTYPE a [<!ELEMENT a ANY>]><a/>")},
            {"a DOCTYPE with attributes", QStringLiteral("<!DOCTYPE a [<!ATTLIST a b CDATA 'c'>]><a/>")},
            {"a DOCTYPE with a system identifier and a subset",
             QStringLiteral("<!DOCTYPE a SYSTEM \"a.dtd\" [<!ENTITY b 'c'>]><a/>")},
            {"a DOCTYPE with a subset on the next line", QStringLiteral("<!DOCTYPE a\n[\n]\n>\n<a/>")},
            {"a DOCTYPE with a subset behind a comment",
             QStringLiteral("<!-- <!DOCTYPE a> --><!DOCTYPE a []><a/>")},
            {"a DOCTYPE with a subset behind a declaration",
             QStringLiteral("<?xml version=\"1.0\"?><!DOCTYPE a []><a/>")},
        });
    }

    void whatIsOutOfBoundsIsNotParsed()
    {
        QFETCH(const QString, text);
        QVERIFY(!isWithinXmlBounds(text));
        QVERIFY2(static_cast<bool>(QDomDocument().setContent(text)), "the bound is to be all that refuses it");
        QDomDocument document;
        QVERIFY(!parseXml(document, text));
        QVERIFY(document.isNull());
    }

    void textThatIsNotWellFormedIsNotParsed_data()
    {
        decide_data({
            {"nothing", QString()},
            {"empty", QStringLiteral("")},
            {"blanks", QStringLiteral(" \n ")},
            {"plain text", QStringLiteral("404 Not Found")},
            {"an open element", QStringLiteral("<a>")},
            {"the wrong end tag", QStringLiteral("<a></b>")},
            {"two elements", QStringLiteral("<a/><b/>")},
            {"an open comment", QStringLiteral("<a/><!--")},
            {"an open instruction", QStringLiteral("<a/><?b")},
            {"an open tag", QStringLiteral("<a b=\"c")},
            {"a lone '<'", QStringLiteral("<")},
            {"'<!' alone", QStringLiteral("<!")},
            {"'<?' alone", QStringLiteral("<?")},
            {"'</' alone", QStringLiteral("</")},
            {"'<?xml' alone", QStringLiteral("<?xml")},
            {"'<![CDATA[' alone", QStringLiteral("<![CDATA[")},
        });
    }

    void textThatIsNotWellFormedIsNotParsed()
    {
        QFETCH(const QString, text);
        QDomDocument document;
        QVERIFY(!parseXml(document, text));
    }

    void aDecoyDoesNotHideDepth_data() { addDecoys(); }

    void aDecoyDoesNotHideDepth()
    {
        QFETCH(const QString, decoy);
        const QString text = QStringLiteral("<r>") + decoy + nested(128) + QStringLiteral("</r>");
        QDomDocument document;
        // Some decoys are no XML at all. What Qt's parser takes for XML is to be refused before it.
        if (static_cast<bool>(document.setContent(text)))
            QVERIFY(!isWithinXmlBounds(text));
        QVERIFY(!parseXml(document, text));
    }

    void aDecoyBetweenTheLevelsDoesNotHideDepth_data() { addDecoys(); }

    void aDecoyBetweenTheLevelsDoesNotHideDepth()
    {
        QFETCH(const QString, decoy);
        const QString text =
            QStringLiteral("<a>").repeated(60) + decoy + nested(69) + QStringLiteral("</a>").repeated(60);
        QDomDocument document;
        QVERIFY(!parseXml(document, text));
    }

    void aDecoyDoesNotFakeDepth_data() { addDecoys(); }

    void aDecoyDoesNotFakeDepth()
    {
        QFETCH(const QString, decoy);
        const QString text = QStringLiteral("<r>") + decoy.repeated(1000) + nested(127) + QStringLiteral("</r>");
        QDomDocument document;
        QCOMPARE(parseXml(document, text), static_cast<bool>(QDomDocument().setContent(text)));
    }

    void aDeclarationWithQuotedEndDoesNotHideDepth_data()
    {
        decide_data({
            {"a comment inside", QStringLiteral("<?xml version=\"?><!-- \"?>") + nested(129)},
            {"a comment inside, closed behind",
             QStringLiteral("<?xml version=\"?><!-- \"?>") + nested(129) + QStringLiteral("<!-- -->")},
            {"the encoding",
             QStringLiteral("<?xml version='1.0' encoding='?><!-- '?>") + nested(129)
                 + QStringLiteral("<!-- -->")},
            {"CDATA inside",
             QStringLiteral("<?xml version=\"?><a><![CDATA[ \"?>") + nested(129)
                 + QStringLiteral("<!-- ]]></a> -->")},
            {"a single quote", QStringLiteral("<?xml version=\"1.0\" ' ?>") + nested(129)},
        });
    }

    void aDeclarationWithQuotedEndDoesNotHideDepth()
    {
        QFETCH(const QString, text);
        // A parser that takes the quoted value would go into the depth before it finds an error.
        QVERIFY(!isWithinXmlBounds(text));
        QDomDocument document;
        QVERIFY(!parseXml(document, text));
    }

    void fourMegabytesOfAnythingAreDecidedAtOnce_data()
    {
        decide_data({
            {"start tags", fourMegabytesOf("<a>")},
            {"end tags", fourMegabytesOf("</a>")},
            {"'<'", fourMegabytesOf("<")},
            {"'<' and quotes", fourMegabytesOf("<\"")},
            {"open tags", fourMegabytesOf("<a ")},
            {"open tags with both quotes", fourMegabytesOf("<a \"'")},
            {"open comments", fourMegabytesOf("<!--")},
            {"comments closed too soon", fourMegabytesOf("<!-->")},
            {"open CDATA", fourMegabytesOf("<![CDATA[")},
            {"open CDATA in an element", QStringLiteral("<a>") + fourMegabytesOf("<![CDATA[]>")},
            {"open instructions", fourMegabytesOf("<?")},
            {"open declarations", fourMegabytesOf("<?xml ")},
            {"declarations with quotes", fourMegabytesOf("<?xml \"?>")},
            {"closed declarations with a quote behind", fourMegabytesOf("<?xml ?>\"")},
            {"open DOCTYPEs", fourMegabytesOf("<!DOCTYPE ")},
            {"DOCTYPEs", fourMegabytesOf("<!DOCTYPE a>")},
            {"a DOCTYPE of brackets", QStringLiteral("<!DOCTYPE a [<!ELEMENT a ") + fourMegabytesOf("(")},
            {"attributes", QStringLiteral("<a") + fourMegabytesOf(" b=''")},
            {"attributes without values", QStringLiteral("<a") + fourMegabytesOf(" b")},
            {"a single quote", QStringLiteral("<a b=\"") + QString(FOUR_MEGABYTES, QLatin1Char('<'))},
            {"hyphens", QStringLiteral("<!-") + fourMegabytesOf("-")},
            {"empty elements", QStringLiteral("<a>") + fourMegabytesOf("<b/>")},
        });
    }

    void fourMegabytesOfAnythingAreDecidedAtOnce()
    {
        QFETCH(const QString, text);
        QElapsedTimer timer;
        timer.start();
        isWithinXmlBounds(text);
        const qint64 elapsed = timer.elapsed();
        QVERIFY2(elapsed < LONGEST_DECISION_MS, QByteArray::number(elapsed).constData());
    }

    void hostileDocumentsAreRefusedBeforeTheParser_data()
    {
        decide_data({
            {"a million levels", nested(1000000)},
            {"a million start tags", QStringLiteral("<a>").repeated(1000000)},
            {"400,000 attributes", withAttributes(400000)},
            {"an element declaration of 100,000 brackets",
             QStringLiteral("<!DOCTYPE a [<!ELEMENT a ") + QStringLiteral("(").repeated(100000)},
            {"an entity referenced 20,000 times",
             QStringLiteral("<!DOCTYPE a [<!ENTITY b '") + QString(4000, QLatin1Char('x'))
                 + QStringLiteral("'>]><a>") + QStringLiteral("&b;").repeated(20000) + QStringLiteral("</a>")},
        });
    }

    void hostileDocumentsAreRefusedBeforeTheParser()
    {
        QFETCH(const QString, text);
        QElapsedTimer timer;
        timer.start();
        QDomDocument document;
        QVERIFY(!parseXml(document, text));
        QVERIFY(timer.elapsed() < LONGEST_DECISION_MS);
    }
};

} // namespace Tests
} // namespace Velmora

QTEST_APPLESS_MAIN(Velmora::Tests::BoundedXmlTest)
#include "tst_boundedxml.moc"

#include <ssdp/BoundedXml.h>
#include <tests/support/Literals.h>

#include <QtTest/QtTest>
#include <QtXml/QDomDocument>

using namespace Velmora;
using namespace Velmora::Tests;
using Velmora::SSDP::isWithinXmlBounds;
using Velmora::SSDP::parseXml;

namespace {

const int FOUR_MEGABYTES = 4 * 1024 * 1024;

// A hundred times what the slowest build needs; whatever takes the square of the length needs hours.
const qint64 LONGEST_DECISION_MS = 5000;

QString nested(int levels, const QString& innermost = QString())
{
    return "<a>"_s.repeated(levels) + innermost + "</a>"_s.repeated(levels);
}

QString withAttributes(int number, char quote = '"')
{
    QString result = "<a"_s;
    for (int i = 0; i < number; ++i)
        result += " b%1=%2x%2"_s.arg(i).arg(QLatin1Char(quote));
    return result + "/>"_s;
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
            {"one element", "<a/>"_s},
            {"text", "<a>x</a>"_s},
            {"128 levels", nested(128)},
            {"an empty element at level 128", nested(127, "<b/>"_s)},
            {"128 levels twice", "<r>"_s + nested(127).repeated(2) + "</r>"_s},
            {"128 levels with text", nested(128, "x"_s)},
            {"many empty elements at level 128", nested(127, "<b/>"_s.repeated(1000))},
            {"256 attributes", withAttributes(256)},
            {"256 attributes in apostrophes", withAttributes(256, '\'')},
            {"256 attributes twice", "<r>"_s + withAttributes(256).repeated(2) + "</r>"_s},
            {"100,000 elements in a row", "<r>"_s + "<a/>"_s.repeated(100000) + "</r>"_s},
            {"100,000 elements with text", "<r>"_s + "<a>x</a>"_s.repeated(100000) + "</r>"_s},
            {"an XML declaration", "<?xml version=\"1.0\"?><a/>"_s},
            {"an XML declaration with apostrophes", "<?xml version='1.0' encoding='utf-8'?>\n<a/>"_s},
            {"a DOCTYPE", "<!DOCTYPE a><a/>"_s},
            {"a DOCTYPE with a system identifier", "<!DOCTYPE a SYSTEM \"a.dtd\"><a/>"_s},
            {"a DOCTYPE with a public identifier", "<!DOCTYPE a PUBLIC \"-//A//B\" 'a.dtd'><a/>"_s},
            {"a DOCTYPE with a bracket in its identifier", "<!DOCTYPE a SYSTEM \"a[b]>.dtd\"><a/>"_s},
            {"a comment with tags", "<a><!-- "_s + nested(500) + " --></a>"_s},
            {"a comment with start tags only", "<a><!-- "_s + "<b>"_s.repeated(500) + " --></a>"_s},
            {"CDATA with start tags", "<a><![CDATA["_s + "<b>"_s.repeated(500) + "]]></a>"_s},
            {"an instruction with start tags", "<a><?b "_s + "<b>"_s.repeated(500) + "?></a>"_s},
            {"a comment with a DOCTYPE", "<!-- <!DOCTYPE a [ --><a/>"_s},
            {"CDATA with a DOCTYPE", "<a><![CDATA[<!DOCTYPE a []>]]></a>"_s},
            {"an instruction with a DOCTYPE", "<?b <!DOCTYPE a [ ?><a/>"_s},
            {"a comment with 1,000 quotes", "<a><!-- <b "_s + "\"x\" "_s.repeated(1000) + "--></a>"_s},
            {"text with 1,000 quotes", "<a>"_s + "\"x\""_s.repeated(1000) + "</a>"_s},
            {"a quoted '>' and many quotes", "<a b='>\">\">\"' c=\"'>'>'\">x</a>"_s},
            {"'[' in text", "<a>[x]</a>"_s},
            {"a prefix that is not declared", "<e:propertyset><e:property/></e:propertyset>"_s},
            {"a default namespace", "<root xmlns=\"urn:schemas-upnp-org:device-1-0\"/>"_s},
            {"white space in tags", "<a\n b = 'x'\t>\n</a\n>"_s},
            {"a text of 4 MB", "<a>"_s + QString(FOUR_MEGABYTES, QLatin1Char('x')) + "</a>"_s},
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
            {"an empty element at level 129", nested(128, "<b/>"_s)},
            {"an empty element with a blank at level 129", nested(128, "<b />"_s)},
            {"an element with attributes at level 129", nested(128, "<b c='d'/>"_s)},
            {"129 levels behind a flat part", "<r>"_s + "<a/>"_s.repeated(1000) + nested(128) + "</r>"_s},
            {"129 levels behind 128", "<r>"_s + nested(127) + nested(128) + "</r>"_s},
            {"257 attributes", withAttributes(257)},
            {"257 attributes in apostrophes", withAttributes(257, '\'')},
            {"257 attributes deep inside", nested(100, withAttributes(257))},
            {"a DOCTYPE with an empty internal subset", "<!DOCTYPE a []><a/>"_s},
            {"a DOCTYPE with an entity", "<!DOCTYPE a [<!ENTITY b 'c'>]><a>&b;</a>"_s},
            {"a DOCTYPE with an element", "<!DOCTYPE a [<!ELEMENT a ANY>]><a/>"_s},
            {"a DOCTYPE with attributes", "<!DOCTYPE a [<!ATTLIST a b CDATA 'c'>]><a/>"_s},
            {"a DOCTYPE with a system identifier and a subset",
             "<!DOCTYPE a SYSTEM \"a.dtd\" [<!ENTITY b 'c'>]><a/>"_s},
            {"a DOCTYPE with a subset on the next line", "<!DOCTYPE a\n[\n]\n>\n<a/>"_s},
            {"a DOCTYPE with a subset behind a comment", "<!-- <!DOCTYPE a> --><!DOCTYPE a []><a/>"_s},
            {"a DOCTYPE with a subset behind a declaration", "<?xml version=\"1.0\"?><!DOCTYPE a []><a/>"_s},
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
            {"empty", ""_s},
            {"blanks", " \n "_s},
            {"plain text", "404 Not Found"_s},
            {"an open element", "<a>"_s},
            {"the wrong end tag", "<a></b>"_s},
            {"two elements", "<a/><b/>"_s},
            {"an open comment", "<a/><!--"_s},
            {"an open instruction", "<a/><?b"_s},
            {"an open tag", "<a b=\"c"_s},
            {"a lone '<'", "<"_s},
            {"'<!' alone", "<!"_s},
            {"'<?' alone", "<?"_s},
            {"'</' alone", "</"_s},
            {"'<?xml' alone", "<?xml"_s},
            {"'<![CDATA[' alone", "<![CDATA["_s},
        });
    }

    void textThatIsNotWellFormedIsNotParsed()
    {
        QFETCH(const QString, text);
        QDomDocument document;
        QVERIFY(!parseXml(document, text));
    }

    void decoyDoesNotHideDepth_data() { addDecoys(); }

    void decoyDoesNotHideDepth()
    {
        QFETCH(const QString, decoy);
        const QString text = "<r>"_s + decoy + nested(128) + "</r>"_s;
        QDomDocument document;
        // Some decoys are no XML at all. What Qt's parser takes for XML is to be refused before it.
        if (static_cast<bool>(document.setContent(text)))
            QVERIFY(!isWithinXmlBounds(text));
        QVERIFY(!parseXml(document, text));
    }

    void decoyBetweenTheLevelsDoesNotHideDepth_data() { addDecoys(); }

    void decoyBetweenTheLevelsDoesNotHideDepth()
    {
        QFETCH(const QString, decoy);
        const QString text = "<a>"_s.repeated(60) + decoy + nested(69) + "</a>"_s.repeated(60);
        QDomDocument document;
        QVERIFY(!parseXml(document, text));
    }

    void decoyDoesNotFakeDepth_data() { addDecoys(); }

    void decoyDoesNotFakeDepth()
    {
        QFETCH(const QString, decoy);
        const QString text = "<r>"_s + decoy.repeated(1000) + nested(127) + "</r>"_s;
        QDomDocument document;
        QCOMPARE(parseXml(document, text), static_cast<bool>(QDomDocument().setContent(text)));
    }

    void declarationWithQuotedEndDoesNotHideDepth_data()
    {
        decide_data({
            {"a comment inside", "<?xml version=\"?><!-- \"?>"_s + nested(129)},
            {"a comment inside, closed behind", "<?xml version=\"?><!-- \"?>"_s + nested(129) + "<!-- -->"_s},
            {"the encoding", "<?xml version='1.0' encoding='?><!-- '?>"_s + nested(129) + "<!-- -->"_s},
            {"CDATA inside", "<?xml version=\"?><a><![CDATA[ \"?>"_s + nested(129) + "<!-- ]]></a> -->"_s},
            {"a single quote", "<?xml version=\"1.0\" ' ?>"_s + nested(129)},
        });
    }

    void declarationWithQuotedEndDoesNotHideDepth()
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
            {"open CDATA in an element", "<a>"_s + fourMegabytesOf("<![CDATA[]>")},
            {"open instructions", fourMegabytesOf("<?")},
            {"open declarations", fourMegabytesOf("<?xml ")},
            {"declarations with quotes", fourMegabytesOf("<?xml \"?>")},
            {"closed declarations with a quote behind", fourMegabytesOf("<?xml ?>\"")},
            {"open DOCTYPEs", fourMegabytesOf("<!DOCTYPE ")},
            {"DOCTYPEs", fourMegabytesOf("<!DOCTYPE a>")},
            {"a DOCTYPE of brackets", "<!DOCTYPE a [<!ELEMENT a "_s + fourMegabytesOf("(")},
            {"attributes", "<a"_s + fourMegabytesOf(" b=''")},
            {"attributes without values", "<a"_s + fourMegabytesOf(" b")},
            {"a single quote", "<a b=\""_s + QString(FOUR_MEGABYTES, QLatin1Char('<'))},
            {"hyphens", "<!-"_s + fourMegabytesOf("-")},
            {"empty elements", "<a>"_s + fourMegabytesOf("<b/>")},
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
            {"a million start tags", "<a>"_s.repeated(1000000)},
            {"400,000 attributes", withAttributes(400000)},
            {"an element declaration of 100,000 brackets", "<!DOCTYPE a [<!ELEMENT a "_s + "("_s.repeated(100000)},
            {"an entity referenced 20,000 times",
             "<!DOCTYPE a [<!ENTITY b '"_s + QString(4000, QLatin1Char('x')) + "'>]><a>"_s
                 + "&b;"_s.repeated(20000) + "</a>"_s},
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

QTEST_APPLESS_MAIN(BoundedXmlTest)
#include "tst_boundedxml.moc"

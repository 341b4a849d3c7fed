#include <ssdp/BoundedXml.h>
#include <tests/support/Literals.h>
#include <tests/support/Table.h>

#include <QtXml/QDomDocument>

using namespace Velmora::Tests;
using Velmora::SSDP::isWithinXmlBounds;
using Velmora::SSDP::parseXml;

namespace {

// The slowest build needs a hundredth of this. In quadratic time, it would need hours.
const qint64 MAX_DECISION_MS = 5000;

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

} // namespace

class BoundedXmlTest : public QObject
{
    Q_OBJECT

    static void eachText(const Table<QString>& row, const QList<QByteArray>& texts)
    {
        for (const QByteArray& text : texts)
            row(text, text);
    }

private Q_SLOTS:
    void whatIsWithinTheBoundsIsParsedAsQtParsesIt_data()
    {
        const Table<QString> row("text");
        row("128 levels", nested(128));
        row("an empty element at level 128", nested(127, "<b/>"_s));
        row("128 levels twice", "<r>" + nested(127).repeated(2) + "</r>");
        row("128 levels with text", nested(128, "x"_s));
        row("many empty elements at level 128", nested(127, "<b/>"_s.repeated(1000)));
        row("256 attributes", withAttributes(256));
        row("256 attributes in apostrophes", withAttributes(256, '\''));
        row("256 attributes twice", "<r>" + withAttributes(256).repeated(2) + "</r>");
        row("100,000 elements in a row", "<r>" + "<a/>"_s.repeated(100000) + "</r>");
        row("100,000 elements with text", "<r>" + "<a>x</a>"_s.repeated(100000) + "</r>");
        row("a comment with tags", "<a><!-- " + nested(500) + " --></a>");
        row("a comment with start tags only", "<a><!-- " + "<b>"_s.repeated(500) + " --></a>");
        row("CDATA with start tags", "<a><![CDATA[" + "<b>"_s.repeated(500) + "]]></a>");
        row("an instruction with start tags", "<a><?b " + "<b>"_s.repeated(500) + "?></a>");
        row("a comment with 1,000 quotes", "<a><!-- <b " + "\"x\" "_s.repeated(1000) + "--></a>");
        row("text with 1,000 quotes", "<a>" + "\"x\""_s.repeated(1000) + "</a>");
        row("a text of 4 MB", "<a>" + "x"_s.repeated(4000000) + "</a>");
        eachText(row,
                 listOf("<a/>", "<a>x</a>", "<?xml version=\"1.0\"?><a/>",
                        "<?xml version='1.0' encoding='utf-8'?>\n<a/>", "<!DOCTYPE a><a/>",
                        "<!DOCTYPE a SYSTEM \"a.dtd\"><a/>", "<!DOCTYPE a PUBLIC \"-//A//B\" 'a.dtd'><a/>",
                        "<!DOCTYPE a SYSTEM \"a[b]>.dtd\"><a/>", "<!-- <!DOCTYPE a [ --><a/>",
                        "<a><![CDATA[<!DOCTYPE a []>]]></a>", "<?b <!DOCTYPE a [ ?><a/>",
                        "<a b='>\">\">\"' c=\"'>'>'\">x</a>", "<a>[x]</a>",
                        "<e:propertyset><e:property/></e:propertyset>",
                        "<root xmlns=\"urn:schemas-upnp-org:device-1-0\"/>", "<a\n b = 'x'\t>\n</a\n>"));
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
        const Table<QString> row("text");
        row("129 levels", nested(129));
        row("an empty element at level 129", nested(128, "<b/>"_s));
        row("an empty element with a space at level 129", nested(128, "<b />"_s));
        row("an element with attributes at level 129", nested(128, "<b c='d'/>"_s));
        row("129 levels after a flat part", "<r>" + "<a/>"_s.repeated(1000) + nested(128) + "</r>");
        row("129 levels after 128", "<r>" + nested(127) + nested(128) + "</r>");
        row("257 attributes", withAttributes(257));
        row("257 attributes in apostrophes", withAttributes(257, '\''));
        row("257 attributes deep inside", nested(100, withAttributes(257)));
        eachText(row,
                 listOf("<!DOCTYPE a []><a/>", "<!DOCTYPE a [<!ENTITY b 'c'>]><a>&b;</a>",
                        "<!DOCTYPE a [<!ELEMENT a ANY>]><a/>", "<!DOCTYPE a [<!ATTLIST a b CDATA 'c'>]><a/>",
                        "<!DOCTYPE a SYSTEM \"a.dtd\" [<!ENTITY b 'c'>]><a/>", "<!DOCTYPE a\n[\n]\n>\n<a/>",
                        "<!-- <!DOCTYPE a> --><!DOCTYPE a []><a/>", "<?xml version=\"1.0\"?><!DOCTYPE a []><a/>"));
    }

    void whatIsOutOfBoundsIsNotParsed()
    {
        QFETCH(const QString, text);
        QVERIFY(!isWithinXmlBounds(text));
        QVERIFY2(static_cast<bool>(QDomDocument().setContent(text)), "only the bound may refuse it");
        QDomDocument document;
        QVERIFY(!parseXml(document, text));
        QVERIFY(document.isNull());
    }

    void textThatIsNotWellFormedIsNotParsed()
    {
        QDomDocument document;
        QVERIFY(!parseXml(document, QString()));
        const QList<QByteArray> texts =
            listOf("", " \n ", "404 Not Found", "<a>", "<a></b>", "<a/><b/>", "<a/><!--", "<a/><?b", "<a b=\"c",
                   "<", "<!", "<?", "</", "<?xml", "<![CDATA[");
        for (const QByteArray& text : texts)
            QVERIFY2(!parseXml(document, text), text.constData());
    }

    void decoyNeitherHidesNorFakesDepth_data()
    {
        const Table<QString> row("text");
        eachText(row,
                 listOf("<!-- x -->", "<!-- </r></a> -->", "<!-- \" -->", "<!-- ' -->", "<!-- > -> - > -->",
                        "<!-- <![CDATA[ -->", "<!-- <? -->", "<!---->", "<![CDATA[x]]>",
                        "<![CDATA[</a></a></a>]]>", "<![CDATA[<!--]]>", "<![CDATA[\"]]>", "<![CDATA[]]]]>",
                        "<?x y?>", "<?x </a></a>?>", "<?x <!-- ?>", "<?x \" ?>", "<?x > ?>",
                        "<?xml-stylesheet href=\"?>", "<b c=\">\"/>", "<b c='/>'/>", "<b c=\"'\"/>", "<b c='\"'/>",
                        "<b c=\"</b>\"/>", "<b c=\"<!--\"/>", "<b c='['/>", "x \" y", "x ' y", "x > y", "x /> y",
                        "&lt;/a&gt;&lt;/a&gt;", "<b></b \n>", "<b />", "<b / >", "</b>", "<!-x>", "<!-->",
                        "<!--->", "<!-- -- -->", "<!-- --->", "<!x>", "<![CDATA[ ]>", "<?>", "<? ?>",
                        "</b c=\"'\">", "<b></b c=\">\">", "<b c/>", "<b c=\\\"/>", "<b \">\"/>", "&amp;",
                        "&<b;/>"));
    }

    void decoyNeitherHidesNorFakesDepth()
    {
        QFETCH(const QString, text);
        QDomDocument document;
        const QString before = "<r>" + text + nested(128) + "</r>";
        // The document is too deep. If Qt's parser accepts it, the bounds must refuse it.
        if (static_cast<bool>(document.setContent(before)))
            QVERIFY(!isWithinXmlBounds(before));
        QVERIFY(!parseXml(document, before));
        QVERIFY(!parseXml(document, "<a>"_s.repeated(60) + text + nested(69) + "</a>"_s.repeated(60)));

        const QString often = "<r>" + text.repeated(1000) + nested(127) + "</r>";
        QCOMPARE(parseXml(document, often), static_cast<bool>(QDomDocument().setContent(often)));
    }

    void hostileDocumentsAreRefusedBeforeTheParser_data()
    {
        // A parser that accepts a quoted value here would parse all levels before it finds an error.
        const Table<QString> row("text");
        row("a comment in the declaration", "<?xml version=\"?><!-- \"?>" + nested(129));
        row("a comment in the declaration, closed after it",
            "<?xml version=\"?><!-- \"?>" + nested(129) + "<!-- -->");
        row("a comment in the encoding", "<?xml version='1.0' encoding='?><!-- '?>" + nested(129) + "<!-- -->");
        row("CDATA in the declaration", "<?xml version=\"?><a><![CDATA[ \"?>" + nested(129) + "<!-- ]]></a> -->");
        row("a single quote in the declaration", "<?xml version=\"1.0\" ' ?>" + nested(129));
        row("a million levels", nested(1000000));
        row("a million start tags", "<a>"_s.repeated(1000000));
        row("400,000 attributes", withAttributes(400000));
        row("an element declaration of 100,000 brackets", "<!DOCTYPE a [<!ELEMENT a " + "("_s.repeated(100000));
        row("an entity referenced 20,000 times",
            "<!DOCTYPE a [<!ENTITY b '" + "x"_s.repeated(4000) + "'>]><a>" + "&b;"_s.repeated(20000) + "</a>");
    }

    void hostileDocumentsAreRefusedBeforeTheParser()
    {
        QFETCH(const QString, text);
        QElapsedTimer timer;
        timer.start();
        QVERIFY(!isWithinXmlBounds(text));
        QDomDocument document;
        QVERIFY(!parseXml(document, text));
        QVERIFY(timer.elapsed() < MAX_DECISION_MS);
    }
};

QTEST_APPLESS_MAIN(BoundedXmlTest)
#include "tst_boundedxml.moc"

#include <ssdp/Documents.h>
#include <tests/support/Literals.h>

#include <QtTest/QtTest>
#include <QtXml/QDomDocument>

using namespace Velmora;
using namespace Velmora::Tests;
using namespace Velmora::SSDP;

/// What the documents of a device say.
class DocumentsTest : public QObject
{
    Q_OBJECT

private:
    static QDomDocument parsed(const QString& text)
    {
        QDomDocument document;
        if (!document.setContent(text))
            qFatal("not parsed: %s", qPrintable(text));
        return document;
    }

    /// Each as its texts in the order of the record, joined by "|".
    static QStringList servicesOf(const QString& text)
    {
        QStringList result;
        const QList<Documents::Service> services = Documents::services(parsed(text));
        for (const Documents::Service& service : services) {
            result << QStringList(
                          {service.type, service.id, service.controlUrl, service.eventSubUrl, service.scpdUrl})
                          .join(QLatin1Char('|'));
        }
        return result;
    }

    /// Each as "name=value".
    static QStringList propertiesOf(const QString& text)
    {
        QStringList result;
        const QList<Documents::Property> properties = Documents::properties(parsed(text));
        for (const Documents::Property& property : properties)
            result << property.name + QLatin1Char('=') + property.value;
        return result;
    }

private Q_SLOTS:
    void nameSpaceSaysTheKind_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("kind");
        const auto add = [](const char* name, const char* text, Documents::Kind kind) {
            QTest::newRow(name) << QString::fromLatin1(text) << int(kind);
        };
        const auto device = Documents::DeviceDescription;
        const auto service = Documents::ServiceDescription;
        const auto other = Documents::Other;
        add("device", "<root xmlns='urn:schemas-upnp-org:device-1-0'/>", device);
        add("device without a version", "<root xmlns='urn:schemas-upnp-org:device'/>", device);
        add("service", "<scpd xmlns='urn:schemas-upnp-org:service-1-0'/>", service);
        add("service without a version", "<scpd xmlns='urn:schemas-upnp-org:service'/>", service);
        add("scpd of a device", "<scpd xmlns='urn:schemas-upnp-org:device-1-0'/>", device);
        add("root of a service", "<root xmlns='urn:schemas-upnp-org:service-1-0'/>", service);
        add("no name space", "<root/>", other);
        add("an empty name space", "<root xmlns=''/>", other);
        add("another name space", "<root xmlns='urn:schemas-upnp-org:event-1-0'/>", other);
        add("a shorter one", "<root xmlns='urn:schemas-upnp-org:devic'/>", other);
        add("a space before it", "<root xmlns=' urn:schemas-upnp-org:device-1-0'/>", other);
        add("letter case of the name space", "<root xmlns='URN:schemas-upnp-org:device-1-0'/>", other);
        add("letter case of the element", "<Root xmlns='urn:schemas-upnp-org:device-1-0'/>", other);
        add("another element", "<html xmlns='urn:schemas-upnp-org:device-1-0'/>", other);
        add("a prefix", "<d:root xmlns:d='urn:schemas-upnp-org:device-1-0'/>", other);
        add("a name space with a prefix", "<root xmlns:d='urn:schemas-upnp-org:device-1-0'/>", other);
        add("root within another element", "<a><root xmlns='urn:schemas-upnp-org:device-1-0'/></a>", other);
        add("a comment before it", "<!-- x --><root xmlns='urn:schemas-upnp-org:device-1-0'/>", device);
        add("a declaration before it", "<?xml version='1.0'?><root xmlns='urn:schemas-upnp-org:device-1-0'/>",
            device);
    }

    void nameSpaceSaysTheKind()
    {
        QFETCH(const QString, text);
        QFETCH(const int, kind);
        QCOMPARE(int(Documents::kindOf(parsed(text))), kind);
    }

    void emptyDocumentSaysNothing()
    {
        const QDomDocument empty;
        QCOMPARE(Documents::kindOf(empty), Documents::Other);
        QCOMPARE(Documents::services(empty).size(), 0);
        QCOMPARE(Documents::stateVariables(empty).size(), 0);
        QCOMPARE(Documents::properties(empty).size(), 0);
    }

    void servicesOfADevice_data()
    {
        QTest::addColumn<QString>("list");
        QTest::addColumn<QStringList>("expected");
        const auto add = [](const char* name, const char* list, const QStringList& expected) {
            QTest::newRow(name) << QString::fromLatin1(list) << expected;
        };
        add("none", "", {});
        add("an empty one", "<service/>", {"||||"_s});
        add("a whole one",
            "<service><serviceType>t</serviceType><serviceId>i</serviceId><SCPDURL>s</SCPDURL>"
            "<controlURL>c</controlURL><eventSubURL>e</eventSubURL></service>",
            {"t|i|c|e|s"_s});
        add("another order, and what else there is",
            "<service><x/><eventSubURL>e</eventSubURL>text<SCPDURL>s</SCPDURL><!-- c -->"
            "<serviceType>t</serviceType></service>",
            {"t|||e|s"_s});
        add("in document order",
            "<service><serviceId>1</serviceId></service><service/><x/>"
            "<service><serviceId>3</serviceId></service>",
            {"|1|||"_s, "||||"_s, "|3|||"_s});
        add("the first of two texts", "<service><serviceId>1</serviceId><serviceId>2</serviceId></service>",
            {"|1|||"_s});
        add("spaces are kept", "<service><serviceId> 1\t</serviceId></service>", {"| 1\t|||"_s});
        add("text of all elements within", "<service><serviceId>a<b>b</b><![CDATA[c]]>&lt;</serviceId></service>",
            {"|abc<|||"_s});
        add("letter case", "<Service/><service><scpdurl>s</scpdurl></service>", {"||||"_s});
        add("prefixes", "<u:service/><service><u:serviceId>1</u:serviceId></service>", {"||||"_s});
        add("within another element", "<x><service/></x>", {});
    }

    void servicesOfADevice()
    {
        QFETCH(const QString, list);
        QFETCH(const QStringList, expected);
        QCOMPARE(servicesOf("<root><device><serviceList>"_s + list + "</serviceList></device></root>"_s),
                 expected);
    }

    void servicesAreThoseOfTheFirstListOfTheRootDevice_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("count");
        const auto add = [](const char* name, const char* text, int count) {
            QTest::newRow(name) << QString::fromLatin1(text) << count;
        };
        add("two lists", "<root><device><serviceList/><serviceList><service/></serviceList></device></root>", 0);
        add("two devices", "<root><device/><device><serviceList><service/></serviceList></device></root>", 0);
        add("an embedded device",
            "<root><device><serviceList><service/></serviceList><deviceList><device><serviceList><service/>"
            "<service/></serviceList></device></deviceList></device></root>",
            1);
        add("a list of the embedded device only",
            "<root><device><deviceList><device><serviceList><service/></serviceList></device></deviceList>"
            "</device></root>",
            0);
        add("no device", "<root><serviceList><service/></serviceList></root>", 0);
        add("no list", "<root><device><service/></device></root>", 0);
        add("scpd in place of root", "<scpd><device><serviceList><service/></serviceList></device></scpd>", 0);
    }

    void servicesAreThoseOfTheFirstListOfTheRootDevice()
    {
        QFETCH(const QString, text);
        QFETCH(const int, count);
        QCOMPARE(servicesOf(text).size(), count);
    }

    void namesOfAServiceDescription_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QStringList>("expected");
        const auto add = [](const char* name, const char* text, const QStringList& expected) {
            QTest::newRow(name) << QString::fromLatin1(text) << expected;
        };
        add("none", "<scpd><serviceStateTable/></scpd>", {});
        add("no table", "<scpd><stateVariable><name>a</name></stateVariable></scpd>", {});
        add("in document order, repeated ones too",
            "<scpd><serviceStateTable><stateVariable><name>b</name></stateVariable><x/>"
            "<stateVariable><name>a</name></stateVariable><stateVariable><name>b</name></stateVariable>"
            "</serviceStateTable></scpd>",
            {"b"_s, "a"_s, "b"_s});
        add("without a name", "<scpd><serviceStateTable><stateVariable/></serviceStateTable></scpd>", {QString()});
        add("the first of two names",
            "<scpd><serviceStateTable><stateVariable><name>a</name><name>b</name></stateVariable>"
            "</serviceStateTable></scpd>",
            {"a"_s});
        add("the first of two tables",
            "<scpd><serviceStateTable/><serviceStateTable><stateVariable/></serviceStateTable></scpd>", {});
        add("root in place of scpd", "<root><serviceStateTable><stateVariable/></serviceStateTable></root>", {});
        add("letter case", "<scpd><serviceStateTable><StateVariable/></serviceStateTable></scpd>", {});
        add("spaces are kept",
            "<scpd><serviceStateTable><stateVariable><name> "
            "KO\n</name></stateVariable></serviceStateTable></scpd>",
            {" KO\n"_s});
    }

    void namesOfAServiceDescription()
    {
        QFETCH(const QString, text);
        QFETCH(const QStringList, expected);
        QCOMPARE(Documents::stateVariables(parsed(text)), expected);
    }

    void propertiesOfAnEvent_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QStringList>("expected");
        const auto add = [](const char* name, const char* text, const QStringList& expected) {
            QTest::newRow(name) << QString::fromLatin1(text) << expected;
        };
        add("none", "<e:propertyset/>", {});
        add("one", "<e:propertyset><e:property><KO>1,2</KO></e:property></e:propertyset>", {"KO=1,2"_s});
        add("in document order, repeated ones too",
            "<e:propertyset><e:property><B>1</B></e:property>text<x/><e:property><A>2</A></e:property>"
            "<e:property><B>3</B></e:property></e:propertyset>",
            {"B=1"_s, "A=2"_s, "B=3"_s});
        add("without an element", "<e:propertyset><e:property>text</e:property></e:propertyset>", {"="_s});
        add("the first of two elements", "<e:propertyset><e:property><A/><B>1</B></e:property></e:propertyset>",
            {"A="_s});
        add("a prefix of the variable", "<e:propertyset><e:property><u:A>1</u:A></e:property></e:propertyset>",
            {"u:A=1"_s});
        add("another prefix", "<f:propertyset><f:property><A/></f:property></f:propertyset>", {});
        add("another prefix within", "<e:propertyset><f:property><A/></f:property></e:propertyset>", {});
        add("no prefix", "<propertyset><property><A/></property></propertyset>", {});
        add("another root", "<a><e:propertyset><e:property><A/></e:property></e:propertyset></a>", {});
        add("spaces are kept", "<e:propertyset><e:property><A> 1 </A></e:property></e:propertyset>", {"A= 1 "_s});
    }

    void propertiesOfAnEvent()
    {
        QFETCH(const QString, text);
        QFETCH(const QStringList, expected);
        QCOMPARE(propertiesOf(text), expected);
    }
};

QTEST_APPLESS_MAIN(DocumentsTest)
#include "tst_documents.moc"

#include <ssdp/Documents.h>
#include <tests/support/Literals.h>
#include <tests/support/Table.h>

#include <QtXml/QDomDocument>

using namespace Velmora::Tests;
using namespace Velmora::SSDP;

/// How the documents of a device are read.
class DocumentsTest : public QObject
{
    Q_OBJECT

    static QDomDocument parsed(const QString& text)
    {
        QDomDocument document;
        if (!document.setContent(text))
            qFatal("not parsed: %s", qPrintable(text));
        return document;
    }

    /// Returns the services, the state variables and the properties. A service is its texts, joined by "|". A
    /// property is "name=value".
    static QStringList allThatSays(const QDomDocument& document)
    {
        QStringList result;
        const QList<Documents::Service> services = Documents::services(document);
        for (const Documents::Service& service : services) {
            result << QStringList(
                          {service.type, service.id, service.controlUrl, service.eventSubUrl, service.scpdUrl})
                          .join('|');
        }
        result << Documents::stateVariables(document);
        const QList<Documents::Property> properties = Documents::properties(document);
        for (const Documents::Property& property : properties)
            result << property.name + '=' + property.value;
        return result;
    }

private Q_SLOTS:
    void nameSpaceSaysTheKind_data()
    {
        const Table<QString, int> row("text", "kind");
        const auto device = Documents::DeviceDescription;
        const auto service = Documents::ServiceDescription;
        const auto other = Documents::Other;
        row("device", "<root xmlns='urn:schemas-upnp-org:device-1-0'/>", device);
        row("device of another version", "<root xmlns=\"urn:schemas-upnp-org:device-7-5\"/>", device);
        row("device without a version", "<root xmlns='urn:schemas-upnp-org:device'/>", device);
        row("service", "<scpd xmlns='urn:schemas-upnp-org:service-1-0'/>", service);
        row("service without a version", "<scpd xmlns='urn:schemas-upnp-org:service'/>", service);
        row("scpd of a device", "<scpd xmlns='urn:schemas-upnp-org:device-1-0'/>", device);
        row("root of a service", "<root xmlns='urn:schemas-upnp-org:service-1-0'/>", service);
        row("no namespace", "<root/>", other);
        row("an empty namespace", "<root xmlns=''/>", other);
        row("another namespace", "<root xmlns='urn:schemas-upnp-org:event-1-0'/>", other);
        row("a shorter one", "<root xmlns='urn:schemas-upnp-org:devic'/>", other);
        row("a space before it", "<root xmlns=' urn:schemas-upnp-org:device-1-0'/>", other);
        row("letter case of the namespace", "<root xmlns='URN:schemas-upnp-org:device-1-0'/>", other);
        row("letter case of the element", "<Root xmlns='urn:schemas-upnp-org:device-1-0'/>", other);
        row("another element", "<html xmlns='urn:schemas-upnp-org:device-1-0'/>", other);
        row("a prefix", "<d:root xmlns:d='urn:schemas-upnp-org:device-1-0'/>", other);
        row("a prefix that the namespace lacks", "<d:root xmlns='urn:schemas-upnp-org:device-1-0'/>", other);
        row("a namespace with a prefix", "<root xmlns:d='urn:schemas-upnp-org:device-1-0'/>", other);
        row("root within another element", "<a><root xmlns='urn:schemas-upnp-org:device-1-0'/></a>", other);
        row("a comment before it", "<!-- x --><root xmlns='urn:schemas-upnp-org:device-1-0'/>", device);
        row("a declaration", "<?xml version='1.0'?><root xmlns='urn:schemas-upnp-org:device-1-0'/>", device);
        row("a DOCTYPE", "<!DOCTYPE root>\n<root xmlns='urn:schemas-upnp-org:device-1-0'/>\n", device);
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
        QCOMPARE(allThatSays(empty), QStringList());
    }

    void everyElementIsReadFromItsPlaceOnly_data()
    {
        const Table<QString, QStringList> row("text", "expected");
        const QStringList none;
        const QStringList empty("||||");
        const auto device = [&](const char* name, const QString& text, const QStringList& expected) {
            row(name, "<root>" + text + "</root>", expected);
        };
        const QString list = "<serviceList><service/></serviceList>";
        device("two lists", "<device><serviceList/>" + list + "</device>", none);
        device("two devices", "<device/><device>" + list + "</device>", none);
        device("an embedded device",
               "<device>" + list + "<deviceList><device>" + list + "</device></deviceList></device>", empty);
        device("an embedded device only",
               "<device><deviceList><device>" + list + "</device></deviceList></device>", none);
        device("other elements", "<specVersion/><device><friendlyName/>" + list + "</device>", empty);
        device("no device", list, none);
        device("no list", "<device><service/></device>", none);
        device("a list in another element", "<device><x>" + list + "</x></device>", none);
        row("scpd in place of root", "<scpd><device>" + list + "</device></scpd>", none);

        const auto services = [&](const char* name, const QString& text, const QStringList& expected) {
            device(name, "<device><serviceList>" + text + "</serviceList></device>", expected);
        };
        services("no service", "", none);
        services("an empty one", "<service/>", empty);
        services("a whole one",
                 "<service><serviceType>t</serviceType><serviceId>i</serviceId><SCPDURL>s</SCPDURL>"
                 "<controlURL>c</controlURL><eventSubURL>e</eventSubURL></service>",
                 {"t|i|c|e|s"});
        services("another order, and what else there is",
                 "<service><x/><eventSubURL>e</eventSubURL>text<SCPDURL>s</SCPDURL><!-- c -->"
                 "<serviceType>t</serviceType></service>",
                 {"t|||e|s"});
        services("services in document order",
                 "<service><serviceId>1</serviceId></service><service/><x/>"
                 "<service><serviceId>3</serviceId></service>",
                 {"|1|||", "||||", "|3|||"});
        const auto identifier = [&](const char* name, const QString& text, const QString& expected) {
            services(name, "<service>" + text + "</service>", {'|' + expected + "|||"});
        };
        identifier("the first of two texts", "<serviceId>1</serviceId><serviceId>2</serviceId>", "1");
        identifier("a text with spaces", "<serviceId> 1\t</serviceId>", " 1\t");
        identifier("all text within", "<serviceId>a<b>b</b><![CDATA[c]]>&lt;</serviceId>", "abc<");
        identifier("letter case of a text", "<ServiceId>s</ServiceId>", "");
        identifier("a prefix of a text", "<u:serviceId>1</u:serviceId>", "");
        services("letter case of a service", "<Service/>", none);
        services("a prefix of a service", "<u:service/>", none);
        services("a service in another element", "<x><service/></x>", none);

        const QString ko = "<stateVariable><name>KO</name></stateVariable>";
        const QString table = "<serviceStateTable>" + ko + "</serviceStateTable>";
        row("two tables", "<scpd><serviceStateTable/>" + table + "</scpd>", none);
        row("other elements of scpd", "<scpd><actionList><action/></actionList>" + table + "</scpd>", {"KO"});
        row("no table", "<scpd>" + ko + "</scpd>", none);
        row("root in place of scpd", "<root>" + table + "</root>", none);
        const auto variables = [&](const char* name, const QString& text, const QStringList& expected) {
            row(name, "<scpd><serviceStateTable>" + text + "</serviceStateTable></scpd>", expected);
        };
        variables("no variable", "", none);
        variables("variables in document order, repeated ones too",
                  "<stateVariable><name>b</name></stateVariable><x/>" + ko
                      + "<stateVariable><name>b</name></stateVariable>",
                  {"b", "KO", "b"});
        variables("a variable without a name", "<stateVariable/>", {""});
        variables("a variable of two names", "<stateVariable><name>a</name><name>b</name></stateVariable>", {"a"});
        variables("a variable with more", "<stateVariable sendEvents='no'><x/><name>a</name></stateVariable>",
                  {"a"});
        variables("letter case of a variable", "<StateVariable/>", none);
        variables("a name with spaces", "<stateVariable><name> KO\n</name></stateVariable>", {" KO\n"});

        const auto properties = [&](const char* name, const QString& text, const QStringList& expected) {
            row(name, "<e:propertyset>" + text + "</e:propertyset>", expected);
        };
        properties("no property", "", none);
        properties("one property", "<e:property><KO>1,2</KO></e:property>", {"KO=1,2"});
        properties("properties in document order, repeated ones too",
                   "<e:property><B>1</B></e:property>text<x/><e:property><A>2</A></e:property>"
                   "<e:property><B>3</B></e:property>",
                   {"B=1", "A=2", "B=3"});
        properties("a property without an element", "<e:property>text</e:property>", {"="});
        properties("text before the element", "<e:property>x<A>1</A></e:property>", {"A=1"});
        properties("all text within the value", "<e:property><A>1<b>&lt;</b><![CDATA[<c>]]></A></e:property>",
                   {"A=1<<c>"});
        properties("letter case of a property", "<e:Property><A>1</A></e:Property>", none);
        properties("a property in another element", "<x><e:property><A>1</A></e:property></x>", none);
        properties("a property of two elements", "<e:property><A/><B>1</B></e:property>", {"A="});
        properties("a prefix of the variable", "<e:property><u:A>1</u:A></e:property>", {"u:A=1"});
        properties("a value with spaces", "<e:property><A> 1 </A></e:property>", {"A= 1 "});
        properties("another prefix within", "<f:property><A/></f:property>", none);
        row("another prefix", "<f:propertyset><f:property><A/></f:property></f:propertyset>", none);
        row("no prefix", "<propertyset><property><A/></property></propertyset>", none);
        row("a set within", "<a><e:propertyset><e:property><A/></e:property></e:propertyset></a>", none);
    }

    void everyElementIsReadFromItsPlaceOnly()
    {
        QFETCH(const QString, text);
        QFETCH(const QStringList, expected);
        QCOMPARE(allThatSays(parsed(text)), expected);
    }
};

QTEST_APPLESS_MAIN(DocumentsTest)
#include "tst_documents.moc"

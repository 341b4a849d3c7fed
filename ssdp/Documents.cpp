#include <ssdp/Documents.h>

#include <ssdp/Protocol.h>

#include <QtXml/QDomDocument>

namespace Velmora {
namespace SSDP {
namespace Documents {

namespace {

QDomElement child(const QDomNode& parent, const char* name)
{
    return parent.firstChildElement(QLatin1String(name));
}

} // namespace

Kind kindOf(const QDomDocument& document)
{
    QDomElement root = child(document, "root");
    if (root.isNull())
        root = child(document, "scpd");
    const QString xmlns = root.attribute(QString(QLatin1String("xmlns")));
    if (xmlns.startsWith(QLatin1String(Protocol::DEVICE_NAMESPACE)))
        return DeviceDescription;
    if (xmlns.startsWith(QLatin1String(Protocol::SERVICE_NAMESPACE)))
        return ServiceDescription;
    return Other;
}

QList<Service> services(const QDomDocument& description)
{
    QList<Service> result;
    const QString name(QLatin1String("service"));
    const QDomElement list = child(child(child(description, "root"), "device"), "serviceList");
    for (QDomElement element = list.firstChildElement(name); !element.isNull();
         element = element.nextSiblingElement(name)) {
        Service service;
        service.type = child(element, "serviceType").text();
        service.id = child(element, "serviceId").text();
        service.controlUrl = child(element, "controlURL").text();
        service.eventSubUrl = child(element, "eventSubURL").text();
        service.scpdUrl = child(element, "SCPDURL").text();
        result.append(service);
    }
    return result;
}

QStringList stateVariables(const QDomDocument& description)
{
    QStringList result;
    const QString name(QLatin1String("stateVariable"));
    const QDomElement table = child(child(description, "scpd"), "serviceStateTable");
    for (QDomElement element = table.firstChildElement(name); !element.isNull();
         element = element.nextSiblingElement(name))
        result.append(child(element, "name").text());
    return result;
}

QList<Property> properties(const QDomDocument& event)
{
    QList<Property> result;
    // Devices use the prefix "e:"; see docs/protocol.md, "Event".
    const QString name(QLatin1String("e:property"));
    const QDomElement set = child(event, "e:propertyset");
    for (QDomElement element = set.firstChildElement(name); !element.isNull();
         element = element.nextSiblingElement(name)) {
        const QDomElement variable = element.firstChildElement();
        Property property;
        property.name = variable.tagName();
        property.value = variable.text();
        result.append(property);
    }
    return result;
}

} // namespace Documents
} // namespace SSDP
} // namespace Velmora

#ifndef VELMORA_TESTS_SUPPORT_MESSAGES_H
#define VELMORA_TESTS_SUPPORT_MESSAGES_H

#include <tests/support/Literals.h>

#include <QtCore/QList>

namespace Velmora {
namespace Tests {

// The messages of a device. UPnP Device Architecture 1.1: search reply 1.3.3, descriptions 2.3 and 2.5,
// events 4.3.

const char KEY_OBJECT_TYPE[] = "urn:schemas-velmora-it:service:keyobjects:1";

inline QByteArray searchReply(const QByteArray& location)
{
    return "HTTP/1.1 200 OK\r\nLOCATION: " + location + "\r\nST: upnp:rootdevice\r\n\r\n";
}

inline QByteArray announcement(const QByteArray& location)
{
    return "NOTIFY * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nCACHE-CONTROL: max-age=1800\r\nLOCATION: "
        + location + "\r\nNT: upnp:rootdevice\r\nNTS: ssdp:alive\r\nUSN: uuid:1::upnp:rootdevice\r\n\r\n";
}

/// A reply of HTTP 200 with @p body.
inline QByteArray reply(const QByteArray& body)
{
    return "HTTP/1.1 200 OK\r\nCONTENT-LENGTH: " + QByteArray::number(body.size())
        + "\r\nCONTENT-TYPE: text/xml\r\n\r\n" + body;
}

/// By default, the key-object service.
inline QByteArray serviceElement(const QByteArray& type = KEY_OBJECT_TYPE, const QByteArray& scpdUrl = "/scpd.xml",
                                 const QByteArray& eventSubUrl = "/event")
{
    return "<service><serviceType>" + type
        + "</serviceType><serviceId>urn:velmora-it:serviceId:keyobjects</serviceId>" + "<SCPDURL>" + scpdUrl
        + "</SCPDURL><controlURL>/control</controlURL><eventSubURL>" + eventSubUrl + "</eventSubURL></service>";
}

inline QByteArray deviceDescription(const QByteArray& services = serviceElement())
{
    return "<?xml version=\"1.0\"?>\n<root xmlns=\"urn:schemas-upnp-org:device-1-0\"><device><serviceList>"
        + services + "</serviceList></device></root>";
}

inline QByteArray serviceDescription(const QList<QByteArray>& names = {"KO"})
{
    QByteArray variables;
    for (const QByteArray& name : names)
        variables += "<stateVariable sendEvents=\"yes\"><name>" + name + "</name></stateVariable>";
    return "<?xml version=\"1.0\"?>\n<scpd xmlns=\"urn:schemas-upnp-org:service-1-0\"><serviceStateTable>"
        + variables + "</serviceStateTable></scpd>";
}

inline QByteArray subscriptionReply()
{
    return "HTTP/1.1 200 OK\r\nSID: uuid:2fac1234-31f8-11b4-a222-08002b34c003\r\nTIMEOUT: Second-120\r\n"
           "CONTENT-LENGTH: 0\r\n\r\n";
}

inline QByteArray eventProperty(const QByteArray& name, const QByteArray& value)
{
    return "<e:property><" + name + ">" + value + "</" + name + "></e:property>";
}

inline QByteArray propertySet(const QByteArray& properties)
{
    return "<?xml version=\"1.0\"?>\n<e:propertyset xmlns:e=\"urn:schemas-upnp-org:event-1-0\">" + properties
        + "</e:propertyset>";
}

inline QByteArray eventBody(const QByteArray& name, const QByteArray& value)
{
    return propertySet(eventProperty(name, value));
}

/// The head of an event for @p path. A null @p contentLength leaves the field out.
inline QByteArray eventHead(const QByteArray& path, const QByteArray& contentLength)
{
    return "NOTIFY " + path + " HTTP/1.1\r\nHOST: 10.77.0.1\r\nCONTENT-TYPE: text/xml\r\nNT: upnp:event\r\n"
        + "NTS: upnp:propchange\r\n"
        + (contentLength.isNull() ? QByteArray() : "CONTENT-LENGTH: " + contentLength + "\r\n") + "\r\n";
}

} // namespace Tests
} // namespace Velmora

#endif

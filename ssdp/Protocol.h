#ifndef VELMORA_SSDP_PROTOCOL_H
#define VELMORA_SSDP_PROTOCOL_H

#include <QtCore/QString>
#include <QtCore/QUuid>
#include <QtNetwork/QHostAddress>

namespace Velmora {
namespace SSDP {

/**
 * Every constant of the protocol, and the texts of search, subscription and event. docs/protocol.md
 * shows the messages. Nothing here opens a socket.
 */
namespace Protocol {

/// UDP port of SSDP (UPnP Device Architecture 1.1, clause 1).
const quint16 SSDP_PORT = 1900;
/// The search is sent from SSDP_PORT if it is free, else from the first free port in this range.
const quint16 FIRST_SEARCH_PORT = 49152;
const quint16 LAST_SEARCH_PORT = 65534;
/// The port of a Location without one.
const quint16 HTTP_PORT = 80;
/// Devices answer a search within this many seconds (clause 1.3.2).
const int MX = 3;
/// The requested duration of a subscription, in seconds (clause 4.1.2). It is never renewed.
const int SUBSCRIPTION_SECONDS = 120;

/// The SSDP multicast group, in dotted decimal (clause 1).
extern const char GROUP_ADDRESS[];
/// How the XML namespace of a device description begins (clause 2.3).
extern const char DEVICE_NAMESPACE[];
/// How the XML namespace of a service description begins (clause 2.5).
extern const char SERVICE_NAMESPACE[];
/// How the maker's device types begin.
extern const char DEVICE_TYPE[];
/// The type of the maker's key-object service.
extern const char KEY_OBJECT_SERVICE_TYPE[];

/// The M-SEARCH request. Every line ends with a single line feed.
QString searchMessage();

/// The destination of a service's events: the event server and the service's identifier.
struct Callback
{
    QHostAddress address;
    quint16 port;
    QUuid service;
};

/**
 * The SUBSCRIBE request for the path @p eventSubUrl on the server of @p location. Every line ends with
 * a single line feed.
 */
QString subscribeMessage(const QString& eventSubUrl, const QString& location, const Callback& callback);

/// The kernel's name and release, such as "Linux/6.1.0", or "Undefined/-1" if they are not known.
QString systemInfo();

/**
 * The value of a header field: the text after the first colon of its line, trimmed. The line is the
 * first one of @p message that begins with @p header, in upper or lower case, and has a colon, but not
 * as its first character.
 * @return a null string if there is no such line
 */
QString headerValue(const QString& message, const QString& header);

/// The HOST value of a subscription: the host, a colon, and one character: the low 8 bits of the port.
QString hostValue(const QString& url);

/// @p path with a leading "/". It is added only if @p path does not begin with one.
QString subLocation(const QString& path);

/// The URL of @p path on the server of @p location.
QString fullLocation(const QString& location, const QString& path);

/// The SID in the reply to a SUBSCRIBE. Null if it is missing or malformed.
QUuid subscriptionIdentifier(const QString& reply);

/**
 * Reads the service's identifier from the path in the request line of an event.
 * @return false if the request line has no path. A path without an identifier gives a null identifier
 */
bool readEventIdentifier(const QString& head, QUuid* identifier);

} // namespace Protocol
} // namespace SSDP
} // namespace Velmora

#endif

#ifndef VELMORA_SSDP_PROTOCOL_H
#define VELMORA_SSDP_PROTOCOL_H

#include <QtCore/QString>
#include <QtCore/QUuid>
#include <QtNetwork/QHostAddress>

namespace Velmora {
namespace SSDP {

/**
 * Every constant of the protocol, and the texts of search, subscription and event. docs/protocol.md
 * describes the messages. No function here uses a socket.
 */
namespace Protocol {

/// UDP port of SSDP (UPnP Device Architecture 1.1, clause 1).
const quint16 SSDP_PORT = 1900;
/// If SSDP_PORT is free, the search is sent from it, else from the first free port in this range.
const quint16 FIRST_SEARCH_PORT = 49152;
const quint16 LAST_SEARCH_PORT = 65534;
/// The port of a Location that names no port.
const quint16 HTTP_PORT = 80;
/// Devices answer a search within this many seconds (clause 1.3.2).
const int MX = 3;
/// The requested duration of a subscription, in seconds (clause 4.1.2). It is never renewed.
const int SUBSCRIPTION_SECONDS = 120;

/// The SSDP multicast group, in dotted decimal (clause 1).
extern const char GROUP_ADDRESS[];
/// The beginning of the XML namespace of a device description (clause 2.3).
extern const char DEVICE_NAMESPACE[];
/// The beginning of the XML namespace of a service description (clause 2.5).
extern const char SERVICE_NAMESPACE[];
/// The beginning of the maker's device types.
extern const char DEVICE_TYPE[];
/// The type of the maker's key-object service.
extern const char KEY_OBJECT_SERVICE_TYPE[];

/// Returns the M-SEARCH request. Every line ends with a single line feed.
QString searchMessage();

/// The destination of the events of a service: the event server, and the identifier of the service.
struct Callback
{
    QHostAddress address;
    quint16 port;
    QUuid service;
};

/**
 * Returns the SUBSCRIBE request for the path @p eventSubUrl on the server of @p location. Every line ends
 * with a single line feed.
 */
QString subscribeMessage(const QString& eventSubUrl, const QString& location, const Callback& callback);

/// Returns the name and release of the kernel, such as "Linux/6.1.0". If they are not known, returns
/// "Undefined/-1".
QString systemInfo();

/**
 * Returns the value of a header field: the text after the first colon of its line, trimmed. This line is
 * the first line of @p message that begins with @p header, in upper or lower case, and has a colon. A
 * line that begins with the colon is skipped.
 * @return a null string if there is no such line
 */
QString headerValue(const QString& message, const QString& header);

/// Returns the HOST value of a subscription: the host, a colon, and one character. The code of the
/// character is the low 8 bits of the port.
QString hostValue(const QString& url);

/// Returns @p path with a leading "/". If @p path begins with one, returns it unchanged.
QString subLocation(const QString& path);

/// Returns the URL of @p path on the server of @p location. @p location begins with "http://".
QString fullLocation(const QString& location, const QString& path);

/// Returns the SID in the reply to a SUBSCRIBE. If it is missing or malformed, returns a null identifier.
QUuid subscriptionIdentifier(const QString& reply);

/**
 * Reads the identifier of the service from the path in the request line of an event. If the path is not
 * an identifier, *identifier is null.
 * @return false if the request line has no path; *identifier is then unchanged
 */
bool readEventIdentifier(const QString& head, QUuid* identifier);

} // namespace Protocol
} // namespace SSDP
} // namespace Velmora

#endif

#include <tools/doctor/Findings.h>

#include <cstring>

namespace Velmora {
namespace Doctor {

const QList<FindingText>& findingTexts()
{
    static const QList<FindingText> list = {
        {"search.silent", "Nothing came from this address, not even after a search sent to it alone.",
         "Check the address, and the power and the cable of the device. Check that no firewall drops UDP to port "
         "1900 or the answers.",
         1},
        {"search.unicast-only", "It answers a search that is sent to its address, but not one to the group.",
         "Make the device join 239.255.255.250, and make switches (IGMP snooping) and access points forward "
         "multicast.",
         1},
        {"search.crlf-only", "It answers a search whose lines end with CR LF, but not one with line feeds alone.",
         "Make the device accept lines that end with a line feed alone.", 1},
        {"search.announces-only", "It announces itself, but does not answer the search.",
         "Make the device answer a search for upnp:rootdevice. Until then, it is found only if it announces "
         "itself during a discovery.",
         2},
        {"search.late", "Its first message came so late that the device was not found before the time-out.",
         "Make the device answer sooner, or give the host a longer time-out.", 2},
        {"search.after-mx", "It answers later than the search allows (MX).",
         "Make the device answer within MX seconds.", 2},
        {"search.duplicates", "It answers one search several times.", "Answer each search once.", 2},
        {"search.no-location", "Its message has no LOCATION.", "Send the URL of the description as LOCATION.", 2},
        {"search.location-no-url", "Its LOCATION is not a URL that begins with http:// and names a host.",
         "Send the http:// URL of the description as LOCATION.", 2},
        {"search.location-other-host", "The host in its LOCATION is not the address from which the message came.",
         "Send a LOCATION with the address from which the device answers.", 2},

        {"description.no-connection", "Nothing answers a connection to its HTTP port.",
         "Check that the LOCATION has the right address and port, and that no firewall drops TCP to it.", 3},
        {"description.refused", "It refuses the connection to its HTTP port.",
         "Make the device listen on the port in its LOCATION for as long as it is on.", 3},
        {"description.silent", "It accepts the request for the description and sends nothing.",
         "Make the device answer the GET of its LOCATION.", 3},
        {"description.closed", "It closes the connection without a reply to the request for the description.",
         "Make the device answer the GET of its LOCATION.", 3},
        {"description.slow", "The description takes longer than the time-out of the discovery allows.",
         "Make the device send faster, or give the host a longer time-out.", 3},
        {"description.reset", "It resets the connection while it sends the description.",
         "Make the device close the connection only after the whole description is sent.", 3},
        {"description.not-http", "The reply to the request for the description is not HTTP.",
         "Answer with a status line of HTTP/1.1, header lines, an empty line and the description.", 3},
        {"description.redirect", "It redirects the request for the description.",
         "Send the final URL as LOCATION: redirects are not followed.", 3},
        {"description.status", "It answers the request for the description with an error.",
         "Serve the description at the URL in the LOCATION.", 3},
        {"description.short", "The description is shorter than the length that its head announces.",
         "Make CONTENT-LENGTH the number of bytes in the body.", 3},
        {"description.long", "The description is longer than the length that its head announces.",
         "Make CONTENT-LENGTH the number of bytes in the body.", 3},
        {"description.out-of-bounds", "The description exceeds the limits of the library.",
         "Keep the head of the reply below 64 KiB and the body below 16 MiB. Use at most 128 levels of elements "
         "and 256 attributes per element, and no internal DTD subset.",
         3},
        {"description.not-xml", "The description is not well-formed XML.", "Correct the XML.", 3},
        {"description.no-root", "The top element of the document at the LOCATION is not root.",
         "Serve a device description. Its top element is root.", 3},
        {"description.namespace", "The description does not declare the namespace that the library reads.",
         "Declare xmlns=\"urn:schemas-upnp-org:device-1-0\" on the element root.", 3},
        {"description.prefix", "The elements of the description have a prefix.",
         "Declare the namespace with xmlns=, and write the elements without a prefix.", 3},

        {"service.none", "The description lists no service.", "List the key-object service in the root device.",
         3},
        {"service.no-key-object", "The description lists services, but no key-object service.",
         "List a service of the type urn:schemas-velmora-it:service:keyobjects:1 in the root device.", 3},
        {"service.other-maker", "It is not a device of the maker.", "Nothing: it need not be found.", 0},
        {"service.type-version", "The type of its key-object service has another version.",
         "Make the type exactly urn:schemas-velmora-it:service:keyobjects:1.", 3},
        {"service.type-case", "The type of its key-object service differs in upper and lower case.",
         "Make the type exactly urn:schemas-velmora-it:service:keyobjects:1.", 3},
        {"service.type-space", "The type of its key-object service has spaces around it.",
         "Make the type exactly urn:schemas-velmora-it:service:keyobjects:1.", 3},
        {"service.embedded",
         "Its key-object service belongs to an embedded device, which the library does not read.",
         "List the key-object service in the root device.", 3},
        {"service.scpd-url", "Its SCPDURL is a complete URL, not a path.",
         "Make SCPDURL a path on the server of the LOCATION, such as /service1.xml.", 3},
        {"service.event-url", "Its eventSubURL is a complete URL, not a path.",
         "Make eventSubURL a path on the server of the LOCATION, such as /service1/event.", 3},

        {"scpd.no-connection", "Nothing answers the connection for the service description.",
         "Keep the HTTP server on for as long as the device is on.", 4},
        {"scpd.refused", "It refuses the connection for the service description.",
         "Keep the HTTP server on for as long as the device is on.", 4},
        {"scpd.silent", "It accepts the request for the service description and sends nothing.",
         "Make the device answer the GET of its SCPDURL.", 4},
        {"scpd.closed", "It closes the connection without a reply to the request for the service description.",
         "Make the device answer the GET of its SCPDURL.", 4},
        {"scpd.slow", "The service description takes longer than the time-out of the discovery allows.",
         "Make the device send faster, or give the host a longer time-out.", 4},
        {"scpd.reset", "It resets the connection while it sends the service description.",
         "Make the device close the connection only after the whole document is sent.", 4},
        {"scpd.not-http", "The reply to the request for the service description is not HTTP.",
         "Answer with a status line of HTTP/1.1, header lines, an empty line and the document.", 4},
        {"scpd.redirect", "It redirects the request for the service description.",
         "Write the final path as SCPDURL: redirects are not followed.", 4},
        {"scpd.status", "It answers the request for the service description with an error.",
         "Serve the service description at its SCPDURL.", 4},
        {"scpd.short", "The service description is shorter than the length that its head announces.",
         "Make CONTENT-LENGTH the number of bytes in the body.", 4},
        {"scpd.long", "The service description is longer than the length that its head announces.",
         "Make CONTENT-LENGTH the number of bytes in the body.", 4},
        {"scpd.out-of-bounds", "The service description exceeds the limits of the library.",
         "Keep the head of the reply below 64 KiB and the body below 16 MiB. Use at most 128 levels of elements "
         "and 256 attributes per element, and no internal DTD subset.",
         4},
        {"scpd.not-xml", "The service description is not well-formed XML.", "Correct the XML.", 4},
        {"scpd.no-root", "The top element of the document at the SCPDURL is not scpd.",
         "Serve a service description. Its top element is scpd.", 4},
        {"scpd.namespace", "The service description does not declare the namespace that the library reads.",
         "Declare xmlns=\"urn:schemas-upnp-org:service-1-0\" on the element scpd.", 4},
        {"scpd.prefix", "The elements of the service description have a prefix.",
         "Declare the namespace with xmlns=, and write the elements without a prefix.", 4},
        {"scpd.no-variable", "The service description lists no state variable.",
         "List the state variable KO. Without a state variable, there is no subscription.", 4},
        {"scpd.no-ko", "The service description lists state variables, but no KO.",
         "List the state variable KO and send it in the event.", 4},

        {"subscription.no-connection", "Nothing answers the connection for the subscription.",
         "Keep the HTTP server on for as long as the device is on.", 5},
        {"subscription.refused", "It refuses the connection for the subscription.",
         "Accept subscriptions at the host and port of the LOCATION.", 5},
        {"subscription.silent",
         "It accepts the connection for the subscription, but sends no complete HTTP reply.",
         "Accept lines that end with a line feed alone, and a HOST whose port is one byte, not a decimal number.",
         5},
        {"subscription.closed", "It closes the connection without a reply to the subscription request.",
         "Accept lines that end with a line feed alone, and a HOST whose port is one byte, not a decimal number.",
         5},
        {"subscription.status", "It answers the subscription request with an error.",
         "Accept every SUBSCRIBE, even if one host sends several at the same time.", 5},
        {"subscription.standard-only",
         "It accepts a SUBSCRIBE with CR LF and a decimal port in HOST, but not that of the library.",
         "Accept lines that end with a line feed alone, and a HOST whose port is one byte, not a decimal number.",
         5},
        {"subscription.no-sid", "Its reply to the subscription request has no SID.", "Send a SID in the reply.",
         5},
        {"subscription.late-sid", "The SID comes after the first segment of its reply.",
         "Send the reply to a SUBSCRIBE in one segment.", 5},

        {"event.none", "It accepts the subscription, but sends no event.",
         "Send the initial event to the CALLBACK of every subscription. Check that no firewall drops TCP to the "
         "event server of the host.",
         6},
        {"event.unknown-path", "Its event goes to another path than that of the CALLBACK.",
         "Send events to the path in the CALLBACK, and do not change it.", 6},
        {"event.one-segment", "Head and body of its event come in one segment, so the body is lost.",
         "Send the head, wait (50 ms are enough), and send the body.", 6},
        {"event.short-gap", "Head and body of its event come less than 5 ms apart, so the body may be lost.",
         "Wait longer between head and body of an event (50 ms are enough).", 6},
        {"event.no-body", "The head of its event came, but no body.", "Send the body after the head.", 6},
        {"event.no-length",
         "Its event has no CONTENT-LENGTH, so only one segment after the head is read as its body.",
         "Send CONTENT-LENGTH in the head of an event.", 6},
        {"event.long-length", "The CONTENT-LENGTH of its event is larger than the body, so the body never ends.",
         "Make CONTENT-LENGTH the number of bytes in the body.", 6},
        {"event.short-length", "The CONTENT-LENGTH of its event is smaller than the body, so the body may be cut.",
         "Make CONTENT-LENGTH the number of bytes in the body.", 6},
        {"event.slow", "Its event comes too late for the time-out of the discovery.",
         "Send the initial event at once, or give the host a longer time-out.", 6},
        {"event.out-of-bounds", "The body of its event exceeds the limits of the library.",
         "Use at most 128 levels of elements and 256 attributes per element, and no internal DTD subset.", 6},
        {"event.not-xml", "The body of its event is not well-formed XML.", "Correct the XML.", 6},
        {"event.prefix", "The elements propertyset and property of its event have another prefix than e:.",
         "Write e:propertyset and e:property.", 6},
        {"event.no-ko", "Its event does not carry the state variable KO.",
         "Send KO among the properties of the event.", 6},
        {"event.ko-malformed", "No entry of KO has exactly two parts.",
         "Make KO the function code, a comma and the univocal code, as in 12,34.", 7},

        {"device.unexplained", "No mistake was found when the device was examined.",
         "Run ssdp-doctor again with a longer time-out. If the device is still not found, check the firewall of "
         "this host.",
         0},

        {"host.no-interface", "No network interface of this host is up and has an IPv4 address.",
         "Connect this host to the network of the devices.", 0},
        {"host.port-taken", "A program has UDP port 1900 and does not share it.",
         "End that program, or make it share the port.", 0},
        {"host.port-denied", "This user may not open UDP port 1900.",
         "Run ssdp-doctor as a user that may open this port, such as root.", 0},
        {"host.no-group", "The group 239.255.255.250 cannot be joined on an interface.",
         "Enable multicast on the interface, or raise net.ipv4.igmp_max_memberships.", 0},
        {"host.no-loop", "The search did not come back to this host, so perhaps it was not sent.",
         "Check the firewall of this host: it must let UDP to port 1900 out and in.", 0},
        {"host.event-port", "This host cannot connect to its own port for events.",
         "Check the firewall of this host: it must accept TCP connections to this program.", 0},
        {"host.netfilter", "A rule of this host's packet filter drops what the devices send.",
         "Let in UDP to port 1900 and to the port of the search, and TCP to the port for events.", 0},
    };
    return list;
}

const FindingText& findingText(const QByteArray& id)
{
    for (const FindingText& text : findingTexts()) {
        if (id == text.id)
            return text;
    }
    qFatal("there is no finding %s", id.constData());
}

QString readable(const QByteArray& bytes, int length)
{
    QString result;
    for (const char byte : bytes) {
        if (result.size() >= length)
            return result.left(length) + QStringLiteral("...");
        const uchar code = static_cast<uchar>(byte);
        if (code >= 0x20 && code < 0x7f)
            result += QLatin1Char(byte);
        else
            result += QStringLiteral("\\x%1").arg(code, 2, 16, QLatin1Char('0'));
    }
    return result;
}

QString readable(const QString& text, int length)
{
    return readable(text.left(length + 1).toUtf8(), length);
}

QString seconds(int milliseconds)
{
    return QString::number(static_cast<double>(milliseconds) / 1000, 'f', 1) + QStringLiteral(" s");
}

} // namespace Doctor
} // namespace Velmora

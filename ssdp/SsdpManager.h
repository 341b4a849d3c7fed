#ifndef VELMORA_SSDP_SSDPMANAGER_H
#define VELMORA_SSDP_SSDPMANAGER_H

// Hosts connect by the text of a signature, and these name the records without their namespaces.
// clazy:excludeall=fully-qualified-moc-types

#include <ssdp/QtVersion.h>
#include <ssdp/SsdpDevice.h>
#include <ssdp/SsdpService.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QHash>
#include <QtCore/QList>
#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtNetwork/QHostAddress>
#include <QtNetwork/QNetworkAccessManager>
#include <QtNetwork/QNetworkReply>
#include <QtNetwork/QTcpServer>

class QDomDocument;
class QTcpSocket;
class QUdpSocket;

namespace Velmora {
namespace SSDP {

class MulticastSocket;

/**
 * A UPnP control point on one local IPv4 address.
 *
 * It searches for root devices, fetches the description of each, fetches the service description of
 * every key-object service, subscribes to that service's events and reports each state variable that
 * an event brings. Most hosts use Ssdp, which runs one control point per local address; used by
 * itself:
 *
 * @code
 * SsdpManager manager(QHostAddress("192.168.1.10"));
 * connect(&manager, SIGNAL(valueChanged(const SsdpDevice*,const SsdpService*,QString)), ...);
 * manager.initialize();
 * manager.discover();
 * @endcode
 *
 * All work happens in the event loop of the thread that owns the object. Nothing is retried, renewed
 * or expired by time. Failures are written to the log; what is malformed on the network is dropped.
 *
 * The control point's sockets and requests use no proxy, whatever the host or the environment sets.
 * They leave the last descriptors, 64 of 1,024, to the rest of the process: meanwhile requests and
 * subscriptions fail, and events are not accepted. Of the names in one document, 64 at most are taken
 * that a QHash cannot tell apart by their hash.
 */
class Q_DECL_EXPORT SsdpManager : public QObject
{
    Q_OBJECT

public:
    /// The SSDP multicast group (UPnP Device Architecture 1.1, clause 1).
    static const QHostAddress MULTICAST_GROUP_ADDRESS;
    /// How the XML namespace of a device description begins (clause 2.3).
    static const QString DEVICE_FILTER;
    /// How the XML namespace of a service description begins (clause 2.5).
    static const QString SERVICE_FILTER;
    /// How the maker's device types begin.
    static const QString VELMORA_DEVICE_FILTER;
    /// The type of the maker's key-object service.
    static const QString VELMORA_SERVICE_FILTER;

    /**
     * Makes a control point for @p address, one of this host's IPv4 addresses: it searches from
     * there, listens to the group there, and devices send their events there. Nothing is bound yet.
     */
    explicit SsdpManager(const QHostAddress& address, QObject* parent = nullptr);

    /**
     * Closes every socket and aborts every request. May come at any time, also while a receiver of
     * valueChanged() runs an event loop of its own; only a receiver itself uses deleteLater().
     */
    ~SsdpManager() override;

    /**
     * Sets up the sockets: one for the group on port 1900, one for the search on the address given
     * (port 1900, else the first free one from 49152 to 65534), and the event server on any free
     * port of that address.
     *
     * A failure is logged and leaves the rest as it is: without port 1900 or the group, the search
     * goes out from whatever port the system gives, and there is no event server. Call stop() before
     * calling this again; the event server keeps its port, which the log reports as a failure.
     */
    void initialize();

    /**
     * Sends one search for root devices (M-SEARCH, clause 1.3.2), as one datagram. Does nothing
     * before initialize() and after stop().
     */
    void discover();

    /**
     * Closes the two UDP sockets: no more devices are found. Descriptions, subscriptions and events
     * under way go on, and the event server keeps listening. Does nothing on a stopped manager.
     */
    void stop();

    /**
     * Forgets every device: deletes the records, aborts the requests for their descriptions, and
     * keeps the subscriptions and events under way from reaching any record, old or new.
     */
    void clearDevices();

    /**
     * The device that lists @p service, or null. Only the pointer is compared; it may be null or
     * point to a record that is gone.
     */
    SsdpDevice* getDeviceForService(const SsdpService* service) const;

    /**
     * The search request, every line ended by a single line feed. It asks for upnp:rootdevice with
     * MX: 3, so devices answer within three seconds.
     */
    QString createSearchMessage();

    /// The kernel's name and release as in "Linux/6.1.0", or "Undefined/-1".
    static QString getSystemInfo();

    /**
     * The value of the first line of @p message that begins with @p header, without regard to case,
     * and has a colon behind its first character: the text after the first colon, trimmed.
     *
     * The comparison is of the line's beginning, not of the whole name: "SID" also finds "SIDE: x".
     * @return a null string when there is no such line, an empty one when it has no value
     */
    QString getHeaderValue(const QString& message, const QString& header);

    /**
     * The HOST value of a subscription to @p url: the host, a colon, and one character whose code is
     * the low 8 bits of the port (80 when the URL names none). Port 80 gives "10.0.0.5:P". Devices
     * expect this form; it is not the decimal port.
     */
    QString getHost(const QString& url) const;

    /// @p path with a "/" before it, unless it begins with one.
    QString getSubLocation(const QString& path) const;

    /**
     * @p path on the server of @p location: "http://h:1/a/b.xml" and "c.xml" give "http://h:1/c.xml".
     * @p path is never taken for a URL of its own; only the scheme "http://" is known.
     */
    QString getFullLocation(const QString& location, const QString& path) const;

    /**
     * The subscription request for @p service (SUBSCRIBE, clause 4.1.2), every line ended by a single
     * line feed. Its CALLBACK names the event server and the service's identifier.
     * @return an empty string when no device lists @p service
     */
    QString createSubscribeMessage(SsdpService* service);

Q_SIGNALS:
    /**
     * An event has set the state variable @p valueName of @p service. The new value stands in
     * SsdpService::stateVariables.
     *
     * Comes once per property of every event, in the order of the event's document, also when the
     * value is the same as before and when the service description does not list the variable; also
     * after stop(). The name is empty for a property without an element.
     *
     * The pointers live until the next clearDevices(), so at least until the first receiver that
     * calls it. Receivers may do so, and the properties left in the event are then dropped.
     */
    void valueChanged(const SsdpDevice* device, const SsdpService* service, const QString& valueName);

private Q_SLOTS:
    void onReplyFinished(QNetworkReply* networkReply);
    void onNewConnection();
    void onMulticastMessageReceived();
    void onUnicastMessageReceived();
    void onRequestSocketConnected();
    void onRequestSocketReadyRead();
    void onResponseSocketReadyRead();
    void onResponseSocketDisconnected();

private:
    Q_DISABLE_COPY(SsdpManager)

    void addSsdpDevice(const QHostAddress& address, const QString& location);
    void handleServerResponse(QNetworkReply* networkReply);
    void handleDeviceResponse(SsdpDevice* device, const QDomDocument& document);
    void handleServiceResponse(SsdpDevice* device, SsdpService* service, const QDomDocument& document);
    SsdpService* getServiceFromHeader(const QString& header);
    void updateStateVariables(SsdpService* service, const QString& xml);

    QHostAddress localAddress;
    MulticastSocket* multicastSocket;
    QUdpSocket* unicastSocket;
    QNetworkAccessManager networkManager;
    QTcpServer eventServer;
    QList<SsdpDevice*> devices;
    QHash<QNetworkReply*, SsdpDevice*> deviceReplies;
    QHash<QNetworkReply*, SsdpService*> serviceReplies;
    QList<QTcpSocket*> requestSockets;
    QHash<QTcpSocket*, SsdpService*> requestSocketServices;
    QHash<QTcpSocket*, int> responseContentLengths;
    QHash<QTcpSocket*, QString> responseBuffers;

    Q_DECL_HIDDEN void readDatagram(QUdpSocket* socket);
    Q_DECL_HIDDEN QNetworkReply* get(const QString& url);
    Q_DECL_HIDDEN void readWaitingHeads();
    Q_DECL_HIDDEN void readEventHead(QTcpSocket* socket);
    Q_DECL_HIDDEN void forgetResponseSocket(QTcpSocket* socket);

    /// Counts the calls of clearDevices(), so that a record of an earlier discovery is known as one
    /// even when a new record has its address.
    unsigned int generation;

    /// Accepted event connections that have sent nothing yet, and when they were last asked for it.
    QList<QTcpSocket*> silentSockets;
    QElapsedTimer sinceWaitingHeads;
};

} // namespace SSDP
} // namespace Velmora

#endif

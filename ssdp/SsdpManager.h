#ifndef VELMORA_SSDP_SSDPMANAGER_H
#define VELMORA_SSDP_SSDPMANAGER_H

// Hosts connect by the text of a signature, and these name the records without their namespaces.
// clazy:excludeall=fully-qualified-moc-types

#include <ssdp/QtVersion.h>
#include <ssdp/SsdpDevice.h>
#include <ssdp/SsdpService.h>

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

class HttpFetcher;
class MulticastSocket;
class RecordIndex;

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
 *
 * @note The control point starts no thread, except that Qt looks up a host name in one if the location
 * of a device has a name instead of an address.
 *
 * @note The last descriptors, 64 of 1,024, are left to the rest of the process. While no others are
 * free, requests and subscriptions fail, events are not accepted, and one line of the log says so.
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
     * Closes every socket and aborts every request. Safe at any time, even in a receiver of
     * valueChanged() and inside a nested event loop of one.
     */
    ~SsdpManager() override;

    /**
     * Sets up the sockets: one for the group on port 1900, one for the search on the address given
     * (port 1900, else the first free one from 49152 to 65534), and the event server on any free
     * port of that address.
     *
     * A failure is logged. Without port 1900 or the group, the search leaves from a port that the
     * system chooses, and the event server is not started; one that listens already goes on.
     *
     * @warning Call stop() before calling this again. The event server then keeps its port, which the
     * log reports as a failure.
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
     * and has a colon after its first character: the text after the first colon, trimmed.
     *
     * The comparison is of the line's beginning, not of the whole name: "SID" also finds "SIDE: x".
     * @return a null string when there is no such line, an empty one when it has no value
     */
    QString getHeaderValue(const QString& message, const QString& header);

    /**
     * The HOST value of a subscription to @p url: the host, a colon, and one character whose code is
     * the low 8 bits of the port (80 when the URL names none). Port 80 gives "10.0.0.5:P".
     *
     * @note This form is required. It is not the decimal port.
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

    /// Fetches by HttpFetcher what QNetworkAccessManager::get() requests.
    class Q_DECL_HIDDEN NetworkManager : public QNetworkAccessManager
    {
    public:
        NetworkManager();
        ~NetworkManager() override;

        HttpFetcher* const fetcher;

    protected:
        QNetworkReply* createRequest(Operation operation, const QNetworkRequest& request,
                                     QIODevice* outgoingData) override;
    };

    QHostAddress localAddress; ///< Of the interface, the search and the event server.
    MulticastSocket* multicastSocket; ///< Listens to the group; null unless initialised.
    QUdpSocket* unicastSocket; ///< Searches, and gets the answers; null unless initialised.
    NetworkManager networkManager; ///< Fetches descriptions and service descriptions.
    QTcpServer eventServer; ///< Accepts the connections of events.
    QList<SsdpDevice*> devices; ///< In the order in which they were found. Owned.

    /// The device that each pending request is for, be it for its description or a service description.
    QHash<QNetworkReply*, SsdpDevice*> deviceReplies;
    /// The service that each pending request for a service description is for.
    QHash<QNetworkReply*, SsdpService*> serviceReplies;

    /// The connections of subscriptions *and*, from their first data on, those of events.
    QList<QTcpSocket*> requestSockets;
    /// The service of each connection in requestSockets: the one subscribed to, or the one that the
    /// path of the event names. Null if there is none, or none any more.
    QHash<QTcpSocket*, SsdpService*> requestSocketServices;

    /// The CONTENT-LENGTH of each event whose head has come.
    QHash<QTcpSocket*, int> responseContentLengths;
    /// The body of each event whose head has come, as far as it has come.
    QHash<QTcpSocket*, QString> responseBuffers;

    /// Counts the calls of clearDevices(). A record of an earlier discovery is recognised by it even if
    /// a new record has the same address.
    unsigned int generation;

    /// Finds records as a walk over devices would.
    RecordIndex* const index;

    Q_DECL_HIDDEN void readDatagram(QUdpSocket* socket);
    Q_DECL_HIDDEN QNetworkReply* requestDocument(const QString& url);
    Q_DECL_HIDDEN void readEventHead(QTcpSocket* socket);
    Q_DECL_HIDDEN void forgetResponseSocket(QTcpSocket* socket);
};

} // namespace SSDP
} // namespace Velmora

#endif

#ifndef VELMORA_SSDP_SSDPMANAGER_H
#define VELMORA_SSDP_SSDPMANAGER_H

// Hosts connect by the text of a signature. In this text, the records have no namespace.
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
 * It searches for root devices and fetches their descriptions. For every key-object service, it fetches
 * the service description and subscribes to the events. It emits valueChanged() for each state variable
 * in an event.
 *
 * Most hosts use Ssdp, which runs one control point per local address. A host may also use a control
 * point directly:
 *
 * @code
 * SsdpManager manager(QHostAddress("192.168.1.10"));
 * connect(&manager, SIGNAL(valueChanged(const SsdpDevice*,const SsdpService*,QString)), ...);
 * manager.initialize();
 * manager.discover();
 * @endcode
 *
 * All work happens in the event loop of the thread that owns the object. Searches are not repeated,
 * subscriptions are not renewed, and records do not expire. Failures are only written to the log.
 * Malformed input from the network is dropped.
 *
 * @note No proxy is used, even if the host or the environment sets one.
 *
 * @note The control point itself starts no thread. But if the location of a device has a host name
 * instead of an address, Qt starts a thread to look it up. With Qt 5.15, the constructor of
 * QNetworkAccessManager starts two threads.
 *
 * @note The control point keeps 64 file descriptors free for the rest of the process, or a sixteenth of
 * the limit (RLIMIT_NOFILE) if the limit is below 1,024. When no other descriptor is free, requests and
 * subscriptions fail, connections for events are closed, and one log line per search reports it.
 *
 * @warning Use the object only in the thread that owns it.
 */
class Q_DECL_EXPORT SsdpManager : public QObject
{
    Q_OBJECT

public:
    /// The SSDP multicast group (UPnP Device Architecture 1.1, clause 1).
    static const QHostAddress MULTICAST_GROUP_ADDRESS;
    /// The beginning of the XML namespace of a device description (clause 2.3).
    static const QString DEVICE_FILTER;
    /// The beginning of the XML namespace of a service description (clause 2.5).
    static const QString SERVICE_FILTER;
    /// The beginning of the maker's device types.
    static const QString VELMORA_DEVICE_FILTER;
    /// The type of the maker's key-object service.
    static const QString VELMORA_SERVICE_FILTER;

    /**
     * Constructs a control point for @p address, which must be an IPv4 address of this host. The control
     * point searches from this address, joins the group on the interface of this address, and receives
     * events at this address. No socket is opened yet.
     */
    explicit SsdpManager(const QHostAddress& address, QObject* parent = nullptr);

    /**
     * Closes every socket, aborts every request and deletes every record. Safe at any time, even in a
     * receiver of valueChanged(), and in a nested event loop of such a receiver.
     */
    ~SsdpManager() override;

    /**
     * Sets up three sockets:
     * - one for the group, on port 1900;
     * - one for the search, on the local address. Its port is 1900 if that is free, else the first free
     *   port from 49152 to 65534;
     * - one for the event server, on the local address. The system chooses a free port.
     *
     * @note Failures are only logged. If port 1900 or the group is not available, the system chooses the
     * port of the search, and the event server is not started. An event server that is already listening
     * continues.
     *
     * @note From the second call on, the event server keeps its port. The log reports this as a failure.
     *
     * @warning Call stop() before you call this again. Otherwise, the previous UDP sockets stay open until
     * the object is destroyed.
     */
    void initialize();

    /**
     * Sends one search for root devices (M-SEARCH, clause 1.3.2) as one datagram. Before initialize() and
     * after stop(), it does nothing.
     */
    void discover();

    /**
     * Closes the two UDP sockets, so no new device is added. If they are closed, it does nothing.
     *
     * @note Requests, subscriptions and events in progress continue. The event server keeps listening. So
     * valueChanged() may be emitted after this call.
     */
    void stop();

    /**
     * Forgets every device: deletes the records and aborts the requests for descriptions.
     *
     * @note Subscriptions and events in progress are ignored from then on. They change no record that is
     * created later.
     *
     * @warning Pointers to records are invalid after this call.
     */
    void clearDevices();

    /**
     * Returns the device that lists @p service, or null. Only the pointer is compared, so @p service may
     * be null or point to a deleted record.
     *
     * @warning The pointer is valid until clearDevices() is called or the object is destroyed.
     */
    SsdpDevice* getDeviceForService(const SsdpService* service) const;

    /**
     * Returns the search request. Every line ends with a single line feed. The target (ST) is
     * upnp:rootdevice. MX is 3, so devices must answer within three seconds.
     */
    QString createSearchMessage();

    /// Returns the name and release of the kernel, such as "Linux/6.1.0". If they are not known, returns
    /// "Undefined/-1".
    static QString getSystemInfo();

    /**
     * Returns the value of a header field: the text after the first colon of its line, trimmed.
     *
     * This line is the first line of @p message that begins with @p header, in upper or lower case, and
     * has a colon. A line that begins with the colon is skipped.
     *
     * @note Only the beginning of the line is compared, not the whole name: "SID" also finds "SIDE: x".
     *
     * @return a null string if there is no such line; an empty string if the line has no value
     */
    QString getHeaderValue(const QString& message, const QString& header);

    /**
     * Returns the HOST value of a subscription to @p url: the host, a colon, and one character. The code
     * of the character is the low 8 bits of the port. If the URL has no port, the port is 80. Port 80
     * gives "10.0.0.5:P".
     *
     * @note Devices in the field expect this form, not the decimal port.
     */
    QString getHost(const QString& url) const;

    /// Returns @p path with a leading "/". If @p path begins with one, returns it unchanged.
    QString getSubLocation(const QString& path) const;

    /**
     * Returns the URL of @p path on the server of @p location. For example, "http://h:1/a/b.xml" and
     * "c.xml" give "http://h:1/c.xml".
     *
     * @note @p path is not resolved like a relative URL. Even an absolute URL is appended to the server.
     *
     * @note @p location must begin with "http://" in lower case. Otherwise the result is not a usable URL.
     */
    QString getFullLocation(const QString& location, const QString& path) const;

    /**
     * Returns the subscription request for @p service (SUBSCRIBE, clause 4.1.2). Every line ends with a
     * single line feed. The CALLBACK contains the address and port of the event server and
     * SsdpService::id.
     *
     * @note Call initialize() first. Without it, the event server has no address and no port.
     *
     * @return an empty string if no device lists @p service
     */
    QString createSubscribeMessage(SsdpService* service);

Q_SIGNALS:
    /**
     * An event has set the state variable @p valueName of @p service, which belongs to @p device. The new
     * value is in SsdpService::stateVariables.
     *
     * Emitted once for each property of every event, in document order. If a property has no element,
     * @p valueName is empty.
     *
     * @note The signal is also emitted if the value has not changed, and if the service description does
     * not list the variable. It may be emitted after stop().
     *
     * @warning The pointers are valid until clearDevices() is called or the object is destroyed.
     *
     * @warning If a receiver calls clearDevices(), receivers that run after it get invalid pointers. The
     * remaining properties of the event are dropped.
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

    /// Passes every GET to HttpFetcher.
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

    QHostAddress localAddress; ///< The address of the interface, the search and the event server.
    MulticastSocket* multicastSocket; ///< Receives announcements. Null while stopped.
    QUdpSocket* unicastSocket; ///< Sends the search and receives the answers. Null while stopped.
    NetworkManager networkManager; ///< Fetches descriptions and service descriptions.
    QTcpServer eventServer; ///< Accepts the connections of events.
    QList<SsdpDevice*> devices; ///< In the order in which they were found. Owned.

    /// The device of each pending request for a description or a service description.
    QHash<QNetworkReply*, SsdpDevice*> deviceReplies;
    /// The service of each pending request for a service description.
    QHash<QNetworkReply*, SsdpService*> serviceReplies;

    /// The connections of subscriptions, and the connections of events after their first data.
    QList<QTcpSocket*> requestSockets;
    /// For each connection in requestSockets: the service of the subscription, or the service whose identifier
    /// is in the path of the event. Null if there is no such service, or if its record was deleted.
    QHash<QTcpSocket*, SsdpService*> requestSocketServices;

    /// The CONTENT-LENGTH of each event whose head was received.
    QHash<QTcpSocket*, int> responseContentLengths;
    /// The received part of the body of each event whose head was received.
    QHash<QTcpSocket*, QString> responseBuffers;

    /// Counts the calls of clearDevices(). If it has changed during a signal, the records were deleted. A
    /// pointer does not show this, because a new record may have the address of a deleted one.
    unsigned int generation;

    /// Finds the same records as a search through devices.
    RecordIndex* const index;

    Q_DECL_HIDDEN void readDatagram(QUdpSocket* socket);
    Q_DECL_HIDDEN QNetworkReply* requestDocument(const QString& url);
    Q_DECL_HIDDEN void readEventHead(QTcpSocket* socket);
    Q_DECL_HIDDEN void forgetResponseSocket(QTcpSocket* socket);
};

} // namespace SSDP
} // namespace Velmora

#endif

#ifndef VELMORA_SIMULATOR_SIMULATEDDEVICE_H
#define VELMORA_SIMULATOR_SIMULATEDDEVICE_H

#include <simulator/SsdpGroup.h>

#include <QtCore/QByteArray>
#include <QtCore/QDeadlineTimer>
#include <QtCore/QHash>
#include <QtCore/QList>
#include <QtCore/QMap>
#include <QtCore/QObject>
#include <QtCore/QRandomGenerator>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QTimer>
#include <QtNetwork/QHostAddress>
#include <QtNetwork/QTcpServer>

#include <array>
#include <bitset>
#include <functional>

class QTcpSocket;

namespace Velmora {
namespace Simulator {

/// A mistake that a simulated device can make.
struct Fault
{
    /// In the order in which a control point notices them.
    enum Id {
        IgnoreSearch,
        DuplicateResponses,
        AnnounceOnly,
        CrlfSearchOnly,
        UnicastSearchOnly,
        SlowAnswer,
        NoLocation,
        LocationGarbage,
        LocationOtherHost,
        SilentHttp,
        SlowHttp,
        ResetMidBody,
        WrongLength,
        TruncatedXml,
        DeepXml,
        HtmlInstead,
        Redirect,
        Error500,
        Namespace,
        RootElement,
        DescriptionPrefix,
        NoService,
        ServiceType,
        EmbeddedService,
        ScpdUrl,
        EventUrl,
        NoVariable,
        RefuseSubscribe,
        StandardSubscribeOnly,
        NeverAnswerSubscribe,
        NoSid,
        LateSid,
        NoEvent,
        EventOneChunk,
        EventManyChunks,
        EventUnknownPath,
        EventBadXml,
        EventNoLength,
        EventLength,
        EventPrefix,
        EventNoKo,
        KoMalformed,
        DieAfter,
        Count ///< The number of faults.
    };

    Id id;
    const char* name; ///< The name on the command line.
    const char* value; ///< The meaning of the value. Null if the fault has no value.
    /// The default value. If it is a number and "value" is not "TEXT", only numbers are valid.
    const char* standard;
    const char* explanation;

    /// Returns NAME or NAME=VALUE.
    static QString text(Id id, const char* value = nullptr);
};

/// The settings of a simulated device. All times are in milliseconds.
struct DeviceOptions
{
    QHostAddress address;
    quint16 port = 49152; ///< The port of the HTTP server.
    int functionCode = 1;
    int univocalCode = 1;
    QStringList variables = QStringList(QStringLiteral("KO")); ///< Of the key-object service, in order.
    int services = 1; ///< The number of services. The last one is the key-object service.
    int eventGap = 50; ///< The pause between head and body of an event. With 0, both are sent in one write.
    bool eventTail = false; ///< Whether CONTENT-LENGTH includes a CR LF that is sent one more gap after the body.
    int responseDelayMin = 0; ///< The minimum delay of an answer to a search.
    int responseDelayMax = -1; ///< The maximum delay. If it is negative, the MX of the search is the maximum.
    int announceEvery = 0; ///< The interval of announcements. 0: only at the start.
    int eventEvery = 0; ///< The interval of events. 0: only the initial event.
    quint32 seed = 1; ///< The seed of the random delays.
    QMap<Fault::Id, QString> faults; ///< The values of the faults; see addFault().

    /// Adds a fault. If @p value is null, the fault gets its default value. If the value is not valid, returns a
    /// message; otherwise an empty string.
    QString addFault(Fault::Id fault, const QString& value = QString());

    /// Does the same. @p text is NAME or NAME=VALUE.
    QString addFault(const QString& text);
};

/**
 * A device of the maker, as a control point sees it.
 *
 * It announces itself and answers searches. It serves its description, and one service description for each
 * service. It accepts subscriptions in the form of libSsdp (lines that end with a line feed alone, a port of one
 * character in HOST, "%4" in the CALLBACK) and in the standard form. It sends the initial event to each
 * subscriber: first the head, and after a pause the body. libSsdp drops a body that comes with the head.
 *
 * @code
 * PrivateNetwork network;
 * network.addLink("10.77.0.1/16", "10.77.1.1/16", 1);
 * QCoreApplication application(argc, argv);
 * std::unique_ptr<SsdpGroup> group;
 * {
 *     PrivateNetwork::Scope scope(network, PrivateNetwork::DeviceSide);
 *     group.reset(new SsdpGroup);
 * }
 * DeviceOptions options;
 * options.address = QHostAddress(QStringLiteral("10.77.1.1"));
 * SimulatedDevice device(group.get(), options);
 * device.start();
 * @endcode
 *
 * Its sockets belong to the network namespace of its group. All work happens in the event loop.
 */
class SimulatedDevice : public QObject
{
    Q_OBJECT

public:
    /// The progress of a control point with the device. stageName() returns the names that die-after accepts.
    enum Stage {
        Searched, ///< A search was answered.
        Described, ///< The device description was sent.
        ServiceDescribed, ///< A service description was sent.
        Subscribed, ///< A subscription was accepted.
        EventBegun, ///< The head of an event was sent.
        EventSent ///< A whole event was sent.
    };
    Q_ENUM(Stage)
    static const int STAGES = EventSent + 1;

    static QString stageName(Stage stage);

    /// Returns all faults, in the order of the enumeration.
    static const std::array<Fault, Fault::Count>& faults();

    /// Constructs a device that is not running. @p group must exist longer than the device.
    SimulatedDevice(SsdpGroup* group, const DeviceOptions& options, QObject* parent = nullptr);

    /// Closes every connection. Sends no ssdp:byebye.
    ~SimulatedDevice() override;

    /// Starts the device, which announces itself. Returns whether it succeeded.
    bool start();

    /// Returns why start() failed.
    QString errorString() const;

    const DeviceOptions& options() const;

    /// Returns the URL of its description.
    QString location() const;

    /// Returns the path of the description of service @p number. The first service has the number 1.
    static QString servicePath(int number);

    /// Sends ssdp:alive for the root device, the device, its type and the key-object service.
    void announce();

    /// Sends ssdp:byebye for the same targets. The device continues to run.
    void sayGoodbye();

    /// Sends the current values to every subscriber.
    void sendEvents();

    /// Sends the next part of every message that is sent in parts, if the kernel has taken the previous part.
    void endGaps();

    /// Changes the value of a variable. The next event contains it.
    void setVariable(const QString& name, const QString& value);

    /// Returns the number of subscriptions that have not expired.
    int subscriptions() const;

    /// Returns how often a stage was reached.
    int count(Stage stage) const;

    /// Returns whether a fault of the device has had an effect.
    bool hasShown(Fault::Id fault) const;

Q_SIGNALS:
    /// A stage was reached. Emitted for every search, request, subscription and event.
    void reached(Velmora::Simulator::SimulatedDevice::Stage stage);

    /// A message was received from @p peer or sent to it, such as "10.0.0.1:1900". If a message is sent in parts,
    /// the signal is emitted for each part.
    void message(bool sent, const QString& peer, const QByteArray& text);

private:
    Q_DISABLE_COPY(SimulatedDevice)

    struct Subscription
    {
        QByteArray callback;
        QDeadlineTimer expiry;
        quint32 events = 0;
    };

    struct Response
    {
        QByteArray status;
        QList<QByteArray> headers;
        QByteArray body;
        qint64 announced; ///< The value of CONTENT-LENGTH.
    };

    bool has(Fault::Id fault) const;
    QString valueOf(Fault::Id fault) const;
    void reach(Stage stage);
    void die();
    QList<QTcpSocket*> connections() const;

    void onSearched(const Search& search);
    QList<QByteArray> notificationTypes() const;
    QByteArray uniqueServiceName(const QByteArray& type) const;
    void answerSearch(const Search& search, const QByteArray& type);
    void notifyGroup(bool alive);

    void onNewConnection();
    void onRequestReadyRead(QTcpSocket* socket);
    void answerRequest(QTcpSocket* socket, const QByteArray& head);
    void answerGet(QTcpSocket* socket, const QByteArray& head, const QByteArray& path);
    void answerSubscribe(QTcpSocket* socket, const QByteArray& head);
    void answerUnsubscribe(QTcpSocket* socket, const QByteArray& head);
    void respond(QTcpSocket* socket, const QByteArray& head, const Response& response,
                 const std::function<void()>& sent = nullptr);
    QByteArray spoilt(QByteArray document, const QByteArray& root, const QByteArray& xmlns) const;
    QByteArray description() const;
    QByteArray serviceDescription(int number) const;

    void sendEvent(const QByteArray& sid);
    QList<QByteArray> eventChunks(const QByteArray& sid, const QByteArray& host, QByteArray path) const;

    void write(QTcpSocket* socket, const QByteArray& text);
    void writeChunks(QTcpSocket* socket, const QList<QByteArray>& chunks, int gap,
                     const std::function<void()>& finished);
    void reset(QTcpSocket* socket);

    SsdpGroup* group;
    DeviceOptions settings;
    QByteArray uuid;
    QTcpServer server;
    QTimer announceTimer;
    QTimer eventTimer;
    QRandomGenerator random;
    QHash<QTcpSocket*, QByteArray> requests;
    QMap<QByteArray, Subscription> subscribers;
    QHash<QString, QString> values;
    quint32 lastSid;
    int counts[STAGES];
    mutable std::bitset<Fault::Count> shown;
    bool alive;
};

} // namespace Simulator
} // namespace Velmora

#endif

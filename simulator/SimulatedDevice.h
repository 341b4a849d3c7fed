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

/// A thing that a simulated device can do wrong.
struct Fault
{
    /// In the order in which a control point meets them.
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
        Count ///< How many there are.
    };

    Id id;
    const char* name; ///< As the programs take it.
    const char* value; ///< What its value means; null for a fault that takes none.
    const char* standard; ///< The value when none is given: a number if it has to be one, unless "value" is TEXT.
    const char* explanation;

    /// NAME or NAME=VALUE.
    static QString text(Id id, const char* value = nullptr);
};

/// How a simulated device is set up. All times are in milliseconds.
struct DeviceOptions
{
    QHostAddress address;
    quint16 port = 49152; ///< Of its HTTP server.
    int functionCode = 1;
    int univocalCode = 1;
    QStringList variables = QStringList(QStringLiteral("KO")); ///< Of the key-object service, in order.
    int services = 1; ///< How many it lists; the last one is the key-object service.
    int eventGap = 50; ///< Between head and body of an event; 0 sends both in one write.
    bool eventTail = false; ///< Whether CONTENT-LENGTH counts a CRLF sent one more gap after the body.
    int responseDelayMin = 0; ///< A search is answered within these bounds,
    int responseDelayMax = -1; ///< below 0: within the MX of the search.
    int announceEvery = 0; ///< 0 announces at the start only.
    int eventEvery = 0; ///< 0 sends the initial event only.
    quint32 seed = 1; ///< Of the response delays.
    QMap<Fault::Id, QString> faults; ///< What it does wrong, as addFault() sets it.

    /// Adds a fault; a null @p value is the standard one. Returns what is wrong with it, or an empty text.
    QString addFault(Fault::Id fault, const QString& value = QString());

    /// The same for a fault given as NAME or NAME=VALUE.
    QString addFault(const QString& text);
};

/**
 * A device of the maker as a control point sees it from the network.
 *
 * It announces itself, answers searches, serves its description and one service description per
 * service over HTTP, takes subscriptions both as libSsdp writes them (line feeds only, a HOST port of
 * one character, "%4" in the CALLBACK) and as other control points do, and sends each subscriber the
 * initial event: the head, after a pause the body, since libSsdp drops a body that comes with the head.
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
 * Its sockets belong to the network of its group. Everything happens in the event loop.
 */
class SimulatedDevice : public QObject
{
    Q_OBJECT

public:
    /// How far a control point has got with the device; the names in stageName() are those of die-after.
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

    /// Every fault that there is, each at its place in the enumeration.
    static const std::array<Fault, Fault::Count>& faults();

    /// Makes a device that is off. The @p group must outlive it.
    SimulatedDevice(SsdpGroup* group, const DeviceOptions& options, QObject* parent = nullptr);

    /// Closes every connection, without a byebye.
    ~SimulatedDevice() override;

    /// Listens and announces itself. Returns whether it could.
    bool start();

    /// Why start() failed.
    QString errorString() const;

    const DeviceOptions& options() const;

    /// The URL of its description.
    QString location() const;

    /// The path of the description of service @p number, counted from 1.
    static QString servicePath(int number);

    /// Sends ssdp:alive for the root device, the device, its type and the key-object service.
    void announce();

    /// Sends ssdp:byebye for the same. The device stays on.
    void sayGoodbye();

    /// Sends the current values to every subscriber.
    void sendEvents();

    /// Sends the next part of every message that is sent in parts, if the kernel has the one before.
    void endGaps();

    /// Changes the value of one of the variables; the next event carries it.
    void setVariable(const QString& name, const QString& value);

    /// How many subscriptions have not run out.
    int subscriptions() const;

    /// How often a stage was reached.
    int count(Stage stage) const;

    /// Whether a fault that the device has took part in what it did.
    bool hasShown(Fault::Id fault) const;

Q_SIGNALS:
    /// A stage was reached, again at every search, request, subscription and event.
    void reached(Velmora::Simulator::SimulatedDevice::Stage stage);

    /// A message, or the part of one that goes in one write, has come from or was sent to @p peer
    /// ("10.0.0.1:1900").
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
        qint64 announced; ///< What CONTENT-LENGTH says.
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

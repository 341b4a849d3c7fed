#ifndef VELMORA_DOCTOR_OBSERVATION_H
#define VELMORA_DOCTOR_OBSERVATION_H

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QUuid>
#include <QtNetwork/QHostAddress>

namespace Velmora {
namespace Doctor {

// What was seen of a device, stage by stage. All times are in milliseconds; -1 where a thing did not happen.

/// The device and the searches. Times are since the start of the run, delays since the search.
struct SearchSeen
{
    int answerDelay = -1; ///< To the library's search.
    int answers = 0; ///< To the library's search, from one device to one local address.
    int standardDelay = -1; ///< To the search whose lines end with CR LF.
    int unicastDelay = -1; ///< To the search that was sent to its address alone.
    int announced = -1; ///< When it first announced itself.
    int heard = -1; ///< When the library first heard of it.
    QByteArray message; ///< The first of its messages.
};

/// How a request ended.
enum class Ending {
    NotTried,
    NoConnection, ///< Nothing came back from the address.
    Refused,
    Silent, ///< Connected, but no byte came.
    Closed, ///< The peer closed the connection before the first byte.
    Reset,
    Unfinished, ///< Not complete when the time was over.
    Malformed, ///< No HTTP.
    OutOfBounds,
    Short, ///< The peer closed the connection before the announced length.
    Complete
};

/// One GET of a document.
struct DocumentSeen
{
    QString url;
    Ending ending = Ending::NotTried;
    int status = 0;
    QByteArray reason;
    QByteArray redirect; ///< Where to.
    QByteArray body;
    qint64 announced = -1; ///< The length that the reply announces.
    qint64 excess = 0; ///< How many bytes came after the reply.
    int duration = 0; ///< From the request to the end.
    int transfer = 0; ///< From the first byte to the end.
};

struct SubscriptionSeen
{
    Ending ending = Ending::NotTried;
    bool isStandard = false; ///< With CR LF and a decimal port, since the library's was not taken.
    int status = 0;
    QByteArray reason;
    bool hasSid = false;
    bool hasLateSid = false; ///< Not in the first segment, so the library does not see it.
    int duration = 0;
};

/// What came on one connection to the event server.
struct EventSeen
{
    struct Segment
    {
        int time; ///< Since the connection.
        QByteArray bytes;
    };
    QList<Segment> segments; ///< As they were read.
    bool isForSubscription = false; ///< Whether the path names the subscription.
    bool isClosed = false; ///< By the device.
    bool isUncertain = false; ///< This process was late to read, so the segments may be fewer than sent.
    int after = -1; ///< From the subscription to the end of the event.
};

/// A key-object service of the device.
struct ServiceSeen
{
    QString scpdUrl; ///< As the description says.
    QString eventUrl;
    DocumentSeen description;
    int libraryStatus = -1; ///< As in DeviceSeen, when this was examined.
    SubscriptionSeen subscription;
    QList<EventSeen> events;
};

struct DeviceSeen
{
    QString location; ///< Empty if it gave none.
    QHostAddress sender; ///< Of its message.
    QHostAddress local; ///< The address of this host that got it.
    bool isNamed = false; ///< On the command line.
    int found = -1; ///< When the library reported it.
    int functionCode = 0;
    int univocalCode = 0;
    SearchSeen search;
    int libraryStatus = -1; ///< Of the answer to the library's subscription; 0: there was none.
    bool isExamined = false; ///< The requests that follow were made.
    DocumentSeen description;
    QList<ServiceSeen> services;
};

} // namespace Doctor
} // namespace Velmora

#endif

#ifndef VELMORA_DOCTOR_OBSERVATION_H
#define VELMORA_DOCTOR_OBSERVATION_H

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QUuid>
#include <QtNetwork/QHostAddress>

namespace Velmora {
namespace Doctor {

// What was seen of a device, in the order of the stages. All times are in milliseconds. -1 means that it did not
// happen.

/// The answers and announcements of a device. Times count from the start of the run, delays from the search.
struct SearchSeen
{
    int answerDelay = -1; ///< The delay of the answer to the library's search.
    int answers = 0; ///< The number of answers to the library's search, to one local address.
    int standardDelay = -1; ///< The delay of the answer to the search whose lines end with CR LF.
    int unicastDelay = -1; ///< The delay of the answer to the search that was sent only to its address.
    int announced = -1; ///< When it first announced itself.
    int heard = -1; ///< When the library received its first message.
    QByteArray message; ///< The first of its messages.
};

/// How a request ended.
enum class Ending {
    NotTried,
    NoConnection, ///< Nothing came back from the address.
    Refused,
    Silent, ///< The connection was open, but no byte came.
    Closed, ///< The peer closed the connection before the first byte.
    Reset,
    Unfinished, ///< The reply was not complete when the time was over.
    Malformed, ///< The reply is not HTTP.
    OutOfBounds, ///< The reply exceeds a bound.
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
    QByteArray redirect; ///< The new URL if the reply is a redirect.
    QByteArray body;
    qint64 announced = -1; ///< The length that the reply announces.
    qint64 excess = 0; ///< How many bytes came after the reply.
    int duration = 0; ///< From the request to the end.
    int transfer = 0; ///< From the first byte to the end.
};

struct SubscriptionSeen
{
    Ending ending = Ending::NotTried;
    bool isStandard = false; ///< Sent with CR LF and a decimal port, because the library's was refused.
    int status = 0;
    QByteArray reason;
    bool hasSid = false;
    bool hasLateSid = false; ///< The SID is not in the first segment, so the library does not read it.
    int duration = 0;
};

/// The bytes that came on one connection to the event server.
struct EventSeen
{
    struct Segment
    {
        int time; ///< The time since the connection was accepted.
        QByteArray bytes;
    };
    QList<Segment> segments; ///< One for each read.
    bool isForSubscription = false; ///< Whether the path contains the identifier of the subscription.
    bool isClosed = false; ///< Whether the device closed the connection.
    bool isUncertain = false; ///< This process read late. So two sent segments may be one here.
    int after = -1; ///< The time from the subscription to the end of the event.
};

/// A key-object service of the device.
struct ServiceSeen
{
    QString scpdUrl; ///< The text in the description.
    QString eventUrl;
    DocumentSeen description;
    int libraryStatus = -1; ///< DeviceSeen::libraryStatus at the time of the examination.
    SubscriptionSeen subscription;
    QList<EventSeen> events;
};

struct DeviceSeen
{
    QString location; ///< Empty if its message has none.
    QHostAddress sender; ///< The sender of its message.
    QHostAddress local; ///< The local address that received the message.
    bool isNamed = false; ///< Whether its address was given on the command line.
    int found = -1; ///< When the library reported it.
    int functionCode = 0;
    int univocalCode = 0;
    SearchSeen search;
    int libraryStatus = -1; ///< The status of the answer to the library's subscription. 0 before an answer.
    bool isExamined = false; ///< Whether the device was examined. Only then the next members are set.
    DocumentSeen description;
    QList<ServiceSeen> services;
};

} // namespace Doctor
} // namespace Velmora

#endif

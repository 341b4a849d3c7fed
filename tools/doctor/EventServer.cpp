#include <tools/doctor/EventServer.h>

#include <tools/doctor/Diagnosis.h>

#include <ssdp/Latin1Text.h>
#include <ssdp/Protocol.h>

#include <QtNetwork/QNetworkProxy>

#include <unistd.h>

namespace Velmora {
namespace Doctor {

namespace {

const int BEAT = 2;
const int TOLERANCE = 4;
// How long to wait for bytes after the announced length, in milliseconds.
const int LINGER = 150;

const int MAX_CONNECTIONS = 256;
const int MAX_EVENT = 1024 * 1024;
const int MAX_SEGMENTS = 1000;

} // namespace

EventServer::EventServer(Trace* trace, QObject* parent)
    : QTcpServer(parent)
    , trace(trace)
{
    setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
    beat.setTimerType(Qt::PreciseTimer);
    beat.setInterval(BEAT);
    connect(&beat, &QTimer::timeout, this, [this] {
        if (sinceBeat.restart() > BEAT + TOLERANCE)
            sinceStall.start();
    });
}

void EventServer::expect(const QUuid& identifier)
{
    expected.insert(identifier);
    if (!beat.isActive()) {
        sinceBeat.start();
        beat.start();
    }
}

void EventServer::forget(const QUuid& identifier)
{
    expected.remove(identifier);
    if (expected.isEmpty())
        beat.stop();
}

QList<EventSeen> EventServer::unfinished(const QUuid& identifier, const QHostAddress& device) const
{
    QList<EventSeen> result;
    for (auto it = arrivals.cbegin(); it != arrivals.cend(); ++it) {
        const bool isForAnother = it->identifier != identifier && expects(it->identifier);
        if (isForAnother || it.key()->peer() != device || it->event.segments.isEmpty())
            continue;
        EventSeen event = it->event;
        event.isForSubscription = it->identifier == identifier;
        result.append(event);
    }
    return result;
}

void EventServer::incomingConnection(qintptr descriptor)
{
    if (arrivals.size() >= MAX_CONNECTIONS) {
        ::close(static_cast<int>(descriptor));
        return;
    }
    auto* const connection = new Connection(static_cast<int>(descriptor), this);
    arrivals[connection].clock.start();
    connect(connection, &Connection::received, this,
            [this, connection](const QByteArray& bytes) { onReceived(connection, bytes); });
    connect(connection, &Connection::ended, this, [this, connection] {
        arrivals[connection].event.isClosed = true;
        finish(connection);
    });
}

void EventServer::onReceived(Connection* connection, const QByteArray& bytes)
{
    Q_EMIT trace->message(false, connection->peer(), connection->peerPort(), bytes);
    Arrival& arrival = arrivals[connection];
    QList<EventSeen::Segment>& segments = arrival.event.segments;
    const bool isLate = !beat.isActive() || sinceBeat.elapsed() > BEAT + TOLERANCE
        || (sinceStall.isValid() && sinceStall.elapsed() <= BEAT + TOLERANCE);
    arrival.event.isUncertain = arrival.event.isUncertain || isLate;
    if (segments.isEmpty()) {
        bool hasLength = false;
        arrival.announced = announcedLength(bytes, &hasLength);
        SSDP::Protocol::readEventIdentifier(SSDP::textUpToZero(bytes), &arrival.identifier);
    } else {
        arrival.bodySize += bytes.size();
    }
    if (segments.size() < MAX_SEGMENTS)
        segments.append({static_cast<int>(arrival.clock.elapsed()), bytes});
    else
        segments.last().bytes += bytes;

    if (arrival.bodySize > MAX_EVENT) {
        finish(connection);
    } else if (segments.size() > 1 && isWholeBody(arrival.bodySize, arrival.announced) && !arrival.linger) {
        arrival.linger = new QTimer(connection);
        connect(arrival.linger, &QTimer::timeout, this, [this, connection] { finish(connection); });
        arrival.linger->start(LINGER);
    }
}

void EventServer::finish(Connection* connection)
{
    const Arrival arrival = arrivals.take(connection);
    connection->disconnect(this);
    connection->deleteLater();
    if (!arrival.event.segments.isEmpty())
        Q_EMIT arrived(arrival.identifier, connection->peer(), arrival.event,
                       static_cast<int>(arrival.clock.elapsed()) - arrival.event.segments.constLast().time);
}

} // namespace Doctor
} // namespace Velmora

#include "moc_EventServer.cpp"

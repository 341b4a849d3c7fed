#include <tools/doctor/Request.h>

#include <cerrno>

namespace Velmora {
namespace Doctor {

namespace {

const int REPLY_LINGER = 100;
const int LONGEST_BEGINNING = 64 * 1024;

} // namespace

Request::Request(const QHostAddress& address, quint16 port, const QByteArray& message, Kind kind, int milliseconds,
                 qint64* memory, Trace* trace, QObject* parent)
    : QObject(parent)
    , kind(kind)
    , message(message)
    , memory(memory)
    , trace(trace)
    , connection(Connection::open(address, port, this))
    , excess(0)
    , firstAfter(-1)
    , lastAfter(-1)
    , total(0)
    , isConnected(false)
    , isFinished(false)
    , end(Ending::NotTried)
{
    connect(connection, &Connection::connected, this, [this] {
        isConnected = true;
        connection->send(this->message);
        Q_EMIT this->trace->message(true, connection->peer(), connection->peerPort(), this->message);
    });
    connect(connection, &Connection::received, this, &Request::onReceived);
    connect(connection, &Connection::ended, this, &Request::onEnded);
    connect(&patience, &QTimer::timeout, this, [this] {
        finish(!isConnected ? Ending::NoConnection : firstAfter != -1 ? Ending::Unfinished : Ending::Silent);
    });
    connect(&linger, &QTimer::timeout, this, [this] { finish(Ending::Complete); });
    patience.setSingleShot(true);
    linger.setSingleShot(true);
    patience.start(milliseconds);
    clock.start();
}

void Request::onReceived(const QByteArray& bytes)
{
    Q_EMIT trace->message(false, connection->peer(), connection->peerPort(), bytes);
    if (firstAfter == -1) {
        firstAfter = static_cast<int>(clock.elapsed());
        first = bytes;
    }
    if (begin.size() < LONGEST_BEGINNING)
        begin += bytes.left(LONGEST_BEGINNING - static_cast<int>(begin.size()));
    if (reader.isReading())
        lastAfter = static_cast<int>(clock.elapsed());

    const qint64 before = reader.body.size();
    const qint64 used = reader.read(bytes.constData(), bytes.size());
    excess += bytes.size() - used;
    *memory -= reader.body.size() - before;
    if (*memory < 0)
        reader.exceed();

    switch (reader.state()) {
    case SSDP::HttpReader::ReadingHead:
        break;
    case SSDP::HttpReader::ReadingBody:
        if (kind == HeadOnly)
            finish(Ending::Complete);
        break;
    case SSDP::HttpReader::Finished:
        if (kind == HeadOnly)
            finish(Ending::Complete);
        else if (!linger.isActive())
            linger.start(REPLY_LINGER);
        break;
    case SSDP::HttpReader::Malformed:
        finish(Ending::Malformed);
        break;
    case SSDP::HttpReader::OutOfBounds:
        finish(Ending::OutOfBounds);
        break;
    }
}

void Request::onEnded(int error)
{
    if (!isConnected)
        finish(error == ECONNREFUSED     ? Ending::Refused
                   : error == ECONNRESET ? Ending::Closed
                                         : Ending::NoConnection);
    else if (reader.close())
        finish(Ending::Complete);
    else if (firstAfter == -1)
        finish(Ending::Closed);
    else
        finish(error != 0 ? Ending::Reset : Ending::Short);
}

void Request::finish(Ending how)
{
    if (isFinished)
        return;
    isFinished = true;
    total = lastAfter >= 0 && how == Ending::Complete ? lastAfter : static_cast<int>(clock.elapsed());
    end = how;
    patience.stop();
    linger.stop();
    // The connection may be emitting a signal, so it must not be deleted here.
    connection->disconnect(this);
    connection->deleteLater();
    Q_EMIT finished();
}

DocumentSeen Request::document(const QString& url)
{
    DocumentSeen result;
    result.url = url;
    result.ending = end;
    result.status = reader.statusCode();
    result.reason = reader.reason();
    result.redirect = reader.location();
    result.body.resize(static_cast<int>(reader.body.size()));
    reader.body.take(result.body.data(), result.body.size());
    result.announced = reader.announcedLength();
    result.excess = excess;
    result.duration = total;
    result.transfer = firstAfter == -1 ? 0 : total - firstAfter;
    return result;
}

} // namespace Doctor
} // namespace Velmora

#include "moc_Request.cpp"

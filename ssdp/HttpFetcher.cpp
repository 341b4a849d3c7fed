#include <ssdp/HttpFetcher.h>

#include <ssdp/Protocol.h>

#include <QtCore/QScopedValueRollback>
#include <QtCore/QUrl>
#include <QtNetwork/QNetworkProxy>
#include <QtNetwork/QNetworkRequest>

namespace Velmora {
namespace SSDP {

namespace {

const int MAX_CONNECTIONS = 6;
const int MAX_ATTEMPTS = 4;
const qint64 READ_BUFFER_SIZE = Q_INT64_C(64) * 1024;
const qint64 UNCOUNTED_BYTES = Q_INT64_C(1024) * 1024;
const qint64 MAX_COUNTED_BYTES = Q_INT64_C(64) * 1024 * 1024;

bool isFetchable(const QUrl& url)
{
    // QUrl of Qt 4.8 does not convert the scheme to lower case. QUrl of Qt 5.15 and 6.4 does.
    return url.isValid() && url.scheme().compare(QLatin1String("http"), Qt::CaseInsensitive) == 0
        && !url.host().isEmpty();
}

quint16 portOf(const QUrl& url)
{
    return static_cast<quint16>(url.port(Protocol::HTTP_PORT));
}

} // namespace

// The fetcher

HttpFetcher::HttpFetcher()
    : lastNumber(0)
    , countedBytes(new qint64(0))
{
}

HttpFetcher::~HttpFetcher()
{
    dropAll();
}

void HttpFetcher::dropAll()
{
    while (!servers.isEmpty()) {
        const Server server = servers.take(servers.firstKey());
        for (HttpReply* const reply : server.waiting)
            reply->fetcher = nullptr;
        for (HttpConnection* const connection : server.connections) {
            if (HttpReply* const reply = connection->takeReply())
                reply->fetcher = nullptr;
            connection->release();
        }
    }
}

QNetworkReply* HttpFetcher::get(const QNetworkRequest& request)
{
    HttpReply* const reply = new HttpReply(request, this);
    reply->number = ++lastNumber;
    const QUrl url = request.url();
    if (isFetchable(url)) {
        reply->server = url.host().toUtf8() + ':' + QByteArray::number(portOf(url));
        enqueue(reply);
    } else {
        reply->fail(QNetworkReply::ProtocolUnknownError, QString(QLatin1String("Not an http URL")));
    }
    return reply;
}

void HttpFetcher::enqueue(HttpReply* reply)
{
    servers[reply->server].waiting.insert(reply->number, reply);
    startWaiting(reply->server);
}

void HttpFetcher::startWaiting(const QByteArray& key)
{
    Server& server = servers[key];
    while (!server.waiting.isEmpty()) {
        HttpConnection* connection = nullptr;
        for (HttpConnection* const candidate : server.connections) {
            if (!candidate->reply)
                connection = candidate;
        }
        if (!connection) {
            if (server.connections.size() == MAX_CONNECTIONS)
                return;
            connection = new HttpConnection(this, key);
            server.connections.append(connection);
        }
        connection->startRequest(server.waiting.take(server.waiting.firstKey()));
    }
    if (server.connections.isEmpty())
        servers.remove(key);
}

void HttpFetcher::dequeue(HttpReply* reply)
{
    if (HttpConnection* const connection = reply->connection) {
        connection->takeReply();
        close(connection);
    } else {
        servers[reply->server].waiting.remove(reply->number);
        startWaiting(reply->server);
    }
}

void HttpFetcher::close(HttpConnection* connection)
{
    const QByteArray key = connection->server;
    servers[key].connections.removeOne(connection);
    connection->release();
    startWaiting(key);
}

// The reply

HttpReply::HttpReply(const QNetworkRequest& request, HttpFetcher* fetcher)
    : fetcher(fetcher)
    , connection(nullptr)
    , number(0)
    , attempts(0)
    , countedBytes(fetcher->countedBytes)
    , ownCountedBytes(0)
{
    setRequest(request);
    setUrl(request.url());
    setOperation(QNetworkAccessManager::GetOperation);
    open(QIODevice::ReadOnly | QIODevice::Unbuffered);
}

HttpReply::~HttpReply()
{
    drop();
}

void HttpReply::abort()
{
    drop();
    if (isFinished())
        return;
    setError(OperationCanceledError, QString(QLatin1String("Aborted")));
    finish();
}

qint64 HttpReply::bytesAvailable() const
{
    return reader.body.size() + QNetworkReply::bytesAvailable();
}

bool HttpReply::isSequential() const
{
    return true;
}

qint64 HttpReply::readData(char* data, qint64 maxSize)
{
    const qint64 size = reader.body.take(data, maxSize);
    countBody();
    return size == 0 && isFinished() ? -1 : size;
}

QByteArray HttpFetcher::requestMessage(const QUrl& url)
{
    QUrl target = url;
    if (target.path().isEmpty())
        target.setPath(QString(QLatin1Char('/')));
    QByteArray host = QUrl::toAce(target.host());
    if (host.isEmpty() || host.contains(':'))
        host = '[' + target.host().toLatin1() + ']';
    if (target.port() != -1)
        host += ':' + QByteArray::number(target.port());
    return "GET " + target.toEncoded(QUrl::RemoveScheme | QUrl::RemoveAuthority | QUrl::RemoveFragment)
        + " HTTP/1.1\r\nHost: " + host + "\r\n\r\n";
}

/// Returns how many bytes of @p data belong to the reply.
qint64 HttpReply::receive(const char* data, qint64 size)
{
    const qint64 used = reader.read(data, size);
    countBody();
    if (*countedBytes > MAX_COUNTED_BYTES && ownCountedBytes > 0)
        reader.exceed();
    return used;
}

/// Finishes the reply with the bytes that were received.
void HttpReply::end()
{
    fetcher = nullptr;
    switch (reader.state()) {
    case HttpReader::Finished:
        finish();
        break;
    case HttpReader::ReadingHead:
    case HttpReader::ReadingBody:
        fail(RemoteHostClosedError,
             QString(QLatin1String("The connection was closed before the reply was complete")));
        break;
    case HttpReader::Malformed:
        fail(ProtocolFailure, QString(QLatin1String("The reply is malformed")));
        break;
    case HttpReader::OutOfBounds:
        drop();
        fail(ContentAccessDenied, QString(QLatin1String("The reply is out of bounds")));
        break;
    }
}

/// Finishes from the event loop, because the caller may be in get() or in a slot.
void HttpReply::fail(NetworkError code, const QString& text)
{
    fetcher = nullptr;
    setError(code, text);
    QMetaObject::invokeMethod(this, "finish", Qt::QueuedConnection);
}

void HttpReply::finish()
{
    if (isFinished())
        return;
    setFinished(true);
    Q_EMIT finished();
}

void HttpReply::drop()
{
    if (fetcher)
        fetcher->dequeue(this);
    fetcher = nullptr;
    reader.body.clear();
    countBody();
}

void HttpReply::countBody()
{
    const qint64 counted = qMax<qint64>(reader.body.size() - UNCOUNTED_BYTES, 0);
    *countedBytes += counted - ownCountedBytes;
    ownCountedBytes = counted;
}

// The connection

HttpConnection::HttpConnection(HttpFetcher* fetcher, const QByteArray& server)
    : fetcher(fetcher)
    , reply(nullptr)
    , server(server)
    , hasSent(false)
    , isSignalling(false)
{
    setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
    setReadBufferSize(READ_BUFFER_SIZE);
    connect(this, SIGNAL(stateChanged(QAbstractSocket::SocketState)), this,
            SLOT(onStateChanged(QAbstractSocket::SocketState)));
    connect(this, SIGNAL(readyRead()), this, SLOT(onReadyRead()));
}

void HttpConnection::startRequest(HttpReply* next)
{
    reply = next;
    reply->connection = this;
    hasSent = false;
    if (state() == ConnectedState) {
        // The peer may have closed the idle connection. Then the request is sent again, but only once.
        reply->attempts = MAX_ATTEMPTS - 1;
        sendRequest();
    } else {
        ++reply->attempts;
        connectToServer();
    }
}

void HttpConnection::connectToServer()
{
    fetcher->guard.connectToHost(this, reply->url().host(), portOf(reply->url()));
    if (state() == UnconnectedState)
        closeLater();
}

void HttpConnection::onStateChanged(QAbstractSocket::SocketState state)
{
    const QScopedValueRollback<bool> rollback(isSignalling);
    isSignalling = true;
    // A connection to a host name gets its descriptor only after the look-up. So the check is repeated here.
    if (state == ConnectedState && reply && fetcher->guard.admits(this))
        sendRequest();
    else if (state == UnconnectedState)
        closeLater();
}

void HttpConnection::sendRequest()
{
    hasSent = true;
    write(HttpFetcher::requestMessage(reply->url()));
    // Without this, QAbstractSocket sends only when the event loop runs again.
    flush();
}

void HttpConnection::onReadyRead()
{
    const QScopedValueRollback<bool> rollback(isSignalling);
    isSignalling = true;
    readReply();
}

void HttpConnection::readReply()
{
    char data[16 * 1024];
    qint64 size = 0;
    while (reply && bytesAvailable() > 0 && (size = read(data, sizeof data)) > 0) {
        const qint64 used = reply->receive(data, size);
        if (!reply->reader.isReading())
            finishReply(used == size && bytesAvailable() == 0);
    }
}

void HttpConnection::finishReply(bool isAtEnd)
{
    HttpReply* const finished = takeReply();
    if (!isAtEnd || !finished->reader.keepsConnection()) {
        fetcher->close(this);
        finished->end();
        return;
    }
    // The receiver of finished() may request the next document of the same host, or delete the fetcher.
    finished->end();
    if (!fetcher)
        return;
    fetcher->startWaiting(server);
    if (!reply)
        fetcher->close(this);
}

/// Closes from the event loop. Otherwise thousands of failing requests would block it, and requests would
/// finish inside get().
void HttpConnection::closeLater()
{
    QMetaObject::invokeMethod(this, "onClosed", Qt::QueuedConnection);
}

void HttpConnection::onClosed()
{
    if (!fetcher || state() != UnconnectedState)
        return;
    const QScopedValueRollback<bool> rollback(isSignalling);
    isSignalling = true;
    readReply();
    // readReply() may have finished the reply. Then the next request may have opened the connection again.
    if (!fetcher || state() != UnconnectedState)
        return;
    HttpReply* const unfinished = takeReply();
    if (unfinished && hasSent && unfinished->reader.state() == HttpReader::ReadingHead
        && unfinished->attempts < MAX_ATTEMPTS) {
        unfinished->reader = HttpReader();
        startRequest(unfinished);
        return;
    }
    fetcher->close(this);
    if (unfinished && hasSent) {
        unfinished->reader.close();
        unfinished->end();
    } else if (unfinished) {
        unfinished->fail(QNetworkReply::ConnectionRefusedError, errorString());
    }
}

HttpReply* HttpConnection::takeReply()
{
    HttpReply* const taken = reply;
    if (taken)
        taken->connection = nullptr;
    reply = nullptr;
    return taken;
}

void HttpConnection::release()
{
    fetcher = nullptr;
    disconnect();
    abort();
    if (isSignalling)
        deleteLater();
    else
        delete this;
}

} // namespace SSDP
} // namespace Velmora

#include "moc_HttpFetcher.cpp"

#ifndef VELMORA_SSDP_HTTPFETCHER_H
#define VELMORA_SSDP_HTTPFETCHER_H

#include <ssdp/DescriptorGuard.h>
#include <ssdp/HttpReader.h>

#include <QtCore/QList>
#include <QtCore/QMap>
#include <QtCore/QSharedPointer>
#include <QtNetwork/QNetworkReply>
#include <QtNetwork/QTcpSocket>

namespace Velmora {
namespace SSDP {

class HttpConnection;
class HttpReply;

/**
 * Fetches documents by HTTP/1.1, in the event loop of the thread that owns it.
 *
 * At most six connections are open to one host and port. Other requests wait in order. If the reply
 * leaves the connection open, the next request uses it. When no request waits, the connection is closed.
 *
 * If the connection is closed before the head of the reply is complete, the request is sent again on a
 * new connection, at most three times. If the connection was reused, the request is sent again only once.
 *
 * Only the scheme http is supported. Redirects, cookies, content codings, caches and proxies are not
 * supported.
 */
class HttpFetcher
{
public:
    HttpFetcher();
    /// Calls dropAll(). Replies stay valid, because their callers own them.
    ~HttpFetcher();

    /**
     * Requests the document at the URL of @p request. Nothing else of @p request is used. The caller
     * owns the reply. The reply emits finished() once, but never inside this call.
     *
     * The reply contains the received body, whatever the status is, and even if the connection was closed
     * too early. A reply that exceeds the bounds of HttpReader fails without a body. All replies together
     * may hold 64 MiB, not counting the first MiB of each. A reply that exceeds this bound fails too.
     */
    QNetworkReply* get(const QNetworkRequest& request);

    /// Closes every connection. After that, an unfinished reply emits finished() only if it is aborted.
    void dropAll();

    /// Returns the GET request for @p url.
    static QByteArray requestMessage(const QUrl& url);

    /// Checks every new connection. SsdpManager uses it for its own connections.
    DescriptorGuard guard;

private:
    Q_DISABLE_COPY(HttpFetcher)
    friend class HttpConnection;
    friend class HttpReply;

    /// The connections to one host and port, and the requests that wait for a connection.
    struct Server
    {
        QList<HttpConnection*> connections;
        QMap<quint64, HttpReply*> waiting; ///< In the order of the requests, by their numbers.
    };

    void enqueue(HttpReply* reply);
    void startWaiting(const QByteArray& key);
    void dequeue(HttpReply* reply);
    void close(HttpConnection* connection);

    QMap<QByteArray, Server> servers;
    quint64 lastNumber;
    QSharedPointer<qint64> countedBytes; ///< The size of all bodies, without the first MiB of each.
};

/// A reply of HttpFetcher. It may be deleted at any time; then its request is dropped.
class HttpReply : public QNetworkReply
{
    Q_OBJECT

public:
    ~HttpReply() override;

    /// Drops the request and the body. Emits finished() inside the call if it was not emitted before.
    void abort() override;
    qint64 bytesAvailable() const override;
    bool isSequential() const override;

protected:
    qint64 readData(char* data, qint64 maxSize) override;

private:
    Q_DISABLE_COPY(HttpReply)
    friend class HttpConnection;
    friend class HttpFetcher;

    HttpReply(const QNetworkRequest& request, HttpFetcher* fetcher);

    qint64 receive(const char* data, qint64 size);
    void end();
    void fail(NetworkError code, const QString& text);
    Q_INVOKABLE void finish();
    void drop();
    void countBody();

    HttpFetcher* fetcher; ///< Null once the request has ended.
    HttpConnection* connection; ///< Null while the request waits.
    QByteArray server; ///< The key of the host and port, as in HttpFetcher::servers.
    quint64 number;
    int attempts;
    HttpReader reader;
    QSharedPointer<qint64> countedBytes;
    qint64 ownCountedBytes;
};

/// A connection to one host and port, with its current request.
class HttpConnection : public QTcpSocket
{
    Q_OBJECT

private Q_SLOTS:
    void onStateChanged(QAbstractSocket::SocketState state);
    void onReadyRead();
    void onClosed();

private:
    Q_DISABLE_COPY(HttpConnection)
    friend class HttpFetcher;
    friend class HttpReply;

    HttpConnection(HttpFetcher* fetcher, const QByteArray& server);

    void startRequest(HttpReply* next);
    void connectToServer();
    void sendRequest();
    void readReply();
    void finishReply(bool isAtEnd);
    void closeLater();
    HttpReply* takeReply();
    void release();

    HttpFetcher* fetcher; ///< Null after release().
    HttpReply* reply; ///< Null if there is no current request.
    const QByteArray server; ///< The key of the host and port, as in HttpFetcher::servers.
    bool hasSent;
    bool isSignalling; ///< True inside a signal of the socket. The socket must not be deleted then.
};

} // namespace SSDP
} // namespace Velmora

#endif

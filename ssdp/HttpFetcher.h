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
 * Fetches documents by HTTP/1.1, in the event loop of the thread that it lives in.
 *
 * At most six connections are open to one host and port; further requests wait in order. A connection
 * carries one request after the other while the replies allow it, and is closed as soon as no request
 * is left for it. A request whose connection ends before the head of the reply has come is sent again on
 * a new connection: once if the connection had carried a request before, else three times at most.
 *
 * Only http is spoken. There are no redirects, cookies, codings, caches or proxies.
 */
class HttpFetcher
{
public:
    HttpFetcher();
    /// As dropAll().
    ~HttpFetcher();

    /**
     * Requests the document at the URL of @p request; nothing else of @p request is used. The caller
     * owns the reply. It emits finished() once, and never inside this call.
     *
     * The reply has the body that came, whatever the status, even if the connection cut it off. A reply
     * beyond the bounds of HttpReader fails without a body. So does one that would make the bodies of
     * all replies hold more than 64 MiB, where the first MiB of each does not count.
     */
    QNetworkReply* get(const QNetworkRequest& request);

    /// Closes every connection. Replies that have not finished never do, unless they are aborted.
    void dropAll();

    /// The text that requests the document at @p url.
    static QByteArray requestMessage(const QUrl& url);

    /// What every connection has to pass. Whoever else opens sockets for the network shares it.
    DescriptorGuard guard;

private:
    Q_DISABLE_COPY(HttpFetcher)
    friend class HttpConnection;
    friend class HttpReply;

    /// A host and port: its connections, and the requests that have none yet.
    struct Server
    {
        QList<HttpConnection*> connections;
        QMap<quint64, HttpReply*> waiting; ///< By the number of the request, so in order.
    };

    void enqueue(HttpReply* reply);
    void serve(const QByteArray& key);
    void dequeue(HttpReply* reply);
    void close(HttpConnection* connection);

    QMap<QByteArray, Server> servers;
    quint64 lastNumber;
    QSharedPointer<qint64> countedBytes; ///< What bodies hold beyond their first MiB.
};

/// A reply of HttpFetcher. Deleting it at any time drops the request.
class HttpReply : public QNetworkReply
{
    Q_OBJECT

public:
    ~HttpReply() override;

    /// Drops the request and the body. Emits finished() inside the call, unless it has come already.
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
    QByteArray server; ///< The key of the host and port.
    quint64 number;
    int attempts;
    HttpReader reader;
    QSharedPointer<qint64> countedBytes;
    qint64 ownCountedBytes;
};

/// A connection to one host and port, with the request that it carries.
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

    void carry(HttpReply* next);
    void connectToServer();
    void sendRequest();
    void readReply();
    void finishReply(bool isAtEnd);
    void closeLater();
    HttpReply* takeReply();
    void release();

    HttpFetcher* fetcher; ///< Null once it is released.
    HttpReply* reply; ///< Null while it carries none.
    const QByteArray server; ///< The key of its host and port.
    bool hasSent;
    bool isSignalling; ///< So it cannot be deleted at once.
};

} // namespace SSDP
} // namespace Velmora

#endif

#ifndef VELMORA_TESTS_SUPPORT_HTTPTEST_H
#define VELMORA_TESTS_SUPPORT_HTTPTEST_H

#include <tests/support/KeptMessages.h>
#include <tests/support/WireTest.h>

#include <QtCore/QUrl>
#include <QtNetwork/QNetworkAccessManager>
#include <QtNetwork/QNetworkReply>

#include <vector>

namespace Velmora {
namespace Tests {

/// A control point that does not handle its replies, so that the test can.
class Fetcher
{
public:
    Fetcher();

private:
    SSDP::SsdpManager manager;

public:
    QNetworkAccessManager& network;
};

/// One GET. It records what a control point would get.
class Fetch : public QObject
{
    Q_OBJECT

public:
    Fetch(QNetworkAccessManager& network, const QUrl& url);
    ~Fetch() override { delete reply; }

    int finishes = 0; ///< How often the network access has emitted finished().
    int replyFinishes = 0; ///< How often the reply has emitted finished().
    bool finishedInGet = false; ///< Whether one of them was emitted inside get().
    QByteArray body; ///< What could be read at the first finished().
    bool failed = false;
    QPointer<QNetworkReply> reply;

Q_SIGNALS:
    /// Emitted inside the first finished() of the network access, where a control point handles the reply.
    void handled();

private:
    void onFinished(QNetworkReply* finished);

    bool isInGet = true;
};

using Fetches = std::vector<std::unique_ptr<Fetch>>;

/**
 * A test of the library's HTTP client with a scripted device. The test fails if Qt prints anything, or if more
 * descriptors are open after the test than before.
 */
class HttpTest : public WireTest
{
    Q_OBJECT

public:
    /// What the device does with the connection after its reply.
    enum End { Stay, Close, Reset };
    Q_ENUM(End)

    /// A short body, of eight bytes.
    static const QByteArray BODY;

protected:
    /// Returns a URL of the device, or of another one with the same port.
    static QUrl url(const QByteArray& path = "/desc.xml", const char* host = "10.77.1.1");

    /// Answers every request with @p segments until @p fetch has finished. Waits until the library has read each
    /// segment. Returns whether the fetch has finished.
    bool serve(const QList<QByteArray>& segments, End end, const Fetch& fetch);

    /// Ends @p connection, unless @p end is Stay.
    static void endWith(Connection* connection, End end);

    /// Sends @p segments until the library closes the connection.
    static void sendSegments(Connection* connection, const QList<QByteArray>& segments);

    /// Waits until the library has closed every connection to the device.
    bool allCloses() const;

    /// Waits like allCloses(). Returns whether every connection is closed and @p fetch has
    /// finished exactly once.
    bool hasFinishedOnce(const Fetch& fetch) const;

protected Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase() { device.reset(); }

protected:
    int served = 0; ///< The number of requests that serve() has answered.
    int allowedDescriptors = 0; ///< How many descriptors may be open after the test.

private:
    std::unique_ptr<KeptMessages> messages;
};

} // namespace Tests
} // namespace Velmora

#endif

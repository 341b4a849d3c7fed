#ifndef VELMORA_TESTS_SUPPORT_HTTPTEST_H
#define VELMORA_TESTS_SUPPORT_HTTPTEST_H

#include <tests/support/KeptMessages.h>
#include <tests/support/WireTest.h>

#include <QtCore/QUrl>
#include <QtNetwork/QNetworkAccessManager>
#include <QtNetwork/QNetworkReply>

namespace Velmora {
namespace Tests {

/// A control point whose network access the test uses in the control point's place.
class Fetcher
{
public:
    Fetcher();

private:
    SSDP::SsdpManager manager;

public:
    QNetworkAccessManager& network;
};

/// One GET, and what the control point would have been handed.
class Fetch : public QObject
{
    Q_OBJECT

public:
    Fetch(QNetworkAccessManager& network, const QUrl& url);
    ~Fetch() override;

    /// How often the network access and the reply have emitted finished().
    int finishes = 0;
    int replyFinishes = 0;
    /// Whether one of them did so inside get().
    bool finishedInGet = false;
    /// What could be read at the first of them.
    QByteArray body;
    bool failed = false;

    QPointer<QNetworkReply> reply;

Q_SIGNALS:
    /// Emitted where the control point handles a reply: inside the network access's finished().
    void handled();

private:
    void onFinished(QNetworkReply* finished);

    bool isInGet = true;
};

/**
 * The library's HTTP client against a device that sends what the test says. Each test fails when Qt
 * prints anything, or when a descriptor stays open after it.
 */
class HttpTest : public WireTest
{
    Q_OBJECT

public:
    using WireTest::WireTest;

    /// What a device does with a connection once it has sent its reply.
    enum End { Stay, Close, Reset };

    /// A short body, of eight bytes.
    static const QByteArray BODY;

protected:
    /// A URL of the device, or of another one that listens on the same port.
    static QUrl url(const char* path = "/desc.xml", const char* host = "10.77.1.1");

    /**
     * Answers every request with @p segments until @p fetch has finished. Each segment waits until the
     * library has read the one before it. Returns whether the fetch has finished.
     */
    bool serve(const QList<QByteArray>& segments, End end, const Fetch& fetch);

    /// The connection of the only request for @p path. Null if it never comes.
    Connection* requestFor(const char* path = "/desc.xml") const;

    /// Ends @p connection, unless @p end is Stay.
    static void endWith(Connection* connection, End end);

    /// Sends @p segments, unless the library closes the connection meanwhile.
    static void send(Connection* connection, const QList<QByteArray>& segments);

    /// Waits until the library has closed every connection to the device.
    bool allCloses() const;

    /// The same, and whether @p fetch has finished once by then.
    bool hasFinishedOnce(const Fetch& fetch) const;

protected Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

protected:
    /// How many of the device's requests serve() has answered.
    int served = 0;

    /// How many descriptors may be open after the test.
    int allowedDescriptors = 0;

private:
    std::unique_ptr<KeptMessages> messages;
};

} // namespace Tests
} // namespace Velmora

#endif

#include <tests/support/HttpTest.h>

#include <tests/support/Literals.h>
#include <tests/support/ProcessState.h>

#include <QtNetwork/QNetworkRequest>

#include <algorithm>

namespace Velmora {
namespace Tests {

const QByteArray HttpTest::BODY("<a>b</a>");

Fetcher::Fetcher()
    : manager(QHostAddress("10.77.0.1"))
    , network(ManagerAccess(manager).networkManager())
{
    QObject::disconnect(&network, nullptr, &manager, nullptr);
}

Fetch::Fetch(QNetworkAccessManager& network, const QUrl& url)
{
    connect(&network, &QNetworkAccessManager::finished, this, &Fetch::onFinished);
    reply = network.get(QNetworkRequest(url));
    isInGet = false;
    finishedInGet = finishedInGet || reply->isFinished();
    connect(reply, &QNetworkReply::finished, this, [this] { ++replyFinishes; });
}

void Fetch::onFinished(QNetworkReply* finished)
{
    finishedInGet = finishedInGet || isInGet;
    if ((!isInGet && finished != reply) || ++finishes > 1)
        return;
    if (finished->isOpen())
        body = finished->read(finished->bytesAvailable());
    failed = finished->error() != QNetworkReply::NoError;
    Q_EMIT handled();
}

QUrl HttpTest::url(const QByteArray& path, const char* host)
{
    return QUrl("http://%1:8080%2"_s.arg(QLatin1String(host), QString(path)));
}

bool HttpTest::serve(const QList<QByteArray>& segments, End end, const Fetch& fetch)
{
    while (waitUntil([&] { return fetch.finishes > 0 || device->requests.size() > served; })) {
        if (fetch.finishes > 0)
            return true;
        const QPointer<Connection> connection = device->requests.at(served++).connection;
        if (end == Close && !segments.isEmpty()) {
            // The last bytes and the end of the connection come together.
            sendSegments(connection, segments.mid(0, segments.size() - 1));
            if (connection->isOpen())
                connection->send(segments.constLast());
        } else {
            sendSegments(connection, segments);
        }
        endWith(connection, end);
    }
    return false;
}

void HttpTest::endWith(Connection* connection, End end)
{
    if (end != Stay && connection->isOpen())
        connection->end(end == Reset);
}

void HttpTest::sendSegments(Connection* connection, const QList<QByteArray>& segments)
{
    for (const QByteArray& segment : segments) {
        if (!connection->isOpen())
            return;
        connection->send(segment);
        waitUntil([&] { return connection->wasRead() || !connection->isOpen(); });
    }
}

bool HttpTest::allCloses() const
{
    return waitUntil([this] {
        return std::none_of(device->accepted.cbegin(), device->accepted.cend(),
                            [](const Connection* connection) { return connection && connection->isOpen(); });
    });
}

bool HttpTest::hasFinishedOnce(const Fetch& fetch) const
{
    const bool allClosed = allCloses();
    QCoreApplication::processEvents();
    return allClosed && fetch.finishes == 1 && fetch.replyFinishes == 1;
}

void HttpTest::initTestCase()
{
    WireTest::initTestCase();
    // Qt 5.15 opens two descriptors for the first request of a process, and does not close them.
    Fetcher fetcher;
    Fetch first(fetcher.network, url());
    waitUntil([&] { return first.finishes > 0; });
}

void HttpTest::init()
{
    // A new device would take longer than most of these tests.
    if (!device)
        makeDevice();
    device->forget();
    served = 0;
    allowedDescriptors = ProcessState::descriptors();
    messages = std::make_unique<KeptMessages>();
}

void HttpTest::cleanup()
{
    const QStringList printed = messages->texts();
    messages.reset();
    QCOMPARE(printed, QStringList());
    if (device)
        device->forget();
    COMPARE_SOON(qMax(ProcessState::descriptors(), allowedDescriptors), allowedDescriptors);
}

} // namespace Tests
} // namespace Velmora

#include "moc_HttpTest.cpp"

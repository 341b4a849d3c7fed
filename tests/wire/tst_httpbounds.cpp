#include <tests/support/HttpTest.h>
#include <tests/support/Sanitized.h>

#include <QtCore/QFile>

#include <algorithm>
#include <unistd.h>
#include <vector>

using namespace Velmora::Tests;

namespace {

const int KIB = 1024;
const int MIB = 1024 * KIB;
const int MAX_BODY = 16 * MIB;

const char CHUNKED_HEAD[] = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
const char OPEN_HEAD[] = "HTTP/1.1 200 OK\r\n\r\n";

/// Returns a body whose parts all differ.
QByteArray bodyOf(int size)
{
    static const QByteArray longest = [] {
        QByteArray result;
        for (int i = 0; result.size() < 17 * MIB; ++i)
            result += QByteArray::number(i) + '\n';
        return result;
    }();
    return longest.left(size);
}

/// Returns the resident memory of this process.
qint64 residentBytes()
{
    QFile file("/proc/self/statm"_s);
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    return file.readAll().split(' ').at(1).toLongLong() * sysconf(_SC_PAGESIZE);
}

} // namespace

/// How much the library accepts of one reply, and of all replies together. tests/unit/tst_httpreader.cpp tests
/// every bound of a single reply.
class HttpBoundsTest : public HttpTest
{
    Q_OBJECT

    /// Requests one more document and sends @p size bytes of its body. One byte is missing, so the reply does not
    /// finish. Returns false if it has failed.
    bool hold(Fetches& fetches, Fetcher& fetcher, int size)
    {
        const QByteArray path = '/' + QByteArray::number(device->requests.size());
        fetches.push_back(std::make_unique<Fetch>(fetcher.network, url(path)));
        Connection* const connection = requestFor("GET " + path + ' ');
        if (!connection)
            return false;
        connection->send(reply(bodyOf(size + 1)).chopped(1));
        const Fetch& fetch = *fetches.back();
        waitUntil([&] { return connection->wasRead() || fetch.finishes > 0; });
        return fetch.finishes == 0;
    }

private Q_SLOTS:
    void replyWithoutAnEndFails_data()
    {
        const Table<QByteArray, QByteArray, int> row("beginning", "repeated", "most");
        row("line", "", "x", MIB);
        row("trailers", CHUNKED_HEAD + "1\r\nx\r\n0\r\n"_ba, "X: y\r\n", MIB);
        row("body", OPEN_HEAD, "x", MAX_BODY + MIB);
    }

    void replyWithoutAnEndFails()
    {
        QFETCH(const QByteArray, beginning);
        QFETCH(const QByteArray, repeated);
        QFETCH(const int, most);
        const QByteArray block = repeated.repeated(1 + 16 * KIB / static_cast<int>(repeated.size()));
        Fetcher fetcher;
        Fetch fetch(fetcher.network, url());
        const QPointer<Connection> connection = requestFor("GET ");
        QVERIFY(connection);
        connection->send(beginning);
        qint64 sent = 0;
        while (fetch.finishes == 0 && sent < most && connection->isOpen()) {
            connection->send(block);
            sent += block.size();
            VERIFY_SOON(connection->wasRead() || !connection->isOpen());
        }
        VERIFY_SOON(fetch.finishes == 1 || connection->isOpen());
        QVERIFY(fetch.failed);
        QCOMPARE(fetch.body, QByteArray());
        QVERIFY(hasFinishedOnce(fetch));
        QCOMPARE(device->requests.size(), 1);
    }

    void bodiesMayHold64MiBBeyondTheirFirst()
    {
        Fetcher fetcher;
        Fetches fetches;
        for (int i = 0; i < 4; ++i)
            QVERIFY(hold(fetches, fetcher, 15 * MIB));
        QVERIFY(hold(fetches, fetcher, 9 * MIB));
        // Without the first MiB of each, these are 4 * 14 + 8 MiB.
        QVERIFY(!hold(fetches, fetcher, MIB + 1));
        QVERIFY(fetches.back()->failed);
        QCOMPARE(fetches.back()->body, QByteArray());
        QVERIFY(hold(fetches, fetcher, MIB));

        // A deleted and an aborted reply hold nothing. The others are complete.
        fetches.at(0).reset();
        QVERIFY(hold(fetches, fetcher, 15 * MIB));
        fetches.at(1)->reply->abort();
        fetches.at(5).reset();
        for (const size_t i : {2, 3, 4, 6, 7}) {
            const Fetch& fetch = *fetches.at(i);
            QCOMPARE(fetch.finishes, 0);
            const int size = i == 4 ? 9 * MIB : i == 6 ? MIB : 15 * MIB;
            requestFor("GET " + fetch.reply->url().path().toLatin1() + ' ')->send(bodyOf(size + 1).right(1));
            VERIFY_SOON(fetch.finishes == 1);
            QVERIFY(fetch.body == bodyOf(size + 1));
        }

        // A reply that was read holds nothing, either.
        for (int i = 0; i < 4; ++i)
            QVERIFY(hold(fetches, fetcher, 15 * MIB));
        QVERIFY(hold(fetches, fetcher, 9 * MIB));
    }

    void twentyBodiesWithoutAnEnd()
    {
        // There are at most six connections to one host and port.
        std::vector<std::unique_ptr<ScriptedDevice>> devices;
        Fetches fetches;
        devices.reserve(20);
        fetches.reserve(20);
        Fetcher fetcher;
        for (quint16 port = 8081; port <= 8100; ++port) {
            devices.push_back(std::make_unique<ScriptedDevice>(network, "10.77.1.1", port));
            devices.back()->script("GET ", OPEN_HEAD);
            const QUrl endless("http://10.77.1.1:%1/endless.xml"_s.arg(port));
            fetches.push_back(std::make_unique<Fetch>(fetcher.network, endless));
        }
        for (const std::unique_ptr<ScriptedDevice>& endless : devices)
            VERIFY_SOON(endless->requests.size() == 1);

        device->script("GET ", reply(bodyOf(100000)));
        std::unique_ptr<Fetch> good;
        const qint64 before = residentBytes();
        qint64 most = before;
        qint64 sent = 0;
        const auto isPending = [](const std::unique_ptr<Fetch>& fetch) { return fetch->finishes == 0; };
        while (std::any_of(fetches.cbegin(), fetches.cend(), isPending)) {
            for (size_t i = 0; i < devices.size(); ++i) {
                Connection* const connection = devices.at(i)->requests.at(0).connection;
                if (!connection->isOpen())
                    continue;
                connection->send(QByteArray(32 * KIB, 'x'));
                sent += 32 * KIB;
                VERIFY_SOON(connection->wasRead() || !connection->isOpen());
            }
            most = qMax(most, residentBytes());
            // After 70 MiB, the bodies hold most of the bytes that they may hold. A good reply must still be read.
            if (!good && sent > 70 * MIB)
                good = std::make_unique<Fetch>(fetcher.network, url("/good.xml"));
            QVERIFY(sent < 330 * MIB);
        }
        for (const std::unique_ptr<Fetch>& fetch : fetches) {
            QCOMPARE(fetch->finishes, 1);
            QVERIFY(fetch->failed);
            QCOMPARE(fetch->body, QByteArray());
        }
        QVERIFY(good != nullptr);
        VERIFY_SOON(good->finishes == 1);
        QCOMPARE(good->body, bodyOf(100000));
        // AddressSanitizer keeps freed memory for a while.
        QVERIFY2(SANITIZED || most - before < 100 * MIB, QByteArray::number((most - before) / MIB).constData());
    }
};

VELMORA_WIRE_TEST_MAIN(HttpBoundsTest)
#include "tst_httpbounds.moc"

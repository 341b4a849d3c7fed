#include <tests/support/HttpTest.h>
#include <tests/support/Literals.h>
#include <tests/support/ProcessState.h>
#include <tests/support/Sanitized.h>

#include <QtCore/QFile>

#include <algorithm>
#include <vector>

using namespace Velmora::Tests;
using ProcessState::descriptors;
using ProcessState::processorTime;

namespace {

using Segments = QList<QByteArray>;

const int KIB = 1024;
const int MIB = 1024 * KIB;
const int MAX_HEAD = 64 * KIB;
const int MAX_BODY = 16 * MIB;

/// How much a device may send before the library has given up a head or a line without an end.
const int MUCH = MIB;

const char LENGTH_HEAD[] = "HTTP/1.1 200 OK\r\nContent-Length: ";
const char CHUNKED_HEAD[] = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
const char OPEN_HEAD[] = "HTTP/1.1 200 OK\r\n\r\n";

/// A body that shows where a piece of it is missing.
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

QByteArray withLength(const QByteArray& body)
{
    return LENGTH_HEAD + QByteArray::number(body.size()) + "\r\n\r\n" + body;
}

QByteArray inChunksOf(const QByteArray& body, int size)
{
    QByteArray result;
    result.reserve(body.size() + body.size() / size * 12 + 100);
    result += CHUNKED_HEAD;
    for (int i = 0; i < body.size(); i += size) {
        const QByteArray chunk = body.mid(i, size);
        result += QByteArray::number(chunk.size(), 16) + "\r\n" + chunk + "\r\n";
    }
    return result + "0\r\n\r\n";
}

/// The resident memory of this process.
qint64 residentBytes()
{
    QFile file("/proc/self/statm"_s);
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    return file.readAll().split(' ').at(1).toLongLong() * sysconf(_SC_PAGESIZE);
}

} // namespace

/// What the library takes of a reply at most, and that it takes it in linear time.
class HttpBoundsTest : public HttpTest
{
    Q_OBJECT

public:
    using HttpTest::HttpTest;

private Q_SLOTS:

    void headMayHave64KiB_data()
    {
        // A head is the beginning, one byte as often as it fits, the repeated bytes and the rest.
        QTest::addColumn<QByteArray>("beginning");
        QTest::addColumn<char>("byte");
        QTest::addColumn<QByteArray>("repeated");
        QTest::addColumn<QByteArray>("rest");
        const QByteArray status("HTTP/1.1 200 OK\r\n");
        const QByteArray end("\r\nContent-Length: 8\r\n\r\n");
        QTest::newRow("reason") << "HTTP/1.1 200 "_ba << 'x' << QByteArray() << end;
        QTest::newRow("name") << status << 'x' << QByteArray() << ": y" + end;
        QTest::newRow("value") << status + "X: " << 'y' << QByteArray() << end;
        QTest::newRow("fields") << status + "X: " << 'y' << "\nX:"_ba << end;
        QTest::newRow("folded lines") << status + "X: " << 'y' << "\n "_ba << end;
        QTest::newRow("lines without a colon") << status + "x" << 'x' << "\nx"_ba << end;
        QTest::newRow("empty lines before it") << QByteArray() << '\n' << QByteArray() << "HTTP/1.1 200 OK" + end;
        // All of them together may be as long as one head.
        QTest::newRow("interim replies") << "HTTP/1.1 100 "_ba << 'x' << "\n\nHTTP/1.1 100"_ba
                                         << "\r\n\r\n"_ba;
        QTest::newRow("field of an interim reply")
            << "HTTP/1.1 103 Early Hints\r\nX: "_ba << 'y' << QByteArray() << "\r\n\r\n"_ba;
    }

    void headMayHave64KiB()
    {
        QFETCH(const QByteArray, beginning);
        QFETCH(const char, byte);
        QFETCH(const QByteArray, repeated);
        QFETCH(const QByteArray, rest);
        const auto room = static_cast<int>(MAX_HEAD - beginning.size() - rest.size());
        const int times = repeated.isEmpty() ? 0 : room / static_cast<int>(repeated.size());
        const int bytes = room - times * static_cast<int>(repeated.size());
        for (const int more : {0, 1}) {
            QByteArray head = beginning + QByteArray(bytes + more, byte) + repeated.repeated(times) + rest;
            QCOMPARE(static_cast<int>(head.size()), MAX_HEAD + more);
            if (!rest.contains("Content-Length"))
                head += "HTTP/1.1 200 OK\r\nContent-Length: 8\r\n\r\n";
            Fetcher fetcher;
            Fetch fetch(fetcher.network, url());
            QVERIFY(serve({head + BODY}, Stay, fetch));
            QCOMPARE(fetch.failed, more > 0);
            QCOMPARE(fetch.body, more > 0 ? QByteArray() : BODY);
            QVERIFY(allCloses());
            QCOMPARE(fetch.finishes, 1);
            QCOMPARE(served, more + 1);
        }
    }

    void bodyMayHave16MiB_data()
    {
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<int>("size");
        for (const int size : {MAX_BODY, MAX_BODY + 1}) {
            const QByteArray body = bodyOf(size);
            const char* const name = size == MAX_BODY ? "16 MiB" : "one byte more";
            QTest::addRow("%s, length", name) << withLength(body) << size;
            QTest::addRow("%s, one chunk", name) << inChunksOf(body, size) << size;
            QTest::addRow("%s, chunks", name) << inChunksOf(body, 100000) << size;
            QTest::addRow("%s, until the end of the connection", name) << OPEN_HEAD + body << size;
        }
    }

    void bodyMayHave16MiB()
    {
        QFETCH(const QByteArray, reply);
        QFETCH(const int, size);
        const int before = descriptors();
        {
            Fetcher fetcher;
            Fetch fetch(fetcher.network, url());
            QVERIFY(serve({reply}, Close, fetch));
            QCOMPARE(fetch.failed, size > MAX_BODY);
            QVERIFY(fetch.body == (size > MAX_BODY ? QByteArray() : bodyOf(size)));
            QVERIFY(allCloses());
            QCOMPARE(fetch.finishes, 1);
            QCOMPARE(fetch.replyFinishes, 1);
            QCOMPARE(static_cast<int>(device->requests.size()), 1);
        }
        COMPARE_SOON(qMax(descriptors(), before), before);
    }

    void chunksMayBeMany_data()
    {
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<int>("size");
        QTest::newRow("15 MiB in chunks of 1,000 bytes") << inChunksOf(bodyOf(15 * MIB), 1000) << 15 * MIB;
        QTest::newRow("1 MiB in chunks of one byte") << inChunksOf(bodyOf(MIB), 1) << MIB;
        QTest::newRow("1,000 chunks with an extension of 1,000 characters")
            << inChunksOf(bodyOf(10000), 10).replace("a\r\n", "a;" + QByteArray(1000, 'x') + "\r\n") << 10000;
    }

    void chunksMayBeMany()
    {
        QFETCH(const QByteArray, reply);
        QFETCH(const int, size);
        Fetcher fetcher;
        Fetch fetch(fetcher.network, url());
        QVERIFY(serve({reply}, Stay, fetch));
        QVERIFY(fetch.body == bodyOf(size));
        QVERIFY(!fetch.failed);
    }

    void bodyMayComeByteByByte_data()
    {
        const QByteArray body = bodyOf(qEnvironmentVariableIsSet("VELMORA_ALL_SIZES") ? MIB : 32 * KIB);
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("length") << withLength(body) << body;
        QTest::newRow("chunk") << inChunksOf(body, MIB) << body;
        QTest::newRow("chunks of one byte")
            << inChunksOf(body.left(body.size() / 6), 1) << body.left(body.size() / 6);
        QTest::newRow("until the end of the connection") << OPEN_HEAD + body << body;
    }

    void bodyMayComeByteByByte()
    {
        QFETCH(const QByteArray, reply);
        QFETCH(const QByteArray, body);
        Fetcher fetcher;
        Fetch fetch(fetcher.network, url());
        Connection* const connection = askedConnection("/desc.xml");
        QVERIFY(connection);
        sendInSegmentsOf(connection, reply, 1);
        connection->close();
        VERIFY_SOON(fetch.finishes == 1);
        QVERIFY(fetch.body == body);
        QVERIFY(!fetch.failed);
    }

    void replyWithoutAnEndFails_data()
    {
        QTest::addColumn<QByteArray>("beginning");
        QTest::addColumn<QByteArray>("repeated");
        QTest::addColumn<int>("most");
        const auto endless = [](const char* name, const QByteArray& beginning, const QByteArray& repeated,
                                int most = MUCH) { QTest::newRow(name) << beginning << repeated << most; };
        const QByteArray status("HTTP/1.1 200 OK\r\n");
        endless("line", "", "x");
        endless("zero bytes", "", QByteArray(1, '\0'));
        endless("empty lines", "", "\r\n");
        endless("status line", "HTTP/1.1 200 ", "x");
        endless("name", status, "x");
        endless("value", status + "X: ", "y");
        endless("fields", status, "X: y\r\n");
        endless("folded lines", status + "X: y\r\n", " z\r\n");
        endless("folded empty lines", status + "X: y\r\n", " \r\n");
        endless("lines without a colon", status, "x\r\n");
        endless("interim replies", "", "HTTP/1.1 100 Continue\r\n\r\n");
        endless("interim replies without a field", "", "HTTP/1.1 102\n\n");
        endless("fields of an interim reply", "HTTP/1.1 103 Early Hints\r\n", "X: y\r\n");
        endless("zeros of a chunk's size", CHUNKED_HEAD, "0");
        endless("chunk extension", CHUNKED_HEAD + "8;"_ba, "x");
        endless("spaces after a chunk's size", CHUNKED_HEAD + "8"_ba, " ");
        endless("extension of the last chunk", CHUNKED_HEAD + "0;"_ba, "x");
        endless("empty lines between chunks", CHUNKED_HEAD + "1\r\nx"_ba, "\r\n");
        endless("trailers", CHUNKED_HEAD + "1\r\nx\r\n0\r\n"_ba, "X: y\r\n");
        endless("trailer", CHUNKED_HEAD + "1\r\nx\r\n0\r\nX: "_ba, "y");
        endless("body", OPEN_HEAD, "x", MAX_BODY + MUCH);
        endless("body with a length", LENGTH_HEAD + "1000000000000\r\n\r\n"_ba, "x", MAX_BODY + MUCH);
        endless("chunk", CHUNKED_HEAD + "7fffffffffffffff\r\n"_ba, "x", MAX_BODY + MUCH);
        endless("chunks", CHUNKED_HEAD, "400\r\n" + QByteArray(KIB, 'x') + "\r\n", MAX_BODY + MUCH);
    }

    void replyWithoutAnEndFails()
    {
        QFETCH(const QByteArray, beginning);
        QFETCH(const QByteArray, repeated);
        QFETCH(const int, most);
        const QByteArray block = repeated.repeated(1 + 16 * KIB / static_cast<int>(repeated.size()));
        const int before = descriptors();
        {
            Fetcher fetcher;
            Fetch fetch(fetcher.network, url());
            VERIFY_SOON(device->requests.size() == 1);
            const QPointer<Connection> connection = device->requests.at(0).connection;
            connection->send(beginning);
            qint64 sent = 0;
            while (fetch.finishes == 0 && sent < most && connection->isOpen()) {
                connection->send(block);
                sent += block.size();
                VERIFY_SOON(connection->wasRead() || !connection->isOpen());
            }
            VERIFY_SOON(fetch.finishes == 1 || connection->isOpen());
            QCOMPARE(fetch.finishes, 1);
            QVERIFY(fetch.failed);
            QCOMPARE(fetch.body, QByteArray());
            QVERIFY(allCloses());
            QCOMPARE(fetch.finishes, 1);
            QCOMPARE(fetch.replyFinishes, 1);
            QCOMPARE(static_cast<int>(device->requests.size()), 1);
        }
        COMPARE_SOON(qMax(descriptors(), before), before);
    }

    void bodiesMayHold64MiBBeyondTheirFirst()
    {
        Fetcher fetcher;
        std::vector<std::unique_ptr<Fetch>> fetches;
        for (int i = 0; i < 4; ++i)
            QVERIFY(hold(fetches, fetcher, 15 * MIB));
        QVERIFY(hold(fetches, fetcher, 9 * MIB));
        // 4 * 14 + 8 MiB are beyond the first of each.
        QVERIFY(!hold(fetches, fetcher, MIB + 1));
        QVERIFY(fetches.back()->failed);
        QCOMPARE(fetches.back()->body, QByteArray());
        QVERIFY(hold(fetches, fetcher, MIB));

        // What a reply holds is free again when it is deleted or aborted, and the others were not harmed.
        fetches.at(0).reset();
        QVERIFY(hold(fetches, fetcher, 15 * MIB));
        fetches.at(1)->reply->abort();
        fetches.at(5).reset();
        for (const size_t i : {2, 3, 4, 6, 7}) {
            const Fetch& fetch = *fetches.at(i);
            QCOMPARE(fetch.finishes, 0);
            const int size = i == 4 ? 9 * MIB : i == 6 ? MIB : 15 * MIB;
            askedConnection(fetch.reply->url().path().toLatin1().constData())->send("!");
            VERIFY_SOON(fetch.finishes == 1);
            QVERIFY(fetch.body == bodyOf(size) + '!');
        }

        // And so it is when it was read.
        for (int i = 0; i < 4; ++i)
            QVERIFY(hold(fetches, fetcher, 15 * MIB));
        QVERIFY(hold(fetches, fetcher, 9 * MIB));
    }

    void twentyBodiesWithoutAnEnd_data()
    {
        QTest::addColumn<QByteArray>("beginning");
        QTest::addColumn<QByteArray>("repeated");
        QTest::newRow("until the end of the connection") << QByteArray(OPEN_HEAD) << QByteArray(32 * KIB, 'x');
        QTest::newRow("length") << LENGTH_HEAD + "1000000000000\r\n\r\n"_ba << QByteArray(32 * KIB, 'x');
        QTest::newRow("chunked") << QByteArray(CHUNKED_HEAD) << "8000\r\n" + QByteArray(32 * KIB, 'x') + "\r\n";
    }

    void twentyBodiesWithoutAnEnd()
    {
        QFETCH(const QByteArray, beginning);
        QFETCH(const QByteArray, repeated);
        // Six connections go to one host and port.
        std::vector<std::unique_ptr<ScriptedDevice>> devices;
        std::vector<std::unique_ptr<Fetch>> fetches;
        devices.reserve(20);
        fetches.reserve(20);
        Fetcher fetcher;
        for (quint16 port = 8081; port <= 8100; ++port) {
            devices.push_back(std::make_unique<ScriptedDevice>(network, "10.77.1.1"_s, port));
            devices.back()->script("GET ", beginning);
            fetches.push_back(
                std::make_unique<Fetch>(fetcher.network, QUrl("http://10.77.1.1:%1/endless.xml"_s.arg(port))));
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
                connection->send(repeated);
                sent += repeated.size();
                VERIFY_SOON(connection->wasRead() || !connection->isOpen());
            }
            most = qMax(most, residentBytes());
            // Now that the bodies hold what they may.
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
        // AddressSanitizer keeps what was freed for a while.
        QVERIFY2(SANITIZED || most - before < 100 * MIB, QByteArray::number((most - before) / MIB).constData());
    }

    void timeIsLinear_data()
    {
        QTest::addColumn<QByteArray>("beginning");
        QTest::addColumn<QByteArray>("repeated");
        QTest::addColumn<QByteArray>("end");
        QTest::addColumn<int>("size");
        QTest::addColumn<int>("segment");
        const QByteArray length = LENGTH_HEAD + "SIZE\r\n\r\n"_ba;
        const QByteArray chunked(CHUNKED_HEAD);
        const QByteArray last("0\r\n\r\n");
        const QByteArray chunk("1\r\nx\r\n");
        QTest::newRow("segments of 100 bytes") << length << "x"_ba << QByteArray() << MIB / 2 << 100;
        QTest::newRow("chunks of one byte") << chunked << chunk << last << MIB << 16 * MIB;
        QTest::newRow("chunks of one byte, segments of 100 bytes") << chunked << chunk << last << MIB / 2 << 100;
    }

    void timeIsLinear()
    {
        if (SANITIZED)
            QSKIP("AddressSanitizer's own work would be measured");
        QFETCH(const QByteArray, beginning);
        QFETCH(const QByteArray, repeated);
        QFETCH(const QByteArray, end);
        QFETCH(const int, size);
        QFETCH(const int, segment);
        Segments replies;
        for (const int factor : {1, 2, 4}) {
            const QByteArray middle = repeated.repeated(size * factor / static_cast<int>(repeated.size()));
            replies << QByteArray(beginning).replace("SIZE", QByteArray::number(middle.size())) + middle + end;
        }
        const QList<qint64> times = shortestTimes(3, [&](int i, Connection* connection, const Fetch& fetch) {
            sendInSegmentsOf(connection, replies.at(i), segment);
            connection->close();
            return waitUntil([&] { return fetch.finishes == 1; }) && !fetch.failed;
        });
        QCOMPARE(static_cast<int>(times.size()), 3);
        QVERIFY2(times.at(1) <= times.at(0) * 5 / 2 && times.at(2) <= times.at(1) * 5 / 2,
                 shown(times).constData());
    }

    void byteTakesAsLongWhateverCameBefore_data()
    {
        QTest::addColumn<QByteArray>("beginning");
        QTest::addColumn<QByteArray>("repeated");
        QTest::addColumn<int>("size");
        // A head may have 64 KiB: four times this size, and the bytes after it.
        const int head = 14000;
        const QByteArray status("HTTP/1.1 200 OK\r\n");
        const QByteArray chunked(CHUNKED_HEAD);
        QTest::newRow("reason") << "HTTP/1.1 200 "_ba
                                << "x"_ba << head;
        QTest::newRow("name") << status << "x"_ba << head;
        QTest::newRow("value") << status + "X: "
                               << "y"_ba << head;
        QTest::newRow("fields") << status << "X: y\r\n"_ba << head;
        QTest::newRow("folded lines") << status + "X: y\r\n"
                                      << " \r\n"_ba << head;
        QTest::newRow("interim replies") << QByteArray() << "HTTP/1.1 100\n\n"_ba << head;
        QTest::newRow("chunk extension") << chunked + "8;"
                                         << "x"_ba << head;
        QTest::newRow("trailers") << chunked + "0\r\n"
                                  << "X: y\r\n"_ba << head;
        QTest::newRow("body") << LENGTH_HEAD + "16000000\r\n\r\n"_ba
                              << "x"_ba << 3 * MIB;
        QTest::newRow("body until the end of the connection") << QByteArray(OPEN_HEAD) << "x"_ba << 3 * MIB;
        QTest::newRow("chunk") << chunked + "f00000\r\n"
                               << "x"_ba << 3 * MIB;
        QTest::newRow("chunks of one byte") << chunked << "1\r\nx\r\n"_ba << MIB;
        QTest::newRow("chunks of 1,000 bytes") << chunked << "3e8\r\n" + QByteArray(1000, 'x') + "\r\n" << 3 * MIB;
    }

    void byteTakesAsLongWhateverCameBefore()
    {
        QFETCH(const QByteArray, beginning);
        QFETCH(const QByteArray, repeated);
        QFETCH(const int, size);
        const int length = static_cast<int>(repeated.size());
        const QByteArray after = repeated.repeated(1 + 4000 / length).left(4000);
        const QList<qint64> times = shortestTimes(2, [&](int i, Connection* connection, const Fetch& fetch) {
            connection->send(beginning + repeated.repeated(size * (i == 0 ? 1 : 4) / length));
            if (!waitUntil([&] { return connection->wasRead(); }))
                return false;
            begin = processorTime();
            sendInSegmentsOf(connection, after, 1);
            return fetch.finishes == 0 && connection->isOpen();
        });
        QCOMPARE(static_cast<int>(times.size()), 2);
        QVERIFY2(times.at(1) <= times.at(0) * 3 / 2, shown(times).constData());
    }

private:
    /// What a device does with the connection that carries a request. Returns whether all went well.
    using Exchange = std::function<bool(int number, Connection* connection, const Fetch& fetch)>;

    /// The shortest times of a few runs of each of so many exchanges, in microseconds: what else the
    /// machine does only ever adds to them. Empty if one of them fails.

    QList<qint64> shortestTimes(int exchanges, const Exchange& exchange)
    {
        QList<qint64> result;
        Fetcher fetcher;
        for (int run = 0; run < 5; ++run) {
            for (int i = 0; i < exchanges; ++i) {
                device->forget();
                Fetch fetch(fetcher.network, url());
                Connection* const connection = askedConnection("/desc.xml");
                begin = processorTime();
                if (!connection || !exchange(i, connection, fetch))
                    return {};
                const qint64 time = processorTime() - begin;
                if (run == 0)
                    result << time;
                else
                    result[i] = qMin(result.at(i), time);
            }
        }
        return result;
    }

    static void sendInSegmentsOf(Connection* connection, const QByteArray& bytes, int size)
    {
        for (int i = 0; i < bytes.size(); i += size) {
            connection->send(bytes.mid(i, size));
            QCoreApplication::processEvents();
        }
    }

    static QByteArray shown(const QList<qint64>& times)
    {
        QByteArray result;
        for (const qint64 time : times)
            result += QByteArray::number(time) + " us ";
        return result;
    }

    /// The connection that carries the request for @p path. Null if it never comes.
    Connection* askedConnection(const char* path)
    {
        const QByteArray start = "GET "_ba + path + ' ';
        return waitUntil([&] { return device->requestsFor(start).size() == 1; })
            ? device->requestsFor(start).at(0).connection.data()
            : nullptr;
    }

    /// Lets one more reply hold a body of @p size bytes. Returns whether it does, and has not failed.
    bool hold(std::vector<std::unique_ptr<Fetch>>& fetches, Fetcher& fetcher, int size)
    {
        const QByteArray path = '/' + QByteArray::number(device->requests.size());
        fetches.push_back(std::make_unique<Fetch>(fetcher.network, url(path.constData())));
        Connection* const connection = askedConnection(path.constData());
        if (!connection)
            return false;
        // One byte is missing, so the reply does not finish.
        connection->send(LENGTH_HEAD + QByteArray::number(size + 1) + "\r\n\r\n" + bodyOf(size));
        const Fetch& fetch = *fetches.back();
        waitUntil([&] { return connection->wasRead() || fetch.finishes > 0; });
        return fetch.finishes == 0;
    }

    /// When the part of a run began that is measured.
    qint64 begin = 0;
};

VELMORA_WIRE_TEST_MAIN(HttpBoundsTest)

#include "tst_httpbounds.moc"

#include <ssdp/HttpReader.h>
#include <tests/support/Literals.h>

#include <QtTest/QtTest>

using namespace Velmora;
using namespace Velmora::Tests;
using namespace Velmora::SSDP;

namespace {

const int KB = 1024;
const int MAX_BODY = 16 * KB * KB;

/// What comes of a reply.
struct Outcome
{
    HttpReader::State state;
    int status;
    QByteArray body;
    bool keepsConnection;
    qint64 used; ///< How many bytes belong to the reply.

    bool operator==(const Outcome& other) const
    {
        return state == other.state && status == other.status && body == other.body
            && keepsConnection == other.keepsConnection && used == other.used;
    }
};

QByteArray described(const Outcome& outcome)
{
    const char* const states[] = {"reading the head", "reading the body", "finished", "malformed",
                                  "out of bounds"};
    return QByteArray(states[outcome.state]) + ", status " + QByteArray::number(outcome.status) + ", body \""
        + outcome.body.left(100) + "\" of " + QByteArray::number(outcome.body.size()) + ", "
        + (outcome.keepsConnection ? "keeps" : "closes") + ", used " + QByteArray::number(outcome.used);
}

QByteArray taken(HttpReader& reader)
{
    QByteArray result(static_cast<int>(reader.body.size()), '\0');
    const qint64 size = reader.body.take(result.data(), result.size());
    return reader.body.size() == 0 ? result.left(static_cast<int>(size)) : "not all was taken"_ba;
}

/// Reads @p bytes in segments; the peer closes then if @p closes.
Outcome read(const QList<QByteArray>& segments, bool closes)
{
    HttpReader reader;
    qint64 used = 0;
    for (const QByteArray& segment : segments) {
        const qint64 part = reader.read(segment.constData(), segment.size());
        used += part;
        if (part < segment.size())
            break;
    }
    if (closes)
        reader.close();
    const QByteArray body = taken(reader);
    return {reader.state(), reader.statusCode(), body, reader.keepsConnection(), used};
}

QList<QByteArray> byteByByte(const QByteArray& bytes)
{
    QList<QByteArray> result;
    for (const char byte : bytes)
        result << QByteArray(1, byte);
    return result;
}

} // namespace

/// Replies of HTTP, whatever the segments in which they come. tests/wire/tst_httpclient.cpp has many more
/// replies, of which each comes in one segment only.
class HttpReaderTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:

    void replyIsReadInAnySegments_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<bool>("closes");
        QTest::addColumn<int>("state");
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<bool>("keeps");
        QTest::addColumn<int>("rest"); // How many bytes do not belong to the reply.
        const auto add = [](const char* name, const QByteArray& bytes, HttpReader::State state, int status,
                            const QByteArray& body, bool keeps = false, int rest = 0) {
            QTest::newRow(name) << bytes << false << int(state) << status << body << keeps << rest;
        };
        const auto addClosed = [](const char* name, const QByteArray& bytes, HttpReader::State state, int status,
                                  const QByteArray& body) {
            QTest::newRow(name) << bytes << true << int(state) << status << body << false << 0;
        };
        const auto head = HttpReader::ReadingHead;
        const auto inBody = HttpReader::ReadingBody;
        const auto finished = HttpReader::Finished;
        const auto malformed = HttpReader::Malformed;
        const QByteArray ok = "HTTP/1.1 200 OK\r\n";

        add("nothing", "", head, 0, "");
        add("a length", ok + "Content-Length: 3\r\n\r\nabc", finished, 200, "abc", true);
        add("a length of 0", ok + "Content-Length: 0\r\n\r\n", finished, 200, "", true);
        add("less than the length", ok + "Content-Length: 4\r\n\r\nabc", inBody, 200, "abc");
        addClosed("less than the length, then closed", ok + "Content-Length: 4\r\n\r\nabc", inBody, 200, "abc");
        add("more than the length", ok + "Content-Length: 3\r\n\r\nabcdef", finished, 200, "abc", true, 3);
        add("the same length twice", ok + "Content-Length: 3\r\nContent-Length: 3\r\n\r\nabc", finished, 200,
            "abc", true);
        add("two lengths", ok + "Content-Length: 3\r\nContent-Length: 4\r\n\r\nabcde", finished, 200, "abc", true,
            2);
        addClosed("a length that is no number", ok + "Content-Length: abc\r\n\r\nabc", finished, 200, "abc");
        addClosed("a negative length", ok + "Content-Length: -3\r\n\r\nabc", finished, 200, "abc");
        addClosed("a length beyond 64 bits", ok + "Content-Length: 99999999999999999999\r\n\r\nabc", finished, 200,
                  "abc");
        add("no length", ok + "\r\nabc", inBody, 200, "abc");
        addClosed("no length, then closed", ok + "\r\nabc", finished, 200, "abc");
        addClosed("no length and no body, then closed", ok + "\r\n", finished, 200, "");
        add("line feeds alone", "HTTP/1.1 200 OK\nContent-Length: 3\n\nabc", finished, 200, "abc", true);
        add("letter case", "http/1.1 200 OK\r\ncONTENT-lENGTH: 3\r\n\r\nabc", finished, 200, "abc", true);
        add("spaces before the colon", ok + "Content-Length \t: 3\r\n\r\nabc", finished, 200, "abc", true);
        add("no space after the colon", ok + "Content-Length:3\r\n\r\nabc", finished, 200, "abc", true);
        add("a folded field", ok + "Content-Length:\r\n  3\r\n\r\nabc", finished, 200, "abc", true);
        add("a folded field with a tab", ok + "Content-Length:\r\n\t3\r\n\r\nabc", finished, 200, "abc", true);
        add("a line without a colon", ok + "Content-Length 9\r\nContent-Length: 3\r\n\r\nabc", finished, 200,
            "abc", true);
        add("a longer name", ok + "Content-LengthX: 9\r\nContent-Length: 3\r\n\r\nabc", finished, 200, "abc",
            true);
        add("empty lines before the reply", "\r\n\n" + ok + "Content-Length: 1\r\n\r\na", finished, 200, "a",
            true);
        add("no reason", "HTTP/1.1 404\r\nContent-Length: 1\r\n\r\na", finished, 404, "a", true);
        add("three spaces in the status line", "HTTP/1.1   500   Oh no\r\nContent-Length: 1\r\n\r\na", finished,
            500, "a", true);
        add("a head without an end", ok + "A: b\r\n", head, 200, "");
        addClosed("a head without an end, then closed", ok + "A: b\r\n", head, 200, "");
        add("a status line without an end", "HTTP/1.1 200", head, 0, "");
        add("another protocol", "ICY 200 OK\r\n", malformed, 200, "");
        add("no protocol", "200 OK\r\n", malformed, 0, "");
        add("no status", "HTTP/1.1\r\n", malformed, 0, "");
        add("a status that is no number", "HTTP/1.1 OK\r\n", malformed, 0, "");
        add("a negative status", "HTTP/1.1 -1 OK\r\nContent-Length: 1\r\n\r\na", finished, -1, "a", true);
        add("no content", "HTTP/1.1 204 No Content\r\nContent-Length: 3\r\n\r\n", finished, 204, "", true);
        add("not modified", "HTTP/1.1 304 Not Modified\r\nContent-Length: 3\r\n\r\n", finished, 304, "", true);

        const QByteArray chunked = ok + "Transfer-Encoding: chunked\r\n\r\n";
        add("chunks", chunked + "3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n", finished, 200, "abcde", true);
        add("chunks, line feeds alone", "HTTP/1.1 200 OK\nTransfer-Encoding: chunked\n\n3\nabc\n0\n\n", finished,
            200, "abc", true);
        add("chunk length in hexadecimal", chunked + "00a\r\n0123456789\r\n0\r\n\r\n", finished, 200, "0123456789",
            true);
        add("chunk length in capitals", chunked + "A\r\n0123456789\r\n0\r\n\r\n", finished, 200, "0123456789",
            true);
        add("chunk extensions", chunked + "3;a=\"b\";c\r\nabc\r\n0;d\r\n\r\n", finished, 200, "abc", true);
        add("spaces around the chunk length", chunked + " 3 ;a\r\nabc\r\n0 \r\n\r\n", finished, 200, "abc", true);
        add("trailers", chunked + "1\r\na\r\n0\r\nContent-Length: 9\r\nX: y\r\n\r\n", finished, 200, "a", true);
        add("what follows the chunks", chunked + "1\r\na\r\n0\r\n\r\nHTTP/1.1", finished, 200, "a", true, 8);
        add("chunks without an end", chunked + "3\r\nabc\r\n", inBody, 200, "abc");
        addClosed("chunks without an end, then closed", chunked + "3\r\nabc\r\n", inBody, 200, "abc");
        addClosed("trailers without an end, then closed", chunked + "1\r\na\r\n0\r\n", inBody, 200, "a");
        add("no line end after a chunk", chunked + "3\r\nabc2\r\nde\r\n0\r\n\r\n", finished, 200, "abcde", true);
        add("an empty line before a chunk", chunked + "\r\n1\r\na\r\n0\r\n\r\n", finished, 200, "a", true);
        add("a chunk length that is no number", chunked + "1\r\na\r\nzz\r\n", malformed, 200, "a");
        add("a negative chunk length", chunked + "-5\r\n", malformed, 200, "");
        add("chunks and a length",
            ok + "Content-Length: 9\r\nTransfer-Encoding: chunked\r\n\r\n1\r\na\r\n0\r\n\r\n", finished, 200, "a",
            true);
        add("chunks among other codings", ok + "Transfer-Encoding: x, CHUNKED\r\n\r\n1\r\na\r\n0\r\n\r\n",
            finished, 200, "a", true);
        addClosed("another coding", ok + "Transfer-Encoding: chunkedx\r\n\r\nabc", finished, 200, "abc");

        add("connection closes", ok + "Connection: close\r\nContent-Length: 1\r\n\r\na", finished, 200, "a",
            false);
        add("connection closes, among others", ok + "Connection: x, Close\r\nContent-Length: 1\r\n\r\na", finished,
            200, "a", false);
        add("HTTP/1.0", "HTTP/1.0 200 OK\r\nContent-Length: 1\r\n\r\na", finished, 200, "a", false);
        add("HTTP/1.0, kept", "HTTP/1.0 200 OK\r\nConnection: Keep-Alive\r\nContent-Length: 1\r\n\r\na", finished,
            200, "a", true);
        add("kept by a proxy", "HTTP/1.0 200 OK\r\nProxy-Connection: keep-alive\r\nContent-Length: 1\r\n\r\na",
            finished, 200, "a", true);

        const QByteArray interim = "HTTP/1.1 100 Continue\r\n\r\n";
        add("an interim reply", interim + ok + "Content-Length: 1\r\n\r\na", finished, 200, "a", true);
        add("interim replies",
            interim + "HTTP/1.1 103 Early Hints\r\nContent-Length: 9\r\n\r\n" + interim + ok
                + "Content-Length: 1\r\n\r\na",
            finished, 200, "a", true);
        add("an interim reply alone", interim, head, 0, "");
        add("no connection to keep after an interim reply",
            "HTTP/1.1 100 C\r\nConnection: close\r\n\r\n" + ok + "Content-Length: 1\r\n\r\na", finished, 200, "a",
            true);

        add("a length beyond the bound", ok + "Content-Length: 16777217\r\n\r\nabc", inBody, 200, "abc");
        add("a zero byte in the body", ok + "Content-Length: 3\r\n\r\n" + QByteArray("a\0b", 3), finished, 200,
            QByteArray("a\0b", 3), true);
    }

    void replyIsReadInAnySegments()
    {
        QFETCH(const QByteArray, bytes);
        QFETCH(const bool, closes);
        QFETCH(const int, state);
        QFETCH(const int, status);
        QFETCH(const QByteArray, body);
        QFETCH(const bool, keeps);
        QFETCH(const int, rest);
        const Outcome expected = {static_cast<HttpReader::State>(state), status, body, keeps, bytes.size() - rest};

        const Outcome atOnce = read({bytes}, closes);
        QVERIFY2(atOnce == expected, described(atOnce).constData());
        const Outcome inBytes = read(byteByByte(bytes), closes);
        QVERIFY2(inBytes == expected, described(inBytes).constData());
        for (int cut = 1; cut < bytes.size(); ++cut) {
            const Outcome inTwo = read({bytes.left(cut), bytes.mid(cut)}, closes);
            QVERIFY2(inTwo == expected, (QByteArray::number(cut) + ": " + described(inTwo)).constData());
        }
    }

    void boundsHold_data()
    {
        QTest::addColumn<QByteArray>("before");
        QTest::addColumn<QByteArray>("pattern");
        QTest::addColumn<QByteArray>("last");
        QTest::addColumn<char>("filler");
        QTest::addColumn<QByteArray>("end");
        QTest::addColumn<int>("bound");
        // What comes before does not count; the rest has as many fillers as make it as long as the bound.
        const auto add = [](const char* name, const QByteArray& before, const QByteArray& pattern,
                            const QByteArray& last, char filler, const QByteArray& end, int bound = 64 * KB) {
            QTest::newRow(name) << before << pattern << last << filler << end << bound;
        };
        const QByteArray ok = "HTTP/1.1 200 OK\r\n";
        const QByteArray chunked = ok + "Transfer-Encoding: chunked\r\n\r\n";
        const QByteArray end = "\r\nContent-Length: 0\r\n\r\n";
        add("status line", "", "", "HTTP/1.1 200 ", 'x', end);
        add("a field", "", "", ok + "A: ", 'x', end);
        add("fields", "", "", ok + "A:\n"_ba.repeated(10 * KB) + "A:", 'x', end);
        add("a folded field", "", "", ok + "A:" + "\n x"_ba.repeated(10 * KB), 'x', end);
        add("empty lines", "", "\n", ok + "A:", 'x', end);
        add("interim replies", "", "HTTP/1.1 100 C\r\n\r\n", "HTTP/1.1 100 ", 'x', "\r\n\r\n");
        add("a head after an interim reply", "HTTP/1.1 100 C\r\n\r\n", "", ok + "A: ", 'x', end);
        add("a chunk length", chunked, "", "", '0', "\r\n");
        add("a chunk extension", chunked, "", "0;", 'x', "\r\n");
        // The end of the line after a chunk counts as well.
        add("a chunk extension of the second chunk", chunked + "1\r\na", "", "\r\n0;", 'x', "\r\n");
        add("empty lines between chunks", chunked + "1\r\na", "\r\n", "0;", 'x', "\r\n");
        add("a trailer", chunked + "0\r\n", "", "A: ", 'x', "\r\n\r\n");
        add("trailers", chunked + "0\r\n", "A:\n", "A:", 'x', "\r\n\r\n");
        add("a body up to the end", ok + "\r\n", "", "", 'x', "", MAX_BODY);
        add("a body of a length", ok + "Content-Length: 99999999\r\n\r\n", "", "", 'x', "", MAX_BODY);
        add("a body of one chunk", chunked + "fffffff\r\n", "", "", 'x', "", MAX_BODY);
    }

    void boundsHold()
    {
        QFETCH(const QByteArray, before);
        QFETCH(const QByteArray, pattern);
        QFETCH(const QByteArray, last);
        QFETCH(const char, filler);
        QFETCH(const QByteArray, end);
        QFETCH(const int, bound);
        const auto room = bound - last.size() - end.size();
        const QByteArray repeated =
            pattern.isEmpty() ? pattern : pattern.repeated(static_cast<int>(room / pattern.size()));
        const QByteArray begin = before + repeated + last;
        for (const int segment : {1, 1000, 64 * KB, 32 * KB * KB}) {
            if (segment == 1 && bound == MAX_BODY)
                continue; // takes seconds
            for (const int over : {0, 1}) {
                const QByteArray bytes =
                    begin + QByteArray(static_cast<int>(room - repeated.size()) + over, filler) + end;
                QCOMPARE(bytes.size() - before.size(), bound + over);
                HttpReader reader;
                qint64 used = 0;
                for (qint64 i = 0; i < bytes.size() && reader.isReading(); i += segment)
                    used += reader.read(bytes.constData() + i, qMin<qint64>(segment, bytes.size() - i));
                QCOMPARE(reader.state() == HttpReader::OutOfBounds, over == 1);
                QVERIFY(over || used == bytes.size());
                QVERIFY(reader.body.size() <= MAX_BODY);
                QVERIFY(!over || !reader.keepsConnection());
            }
        }
    }

    void longChunkedBodyIsWithinBounds()
    {
        // The lines of the chunks are longer than a body may be.
        const QByteArray chunk = "1;" + QByteArray(100, 'x') + "\r\na\r\n";
        const QByteArray chunks = chunk.repeated(1000);
        HttpReader reader;
        const QByteArray head = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
        reader.read(head.constData(), head.size());
        for (int i = 0; i < 200; ++i)
            QCOMPARE(reader.read(chunks.constData(), chunks.size()), qint64(chunks.size()));
        QCOMPARE(reader.read("0\r\n\r\n", 5), qint64(5));
        QCOMPARE(reader.state(), HttpReader::Finished);
        QCOMPARE(taken(reader), QByteArray(200 * 1000, 'a'));
    }

    void nothingIsReadAfterTheEnd()
    {
        for (const char* const bytes : {"HTTP/1.1 204 No Content\r\n\r\n", "no HTTP\r\n"}) {
            HttpReader reader;
            reader.read(bytes, static_cast<qint64>(qstrlen(bytes)));
            const HttpReader::State state = reader.state();
            QVERIFY(!reader.isReading());
            QCOMPARE(reader.read("HTTP/1.1 200 OK\r\n\r\nabc", 22), qint64(0));
            QCOMPARE(reader.state(), state);
            QCOMPARE(reader.body.size(), qint64(0));
        }
    }

    void callerMayGiveUp()
    {
        HttpReader reader;
        reader.read("HTTP/1.1 200 OK\r\n\r\nabc", 22);
        reader.exceed();
        QCOMPARE(reader.state(), HttpReader::OutOfBounds);
        QVERIFY(!reader.close());
        QVERIFY(!reader.keepsConnection());
        QCOMPARE(reader.read("x", 1), qint64(0));
    }

    void bodyMayBeTakenWhileItComes()
    {
        HttpReader reader;
        const QByteArray head = "HTTP/1.1 200 OK\r\n\r\n";
        reader.read(head.constData(), head.size());
        QByteArray whole;
        const QByteArray piece(100 * KB, 'x');
        // What was taken counts all the same.
        while (reader.isReading()) {
            reader.read(piece.constData(), piece.size());
            whole += taken(reader);
        }
        QCOMPARE(reader.state(), HttpReader::OutOfBounds);
        QVERIFY(whole.size() <= MAX_BODY && whole.size() > MAX_BODY - piece.size());
    }

    void queueKeepsTheOrder()
    {
        QByteArray expected;
        for (int i = 0; expected.size() < 300 * KB; ++i)
            expected += QByteArray::number(i) + ' ';
        for (const int written : {1, 7, 1000, 70000}) {
            for (const int read : {1, 9, 70001}) {
                ByteQueue queue;
                QByteArray result;
                QByteArray part(read, '\0');
                for (int i = 0; i < expected.size(); i += written) {
                    const QByteArray next = expected.mid(i, written);
                    queue.append(next.constData(), next.size());
                    // Half of what there is, so that it grows and shrinks at once.
                    if (queue.size() >= 2 * read)
                        result += part.left(static_cast<int>(queue.take(part.data(), read)));
                }
                QCOMPARE(queue.size(), qint64(expected.size() - result.size()));
                while (queue.size() > 0)
                    result += part.left(static_cast<int>(queue.take(part.data(), read)));
                QVERIFY(result == expected);
                QCOMPARE(queue.take(part.data(), read), qint64(0));
            }
        }
        ByteQueue queue;
        queue.append("abc", 3);
        queue.clear();
        QCOMPARE(queue.size(), qint64(0));
        queue.append("de", 2);
        char part[4] = {};
        QCOMPARE(queue.take(part, 4), qint64(2));
        QCOMPARE(QByteArray(part), "de"_ba);
    }

    void fieldsOfTheHead()
    {
        HttpReader reader;
        QCOMPARE(reader.announcedLength(), qint64(-1));
        const QByteArray redirect =
            "HTTP/1.1 302  Moved  away \r\nLocation : /other \r\nContent-Length: 7\r\n\r\n";
        reader.read(redirect.constData(), redirect.size());
        QCOMPARE(reader.statusCode(), 302);
        QCOMPARE(reader.reason(), "Moved  away"_ba);
        QCOMPARE(reader.location(), "/other"_ba);
        QCOMPARE(reader.announcedLength(), qint64(7));

        HttpReader inChunks;
        const QByteArray chunked = "HTTP/1.1 200 OK\r\nContent-Length: 7\r\nTransfer-Encoding: chunked\r\n\r\n";
        inChunks.read(chunked.constData(), chunked.size());
        QCOMPARE(inChunks.announcedLength(), qint64(-1));
        QCOMPARE(inChunks.location(), QByteArray());
    }
};

QTEST_APPLESS_MAIN(HttpReaderTest)
#include "tst_httpreader.moc"

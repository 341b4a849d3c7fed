#include <tests/support/HttpTest.h>
#include <tests/support/Linear.h>

using namespace Velmora::Tests;

/// The library takes a reply from the network in linear time, however small its segments are.
/// tests/unit/tst_linear.cpp tests many more contents, without a network.
class LinearRepliesTest : public HttpTest
{
    Q_OBJECT

private Q_SLOTS:
    void timeIsLinear_data()
    {
        const Table<QByteArray, QByteArray, int, int> row("beginning", "repeated", "size", "segment");
        row("fields in segments of 5 bytes", "HTTP/1.1 200 OK\r\n", "X: y\r\n", 3000, 5);
        row("body in segments of 100 bytes", "HTTP/1.1 200 OK\r\n\r\n", "x", 64 * 1024, 100);
        row("chunks in segments of 100 bytes", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n",
            "1\r\nx\r\n", 64 * 1024, 100);
    }

    void timeIsLinear()
    {
        QFETCH(const QByteArray, beginning);
        QFETCH(const QByteArray, repeated);
        QFETCH(const int, size);
        QFETCH(const int, segment);
        Fetcher fetcher;
        int reads = 0;
        const auto maker = [&](int length) -> Work {
            const QByteArray bytes = beginning + repeated.repeated(length / static_cast<int>(repeated.size()));
            return [&, bytes] {
                device->forget();
                const Fetch fetch(fetcher.network, url());
                Connection* const connection = requestFor("GET ");
                if (!connection)
                    return;
                for (int i = 0; i < bytes.size(); i += segment) {
                    connection->send(bytes.mid(i, segment));
                    QCoreApplication::processEvents();
                }
                if (waitUntil([&] { return connection->wasRead(); }) && fetch.finishes == 0)
                    ++reads;
            };
        };
        VERIFY_LINEAR(maker, size);
        QCOMPARE(reads, 4);
    }
};

VELMORA_WIRE_TEST_MAIN(LinearRepliesTest)
#include "tst_linearreplies.moc"

// What a server answers to a GET, over a real connection, cut in pieces. The first byte says how the
// connection ends, the next two where the reply is cut.

#include <tests/fuzz/Harness.h>

#include <ssdp/HttpReader.h>
#include <tests/support/Literals.h>
#include <tests/support/ManagerAccess.h>

#include <QtNetwork/QNetworkRequest>

using namespace Velmora::Tests;
using namespace Velmora;

namespace {

const int MAX_BODY = 16 * 1024 * 1024;

enum End { Closes, Resets, StaysOpen };

/// What the bytes mean when they come at once, and the connection is closed after them.
QByteArray wholeBody(const QByteArray& bytes, bool* hasHead)
{
    SSDP::HttpReader reader;
    reader.read(bytes.constData(), bytes.size());
    *hasHead = reader.state() != SSDP::HttpReader::ReadingHead;
    reader.close();
    QByteArray body(static_cast<int>(reader.body.size()), '\0');
    reader.body.take(body.data(), body.size());
    return reader.state() == SSDP::HttpReader::OutOfBounds ? QByteArray() : body;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 3)
        return 0;
    static Fuzz::Server server;
    const End end = static_cast<End>(data[0] % 3);
    const QByteArray answer = Fuzz::bytesOf(data, size, 3);
    const int first = data[1];
    const int second = first + data[2];

    SSDP::SsdpManager manager{QHostAddress(QHostAddress::LocalHost)};
    QNetworkAccessManager& network = Tests::ManagerAccess(manager).networkManager();
    // The control point would read the reply and let it go.
    QObject::disconnect(&network, nullptr, &manager, nullptr);
    const QUrl url("http://127.0.0.1:%1/d.xml"_s.arg(server.port));
    QNetworkReply* const reply = network.get(QNetworkRequest(url));
    int finishes = 0;
    QObject::connect(reply, &QNetworkReply::finished, reply, [&finishes] { ++finishes; });
    Fuzz::settle();

    {
        Fuzz::Peer peer = server.accept();
        peer.send(answer.left(first));
        Fuzz::settle();
        peer.send(answer.mid(first, second - first));
        Fuzz::settle();
        peer.send(answer.mid(second));
        if (end == Closes)
            peer.finish();
        Fuzz::settle();
        if (end == StaysOpen && finishes == 0) {
            reply->abort();
            Fuzz::require(finishes == 1, "an aborted reply finishes");
        }
        if (end == Resets)
            peer.reset();
        Fuzz::settle();
    }
    // A request without a reply is sent again, and nobody answers it either.
    while (server.closeNext())
        Fuzz::settle();

    Fuzz::require(finishes == 1, "the reply finishes once");
    Fuzz::require(reply->bytesAvailable() <= MAX_BODY, "the body has a bound");
    bool hasHead = false;
    const QByteArray expected = wholeBody(answer, &hasHead);
    if (end == Closes && hasHead)
        Fuzz::require(reply->readAll() == expected, "the cuts do not change the body");
    return 0;
}

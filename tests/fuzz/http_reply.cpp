// The reply to a GET, over a real connection. The first byte says how the connection ends. The next two say how
// long the first and the second segment are.

#include <tests/fuzz/Harness.h>

#include <ssdp/HttpReader.h>
#include <tests/support/Literals.h>

#include <QtNetwork/QNetworkRequest>

using namespace Velmora::Fuzz;
using namespace Velmora::Tests;
using Velmora::SSDP::HttpReader;

namespace {

const int MAX_BODY = 16 * 1024 * 1024;

enum End { Closes, Resets, StaysOpen };

/// Returns the body of a reply that is read at once, before the connection is closed.
QByteArray wholeBody(const QByteArray& bytes, bool* hasHead)
{
    HttpReader reader;
    reader.read(bytes.constData(), bytes.size());
    *hasHead = reader.state() != HttpReader::ReadingHead;
    reader.close();
    QByteArray body(static_cast<int>(reader.body.size()), '\0');
    reader.body.take(body.data(), body.size());
    return reader.state() == HttpReader::OutOfBounds ? QByteArray() : body;
}

} // namespace

void Velmora::Fuzz::test(QByteArray& input)
{
    static Server server;
    const auto end = static_cast<End>(takeByte(input) % 3);
    const int first = takeByte(input);
    const int second = takeByte(input);
    ControlPoint control;
    QNetworkAccessManager& network = control.access.networkManager();
    // The control point would read the reply and delete it.
    QObject::disconnect(&network, nullptr, &control, nullptr);
    QNetworkReply* const reply =
        network.get(QNetworkRequest(QUrl("http://127.0.0.1:%1/d.xml"_s.arg(server.serverPort()))));
    int finishes = 0;
    const QObject context;
    QObject::connect(reply, &QNetworkReply::finished, &context, [count = &finishes] { ++*count; });
    settle();

    Peer device = server.accept();
    device.sendSegments({input.left(first), input.mid(first, second), input.mid(first + second)});
    if (end == Closes)
        device.finish();
    settle();
    if (end == StaysOpen && finishes == 0) {
        reply->abort();
        require(finishes == 1, "an aborted reply finishes");
    }
    device.reset();
    settle();
    // A request whose reply has no complete head is sent again.
    while (server.closeNext())
        settle();

    require(finishes == 1, "the reply finishes once");
    require(reply->bytesAvailable() <= MAX_BODY, "the body has a bound");
    bool hasHead = false;
    const QByteArray expected = wholeBody(input, &hasHead);
    if (end == Closes && hasHead)
        require(reply->readAll() == expected, "the segments do not change the body");
}

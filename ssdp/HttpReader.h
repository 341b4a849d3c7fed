#ifndef VELMORA_SSDP_HTTPREADER_H
#define VELMORA_SSDP_HTTPREADER_H

#include <QtCore/QByteArray>
#include <QtCore/QList>

namespace Velmora {
namespace SSDP {

/// A sequence of bytes that grows and is read from its front, both without moving what it holds.
class ByteQueue
{
public:
    ByteQueue();

    void append(const char* data, qint64 size);
    /// Takes at most @p size bytes off the front. Returns how many.
    qint64 take(char* data, qint64 size);
    void clear();
    qint64 size() const { return total; }

private:
    QList<QByteArray> blocks;
    int offset; ///< How much of the first block is taken.
    qint64 total;
};

/**
 * Reads the reply to one GET of HTTP/1.1, as its bytes come, in any segments (RFC 7230).
 *
 * It is as lenient as devices need: lines end with CR LF or LF alone, names are compared without regard
 * to case, fields may be folded and have spaces before their colon. Interim replies (1xx) are skipped.
 * Each byte is looked at a constant number of times.
 *
 * Bounds: 64 KiB for the head, for all interim replies together, for the lines between two chunks and
 * for the trailers, and 16 MiB for the body.
 */
class HttpReader
{
public:
    enum State {
        ReadingHead, ///< Including interim replies.
        ReadingBody,
        Finished, ///< The reply is complete; what comes after it does not belong to it.
        Malformed, ///< It is no reply of HTTP, or its chunks have no sizes.
        OutOfBounds
    };

    HttpReader();

    /// Reads @p data, and returns how much of it belongs to the reply: all, unless the state leaves reading.
    qint64 read(const char* data, qint64 size);

    /**
     * The peer has closed the connection. Completes a body that has no length of its own.
     * @return whether the reply is complete
     */
    bool close();

    /// Gives up: the caller has a bound of its own.
    void exceed() { currentState = OutOfBounds; }

    State state() const { return currentState; }
    bool isReading() const { return currentState == ReadingHead || currentState == ReadingBody; }
    /// Whether the reply is complete, and the connection can carry the next request.
    bool keepsConnection() const { return currentState == Finished && persistent && !endsWithConnection; }

    int statusCode() const { return status; }
    const QByteArray& reason() const { return reasonPhrase; }
    /// The value of the Location field, as a redirect has one.
    const QByteArray& location() const { return locationField; }
    /// What the Content-Length field announces; -1 if there is none, or if the body comes in chunks.
    qint64 announcedLength() const { return isChunked ? -1 : contentLength; }

    /// The body as far as it has come. The caller may take from it at any time.
    ByteQueue body;

private:
    enum LineKind { StatusLine, FieldLine, ChunkSizeLine, TrailerLine };

    qint64 readLine(const char* data, qint64 size);
    void handleLine();
    void handleStatusLine();
    void handleField();
    void beginBody();
    void handleChunkSize();
    qint64 readBody(const char* data, qint64 size);

    State currentState;
    LineKind lineKind;
    QByteArray line;
    QByteArray field; ///< The last field, to which a folded line may add.
    qint64 headSize;
    qint64 interimSize;
    qint64 linesSize; ///< Of the lines between two chunks, and of the trailers.

    int status;
    QByteArray reasonPhrase;
    QByteArray locationField;
    bool persistent;
    bool isChunked;
    bool endsWithConnection;
    bool hasLengthField;
    qint64 contentLength;
    qint64 bodySize;
    qint64 remaining; ///< Of the body, or of the chunk.
};

} // namespace SSDP
} // namespace Velmora

#endif

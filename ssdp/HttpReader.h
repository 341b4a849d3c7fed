#ifndef VELMORA_SSDP_HTTPREADER_H
#define VELMORA_SSDP_HTTPREADER_H

#include <QtCore/QByteArray>
#include <QtCore/QList>

namespace Velmora {
namespace SSDP {

/// A queue of bytes. Neither append() nor take() moves the bytes that stay in it.
class ByteQueue
{
public:
    ByteQueue();

    void append(const char* data, qint64 size);
    /// Takes at most @p size bytes from the front. Returns their number.
    qint64 take(char* data, qint64 size);
    void clear();
    qint64 size() const { return total; }

private:
    QList<QByteArray> blocks;
    int offset; ///< The number of bytes that were taken from the first block.
    qint64 total;
};

/**
 * Reads the reply to one GET of HTTP/1.1 (RFC 7230), in segments of any size.
 *
 * Devices need a lenient reader. Lines end with CR LF or LF alone. Names may be in upper or lower case.
 * Fields may be folded, and may have spaces before the colon. Interim replies (1xx) are skipped.
 *
 * The time is linear in the size of the reply. Its bounds are 64 KiB each for the head, for all interim
 * replies together, for the lines between two chunks and for the trailers, and 16 MiB for the body.
 */
class HttpReader
{
public:
    enum State {
        ReadingHead, ///< The head of the reply or of an interim reply.
        ReadingBody,
        Finished, ///< The reply is complete. Later bytes do not belong to it.
        Malformed, ///< It is not an HTTP reply, or the size of a chunk is not a number.
        OutOfBounds
    };

    HttpReader();

    /// Reads @p data. Returns how much of it belongs to the reply: all, unless the reply ends in it.
    qint64 read(const char* data, qint64 size);

    /**
     * Call this when the peer has closed the connection. It completes a body without a length.
     * @return whether the reply is complete
     */
    bool close();

    /// Stops reading, as if the reply were out of bounds. For a bound of the caller.
    void exceed() { currentState = OutOfBounds; }

    State state() const { return currentState; }
    bool isReading() const { return currentState == ReadingHead || currentState == ReadingBody; }
    /// Whether the reply is complete and the connection can be used for the next request.
    bool keepsConnection() const { return currentState == Finished && persistent && !endsWithConnection; }

    int statusCode() const { return status; }
    const QByteArray& reason() const { return reasonPhrase; }
    /// The value of the Location field, which a redirect has.
    const QByteArray& location() const { return locationField; }
    /// The value of the Content-Length field. -1 if there is none, or if the body is chunked.
    qint64 announcedLength() const { return isChunked ? -1 : contentLength; }

    /// The body that was received so far. The caller may take from it at any time.
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
    QByteArray field; ///< The last field. A folded line is appended to it.
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
    qint64 remaining; ///< The bytes that are missing from the body or the chunk.
};

} // namespace SSDP
} // namespace Velmora

#endif

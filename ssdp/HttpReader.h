#ifndef VELMORA_SSDP_HTTPREADER_H
#define VELMORA_SSDP_HTTPREADER_H

#include <QtCore/QByteArray>
#include <QtCore/QList>

namespace Velmora {
namespace SSDP {

/// A queue of bytes. append() and take() do not move the bytes that stay in the queue.
class ByteQueue
{
public:
    ByteQueue();

    void append(const char* data, qint64 size);
    /// Removes at most @p size bytes from the front and copies them to @p data. Returns their number.
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
 * The reader is lenient, because devices make mistakes. Lines end with CR LF or LF alone. Names may be in
 * upper or lower case. Fields may be folded, and may have spaces before the colon. Interim replies (1xx)
 * are skipped.
 *
 * The time grows linearly with the size of the reply. The body may have 16 MiB. The head may have 64 KiB.
 * This bound also applies to all interim replies together, to the lines between two chunks, and to the
 * trailers.
 */
class HttpReader
{
public:
    enum State {
        ReadingHead, ///< The head of the reply or of an interim reply.
        ReadingBody, ///< The body, including chunk sizes and trailers.
        Finished, ///< The reply is complete. Later bytes do not belong to it.
        Malformed, ///< It is not an HTTP reply, or the size of a chunk is not a number.
        OutOfBounds ///< The reply exceeds a bound.
    };

    HttpReader();

    /// Reads @p data. Returns how many of its bytes belong to the reply. These are all bytes, unless the
    /// reply ends before the end of @p data.
    qint64 read(const char* data, qint64 size);

    /**
     * Call this when the peer has closed the connection. If the body has no length, it is then complete.
     * @return whether the reply is complete
     */
    bool close();

    /// Stops reading, as if the reply exceeded a bound. Call this if the reply exceeds a bound of the caller.
    void exceed() { currentState = OutOfBounds; }

    State state() const { return currentState; }
    bool isReading() const { return currentState == ReadingHead || currentState == ReadingBody; }
    /// Returns whether the reply is complete and the connection can be used for the next request.
    bool keepsConnection() const { return currentState == Finished && persistent && !endsWithConnection; }

    int statusCode() const { return status; }
    const QByteArray& reason() const { return reasonPhrase; }
    /// The value of the Location field. Empty if there is none. A redirect has this field.
    const QByteArray& location() const { return locationField; }
    /// The value of the Content-Length field. -1 if there is no such field or if the body is chunked.
    qint64 announcedLength() const { return isChunked ? -1 : contentLength; }

    /// The received part of the body. The caller may take bytes from it at any time.
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
    qint64 linesSize; ///< The size of the lines since the last chunk, or of the trailers.

    int status;
    QByteArray reasonPhrase;
    QByteArray locationField;
    bool persistent;
    bool isChunked;
    bool endsWithConnection;
    bool hasLengthField;
    qint64 contentLength;
    qint64 bodySize;
    qint64 remaining; ///< The number of bytes that are missing from the body or the chunk.
};

} // namespace SSDP
} // namespace Velmora

#endif

#include <ssdp/HttpReader.h>

#include <cstring>

namespace Velmora {
namespace SSDP {

namespace {

const qint64 KIB = 1024;
const qint64 MAX_HEAD = 64 * KIB;
const qint64 MAX_INTERIM = 64 * KIB;
const qint64 MAX_LINES = 64 * KIB;
const qint64 MAX_LINE = 64 * KIB;
const qint64 MAX_BODY = 16 * KIB * KIB;
const qint64 MAX_BLOCK = 64 * KIB;

/// Returns the part of @p text before the first @p end. If there is none, returns all of @p text.
QByteArray partBefore(const QByteArray& text, char end)
{
    const int position = static_cast<int>(text.indexOf(end));
    return position == -1 ? text : text.left(position);
}

bool equalsName(const QByteArray& name, const char* expected)
{
    return qstricmp(name.constData(), expected) == 0;
}

/// Returns whether the comma-separated list @p value contains @p token, in upper or lower case. Parameters
/// after a semicolon are ignored.
bool hasToken(const QByteArray& value, const char* token)
{
    const QList<QByteArray> tokens = value.split(',');
    for (const QByteArray& candidate : tokens) {
        if (equalsName(partBefore(candidate, ';').trimmed(), token))
            return true;
    }
    return false;
}

} // namespace

ByteQueue::ByteQueue()
    : offset(0)
    , total(0)
{
}

void ByteQueue::append(const char* data, qint64 size)
{
    while (size > 0) {
        if (blocks.isEmpty() || blocks.last().size() == blocks.last().capacity()) {
            // The new block is as large as the queue. So a small body takes little memory, and a large body
            // takes few blocks.
            blocks.append(QByteArray());
            blocks.last().reserve(static_cast<int>(qMin(qMax(size, total), MAX_BLOCK)));
        }
        QByteArray& last = blocks.last();
        const qint64 part = qMin<qint64>(size, last.capacity() - last.size());
        last.append(data, static_cast<int>(part));
        data += part;
        size -= part;
        total += part;
    }
}

qint64 ByteQueue::take(char* data, qint64 size)
{
    qint64 taken = 0;
    while (taken < size && total > 0) {
        const QByteArray& first = blocks.first();
        const qint64 part = qMin<qint64>(size - taken, first.size() - offset);
        std::memcpy(data + taken, first.constData() + offset, static_cast<size_t>(part));
        taken += part;
        total -= part;
        offset += static_cast<int>(part);
        if (offset == first.size()) {
            blocks.removeFirst();
            offset = 0;
        }
    }
    return taken;
}

void ByteQueue::clear()
{
    blocks.clear();
    offset = 0;
    total = 0;
}

HttpReader::HttpReader()
    : currentState(ReadingHead)
    , lineKind(StatusLine)
    , headSize(0)
    , interimSize(0)
    , linesSize(0)
    , status(0)
    , persistent(false)
    , isChunked(false)
    , endsWithConnection(false)
    , hasLengthField(false)
    , contentLength(-1)
    , bodySize(0)
    , remaining(0)
{
}

qint64 HttpReader::read(const char* data, qint64 size)
{
    qint64 used = 0;
    while (used < size && isReading()) {
        const bool readsLine = currentState == ReadingHead || (isChunked && remaining == 0);
        used += readsLine ? readLine(data + used, size - used) : readBody(data + used, size - used);
    }
    return used;
}

bool HttpReader::close()
{
    if (currentState == ReadingBody && endsWithConnection && !isChunked)
        currentState = Finished;
    return currentState == Finished;
}

qint64 HttpReader::readLine(const char* data, qint64 size)
{
    const void* const end = std::memchr(data, '\n', static_cast<size_t>(size));
    const qint64 part = end ? static_cast<const char*>(end) - data + 1 : size;

    qint64 available = MAX_LINE - line.size();
    if (currentState == ReadingHead) {
        headSize += part;
        available = qMin(available, MAX_HEAD - headSize + part);
        if (status / 100 == 1)
            available = qMin(available, MAX_INTERIM - interimSize - headSize + part);
    } else {
        linesSize += part;
        available = qMin(available, MAX_LINES - linesSize + part);
    }
    if (part > available) {
        currentState = OutOfBounds;
        return part;
    }

    line.append(data, static_cast<int>(part));
    if (end) {
        line.chop(line.endsWith("\r\n") ? 2 : 1);
        handleLine();
        line.clear();
    }
    return part;
}

void HttpReader::handleLine()
{
    switch (lineKind) {
    case StatusLine:
        // A peer may send empty lines before the reply.
        if (!line.trimmed().isEmpty())
            handleStatusLine();
        break;
    case FieldLine:
        if (line.startsWith(' ') || line.startsWith('\t')) {
            field += line;
            break;
        }
        handleField();
        field = line;
        if (line.isEmpty())
            beginBody();
        break;
    case ChunkSizeLine:
        // A chunk ends with an empty line. Some servers send more empty lines.
        if (!line.isEmpty())
            handleChunkSize();
        break;
    case TrailerLine:
        if (line.isEmpty())
            currentState = Finished;
        break;
    }
}

void HttpReader::handleStatusLine()
{
    // For example "HTTP/1.1 200 OK". The last part may be missing.
    const QByteArray text = line.trimmed();
    const QByteArray version = partBefore(text, ' ');
    const QByteArray rest = text.mid(version.size()).trimmed();
    const QByteArray code = partBefore(rest, ' ');
    bool isNumber = false;
    status = code.toInt(&isNumber);
    if (!isNumber || version.size() < 8 || qstrnicmp(version.constData(), "HTTP/", 5) != 0) {
        currentState = Malformed;
        return;
    }
    reasonPhrase = rest.mid(code.size()).trimmed();
    persistent = !version.endsWith(".0");
    lineKind = FieldLine;
}

void HttpReader::handleField()
{
    const int colon = static_cast<int>(field.indexOf(':'));
    if (colon == -1)
        return;
    const QByteArray name = field.left(colon).trimmed();
    const QByteArray value = field.mid(colon + 1).trimmed();
    if (equalsName(name, "Content-Length")) {
        // Only the first field counts. If it is not a length, the body ends when the connection is closed.
        bool isNumber = false;
        const qint64 length = value.toLongLong(&isNumber);
        if (!hasLengthField && isNumber && !value.startsWith('-'))
            contentLength = length;
        hasLengthField = true;
    } else if (equalsName(name, "Transfer-Encoding")) {
        isChunked = isChunked || hasToken(value, "chunked");
    } else if (equalsName(name, "Connection") || equalsName(name, "Proxy-Connection")) {
        if (hasToken(value, "close"))
            persistent = false;
        else if (hasToken(value, "keep-alive"))
            persistent = true;
    } else if (equalsName(name, "Location")) {
        locationField = value;
    }
}

void HttpReader::beginBody()
{
    if (status / 100 == 1) {
        const qint64 size = interimSize + headSize;
        *this = HttpReader();
        interimSize = size;
        return;
    }
    const bool hasBody = status != 204 && status != 304 && (isChunked || contentLength != 0);
    currentState = hasBody ? ReadingBody : Finished;
    endsWithConnection = hasBody && !isChunked && contentLength == -1;
    lineKind = ChunkSizeLine;
    remaining = isChunked ? 0 : contentLength;
}

void HttpReader::handleChunkSize()
{
    const QByteArray size = partBefore(line, ';').trimmed();
    bool isNumber = false;
    linesSize = 0;
    remaining = size.toLongLong(&isNumber, 16);
    if (!isNumber || remaining < 0)
        currentState = Malformed;
    else if (remaining == 0)
        lineKind = TrailerLine;
}

qint64 HttpReader::readBody(const char* data, qint64 size)
{
    const qint64 part = endsWithConnection ? size : qMin(size, remaining);
    if (part > MAX_BODY - bodySize) {
        currentState = OutOfBounds;
        return part;
    }
    body.append(data, part);
    bodySize += part;
    if (!endsWithConnection) {
        remaining -= part;
        if (remaining == 0 && !isChunked)
            currentState = Finished;
    }
    return part;
}

} // namespace SSDP
} // namespace Velmora

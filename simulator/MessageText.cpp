#include <simulator/MessageText.h>

namespace Velmora {
namespace Simulator {

int headLength(const QByteArray& text)
{
    qsizetype end = -1;
    while ((end = text.indexOf('\n', end + 1)) != -1) {
        const qsizetype next = end + 1;
        if (text.mid(next, 1) == "\n")
            return static_cast<int>(next + 1);
        if (text.mid(next, 2) == "\r\n")
            return static_cast<int>(next + 2);
    }
    return -1;
}

QByteArray headerOf(const QByteArray& head, const char* name)
{
    const QByteArray wanted = QByteArray(name).toLower();
    const QList<QByteArray> lines = head.split('\n');
    for (const QByteArray& line : lines) {
        const qsizetype colon = line.indexOf(':');
        if (colon != -1 && line.left(colon).trimmed().toLower() == wanted)
            return line.mid(colon + 1).trimmed();
    }
    return QByteArray();
}

QByteArray headOf(const QList<QByteArray>& lines)
{
    return lines.join("\r\n") + "\r\n\r\n";
}

} // namespace Simulator
} // namespace Velmora

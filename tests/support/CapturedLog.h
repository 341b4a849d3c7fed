#ifndef VELMORA_TESTS_CAPTUREDLOG_H
#define VELMORA_TESTS_CAPTUREDLOG_H

#include <QtCore/QList>
#include <QtCore/QStringList>

namespace Velmora {
namespace Tests {

/// A line as the library built it: its severity and the pieces that were streamed into it.
struct LogLine
{
    int severity;
    QStringList pieces;
};

/// The lines that were logged, when the program is linked to this libLog.so.2 instead of the real one.
class Q_DECL_EXPORT CapturedLog
{
public:
    static QList<LogLine> lines();
    static void clear();

    /// Every line as its severity and its pieces, joined by "|": "0|Ssdp device|http://10.77.1.1/d.xml".
    static QStringList all();
};

} // namespace Tests
} // namespace Velmora

#endif

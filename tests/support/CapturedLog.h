#ifndef VELMORA_TESTS_CAPTUREDLOG_H
#define VELMORA_TESTS_CAPTUREDLOG_H

#include <QtCore/QStringList>

namespace Velmora {
namespace Tests {

/// The log of a program that is linked with this libLog.so.2 instead of the real one.
class Q_DECL_EXPORT CapturedLog
{
public:
    /// Returns the lines. Each is its severity and its pieces, joined by "|", as "0|Ssdp
    /// device|http://10.77.1.1/d.xml".
    static QStringList all();
    static void clear();
};

} // namespace Tests
} // namespace Velmora

#endif

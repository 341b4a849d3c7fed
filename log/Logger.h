#ifndef VELMORA_LOG_LOGGER_H
#define VELMORA_LOG_LOGGER_H

#include <ssdp/QtVersion.h>

#include <QtCore/QtGlobal>

class QString;

namespace Velmora {
namespace Log {

/**
 * One line of the log, written when the object goes out of scope.
 *
 * @code
 * Logger(Logger::Information) << "Ssdp device" << location;
 * @endcode
 *
 * This is the interface of libLog.so.2. libSsdp links it dynamically and uses nothing else of it, so
 * any library of that name that is compiled against this header takes the place of the one built
 * here, without libSsdp being built again.
 *
 * The implementation built here hands every line to Qt's own logging. From Qt 5 on it belongs to the
 * category "velmora.ssdp" (QtInfoMsg or QtCriticalMsg), which is switched off with the filter rule
 * "velmora.ssdp.info=false"; Qt 4.8 has no categories and gets QtDebugMsg or QtCriticalMsg. The
 * pieces of a line are joined by one blank. Control characters (C0, DEL, C1 and the Unicode line and
 * paragraph separators) and format characters (such as those that change the direction) are written
 * as escapes, so a line stays one line, and reads as it stands, whatever a device sent. Of a piece
 * longer than 1,024 characters (UTF-16 code units) the rest is left out and counted:
 * "[3072 characters left out]".
 *
 * A line may be written from any thread; one object is used by one thread.
 */
class Q_DECL_EXPORT Logger
{
public:
    /// What a line is about.
    enum Severity {
        Information = 0, ///< Progress: what was found, what was set up.
        Error = 1 ///< A failure; the first piece is the signature of the failing function.
    };

    /// Begins a line. Nothing is written yet.
    Logger(Severity severity);

    /// Writes the line, also when no piece was added to it.
    ~Logger();

    /// Adds @p text, read as Latin-1 up to its terminating zero. A null pointer adds an empty piece.
    Logger& operator<<(const char* text);

    /// Adds @p text.
    Logger& operator<<(const QString& text);

private:
    Q_DISABLE_COPY(Logger)

    struct Line;
    Line* line;
};

} // namespace Log
} // namespace Velmora

#endif

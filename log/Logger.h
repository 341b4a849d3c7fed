#ifndef VELMORA_LOG_LOGGER_H
#define VELMORA_LOG_LOGGER_H

#include <ssdp/QtVersion.h>

#include <QtCore/QtGlobal>

class QString;

namespace Velmora {
namespace Log {

/**
 * One line of the log. The destructor writes it.
 *
 * @code
 * Logger(Logger::Information) << "Ssdp device" << location;
 * @endcode
 *
 * Each operator<< adds a piece to the line. The pieces are joined with single spaces.
 *
 * This class is the whole interface of libLog.so.2. libSsdp links that library dynamically. Any library
 * with this soname, compiled against this header, can replace it. libSsdp need not be built again.
 *
 * The library in this project passes every line to Qt's logging:
 * - With Qt 5 and 6, the category is "velmora.ssdp", and the type is QtInfoMsg or QtCriticalMsg. The
 *   filter rule "velmora.ssdp.info=false" turns off all lines except failures.
 * - Qt 4.8 has no categories. The type is QtDebugMsg or QtCriticalMsg.
 *
 * @note Control characters and format characters are written as escapes. So the text of a device cannot
 * end the line or change how it is displayed. Control characters are C0, DEL, C1 and the Unicode line
 * and paragraph separators. Format characters are, for example, those that change the text direction.
 *
 * @note A piece is cut after 1,024 UTF-16 code units. The number of omitted code units follows, as in
 * "[3072 characters left out]".
 *
 * @note Any thread may write lines.
 *
 * @warning Use each object in one thread only.
 */
class Q_DECL_EXPORT Logger
{
public:
    /// The kind of a line.
    enum Severity {
        Information = 0, ///< Progress, such as a device that was found.
        Error = 1 ///< A failure. Most of these lines begin with the signature of the function that failed.
    };

    /// Begins a line. Nothing is written yet.
    Logger(Severity severity);

    /// Writes the line, even if it has no pieces.
    ~Logger();

    /// Adds @p text, a zero-terminated Latin-1 string. A null pointer adds an empty piece.
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

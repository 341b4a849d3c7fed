#include <tests/support/CapturedLog.h>

#include <log/Logger.h>

namespace Velmora {

static QStringList& captured()
{
    static QStringList lines;
    return lines;
}

namespace Log {

struct Logger::Line
{
    QStringList pieces;
};

Logger::Logger(Severity severity)
    : line(new Line{{QString::number(severity)}})
{
}

Logger::~Logger()
{
    captured() << line->pieces.join("|");
    delete line;
}

Logger& Logger::operator<<(const char* text)
{
    return *this << QString::fromLatin1(text);
}

Logger& Logger::operator<<(const QString& text)
{
    line->pieces << text;
    return *this;
}

} // namespace Log

namespace Tests {

QStringList CapturedLog::all()
{
    return captured();
}

void CapturedLog::clear()
{
    captured().clear();
}

} // namespace Tests
} // namespace Velmora

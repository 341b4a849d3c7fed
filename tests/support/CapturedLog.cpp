#include <tests/support/CapturedLog.h>

#include <log/Logger.h>

namespace Velmora {

namespace {

QList<Tests::LogLine>& captured()
{
    static QList<Tests::LogLine> lines;
    return lines;
}

} // namespace

namespace Log {

struct Logger::Line : Tests::LogLine
{
};

Logger::Logger(Severity severity)
    : line(new Line)
{
    line->severity = severity;
}

Logger::~Logger()
{
    captured().append(*line);
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

QList<LogLine> CapturedLog::lines()
{
    return captured();
}

void CapturedLog::clear()
{
    captured().clear();
}

QStringList CapturedLog::all()
{
    QStringList result;
    for (const LogLine& line : captured())
        result << (QStringList(QString::number(line.severity)) + line.pieces).join("|");
    return result;
}

} // namespace Tests
} // namespace Velmora

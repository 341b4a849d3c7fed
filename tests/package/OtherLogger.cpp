// Another logging library. Of this project, it uses only the installed header.
#include <log/Logger.h>

#include <QtCore/QString>
#include <cstdio>

namespace Velmora {
namespace Log {

struct Logger::Line
{
    QString text;
};

Logger::Logger(Severity)
    : line(new Line)
{
}

Logger::~Logger()
{
    std::fprintf(stderr, "other log: %s\n", qPrintable(line->text));
    delete line;
}

Logger& Logger::operator<<(const char* text)
{
    return *this << QString::fromLatin1(text);
}

Logger& Logger::operator<<(const QString& text)
{
    line->text += text;
    return *this;
}

} // namespace Log
} // namespace Velmora

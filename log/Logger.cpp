#include <log/Logger.h>

#include <QtCore/QStringList>
#include <QtCore/QtDebug>
#if QT_VERSION >= QT_VERSION_CHECK(5, 5, 0)
#include <QtCore/QLoggingCategory>
#endif

namespace Velmora {
namespace Log {

namespace {

#if QT_VERSION >= QT_VERSION_CHECK(5, 5, 0)
Q_LOGGING_CATEGORY(category, "velmora.ssdp")

bool isWanted(Logger::Severity severity)
{
    return severity == Logger::Information ? category().isInfoEnabled() : category().isCriticalEnabled();
}

void write(Logger::Severity severity, const QByteArray& utf8)
{
    if (severity == Logger::Information)
        qCInfo(category, "%s", utf8.constData());
    else
        qCCritical(category, "%s", utf8.constData());
}
#else
bool isWanted(Logger::Severity)
{
    return true;
}

void write(Logger::Severity severity, const QByteArray& utf8)
{
    if (severity == Logger::Information)
        qDebug("%s", utf8.constData());
    else
        qCritical("%s", utf8.constData());
}
#endif

const int MAX_PIECE_LENGTH = 1024;

/// Returns whether the character could end the line, control a terminal or change the order of the text.
bool needsEscape(QChar character)
{
    const QChar::Category category = character.category();
    return category == QChar::Other_Control || category == QChar::Other_Format || category == QChar::Separator_Line
        || category == QChar::Separator_Paragraph;
}

QString escaped(const QString& text)
{
    QString result;
    result.reserve(text.size());
    for (const QChar character : text) {
        const ushort code = character.unicode();
        if (!needsEscape(character))
            result += character;
        else if (code == '\n')
            result += QLatin1String("\\n");
        else if (code == '\r')
            result += QLatin1String("\\r");
        else if (code == '\t')
            result += QLatin1String("\\t");
        else
            result += QString(QLatin1String("\\u%1")).arg(code, 4, 16, QLatin1Char('0'));
    }
    return result;
}

} // namespace

struct Logger::Line
{
    Severity severity;
    QStringList pieces;
};

Logger::Logger(Severity severity)
    : line(nullptr)
{
    // A line that the host filters out is not built.
    if (isWanted(severity)) {
        line = new Line;
        line->severity = severity;
    }
}

Logger::~Logger()
{
    if (line)
        write(line->severity, line->pieces.join(QString(QLatin1Char(' '))).toUtf8());
    delete line;
}

Logger& Logger::operator<<(const char* text)
{
    if (line)
        *this << QString::fromLatin1(text);
    return *this;
}

Logger& Logger::operator<<(const QString& text)
{
    if (line && text.size() <= MAX_PIECE_LENGTH) {
        line->pieces << escaped(text);
    } else if (line) {
        const QString cut(QLatin1String("%1 [%2 characters left out]"));
        line->pieces << cut.arg(escaped(text.left(MAX_PIECE_LENGTH)),
                                QString::number(text.size() - MAX_PIECE_LENGTH));
    }
    return *this;
}

} // namespace Log
} // namespace Velmora

#include <tools/LibraryLog.h>

#include <tools/Output.h>

#include <QtCore/QUrl>

#include <cstring>

namespace Velmora {
namespace Tools {

namespace {

bool isVerbose = false;

Traces& seen()
{
    static Traces traces;
    return traces;
}

void note(const QString& line)
{
    static const QString answered = QStringLiteral("Ssdp device ");
    if (line.startsWith(answered))
        seen().hosts.insert(QUrl(line.mid(answered.size())).host());
    else if (line.startsWith(QStringLiteral("SSDP Device service ")))
        seen().described = true;
    else if (line.startsWith(QStringLiteral("SSDP response state variable ")))
        seen().subscribed = true;
    else if (line.endsWith(QStringLiteral(" Could not parse event xml")))
        seen().eventMalformed = true;
}

void handle(QtMsgType type, const QMessageLogContext& context, const QString& line)
{
    // The library logs only in the main thread. Warnings of Qt may come from any thread.
    if (context.category && std::strcmp(context.category, "velmora.ssdp") == 0)
        note(line);
    if (isVerbose)
        report(timeStamp() + ' ' + qFormatLogMessage(type, context, line).toUtf8() + '\n');
}

} // namespace

void watchLog(bool verbose)
{
    isVerbose = verbose;
    qInstallMessageHandler(handle);
}

Traces traces()
{
    return seen();
}

void clearTraces()
{
    seen() = Traces();
}

} // namespace Tools
} // namespace Velmora

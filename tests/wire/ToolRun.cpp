#include <tests/wire/ToolRun.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QJsonDocument>
#include <QtCore/QRegularExpression>
#include <QtCore/QTimer>

#include <cstdio>

namespace Velmora {
namespace Tests {

namespace {

const int LONGEST_RUN = 60 * 1000;

} // namespace

QStringList words(const QString& text)
{
    return text.split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

QStringList Run::devices() const
{
    static const QRegularExpression form("^[ +-]?\\s*(\\d+)\\s+(\\d+)\\s+([0-9.]+)(\\s|$)");
    QStringList rows;
    const QStringList all = lines();
    for (const QString& line : all) {
        const QRegularExpressionMatch match = form.match(line);
        if (match.hasMatch())
            rows << match.capturedTexts().mid(1, 3).join(QLatin1Char(' '));
    }
    rows.sort();
    return rows;
}

QJsonObject jsonOf(const QString& line)
{
    return QJsonDocument::fromJson(line.toUtf8()).object();
}

Program::Program(const QString& name, const QStringList& arguments)
{
    process.start(name, arguments);
}

Program::~Program()
{
    if (process.state() != QProcess::NotRunning) {
        process.terminate();
        process.waitForFinished();
    }
}

bool Program::waitFor(const char* text, QProcess::ProcessChannel channel, int times)
{
    QByteArray& printed = channel == QProcess::StandardOutput ? out : err;
    waitUntil([&] {
        process.setReadChannel(channel);
        printed += process.readAll();
        return printed.count(text) >= times || process.state() == QProcess::NotRunning;
    });
    return printed.count(text) >= times;
}

bool Program::waitUntil(const std::function<bool()>& condition)
{
    QTimer timeout;
    timeout.setSingleShot(true);
    timeout.start(LONGEST_RUN);
    while (!condition() && timeout.isActive())
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    return condition();
}

void Program::write(const QString& text)
{
    process.write(text.toUtf8());
    process.waitForBytesWritten();
}

Run Program::finish()
{
    process.closeWriteChannel();
    if (!waitUntil([this] { return process.state() == QProcess::NotRunning; })) {
        process.terminate();
        process.waitForFinished();
        return {-1, QString::fromUtf8(out), process.errorString()};
    }
    out += process.readAllStandardOutput();
    err += process.readAllStandardError();
    const int status = process.exitCode();
    return {process.exitStatus() == QProcess::NormalExit ? status : 128 + status, QString::fromUtf8(out),
            QString::fromUtf8(err)};
}

Running startLab(const QStringList& arguments)
{
    return std::make_shared<Program>(SSDP_LAB, arguments);
}

Running startLab(const QString& text, const QString& last)
{
    return startLab(last.isEmpty() ? words(text) : words(text) << last);
}

Run lab(const QString& text, const QString& last)
{
    return startLab(text, last)->finish();
}

Run shell(const QString& script)
{
    // timeout(1) passes a signal on to all that the shell has started.
    return Program("timeout", {"1h", "bash", "-c", "lab=" SSDP_LAB "\n" + script}).finish();
}

Running startOnTerminal(const QString& script)
{
    return std::make_shared<Program>("script", QStringList{"-qec", "lab=" SSDP_LAB "\n" + script, "/dev/null"});
}

int prepareTools()
{
    const QByteArray program = SSDP_LAB;
    qputenv("PATH", program.left(program.lastIndexOf('/')) + ':' + qgetenv("PATH"));
    const Run probe = lab("--devices 0 -- true");
    if (probe.status == 0)
        return 0;
    std::fputs(qPrintable(probe.err), stderr);
    return qEnvironmentVariableIntValue("VELMORA_REQUIRE_NETWORK") == 1 ? 1 : 77;
}

} // namespace Tests
} // namespace Velmora

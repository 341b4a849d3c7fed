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

QStringList linesOf(const QString& text)
{
    return text.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

QList<QJsonObject> objectsOf(const QString& text)
{
    QList<QJsonObject> result;
    const QStringList lines = linesOf(text);
    for (const QString& line : lines)
        result << QJsonDocument::fromJson(line.toUtf8()).object();
    return result;
}

bool isLike(const QString& text, const QString& pattern)
{
    QString form = QRegularExpression::escape(pattern);
    form.replace("\\*\\*", "[\\s\\S]*").replace("\\*", ".*").replace("\\#", "[0-9]");
    return QRegularExpression("\\A" + form + "\\z").match(text).hasMatch();
}

QString differenceOf(const Run& run, const Run& expected)
{
    if (run.status == expected.status && isLike(run.out, expected.out) && isLike(run.err, expected.err))
        return QString();
    return "status %1\n"_s.arg(run.status) + run.out + "standard error:\n" + run.err;
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

/// Handles events meanwhile, because a program stops if nobody reads its output.
bool Program::waitUntil(const std::function<bool()>& condition)
{
    QTimer timeout;
    timeout.setSingleShot(true);
    timeout.start(LONGEST_RUN);
    const auto holds = [&] {
        out += process.readAllStandardOutput();
        err += process.readAllStandardError();
        return condition();
    };
    while (!holds()) {
        if (!timeout.isActive() || process.state() == QProcess::NotRunning)
            return holds();
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

bool Program::waitFor(const QByteArray& text, int times)
{
    return waitUntil([&] { return out.count(text) + err.count(text) >= times; });
}

QString Program::takeUntil(char mark, QProcess::ProcessChannel channel)
{
    QByteArray& printed = channel == QProcess::StandardOutput ? out : err;
    waitUntil([&] { return printed.contains(mark); });
    const QByteArray taken = printed.left(printed.indexOf(mark));
    printed.remove(0, taken.size() + 1);
    return QString::fromUtf8(taken);
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
        return {-1, QString::fromUtf8(out), "it did not end"};
    }
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

Shell::Shell(const QString& labOptions)
    : program(startLab(labOptions + " -- bash -c", R"(while IFS= read -r line; do
                                                          (eval "$line") </dev/null
                                                          printf '\4%d\n' $?
                                                          printf '\4' >&2
                                                      done)"))
{
}

Run Shell::run(const QString& line) const
{
    program->write(line + '\n');
    const QString out = program->takeUntil('\4');
    const QString status = program->takeUntil('\n');
    return {status.isEmpty() ? -1 : status.toInt(), out, program->takeUntil('\4', QProcess::StandardError)};
}

Running startShell(const QString& script)
{
    // timeout(1) passes a signal on to all that the shell has started.
    return std::make_shared<Program>("timeout", QStringList{"1h", "bash", "-c", "lab=" SSDP_LAB "\n" + script});
}

Run shell(const QString& script)
{
    return startShell(script)->finish();
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

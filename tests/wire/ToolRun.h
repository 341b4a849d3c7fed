#ifndef VELMORA_TESTS_WIRE_TOOLRUN_H
#define VELMORA_TESTS_WIRE_TOOLRUN_H

#include <tests/support/Literals.h>

#include <QtCore/QProcess>
#include <QtCore/QRegularExpression>
#include <QtCore/QStringList>

#include <csignal>
#include <cstdio>
#include <memory>

namespace Velmora {
namespace Tests {

const int LONGEST_RUN = 60 * 1000;

inline QStringList words(const char* text)
{
    return QString::fromLatin1(text).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

/// How a program ended: its status, or 128 and its signal as in a shell, and what it printed.
struct Run
{
    int status;
    QString out;
    QString err;

    QStringList lines() const { return out.split(QLatin1Char('\n'), Qt::SkipEmptyParts); }

    /// The rows of the table of ssdp-discover, each as its cells without the time, in order of the address.
    QStringList devices() const
    {
        static const QRegularExpression form("^([ +-]?)\\s*(\\d+)\\s+(\\d+)\\s+([0-9.]+)(\\s|$)"_s);
        QStringList rows;
        const QStringList all = lines();
        for (const QString& line : all) {
            const QRegularExpressionMatch match = form.match(line);
            if (match.hasMatch()) {
                rows << match.captured(2) + QLatin1Char(' ') + match.captured(3) + QLatin1Char(' ')
                        + match.captured(4);
            }
        }
        rows.sort();
        return rows;
    }
};

/// A program that runs while the test does something else.
class Program
{
public:
    Program(const QString& name, const QStringList& arguments) { process.start(name, arguments); }

    /// ssdp-lab, with these words.
    explicit Program(const char* arguments)
        : Program(QStringLiteral(SSDP_LAB), words(arguments))
    {
    }

    ~Program()
    {
        if (process.state() != QProcess::NotRunning) {
            process.terminate();
            process.waitForFinished();
        }
    }

    /// Waits until it has printed @p text on standard output (or error), and that many times.
    bool waitFor(const char* text, QProcess::ProcessChannel channel = QProcess::StandardOutput, int times = 1)
    {
        process.setReadChannel(channel);
        QByteArray& printed = channel == QProcess::StandardOutput ? out : err;
        do {
            printed += process.readAll();
            if (printed.count(text) >= times)
                return true;
        } while (process.waitForReadyRead(LONGEST_RUN));
        return false;
    }

    /// Writes @p text to its standard input.
    void write(const char* text) { process.write(text); }

    pid_t id() const { return static_cast<pid_t>(process.processId()); }

    void signal(int number) const { kill(id(), number); }

    Run finish()
    {
        process.closeWriteChannel();
        if (process.state() != QProcess::NotRunning && !process.waitForFinished(LONGEST_RUN)) {
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

private:
    QProcess process;
    QByteArray out;
    QByteArray err;
};

inline Run run(const char* program, const QStringList& arguments)
{
    return Program(QString::fromLatin1(program), arguments).finish();
}

inline Run lab(const char* arguments)
{
    return Program(arguments).finish();
}

/// What a shell does with @p script, in which $lab is ssdp-lab and the other tools are in the PATH.
inline Run shell(const QString& script)
{
    // timeout(1) passes a signal on to all that the shell has started.
    return run("timeout", {"1h"_s, "bash"_s, "-c"_s, QStringLiteral("lab=" SSDP_LAB "\n") + script});
}

/// Puts the tools of this build into the PATH. The status with which the test ends at once when it can have no
/// private network; 0 when it can.
inline int prepareTools()
{
    const QByteArray lab = SSDP_LAB;
    qputenv("PATH", lab.left(lab.lastIndexOf('/')) + ':' + qgetenv("PATH"));
    const Run probe = run(SSDP_LAB, words("--devices 0 -- true"));
    if (probe.status == 0)
        return 0;
    std::fputs(qPrintable(probe.err), stderr);
    return qEnvironmentVariableIntValue("VELMORA_REQUIRE_NETWORK") == 1 ? 1 : 77;
}

} // namespace Tests
} // namespace Velmora

Q_DECLARE_METATYPE(std::shared_ptr<Velmora::Tests::Program>)

#endif

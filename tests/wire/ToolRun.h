#ifndef VELMORA_TESTS_WIRE_TOOLRUN_H
#define VELMORA_TESTS_WIRE_TOOLRUN_H

#include <tests/support/Literals.h>

#include <QtCore/QJsonObject>
#include <QtCore/QProcess>
#include <QtCore/QStringList>

#include <csignal>
#include <functional>
#include <map>
#include <memory>

namespace Velmora {
namespace Tests {

QStringList words(const QString& text);

/// How a program ended: its status, or 128 and its signal as in a shell, and what it printed.
struct Run
{
    int status;
    QString out;
    QString err;

    QStringList lines() const { return out.split(QLatin1Char('\n'), Qt::SkipEmptyParts); }
    QStringList errorLines() const { return err.split(QLatin1Char('\n'), Qt::SkipEmptyParts); }

    /// The rows of the table of ssdp-discover, each as its cells without the time, in order of the address.
    QStringList devices() const;
};

/// The object that a line of JSON is; empty if it is none.
QJsonObject jsonOf(const QString& line);

/// A program that runs while the test does something else.
class Program
{
public:
    Program(const QString& name, const QStringList& arguments);
    ~Program();

    /// Waits until it has printed @p text on standard output (or error), and that many times.
    bool waitFor(const char* text, QProcess::ProcessChannel channel = QProcess::StandardOutput, int times = 1);

    /// Writes @p text to its standard input.
    void write(const QString& text);

    pid_t id() const { return static_cast<pid_t>(process.processId()); }
    void signal(int number) const { kill(id(), number); }

    /// Waits for its end.
    Run finish();

private:
    /// Handles events meanwhile: a program whose output nobody reads would stop.
    static bool waitUntil(const std::function<bool()>& condition);

    QProcess process;
    QByteArray out;
    QByteArray err;
};

using Running = std::shared_ptr<Program>;

/// ssdp-lab with these arguments; @p words are separated by spaces, and @p last may have some.
Running startLab(const QStringList& arguments);
Running startLab(const QString& words, const QString& last = QString());
Run lab(const QString& words, const QString& last = QString());

/// What a shell does with @p script, in which $lab is ssdp-lab and the other tools are in the PATH.
Run shell(const QString& script);

/// The same for a shell on a terminal, which script(1) gives it.
Running startOnTerminal(const QString& script);

/// Programs that begin with the test and run side by side, since each waits for most of its time.
using Programs = std::map<QByteArray, Running>;

/// Puts the tools of this build into the PATH. The status with which the test ends at once when it can have no
/// private network; 0 when it can.
int prepareTools();

/// The main() of a test of the tools.
#define VELMORA_TOOL_TEST_MAIN(TestClass)                                                                         \
    int main(int argc, char** argv)                                                                               \
    {                                                                                                             \
        const QCoreApplication application(argc, argv);                                                           \
        if (const int status = Velmora::Tests::prepareTools())                                                    \
            return status;                                                                                        \
        TestClass test;                                                                                           \
        return QTest::qExec(&test, argc, argv);                                                                   \
    }

} // namespace Tests
} // namespace Velmora

Q_DECLARE_METATYPE(Velmora::Tests::Running)

#endif

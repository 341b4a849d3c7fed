#ifndef VELMORA_TESTS_WIRE_TOOLRUN_H
#define VELMORA_TESTS_WIRE_TOOLRUN_H

#include <tests/support/Literals.h>
#include <tests/support/Table.h>

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
QStringList linesOf(const QString& text);

/// The JSON objects in the lines of @p text. An object is empty if its line is not one.
QList<QJsonObject> objectsOf(const QString& text);

/// How a program ended, and what it printed. The status of a program that a signal ended is 128 and the signal, as
/// in a shell.
struct Run
{
    int status;
    QString out;
    QString err = QString();
};

/// Returns whether @p text is like @p pattern, in which "*" is any text in a line, "**" any text in any number of
/// lines, and "#" a digit.
bool isLike(const QString& text, const QString& pattern);

/// Returns what @p run was if it is not like @p expected. The output is compared by isLike().
QString differenceOf(const Run& run, const Run& expected);

#define VERIFY_RUN(...)                                                                                           \
    do {                                                                                                          \
        const QString difference = Velmora::Tests::differenceOf(__VA_ARGS__);                                     \
        QVERIFY2(difference.isEmpty(), qPrintable(difference));                                                   \
    } while (false)

/// A program that runs while the test does something else.
class Program
{
public:
    Program(const QString& name, const QStringList& arguments);
    ~Program();

    /// Waits until the output contains @p text @p times or more often. Returns false if the program ends before
    /// that, or if this takes more than a minute. The output is standard output and standard error together.
    bool waitFor(const QByteArray& text, int times = 1);

    void write(const QString& text);
    pid_t id() const { return static_cast<pid_t>(process.processId()); }
    void signal(int number) const { kill(id(), number); }

    /// Waits for its end.
    Run finish();

    /// Waits until it has printed @p mark. Takes the text before it.
    QString takeUntil(char mark, QProcess::ProcessChannel channel = QProcess::StandardOutput);

private:
    bool waitUntil(const std::function<bool()>& condition);

    QProcess process;
    QByteArray out;
    QByteArray err;
};

using Running = std::shared_ptr<Program>;

/// Starts ssdp-lab with these arguments. @p words are separated by spaces, and @p last may contain spaces.
Running startLab(const QStringList& arguments);
Running startLab(const QString& words, const QString& last = QString());
Run lab(const QString& words, const QString& last = QString());

/// A shell on the host side of one lab, for many short runs.
class Shell
{
public:
    explicit Shell(const QString& labOptions);

    /// Runs a line of bash.
    Run run(const QString& line) const;

private:
    Running program;
};

/// Starts a shell that runs @p script. There, $lab is ssdp-lab, and the other tools are in the PATH.
Running startShell(const QString& script);
Run shell(const QString& script);

/// Starts such a shell on a terminal of script(1).
Running startOnTerminal(const QString& script);

/// Programs that run side by side, because each of them waits for most of its time.
using Programs = std::map<QByteArray, Running>;

/// Puts the tools of this build into the PATH. Returns 0, or the exit status of a test that can have no private
/// network.
int prepareTools();

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

Q_DECLARE_METATYPE(Velmora::Tests::Run)
Q_DECLARE_METATYPE(Velmora::Tests::Running)

#endif

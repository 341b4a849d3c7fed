#include "ToolRun.h"

#include <QtCore/QFile>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

using namespace Velmora::Tests;

namespace {

/// What a shell on a terminal does with @p script; script(1) gives it one.
std::unique_ptr<Program> onTerminal(const QString& script)
{
    return std::make_unique<Program>(QStringLiteral("script"),
                                     QStringList{QStringLiteral("-qec"),
                                                 QStringLiteral("lab=" SSDP_LAB "; ") + script,
                                                 QStringLiteral("/dev/null")});
}

/// What of @p printed is in the lines of a terminal, without the means of colouring and moving.
QStringList shownLines(const QString& printed)
{
    static const QRegularExpression sequence(QStringLiteral("\033\\[[0-9]*[a-zA-Z]"));
    static const QRegularExpression end(QStringLiteral("[\r\n]+"));
    return QString(printed).remove(sequence).split(end, Qt::SkipEmptyParts);
}

} // namespace

/// The tools on terminals of all kinds, and what they do for the shell.
class TerminalTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void showsProgressOnATerminalOnly();
    void printsNothingButTextOnADumbTerminal_data();
    void printsNothingButTextOnADumbTerminal();
    void fitsIntoNarrowTerminals_data();
    void fitsIntoNarrowTerminals();
    void followsTheWidthOfTheTerminal();
    void helpsWithinEightyColumns_data();
    void helpsWithinEightyColumns();
    void completes_data();
    void completes();
};

void TerminalTest::showsProgressOnATerminalOnly()
{
    const QString command = QStringLiteral(" $lab --response-delay 500-500 -- ssdp-discover --first");
    const Run coloured = onTerminal(QStringLiteral("env -u NO_COLOR TERM=xterm") + command)->finish();
    QCOMPARE(coloured.status, 0);
    QVERIFY2(coloured.out.contains(QStringLiteral(" left, 0 devices so far\r")), qPrintable(coloured.out));
    QVERIFY(coloured.out.contains(QStringLiteral("\033[J")));
    QVERIFY(coloured.out.contains(QStringLiteral("\033[1m")));
    const Run plain = onTerminal(QStringLiteral("env NO_COLOR=1 TERM=xterm") + command)->finish();
    QVERIFY(plain.out.contains(QStringLiteral("\033[J")));
    QVERIFY(!plain.out.contains(QStringLiteral("\033[1m")));

    const Run piped = lab("--response-delay 500-500 -- ssdp-discover --first");
    QVERIFY(!piped.out.contains(QLatin1Char('\033')));
    QVERIFY(!piped.out.contains(QLatin1Char('\r')));
}

void TerminalTest::printsNothingButTextOnADumbTerminal_data()
{
    QTest::addColumn<QString>("environment");
    QTest::newRow("dumb") << QStringLiteral("TERM=dumb");
    QTest::newRow("unknown") << QStringLiteral("-u TERM");
    QTest::newRow("empty") << QStringLiteral("TERM=");
}

void TerminalTest::printsNothingButTextOnADumbTerminal()
{
    QFETCH(QString, environment);
    const Run result =
        onTerminal(QStringLiteral("env -u NO_COLOR %1 $lab --response-delay 300-300 -- ssdp-discover --first")
                       .arg(environment))
            ->finish();
    QCOMPARE(result.status, 0);
    QVERIFY(!result.out.contains(QLatin1Char('\033')));
    QVERIFY(!result.out.contains(QLatin1Char('\b')));
    QCOMPARE(result.out.count(QLatin1Char('\r')), result.out.count(QStringLiteral("\r\n")));
    QCOMPARE(result.lines().size(), 4);
}

void TerminalTest::fitsIntoNarrowTerminals_data()
{
    QTest::addColumn<int>("columns");
    QTest::addColumn<QString>("row");
    QTest::newRow("wide") << 80 << QStringLiteral("+          1            1  10.77.1.1 ");
    QTest::newRow("without the time") << 45 << QStringLiteral("+          1           1 10.77.1.1");
    QTest::newRow("below forty") << 39 << QStringLiteral("+1 1 10.77.1.1");
    QTest::newRow("tiny") << 26 << QStringLiteral("+1 1 10.77.1.1");
}

void TerminalTest::fitsIntoNarrowTerminals()
{
    QFETCH(int, columns);
    QFETCH(QString, row);
    const auto program =
        onTerminal(QStringLiteral("stty cols %1; TERM=xterm; export TERM\n"
                                  "exec $lab --response-delay 300-300 -- ssdp-discover --repeat 100")
                       .arg(columns));
    QVERIFY(program->waitFor("10.77.1.1"));
    QVERIFY(program->waitFor("1 device so far"));
    program->write("\003"); // Ctrl-C
    const QStringList lines = shownLines(program->finish().out);
    const QStringList rows = lines.filter(QStringLiteral("10.77.1.1"));
    QCOMPARE(rows.size(), 1);
    QVERIFY2(rows.constFirst().startsWith(row), qPrintable(rows.constFirst()));
    for (const QString& line : lines) {
        // The addresses searched from are a line of text, which the terminal may break.
        if (!line.startsWith(QStringLiteral("Searching")))
            QVERIFY2(line.size() <= columns, qPrintable(line));
    }
}

void TerminalTest::followsTheWidthOfTheTerminal()
{
    const auto program = onTerminal(QStringLiteral(
        "stty cols 80; TERM=xterm; export TERM\n"
        "exec $lab --devices 0 -- sh -c 'ssdp-discover --first --timeout 60000 & discover=$!;"
        "read -r line; stty cols 20; ssdp-simulator --first-address 10.77.0.1 --quiet & wait $discover'"));
    QVERIFY(program->waitFor("left, 0 devices so far"));
    program->write("\n");
    QVERIFY(program->waitFor("1 device found"));
    const QStringList lines = shownLines(program->finish().out);
    QVERIFY2(lines.contains(QStringLiteral("1 1 10.77.0.1")), qPrintable(lines.join(QLatin1Char('|'))));
}

void TerminalTest::helpsWithinEightyColumns_data()
{
    QTest::addColumn<QString>("tool");
    for (const char* const tool : {"ssdp-discover", "ssdp-lab", "ssdp-simulator"})
        QTest::newRow(tool) << QString::fromLatin1(tool);
}

void TerminalTest::helpsWithinEightyColumns()
{
    QFETCH(QString, tool);
    const Run result = shell(tool + QStringLiteral(" --help"));
    QCOMPARE(result.status, 0);
    QVERIFY(result.lines().size() > 10);
    const QStringList lines = result.lines();
    for (const QString& line : lines)
        QVERIFY2(line.size() < 80, qPrintable(line));
}

void TerminalTest::completes_data()
{
    QTest::addColumn<QString>("typed");
    QTest::addColumn<QString>("completed");
    const auto row = [](const char* typed, const char* completed) {
        QTest::newRow(typed) << QString::fromLatin1(typed) << QString::fromLatin1(completed);
    };
    row("ssdp-simulator --fault slow-h", "<ssdp-simulator><--fault><slow-http>");
    row("ssdp-simulator --fault 2:slow-h", "<ssdp-simulator><--fault><2:slow-http>");
    row("ssdp-simulator --fault=slow-h", "<ssdp-simulator><--fault=slow-http>");
    row("ssdp-simulator --fault=2:slow-h", "<ssdp-simulator><--fault=2:slow-http>");
    row("ssdp-lab --fault 2:slow-h", "<ssdp-lab><--fault><2:slow-http>");
    row("ssdp-lab --fault=slow-h", "<ssdp-lab><--fault=slow-http>");
    row("ssdp-lab --second", "<ssdp-lab><--second-interface>");
    row("ssdp-discover --interf", "<ssdp-discover><--interface>");
    row("ssdp-discover --interface l", "<ssdp-discover><--interface><lo>");
}

void TerminalTest::completes()
{
    QFETCH(QString, typed);
    QFETCH(QString, completed);
    const QString completion = QStringLiteral("/usr/share/bash-completion/bash_completion");
    if (!QFile::exists(completion))
        QSKIP("bash-completion is not installed");
    const QTemporaryDir folder;
    QFile settings(folder.filePath(QStringLiteral("bashrc")));
    QVERIFY(settings.open(QIODevice::WriteOnly));
    settings.write(QStringLiteral(". %1\n"
                                  "for tool in discover simulator lab; do . %2/ssdp-$tool; done\n"
                                  "typed() { printf '<%s>' \"$@\"; exit; }\n")
                       .arg(completion, QStringLiteral(COMPLETIONS))
                       .toUtf8());
    settings.close();

    const auto program =
        onTerminal(QStringLiteral("TERM=xterm exec bash --rcfile %1 -i").arg(settings.fileName()));
    // A tabulator completes, and Ctrl-A goes to the beginning of the line.
    program->write((typed + QStringLiteral("\t\001typed \n")).toUtf8().constData());
    const Run result = program->finish();
    QVERIFY2(result.out.contains(completed), qPrintable(result.out));
}

int main(int argc, char** argv)
{
    const int status = prepareTools();
    if (status != 0)
        return status;
    const QCoreApplication application(argc, argv);
    TerminalTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_terminal.moc"

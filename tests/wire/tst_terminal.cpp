#include <tests/support/Literals.h>
#include <tests/wire/ToolRun.h>

#include <QtCore/QFile>
#include <QtCore/QRegularExpression>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

using namespace Velmora::Tests;

/// The tools on terminals of all kinds, and what they do for the shell.
class TerminalTest : public QObject
{
    Q_OBJECT

private:
    /// Returns the lines that a terminal shows, without the sequences that colour text or move the cursor.
    static QStringList shownLines(const QString& printed)
    {
        static const QRegularExpression sequence("\033\\[[0-9]*[a-zA-Z]");
        static const QRegularExpression end("[\r\n]+");
        return QString(printed).remove(sequence).split(end, Qt::SkipEmptyParts);
    }

private Q_SLOTS:

    void showsProgressOnATerminalOnly_data()
    {
        const Table<Running, bool, bool, QString> row("program", "hasProgress", "hasColour", "lineEnd");
        const QString script = "env %1 $lab --response-delay 500-500 -- ssdp-discover --first"_s;
        const auto add = [&](const char* environment, bool hasProgress, bool hasColour) {
            row(environment, startOnTerminal(script.arg(environment)), hasProgress, hasColour, "\r\n");
        };
        add("-u NO_COLOR TERM=xterm", true, true);
        add("NO_COLOR=1 TERM=xterm", true, false);
        add("-u NO_COLOR TERM=dumb", false, false);
        add("-u NO_COLOR -u TERM", false, false);
        add("-u NO_COLOR TERM=", false, false);
        row("no terminal", startShell(script.arg("TERM=xterm")), false, false, "\n");
    }

    void showsProgressOnATerminalOnly()
    {
        QFETCH(Running, program);
        QFETCH(bool, hasProgress);
        QFETCH(bool, hasColour);
        QFETCH(QString, lineEnd);
        const Run run = program->finish();
        QCOMPARE(run.status, 0);
        QCOMPARE(run.out.contains(" left, 0 devices so far\r"), hasProgress);
        QCOMPARE(run.out.contains("\033[J"), hasProgress);
        QCOMPARE(run.out.contains("\033[1m"), hasColour);
        if (hasProgress)
            return;
        QCOMPARE(run.out.count(lineEnd), 4);
        static const QRegularExpression control("[\\x00-\\x1f]");
        QVERIFY2(!QString(run.out).remove(lineEnd).contains(control), qPrintable(run.out));
    }

    void fitsIntoNarrowTerminals_data()
    {
        const Table<Running, int, QString> row("program", "columns", "start");
        const auto add = [&](const char* name, int columns, const char* start) {
            const QString size = "stty cols %1; TERM=xterm; export TERM\n"_s.arg(columns);
            const QString discover = "exec $lab --response-delay 300-300 -- ssdp-discover --repeat 100"_s;
            row(name, startOnTerminal(size + discover), columns, start);
        };
        add("wide", 80, "+          1            1  10.77.1.1 ");
        add("without the time", 45, "+          1           1 10.77.1.1");
        add("below forty", 39, "+1 1 10.77.1.1");
        add("tiny", 26, "+1 1 10.77.1.1");
    }

    void fitsIntoNarrowTerminals()
    {
        QFETCH(Running, program);
        QFETCH(int, columns);
        QFETCH(QString, start);
        QVERIFY(program->waitFor("10.77.1.1"));
        QVERIFY(program->waitFor(" left, 1 device so"));
        program->write("\003"); // Ctrl-C
        const QStringList lines = shownLines(program->finish().out);
        const QStringList rows = lines.filter("10.77.1.1");
        QCOMPARE(rows.size(), 1);
        QVERIFY2(rows.constFirst().startsWith(start), qPrintable(rows.constFirst()));
        for (const QString& line : lines) {
            // The addresses searched from are a line of text. The terminal may break it.
            if (!line.startsWith("Searching"))
                QVERIFY2(line.size() <= columns, qPrintable(line));
        }
    }

    void followsTheWidthOfTheTerminal()
    {
        const Running program = startOnTerminal(R"(stty cols 80; TERM=xterm; export TERM
            exec $lab --devices 0 -- sh -c 'ssdp-discover --first --timeout 60000 & discover=$!
                read -r line; stty cols 20; ssdp-simulator --first-address 10.77.0.1 --quiet & wait $discover')");
        QVERIFY(program->waitFor("left, 0 devices so far"));
        program->write("\n");
        QVERIFY(program->waitFor("1 device found"));
        const QStringList lines = shownLines(program->finish().out);
        QVERIFY2(lines.contains("1 1 10.77.0.1"), qPrintable(lines.join("|")));
    }

    void helpsWithinEightyColumns()
    {
        for (const char* const tool : {"ssdp-discover", "ssdp-doctor", "ssdp-lab", "ssdp-simulator"}) {
            const Run run = Program(tool, {"--help"}).finish();
            QCOMPARE(run.status, 0);
            const QStringList lines = linesOf(run.out);
            QVERIFY(lines.size() > 10);
            for (const QString& line : lines)
                QVERIFY2(line.size() < 80, qPrintable(line));
        }
    }

    void completes()
    {
        const QString completion = "/usr/share/bash-completion/bash_completion"_s;
        if (!QFile::exists(completion))
            QSKIP("bash-completion is not installed");
        const QTemporaryDir folder;
        QFile settings(folder.filePath("bashrc"));
        QVERIFY(settings.open(QIODevice::WriteOnly));
        const QString text = ". %1\n"
                             "for tool in discover simulator lab; do . %2/ssdp-$tool; done\n"
                             "typed() { printf '<%s>' \"$@\"; }\n"_s.arg(completion, COMPLETIONS);
        settings.write(text.toUtf8());
        settings.close();
        const Running bash = startOnTerminal("TERM=xterm exec bash --rcfile %1 -i"_s.arg(settings.fileName()));

        static const struct
        {
            const char* typed;
            const char* completed;
        } rows[] = {
            {"ssdp-simulator --fault slow-h", "<ssdp-simulator><--fault><slow-http>"},
            {"ssdp-simulator --fault 2:slow-h", "<ssdp-simulator><--fault><2:slow-http>"},
            {"ssdp-simulator --fault=slow-h", "<ssdp-simulator><--fault=slow-http>"},
            {"ssdp-simulator --fault=2:slow-h", "<ssdp-simulator><--fault=2:slow-http>"},
            {"ssdp-lab --fault 2:slow-h", "<ssdp-lab><--fault><2:slow-http>"},
            {"ssdp-lab --fault=slow-h", "<ssdp-lab><--fault=slow-http>"},
            {"ssdp-lab --second", "<ssdp-lab><--second-interface>"},
            {"ssdp-discover --interf", "<ssdp-discover><--interface>"},
            {"ssdp-discover --interface l", "<ssdp-discover><--interface><lo>"},
        };
        // Tab completes, and Ctrl-A goes to the beginning of the line.
        for (const auto& row : rows)
            bash->write("%1\t\001typed \n"_s.arg(row.typed));
        bash->write("exit\n");
        const Run run = bash->finish();
        for (const auto& row : rows)
            QVERIFY2(run.out.contains(row.completed), qPrintable(run.out));
    }
};

VELMORA_TOOL_TEST_MAIN(TerminalTest)

#include "tst_terminal.moc"

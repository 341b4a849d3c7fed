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
    /// What of @p printed is in the lines of a terminal, without the means of colouring and moving.
    static QStringList shownLines(const QString& printed)
    {
        static const QRegularExpression sequence("\033\\[[0-9]*[a-zA-Z]");
        static const QRegularExpression end("[\r\n]+");
        return QString(printed).remove(sequence).split(end, Qt::SkipEmptyParts);
    }

private Q_SLOTS:

    void showsProgressOnATerminalOnly()
    {
        const QString command = " $lab --response-delay 500-500 -- ssdp-discover --first"_s;
        const Running onColour = startOnTerminal("env -u NO_COLOR TERM=xterm" + command);
        const Running onPlain = startOnTerminal("env NO_COLOR=1 TERM=xterm" + command);
        const Run piped = shell(command);
        const Run coloured = onColour->finish();
        QCOMPARE(coloured.status, 0);
        QVERIFY2(coloured.out.contains(" left, 0 devices so far\r"), qPrintable(coloured.out));
        QVERIFY(coloured.out.contains("\033[J"));
        QVERIFY(coloured.out.contains("\033[1m"));
        const Run plain = onPlain->finish();
        QVERIFY(plain.out.contains("\033[J"));
        QVERIFY(!plain.out.contains("\033[1m"));
        QCOMPARE(piped.status, 0);
        QVERIFY(!piped.out.contains("\033"));
        QVERIFY(!piped.out.contains("\r"));
    }

    void printsNothingButTextOnADumbTerminal_data()
    {
        QTest::addColumn<Running>("terminal");
        for (const char* const environment : {"TERM=dumb", "-u TERM", "TERM="}) {
            QTest::newRow(environment) << startOnTerminal("env -u NO_COLOR %1 $lab --response-delay 300-300 -- "
                                                          "ssdp-discover --first"_s.arg(environment));
        }
    }

    void printsNothingButTextOnADumbTerminal()
    {
        QFETCH(Running, terminal);
        const Run result = terminal->finish();
        QCOMPARE(result.status, 0);
        QVERIFY(!result.out.contains("\033"));
        QVERIFY(!result.out.contains("\b"));
        QCOMPARE(result.out.count("\r"), result.out.count("\r\n"));
        QCOMPARE(result.lines().size(), 4);
    }

    void fitsIntoNarrowTerminals_data()
    {
        QTest::addColumn<int>("columns");
        QTest::addColumn<QString>("row");
        QTest::newRow("wide") << 80 << "+          1            1  10.77.1.1 ";
        QTest::newRow("without the time") << 45 << "+          1           1 10.77.1.1";
        QTest::newRow("below forty") << 39 << "+1 1 10.77.1.1";
        QTest::newRow("tiny") << 26 << "+1 1 10.77.1.1";
    }

    void fitsIntoNarrowTerminals()
    {
        QFETCH(int, columns);
        QFETCH(QString, row);
        const Running program =
            startOnTerminal("stty cols %1; TERM=xterm; export TERM\n"
                            "exec $lab --response-delay 300-300 -- ssdp-discover --repeat 100"_s.arg(columns));
        QVERIFY(program->waitFor("10.77.1.1"));
        QVERIFY(program->waitFor(" left, 1 device so"));
        program->write("\003"); // Ctrl-C
        const QStringList lines = shownLines(program->finish().out);
        const QStringList rows = lines.filter("10.77.1.1");
        QCOMPARE(rows.size(), 1);
        QVERIFY2(rows.constFirst().startsWith(row), qPrintable(rows.constFirst()));
        for (const QString& line : lines) {
            // The addresses searched from are a line of text, which the terminal may break.
            if (!line.startsWith("Searching"))
                QVERIFY2(line.size() <= columns, qPrintable(line));
        }
    }

    void followsTheWidthOfTheTerminal()
    {
        const Running program = startOnTerminal(
            "stty cols 80; TERM=xterm; export TERM\n"
            "exec $lab --devices 0 -- sh -c 'ssdp-discover --first --timeout 60000 & discover=$!;"
            "read -r line; stty cols 20; ssdp-simulator --first-address 10.77.0.1 --quiet & wait $discover'");
        QVERIFY(program->waitFor("left, 0 devices so far"));
        program->write("\n");
        QVERIFY(program->waitFor("1 device found"));
        const QStringList lines = shownLines(program->finish().out);
        QVERIFY2(lines.contains("1 1 10.77.0.1"), qPrintable(lines.join("|")));
    }

    void helpsWithinEightyColumns_data()
    {
        QTest::addColumn<QString>("tool");
        for (const char* const tool : {"ssdp-discover", "ssdp-lab", "ssdp-simulator"})
            QTest::newRow(tool) << QString(tool);
    }

    void helpsWithinEightyColumns()
    {
        QFETCH(QString, tool);
        const Run result = shell(tool + " --help");
        QCOMPARE(result.status, 0);
        const QStringList lines = result.lines();
        QVERIFY(lines.size() > 10);
        for (const QString& line : lines)
            QVERIFY2(line.size() < 80, qPrintable(line));
    }

    void completes_data()
    {
        const QString completion = "/usr/share/bash-completion/bash_completion"_s;
        if (!QFile::exists(completion))
            QSKIP("bash-completion is not installed");
        QFile settings(folder.filePath("bashrc"));
        QVERIFY(settings.open(QIODevice::WriteOnly));
        const QString text = ". %1\n"
                             "for tool in discover simulator lab; do . %2/ssdp-$tool; done\n"
                             "typed() { printf '<%s>' \"$@\"; exit; }\n"_s.arg(completion, COMPLETIONS);
        settings.write(text.toUtf8());
        settings.close();

        QTest::addColumn<Running>("bash");
        QTest::addColumn<QString>("completed");
        const auto row = [&](const char* typed, const char* completed) {
            const Running bash = startOnTerminal("TERM=xterm exec bash --rcfile %1 -i"_s.arg(settings.fileName()));
            // A tabulator completes, and Ctrl-A goes to the beginning of the line.
            bash->write("%1\t\001typed \n"_s.arg(typed));
            QTest::newRow(typed) << bash << QString(completed);
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

    void completes()
    {
        QFETCH(Running, bash);
        QFETCH(QString, completed);
        const Run result = bash->finish();
        QVERIFY2(result.out.contains(completed), qPrintable(result.out));
    }

private:
    const QTemporaryDir folder;
};

VELMORA_TOOL_TEST_MAIN(TerminalTest)

#include "tst_terminal.moc"

#include <log/Logger.h>
#include <tests/support/KeptMessages.h>
#include <tests/support/Literals.h>
#include <tests/support/Table.h>

#include <QtCore/QLoggingCategory>

#include <type_traits>

using namespace Velmora::Tests;
using Velmora::Log::Logger;

class LoggerTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<KeptMessages> kept;

    QString text() const { return kept->texts().value(0); }

private Q_SLOTS:
    void init() { kept = std::make_unique<KeptMessages>(); }

    void cleanup()
    {
        kept.reset();
        QLoggingCategory::setFilterRules(QString());
    }

    void severitiesAreZeroAndOne()
    {
        QCOMPARE(int(Logger::Information), 0);
        QCOMPARE(int(Logger::Error), 1);
    }

    void lineGoesToQtsLogWhenTheLoggerIsDestroyed()
    {
        const QtMsgType types[] = {QtInfoMsg, QtCriticalMsg};
        for (const auto severity : {Logger::Information, Logger::Error}) {
            {
                Logger logger(severity);
                QCOMPARE(&(logger << "a"), &logger);
                QCOMPARE(&(logger << "b"_s), &logger);
                QCOMPARE(kept->texts().size(), int(severity));
            }
            QCOMPARE(kept->texts().mid(severity), QStringList{"a b"});
            QCOMPARE(int(kept->messages().at(severity).type), int(types[severity]));
            QCOMPARE(kept->messages().at(severity).category, "velmora.ssdp"_ba);
        }
    }

    void lineWithoutPiecesIsWritten()
    {
        delete new Logger(Logger::Information);
        QCOMPARE(kept->texts(), QStringList{""});
    }

    void piecesAreJoinedByOneSpace()
    {
        const char* const null = nullptr;
        Logger(Logger::Information) << "a" << null << "" << QString() << "c"_s;
        QCOMPARE(text(), "a    c"_s);
    }

    void pieceIsEscapedAndCut_data()
    {
        const Table<QString, QString> row("piece", "text");
        row("a line feed", "a\nb", "a\\nb");
        row("a carriage return", "a\rb", "a\\rb");
        row("a tab", "a\tb", "a\\tb");
        row("a zero", "a\0b"_s, "a\\u0000b");
        row("an escape", "\x1b[31m", "\\u001b[31m");
        row("the last of C0", "\x1f", "\\u001f");
        row("DEL", "\x7f", "\\u007f");
        row("the first of C1", QChar(0x80), "\\u0080");
        row("next line", QChar(0x85), "\\u0085");
        row("the last of C1", QChar(0x9f), "\\u009f");
        row("a change of direction", QChar(0x202e), "\\u202e");
        row("a space without width", QChar(0x200b), "\\u200b");
        row("the line separator", QChar(0x2028), "\\u2028");
        row("the paragraph separator", QChar(0x2029), "\\u2029");
        row("a space", " a ", " a ");
        row("a percent sign", "%s %n %1", "%s %n %1");
        row("a letter beyond Latin-1", QChar(0x20ac), QChar(0x20ac));
        row("no-break space", QChar(0xa0), QChar(0xa0));

        const QString longest = "x"_s.repeated(1024);
        row("1,023", "x"_s.repeated(1023), "x"_s.repeated(1023));
        row("1,024", longest, longest);
        row("1,025", "x"_s.repeated(1025), longest + " [1 characters left out]");
        row("4,096", "x"_s.repeated(4096), longest + " [3072 characters left out]");
        row("1,000,000", "x"_s.repeated(1000000), longest + " [998976 characters left out]");
        row("cut before it is escaped", "\n"_s.repeated(1025),
            "\\n"_s.repeated(1024) + " [1 characters left out]");
        row("placeholders", "%2"_s.repeated(600), "%2"_s.repeated(512) + " [176 characters left out]");
    }

    void pieceIsEscapedAndCut()
    {
        QFETCH(const QString, piece);
        QFETCH(const QString, text);
        Logger(Logger::Error) << piece << piece << "end";
        Logger(Logger::Information) << piece;
        QCOMPARE(kept->texts(), (QStringList{text + " " + text + " end", text}));
    }

    void plainCharacterStringIsEscapedLatin1()
    {
        Logger(Logger::Error) << "a\nb\xe9\xff";
        QCOMPARE(text(), "a\\nb\xe9\xff"_s);
    }

    void filterRuleSwitchesTheLinesOff_data()
    {
        const Table<QString, QStringList> row("rule", "texts");
        row("none", "", {"information", "error"});
        row("information", "velmora.ssdp.info=false", {"error"});
        row("errors", "velmora.ssdp.critical=false", {"information"});
        row("all", "velmora.ssdp=false", {});
        row("another category", "velmora.other=false", {"information", "error"});
    }

    void filterRuleSwitchesTheLinesOff()
    {
        QFETCH(const QString, rule);
        QFETCH(const QStringList, texts);
        QLoggingCategory::setFilterRules(rule);
        Logger(Logger::Information) << "information";
        Logger(Logger::Error) << "error";
        QCOMPARE(kept->texts(), texts);
    }

    void interfaceHasOnePointerNothingVirtualAndNoCopies()
    {
        QCOMPARE(sizeof(Logger), sizeof(void*));
        QVERIFY(!std::is_polymorphic_v<Logger>);
        QVERIFY(!std::is_copy_constructible_v<Logger>);
        QVERIFY(!std::is_copy_assignable_v<Logger>);
    }
};

QTEST_APPLESS_MAIN(LoggerTest)
#include "tst_logger.moc"

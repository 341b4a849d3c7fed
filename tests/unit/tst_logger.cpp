#include <log/Logger.h>
#include <tests/support/Literals.h>
#include <tests/support/Table.h>

#include <QtCore/QLoggingCategory>
#include <QtTest/QtTest>

#include <type_traits>

using namespace Velmora;
using namespace Velmora::Tests;
using Velmora::Log::Logger;

namespace {

struct Message
{
    QtMsgType type;
    QByteArray category;
    QString text;
};

QList<Message>& messages()
{
    static QList<Message> kept;
    return kept;
}

void keep(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    messages().append({type, QByteArray(context.category), text});
}

} // namespace

class LoggerTest : public QObject
{
    Q_OBJECT

private:
    QtMessageHandler previous = nullptr;

private Q_SLOTS:
    void init()
    {
        messages().clear();
        previous = qInstallMessageHandler(keep);
    }

    void cleanup()
    {
        qInstallMessageHandler(previous);
        QLoggingCategory::setFilterRules(QString());
    }

    void severitiesAreZeroAndOne()
    {
        QCOMPARE(int(Logger::Information), 0);
        QCOMPARE(int(Logger::Error), 1);
    }

    void lineGoesToQtsLogWhenTheLoggerIsDestroyed_data()
    {
        const Table<int, int> row("severity", "type");
        row("information", 0, int(QtInfoMsg));
        row("error", 1, int(QtCriticalMsg));
    }

    void lineGoesToQtsLogWhenTheLoggerIsDestroyed()
    {
        QFETCH(const int, severity);
        QFETCH(const int, type);
        {
            Logger logger(static_cast<Logger::Severity>(severity));
            QCOMPARE(&(logger << "a"), &logger);
            QCOMPARE(&(logger << "b"_s), &logger);
            QVERIFY(messages().isEmpty());
        }
        QCOMPARE(messages().size(), 1);
        QCOMPARE(static_cast<int>(messages().constFirst().type), type);
        QCOMPARE(messages().constFirst().category, "velmora.ssdp"_ba);
        QCOMPARE(messages().constFirst().text, "a b"_s);
    }

    void lineWithoutPiecesIsWritten()
    {
        delete new Logger(Logger::Information);
        QCOMPARE(messages().size(), 1);
        QVERIFY(messages().constFirst().text.isEmpty());
    }

    void piecesAreJoinedByOneSpace()
    {
        const char* const null = nullptr;
        Logger(Logger::Information) << "a" << null << "" << QString() << "c"_s;
        QCOMPARE(messages().constFirst().text, "a    c"_s);
    }

    void pieceIsEscapedSoThatALineStaysALine_data()
    {
        const Table<QString, QString> row("piece", "text");
        const auto add = [](const char* name, const QString& piece, const QString& text) {
            row(name, piece, text);
        };
        add("a line feed", "a\nb", "a\\nb");
        add("a carriage return", "a\rb", "a\\rb");
        add("a tab", "a\tb", "a\\tb");
        add("a zero", "a\0b"_s, "a\\u0000b");
        add("an escape", "\x1b[31m", "\\u001b[31m");
        add("the last of C0", "\x1f", "\\u001f");
        add("DEL", "\x7f", "\\u007f");
        add("the first of C1", QChar(0x80), "\\u0080");
        add("next line", QChar(0x85), "\\u0085");
        add("the last of C1", QChar(0x9f), "\\u009f");
        add("a change of direction", QChar(0x202e), "\\u202e");
        add("a space without width", QChar(0x200b), "\\u200b");
        add("the line separator", QChar(0x2028), "\\u2028");
        add("the paragraph separator", QChar(0x2029), "\\u2029");
        add("a space", " a ", " a ");
        add("a percent sign", "%s %n %1", "%s %n %1");
        add("a letter beyond Latin-1", QChar(0x20ac), QChar(0x20ac));
        add("no-break space", QChar(0xa0), QChar(0xa0));
    }

    void pieceIsEscapedSoThatALineStaysALine()
    {
        QFETCH(const QString, piece);
        QFETCH(const QString, text);
        Logger(Logger::Error) << piece;
        Logger(Logger::Information) << piece;
        QCOMPARE(messages().constFirst().text, text);
        QCOMPARE(messages().constLast().text, text);
    }

    void plainCharacterStringIsEscapedLatin1()
    {
        Logger(Logger::Error) << "a\nb\xe9\xff";
        QCOMPARE(messages().constFirst().text, "a\\nb\xe9\xff"_s);
    }

    void longPieceIsCutAndTheRestCounted_data()
    {
        const Table<QString, QString> row("piece", "text");
        const auto add = [](const char* name, const QString& piece, const QString& kept, int leftOut) {
            const QString tail = " [%1 characters left out]"_s.arg(leftOut);
            row(name, piece, (leftOut == 0 ? kept : kept + tail));
        };
        const QString longest = "x"_s.repeated(1024);
        add("1,023", "x"_s.repeated(1023), "x"_s.repeated(1023), 0);
        add("1,024", longest, longest, 0);
        add("1,025", "x"_s.repeated(1025), longest, 1);
        add("4,096", "x"_s.repeated(4096), longest, 3072);
        add("1,000,000", "x"_s.repeated(1000000), longest, 998976);
        add("cut before it is escaped", "\n"_s.repeated(1025), "\\n"_s.repeated(1024), 1);
        add("placeholders", "%2"_s.repeated(600), "%2"_s.repeated(512), 176);
    }

    void longPieceIsCutAndTheRestCounted()
    {
        QFETCH(const QString, piece);
        QFETCH(const QString, text);
        Logger(Logger::Error) << piece << piece << "end";
        QCOMPARE(messages().constFirst().text, text + " " + text + " end");
    }

    void filterRuleSwitchesTheLinesOff_data()
    {
        const Table<QString, QStringList> row("rule", "texts");
        const QString information = "information"_s;
        const QString error = "error"_s;
        row("none", QString(), QStringList{information, error});
        row("information", "velmora.ssdp.info=false", QStringList{error});
        row("errors", "velmora.ssdp.critical=false", QStringList{information});
        row("all", "velmora.ssdp=false", QStringList());
        row("another category", "velmora.other=false", QStringList{information, error});
    }

    void filterRuleSwitchesTheLinesOff()
    {
        QFETCH(const QString, rule);
        QFETCH(const QStringList, texts);
        QLoggingCategory::setFilterRules(rule);
        Logger(Logger::Information) << "information";
        Logger(Logger::Error) << "error";
        QStringList written;
        for (const Message& message : qAsConst(messages()))
            written << message.text;
        QCOMPARE(written, texts);
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

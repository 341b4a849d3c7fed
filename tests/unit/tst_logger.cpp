#include <log/Logger.h>
#include <tests/support/Literals.h>

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
        QCOMPARE(static_cast<int>(Logger::Information), 0);
        QCOMPARE(static_cast<int>(Logger::Error), 1);
    }

    void lineGoesToQtsLogInTheCategory_data()
    {
        QTest::addColumn<int>("severity");
        QTest::addColumn<int>("type");
        QTest::newRow("information") << 0 << static_cast<int>(QtInfoMsg);
        QTest::newRow("error") << 1 << static_cast<int>(QtCriticalMsg);
    }

    void lineGoesToQtsLogInTheCategory()
    {
        QFETCH(const int, severity);
        QFETCH(const int, type);
        {
            Logger logger(static_cast<Logger::Severity>(severity));
            logger << "text";
        }
        QCOMPARE(messages().size(), qsizetype(1));
        QCOMPARE(static_cast<int>(messages().constFirst().type), type);
        QCOMPARE(messages().constFirst().category, "velmora.ssdp"_ba);
        QCOMPARE(messages().constFirst().text, "text"_s);
    }

    void lineIsWrittenWhenTheLoggerGoes()
    {
        {
            Logger logger(Logger::Information);
            logger << "text";
            QVERIFY(messages().isEmpty());
        }
        QCOMPARE(messages().size(), qsizetype(1));
    }

    void lineWithoutPiecesIsWritten()
    {
        {
            const Logger logger(Logger::Information);
        }
        QCOMPARE(messages().size(), qsizetype(1));
        QVERIFY(messages().constFirst().text.isEmpty());
    }

    void piecesAreJoinedByOneBlank()
    {
        Logger(Logger::Information) << "a"
                                    << "b"
                                    << "" << QString() << "c";
        QCOMPARE(messages().constFirst().text, "a b   c"_s);
    }

    void streamingReturnsTheLogger()
    {
        Logger logger(Logger::Information);
        QCOMPARE(&(logger << "a"), &logger);
        QCOMPARE(&(logger << "b"_s), &logger);
    }

    void pieceIsEscapedSoThatALineStaysALine_data()
    {
        QTest::addColumn<QString>("piece");
        QTest::addColumn<QString>("text");
        QTest::newRow("a line feed") << "a\nb"
                                     << "a\\nb";
        QTest::newRow("a carriage return") << "a\rb"
                                           << "a\\rb";
        QTest::newRow("a tab") << "a\tb"
                               << "a\\tb";
        QTest::newRow("a zero") << QString::fromLatin1("a\0b", 3) << "a\\u0000b";
        QTest::newRow("an escape") << "\x1b[31m"
                                   << "\\u001b[31m";
        QTest::newRow("the last of C0") << "\x1f"
                                        << "\\u001f";
        QTest::newRow("DEL") << "\x7f"
                             << "\\u007f";
        QTest::newRow("the first of C1") << QString(QChar(0x80)) << "\\u0080";
        QTest::newRow("next line") << QString(QChar(0x85)) << "\\u0085";
        QTest::newRow("the last of C1") << QString(QChar(0x9f)) << "\\u009f";
        QTest::newRow("a change of direction") << QString(QChar(0x202e)) << "\\u202e";
        QTest::newRow("a blank without width") << QString(QChar(0x200b)) << "\\u200b";
        QTest::newRow("the line separator") << QString(QChar(0x2028)) << "\\u2028";
        QTest::newRow("the paragraph separator") << QString(QChar(0x2029)) << "\\u2029";
        QTest::newRow("a blank") << " a "
                                 << " a ";
        QTest::newRow("a percent sign") << "%s %n %1"
                                        << "%s %n %1";
        QTest::newRow("a letter beyond Latin-1") << QString(QChar(0x20ac)) << QString(QChar(0x20ac));
        QTest::newRow("no-break space") << QString(QChar(0xa0)) << QString(QChar(0xa0));
    }

    void pieceIsEscapedSoThatALineStaysALine()
    {
        QFETCH(const QString, piece);
        QFETCH(const QString, text);
        Logger(Logger::Error) << piece;
        QCOMPARE(messages().constFirst().text, text);
    }

    void plainCharacterStringIsEscapedToo()
    {
        Logger(Logger::Error) << "a\nb";
        QCOMPARE(messages().constFirst().text, "a\\nb"_s);
    }

    void plainCharacterStringIsLatin1()
    {
        Logger(Logger::Information) << "\xe9\xff";
        QCOMPARE(messages().constFirst().text, QStringLiteral(u"\u00e9\u00ff"));
    }

    void nullCharacterStringIsAnEmptyPiece()
    {
        Logger(Logger::Information) << static_cast<const char*>(nullptr) << "a";
        QCOMPARE(messages().constFirst().text, " a"_s);
    }

    void longPieceIsCutAndTheRestCounted_data()
    {
        QTest::addColumn<int>("length");
        QTest::addColumn<QString>("tail");
        QTest::newRow("1,023") << 1023 << QString();
        QTest::newRow("1,024") << 1024 << QString();
        QTest::newRow("1,025") << 1025 << " [1 characters left out]";
        QTest::newRow("4,096") << 4096 << " [3072 characters left out]";
        QTest::newRow("1,000,000") << 1000000 << " [998976 characters left out]";
    }

    void longPieceIsCutAndTheRestCounted()
    {
        QFETCH(const int, length);
        QFETCH(const QString, tail);
        Logger(Logger::Error) << QString(length, QLatin1Char('x')) << "end";
        QCOMPARE(messages().constFirst().text, QString(qMin(length, 1024), QLatin1Char('x')) + tail + " end"_s);
    }

    void piecesAreCutEachByItself()
    {
        const QString piece(1024, QLatin1Char('x'));
        Logger(Logger::Error) << piece << piece;
        QCOMPARE(messages().constFirst().text, piece + QLatin1Char(' ') + piece);
    }

    void longPieceIsCutBeforeItIsEscaped()
    {
        Logger(Logger::Error) << QString(1025, QLatin1Char('\n'));
        QCOMPARE(messages().constFirst().text, "\\n"_s.repeated(1024) + " [1 characters left out]"_s);
    }

    void longPieceMayHoldPlaceholders()
    {
        const QString piece = "%2"_s.repeated(600);
        Logger(Logger::Error) << piece;
        QCOMPARE(messages().constFirst().text, piece.left(1024) + " [176 characters left out]"_s);
    }

    void filterRuleSwitchesTheLinesOff_data()
    {
        QTest::addColumn<QString>("rule");
        QTest::addColumn<QStringList>("texts");
        const QString information = "information"_s;
        const QString error = "error"_s;
        QTest::newRow("none") << QString() << QStringList{information, error};
        QTest::newRow("information") << "velmora.ssdp.info=false" << QStringList{error};
        QTest::newRow("errors") << "velmora.ssdp.critical=false" << QStringList{information};
        QTest::newRow("all") << "velmora.ssdp=false" << QStringList();
        QTest::newRow("another category") << "velmora.other=false" << QStringList{information, error};
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

    void interfaceHasOnePointerAndNothingVirtual()
    {
        QCOMPARE(sizeof(Logger), sizeof(void*));
        QVERIFY(!std::is_polymorphic_v<Logger>);
    }

    void loggerIsNotCopied()
    {
        QVERIFY(!std::is_copy_constructible_v<Logger>);
        QVERIFY(!std::is_copy_assignable_v<Logger>);
    }
};

QTEST_APPLESS_MAIN(LoggerTest)
#include "tst_logger.moc"

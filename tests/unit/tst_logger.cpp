#include <log/Logger.h>

#include <QtCore/QLoggingCategory>
#include <QtTest/QtTest>

#include <type_traits>

using Velmora::Log::Logger;

namespace Velmora {
namespace Tests {

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

    void theSeveritiesAreZeroAndOne()
    {
        QCOMPARE(static_cast<int>(Logger::Information), 0);
        QCOMPARE(static_cast<int>(Logger::Error), 1);
    }

    void aLineGoesToQtsLogInTheCategory_data()
    {
        QTest::addColumn<int>("severity");
        QTest::addColumn<int>("type");
        QTest::newRow("information") << 0 << static_cast<int>(QtInfoMsg);
        QTest::newRow("error") << 1 << static_cast<int>(QtCriticalMsg);
    }

    void aLineGoesToQtsLogInTheCategory()
    {
        QFETCH(const int, severity);
        QFETCH(const int, type);
        {
            Logger logger(static_cast<Logger::Severity>(severity));
            logger << "text";
        }
        QCOMPARE(messages().size(), qsizetype(1));
        QCOMPARE(static_cast<int>(messages().constFirst().type), type);
        QCOMPARE(messages().constFirst().category, QByteArray("velmora.ssdp"));
        QCOMPARE(messages().constFirst().text, QStringLiteral("text"));
    }

    void aLineIsWrittenWhenTheLoggerGoes()
    {
        {
            Logger logger(Logger::Information);
            logger << "text";
            QVERIFY(messages().isEmpty());
        }
        QCOMPARE(messages().size(), qsizetype(1));
    }

    void aLineWithoutPiecesIsWritten()
    {
        {
            const Logger logger(Logger::Information);
        }
        QCOMPARE(messages().size(), qsizetype(1));
        QVERIFY(messages().constFirst().text.isEmpty());
    }

    void piecesAreJoinedByOneBlank()
    {
        Logger(Logger::Information) << "a" << QStringLiteral("b") << "" << QString() << "c";
        QCOMPARE(messages().constFirst().text, QStringLiteral("a b   c"));
    }

    void streamingReturnsTheLogger()
    {
        Logger logger(Logger::Information);
        QCOMPARE(&(logger << "a"), &logger);
        QCOMPARE(&(logger << QStringLiteral("b")), &logger);
    }

    void aPieceIsEscapedSoThatALineStaysALine_data()
    {
        QTest::addColumn<QString>("piece");
        QTest::addColumn<QString>("text");
        QTest::newRow("a line feed") << QStringLiteral("a\nb") << QStringLiteral("a\\nb");
        QTest::newRow("a carriage return") << QStringLiteral("a\rb") << QStringLiteral("a\\rb");
        QTest::newRow("a tab") << QStringLiteral("a\tb") << QStringLiteral("a\\tb");
        QTest::newRow("a zero") << QString::fromLatin1("a\0b", 3) << QStringLiteral("a\\u0000b");
        QTest::newRow("an escape") << QStringLiteral("\x1b[31m") << QStringLiteral("\\u001b[31m");
        QTest::newRow("the last of C0") << QStringLiteral("\x1f") << QStringLiteral("\\u001f");
        QTest::newRow("DEL") << QStringLiteral("\x7f") << QStringLiteral("\\u007f");
        QTest::newRow("the first of C1") << QString(QChar(0x80)) << QStringLiteral("\\u0080");
        QTest::newRow("next line") << QString(QChar(0x85)) << QStringLiteral("\\u0085");
        QTest::newRow("the last of C1") << QString(QChar(0x9f)) << QStringLiteral("\\u009f");
        QTest::newRow("a change of direction") << QString(QChar(0x202e)) << QStringLiteral("\\u202e");
        QTest::newRow("a blank without width") << QString(QChar(0x200b)) << QStringLiteral("\\u200b");
        QTest::newRow("the line separator") << QString(QChar(0x2028)) << QStringLiteral("\\u2028");
        QTest::newRow("the paragraph separator") << QString(QChar(0x2029)) << QStringLiteral("\\u2029");
        QTest::newRow("a blank") << QStringLiteral(" a ") << QStringLiteral(" a ");
        QTest::newRow("a percent sign") << QStringLiteral("%s %n %1") << QStringLiteral("%s %n %1");
        QTest::newRow("a letter beyond Latin-1") << QString(QChar(0x20ac)) << QString(QChar(0x20ac));
        QTest::newRow("no-break space") << QString(QChar(0xa0)) << QString(QChar(0xa0));
    }

    void aPieceIsEscapedSoThatALineStaysALine()
    {
        QFETCH(const QString, piece);
        QFETCH(const QString, text);
        Logger(Logger::Error) << piece;
        QCOMPARE(messages().constFirst().text, text);
    }

    void aPlainCharacterStringIsEscapedToo()
    {
        Logger(Logger::Error) << "a\nb";
        QCOMPARE(messages().constFirst().text, QStringLiteral("a\\nb"));
    }

    void aPlainCharacterStringIsLatin1()
    {
        Logger(Logger::Information) << "\xe9\xff";
        QCOMPARE(messages().constFirst().text, QStringLiteral(u"\u00e9\u00ff"));
    }

    void aNullCharacterStringIsAnEmptyPiece()
    {
        Logger(Logger::Information) << static_cast<const char*>(nullptr) << "a";
        QCOMPARE(messages().constFirst().text, QStringLiteral(" a"));
    }

    void aLongPieceIsCutAndTheRestCounted_data()
    {
        QTest::addColumn<int>("length");
        QTest::addColumn<QString>("tail");
        QTest::newRow("1,023") << 1023 << QString();
        QTest::newRow("1,024") << 1024 << QString();
        QTest::newRow("1,025") << 1025 << QStringLiteral(" [1 characters left out]");
        QTest::newRow("4,096") << 4096 << QStringLiteral(" [3072 characters left out]");
        QTest::newRow("1,000,000") << 1000000 << QStringLiteral(" [998976 characters left out]");
    }

    void aLongPieceIsCutAndTheRestCounted()
    {
        QFETCH(const int, length);
        QFETCH(const QString, tail);
        Logger(Logger::Error) << QString(length, QLatin1Char('x')) << "end";
        QCOMPARE(messages().constFirst().text,
                 QString(qMin(length, 1024), QLatin1Char('x')) + tail + QStringLiteral(" end"));
    }

    void piecesAreCutEachByItself()
    {
        const QString piece(1024, QLatin1Char('x'));
        Logger(Logger::Error) << piece << piece;
        QCOMPARE(messages().constFirst().text, piece + QLatin1Char(' ') + piece);
    }

    void aLongPieceIsCutBeforeItIsEscaped()
    {
        Logger(Logger::Error) << QString(1025, QLatin1Char('\n'));
        QCOMPARE(messages().constFirst().text,
                 QStringLiteral("\\n").repeated(1024) + QStringLiteral(" [1 characters left out]"));
    }

    void aLongPieceMayHoldPlaceholders()
    {
        const QString piece = QStringLiteral("%2").repeated(600);
        Logger(Logger::Error) << piece;
        QCOMPARE(messages().constFirst().text, piece.left(1024) + QStringLiteral(" [176 characters left out]"));
    }

    void aFilterRuleSwitchesTheLinesOff_data()
    {
        QTest::addColumn<QString>("rule");
        QTest::addColumn<QStringList>("texts");
        const QString information = QStringLiteral("information");
        const QString error = QStringLiteral("error");
        QTest::newRow("none") << QString() << QStringList{information, error};
        QTest::newRow("information") << QStringLiteral("velmora.ssdp.info=false") << QStringList{error};
        QTest::newRow("errors") << QStringLiteral("velmora.ssdp.critical=false") << QStringList{information};
        QTest::newRow("all") << QStringLiteral("velmora.ssdp=false") << QStringList();
        QTest::newRow("another category")
            << QStringLiteral("velmora.other=false") << QStringList{information, error};
    }

    void aFilterRuleSwitchesTheLinesOff()
    {
        QFETCH(const QString, rule);
        QFETCH(const QStringList, texts);
        QLoggingCategory::setFilterRules(rule);
        Logger(Logger::Information) << "information";
        Logger(Logger::Error) << QStringLiteral("error");
        QStringList written;
        for (const Message& message : qAsConst(messages()))
            written << message.text;
        QCOMPARE(written, texts);
    }

    void theInterfaceHasOnePointerAndNothingVirtual()
    {
        QCOMPARE(sizeof(Logger), sizeof(void*));
        QVERIFY(!std::is_polymorphic_v<Logger>);
    }

    void aLoggerIsNotCopied()
    {
        QVERIFY(!std::is_copy_constructible_v<Logger>);
        QVERIFY(!std::is_copy_assignable_v<Logger>);
    }
};

} // namespace Tests
} // namespace Velmora

QTEST_APPLESS_MAIN(Velmora::Tests::LoggerTest)
#include "tst_logger.moc"

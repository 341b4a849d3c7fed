#ifndef VELMORA_TESTS_SUPPORT_TABLE_H
#define VELMORA_TESTS_SUPPORT_TABLE_H

#include <QtTest/QtTest>

namespace Velmora {
namespace Tests {

/**
 * The table of a data-driven test.
 *
 * @code
 * const Table<QByteArray, int> row("body", "services");
 * row("no service", deviceDescription(""), 0);
 * @endcode
 */
template <typename... Cells> class Table
{
public:
    template <typename... Names> explicit Table(Names... names) { (QTest::addColumn<Cells>(names), ...); }

    void operator()(const QByteArray& name, const Cells&... cells) const
    {
        (QTest::newRow(name.constData()) << ... << cells);
    }
};

/// Adds the columns of the table of a test: addColumns<QString, int>("command", "status").
template <typename... Cells, typename... Names> void addColumns(const Names&... names)
{
    (QTest::addColumn<Cells>(names), ...);
}

template <typename Value> const Value& cellOf(const Value& value)
{
    return value;
}

inline QString cellOf(const char* text)
{
    return QString::fromUtf8(text);
}

/// Adds a row to the table of a test. A plain literal becomes a QString.
template <typename... Cells> void addRow(const QString& name, const Cells&... cells)
{
    QTestData& row = QTest::newRow(qPrintable(name));
    (void(row << cellOf(cells)), ...);
}

} // namespace Tests
} // namespace Velmora

#endif

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

} // namespace Tests
} // namespace Velmora

#endif

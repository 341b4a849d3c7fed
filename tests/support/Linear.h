#ifndef VELMORA_TESTS_SUPPORT_LINEAR_H
#define VELMORA_TESTS_SUPPORT_LINEAR_H

#include <tests/support/Literals.h>

#include <QtCore/QFile>
#include <QtTest/QtTest>

#include <functional>
#include <valgrind/callgrind.h>

namespace Velmora {
namespace Tests {

/// The work whose instructions are counted.
using Work = std::function<void()>;
/// Returns the work for an input of a size.
using Maker = std::function<Work(int)>;

/// Returns how many instructions all threads execute during @p work. Returns 0 if the program does not run under
/// Valgrind's callgrind with the output file CALLGRIND_FILE.
inline qint64 instructionsOf(const Work& work)
{
    CALLGRIND_ZERO_STATS;
    work();
    CALLGRIND_DUMP_STATS;
    static int dumps = 0;
    QFile file("%1.%2"_s.arg(CALLGRIND_FILE).arg(++dumps));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray dump = file.readAll();
    file.remove();
    const QByteArray label("\ntotals: ");
    return dump.mid(dump.lastIndexOf(label) + label.size()).simplified().toLongLong();
}

/// How many instructions the work takes for an input of a size, and for an input that is four times as large.
/// Other programs do not change these numbers.
struct Growth
{
    Growth(const Maker& maker, int size)
    {
        const Work once = maker(size);
        const Work fourTimes = maker(4 * size);
        // These two runs are not counted. They fill tables, and merge the blocks of memory that earlier tests
        // freed. Later runs need not do this.
        once();
        once();
        before = instructionsOf(once);
        after = instructionsOf(fourTimes);
    }

    /// Five times the instructions are allowed for four times the input, because a buffer grows in steps.
    bool isLinear() const { return after <= 5 * before; }

    qint64 before = 0;
    qint64 after = 0;
};

} // namespace Tests
} // namespace Velmora

/// Verifies that the work of @p maker is linear, for inputs of @p size and 4 * @p size. Skips the test outside
/// callgrind.
#define VERIFY_LINEAR(maker, size)                                                                                \
    do {                                                                                                          \
        const Velmora::Tests::Growth growth(maker, size);                                                         \
        if (growth.before == 0)                                                                                   \
            QSKIP("Only callgrind counts instructions. CTest runs this program under it.");                       \
        QVERIFY2(                                                                                                 \
            growth.isLinear(),                                                                                    \
            qPrintable("%1 instructions, %2 for four times the size"_s.arg(growth.before).arg(growth.after)));    \
    } while (false)

#endif

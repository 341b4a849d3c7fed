#ifndef VELMORA_TESTS_WIRE_ATTACKS_H
#define VELMORA_TESTS_WIRE_ATTACKS_H

#include <tests/wire/Attacker.h>

namespace Velmora {
namespace Tests {

/// What somebody on the network may do to the host.
struct Attack
{
    enum Trait {
        Quick = 0x1, ///< Part of the reduced set.
        Unending = 0x2, ///< Leaves requests without an end, so the test does not wait for the end.
        ManyRecords = 0x4, ///< Has so many records that the test does not limit the memory.
        FewDescriptors = 0x8, ///< The host may open at most 1,024 descriptors.
        Stalled = 0x10, ///< The host is busy for 400 ms after its search.
        Oversized = 0x20, ///< So large that the test does not limit the time of the host.
        Prompt = 0x40, ///< Must not delay the good device or the destructor of the controller.
        Large = 0x80 ///< Sends a large document or event, so the limit of the memory is higher.
    };

    QByteArray name;
    int traits;
    /// Runs the attack after the search of the host. Throws if something cannot be done.
    std::function<void(Attacker&)> run;
    /// The host must have at least this many records of devices at the end. The good device is not counted.
    int devices = 1;
};

/// All attacks. The first one does nothing.
const std::vector<Attack>& attacks();

} // namespace Tests
} // namespace Velmora

#endif

#ifndef VELMORA_TESTS_WIRE_ATTACKS_H
#define VELMORA_TESTS_WIRE_ATTACKS_H

#include <tests/wire/Attacker.h>

#include <functional>
#include <string>
#include <vector>

namespace Velmora {
namespace Tests {

/// One thing that somebody on the network may do to the host.
struct Attack
{
    enum Trait {
        Quick = 0x1, ///< Part of the reduced set.
        Unending = 0x2, ///< Leaves requests that nobody ends, so nobody waits for their end.
        ManyRecords = 0x4, ///< Says so much that what is kept of it is not bounded.
        FewDescriptors = 0x8, ///< The host may open 1,024 descriptors.
        Stalled = 0x10, ///< The host is busy for 400 ms once it has searched.
        Oversized = 0x20, ///< Longer than what the time of the host is bounded for.
        Prompt = 0x40 ///< Delays neither the good device nor the end of the controller by 100 ms.
    };

    std::string name;
    int traits;
    /// How long the good device pauses at most between head and body of its event, in milliseconds; longer
    /// than the host may be busy, since head and body that are read together are dropped. The pause ends
    /// with the attack, once the host has read the head.
    int eventGap;
    /// Records of devices that the host has to have in the end.
    int devices;
    /// Does it, after the host has searched; throws if it failed.
    std::function<void(Attacker&)> run;
};

/// The first one does nothing.
const std::vector<Attack>& attacks();

} // namespace Tests
} // namespace Velmora

#endif

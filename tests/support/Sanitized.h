#ifndef VELMORA_TESTS_SUPPORT_SANITIZED_H
#define VELMORA_TESTS_SUPPORT_SANITIZED_H

namespace Velmora {
namespace Tests {

/// Whether this build has AddressSanitizer. It takes time and keeps freed memory.
#if defined(__SANITIZE_ADDRESS__)
const bool SANITIZED = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
const bool SANITIZED = true;
#else
const bool SANITIZED = false;
#endif
#else
const bool SANITIZED = false;
#endif

} // namespace Tests
} // namespace Velmora

#endif

// Sanitizers and emulation slow programs down; tests scale what they do by it.
#pragma once

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define REFLECTORB_TEST_SANITIZED
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define REFLECTORB_TEST_SANITIZED
#endif

namespace testsupport {

#if defined(REFLECTORB_TEST_SANITIZED) || defined(__arm__)
constexpr bool kSlow = true;  // ARM: mostly under emulation
#else
constexpr bool kSlow = false;
#endif

/** A number of calls, rounds or bytes; a fifth of it where programs are slow. */
constexpr unsigned int scaled(unsigned int count) {
    return kSlow ? (count + 4) / 5 : count;
}

}  // namespace testsupport

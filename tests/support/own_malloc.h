// VRXUTIL_OWN_MALLOC: a sanitizer stands in malloc's place, and ends a process that
// asks for more memory than there is.

#pragma once

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VRXUTIL_OWN_MALLOC 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define VRXUTIL_OWN_MALLOC 1
#endif
#endif

namespace vrxutil::test {

/// Why a test that runs out of memory is skipped.
inline constexpr char kOwnMalloc[] = "the sanitizer ends a process that has no memory";

}  // namespace vrxutil::test

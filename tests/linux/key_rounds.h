// How often the destructors of POSIX keys are run at the end of a thread.

#pragma once

#include <limits.h>

#if defined(__SANITIZE_THREAD__)
#define VRXUTIL_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VRXUTIL_THREAD_SANITIZER 1
#endif
#endif

namespace vrxutil::test {

#ifdef VRXUTIL_THREAD_SANITIZER
// ThreadSanitizer's own record of the thread goes in the last round, into which
// what is made in the last but one may be carried over.
inline constexpr int kKeyRounds = PTHREAD_DESTRUCTOR_ITERATIONS - 2;
#else
inline constexpr int kKeyRounds = PTHREAD_DESTRUCTOR_ITERATIONS;
#endif

}  // namespace vrxutil::test

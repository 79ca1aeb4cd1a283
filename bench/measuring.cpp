#include "bench/measuring.h"

#include <cstdlib>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace vrxutil::bench {

namespace {

/// Freed memory stays with the process, so that no figure depends on whether the
/// one before gave pages back to the system.
bool keepFreedMemory() {
#if defined(__GLIBC__)
  return ::mallopt(M_MMAP_THRESHOLD, 32 << 20) == 1 && ::mallopt(M_TRIM_THRESHOLD, 1 << 30) == 1;
#else
  return false;
#endif
}

[[maybe_unused]] bool const kKeepsFreedMemory = keepFreedMemory();

}  // namespace

void settleFreedMemory() {
  void* block = std::malloc(64 << 10);
  benchmark::DoNotOptimize(block);
  std::free(block);
}

}  // namespace vrxutil::bench

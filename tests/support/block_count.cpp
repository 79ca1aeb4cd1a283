#include "tests/support/block_count.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

constinit thread_local long blocks = 0;

}  // namespace

void* operator new(std::size_t size) {
  ++blocks;
  if (void* const block = std::malloc(size > 0 ? size : 1)) return block;
  throw std::bad_alloc();
}

// Inlined alone, the deletes make g++ miss that the blocks come from malloc.
[[gnu::noinline]] void operator delete(void* block) noexcept { std::free(block); }

[[gnu::noinline]] void operator delete(void* block, std::size_t /*size*/) noexcept {
  std::free(block);
}

namespace vrxutil::test {

long blocksTaken() noexcept { return blocks; }

}  // namespace vrxutil::test

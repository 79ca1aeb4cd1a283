#include "tests/support/memory_shortage.h"

#include <cstdlib>
#include <limits>
#include <new>

namespace {

constexpr std::size_t kNone = std::numeric_limits<std::size_t>::max();

constinit thread_local std::size_t refusedSize = kNone;

void* take(std::size_t size) noexcept {
  return size < refusedSize ? std::malloc(size > 0 ? size : 1) : nullptr;
}

void* takeOrThrow(std::size_t size) {
  if (void* const block = take(size)) return block;
  throw std::bad_alloc();
}

}  // namespace

// Not inline, since the compiler takes a call of free() beside one of operator new
// for a mistake. The array forms are written out for sanitizers, which would put
// theirs in their place.

[[gnu::noinline]] void* operator new(std::size_t size) { return takeOrThrow(size); }

[[gnu::noinline]] void* operator new[](std::size_t size) { return takeOrThrow(size); }

[[gnu::noinline]] void* operator new(std::size_t size, std::nothrow_t const&) noexcept {
  return take(size);
}

[[gnu::noinline]] void* operator new[](std::size_t size, std::nothrow_t const&) noexcept {
  return take(size);
}

[[gnu::noinline]] void operator delete(void* block) noexcept { std::free(block); }

[[gnu::noinline]] void operator delete[](void* block) noexcept { std::free(block); }

[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept { std::free(block); }

[[gnu::noinline]] void operator delete[](void* block, std::size_t) noexcept { std::free(block); }

[[gnu::noinline]] void operator delete(void* block, std::nothrow_t const&) noexcept {
  std::free(block);
}

[[gnu::noinline]] void operator delete[](void* block, std::nothrow_t const&) noexcept {
  std::free(block);
}

namespace vrxutil::test {

MemoryShortage::MemoryShortage(std::size_t size) noexcept { refusedSize = size; }

MemoryShortage::~MemoryShortage() { refusedSize = kNone; }

}  // namespace vrxutil::test

// Memory for much that is needed for a short time.
//
// Internal; not installed.

#pragma once

#include <cstddef>
#include <new>

#include <sys/mman.h>

namespace vrxutil::detail {

/// An allocator that takes large blocks from the system, in large pages where it
/// has them: memory that is read at random has them all at hand then. The blocks
/// go back when they are freed, whatever the heap has got above them since.
template <class T>
struct LargeBlocks {
  using value_type = T;

  /// In bytes; well below, most of a large page would stay unused.
  static constexpr std::size_t kSmallestLarge = 2U << 20;

  LargeBlocks() = default;

  template <class Other>
  // NOLINTNEXTLINE(google-explicit-constructor): asked of an allocator
  LargeBlocks(LargeBlocks<Other> const& /*other*/) {}

  T* allocate(std::size_t count) {
    if (!isLarge(count)) return static_cast<T*>(::operator new(count * sizeof(T)));
    void* const block = ::mmap(nullptr, count * sizeof(T), PROT_READ | PROT_WRITE,
                               MAP_PRIVATE | MAP_ANONYMOUS, /*fd=*/-1, /*offset=*/0);
    if (block == MAP_FAILED) throw std::bad_alloc();
#ifdef MADV_HUGEPAGE
    ::madvise(block, count * sizeof(T), MADV_HUGEPAGE);  // or small pages
#endif
    return static_cast<T*>(block);
  }

  void deallocate(T* block, std::size_t count) noexcept {
    if (isLarge(count)) {
      ::munmap(block, count * sizeof(T));
    } else {
      ::operator delete(block);
    }
  }

  bool operator==(LargeBlocks const&) const = default;

private:
  static bool isLarge(std::size_t count) { return count >= kSmallestLarge / sizeof(T); }
};

}  // namespace vrxutil::detail

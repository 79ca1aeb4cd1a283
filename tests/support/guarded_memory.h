// Memory that ends, at both ends, where the process may not go.

#pragma once

#include <cstddef>
#include <new>

#include <sys/mman.h>
#include <unistd.h>

namespace vrxutil::test {

/// Which of the guards is the neighbour.
enum class GuardSide { before, behind };

/// Reading or writing one byte beyond it ends the test.
class GuardedMemory {
public:
  explicit GuardedMemory(std::size_t maxSize) {
    auto const page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    size_ = (maxSize + page - 1) / page * page;
    mappedSize_ = size_ + 2 * page;
    mapped_ = ::mmap(nullptr, mappedSize_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped_ == MAP_FAILED) throw std::bad_alloc();
    start_ = static_cast<char*>(mapped_) + page;
    if (::mprotect(start_, size_, PROT_READ | PROT_WRITE) != 0) throw std::bad_alloc();
  }

  ~GuardedMemory() { ::munmap(mapped_, mappedSize_); }

  GuardedMemory(GuardedMemory const&) = delete;
  GuardedMemory& operator=(GuardedMemory const&) = delete;

  /// `size` bytes, at most those asked for, with a guard right at that side.
  char* at(GuardSide side, std::size_t size) const {
    return side == GuardSide::before ? start_ : start_ + (size_ - size);
  }

  /// The last `count` elements before the guard behind.
  template <class T>
  T* last(std::size_t count) const {
    void* const address = at(GuardSide::behind, count * sizeof(T));
    return static_cast<T*>(address);
  }

private:
  std::size_t size_ = 0;
  std::size_t mappedSize_ = 0;
  void* mapped_ = nullptr;
  char* start_ = nullptr;
};

}  // namespace vrxutil::test

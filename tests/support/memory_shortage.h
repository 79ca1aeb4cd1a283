// Memory that runs out for large blocks only. A program that links this has an
// operator new that can refuse them.

#pragma once

#include <cstddef>

namespace vrxutil::test {

/// During its life this thread gets no block of `size` bytes or more from new, in any
/// of its forms. Not to be nested.
class MemoryShortage {
public:
  explicit MemoryShortage(std::size_t size) noexcept;
  ~MemoryShortage();

  MemoryShortage(MemoryShortage const&) = delete;
  MemoryShortage& operator=(MemoryShortage const&) = delete;
};

}  // namespace vrxutil::test

// Sorts names that are parts of a UTF-8 text, many at a time.
//
// Internal; not installed.

#pragma once

#include "ini/large_blocks.h"

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace vrxutil::detail {

/// What is sorted by its name.
struct Named {
  std::string_view name;
};

/// Brings names that are different parts of one text into the order of their
/// characters. Most are compared as numbers,
/// made of the eight bytes that follow what all have in common.
class NameSorter {
public:
  struct Item {
    std::uint64_t number;
    Named* named;
  };

  using Items = std::vector<Item, LargeBlocks<Item>>;

  void clear() { items_.clear(); }

  /// Room for as many as there will be.
  void reserve(std::size_t count) { items_.reserve(count); }

  /// `named` stays where it is.
  void add(Named& named) { items_.push_back({0, &named}); }

  /// What was added, in ascending order; equal names in the order of the text.
  Items const& sorted();

private:
  void setNumbers();
  void sortByNumber();

  Items items_;
  Items spare_;
};

}  // namespace vrxutil::detail

// Pairs of one section that do not come in ascending order.
//
// Internal; not installed.

#pragma once

#include <cstddef>
#include <deque>
#include <map>
#include <string>
#include <utility>

namespace vrxutil::detail {

/// Collects pairs and puts them into a map in ascending order, which is several
/// times as fast as one by one: neither is the tree searched nor its memory
/// walked at random.
class UnsortedPairs {
public:
  void add(std::wstring const& key, std::wstring const& value) { pairs_.emplace_back(key, value); }

  /// Moves all pairs into `map`. They are newer than what it has: of a key that
  /// occurs several times, the value added last stays.
  void moveTo(std::map<std::wstring, std::wstring>& map);

private:
  std::size_t commonPrefix() const;

  std::deque<std::pair<std::wstring, std::wstring>> pairs_;
};

}  // namespace vrxutil::detail

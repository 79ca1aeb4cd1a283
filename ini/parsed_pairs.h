// The pairs of an INI file on their way into the maps.
//
// Internal; not installed.

#pragma once

#include "ini/large_blocks.h"
#include "ini/name_sorter.h"

#include <cstddef>
#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace vrxutil::detail {

/// Takes pairs as parts of a text, and makes maps of them.
///
/// Maps that are filled in ascending order are several times as fast as maps that
/// look for the place of each pair, and their memory lies in that order. So pairs
/// wait until all of their section are known and can be sorted. Those that come in
/// order, as AnIni2::write() leaves them, only wait for a small batch.
class ParsedPairs {
public:
  using KeyMap = std::map<std::wstring, std::wstring>;
  using SectionMap = std::multimap<std::wstring, KeyMap>;
  using Text = std::basic_string<char, std::char_traits<char>, LargeBlocks<char>>;

  /// What the pairs are parts of: UTF-8, and not changed after the first add().
  Text& text() { return text_; }

  /// All pairs under one header come with the same part of the text as `section`.
  void add(std::string_view section, std::string_view key, std::string_view value);

  /// Moves all pairs into `sections`, which is empty. Of a key that occurs several
  /// times in a section, the value added last stays.
  void moveTo(SectionMap& sections);

private:
  struct Pair : Named {
    std::string_view value;
  };

  /// What stands under one header.
  struct Block : Named {
    KeyMap keys;
  };

  using Pairs = std::vector<Pair, LargeBlocks<Pair>>;

  void wait(Pair const& pair);
  void storeWaiting();
  void storeSorted(KeyMap& keys);

  Text text_;
  std::deque<Block> blocks_;
  std::vector<Pairs> waiting_;  // of the last block; each keeps its capacity
  std::size_t last_ = 0;        // the first of them with room
  std::size_t waitingCount_ = 0;
  bool isInOrder_ = true;  // all pairs of the last block
  std::string_view lastKey_;
  NameSorter sorter_;
};

}  // namespace vrxutil::detail

// Finds the value of a key in a section without walking down two trees.
//
// Internal; not installed. Only std::bad_alloc is thrown, and changes nothing.

#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace vrxutil::detail {

/// A hash table of pointers to the entries of the maps, which must stay where they
/// are. It takes 42 to 54 bytes a pair.
class PairIndex {
public:
  using KeyMap = std::map<std::wstring, std::wstring>;
  using SectionMap = std::multimap<std::wstring, KeyMap>;

  explicit PairIndex(SectionMap const& sections);

  /// Adds a pair that is not in the index yet.
  void add(SectionMap::value_type const& section, KeyMap::value_type const& pair);

  /// False when too many names meet in one place of the table, as names chosen
  /// for that do: it would become slow, and does not know all pairs.
  bool isUsable() const { return isUsable_; }

  /// The value of the key; null when there is none.
  std::wstring const* find(std::wstring_view section, std::wstring_view key) const;

private:
  struct Entry {
    SectionMap::value_type const* section;
    KeyMap::value_type const* pair;
    // Only to have them read in time: the value's may be out of date.
    wchar_t const* keyText;
    wchar_t const* valueText;
  };

  static Entry entryOf(SectionMap::value_type const& section, KeyMap::value_type const& pair);

  std::size_t placeOf(std::uint64_t hash) const;
  std::size_t next(std::size_t place) const;
  void put(std::uint64_t hash, Entry const& entry);
  void resize(std::size_t places);

  // A tag is a part of the hash, or 0 where the place is free.
  std::vector<std::uint16_t> tags_;
  std::vector<Entry> entries_;
  std::size_t count_ = 0;
  bool isUsable_ = true;
};

}  // namespace vrxutil::detail

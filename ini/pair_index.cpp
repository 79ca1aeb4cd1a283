#include "ini/pair_index.h"

#include <functional>
#include <utility>

namespace vrxutil::detail {

namespace {

/// A well-filled table has runs of some hundred places at most.
constexpr std::size_t kLongestRun = 2048;

constexpr std::size_t kFewestPlaces = 16;

/// The table grows when it would be filled by more than this, in percent.
constexpr std::size_t kMostFilled = 80;

std::uint64_t hashOf(std::wstring_view section, std::wstring_view key) {
  std::hash<std::wstring_view> const hash;
  constexpr std::uint64_t kGoldenRatio = 0x9E3779B97F4A7C15;
  std::uint64_t const mixed = hash(section) * kGoldenRatio + hash(key);
  return (mixed ^ mixed >> 32) * kGoldenRatio;
}

std::uint16_t tagOf(std::uint64_t hash) { return static_cast<std::uint16_t>(hash | 1); }

}  // namespace

PairIndex::PairIndex(SectionMap const& sections) {
  std::size_t pairs = 0;
  for (auto const& [name, keys] : sections) pairs += keys.size();
  resize(pairs * 100 / kMostFilled + kFewestPlaces);
  for (auto const& section : sections) {
    for (auto const& pair : section.second) put({&section, &pair});
  }
}

void PairIndex::add(SectionMap::value_type const& section, KeyMap::value_type const& pair) {
  if (count_ >= tags_.size() / 100 * kMostFilled) resize(tags_.size() + tags_.size() / 4);
  put({&section, &pair});
}

std::wstring const* PairIndex::find(std::wstring_view section, std::wstring_view key) const {
  std::uint64_t const hash = hashOf(section, key);
  std::uint16_t const tag = tagOf(hash);
  for (std::size_t place = placeOf(hash); tags_[place] != 0; place = next(place)) {
    if (tags_[place] != tag) continue;
    Entry const& entry = entries_[place];
    // Seldom in the processor's cache, and nearly always what is asked for.
    __builtin_prefetch(entry.pair->second.data());
    if (entry.pair->first == key && entry.section->first == section) return &entry.pair->second;
  }
  return nullptr;
}

/// The upper half of the hash, scaled to the table; the tag comes from the lower.
std::size_t PairIndex::placeOf(std::uint64_t hash) const {
  return static_cast<std::size_t>((hash >> 32) * tags_.size() >> 32);
}

std::size_t PairIndex::next(std::size_t place) const {
  return place + 1 == tags_.size() ? 0 : place + 1;
}

void PairIndex::put(Entry const& entry) {
  if (!isUsable_) return;
  std::uint64_t const hash = hashOf(entry.section->first, entry.pair->first);
  std::size_t place = placeOf(hash);
  for (std::size_t run = 0; tags_[place] != 0; place = next(place)) {
    if (++run > kLongestRun) {
      isUsable_ = false;
      return;
    }
  }
  tags_[place] = tagOf(hash);
  entries_[place] = entry;
  ++count_;
}

void PairIndex::resize(std::size_t places) {
  std::vector<std::uint16_t> tags(places);
  std::vector<Entry> entries(places);
  std::swap(tags, tags_);
  std::swap(entries, entries_);
  count_ = 0;
  for (std::size_t i = 0; i < tags.size(); ++i) {
    if (tags[i] != 0) put(entries[i]);
  }
}

}  // namespace vrxutil::detail

#include "ini/pair_index.h"

#include <bit>
#include <utility>

namespace vrxutil::detail {

namespace {

/// A well-filled table has runs of some hundred places at most.
constexpr std::size_t kLongestRun = 2048;

constexpr std::size_t kFewestPlaces = 16;

/// The table grows when it would be filled by more than this, in percent.
constexpr std::size_t kMostFilled = 80;

/// The golden ratio: an odd number without a pattern.
constexpr std::uint64_t kFactor = 0x9E3779B97F4A7C15;

/// Three characters as one number; none has more than 21 bits in proper text.
std::uint64_t threeOf(wchar_t const* text, std::size_t count) {
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < count; ++i) {
    number ^= std::uint64_t{static_cast<char32_t>(text[i])} << 21 * i;
  }
  return number;
}

/// Cheaper than std::hash, which goes through each of the four bytes of a character.
std::uint64_t hashOf(std::wstring_view text) {
  std::uint64_t hash = text.size();
  auto const mix = [&hash](std::uint64_t number) {
    hash = (std::rotl(hash, 23) ^ number) * kFactor;
  };
  for (; text.size() >= 3; text.remove_prefix(3)) mix(threeOf(text.data(), 3));
  mix(threeOf(text.data(), text.size()));
  return hash;
}

std::uint64_t hashOf(std::uint64_t section, std::uint64_t key) {
  std::uint64_t const mixed = std::rotl(section, 23) * kFactor + key;
  return (mixed ^ mixed >> 32) * kFactor;
}

std::uint16_t tagOf(std::uint64_t hash) { return static_cast<std::uint16_t>(hash | 1); }

}  // namespace

PairIndex::PairIndex(SectionMap const& sections) {
  std::size_t pairs = 0;
  for (auto const& [name, keys] : sections) pairs += keys.size();
  resize(pairs * 100 / kMostFilled + kFewestPlaces);
  for (auto const& section : sections) {
    std::uint64_t const sectionHash = hashOf(section.first);
    for (auto const& pair : section.second) {
      put(hashOf(sectionHash, hashOf(pair.first)), entryOf(section, pair));
    }
  }
}

void PairIndex::add(SectionMap::value_type const& section, KeyMap::value_type const& pair) {
  if (count_ >= tags_.size() / 100 * kMostFilled) resize(tags_.size() + tags_.size() / 4);
  put(hashOf(hashOf(section.first), hashOf(pair.first)), entryOf(section, pair));
}

std::wstring const* PairIndex::find(std::wstring_view section, std::wstring_view key) const {
  std::uint64_t const hash = hashOf(hashOf(section), hashOf(key));
  std::uint16_t const tag = tagOf(hash);
  for (std::size_t place = placeOf(hash); tags_[place] != 0; place = next(place)) {
    if (tags_[place] != tag) continue;
    Entry const& entry = entries_[place];
    // Seldom in the processor's cache, and nearly always what is asked for.
    __builtin_prefetch(entry.keyText);
    __builtin_prefetch(entry.valueText);
    if (entry.pair->first == key && entry.section->first == section) return &entry.pair->second;
  }
  return nullptr;
}

PairIndex::Entry PairIndex::entryOf(SectionMap::value_type const& section,
                                    KeyMap::value_type const& pair) {
  return {&section, &pair, pair.first.data(), pair.second.data()};
}

/// The upper half of the hash, scaled to the table; the tag comes from the lower.
std::size_t PairIndex::placeOf(std::uint64_t hash) const {
  return static_cast<std::size_t>((hash >> 32) * tags_.size() >> 32);
}

std::size_t PairIndex::next(std::size_t place) const {
  return place + 1 == tags_.size() ? 0 : place + 1;
}

void PairIndex::put(std::uint64_t hash, Entry const& entry) {
  if (!isUsable_) return;
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
    if (tags[i] == 0) continue;
    Entry const& entry = entries[i];
    put(hashOf(hashOf(entry.section->first), hashOf(entry.pair->first)), entry);
  }
}

}  // namespace vrxutil::detail

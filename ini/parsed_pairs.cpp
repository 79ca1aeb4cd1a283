#include "ini/parsed_pairs.h"

#include "platform/common/ascii.h"
#include "platform/common/utf8.h"

#include <iterator>
#include <utility>

namespace vrxutil::detail {

namespace {

using KeyMap = ParsedPairs::KeyMap;

/// How many pairs in order are stored at a time: few enough to stay in the
/// processor's nearest cache, enough to tell such a file from others.
constexpr std::size_t kBatch = 512;

/// How many pairs memory is taken for at a time, where a batch does not do: as many
/// as fill a large page.
constexpr std::size_t kMany = 65536;

/// How many items ahead memory is asked for that is about to be read.
constexpr std::size_t kAhead = 8;

/// In bytes, and what most pairs take of the text at most.
constexpr std::size_t kCacheLine = 64;

/// What sorted items stand for lies all over the memory. (g++ leaves calls out that
/// do nothing but this.)
[[gnu::always_inline]] inline void prefetch(NameSorter::Items const& items, std::size_t position) {
  if (position + 2 * kAhead < items.size()) {
    __builtin_prefetch(items[position + 2 * kAhead].named);
  }
  if (position + kAhead < items.size()) {
    char const* const text = items[position + kAhead].named->name.data();
    __builtin_prefetch(text);
    __builtin_prefetch(text + kCacheLine);
  }
}

/// Wide text that takes no more memory than it needs.
std::wstring wide(std::string_view utf8) {
  std::wstring text(utf8.size(), L'\0');
  if (widenIfAscii(utf8.data(), utf8.size(), text.data())) return text;
  std::size_t const length = decodeUtf8(utf8, text.data()).written;
  return {text.data(), length};
}

KeyMap::iterator put(std::string_view key, std::string_view value, KeyMap& keys,
                     KeyMap::iterator place) {
  std::size_t const before = keys.size();
  auto const stored = keys.emplace_hint(place, wide(key), wide(value));
  if (keys.size() == before) stored->second = wide(value);
  return stored;
}

/// Moves all pairs of `newer` into `keys`, in the place of those with their keys.
void merge(KeyMap& newer, KeyMap& keys) {
  while (!newer.empty()) {
    auto result = keys.insert(newer.extract(newer.begin()));
    if (!result.inserted) result.position->second = std::move(result.node.mapped());
  }
}

}  // namespace

void ParsedPairs::add(std::string_view section, std::string_view key, std::string_view value) {
  // Sections of one name that have each a header of their own are merged at the end.
  if (blocks_.empty() || section.data() != blocks_.back().name.data()) {
    storeWaiting();
    blocks_.push_back({{section}, {}});
    lastKey_ = {};
    isInOrder_ = true;
  }
  isInOrder_ = isInOrder_ && key > lastKey_;
  lastKey_ = key;
  wait({{key}, value});
  if (isInOrder_ && waitingCount_ == kBatch) storeWaiting();
}

void ParsedPairs::moveTo(SectionMap& sections) {
  storeWaiting();
  sorter_.clear();
  sorter_.reserve(blocks_.size());
  for (Block& block : blocks_) sorter_.add(block);
  auto const& items = sorter_.sorted();
  std::string_view last;
  for (std::size_t i = 0; i < items.size(); ++i) {
    prefetch(items, i);
    auto& block = static_cast<Block&>(*items[i].named);
    bool const isKnown = !sections.empty() && block.name == last;
    if (isKnown) {
      merge(block.keys, std::prev(sections.end())->second);
    } else {
      sections.emplace_hint(sections.end(), wide(block.name), std::move(block.keys));
    }
    last = block.name;
  }
}

void ParsedPairs::wait(Pair const& pair) {
  if (last_ == waiting_.size()) waiting_.emplace_back().reserve(last_ == 0 ? kBatch : kMany);
  Pairs& pairs = waiting_[last_];
  pairs.push_back(pair);
  if (pairs.size() == pairs.capacity()) ++last_;
  ++waitingCount_;
}

void ParsedPairs::storeWaiting() {
  if (waitingCount_ == 0) return;
  KeyMap& keys = blocks_.back().keys;
  if (isInOrder_) {
    for (Pair const& pair : waiting_.front()) put(pair.name, pair.value, keys, keys.end());
  } else {
    storeSorted(keys);
  }
  for (Pairs& pairs : waiting_) pairs.clear();
  last_ = 0;
  waitingCount_ = 0;
}

void ParsedPairs::storeSorted(KeyMap& keys) {
  sorter_.clear();
  sorter_.reserve(waitingCount_);
  for (Pairs& pairs : waiting_) {
    for (Pair& pair : pairs) sorter_.add(pair);
  }
  auto const& items = sorter_.sorted();
  bool const isFirst = keys.empty();  // no batch before
  auto place = keys.end();
  for (std::size_t i = 0; i < items.size(); ++i) {
    prefetch(items, i);
    auto const& pair = static_cast<Pair const&>(*items[i].named);
    auto const stored = put(pair.name, pair.value, keys, place);
    if (!isFirst) place = std::next(stored);
  }
}

}  // namespace vrxutil::detail

#include "ini/unsorted_pairs.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string_view>
#include <vector>

namespace vrxutil::detail {

namespace {

/// The first eight characters as one number that sorts as they do, as far as they
/// are below U+00FF; where two numbers are equal, the texts decide.
std::uint64_t sortNumber(std::wstring_view text) {
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < sizeof(number); ++i) {
    auto const c = i < text.size() ? static_cast<char32_t>(text[i]) : 0;
    number = number << 8 | std::min<char32_t>(c, 0xFF);
  }
  return number;
}

struct Item {
  std::uint64_t number;
  std::size_t position;
};

}  // namespace

std::size_t UnsortedPairs::commonPrefix() const {
  std::wstring_view common = pairs_.front().first;
  for (auto const& [key, value] : pairs_) {
    auto const end = std::mismatch(common.begin(), common.end(), key.begin(), key.end()).first;
    common = common.substr(0, static_cast<std::size_t>(end - common.begin()));
  }
  return common.size();
}

void UnsortedPairs::moveTo(std::map<std::wstring, std::wstring>& map) {
  if (pairs_.empty()) return;
  std::size_t const common = commonPrefix();
  auto const restOf = [&](Item const& item) {
    return std::wstring_view(pairs_[item.position].first).substr(common);
  };
  std::vector<Item> items;
  items.reserve(pairs_.size());
  for (auto const& [key, value] : pairs_) {
    items.push_back({sortNumber(std::wstring_view(key).substr(common)), items.size()});
  }
  std::sort(items.begin(), items.end(), [&](Item const& a, Item const& b) {
    if (a.number != b.number) return a.number < b.number;
    int const order = restOf(a).compare(restOf(b));
    return order != 0 ? order < 0 : a.position < b.position;
  });

  auto place = map.end();
  for (Item const& item : items) {
    auto& [key, value] = pairs_[item.position];
    std::size_t const before = map.size();
    auto const pair = map.try_emplace(place, std::move(key), std::move(value));
    // NOLINTNEXTLINE(bugprone-use-after-move): try_emplace has left the value then
    if (map.size() == before) pair->second = std::move(value);
    place = std::next(pair);
  }
  pairs_.clear();
}

}  // namespace vrxutil::detail

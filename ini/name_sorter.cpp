#include "ini/name_sorter.h"

#include <algorithm>
#include <array>
#include <functional>
#include <utility>

namespace vrxutil::detail {

namespace {

using Item = NameSorter::Item;

/// With fewer items, comparing them is faster than counting their bytes.
constexpr std::size_t kFewestToCount = 256;

constexpr std::size_t kDigits = sizeof(std::uint64_t);

using Counts = std::array<std::size_t, 256>;

std::size_t digitOf(std::uint64_t number, std::size_t digit) { return number >> 8 * digit & 0xFF; }

/// A number that sorts as the first eight bytes do, which UTF-8 sorts as it does
/// their characters.
std::uint64_t sortNumber(std::string_view text) {
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < kDigits; ++i) {
    number = number << 8 | (i < text.size() ? static_cast<unsigned char>(text[i]) : 0U);
  }
  return number;
}

bool isBefore(Item const& a, Item const& b) {
  if (a.number != b.number) return a.number < b.number;
  int const order = a.named->name.compare(b.named->name);
  return order != 0 ? order < 0 : std::less<>()(a.named->name.data(), b.named->name.data());
}

}  // namespace

NameSorter::Items const& NameSorter::sorted() {
  setNumbers();
  if (std::is_sorted(items_.begin(), items_.end(), isBefore)) return items_;
  if (items_.size() < kFewestToCount) {
    std::sort(items_.begin(), items_.end(), isBefore);
    return items_;
  }
  sortByNumber();
  for (auto begin = items_.begin(); begin != items_.end();) {
    auto const isOther = [&](Item const& item) { return item.number != begin->number; };
    auto const end = std::find_if(begin + 1, items_.end(), isOther);
    std::sort(begin, end, isBefore);
    begin = end;
  }
  return items_;
}

void NameSorter::setNumbers() {
  if (items_.empty()) return;
  std::string_view common = items_.front().named->name;
  for (Item const& item : items_) {
    std::string_view const name = item.named->name;
    auto const end = std::mismatch(common.begin(), common.end(), name.begin(), name.end()).first;
    common = common.substr(0, static_cast<std::size_t>(end - common.begin()));
  }
  for (Item& item : items_) item.number = sortNumber(item.named->name.substr(common.size()));
}

/// Radix sort, the last byte first. A byte that is the same everywhere is left out.
void NameSorter::sortByNumber() {
  std::array<Counts, kDigits> counts{};
  for (Item const& item : items_) {
    for (std::size_t digit = 0; digit < kDigits; ++digit) {
      ++counts[digit][digitOf(item.number, digit)];
    }
  }
  spare_.resize(items_.size());
  for (std::size_t digit = 0; digit < kDigits; ++digit) {
    Counts& places = counts[digit];
    if (places[digitOf(items_.front().number, digit)] == items_.size()) continue;
    std::size_t sum = 0;
    for (std::size_t& place : places) sum += std::exchange(place, sum);
    for (Item const& item : items_) spare_[places[digitOf(item.number, digit)]++] = item;
    std::swap(items_, spare_);
  }
}

}  // namespace vrxutil::detail

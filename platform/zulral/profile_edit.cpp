#include "platform/zulral/profile_edit.h"

#include <algorithm>
#include <optional>

namespace vrxutil::detail {

namespace {

/// A line where it stands.
struct Place {
  std::string_view whole;  // with its end
  std::size_t begin;       // in the text
  bool isBlank;
  ProfileLine line;
  int section;  // 0: in none of the name that is looked for, 1: in the first, ...
};

/// Goes through the lines of a text; knows in which sections of one name they are.
class Places {
public:
  Places(std::string_view bytes, ProfileName const& section) : bytes_(bytes), section_(section) {
    if (bytes.starts_with(kByteOrderMark)) next_ = kByteOrderMark.size();
  }

  /// The next line, from its first byte that is no mark; nothing at the end.
  std::optional<Place> next() {
    if (next_ == bytes_.size()) return std::nullopt;
    std::size_t const end = std::min(bytes_.find('\n', next_), bytes_.size() - 1) + 1;
    std::string_view const whole = bytes_.substr(next_, end - next_);
    Place place{whole, next_, trimmed(withoutEnd(whole)).empty(),
                parseProfileLine(withoutEnd(whole)), 0};
    if (place.line.kind == LineKind::header) enter(place.line.name);
    place.section = isInside_ ? count_ : 0;
    next_ = end;
    return place;
  }

  /// `whole` without CR LF or LF.
  static std::string_view withoutEnd(std::string_view whole) {
    if (!whole.ends_with('\n')) return whole;
    whole.remove_suffix(1);
    if (whole.ends_with('\r')) whole.remove_suffix(1);
    return whole;
  }

private:
  void enter(std::string_view name) {
    isInside_ = section_.matches(name);
    if (isInside_) ++count_;
  }

  std::string_view bytes_;
  ProfileName const& section_;
  std::size_t next_ = 0;
  int count_ = 0;
  bool isInside_ = false;
};

/// The text without the lines that `drop` chooses.
template <class Drop>
std::string without(std::string_view bytes, ProfileName const& section, Drop drop) {
  std::string kept(bytes.starts_with(kByteOrderMark) ? kByteOrderMark : std::string_view());
  kept.reserve(bytes.size());
  Places places(bytes, section);
  while (std::optional<Place> const place = places.next()) {
    if (!drop(*place)) kept += place->whole;
  }
  return kept;
}

bool isPairOf(Place const& place, ProfileName const& key) {
  return place.section == 1 && place.line.kind == LineKind::pair && key.matches(place.line.name);
}

/// The end of the first line that has one.
std::string_view lineEndOf(std::string_view bytes) {
  std::size_t const end = bytes.find('\n');
  bool const isLong = end != std::string_view::npos && end > 0 && bytes[end - 1] == '\r';
  return isLong ? "\r\n" : "\n";
}

/// The value in the text begins after the blanks; one with blanks of its own takes
/// the place of those too, or they would add up.
std::string withValue(std::string_view bytes, Place const& place, std::string const& value) {
  std::string_view old = place.line.rest;
  bool const hasBlank = !value.empty() && isBlank(static_cast<char32_t>(value.front()));
  while (!hasBlank && !old.empty() && isBlank(static_cast<char32_t>(old.front()))) {
    old.remove_prefix(1);
  }
  auto const begin = static_cast<std::size_t>(old.data() - bytes.data());
  std::string text(bytes.substr(0, begin));
  return text.append(value).append(bytes.substr(begin + old.size()));
}

/// With `lines`, which end in a line end, at `position`, the end of a line.
std::string withLines(std::string_view bytes, std::size_t position, std::string_view lines) {
  std::string_view const before = bytes.substr(0, position);
  std::string text(before);
  bool const isLineOpen = !before.empty() && before != kByteOrderMark && !before.ends_with('\n');
  if (isLineOpen) text += lineEndOf(bytes);
  return text.append(lines).append(bytes.substr(position));
}

}  // namespace

std::string withoutSection(std::string_view bytes, ProfileName const& section) {
  return without(bytes, section, [](Place const& place) { return place.section > 0; });
}

std::string withoutKey(std::string_view bytes, ProfileName const& section, ProfileName const& key) {
  return without(bytes, section, [&](Place const& place) { return isPairOf(place, key); });
}

std::string withPair(std::string_view bytes, ProfileName const& section, ProfileName const& key,
                     ProfilePair const& pair) {
  std::optional<std::size_t> sectionEnd;
  Places places(bytes, section);
  while (std::optional<Place> const place = places.next()) {
    if (isPairOf(*place, key)) return withValue(bytes, *place, pair.value);
    if (place->section == 1 && !place->isBlank) sectionEnd = place->begin + place->whole.size();
  }
  std::string const lineEnd(lineEndOf(bytes));
  std::string const line = pair.key + '=' + pair.value + lineEnd;
  if (sectionEnd) return withLines(bytes, *sectionEnd, line);
  return withLines(bytes, bytes.size(), '[' + pair.section + ']' + lineEnd + line);
}

}  // namespace vrxutil::detail

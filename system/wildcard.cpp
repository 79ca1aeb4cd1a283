#include <vrxutil/system.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <string_view>

#include <string.h>  // memmem

namespace {

/// From here on it is quicker to ask tolower() once for each byte that there is.
constexpr std::size_t kLongText = 1024;

char lower(unsigned char c) { return static_cast<char>(std::tolower(c)); }

constexpr char lowerAscii(unsigned char c) {
  bool const isCapital = c >= 'A' && c <= 'Z';
  return static_cast<char>(isCapital ? c - 'A' + 'a' : c);
}

/// Blocks of a fixed size become vector instructions at every level of optimisation.
void lowerCaseAscii(std::string& text) {
  constexpr std::ptrdiff_t kBlock = 64;
  auto block = text.begin();
  for (; text.end() - block >= kBlock; block += kBlock) {
    std::transform(block, block + kBlock, block, lowerAscii);
  }
  std::transform(block, text.end(), block, lowerAscii);
}

/// As lowerCase(). In nearly all locales only ASCII letters have a case as single
/// bytes.
void lowerCaseLong(std::string& text) {
  std::array<char, 256> table{};
  bool isAsciiAlone = true;
  for (std::size_t i = 0; i < table.size(); ++i) {
    auto const c = static_cast<unsigned char>(i);
    table[i] = lower(c);
    isAsciiAlone = isAsciiAlone && table[i] == lowerAscii(c);
  }
  if (isAsciiAlone) return lowerCaseAscii(text);
  std::transform(text.begin(), text.end(), text.begin(),
                 [&table](unsigned char c) { return table[c]; });
}

/// Replaces every byte by tolower() of it.
void lowerCase(std::string& text) {
  if (text.size() >= kLongText) return lowerCaseLong(text);
  std::transform(text.begin(), text.end(), text.begin(), lower);
}

/// The part of `pattern` from `position` up to the next star.
std::string_view FindNextGlob(std::string_view pattern, std::size_t position) {
  std::string_view const rest = pattern.substr(position);
  return rest.substr(0, rest.find('*'));
}

/// Takes `text` up to the end of the first `part`, which is not empty, off; false
/// where there is none. Linear in time, unlike std::string_view::find().
bool moveBehind(std::string_view& text, std::string_view part) {
  auto const* const found =
      static_cast<char const*>(::memmem(text.data(), text.size(), part.data(), part.size()));
  if (found == nullptr) return false;
  text.remove_prefix(static_cast<std::size_t>(found - text.data()) + part.size());
  return true;
}

}  // namespace

// A run between two stars may be taken where it occurs first: that leaves the most
// text to the rest of the pattern. What comes before the first star and after the
// last has but one place.
bool MatchWildcard(std::string pattern, std::string text) {
  lowerCase(pattern);
  lowerCase(text);
  std::string_view rest = text;
  std::string_view run = FindNextGlob(pattern, 0);
  if (!rest.starts_with(run)) return false;
  rest.remove_prefix(run.size());
  std::size_t position = run.size();

  while (position < pattern.size()) {
    if (rest.empty()) return false;  // not even a star that takes nothing matches the end
    position = pattern.find_first_not_of('*', position);
    if (position == std::string::npos) return true;
    run = FindNextGlob(pattern, position);
    position += run.size();
    bool const isLast = position == pattern.size();
    if (isLast) return rest.ends_with(run);
    if (!moveBehind(rest, run)) return false;
  }
  return rest.empty();
}

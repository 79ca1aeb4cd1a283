#include <vrxutil/system.h>

#include <algorithm>
#include <cctype>
#include <string_view>

#include <string.h>  // memmem

namespace {

void lowerCase(std::string& text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
}

/// The part of `pattern` from `*position` up to the next star.
std::string_view FindNextGlob(std::string_view pattern, unsigned long const* position) {
  std::string_view const rest = pattern.substr(*position);
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
  unsigned long position = 0;
  std::string_view rest = text;
  std::string_view run = FindNextGlob(pattern, &position);
  if (rest.substr(0, run.size()) != run) return false;
  rest.remove_prefix(run.size());
  position = run.size();

  while (position < pattern.size()) {
    if (rest.empty())
      return false;  // a star has to have something before it, even if it takes none
    position = pattern.find_first_not_of('*', position);
    if (position == std::string::npos) return true;
    run = FindNextGlob(pattern, &position);
    position += run.size();
    bool const isLast = position == pattern.size();
    if (isLast) return rest.size() >= run.size() && rest.substr(rest.size() - run.size()) == run;
    if (!moveBehind(rest, run)) return false;
  }
  return rest.empty();
}

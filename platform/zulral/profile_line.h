// The lines of a profile file, and how names in them are compared.
//
// Internal; not installed. Only std::bad_alloc is thrown.

#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vrxutil::detail {

/// What may stand at the start of a file.
inline constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

/// The longest line that is read, in bytes without its LF: what bounds the memory that
/// a file without line ends takes.
inline constexpr std::size_t kLongestLine = std::size_t{64} << 20;

/// What counts as a blank within a line. A CR that belongs to no line end is one.
constexpr bool isBlank(char32_t c) { return c == ' ' || (c >= '\t' && c <= '\r' && c != '\n'); }

/// `text` without the blanks around it.
template <class Text>
constexpr Text trimmed(Text text) {
  while (!text.empty() && isBlank(static_cast<char32_t>(text.front()))) text.remove_prefix(1);
  while (!text.empty() && isBlank(static_cast<char32_t>(text.back()))) text.remove_suffix(1);
  return text;
}

enum class LineKind { header, pair, other };

/// A line taken apart; the texts are parts of it.
struct ProfileLine {
  LineKind kind = LineKind::other;
  std::string_view name{};  // of the section, or the key; ends at its first NUL, no blanks around
  std::string_view rest{};  // of a pair: all that follows the "="
};

/// Takes a line, without its end, apart.
ProfileLine parseProfileLine(std::string_view line);

/// The text of a value: up to the first NUL, without blanks and one pair of quotation
/// marks, with U+FFFD for each byte that is no UTF-8.
std::wstring profileValue(std::string_view rest);

/// A name to look for.
class ProfileName {
public:
  explicit ProfileName(std::wstring_view name);

  /// Whether `name`, from a line, is this name.
  bool matches(std::string_view name) const;

private:
  std::wstring folded_;
};

}  // namespace vrxutil::detail

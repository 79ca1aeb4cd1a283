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
  std::string_view name{};  // of the section, or the key; no blanks around it
  std::string_view rest{};  // of a pair: all that follows the "="
};

/// Takes a line, without its end, apart.
ProfileLine parseProfileLine(std::string_view line);

/// The name, or value, as text: up to the first NUL, with U+FFFD for each byte that
/// is no UTF-8.
std::wstring profileText(std::string_view bytes);

/// The text of a value: without blanks and one pair of quotation marks.
std::wstring profileValue(std::string_view rest);

/// A name to look for.
class ProfileName {
public:
  explicit ProfileName(std::wstring_view name);

  /// Whether `bytes`, from a file, are this name.
  bool matches(std::string_view bytes) const;

private:
  std::wstring folded_;
};

}  // namespace vrxutil::detail

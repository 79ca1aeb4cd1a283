#include "platform/zulral/profile_line.h"

#include "platform/common/ascii.h"
#include "platform/common/utf8.h"

#include <algorithm>

#include <wctype.h>

namespace vrxutil::detail {

namespace {

wint_t folded(wchar_t c) { return ::towupper(static_cast<wint_t>(c)); }

/// Whether folding `a` gives `b`, which is folded.
bool foldsTo(wchar_t a, wchar_t b) { return folded(a) == static_cast<wint_t>(b); }

std::string_view upToNul(std::string_view bytes) { return bytes.substr(0, bytes.find('\0')); }

std::string_view trimmedUpToNul(std::string_view bytes) { return trimmed(upToNul(bytes)); }

std::string_view unquoted(std::string_view text) {
  if (text.size() < 2 || text.front() != text.back()) return text;
  bool const isQuoted = text.front() == '"' || text.front() == '\'';
  return isQuoted ? text.substr(1, text.size() - 2) : text;
}

}  // namespace

ProfileLine parseProfileLine(std::string_view line) {
  std::string_view const text = trimmed(line);
  if (text.empty() || text.front() == ';') return {};
  if (text.front() == '[') {
    std::size_t const end = text.find(']');
    if (end == std::string_view::npos) return {};
    return {LineKind::header, trimmedUpToNul(text.substr(1, end - 1))};
  }
  std::size_t const end = line.find('=');
  if (end == std::string_view::npos) return {};
  std::string_view const name = trimmedUpToNul(line.substr(0, end));
  if (name.empty()) return {};
  return {LineKind::pair, name, line.substr(end + 1)};
}

std::wstring profileValue(std::string_view rest) {
  return lossyWide(unquoted(trimmedUpToNul(rest)));
}

ProfileName::ProfileName(std::wstring_view name) : folded_(trimmed(name)) {
  std::transform(folded_.begin(), folded_.end(), folded_.begin(),
                 [](wchar_t c) { return static_cast<wchar_t>(folded(c)); });
}

bool ProfileName::matches(std::string_view name) const {
  if (name.size() < folded_.size()) return false;  // no character takes less than a byte
  bool const isAscii = asciiPrefix(name.data(), name.size()) == name.size();
  if (isAscii) return std::equal(name.begin(), name.end(), folded_.begin(), folded_.end(), foldsTo);
  std::wstring const text = lossyWide(name);
  return std::equal(text.begin(), text.end(), folded_.begin(), folded_.end(), foldsTo);
}

}  // namespace vrxutil::detail

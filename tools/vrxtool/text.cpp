#include "tools/vrxtool/text.h"

#include "tools/vrxtool/failure.h"

#include <vrxcomn/xml_parser.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <optional>

namespace vrxtool {

namespace {

using AdvXMLParser::UTF_ENCODINGS;

std::optional<std::wstring> tryWide(std::string_view bytes) {
  std::wstring text;
  UTF_ENCODINGS encoding = UTF_ENCODINGS::UTF_8;
  if (AdvXMLParser::ConvertBufferToUnicode(bytes.data(), bytes.size(), text, encoding) < 0) {
    return std::nullopt;
  }
  // It is a character like any other here; the library takes it for a mark.
  if (bytes.starts_with("\xEF\xBB\xBF")) text.insert(text.begin(), kByteOrderMark);
  return text;
}

std::optional<std::string> tryUtf8(std::wstring const& text) {
  std::string bytes;
  UTF_ENCODINGS encoding = UTF_ENCODINGS::UTF_8;
  if (!AdvXMLParser::ConvertBufferToUtf8(text, bytes, encoding)) return std::nullopt;
  return bytes;
}

bool isScalarValue(wchar_t character) {
  auto const value = static_cast<std::uint32_t>(character);
  return value < 0xD800 || (value >= 0xE000 && value <= 0x10FFFF);
}

/// Control characters, line and paragraph separators, controls of the direction.
bool isHarmful(std::uint32_t c) {
  return c < 0x20 || (c >= 0x7F && c < 0xA0) || c == 0x61C || c == 0x200E || c == 0x200F ||
         (c >= 0x2028 && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
}

std::wstring escape(std::uint32_t c) {
  switch (c) {
    case '\n':
      return L"\\n";
    case '\r':
      return L"\\r";
    case '\t':
      return L"\\t";
    default:
      break;
  }
  std::array<char, 8> digits;
  auto const [end, error] = std::to_chars(digits.begin(), digits.end(), c, 16);
  std::wstring const number(digits.begin(), end);
  std::size_t const width = c < 0x100 ? 2 : 4;
  return (c < 0x100 ? L"\\x" : L"\\u") + std::wstring(width - number.size(), L'0') + number;
}

/// Where the bytes are not UTF-8: each byte beyond ASCII as an escape.
std::wstring escapedBytes(std::string_view bytes, std::wstring_view backslash) {
  std::wstring text;
  for (char const byte : bytes) {
    auto const value = static_cast<unsigned char>(byte);
    if (value == '\\') {
      text += backslash;
    } else if (value >= 0x80 || isHarmful(value)) {
      text += escape(value);
    } else {
      text += static_cast<wchar_t>(value);
    }
  }
  return text;
}

}  // namespace

std::string utf8(std::wstring_view text) {
  std::wstring copy(text);
  if (std::optional<std::string> bytes = tryUtf8(copy)) return *std::move(bytes);
  std::replace_if(
      copy.begin(), copy.end(), [](wchar_t c) { return !isScalarValue(c); }, wchar_t{0xFFFD});
  return tryUtf8(copy).value_or("");
}

std::wstring wide(std::string_view argument, std::string_view what) {
  std::optional<std::wstring> text = tryWide(argument);
  if (!text) throw Failure(std::string(what) + " is not UTF-8: " + std::string(argument));
  return *std::move(text);
}

std::string printable(std::string_view bytes, Backslash backslash) {
  std::wstring_view const backslashText = backslash == Backslash::doubled ? L"\\\\" : L"\\";
  std::optional<std::wstring> const text = tryWide(bytes);
  if (!text) return utf8(escapedBytes(bytes, backslashText));
  std::wstring shown;
  for (wchar_t const character : *text) {
    if (character == L'\\') {
      shown += backslashText;
    } else if (isHarmful(static_cast<std::uint32_t>(character))) {
      shown += escape(static_cast<std::uint32_t>(character));
    } else {
      shown += character;
    }
  }
  return utf8(shown);
}

}  // namespace vrxtool

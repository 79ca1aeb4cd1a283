// UTF-8 (RFC 3629) to and from 32-bit wide text. ASCII runs go through loops
// that the compiler turns into vector code.
//
// Internal; not installed.
// Errors: a conversion stops at what it cannot convert and says where; only
// std::bad_alloc is thrown. Input is never read beyond its end.

#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vrxutil::detail {

/// Stands for what cannot be converted, where text must be had all the same.
inline constexpr wchar_t kReplacementCharacter = 0xFFFD;

/// Whether `c` is a Unicode scalar value: no surrogate, not beyond U+10FFFF.
constexpr bool isScalarValue(wchar_t c) {
  auto const u = static_cast<char32_t>(c);
  return u < 0xD800 || (u >= 0xE000 && u <= 0x10FFFF);
}

/// Where a conversion stopped: at the end of the input, or at the first
/// character that cannot be converted.
struct Converted {
  std::size_t read;     // elements of the input that were converted
  std::size_t written;  // elements of the output

  bool operator==(Converted const&) const = default;
};

/// The most bytes that one character takes.
inline constexpr std::size_t kMaxUtf8Size = 4;

/// Converts as much of `text` as can be, to `target`, which has room for
/// kMaxUtf8Size bytes a character.
Converted encodeUtf8(std::wstring_view text, char* target);

/// Converts as much of `utf8` as is valid, to `target`, which has room for as
/// many characters as `utf8` has bytes.
Converted decodeUtf8(std::string_view utf8, wchar_t* target);

/// Number of bytes that `utf8` begins with and that are valid.
std::size_t validUtf8Size(std::string_view utf8);

/// Appends `text` in UTF-8 as far as it can be converted; returns how many
/// characters that was.
std::size_t appendUtf8(std::wstring_view text, std::string& utf8);

/// Appends `utf8` as wide text as far as it is valid; returns how many bytes
/// that was.
std::size_t appendWide(std::string_view utf8, std::wstring& text);

/// `text` in UTF-8, with U+FFFD for what cannot be converted.
std::string lossyUtf8(std::wstring_view text);

/// `utf8` as wide text, with U+FFFD for each byte that is not valid.
std::wstring lossyWide(std::string_view utf8);

}  // namespace vrxutil::detail

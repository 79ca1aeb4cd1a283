// Base64 of whole groups: three bytes, four characters.
//
// Internal; not installed. Nothing is thrown.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace vrxutil::detail {

/// RFC 4648, section 4.
inline constexpr std::string_view kBase64Alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

/// What a byte outside the alphabet has in kBase64Values.
inline constexpr std::uint8_t kNoBase64Value = 0xFF;

inline constexpr auto kBase64Values = [] {
  std::array<std::uint8_t, 256> values{};
  values.fill(kNoBase64Value);
  for (std::size_t i = 0; i < kBase64Alphabet.size(); ++i) {
    values[static_cast<unsigned char>(kBase64Alphabet[i])] = static_cast<std::uint8_t>(i);
  }
  return values;
}();

/// Fewer groups are not worth a call.
inline constexpr std::size_t kBase64BulkGroups = 4;

/// Writes 4 * `groups` characters for 3 * `groups` bytes, and nothing behind them.
void encodeBase64Groups(unsigned char const* source, std::size_t groups, char* target);

/// Writes three bytes for each four characters, of at most `groups` groups, up to
/// the first that has a character outside the alphabet; returns how many that are.
/// Nothing is written behind them.
std::size_t decodeBase64Groups(char const* source, std::size_t groups, unsigned char* target);

}  // namespace vrxutil::detail

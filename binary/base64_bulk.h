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

inline unsigned valueOfBase64(char character) {
  return kBase64Values[static_cast<unsigned char>(character)];
}

/// Of a value, or of several joined by "or": whether all are of the alphabet.
inline bool isBase64Value(unsigned value) { return value < kBase64Alphabet.size(); }

/// Encodes `size` bytes as a text of its own, with its padding, and writes nothing
/// behind it; returns its length.
std::size_t encodeBase64Text(unsigned char const* source, std::size_t size, char* target);

/// Writes three bytes for each four characters, of at most `groups` groups, up to
/// the first that has a character outside the alphabet; returns how many that are.
/// Nothing is written behind them.
std::size_t decodeBase64Groups(char const* source, std::size_t groups, unsigned char* target);

/// What compactBase64() reads at once.
inline constexpr std::size_t kBase64CompactionBlock = 16;

struct Base64Compaction {
  std::size_t read;
  std::size_t kept;
};

/// Copies the characters of the alphabet out of whole blocks of at most `size`
/// characters, up to the first block that has a "=". May write behind them, but not
/// beyond `size`. Reads nothing on a host where that takes as long as decoding them.
Base64Compaction compactBase64(char const* source, std::size_t size, char* target);

}  // namespace vrxutil::detail

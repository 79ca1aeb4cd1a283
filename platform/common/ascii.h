// Runs of ASCII, the bulk of all text here: found, widened and narrowed a block
// at a time, in loops of constant length that compilers turn into vector code.
//
// Internal; not installed.

#pragma once

#include <cstddef>

namespace vrxutil::detail {

inline constexpr std::size_t kAsciiBlock = 32;

/// A character as the bits that say whether it is ASCII.
constexpr unsigned bitsOf(char c) { return static_cast<unsigned char>(c); }

constexpr unsigned bitsOf(wchar_t c) { return static_cast<unsigned>(c); }

/// Number of ASCII characters, NUL included, that `text` begins with.
template <class Character>
std::size_t asciiPrefix(Character const* text, std::size_t length) {
  std::size_t count = 0;
  for (; length - count >= kAsciiBlock; count += kAsciiBlock) {
    unsigned bits = 0;
    for (std::size_t i = 0; i < kAsciiBlock; ++i) bits |= bitsOf(text[count + i]);
    if (bits >= 0x80) break;
  }
  while (count < length && bitsOf(text[count]) < 0x80) ++count;
  return count;
}

/// Copies `length` ASCII characters between narrow and wide text. The two may not
/// overlap: `char` aliases everything, and compilers would not use vectors.
template <class From, class To>
void copyAscii(From const* __restrict source, std::size_t length, To* __restrict target) {
  std::size_t count = 0;
  for (; length - count >= kAsciiBlock; count += kAsciiBlock) {
    for (std::size_t i = 0; i < kAsciiBlock; ++i) {
      target[count + i] = static_cast<To>(source[count + i]);
    }
  }
  for (; count < length; ++count) target[count] = static_cast<To>(source[count]);
}

/// Widens `length` characters if all of them are ASCII; else `target` is
/// unspecified. In one pass, which is what counts for short texts.
inline bool widenIfAscii(char const* source, std::size_t length, wchar_t* target) {
  unsigned bits = 0;
  auto const widen = [&](std::size_t i) {
    bits |= bitsOf(source[i]);
    target[i] = static_cast<wchar_t>(source[i]);
  };
  std::size_t count = 0;
  for (; length - count >= kAsciiBlock; count += kAsciiBlock) {
    for (std::size_t i = 0; i < kAsciiBlock; ++i) widen(count + i);
    if (bits >= 0x80) return false;
  }
  for (; count < length; ++count) widen(count);
  return bits < 0x80;
}

}  // namespace vrxutil::detail

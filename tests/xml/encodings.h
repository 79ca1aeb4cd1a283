// Wide text as bytes, written plainly so that it can judge the code's own
// conversions.

#pragma once

#include <string>

namespace vrxutil::test {

enum class ByteOrder { little, big };

/// Appends the `count` low bytes of `number`.
inline void appendNumber(std::string& bytes, char32_t number, int count, ByteOrder order) {
  for (int i = 0; i < count; ++i) {
    int const place = order == ByteOrder::little ? i : count - 1 - i;
    bytes += static_cast<char>((number >> (8 * place)) & 0xFF);
  }
}

inline std::string toUtf8(std::wstring const& text) {
  std::string bytes;
  for (wchar_t const character : text) {
    auto const c = static_cast<char32_t>(character);
    auto const tail = [&](int shift) { bytes += static_cast<char>(0x80 | ((c >> shift) & 0x3F)); };
    if (c < 0x80) {
      bytes += static_cast<char>(c);
    } else if (c < 0x800) {
      bytes += static_cast<char>(0xC0 | (c >> 6));
      tail(0);
    } else if (c < 0x10000) {
      bytes += static_cast<char>(0xE0 | (c >> 12));
      tail(6);
      tail(0);
    } else {
      bytes += static_cast<char>(0xF0 | (c >> 18));
      tail(12);
      tail(6);
      tail(0);
    }
  }
  return bytes;
}

inline std::string toUtf16(std::wstring const& text, ByteOrder order) {
  std::string bytes;
  for (wchar_t const character : text) {
    auto const c = static_cast<char32_t>(character);
    if (c < 0x10000) {
      appendNumber(bytes, c, 2, order);
    } else {
      appendNumber(bytes, 0xD800 + ((c - 0x10000) >> 10), 2, order);
      appendNumber(bytes, 0xDC00 + ((c - 0x10000) & 0x3FF), 2, order);
    }
  }
  return bytes;
}

inline std::string toUtf32(std::wstring const& text, ByteOrder order) {
  std::string bytes;
  for (wchar_t const c : text) appendNumber(bytes, static_cast<char32_t>(c), 4, order);
  return bytes;
}

}  // namespace vrxutil::test

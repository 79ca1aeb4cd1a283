// Base64 one step at a time, as it is defined: what the fast code has to equal.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string_view>

namespace vrxutil::test {

inline constexpr std::string_view kReferenceAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

inline unsigned long referenceEncode(void const* source, unsigned long sourceLength, char* target,
                                     unsigned long targetLength, int* state,
                                     unsigned long* consumed) {
  int phase = state != nullptr ? *state >> 6 & 3 : 0;
  int carry = state != nullptr ? *state & 0x3C : 0;
  auto const* const bytes = static_cast<unsigned char const*>(source);
  unsigned long used = 0;
  unsigned long written = 0;
  auto const write = [&](int value) {
    target[written++] = kReferenceAlphabet[static_cast<std::size_t>(value)];
  };
  while (source != nullptr && written < targetLength) {
    if (used == sourceLength && phase != 3) break;
    if (phase == 3) {
      write(carry);
      carry = 0;
      phase = 0;
    } else if (phase == 0) {
      int const b = bytes[used++];
      write(b >> 2);
      carry = b << 4 & 0x3F;
      phase = 1;
    } else if (phase == 1) {
      int const b = bytes[used++];
      write(b >> 4 | carry);
      carry = b << 2 & 0x3F;
      phase = 2;
    } else {
      int const b = bytes[used++];
      write(b >> 6 | carry);
      carry = b & 0x3F;
      phase = 3;
    }
  }
  if (phase != 0 && written + static_cast<unsigned long>(3 - phase) < targetLength) {
    write(carry);
    for (; phase < 3; ++phase) target[written++] = '=';
    phase = 0;
    carry = 0;
  }
  if (state != nullptr) *state = phase * 64 + carry;
  if (consumed != nullptr) *consumed = used;
  return written;
}

inline unsigned long referenceDecode(char const* source, unsigned long sourceLength, void* target,
                                     unsigned long targetLength, int* state,
                                     unsigned long* consumed) {
  unsigned long const length = sourceLength > 0x7FFFFFFE ? std::strlen(source) : sourceLength;
  int phase = state != nullptr ? *state & 3 : 0;
  int carry = state != nullptr ? *state & 0xFC : 0;
  auto* const bytes = static_cast<unsigned char*>(target);
  unsigned long used = 0;
  unsigned long written = 0;
  auto const write = [&](int value) { bytes[written++] = static_cast<unsigned char>(value); };
  while (used < length && written < targetLength) {
    char const c = source[used++];
    std::size_t const place = kReferenceAlphabet.find(c);
    if (c == '=') phase = 0;
    if (place == std::string_view::npos) continue;
    int const v = static_cast<int>(place);
    if (phase == 0) {
      carry = v << 2 & 0xFF;
      phase = 1;
    } else if (phase == 1) {
      write(v >> 4 | carry);
      carry = v << 4 & 0xFF;
      phase = 2;
    } else if (phase == 2) {
      write(v >> 2 | carry);
      carry = v << 6 & 0xFF;
      phase = 3;
    } else {
      write(carry | v);
      phase = 0;
    }
  }
  if (state != nullptr) *state = carry | phase;
  if (consumed != nullptr) *consumed = used;
  return written;
}

}  // namespace vrxutil::test

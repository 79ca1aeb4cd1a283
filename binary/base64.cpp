#include "binary/base64_bulk.h"

#include <vrxutil/binary.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

using vrxutil::detail::decodeBase64Groups;
using vrxutil::detail::encodeBase64Groups;
using vrxutil::detail::kBase64Alphabet;
using vrxutil::detail::kBase64BulkGroups;
using vrxutil::detail::kBase64Values;
using vrxutil::detail::kNoBase64Value;

namespace {

/// From here on a source's length is that of its text.
constexpr unsigned long kLengthOfText = 0x7FFFFFFF;

constexpr unsigned kSixBits = 0x3F;

}  // namespace

unsigned long Base64Encode(void const* source, unsigned long sourceLength, char* target,
                           unsigned long targetLength, int* state, unsigned long* consumed) {
  // Of the carry, only bits 2 to 5 are taken back: callers rely on it.
  unsigned const before = state != nullptr ? static_cast<unsigned>(*state) : 0;
  unsigned phase = before >> 6 & 3;
  unsigned carry = before & 0x3C;
  auto const* const bytes = static_cast<unsigned char const*>(source);
  unsigned long const length = bytes != nullptr ? sourceLength : 0;
  unsigned long used = 0;
  unsigned long written = 0;
  auto const put = [&](unsigned value) { target[written++] = kBase64Alphabet[value]; };
  auto const canRead = [&] { return used < length && written < targetLength; };

  while (bytes != nullptr) {
    if (phase == 0) {
      unsigned long const groups = std::min((length - used) / 3, (targetLength - written) / 4);
      if (groups >= kBase64BulkGroups) {
        encodeBase64Groups(bytes + used, groups, target + written);
        used += 3 * groups;
        written += 4 * groups;
        carry = 0;
      }
      if (!canRead()) break;
      unsigned const byte = bytes[used++];
      put(byte >> 2);
      carry = byte << 4 & kSixBits;
      phase = 1;
    }
    if (phase == 1) {
      if (!canRead()) break;
      unsigned const byte = bytes[used++];
      put(byte >> 4 | carry);
      carry = byte << 2 & kSixBits;
      phase = 2;
    }
    if (phase == 2) {
      if (!canRead()) break;
      unsigned const byte = bytes[used++];
      put(byte >> 6 | carry);
      carry = byte & kSixBits;
      phase = 3;
    }
    if (written >= targetLength) break;
    put(carry);
    carry = 0;
    phase = 0;
  }

  if (phase != 0 && written + (3 - phase) < targetLength) {
    put(carry);
    if (phase < 2) target[written++] = '=';
    if (phase < 3) target[written++] = '=';
    phase = 0;
    carry = 0;
  }
  if (state != nullptr) *state = static_cast<int>(phase << 6 | carry);
  if (consumed != nullptr) *consumed = used;
  return written;
}

unsigned long Base64Decode(char const* source, unsigned long sourceLength, void* target,
                           unsigned long targetLength, int* state, unsigned long* consumed) {
  unsigned long const length = sourceLength < kLengthOfText ? sourceLength : std::strlen(source);
  unsigned const before = state != nullptr ? static_cast<unsigned>(*state) : 0;
  unsigned phase = before & 3;
  unsigned carry = before & 0xFC;
  auto* const bytes = static_cast<unsigned char*>(target);
  unsigned long used = 0;
  unsigned long written = 0;
  auto const put = [&](unsigned value) { bytes[written++] = static_cast<unsigned char>(value); };

  while (used < length && written < targetLength) {
    auto const character = static_cast<unsigned char>(source[used]);
    unsigned const value = kBase64Values[character];
    if (value == kNoBase64Value) {
      if (character == '=') phase = 0;
      ++used;
      continue;
    }
    if (phase == 0 && length - used >= 4 * kBase64BulkGroups &&
        targetLength - written >= 3 * kBase64BulkGroups) {
      unsigned long const groups = decodeBase64Groups(
          source + used, std::min((length - used) / 4, (targetLength - written) / 3),
          bytes + written);
      if (groups > 0) {
        used += 4 * groups;
        written += 3 * groups;
        carry = bytes[written - 1] & 0xC0;
        continue;
      }
    }
    ++used;
    switch (phase) {
      case 0:
        carry = value << 2;
        phase = 1;
        break;
      case 1:
        put(value >> 4 | carry);
        carry = value << 4 & 0xFF;
        phase = 2;
        break;
      case 2:
        put(value >> 2 | carry);
        carry = value << 6 & 0xFF;
        phase = 3;
        break;
      default:
        put(carry | value);
        phase = 0;
    }
  }
  if (state != nullptr) *state = static_cast<int>(carry | phase);
  if (consumed != nullptr) *consumed = used;
  return written;
}

AString ABase64Encode::encode(AnObjectBuffer<unsigned char> const& data) {
  unsigned long const capacity = 4 * (data.size() / 3 + (data.size() % 3 != 0 ? 1 : 0)) + 1;
  std::unique_ptr<char[]> const text(new (std::nothrow) char[capacity]());
  if (text == nullptr) return {};
  Base64Encode(data.getBytes(), data.size(), text.get(), capacity, nullptr, nullptr);
  return {text.get()};
}

// The copy is of any size: the buffer's constructor takes only what an unsigned int holds.
AString ABase64Encode::encode(unsigned char const* bytes, unsigned long const& length) {
  AnObjectBuffer<unsigned char> copy(0, nullptr);
  copy.allocate(length, bytes);
  return encode(copy);
}

AnObjectBuffer<unsigned char> ABase64Encode::decode(AString const& text) {
  AnObjectBuffer<unsigned char> result(0, nullptr);
  unsigned long const capacity = text.size();
  std::unique_ptr<unsigned char[]> const bytes(new (std::nothrow) unsigned char[capacity]);
  if (bytes == nullptr) return result;
  ACharString const narrow(text);
  unsigned long const count = Base64Decode(narrow, static_cast<unsigned long>(narrow.size()),
                                           bytes.get(), capacity, nullptr, nullptr);
  result.allocate(count, bytes.get());
  return result;
}

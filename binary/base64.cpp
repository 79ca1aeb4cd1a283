#include "binary/base64_bulk.h"

#include <vrxutil/binary.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <new>

using vrxutil::detail::compactBase64;
using vrxutil::detail::decodeBase64Groups;
using vrxutil::detail::encodeBase64Text;
using vrxutil::detail::isBase64Value;
using vrxutil::detail::kBase64Alphabet;
using vrxutil::detail::kBase64CompactionBlock;
using vrxutil::detail::valueOfBase64;

namespace {

/// From here on a source's length is that of its text.
constexpr unsigned long kLengthOfText = 0x7FFFFFFF;

constexpr unsigned kSixBits = 0x3F;

/// What Base64Encode() does where something waits, or the target may be too small.
// Not inline: short texts would pay for the registers.
[[gnu::noinline]] unsigned long encodePiece(unsigned char const* bytes, unsigned long length,
                                            char* target, unsigned long targetLength, int* state,
                                            unsigned long* consumed) {
  // Of the carry, only bits 2 to 5 are taken back: callers rely on it.
  unsigned const before = state != nullptr ? static_cast<unsigned>(*state) : 0;
  unsigned phase = before >> 6 & 3;
  unsigned carry = before & 0x3C;
  unsigned long used = 0;
  unsigned long written = 0;
  auto const put = [&](unsigned value) { target[written++] = kBase64Alphabet[value]; };
  auto const canRead = [&] { return used < length && written < targetLength; };

  while (bytes != nullptr) {
    if (phase == 0) {
      unsigned long const groups = std::min((length - used) / 3, (targetLength - written) / 4);
      if (groups > 0) {
        written += encodeBase64Text(bytes + used, 3 * groups, target + written);
        used += 3 * groups;
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

/// A text and how far it is decoded.
struct Decoding {
  char const* source;
  unsigned long length;
  unsigned char* target;
  unsigned long room;
  unsigned phase;
  unsigned carry;
  unsigned long used;
  unsigned long written;

  bool isAtEnd() const { return used == length || written == room; }
};

/// Decodes a character at a time, up to `limit` and on to where a group begins.
// What changes stands in variables of its own: each byte written might change what is
// reached by a reference.
void decodeCharacters(Decoding& text, unsigned long limit) {
  unsigned phase = text.phase;
  unsigned carry = text.carry;
  unsigned long used = text.used;
  unsigned long written = text.written;
  while (written < text.room && (used < limit || (phase != 0 && used < text.length))) {
    // A character gives a byte at most: these need not ask for room.
    unsigned long const count = used < limit ? std::min(limit - used, text.room - written) : 1;
    char const* next = text.source + used;
    char const* const end = next + count;
    unsigned char* place = text.target + written;
    auto const put = [&place](unsigned bits) { *place++ = static_cast<unsigned char>(bits); };
    while (next != end) {
      char const character = *next++;
      if (character == '=') phase = 0;
      unsigned const value = valueOfBase64(character);
      if (!isBase64Value(value)) continue;
      switch (phase) {
        case 0:
          carry = value << 2;
          break;
        case 1:
          put(carry | value >> 4);
          carry = value << 4 & 0xFF;
          break;
        case 2:
          put(carry | value >> 2);
          carry = value << 6 & 0xFF;
          break;
        default:
          put(carry | value);
      }
      phase = (phase + 1) % 4;
    }
    used += count;
    written = static_cast<unsigned long>(place - text.target);
  }
  text.phase = phase;
  text.carry = carry;
  text.used = used;
  text.written = written;
}

/// What is carried at the `end` of a whole group.
unsigned carryBehind(unsigned char const* end) { return end[-1] & 0xC0U; }

/// Decodes whole groups of `characters`, up to one with a character outside the
/// alphabet; returns how many that are. No group is begun before.
unsigned long decodeGroups(Decoding& text, char const* characters, unsigned long count) {
  unsigned long const groups = decodeBase64Groups(
      characters, std::min(count / 4, (text.room - text.written) / 3), text.target + text.written);
  if (groups == 0) return 0;
  text.written += 3 * groups;
  text.carry = carryBehind(text.target + text.written);
  return groups;
}

void decodeCleanGroups(Decoding& text) {
  text.used += 4 * decodeGroups(text, text.source + text.used, text.length - text.used);
}

/// A stretch of a text without what is not in the alphabet: what remains of it
/// decodes faster than what it comes from.
constexpr unsigned long kStretch = 256;

/// Decodes from where a group begins, until near the end of the source or of the
/// target, or near a "=".
void decodeStretches(Decoding& text) {
  std::array<char, 4 + kStretch> kept;  // what waits of a group, then a stretch
  unsigned long waiting = 0;
  for (;;) {
    // A stretch and what waits before it give fewer bytes than the stretch has
    // characters: the target is not full before its end.
    unsigned long const size =
        std::min({kStretch, text.length - text.used, text.room - text.written});
    auto const [read, count] = compactBase64(text.source + text.used, size, kept.data() + waiting);
    if (read == 0) break;
    text.used += read;
    waiting += count;
    unsigned long const groups = decodeGroups(text, kept.data(), waiting);
    std::memmove(kept.data(), kept.data() + 4 * groups, 4);
    waiting -= 4 * groups;
    if (count < read) continue;
    // Clean: what waits is what was read last.
    text.used -= waiting;
    waiting = 0;
    decodeCleanGroups(text);
  }
  if (waiting == 0) return decodeCleanGroups(text);
  Decoding rest{kept.data(), waiting, text.target, text.room, 0, text.carry, 0, text.written};
  decodeCharacters(rest, waiting);
  text.phase = rest.phase;
  text.carry = rest.carry;
  text.written = rest.written;
}

/// Fewer characters in a stretch are not worth trying again soon.
constexpr unsigned long kWorthwhile = 32;

constexpr unsigned long kLongestWait = 4096;

/// What Base64Decode() does with all but a clean text.
// Not inline: short texts would pay for the registers.
[[gnu::noinline]] void decodeRest(Decoding& text) {
  unsigned long wait = 1;
  for (;;) {
    unsigned long const left = text.length - text.used;
    bool const isShort = left < kBase64CompactionBlock;
    decodeCharacters(text, text.used + (isShort ? left : std::min(wait, left)));
    if (text.isAtEnd()) return;
    unsigned long const start = text.used;
    decodeStretches(text);
    wait = text.used - start >= kWorthwhile ? 1 : std::clamp(8 * wait, kWorthwhile, kLongestWait);
  }
}

/// Decodes "TQ==" or "TWE="; returns the number of bytes, 0 for what is neither or
/// for lack of room.
unsigned long decodeLastGroup(char const* group, unsigned char* target, unsigned long room,
                              unsigned& carry) {
  unsigned const first = valueOfBase64(group[0]);
  unsigned const second = valueOfBase64(group[1]);
  unsigned const third = valueOfBase64(group[2]);
  bool const hasThird = isBase64Value(third);
  unsigned long const count = hasThird ? 2 : 1;
  // What is not in the alphabet leaves the third place as empty as "=" does.
  bool const isOne = isBase64Value(first | second) && group[3] == '=';
  if (!isOne || room < count) return 0;
  target[0] = static_cast<unsigned char>(first << 2 | second >> 4);
  carry = second << 4 & 0xFF;
  if (!hasThird) return 1;
  target[1] = static_cast<unsigned char>(carry | third >> 2);
  carry = third << 6 & 0xFF;
  return 2;
}

}  // namespace

unsigned long Base64Encode(void const* source, unsigned long sourceLength, char* target,
                           unsigned long targetLength, int* state, unsigned long* consumed) {
  auto const* const bytes = static_cast<unsigned char const*>(source);
  unsigned long const length = bytes != nullptr ? sourceLength : 0;
  bool const waits = state != nullptr && (*state & 0xFC) != 0;
  if (waits || length > targetLength / 4 * 3) {
    return encodePiece(bytes, length, target, targetLength, state, consumed);
  }
  if (state != nullptr) *state = 0;
  if (consumed != nullptr) *consumed = length;
  return encodeBase64Text(bytes, length, target);
}

unsigned long Base64Decode(char const* source, unsigned long sourceLength, void* target,
                           unsigned long targetLength, int* state, unsigned long* consumed) {
  unsigned const before = state != nullptr ? static_cast<unsigned>(*state) : 0;
  unsigned long const length = sourceLength < kLengthOfText ? sourceLength : std::strlen(source);
  auto* const bytes = static_cast<unsigned char*>(target);
  unsigned phase = before & 3;
  unsigned carry = before & 0xFC;
  unsigned long used = 0;
  unsigned long written = 0;
  if (phase == 0) {
    unsigned long const groups =
        decodeBase64Groups(source, std::min(length / 4, targetLength / 3), bytes);
    used = 4 * groups;
    written = 3 * groups;
    if (groups > 0) carry = carryBehind(bytes + written);
    if (length - used == 4) {
      unsigned long const count =
          decodeLastGroup(source + used, bytes + written, targetLength - written, carry);
      if (count > 0) {
        written += count;
        used = length;
        if (written == targetLength) {  // so that the padding is not looked at
          used = length - 3 + count;
          phase = static_cast<unsigned>(count) + 1;
        }
      }
    }
  }
  if (used < length && written < targetLength) {
    Decoding rest{source, length, bytes, targetLength, phase, carry, used, written};
    decodeRest(rest);
    phase = rest.phase;
    carry = rest.carry;
    used = rest.used;
    written = rest.written;
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

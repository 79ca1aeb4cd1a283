#include "binary/base64_bulk.h"

#include <array>
#include <cstring>

#if (defined __x86_64__ || defined __i386__) && !defined VRXUTIL_NO_AVX2
#include <immintrin.h>
#define VRXUTIL_AVX2 __attribute__((target("avx2,popcnt")))
#endif

namespace vrxutil::detail {

namespace {

void encodeGroup(unsigned char const* source, char* target) {
  unsigned const bits = static_cast<unsigned>(source[0]) << 16 |
                        static_cast<unsigned>(source[1]) << 8 | static_cast<unsigned>(source[2]);
  target[0] = kBase64Alphabet[bits >> 18];
  target[1] = kBase64Alphabet[bits >> 12 & 0x3F];
  target[2] = kBase64Alphabet[bits >> 6 & 0x3F];
  target[3] = kBase64Alphabet[bits & 0x3F];
}

/// False when a character is not in the alphabet.
bool decodeGroup(char const* source, unsigned char* target) {
  unsigned const a = valueOfBase64(source[0]);
  unsigned const b = valueOfBase64(source[1]);
  unsigned const c = valueOfBase64(source[2]);
  unsigned const d = valueOfBase64(source[3]);
  if (!isBase64Value(a | b | c | d)) return false;
  target[0] = static_cast<unsigned char>(a << 2 | b >> 4);
  target[1] = static_cast<unsigned char>(b << 4 | c >> 2);
  target[2] = static_cast<unsigned char>(c << 6 | d);
  return true;
}

/// Encodes the one or two bytes that a text may end with.
void encodeLastGroup(unsigned char const* source, std::size_t size, char* target) {
  bool const hasSecond = size == 2;
  unsigned const first = source[0];
  unsigned const second = hasSecond ? source[1] : 0;
  target[0] = kBase64Alphabet[first >> 2];
  target[1] = kBase64Alphabet[(first << 4 | second >> 4) & 0x3F];
  target[2] = hasSecond ? kBase64Alphabet[second << 2 & 0x3F] : '=';
  target[3] = '=';
}

/// Returns the end of the text.
char* encodeGroupByGroup(unsigned char const* source, std::size_t size, char* target) {
  for (; size >= 3; size -= 3) {
    encodeGroup(source, target);
    source += 3;
    target += 4;
  }
  if (size == 0) return target;
  encodeLastGroup(source, size, target);
  return target + 4;
}

std::size_t decodeSomeGroups(char const* source, std::size_t groups, unsigned char* target) {
  std::size_t done = 0;
  while (done < groups && decodeGroup(source + 4 * done, target + 3 * done)) ++done;
  return done;
}

#ifdef VRXUTIL_AVX2

// W. Mula and D. Lemire, "Faster Base64 Encoding and Decoding using AVX2
// Instructions", ACM Transactions on the Web 12 (2018): eight groups at a time, in
// two halves of four. Before what is left to others, the upper halves of the registers
// are cleared: whatever runs next would be slow, and g++ 12 forgets it before a call.

constexpr std::size_t kGroupsAtOnce = 8;

bool hasAvx2() {
  return __builtin_cpu_supports("avx2") != 0 && __builtin_cpu_supports("popcnt") != 0;
}

/// A constant for both halves.
struct alignas(32) Block {
  std::array<std::uint8_t, 32> bytes;
};

/// The `pattern` over and over.
template <std::size_t kSize>
constexpr Block repeated(std::array<int, kSize> const& pattern) {
  Block block{};
  for (std::size_t i = 0; i < block.bytes.size(); ++i) {
    block.bytes[i] = static_cast<std::uint8_t>(pattern[i % kSize]);
  }
  return block;
}

VRXUTIL_AVX2 __m256i load(Block const& block) {
  return _mm256_load_si256(reinterpret_cast<__m256i const*>(&block));
}

// Each group of bytes a, b, c becomes b, a, c, b: 16-bit halves that hold ab and bc.
constexpr Block kSpread = repeated(std::array{1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10});
// Shifts that differ from place to place: multiplications by powers of two.
constexpr Block kFirstAndThird = repeated(std::array{0x00, 0xFC, 0xC0, 0x0F});
constexpr Block kFirstAndThirdShift = repeated(std::array{0x40, 0x00, 0x00, 0x04});
constexpr Block kSecondAndFourth = repeated(std::array{0xF0, 0x03, 0x3F, 0x00});
constexpr Block kSecondAndFourthShift = repeated(std::array{0x10, 0x00, 0x00, 0x01});

/// 6-bit values, a byte each, of the 12 bytes that each half begins with.
VRXUTIL_AVX2 __m256i splitInSixBits(__m256i bytes) {
  __m256i const spread = _mm256_shuffle_epi8(bytes, load(kSpread));
  __m256i const firstAndThird =
      _mm256_mulhi_epu16(_mm256_and_si256(spread, load(kFirstAndThird)), load(kFirstAndThirdShift));
  __m256i const secondAndFourth = _mm256_mullo_epi16(
      _mm256_and_si256(spread, load(kSecondAndFourth)), load(kSecondAndFourthShift));
  return _mm256_or_si256(firstAndThird, secondAndFourth);
}

// What is to be added to a value: 0 stands for upper case, 1 for lower case, then the
// ten digits, "+" and "/".
constexpr Block kOffsetsOfValues = repeated(
    std::array{'A' - 0, 'a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
               '0' - 52, '0' - 52, '0' - 52, '0' - 52, '+' - 62, '/' - 63, 0, 0});
constexpr Block kLastLetter = repeated(std::array{51});
constexpr Block kLastUpper = repeated(std::array{25});

/// The characters of 6-bit values: each range of the alphabet is its values and a
/// constant.
VRXUTIL_AVX2 __m256i toCharacters(__m256i values) {
  __m256i const beyondLetters = _mm256_subs_epu8(values, load(kLastLetter));
  __m256i const isNotUpper = _mm256_cmpgt_epi8(values, load(kLastUpper));
  __m256i const range = _mm256_sub_epi8(beyondLetters, isNotUpper);
  return _mm256_add_epi8(values, _mm256_shuffle_epi8(load(kOffsetsOfValues), range));
}

VRXUTIL_AVX2 __m128i load16(void const* source) {
  return _mm_loadu_si128(static_cast<__m128i const*>(source));
}

VRXUTIL_AVX2 __m256i toBase64(__m256i bytes) { return toCharacters(splitInSixBits(bytes)); }

// Of what is loaded for a half.
constexpr std::size_t kHalfBytes = 12;
constexpr std::size_t kBytesLoaded = 16;

VRXUTIL_AVX2 std::size_t encodeWithAvx2(unsigned char const* source, std::size_t size,
                                        char* target) {
  char* next = target;
  for (; size >= kHalfBytes + kBytesLoaded; size -= 2 * kHalfBytes) {
    __m256i const block = _mm256_set_m128i(load16(source + kHalfBytes), load16(source));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(next), toBase64(block));
    source += 2 * kHalfBytes;
    next += 32;
  }
  if (size >= kBytesLoaded) {
    __m256i const half = _mm256_castsi128_si256(load16(source));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(next), _mm256_castsi256_si128(toBase64(half)));
    source += kHalfBytes;
    next += 16;
    size -= kHalfBytes;
  }
  _mm256_zeroupper();
  return static_cast<std::size_t>(encodeGroupByGroup(source, size, next) - target);
}

// A character is in the alphabet if no bit is set both for its low half and for its
// high half; what is to be added to it depends on the high half and on "/".
constexpr Block kBitsOfLow = repeated(std::array{0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11,
                                                 0x11, 0x11, 0x13, 0x1A, 0x1B, 0x1B, 0x1B, 0x1A});
constexpr Block kBitsOfHigh = repeated(std::array{0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08,
                                                  0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10});
constexpr Block kOffsetsOfCharacters =
    repeated(std::array{0, 16, 19, 4, -65, -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0});
// Also a mask: of what it keeps beyond the low half, shuffles take no notice.
constexpr Block kSlash = repeated(std::array{static_cast<int>('/')});

/// The high halves, with what shuffles take no notice of.
VRXUTIL_AVX2 __m256i highHalves(__m256i characters) {
  return _mm256_and_si256(_mm256_srli_epi32(characters, 4), load(kSlash));
}

/// Zero where a character is in the alphabet.
VRXUTIL_AVX2 __m256i faultsOf(__m256i characters, __m256i high) {
  __m256i const low = _mm256_and_si256(characters, load(kSlash));
  return _mm256_and_si256(_mm256_shuffle_epi8(load(kBitsOfLow), low),
                          _mm256_shuffle_epi8(load(kBitsOfHigh), high));
}

/// The 6-bit values of 32 characters; false when one is not in the alphabet.
VRXUTIL_AVX2 bool toValues(__m256i characters, __m256i& values) {
  __m256i const high = highHalves(characters);
  __m256i const faults = faultsOf(characters, high);
  if (_mm256_testz_si256(faults, faults) == 0) return false;
  __m256i const range = _mm256_add_epi8(_mm256_cmpeq_epi8(characters, load(kSlash)), high);
  values = _mm256_add_epi8(characters, _mm256_shuffle_epi8(load(kOffsetsOfCharacters), range));
  return true;
}

constexpr Block kPairShift = repeated(std::array{0x40, 0x01});
constexpr Block kGroupShift = repeated(std::array{0x00, 0x10, 0x01, 0x00});
constexpr Block kBytesOfGroups =
    repeated(std::array{2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1});

/// 12 bytes at the start of each half, from 32 values.
VRXUTIL_AVX2 __m256i joinSixBits(__m256i values) {
  __m256i const pairs = _mm256_maddubs_epi16(values, load(kPairShift));
  return _mm256_shuffle_epi8(_mm256_madd_epi16(pairs, load(kGroupShift)), load(kBytesOfGroups));
}

VRXUTIL_AVX2 void store12(__m128i bytes, unsigned char* target) {
  std::int32_t const last = _mm_extract_epi32(bytes, 2);
  _mm_storel_epi64(reinterpret_cast<__m128i*>(target), bytes);
  std::memcpy(target + 8, &last, sizeof last);
}

/// Decodes a half block; false when a character is not in the alphabet.
VRXUTIL_AVX2 bool decodeFourGroups(char const* source, unsigned char* target) {
  __m128i const characters = load16(source);
  __m256i values;
  if (!toValues(_mm256_broadcastsi128_si256(characters), values)) return false;
  store12(_mm256_castsi256_si128(joinSixBits(values)), target);
  return true;
}

VRXUTIL_AVX2 std::size_t decodeWithAvx2(char const* source, std::size_t groups,
                                        unsigned char* target) {
  std::size_t done = 0;
  for (; groups - done >= kGroupsAtOnce; done += kGroupsAtOnce) {
    __m256i values;
    auto const* const characters = reinterpret_cast<__m256i const*>(source + 4 * done);
    if (!toValues(_mm256_loadu_si256(characters), values)) break;
    __m256i const bytes = joinSixBits(values);
    store12(_mm256_castsi256_si128(bytes), target + 3 * done);
    store12(_mm256_extracti128_si256(bytes, 1), target + 3 * done + 12);
  }
  while (groups - done >= 4 && decodeFourGroups(source + 4 * done, target + 3 * done)) done += 4;
  _mm256_zeroupper();
  return done + decodeSomeGroups(source + 4 * done, groups - done, target + 3 * done);
}

/// The places of each set of eight, in their order.
constexpr auto kPlaces = [] {
  std::array<std::array<std::uint8_t, 8>, 256> places{};
  for (std::size_t set = 0; set < places.size(); ++set) {
    std::size_t count = 0;
    for (std::uint8_t i = 0; i < 8; ++i) {
      if ((set >> i & 1) != 0) places[set][count++] = i;
    }
  }
  return places;
}();

/// Writes those of the first eight characters that are in the `set`; returns their end.
VRXUTIL_AVX2 char* keepSome(__m128i characters, unsigned set, char* target) {
  auto const* const places = reinterpret_cast<__m128i const*>(kPlaces[set].data());
  _mm_storel_epi64(reinterpret_cast<__m128i*>(target),
                   _mm_shuffle_epi8(characters, _mm_loadl_epi64(places)));
  return target + __builtin_popcount(set);
}

VRXUTIL_AVX2 Base64Compaction compactWithAvx2(char const* source, std::size_t size, char* target) {
  __m128i const padding = _mm_set1_epi8('=');
  std::size_t read = 0;
  char* next = target;
  for (; size - read >= kBase64CompactionBlock; read += kBase64CompactionBlock) {
    __m128i const characters = load16(source + read);
    if (_mm_movemask_epi8(_mm_cmpeq_epi8(characters, padding)) != 0) break;
    __m256i const block = _mm256_castsi128_si256(characters);
    __m128i const faults = _mm256_castsi256_si128(faultsOf(block, highHalves(block)));
    auto const good =
        static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(faults, _mm_setzero_si128())));
    next = keepSome(characters, good & 0xFF, next);
    next = keepSome(_mm_srli_si128(characters, 8), good >> 8, next);
  }
  return {read, static_cast<std::size_t>(next - target)};
}

#endif

}  // namespace

std::size_t encodeBase64Text(unsigned char const* source, std::size_t size, char* target) {
#ifdef VRXUTIL_AVX2
  if (size >= kBytesLoaded && hasAvx2()) return encodeWithAvx2(source, size, target);
#endif
  return static_cast<std::size_t>(encodeGroupByGroup(source, size, target) - target);
}

std::size_t decodeBase64Groups(char const* source, std::size_t groups, unsigned char* target) {
#ifdef VRXUTIL_AVX2
  if (groups >= kGroupsAtOnce / 2 && hasAvx2()) return decodeWithAvx2(source, groups, target);
#endif
  return decodeSomeGroups(source, groups, target);
}

Base64Compaction compactBase64([[maybe_unused]] char const* source,
                               [[maybe_unused]] std::size_t size, [[maybe_unused]] char* target) {
#ifdef VRXUTIL_AVX2
  if (hasAvx2()) return compactWithAvx2(source, size, target);
#endif
  return {0, 0};
}

}  // namespace vrxutil::detail

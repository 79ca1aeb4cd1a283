#include "binary/base64_bulk.h"

#include <array>
#include <cstring>

#if (defined __x86_64__ || defined __i386__) && !defined VRXUTIL_NO_AVX2
#define VRXUTIL_HAS_AVX2 1
#include <immintrin.h>
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

unsigned valueOf(char character) { return kBase64Values[static_cast<unsigned char>(character)]; }

/// False when a character is not in the alphabet.
bool decodeGroup(char const* source, unsigned char* target) {
  unsigned const a = valueOf(source[0]);
  unsigned const b = valueOf(source[1]);
  unsigned const c = valueOf(source[2]);
  unsigned const d = valueOf(source[3]);
  if ((a | b | c | d) == kNoBase64Value) return false;
  target[0] = static_cast<unsigned char>(a << 2 | b >> 4);
  target[1] = static_cast<unsigned char>(b << 4 | c >> 2);
  target[2] = static_cast<unsigned char>(c << 6 | d);
  return true;
}

void encodeSomeGroups(unsigned char const* source, std::size_t groups, char* target) {
  for (std::size_t i = 0; i < groups; ++i) encodeGroup(source + 3 * i, target + 4 * i);
}

std::size_t decodeSomeGroups(char const* source, std::size_t groups, unsigned char* target) {
  std::size_t done = 0;
  while (done < groups && decodeGroup(source + 4 * done, target + 3 * done)) ++done;
  return done;
}

#ifdef VRXUTIL_HAS_AVX2

// W. Mula and D. Lemire, "Faster Base64 Encoding and Decoding using AVX2
// Instructions", ACM Transactions on the Web 12 (2018): eight groups at a time, in
// two halves of four.

constexpr std::size_t kGroupsAtOnce = 8;

bool hasAvx2() { return __builtin_cpu_supports("avx2") != 0; }

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

__attribute__((target("avx2"))) __m256i load(Block const& block) {
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
__attribute__((target("avx2"))) __m256i splitInSixBits(__m256i bytes) {
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
__attribute__((target("avx2"))) __m256i toCharacters(__m256i values) {
  __m256i const beyondLetters = _mm256_subs_epu8(values, load(kLastLetter));
  __m256i const isNotUpper = _mm256_cmpgt_epi8(values, load(kLastUpper));
  __m256i const range = _mm256_sub_epi8(beyondLetters, isNotUpper);
  return _mm256_add_epi8(values, _mm256_shuffle_epi8(load(kOffsetsOfValues), range));
}

__attribute__((target("avx2"))) __m128i load12(unsigned char const* source) {
  std::int32_t last = 0;
  std::memcpy(&last, source + 8, sizeof last);
  return _mm_insert_epi32(_mm_loadl_epi64(reinterpret_cast<__m128i const*>(source)), last, 2);
}

/// Encodes a half block.
__attribute__((target("avx2"))) void encodeFourGroups(unsigned char const* source, char* target) {
  __m256i const block = _mm256_castsi128_si256(load12(source));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(target),
                   _mm256_castsi256_si128(toCharacters(splitInSixBits(block))));
}

__attribute__((target("avx2"))) void encodeWithAvx2(unsigned char const* source, std::size_t groups,
                                                    char* target) {
  std::size_t done = 0;
  // The second half is loaded as 16 bytes of which it needs 12.
  for (; groups - done >= kGroupsAtOnce + 2; done += kGroupsAtOnce) {
    auto const* const bytes = reinterpret_cast<__m128i const*>(source + 3 * done);
    auto const* const later = reinterpret_cast<__m128i const*>(source + 3 * done + 12);
    __m256i const block = _mm256_set_m128i(_mm_loadu_si128(later), _mm_loadu_si128(bytes));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(target + 4 * done),
                        toCharacters(splitInSixBits(block)));
  }
  // Not a loop, before which compilers would put all constants in registers.
  if (groups - done >= 8) {
    encodeFourGroups(source + 3 * done, target + 4 * done);
    done += 4;
  }
  if (groups - done >= 4) {
    encodeFourGroups(source + 3 * done, target + 4 * done);
    done += 4;
  }
  encodeSomeGroups(source + 3 * done, groups - done, target + 4 * done);
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

/// The 6-bit values of 32 characters; false when one is not in the alphabet.
__attribute__((target("avx2"))) bool toValues(__m256i characters, __m256i& values) {
  __m256i const slash = load(kSlash);
  __m256i const high = _mm256_and_si256(_mm256_srli_epi32(characters, 4), slash);
  __m256i const low = _mm256_and_si256(characters, slash);
  if (_mm256_testz_si256(_mm256_shuffle_epi8(load(kBitsOfLow), low),
                         _mm256_shuffle_epi8(load(kBitsOfHigh), high)) == 0) {
    return false;
  }
  __m256i const range = _mm256_add_epi8(_mm256_cmpeq_epi8(characters, slash), high);
  values = _mm256_add_epi8(characters, _mm256_shuffle_epi8(load(kOffsetsOfCharacters), range));
  return true;
}

constexpr Block kPairShift = repeated(std::array{0x40, 0x01});
constexpr Block kGroupShift = repeated(std::array{0x00, 0x10, 0x01, 0x00});
constexpr Block kBytesOfGroups =
    repeated(std::array{2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1});

/// 12 bytes at the start of each half, from 32 values.
__attribute__((target("avx2"))) __m256i joinSixBits(__m256i values) {
  __m256i const pairs = _mm256_maddubs_epi16(values, load(kPairShift));
  return _mm256_shuffle_epi8(_mm256_madd_epi16(pairs, load(kGroupShift)), load(kBytesOfGroups));
}

__attribute__((target("avx2"))) void store12(__m128i bytes, unsigned char* target) {
  std::int32_t const last = _mm_extract_epi32(bytes, 2);
  _mm_storel_epi64(reinterpret_cast<__m128i*>(target), bytes);
  std::memcpy(target + 8, &last, sizeof last);
}

/// Decodes a half block; false when a character is not in the alphabet.
__attribute__((target("avx2"))) bool decodeFourGroups(char const* source, unsigned char* target) {
  __m128i const characters = _mm_loadu_si128(reinterpret_cast<__m128i const*>(source));
  __m256i values;
  if (!toValues(_mm256_broadcastsi128_si256(characters), values)) return false;
  store12(_mm256_castsi256_si128(joinSixBits(values)), target);
  return true;
}

__attribute__((target("avx2"))) std::size_t decodeWithAvx2(char const* source, std::size_t groups,
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
  return done + decodeSomeGroups(source + 4 * done, groups - done, target + 3 * done);
}

#endif

}  // namespace

void encodeBase64Groups(unsigned char const* source, std::size_t groups, char* target) {
#ifdef VRXUTIL_HAS_AVX2
  if (hasAvx2()) return encodeWithAvx2(source, groups, target);
#endif
  encodeSomeGroups(source, groups, target);
}

std::size_t decodeBase64Groups(char const* source, std::size_t groups, unsigned char* target) {
#ifdef VRXUTIL_HAS_AVX2
  if (hasAvx2()) return decodeWithAvx2(source, groups, target);
#endif
  return decodeSomeGroups(source, groups, target);
}

}  // namespace vrxutil::detail

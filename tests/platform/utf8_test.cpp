#include "platform/common/utf8.h"

#include "tests/support/guarded_memory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace vrxutil::detail {

namespace {

using namespace std::string_view_literals;

using test::GuardedMemory;

/// The table of RFC 3629, section 4: which bytes may follow one another.
struct Form {
  unsigned char first, last;              // of the lead byte
  unsigned char secondFirst, secondLast;  // of the byte after it
  std::size_t size;
};

constexpr std::array kForms{
    Form{0x00, 0x7F, 0x00, 0x00, 1}, Form{0xC2, 0xDF, 0x80, 0xBF, 2},
    Form{0xE0, 0xE0, 0xA0, 0xBF, 3}, Form{0xE1, 0xEC, 0x80, 0xBF, 3},
    Form{0xED, 0xED, 0x80, 0x9F, 3}, Form{0xEE, 0xEF, 0x80, 0xBF, 3},
    Form{0xF0, 0xF0, 0x90, 0xBF, 4}, Form{0xF1, 0xF3, 0x80, 0xBF, 4},
    Form{0xF4, 0xF4, 0x80, 0x8F, 4},
};

unsigned char byteAt(std::string_view bytes, std::size_t i) {
  return static_cast<unsigned char>(bytes[i]);
}

/// Size of the first character of `bytes`, by the table; 0 if it is not valid.
std::size_t oracleSize(std::string_view bytes) {
  for (Form const& form : kForms) {
    if (byteAt(bytes, 0) < form.first || byteAt(bytes, 0) > form.last) continue;
    if (bytes.size() < form.size) return 0;
    for (std::size_t i = 1; i < form.size; ++i) {
      unsigned const low = i == 1 ? form.secondFirst : 0x80;
      unsigned const high = i == 1 ? form.secondLast : 0xBF;
      if (byteAt(bytes, i) < low || byteAt(bytes, i) > high) return 0;
    }
    return form.size;
  }
  return 0;
}

wchar_t oracleValue(std::string_view character) {
  constexpr std::array kLeadOffsets{0x00U, 0x00U, 0xC0U, 0xE0U, 0xF0U};
  unsigned value = byteAt(character, 0) - kLeadOffsets.at(character.size());
  for (char const c : character.substr(1)) {
    value = value * 64 + (static_cast<unsigned char>(c) - 0x80U);
  }
  return static_cast<wchar_t>(value);
}

struct Decoded {
  std::size_t read;
  std::wstring text;

  bool operator==(Decoded const&) const = default;
};

void PrintTo(Decoded const& decoded, std::ostream* out) {
  *out << decoded.read << " bytes: " << testing::PrintToString(decoded.text);
}

Decoded oracleDecode(std::string_view bytes) {
  Decoded decoded{};
  while (decoded.read < bytes.size()) {
    std::size_t const size = oracleSize(bytes.substr(decoded.read));
    if (size == 0) break;
    decoded.text += oracleValue(bytes.substr(decoded.read, size));
    decoded.read += size;
  }
  return decoded;
}

std::string oracleEncode(std::wstring const& text) {
  std::string bytes;
  for (wchar_t const c : text) {
    auto const value = static_cast<unsigned>(c);
    std::array<unsigned, 4> const groups{value >> 18, value >> 12 & 63, value >> 6 & 63,
                                         value & 63};
    std::size_t const size = value < 0x80 ? 1 : value < 0x800 ? 2 : value < 0x10000 ? 3 : 4;
    constexpr std::array kLeads{0x00U, 0x00U, 0xC0U, 0xE0U, 0xF0U};
    std::string character(
        1, static_cast<char>(size == 1 ? value : kLeads.at(size) + groups.at(4 - size)));
    for (std::size_t i = 5 - size; i < 4; ++i) character += static_cast<char>(0x80 + groups.at(i));
    bytes += character;
  }
  return bytes;
}

/// decodeUtf8, with guards behind what it may read and write.
Decoded decode(std::string_view bytes) {
  static GuardedMemory const source(1 << 14);
  static GuardedMemory const target((1 << 14) * sizeof(wchar_t));
  char* const from = source.last<char>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), from);
  auto* const to = target.last<wchar_t>(bytes.size());
  Converted const converted = decodeUtf8({from, bytes.size()}, to);
  EXPECT_EQ(validUtf8Size({from, bytes.size()}), converted.read);
  return {converted.read, std::wstring(to, converted.written)};
}

struct Encoded {
  std::size_t read;
  std::string bytes;

  bool operator==(Encoded const&) const = default;
};

/// encodeUtf8, with guards behind what it may read and write.
Encoded encode(std::wstring_view text) {
  static GuardedMemory const source((1 << 14) * sizeof(wchar_t));
  static GuardedMemory const target((1 << 14) * kMaxUtf8Size);
  auto* const from = source.last<wchar_t>(text.size());
  std::copy(text.begin(), text.end(), from);
  char* const to = target.last<char>(text.size() * kMaxUtf8Size);
  Converted const converted = encodeUtf8({from, text.size()}, to);
  return {converted.read, std::string(to, converted.written)};
}

std::wstring allScalarValues() {
  std::wstring all;
  for (wchar_t c = 0; c < 0xD800; ++c) all += c;
  for (wchar_t c = 0xE000; c <= 0x10FFFF; ++c) all += c;
  return all;
}

constexpr std::array kNoScalarValues{
    static_cast<wchar_t>(0xD800),    static_cast<wchar_t>(0xDBFF),
    static_cast<wchar_t>(0xDC00),    static_cast<wchar_t>(0xDFFF),
    static_cast<wchar_t>(0x110000),  static_cast<wchar_t>(INT32_MAX),
    static_cast<wchar_t>(INT32_MIN), static_cast<wchar_t>(-1),
};

/// Texts of `length` characters from all sizes, most of them ASCII.
std::wstring randomText(std::mt19937& random, std::size_t length, unsigned asciiPercent) {
  constexpr std::array kChoices{wchar_t{0x80},    wchar_t{0x7FF},  wchar_t{0x800},
                                wchar_t{0xFFFD},  wchar_t{0xFEFF}, wchar_t{0x10000},
                                wchar_t{0x10FFFF}};
  std::wstring text;
  while (text.size() < length) {
    bool const isAscii = random() % 100 < asciiPercent;
    text +=
        isAscii ? static_cast<wchar_t>(random() % 0x80) : kChoices.at(random() % kChoices.size());
  }
  return text;
}

constexpr std::array<std::size_t, 12> kLongLengths{1022, 1023, 1024, 1025, 2047, 2048,
                                                   2049, 4095, 4096, 4097, 4127, 4129};

TEST(Utf8Test, ScalarValuesAreAllButSurrogatesAndWhatIsBeyondUnicode) {
  struct Row {
    long value;
    bool isScalar;
  };

  constexpr std::array kRows{
      Row{0, true},        Row{0xD7FF, true},   Row{0xD800, false},  Row{0xDFFF, false},
      Row{0xE000, true},   Row{0xFFFE, true},   Row{0x10FFFF, true}, Row{0x110000, false},
      Row{INT_MAX, false}, Row{INT_MIN, false}, Row{-1, false},
  };
  for (Row const& row : kRows) {
    EXPECT_EQ(isScalarValue(static_cast<wchar_t>(row.value)), row.isScalar) << row.value;
  }
}

TEST(Utf8Test, EveryScalarValueIsConvertedThereAndBack) {
  for (wchar_t const c : allScalarValues()) {
    std::wstring const text(1, c);
    std::string const expected = oracleEncode(text);
    ASSERT_EQ(encode(text), (Encoded{1, expected})) << std::hex << static_cast<long>(c);
    ASSERT_EQ(decode(expected), (Decoded{expected.size(), text}))
        << std::hex << static_cast<long>(c);
  }
}

TEST(Utf8Test, AllScalarValuesInOneTextAreConvertedThereAndBack) {
  std::wstring const text = allScalarValues();
  std::string utf8;
  ASSERT_EQ(appendUtf8(text, utf8), text.size());
  EXPECT_TRUE(utf8 == oracleEncode(text));  // too long to print
  EXPECT_EQ(validUtf8Size(utf8), utf8.size());
  std::wstring back;
  ASSERT_EQ(appendWide(utf8, back), utf8.size());
  EXPECT_TRUE(back == text);
}

TEST(Utf8Test, EverySequenceOfUpToFourInterestingBytesDecodesAsTheTableOfTheRfcSays) {
  constexpr std::string_view kInteresting =
      "\x00\x41\x7F\x80\x8F\x90\x9F\xA0\xBF\xC0\xC1\xC2\xDF\xE0\xE1\xEC\xED\xEE\xEF\xF0\xF1\xF3\xF4"
      "\xF5\xF7\xF8\xFB\xFC\xFE\xFF"sv;
  std::size_t count = 1;
  for (std::size_t length = 1; length <= 4; ++length) {
    count *= kInteresting.size();
    std::string bytes(length, '\0');
    for (std::size_t number = 0; number < count; ++number) {
      std::size_t rest = number;
      for (char& byte : bytes) {
        byte = kInteresting[rest % kInteresting.size()];
        rest /= kInteresting.size();
      }
      ASSERT_EQ(decode(bytes), oracleDecode(bytes)) << testing::PrintToString(bytes);
    }
  }
}

TEST(Utf8Test, InvalidSequencesAreNotDecoded) {
  struct Row {
    char const* name;
    std::string_view bytes;
  };

  constexpr std::array kRows{
      Row{"continuation alone", "\x80"sv},
      Row{"overlong NUL", "\xC0\x80"sv},
      Row{"overlong solidus in two bytes", "\xC0\xAF"sv},
      Row{"overlong in two bytes, last", "\xC1\xBF"sv},
      Row{"overlong solidus in three bytes", "\xE0\x80\xAF"sv},
      Row{"overlong in three bytes, last", "\xE0\x9F\xBF"sv},
      Row{"overlong in four bytes, last", "\xF0\x8F\xBF\xBF"sv},
      Row{"first surrogate", "\xED\xA0\x80"sv},
      Row{"last surrogate", "\xED\xBF\xBF"sv},
      Row{"surrogate pair (CESU-8)", "\xED\xA0\xBD\xED\xB8\x80"sv},
      Row{"first beyond Unicode", "\xF4\x90\x80\x80"sv},
      Row{"five bytes", "\xF8\x88\x80\x80\x80"sv},
      Row{"six bytes", "\xFC\x84\x80\x80\x80\x80"sv},
      Row{"no lead byte FE", "\xFE"sv},
      Row{"no lead byte FF", "\xFF"sv},
      Row{"Latin-1", "\xE9t"sv},
  };
  for (Row const& row : kRows) {
    EXPECT_EQ(decode(row.bytes), (Decoded{0, L""})) << row.name;
    EXPECT_EQ(decode("ab" + std::string(row.bytes)), (Decoded{2, L"ab"})) << row.name;
  }
}

TEST(Utf8Test, EveryTruncationStopsBeforeTheCutCharacter) {
  std::wstring const text = L"a\u00E9b\u20ACc\U0001F600d";
  std::string const whole = oracleEncode(text);
  for (std::string const& start : {std::string(), std::string(31, 'x'), std::string(64, 'x')}) {
    for (std::size_t size = 0; size <= whole.size(); ++size) {
      std::string const bytes = start + whole.substr(0, size);
      ASSERT_EQ(decode(bytes), oracleDecode(bytes)) << start.size() << " + " << size;
    }
  }
}

TEST(Utf8Test, RandomTextsOfAllLengthsNearBlocksAreConvertedThereAndBack) {
  std::mt19937 random(20240229);
  for (unsigned const asciiPercent : {0U, 50U, 90U, 99U, 100U}) {
    for (std::size_t length = 0; length <= 200; ++length) {
      std::wstring const text = randomText(random, length, asciiPercent);
      std::string const expected = oracleEncode(text);
      ASSERT_EQ(encode(text), (Encoded{length, expected})) << length;
      ASSERT_EQ(decode(expected), (Decoded{expected.size(), text})) << length;
    }
  }
}

TEST(Utf8Test, OneCharacterThatIsNoAsciiIsFoundAtEveryPlace) {
  for (std::size_t length = 1; length <= 100; ++length) {
    for (std::size_t place = 0; place < length; ++place) {
      std::wstring text(length, L'x');
      text[place] = L'\u00E9';
      ASSERT_EQ(encode(text), (Encoded{length, oracleEncode(text)})) << place << " of " << length;
      std::string bytes(length, 'x');
      bytes[place] = '\xFF';
      ASSERT_EQ(decode(bytes), (Decoded{place, std::wstring(place, L'x')}))
          << place << " of " << length;
    }
  }
}

TEST(Utf8Test, EveryAlignmentOfInputAndOutputIsAccepted) {
  std::mt19937 random(7);
  std::wstring const text = randomText(random, 150, 95);
  std::string const bytes = oracleEncode(text);
  for (std::size_t shift = 0; shift < 64; ++shift) {
    std::string const shifted = std::string(shift, ' ') + bytes;
    std::wstring wide(shift % 5 + bytes.size(), L'?');
    Converted const decoded =
        decodeUtf8(std::string_view(shifted).substr(shift), wide.data() + shift % 5);
    ASSERT_EQ(decoded, (Converted{bytes.size(), text.size()})) << shift;
    ASSERT_EQ(wide.substr(shift % 5, text.size()), text) << shift;

    std::wstring const shiftedText = std::wstring(shift % 5, L' ') + text;
    std::string narrow(shift + text.size() * kMaxUtf8Size, '?');
    Converted const encoded =
        encodeUtf8(std::wstring_view(shiftedText).substr(shift % 5), narrow.data() + shift);
    ASSERT_EQ(encoded, (Converted{text.size(), bytes.size()})) << shift;
    ASSERT_EQ(narrow.substr(shift, bytes.size()), bytes) << shift;
  }
}

TEST(Utf8Test, RandomBytesDecodeAsTheTableOfTheRfcSays) {
  std::mt19937 random(3629);
  for (int round = 0; round < 20000; ++round) {
    std::string bytes = oracleEncode(randomText(random, random() % 80, 80));
    if (!bytes.empty()) bytes[random() % bytes.size()] = static_cast<char>(random());
    ASSERT_EQ(decode(bytes), oracleDecode(bytes)) << testing::PrintToString(bytes);
  }
}

TEST(Utf8Test, EncodingStopsAtWhatIsNoScalarValue) {
  for (wchar_t const bad : kNoScalarValues) {
    for (std::size_t const place : {0U, 1U, 31U, 32U, 33U, 100U, 4096U}) {
      std::wstring const text = std::wstring(place, L'x') + bad + L"after";
      ASSERT_EQ(encode(text), (Encoded{place, std::string(place, 'x')}))
          << std::hex << static_cast<long>(bad) << " at " << place;
    }
  }
}

TEST(Utf8Test, EmptyInputIsConvertedToNothing) {
  EXPECT_EQ(encodeUtf8({}, nullptr), (Converted{0, 0}));
  EXPECT_EQ(decodeUtf8({}, nullptr), (Converted{0, 0}));
  EXPECT_EQ(validUtf8Size({}), 0U);
  std::string utf8 = "kept";
  EXPECT_EQ(appendUtf8({}, utf8), 0U);
  EXPECT_EQ(utf8, "kept");
  std::wstring text = L"kept";
  EXPECT_EQ(appendWide({}, text), 0U);
  EXPECT_EQ(text, L"kept");
}

TEST(Utf8Test, AppendingKeepsWhatIsThereAndNulCharacters) {
  std::string utf8 = "a";
  EXPECT_EQ(appendUtf8(L"\0\u00E9"sv, utf8), 2U);
  EXPECT_EQ(utf8, "a\0\xC3\xA9"sv);
  std::wstring text = L"a";
  EXPECT_EQ(appendWide("\0\xC3\xA9"sv, text), 3U);
  EXPECT_EQ(text, L"a\0\u00E9"sv);
}

TEST(Utf8Test, AppendingStopsAtWhatCannotBeConverted) {
  std::string utf8 = "a";
  EXPECT_EQ(appendUtf8(std::wstring{L'b', kNoScalarValues[0], L'c'}, utf8), 1U);
  EXPECT_EQ(utf8, "ab");
  std::wstring text = L"a";
  EXPECT_EQ(appendWide("b\xFF\x63", text), 1U);
  EXPECT_EQ(text, L"ab");
}

TEST(Utf8Test, LongTextsAreAppendedWhateverCharacterAPieceEndsIn) {
  for (std::size_t const length : kLongLengths) {
    for (std::size_t back = 0; back < 5; ++back) {
      std::wstring const text =
          std::wstring(length - back, L'x') + L"\U0001F600\u20AC\u00E9" + std::wstring(3000, L'y');
      std::string const bytes = oracleEncode(text);
      std::string utf8 = "start ";
      ASSERT_EQ(appendUtf8(text, utf8), text.size()) << length - back;
      ASSERT_TRUE(utf8 == "start " + bytes) << length - back;
      std::wstring wide = L"start ";
      ASSERT_EQ(appendWide(bytes, wide), bytes.size()) << length - back;
      ASSERT_TRUE(wide == L"start " + text) << length - back;
    }
  }
}

TEST(Utf8Test, LongTextsAreAppendedUpToTheirFault) {
  for (std::size_t const length : kLongLengths) {
    for (std::string_view const fault : {"\xFF"sv, "\xF0\x9F\x98"sv, "\xED\xA0\x80"sv}) {
      std::string const start(length, 'x');
      for (char const* const rest : {"", "after"}) {
        std::wstring wide;
        ASSERT_EQ(appendWide(start + std::string(fault) + rest, wide), length);
        ASSERT_TRUE(wide == std::wstring(length, L'x')) << length;
      }
    }
    std::string utf8;
    ASSERT_EQ(appendUtf8(std::wstring(length, L'x') + kNoScalarValues[0] + L"after", utf8), length);
    ASSERT_TRUE(utf8 == std::string(length, 'x')) << length;
  }
}

TEST(Utf8Test, ManySmallPiecesDoNotMoveTheStringEachTime) {
  std::string utf8;
  std::wstring text;
  std::size_t moves = 0;
  for (int i = 0; i < 100000; ++i) {
    std::size_t const before = utf8.capacity() + text.capacity();
    appendUtf8(L"\u00E9", utf8);
    appendWide("\xC3\xA9", text);
    moves += utf8.capacity() + text.capacity() != before ? 1U : 0U;
  }
  EXPECT_LT(moves, 60U);
}

TEST(Utf8Test, LossyConversionsReplaceWhatIsNotValid) {
  struct Row {
    std::string_view bytes;
    std::wstring_view text;
  };

  constexpr std::array kRows{
      Row{""sv, L""sv},
      Row{"plain"sv, L"plain"sv},
      Row{"\xC3\xA9"sv, L"\u00E9"sv},
      Row{"\xFF"sv, L"\uFFFD"sv},
      Row{"a\x80z"sv, L"a\uFFFDz"sv},
      Row{"\xE2\x82"sv, L"\uFFFD\uFFFD"sv},
      Row{"\xC0\x80\0end"sv, L"\uFFFD\uFFFD\0end"sv},
      Row{"\xED\xA0\x80\xE2\x82\xAC"sv, L"\uFFFD\uFFFD\uFFFD\u20AC"sv},
  };
  for (Row const& row : kRows) EXPECT_EQ(lossyWide(row.bytes), row.text);

  for (wchar_t const bad : kNoScalarValues) {
    EXPECT_EQ(lossyUtf8(std::wstring{L'a', bad, L'z'}), "a\xEF\xBF\xBDz");
    EXPECT_EQ(lossyUtf8(std::wstring{bad, bad}), "\xEF\xBF\xBD\xEF\xBF\xBD");
  }
  EXPECT_EQ(lossyUtf8(L""), "");
  EXPECT_EQ(lossyUtf8(L"\0\u00E9\U0001F600"sv), "\0\xC3\xA9\xF0\x9F\x98\x80"sv);
}

TEST(Utf8Test, LossyConversionOfAMillionFaultsEnds) {
  constexpr std::size_t kCount = 1000000;  // too many to look at all the rest for each
  EXPECT_TRUE(lossyWide(std::string(kCount, '\xFF')) ==
              std::wstring(kCount, kReplacementCharacter));
  EXPECT_EQ(lossyUtf8(std::wstring(kCount, kNoScalarValues[0])).size(), 3 * kCount);
}

}  // namespace

}  // namespace vrxutil::detail

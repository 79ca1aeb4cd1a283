#include "tests/support/locale_scope.h"
#include "tests/text/made_locale.h"

#include <vrxutil/system.h>

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cwchar>
#include <ostream>
#include <random>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace vrxutil::test {
namespace {

using Parts = std::array<int, 4>;

static_assert(sizeof(AVersion) == sizeof(std::uint64_t));
static_assert(std::is_trivially_copyable_v<AVersion>);
static_assert(!std::is_polymorphic_v<AVersion>);
static_assert(std::is_convertible_v<wchar_t const*, AVersion>);

std::wstring textOf(AVersion const& version) { return version.getString().const_cpp_str(); }

Parts partsOf(AVersion const& version) {
  return {version.get1(), version.get2(), version.get3(), version.get4()};
}

AVersion versionOf(Parts const& parts) { return {parts[0], parts[1], parts[2], parts[3]}; }

// --- Packing ----------------------------------------------------------------------------

TEST(AVersionTest, DefaultIsAllZeros) {
  AVersion const version;
  EXPECT_EQ(partsOf(version), (Parts{0, 0, 0, 0}));
  EXPECT_EQ(textOf(version), L"0.0.0.0");
}

struct PackedParts {
  char const* label;
  Parts given;
  Parts packed;
  wchar_t const* text;
};

void PrintTo(PackedParts const& row, std::ostream* out) { *out << row.label; }

class AVersionPackingTest : public testing::TestWithParam<PackedParts> {};

TEST_P(AVersionPackingTest, ConstructorPacks) {
  AVersion const version = versionOf(GetParam().given);
  EXPECT_EQ(partsOf(version), GetParam().packed);
  EXPECT_EQ(textOf(version), GetParam().text);
}

TEST_P(AVersionPackingTest, SetPacksAndReplaces) {
  AVersion version(1, 2, 3, 4);
  auto const& given = GetParam().given;
  version.set(given[0], given[1], given[2], given[3]);
  EXPECT_EQ(partsOf(version), GetParam().packed);
}

INSTANTIATE_TEST_SUITE_P(
    Parts, AVersionPackingTest,
    testing::Values(
        PackedParts{"Ordinary", {4, 6, 0, 1234}, {4, 6, 0, 1234}, L"4.6.0.1234"},
        PackedParts{"Greatest",
                    {65535, 65535, 65535, 65535},
                    {65535, 65535, 65535, 65535},
                    L"65535.65535.65535.65535"},
        PackedParts{"HighBitOfEachPart",
                    {32768, 32768, 32768, 32768},
                    {32768, 32768, 32768, 32768},
                    L"32768.32768.32768.32768"},
        PackedParts{"Part1IsCut", {65536 + 7, 0, 0, 0}, {7, 0, 0, 0}, L"7.0.0.0"},
        PackedParts{"Part2SpillsIntoPart1", {0, 70000, 0, 0}, {1, 4464, 0, 0}, L"1.4464.0.0"},
        PackedParts{"SpillIsCombinedByOr", {1, 65536, 0, 0}, {1, 0, 0, 0}, L"1.0.0.0"},
        PackedParts{"Part3SpillsIntoPart2", {0, 0, 0x20005, 0}, {0, 2, 5, 0}, L"0.2.5.0"},
        PackedParts{"Part4SpillsIntoPart3", {0, 0, 8, 0x30006}, {0, 0, 11, 6}, L"0.0.11.6"},
        PackedParts{"GreatestIntSpills",
                    {0, INT_MAX, 0, INT_MAX},
                    {32767, 65535, 32767, 65535},
                    L"32767.65535.32767.65535"},
        PackedParts{"NegativePart1", {-1, 0, 0, 0}, {65535, 0, 0, 0}, L"65535.0.0.0"},
        PackedParts{"NegativePart2", {0, -2, 0, 0}, {65535, 65534, 0, 0}, L"65535.65534.0.0"},
        PackedParts{
            "NegativePart3", {0, 1, -3, 9}, {65535, 65535, 65533, 9}, L"65535.65535.65533.9"},
        PackedParts{"NegativePart4",
                    {0, 0, 0, -1},
                    {65535, 65535, 65535, 65535},
                    L"65535.65535.65535.65535"},
        PackedParts{
            "LeastPart4", {0, 0, 0, INT_MIN}, {65535, 65535, 32768, 0}, L"65535.65535.32768.0"}),
    [](testing::TestParamInfo<PackedParts> const& test) { return test.param.label; });

// --- Comparing --------------------------------------------------------------------------

struct ComparedVersions {
  char const* label;
  Parts left;
  Parts right;
  int result;
};

void PrintTo(ComparedVersions const& row, std::ostream* out) { *out << row.label; }

class AVersionCompareTest : public testing::TestWithParam<ComparedVersions> {};

TEST_P(AVersionCompareTest, BothWays) {
  AVersion const left = versionOf(GetParam().left);
  AVersion const right = versionOf(GetParam().right);
  EXPECT_EQ(left.compare(&right), GetParam().result);
  EXPECT_EQ(right.compare(&left), -GetParam().result);
}

INSTANTIATE_TEST_SUITE_P(
    Versions, AVersionCompareTest,
    testing::Values(
        ComparedVersions{"LastPartAsNumber", {1, 2, 3, 4}, {1, 2, 3, 10}, -1},
        ComparedVersions{"FirstPartFirst", {2, 0, 0, 0}, {1, 65535, 65535, 65535}, 1},
        ComparedVersions{"SecondPart", {1, 2, 0, 0}, {1, 1, 65535, 65535}, 1},
        ComparedVersions{"ThirdPart", {1, 1, 2, 0}, {1, 1, 1, 65535}, 1},
        ComparedVersions{"Equal", {4, 6, 0, 1234}, {4, 6, 0, 1234}, 0},
        ComparedVersions{"EqualByOtherParts", {0, 70000, 0, 0}, {1, 4464, 0, 0}, 0},
        ComparedVersions{"HighBitsAreNoSign", {32768, 0, 0, 0}, {32767, 65535, 0, 0}, 1},
        ComparedVersions{"HighBitOfLowWord", {0, 0, 32768, 0}, {0, 0, 32767, 0}, 1},
        ComparedVersions{"HighWordDecides", {0, 1, 0, 0}, {0, 0, 65535, 65535}, 1},
        ComparedVersions{"NegativePart4IsHighest", {0, 0, 0, -2}, {65535, 65535, 0, 0}, 1}),
    [](testing::TestParamInfo<ComparedVersions> const& test) { return test.param.label; });

TEST(AVersionTest, EqualsItself) {
  AVersion const version(1, 2, 3, 4);
  EXPECT_EQ(version.compare(&version), 0);
}

TEST(AVersionTest, CopiesByValue) {
  AVersion original(1, 2, 3, 4);
  AVersion const copy = original;
  original.set(5, 6, 7, 8);
  EXPECT_EQ(textOf(copy), L"1.2.3.4");
}

// --- Parsing ----------------------------------------------------------------------------

struct ParsedText {
  char const* label;
  wchar_t const* text;
  Parts parts;
};

void PrintTo(ParsedText const& row, std::ostream* out) { *out << row.label; }

class AVersionParsingTest : public testing::TestWithParam<ParsedText> {};

TEST_P(AVersionParsingTest, ConstructorAndSetParse) {
  AVersion version(9, 9, 9, 9);
  version.set(GetParam().text);
  EXPECT_EQ(partsOf(version), GetParam().parts);
  EXPECT_EQ(partsOf(AVersion(GetParam().text)), GetParam().parts);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, AVersionParsingTest,
    testing::Values(
        ParsedText{"FourParts", L"4.6.0.1234", {4, 6, 0, 1234}},
        ParsedText{"OnePart", L"5", {5, 0, 0, 0}}, ParsedText{"TwoParts", L"5.1", {5, 1, 0, 0}},
        ParsedText{"ThreeParts", L"5.1.2", {5, 1, 2, 0}}, ParsedText{"Empty", L"", {0, 0, 0, 0}},
        ParsedText{"Null", nullptr, {0, 0, 0, 0}}, ParsedText{"NoNumber", L"abc", {0, 0, 0, 0}},
        ParsedText{"FifthPartIsIgnored", L"1.2.3.4.5", {1, 2, 3, 4}},
        ParsedText{"TextAfterwardsIsIgnored", L"1.2.3.4 beta", {1, 2, 3, 4}},
        ParsedText{"LetterEndsTheScan", L"1.2b.3.4", {1, 2, 0, 0}},
        ParsedText{"MissingPartEndsTheScan", L"1..3.4", {1, 0, 0, 0}},
        ParsedText{"PointAtFirst", L".2.3.4", {0, 0, 0, 0}},
        ParsedText{"PointAtLast", L"1.2.", {1, 2, 0, 0}},
        ParsedText{"OtherSeparator", L"1,2,3,4", {1, 0, 0, 0}},
        ParsedText{"BlanksBeforeNumbers", L" 1.\t2.\n3. 4", {1, 2, 3, 4}},
        ParsedText{"BlankBeforePoint", L"1 .2.3.4", {1, 0, 0, 0}},
        ParsedText{"PlusSigns", L"+1.+2.+3.+4", {1, 2, 3, 4}},
        ParsedText{"MinusSign", L"0.0.0.-1", {65535, 65535, 65535, 65535}},
        ParsedText{"SignWithoutNumber", L"1.-.3.4", {1, 0, 0, 0}},
        ParsedText{"BlankAfterSign", L"1.- 2.3.4", {1, 0, 0, 0}},
        ParsedText{"TwoSigns", L"1.+-2.3.4", {1, 0, 0, 0}},
        ParsedText{"LeadingZerosAreDecimal", L"010.009.0.00000000000000000000007", {10, 9, 0, 7}},
        ParsedText{"HexadecimalEndsTheScan", L"1.0x10.3.4", {1, 0, 0, 0}},
        ParsedText{"PartsSpill", L"0.70000.0.0", {1, 4464, 0, 0}},
        ParsedText{"LowBitsOfANumberBeyondInt", L"0.0.0.4294967303", {0, 0, 0, 7}},
        ParsedText{"OtherDigits", L"1.\u0662.3.4", {1, 0, 0, 0}}),
    [](testing::TestParamInfo<ParsedText> const& test) { return test.param.label; });

TEST(AVersionTest, TextIsReadBackWithAllParts) { EXPECT_EQ(textOf(AVersion(L"1.2")), L"1.2.0.0"); }

// The nearest long, of which the low 32 bits count: where long has 64 bits, they are
// all ones for the greatest and zeros for the least.
TEST(AVersionTest, NumberBeyondLongIsTheNearestLong) {
  auto const nearest = [](long number) { return static_cast<int>(number); };
  EXPECT_EQ(partsOf(AVersion(L"0.0.0.99999999999999999999")),
            partsOf(AVersion(0, 0, 0, nearest(LONG_MAX))));
  EXPECT_EQ(partsOf(AVersion(L"0.0.0.-99999999999999999999")),
            partsOf(AVersion(0, 0, 0, nearest(LONG_MIN))));
  EXPECT_EQ(partsOf(AVersion((L"0.0.0." + std::wstring(100'000, L'9')).c_str())),
            partsOf(AVersion(0, 0, 0, nearest(LONG_MAX))));
}

// --- Against the C library's scan -------------------------------------------------------

/// The no-break space is a blank here.
constexpr LocaleChoice kLatin1WithBlank{"Latin1WithBlank", nullptr, "ISO-8859-1",
                                        "space <U0009>;<U000A>;<U000B>;<U000C>;<U000D>;<U0020>;"
                                        "<U00A0>\n"};

AVersion scanned(std::wstring const& text) {
  Parts parts{};
  std::swscanf(text.c_str(), L"%d.%d.%d.%d", &parts[0], &parts[1], &parts[2], &parts[3]);
  return versionOf(parts);
}

void expectAsScanned(std::wstring const& text) {
  AVersion const expected = scanned(text);
  AVersion const version(text.c_str());
  ASSERT_EQ(version.compare(&expected), 0)
      << "for " << testing::PrintToString(text) << ": " << testing::PrintToString(textOf(version))
      << " instead of " << testing::PrintToString(textOf(expected));
}

/// All texts of up to `mostLetters` of `letters`.
void expectAllAsScanned(std::wstring_view letters, std::size_t mostLetters) {
  std::vector<std::wstring> texts{L""};
  for (std::size_t first = 0; first < texts.size() && !testing::Test::HasFatalFailure(); ++first) {
    expectAsScanned(texts[first]);
    if (texts[first].size() == mostLetters) continue;
    for (wchar_t const letter : letters) texts.push_back(texts[first] + letter);
  }
}

// A version, mostly; with something wrong now and then.
class RandomText {
public:
  explicit RandomText(std::wstring blanks) : blanks_(std::move(blanks)) {}

  std::wstring next() {
    std::wstring text;
    unsigned const parts = below(6);
    for (unsigned i = 0; i < parts; ++i) {
      if (i > 0) text += oneIn(12) ? L',' : L'.';
      text += part();
    }
    if (!text.empty() && oneIn(4)) text[below(size(text))] = strange();
    if (oneIn(4)) text.insert(below(size(text) + 1), 1, strange());
    return text;
  }

private:
  static unsigned size(std::wstring const& text) { return static_cast<unsigned>(text.size()); }

  unsigned below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }

  bool oneIn(unsigned count) { return below(count) == 0; }

  wchar_t strange() {
    std::wstring const other = L"+-.0x9aAeE \t" + blanks_;
    return other[below(size(other))];
  }

  std::wstring part() {
    std::wstring text;
    while (oneIn(4)) text += blanks_[below(size(blanks_))];
    if (oneIn(4)) text += oneIn(2) ? L'+' : L'-';
    return text + number();
  }

  // Around the limits of 16, 31, 32, 63 and 64 bits too.
  std::wstring number() {
    constexpr unsigned kBits[] = {4, 16, 17, 31, 32, 33, 63, 64};
    std::uint64_t const edge = std::uint64_t{1} << (kBits[below(8)] - 1);
    std::wstring text = oneIn(2)   ? std::to_wstring(below(100'000))
                        : oneIn(2) ? std::to_wstring(edge * 2 - 1 + below(3))
                                   : std::to_wstring(edge - 1 + below(3));
    if (oneIn(8)) text.insert(0, below(30), L'0');
    if (oneIn(8)) text += std::to_wstring(random_());
    return text;
  }

  std::wstring blanks_;
  std::mt19937_64 random_{20'261};
};

TEST(AVersionScanTest, RandomTextsInCLocale) {
  LocaleScope const locale("C");
  RandomText random(L" \t\n\v\f\r\u2003\u00A0");
  for (int i = 0; i < 200'000 && !testing::Test::HasFatalFailure(); ++i) {
    expectAsScanned(random.next());
  }
}

TEST(AVersionScanTest, RandomTextsWithWideBlanksInUtf8Locale) {
  LocaleScope const locale("C.UTF-8");
  RandomText random(L" \t\n\u1680\u2003\u2028\u205F\u3000\u00A0\u2007\u202F\u200B\uFEFF");
  for (int i = 0; i < 200'000 && !testing::Test::HasFatalFailure(); ++i) {
    expectAsScanned(random.next());
  }
}

TEST(AVersionScanTest, EveryCharacterBeforeANumberInUtf8Locale) {
  LocaleScope const locale("C.UTF-8");
  for (long c = 1; c < 0x30000 && !testing::Test::HasFatalFailure(); ++c) {
    auto const character = static_cast<wchar_t>(c);
    expectAsScanned(std::wstring(L"1.") + character + L"2.3");
    expectAsScanned(std::wstring(L"1") + character + L"2.3");
  }
}

TEST(AVersionScanTest, AllShortTexts) {
  for (char const* const name : {"C", "C.UTF-8"}) {
    LocaleScope const locale(name);
    expectAllAsScanned(L"019. \t+-xA\u2003\u00A0", 4);
    expectAllAsScanned(L"1. +-", 7);
  }
}

TEST(AVersionScanTest, AllBlanksOfASingleByteLocale) {
  ChosenLocale const locale(kLatin1WithBlank);
  if (!locale.whyMissing().empty()) GTEST_SKIP() << locale.whyMissing();
  EXPECT_EQ(textOf(AVersion(L"1.\u00A02")), L"1.2.0.0");
  expectAllAsScanned(L"1. +-\u00A0\u2003\u0085", 5);
}

// Where a digit more makes a number too long for 16, 31, 32, 63 or 64 bits.
TEST(AVersionScanTest, AllNumbersAroundTheLimits) {
  for (int const bits : {16, 31, 32, 63, 64}) {
    std::uint64_t const least = ~std::uint64_t{0} >> (64 - bits);
    for (std::uint64_t number = least - 30; number != least + (bits < 64 ? 30 : 1); ++number) {
      for (wchar_t const* const sign : {L"", L"-"}) {
        std::wstring const text = sign + std::to_wstring(number);
        expectAsScanned(L"0.0.0." + text);
        expectAsScanned(text + L"0." + text + L"5." + text + L"9.1");
        expectAsScanned(L"0.0.0." + text + std::wstring(20, L'0'));
      }
    }
  }
}

TEST(AVersionTest, NumberTooLongLeavesErrno) {
  errno = 0;
  EXPECT_EQ(textOf(AVersion(L"1.99999999999999999999999")).substr(0, 1), L"6");
  EXPECT_EQ(errno, 0);
}

TEST(AVersionScanTest, WideBlankIsSkippedWhereTheLocaleKnowsIt) {
  LocaleScope const locale("C.UTF-8");
  EXPECT_EQ(textOf(AVersion(L"1.\u30002.\u20033.4")), L"1.2.3.4");
}

TEST(AVersionScanTest, NoUnicodeCharacterEndsTheScan) {
  for (long const c : {0x110000L, 0x7FFFFFFFL, -1L, 0xD800L}) {
    expectAsScanned(std::wstring(L"1.") + static_cast<wchar_t>(c) + L"2");
    expectAsScanned(std::wstring(L"1.2") + static_cast<wchar_t>(c) + L".3");
  }
}

}  // namespace
}  // namespace vrxutil::test

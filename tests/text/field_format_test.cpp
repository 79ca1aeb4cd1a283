// AFormat and AString::execute, held against printf itself: the oracle below
// takes the documented steps one by one and leaves the rest to swprintf.

#include "tests/support/locale_scope.h"
#include "tests/support/log_recorder.h"
#include "tests/text/made_locale.h"

#include <vrxutil/text.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cwchar>
#include <limits>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

namespace vrxutil::test {
namespace {

using namespace std::string_literals;

using Records = std::vector<LogRecord>;

constexpr std::size_t kLongestNumber = 34;

// What an AFormat is.

static_assert(sizeof(long) != 4 || sizeof(void*) != 4 || sizeof(AFormat) == 20);
static_assert(std::is_standard_layout_v<AFormat>);
static_assert(std::is_trivially_destructible_v<AFormat>);
static_assert(offsetof(AFormat, value) == 0);
static_assert(offsetof(AFormat, value) < offsetof(AFormat, flags));
static_assert(offsetof(AFormat, flags) < offsetof(AFormat, width));
static_assert(offsetof(AFormat, width) < offsetof(AFormat, precision));
static_assert(offsetof(AFormat, precision) < offsetof(AFormat, isNumber));
static_assert(std::is_same_v<decltype(AFormat::flags), wchar_t const*>);
static_assert(std::is_same_v<decltype(AFormat::width), int>);
static_assert(std::is_same_v<decltype(AFormat::precision), int>);
static_assert(std::is_same_v<decltype(AFormat::isNumber), int>);

TEST(AFormatTest, NumberHasNoPrecision) {
  wchar_t const flags[] = L"x0";
  AFormat const field(-42, flags, 7);
  EXPECT_EQ(field.value.number, -42);
  EXPECT_EQ(field.flags, flags);
  EXPECT_EQ(field.width, 7);
  EXPECT_EQ(field.precision, -1);
  EXPECT_EQ(field.isNumber, 1);
}

TEST(AFormatTest, TextAndFlagsAreBorrowed) {
  wchar_t const text[] = L"abc";
  wchar_t const flags[] = L"-";
  AFormat const field(text, flags, 7, 2);
  EXPECT_EQ(field.value.text, text);
  EXPECT_EQ(field.flags, flags);
  EXPECT_EQ(field.width, 7);
  EXPECT_EQ(field.precision, 2);
  EXPECT_EQ(field.isNumber, 0);
}

// Named examples.

std::wstring formatted(AFormat const& field) {
  AString text(L"what was there before");
  wchar_t const* const result = text.execute(field);
  EXPECT_EQ(result, static_cast<wchar_t const*>(text));
  return text.const_cpp_str();
}

AFormat numberField(long number, wchar_t const* flags, int width, int precision) {
  AFormat field(number, flags, width);
  field.precision = precision;
  return field;
}

struct NumberCase {
  long number;
  wchar_t const* flags;
  int width;
  int precision;
  wchar_t const* text;
};

TEST(AStringExecuteTest, FormatsNumbers) {
  LogRecorder const recorder;
  NumberCase const cases[] = {{255, L"x^", -1, -1, L"FF"},
                              {255, L"^x", -1, -1, L"FF"},
                              {255, L"_x", -1, -1, L"ff"},
                              {255, L"x_^", -1, -1, L"FF"},
                              {255, L"^x_", -1, -1, L"FF"},
                              {7, L"0", 3, -1, L"007"},
                              {7, L"-", 3, -1, L"7  "},
                              {7, L"0-", 3, -1, L"7  "},
                              {7, L"", 3, -1, L"  7"},
                              {7, L"", 0, -1, L"7"},
                              {7, L"", -3, -1, L"7  "},
                              {-7, L"0", 5, -1, L"-0007"},
                              {-42, L"", -1, -1, L"-42"},
                              {255, L"x0", 4, -1, L"00ff"},
                              {12345, L"", 3, -1, L"12345"},
                              {7, L"", 6, 3, L"   007"},
                              {7, L"0", 6, 3, L"   007"},
                              {0, L"", -1, 0, L""},
                              {-1, L"x", -1, -1, L"ffffffff"},
                              {-1, L"u", -1, -1, L"4294967295"},
                              {-1, L"ux", -1, -1, L"ffffffff"},
                              {-1, L"xu", -1, -1, L"4294967295"},
                              {INT32_MIN, L"x", -1, -1, L"80000000"},
                              {INT32_MIN, L"u", -1, -1, L"2147483648"},
                              {INT32_MIN, L"", -1, -1, L"-2147483648"},
                              {1, L"0", 34, -1, L"0000000000000000000000000000000001"}};
  for (NumberCase const& row : cases) {
    EXPECT_EQ(formatted(numberField(row.number, row.flags, row.width, row.precision)), row.text)
        << row.number << ", width " << row.width << ", precision " << row.precision;
  }
  EXPECT_EQ(recorder.records(), Records());
}

TEST(AStringExecuteTest, NumbersBeyondThirtyTwoBitsAreWrittenInFull) {
  if constexpr (sizeof(long) > 4) {
    NumberCase const cases[] = {{LONG_MAX, L"", -1, -1, L"9223372036854775807"},
                                {LONG_MIN, L"", -1, -1, L"-9223372036854775808"},
                                {LONG_MAX, L"x", -1, -1, L"7fffffffffffffff"},
                                {LONG_MIN, L"x", -1, -1, L"8000000000000000"},
                                {LONG_MIN, L"u", -1, -1, L"9223372036854775808"},
                                {4294967295L, L"", -1, -1, L"4294967295"},
                                {4294967295L, L"x", -1, -1, L"ffffffff"},
                                {4294967296L, L"x", -1, -1, L"100000000"},
                                {4294967296L, L"u", -1, -1, L"4294967296"},
                                {2147483648L, L"", -1, -1, L"2147483648"},
                                {-2147483649L, L"", -1, -1, L"-2147483649"},
                                {-2147483649L, L"x", -1, -1, L"ffffffff7fffffff"},
                                {-2147483649L, L"u", -1, -1, L"18446744071562067967"}};
    for (NumberCase const& row : cases) {
      EXPECT_EQ(formatted(numberField(row.number, row.flags, row.width, row.precision)), row.text)
          << row.number;
    }
  } else {
    GTEST_SKIP() << "long has 32 bits here";
  }
}

struct TextCase {
  wchar_t const* text;
  wchar_t const* flags;
  int width;
  int precision;
  wchar_t const* formatted;
};

TEST(AStringExecuteTest, FormatsTexts) {
  LogRecorder const recorder;
  TextCase const cases[] = {{L"abc", L"^", 5, -1, L"  ABC"},
                            {L"abcdef", L"", -1, 3, L"abc"},
                            {L"abcdef", L"", -1, 0, L""},
                            {L"abcdef", L"", -1, 99, L"abcdef"},
                            {L"abcdef", L"", 5, 3, L"  abc"},
                            {L"abc", L"-", 5, -1, L"abc  "},
                            {L"abc", L"", 3, -1, L"abc"},
                            {L"abc", L"", 2, -1, L"abc"},
                            {L"abc", L"", 0, -1, L"abc"},
                            {L"AbC", L"_", -1, -1, L"abc"},
                            {L"AbC", L"_^", -1, -1, L"ABC"},
                            {L"abc", L"ux", -1, -1, L"abc"},
                            {L"", L"", -1, -1, L""},
                            {L"", L"", 3, -1, L"   "},
                            {L"%d%n%s", L"", 8, -1, L"  %d%n%s"}};
  for (TextCase const& row : cases) {
    EXPECT_EQ(formatted(AFormat(row.text, row.flags, row.width, row.precision)), row.formatted)
        << AString(row.text).const_cpp_str() << L", width " << row.width;
  }
  EXPECT_EQ(recorder.records(), Records());
}

TEST(AStringExecuteTest, AnythingButZeroMarksANumber) {
  for (int const mark : {1, 2, -1, INT_MIN, 256}) {
    AFormat field(42, L"", -1);
    field.isNumber = mark;
    EXPECT_EQ(formatted(field), L"42");
  }
}

TEST(AStringExecuteTest, TextsMayBeLongerThanANumberField) {
  std::wstring const text(1000, L'x');
  EXPECT_EQ(formatted(AFormat(text.c_str(), L"", -1, -1)), text);
  EXPECT_EQ(formatted(AFormat(L"x", L"", 1000, -1)), std::wstring(999, L' ') + L"x");
  EXPECT_EQ(formatted(AFormat(text.c_str(), L"-^", 1010, 5)), L"XXXXX" + std::wstring(1005, L' '));
}

TEST(AStringExecuteTest, CaseFollowsTheLocale) {
  {
    LocaleScope const locale("C.UTF-8");
    EXPECT_EQ(formatted(AFormat(L"\u00e4\u0434", L"^", -1, -1)), L"\u00c4\u0414");
    EXPECT_EQ(formatted(AFormat(L"\u00c4\u0414", L"_", -1, -1)), L"\u00e4\u0434");
  }
  ChosenLocale const turkish(kTurkish);
  if (!turkish.whyMissing().empty()) GTEST_SKIP() << turkish.whyMissing();
  EXPECT_EQ(formatted(AFormat(L"i", L"^", -1, -1)), L"\u0130");
  EXPECT_EQ(formatted(AFormat(L"I", L"_", -1, -1)), L"\u0131");
}

// Characters that are no flags.

LogRecord unknownCharacter(wchar_t character) {
  return errorRecord(L"String", L"internal error: unknown format character ["s + character + L"]");
}

TEST(AStringExecuteTest, UnknownFlagIsLoggedAndSkipped) {
  LogRecorder const recorder;
  EXPECT_EQ(formatted(AFormat(5, L"d", -1)), L"5");
  EXPECT_EQ(recorder.records(), Records({unknownCharacter(L'd')}));
}

TEST(AStringExecuteTest, EachUnknownFlagIsLoggedAndTheOthersCount) {
  LogRecorder const recorder;
  EXPECT_EQ(formatted(AFormat(255, L"d0X x+s^", 4)), L"00FF");
  EXPECT_EQ(recorder.records(),
            Records({unknownCharacter(L'd'), unknownCharacter(L'X'), unknownCharacter(L' '),
                     unknownCharacter(L'+'), unknownCharacter(L's')}));
}

TEST(AStringExecuteTest, EveryCharacterButTheSixIsUnknown) {
  std::wstring const known = L"0-ux_^";
  std::vector<wchar_t> characters = {L'\u00e4', L'\u20ac', L'\U0001F600', L'\uff10', WCHAR_MAX};
  for (wchar_t c = 1; c < 256; ++c) characters.push_back(c);
  for (wchar_t const character : characters) {
    bool const isKnown = known.find(character) != std::wstring::npos;
    wchar_t const flags[] = {character, 0};
    LogRecorder recorder;
    std::wstring const number = formatted(AFormat(5, flags, -1));
    EXPECT_EQ(number, L"5") << static_cast<long>(character);
    EXPECT_EQ(recorder.records(), isKnown ? Records() : Records({unknownCharacter(character)}));
    recorder.clear();
    std::wstring const text = formatted(AFormat(L"5", flags, -1, -1));
    EXPECT_EQ(text, L"5") << static_cast<long>(character);
    EXPECT_EQ(recorder.records(), isKnown ? Records() : Records({unknownCharacter(character)}));
  }
}

TEST(AStringExecuteTest, UnknownFlagsAreLoggedForTextsAndByEveryForm) {
  LogRecorder recorder;
  EXPECT_EQ(AString(AFormat(L"ab", L"s", 3, -1)).const_cpp_str(), L" ab");
  EXPECT_EQ(recorder.records(), Records({unknownCharacter(L's')}));
  recorder.clear();
  AString text(L"x");
  text << AFormat(1, L"%", 3);
  EXPECT_EQ(text.const_cpp_str(), L"x  1");
  EXPECT_EQ(recorder.records(), Records({unknownCharacter(L'%')}));
  recorder.clear();
  text = AFormat(1, L"%", 3);
  EXPECT_EQ(text.const_cpp_str(), L"  1");
  EXPECT_EQ(recorder.records(), Records({unknownCharacter(L'%')}));
}

// The oracle.

struct Specification {
  std::wstring start = L"%";
  wchar_t conversion = L'd';
  bool upper = false;
  bool lower = false;
};

Specification specificationOf(std::wstring const& flags, int width, int precision) {
  Specification result;
  for (wchar_t const flag : flags) {
    if (flag == L'u' || flag == L'x') result.conversion = flag;
    if (flag == L'^') result.upper = true;
    if (flag == L'_') result.lower = true;
  }
  if (flags.find(L'-') != std::wstring::npos) result.start += L'-';
  if (flags.find(L'0') != std::wstring::npos) result.start += L'0';
  if (width != -1) result.start += std::to_wstring(width);
  if (precision != -1) result.start += L'.' + std::to_wstring(precision);
  return result;
}

// The whole field, in a buffer that is always large enough.
template <class Value>
std::wstring printed(std::wstring const& specification, Value value) {
  wchar_t buffer[2048];
  int const length = std::swprintf(buffer, std::size(buffer), specification.c_str(), value);
  EXPECT_GE(length, 0) << testing::PrintToString(specification);
  return buffer;
}

std::wstring inCase(Specification const& specification, std::wstring text) {
  for (wchar_t& c : text) {
    if (specification.upper) {
      c = static_cast<wchar_t>(::towupper(static_cast<wint_t>(c)));
    } else if (specification.lower) {
      c = static_cast<wchar_t>(::towlower(static_cast<wint_t>(c)));
    }
  }
  return text;
}

bool fitsThirtyTwoBits(std::int64_t number, wchar_t conversion) {
  std::int64_t const highest = conversion == L'd' ? INT32_MAX : std::int64_t{UINT32_MAX};
  return number >= INT32_MIN && number <= highest;
}

std::wstring wholeNumber(Specification const& specification, long number) {
  std::wstring const& start = specification.start;
  bool const isDecimal = specification.conversion == L'd';
  if (fitsThirtyTwoBits(number, specification.conversion)) {
    if (isDecimal) return printed(start + L'd', static_cast<std::int32_t>(number));
    return printed(start + specification.conversion, static_cast<std::uint32_t>(number));
  }
  if (isDecimal) return printed(start + L"ld", number);
  return printed(start + L'l' + specification.conversion, static_cast<unsigned long>(number));
}

std::wstring expectedNumber(long number, std::wstring const& flags, int width, int precision) {
  Specification const specification = specificationOf(flags, width, precision);
  return inCase(specification, wholeNumber(specification, number).substr(0, kLongestNumber));
}

std::wstring expectedText(std::wstring const& text, std::wstring const& flags, int width,
                          int precision) {
  Specification const specification = specificationOf(flags, width, precision);
  int room = static_cast<int>(text.size());
  if (width > room) room = width;
  std::wstring const whole = printed(specification.start + L"ls", text.c_str());
  return inCase(specification, whole.substr(0, static_cast<std::size_t>(room)));
}

// Every set of flags, each in several orders.
std::vector<std::wstring> flagTexts() {
  std::wstring const all = L"0-ux_^";
  std::vector<std::wstring> texts;
  for (unsigned set = 0; set < 1U << all.size(); ++set) {
    std::wstring flags;
    for (std::size_t i = 0; i < all.size(); ++i) {
      if ((set >> i & 1U) != 0) flags += all[i];
    }
    texts.push_back(flags);
    if (flags.size() < 2) continue;
    texts.emplace_back(flags.rbegin(), flags.rend());
    std::rotate(flags.begin(), flags.begin() + static_cast<std::ptrdiff_t>(flags.size() / 2),
                flags.end());
    texts.push_back(flags);
  }
  return texts;
}

void addIfLong(std::vector<long>& numbers, std::int64_t number) {
  if (number < LONG_MIN || number > LONG_MAX) return;
  numbers.push_back(static_cast<long>(number));
}

std::vector<long> boundaries() {
  std::vector<long> numbers;
  constexpr std::int64_t kLowest = std::numeric_limits<std::int64_t>::min();
  constexpr std::int64_t kHighest = std::numeric_limits<std::int64_t>::max();
  for (std::int64_t const middle :
       {std::int64_t{0}, std::int64_t{10}, std::int64_t{255}, std::int64_t{1000000000},
        std::int64_t{INT32_MAX}, std::int64_t{INT32_MIN}, std::int64_t{UINT32_MAX},
        -std::int64_t{UINT32_MAX}, std::int64_t{10000000000}, std::int64_t{1} << 62U}) {
    for (std::int64_t const step : {-1, 0, 1}) addIfLong(numbers, middle + step);
  }
  for (std::int64_t const step : {0, 1}) {
    addIfLong(numbers, kLowest + step);
    addIfLong(numbers, kHighest - step);
  }
  return numbers;
}

constexpr int kWidths[] = {-1, 0, 1, 2, 5, 12, 33, 34, 35, 100, -2, -5, -33, -34, -35, -100};
constexpr int kPrecisions[] = {-1, 0, 1, 5, 20, 33, 34, 40};

// All sets of flags, widths and precisions for one number.
void expectNumberFields(long number, std::vector<std::wstring> const& flagsToTry) {
  for (std::wstring const& flags : flagsToTry) {
    for (int const width : kWidths) {
      for (int const precision : kPrecisions) {
        AString text;
        text.execute(numberField(number, flags.c_str(), width, precision));
        std::wstring const expected = expectedNumber(number, flags, width, precision);
        ASSERT_EQ(text.const_cpp_str(), expected)
            << number << ", flags " << testing::PrintToString(flags) << ", width " << width
            << ", precision " << precision;
      }
    }
  }
}

TEST(FieldOracleTest, NumbersAtTheBoundariesWithEveryFlag) {
  LogRecorder const recorder;
  std::vector<std::wstring> const flags = flagTexts();
  for (long const number : boundaries()) {
    expectNumberFields(number, flags);
    if (HasFatalFailure()) return;
  }
  EXPECT_EQ(recorder.records(), Records());
}

std::wstring randomFlags(std::mt19937_64& random) {
  std::wstring const all = L"0-ux_^";
  std::wstring flags;
  for (std::size_t left = random() % 8; left > 0; --left) flags += all[random() % all.size()];
  return flags;
}

TEST(FieldOracleTest, RandomNumbersAndRepeatedFlags) {
  LogRecorder const recorder;
  std::mt19937_64 random(99);
  for (int round = 0; round < 100000; ++round) {
    long const number = static_cast<long>(static_cast<std::int64_t>(random()) >> random() % 64);
    std::wstring const flags = randomFlags(random);
    int const width = static_cast<int>(random() % 80) - 40;
    int const precision = static_cast<int>(random() % 40) - 1;
    AString text;
    text.execute(numberField(number, flags.c_str(), width, precision));
    ASSERT_EQ(text.const_cpp_str(), expectedNumber(number, flags, width, precision))
        << number << ", flags " << testing::PrintToString(flags) << ", width " << width
        << ", precision " << precision;
  }
  EXPECT_EQ(recorder.records(), Records());
}

std::vector<std::wstring> textsToFormat() {
  return {L"",
          L"a",
          L"abc",
          L"AbCdEf",
          L"%d %n %ls",
          L"\u00e4\u00d6\u00fc",
          L"Stra\u00dfe",
          L"\u65e5\u672c\u8a9e",
          L"\u0414\u0430 \U0001F600",
          std::wstring(L"x") + static_cast<wchar_t>(0xD800) + static_cast<wchar_t>(0x110000),
          std::wstring(33, L'm'),
          std::wstring(34, L'n'),
          std::wstring(35, L'o'),
          std::wstring(200, L'\u00e9')};
}

TEST(FieldOracleTest, TextsWithEveryFlag) {
  LogRecorder const recorder;
  std::vector<std::wstring> const flagsToTry = flagTexts();
  for (char const* const name : {"C", "C.UTF-8"}) {
    LocaleScope const locale(name);
    for (std::wstring const& source : textsToFormat()) {
      for (std::wstring const& flags : flagsToTry) {
        for (int const width : kWidths) {
          for (int const precision : {-1, 0, 1, 2, 5, 33, 500}) {
            AString text;
            text.execute(AFormat(source.c_str(), flags.c_str(), width, precision));
            ASSERT_EQ(text.const_cpp_str(), expectedText(source, flags, width, precision))
                << testing::PrintToString(source) << ", flags " << testing::PrintToString(flags)
                << ", width " << width << ", precision " << precision;
          }
        }
      }
    }
  }
  EXPECT_EQ(recorder.records(), Records());
}

void expectPlainNumber(long number) {
  auto const bits = static_cast<unsigned long>(number);
  auto const narrowed = static_cast<int>(number);
  // NOLINTNEXTLINE(performance-no-int-to-ptr): any bits may stand in a pointer
  auto* const pointer = reinterpret_cast<void*>(bits);
  auto const low = static_cast<std::uint32_t>(bits);
  ASSERT_EQ(AString(number).const_cpp_str(), printed(L"%ld", number));
  ASSERT_EQ(AString(narrowed).const_cpp_str(), printed(L"%d", narrowed));
  ASSERT_EQ(AString(bits).const_cpp_str(), printed(L"%lu", bits));
  ASSERT_EQ(AString(pointer).const_cpp_str(), printed(L"%08x", low));
  AString text(L"x");
  text << number << narrowed << bits << pointer;
  ASSERT_EQ(text.const_cpp_str(), L"x" + printed(L"%ld", number) + printed(L"%d", narrowed) +
                                      printed(L"%lu", bits) + printed(L"%08x", low));
}

TEST(FieldOracleTest, PlainNumbersAndPointers) {
  for (long const number : boundaries()) expectPlainNumber(number);
  std::mt19937_64 random(98);
  for (int round = 0; round < 100000 && !HasFatalFailure(); ++round) {
    expectPlainNumber(static_cast<long>(static_cast<std::int64_t>(random()) >> random() % 64));
  }
}

TEST(FieldOracleTest, FormsOfTheFamilyAgree) {
  for (std::wstring const& flags : flagTexts()) {
    for (int const width : {-1, 0, 7, 34, -5}) {
      AFormat const number(-1234, flags.c_str(), width);
      AFormat const text(L"aBc", flags.c_str(), width, 2);
      for (AFormat const& field : {number, text}) {
        std::wstring const expected = formatted(field);
        AString assigned(L"x");
        AString appended(L"x");
        EXPECT_EQ(AString(field).const_cpp_str(), expected);
        EXPECT_EQ((assigned = field).const_cpp_str(), expected);
        EXPECT_EQ((appended << field).const_cpp_str(), L"x" + expected);
      }
    }
  }
}

// Beyond what printf can hold.

TEST(AStringExecuteTest, NumberFieldsHaveAtMostThirtyFourCharacters) {
  int const extremes[] = {INT_MAX, INT_MAX - 1, 1000, 35, -2, -35, -1000, INT_MIN + 1, INT_MIN};
  for (wchar_t const* const flags : {L"", L"-", L"0", L"x^", L"u-0"}) {
    for (int const extreme : extremes) {
      EXPECT_LE(formatted(numberField(42, flags, extreme, -1)).size(), kLongestNumber) << extreme;
      EXPECT_LE(formatted(numberField(42, flags, -1, extreme)).size(), kLongestNumber) << extreme;
      EXPECT_LE(formatted(numberField(LONG_MIN, flags, extreme, extreme)).size(), kLongestNumber)
          << extreme;
    }
  }
}

TEST(AStringExecuteTest, TextFieldsHaveAtMostTheLongerOfTextAndWidth) {
  for (wchar_t const* const flags : {L"", L"-", L"0", L"^"}) {
    for (int const extreme : {-2, -1000, INT_MIN + 1, INT_MIN}) {
      EXPECT_LE(formatted(AFormat(L"abc", flags, extreme, -1)).size(), 3U) << extreme;
      EXPECT_LE(formatted(AFormat(L"abc", flags, 5, extreme)).size(), 5U) << extreme;
      EXPECT_LE(formatted(AFormat(L"", flags, extreme, extreme)).size(), 0U) << extreme;
    }
    EXPECT_EQ(formatted(AFormat(L"123", flags, -1, INT_MAX)), L"123");
  }
}

// format.

TEST(AStringFormatTest, FormatsTheTextItself) {
  AString text(L"abc");
  wchar_t const* const result = text.format(L"-", 20, -1);
  EXPECT_EQ(result, static_cast<wchar_t const*>(text));
  EXPECT_EQ(text.const_cpp_str(), L"abc                 ");
  text.format(L"^", -1, 3);
  EXPECT_EQ(text.const_cpp_str(), L"ABC");
  text.format(L"_", 5, 2);
  EXPECT_EQ(text.const_cpp_str(), L"   ab");
  text.format(L"", -1, -1);
  EXPECT_EQ(text.const_cpp_str(), L"   ab");
}

TEST(AStringFormatTest, AgreesWithTheFieldOfItsText) {
  for (std::wstring const& flags : flagTexts()) {
    for (int const width : {-1, 0, 5, 40, -9}) {
      for (int const precision : {-1, 0, 2}) {
        AString text(L"aBcD");
        text.format(AString(flags), width, precision);
        EXPECT_EQ(text.const_cpp_str(), expectedText(L"aBcD", flags, width, precision));
      }
    }
  }
}

TEST(AStringFormatTest, EndsTheTextAtItsFirstNul) {
  AString text(L"ab\0cd"s);
  text.format(L"^", 4, -1);
  EXPECT_EQ(text.const_cpp_str(), L"  AB");
}

TEST(AStringFormatTest, TextMayBeItsOwnFlags) {
  AString text(L"^-");
  text.format(text, 4, -1);
  EXPECT_EQ(text.const_cpp_str(), L"^-  ");
}

TEST(AStringFormatTest, UnknownFlagIsLoggedAndSkipped) {
  LogRecorder const recorder;
  AString text(L"abc");
  text.format(L"d^", 4, -1);
  EXPECT_EQ(text.const_cpp_str(), L" ABC");
  EXPECT_EQ(recorder.records(), Records({unknownCharacter(L'd')}));
}

TEST(AStringExecuteTest, ReplacesALongerValue) {
  AString text(std::wstring(500, L'x'));
  text.execute(AFormat(7, L"", -1));
  EXPECT_EQ(text.const_cpp_str(), L"7");
  EXPECT_EQ(text.size(), 1UL);
}

}  // namespace
}  // namespace vrxutil::test

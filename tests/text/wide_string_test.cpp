#include "tests/support/locale_scope.h"
#include "tests/support/log_recorder.h"
#include "tests/text/made_locale.h"

#include <vrxutil/text.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <map>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace vrxutil::test {
namespace {

using namespace std::string_literals;

using Records = std::vector<LogRecord>;

constexpr wchar_t kGuard = 0xABCD;
constexpr wchar_t const* kNullWide = nullptr;
constexpr char const* kNullNarrow = nullptr;

void* pointerOf(std::uintptr_t bits) {
  return reinterpret_cast<void*>(bits);  // NOLINT(performance-no-int-to-ptr)
}

// What compiles, and what does not.

template <class Value>
concept Appendable = requires(AString text, Value value) {
  { text << value } -> std::same_as<AString&>;
};

template <class Value>
concept AssignableFrom = requires(AString text, Value value) {
  { text = value } -> std::same_as<AString&>;
};

template <class Value>
concept HasAllForms =
    std::is_constructible_v<AString, Value> && AssignableFrom<Value> && Appendable<Value>;

template <class Value>
concept HasNoForm =
    !std::is_constructible_v<AString, Value> && !AssignableFrom<Value> && !Appendable<Value>;

template <class Text>
concept AssignsLiteralZero = requires(Text text) {
  text = 0;
};

template <class Text>
concept AppendsLiteralZero = requires(Text text) {
  text << 0;
};

static_assert(HasAllForms<wchar_t const*>);
static_assert(HasAllForms<char const*>);
static_assert(HasAllForms<wchar_t>);
static_assert(HasAllForms<char>);
static_assert(HasAllForms<long>);
static_assert(HasAllForms<unsigned long>);
static_assert(HasAllForms<void*>);
static_assert(HasAllForms<AFormat>);

static_assert(std::is_constructible_v<AString, int> && Appendable<int>);
static_assert(!AssignableFrom<int>);
static_assert(!AssignsLiteralZero<AString>);
static_assert(AppendsLiteralZero<AString>);

static_assert(std::is_constructible_v<AString, std::wstring const&>);
static_assert(std::is_copy_constructible_v<AString> && std::is_copy_assignable_v<AString>);
static_assert(std::is_default_constructible_v<AString>);

static_assert(HasNoForm<unsigned int>);
static_assert(HasNoForm<long long>);
static_assert(HasNoForm<unsigned long long>);
static_assert(HasNoForm<double>);
static_assert(HasNoForm<std::nullptr_t>);

// Parameters of the type AString const& take what has a constructor.
static_assert(std::is_convertible_v<wchar_t const*, AString>);
static_assert(std::is_convertible_v<char const*, AString>);
static_assert(std::is_convertible_v<std::wstring, AString>);
static_assert(std::is_convertible_v<long, AString>);
static_assert(std::is_convertible_v<AString const&, wchar_t const*>);

// One standard string and nothing else.
static_assert(sizeof(AString) == sizeof(std::wstring));
static_assert(!std::is_polymorphic_v<AString>);
static_assert(!std::is_polymorphic_v<AFormat>);
static_assert(!std::is_polymorphic_v<AString::CaseSensitiveLess>);
static_assert(!std::is_polymorphic_v<AString::CaseInsensitiveLess>);

static_assert(std::is_same_v<decltype(std::declval<AString&>().cpp_str()), std::wstring&>);
static_assert(
    std::is_same_v<decltype(std::declval<AString const&>().const_cpp_str()), std::wstring const&>);
static_assert(std::is_same_v<decltype(std::declval<AString const&>().size()), unsigned long>);
static_assert(std::is_same_v<decltype(std::declval<AString const&>().toInt()), int>);
static_assert(std::is_same_v<decltype(std::declval<AString&>().allocate(1)), wchar_t*>);
static_assert(std::is_same_v<decltype(std::declval<AString&>().checkAllocation()), bool>);
static_assert(std::is_same_v<decltype(wcsicmp), int(wchar_t const*, wchar_t const*)>);

// Construction, assignment, appending.

// The forms of one row of the family produce one text and return the object.
template <class Value>
void expectAllForms(Value const& value, std::wstring const& text) {
  EXPECT_EQ(AString(value).const_cpp_str(), text);

  AString appended(L"before "s);
  EXPECT_EQ(&(appended << value), &appended);
  EXPECT_EQ(appended.const_cpp_str(), L"before " + text);

  AString appendedToEmpty;
  EXPECT_EQ(&(appendedToEmpty << value), &appendedToEmpty);
  EXPECT_EQ(appendedToEmpty.const_cpp_str(), text);

  if constexpr (!std::is_same_v<Value, int>) {
    AString assigned(L"a longer text from before, which goes away"s);
    EXPECT_EQ(&(assigned = value), &assigned);
    EXPECT_EQ(assigned.const_cpp_str(), text);
  }
}

TEST(AStringTest, DefaultIsEmpty) {
  AString const text;
  EXPECT_EQ(text.const_cpp_str(), L"");
  EXPECT_EQ(text.size(), 0UL);
  EXPECT_STREQ(static_cast<wchar_t const*>(text), L"");
}

TEST(AStringTest, WideTextIsTakenUpToItsTerminator) {
  expectAllForms<wchar_t const*>(L"", L"");
  expectAllForms<wchar_t const*>(L"disk full", L"disk full");
  expectAllForms<wchar_t const*>(L"\u00e4\u20ac\U0001F600", L"\u00e4\u20ac\U0001F600");
  expectAllForms<wchar_t const*>(L"shown\0hidden", L"shown");
}

TEST(AStringTest, NullPointerReadsAsNullText) {
  LogRecorder const recorder;
  expectAllForms(kNullWide, L"(null)");
  expectAllForms(kNullNarrow, L"(null)");
  EXPECT_EQ(recorder.records(), Records());
}

TEST(AStringTest, NarrowTextIsTakenUpToItsTerminator) {
  LogRecorder const recorder;
  expectAllForms<char const*>("", L"");
  expectAllForms<char const*>("disk full", L"disk full");
  expectAllForms<char const*>("shown\0hidden", L"shown");
  EXPECT_EQ(recorder.records(), Records());
}

TEST(AStringTest, OneCharacterIsTakenAsItIs) {
  expectAllForms<wchar_t>(L'a', L"a");
  expectAllForms<wchar_t>(L'\u20ac', L"\u20ac");
  expectAllForms<wchar_t>(L'\U0010FFFF', L"\U0010FFFF");
  expectAllForms<wchar_t>(L'\0', std::wstring(1, L'\0'));
}

TEST(AStringTest, OneByteIsTheCharacterOfThatByte) {
  expectAllForms<char>('a', L"a");
  expectAllForms<char>(' ', L" ");
  expectAllForms<char>('\x7f', L"\x7f");
}

TEST(AStringTest, NulByteLogsAnErrorAndIsOneCharacterOfValueZero) {
  LogRecorder recorder;
  Records const failure = {errorRecord(L"String", L"Error trace:"),
                           errorRecord(L"String", L"  couldn't convert a wide character")};

  EXPECT_EQ(AString('\0').const_cpp_str(), std::wstring(1, L'\0'));
  EXPECT_EQ(recorder.records(), failure);

  recorder.clear();
  AString text(L"ab");
  text << '\0' << 'c';
  EXPECT_EQ(text.const_cpp_str(), L"ab\0c"s);
  EXPECT_EQ(recorder.records(), failure);

  recorder.clear();
  text = '\0';
  EXPECT_EQ(text.const_cpp_str(), std::wstring(1, L'\0'));
  EXPECT_EQ(recorder.records(), failure);
}

TEST(AStringTest, SignedNumbersAreDecimal) {
  for (long const number : {0L, 1L, 9L, 10L, 42L, -1L, -42L, 1000000L, 2147483647L,
                            -2147483647L - 1, LONG_MAX, LONG_MIN}) {
    expectAllForms(number, std::to_wstring(number));
  }
  expectAllForms(-42L, L"-42");
}

TEST(AStringTest, IntsReadAsLongs) {
  for (int const number : {0, 7, -42, INT_MAX, INT_MIN}) {
    expectAllForms(number, std::to_wstring(number));
  }
}

TEST(AStringTest, UnsignedNumbersAreUnsignedDecimal) {
  for (unsigned long const number : {0UL, 9UL, 10UL, 2147483647UL, 2147483648UL, 4294967295UL,
                                     ULONG_MAX / 2, ULONG_MAX / 2 + 1, ULONG_MAX}) {
    expectAllForms(number, std::to_wstring(number));
  }
  expectAllForms(4294967295UL, L"4294967295");
}

TEST(AStringTest, WidestUnsignedNumberIsWrittenInFull) {
  if (sizeof(long) == 4) {
    EXPECT_EQ(AString(ULONG_MAX).const_cpp_str(), L"4294967295");
  } else {
    EXPECT_EQ(AString(ULONG_MAX).const_cpp_str(), L"18446744073709551615");
  }
}

TEST(AStringTest, PointersAreEightHexadecimalDigits) {
  expectAllForms(pointerOf(0x1a2b), L"00001a2b");
  expectAllForms(pointerOf(0), L"00000000");
  expectAllForms(pointerOf(1), L"00000001");
  expectAllForms(pointerOf(0x7fffffff), L"7fffffff");
  expectAllForms(pointerOf(0x80000000U), L"80000000");
  expectAllForms(pointerOf(0xABCDEF01U), L"abcdef01");
  expectAllForms(pointerOf(0xffffffffU), L"ffffffff");
}

TEST(AStringTest, PointerShowsItsLowThirtyTwoBits) {
  if constexpr (sizeof(std::uintptr_t) > 4) {
    std::uint64_t const cases[] = {0xffffffff12345678U, 0x0000000100000000U, 0x00007f0000000a0bU,
                                   0xffffffffffffffffU, 0x80000000ffff0000U};
    std::wstring const texts[] = {L"12345678", L"00000000", L"00000a0b", L"ffffffff", L"ffff0000"};
    for (std::size_t i = 0; i < std::size(cases); ++i) {
      expectAllForms(pointerOf(static_cast<std::uintptr_t>(cases[i])), texts[i]);
    }
  } else {
    GTEST_SKIP() << "pointers have 32 bits here";
  }
}

TEST(AStringTest, FieldsAreFormatted) {
  expectAllForms(AFormat(255, L"x^", -1), L"FF");
  expectAllForms(AFormat(7, L"0", 3), L"007");
  expectAllForms(AFormat(L"abc", L"^", 5, -1), L"  ABC");
  expectAllForms(AFormat(L"", L"", -1, -1), L"");
}

TEST(AStringTest, CopiesHoldTheWholeValue) {
  std::wstring const withNul = L"a\0b"s;
  AString const original(withNul);
  EXPECT_EQ(original.const_cpp_str(), withNul);
  EXPECT_EQ(original.size(), 3UL);

  AString copy(original);
  EXPECT_EQ(copy.const_cpp_str(), withNul);
  copy << L"c";
  EXPECT_EQ(original.const_cpp_str(), withNul);

  AString assigned(L"other");
  EXPECT_EQ(&(assigned = original), &assigned);
  EXPECT_EQ(assigned.const_cpp_str(), withNul);
  AString const& itself = assigned;
  assigned = itself;
  EXPECT_EQ(assigned.const_cpp_str(), withNul);
}

TEST(AStringTest, CallsChain) {
  AString text;
  text << L"line " << 7L << ": " << L'x' << 'y' << -1 << 8UL << pointerOf(10) << AFormat(5, L"0", 2)
       << kNullWide;
  EXPECT_EQ(text.const_cpp_str(), L"line 7: xy-180000000a05(null)");
  EXPECT_EQ((AString(L"a") << 1L).const_cpp_str(), L"a1");
  EXPECT_EQ(((text = L"x") << 2L << L"y").const_cpp_str(), L"x2y");
  ((text = 3L) = 4UL) << L"!";
  EXPECT_EQ(text.const_cpp_str(), L"4!");
}

TEST(AStringTest, SmallerIntegersReadAsInts) {
  short const number = -3;
  EXPECT_EQ(AString(number).const_cpp_str(), L"-3");
  EXPECT_EQ(AString(static_cast<unsigned char>(65)).const_cpp_str(), L"65");
  EXPECT_EQ(AString(static_cast<signed char>(65)).const_cpp_str(), L"65");
  EXPECT_EQ(AString(true).const_cpp_str(), L"1");
  AString text;
  text << 0;
  EXPECT_EQ(text.const_cpp_str(), L"0");
}

TEST(AStringTest, EqualityOfTwoObjectsComparesAddresses) {
  AString const a(L"same text");
  AString const b(L"same text");
  AString const& alsoA = a;
  EXPECT_FALSE(a == b);
  EXPECT_TRUE(a == alsoA);
  EXPECT_EQ(std::wcscmp(a, b), 0);
}

TEST(AStringTest, AppendingKeepsNulCharactersInTheValue) {
  AString text(L"a\0b"s);
  text << L"c" << "d" << 1L << L'\0' << AFormat(2, L"", -1);
  EXPECT_EQ(text.const_cpp_str(),
            L"a\0bcd1\0"
            L"2"s);
}

TEST(AStringTest, ConversionShowsTheTextUpToTheFirstNul) {
  AString const text(L"ab\0cd"s);
  EXPECT_EQ(text.size(), 5UL);
  EXPECT_EQ(std::wcslen(text), 2U);
  EXPECT_STREQ(static_cast<wchar_t const*>(text), L"ab");
}

TEST(AStringTest, ConversionPointsIntoTheValue) {
  AString const text(L"abc");
  EXPECT_EQ(static_cast<wchar_t const*>(text), text.const_cpp_str().c_str());
}

TEST(AStringTest, StandardStringIsTheValue) {
  AString text(L"abc");
  text.cpp_str().erase(1, 1);
  text.cpp_str() += L"def";
  EXPECT_EQ(text.size(), 5UL);
  EXPECT_EQ(text.const_cpp_str(), L"acdef");
  EXPECT_EQ(&text.cpp_str(), &text.const_cpp_str());
}

// A text of every length around the sizes at which a string changes its storage.
class AStringSelfTest : public testing::TestWithParam<std::size_t> {};

TEST_P(AStringSelfTest, AppendsItself) {
  std::wstring expected;
  for (std::size_t i = 0; i < GetParam(); ++i) {
    expected += static_cast<wchar_t>(L'a' + static_cast<wchar_t>(i % 26));
  }
  AString text(expected);
  text.cpp_str().shrink_to_fit();
  for (int round = 0; round < 4; ++round) {
    text << text;
    expected += expected;
    ASSERT_EQ(text.const_cpp_str(), expected);
  }
}

TEST_P(AStringSelfTest, AppendsAndAssignsPartsOfItself) {
  std::wstring const before(GetParam(), L'x');
  for (std::size_t offset = 0; offset <= before.size(); ++offset) {
    AString text(before);
    text.cpp_str().shrink_to_fit();
    text << static_cast<wchar_t const*>(text) + offset;
    ASSERT_EQ(text.const_cpp_str(), before + before.substr(offset));
  }
  for (std::size_t offset = 0; offset <= before.size(); ++offset) {
    AString text(before + L"end");
    text = static_cast<wchar_t const*>(text) + offset;
    ASSERT_EQ(text.const_cpp_str(), before.substr(offset) + L"end");
  }
}

TEST_P(AStringSelfTest, AppendsAndAssignsFieldsOfItself) {
  std::wstring const before(GetParam(), L'x');
  std::wstring const field = std::wstring(3, L' ') + std::wstring(GetParam(), L'X');
  int const width = static_cast<int>(field.size());
  AString appended(before);
  appended << AFormat(appended, L"^", width, -1);
  EXPECT_EQ(appended.const_cpp_str(), before + field);
  AString assigned(before);
  assigned = AFormat(assigned, L"^", width, -1);
  EXPECT_EQ(assigned.const_cpp_str(), field);
}

INSTANTIATE_TEST_SUITE_P(Lengths, AStringSelfTest,
                         testing::Values(0U, 1U, 2U, 3U, 4U, 5U, 7U, 15U, 16U, 33U, 100U));

TEST(AStringTest, SelfAppendStopsAtTheFirstNul) {
  AString text(L"ab\0cd"s);
  text << text;
  EXPECT_EQ(text.const_cpp_str(), L"ab\0cdab"s);
}

TEST(AStringTest, HoldsVeryLongTexts) {
  constexpr std::size_t kLength = 3000000;
  std::wstring wide;
  std::string narrow;
  for (std::size_t i = 0; i < kLength; ++i) {
    wide += static_cast<wchar_t>(L'!' + static_cast<wchar_t>(i % 90));
    narrow += static_cast<char>('!' + static_cast<char>(i % 90));
  }
  AString text(wide.c_str());
  EXPECT_TRUE(text.const_cpp_str() == wide);
  text << narrow.c_str();
  EXPECT_EQ(text.size(), 2 * kLength);
  EXPECT_TRUE(text.const_cpp_str() == wide + wide);
  text = narrow.c_str();
  EXPECT_TRUE(text.const_cpp_str() == wide);
}

TEST(AStringTest, GrowsByManySmallAppends) {
  constexpr long kItems = 200000;
  AString text;
  std::wstring expected;
  for (long i = 0; i < kItems; ++i) {
    text << i << L"," << "-";
    expected += std::to_wstring(i) + L",-";
  }
  EXPECT_TRUE(text.const_cpp_str() == expected);
}

// toInt.

struct NumberCase {
  wchar_t const* text;
  int number;
};

TEST(AStringToIntTest, ReadsALeadingNumber) {
  LogRecorder const recorder;
  NumberCase const cases[] = {{L"  12abc", 12},
                              {L"abc", 0},
                              {L"", 0},
                              {L"0", 0},
                              {L"7", 7},
                              {L"007", 7},
                              {L"-42", -42},
                              {L"+42", 42},
                              {L"  -8 9", -8},
                              {L"- 5", 0},
                              {L"--5", 0},
                              {L"+-5", 0},
                              {L"-", 0},
                              {L"\t\n\v\f\r 9", 9},
                              {L"0x1F", 0},
                              {L"1e3", 1},
                              {L"3.9", 3},
                              {L"12,5", 12},
                              {L"2147483647", INT_MAX},
                              {L"-2147483648", INT_MIN},
                              {L"12\u20ac", 12},
                              {L"\u20ac12", 0},
                              {L"\uff11\uff12", 0},
                              {L"\u00a05", 0}};
  for (NumberCase const& row : cases) {
    EXPECT_EQ(AString(row.text).toInt(), row.number) << AString(row.text).const_cpp_str();
  }
  EXPECT_EQ(recorder.records(), Records());
}

TEST(AStringToIntTest, StopsAtANulInTheValue) {
  EXPECT_EQ(AString(L"1\0"
                    L"2"s)
                .toInt(),
            1);
  EXPECT_EQ(AString(L"\0"
                    L"2"s)
                .toInt(),
            0);
}

TEST(AStringToIntTest, BeyondTheRangeIsWhatTheCLibrarySays) {
  for (char const* const text : {"2147483648", "-2147483649", "4294967296", "99999999999999999999",
                                 "-99999999999999999999"}) {
    EXPECT_EQ(AString(text).toInt(), std::atoi(text)) << text;
  }
}

// findAndReplace.

struct ReplaceCase {
  wchar_t const* name;
  std::wstring before;
  std::wstring find;
  std::wstring replacement;
  std::wstring after;
};

TEST(AStringFindAndReplaceTest, ReplacesEveryOccurrence) {
  ReplaceCase const cases[] = {
      {L"empty find", L"abc", L"", L"x", L"abc"},
      {L"empty find in empty text", L"", L"", L"x", L""},
      {L"empty text", L"", L"a", L"x", L""},
      {L"replacement holds the find", L"aaa", L"a", L"aa", L"aaaaaa"},
      {L"no hit", L"abc", L"d", L"x", L"abc"},
      {L"find longer than the text", L"ab", L"abc", L"x", L"ab"},
      {L"whole text", L"abc", L"abc", L"x", L"x"},
      {L"removed", L"a-b-c", L"-", L"", L"abc"},
      {L"all removed", L"---", L"-", L"", L""},
      {L"hits do not overlap", L"aaaaa", L"aa", L"b", L"bba"},
      {L"joined pieces are not searched", L"aabb", L"ab", L"", L"ab"},
      {L"inserted text is not searched", L"abab", L"ab", L"aab", L"aabaab"},
      {L"at both ends", L"/a/", L"/", L"::", L"::a::"},
      {L"same length", L"a.b.c", L".", L"/", L"a/b/c"},
      {L"case counts", L"aAa", L"a", L"b", L"bAb"},
      {L"beyond ASCII", L"1\u20ac2\u20ac", L"\u20ac", L"\U0001F600", L"1\U0001F6002\U0001F600"},
      {L"find begins with NUL", L"a\0b\0c"s, L"\0"s, L"-", L"a-b-c"},
      {L"find holds NUL", L"a\0ba\0c"s, L"a\0b"s, L"x", L"xa\0c"s},
      {L"replacement holds NUL", L"a-b", L"-", L"\0x"s, L"a\0xb"s},
      {L"hit behind NUL", L"a\0b"s, L"b", L"c", L"a\0c"s}};
  for (ReplaceCase const& row : cases) {
    AString text(row.before);
    text.findAndReplace(AString(row.find), AString(row.replacement));
    EXPECT_EQ(text.const_cpp_str(), row.after) << AString(row.name).const_cpp_str();
  }
}

// One search after the other from the end of what was inserted.
std::wstring replacedStepByStep(std::wstring text, std::wstring const& find,
                                std::wstring const& replacement) {
  if (find.empty()) return text;
  std::size_t position = 0;
  while ((position = text.find(find, position)) != std::wstring::npos) {
    text.replace(position, find.size(), replacement);
    position += replacement.size();
  }
  return text;
}

std::wstring randomText(std::mt19937& random, std::size_t longest) {
  std::size_t const length = std::uniform_int_distribution<std::size_t>(0, longest)(random);
  std::wstring text;
  for (std::size_t i = 0; i < length; ++i) text += (random() % 2 == 0) ? L'a' : L'b';
  return text;
}

TEST(AStringFindAndReplaceTest, AgreesWithOneSearchAfterTheOther) {
  std::mt19937 random(20240501);
  for (int round = 0; round < 60000; ++round) {
    std::wstring const before = randomText(random, 24);
    std::wstring const find = randomText(random, 5);
    std::wstring const replacement = randomText(random, 6);
    AString text(before);
    text.findAndReplace(AString(find), AString(replacement));
    ASSERT_EQ(text.const_cpp_str(), replacedStepByStep(before, find, replacement))
        << "before " << testing::PrintToString(before) << " find " << testing::PrintToString(find)
        << " replacement " << testing::PrintToString(replacement);
  }
}

TEST(AStringFindAndReplaceTest, AgreesForPeriodicTexts) {
  std::mt19937 random(7);
  for (int round = 0; round < 4000; ++round) {
    std::wstring const period = randomText(random, 4) + L"a";
    std::wstring before;
    while (before.size() < 80) before += period;
    if (random() % 2 == 0) before.insert(random() % before.size(), L"b");
    std::wstring const find = before.substr(random() % 40, random() % 40);
    std::wstring const replacement = randomText(random, 50);
    AString text(before);
    text.findAndReplace(AString(find), AString(replacement));
    ASSERT_EQ(text.const_cpp_str(), replacedStepByStep(before, find, replacement))
        << "before " << testing::PrintToString(before) << " find " << testing::PrintToString(find);
  }
}

TEST(AStringFindAndReplaceTest, ArgumentsMayBeTheTextItself) {
  AString find(L"abab");
  find.findAndReplace(find, L"x");
  EXPECT_EQ(find.const_cpp_str(), L"x");

  AString removed(L"abab");
  removed.findAndReplace(removed, L"");
  EXPECT_EQ(removed.const_cpp_str(), L"");

  AString replacement(L"a-a");
  replacement.findAndReplace(L"a", replacement);
  EXPECT_EQ(replacement.const_cpp_str(), L"a-a-a-a");

  AString shorter(L"a-b-a-b");
  shorter.findAndReplace(L"a-b", shorter);
  EXPECT_EQ(shorter.const_cpp_str(), L"a-b-a-b-a-b-a-b");

  AString both(L"ab");
  both.findAndReplace(both, both);
  EXPECT_EQ(both.const_cpp_str(), L"ab");

  AString empty;
  empty.findAndReplace(empty, empty);
  EXPECT_EQ(empty.const_cpp_str(), L"");
}

TEST(AStringFindAndReplaceTest, ReplacesAMillionOccurrences) {
  constexpr std::size_t kHits = 1000000;
  std::wstring before;
  std::wstring longer;
  std::wstring shorter;
  std::wstring equal;
  for (std::size_t i = 0; i < kHits; ++i) {
    before += L"ab-";
    longer += L"a<b->-";
    shorter += L"-";
    equal += L"xy-";
  }
  AString text(before);
  text.findAndReplace(L"ab", L"a<b->");
  EXPECT_TRUE(text.const_cpp_str() == longer);
  text = AString(before);
  text.findAndReplace(L"ab", L"");
  EXPECT_TRUE(text.const_cpp_str() == shorter);
  text = AString(before);
  text.findAndReplace(L"ab", L"xy");
  EXPECT_TRUE(text.const_cpp_str() == equal);
}

// Sizes at which a search that starts afresh behind each near miss takes hours.
TEST(AStringFindAndReplaceTest, SearchesPeriodicTextsWithoutHits) {
  std::wstring const before(1U << 22U, L'a');
  std::wstring const run(1U << 20U, L'a');
  for (std::wstring const& find :
       {run + L"b", L"b" + run, std::wstring(run).append(L"b").append(run)}) {
    AString text(before);
    text.findAndReplace(AString(find), L"x");
    EXPECT_TRUE(text.const_cpp_str() == before);
  }
}

TEST(AStringFindAndReplaceTest, FindsTheOneHitInAPeriodicText) {
  std::wstring const run(1U << 15U, L'a');
  std::wstring const ahead(1U << 20U, L'a');
  AString text(ahead + L"b" + run);
  text.findAndReplace(AString(run + L"b"), L"x");
  EXPECT_TRUE(text.const_cpp_str() == ahead.substr(run.size()) + L"x" + run);
}

// shrinkTo.

TEST(AStringShrinkToTest, CutsLongerTextsOnly) {
  AString text(L"abcde");
  text.shrinkTo(100);
  EXPECT_EQ(text.const_cpp_str(), L"abcde");
  text.shrinkTo(ULONG_MAX);
  EXPECT_EQ(text.const_cpp_str(), L"abcde");
  text.shrinkTo(5);
  EXPECT_EQ(text.const_cpp_str(), L"abcde");
  text.shrinkTo(4);
  EXPECT_EQ(text.const_cpp_str(), L"abcd");
  text.shrinkTo(0);
  EXPECT_EQ(text.const_cpp_str(), L"");
  text.shrinkTo(0);
  EXPECT_EQ(text.const_cpp_str(), L"");
}

TEST(AStringShrinkToTest, CountsNulCharacters) {
  AString text(L"a\0bc"s);
  text.shrinkTo(3);
  EXPECT_EQ(text.const_cpp_str(), L"a\0b"s);
}

// allocate, checkAllocation.

TEST(AStringAllocateTest, TextWrittenIntoTheBufferIsTheValue) {
  LogRecorder const recorder;
  AString text;
  wchar_t* const buffer = text.allocate(10);
  std::wcscpy(buffer, L"nine char");
  EXPECT_TRUE(text.checkAllocation());
  EXPECT_EQ(text.const_cpp_str(), L"nine char");
  EXPECT_EQ(recorder.records(), Records());
}

TEST(AStringAllocateTest, GuardFollowsTheRoom) {
  for (int const length : {0, 1, 2, 3, 4, 10, 1000}) {
    AString text;
    wchar_t* const buffer = text.allocate(length);
    EXPECT_EQ(buffer, text.cpp_str().data());
    EXPECT_EQ(text.size(), static_cast<unsigned long>(length) + 1);
    EXPECT_EQ(text.const_cpp_str().back(), kGuard);
    EXPECT_EQ(buffer[length], kGuard);
  }
}

TEST(AStringAllocateTest, KeepsTheTextThatFits) {
  AString text(L"abcdef");
  text.allocate(8);
  EXPECT_EQ(text.const_cpp_str(), L"abcdef\0\0\xABCD"s);
  EXPECT_TRUE(text.checkAllocation());
  EXPECT_EQ(text.const_cpp_str(), L"abcdef");
  text.allocate(3);
  EXPECT_EQ(text.const_cpp_str(), L"abc\xABCD"s);
}

TEST(AStringAllocateTest, UnusedBufferReadsAsEmpty) {
  AString text;
  text.allocate(5);
  EXPECT_TRUE(text.checkAllocation());
  EXPECT_EQ(text.const_cpp_str(), L"");
}

TEST(AStringAllocateTest, RoomForNothingHasAGuardAlone) {
  LogRecorder const recorder;
  AString text(L"abc");
  text.allocate(0);
  EXPECT_EQ(text.const_cpp_str(), std::wstring(1, kGuard));
  EXPECT_TRUE(text.checkAllocation());
  EXPECT_EQ(recorder.records(), Records());
}

TEST(AStringAllocateTest, CheckCutsAtTheFirstNul) {
  AString text;
  wchar_t* const buffer = text.allocate(10);
  buffer[0] = L'a';
  buffer[1] = L'\0';
  buffer[2] = L'b';
  EXPECT_TRUE(text.checkAllocation());
  EXPECT_EQ(text.const_cpp_str(), L"a");
}

TEST(AStringAllocateTest, NegativeLengthLogsAnErrorAndChangesNothing) {
  for (int const length : {-1, -10, INT_MIN}) {
    LogRecorder const recorder;
    AString text(L"abc");
    wchar_t const* const before = text;
    EXPECT_EQ(text.allocate(length), before);
    EXPECT_EQ(text.const_cpp_str(), L"abc");
    EXPECT_EQ(recorder.records(),
              Records({errorRecord(L"String", L"Error trace:"),
                       errorRecord(L"String",
                                   L"  Received invalid negative memory allocation request")}));
  }
}

TEST(AStringAllocateTest, OverwrittenGuardIsReportedAndTheValueStays) {
  LogRecorder const recorder;
  AString text;
  std::wstring const eleven = L"elevenchars";
  std::copy(eleven.begin(), eleven.end(), text.allocate(10));
  EXPECT_FALSE(text.checkAllocation());
  EXPECT_EQ(text.const_cpp_str(), eleven);
  EXPECT_EQ(recorder.records(),
            Records({errorRecord(L"String", L"internal error: End of string overwritten")}));
}

TEST(AStringAllocateTest, TerminatorInTheGuardsPlaceIsReported) {
  LogRecorder const recorder;
  AString text;
  std::wcscpy(text.allocate(3), L"abc");
  EXPECT_FALSE(text.checkAllocation());
  EXPECT_EQ(text.const_cpp_str(), L"abc\0"s);
  EXPECT_EQ(recorder.records(),
            Records({errorRecord(L"String", L"internal error: End of string overwritten")}));
}

TEST(AStringAllocateTest, EmptyTextHasNoGuard) {
  LogRecorder const recorder;
  AString text;
  EXPECT_FALSE(text.checkAllocation());
  EXPECT_EQ(text.const_cpp_str(), L"");
  EXPECT_EQ(recorder.records(),
            Records({errorRecord(L"String", L"internal error: End of string overwritten")}));
}

// Comparing.

// Folded to upper case, character by character, to the first difference or NUL.
int differenceStepByStep(wchar_t const* a, wchar_t const* b) {
  for (;; ++a, ++b) {
    int const difference = static_cast<int>(::towupper(static_cast<wint_t>(*a))) -
                           static_cast<int>(::towupper(static_cast<wint_t>(*b)));
    if (difference != 0 || *a == 0 || *b == 0) return difference;
  }
}

struct CompareCase {
  wchar_t const* a;
  wchar_t const* b;
  int difference;
};

TEST(WcsicmpTest, ReturnsTheFirstDifferenceInUpperCase) {
  CompareCase const cases[] = {{L"", L"", 0},
                               {L"abc", L"ABC", 0},
                               {L"ABC", L"abc", 0},
                               {L"abc", L"ABD", -1},
                               {L"ABD", L"abc", 1},
                               {L"ab", L"abc", -L'C'},
                               {L"abc", L"AB", L'C'},
                               {L"", L"a", -L'A'},
                               {L"a", L"", L'A'},
                               {L"a", L"_", L'A' - L'_'},
                               {L"_", L"a", L'_' - L'A'},
                               {L"Z", L"_", L'Z' - L'_'},
                               {L"a", L"\u20ac", L'A' - 0x20ac},
                               {L"x1", L"X2", -1},
                               {L"aZ", L"Ba", -1}};
  for (CompareCase const& row : cases) {
    EXPECT_EQ(wcsicmp(row.a, row.b), row.difference)
        << AString(row.a).const_cpp_str() << L" and " << AString(row.b).const_cpp_str();
  }
}

TEST(WcsicmpTest, AgreesWithTheStepsInEveryLocale) {
  std::vector<std::wstring> texts = {L"",        L"\u00e4", L"\u00c4",    L"a\u00e4",
                                     L"a\u00c4", L"\u0131", L"\u0130",    L"\u01c5",
                                     L"\u00df",  L"\uffff", L"\U0010ffff"};
  for (wchar_t c = 1; c < 128; ++c) texts.emplace_back(1, c);
  for (char const* const name : {"C", "C.UTF-8"}) {
    LocaleScope const locale(name);
    for (std::wstring const& a : texts) {
      for (std::wstring const& b : texts) {
        ASSERT_EQ(wcsicmp(a.c_str(), b.c_str()), differenceStepByStep(a.c_str(), b.c_str()))
            << name << ": " << testing::PrintToString(a) << " and " << testing::PrintToString(b);
      }
    }
  }
}

TEST(WcsicmpTest, FoldsLettersBeyondAsciiByTheLocale) {
  LocaleScope const locale("C.UTF-8");
  EXPECT_EQ(wcsicmp(L"stra\u00c4e", L"STRA\u00e4E"), 0);
  EXPECT_EQ(wcsicmp(L"\u0434\u0430", L"\u0414\u0410"), 0);
  LocaleScope const plain("C");
  EXPECT_NE(wcsicmp(L"\u00c4", L"\u00e4"), 0);
}

TEST(WcsicmpTest, FoldsAsciiByTheLocaleToo) {
  ChosenLocale const turkish(kTurkish);
  if (!turkish.whyMissing().empty()) GTEST_SKIP() << turkish.whyMissing();
  ASSERT_EQ(::towupper(L'i'), 0x130U);
  EXPECT_EQ(wcsicmp(L"i", L"I"), 0x130 - L'I');
  EXPECT_EQ(wcsicmp(L"\u0131", L"I"), 0);
}

TEST(WcsicmpTest, OrdersNumbersBeyondUnicodeAsSignedNumbers) {
  int const numbers[] = {INT_MIN, INT_MIN + 1, -2, -1, 1, 'A', INT_MAX - 1, INT_MAX};
  for (int const first : numbers) {
    for (int const second : numbers) {
      wchar_t const a[] = {static_cast<wchar_t>(first), 0};
      wchar_t const b[] = {static_cast<wchar_t>(second), 0};
      std::int64_t const difference = std::int64_t{first} - second;
      EXPECT_EQ(wcsicmp(a, b), std::clamp<std::int64_t>(difference, INT_MIN, INT_MAX))
          << first << ", " << second;
    }
  }
}

TEST(WideCaseTest, MappingsComeWithTheHeader) {
  EXPECT_EQ(towupper(L'a'), static_cast<wint_t>(L'A'));
  EXPECT_EQ(towlower(L'A'), static_cast<wint_t>(L'a'));
  EXPECT_EQ(towupper(L'1'), static_cast<wint_t>(L'1'));
}

TEST(CaseInsensitiveLessTest, OrdersByUpperCase) {
  AString::CaseInsensitiveLess const less{};
  EXPECT_TRUE(less(L"a", L"_"));
  EXPECT_FALSE(less(L"_", L"a"));
  EXPECT_TRUE(less(L"abc", L"ABD"));
  EXPECT_FALSE(less(L"abc", L"ABC"));
  EXPECT_FALSE(less(L"ABC", L"abc"));
  EXPECT_TRUE(less(L"ab", L"ABC"));
  EXPECT_FALSE(less(L"ABC", L"ab"));
  EXPECT_FALSE(less(L"", L""));
}

TEST(CaseInsensitiveLessTest, MapFindsKeysInAnyCase) {
  std::map<AString, int, AString::CaseInsensitiveLess> map;
  map[L"Server"] = 1;
  map[L"SERVER"] = 2;
  map[L"a"] = 3;
  map[L"_"] = 4;
  ASSERT_EQ(map.size(), 3U);
  EXPECT_EQ(map.at(L"server"), 2);
  EXPECT_EQ(map.begin()->first.const_cpp_str(), L"a");
  EXPECT_EQ(map.rbegin()->first.const_cpp_str(), L"_");
  EXPECT_EQ(std::next(map.begin())->first.const_cpp_str(), L"Server");
}

TEST(CaseSensitiveLessTest, OrdersByCharacterValue) {
  AString::CaseSensitiveLess const less{};
  EXPECT_TRUE(less(L"ABC", L"abc"));
  EXPECT_FALSE(less(L"abc", L"ABC"));
  EXPECT_TRUE(less(L"Z", L"_"));
  EXPECT_TRUE(less(L"_", L"a"));
  EXPECT_TRUE(less(L"ab", L"abc"));
  EXPECT_FALSE(less(L"abc", L"ab"));
  EXPECT_FALSE(less(L"abc", L"abc"));
  EXPECT_TRUE(less(L"\uffff", L"\U00010000"));
}

TEST(CaseSensitiveLessTest, ComparesUpToTheFirstNul) {
  AString::CaseSensitiveLess const less{};
  AString const a(L"x\0a"s);
  AString const b(L"x\0b"s);
  EXPECT_FALSE(less(a, b));
  EXPECT_FALSE(less(b, a));
  AString::CaseInsensitiveLess const insensitiveLess{};
  EXPECT_FALSE(insensitiveLess(a, b));
  EXPECT_FALSE(insensitiveLess(b, a));
}

TEST(CaseSensitiveLessTest, SetKeepsEachSpelling) {
  std::set<AString, AString::CaseSensitiveLess> const set = {L"b", L"B", L"_", L"a", L"A", L"a"};
  std::wstring order;
  for (AString const& key : set) order += key.const_cpp_str();
  EXPECT_EQ(order, L"AB_ab");
}

}  // namespace
}  // namespace vrxutil::test

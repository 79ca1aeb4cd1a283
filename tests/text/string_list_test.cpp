#include "tests/support/locale_scope.h"
#include "tests/support/log_recorder.h"

#include <vrxutil/text.h>

#include <gtest/gtest.h>

#include <climits>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cwchar>
#include <string>
#include <type_traits>
#include <vector>

namespace vrxutil::test {
namespace {

using Records = std::vector<LogRecord>;

template <class Item>
concept Listable = requires(AStringList list, Item item) {
  { list << item } -> std::same_as<AStringList&>;
};

static_assert(Listable<wchar_t const*>);
static_assert(Listable<char const*>);
static_assert(Listable<int>);
static_assert(Listable<void*>);
static_assert(Listable<AFormat>);
static_assert(Listable<AString>);
static_assert(Listable<long>);  // narrows to int
static_assert(!Listable<std::nullptr_t>);
static_assert(!std::is_polymorphic_v<AStringList>);
static_assert(std::is_convertible_v<AStringList const&, wchar_t const*>);
static_assert(!std::is_default_constructible_v<AStringList>);
static_assert(sizeof(AStringList) == 3 * sizeof(AString) + 2 * sizeof(int));

std::wstring read(AStringList const& list) { return static_cast<wchar_t const*>(list); }

TEST(AStringListTest, NewListIsEmpty) {
  EXPECT_EQ(read(AStringList(L", ", /*afterEach=*/false)), L"");
  EXPECT_EQ(read(AStringList(L", ", /*afterEach=*/true)), L"");
}

TEST(AStringListTest, SeparatorStandsBetweenItems) {
  AStringList list(L", ", /*afterEach=*/false);
  list << L"a";
  EXPECT_EQ(read(list), L"a");
  list << L"b";
  EXPECT_EQ(read(list), L"a, b");
  list << L"c";
  EXPECT_EQ(read(list), L"a, b, c");
}

TEST(AStringListTest, SeparatorFollowsEachItem) {
  AStringList list(L", ", /*afterEach=*/true);
  list << L"a";
  EXPECT_EQ(read(list), L"a, ");
  list << L"b" << L"c";
  EXPECT_EQ(read(list), L"a, b, c, ");
}

TEST(AStringListTest, ClearStartsAgain) {
  AStringList between(L", ", /*afterEach=*/false);
  between << L"a" << L"b";
  between.clear();
  EXPECT_EQ(read(between), L"");
  between << L"c";
  EXPECT_EQ(read(between), L"c");
  between << L"d";
  EXPECT_EQ(read(between), L"c, d");
  between.clear();
  between.clear();
  EXPECT_EQ(read(between << L"e"), L"e");

  AStringList after(L";", /*afterEach=*/true);
  after << L"a";
  after.clear();
  EXPECT_EQ(read(after), L"");
  EXPECT_EQ(read(after << L"b"), L"b;");
}

TEST(AStringListTest, ItemsOfEachTypeReadAsInAString) {
  LogRecorder const recorder;
  AStringList list(L",", /*afterEach=*/false);
  list << L"wide" << "narrow" << 7 << -42 << INT_MIN << static_cast<void*>(nullptr)
       << AFormat(255, L"x0", 4) << AFormat(L"abc", L"^", 5, -1);
  EXPECT_EQ(read(list), L"wide,narrow,7,-42,-2147483648,00000000,00ff,  ABC");
  EXPECT_EQ(recorder.records(), Records());
}

TEST(AStringListTest, PointerItemIsEightDigits) {
  void* const pointer =
      reinterpret_cast<void*>(std::uintptr_t{0x1a2b});  // NOLINT(performance-no-int-to-ptr)
  AStringList list(L",", /*afterEach=*/true);
  EXPECT_EQ(read(list << pointer), L"00001a2b,");
}

TEST(AStringListTest, NullItemsReadAsNullText) {
  AStringList list(L",", /*afterEach=*/false);
  list << static_cast<wchar_t const*>(nullptr) << static_cast<char const*>(nullptr);
  EXPECT_EQ(read(list), L"(null),(null)");
}

TEST(AStringListTest, AStringItemIsAWideText) {
  AString const item(L"text");
  AStringList list(L",", /*afterEach=*/false);
  EXPECT_EQ(read(list << item << 1), L"text,1");
}

TEST(AStringListTest, EmptyItemsCount) {
  AStringList between(L",", /*afterEach=*/false);
  between << L"" << L"a" << "" << L"";
  EXPECT_EQ(read(between), L",a,,");
  AStringList after(L",", /*afterEach=*/true);
  after << L"" << L"";
  EXPECT_EQ(read(after), L",,");
}

TEST(AStringListTest, ItemMayBeTheListsOwnText) {
  for (bool const afterEach : {false, true}) {
    AStringList list(L"--", afterEach);
    list << L"a" << L"b";
    std::wstring expected = read(list);
    for (int round = 0; round < 5; ++round) {
      list << static_cast<wchar_t const*>(list);
      std::wstring const item = expected;
      expected.append(afterEach ? item : L"--").append(afterEach ? L"--" : item);
      ASSERT_EQ(read(list), expected);
    }
  }
}

TEST(AStringListTest, ItemMayBeTheEndOfTheListsOwnText) {
  for (wchar_t const* const first : {L"", L"a", L"abc", L"a text too long for the object itself"}) {
    AStringList list(L"--", /*afterEach=*/false);
    list << first;
    list << static_cast<wchar_t const*>(list) + std::wcslen(list);
    EXPECT_EQ(read(list), std::wstring(first) + L"--");
  }
}

TEST(AStringListTest, FieldMayBorrowTheListsOwnText) {
  AStringList list(L"-", /*afterEach=*/false);
  list << L"^" << L"";
  ASSERT_EQ(read(list), L"^-");
  list << AFormat(L"abc", list, 5, -1);  // its flags are the list's text
  EXPECT_EQ(read(list), L"^--ABC  ");
  list << AFormat(list, L"_", 10, -1);
  EXPECT_EQ(read(list), L"^--ABC  -  ^--abc  ");
}

TEST(AStringListTest, ItemThatFailsToConvertIsEmpty) {
  LocaleScope const locale("C.UTF-8");
  LogRecorder const recorder;
  AStringList list(L",", /*afterEach=*/false);
  list << L"a" << "\xC3" << L"b";
  EXPECT_EQ(read(list), L"a,,b");
  EXPECT_EQ(
      recorder.records(),
      Records({errorRecord(L"String", L"Error trace:"),
               errorRecord(L"String", L"  couldn't query space for wide character conversion")}));
}

TEST(AStringListTest, SeparatorIsCopied) {
  wchar_t separator[] = L"+";
  AStringList list(separator, /*afterEach=*/false);
  separator[0] = L'?';
  EXPECT_EQ(read(list << L"a" << L"b"), L"a+b");
}

TEST(AStringListTest, SeparatorMayBeOfAnyLength) {
  AStringList none(L"", /*afterEach=*/false);
  EXPECT_EQ(read(none << L"a" << L"b"), L"ab");
  AStringList longer(L" and then ", /*afterEach=*/false);
  EXPECT_EQ(read(longer << L"a" << L"b"), L"a and then b");
  AStringList null(nullptr, /*afterEach=*/false);
  EXPECT_EQ(read(null << L"a" << L"b"), L"a(null)b");
}

TEST(AStringListTest, SetupSaysWhatGoesAroundTheNextItem) {
  AStringList list(L"; ", /*afterEach=*/false);
  wchar_t const* before = nullptr;
  wchar_t const* after = nullptr;
  list.setup(&before, &after);
  EXPECT_STREQ(before, L"");
  EXPECT_STREQ(after, L"");
  for (int i = 0; i < 2; ++i) {
    list.setup(&before, &after);
    EXPECT_STREQ(before, L"; ");
    EXPECT_STREQ(after, L"");
  }
  EXPECT_EQ(read(list), L"");
  list.clear();
  list.setup(&before, &after);
  EXPECT_STREQ(before, L"");
  EXPECT_STREQ(after, L"");
}

TEST(AStringListTest, SetupWithSeparatorAfterEachIsTheSameForEveryItem) {
  AStringList list(L"; ", /*afterEach=*/true);
  for (int i = 0; i < 3; ++i) {
    wchar_t const* before = nullptr;
    wchar_t const* after = nullptr;
    list.setup(&before, &after);
    EXPECT_STREQ(before, L"");
    EXPECT_STREQ(after, L"; ");
  }
}

TEST(AStringListTest, SetupCountsAsAnItem) {
  AStringList list(L",", /*afterEach=*/false);
  wchar_t const* before = nullptr;
  wchar_t const* after = nullptr;
  list.setup(&before, &after);
  EXPECT_EQ(read(list << L"a"), L",a");
}

TEST(AStringListTest, TextsOfSetupLastAsLongAsTheList) {
  AStringList list(L"a separator too long for a string's own storage", /*afterEach=*/true);
  wchar_t const* before = nullptr;
  wchar_t const* after = nullptr;
  list.setup(&before, &after);
  for (int i = 0; i < 1000; ++i) list << i;
  list.clear();
  EXPECT_STREQ(before, L"");
  EXPECT_STREQ(after, L"a separator too long for a string's own storage");
}

TEST(AStringListTest, JoinsManyItems) {
  AStringList list(L",", /*afterEach=*/false);
  std::wstring expected;
  for (int i = 0; i < 100000; ++i) {
    list << i;
    expected += (i == 0 ? L"" : L",") + std::to_wstring(i);
  }
  EXPECT_TRUE(read(list) == expected);
}

}  // namespace
}  // namespace vrxutil::test

#include "tests/support/locale_scope.h"
#include "tests/support/log_recorder.h"
#include "tests/text/made_locale.h"

#include <vrxutil/text.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

namespace vrxutil::test {
namespace {

using namespace std::string_literals;

using Records = std::vector<LogRecord>;

static_assert(!std::is_copy_constructible_v<ACharString>);
static_assert(!std::is_copy_assignable_v<ACharString>);
static_assert(!std::is_move_constructible_v<ACharString>);
static_assert(!std::is_move_assignable_v<ACharString>);
static_assert(!std::is_polymorphic_v<ACharString>);
static_assert(sizeof(void*) != 4 || sizeof(ACharString) == 8);
static_assert(std::is_constructible_v<ACharString, AString const&>);
static_assert(std::is_convertible_v<ACharString&, char const*>);
static_assert(std::is_same_v<decltype(std::declval<ACharString const&>().size()), int>);
static_assert(
    std::is_same_v<decltype(conversionSpaceRequired(std::declval<wchar_t const*>())), int>);
static_assert(
    std::is_same_v<decltype(convert(std::declval<wchar_t const*>(), std::declval<char*>())), void>);
static_assert(std::is_same_v<decltype(checkNewChar), char*(int)>);

// What wcrtomb gives character by character, "?" where it gives nothing.
std::string narrowedStepByStep(std::wstring const& text) {
  std::mbstate_t state{};
  std::string narrow;
  for (wchar_t const c : text) {
    char bytes[MB_LEN_MAX];
    std::size_t const length = std::wcrtomb(bytes, c, &state);
    if (length == static_cast<std::size_t>(-1)) {
      narrow += '?';
    } else {
      narrow.append(bytes, length);
    }
  }
  return narrow;
}

// The buffer, up to and including the terminator that size() promises.
std::string wholeBuffer(ACharString const& text) {
  char const* const bytes = text;
  return {bytes, static_cast<std::size_t>(text.size()) + 1};
}

// convert() writes what conversionSpaceRequired() says, and no byte more.
void expectNarrow(std::wstring const& wide, std::string const& narrow) {
  SCOPED_TRACE(testing::PrintToString(wide));
  LogRecorder const recorder;

  ASSERT_EQ(wholeBuffer(ACharString(wide.c_str())), narrow + '\0');

  int const space = conversionSpaceRequired(wide.c_str());
  ASSERT_EQ(space, static_cast<int>(narrow.size()) + 1);

  std::string target(static_cast<std::size_t>(space) + 8, '#');
  convert(wide.c_str(), target.data());
  ASSERT_EQ(target, narrow + '\0' + "########");

  ASSERT_EQ(recorder.records(), Records());
}

TEST(ACharStringTest, DefaultIsEmpty) {
  ACharString const text;
  EXPECT_EQ(text.size(), 0);
  EXPECT_STREQ(text, "");
}

TEST(ACharStringTest, EmptyTextIsEmpty) {
  ACharString const text(L"");
  EXPECT_EQ(text.size(), 0);
  EXPECT_STREQ(text, "");
  expectNarrow(L"", "");
}

TEST(ACharStringTest, NullTextIsEmpty) {
  LogRecorder const recorder;
  ACharString const text(static_cast<wchar_t const*>(nullptr));
  EXPECT_EQ(text.size(), 0);
  EXPECT_STREQ(text, "");
  EXPECT_EQ(recorder.records(), Records());
}

TEST(ACharStringTest, AsciiIsCopied) {
  expectNarrow(L"/var/tmp/a.txt", "/var/tmp/a.txt");
  std::wstring wide;
  std::string narrow;
  for (char c = 1; c < 127; ++c) {
    wide += static_cast<wchar_t>(c);
    narrow += c;
  }
  expectNarrow(wide, narrow);
}

TEST(ACharStringTest, AsciiOfEveryShortLengthBeforeAnotherCharacter) {
  for (char const* const name : {"C", "C.UTF-8"}) {
    LocaleScope const locale(name);
    std::wstring run;
    for (int length = 0; length <= 70; ++length) {
      for (std::wstring const& tail : {L""s, L"\u00e4"s, L"\u20acz"s, L"\U0001F600"s + run}) {
        expectNarrow(run + tail, narrowedStepByStep(run + tail));
        if (HasFatalFailure()) return;
      }
      run += static_cast<wchar_t>(L' ' + length % 95);
    }
  }
}

TEST(ACharStringTest, Utf8IsWrittenInAUtf8Locale) {
  LocaleScope const locale("C.UTF-8");
  expectNarrow(L"a\u00e4\u20ac\U0001F600z", "a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80z");
}

TEST(ACharStringTest, CharacterThatTheLocaleLacksBecomesAQuestionMark) {
  LocaleScope const locale("C");
  LogRecorder const recorder;
  ACharString const one(L"\u20ac");
  EXPECT_EQ(one.size(), 1);
  EXPECT_STREQ(one, "?");
  EXPECT_EQ(conversionSpaceRequired(L"\u20ac"), 2);
  EXPECT_EQ(recorder.records(), Records());
  expectNarrow(L"a\u20acb\u20ac\u20acc?", "a?b??c?");
  expectNarrow(L"\u20ac\U0001F600", "??");
  expectNarrow(std::wstring(1000, L'\u20ac') + L"end", std::string(1000, '?') + "end");
}

TEST(ACharStringTest, NumberThatIsNoCharacterBecomesAQuestionMark) {
  LocaleScope const locale("C.UTF-8");
  std::wstring text = L"a";
  text += static_cast<wchar_t>(0xD800);
  text += L"\u00e4";
  text += static_cast<wchar_t>(WCHAR_MIN);
  text += L"b";
  expectNarrow(text, "a?\xC3\xA4?b");
}

TEST(ACharStringTest, TextEndsAtItsFirstNul) {
  AString const text(L"ab\0cd"s);
  ACharString const narrow(text);
  EXPECT_EQ(narrow.size(), 2);
  EXPECT_STREQ(narrow, "ab");
}

TEST(ACharStringTest, LongTextsAreCopiedWhole) {
  std::wstring const wide(2000000, L'w');
  ACharString const text(wide.c_str());
  EXPECT_EQ(text.size(), 2000000);
  EXPECT_EQ(std::strlen(text), 2000000U);
  EXPECT_TRUE(static_cast<char const*>(text) == std::string(2000000, 'w'));
}

TEST(ACharStringTest, BytesAreCopiedWithTheirNuls) {
  ACharString const text("a\0b", 3);
  EXPECT_EQ(text.size(), 3);
  EXPECT_EQ(std::strlen(text), 1U);
  EXPECT_EQ(wholeBuffer(text), "a\0b\0"s);
}

TEST(ACharStringTest, BytesAreCopiedToTheGivenLengthOnly) {
  std::unique_ptr<char[]> bytes(new char[3]{'x', 'y', '\xFF'});
  ACharString const two(bytes.get(), 2);
  ACharString const three(bytes.get(), 3);
  ACharString const none(bytes.get(), 0);
  bytes.reset();
  EXPECT_EQ(wholeBuffer(two), "xy\0"s);
  EXPECT_EQ(wholeBuffer(three), "xy\xFF\0"s);
  EXPECT_EQ(wholeBuffer(none), "\0"s);
}

TEST(ACharStringTest, EveryByteIsCopiedAsItIs) {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) bytes += static_cast<char>(byte);
  ACharString const text(bytes.data(), 256);
  EXPECT_EQ(wholeBuffer(text), bytes + '\0');
}

// The buffer's contents are nobody's to read; sanitizers watch the rest.
TEST(ACharStringTest, NullBytesLeaveABufferOfTheGivenLength) {
  for (int const length : {0, 1, 100}) {
    ACharString const text(static_cast<char const*>(nullptr), length);
    EXPECT_EQ(text.size(), length);
    EXPECT_NE(static_cast<char const*>(text), nullptr);
  }
}

TEST(ACharStringTest, NegativeNumberOfBytesIsNone) {
  for (int const length : {-1, -2, INT_MIN}) {
    ACharString const text("abc", length);
    EXPECT_EQ(wholeBuffer(text), "\0"s);
    ACharString const unfilled(static_cast<char const*>(nullptr), length);
    EXPECT_EQ(unfilled.size(), 0);
  }
}

TEST(ACharStringTest, NumberOfBytesWithoutRoomForATerminatorIsRefused) {
  EXPECT_THROW(ACharString("abc", INT_MAX), std::length_error);
}

TEST(ACharStringTest, EachObjectHasABufferOfItsOwn) {
  wchar_t const text[] = L"same";
  ACharString const a(text);
  ACharString const b(text);
  EXPECT_NE(static_cast<char const*>(a), static_cast<char const*>(b));
}

TEST(CheckNewCharTest, GivesAWritableArray) {
  for (int const size : {0, 1, 2, 4096}) {
    std::unique_ptr<char[]> const memory(checkNewChar(size));
    ASSERT_NE(memory, nullptr);
    std::memset(memory.get(), 'x', static_cast<std::size_t>(size));
  }
}

// A text of one character over and over, in memory for a small part of them.
class VastText {
public:
  VastText(wchar_t character, std::size_t length) : size_((length / kPartLength + 1) * kPartSize) {
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> const stream(std::tmpfile(), std::fclose);
    if (stream == nullptr) return;
    int const file = ::fileno(stream.get());
    std::wstring const part(kPartLength, character);
    bool const written = ::write(file, part.data(), kPartSize) == static_cast<ssize_t>(kPartSize);
    void* const space =
        ::mmap(nullptr, size_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (written && space != MAP_FAILED) {
      text_ = static_cast<wchar_t*>(space);
      ready_ = fill(file, length);
    }
  }

  ~VastText() {
    if (text_ != nullptr) ::munmap(text_, size_);
  }

  VastText(VastText const&) = delete;
  VastText& operator=(VastText const&) = delete;

  bool ready() const { return ready_; }

  wchar_t const* get() const { return text_; }

private:
  // The last part is private: it holds the terminator.
  bool fill(int file, std::size_t length) {
    std::size_t const last = length / kPartLength * kPartLength;
    for (std::size_t at = 0; at <= last; at += kPartLength) {
      int const protection = at == last ? PROT_READ | PROT_WRITE : PROT_READ;
      int const sharing = at == last ? MAP_PRIVATE : MAP_SHARED;
      if (::mmap(text_ + at, kPartSize, protection, sharing | MAP_FIXED, file, 0) == MAP_FAILED) {
        return false;
      }
    }
    text_[length] = L'\0';
    return true;
  }

  static constexpr std::size_t kPartSize = std::size_t{4} << 20U;
  static constexpr std::size_t kPartLength = kPartSize / sizeof(wchar_t);

  std::size_t size_;
  wchar_t* text_ = nullptr;
  bool ready_ = false;
};

TEST(ACharStringTest, TextWhoseSizeIsNoIntIsRefused) {
  if constexpr (sizeof(std::size_t) > 4) {
    LocaleScope const locale("C.UTF-8");
    VastText const text(L'\U0001F600', INT_MAX / 4 + 1);  // of four bytes each
    if (!text.ready()) GTEST_SKIP() << "no address space for a text of gigabytes";
    EXPECT_THROW(ACharString{text.get()}, std::length_error);
  } else {
    GTEST_SKIP() << "no such text fits in memory here";
  }
}

class NarrowingTest : public testing::TestWithParam<LocaleChoice> {
protected:
  NarrowingTest() : locale_(GetParam()) {}

  void SetUp() override {
    if (!locale_.whyMissing().empty()) GTEST_SKIP() << locale_.whyMissing();
  }

private:
  ChosenLocale locale_;
};

INSTANTIATE_TEST_SUITE_P(Locales, NarrowingTest,
                         testing::Values(kPlainC, kUtf8, kLatin1, kEucJp, kShiftJis, kEbcdic),
                         testing::PrintToStringParamName());

TEST_P(NarrowingTest, EveryCharacterOfTheBasicPlane) {
  for (wchar_t c = 1; c <= 0xFFFF; ++c) {
    std::wstring const text(1, c);
    ASSERT_EQ(static_cast<char const*>(ACharString(text.c_str())), narrowedStepByStep(text))
        << static_cast<long>(c);
  }
}

TEST_P(NarrowingTest, EveryKindOfCharacterBeyondTheBasicPlane) {
  for (std::uint32_t first = 0x10000; first != 0; first += 0x8000) {
    for (std::uint32_t const c : {first, first + 0x1234, first + 0x7FFF}) {
      std::wstring const text(1, static_cast<wchar_t>(c));
      ASSERT_EQ(static_cast<char const*>(ACharString(text.c_str())), narrowedStepByStep(text)) << c;
    }
  }
}

// Texts are converted in blocks; what no block takes may stand anywhere in one.
TEST_P(NarrowingTest, EveryPositionOfACharacterThatIsNone) {
  constexpr wchar_t kSurrogate = 0xDABC;
  for (wchar_t const filler : {L'a', L'\u00e9', L'\u3042'}) {
    for (std::size_t length = 1; length <= 70; ++length) {
      std::wstring text(length, filler);
      expectNarrow(text, narrowedStepByStep(text));
      for (wchar_t& place : text) {
        wchar_t const before = std::exchange(place, kSurrogate);
        ASSERT_EQ(static_cast<char const*>(ACharString(text.c_str())), narrowedStepByStep(text));
        place = before;
      }
      if (HasFatalFailure()) return;
    }
  }
}

TEST_P(NarrowingTest, LongRunsOfEachScript) {
  std::mt19937 random(6);
  wchar_t const firsts[] = {L'a', L'\u00e0', L'\u0430', L'\u3042', L'\U0001F600'};
  for (int round = 0; round < 200; ++round) {
    std::wstring text;
    while (text.size() < 400) {
      auto const first = static_cast<std::uint32_t>(firsts[random() % std::size(firsts)]);
      for (std::size_t left = random() % 80; left > 0; --left) {
        text += static_cast<wchar_t>(first + random() % 20);
      }
    }
    expectNarrow(text, narrowedStepByStep(text));
    if (HasFatalFailure()) return;
  }
}

TEST_P(NarrowingTest, RandomTexts) {
  std::mt19937 random(5);
  wchar_t const pool[] = {L'a',      L'\\',     L'~',      L'\u00a5',     L'\u00e9', L'\u20ac',
                          L'\u3042', L'\u4e00', L'\uff71', L'\U0001F600', WCHAR_MAX, WCHAR_MIN};
  for (int round = 0; round < 3000; ++round) {
    std::wstring text;
    for (std::size_t left = random() % 30; left > 0; --left)
      text += pool[random() % std::size(pool)];
    expectNarrow(text, narrowedStepByStep(text));
    if (HasFatalFailure()) return;
  }
}

}  // namespace
}  // namespace vrxutil::test

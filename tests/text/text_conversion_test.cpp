// Narrow text becoming wide: conversionSpaceRequired, convert, convertOne and
// the forms of AString that take char const* and char, held against the C
// library's own mbstowcs and mbrtowc.

#include "tests/support/guarded_memory.h"
#include "tests/support/locale_scope.h"
#include "tests/support/log_recorder.h"
#include "tests/text/made_locale.h"

#include <vrxutil/log.h>
#include <vrxutil/text.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <latch>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace vrxutil::test {
namespace {

using vornix_com::oxa::logger::ILogger;
using vornix_com::oxa::logger::LogLevel;

using Records = std::vector<LogRecord>;

static_assert(
    std::is_same_v<decltype(conversionSpaceRequired(std::declval<char const*>())), unsigned long>);
static_assert(std::is_same_v<decltype(convertOne), wchar_t(char)>);
static_assert(std::is_same_v<decltype(AString::convert), void(char const*, wchar_t*, int, int)>);

Records failure(std::wstring const& message) {
  return {errorRecord(L"String", L"Error trace:"), errorRecord(L"String", L"  " + message)};
}

Records noSpace() { return failure(L"couldn't query space for wide character conversion"); }

Records noConversion() { return failure(L"couldn't convert to wide characters"); }

Records noCharacter() { return failure(L"couldn't convert a wide character"); }

// The C library's own conversion; nothing where it finds an invalid sequence.
std::optional<std::wstring> convertedByTheCLibrary(std::string const& bytes) {
  std::vector<wchar_t> buffer(bytes.size() + 1);
  std::size_t const length = std::mbstowcs(buffer.data(), bytes.c_str(), buffer.size());
  if (length == static_cast<std::size_t>(-1)) return std::nullopt;
  return std::wstring(buffer.data(), length);
}

// All that takes a narrow text gives what the C library gives, or logs one
// error and contributes nothing.
void expectConversion(char const* bytes) {
  SCOPED_TRACE(testing::PrintToString(std::string(bytes)));
  std::optional<std::wstring> const expected = convertedByTheCLibrary(bytes);
  std::wstring const text = expected.value_or(L"");
  Records const records = expected ? Records() : noSpace();
  LogRecorder recorder;

  ASSERT_EQ(conversionSpaceRequired(bytes), text.size());
  ASSERT_EQ(recorder.records(), records);

  recorder.clear();
  ASSERT_EQ(AString(bytes).const_cpp_str(), text);
  ASSERT_EQ(recorder.records(), records);

  recorder.clear();
  AString changed(std::wstring(L"old\0text", 8));
  ASSERT_EQ((changed << bytes).const_cpp_str(), std::wstring(L"old\0text", 8) + text);
  ASSERT_EQ(recorder.records(), records);

  recorder.clear();
  ASSERT_EQ((changed = bytes).const_cpp_str(), text);
  ASSERT_EQ(recorder.records(), records);
}

// A text `alignment` bytes behind the start of its memory, and at its end.
class AlignedText {
public:
  AlignedText(std::string const& text, std::size_t alignment)
      : memory_(new char[alignment + text.size() + 1]), text_(memory_.get() + alignment) {
    std::memcpy(text_, text.c_str(), text.size() + 1);
  }

  char const* get() const { return text_; }

private:
  std::unique_ptr<char[]> memory_;
  char* text_;
};

constexpr std::size_t kLongestRun = 70;
constexpr std::size_t kAlignments = 16;

std::string asciiRun(std::size_t length) {
  std::string run;
  for (std::size_t i = 0; i < length; ++i)
    run += static_cast<char>(' ' + static_cast<char>(i % 95));
  return run;
}

// Each test below runs in each of the locales.
class ConversionTest : public testing::TestWithParam<LocaleChoice> {
protected:
  ConversionTest() : locale_(GetParam()) {}

  void SetUp() override {
    if (!locale_.whyMissing().empty()) GTEST_SKIP() << locale_.whyMissing();
  }

private:
  ChosenLocale locale_;
};

INSTANTIATE_TEST_SUITE_P(Locales, ConversionTest,
                         testing::Values(kPlainC, kUtf8, kLatin1, kEucJp, kShiftJis, kEbcdic),
                         testing::PrintToStringParamName());

TEST_P(ConversionTest, AsciiRunsOfEveryLengthAndAlignment) {
  // A character of several bytes, one cut short, bytes valid nowhere in UTF-8,
  // and trail bytes on their own; each alone and with ASCII behind it.
  std::string const tails[] = {"",         "\xC3\xA9",     "\xE2\x82\xAC", "\xF0\x9F\x98\x80",
                               "\xC3",     "\xE2\x82",     "\xFF",         "\x80",
                               "\xC0\x80", "\xED\xA0\x80", "\x83\x5C",     "\x8F\xA2\xB7"};
  for (std::size_t length = 0; length <= kLongestRun; ++length) {
    for (std::string const& tail : tails) {
      std::size_t const alignment = (length * 5 + tail.size()) % kAlignments;
      for (std::string const& behind : {std::string(), std::string("z"), asciiRun(20)}) {
        std::string const text = asciiRun(length).append(tail).append(behind);
        expectConversion(AlignedText(text, alignment).get());
        if (HasFatalFailure()) return;
      }
    }
  }
}

TEST_P(ConversionTest, EveryAlignmentOfAShortAndALongRun) {
  for (std::size_t alignment = 0; alignment < kAlignments; ++alignment) {
    for (std::size_t length = 0; length <= kLongestRun; ++length) {
      std::string const text = asciiRun(length) + "\xC3\xA9";
      AlignedText const placed(text, alignment);
      std::wstring const expected = convertedByTheCLibrary(text).value_or(L"");
      LogRecorder const recorder;
      ASSERT_EQ(AString(placed.get()).const_cpp_str(), expected) << alignment << ", " << length;
    }
  }
}

TEST_P(ConversionTest, NothingIsReadBehindTheTerminator) {
  GuardedMemory const memory(kLongestRun + 4);
  for (std::size_t length = 0; length <= kLongestRun; ++length) {
    for (char const* const tail : {"", "\xC3", "\xC3\xA9", "\xE2\x82\xAC"}) {
      std::string const text = asciiRun(length) + tail;
      char* const place = memory.last<char>(text.size() + 1);
      expectConversion(std::strcpy(place, text.c_str()));
      if (HasFatalFailure()) return;
    }
  }
}

// Bytes of which most texts are valid in some of the locales.
std::string randomBytes(std::mt19937& random) {
  static constexpr char const* kPieces[] = {
      "a",        "Z",        R"(\)", "~", "\x01", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80",
      "\xA4\xA2", "\x83\x5C", "\xB1"};
  bool const anyBytes = random() % 4 == 0;
  std::size_t const count = random() % 24;
  std::string bytes;
  for (std::size_t i = 0; i < count; ++i) {
    if (anyBytes && random() % 4 == 0) {
      bytes += static_cast<char>(random() % 255 + 1);
    } else {
      bytes += kPieces[random() % std::size(kPieces)];
    }
  }
  return bytes;
}

TEST_P(ConversionTest, RandomBytesConvertAsByTheCLibrary) {
  std::mt19937 random(1234);
  int valid = 0;
  for (int round = 0; round < 6000; ++round) {
    std::string const bytes = randomBytes(random);
    if (convertedByTheCLibrary(bytes)) ++valid;
    expectConversion(bytes.c_str());
    if (HasFatalFailure()) return;
  }
  EXPECT_GT(valid, 50) << "too few valid texts for the test to mean something";
}

TEST_P(ConversionTest, EveryPairOfBytesConvertsAsByTheCLibrary) {
  for (int first = 1; first < 256; ++first) {
    for (int second = 1; second < 256; second += 3) {
      std::string const bytes = {static_cast<char>(first), static_cast<char>(second)};
      LogRecorder const recorder;
      std::optional<std::wstring> const expected = convertedByTheCLibrary(bytes);
      ASSERT_EQ(AString(bytes.c_str()).const_cpp_str(), expected.value_or(L""))
          << first << ", " << second;
      ASSERT_EQ(recorder.records(), expected ? Records() : noSpace()) << first << ", " << second;
    }
  }
}

TEST_P(ConversionTest, OneByteIsACharacterOrAnError) {
  for (int number = 0; number < 256; ++number) {
    char const byte = static_cast<char>(number);
    std::mbstate_t state{};
    wchar_t expected = 0;
    std::size_t const used = std::mbrtowc(&expected, &byte, 1, &state);
    bool const good = used == 1 && number != 0;
    wchar_t const character = good ? expected : L'\0';
    Records const records = good ? Records() : noCharacter();

    LogRecorder recorder;
    ASSERT_EQ(convertOne(byte), character) << number;
    ASSERT_EQ(recorder.records(), records) << number;

    recorder.clear();
    ASSERT_EQ(AString(byte).const_cpp_str(), std::wstring(1, character)) << number;
    ASSERT_EQ(recorder.records(), records) << number;

    recorder.clear();
    AString text(L"ab");
    ASSERT_EQ((text << byte).const_cpp_str(), L"ab" + std::wstring(1, character)) << number;
    ASSERT_EQ(recorder.records(), records) << number;

    recorder.clear();
    ASSERT_EQ((text = byte).const_cpp_str(), std::wstring(1, character)) << number;
    ASSERT_EQ(recorder.records(), records) << number;
  }
}

TEST_P(ConversionTest, BytesAreConvertedOneByOneWhateverCameBefore) {
  LogRecorder const recorder;
  for (int first = 0; first < 256; ++first) {
    for (int second = 1; second < 256; second += 5) {
      char const byte = static_cast<char>(second);
      std::mbstate_t state{};
      wchar_t expected = 0;
      if (std::mbrtowc(&expected, &byte, 1, &state) != 1) expected = 0;
      convertOne(static_cast<char>(first));
      ASSERT_EQ(convertOne(byte), expected) << first << ", " << second;
    }
  }
}

TEST(TextConversionTest, TextWithAnInvalidSequenceLogsOneErrorAndGivesNothing) {
  LocaleScope const locale("C.UTF-8");
  for (char const* const text : {"\xC3", "abc\xFF", "\xFF\xFE\xFD", "a\x80z", "\xC3(", "\xE2\x82",
                                 "long enough for words \xC0\x80 and more behind it"}) {
    LogRecorder recorder;
    EXPECT_EQ(AString(text).const_cpp_str(), L"");
    EXPECT_EQ(recorder.records(), noSpace()) << testing::PrintToString(text);

    recorder.clear();
    AString appended(L"kept");
    appended << text << "!";
    EXPECT_EQ(appended.const_cpp_str(), L"kept!");
    EXPECT_EQ(recorder.records(), noSpace());

    recorder.clear();
    AString assigned(L"replaced");
    assigned = text;
    EXPECT_EQ(assigned.const_cpp_str(), L"");
    EXPECT_EQ(recorder.records(), noSpace());
  }
}

TEST(TextConversionTest, ErrorShowsTheOpenScopes) {
  LocaleScope const locale("C.UTF-8");
  LogRecorder recorder;
  ADetailTrace const outer(L"Log", L"Main thread");
  AnInfoTrace const inner(L"Xml", L"read");
  recorder.clear();
  EXPECT_EQ(AString("\xC3").const_cpp_str(), L"");
  EXPECT_EQ(
      recorder.records(),
      Records({errorRecord(L"String", L"Error trace:"), errorRecord(L"Log", L" [Main thread]->"),
               errorRecord(L"Xml", L" [read]->"),
               errorRecord(L"String", L"  couldn't query space for wide character conversion")}));
}

TEST(TextConversionTest, Utf8BecomesOneCharacterPerCodePoint) {
  LocaleScope const locale("C.UTF-8");
  LogRecorder const recorder;
  char const text[] = "a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80z";
  EXPECT_EQ(conversionSpaceRequired(text), 5UL);
  EXPECT_EQ(AString(text).const_cpp_str(), L"a\u00e4\u20ac\U0001F600z");
  EXPECT_EQ((AString(L"x") << text).const_cpp_str(), L"xa\u00e4\u20ac\U0001F600z");
  EXPECT_EQ(recorder.records(), Records());
}

TEST(TextConversionTest, LocaleIsTheOneOfTheMoment) {
  LogRecorder recorder;
  for (int round = 0; round < 2; ++round) {
    {
      LocaleScope const locale("C.UTF-8");
      recorder.clear();
      EXPECT_EQ(AString("\xC3\xA4").const_cpp_str(), L"\u00e4");
      EXPECT_EQ(recorder.records(), Records());
    }
    LocaleScope const locale("C");
    recorder.clear();
    std::optional<std::wstring> const expected = convertedByTheCLibrary("\xC3\xA4");
    EXPECT_EQ(AString("\xC3\xA4").const_cpp_str(), expected.value_or(L""));
    EXPECT_EQ(recorder.records(), expected ? Records() : noSpace());
  }
}

TEST(TextConversionTest, LocaleMadeAfterAsciiTextsIsObeyed) {
  EXPECT_EQ(AString("1\\2~3").const_cpp_str(), L"1\\2~3");
  ChosenLocale const shiftJis(kShiftJis);
  if (!shiftJis.whyMissing().empty()) GTEST_SKIP() << shiftJis.whyMissing();
  wchar_t expected = 0;
  ASSERT_EQ(std::mbtowc(&expected, "\\", 1), 1);
  ASSERT_NE(expected, L'\\') << "the character map is a superset of ASCII after all";
  EXPECT_EQ(AString("1\\2").const_cpp_str(), std::wstring(L"1") + expected + L"2");
  EXPECT_EQ(convertOne('\\'), expected);
}

TEST(TextConversionTest, LocaleIsNeverSet) {
  LogRecorder const recorder;
  for (char const* const name : {"C", "C.UTF-8"}) {
    LocaleScope const locale(name);
    AString("\xC3\xA4") << "\xC3" << 'a' << '\xC3' << 1L << AFormat(L"\u00e4", L"^", 5, -1);
    AString(L"\u00e4").toInt();
    EXPECT_STREQ(std::setlocale(LC_ALL, nullptr), name);
  }
}

TEST(TextConversionTest, CLibrarysHiddenStateDoesNotMatter) {
  LocaleScope const locale("C.UTF-8");
  LogRecorder const recorder;
  wchar_t ignored = 0;
  std::mbtowc(&ignored, "\xC3", 1);
  EXPECT_EQ(convertOne('a'), L'a');
  std::mbtowc(&ignored, "\xC3", 1);
  EXPECT_EQ(AString("b").const_cpp_str(), L"b");
  std::mbtowc(&ignored, "\xC3", 1);
  EXPECT_EQ(AString('c').const_cpp_str(), L"c");
  EXPECT_EQ(recorder.records(), Records());
  std::mbtowc(nullptr, nullptr, 0);
}

// Converts into the middle of a buffer; the characters around it stay.
TEST(ConvertTest, WritesCountCharactersAtTheOffset) {
  LogRecorder const recorder;
  for (int offset = 0; offset < 40; ++offset) {
    for (int count = 0; count < 40; ++count) {
      std::wstring buffer(90, L'#');
      std::string const source = asciiRun(40);
      AString::convert(source.c_str(), buffer.data(), offset, count);
      std::wstring expected(90, L'#');
      auto const length = static_cast<std::size_t>(count);
      expected.replace(static_cast<std::size_t>(offset), length,
                       std::wstring(source.begin(), source.begin() + count));
      ASSERT_EQ(buffer, expected) << offset << ", " << count;
    }
  }
  EXPECT_EQ(recorder.records(), Records());
}

TEST(ConvertTest, WritesATerminatorWhereThereIsRoomForIt) {
  LogRecorder const recorder;
  std::array<wchar_t, 6> buffer{L'#', L'#', L'#', L'#', L'#', L'#'};
  AString::convert("ab", buffer.data(), 1, 4);
  EXPECT_EQ(buffer, (std::array<wchar_t, 6>{L'#', L'a', L'b', L'\0', L'#', L'#'}));
  EXPECT_EQ(recorder.records(), Records());
}

TEST(ConvertTest, NegativeCountWritesNothing) {
  LogRecorder const recorder;
  for (int const count : {-1, -7, INT_MIN}) {
    std::wstring buffer(5, L'#');
    AString::convert("ab\xFF", buffer.data(), 1, count);
    EXPECT_EQ(buffer, L"#####");
  }
  EXPECT_EQ(recorder.records(), Records());
}

TEST(ConvertTest, CountsCharactersNotBytes) {
  LocaleScope const locale("C.UTF-8");
  LogRecorder const recorder;
  std::wstring buffer(5, L'#');
  AString::convert("\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80", buffer.data(), 1, 2);
  EXPECT_EQ(buffer, L"#\u00e4\u20ac##");
  EXPECT_EQ(recorder.records(), Records());
}

TEST(ConvertTest, AgreesWithTheCLibraryForEveryCount) {
  for (char const* const name : {"C", "C.UTF-8"}) {
    LocaleScope const locale(name);
    std::string const sources[] = {"", "abc", asciiRun(30),
                                   asciiRun(20) +
                                       "\xC3\xA9\xE2\x82\xAC"
                                       "end",
                                   "\xF0\x9F\x98\x80" + asciiRun(9)};
    for (std::string const& source : sources) {
      for (std::size_t count = 0; count <= source.size() + 2; ++count) {
        std::wstring expected(60, L'#');
        std::size_t const result = std::mbstowcs(expected.data(), source.c_str(), count);
        bool const failed = result == static_cast<std::size_t>(-1);
        std::wstring buffer(60, L'#');
        LogRecorder const recorder;
        AString::convert(source.c_str(), buffer.data(), 0, static_cast<int>(count));
        ASSERT_EQ(recorder.records(), failed ? noConversion() : Records()) << source << count;
        // What a failure leaves in the buffer is not defined, only where it ends.
        std::size_t const defined = failed ? count : 0;
        ASSERT_EQ(buffer.substr(defined), expected.substr(defined)) << source << count;
      }
    }
  }
}

TEST(ConvertTest, InvalidSequenceWithinTheCountIsLogged) {
  LocaleScope const locale("C.UTF-8");
  LogRecorder recorder;
  std::wstring buffer(8, L'#');
  AString::convert("ab\xFF", buffer.data(), 0, 3);
  EXPECT_EQ(recorder.records(), noConversion());

  recorder.clear();
  AString::convert("ab\xFF", buffer.data(), 0, 2);
  EXPECT_EQ(recorder.records(), Records());
  EXPECT_EQ(buffer.substr(0, 2), L"ab");
}

TEST(ConversionSpaceRequiredTest, CountsCharactersWithoutTheTerminator) {
  LocaleScope const locale("C.UTF-8");
  LogRecorder const recorder;
  EXPECT_EQ(conversionSpaceRequired(""), 0UL);
  EXPECT_EQ(conversionSpaceRequired("abc"), 3UL);
  EXPECT_EQ(conversionSpaceRequired("\xE2\x82\xAC"), 1UL);
  std::string const longText(1000000, 'x');
  EXPECT_EQ(conversionSpaceRequired((longText + "\xC3\xA9").c_str()), 1000001UL);
  EXPECT_EQ(recorder.records(), Records());
}

TEST(TextConversionTest, ConvertsVeryLongTextsBeyondAscii) {
  LocaleScope const locale("C.UTF-8");
  constexpr std::size_t kRepeats = 200000;
  std::string narrow;
  std::wstring wide;
  for (std::size_t i = 0; i < kRepeats; ++i) {
    narrow +=
        "ab\xC3\xA4"
        "c\xF0\x9F\x98\x80";
    wide += L"ab\u00e4c\U0001F600";
  }
  LogRecorder recorder;
  EXPECT_TRUE(AString(narrow.c_str()).const_cpp_str() == wide);
  EXPECT_EQ(recorder.records(), Records());
  narrow += "\xC3";
  EXPECT_TRUE(AString(narrow.c_str()).const_cpp_str().empty());
  EXPECT_EQ(recorder.records(), noSpace());
}

// Counts what it is told, from all threads.
class CountingLogger final : public ILogger {
public:
  CountingLogger() : before_(SetLogger(this)) {}

  ~CountingLogger() override { SetLogger(before_); }

  void start() override {}

  void attach(std::wstring const& /*name*/) override {}

  void setMinLogLevel(LogLevel const& /*level*/) override {}

  bool isDetailLoggingEnabled() override { return false; }

  void logMessage(LogLevel const& /*level*/, std::wstring const& /*group*/,
                  std::wstring const& /*message*/) override {
    records_.fetch_add(1, std::memory_order_relaxed);
  }

  long records() const { return records_.load(); }

private:
  ILogger* before_;
  std::atomic<long> records_ = 0;
};

// mbtowc keeps what an incomplete sequence leaves behind in one place for all
// threads: whoever converts by it fails, now and then, at another's bytes.
TEST(TextConversionTest, BadBytesOfOneThreadDoNotReachAnother) {
  LocaleScope const locale("C.UTF-8");
  constexpr long kRounds = 30000;
  static constexpr std::array kBadBytes = {'\xC3', '\xE2', '\xA9', '\xFF', '\xF0'};
  CountingLogger const logger;
  std::latch start(2);

  std::thread bad([&start] {
    start.arrive_and_wait();
    for (std::size_t i = 0; i < kRounds; ++i) {
      convertOne(kBadBytes[i % kBadBytes.size()]);
    }
  });
  long wrong = 0;
  start.arrive_and_wait();
  for (long i = 0; i < kRounds; ++i) {
    char const byte = static_cast<char>('a' + i % 26);
    if (convertOne(byte) != static_cast<wchar_t>(byte)) ++wrong;
    if (AString("\xC3\xA9").const_cpp_str() != L"\u00e9") ++wrong;
  }
  bad.join();

  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(logger.records(), 2 * kRounds) << "two records for each bad byte, none for a good one";
}

}  // namespace
}  // namespace vrxutil::test

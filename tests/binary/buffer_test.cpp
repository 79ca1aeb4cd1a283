#include "tests/support/log_recorder.h"
#include "tests/support/memory_shortage.h"

#include <vrxutil/binary.h>
#include <vrxutil/log.h>

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace vrxutil::test {
namespace {

using Records = std::vector<LogRecord>;
using Bytes = AnObjectBuffer<unsigned char>;

// --- Types ------------------------------------------------------------------------

static_assert(sizeof(ABuffer) == sizeof(std::string));
static_assert(sizeof(Bytes) == sizeof(ABuffer));
static_assert(!std::is_polymorphic_v<ABuffer>);
static_assert(!std::is_polymorphic_v<Bytes>);
static_assert(std::is_base_of_v<ABuffer, Bytes> && std::is_convertible_v<Bytes*, ABuffer*>);
static_assert(std::is_constructible_v<ABuffer, char const*>);
static_assert(std::is_constructible_v<ABuffer, unsigned long, unsigned char const*>);
static_assert(std::is_constructible_v<ABuffer, std::string const&>);
static_assert(std::is_constructible_v<Bytes, unsigned int, unsigned char const*>);
static_assert(std::is_constructible_v<Bytes, std::string>);
static_assert(std::is_convertible_v<Bytes const&, unsigned char const*>);
static_assert(std::is_copy_constructible_v<ABuffer> && std::is_copy_constructible_v<Bytes>);
static_assert(
    std::is_same_v<decltype(std::declval<ABuffer&>() = std::declval<ABuffer const&>()), ABuffer&>);
static_assert(
    std::is_same_v<decltype(std::declval<Bytes&>() = std::declval<Bytes const&>()), Bytes&>);
static_assert(
    std::is_same_v<decltype(std::declval<ABuffer const&>().getBytes()), unsigned char const*>);
static_assert(std::is_same_v<decltype(std::declval<ABuffer const&>().size()), unsigned long>);
static_assert(std::is_same_v<decltype(std::declval<ABuffer&>().cpp_str()), std::string&>);

// --- Helpers ----------------------------------------------------------------------

unsigned char const* bytesOf(char const* text) {
  return reinterpret_cast<unsigned char const*>(text);
}

unsigned char const* bytesOf(std::string const& text) { return bytesOf(text.data()); }

constexpr unsigned char const* kNoSource = nullptr;

std::string contents(ABuffer const& buffer) {
  return {reinterpret_cast<char const*>(buffer.getBytes()), buffer.size()};
}

// NOLINTNEXTLINE(modernize-return-braced-init-list): braces would list two characters
std::string zeros(std::size_t count) { return std::string(count, '\0'); }

// Bytes that differ from their neighbours.
std::string pattern(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>('A' + i % 57);
  return bytes;
}

// Exactly these bytes, and the zero byte after them.
void expectContents(ABuffer& buffer, std::string const& expected) {
  EXPECT_EQ(buffer.size(), expected.size());
  EXPECT_EQ(contents(buffer), expected);
  EXPECT_EQ(buffer.cpp_str(), expected);
  EXPECT_EQ(buffer.getBytes()[buffer.size()], 0);
  EXPECT_TRUE(buffer.checkAllocation());
}

void writeByte(ABuffer const& buffer, std::size_t index, unsigned char value) {
  const_cast<unsigned char*>(buffer.getBytes())[index] = value;
}

// Blocks that a buffer of a mebibyte needs cannot be had; those of a log record can.
constexpr std::size_t kUnobtainable = std::size_t{1} << 20;

constexpr unsigned long kHugest = std::numeric_limits<unsigned long>::max();

// The one error that a failed resizing logs, whatever the library calls the exception.
void expectOneFailure(LogRecorder const& recorder, std::wstring const& size) {
  Records const all = recorder.records();
  ASSERT_EQ(all.size(), 2U);
  EXPECT_EQ(all[0], errorRecord(L"Buffer", L"Error trace:"));
  EXPECT_EQ(all[1].level, vornix_com::oxa::logger::LogLevel::error);
  EXPECT_EQ(all[1].group, L"Buffer");
  std::wstring const begin = L"  Exception ";
  std::wstring const end = L" trying to allocate " + size + L" bytes";
  std::wstring const& message = all[1].message;
  EXPECT_TRUE(message.starts_with(begin) && message.ends_with(end) &&
              message.size() > begin.size() + end.size())
      << testing::PrintToString(all[1]);
}

Records outOfMemory(unsigned long size) {
  return {errorRecord(L"Buffer", L"Error trace:"),
          errorRecord(L"Buffer", L"  Exception std::bad_alloc trying to allocate " +
                                     std::to_wstring(size) + L" bytes")};
}

Records overflow() { return {errorRecord(L"Buffer", L"internal error: Buffer overflow")}; }

// Every test looks at the log: only failures write to it.
class ABufferTest : public testing::Test {
protected:
  LogRecorder recorder;
};

using AnObjectBufferTest = ABufferTest;

// --- Making -----------------------------------------------------------------------

TEST_F(ABufferTest, IsMadeOfATextWithoutItsTerminator) {
  struct {
    char const* name;
    char const* text;
    std::string expected;
  } const rows[] = {
      {"null", nullptr, ""},
      {"empty", "", ""},
      {"one letter", "a", "a"},
      {"some letters", "some letters", "some letters"},
      {"ends at the first zero", "ab\0cd", "ab"},
      {"high bytes", "\xFF\x80\x7F", "\xFF\x80\x7F"},
  };

  for (auto const& row : rows) {
    SCOPED_TRACE(row.name);
    ABuffer buffer(row.text);
    expectContents(buffer, row.expected);
  }
  std::string const longText(100000, 'x');
  ABuffer buffer(longText.c_str());
  expectContents(buffer, longText);
  EXPECT_EQ(recorder.records(), Records());
}

TEST_F(ABufferTest, IsMadeOfASizeAndASource) {
  std::string const source = std::string("ab\0cd", 5) + pattern(10000);
  for (unsigned long const size : {0UL, 1UL, 2UL, 5UL, 15UL, 16UL, 17UL, 10000UL}) {
    SCOPED_TRACE(size);
    ABuffer copied(size, bytesOf(source));
    expectContents(copied, source.substr(0, size));
    ABuffer zeroed(size, nullptr);
    expectContents(zeroed, zeros(size));
  }
  EXPECT_EQ(recorder.records(), Records());
}

TEST_F(ABufferTest, EmptyBufferPointsAtAZeroByte) {
  ABuffer fromText("");
  ABuffer fromSize(0, nullptr);
  for (ABuffer* const buffer : {&fromText, &fromSize}) {
    ASSERT_NE(buffer->getBytes(), nullptr);
    EXPECT_EQ(*buffer->getBytes(), 0);
    EXPECT_EQ(buffer->size(), 0U);
    EXPECT_TRUE(buffer->checkAllocation());
  }
  EXPECT_EQ(recorder.records(), Records());
}

TEST_F(ABufferTest, IsMadeOfAByteString) {
  for (std::string const& bytes : {std::string(), std::string("a\0b", 3), pattern(1000)}) {
    ABuffer buffer(bytes);
    expectContents(buffer, bytes);
    EXPECT_NE(static_cast<void const*>(buffer.getBytes()), bytes.data());
  }
}

TEST_F(ABufferTest, CopiesAreIndependent) {
  for (std::string const& bytes : {std::string("short"), pattern(1000)}) {
    ABuffer original(bytes);
    ABuffer copy(original);
    ABuffer assigned("other");
    EXPECT_EQ(&(assigned = original), &assigned);
    writeByte(original, 0, '!');
    expectContents(copy, bytes);
    expectContents(assigned, bytes);
    original.shrinkTo(1);
    expectContents(copy, bytes);
    expectContents(assigned, bytes);
    expectContents(original, "!");
  }
}

TEST_F(ABufferTest, AssigningABufferToItselfChangesNothing) {
  ABuffer buffer("some letters");
  ABuffer const& same = buffer;
  EXPECT_EQ(&(buffer = same), &buffer);
  expectContents(buffer, "some letters");
}

TEST_F(ABufferTest, ByteStringIsTheBuffersOwn) {
  ABuffer buffer("ab");
  buffer.cpp_str() += std::string("c\0d", 3);
  expectContents(buffer, std::string("abc\0d", 5));
  ABuffer const& readOnly = buffer;
  EXPECT_EQ(&readOnly.cpp_str(), &buffer.cpp_str());
  EXPECT_EQ(static_cast<void const*>(buffer.cpp_str().data()), buffer.getBytes());
}

TEST_F(ABufferTest, WritingThroughTheBytesChangesTheBuffer) {
  ABuffer buffer(3, nullptr);
  for (std::size_t i = 0; i < 3; ++i) writeByte(buffer, i, static_cast<unsigned char>('a' + i));
  expectContents(buffer, "abc");
}

// --- Sizing -----------------------------------------------------------------------

struct Sizing {
  char const* name;
  std::string before;
  unsigned long size;
  std::string resized;  // the contents afterwards without a source
};

std::vector<Sizing> const& sizings() {
  static std::vector<Sizing> const all = {
      {"nothing to nothing", "", 0, ""},
      {"nothing to some", "", 5, zeros(5)},
      {"nothing to many", "", 1000, zeros(1000)},
      {"some to nothing", "abcd", 0, ""},
      {"some to fewer", "abcd", 2, "ab"},
      {"some to as many", "abcd", 4, "abcd"},
      {"some to more", "abcd", 7, "abcd" + zeros(3)},
      {"some to many", "abcd", 1000, "abcd" + zeros(996)},
      {"zero bytes stay", std::string("a\0b", 3), 4, std::string("a\0b\0", 4)},
      {"many to some", pattern(1000), 3, pattern(3)},
      {"many to more", pattern(1000), 5000, pattern(1000) + zeros(4000)},
  };
  return all;
}

TEST_F(ABufferTest, SizeIsSetExactly) {
  for (Sizing const& row : sizings()) {
    SCOPED_TRACE(row.name);
    ABuffer allocated(row.before);
    unsigned char const* const result = allocated.allocate(row.size, nullptr);
    EXPECT_EQ(result, allocated.getBytes());
    expectContents(allocated, row.resized);
    ABuffer changed(row.before);
    EXPECT_TRUE(changed.tryToChangeSizeTo(row.size));
    expectContents(changed, row.resized);
    ABuffer tried(row.before);
    EXPECT_TRUE(tried.tryAllocate(row.size, nullptr));
    expectContents(tried, row.resized);
  }
  EXPECT_EQ(recorder.records(), Records());
}

TEST_F(ABufferTest, SourceIsCopiedToTheStart) {
  std::string const source = std::string("\0x\xFF", 3) + pattern(5000);
  for (Sizing const& row : sizings()) {
    SCOPED_TRACE(row.name);
    ABuffer allocated(row.before);
    unsigned char const* const result = allocated.allocate(row.size, bytesOf(source));
    EXPECT_EQ(result, allocated.getBytes());
    expectContents(allocated, source.substr(0, row.size));
    ABuffer tried(row.before);
    EXPECT_TRUE(tried.tryAllocate(row.size, bytesOf(source)));
    expectContents(tried, source.substr(0, row.size));
  }
  EXPECT_EQ(recorder.records(), Records());
}

TEST_F(ABufferTest, DroppedBytesDoNotComeBack) {
  ABuffer buffer("secret");
  buffer.shrinkTo(1);
  EXPECT_TRUE(buffer.tryToChangeSizeTo(6));
  expectContents(buffer, "s" + zeros(5));
}

TEST_F(ABufferTest, ExpandingAppends) {
  struct {
    char const* name;
    std::string before;
    unsigned long count;
    char const* source;
    std::string expected;
  } const rows[] = {
      {"zeros", "abcd", 3, nullptr, "abcd" + zeros(3)},
      {"a source", "abcd", 3, "xyz", "abcdxyz"},
      {"part of a source", "abcd", 2, "xyz", "abcdxy"},
      {"nothing", "abcd", 0, nullptr, "abcd"},
      {"nothing of a source", "abcd", 0, "xyz", "abcd"},
      {"an empty buffer", "", 3, "xyz", "xyz"},
      {"an empty buffer, zeros", "", 3, nullptr, zeros(3)},
      {"zero bytes", std::string("a\0", 2), 3, "\0z\0", std::string("a\0\0z\0", 5)},
  };

  for (auto const& row : rows) {
    SCOPED_TRACE(row.name);
    ABuffer buffer(row.before);
    EXPECT_TRUE(buffer.tryExpandBy(row.count, bytesOf(row.source)));
    expectContents(buffer, row.expected);
  }
  EXPECT_EQ(recorder.records(), Records());
}

TEST_F(ABufferTest, ExpandingManyTimesKeepsEveryByte) {
  ABuffer buffer("");
  std::string const whole = pattern(20000);
  for (std::size_t at = 0; at < whole.size(); at += 20) {
    ASSERT_TRUE(buffer.tryExpandBy(20, bytesOf(whole) + at));
  }
  expectContents(buffer, whole);
}

TEST_F(ABufferTest, ShrinkingNeverGrows) {
  struct {
    unsigned long size;
    std::string expected;
  } const rows[] = {{0, ""},     {2, "ab"},    {3, "abc"},       {4, "abcd"},
                    {5, "abcd"}, {10, "abcd"}, {kHugest, "abcd"}};

  for (auto const& row : rows) {
    SCOPED_TRACE(row.size);
    ABuffer buffer("abcd");
    buffer.shrinkTo(row.size);
    expectContents(buffer, row.expected);
  }
  EXPECT_EQ(recorder.records(), Records());
}

// --- A source inside the buffer itself ------------------------------------------------

TEST_F(ABufferTest, SourceMayBeThePartOfTheBufferThatStays) {
  for (std::size_t const length : {6U, 15U, 16U, 1000U}) {
    std::string const bytes = pattern(length);
    for (std::size_t offset = 0; offset <= 6; ++offset) {
      for (std::size_t const size : {std::size_t{0}, (length - offset) / 2, length - offset}) {
        SCOPED_TRACE(std::to_string(length) + " from " + std::to_string(offset) + " take " +
                     std::to_string(size));
        ABuffer allocated(bytes);
        allocated.allocate(size, allocated.getBytes() + offset);
        expectContents(allocated, bytes.substr(offset, size));
        ABuffer tried(bytes);
        EXPECT_TRUE(tried.tryAllocate(size, tried.getBytes() + offset));
        expectContents(tried, bytes.substr(offset, size));
      }
    }
  }
  EXPECT_EQ(recorder.records(), Records());
}

TEST_F(ABufferTest, ExpandingByItsOwnBytesRepeatsThem) {
  for (std::size_t const length : {1U, 4U, 8U, 15U, 16U, 100U, 4096U}) {
    std::string const bytes = pattern(length);
    for (std::size_t const offset : {std::size_t{0}, length / 2, length}) {
      SCOPED_TRACE(std::to_string(length) + " from " + std::to_string(offset));
      ABuffer buffer(bytes);
      EXPECT_TRUE(buffer.tryExpandBy(length - offset, buffer.getBytes() + offset));
      expectContents(buffer, bytes + bytes.substr(offset));
    }
  }
}

TEST_F(ABufferTest, DoublingRepeatedlyKeepsEveryByte) {
  ABuffer buffer("ab");
  std::string expected = "ab";
  while (expected.size() < 100000) {
    ASSERT_TRUE(buffer.tryExpandBy(buffer.size(), buffer.getBytes()));
    expected += expected;
  }
  expectContents(buffer, expected);
}

// --- Sizes that cannot be had -----------------------------------------------------------

TEST_F(ABufferTest, SizeBeyondTheByteStringsMaximumIsRefused) {
  for (unsigned long const size : {kHugest, kHugest - 1, kHugest / 2 + 1}) {
    for (std::string const& bytes : {std::string(), std::string("abcd"), pattern(1000)}) {
      SCOPED_TRACE(size);
      std::wstring const digits = std::to_wstring(size);
      ABuffer buffer(bytes);
      recorder.clear();
      EXPECT_FALSE(buffer.tryToChangeSizeTo(size));
      expectOneFailure(recorder, digits);
      expectContents(buffer, bytes);
      recorder.clear();
      EXPECT_FALSE(buffer.tryAllocate(size, nullptr));
      expectOneFailure(recorder, digits);
      expectContents(buffer, bytes);
      recorder.clear();
      EXPECT_FALSE(buffer.tryAllocate(size, bytesOf("x")));
      expectOneFailure(recorder, digits);
      expectContents(buffer, bytes);
    }
  }
}

TEST_F(ABufferTest, ExpandingBeyondTheByteStringsMaximumIsRefused) {
  for (unsigned char const* const source : {kNoSource, bytesOf("x")}) {
    for (unsigned long const sum : {kHugest, kHugest / 2 + 1}) {
      ABuffer buffer("abcd");
      recorder.clear();
      EXPECT_FALSE(buffer.tryExpandBy(sum - 4, source));
      expectOneFailure(recorder, std::to_wstring(sum));
      expectContents(buffer, "abcd");
    }
  }
}

TEST_F(ABufferTest, DigitsOfARefusedSizeAreThoseOfTheHostsUnsignedLong) {
  ABuffer buffer("abcd");
  EXPECT_FALSE(buffer.tryToChangeSizeTo(kHugest));
  expectOneFailure(recorder, sizeof(unsigned long) == 8 ? L"18446744073709551615" : L"4294967295");
}

TEST_F(ABufferTest, RefusedSizeIsLoggedWithTheTraceOfTheThread) {
  ATrace const scope(L"File", L"read", /*detail=*/false, /*logNow=*/false);
  ABuffer buffer("abcd");
  EXPECT_FALSE(buffer.tryToChangeSizeTo(kHugest));
  Records const all = recorder.records();
  ASSERT_EQ(all.size(), 3U);
  EXPECT_EQ(all[0], errorRecord(L"Buffer", L"Error trace:"));
  EXPECT_EQ(all[1], errorRecord(L"File", L" [read]->"));
}

TEST_F(ABufferTest, MemoryThatCannotBeHadIsReportedWithTheExceptionsText) {
  for (std::string const& bytes : {std::string(), std::string("abcd"), pattern(1000)}) {
    SCOPED_TRACE(bytes.size());
    ABuffer buffer(bytes);
    MemoryShortage const shortage(kUnobtainable);
    recorder.clear();
    EXPECT_FALSE(buffer.tryToChangeSizeTo(kUnobtainable));
    EXPECT_EQ(recorder.records(), outOfMemory(kUnobtainable));
    recorder.clear();
    EXPECT_FALSE(buffer.tryAllocate(kUnobtainable + 1, nullptr));
    EXPECT_EQ(recorder.records(), outOfMemory(kUnobtainable + 1));
    recorder.clear();
    EXPECT_FALSE(buffer.tryExpandBy(kUnobtainable, nullptr));
    EXPECT_EQ(recorder.records(), outOfMemory(bytes.size() + kUnobtainable));
    expectContents(buffer, bytes);
  }
}

// Not even a record can be made then.
TEST_F(ABufferTest, MemoryThatCannotBeHadForTheRecordEitherIsARefusalToo) {
  for (std::string const& bytes : {std::string(), std::string("abcd"), pattern(1000)}) {
    SCOPED_TRACE(bytes.size());
    ABuffer buffer(bytes);
    bool refused = false;
    {
      MemoryShortage const shortage(/*size=*/1);
      refused = !buffer.tryToChangeSizeTo(5000) && !buffer.tryAllocate(5000, bytesOf("x")) &&
                !buffer.tryExpandBy(5000, nullptr) && !buffer.tryExpandBy(kHugest / 2, nullptr);
    }
    EXPECT_TRUE(refused);
    expectContents(buffer, bytes);
  }
}

TEST_F(ABufferTest, SourceIsNotReadWhenMemoryCannotBeHad) {
  ABuffer buffer("abcd");
  MemoryShortage const shortage(kUnobtainable);
  EXPECT_FALSE(buffer.tryAllocate(kUnobtainable, bytesOf("x")));
  EXPECT_FALSE(buffer.tryExpandBy(kUnobtainable, bytesOf("x")));
  EXPECT_FALSE(buffer.tryExpandBy(kUnobtainable, buffer.getBytes()));
  expectContents(buffer, "abcd");
}

TEST_F(ABufferTest, BufferWorksOnAfterARefusal) {
  ABuffer buffer("abcd");
  EXPECT_FALSE(buffer.tryToChangeSizeTo(kHugest));
  recorder.clear();
  EXPECT_TRUE(buffer.tryExpandBy(2, bytesOf("ef")));
  expectContents(buffer, "abcdef");
  EXPECT_EQ(recorder.records(), Records());
}

TEST_F(ABufferTest, AllocateThrowsAndLogsNothing) {
  for (std::string const& bytes : {std::string(), std::string("abcd"), pattern(1000)}) {
    SCOPED_TRACE(bytes.size());
    ABuffer buffer(bytes);
    EXPECT_THROW(buffer.allocate(kHugest, nullptr), std::length_error);
    EXPECT_THROW(buffer.allocate(kHugest, bytesOf("x")), std::length_error);
    expectContents(buffer, bytes);
    MemoryShortage const shortage(kUnobtainable);
    EXPECT_THROW(buffer.allocate(kUnobtainable, nullptr), std::bad_alloc);
    EXPECT_THROW(buffer.allocate(kUnobtainable, bytesOf("x")), std::bad_alloc);
    expectContents(buffer, bytes);
  }
  EXPECT_EQ(recorder.records(), Records());
}

TEST_F(ABufferTest, ConstructorsThrowAndLogNothing) {
  EXPECT_THROW(ABuffer(kHugest, nullptr), std::length_error);
  EXPECT_THROW(ABuffer(kHugest, bytesOf("x")), std::length_error);
  std::string const longText(kUnobtainable, 'x');
  ABuffer const longBuffer(longText);
  ABuffer shortBuffer("abcd");
  {
    MemoryShortage const shortage(kUnobtainable);
    EXPECT_THROW(ABuffer(kUnobtainable, nullptr), std::bad_alloc);
    EXPECT_THROW(ABuffer{longText}, std::bad_alloc);
    EXPECT_THROW(ABuffer{longText.c_str()}, std::bad_alloc);
    EXPECT_THROW(ABuffer{longBuffer}, std::bad_alloc);
    EXPECT_THROW(shortBuffer = longBuffer, std::bad_alloc);
    EXPECT_THROW(Bytes(static_cast<unsigned int>(kUnobtainable), nullptr), std::bad_alloc);
  }
  expectContents(shortBuffer, "abcd");
  EXPECT_EQ(recorder.records(), Records());
}

// --- Sums beyond the range ------------------------------------------------------------

TEST_F(ABufferTest, SumBeyondTheRangeWithoutASourceIsThePlainSum) {
  struct {
    unsigned long count;
    std::string expected;
  } const rows[] = {{kHugest, "abc"}, {kHugest - 1, "ab"}, {kHugest - 2, "a"}, {kHugest - 3, ""}};

  for (auto const& row : rows) {
    SCOPED_TRACE(row.count);
    ABuffer buffer("abcd");
    EXPECT_TRUE(buffer.tryExpandBy(row.count, nullptr));
    expectContents(buffer, row.expected);
  }
  EXPECT_EQ(recorder.records(), Records());
}

TEST_F(ABufferTest, SumBeyondTheRangeWithASourceIsRefused) {
  for (unsigned long const count : {kHugest, kHugest - 1, kHugest - 3}) {
    for (bool const fromItself : {false, true}) {
      SCOPED_TRACE(count);
      ABuffer buffer("abcd");
      recorder.clear();
      EXPECT_FALSE(buffer.tryExpandBy(count, fromItself ? buffer.getBytes() : bytesOf("x")));
      expectContents(buffer, "abcd");
      Records const errors = recorder.plainErrors();
      ASSERT_EQ(errors.size(), 1U);
      EXPECT_EQ(errors[0].group, L"Buffer");
      EXPECT_TRUE(errors[0].message.starts_with(L"Exception ") &&
                  errors[0].message.ends_with(L" bytes"))
          << testing::PrintToString(errors[0]);
    }
  }
}

// --- Overruns -------------------------------------------------------------------------

TEST_F(ABufferTest, OverrunIsFoundReportedAndLeft) {
  // Sizes inside the string object, and such as fill the string's block exactly.
  for (std::size_t const size : {0U, 1U, 14U, 15U, 16U, 30U, 31U, 100U, 4096U}) {
    SCOPED_TRACE(size);
    ABuffer buffer(size, nullptr);
    recorder.clear();
    writeByte(buffer, size, 0x55);
    EXPECT_FALSE(buffer.checkAllocation());
    EXPECT_EQ(recorder.records(), overflow());
    EXPECT_EQ(buffer.getBytes()[size], 0x55);
    EXPECT_EQ(buffer.size(), size);
    recorder.clear();
    EXPECT_FALSE(buffer.checkAllocation());
    EXPECT_EQ(recorder.records(), overflow());

    recorder.clear();
    writeByte(buffer, size, 0);
    EXPECT_TRUE(buffer.checkAllocation());
    EXPECT_EQ(recorder.records(), Records());
    expectContents(buffer, zeros(size));
  }
}

TEST_F(ABufferTest, OverrunOfEveryValueIsFound) {
  ABuffer buffer("abcd");
  for (unsigned int value = 1; value < 256; ++value) {
    writeByte(buffer, 4, static_cast<unsigned char>(value));
    EXPECT_FALSE(buffer.checkAllocation()) << value;
  }
  writeByte(buffer, 4, 0);
  EXPECT_TRUE(buffer.checkAllocation());
}

TEST_F(ABufferTest, OverrunIsReportedWithoutTheTrace) {
  ATrace const scope(L"File", L"read", /*detail=*/false, /*logNow=*/false);
  ABuffer buffer("abcd");
  writeByte(buffer, 4, 1);
  EXPECT_FALSE(buffer.checkAllocation());
  EXPECT_EQ(recorder.records(), overflow());
  writeByte(buffer, 4, 0);
}

// The copy ends before the byte, so that an overrun that happened before is found.
TEST_F(ABufferTest, OverrunIsFoundAfterACopyThatKeepsTheSize) {
  struct {
    char const* name;
    bool (*copy)(ABuffer& buffer);
    char const* expected;
  } const rows[] = {
      {"tryAllocate", [](ABuffer& b) { return b.tryAllocate(4, bytesOf("wxyz")); }, "wxyz"},
      {"tryAllocate of itself", [](ABuffer& b) { return b.tryAllocate(4, b.getBytes()); }, "abcd"},
      {"tryExpandBy", [](ABuffer& b) { return b.tryExpandBy(0, bytesOf("wxyz")); }, "abcd"},
  };

  for (auto const& row : rows) {
    SCOPED_TRACE(row.name);
    ABuffer buffer("abcd");
    writeByte(buffer, 4, '!');
    recorder.clear();
    EXPECT_FALSE(row.copy(buffer));
    EXPECT_EQ(recorder.records(), overflow());
    EXPECT_EQ(contents(buffer), row.expected);
    EXPECT_EQ(buffer.getBytes()[4], '!');
    writeByte(buffer, 4, 0);
  }
}

TEST_F(ABufferTest, AllocateIgnoresTheResultOfTheCheck) {
  ABuffer buffer("abcd");
  writeByte(buffer, 4, '!');
  unsigned char const* const result = buffer.allocate(4, bytesOf("wxyz"));
  EXPECT_EQ(result, buffer.getBytes());
  EXPECT_EQ(recorder.records(), overflow());
  EXPECT_EQ(contents(buffer), "wxyz");
  writeByte(buffer, 4, 0);
}

TEST_F(ABufferTest, CopyOfAnotherSizeSetsTheByteBehindIt) {
  for (unsigned long const size : {3UL, 5UL}) {
    ABuffer buffer("abcd");
    writeByte(buffer, 4, '!');
    EXPECT_TRUE(buffer.tryAllocate(size, bytesOf("vwxyz")));
    expectContents(buffer, std::string("vwxyz").substr(0, size));
  }
  ABuffer buffer("abcd");
  writeByte(buffer, 4, '!');
  EXPECT_TRUE(buffer.tryExpandBy(1, bytesOf("e")));
  expectContents(buffer, "abcde");
  EXPECT_EQ(recorder.records(), Records());
}

TEST_F(ABufferTest, SizingWithoutASourceMakesNoCheck) {
  ABuffer buffer("abcd");
  writeByte(buffer, 4, '!');
  buffer.allocate(4, nullptr);
  EXPECT_TRUE(buffer.tryAllocate(4, nullptr));
  EXPECT_TRUE(buffer.tryExpandBy(0, nullptr));
  EXPECT_TRUE(buffer.tryToChangeSizeTo(4));
  buffer.shrinkTo(4);
  EXPECT_EQ(recorder.records(), Records());
  writeByte(buffer, 4, 0);
}

// --- AnObjectBuffer -------------------------------------------------------------------

TEST_F(AnObjectBufferTest, IsMadeOfASizeAndASource) {
  Bytes copied(3U, bytesOf("xyzzy"));
  expectContents(copied, "xyz");
  Bytes zeroed(5U, nullptr);
  expectContents(zeroed, zeros(5));
  Bytes empty(0U, nullptr);
  expectContents(empty, "");
}

TEST_F(AnObjectBufferTest, IsMadeOfAByteString) {
  for (std::string const& bytes : {std::string(), std::string("a\0b", 3), pattern(1000)}) {
    Bytes buffer(bytes);
    expectContents(buffer, bytes);
  }
}

TEST_F(AnObjectBufferTest, ConvertsToItsBytes) {
  Bytes const buffer(std::string("abc"));
  unsigned char const* const bytes = buffer;
  EXPECT_EQ(bytes, buffer.getBytes());
}

TEST_F(AnObjectBufferTest, CopiesAreIndependent) {
  Bytes original(std::string("abc"));
  Bytes copy(original);
  Bytes assigned(9U, nullptr);
  EXPECT_EQ(&(assigned = original), &assigned);
  Bytes const& same = assigned;
  assigned = same;
  writeByte(original, 0, '!');
  expectContents(copy, "abc");
  expectContents(assigned, "abc");
}

TEST_F(AnObjectBufferTest, HasTheOperationsOfABuffer) {
  Bytes buffer(std::string("abcd"));
  EXPECT_TRUE(buffer.tryExpandBy(3, bytesOf("xyz")));
  expectContents(buffer, "abcdxyz");
  buffer.shrinkTo(2);
  ABuffer const sliced = buffer;
  EXPECT_EQ(contents(sliced), "ab");
}

}  // namespace
}  // namespace vrxutil::test

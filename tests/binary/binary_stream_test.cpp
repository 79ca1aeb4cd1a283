#include "tests/support/locale_scope.h"
#include "tests/support/log_recorder.h"
#include "tests/support/memory_shortage.h"
#include "tests/text/made_locale.h"

#include <vrxutil/binary.h>

#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <new>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

namespace vrxutil::test {
namespace {

using Byte = unsigned char;
using Bytes = std::vector<Byte>;
using Block = AnObjectBuffer<Byte>;
using Records = std::vector<LogRecord>;

static_assert(std::is_trivially_copyable_v<ABinaryStream>);
static_assert(!std::is_polymorphic_v<ABinaryStream>);
static_assert(std::is_same_v<decltype(std::declval<ABinaryStream&>().readLong()), unsigned long>);
static_assert(std::is_same_v<decltype(std::declval<ABinaryStream&>().readShort()), unsigned short>);
static_assert(std::is_same_v<decltype(std::declval<ABinaryStream&>().readChar()), char>);
static_assert(std::is_same_v<decltype(std::declval<ABinaryStream&>().getPointer()), Byte*>);

constexpr unsigned long kHugest = std::numeric_limits<unsigned long>::max();
constexpr Byte kUntouched = 0xEE;

// What a stream holds, in its order.
struct Fields {
  Byte* cursor;
  Byte* end;
  std::uint32_t hostIsLittleEndian;
  std::uint32_t littleEndian;
  std::uint32_t overflow;
};

Fields fieldsOf(ABinaryStream const& stream) {
  Fields fields;
  static_assert(sizeof fields == sizeof stream);
  std::memcpy(&fields, &stream, sizeof fields);
  return fields;
}

std::uintptr_t addressOf(Byte const* place) { return reinterpret_cast<std::uintptr_t>(place); }

std::string contents(Block const& block) {
  return {reinterpret_cast<char const*>(block.getBytes()), block.size()};
}

// A range of exactly `size` bytes, so that a sanitizer finds what is beyond it.
class Range {
public:
  explicit Range(std::size_t size) : bytes_(size, kUntouched), stream_(nullptr, 0, true) {
    bytes_.shrink_to_fit();
    use(/*littleEndian=*/true);
  }

  explicit Range(Bytes bytes) : bytes_(std::move(bytes)), stream_(nullptr, 0, true) {
    bytes_.shrink_to_fit();
    use(/*littleEndian=*/true);
  }

  ABinaryStream& use(bool littleEndian) {
    return stream_ = ABinaryStream(bytes_.data(), bytes_.size(), littleEndian);
  }

  ABinaryStream& stream() { return stream_; }

  Bytes const& bytes() const { return bytes_; }

  Byte* start() { return bytes_.data(); }

  // How far the cursor is from the start.
  long used() { return static_cast<long>(addressOf(stream_.getPointer()) - addressOf(start())); }

  bool overflowed() const { return fieldsOf(stream_).overflow != 0; }

private:
  Bytes bytes_;
  ABinaryStream stream_;
};

Records excess(std::wstring const& count) {
  return {errorRecord(L"BinStrm", L"internal error: Tried to write past buffer end by " + count)};
}

// Every test looks at the log: hardly anything writes to it.
class ABinaryStreamTest : public testing::Test {
protected:
  void expectNoRecords() const { EXPECT_EQ(recorder.records(), Records()); }

  // These bytes from the start of a range, and nothing behind them.
  static void expectWritten(Range& range, Bytes expected) {
    EXPECT_EQ(range.used(), static_cast<long>(expected.size()));
    expected.resize(range.bytes().size(), kUntouched);
    EXPECT_EQ(range.bytes(), expected);
    EXPECT_FALSE(range.overflowed());
  }

  // One record, with this number.
  void expectExcess(ABinaryStream const& stream, std::wstring const& count) {
    recorder.clear();
    EXPECT_TRUE(stream.pastEndError());
    EXPECT_EQ(recorder.records(), excess(count));
    recorder.clear();
  }

  LogRecorder recorder;
};

// --- Making -----------------------------------------------------------------------

TEST_F(ABinaryStreamTest, FieldsAreInTheirOrder) {
  Byte const one[] = {1, 0, 0, 0};
  std::uint32_t number = 0;
  std::memcpy(&number, one, sizeof number);
  bool const hostIsLittleEndian = number == 1;
  Range range(5);
  for (bool const littleEndian : {false, true}) {
    Fields const fields = fieldsOf(range.use(littleEndian));
    EXPECT_EQ(fields.cursor, range.start());
    EXPECT_EQ(fields.end, range.start() + 5);
    EXPECT_EQ(fields.hostIsLittleEndian != 0, hostIsLittleEndian);
    EXPECT_EQ(fields.littleEndian, littleEndian ? 1U : 0U);
    EXPECT_EQ(fields.overflow, 0U);
  }
  range.stream().pastEndWith(6);
  EXPECT_EQ(fieldsOf(range.stream()).overflow, 1U);
}

TEST_F(ABinaryStreamTest, HasNoRangeWithoutOne) {
  for (bool const littleEndian : {false, true}) {
    ABinaryStream stream(littleEndian);
    Fields const fields = fieldsOf(stream);
    EXPECT_EQ(fields.cursor, nullptr);
    EXPECT_EQ(fields.end, nullptr);
    EXPECT_EQ(fields.littleEndian, littleEndian ? 1U : 0U);
    EXPECT_EQ(stream.getPointer(), nullptr);
    EXPECT_TRUE(stream.atEnd());
    EXPECT_FALSE(stream.pastEndError());
    stream.writeString(AString());
    stream.writeString(0, AString(L"ab"));
    stream.writeBuffer(Block(0U, nullptr), 0);
    EXPECT_FALSE(stream.pastEndError());
    expectNoRecords();
    EXPECT_EQ(stream.readChar(), 0);
    expectExcess(stream, L"1");
  }
}

TEST_F(ABinaryStreamTest, ConstructStartsAfresh) {
  Range range(4);
  ABinaryStream stream(true);
  stream.writeChar('x');
  stream.construct(range.start(), range.start() + 2, false);
  EXPECT_FALSE(stream.pastEndError());
  EXPECT_FALSE(stream.atEnd());
  stream.writeShort(0x0102);
  EXPECT_TRUE(stream.atEnd());
  EXPECT_FALSE(stream.pastEndError());
  EXPECT_EQ(range.bytes(), (Bytes{1, 2, kUntouched, kUntouched}));
  stream.construct(range.start(), range.start() + 4, true);
  stream.writeShort(0x0304);
  EXPECT_EQ(range.bytes(), (Bytes{4, 3, kUntouched, kUntouched}));
  expectNoRecords();
}

TEST_F(ABinaryStreamTest, NewRangeForgetsTheOverflowAndKeepsTheOrder) {
  for (bool const littleEndian : {false, true}) {
    Range range(4);
    ABinaryStream stream(littleEndian);
    stream.writeLong(1);
    ASSERT_TRUE(stream.atEnd());
    stream.setPointer(range.start() + 1, 2);
    EXPECT_FALSE(stream.pastEndError());
    EXPECT_FALSE(stream.atEnd());
    EXPECT_EQ(stream.getPointer(), range.start() + 1);
    stream.writeShort(0x0102);
    EXPECT_TRUE(stream.atEnd());
    EXPECT_FALSE(stream.pastEndError());
    EXPECT_EQ(range.bytes(), littleEndian ? (Bytes{kUntouched, 2, 1, kUntouched})
                                          : (Bytes{kUntouched, 1, 2, kUntouched}));
  }
  expectNoRecords();
}

TEST_F(ABinaryStreamTest, CopiesGoTheirOwnWay) {
  Range range(Bytes{1, 2, 3});
  ABinaryStream copy = range.stream();
  EXPECT_EQ(copy.readChar(), 1);
  EXPECT_EQ(copy.readChar(), 2);
  EXPECT_EQ(range.stream().readChar(), 1);
  EXPECT_EQ(copy.readLong(), 0U);
  EXPECT_FALSE(range.stream().pastEndError());
  EXPECT_TRUE(copy.atEnd());
}

// --- Numbers ----------------------------------------------------------------------

TEST_F(ABinaryStreamTest, NumbersAreInTheOrderOfTheStream) {
  struct {
    bool littleEndian;
    Bytes expected;
  } const rows[] = {{true, {4, 3, 2, 1, 6, 5, 0x41, kUntouched}},
                    {false, {1, 2, 3, 4, 5, 6, 0x41, kUntouched}}};

  for (auto const& row : rows) {
    SCOPED_TRACE(row.littleEndian);
    Range range(8);
    ABinaryStream& stream = range.use(row.littleEndian);
    stream.writeLong(0x01020304);
    stream.writeShort(0x0506);
    stream.writeChar('A');
    EXPECT_EQ(stream.getPointer(), range.start() + 7);
    EXPECT_FALSE(stream.atEnd());
    EXPECT_EQ(range.bytes(), row.expected);
    stream.setPointer(range.start(), 8);
    EXPECT_EQ(stream.readLong(), 0x01020304U);
    EXPECT_EQ(stream.readShort(), 0x0506);
    EXPECT_EQ(stream.readChar(), 'A');
    EXPECT_EQ(stream.getPointer(), range.start() + 7);
    EXPECT_FALSE(stream.pastEndError());
  }
  expectNoRecords();
}

TEST_F(ABinaryStreamTest, EveryNumberComesBack) {
  unsigned long const longs[] = {0, 1, 0x7F, 0x80, 0xFF, 0x100, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
  unsigned short const shorts[] = {0, 1, 0x7F, 0x80, 0xFF, 0x100, 0x7FFF, 0x8000, 0xFFFF};
  for (bool const littleEndian : {false, true}) {
    Range range(4);
    for (unsigned long const number : longs) {
      range.use(littleEndian).writeLong(number);
      EXPECT_EQ(range.use(littleEndian).readLong(), number);
      EXPECT_EQ(range.use(littleEndian).readChar(), static_cast<char>(range.bytes()[0]));
    }
    for (unsigned short const number : shorts) {
      range.use(littleEndian).writeShort(number);
      EXPECT_EQ(range.use(littleEndian).readShort(), number);
    }
    for (int byte = 0; byte < 256; ++byte) {
      range.use(littleEndian).writeChar(static_cast<char>(byte));
      EXPECT_EQ(range.bytes()[0], byte);
      EXPECT_EQ(range.use(littleEndian).readChar(), static_cast<char>(byte));
    }
  }
}

TEST_F(ABinaryStreamTest, OnlyTheLow32BitsOfALongAreWritten) {
  Range range(4);
  range.use(/*littleEndian=*/false).writeLong(kHugest - 0xFE);
  EXPECT_EQ(range.bytes(), (Bytes{0xFF, 0xFF, 0xFF, 0x01}));
  EXPECT_EQ(range.use(false).readLong(), 0xFFFFFF01U);
}

TEST_F(ABinaryStreamTest, RangesNeedNoAlignment) {
  for (std::size_t offset = 0; offset < 9; ++offset) {
    for (bool const littleEndian : {false, true}) {
      alignas(16) std::array<Byte, 24> memory{};
      ABinaryStream stream(memory.data() + offset, 7, littleEndian);
      stream.writeChar('c');
      stream.writeLong(0xA1B2C3D4);
      stream.writeShort(0xE5F6);
      Bytes const expected = littleEndian ? Bytes{'c', 0xD4, 0xC3, 0xB2, 0xA1, 0xF6, 0xE5}
                                          : Bytes{'c', 0xA1, 0xB2, 0xC3, 0xD4, 0xE5, 0xF6};
      EXPECT_EQ(Bytes(memory.data() + offset, memory.data() + offset + 7), expected);
      stream.setPointer(memory.data() + offset, 7);
      EXPECT_EQ(stream.readChar(), 'c');
      EXPECT_EQ(stream.readLong(), 0xA1B2C3D4U);
      EXPECT_EQ(stream.readShort(), 0xE5F6);
    }
  }
}

// --- Texts ------------------------------------------------------------------------

TEST_F(ABinaryStreamTest, TextFillsItsField) {
  struct {
    char const* name;
    unsigned long length;
    wchar_t const* text;
    Bytes expected;
  } const rows[] = {
      {"shorter", 6, L"ab", {'a', 'b', 0, 0, 0, 0}},
      {"as long", 2, L"ab", {'a', 'b'}},
      {"cut", 1, L"ab", {'a'}},
      {"cut to nothing", 0, L"ab", {}},
      {"empty", 3, L"", {0, 0, 0}},
  };

  for (auto const& row : rows) {
    SCOPED_TRACE(row.name);
    Range range(8);
    range.stream().writeString(row.length, AString(row.text));
    expectWritten(range, row.expected);
  }
  expectNoRecords();
}

TEST_F(ABinaryStreamTest, TextOfNaturalLengthHasNoTerminator) {
  Range range(8);
  range.stream().writeString(AString(L"abc"));
  range.stream().writeString(AString());
  EXPECT_EQ(range.used(), 3);
  EXPECT_EQ(Bytes(range.bytes().begin(), range.bytes().begin() + 4),
            (Bytes{'a', 'b', 'c', kUntouched}));
  range.stream().writeString(AString(L"defgh"));
  EXPECT_EQ(range.bytes(), (Bytes{'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'}));
  EXPECT_TRUE(range.stream().atEnd());
  EXPECT_FALSE(range.stream().pastEndError());
  range.stream().writeString(AString());
  EXPECT_FALSE(range.overflowed());
  range.stream().writeString(AString(L"ij"));
  expectExcess(range.stream(), L"2");
}

TEST_F(ABinaryStreamTest, TextThatDoesNotFitLeavesTheRangeAlone) {
  Range natural(2);
  natural.stream().writeString(AString(L"abc"));
  EXPECT_EQ(natural.used(), 3);
  EXPECT_EQ(natural.bytes(), Bytes(2, kUntouched));
  expectExcess(natural.stream(), L"1");
  Range fixed(2);
  fixed.stream().writeString(3, AString(L"a"));
  EXPECT_EQ(fixed.used(), 3);
  EXPECT_EQ(fixed.bytes(), Bytes(2, kUntouched));
  expectExcess(fixed.stream(), L"1");
}

TEST_F(ABinaryStreamTest, TextIsInTheEncodingOfTheLocale) {
  AString const text(L"\u00e4b");
  {
    LocaleScope const locale("C.UTF-8");
    Range range(4);
    range.stream().writeString(text);
    EXPECT_EQ(range.bytes(), (Bytes{0xC3, 0xA4, 'b', kUntouched}));
    Range cut(2);
    cut.stream().writeString(1, text);
    EXPECT_EQ(cut.bytes(), (Bytes{0xC3, kUntouched}));
    AString back;
    range.stream().setPointer(range.start(), 3);
    range.stream().readString(3, back);
    EXPECT_EQ(back.const_cpp_str(), L"\u00e4b");
  }
  LocaleScope const locale("C");
  Range range(4);
  range.stream().writeString(4, text);
  EXPECT_EQ(range.bytes(), (Bytes{'?', 'b', 0, 0}));
  expectNoRecords();
}

TEST_F(ABinaryStreamTest, TextIsConvertedFromItsFirstForeignCharacterOn) {
  struct {
    char const* name;
    std::wstring text;
    unsigned long length;
    std::string field;
    std::string whole;
  } const rows[] = {
      {"behind the field", L"abc\u00e4", 3, "abc", "abc\xC3\xA4"},
      {"the last that fits", L"ab\u00e4", 4, "ab\xC3\xA4", "ab\xC3\xA4"},
      {"with room behind", L"ab\u00e4", 6, {"ab\xC3\xA4\0\0", 6}, "ab\xC3\xA4"},
      {"the first",
       L"\u20acb",
       5,
       {"\xE2\x82\xAC"
        "b\0",
        5},
       "\xE2\x82\xAC"
       "b"},
      {"the last of ASCII", L"\x7F\x01", 3, {"\x7F\x01\0", 3}, "\x7F\x01"},
      {"the first beyond", L"a\x80", 3, "a\xC2\x80", "a\xC2\x80"},
      {"negative", std::wstring(1, static_cast<wchar_t>(-5)) + L"b", 2, "?b", "?b"},
      {"up to a NUL", std::wstring(L"ab\0c", 4), 4, {"ab\0\0", 4}, "ab"},
  };

  LocaleScope const locale("C.UTF-8");
  for (auto const& row : rows) {
    SCOPED_TRACE(row.name);
    Range fixed(12);
    fixed.stream().writeString(row.length, AString(row.text));
    expectWritten(fixed, Bytes(row.field.begin(), row.field.end()));
    Range natural(12);
    natural.stream().writeString(AString(row.text));
    expectWritten(natural, Bytes(row.whole.begin(), row.whole.end()));
  }
  expectNoRecords();
}

TEST_F(ABinaryStreamTest, TextIsConvertedWhereNoLetterIsAscii) {
  ChosenLocale const locale(kEbcdic);
  if (!locale.whyMissing().empty()) GTEST_SKIP() << locale.whyMissing();
  Range fixed(12);
  fixed.stream().writeString(4, AString(std::wstring(L"A1")));
  expectWritten(fixed, {0xC1, 0xF1, 0, 0});
  Range natural(12);
  natural.stream().writeString(AString(std::wstring(L"A1")));
  expectWritten(natural, {0xC1, 0xF1});
  expectNoRecords();
}

TEST_F(ABinaryStreamTest, TextEndsAtTheFirstZeroOfItsField) {
  struct {
    char const* name;
    std::string field;
    char const* expected;
  } const rows[] = {
      {"padded", std::string("ab\0\0\0\0", 6), "ab"},
      {"full", "abcdef", "abcdef"},
      {"all zero", std::string(6, '\0'), ""},
      {"rest after the zero", {"a\0cdef", 6}, "a"},
      {"no bytes", "", ""},
  };

  for (auto const& row : rows) {
    SCOPED_TRACE(row.name);
    auto const length = static_cast<int>(row.field.size());
    Range range(Bytes(row.field.begin(), row.field.end()));
    AString wide(L"before");
    range.stream().readString(length, wide);
    EXPECT_EQ(wide.const_cpp_str(), AString(row.expected).const_cpp_str());
    EXPECT_EQ(range.used(), length);
    std::string narrow = "before";
    range.use(true).readString(length, narrow);
    EXPECT_EQ(narrow, row.expected);
    EXPECT_EQ(range.used(), length);
    EXPECT_FALSE(range.overflowed());
  }
  expectNoRecords();
}

TEST_F(ABinaryStreamTest, NarrowTextIsNotConverted) {
  LocaleScope const locale("C.UTF-8");
  Range range(Bytes{'a', 0xFF, 'b', 0});
  std::string narrow;
  range.stream().readString(4, narrow);
  EXPECT_EQ(narrow,
            "a\xFF"
            "b");
  expectNoRecords();
}

TEST_F(ABinaryStreamTest, TextThatCannotBeConvertedIsLoggedAndEmpty) {
  LocaleScope const locale("C.UTF-8");
  Range range(Bytes{'a', 0xFF, 'b', 0});
  AString wide(L"before");
  range.stream().readString(4, wide);
  EXPECT_EQ(wide.const_cpp_str(), L"");
  EXPECT_EQ(range.used(), 4);
  ASSERT_FALSE(recorder.errors().empty());
  EXPECT_EQ(recorder.errors()[0].group, L"String");
  EXPECT_FALSE(range.stream().pastEndError());
}

// --- Blocks -----------------------------------------------------------------------

TEST_F(ABinaryStreamTest, BlockIsWrittenUpToTheMaximum) {
  struct {
    unsigned long maximum;
    Bytes expected;
  } const rows[] = {{0, {'a', 0, 'c', 0xFF, 'e'}},
                    {1, {'a'}},
                    {3, {'a', 0, 'c'}},
                    {5, {'a', 0, 'c', 0xFF, 'e'}},
                    {10, {'a', 0, 'c', 0xFF, 'e'}},
                    {kHugest, {'a', 0, 'c', 0xFF, 'e'}}};

  Block const block(
      std::string("a\0c\xFF"
                  "e",
                  5));
  for (auto const& row : rows) {
    SCOPED_TRACE(row.maximum);
    Range range(12);
    range.stream().writeBuffer(block, row.maximum);
    expectWritten(range, row.expected);
  }
  expectNoRecords();
}

TEST_F(ABinaryStreamTest, BlockMayBeTheRangeItself) {
  std::string const text = "0123456789abcdefghijklmnopqrstuvwxyz";
  for (unsigned long const offset : {0UL, 1UL, 7UL}) {
    Block block(text);
    unsigned long const count = block.size() - offset;
    ABinaryStream stream(const_cast<Byte*>(block.getBytes()) + offset, count, true);
    stream.writeBuffer(block, count);
    EXPECT_EQ(contents(block), text.substr(0, offset) + text.substr(0, count));
    EXPECT_FALSE(stream.pastEndError());
    stream.setPointer(const_cast<Byte*>(block.getBytes()) + offset, count);
    stream.readBuffer(static_cast<int>(count), block);
    EXPECT_EQ(contents(block), text.substr(0, count));
  }
}

TEST_F(ABinaryStreamTest, BlockThatDoesNotFitIsNotWritten) {
  Range range(4);
  range.stream().writeBuffer(Block(std::string("abcde")), 0);
  EXPECT_EQ(range.bytes(), Bytes(4, kUntouched));
  expectExcess(range.stream(), L"1");
  Range enough(4);
  enough.stream().writeBuffer(Block(std::string("abcde")), 4);
  EXPECT_EQ(enough.bytes(), (Bytes{'a', 'b', 'c', 'd'}));
  EXPECT_FALSE(enough.stream().pastEndError());
}

TEST_F(ABinaryStreamTest, BlockIsReadAsItIs) {
  Range range(Bytes{'x', 'a', 0, 0xFF, 'b'});
  Block block(std::string("longer than before"));
  range.stream().readChar();
  range.stream().readBuffer(4, block);
  EXPECT_EQ(contents(block), std::string("a\0\xFF"
                                         "b",
                                         4));
  EXPECT_EQ(range.used(), 5);
  range.stream().readBuffer(0, block);
  EXPECT_EQ(contents(block), "");
  EXPECT_FALSE(range.stream().pastEndError());
  expectNoRecords();
}

TEST_F(ABinaryStreamTest, NoMemoryForWhatIsReadLeavesTheCursor) {
  constexpr int kLength = 1 << 16;
  Range range(Bytes(kLength + 4, 'a'));
  Block block(0U, nullptr);
  AString wide;
  std::string narrow;
  std::function<void()> const reads[] = {
      [&] { range.stream().readBuffer(kLength, block); },
      [&] { range.stream().readString(kLength, wide); },
      [&] { range.stream().readString(kLength, narrow); },
  };
  for (auto const& read : reads) {
    {
      MemoryShortage const shortage(kLength);
      EXPECT_THROW(read(), std::bad_alloc);
    }
    EXPECT_EQ(range.used(), 0);
    EXPECT_FALSE(range.overflowed());
  }
  expectNoRecords();
}

// --- The end of the range ---------------------------------------------------------

TEST_F(ABinaryStreamTest, FieldThatFitsExactlyIsAccepted) {
  Range range(Bytes{1, 2, 3, 4});
  EXPECT_FALSE(range.stream().atEnd());
  EXPECT_EQ(range.stream().readLong(), 0x04030201U);
  EXPECT_TRUE(range.stream().atEnd());
  EXPECT_FALSE(range.stream().pastEndError());
  expectNoRecords();
}

TEST_F(ABinaryStreamTest, OverflowIsLatched) {
  Range range(3);
  ABinaryStream& stream = range.stream();
  stream.writeLong(1);
  EXPECT_EQ(stream.getPointer(), range.start() + 4);
  EXPECT_TRUE(stream.atEnd());
  stream.writeChar('A');
  EXPECT_EQ(range.bytes(), Bytes(3, kUntouched));
  expectNoRecords();
  expectExcess(stream, L"2");
  expectExcess(stream, L"2");
}

TEST_F(ABinaryStreamTest, EveryReadAfterAnOverflowIsEmptyAndAdvances) {
  Range range(Bytes(40, 'x'));
  ABinaryStream& stream = range.stream();
  EXPECT_TRUE(stream.pastEndWith(41));
  EXPECT_EQ(range.used(), 41);
  EXPECT_EQ(stream.readLong(), 0U);
  EXPECT_EQ(range.used(), 45);
  EXPECT_EQ(stream.readShort(), 0);
  EXPECT_EQ(range.used(), 47);
  EXPECT_EQ(stream.readChar(), 0);
  EXPECT_EQ(range.used(), 48);
  AString wide(L"before");
  stream.readString(3, wide);
  EXPECT_EQ(wide.const_cpp_str(), L"");
  EXPECT_EQ(range.used(), 51);
  std::string narrow = "before";
  stream.readString(5, narrow);
  EXPECT_EQ(narrow, "");
  EXPECT_EQ(range.used(), 56);
  Block block(std::string("before"));
  stream.readBuffer(6, block);
  EXPECT_EQ(contents(block), "");
  EXPECT_EQ(range.used(), 62);
  expectNoRecords();
  expectExcess(stream, L"22");
}

TEST_F(ABinaryStreamTest, EveryWriteAfterAnOverflowIsLeftOutAndAdvances) {
  struct {
    char const* name;
    std::function<void(ABinaryStream&)> write;
    long size;
  } const rows[] = {
      {"long", [](ABinaryStream& stream) { stream.writeLong(1); }, 4},
      {"short", [](ABinaryStream& stream) { stream.writeShort(1); }, 2},
      {"char", [](ABinaryStream& stream) { stream.writeChar(1); }, 1},
      {"fixed text", [](ABinaryStream& stream) { stream.writeString(5, AString(L"ab")); }, 5},
      {"text", [](ABinaryStream& stream) { stream.writeString(AString(L"abc")); }, 3},
      {"block", [](ABinaryStream& stream) { stream.writeBuffer(Block(6U, nullptr), 0); }, 6},
      {"part of a block", [](ABinaryStream& stream) { stream.writeBuffer(Block(6U, nullptr), 2); },
       2},
  };

  // The latch is set while the cursor comes to stand where all would fit.
  for (auto const& row : rows) {
    SCOPED_TRACE(row.name);
    Range range(20);
    range.stream().pastEndWith(21);
    range.stream().pastEndWith(kHugest - 20);
    ASSERT_EQ(range.used(), 0);
    row.write(range.stream());
    EXPECT_EQ(range.used(), row.size);
    EXPECT_EQ(range.bytes(), Bytes(20, kUntouched));
    EXPECT_TRUE(range.overflowed());
    EXPECT_TRUE(range.stream().atEnd());
    expectExcess(range.stream(), std::to_wstring(row.size - 20));
  }
}

TEST_F(ABinaryStreamTest, EveryFieldThatDoesNotFitSetsTheLatch) {
  struct {
    char const* name;
    std::function<void(ABinaryStream&)> call;
    std::size_t size;
  } const rows[] = {
      {"read long", [](ABinaryStream& stream) { stream.readLong(); }, 4},
      {"read short", [](ABinaryStream& stream) { stream.readShort(); }, 2},
      {"read char", [](ABinaryStream& stream) { stream.readChar(); }, 1},
      {"write long", [](ABinaryStream& stream) { stream.writeLong(1); }, 4},
      {"write short", [](ABinaryStream& stream) { stream.writeShort(1); }, 2},
      {"write char", [](ABinaryStream& stream) { stream.writeChar(1); }, 1},
      {"write text", [](ABinaryStream& stream) { stream.writeString(AString(L"abc")); }, 3},
      {"write fixed text", [](ABinaryStream& stream) { stream.writeString(5, AString(L"ab")); }, 5},
      {"write block", [](ABinaryStream& stream) { stream.writeBuffer(Block(6U, nullptr), 0); }, 6},
  };

  for (auto const& row : rows) {
    SCOPED_TRACE(row.name);
    Range fits(row.size);
    row.call(fits.stream());
    EXPECT_FALSE(fits.overflowed());
    EXPECT_TRUE(fits.stream().atEnd());
    Range lacksOne(row.size - 1);
    row.call(lacksOne.stream());
    EXPECT_TRUE(lacksOne.overflowed());
    EXPECT_EQ(lacksOne.bytes(), Bytes(row.size - 1, kUntouched));
    expectExcess(lacksOne.stream(), L"1");
  }
}

TEST_F(ABinaryStreamTest, BoundsTestMovesTheCursorOnlyWhereNothingFits) {
  Range range(4);
  ABinaryStream& stream = range.stream();
  for (unsigned long const count : {0UL, 1UL, 4UL}) {
    EXPECT_FALSE(stream.pastEndWith(count));
    EXPECT_EQ(range.used(), 0);
  }
  EXPECT_TRUE(stream.pastEndWith(5));
  EXPECT_EQ(range.used(), 5);
  EXPECT_TRUE(stream.pastEndWith(0));
  EXPECT_EQ(range.used(), 5);
  EXPECT_TRUE(stream.pastEndWith(1));
  EXPECT_EQ(range.used(), 6);
  expectNoRecords();
}

TEST_F(ABinaryStreamTest, AddressesThatComeRoundDoNotFit) {
  for (unsigned long const count : {kHugest, kHugest - 1, kHugest / 2, kHugest / 2 + 1}) {
    SCOPED_TRACE(count);
    Range range(8);
    range.stream().writeLong(1);
    EXPECT_TRUE(range.stream().pastEndWith(count));
    EXPECT_EQ(addressOf(range.stream().getPointer()), addressOf(range.start()) + 4 + count);
    EXPECT_TRUE(range.stream().atEnd());
    expectExcess(range.stream(), std::to_wstring(static_cast<long>(count - 4)));
  }
}

TEST_F(ABinaryStreamTest, NegativeLengthsNeverFit) {
  for (int const length : {-1, INT_MIN}) {
    SCOPED_TRACE(length);
    Range range(8);
    std::string narrow = "before";
    AString wide(L"before");
    Block block(std::string("before"));
    range.stream().readLong();
    range.stream().readString(length, narrow);
    EXPECT_EQ(narrow, "");
    EXPECT_EQ(range.used(), 4L + length);
    expectExcess(range.stream(), std::to_wstring(static_cast<long>(length) - 4));
    range.use(true).readString(length, wide);
    EXPECT_EQ(wide.const_cpp_str(), L"");
    EXPECT_TRUE(range.overflowed());
    range.use(true).readBuffer(length, block);
    EXPECT_EQ(contents(block), "");
    EXPECT_TRUE(range.overflowed());
  }
}

TEST_F(ABinaryStreamTest, HugeCountsAreNoTrouble) {
  Range range(8);
  AString const text(L"ab");
  range.stream().writeString(kHugest, text);
  EXPECT_EQ(range.used(), -1);
  expectExcess(range.stream(), L"-9");
  range.use(true).writeString(kHugest / 2, text);
  EXPECT_TRUE(range.overflowed());
  std::string narrow = "before";
  range.use(true).readString(INT_MAX, narrow);
  EXPECT_EQ(narrow, "");
  EXPECT_EQ(range.used(), INT_MAX);
  EXPECT_EQ(range.bytes(), Bytes(8, kUntouched));
}

TEST_F(ABinaryStreamTest, LengthsThatNoMemoryHasLeaveNothingToFit) {
  Range range(8);
  ABinaryStream stream(range.start(), kHugest, true);
  EXPECT_TRUE(stream.atEnd());
  stream.writeChar('x');
  EXPECT_EQ(range.bytes(), Bytes(8, kUntouched));
  EXPECT_TRUE(stream.atEnd());
  expectExcess(stream, L"2");
  stream.setPointer(range.start(), kHugest);
  EXPECT_FALSE(stream.pastEndError());
  EXPECT_EQ(stream.readLong(), 0U);
  expectExcess(stream, L"5");
}

// A record of random fields in a range that may be too short, against a plain model.
TEST_F(ABinaryStreamTest, RecordsOfMixedFieldsComeBack) {
  std::mt19937 random(1);
  for (int round = 0; round < 300; ++round) {
    SCOPED_TRACE(round);
    bool const littleEndian = random() % 2 != 0;
    Bytes expected;
    std::vector<std::function<void(ABinaryStream&)>> writes;
    std::vector<std::function<void(ABinaryStream&)>> reads;
    for (auto fields = random() % 12; fields > 0; --fields) {
      auto const number = static_cast<std::uint32_t>(random());
      auto const add = [&](std::initializer_list<std::uint32_t> bytes) {
        for (std::uint32_t const byte : bytes) expected.push_back(static_cast<Byte>(byte));
      };
      switch (random() % 4) {
        case 0:
          writes.emplace_back([=](ABinaryStream& stream) { stream.writeLong(number); });
          reads.emplace_back([=](ABinaryStream& stream) { EXPECT_EQ(stream.readLong(), number); });
          if (littleEndian) {
            add({number, number >> 8, number >> 16, number >> 24});
          } else {
            add({number >> 24, number >> 16, number >> 8, number});
          }
          break;
        case 1: {
          auto const value = static_cast<unsigned short>(number);
          writes.emplace_back([=](ABinaryStream& stream) { stream.writeShort(value); });
          reads.emplace_back([=](ABinaryStream& stream) { EXPECT_EQ(stream.readShort(), value); });
          if (littleEndian) {
            add({number, number >> 8});
          } else {
            add({number >> 8, number});
          }
          break;
        }
        case 2: {
          auto const value = static_cast<char>(number);
          writes.emplace_back([=](ABinaryStream& stream) { stream.writeChar(value); });
          reads.emplace_back([=](ABinaryStream& stream) { EXPECT_EQ(stream.readChar(), value); });
          add({number});
          break;
        }
        default: {
          std::string const text(number % 7, 'z');
          writes.emplace_back(
              [=](ABinaryStream& stream) { stream.writeString(9, AString(text.c_str())); });
          reads.emplace_back([=](ABinaryStream& stream) {
            std::string back;
            stream.readString(9, back);
            EXPECT_EQ(back, text);
          });
          expected.insert(expected.end(), text.begin(), text.end());
          expected.insert(expected.end(), 9 - text.size(), Byte{0});
        }
      }
    }
    Range range(expected.size());
    range.use(littleEndian);
    for (auto const& write : writes) write(range.stream());
    EXPECT_EQ(range.bytes(), expected);
    EXPECT_TRUE(range.stream().atEnd());
    EXPECT_FALSE(range.stream().pastEndError());
    range.use(littleEndian);
    for (auto const& read : reads) read(range.stream());
    EXPECT_FALSE(range.stream().pastEndError());
  }
  expectNoRecords();
}

}  // namespace
}  // namespace vrxutil::test

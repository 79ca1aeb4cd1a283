// AnIni2 as a reader: the grammar, cell by cell and against a transcription of the
// table of states; files that are no text; failures of reading.

#include "tests/file/file_support.h"
#include "tests/ini/ini_support.h"
#include "tests/ini/ini_table.h"
#include "tests/platform/system_call_fault.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temporary_folder.h"

#include <vrxutil/ini.h>

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <clocale>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace vrxutil::test {
namespace {

using vornix_com::file::ini::State;

using Map = AnIni2::SectionMap;

static_assert(static_cast<int>(State::betweenLines) == 0);
static_assert(static_cast<int>(State::inSection) == 1);
static_assert(static_cast<int>(State::inKey) == 2);
static_assert(static_cast<int>(State::inValue) == 3);
static_assert(static_cast<int>(State::inComment) == 4);
static_assert(static_cast<int>(State::error) == 5);

constexpr wchar_t kNotParsed[] = L"internal error: Ini file not parsed in AnIni2";

/// What reading a file does.
struct Outcome {
  bool parsed = false;
  Map map;
  Records records;
};

/// Of what cannot be read, and of nothing.
void expectEmptyStore(Outcome const& outcome) {
  EXPECT_TRUE(outcome.parsed);
  EXPECT_TRUE(outcome.map.empty());
  EXPECT_TRUE(outcome.records.empty());
}

Outcome readFile(std::wstring const& path) {
  LogRecorder recorder;
  AnIni2 ini{AString(path)};
  Outcome outcome{ini.parsed(), {}, recorder.records()};
  if (outcome.parsed) ini.getIniMap(outcome.map);
  return outcome;
}

class ReadText : public IniFileTest {
protected:
  Outcome read(std::string const& text) {
    // A new file: some file systems flush one that is cut and written again.
    ::unlink(path.c_str());
    makeFile(path, text);
    return readFile(widePath);
  }

  /// The records of a text of `size` bytes up to its NUL, with a syntax error or none.
  Records recordsOf(std::size_t size, bool parsed, std::wstring const& unexpected, int line) {
    Records records{detailRecord(L"Xml", L"ConvertBufferToUnicode," + std::to_wstring(size))};
    if (!unexpected.empty()) {
      records.push_back(errorRecord(
          L"ini", L"internal error: " + unexpected + widePath + L" line " + std::to_wstring(line)));
    }
    if (!parsed) records.push_back(errorRecord(L"ini", kNotParsed));
    return records;
  }
};

struct Row {
  char const* name;
  std::string text;
  bool parsed;
  Map map;
  wchar_t const* unexpected;  // "" where there is no such record
  int line;
};

void PrintTo(Row const& row, std::ostream* out) { *out << row.name; }

Map pairs(std::wstring const& section, std::map<std::wstring, std::wstring> const& values) {
  return {{section, values}};
}

constexpr wchar_t kLeft[] = L"Unexpected: '[' ";
constexpr wchar_t kRight[] = L"Unexpected: ']' ";
constexpr wchar_t kEmpty[] = L"Unexpected: empty section ";
constexpr wchar_t kEqual[] = L"Unexpected: '=' ";
constexpr wchar_t kLine[] = L"Unexpected: new line ";

std::vector<Row> rows() {
  return {
      // One row for each cell of the table, by step and state.
      {"LeftBracketBetweenLines", "[a]\nk=v\n[b]\nk=v\n", true,
       Map{{L"a", {{L"k", L"v"}}}, {L"b", {{L"k", L"v"}}}}, L"", 0},
      {"LeftBracketInSection", "[a[b]\n", false, {}, kLeft, 1},
      {"LeftBracketInKey", "a[b=1\n", false, {}, kLeft, 1},
      {"LeftBracketInValue", "a=[x]\n", true, pairs(L"", {{L"a", L"[x]"}}), L"", 0},
      {"LeftBracketInComment", "; see [x]\n", false, {}, kLeft, 1},
      {"RightBracketBetweenLines", "\n ]\n", false, {}, kRight, 2},
      {"RightBracketInEmptySection", "[]\n", false, {}, kEmpty, 1},
      {"RightBracketInSection", "[ na me ]\nk=v\n", true, pairs(L"na me", {{L"k", L"v"}}), L"", 0},
      {"RightBracketInBlankSection", "[   ]\nk=v\n", true, pairs(L"", {{L"k", L"v"}}), L"", 0},
      {"RightBracketInKey", "a]b=1\n", false, {}, kRight, 1},
      {"RightBracketInValue", "a=]\n", true, pairs(L"", {{L"a", L"]"}}), L"", 0},
      {"RightBracketInComment", ";]\n", false, {}, kRight, 1},
      {"EqualSignBetweenLines", "\n=v\n", false, {}, kEqual, 2},
      {"EqualSignInSection", "[a=b]\n", false, {}, kEqual, 1},
      {"EqualSignInKey", "  key  = some value  \n", true, pairs(L"", {{L"key", L"some value"}}),
       L"", 0},
      {"EqualSignInValue", "a=b=c\n", true, pairs(L"", {{L"a", L"b=c"}}), L"", 0},
      {"EqualSignInComment", ";a=b\n", false, {}, kEqual, 1},
      {"OthersInKeyKeepInnerBlanks", "a b\tc=1\n", true, pairs(L"", {{L"a b\tc", L"1"}}), L"", 0},
      {"OthersInComment", " ; comment\n", true, {}, L"", 0},
      {"LineEndBetweenLines", "\n\r\n \n", true, {}, L"", 0},
      {"LineEndInSection", "[a\n]\n", false, {}, kLine, 1},
      {"LineEndInKey", "k=v\nkey\n", false, {}, kLine, 2},
      {"LineEndInValue", "k=\n", true, pairs(L"", {{L"k", L""}}), L"", 0},
      {"LineEndInComment", ";c\nk=v\n", true, pairs(L"", {{L"k", L"v"}}), L"", 0},
      {"EndBetweenLines", "  ", true, {}, L"", 0},
      {"EndInSection", "[a", false, {}, L"", 0},
      {"EndInKey", "key", false, {}, L"", 0},
      {"EndInValue", "k= v ", true, pairs(L"", {{L"k", L"v"}}), L"", 0},
      {"EndInComment", "; c", false, {}, L"", 0},
      // What follows from them.
      {"SemicolonInSection", "[a;b]\nk=v\n", true, pairs(L"a;b", {{L"k", L"v"}}), L"", 0},
      {"SemicolonInKey", "a;b=1\n", true, pairs(L"", {{L"a;b", L"1"}}), L"", 0},
      {"SemicolonInValue", "a=1 ;x\n", true, pairs(L"", {{L"a", L"1 ;x"}}), L"", 0},
      {"PairAfterHeader", "[s] k=v\n", true, pairs(L"s", {{L"k", L"v"}}), L"", 0},
      {"KeyAfterHeader", "[s] k\n", false, {}, kLine, 1},
      {"CommentAfterHeader", "[s] ;c\nk=v\n", true, pairs(L"s", {{L"k", L"v"}}), L"", 0},
      {"HeaderWithoutPairs", "[s]\n", true, {}, L"", 0},
      {"SectionsMerge", "[s]\nb=1\n[t]\nk=v\n[s]\na=2\n", true,
       Map{{L"s", {{L"a", L"2"}, {L"b", L"1"}}}, {L"t", {{L"k", L"v"}}}}, L"", 0},
      {"LastValueCounts", "[s]\nm=1\nb=1\nz=1\nb=2\nm=3\nz=4\n", true,
       pairs(L"s", {{L"b", L"2"}, {L"m", L"3"}, {L"z", L"4"}}), L"", 0},
      {"CaseCounts", "K=1\nk=2\n", true, pairs(L"", {{L"K", L"1"}, {L"k", L"2"}}), L"", 0},
      {"CarriageReturnAlone", "a=1\rb=2\r]", false, {}, kRight, 3},
      {"CrLfCountsTwice", "a=1\r\nb=2\r\n=\r\n", false, {}, kEqual, 5},
      {"NothingAfterTheError", "k=v\n]\n[\n", false, {}, kRight, 2},
  };
}

class GrammarTest : public ReadText, public testing::WithParamInterface<Row> {};

TEST_P(GrammarTest, ReadsAsTheTableSays) {
  Row const& row = GetParam();
  Outcome const outcome = read(row.text);
  EXPECT_EQ(outcome.parsed, row.parsed);
  EXPECT_EQ(outcome.map, row.map);
  EXPECT_EQ(outcome.records, recordsOf(row.text.size(), row.parsed, row.unexpected, row.line));
}

INSTANTIATE_TEST_SUITE_P(AnIni2, GrammarTest, testing::ValuesIn(rows()),
                         [](auto const& tested) { return std::string(tested.param.name); });

/// A piece of a random file, in both forms.
struct Piece {
  std::string_view utf8;
  std::wstring_view wide;
};

constexpr std::array kPieces{
    Piece{"[", L"["},
    Piece{"]", L"]"},
    Piece{"=", L"="},
    Piece{";", L";"},
    Piece{"\n", L"\n"},
    Piece{"\r", L"\r"},
    Piece{" ", L" "},
    Piece{"\t", L"\t"},
    Piece{"\v", L"\v"},
    Piece{"\f", L"\f"},
    Piece{"a", L"a"},
    Piece{"b", L"b"},
    Piece{"\x01", L"\x01"},
    Piece{"\x7F", L"\x7F"},
    Piece{"\xC2\x85", L"\x85"},        // next line
    Piece{"\xC2\xA0", L"\u00A0"},      // no-break space
    Piece{"\xE2\x80\x83", L"\u2003"},  // em space
    Piece{"\xE2\x80\xA8", L"\u2028"},  // line separator
    Piece{"\xEF\xBB\xBF", L"\uFEFF"},  // dropped only where the text begins
    Piece{"\xC4\xBB", L"\u013B"},      // its low byte is that of ";"
    Piece{"\xE5\xB0\xBD", L"\u5C3D"},  // and of "="
    Piece{"\xF0\x9F\x98\x80", L"\U0001F600"},
    Piece{std::string_view("\0", 1), std::wstring_view(L"\0", 1)},
    // Likely lines, so that files get far.
    Piece{"[s]\n", L"[s]\n"},
    Piece{"[t]\n", L"[t]\n"},
    Piece{"b=1\n", L"b=1\n"},
    Piece{"a=2\n", L"a=2\n"},
    Piece{"c = 3 \r\n", L"c = 3 \r\n"},
    Piece{";c\n", L";c\n"},
};

constexpr std::size_t kFirstLetter = 10;
constexpr std::size_t kFirstLine = 23;
static_assert(kPieces[kFirstLetter].utf8 == "a" && kPieces[kFirstLine].utf8 == "[s]\n");

class RandomFilesTest : public ReadText {
protected:
  /// The file of `beginning` and random pieces, those before `firstPiece` aside.
  void compare(std::string const& beginning, std::size_t pieces, std::size_t firstPiece) {
    std::string utf8 = beginning;
    std::wstring wide(beginning.begin(), beginning.end());
    std::uniform_int_distribution<std::size_t> choice(firstPiece, kPieces.size() - 1);
    while (pieces-- > 0) {
      Piece const& piece = kPieces.at(choice(random));
      utf8 += piece.utf8;
      wide += piece.wide;
    }
    compareTexts(utf8, wide);
  }

  /// From 1 to `most`.
  std::size_t upTo(std::size_t most) {
    return std::uniform_int_distribution<std::size_t>(1, most)(random);
  }

  IniTable::Visits visits{};
  std::mt19937 random{20040229};

private:
  void compareTexts(std::string const& utf8, std::wstring const& wide) {
    Outcome const outcome = read(utf8);
    std::wstring const text = wide.c_str();  // up to a NUL
    IniTable const table(text.starts_with(L'\uFEFF') ? text.substr(1) : text);
    auto const name = [&] { return testing::PrintToString(utf8.substr(0, 200)); };
    ASSERT_EQ(outcome.parsed, table.parsed) << name();
    ASSERT_EQ(outcome.records,
              recordsOf(std::strlen(utf8.c_str()), table.parsed, table.message, table.line))
        << name();
    if (table.parsed) {
      ASSERT_EQ(outcome.map, table.map) << name();
    }
    for (std::size_t step = 0; step < IniTable::kSteps; ++step) {
      for (std::size_t state = 0; state < IniTable::kStates; ++state) {
        visits.at(step).at(state) += table.visits.at(step).at(state);
      }
    }
  }
};

TEST_F(RandomFilesTest, AgreeWithTheTable) {
  for (char const* const locale : {"C", "C.UTF-8"}) {
    runWithLocale(locale, [&] {
      for (int i = 0; i < 10000; ++i) ASSERT_NO_FATAL_FAILURE(compare("", upTo(14), 0));
      for (auto const& step : visits) {
        for (unsigned long const count : step) EXPECT_GE(count, 30U);
      }
    });
  }
}

TEST_F(RandomFilesTest, OfManyGoodLinesAgreeWithTheTable) {
  for (char const* const locale : {"C", "C.UTF-8"}) {
    runWithLocale(locale, [&] {
      for (int i = 0; i < 2000; ++i) {
        ASSERT_NO_FATAL_FAILURE(compare("", upTo(60), kFirstLetter));
        ASSERT_NO_FATAL_FAILURE(compare("", upTo(60), kFirstLine));
      }
    });
  }
}

/// Where the parser may cut a file: powers of two of bytes.
TEST_F(RandomFilesTest, OfManyBlocksAgreeWithTheTable) {
  for (std::size_t const block : {4096U, 16384U, 32768U, 65536U}) {
    for (std::string const start : {" ", "[", "k", "k=", ";"}) {
      for (std::size_t before = 0; before < 6; ++before) {
        std::string const beginning =
            start + std::string(block - before - start.size(), start == " " ? ' ' : 'x');
        for (int i = 0; i < 3; ++i) ASSERT_NO_FATAL_FAILURE(compare(beginning, upTo(8), 0));
      }
    }
  }
}

class AnIni2ReadingTest : public ReadText {
protected:
  /// The records of a file that can be read in part.
  static Records readErrorIn(std::wstring const& file) {
    return {
        errorRecord(L"ini", L"Error trace:"),
        errorRecord(L"ini", L" [read," + file + L"]->"),
        errorRecord(L"ini", L"  Input/output error"),
        errorRecord(L"ini", kNotParsed),
    };
  }
};

// What cannot be opened or read at all.
TEST_F(AnIni2ReadingTest, NoTextIsAnEmptyStore) {
  makeFile(folder / "empty", "");
  ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
  for (std::wstring const& file :
       {std::wstring(), folder.wide("missing"), folder.wide("empty"), folder.wide("fifo"),
        folder.wide(""), folder.wide("missing/file"), std::wstring(L"/dev/null")}) {
    SCOPED_TRACE(testing::PrintToString(file));
    expectEmptyStore(readFile(file));
  }
}

// It may be writable all the same, and the next write then replaces it.
TEST_F(AnIni2ReadingTest, FileThatMayNotBeReadIsAnEmptyStore) {
  makeFile(path, "k=v\n");
  ASSERT_EQ(::chmod(path.c_str(), 0222), 0);
  ASSERT_EQ(::chmod(folder.path().c_str(), 0755), 0);
  EXPECT_TRUE(holdsUnprivileged([&] {
    expectEmptyStore(readFile(widePath));
    AnIni2 ini{AString(widePath)};
    EXPECT_TRUE(ini.insert(L"a", L"k", L"new"));
  }));
  ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
  EXPECT_EQ(bytes(), "[a]\nk=new\n\n");
}

TEST_F(AnIni2ReadingTest, EndlessZerosAreAnEmptyText) {
  Outcome const outcome = readFile(L"/dev/zero");
  EXPECT_TRUE(outcome.parsed);
  EXPECT_TRUE(outcome.map.empty());
  EXPECT_EQ(outcome.records, recordsOf(0, true, L"", 0));
}

TEST_F(AnIni2ReadingTest, TextEndsAtItsFirstNul) {
  Outcome const outcome = read(std::string("k=v\0w\n]\n\xFF", 9));
  EXPECT_TRUE(outcome.parsed);
  EXPECT_EQ(outcome.map, pairs(L"", {{L"k", L"v"}}));
  EXPECT_EQ(outcome.records, recordsOf(3, true, L"", 0));
}

TEST_F(AnIni2ReadingTest, ByteOrderMarkIsDropped) {
  Outcome const outcome = read("\xEF\xBB\xBFk=v\n");
  EXPECT_EQ(outcome.map, pairs(L"", {{L"k", L"v"}}));
  EXPECT_EQ(outcome.records, recordsOf(7, true, L"", 0));
}

TEST_F(AnIni2ReadingTest, SecondByteOrderMarkStartsAKey) {
  Outcome const outcome = read("\xEF\xBB\xBF\xEF\xBB\xBFk=v\n");
  EXPECT_EQ(outcome.map, pairs(L"", {{L"\uFEFFk", L"v"}}));
}

TEST_F(AnIni2ReadingTest, InvalidUtf8IsNotParsedAndNamesNoLine) {
  // The syntax error comes before the invalid byte, and does not count.
  Outcome const outcome = read("]\nk=\xFF\n");
  EXPECT_FALSE(outcome.parsed);
  ASSERT_GE(outcome.records.size(), 3U);
  EXPECT_EQ(outcome.records.front(), detailRecord(L"Xml", L"ConvertBufferToUnicode,6"));
  for (std::size_t i = 1; i + 1 < outcome.records.size(); ++i) {
    EXPECT_NE(outcome.records[i].group, L"ini");
  }
  EXPECT_EQ(outcome.records.back(), errorRecord(L"ini", kNotParsed));
}

TEST_F(AnIni2ReadingTest, CharactersAcrossPiecesStayWhole) {
  for (std::size_t length = 16370; length < 16390; ++length) {
    std::wstring const key(length, L'k');
    Outcome const outcome = read(std::string(length, 'k') + "=\xF0\x9F\x98\x80\xC3\xA4\n");
    ASSERT_EQ(outcome.map, pairs(L"", {{key, L"\U0001F600\u00E4"}})) << length;
  }
}

/// Whether what is written after a change reads back.
void expectToReadBack(std::wstring const& path, Map expected) {
  {
    AnIni2 ini{AString(path)};
    EXPECT_TRUE(ini.insert(L"a", L"k", L"new"));
  }
  expected.insert({L"a", {{L"k", L"new"}}});
  Outcome const outcome = readFile(path);
  EXPECT_TRUE(outcome.parsed);
  EXPECT_TRUE(outcome.map == expected);  // too long to be printed
}

TEST_F(AnIni2ReadingTest, LongLinesAreRead) {
  constexpr std::size_t kLength = 10U << 20;
  std::string const blanks(kLength, ' ');
  std::string const name(kLength, 'n');
  Outcome const outcome = read(";" + name + "\n[" + blanks + name + "]\n" + name + blanks + "=" +
                               blanks + "v" + blanks + "\n");
  EXPECT_TRUE(outcome.parsed);
  std::wstring const wide(kLength, L'n');
  Map const expected = pairs(wide, {{wide, L"v"}});
  EXPECT_TRUE(outcome.map == expected);
  expectToReadBack(widePath, expected);
}

TEST_F(AnIni2ReadingTest, MillionSectionsAreRead) {
  std::string text;
  for (int i = 1000000; i > 0; --i) text.append("[").append(std::to_string(i)).append("]\nk=v\n");
  Outcome const outcome = read(text);
  EXPECT_TRUE(outcome.parsed);
  EXPECT_EQ(outcome.map.size(), 1000000U);
  expectToReadBack(widePath, outcome.map);
}

TEST_F(AnIni2ReadingTest, WhiteSpaceIsTheLocales) {
  constexpr char kText[] = "\xE2\x80\x83k=v\xE2\x80\x83\n";
  runWithLocale("C.UTF-8", [&] { EXPECT_EQ(read(kText).map, pairs(L"", {{L"k", L"v"}})); });
  runWithLocale("C", [&] {
    std::setlocale(LC_ALL, "C.UTF-8");
    EXPECT_EQ(read(kText).map, pairs(L"", {{L"\u2003k", L"v\u2003"}}));
  });
}

#ifdef __linux__

// A regular file that begins with what the process has at address 0: nothing.
TEST_F(AnIni2ReadingTest, FileThatCannotBeReadIsAnEmptyStore) {
  expectEmptyStore(readFile(L"/proc/self/mem"));
}

// With a page at address 0, it can be read up to that page's end.
TEST_F(AnIni2ReadingTest, FileThatCannotBeReadToItsEndIsNotParsed) {
  expectAllowedInChild("the host does not allow a page at address 0", [&] {
    auto const size = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    // Not by mmap(2) itself: a sanitizer would end the process.
    long const page = ::syscall(SYS_mmap, nullptr, size, PROT_READ | PROT_WRITE,
                                MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0L);
    if (page != 0) leaveAsNotAllowed();
    int const memory = ::open("/proc/self/mem", O_WRONLY | O_CLOEXEC);
    std::string const text(size, '\n');
    ASSERT_EQ(::pwrite(memory, text.data(), size, 0), static_cast<ssize_t>(size));
    ::close(memory);
    Outcome const outcome = readFile(L"/proc/self/mem");
    EXPECT_FALSE(outcome.parsed);
    EXPECT_EQ(outcome.records, readErrorIn(L"/proc/self/mem"));
  });
}

/// Runs `scenario` in a child where each read(2) of `size` bytes fails.
template <class Scenario>
void expectWhereReadFails(int size, Scenario scenario) {
  expectAllowedInChild(kNotInjected, [&] {
    if (!inject({"read", {SYS_read}, failsWith(EIO), Argument{2, size}})) leaveAsNotAllowed();
    scenario();
  });
}

// Size of the file, and what the second read asks for of it: all that is left and
// one byte more.
constexpr int kSize = 200000;
constexpr int kSecondRead = kSize + 1 - 65536;

TEST_F(AnIni2ReadingTest, ReadErrorWithinTheFileIsNotParsed) {
  makeFile(path, std::string(static_cast<std::size_t>(kSize), '\n'));
  expectWhereReadFails(kSecondRead, [&] {
    Outcome const outcome = readFile(widePath);
    EXPECT_FALSE(outcome.parsed);
    EXPECT_EQ(outcome.records, readErrorIn(widePath));
  });
}

TEST_F(AnIni2ReadingTest, ReadErrorAtTheBeginningIsAnEmptyStore) {
  makeFile(path, "k=v\n");
  expectWhereReadFails(65536, [&] { expectEmptyStore(readFile(widePath)); });
}

#endif

}  // namespace
}  // namespace vrxutil::test

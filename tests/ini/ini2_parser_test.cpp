// AnIni2 as a reader: the grammar, cell by cell and against a transcription of the
// table of states; files that are no text; failures of reading.

#include "tests/platform/child_process.h"
#include "tests/platform/system_call_fault.h"
#include "tests/support/locale_scope.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temporary_folder.h"

#include <vrxutil/ini.h>

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <cwctype>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using vornix_com::file::ini::State;
using vrxutil::test::detailRecord;
using vrxutil::test::errorRecord;
using vrxutil::test::fileBytes;
using vrxutil::test::LocaleScope;
using vrxutil::test::LogRecord;
using vrxutil::test::LogRecorder;
using vrxutil::test::makeFile;
using vrxutil::test::TemporaryFolder;

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
  std::vector<LogRecord> records;
};

Outcome readFile(std::wstring const& path) {
  LogRecorder recorder;
  AnIni2 ini{AString(path)};
  Outcome outcome{ini.parsed(), {}, recorder.records()};
  if (outcome.parsed) ini.getIniMap(outcome.map);
  return outcome;
}

class ReadText : public testing::Test {
protected:
  Outcome read(std::string const& text) {
    // A new file: some file systems flush one that is cut and written again.
    ::unlink((folder / "file.ini").c_str());
    makeFile(folder / "file.ini", text);
    return readFile(path);
  }

  /// The records of a text of `size` bytes up to its NUL, with a syntax error or none.
  std::vector<LogRecord> recordsOf(std::size_t size, bool parsed, std::wstring const& unexpected,
                                   int line) {
    std::vector<LogRecord> records{
        detailRecord(L"Xml", L"ConvertBufferToUnicode," + std::to_wstring(size))};
    if (!unexpected.empty()) {
      records.push_back(errorRecord(
          L"ini", L"internal error: " + unexpected + path + L" line " + std::to_wstring(line)));
    }
    if (!parsed) records.push_back(errorRecord(L"ini", kNotParsed));
    return records;
  }

  TemporaryFolder folder;
  std::wstring path = folder.wide("file.ini");
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

// The table of states once more, one character at a time.
class Oracle {
public:
  explicit Oracle(std::wstring const& text) {
    for (wchar_t const c : text) {
      if (state_ == 5) break;
      step(c);
    }
    if (state_ == 3) store();
    parsed = state_ == 0;
  }

  bool parsed = false;
  Map map;
  std::wstring unexpected;
  int line = 1;

private:
  void step(wchar_t c) {
    if (c == L';' && state_ == 0) state_ = 4;
    if (c == L'\n' || c == L'\r') {
      endOfLine();
      if (state_ != 5) ++line;
    } else if (c == L'[') {
      if (state_ == 0) section_ = L"";
      constexpr std::array kNext{1, 5, 5, 3, 5};
      bracketOrEqualSign(c, kNext, L"Unexpected: '[' ");
    } else if (c == L']') {
      bool const isEmpty = state_ == 1 && section_.empty();
      if (state_ == 1) trim(section_);
      std::array const next{5, isEmpty ? 5 : 0, 5, 3, 5};
      bracketOrEqualSign(c, next, isEmpty ? L"Unexpected: empty section " : L"Unexpected: ']' ");
    } else if (c == L'=') {
      bool const endsKey = state_ == 2;
      if (endsKey) trim(key_);
      constexpr std::array kNext{5, 5, 3, 3, 5};
      bracketOrEqualSign(c, kNext, L"Unexpected: '=' ");
      if (endsKey) value_ = L"";
    } else {
      other(c);
    }
  }

  void bracketOrEqualSign(wchar_t c, std::array<int, 5> const& next, wchar_t const* message) {
    if (state_ == 3) value_ += c;
    state_ = next.at(static_cast<std::size_t>(state_));
    if (state_ == 5) unexpected = message;
  }

  void other(wchar_t c) {
    if (state_ == 0 && std::iswspace(static_cast<std::wint_t>(c)) == 0) {
      key_ = L"";
      state_ = 2;
    }
    if (state_ == 1) section_ += c;
    if (state_ == 2) key_ += c;
    if (state_ == 3) value_ += c;
  }

  void endOfLine() {
    if (state_ == 3) store();
    if (state_ == 1 || state_ == 2) {
      unexpected = L"Unexpected: new line ";
      state_ = 5;
    } else {
      state_ = 0;
    }
  }

  void store() {
    trim(value_);
    auto found = map.find(section_);
    if (found == map.end()) found = map.insert({section_, {}});
    found->second[key_] = value_;
    state_ = 0;
  }

  static void trim(std::wstring& text) {
    while (!text.empty() && std::iswspace(static_cast<std::wint_t>(text.front())) != 0) {
      text.erase(0, 1);
    }
    while (!text.empty() && std::iswspace(static_cast<std::wint_t>(text.back())) != 0) {
      text.pop_back();
    }
  }

  int state_ = 0;
  std::wstring section_;
  std::wstring key_;
  std::wstring value_;
};

/// A piece of a random file, in both forms.
struct Piece {
  char const* utf8;
  wchar_t const* wide;
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
    Piece{"a", L"a"},
    Piece{"b", L"b"},
    Piece{"\xC3\xA4", L"\u00E4"},
    Piece{"\xE2\x80\x83", L"\u2003"},  // em space
    Piece{"\xF0\x9F\x98\x80", L"\U0001F600"},
    // Likely lines, so that files get far.
    Piece{"[s]\n", L"[s]\n"},
    Piece{"[t]\n", L"[t]\n"},
    Piece{"b=1\n", L"b=1\n"},
    Piece{"a=2\n", L"a=2\n"},
    Piece{"c = 3 \r\n", L"c = 3 \r\n"},
    Piece{";c\n", L";c\n"},
};

class RandomFilesTest : public ReadText {
protected:
  void compare(std::mt19937& random, std::size_t pieces, std::size_t firstPiece) {
    std::string utf8;
    std::wstring wide;
    std::uniform_int_distribution<std::size_t> choice(firstPiece, kPieces.size() - 1);
    while (pieces-- > 0) {
      Piece const& piece = kPieces.at(choice(random));
      utf8 += piece.utf8;
      wide += piece.wide;
    }
    if (utf8.empty()) return;
    Outcome const outcome = read(utf8);
    Oracle const oracle(wide);
    ASSERT_EQ(outcome.parsed, oracle.parsed) << testing::PrintToString(utf8);
    ASSERT_EQ(outcome.records,
              recordsOf(utf8.size(), oracle.parsed, oracle.unexpected, oracle.line))
        << testing::PrintToString(utf8);
    if (oracle.parsed) {
      ASSERT_EQ(outcome.map, oracle.map) << testing::PrintToString(utf8);
    }
  }
};

TEST_F(RandomFilesTest, AgreeWithTheTable) {
  std::mt19937 random(20040229);
  std::uniform_int_distribution<std::size_t> size(1, 14);
  for (int i = 0; i < 20000; ++i) ASSERT_NO_FATAL_FAILURE(compare(random, size(random), 0));
}

TEST_F(RandomFilesTest, OfManyGoodLinesAgreeWithTheTable) {
  std::mt19937 random(19991231);
  std::uniform_int_distribution<std::size_t> size(1, 60);
  for (int i = 0; i < 4000; ++i) ASSERT_NO_FATAL_FAILURE(compare(random, size(random), 9));
  for (int i = 0; i < 4000; ++i) ASSERT_NO_FATAL_FAILURE(compare(random, size(random), 14));
}

class AnIni2ReadingTest : public ReadText {};

TEST_F(AnIni2ReadingTest, MissingFileIsAnEmptyStore) {
  Outcome const outcome = readFile(folder.wide("missing.ini"));
  EXPECT_TRUE(outcome.parsed);
  EXPECT_TRUE(outcome.map.empty());
  EXPECT_TRUE(outcome.records.empty());
}

TEST_F(AnIni2ReadingTest, EmptyFileIsAnEmptyStore) {
  Outcome const outcome = read("");
  EXPECT_TRUE(outcome.parsed);
  EXPECT_TRUE(outcome.map.empty());
  EXPECT_TRUE(outcome.records.empty());
}

TEST_F(AnIni2ReadingTest, FolderIsAnEmptyStore) {
  Outcome const outcome = readFile(folder.wide(""));
  EXPECT_TRUE(outcome.parsed);
  EXPECT_TRUE(outcome.map.empty());
  EXPECT_TRUE(outcome.records.empty());
}

TEST_F(AnIni2ReadingTest, FifoWithoutWriterIsAnEmptyStore) {
  ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
  Outcome const outcome = readFile(folder.wide("fifo"));
  EXPECT_TRUE(outcome.parsed);
  EXPECT_TRUE(outcome.map.empty());
  EXPECT_TRUE(outcome.records.empty());
}

TEST_F(AnIni2ReadingTest, EndlessZerosAreAnEmptyText) {
  Outcome const outcome = readFile(L"/dev/zero");
  EXPECT_TRUE(outcome.parsed);
  EXPECT_TRUE(outcome.map.empty());
  EXPECT_EQ(outcome.records, recordsOf(0, true, L"", 0));
}

TEST_F(AnIni2ReadingTest, TextEndsAtItsFirstNul) {
  Outcome const outcome = read(std::string("k=v\0w\n]\n\xFF", 10));
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

TEST_F(AnIni2ReadingTest, LongLinesAreRead) {
  constexpr std::size_t kLength = 10U << 20;
  std::string const blanks(kLength, ' ');
  std::string const name(kLength, 'n');
  Outcome const outcome =
      read("[" + blanks + name + "]\n" + name + blanks + "=" + blanks + "v" + blanks + "\n");
  EXPECT_TRUE(outcome.parsed);
  std::wstring const wide(kLength, L'n');
  EXPECT_TRUE(outcome.map == pairs(wide, {{wide, L"v"}}));
}

TEST_F(AnIni2ReadingTest, MillionSectionsAreRead) {
  std::string text;
  for (int i = 1000000; i > 0; --i) text += "[" + std::to_string(i) + "]\nk=v\n";
  Outcome const outcome = read(text);
  EXPECT_TRUE(outcome.parsed);
  EXPECT_EQ(outcome.map.size(), 1000000U);
}

/// An environment variable, for the length of a scope.
class VariableScope {
public:
  VariableScope(char const* name, char const* value) : name_(name) {
    if (char const* const before = std::getenv(name)) before_ = before;
    ::setenv(name, value, /*overwrite=*/1);
  }

  ~VariableScope() {
    if (before_) {
      ::setenv(name_, before_->c_str(), /*overwrite=*/1);
    } else {
      ::unsetenv(name_);
    }
  }

  VariableScope(VariableScope const&) = delete;
  VariableScope& operator=(VariableScope const&) = delete;

private:
  char const* name_;
  std::optional<std::string> before_;
};

TEST_F(AnIni2ReadingTest, TakesTheLocaleOfTheEnvironment) {
  LocaleScope const scope("C");
  VariableScope const variable("LC_ALL", "C.UTF-8");
  readFile(folder.wide("missing.ini"));
  EXPECT_STREQ(std::setlocale(LC_ALL, nullptr), "C.UTF-8");
}

TEST_F(AnIni2ReadingTest, InvalidTextLeavesTheLocale) {
  LocaleScope const scope("C");
  VariableScope const variable("LC_ALL", "C.UTF-8");
  read("\xFF");
  EXPECT_STREQ(std::setlocale(LC_ALL, nullptr), "C");
}

TEST_F(AnIni2ReadingTest, WhiteSpaceIsTheLocales) {
  constexpr char kText[] = "\xE2\x80\x83k=v\xE2\x80\x83\n";
  LocaleScope const scope("C");
  {
    VariableScope const variable("LC_ALL", "C.UTF-8");
    EXPECT_EQ(read(kText).map, pairs(L"", {{L"k", L"v"}}));
  }
  VariableScope const variable("LC_ALL", "C");
  EXPECT_EQ(read(kText).map, pairs(L"", {{L"\u2003k", L"v\u2003"}}));
}

#ifdef __linux__

constexpr int kNoFilters = 3;  // exit status of a child

// Size of the file, and what the second read asks for of it: all that is left and
// one byte more.
constexpr int kSize = 200000;
constexpr int kSecondRead = kSize + 1 - 65536;

TEST_F(AnIni2ReadingTest, ReadErrorWithinTheFileIsNotParsed) {
  makeFile(folder / "file.ini", std::string(static_cast<std::size_t>(kSize), '\n'));
  auto const child = vrxutil::test::runInChild([&] {
    bool const isInjected = vrxutil::test::inject({"read",
                                                   {SYS_read},
                                                   vrxutil::test::failsWith(EIO),
                                                   vrxutil::test::Argument{2, kSecondRead}});
    if (!isInjected) ::_exit(kNoFilters);
    Outcome const outcome = readFile(path);
    EXPECT_FALSE(outcome.parsed);
    std::vector<LogRecord> const expected{
        errorRecord(L"ini", L"Error trace:"),
        errorRecord(L"ini", L" [read," + path + L"]->"),
        errorRecord(L"ini", L"  Input/output error"),
        errorRecord(L"ini", kNotParsed),
    };
    EXPECT_EQ(outcome.records, expected);
  });
  if (WIFEXITED(child.status) && WEXITSTATUS(child.status) == kNoFilters) {
    GTEST_SKIP() << vrxutil::test::kNotInjected;
  }
  EXPECT_EQ(child.status, 0) << child.standardError;
}

TEST_F(AnIni2ReadingTest, ReadErrorAtTheBeginningIsAnEmptyStore) {
  makeFile(folder / "file.ini", "k=v\n");
  auto const child = vrxutil::test::runInChild([&] {
    bool const isInjected = vrxutil::test::inject(
        {"read", {SYS_read}, vrxutil::test::failsWith(EIO), vrxutil::test::Argument{2, 65536}});
    if (!isInjected) ::_exit(kNoFilters);
    Outcome const outcome = readFile(path);
    EXPECT_TRUE(outcome.parsed);
    EXPECT_TRUE(outcome.map.empty());
    EXPECT_TRUE(outcome.records.empty());
  });
  if (WIFEXITED(child.status) && WEXITSTATUS(child.status) == kNoFilters) {
    GTEST_SKIP() << vrxutil::test::kNotInjected;
  }
  EXPECT_EQ(child.status, 0) << child.standardError;
}

#endif

}  // namespace

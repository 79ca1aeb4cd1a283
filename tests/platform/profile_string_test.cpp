#include "tests/platform/child_process.h"
#include "tests/platform/profile_calls.h"
#include "tests/support/locale_scope.h"
#include "tests/support/other_user.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/umask_scope.h"

#include <zulral/zulral.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vrxutil {

namespace {

using test::countIn;
using test::exists;
using test::fileBytes;
using test::kNone;
using test::LocaleScope;
using test::makeFile;
using test::TemporaryFolder;
using test::UmaskScope;
using test::valueOf;
using test::write;

/// A list of names, each followed by a NUL, as it stands in the buffer less the
/// last NUL.
std::wstring listOf(std::wstring const& fileName, wchar_t const* section) {
  std::array<wchar_t, 1000> buffer;
  buffer.fill(L'#');
  unsigned long const length = ZuDB_GetPrivateProfileStringW(section, nullptr, kNone, buffer.data(),
                                                             buffer.size(), fileName.c_str());
  EXPECT_EQ(buffer[length], L'\0');
  return {buffer.data(), length};
}

struct stat statusOf(std::string const& path) {
  struct stat status {};

  EXPECT_EQ(::stat(path.c_str(), &status), 0) << path << ": " << std::strerror(errno);
  return status;
}

/// The name of a row's test.
template <class Row>
std::string nameOf(testing::TestParamInfo<Row> const& row) {
  return row.param.name;
}

struct ReadRow {
  char const* name;
  std::string contents;
  wchar_t const* value;
  wchar_t const* key = L"k";
  wchar_t const* section = L"s";
};

void PrintTo(ReadRow const& row, std::ostream* out) { *out << row.name; }

class ProfileValueTest : public testing::TestWithParam<ReadRow> {};

TEST_P(ProfileValueTest, GivesTheValue) {
  LocaleScope const locale("C.UTF-8");
  TemporaryFolder const folder;
  ReadRow const& row = GetParam();
  makeFile(folder / "file.ini", row.contents);
  EXPECT_EQ(valueOf(folder.wide("file.ini"), row.section, row.key), row.value);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ProfileValueTest,
    testing::Values(
        ReadRow{"Plain", "[s]\nk=v\n", L"v"}, ReadRow{"Empty", "", kNone},
        ReadRow{"NoSection", "[t]\nk=v\n", kNone}, ReadRow{"NoKey", "[s]\nkk=v\nq=\n", kNone},
        ReadRow{"PrefixOfTheKey", "[s]\nk=v\n", kNone, L"kk"},
        ReadRow{"KeyOfTheNextSection", "[s]\n[t]\nk=v\n", kNone},
        ReadRow{"KeyBeforeTheFirstSection", "k=v\n[s]\n", kNone},
        ReadRow{"KeyBeforeTheFirstSectionIsInNone", "k=v\n", kNone, L"k", L""},
        ReadRow{"EmptySectionName", "k=u\n[]\nk=v\n", L"v", L"k", L""},
        ReadRow{"CaseOfNames", "[SeCtIoN]\nKeY=Value\n", L"Value", L"kEy", L"sEcTiOn"},
        ReadRow{"CaseBeyondAscii", "[\xC3\x84]\n\xC3\xA9t\xC3\xA9=\xC3\x9F\n", L"\u00DF",
                L"\u00C9T\u00C9", L"\u00E4"},
        ReadRow{"KeysThatDifferInCase", "[s]\nKEY=1\nkey=2\n", L"1", L"key"},
        ReadRow{"FirstSectionOfAName", "[s]\nk=1\n[t]\n[S]\nk=2\nl=3\n", L"1"},
        ReadRow{"SecondSectionOfAName", "[s]\nk=1\n[t]\n[S]\nl=3\n", kNone, L"l"},
        ReadRow{"BlanksInTheFile", " \t[ s ]  x\n \tk \t=\t  a b \t \n", L"a b"},
        ReadRow{"BlanksOfAllKinds", "\v[\fs\r]\n\fk\v=\r\v \f\tv\t\r\v\n", L"v"},
        ReadRow{"BlanksInTheArguments", "[s]\nk=v\n", L"v", L" k ", L" s\t"},
        ReadRow{"BlanksInsideAName", "[a b]\nc d=v\n", L"v", L"c d", L"a b"},
        ReadRow{"EmptyValue", "[s]\nk=\n", L""}, ReadRow{"BlankValue", "[s]\nk= \t \n", L""},
        ReadRow{"ValueWithEqualsSigns", "[s]\nk=a=b=\n", L"a=b="},
        ReadRow{"DoubleQuotes", "[s]\nk= \" v \" \n", L" v "},
        ReadRow{"SingleQuotes", "[s]\nk=' v '\n", L" v "},
        ReadRow{"OnePairOfQuotes", "[s]\nk=\"'v'\"\n", L"'v'"},
        ReadRow{"UnlikeQuotes", "[s]\nk=\"v'\n", L"\"v'"},
        ReadRow{"LoneQuote", "[s]\nk=\"\n", L"\""}, ReadRow{"EmptyQuotes", "[s]\nk=\"\"\n", L""},
        ReadRow{"QuotesInside", "[s]\nk=a\"b\"\n", L"a\"b\""},
        ReadRow{"Comment", "[s]\n;k=1\n  ;k=2\nk=3\n", L"3"},
        ReadRow{"CommentOfAnotherCharacter", "[s]\n#k=1\n", L"1", L"#k"},
        ReadRow{"NoCommentInsideALine", "[s]\nk=1 ; 2\n", L"1 ; 2"},
        ReadRow{"CommentedHeader", ";[s]\nk=v\n", kNone},
        ReadRow{"HeaderWithoutEnd", "[s]\n[t\nk=v\n", L"v"},
        ReadRow{"HeaderWithoutEndIsNoKey", "[s]\n[t=v\n", kNone, L"[t"},
        ReadRow{"HeaderEndsAtTheFirstBracket", "[s]]\nk=v\n", L"v"},
        ReadRow{"LineWithoutEqualsSign", "[s]\nk\nk=v\n", L"v"},
        ReadRow{"LineWithoutKey", "[s]\n=u\nk=v\n", kNone, L""},
        ReadRow{"NoFinalLineEnd", "[s]\nk=v", L"v"},
        ReadRow{"CarriageReturns", "[s]\r\nk=v\r\n", L"v"},
        ReadRow{"CarriageReturnAtTheEnd", "[s]\r\nk=v\r", L"v"},
        ReadRow{"CarriageReturnInside", "[s]\nk=a\rb\n", L"a\rb"},
        ReadRow{"ByteOrderMark", "\xEF\xBB\xBF[s]\nk=v\n", L"v"},
        ReadRow{"ByteOrderMarkLater", "\n\xEF\xBB\xBF[s]\nk=v\n", kNone},
        ReadRow{"AllPlanes", "[s]\nk=\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\n",
                L"\u00E9\u20AC\U0001F600"},
        ReadRow{"InvalidBytes", "[s]\nk=a\xFF\xE2\x82z\n", L"a\uFFFD\uFFFD\uFFFDz"},
        ReadRow{"InvalidBytesInAName", "[s]\nk\xFF=v\n", L"v", L"k\uFFFD"},
        ReadRow{"NulInAValue", std::string("[s]\nk=a\0b\nl=c\n", 14), L"a"},
        ReadRow{"NulAfterQuotes", std::string("[s]\nk='a'\0b\n", 12), L"a"},
        ReadRow{"NulInAName", std::string("[s\0t]\nk\0l=v\n", 12), L"v"},
        ReadRow{"LineAfterANul", std::string("[s]\nk=a\0b\nl=c\n", 14), L"c", L"l"},
        ReadRow{"KeysThatDifferInCaseBeyondAscii", "[s]\n\xC3\x89=1\n\xC3\xA9=2\n", L"1",
                L"\u00E9"},
        ReadRow{"BlankBeforeANulInAName", std::string("[s \0x]\nk \0x=v\n", 14), L"v"},
        ReadRow{"NulInPlaceOfAName", std::string("[s]\n\0=v\n", 8), kNone, L""}),
    nameOf<ReadRow>);

TEST(ProfileReadTest, LinesOfAnyLengthAroundTheBlocksOfReading) {
  TemporaryFolder const folder;
  for (std::size_t const size : {16370U, 16383U, 16384U, 16385U, 32768U, 100000U, 10U << 20}) {
    makeFile(folder / "f",
             "[s]\na=" + std::string(size, 'x') + "\r\nk=v\r\n[t]\nk=" + std::string(size, 'y'));
    ASSERT_EQ(valueOf(folder.wide("f"), L"s", L"k"), L"v") << size;
    ASSERT_EQ(valueOf(folder.wide("f"), L"t", L"k"), std::wstring(999, L'y')) << size;
  }
}

TEST(ProfileReadTest, SizeCountsTheTerminator) {
  TemporaryFolder const folder;
  makeFile(folder / "f", "[s]\nk=12345\n");

  struct Row {
    unsigned long size;
    wchar_t const* key;
    unsigned long length;
    std::wstring buffer;
  };

  std::wstring const end(1, L'\0');
  std::vector<Row> const rows{
      {0, L"k", 0, L"########"},
      {1, L"k", 0, end + L"#######"},
      {2, L"k", 1, L"1" + end + L"######"},
      {5, L"k", 4, L"1234" + end + L"###"},
      {6, L"k", 5, L"12345" + end + L"##"},
      {7, L"k", 5, L"12345" + end + L"##"},
      {0, L"missing", 0, L"########"},
      {1, L"missing", 0, end + L"#######"},
      {3, L"missing", 2, L"(n" + end + L"#####"},
      {7, L"missing", 6, L"(none)" + end + L"#"},
  };
  for (Row const& row : rows) {
    std::wstring buffer(8, L'#');
    EXPECT_EQ(ZuDB_GetPrivateProfileStringW(L"s", row.key, kNone, buffer.data(), row.size,
                                            folder.wide("f").c_str()),
              row.length);
    EXPECT_EQ(buffer, row.buffer) << row.size;
  }
}

TEST(ProfileReadTest, NullsHaveAMeaning) {
  TemporaryFolder const folder;
  makeFile(folder / "f", "[s]\nk=v\n");
  std::wstring const file = folder.wide("f");
  std::wstring buffer(4, L'#');
  EXPECT_EQ(ZuDB_GetPrivateProfileStringW(L"s", L"q", nullptr, buffer.data(), 4, file.c_str()), 0U);
  EXPECT_EQ(buffer, std::wstring(L"\0###", 4));
  EXPECT_EQ(ZuDB_GetPrivateProfileStringW(L"s", L"k", kNone, nullptr, 4, file.c_str()), 0U);
  EXPECT_EQ(ZuDB_GetPrivateProfileStringW(nullptr, nullptr, kNone, nullptr, 4, file.c_str()), 0U);
  EXPECT_EQ(ZuDB_GetPrivateProfileStringW(L"s", L"k", L"d", buffer.data(), 4, nullptr), 1U);
  EXPECT_STREQ(buffer.c_str(), L"d");
}

TEST(ProfileReadTest, ListsSectionsAndKeysInTheOrderOfTheFile) {
  TemporaryFolder const folder;
  makeFile(folder / "f", "x=0\n[b]\nk=1\n;c=2\nj=3\nK=4\nnone\n[a]\n[\xFF]\n[B]\nl=5\n");
  std::wstring const file = folder.wide("f");
  EXPECT_EQ(listOf(file, nullptr), std::wstring(L"b\0a\0\uFFFD\0B\0", 8));
  EXPECT_EQ(listOf(file, L"B"), std::wstring(L"k\0j\0K\0", 6));
  EXPECT_EQ(listOf(file, L"a"), L"");
  EXPECT_EQ(listOf(file, L"missing"), L"");
  EXPECT_EQ(listOf(folder.wide("missing"), nullptr), L"");
}

TEST(ProfileReadTest, ListsThatDoNotFitEndInTwoNuls) {
  TemporaryFolder const folder;
  makeFile(folder / "f", "[ab]\n[cd]\n");

  struct Row {
    unsigned long size, length;
    std::wstring buffer;
  };

  std::vector<Row> const rows{
      {0, 0, L"########"},
      {1, 0, std::wstring(L"\0#######", 8)},
      {2, 0, std::wstring(L"\0\0######", 8)},
      {3, 1, std::wstring(L"a\0\0#####", 8)},
      {4, 2, std::wstring(L"ab\0\0####", 8)},
      {5, 3, std::wstring(L"ab\0\0\0###", 8)},
      {6, 4, std::wstring(L"ab\0c\0\0##", 8)},
      {7, 6, std::wstring(L"ab\0cd\0\0#", 8)},
      {8, 6, std::wstring(L"ab\0cd\0\0#", 8)},
  };
  for (Row const& row : rows) {
    std::wstring buffer(8, L'#');
    EXPECT_EQ(ZuDB_GetPrivateProfileStringW(nullptr, nullptr, kNone, buffer.data(), row.size,
                                            folder.wide("f").c_str()),
              row.length);
    EXPECT_EQ(buffer, row.buffer) << row.size;
  }
  std::wstring buffer(4, L'#');
  EXPECT_EQ(ZuDB_GetPrivateProfileStringW(L"none", nullptr, kNone, buffer.data(), 4,
                                          folder.wide("f").c_str()),
            0U);
  EXPECT_EQ(buffer, std::wstring(L"\0\0##", 4));
}

TEST(ProfileReadTest, WhatIsNoRegularFileHasNoValues) {
  TemporaryFolder const folder;
  std::string const fifo = folder / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  ASSERT_EQ(::symlink("loop", (folder / "loop").c_str()), 0);
  EXPECT_EQ(valueOf(folder.wide("missing"), L"s", L"k"), kNone);
  EXPECT_EQ(valueOf(folder.wide(""), L"s", L"k"), kNone);
  EXPECT_EQ(valueOf(folder.wide("loop"), L"s", L"k"), kNone);
  EXPECT_EQ(valueOf(L"", L"s", L"k"), kNone);
  EXPECT_EQ(valueOf(L"/dev/zero", L"s", L"k"), kNone);
  EXPECT_EQ(valueOf(folder.wide("fifo"), L"s", L"k"), kNone);
  // With a writer that never writes.
  int const writer = ::open(fifo.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(writer, 0);
  EXPECT_EQ(valueOf(folder.wide("fifo"), L"s", L"k"), kNone);
  ::close(writer);
}

TEST(ProfileReadTest, UnreadableFileHasNoValues) {
  TemporaryFolder const folder;
  makeFile(folder / "f", "[s]\nk=v\n");
  ASSERT_EQ(::chmod((folder / "f").c_str(), 0), 0);
  ASSERT_EQ(::chmod(folder.path().c_str(), 0755), 0);
  test::ChildResult const result = test::runInChild([&] {
    test::becomeOtherUser();
    EXPECT_EQ(valueOf(folder.wide("f"), L"s", L"k"), kNone);
  });
  EXPECT_EQ(result.status, 0) << result.standardError;
}

TEST(ProfileReadTest, FileNameBeyondTheLocaleHasNoValues) {
  LocaleScope const locale("C");
  EXPECT_EQ(valueOf(L"/tmp/\u00E9", L"s", L"k"), kNone);
}

TEST(ProfileReadTest, CaseBeyondAsciiIsThatOfTheLocale) {
  TemporaryFolder const folder;
  makeFile(folder / "f", "[s]\n\xC3\x89=v\n");
  for (auto const& [name, value] :
       {std::pair<char const*, wchar_t const*>{"C", kNone}, {"C.UTF-8", L"v"}}) {
    LocaleScope const locale(name);
    EXPECT_EQ(valueOf(folder.wide("f"), L"s", L"\u00E9"), value) << name;
    EXPECT_EQ(valueOf(folder.wide("f"), L"S", L"\u00C9"), L"v") << name;
  }
}

TEST(ProfileReadTest, FollowsSymbolicLinks) {
  TemporaryFolder const folder;
  makeFile(folder / "file", "[s]\nk=v\n");
  ASSERT_EQ(::symlink("file", (folder / "second").c_str()), 0);
  ASSERT_EQ(::symlink("second", (folder / "first").c_str()), 0);
  EXPECT_EQ(valueOf(folder.wide("first"), L"s", L"k"), L"v");
}

TEST(ProfileReadTest, LastOfAMillionSections) {
  constexpr int kSections = 1000000;
  TemporaryFolder const folder;
  std::string bytes;
  for (int i = 0; i < kSections; ++i)
    bytes.append("[").append(std::to_string(i)).append("]\nk=v\n");
  makeFile(folder / "f", bytes + "[last]\nk=w\n");
  std::wstring const file = folder.wide("f");
  EXPECT_EQ(valueOf(file, L"last", L"k"), L"w");
  EXPECT_EQ(write(file, L"last", L"l", L"x"), "success");
  EXPECT_EQ(write(file, L"new", L"k", L"y"), "success");
  EXPECT_EQ(write(file, L"0", L"k", nullptr), "success");
  bytes.erase(bytes.find('k'), 4);
  EXPECT_TRUE(fileBytes(folder / "f") == bytes + "[last]\nk=w\nl=x\n[new]\nk=y\n");
  EXPECT_EQ(listOf(file, nullptr).size(), 998U);
}

// Between the values is a hole that takes no space: a line of 100 MiB, which is
// more than can be read.
TEST(ProfileReadTest, FileIsReadAsFarAsTheValue) {
  TemporaryFolder const folder;
  makeFile(folder / "f", "[s]\nk=v\n[t]\nl=w\n");
  ASSERT_EQ(::truncate((folder / "f").c_str(), 100 << 20), 0) << std::strerror(errno);
  std::ofstream(folder / "f", std::ios::app) << "\nm=x\n[u]\nk=y\n";
  EXPECT_EQ(valueOf(folder.wide("f"), L"s", L"k"), L"v");
  EXPECT_EQ(valueOf(folder.wide("f"), L"t", L"l"), L"w");
  EXPECT_EQ(valueOf(folder.wide("f"), L"s", L"missing"), kNone);
  EXPECT_EQ(valueOf(folder.wide("f"), L"t", L"m"), kNone);
  EXPECT_EQ(valueOf(folder.wide("f"), L"u", L"k"), kNone);
}

TEST(ProfileReadTest, LineThatIsTooLongHasNoValue) {
  TemporaryFolder const folder;
  makeFile(folder / "f", "[s]\nk=v");
  ASSERT_EQ(::truncate((folder / "f").c_str(), 65 << 20), 0) << std::strerror(errno);
  EXPECT_EQ(valueOf(folder.wide("f"), L"s", L"k"), kNone);
  ASSERT_EQ(::truncate((folder / "f").c_str(), 63 << 20), 0) << std::strerror(errno);
  EXPECT_EQ(valueOf(folder.wide("f"), L"s", L"k"), L"v");
}

#ifdef __linux__

/// Bytes that this process has read so far, the text with that number included;
/// -1 where the host does not count.
long bytesRead() {
  std::ifstream counters("/proc/self/io");
  std::string name;
  long count = -1;
  counters >> name >> count;
  return name == "rchar:" ? count : -1;
}

TEST(ProfileReadTest, NoMoreOfAFileIsReadThanNeeded) {
  if (bytesRead() < 0) GTEST_SKIP() << "the host does not count the bytes that are read";
  constexpr long kMost = 70000;
  TemporaryFolder const folder;
  makeFile(folder / "f", "[s]\nk=v\n[t]\n" + std::string(8 << 20, '\n') + "[u]\nk=w\n");
  std::wstring const file = folder.wide("f");
  std::wstring buffer(6, L'#');

  struct Row {
    wchar_t const* section;
    wchar_t const* key;
    std::wstring buffer;
  };

  std::vector<Row> const rows{
      {L"s", L"k", std::wstring(L"v\0####", 6)},
      {L"s", L"missing", std::wstring(L"(none\0", 6)},
      {L"s", nullptr, std::wstring(L"k\0\0###", 6)},
      {nullptr, nullptr, std::wstring(L"s\0\0###", 6)},
  };
  for (Row const& row : rows) {
    // Of sections as many as there is room for are looked for.
    unsigned long const size = row.section == nullptr ? 3 : 6;
    buffer.assign(6, L'#');
    long const before = bytesRead();
    ZuDB_GetPrivateProfileStringW(row.section, row.key, kNone, buffer.data(), size, file.c_str());
    EXPECT_LT(bytesRead() - before, kMost) << &row - rows.data();
    EXPECT_EQ(buffer, row.buffer) << &row - rows.data();
  }
  long const before = bytesRead();
  EXPECT_EQ(valueOf(file, L"u", L"k"), L"w");
  EXPECT_GE(bytesRead() - before, 8 << 20);
}

#endif

struct WriteRow {
  char const* name;
  std::string before;
  std::string after;
  wchar_t const* value = L"v";
  wchar_t const* key = L"k";
  wchar_t const* section = L"s";
};

void PrintTo(WriteRow const& row, std::ostream* out) { *out << row.name; }

class ProfileChangeTest : public testing::TestWithParam<WriteRow> {};

TEST_P(ProfileChangeTest, ChangesThatAlone) {
  LocaleScope const locale("C.UTF-8");
  TemporaryFolder const folder;
  WriteRow const& row = GetParam();
  makeFile(folder / "file.ini", row.before);
  EXPECT_EQ(write(folder.wide("file.ini"), row.section, row.key, row.value), "success");
  EXPECT_EQ(fileBytes(folder / "file.ini"), row.after);
  EXPECT_EQ(countIn(folder.path()), 1U);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ProfileChangeTest,
    testing::Values(
        WriteRow{"EmptyFile", "", "[s]\nk=v\n"},
        WriteRow{"Replaced", "[s]\na=1\nk=old\nb=2\n", "[s]\na=1\nk=new\nb=2\n", L"new"},
        WriteRow{"BytesBeforeTheValueStay", "[s]\n K \t=\t old \t\n", "[s]\n K \t=\t new\n",
                 L"new"},
        WriteRow{"QuotesGo", "[s]\nk=\"old\"\n", "[s]\nk=new\n", L"new"},
        WriteRow{"QuotesAreStoredAsGiven", "[s]\nk=old\n", "[s]\nk=\"new\"\n", L"\"new\""},
        WriteRow{"BlanksAreStoredAsGiven", "[s]\nk= old\n", "[s]\nk=  new \n", L"  new "},
        WriteRow{"BlanksDoNotAddUp", "[s]\nk=  new \n", "[s]\nk=  new \n", L"  new "},
        WriteRow{"EmptyValue", "[s]\nk = old\n", "[s]\nk = \n", L""},
        WriteRow{"ValueFromEmpty", "[s]\nk=\nl=1\n", "[s]\nk=v\nl=1\n"},
        WriteRow{"ValueOfAnyCharacters", "[s]\n", "[s]\nk=a=b;[c]\xE2\x82\xAC\xF0\x9F\x98\x80\n",
                 L"a=b;[c]\u20AC\U0001F600"},
        WriteRow{"CommentsAndOrderStay", "; top\n[s]\n;k=1\n\nk=2 ; x\n; end\n[t]\nk=3\n",
                 "; top\n[s]\n;k=1\n\nk=v\n; end\n[t]\nk=3\n"},
        WriteRow{"NoFinalLineEndStays", "[s]\nk=old", "[s]\nk=v"},
        WriteRow{"NewKeyAfterNoFinalLineEnd", "[s]\na=1", "[s]\na=1\nk=v\n"},
        WriteRow{"NewSectionAfterNoFinalLineEnd", "[s]\na=1", "[s]\na=1\n[t]\nk=v\n", L"v", L"k",
                 L"t"},
        WriteRow{"NewKeyAfterTheLastLine", "[s]\na=1\n; end\n\n \t\n[t]\n",
                 "[s]\na=1\n; end\nk=v\n\n \t\n[t]\n"},
        WriteRow{"NewKeyInAnEmptySection", "[s]\n\n[t]\n", "[s]\nk=v\n\n[t]\n"},
        WriteRow{"NewKeyBeforeAnOpenBlankLine", "[s]\na=1\n  ", "[s]\na=1\nk=v\n  "},
        WriteRow{"NewSectionAtTheEnd", "[s]\na=1\n\n", "[s]\na=1\n\n[t]\nk=v\n", L"v", L"k", L"t"},
        WriteRow{"NamesAreTrimmed", "", "[s]\nk=v\n", L"v", L"\tk ", L" s "},
        WriteRow{"EmptySectionName", "k=1\n", "k=1\n[]\nk=v\n", L"v", L"k", L""},
        WriteRow{"CaseOfNames", "[S\xC3\x84]\nK\xC3\x89=1\n", "[S\xC3\x84]\nK\xC3\x89=v\n", L"v",
                 L"k\u00E9", L"s\u00E4"},
        WriteRow{"FirstOfEqualNames", "[s]\nk=1\nK=2\n[S]\nk=3\n", "[s]\nk=v\nK=2\n[S]\nk=3\n",
                 L"v", L"K", L"S"},
        WriteRow{"NewKeyInTheFirstSection", "[s]\n[S]\nk=3\n", "[s]\nK=v\n[S]\nk=3\n", L"v", L"K",
                 L"S"},
        WriteRow{"CarriageReturnsStay", "[s]\r\nk= old \r\nl=1\r\n", "[s]\r\nk= v\r\nl=1\r\n"},
        WriteRow{"NewLinesEndAsTheFirst", "[s]\r\na=1", "[s]\r\na=1\r\nk=v\r\n"},
        WriteRow{"NewSectionEndsAsTheFirst", "; x\r\n", "; x\r\n[s]\r\nk=v\r\n"},
        WriteRow{"MixedLineEnds", "[s]\nk=1\r\nl=2\n", "[s]\nk=v\r\nl=2\n"},
        WriteRow{"MixedLineEndsNewKey", "[s]\nk=1\r\n", "[s]\nk=1\r\nn=v\n", L"v", L"n"},
        WriteRow{"ByteOrderMark", "\xEF\xBB\xBF[s]\nk=1\n", "\xEF\xBB\xBF[s]\nk=v\n"},
        WriteRow{"ByteOrderMarkAlone", "\xEF\xBB\xBF", "\xEF\xBB\xBF[s]\nk=v\n"},
        WriteRow{"InvalidBytesStay", "\xFF\n[s\xFE]\n\xFD=\xFC\n[s]\nk=\xFB\n",
                 "\xFF\n[s\xFE]\n\xFD=\xFC\n[s]\nk=v\n"},
        WriteRow{"NulsStay", std::string("a\0b\n[s]\nk=1\0x\nl=\0\n", 18),
                 std::string("a\0b\n[s]\nk=v\nl=\0\n", 16)},
        WriteRow{"KeyRemoved", "[s]\na=1\nk=2\nb=3\n", "[s]\na=1\nb=3\n", nullptr},
        WriteRow{"KeyRemovedAtTheEnd", "[s]\na=1\nk=2", "[s]\na=1\n", nullptr},
        WriteRow{"RepeatedKeyRemoved", "[s]\nk=1\na=1\nK=2\n[S]\nk=3\n", "[s]\na=1\n[S]\nk=3\n",
                 nullptr},
        WriteRow{"MissingKeyRemoved", "[s]\na=1", "[s]\na=1", nullptr},
        WriteRow{"KeyOfAMissingSectionRemoved", "[t]\nk=1", "[t]\nk=1", nullptr},
        WriteRow{"SectionRemoved", "; top\n[a]\n[s]\nk=1\n; x\n\n[t]\nk=2\n",
                 "; top\n[a]\n[t]\nk=2\n", nullptr, nullptr, L"S"},
        WriteRow{"SectionRemovedWhateverTheValue", "[s]\nk=1\n[t]\n", "[t]\n", L"v", nullptr},
        WriteRow{"RepeatedSectionRemoved", "[s]\nk=1\n[t]\n[S]\nk=2\n", "[t]\n", nullptr, nullptr},
        WriteRow{"LastSectionRemoved", "[t]\r\n[s]\r\nk=1", "[t]\r\n", nullptr, nullptr},
        WriteRow{"OnlySectionRemoved", "\xEF\xBB\xBF[s]\nk=1\n", "\xEF\xBB\xBF", nullptr, nullptr},
        WriteRow{"MissingSectionRemoved", "[t]\nk=1", "[t]\nk=1", nullptr, nullptr}),
    nameOf<WriteRow>);

TEST(ProfileWriteTest, MakesAMissingFileWithTheUmasksMode) {
  TemporaryFolder const folder;
  UmaskScope const umask(027);
  EXPECT_EQ(write(folder.wide("f"), L"s", L"k", L"v"), "success");
  EXPECT_EQ(fileBytes(folder / "f"), "[s]\nk=v\n");
  EXPECT_EQ(statusOf(folder / "f").st_mode & 07777, 0640U);
  EXPECT_EQ(countIn(folder.path()), 1U);
}

TEST(ProfileWriteTest, RemovingFromAMissingFileMakesNone) {
  TemporaryFolder const folder;
  EXPECT_EQ(write(folder.wide("f"), L"s", L"k", nullptr), "success");
  EXPECT_EQ(write(folder.wide("f"), L"s", nullptr, nullptr), "success");
  EXPECT_EQ(write(folder.wide("missing/f"), L"s", nullptr, nullptr), "success");
  EXPECT_FALSE(exists(folder / "f"));
}

TEST(ProfileWriteTest, NothingToChangeLeavesTheFileAlone) {
  TemporaryFolder const folder;
  makeFile(folder / "f", "[s]\nk= v\n");
  ino_t const file = statusOf(folder / "f").st_ino;
  // After each: a number that has become free may be given again.
  EXPECT_EQ(write(folder.wide("f"), L"S", L"K", L"v"), "success");
  EXPECT_EQ(statusOf(folder / "f").st_ino, file);
  EXPECT_EQ(write(folder.wide("f"), L"s", L"l", nullptr), "success");
  EXPECT_EQ(statusOf(folder / "f").st_ino, file);
  EXPECT_EQ(write(folder.wide("f"), L"t", nullptr, nullptr), "success");
  EXPECT_EQ(statusOf(folder / "f").st_ino, file);
  EXPECT_EQ(write(folder.wide("f"), L"s", L"k", L"w"), "success");
  EXPECT_NE(statusOf(folder / "f").st_ino, file);
}

TEST(ProfileWriteTest, KeepsModeAndOwner) {
  TemporaryFolder const folder;
  makeFile(folder / "f", "[s]\n");
  ASSERT_EQ(::chmod((folder / "f").c_str(), 0604), 0);
  bool const isRoot = ::geteuid() == 0;
  uid_t const owner = isRoot ? 12345 : ::geteuid();
  gid_t const group = isRoot ? 12346 : statusOf(folder / "f").st_gid;
  ASSERT_EQ(::chown((folder / "f").c_str(), owner, group), 0);
  EXPECT_EQ(write(folder.wide("f"), L"s", L"k", L"v"), "success");
  struct stat const status = statusOf(folder / "f");
  EXPECT_EQ(status.st_mode & 07777, 0604U);
  EXPECT_EQ(status.st_uid, owner);
  EXPECT_EQ(status.st_gid, group);
}

TEST(ProfileWriteTest, FollowsSymbolicLinks) {
  TemporaryFolder const folder;
  ASSERT_EQ(::mkdir((folder / "sub").c_str(), 0700), 0);
  ASSERT_EQ(::symlink("sub/second", (folder / "first").c_str()), 0);
  ASSERT_EQ(::symlink("file", (folder / "sub/second").c_str()), 0);
  EXPECT_EQ(write(folder.wide("first"), L"s", L"k", L"v"), "success");
  EXPECT_EQ(fileBytes(folder / "sub/file"), "[s]\nk=v\n");
  EXPECT_EQ(write(folder.wide("first"), L"s", L"k", L"w"), "success");
  EXPECT_EQ(fileBytes(folder / "sub/file"), "[s]\nk=w\n");
  EXPECT_TRUE(std::filesystem::is_symlink(folder / "first"));
  EXPECT_TRUE(std::filesystem::is_symlink(folder / "sub/second"));
}

TEST(ProfileWriteTest, LongLinesStayAndLongValuesComeBack) {
  constexpr std::size_t kLength = 10 << 20;
  TemporaryFolder const folder;
  std::string const comment = ";" + std::string(kLength, '\xFF') + "\r\n[s]\r\n";
  makeFile(folder / "f", comment);
  std::wstring const file = folder.wide("f");
  std::wstring const value(kLength, L'x');
  EXPECT_EQ(write(file, L"s", L"k", value.c_str()), "success");
  EXPECT_TRUE(fileBytes(folder / "f") == comment + "k=" + std::string(kLength, 'x') + "\r\n");
  std::wstring buffer(kLength + 1, L'#');
  EXPECT_EQ(
      ZuDB_GetPrivateProfileStringW(L"s", L"k", kNone, buffer.data(), kLength + 1, file.c_str()),
      kLength);
  EXPECT_TRUE(std::wcscmp(buffer.data(), value.c_str()) == 0);
  EXPECT_EQ(write(file, L"s", L"k", nullptr), "success");
  EXPECT_TRUE(fileBytes(folder / "f") == comment);
}

// A reader would take the file for one that cannot be read from there on.
TEST(ProfileWriteTest, RefusesLinesThatCannotBeRead) {
  TemporaryFolder const folder;
  std::string const before = "[s]\nk=\nl=w\n";
  makeFile(folder / "f", before);
  std::wstring const file = folder.wide("f");
  std::wstring text(16 << 20, L'\U0001F600');  // 64 MiB
  EXPECT_EQ(write(file, L"s", L"k", text.c_str()), std::strerror(EFBIG));
  EXPECT_EQ(write(file, L"s", text.c_str(), L"v"), std::strerror(EFBIG));
  EXPECT_EQ(write(file, text.c_str(), L"k", L"v"), std::strerror(EFBIG));
  EXPECT_EQ(fileBytes(folder / "f"), before);
  text.pop_back();
  EXPECT_EQ(write(file, L"s", L"k", text.c_str()), "success");
  EXPECT_EQ(valueOf(file, L"s", L"l"), L"w");
}

TEST(ProfileWriteTest, RefusesToMakeAFileThatIsTooLarge) {
  constexpr off_t kLargest = 256 << 20;
  TemporaryFolder const folder;
  makeFile(folder / "f", "[s]\nk=v\n");
  ASSERT_EQ(::truncate((folder / "f").c_str(), kLargest), 0) << std::strerror(errno);
  EXPECT_EQ(write(folder.wide("f"), L"s", L"k", L"long"), std::strerror(EFBIG));
  EXPECT_EQ(write(folder.wide("f"), L"s", L"k", L"v"), "success");
  EXPECT_EQ(statusOf(folder / "f").st_size, kLargest);
  EXPECT_EQ(valueOf(folder.wide("f"), L"s", L"k"), L"v");
}

TEST(ProfileWriteTest, RefusesWhatTheFileCannotHold) {
  TemporaryFolder const folder;
  std::string const before = "[s]\nk=v\n";
  makeFile(folder / "f", before);

  struct Row {
    wchar_t const* section;
    wchar_t const* key;
    wchar_t const* value;
    int number;
  };

  std::wstring const surrogate(1, static_cast<wchar_t>(0xD800));
  std::vector<Row> const rows{
      {nullptr, L"k", L"v", EINVAL},
      {L"a\nb", L"k", L"v", EINVAL},
      {L"a\rb", L"k", L"v", EINVAL},
      {L"a]", L"k", L"v", EINVAL},
      {L"a]", nullptr, L"v", EINVAL},
      {L"s", L"a\nb", L"v", EINVAL},
      {L"s", L"a\rb", L"v", EINVAL},
      {L"s", L"a=b", L"v", EINVAL},
      {L"s", L";a", L"v", EINVAL},
      {L"s", L" ;a", L"v", EINVAL},
      {L"s", L"[a", L"v", EINVAL},
      {L"s", L"", L"v", EINVAL},
      {L"s", L" \t", L"v", EINVAL},
      {L"s", L"", nullptr, EINVAL},
      {L"s", L"k", L"a\nb", EINVAL},
      {L"s", L"k", L"a\r", EINVAL},
      {L"s", L"k", surrogate.c_str(), EILSEQ},
      {L"s", surrogate.c_str(), L"v", EILSEQ},
      {surrogate.c_str(), L"k", L"v", EILSEQ},
  };
  for (Row const& row : rows) {
    EXPECT_EQ(write(folder.wide("f"), row.section, row.key, row.value), std::strerror(row.number))
        << &row - rows.data();
    EXPECT_EQ(write(folder.wide("new"), row.section, row.key, row.value),
              std::strerror(row.number));
  }
  EXPECT_EQ(fileBytes(folder / "f"), before);
  EXPECT_EQ(countIn(folder.path()), 1U);
}

TEST(ProfileWriteTest, FailuresOfTheSystemAreInErrno) {
  TemporaryFolder const folder;
  makeFile(folder / "f", "[s]\nk=v\n");
  ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
  ASSERT_EQ(::symlink("loop", (folder / "loop").c_str()), 0);
  makeFile(folder / "huge", "[s]\n");
  ASSERT_EQ(::truncate((folder / "huge").c_str(), (256 << 20) + 1), 0);

  struct Row {
    std::wstring file;
    int number;
  };

  std::vector<Row> const rows{
      {L"", EINVAL},
      {folder.wide(""), EISDIR},
      {folder.wide("fifo"), EINVAL},
      {L"/dev/null", EINVAL},
      {folder.wide("loop"), ELOOP},
      {folder.wide("f/f"), ENOTDIR},
      {folder.wide("missing/f"), ENOENT},
      {folder.wide(std::string(300, 'n')), ENAMETOOLONG},
      {folder.wide("huge"), EFBIG},
  };
  for (Row const& row : rows) {
    EXPECT_EQ(write(row.file, L"s", L"k", L"v"), std::strerror(row.number))
        << std::filesystem::path(row.file);
  }
  EXPECT_EQ(ZuDB_WritePrivateProfileStringW(L"s", L"k", L"v", nullptr), 0);
  EXPECT_EQ(errno, EINVAL);
  LocaleScope const locale("C");
  EXPECT_EQ(write(folder.wide("x") + L"\u00E9", L"s", L"k", L"v"), std::strerror(EILSEQ));
}

TEST(ProfileWriteTest, FilesAndFoldersWithoutWritePermissionAreErrors) {
  TemporaryFolder const folder;
  makeFile(folder / "f", "[s]\nk=v\n");
  ASSERT_EQ(::chmod((folder / "f").c_str(), 0444), 0);
  ASSERT_EQ(::chmod(folder.path().c_str(), 0777), 0);
  ASSERT_EQ(::mkdir((folder / "closed").c_str(), 0755), 0);
  makeFile(folder / "closed/f", "[s]\nk=v\n");
  ASSERT_EQ(::chmod((folder / "closed/f").c_str(), 0666), 0);
  ASSERT_EQ(::chmod((folder / "closed").c_str(), 0555), 0);
  makeFile(folder / "secret", "[s]\nk=v\n");
  ASSERT_EQ(::chmod((folder / "secret").c_str(), 0222), 0);
  test::ChildResult const result = test::runInChild([&] {
    test::becomeOtherUser();
    EXPECT_EQ(write(folder.wide("f"), L"s", L"k", L"w"), std::strerror(EACCES));
    EXPECT_EQ(write(folder.wide("secret"), L"s", L"k", L"w"), std::strerror(EACCES));
    EXPECT_EQ(write(folder.wide("closed/f"), L"s", L"k", L"w"), std::strerror(EACCES));
    EXPECT_EQ(write(folder.wide("closed/new"), L"s", L"k", L"w"), std::strerror(EACCES));
    EXPECT_EQ(write(folder.wide("closed/new"), L"s", L"k", nullptr), "success");
  });
  EXPECT_EQ(result.status, 0) << result.standardError;
  ASSERT_EQ(::chmod((folder / "closed").c_str(), 0755), 0);
  EXPECT_EQ(fileBytes(folder / "f"), "[s]\nk=v\n");
  EXPECT_EQ(fileBytes(folder / "closed/f"), "[s]\nk=v\n");
}

// As in the folder for temporary files: who does not own a file may write it, but not
// replace it.
TEST(ProfileWriteTest, AnothersFileInAStickyFolderIsAnErrorExceptForRoot) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can make a file of another user";
  constexpr uid_t kOwner = 23456;
  TemporaryFolder const folder;
  makeFile(folder / "f", "[s]\nk=v\n");
  ASSERT_EQ(::chmod((folder / "f").c_str(), 0666), 0);
  ASSERT_EQ(::chown((folder / "f").c_str(), kOwner, kOwner), 0);
  ASSERT_EQ(::chmod(folder.path().c_str(), 01777), 0);
  test::ChildResult const result = test::runInChild([&] {
    test::becomeOtherUser();
    EXPECT_EQ(write(folder.wide("f"), L"s", L"k", L"w"), std::strerror(EPERM));
    EXPECT_EQ(valueOf(folder.wide("f"), L"s", L"k"), L"v");
  });
  EXPECT_EQ(result.status, 0) << result.standardError;
  EXPECT_EQ(write(folder.wide("f"), L"s", L"k", L"w"), "success");
  EXPECT_EQ(fileBytes(folder / "f"), "[s]\nk=w\n");
  EXPECT_EQ(statusOf(folder / "f").st_uid, kOwner);
  EXPECT_EQ(statusOf(folder / "f").st_mode & 07777, 0666U);
  EXPECT_EQ(countIn(folder.path()), 1U);
}

TEST(ProfileWriteTest, FolderThatMayBeChangedButNotReadIsEnough) {
  TemporaryFolder const folder;
  ASSERT_EQ(::chmod(folder.path().c_str(), 0333), 0);
  test::ChildResult const result = test::runInChild([&] {
    test::becomeOtherUser();
    EXPECT_NE(::access(folder.path().c_str(), R_OK), 0);
    EXPECT_EQ(write(folder.wide("f"), L"s", L"k", L"v"), "success");
    EXPECT_EQ(write(folder.wide("f"), L"s", L"k", L"w"), "success");
  });
  EXPECT_EQ(result.status, 0) << result.standardError;
  ASSERT_EQ(::chmod(folder.path().c_str(), 0700), 0);
  EXPECT_EQ(fileBytes(folder / "f"), "[s]\nk=w\n");
  EXPECT_EQ(countIn(folder.path()), 1U);
}

TEST(ProfileWriteTest, FailureWhileWritingLeavesTheOldFileOrNone) {
  TemporaryFolder const folder;
  makeFile(folder / "f", "[s]\nk=v\n");
  test::ChildResult const result = test::runInChild([&] {
    rlimit const noFile{0, 0};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &noFile), 0);
    EXPECT_EQ(write(folder.wide("f"), L"s", L"k", L"w"), std::strerror(EFBIG));
    EXPECT_EQ(write(folder.wide("new"), L"s", L"k", L"w"), std::strerror(EFBIG));
  });
  EXPECT_EQ(result.status, 0) << result.standardError;
  EXPECT_EQ(fileBytes(folder / "f"), "[s]\nk=v\n");
  EXPECT_EQ(countIn(folder.path()), 1U);
}

/// A file of lines that mean something and lines that do not.
std::string randomFile(std::mt19937& random) {
  constexpr std::array<char const*, 14> kLines{"[s]",     "[S]",  "[t]",     "k=1",    " K = 2 ",
                                               "l=\"3\"", ";k=4", "",        "  ",     "[u",
                                               "=5",      "m",    "\xFFk=6", "k\xFF=7"};
  std::string file = random() % 8 == 0 ? "\xEF\xBB\xBF" : "";
  std::string const end = random() % 2 == 0 ? "\n" : "\r\n";
  for (std::size_t count = random() % 12; count > 0; --count) {
    file += kLines[random() % kLines.size()] + end;
  }
  if (!file.empty() && random() % 3 == 0) file.pop_back();
  return file;
}

/// The values of all keys that may be in such a file.
std::vector<std::wstring> allValues(std::wstring const& file) {
  std::vector<std::wstring> values;
  for (wchar_t const* const section : {L"s", L"t"}) {
    for (wchar_t const* const key : {L"k", L"l", L"m", L"k\uFFFD", L"\uFFFDk"}) {
      values.push_back(valueOf(file, section, key));
    }
  }
  return values;
}

TEST(ProfileWriteTest, WrittenValuesReadBackAndOthersStay) {
  TemporaryFolder const folder;
  std::mt19937 random(1);
  std::wstring const file = folder.wide("f");
  for (int round = 0; round < 400; ++round) {
    std::string const before = randomFile(random);
    makeFile(folder / "f", before);
    std::vector<std::wstring> expected = allValues(file);
    bool const isRemoval = random() % 3 == 0;
    wchar_t const* const section = random() % 2 == 0 ? L"s" : L"t";
    ASSERT_EQ(write(file, section, L"k", isRemoval ? nullptr : L"new"), "success");
    expected[*section == L's' ? 0 : 5] = isRemoval ? kNone : L"new";
    ASSERT_EQ(allValues(file), expected) << before << "\n---\n" << fileBytes(folder / "f");
  }
}

}  // namespace

}  // namespace vrxutil

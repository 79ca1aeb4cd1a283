// vrxtool ini.

#include "tests/tools/tool_support.h"

#include <sys/stat.h>

namespace {

using vrxutil::test::answeredNo;
using vrxutil::test::done;
using vrxutil::test::failed;
using vrxutil::test::kDiskFull;
using vrxutil::test::kNoMountsStatus;
using vrxutil::test::kOutputClosed;
using vrxutil::test::ToolResult;
using vrxutil::test::ToolTest;

constexpr char kFile[] =
    "; limits\r\n"
    "[net]\r\n"
    "Port = 80\r\n"
    "\r\n"
    "[log] level = 2 ; no comment\r\n"
    "[net]\r\n"
    "host=";

class IniCommandTest : public ToolTest {
protected:
  IniCommandTest() { file("a.ini", kFile); }
};

TEST_F(IniCommandTest, ListShowsWhatTheLibraryReads) {
  EXPECT_EQ(run("ini list a.ini"), done("[log]\nlevel=2 ; no comment\n[net]\nPort=80\nhost=\n"));
  EXPECT_EQ(runOn("a=1\n[b]\nc=\xC3\xA4", "ini list -"), done("[]\na=1\n[b]\nc=\xC3\xA4\n"));
  EXPECT_EQ(runOn("", "ini list -"), done());
}

TEST_F(IniCommandTest, ListAsJson) {
  EXPECT_EQ(runOn("[b]\nx=\"1\"\n[a]\nk=\xC3\xA4\n", "ini list - --json"),
            done("{\n  \"a\": {\n    \"k\": \"\xC3\xA4\"\n  },\n  \"b\": {\n    \"x\": "
                 "\"\\\"1\\\"\"\n  }\n}\n"));
  EXPECT_EQ(runOn("", "ini list - --json"), done("{}\n"));
}

TEST_F(IniCommandTest, GetReadsOneValue) {
  EXPECT_EQ(run("ini get a.ini NET port"), done("80\n"));
  EXPECT_EQ(runOn("[a]\nb=\n", "ini get - a b"), done("\n"));
  EXPECT_EQ(runOn("[a]\nb=0\nc=1", "ini get - a b"), done("0\n"));
  EXPECT_EQ(runOn("[a]\nb=0\nc=1", "ini get - a c"), done("1\n"));
  std::string const longValue(100000, 'x');
  EXPECT_EQ(runOn("[a]\nb=" + longValue, "ini get - a b"), done(longValue + "\n"));
  EXPECT_EQ(run("ini get a.ini net none"), answeredNo("a.ini: no key none in section net"));
  EXPECT_EQ(run("ini get a.ini none port"), answeredNo("a.ini: no key port in section none"));
}

TEST_F(IniCommandTest, SetKeepsEveryOtherByte) {
  EXPECT_EQ(run("ini set a.ini net port 8080"), done("changed\n"));
  std::string expected = kFile;
  expected.replace(expected.find("80"), 2, "8080");
  EXPECT_EQ(bytesOf("a.ini"), expected);
  EXPECT_EQ(run("ini set a.ini new key value"), done("changed\n"));
  EXPECT_EQ(bytesOf("a.ini"), expected + "\r\n[new]\r\nkey=value\r\n");
}

/// Files in which the value OLD is the one of KEY in the section SECTION.
struct OddFile {
  char const* name;
  std::string bytes;
};

void PrintTo(OddFile const& row, std::ostream* out) { *out << row.name; }

class IniSetTest : public IniCommandTest, public testing::WithParamInterface<OddFile> {};

std::string withValue(std::string bytes, std::string const& value) {
  return bytes.replace(bytes.find("OLD"), 3, value);
}

TEST_P(IniSetTest, KeepsEveryOtherByte) {
  std::string const& before = GetParam().bytes;
  file("b.ini", before);
  EXPECT_EQ(run("ini get b.ini section key"), done("OLD\n"));
  EXPECT_EQ(run("ini set b.ini section key OLD"), done("unchanged\n"));
  EXPECT_EQ(bytesOf("b.ini"), before);
  for (std::string const value : {"n", "a = [new]; value", "\u20AC", "", "OLD"}) {
    EXPECT_EQ(run("ini set b.ini section key '" + value + "'"), done("changed\n"));
    EXPECT_EQ(bytesOf("b.ini"), withValue(before, value));
    EXPECT_EQ(runOn(before, "ini set - SECTION KEY '" + value + "'").output,
              withValue(before, value));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Files, IniSetTest,
    testing::Values(
        OddFile{"Plain", "[section]\nkey=OLD\n"}, OddFile{"CrLf", "[section]\r\nkey=OLD\r\n"},
        OddFile{"MixedLineEnds", "\r\n\n[section]\r\n\nkey=OLD\nb=1\r\n\r\r\n"},
        OddFile{"NoLineEnd", "[section]\nkey=OLD"},
        OddFile{"ByteOrderMark", "\xEF\xBB\xBF[section]\nkey=OLD\n"},
        OddFile{"Blanks", "\t [ section ] x\n \tkey \t=  OLD\nb = c \t\n\n\n"},
        OddFile{"Comments", ";[section]\n;key=1\n[section] ; c\n;key=2\nkey=OLD\n; end"},
        OddFile{"SectionsOfOneName", "[x]\nkey=1\n[SECTION]\nkey=OLD\n[section]\nkey=2\n"},
        OddFile{"KeysOfOneName", "[section]\nKEY=OLD\nkey=2\nkey=OLDER\n"},
        OddFile{"NotUtf8", "\xFF\n[\xFE]\n\xC3=\xC3\n[section]\n\xFF\nkey=OLD\n\x80=\xFF\n"},
        OddFile{"Nul", std::string("a\0b\n[section]\nkey=OLD\n\0\0\n[x]\0\n", 30)},
        OddFile{"NoIniFile", "<a>\n}\n=\n[\n]\n[section]\n== \nkey=OLD\n\x1B[2J\n"}),
    testing::PrintToStringParamName());

/// What is added to a file with no such key.
struct Addition {
  char const* name;
  std::string before;
  std::string after;
};

void PrintTo(Addition const& row, std::ostream* out) { *out << row.name; }

class IniAdditionTest : public IniCommandTest, public testing::WithParamInterface<Addition> {};

TEST_P(IniAdditionTest, SetAddsAKey) {
  file("b.ini", GetParam().before);
  EXPECT_EQ(run("ini set b.ini s k v"), done("changed\n"));
  EXPECT_EQ(bytesOf("b.ini"), GetParam().after);
  EXPECT_EQ(run("ini set b.ini s k v"), done("unchanged\n"));
}

INSTANTIATE_TEST_SUITE_P(
    Files, IniAdditionTest,
    testing::Values(Addition{"EmptyFile", "", "[s]\nk=v\n"},
                    Addition{"NoSection", "k=1", "k=1\n[s]\nk=v\n"},
                    Addition{"BeforeBlankLines", "[s]\na=1\n\n\n[t]\n", "[s]\na=1\nk=v\n\n\n[t]\n"},
                    Addition{"AsTheFirstLineEnds", "[s]\r\n\n[t]\nk=2", "[s]\r\nk=v\r\n\n[t]\nk=2"},
                    Addition{"BehindNoLineEnd", "[s]\r\na=1", "[s]\r\na=1\r\nk=v\r\n"},
                    Addition{"InAComment", "[s]\n;k=v\n", "[s]\n;k=v\nk=v\n"}),
    testing::PrintToStringParamName());

TEST_F(IniCommandTest, CaseCountsInNoLocale) {
  file("b.ini", "[\u00C4]\n\u00D6=1\n");
  for (std::string const locale : {"C", "C.UTF-8"}) {
    EXPECT_EQ(shell("LC_ALL=" + locale + " vrxtool ini get b.ini \u00E4 \u00F6"), done("1\n"));
  }
}

TEST_F(IniCommandTest, SetKeepsModeAndLink) {
  EXPECT_EQ(shell("chmod 640 a.ini; ln -s a.ini link; vrxtool ini set link net port 81\n"
                  "readlink link; stat -c %a a.ini; vrxtool ini get a.ini net port"),
            done("changed\na.ini\n640\n81\n"));
}

TEST_F(IniCommandTest, SetSaysWhereNothingChanges) {
  struct stat before {};

  struct stat after {};

  ::stat((folder / "a.ini").c_str(), &before);
  EXPECT_EQ(run("ini set a.ini net port 80"), done("unchanged\n"));
  ::stat((folder / "a.ini").c_str(), &after);
  EXPECT_EQ(after.st_ino, before.st_ino);
  EXPECT_EQ(bytesOf("a.ini"), kFile);
}

TEST_F(IniCommandTest, SetTakesAnyValue) {
  EXPECT_EQ(run("ini set a.ini net port ''"), done("changed\n"));
  EXPECT_EQ(run("ini get a.ini net port"), done("\n"));
  EXPECT_EQ(run("ini set a.ini net port -5"), done("changed\n"));
  EXPECT_EQ(run("ini set a.ini net port --try"),
            failed("no option --try; a value that begins with - comes after a --"));
  EXPECT_EQ(run("ini set a.ini net port \uFEFF1"), done("changed\n"));
  EXPECT_EQ(run("ini get a.ini net port"), done("\uFEFF1\n"));
  EXPECT_EQ(run("ini set a.ini net port -- --try"), done("changed\n"));
  EXPECT_EQ(run("ini get a.ini net port"), done("--try\n"));
  EXPECT_EQ(run("ini set a.ini host match '[1,2]'"), done("changed\n"));
  EXPECT_EQ(run("ini get a.ini host match"), done("[1,2]\n"));
}

TEST_F(IniCommandTest, SetIsAFilterOfStandardInput) {
  EXPECT_EQ(runOn("[a]\nb=1\n", "ini set - a b 2"),
            (ToolResult{0, "[a]\nb=2\n", "vrxtool: changed\n"}));
  EXPECT_EQ(runOn("[a]\nb=1\n", "ini set - a b 1"),
            (ToolResult{0, "[a]\nb=1\n", "vrxtool: unchanged\n"}));
}

TEST_F(IniCommandTest, SetRefusesWhatHasNoPlace) {
  constexpr char kNoPlace[] =
      "cannot change a.ini: INI files have no place for such a section, key or value";
  EXPECT_EQ(run("ini set a.ini 'a]' b c"), failed(kNoPlace));
  EXPECT_EQ(run("ini set a.ini a 'b=' c"), failed(kNoPlace));
  EXPECT_EQ(run("ini set a.ini a b \"$(printf 'c\\nd')\""), failed(kNoPlace));
  EXPECT_EQ(run("ini set a.ini a '' c"), failed(kNoPlace));
  EXPECT_EQ(run("ini set a.ini a ';b' c"), failed(kNoPlace));
  EXPECT_EQ(run("ini set a.ini '' b c"), failed("SECTION is blank"));
  EXPECT_EQ(run("ini set a.ini \" $(printf '\\t')\" b c"), failed("SECTION is blank"));
  EXPECT_EQ(run("ini set a.ini \"$(printf '\\377')\" b c"), failed("SECTION is not UTF-8: \\xff"));
  EXPECT_EQ(run("ini set a.ini a \"$(printf '\\377')\" c"), failed("KEY is not UTF-8: \\xff"));
  EXPECT_EQ(run("ini set a.ini a b \"$(printf '\\377')\""), failed("VALUE is not UTF-8: \\xff"));
  EXPECT_EQ(bytesOf("a.ini"), kFile);
}

struct BrokenFile {
  char const* name;
  std::string bytes;
  char const* problem;
};

void PrintTo(BrokenFile const& row, std::ostream* out) { *out << row.name; }

class IniCheckTest : public IniCommandTest, public testing::WithParamInterface<BrokenFile> {};

TEST_P(IniCheckTest, SaysFileLineAndReason) {
  file("b.ini", GetParam().bytes);
  std::string const problem = std::string("b.ini:") + GetParam().problem;
  EXPECT_EQ(run("ini check b.ini"), answeredNo(problem));
  EXPECT_EQ(run("ini list b.ini"), failed(problem));
  EXPECT_EQ(run("ini sort b.ini --force"), failed(problem));
  EXPECT_EQ(bytesOf("b.ini"), GetParam().bytes);
}

INSTANTIATE_TEST_SUITE_P(
    Files, IniCheckTest,
    testing::Values(
        BrokenFile{"BracketInAKey", "[a]\nb=1\nc[=3\n", "3: Unexpected: '['"},
        BrokenFile{"CrLfIsOneLineEnd", "[a]\r\nb=1\r\nc[=3\r\n", "3: Unexpected: '['"},
        BrokenFile{"CrIsOneLineEnd", "[a]\rb=1\rc[=3\r", "3: Unexpected: '['"},
        BrokenFile{"LinesOfAllKinds", "\r\n\n\r\r\n]\n", "5: Unexpected: ']'"},
        BrokenFile{"EmptySection", "[]\n", "1: Unexpected: empty section"},
        BrokenFile{"NoKey", "[a]\n=1\n", "2: Unexpected: '='"},
        BrokenFile{"NoValue", "[a]\r\nkey\r\nb=1\r\n", "2: Unexpected: new line"},
        BrokenFile{"BracketInAComment", "; [x\n", "1: Unexpected: '['"},
        BrokenFile{"UnfinishedComment", "[a]\r\n; c", "2: the comment has no line end"},
        BrokenFile{"UnfinishedSection", "[a]\r\n[b", "2: the section's name has no ]"},
        BrokenFile{"UnfinishedKey", "[a]\n\nkey", "3: the key has no ="},
        BrokenFile{"UnfinishedBeforeNul", std::string("[a]\nkey\0=1\n", 11), "2: the key has no ="},
        BrokenFile{"NotUtf8", "[a]\r\nb=1\r\nc=\xFF\n", "3: invalid UTF-8 at byte offset 12"}),
    testing::PrintToStringParamName());

/// What breaks the syntax at the end of a text that keeps to it, on the line after it.
struct Mistake {
  char const* name;
  std::string text;
  char const* reason;
};

void PrintTo(Mistake const& row, std::ostream* out) { *out << row.name; }

class IniLineTest : public IniCommandTest, public testing::WithParamInterface<Mistake> {};

// Each cell of the grammar that is an error, and the ends that are none.
TEST_P(IniLineTest, CountsLinesAsAnEditorDoes) {
  struct Lines {
    std::string text;
    int count;
  };

  for (Lines const& lines :
       {Lines{"", 0}, Lines{"\n", 1}, Lines{"\r", 1}, Lines{"\r\n", 1}, Lines{"\n\r", 2},
        Lines{"a=1\nb=2\n", 2}, Lines{"a=1\rb=2\r", 2}, Lines{"a=1\r\nb=2\r\n", 2},
        Lines{"\r\r\n\n", 3}, Lines{"[a]\r\n;\r\rx=\n", 4}, Lines{"\xEF\xBB\xBF; \u20AC\r\n", 1}}) {
    std::string reason = "standard input:";
    reason.append(std::to_string(lines.count + 1)).append(": ").append(GetParam().reason);
    EXPECT_EQ(runOn(lines.text + GetParam().text, "ini check -"), answeredNo(reason));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cells, IniLineTest,
    testing::Values(Mistake{"LeftInSection", "[s[", "Unexpected: '['"},
                    Mistake{"LeftInKey", "k[", "Unexpected: '['"},
                    Mistake{"LeftInComment", ";[", "Unexpected: '['"},
                    Mistake{"RightAtTheBeginning", "]", "Unexpected: ']'"},
                    Mistake{"RightInEmptySection", "[]", "Unexpected: empty section"},
                    Mistake{"RightInKey", "k]", "Unexpected: ']'"},
                    Mistake{"RightInComment", ";]", "Unexpected: ']'"},
                    Mistake{"EqualsAtTheBeginning", "=", "Unexpected: '='"},
                    Mistake{"EqualsInSection", "[s=", "Unexpected: '='"},
                    Mistake{"EqualsInComment", ";=", "Unexpected: '='"},
                    Mistake{"LfInSection", "[s\n", "Unexpected: new line"},
                    Mistake{"CrInSection", "[s\r", "Unexpected: new line"},
                    Mistake{"CrLfInSection", "[s\r\n", "Unexpected: new line"},
                    Mistake{"LfInKey", "k\n", "Unexpected: new line"},
                    Mistake{"CrInKey", "k\r", "Unexpected: new line"},
                    Mistake{"CrLfInKey", "k\r\nx=1", "Unexpected: new line"},
                    Mistake{"EndInSection", "[s", "the section's name has no ]"},
                    Mistake{"EndInEmptySection", "[", "the section's name has no ]"},
                    Mistake{"EndInKey", "k", "the key has no ="},
                    Mistake{"EndInComment", "; c", "the comment has no line end"},
                    Mistake{"BehindAHeader", "[s] ]", "Unexpected: ']'"}),
    testing::PrintToStringParamName());

TEST_F(IniCommandTest, CheckOfAGoodFileSaysNothing) {
  EXPECT_EQ(run("ini check a.ini"), done());
  EXPECT_EQ(runOn("", "ini check -"), done());
  EXPECT_EQ(runOn("x", "ini check -"), answeredNo("standard input:1: the key has no ="));
}

TEST_F(IniCommandTest, SortRewritesInTheLibrarysLayout) {
  file("b.ini", "[b]\ny=2\nx=1\n[a]\nq = \"1\"\n[b]\ny=3");
  ASSERT_EQ(::chmod((folder / "b.ini").c_str(), 0640), 0);
  EXPECT_EQ(run("ini sort b.ini"), done("changed\n"));
  EXPECT_EQ(bytesOf("b.ini"), "[a]\nq=\"1\"\n\n[b]\nx=1\ny=3\n\n");

  struct stat status {};

  ::stat((folder / "b.ini").c_str(), &status);
  EXPECT_EQ(status.st_mode & 07777U, 0640U);
  EXPECT_EQ(shell("ln b.ini c.ini; vrxtool ini sort b.ini; [ b.ini -ef c.ini ]"),
            done("unchanged\n"));  // not even replaced by its like
  EXPECT_EQ(runOn("[b]\n\n[a]\nx=1", "ini sort -"),
            (ToolResult{0, "[a]\nx=1\n\n", "vrxtool: changed\n"}));
}

TEST_F(IniCommandTest, SortRefusesWhatWouldNotReadBack) {
  constexpr char kBefore[] = ": the pairs before the first section would not read back";
  for (std::string const bytes : {"x=1\n[a]\ny=2\n", "[ ]\nx=1\n"}) {
    file("b.ini", bytes);
    EXPECT_EQ(run("ini sort b.ini"), failed(std::string("b.ini") + kBefore));
    EXPECT_EQ(run("ini sort b.ini --force"), failed(std::string("b.ini") + kBefore));
    EXPECT_EQ(bytesOf("b.ini"), bytes);
  }
  EXPECT_EQ(runOn(std::string("[a]\nx=1\n\0[b]\n", 13), "ini sort - --force"),
            failed("standard input: what follows the NUL would be lost"));
}

TEST_F(IniCommandTest, SortLosesCommentsOnlyByForce) {
  constexpr char kLost[] = ": its comments would be lost; --force sorts it all the same";
  EXPECT_EQ(run("ini sort a.ini"), failed(std::string("a.ini") + kLost));
  EXPECT_EQ(bytesOf("a.ini"), kFile);
  EXPECT_EQ(run("ini sort a.ini --force"), done("changed\n"));
  EXPECT_EQ(bytesOf("a.ini"), "[log]\nlevel=2 ; no comment\n\n[net]\nPort=80\nhost=\n\n");
  for (std::string const bytes :
       {" ; c\n", "\t;\n", "[a] ; c\nx=1\n", "[a][b] ;c\n", "x=1\r;c\r"}) {
    EXPECT_EQ(runOn(bytes, "ini sort -"), failed(std::string("standard input") + kLost));
  }
  file("b.ini", "; alone\n");
  EXPECT_EQ(run("ini sort b.ini --force"), done("changed\n"));
  EXPECT_EQ(bytesOf("b.ini"), "");
}

TEST_F(IniCommandTest, SortLosesNoCommentBehindAByteOrderMark) {
  EXPECT_EQ(runOn("\xEF\xBB\xBF; c\n[a]\nx=1\n", "ini sort -").status, 2);
  EXPECT_EQ(runOn("\xEF\xBB\xBF[a]\nx=;1\n", "ini sort -").output, "[a]\nx=;1\n\n");
}

TEST_F(IniCommandTest, SortFollowsALink) {
  EXPECT_EQ(shell("printf '[b]\\nx=1\\n[a]\\nx=1' >b.ini; ln -s b.ini link; vrxtool ini sort link\n"
                  "readlink link; cat b.ini"),
            done("changed\nb.ini\n[a]\nx=1\n\n[b]\nx=1\n\n"));
}

constexpr char const* kCommands[] = {
    "ini list FILE",         "ini list FILE --json", "ini check FILE",    "ini sort FILE",
    "ini sort FILE --force", "ini get FILE a b",     "ini set FILE a b c"};

TEST_F(IniCommandTest, AMissingOrUnreadableFileIsAFailure) {
  for (char const* const command : kCommands) expectFailuresOfReading(command);
}

TEST_F(IniCommandTest, ANameThatIsNotUtf8IsReadButNotWritten) {
  ASSERT_EQ(shell("cp a.ini \"$(printf '\\377')\"").status, 0);
  EXPECT_EQ(run("ini get \"$(printf '\\377')\" net port"), done("80\n"));
  EXPECT_EQ(run("ini set \"$(printf '\\377')\" net port 1"),
            failed("the name is not UTF-8: \\xff"));
}

TEST_F(IniCommandTest, AFifoIsReadToItsEndButNotChanged) {
  ASSERT_EQ(shell("mkfifo pipe").status, 0);
  EXPECT_EQ(shell("cat a.ini >pipe & vrxtool ini get pipe net port"), done("80\n"));
  EXPECT_EQ(shell("cat a.ini >pipe & vrxtool ini check pipe"), done());
  for (char const* const command :
       {"ini sort FILE", "ini sort FILE --force", "ini set FILE a b c"}) {
    expectFailuresOfChanging(command);
  }
}

TEST_F(IniCommandTest, FilesMayBeginWithADash) {
  file("-b", "[a]\nb=1\n");
  EXPECT_EQ(run("ini get -- -b a b"), done("1\n"));
  EXPECT_EQ(run("ini get ./-b a b"), done("1\n"));
}

TEST_F(IniCommandTest, HostileFilesDoNoHarm) {
  file("nul", std::string(100000, '\0'));
  EXPECT_EQ(run("ini list nul"), done());
  EXPECT_EQ(run("ini get nul a b"), answeredNo("nul: no key b in section a"));
  EXPECT_EQ(run("ini sort nul"), failed("nul: what follows the NUL would be lost"));
  file("long", std::string(8'000'000, 'x'));
  EXPECT_EQ(run("ini check long"), answeredNo("long:1: the key has no ="));
  EXPECT_EQ(run("ini get long a b").status, 1);
  // It would fill the memory.
  EXPECT_EQ(run("ini list /dev/zero"), failed("cannot read /dev/zero: File too large"));
  file("lines", std::string(1'000'000, '\n') + "[\n");
  EXPECT_EQ(run("ini check lines"), answeredNo("lines:1000001: Unexpected: new line"));
}

TEST_F(IniCommandTest, ALineOfErrorsIsOneLineWhateverAFileIsCalled) {
  EXPECT_EQ(shell("name=$(printf 'x\\nvrxtool: \\033[2J line 7')\n"
                  "printf '\\n]' >\"$name\"; vrxtool ini check \"$name\""),
            answeredNo("x\\nvrxtool: \\x1b[2J line 7:2: Unexpected: ']'"));
}

TEST_F(IniCommandTest, WhatCannotBeWrittenIsAFailure) {
  for (std::string const command :
       {"list a.ini", "list a.ini --json", "get a.ini net port", "set - net port 1 <a.ini",
        "set - net port 80 <a.ini", "sort - --force <a.ini"}) {
    EXPECT_EQ(run("ini " + command + " >/dev/full"), failed(kDiskFull));
    EXPECT_EQ(run("ini " + command + " >&-"), failed(kOutputClosed));
  }
  // A file opened now must not become standard output.
  EXPECT_EQ(run("ini set a.ini net port 81 >&-"), failed(kOutputClosed));
  EXPECT_EQ(run("ini get a.ini net port"), done("81\n"));
}

constexpr char kNoMounts[] = "the host does not allow private mounts";

TEST_F(IniCommandTest, ListsNothingThatCommandsATerminal) {
  EXPECT_EQ(runOn("[\x1B]\nk\x7F=\\\xE2\x80\x8E\n", "ini list -"),
            done("[\\x1b]\nk\\x7f=\\\\u200e\n"));
}

TEST_F(IniCommandTest, AFileThatIsTooLargeIsRefused) {
  ASSERT_EQ(shell("truncate -s 600M large").status, 0);
  EXPECT_EQ(run("ini get large a b"), failed("cannot read large: File too large"));
}

TEST_F(IniCommandTest, SignalsLeaveNoTemporaryFiles) {
  ToolResult const result = shell(
      "mkdir tmp; export TMPDIR=$PWD/tmp\n"
      "head -c 4000000 /dev/zero | tr '\\0' '\\n' >large\n"
      "for turn in 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16; do\n"
      "  vrxtool ini set - a b c <large >/dev/null 2>&1 &\n"
      "  n=$((turn * turn * 100))\n"
      "  while [ $n -gt 0 ]; do n=$((n - 1)); done\n"
      "  kill -TERM $! 2>/dev/null; wait $! 2>/dev/null\n"
      "done\n"
      "ls tmp");
  EXPECT_EQ(result.output, "");
}

TEST_F(IniCommandTest, WithoutDescriptorsAsFilesEveryReadIsAFailure) {
  ToolResult const result = shellWithMounts(
      "mount -t tmpfs tmpfs /dev || exit 99\n"
      "for command in 'list a.ini' 'check a.ini' 'get a.ini net port'; do\n"
      "  vrxtool ini $command && echo 'this has worked'\n"
      "done 2>&1 | sed 's/[0-9]/N/g'");
  if (result.status == kNoMountsStatus) GTEST_SKIP() << kNoMounts;
  std::string const line = "vrxtool: cannot open /dev/fd/N: No such file or directory\n";
  EXPECT_EQ(result, done(line + line + line));
}

TEST_F(IniCommandTest, AFullDiskLeavesTheOldFile) {
  file("b.ini", "[b]\nx=1\n[a]\nx=2\n");
  ToolResult const result = shellOnFullDisk(
      "vrxtool ini set b.ini a x \"$(head -c 20000 /dev/zero | tr '\\0' x)\"\n"
      "vrxtool ini sort b.ini; echo $?; rm a.ini; ls -A; cat b.ini");
  if (result.status == kNoMountsStatus) GTEST_SKIP() << kNoMounts;
  EXPECT_EQ(result, (ToolResult{0, "2\n.rest\nb.ini\n[b]\nx=1\n[a]\nx=2\n",
                                "vrxtool: cannot change b.ini: No space left on device\n"
                                "vrxtool: cannot change b.ini: No space left on device\n"}));
}

TEST_F(IniCommandTest, AFullFolderForTemporaryFilesIsAFailure) {
  file("b.ini", "[b]\nx=1\n[a]\nx=2\n");
  ToolResult const result = shellOnFullDisk(
      "export TMPDIR=$PWD; cd ..; vrxtool ini sort b.ini 2>&1 | sed 's/vrxtool-....../X/'\n"
      "vrxtool ini set - a b c <b.ini 2>&1 | sed 's/vrxtool-....../X/'\n"
      "cat b.ini; ls -A disk");
  if (result.status == kNoMountsStatus) GTEST_SKIP() << kNoMounts;
  std::string const disk = folder / "disk";
  std::string const reason = "vrxtool: cannot write " + disk + "/X/file: No space left on device\n";
  EXPECT_EQ(result, done(reason + reason + "[b]\nx=1\n[a]\nx=2\n.rest\na.ini\nb.ini\n"));
}

TEST_F(IniCommandTest, ALimitOfSizesLeavesTheOldFile) {
  EXPECT_EQ(shell("big=$(head -c 20000 /dev/zero | tr '\\0' x); ulimit -f 8\n"
                  "vrxtool ini set a.ini net port \"$big\"; echo $?; ls -A"),
            (ToolResult{0, "2\na.ini\n", "vrxtool: cannot change a.ini: File too large\n"}));
  EXPECT_EQ(bytesOf("a.ini"), kFile);
}

TEST_F(IniCommandTest, NothingStaysInTheFolderForTemporaryFiles) {
  EXPECT_EQ(shell("mkdir t; export TMPDIR=$PWD/t; vrxtool ini sort a.ini --force\n"
                  "vrxtool ini set - a b c <a.ini >/dev/null 2>&1\n"
                  "vrxtool ini set - a b '' <a.ini >/dev/full 2>&1\n"
                  "vrxtool ini set - 'a]' b c <a.ini >/dev/null 2>&1; ls -A t"),
            done("changed\n"));
}

TEST_F(IniCommandTest, WrongUseIsAFailure) {
  EXPECT_EQ(run("ini get a.ini net"), failed("KEY is required; try --help"));
  EXPECT_EQ(run("ini set a.ini net port"), failed("VALUE is required; try --help"));
  for (std::string const command : {"list", "get", "set", "check", "sort"}) {
    EXPECT_EQ(run("ini " + command), failed("FILE is required; try --help"));
  }
  EXPECT_EQ(run("ini list a.ini b"),
            failed("The following argument was not expected: b; try --help"));
  EXPECT_EQ(run("ini"), failed("a command is missing; try --help"));
  EXPECT_EQ(run("ini list a.ini --jason"),
            failed("no option --jason; a value that begins with - comes after a --"));
}

}  // namespace

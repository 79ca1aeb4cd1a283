// vrxtool match.

#include "tests/tools/tool_support.h"

namespace {

using vrxutil::test::done;
using vrxutil::test::failed;
using vrxutil::test::kDiskFull;
using vrxutil::test::kOutputClosed;
using vrxutil::test::ToolResult;
using vrxutil::test::ToolTest;

class MatchCommandTest : public ToolTest {};

TEST_F(MatchCommandTest, ShowsTheLinesThatMatch) {
  EXPECT_EQ(runOn("agent.xml\nother\nAGENT-1.XML\n", "match 'agent*.xml'"),
            done("agent.xml\nAGENT-1.XML\n"));
  EXPECT_EQ(runOn("abc\nabcd", "match 'abc*' -"), done("abcd\n"));
  EXPECT_EQ(runOn("a?c\nabc\n", "match 'a?c'"), done("a?c\n"));
  EXPECT_EQ(runOn("\n\n", "match ''"), done("\n\n"));
}

TEST_F(MatchCommandTest, ALineMatchesAsAWhole) {
  struct {
    char const* pattern;
    char const* text;
    char const* shown;
  } constexpr kRows[] = {
      {"abc", "xabc\nabcx\nabc\nABC\nab\n", "abc\nABC\n"},
      {"*", "\na\n\nab", "a\nab\n"},
      {"a*c", "ac\nabc\nabcd\nabcabc\n", "ac\nabc\nabcabc\n"},
      {"*c", "c\nabc\ncd", "c\nabc\n"},
      {"[a]", "a\n[A]\n", "[A]\n"},
      {"abc", "abc\r\nabc", "abc\n"},
      {"abc*", "abc\r\n", "abc\r\n"},
      {"\xC3\xA4*", "\xC3\x84x\n\xC3\xA4x\n", "\xC3\xA4x\n"},
      {"\xFF*", "\xFFx\nx\xFF\n", "\xFFx\n"},
  };

  for (auto const& [pattern, text, shown] : kRows) {
    EXPECT_EQ(runOn(text, std::string("match '") + pattern + "'"), done(shown)) << pattern;
  }
}

TEST_F(MatchCommandTest, ThePatternMayLookLikeAnOption) {
  EXPECT_EQ(runOn("-x\n", "match -- -x"), done("-x\n"));
  EXPECT_EQ(runOn("--help\n", "match -- --help -"), done("--help\n"));
}

TEST_F(MatchCommandTest, NoLineIsNo) {
  EXPECT_EQ(runOn("abc\n", "match 'x*'"), (ToolResult{1, "", ""}));
  EXPECT_EQ(runOn("", "match '*'"), (ToolResult{1, "", ""}));
}

TEST_F(MatchCommandTest, TakesLinesOfAnyLengthAndAnyBytes) {
  std::string const line = "a" + std::string(1000000, 'x') + std::string("\0\xFF\r", 3);
  file("in", "b\n" + line + "\nc");
  EXPECT_EQ(run("match 'a*' in"), done(line + "\n"));
  file("in", line);
  EXPECT_EQ(run("match 'a*' in"), done(line + "\n"));
  EXPECT_EQ(run("match 'a*y*' in"), (ToolResult{1, "", ""}));
  std::string const cut("a\0b", 3);
  EXPECT_EQ(runOn(cut, "match a"), (ToolResult{1, "", ""}));
  EXPECT_EQ(runOn(cut, "match '*b'"), done(cut + "\n"));
}

TEST_F(MatchCommandTest, LinesMayEndWhereBlocksDo) {
  for (std::size_t const size : {65534U, 65535U, 65536U, 65537U}) {
    std::string const line(size, 'a');
    EXPECT_EQ(runOn(line + "\nb\n" + line, "match 'a*'"), done(line + "\n" + line + "\n")) << size;
  }
}

TEST_F(MatchCommandTest, PiecesFromAPipeAreOneText) {
  EXPECT_EQ(shell("{ printf 'a'; printf 'b\\nc'; printf 'd\\n'; } | vrxtool match '*d'"),
            done("cd\n"));
}

TEST_F(MatchCommandTest, ALineIsShownAsSoonAsItIsThere) {
  EXPECT_EQ(shell("mkfifo in out\n"
                  "vrxtool match 'a*' <in >out &\n"
                  "exec 3>in 4<out\n"
                  "echo ab >&3; read line <&4; echo \"$line\"; exec 3>&-; wait"),
            done("ab\n"));
}

TEST_F(MatchCommandTest, ALineWithoutEndIsRefused) {
  EXPECT_EQ(run("match a /dev/zero"), failed("cannot read /dev/zero: File too large"));
}

TEST_F(MatchCommandTest, FailuresAreToldFromNo) {
  EXPECT_EQ(run("match a none"), failed("cannot open none: No such file or directory"));
  EXPECT_EQ(run("match a ."), failed("cannot read .: Is a directory"));
  EXPECT_EQ(runOn("a", "match a >/dev/full"), failed(kDiskFull));
  EXPECT_EQ(runOn("a", "match a >&-"), failed(kOutputClosed));
  EXPECT_EQ(shell("vrxtool match a <&-"),
            failed("cannot read standard input: Bad file descriptor"));
  EXPECT_EQ(run("match"), failed("PATTERN is required; try --help"));
  EXPECT_EQ(run("match a b c"), failed("The following argument was not expected: c; try --help"));
}

}  // namespace

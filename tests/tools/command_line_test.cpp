// What all commands of vrxtool share: help, man page, completion, wrong use, records.

#include "tests/tools/tool_support.h"

#include <sstream>
#include <vector>

namespace {

using vrxutil::test::done;
using vrxutil::test::failed;
using vrxutil::test::kDiskFull;
using vrxutil::test::kOutputClosed;
using vrxutil::test::kReaderGoneStatus;
using vrxutil::test::ToolResult;
using vrxutil::test::ToolTest;

class CommandLineTest : public ToolTest {
protected:
  /// What bash offers for the last of the words.
  std::string completions(std::string const& words) const {
    ToolResult const result = shell(
        "cat >complete.sh <<'END'\n"
        "source <(vrxtool bash-completion)\n"
        "COMP_WORDS=(" +
        words +
        ")\n"
        "COMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n"
        "_vrxtool 2>/dev/null; echo \"${COMPREPLY[@]}\"\n"
        "END\n"
        "bash complete.sh");
    EXPECT_EQ(result.errors, "");
    return result.output;
  }
};

constexpr char const* kCommands[] = {
    "xml show",        "xml get",       "xml set",       "xml check",     "xml encrypt",
    "xml decrypt",     "ini list",      "ini get",       "ini set",       "ini check",
    "ini sort",        "lock read",     "lock write",    "lock status",   "lock clean",
    "base64 encode",   "base64 decode", "crypt encrypt", "crypt decrypt", "match",
    "version compare", "host",          "record dump"};

TEST_F(CommandLineTest, EachCommandHasHelpWithAnExample) {
  for (std::string const command : kCommands) {
    ToolResult const result = run(command + " --help");
    EXPECT_EQ(result.status, 0) << command;
    EXPECT_EQ(result.errors, "");
    EXPECT_NE(result.output.find("\nUsage: vrxtool " + command), std::string::npos)
        << result.output;
    std::size_t const example = result.output.find("\nExample:\n  ");
    ASSERT_NE(example, std::string::npos) << command;
    EXPECT_NE(result.output.find("vrxtool " + command, example), std::string::npos) << command;
    EXPECT_EQ(run(command + " -h"), result);
  }
}

TEST_F(CommandLineTest, HelpFitsATerminal) {
  for (std::string const command : kCommands) {
    std::istringstream text(run(command + " --help").output);
    for (std::string line; std::getline(text, line);) EXPECT_LE(line.size(), 90U) << line;
  }
}

TEST_F(CommandLineTest, HelpListsTheFamilies) {
  ToolResult const result = run("--help");
  EXPECT_EQ(result.status, 0);
  for (std::string const name :
       {"xml", "ini", "lock", "base64", "crypt", "match", "version", "host", "record"}) {
    EXPECT_NE(result.output.find("\n  " + name + " "), std::string::npos) << name;
  }
  EXPECT_EQ(result.output.find("\n  bash-completion"), std::string::npos);
  EXPECT_NE(result.output.find("Exit status:\n  0  yes"), std::string::npos);
}

TEST_F(CommandLineTest, TheManPageSaysWhatHelpSays) {
  ToolResult const page = run("man");
  EXPECT_EQ(page.status, 0);
  EXPECT_TRUE(page.output.starts_with(".TH VRXTOOL 1 \"\" \"vrxtool "));
  for (std::string const section : {"NAME", "SYNOPSIS", "DESCRIPTION", "OPTIONS", "COMMANDS",
                                    "EXIT STATUS", "ENVIRONMENT", "FILES"}) {
    EXPECT_NE(page.output.find("\n.SH " + section + "\n"), std::string::npos) << section;
  }
  for (std::string const command : kCommands) {
    EXPECT_NE(page.output.find("\n.SS vrxtool " + command), std::string::npos) << command;
  }
  EXPECT_NE(page.output.find("\\-\\-conflict\\-exit\\-code N\n"), std::string::npos);
}

TEST_F(CommandLineTest, TheManPageKeepsTheLinesOfTables) {
  std::string const page = run("man").output;
  EXPECT_NE(page.find("\n.nf\n"
                      "0  yes, done\n"
                      "1  no, not found\n"
                      "2  wrong use, or a failure: a line on standard error says why\n"
                      ".fi\n"),
            std::string::npos);
  EXPECT_NE(page.find("\n.nf\nvrxtool ini sort agent.ini\n.fi\n"), std::string::npos);
  EXPECT_EQ(page.find("\n.SS vrxtool bash\\-completion"), std::string::npos);
}

TEST_F(CommandLineTest, UsageTellsOfACommandToRun) {
  EXPECT_NE(run("lock read --help").output.find("\nUsage: vrxtool lock read [OPTIONS] NAME -- "),
            std::string::npos);
}

TEST_F(CommandLineTest, TheManPageHasNoWarnings) {
  if (shell("command -v groff").status != 0) GTEST_SKIP() << "there is no groff";
  EXPECT_EQ(shell("vrxtool man | groff -man -Tutf8 -ww >/dev/null"), done());
}

TEST_F(CommandLineTest, BashCompletesCommandsAndOptions) {
  if (shell("command -v bash").status != 0) GTEST_SKIP() << "there is no bash";
  EXPECT_EQ(completions("vrxtool x"), "xml\n");
  EXPECT_EQ(completions("vrxtool m"), "match\n");
  EXPECT_EQ(completions("vrxtool bash"), "\n");
  EXPECT_EQ(completions("vrxtool xml s"), "show set\n");
  EXPECT_EQ(completions("vrxtool xml check --r"), "--root\n");
  EXPECT_EQ(completions("vrxtool xml check file --attribute a=b --"),
            "--help --root --attribute --trace\n");
  EXPECT_EQ(completions("vrxtool --trace ini l"), "list\n");
  EXPECT_EQ(completions("vrxtool ini get -"), "--help -h --trace\n");
  // Names of files complete then.
  EXPECT_EQ(completions("vrxtool xml get f"), "\n");
  EXPECT_EQ(completions("vrxtool xml get ''"), "\n");
  EXPECT_EQ(completions("vrxtool xml ''"), "show get set check encrypt decrypt\n");
  EXPECT_EQ(completions("vrxtool lock read jobs -- --"), "\n");
}

TEST_F(CommandLineTest, TheVersionIsShown) {
  ToolResult const result = run("--version");
  EXPECT_EQ(result.status, 0);
  EXPECT_TRUE(result.output.starts_with("vrxtool 1."));
}

TEST_F(CommandLineTest, WrongUseIsOneLine) {
  EXPECT_EQ(run(""), failed("a command is missing; try --help"));
  EXPECT_EQ(run("bogus"), failed("no command bogus; try --help"));
  EXPECT_EQ(run("host -- --x"),
            failed("no option --x; a value that begins with - comes after a --"));
  EXPECT_EQ(run("--bogus host"),
            failed("no option --bogus; a value that begins with - comes after a --"));
  EXPECT_EQ(run("\"$(printf 'a\\nb')\""), failed("no command a\\nb; try --help"));
}

TEST_F(CommandLineTest, NothingInALineOfErrorsCommandsATerminal) {
  // U+202E; in a literal it would turn the line around.
  constexpr char kRightToLeft[] = {'\xE2', '\x80', '\xAE', '\0'};

  struct Escape {
    std::string text;
    std::string shown;
  };

  for (Escape const& escape :
       {Escape{"\\1", "\\1"}, Escape{"\t", "\\t"}, Escape{"\r", "\\r"}, Escape{"\x01", "\\x01"},
        Escape{"\x7F", "\\x7f"}, Escape{"\u009B", "\\x9b"}, Escape{"\u061C", "\\u061c"},
        Escape{"\u200E", "\\u200e"}, Escape{"\u200F", "\\u200f"}, Escape{"\u2028", "\\u2028"},
        Escape{kRightToLeft, "\\u202e"}, Escape{"\u2069", "\\u2069"},
        Escape{"\u00A0\u202F", "\u00A0\u202F"},
        Escape{std::string("\xE4").append(kRightToLeft), "\\xe4\\xe2\\x80\\xae"},
        Escape{"\U0001F600", "\U0001F600"}}) {
    EXPECT_EQ(run("'x" + escape.text + "'"),
              failed("no command x" + escape.shown + "; try --help"));
  }
}

TEST_F(CommandLineTest, AReaderThatGoesEndsItAsOtherFilters) {
  file("big.ini", "[a]\nb=" + std::string(1'000'000, 'x') + "\n");
  for (std::string const command : {"list big.ini", "get big.ini a b", "set - a c d <big.ini"}) {
    std::string const lines =
        "mkdir t; export TMPDIR=$PWD/t\n"
        "{ vrxtool ini " +
        command +
        "; echo $? >status; } | true\n"
        "cat status; ls -A t; rmdir t";
    EXPECT_EQ(shell(lines), done(std::to_string(kReaderGoneStatus) + "\n"));
    EXPECT_EQ(shell("trap '' PIPE\n" + lines),
              (ToolResult{0, "2\n", "vrxtool: cannot write standard output: Broken pipe\n"}));
  }
}

TEST_F(CommandLineTest, HelpThatCannotBeWrittenIsAFailure) {
  for (std::string const arguments :
       {"--help", "xml --help", "--version", "man", "bash-completion"}) {
    EXPECT_EQ(run(arguments + " >/dev/full"), failed(kDiskFull));
    EXPECT_EQ(run(arguments + " >&-"), failed(kOutputClosed));
  }
}

TEST_F(CommandLineTest, RecordsAreShownOnRequestOnly) {
  file("a.xml", "<a/>");
  ToolResult const quiet = run("xml check a.xml --root b");
  EXPECT_EQ(quiet.errors, "vrxtool: a.xml: root node name doesn't match: a\n");
  for (std::string const arguments :
       {"--trace xml check a.xml --root b", "xml check a.xml --root b --trace"}) {
    EXPECT_EQ(run(arguments), (ToolResult{1, "",
                                          "detail [Xml] useString,b,(null),(null)\n"
                                          "error [Xml] Error trace:\n"
                                          "error [Xml]  [useString,b,(null),(null)]->\n"
                                          "error [Xml]   root node name doesn't match: a\n" +
                                              quiet.errors}));
  }
}

TEST_F(CommandLineTest, StandardErrorMayBeClosed) {
  file("a.xml", "<a/>");
  EXPECT_EQ(run("xml check a.xml --root b 2>&-"), (ToolResult{1, "", ""}));
  EXPECT_EQ(run("xml show a.xml 2>&-").status, 0);
  EXPECT_EQ(run("xml set a.xml a b c 0<&- 1>&- 2>&-").status, 2);
  file("a.ini", "[b]\nx=1\n[a]\nx=2");
  EXPECT_EQ(run("ini sort a.ini --trace 0<&- 2>&-"), done("changed\n"));
  EXPECT_EQ(bytesOf("a.ini"), "[a]\nx=2\n\n[b]\nx=1\n\n");
  EXPECT_EQ(bytesOf("a.xml"), "<a b=\"c\"/>");
}

}  // namespace

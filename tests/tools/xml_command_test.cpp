// vrxtool xml.

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

constexpr char kPlain[] =
    "<agent version=\"1\"><task name=\"a/b\" state=\"off\"/>"
    "<task name=\"c]d\">text</task></agent>";

constexpr char kIndented[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<agent version=\"1\">\n"
    "  <task name=\"a/b\" state=\"off\"/>\n"
    "  <task name=\"c]d\">text</task>\n"
    "</agent>\n";

constexpr char kEncryptedMark[] = "\x89VRX";

class XmlCommandTest : public ToolTest {
protected:
  XmlCommandTest() { file("a.xml", kPlain); }

  void encryptFile() const { ASSERT_EQ(run("xml encrypt a.xml"), done()); }

  bool isEncrypted(std::string const& name) const {
    return bytesOf(name).starts_with(kEncryptedMark);
  }
};

TEST_F(XmlCommandTest, ShowIndents) { EXPECT_EQ(run("xml show a.xml"), done(kIndented)); }

TEST_F(XmlCommandTest, ShowDecrypts) {
  encryptFile();
  ASSERT_TRUE(isEncrypted("a.xml"));
  EXPECT_EQ(run("xml show a.xml"), done(kIndented));
}

TEST_F(XmlCommandTest, ShowReadsStandardInput) {
  EXPECT_EQ(runOn(kPlain, "xml show -"), done(kIndented));
  encryptFile();
  EXPECT_EQ(shell("cat a.xml | vrxtool xml show -"), done(kIndented));
}

TEST_F(XmlCommandTest, FilesKeepNamesBeyondAsciiInAnyLocale) {
  file("\u00E4.xml", "<a b=\"\u20AC\"/>");
  for (std::string const locale : {"C", "C.UTF-8"}) {
    EXPECT_EQ(shell("LC_ALL=" + locale + " vrxtool xml get \u00E4.xml a b"), done("\u20AC\n"));
    EXPECT_EQ(shell("LC_ALL=" + locale + " vrxtool xml set \u00E4.xml a c " + locale),
              done("changed\n"));
  }
}

struct Lookup {
  char const* name;
  char const* arguments;
  ToolResult result;
};

void PrintTo(Lookup const& row, std::ostream* out) { *out << row.name; }

class XmlGetTest : public XmlCommandTest, public testing::WithParamInterface<Lookup> {};

TEST_P(XmlGetTest, FollowsThePath) {
  EXPECT_EQ(run(std::string("xml get a.xml ") + GetParam().arguments), GetParam().result);
}

INSTANTIATE_TEST_SUITE_P(
    Paths, XmlGetTest,
    testing::Values(
        Lookup{"RootAttribute", "agent version", done("1\n")},
        Lookup{"FirstChild", "agent/task state", done("off\n")},
        Lookup{"SlashInValue", "'agent/task[name=a/b]' state", done("off\n")},
        Lookup{"QuotedBracket", "'agent/task[name=\"c]d\"]'", done("text\n")},
        Lookup{"ApostrophesAsQuotes", "\"agent/task[name='c]d']\"", done("text\n")},
        Lookup{"AttributeAlone", "'agent/task[state]' name", done("a/b\n")},
        Lookup{"ByText", "'agent/task[=text]' name", done("c]d\n")},
        Lookup{"RootSelected", "'agent[version=1]/task' name", done("a/b\n")},
        Lookup{"TextOfElements", "agent", done("\n")},
        Lookup{"NameOfACommand", "host match", answeredNo("a.xml: no element host")},
        Lookup{"OtherRoot", "agnt version", answeredNo("a.xml: no element agnt")},
        Lookup{"OtherRootValue", "'agent[version=2]' version",
               answeredNo("a.xml: no element agent[version=2]")},
        Lookup{"NoChild", "agent/task/x", answeredNo("a.xml: no element agent/task/x")},
        Lookup{"NoAttribute", "agent/task x", answeredNo("a.xml: no attribute x at agent/task")},
        Lookup{"EmptyPath", "''", failed("PATH : the name of an element is missing")},
        Lookup{"EmptyName", "agent//task",
               failed("PATH agent//task: the name of an element is missing")},
        Lookup{"SlashAtTheEnd", "agent/", failed("PATH agent/: the name of an element is missing")},
        Lookup{"SlashAtTheBeginning", "/agent",
               failed("PATH /agent: the name of an element is missing")},
        Lookup{"NothingInBrackets", "'agent[]'",
               failed("PATH agent[]: what is to be in the [] is missing")},
        Lookup{"BracketWithoutName", "'agent/[a]'",
               failed("PATH agent/[a]: the name of an element is missing")},
        Lookup{"EmptyValue", "'agent/task[state=]'",
               answeredNo("a.xml: no element agent/task[state=]")},
        Lookup{"FirstOfThoseThatFit", "'agent/task[name]' name", done("a/b\n")},
        Lookup{"SecondByName", "'agent/task[name=\"c]d\"]' name", done("c]d\n")},
        Lookup{"OtherCase", "agent/TASK", answeredNo("a.xml: no element agent/TASK")},
        Lookup{"OtherCaseOfValue", "'agent/task[state=OFF]'",
               answeredNo("a.xml: no element agent/task[state=OFF]")},
        Lookup{"RootByAttributeAlone", "'agent[version]' version", done("1\n")},
        Lookup{"RootWithoutAttribute", "'agent[x]' version",
               answeredNo("a.xml: no element agent[x]")},
        Lookup{"EmptyAttributeMeansText", "'agent/task[name=\"c]d\"]' ''", done("text\n")},
        Lookup{"BracketEndsAPlainValue", "'agent/task[name=c]d]'",
               failed("PATH agent/task[name=c]d]: what follows a ] must be a /")},
        Lookup{"TextBehindTheQuote", "'agent/task[name=\"a\"b]'",
               failed("PATH agent/task[name=\"a\"b]: a ] is missing")},
        Lookup{"EqualsInAValue", "'agent/task[name=a=b]'",
               answeredNo("a.xml: no element agent/task[name=a=b]")},
        Lookup{"AttributeNotUtf8", "agent \"$(printf '\\377')\"",
               failed("ATTRIBUTE is not UTF-8: \\xff")},
        Lookup{"NoBracket", "'agent[a'", failed("PATH agent[a: a ] is missing")},
        Lookup{"NoQuote", "'agent[a=\"b]'",
               failed("PATH agent[a=\"b]: a quotation mark is missing")},
        Lookup{"AfterBracket", "'agent[a]b'",
               failed("PATH agent[a]b: what follows a ] must be a /")},
        Lookup{"NotUtf8", "\"$(printf 'a\\377')\"", failed("PATH is not UTF-8: a\\xff")}),
    testing::PrintToStringParamName());

TEST_F(XmlCommandTest, SetChangesAnAttribute) {
  EXPECT_EQ(run("xml set a.xml 'agent/task[name=a/b]' state on"), done("changed\n"));
  EXPECT_EQ(run("xml get a.xml agent/task state"), done("on\n"));
  EXPECT_EQ(run("xml set a.xml agent/task more ''"), done("changed\n"));
  EXPECT_EQ(bytesOf("a.xml"),
            "<agent version=\"1\"><task name=\"a/b\" state=\"on\" more=\"\"/>"
            "<task name=\"c]d\">text</task></agent>");
}

TEST_F(XmlCommandTest, SetLeavesAFileThatHasTheValue) {
  ASSERT_EQ(::chmod((folder / "a.xml").c_str(), 0640), 0);

  struct stat before {};

  struct stat after {};

  ::stat((folder / "a.xml").c_str(), &before);
  EXPECT_EQ(run("xml set a.xml agent/task state off"), done("unchanged\n"));
  ::stat((folder / "a.xml").c_str(), &after);
  EXPECT_EQ(after.st_ino, before.st_ino);
  EXPECT_EQ(run("xml set a.xml agent/task state on"), done("changed\n"));
  ::stat((folder / "a.xml").c_str(), &after);
  EXPECT_EQ(after.st_mode, before.st_mode);
}

TEST_F(XmlCommandTest, SetKeepsAFileEncrypted) {
  file("a.xml", kIndented);
  encryptFile();
  EXPECT_EQ(run("xml set a.xml agent version 1.5"), done("changed\n"));
  EXPECT_TRUE(isEncrypted("a.xml"));
  std::string expected = kIndented;
  expected.replace(expected.find("\"1\""), 3, "\"1.5\"");
  EXPECT_EQ(run("xml decrypt a.xml -o -"), done(expected));
}

/// Files that hold x="1" once; its change to x="2" is the only one.
struct Layout {
  char const* name;
  std::string before;
  std::string after;
};

void PrintTo(Layout const& row, std::ostream* out) { *out << row.name; }

class XmlLayoutTest : public XmlCommandTest, public testing::WithParamInterface<Layout> {};

TEST_P(XmlLayoutTest, SetWritesTheDocumentAsItStands) {
  file("b.xml", GetParam().before);
  EXPECT_EQ(run("xml set b.xml r/a x 2"), done("changed\n"));
  EXPECT_EQ(bytesOf("b.xml"), GetParam().after);
}

/// As the library declares documents.
std::string declared(std::string_view document) {
  return std::string("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n").append(document);
}

INSTANTIATE_TEST_SUITE_P(
    Files, XmlLayoutTest,
    testing::Values(
        Layout{"OneLine", "<r><a x=\"1\"/></r>", "<r><a x=\"2\"/></r>"},
        Layout{"LibrarysOwn", declared("<r>\n  <a x=\"1\"/>\n</r>\n"),
               declared("<r>\n  <a x=\"2\"/>\n</r>\n")},
        Layout{"Tabs", "<?xml version=\"1.0\"?>\n\n<r>\n\t<a x=\"1\"/>\n\n\t<b/>\n</r>\n\n",
               declared("<r>\n\t<a x=\"2\"/>\n\n\t<b/>\n</r>\n")},
        Layout{"DeclaredOnOneLine", "<?xml version='1.0' standalone='yes'?><r><a x=\"1\"/></r>",
               declared("<r><a x=\"2\"/></r>")},
        Layout{"DeclaredWithALineFeed", "<?xml\nversion='1.0'?><r><a x=\"1\"/></r>",
               declared("<r><a x=\"2\"/></r>")},
        Layout{"CrLf", "<r>\r\n    <a x=\"1\"/>\r\n</r>\r\n", "<r>\n    <a x=\"2\"/>\n</r>\n"},
        Layout{"Comments", "<!-- <r> --><r><!-- 3 --><a x=\"1\"/></r><!-- </r> -->\n",
               "<!-- <r> --><r><!-- 3 --><a x=\"2\"/></r><!-- </r> -->\n"},
        Layout{"Instructions", "<?xml-a <r>?><r><?d?><a x=\"1\"/></r><?e f?>",
               "<?xml-a <r>?><r><?d?><a x=\"2\"/></r><?e f?>"},
        Layout{"BlanksAroundTheRoot", "<!-- 1 -->\n\n<r><a x=\"1\"/></r>\n <!-- 2 -->",
               "<!-- 1 --><r><a x=\"2\"/></r><!-- 2 -->"},
        Layout{"DocumentType",
               "<!DOCTYPE r [\n  <!ENTITY e \"v\">\n]>\n<r><a x=\"1\" y=\"&e;\"/>&e;</r>\n",
               "<!DOCTYPE r><r><a x=\"2\" y=\"v\"/>v</r>\n"},
        Layout{"TextAndCData", "<r>\n a <a x=\"1\"/> b\n<![CDATA[<c>\n&]]>&lt;</r>\n",
               "<r>\n a <a x=\"2\"/> b\n<![CDATA[<c>\n&]]>&lt;</r>\n"}),
    testing::PrintToStringParamName());

TEST_F(XmlCommandTest, SetWritesUtf8) {
  auto const utf16 = [](std::string_view text) {
    std::string bytes = "\xFF\xFE";
    for (char const c : text) bytes.append(1, c).append(1, '\0');
    return bytes;
  };
  file("b.xml", utf16("<?xml version=\"1.0\" encoding=\"UTF-16\"?>\r\n<r a=\"1\"/>\r\n"));
  EXPECT_EQ(run("xml set b.xml r a 2"), done("changed\n"));
  EXPECT_EQ(bytesOf("b.xml"), declared("<r a=\"2\"/>\n"));
  file("b.xml", "\xEF\xBB\xBF<r a=\"1\"/>\n");
  EXPECT_EQ(run("xml set b.xml r a \u00E4"), done("changed\n"));
  EXPECT_EQ(bytesOf("b.xml"), "<r a=\"\u00E4\"/>\n");
}

TEST_F(XmlCommandTest, SetFollowsALink) {
  ASSERT_EQ(shell("ln -s a.xml link.xml").status, 0);
  EXPECT_EQ(run("xml set link.xml agent version 2"), done("changed\n"));
  EXPECT_EQ(shell("readlink link.xml; vrxtool xml get a.xml agent version"), done("a.xml\n2\n"));
}

TEST_F(XmlCommandTest, ValuesMayBeginWithADash) {
  EXPECT_EQ(run("xml set a.xml agent version -1"), done("changed\n"));
  EXPECT_EQ(run("xml set a.xml agent version -- --root"), done("changed\n"));
  EXPECT_EQ(run("xml get a.xml agent version"), done("--root\n"));
  EXPECT_EQ(run("xml set a.xml agent version --roof"),
            failed("no option --roof; a value that begins with - comes after a --"));
  file("-a.xml", "<a/>");
  EXPECT_EQ(run("xml check -- -a.xml"), done());
  EXPECT_EQ(run("xml check ./-a.xml"), done());
}

TEST_F(XmlCommandTest, SetKeepsAByteOrderMarkInAValue) {
  EXPECT_EQ(run("xml set a.xml agent version \uFEFFx"), done("changed\n"));
  EXPECT_EQ(run("xml get a.xml agent version"), done("\uFEFFx\n"));
}

TEST_F(XmlCommandTest, SetChangesTextsButNotThoseOfParents) {
  EXPECT_EQ(run("xml set a.xml 'agent/task[=text]' '' more"), done("changed\n"));
  EXPECT_EQ(run("xml get a.xml 'agent/task[=more]'"), done("more\n"));
  EXPECT_EQ(run("xml set a.xml agent '' more"),
            failed("a.xml: the text of agent would take the place of its child elements"));
}

TEST_F(XmlCommandTest, SetRefusesWhatXmlCannotHold) {
  EXPECT_EQ(run("xml set a.xml agent 'a b' 1"), failed("a.xml: \"a b\" is no XML name"));
  EXPECT_EQ(run("xml set a.xml agent a \"$(printf '\\001')\"").status, 2);
  EXPECT_EQ(run("xml set a.xml agent a \"$(printf '\\377')\""),
            failed("VALUE is not UTF-8: \\xff"));
  EXPECT_EQ(run("xml set a.xml agent \"$(printf '\\377')\" a"),
            failed("ATTRIBUTE is not UTF-8: \\xff"));
  EXPECT_EQ(run("xml set a.xml agent/none a 1"), answeredNo("a.xml: no element agent/none"));
  EXPECT_EQ(bytesOf("a.xml"), kPlain);
}

TEST_F(XmlCommandTest, SetIsAFilterOfStandardInput) {
  EXPECT_EQ(runOn("<a b=\"1\"/>", "xml set - a b 2"),
            (ToolResult{0, "<a b=\"2\"/>", "vrxtool: changed\n"}));
  EXPECT_EQ(runOn("<a b='1'/>", "xml set - a b 1"),
            (ToolResult{0, "<a b='1'/>", "vrxtool: unchanged\n"}));
  encryptFile();
  EXPECT_EQ(shell("vrxtool xml set - agent version 2 <a.xml >b.xml 2>/dev/null"), done());
  EXPECT_TRUE(isEncrypted("b.xml"));
  EXPECT_EQ(run("xml get b.xml agent version"), done("2\n"));
}

TEST_F(XmlCommandTest, CheckAnswers) {
  EXPECT_EQ(run("xml check a.xml"), done());
  EXPECT_EQ(run("xml check a.xml --root agent --attribute version=1"), done());
  EXPECT_EQ(run("xml check a.xml --attribute version"), done());
  EXPECT_EQ(run("xml check a.xml --root agnt"),
            answeredNo("a.xml: root node name doesn't match: agent"));
  EXPECT_EQ(run("xml check a.xml --attribute version=2"),
            answeredNo("a.xml: attribute value doesn't match: 1"));
  EXPECT_EQ(run("xml check a.xml --attribute x"),
            answeredNo("a.xml: getValue: required attribute not found: x"));
  EXPECT_EQ(run("xml check a.xml --attribute version="),
            answeredNo("a.xml: attribute value doesn't match: 1"));
  EXPECT_EQ(run("xml check a.xml --root AGENT").status, 1);
  EXPECT_EQ(run("xml check a.xml --root agent --attribute version=2").status, 1);
  EXPECT_EQ(run("xml check a.xml --root ''").status, 1);
  EXPECT_EQ(run("xml check a.xml --attribute ''"), failed("NAME=VALUE is empty"));
  EXPECT_EQ(run("xml check a.xml --root \"$(printf '\\377')\""),
            failed("NAME is not UTF-8: \\xff"));
  EXPECT_EQ(run("xml check a.xml --attribute \"$(printf '\\377')\""),
            failed("NAME=VALUE is not UTF-8: \\xff"));
  EXPECT_EQ(runOn("<a b='c=d'>t</a>", "xml check - --attribute b=c=d"), done());
  EXPECT_EQ(runOn("<a b='c=d'>t</a>", "xml check - --attribute =t"), done());
  EXPECT_EQ(runOn("<a b='c=d'>t</a>", "xml check - --attribute =u").status, 1);
  EXPECT_EQ(runOn("<a>\n<b>", "xml check -"),
            answeredNo("standard input: Parse error line: 2 column: 4 no element found"));
}

TEST_F(XmlCommandTest, EncryptingAndDecryptingGiveTheSameText) {
  std::string const text = "<!DOCTYPE a [<!ENTITY e \"x\">]>\r\n<!-- c -->\n<a  b='1' >&e;</a>\n";
  file("a.xml", text);
  encryptFile();
  EXPECT_TRUE(isEncrypted("a.xml"));
  EXPECT_EQ(run("xml decrypt a.xml -o b.xml"), done());
  EXPECT_EQ(bytesOf("b.xml"), text);
  EXPECT_TRUE(isEncrypted("a.xml"));
  EXPECT_EQ(run("xml encrypt a.xml"), done());
  EXPECT_EQ(run("xml decrypt a.xml"), done());
  EXPECT_EQ(bytesOf("a.xml"), text);
  EXPECT_EQ(shell("vrxtool xml encrypt - <b.xml | vrxtool xml decrypt -"), done(text));
}

TEST_F(XmlCommandTest, EncryptRefusesWhatIsNoDocument) {
  file("a.txt", "no document");
  EXPECT_EQ(run("xml encrypt a.txt"), failed("a.txt: Parse error line: 1 column: 1 syntax error"));
  EXPECT_EQ(bytesOf("a.txt"), "no document");
}

TEST_F(XmlCommandTest, DecryptLeavesWhatIsNotEncrypted) {
  file("b.xml", "\xEF\xBB\xBF<a/>");
  ASSERT_EQ(shell("ln b.xml c.xml").status, 0);
  EXPECT_EQ(run("xml decrypt b.xml"), done());
  EXPECT_EQ(bytesOf("c.xml"), "\xEF\xBB\xBF<a/>");
  EXPECT_EQ(shell("[ b.xml -ef c.xml ]"), done());
  EXPECT_EQ(run("xml decrypt b.xml -o d.xml"), done());
  EXPECT_EQ(bytesOf("d.xml"), "<a/>");
  EXPECT_EQ(shell("vrxtool xml decrypt - <b.xml"), done("<a/>"));
}

TEST_F(XmlCommandTest, EncryptedFilesKeepTheirMode) {
  EXPECT_EQ(shell("chmod 640 a.xml; vrxtool xml encrypt a.xml; stat -c %a a.xml\n"
                  "vrxtool xml decrypt a.xml; stat -c %a a.xml"),
            done("640\n640\n"));
}

constexpr char const* kCommands[] = {"xml show FILE",  "xml get FILE a",   "xml set FILE a b c",
                                     "xml check FILE", "xml encrypt FILE", "xml decrypt FILE"};

TEST_F(XmlCommandTest, WhatCannotBeReadIsAFailure) {
  for (char const* const command : kCommands) expectFailuresOfReading(command);
}

TEST_F(XmlCommandTest, ANameThatIsNotUtf8IsReadButNotWritten) {
  ASSERT_EQ(shell("cp a.xml \"$(printf '\\377')\"").status, 0);
  EXPECT_EQ(run("xml get \"$(printf '\\377')\" agent version"), done("1\n"));
  EXPECT_EQ(run("xml set \"$(printf '\\377')\" agent version 2"),
            failed("the name is not UTF-8: \\xff"));
  EXPECT_EQ(run("xml encrypt a.xml -o \"$(printf '\\377')\""),
            failed("the name is not UTF-8: \\xff"));
}

TEST_F(XmlCommandTest, AFifoIsReadToItsEndButNotChanged) {
  file("b.xml", "<a/>");
  ASSERT_EQ(shell("mkfifo pipe").status, 0);
  EXPECT_EQ(shell("cat b.xml >pipe & vrxtool xml check pipe --root a"), done());
  EXPECT_EQ(shell("cat b.xml >pipe & vrxtool xml encrypt pipe -o c.xml"), done());
  for (char const* const command : {"xml set FILE a b c", "xml encrypt FILE", "xml decrypt FILE"}) {
    expectFailuresOfChanging(command);
  }
}

TEST_F(XmlCommandTest, AForeignOrDamagedEncryptionIsAFailure) {
  encryptFile();
  std::string bytes = bytesOf("a.xml");
  bytes.back() = static_cast<char>(bytes.back() ^ 1);
  file("b.xml", bytes);
  EXPECT_EQ(run("xml show b.xml"), failed("cannot read b.xml: it cannot be decrypted"));
  file("c.xml", bytes.substr(0, 5));
  EXPECT_EQ(run("xml check c.xml"),
            failed("cannot read c.xml: it is encrypted in an unknown way, or damaged"));
  EXPECT_EQ(runOn(bytes, "xml show -"),
            failed("cannot read standard input: it cannot be decrypted"));
}

struct Hostile {
  char const* name;
  std::string bytes;
  char const* problem;  // behind the file's name
};

void PrintTo(Hostile const& row, std::ostream* out) { *out << row.name; }

std::string repeated(std::string const& text, int count) {
  std::string all;
  for (int i = 0; i < count; ++i) all += text;
  return all;
}

class XmlHostileTest : public XmlCommandTest, public testing::WithParamInterface<Hostile> {};

TEST_P(XmlHostileTest, IsRefusedAndStays) {
  file("b.xml", GetParam().bytes);
  std::string const problem = std::string("b.xml: ") + GetParam().problem;
  std::string const whole =
      problem.find("invalid UTF") == std::string::npos ? problem : "cannot read " + problem;
  for (char const* const command :
       {"xml show FILE", "xml get FILE a", "xml set FILE a b c", "xml encrypt FILE"}) {
    EXPECT_EQ(runWithFile(command, "b.xml"), failed(whole));
  }
  EXPECT_EQ(run("xml check b.xml"), answeredNo(whole));
  EXPECT_EQ(bytesOf("b.xml"), GetParam().bytes);
}

INSTANTIATE_TEST_SUITE_P(
    Documents, XmlHostileTest,
    testing::Values(
        Hostile{"Empty", "", "Parse error line: 1 column: 1 no element found"},
        Hostile{"Text", "no document", "Parse error line: 1 column: 1 syntax error"},
        Hostile{"Nul", std::string("<a/>\0<b/>", 9), "a NUL character"},
        Hostile{"NotUtf8", "<a>\n\xFF</a>", "invalid UTF-8 at byte offset 4, line 2, column 1"},
        Hostile{"HalfUtf16", std::string("\xFF\xFE<\0a", 5),
                "invalid UTF-16 at byte offset 4, line 1, column 2"},
        Hostile{"Deep", repeated("<a>", 100000),
                "Parse error line: 1 column: 3001 elements are nested deeper than 1000 levels"},
        Hostile{"ForeignEntity", "<!DOCTYPE a [<!ENTITY e SYSTEM \"/etc/passwd\">]><a>&e;</a>",
                "Parse error line: 1 column: 51 error in processing external entity reference"},
        Hostile{"EndlessEntity", "<!DOCTYPE a [<!ENTITY e \"&e;\">]><a>&e;</a>",
                "Parse error line: 1 column: 36 recursive entity reference"}),
    testing::PrintToStringParamName());

TEST_F(XmlCommandTest, EntityBombsAreRefusedSoon) {
  std::string text = "<!DOCTYPE a [<!ENTITY e0 \"lol\">";
  for (int i = 1; i < 10; ++i) {
    text.append("<!ENTITY e").append(std::to_string(i)).append(" \"");
    text.append(repeated("&e" + std::to_string(i - 1) + ";", 10)).append("\">");
  }
  EXPECT_EQ(runOn(text + "]><a>&e9;</a>", "xml check -").status, 1);
  EXPECT_EQ(runOn("<!DOCTYPE a [<!ENTITY e \"" + std::string(100000, 'x') + "\">]><a>" +
                      repeated("&e;", 100000) + "</a>",
                  "xml check -")
                .status,
            1);
}

TEST_F(XmlCommandTest, ADecryptedCopyIsForItsOwnerAlone) {
  EXPECT_EQ(shell("umask 0; vrxtool xml encrypt a.xml; vrxtool xml decrypt a.xml -o b.xml\n"
                  "stat -c %a b.xml"),
            done("600\n"));
}

TEST_F(XmlCommandTest, AKeyThatCannotBeHadIsTold) {
  ASSERT_EQ(run("xml encrypt a.xml"), done());
  ASSERT_EQ(shell("chmod 666 \"$VRX_DATA_DIR\"/keys/*").status, 0);
  ToolResult const noKey =
      failed("the agent's key cannot be had: see the folder " + data.path() + "/keys");
  file("b.xml", "<b/>");
  for (std::string const command :
       {"show a.xml", "check a.xml", "decrypt a.xml", "encrypt b.xml", "encrypt b.xml -o -"}) {
    EXPECT_EQ(run("xml " + command), noKey);
  }
  EXPECT_EQ(bytesOf("b.xml"), "<b/>");
}

TEST_F(XmlCommandTest, ALongLineIsRead) {
  std::string const value(8'000'000, 'x');
  file("b.xml", "<a b=\"" + value + "\"/>");
  EXPECT_EQ(run("xml get b.xml a b"), done(value + "\n"));
}

// It would fill the memory.
TEST_F(XmlCommandTest, AnEndlessFileIsRefused) {
  EXPECT_EQ(run("xml show /dev/zero"), failed("cannot read /dev/zero: File too large"));
}

TEST_F(XmlCommandTest, ALineOfErrorsIsOneLineWhateverAFileHolds) {
  file("a.xml", "<a b=\"x&#10;vrxtool: all is well&#x9B;2J\"/>");
  EXPECT_EQ(run("xml check a.xml --attribute b=y"),
            answeredNo("a.xml: attribute value doesn't match: "
                       "x\\nvrxtool: all is well\\x9b2J"));
}

TEST_F(XmlCommandTest, WhatCannotBeWrittenIsAFailure) {
  for (std::string const command : {"show a.xml", "get a.xml agent version",
                                    "set - agent version 2 <a.xml", "set - agent version 1 <a.xml",
                                    "encrypt - <a.xml", "decrypt - <a.xml", "encrypt a.xml -o -"}) {
    EXPECT_EQ(run("xml " + command + " >/dev/full"), failed(kDiskFull));
    EXPECT_EQ(run("xml " + command + " >&-"), failed(kOutputClosed));
  }
  EXPECT_EQ(run("xml encrypt a.xml -o none/b.xml"),
            failed("cannot open the folder of none/b.xml: No such file or directory"));
  EXPECT_EQ(run("xml encrypt a.xml -o ."), failed("cannot write .: Is a directory"));
  EXPECT_EQ(run("xml decrypt a.xml -o /dev/full"),
            failed("cannot write /dev/full: No space left on device"));
  EXPECT_EQ(bytesOf("a.xml"), kPlain);
}

TEST_F(XmlCommandTest, AFullDiskLeavesTheOldFile) {
  ToolResult const result = shellOnFullDisk(
      "vrxtool xml set a.xml agent version \"$(head -c 20000 /dev/zero | tr '\\0' x)\"\n"
      "vrxtool xml encrypt a.xml; vrxtool xml encrypt a.xml -o b.xml; echo $?; ls -A; cat a.xml");
  if (result.status == kNoMountsStatus) GTEST_SKIP() << "the host does not allow private mounts";
  EXPECT_EQ(result, (ToolResult{0, std::string("2\n.rest\na.xml\n") + kPlain,
                                "vrxtool: cannot write a.xml: No space left on device\n"
                                "vrxtool: cannot write a.xml: No space left on device\n"
                                "vrxtool: cannot write b.xml: No space left on device\n"}));
}

TEST_F(XmlCommandTest, ALimitOfSizesLeavesTheOldFile) {
  EXPECT_EQ(shell("big=$(head -c 20000 /dev/zero | tr '\\0' x); ulimit -f 8\n"
                  "vrxtool xml set a.xml agent version \"$big\"; echo $?; ls -A"),
            (ToolResult{0, "2\na.xml\n", "vrxtool: cannot write a.xml: File too large\n"}));
  EXPECT_EQ(bytesOf("a.xml"), kPlain);
}

TEST_F(XmlCommandTest, WrongUseIsAFailure) {
  EXPECT_EQ(run("xml"), failed("a command is missing; try --help"));
  EXPECT_EQ(run("xml shwo a.xml"), failed("no command shwo; try --help"));
  EXPECT_EQ(run("xml get a.xml"), failed("PATH is required; try --help"));
  EXPECT_EQ(run("xml set a.xml agent version"), failed("VALUE is required; try --help"));
  for (std::string const command : {"show", "get", "set", "check", "encrypt", "decrypt"}) {
    EXPECT_EQ(run("xml " + command), failed("FILE is required; try --help"));
    EXPECT_EQ(run("xml " + command + " a.xml --bogus"),
              failed("no option --bogus; a value that begins with - comes after a --"));
  }
  EXPECT_EQ(run("xml show a.xml b.xml"),
            failed("The following argument was not expected: b.xml; try --help"));
}

}  // namespace

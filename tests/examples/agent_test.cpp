// The sample agent as its user sees it: arguments, files, what it prints, its exit
// status and its log. script/demo has the usual course of things; this has the rest.

#include "examples/agent/checksum.h"
#include "examples/agent/messages.h"
#include "tests/support/temporary_folder.h"

#include <vrxutil/binary.h>
#include <vrxutil/text.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using vrxutil::test::fileBytes;
using vrxutil::test::makeFile;
using vrxutil::test::TemporaryFolder;

using Lines = std::vector<std::string>;

constexpr char kUsage[] =
    "usage: agent CONFIG\n"
    "       agent --make-config CONFIG\n"
    "       agent --results\n"
    "       agent --help\n";
constexpr char kHeading[] = "  task      file           before    now       result\n";

/// For a shell: larger files than of 8 KiB, 16 KiB in some shells, cannot be written.
/// The log stays smaller.
constexpr char kSmallFilesOnly[] = "trap '' XFSZ; ulimit -f 16;";

struct Result {
  int status;
  std::string output;
  std::string errors;
};

/// A folder for the agent to work in, with a data folder of its own.
class AgentTest : public testing::Test {
protected:
  /// Runs the agent in the folder; `arguments` and `before` are text for a shell.
  Result run(std::string const& arguments, std::string const& before = "") {
    std::string const command = "cd '" + folder.path() + "' && { " + before + "\n VRX_DATA_DIR='" +
                                data.path() + "' '" + AGENT_PROGRAM + "' " + arguments + "; } >'" +
                                outputs / "out" + "' 2>'" + outputs / "err" + "'";
    int const status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, fileBytes(outputs / "out"),
            fileBytes(outputs / "err")};
  }

  /// Runs the agent on a configuration with these tasks.
  Result runTasks(std::string const& tasks, std::string const& before = "") {
    makeFile(folder / "agent.xml", "<agent version=\"1\">" + tasks + "</agent>");
    return run("agent.xml", before);
  }

  /// The log, without time, process and thread.
  Lines log() const {
    std::istringstream text(fileBytes(data / "log/agent.log"));
    Lines lines;
    for (std::string line; std::getline(text, line);) {
      std::size_t const time = line.find(' ');
      lines.push_back(line.substr(line.find(' ', time + 1) + 1));
    }
    return lines;
  }

  /// The message of the last error in the log.
  std::string lastError() const {
    std::string last;
    for (std::string const& line : log()) {
      if (line.rfind("error ", 0) == 0) last = line;
    }
    return last;
  }

  /// The names in the folder, in order.
  Lines names() const {
    Lines found;
    for (auto const& entry : fs::directory_iterator(folder.path())) {
      found.push_back(entry.path().filename().string());
    }
    std::sort(found.begin(), found.end());
    return found;
  }

  TemporaryFolder folder;
  TemporaryFolder data;
  TemporaryFolder outputs;
};

/// What the agent prints at the first run of one task.
std::string firstSummary(std::string const& row, std::string const& totals) {
  return std::string("Last run: never\n") + kHeading + row + "\n" + totals + "\n";
}

struct WrongArguments {
  char const* name;
  char const* arguments;
};

void PrintTo(WrongArguments const& row, std::ostream* out) { *out << row.name; }

class AgentArgumentsTest : public AgentTest, public testing::WithParamInterface<WrongArguments> {};

TEST_P(AgentArgumentsTest, ShowTheUsage) {
  Result const result = run(GetParam().arguments);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.errors, kUsage);
  EXPECT_EQ(log(), Lines{"info [Log] Exit program"});
  EXPECT_EQ(names(), Lines{});
}

INSTANTIATE_TEST_SUITE_P(Wrong, AgentArgumentsTest,
                         testing::Values(WrongArguments{"None", ""}, WrongArguments{"Empty", "''"},
                                         WrongArguments{"UnknownOption", "--verbose"},
                                         WrongArguments{"OptionWithoutFile", "--make-config"},
                                         WrongArguments{"ResultsOfAFile", "--results a.xml"},
                                         WrongArguments{"TwoFiles", "a.xml b.xml"},
                                         WrongArguments{"TooMany", "--make-config a.xml b.xml"}),
                         testing::PrintToStringParamName());

TEST_F(AgentTest, HelpGoesToStandardOutput) {
  Result const result = run("--help");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output, kUsage);
  EXPECT_EQ(result.errors, "");
}

struct RefusedFile {
  char const* name;
  char const* file;
  char const* error;
};

void PrintTo(RefusedFile const& row, std::ostream* out) { *out << row.name; }

class AgentRefusalTest : public AgentTest, public testing::WithParamInterface<RefusedFile> {};

TEST_P(AgentRefusalTest, IsReportedAndLogged) {
  fs::create_directory(folder / "folder.xml");
  makeFile(folder / "empty.xml", "");
  makeFile(folder / "version2.xml", "<agent version='2'/>");
  makeFile(folder / "no-version.xml", "<agent/>");
  std::string const file = GetParam().file;
  Result const result = run(file);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.errors, "agent: configuration refused: " + file + " (see the log)\n");
  EXPECT_EQ(lastError(), std::string("error ") + GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    Refused, AgentRefusalTest,
    testing::Values(
        RefusedFile{"Missing", "missing.xml",
                    "[Xml]   cannot open missing.xml: No such file or directory"},
        RefusedFile{"Folder", "folder.xml", "[Xml]   cannot read folder.xml: Is a directory"},
        RefusedFile{"Empty", "empty.xml", "[Xml]   Parse error line: 1 column: 1 no element found"},
        RefusedFile{"WrongVersion", "version2.xml", "[Xml]   attribute value doesn't match: 2"},
        RefusedFile{"NoVersion", "no-version.xml",
                    "[XmlNode]   getValue: required attribute not found: version"}),
    testing::PrintToStringParamName());

TEST_F(AgentTest, NoTasksAreNoFailure) {
  Result const result = runTasks("");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output,
            std::string("Last run: never\n") + kHeading + "0 done, 0 failed, 0 disabled\n");
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(log(), Lines{"info [Log] Exit program"});
}

TEST_F(AgentTest, OtherElementsAreNoTasks) {
  Result const result = runTasks("text<job type='checksum'/><!-- comment -->");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output,
            std::string("Last run: never\n") + kHeading + "0 done, 0 failed, 0 disabled\n");
}

TEST_F(AgentTest, TaskIsDisabledUnlessItSaysOtherwise) {
  Result const result = runTasks("<task type='checksum' path='agent.xml'/>");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output, firstSummary("  checksum  agent.xml      -         disabled  ",
                                        "0 done, 0 failed, 1 disabled"));
}

struct FailingTask {
  char const* name;
  char const* attributes;
  char const* type;
  char const* path;
  char const* result;
  char const* error;
};

void PrintTo(FailingTask const& row, std::ostream* out) { *out << row.name; }

class AgentFailureTest : public AgentTest, public testing::WithParamInterface<FailingTask> {};

std::string padded(std::string text, std::size_t width) {
  text.resize(std::max(text.size(), width), ' ');
  return text + ' ';
}

TEST_P(AgentFailureTest, IsReportedLoggedAndChangesNoFile) {
  FailingTask const& task = GetParam();
  makeFile(folder / "host.xml", "<host><package/></host>");
  Result const result = runTasks(std::string("<task enabled='true' ") + task.attributes + "/>");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output, firstSummary("  " + padded(task.type, 9) + padded(task.path, 14) +
                                            padded("-", 9) + padded("failed", 9) + task.result,
                                        "0 done, 1 failed, 0 disabled"));
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(lastError(), std::string("error ") + task.error);
  EXPECT_EQ(fileBytes(folder / "host.xml"), "<host><package/></host>");
  EXPECT_EQ(names(), (Lines{"agent.xml", "host.xml"}));
}

constexpr char kNoFile[] = "the file cannot be read";
constexpr char kNoElement[] = "the file has no such element";
constexpr char kIncomplete[] = "the task is incomplete";

INSTANTIATE_TEST_SUITE_P(
    Failing, AgentFailureTest,
    testing::Values(
        FailingTask{"NoType", "path='host.xml'", "?", "host.xml", "the task has no type",
                    "[XmlNode]   getValue: required attribute not found: type"},
        FailingTask{"UnknownType", "type='dance' path='host.xml'", "dance", "host.xml",
                    "unknown type of task: dance", "[Agent]   unknown type of task: dance"},
        FailingTask{"ChecksumOfNothing", "type='checksum'", "checksum", "?", "the task has no path",
                    "[XmlNode]   getValue: required attribute not found: path"},
        FailingTask{"ChecksumOfMissingFile", "type='checksum' path='no.xml'", "checksum", "no.xml",
                    kNoFile, "[Agent]   No such file or directory"},
        FailingTask{"ChecksumOfFolder", "type='checksum' path='.'", "checksum", ".", kNoFile,
                    "[Agent]   not a regular file"},
        FailingTask{"ChecksumOfEndlessFile", "type='checksum' path='/dev/zero'", "checksum",
                    "/dev/zero", kNoFile, "[Agent]   not a regular file"},
        FailingTask{"CollectWithoutReport", "type='collect' path='host.xml' element='package'",
                    "collect", "host.xml", kIncomplete,
                    "[XmlNode]   getValue: required attribute not found: report"},
        FailingTask{"CollectWithoutElement", "type='collect' path='host.xml' report='r'", "collect",
                    "host.xml", kIncomplete,
                    "[XmlNode]   getValue: required attribute not found: element"},
        FailingTask{"CollectOfNoName", "type='collect' path='host.xml' element='' report='r'",
                    "collect", "host.xml", kNoElement,
                    "[Agent]   the path of an element has an empty step"},
        FailingTask{"CollectBelowNoName",
                    "type='collect' path='host.xml' element='package//x/y' report='r'", "collect",
                    "host.xml", kNoElement, "[Agent]   the path of an element has an empty step"},
        FailingTask{"CollectBelowMissingElement",
                    "type='collect' path='host.xml' element='no/x' report='r'", "collect",
                    "host.xml", kNoElement,
                    "[XmlNode]   getChild: required child not found: no,(null),(null),(null)"},
        FailingTask{"CollectIntoMissingFolder",
                    "type='collect' path='host.xml' element='package' report='no/r'", "collect",
                    "host.xml", "the report cannot be written",
                    "[Xml]   Exception writing file: cannot open the folder of no/r: No such file "
                    "or directory"},
        FailingTask{"SetWithoutValues", "type='set' path='host.xml' element='package'", "set",
                    "host.xml", kIncomplete,
                    "[XmlNode]   getValue: required attribute not found: values"},
        FailingTask{"SetInMissingElement", "type='set' path='host.xml' element='no' values='a=b'",
                    "set", "host.xml", kNoElement,
                    "[XmlNode]   getChild: required child not found: no,(null),(null),(null)"},
        FailingTask{"SetWithoutName", "type='set' path='host.xml' element='package' values='=b'",
                    "set", "host.xml", "a value has no name", "[Agent]   a value has no name"},
        FailingTask{"SetOfImpossibleName",
                    "type='set' path='host.xml' element='package' values='a b=c'", "set",
                    "host.xml", "the file cannot be written",
                    "[Xml]   Exception writing file: \"a b\" is no XML name"},
        FailingTask{"PlugInWithoutLibrary", "type='plugin' path='host.xml'", "plugin", "host.xml",
                    kIncomplete, "[XmlNode]   getValue: required attribute not found: library"},
        FailingTask{"PlugInWithoutFile", "type='plugin' library='x'", "plugin", "?", kIncomplete,
                    "[XmlNode]   getValue: required attribute not found: path"},
        FailingTask{"EncryptWithoutOutput", "type='encrypt' path='host.xml'", "encrypt", "host.xml",
                    kIncomplete, "[XmlNode]   getValue: required attribute not found: output"},
        FailingTask{"EncryptIntoMissingFolder", "type='encrypt' path='host.xml' output='no/copy'",
                    "encrypt", "host.xml", "the copy cannot be written",
                    "[Agent]   No such file or directory"},
        FailingTask{"EncryptIntoFolder", "type='encrypt' path='host.xml' output='.'", "encrypt",
                    "host.xml", "the copy cannot be written", "[Agent]   not a regular file"},
        FailingTask{"EncryptBelowFile", "type='encrypt' path='host.xml' output='host.xml/copy'",
                    "encrypt", "host.xml", "the copy cannot be written",
                    "[Agent]   Not a directory"}),
    testing::PrintToStringParamName());

TEST_F(AgentTest, FailureDoesNotKeepTheOtherTasksFromBeingDone) {
  makeFile(folder / "nine", "123456789");
  Result const result = runTasks(
      "<task type='dance' enabled='true'/><task type='checksum' enabled='true' path='nine'/>");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output,
            firstSummary("  dance     ?              -         failed    unknown type of task: "
                         "dance\n  checksum  nine           -         done      crc32 cbf43926, 9 "
                         "bytes, seen for the first time",
                         "1 done, 1 failed, 0 disabled"));
}

TEST_F(AgentTest, NextRunKnowsWhatFailed) {
  runTasks("<task type='checksum' enabled='true' path='later'/>");
  makeFile(folder / "later", "123456789");
  Result const result = run("agent.xml");
  EXPECT_EQ(result.status, 0);
  std::string const row =
      "  checksum  later          failed    done      crc32 cbf43926, 9 bytes, seen for the first "
      "time\n";
  EXPECT_NE(result.output.find(row), std::string::npos) << result.output;
  EXPECT_EQ(result.output.find("never"), std::string::npos) << result.output;
}

TEST_F(AgentTest, LongNamesKeepTheColumnsApart) {
  Result const result = runTasks("<task type='unheard-of-type' path='rather-long-name.xml'/>");
  EXPECT_EQ(result.output,
            firstSummary("  unheard-of-type rather-long-name.xml -         disabled  ",
                         "0 done, 0 failed, 1 disabled"));
}

TEST_F(AgentTest, RelativePathsStartAtTheFolderOfTheConfiguration) {
  fs::create_directories(folder / "site");
  makeFile(folder / "site/nine", "123456789");
  makeFile(folder / "site/agent.xml",
           "<agent version='1'><task type='checksum' enabled='true' path='nine'/></agent>");
  EXPECT_EQ(run("site/agent.xml").status, 0);
  EXPECT_EQ(run("'" + folder.path() + "/site/agent.xml'").status, 0);
  EXPECT_EQ(run("agent.xml", "cd site").status, 0);
}

TEST_F(AgentTest, AbsolutePathsAreTakenAsTheyAre) {
  makeFile(outputs / "nine", "123456789");
  Result const result =
      runTasks("<task type='checksum' enabled='true' path='" + outputs / "nine" + "'/>");
  EXPECT_EQ(result.status, 0);
}

TEST_F(AgentTest, EmptyElementPathIsTheRoot) {
  makeFile(folder / "host.xml", "<host/>");
  Result const result =
      runTasks("<task type='set' enabled='true' path='host.xml' element='' values='a=b, c'/>");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(fileBytes(folder / "host.xml"),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<host a=\"b\" c=\"\"/>\n");
}

TEST_F(AgentTest, CollectTakesElementsThatHaveTheAttribute) {
  makeFile(folder / "host.xml",
           "<host><p name='a' x='1'/><p name='b'/><q name='c' x='1'/><p x='2'/></host>");
  Result const result = runTasks(
      "<task type='collect' enabled='true' path='host.xml' element='p' where='x' report='r.xml'/>");
  EXPECT_EQ(result.output, firstSummary("  collect   host.xml       -         done      2 of 3 "
                                        "copied: a, ?",
                                        "1 done, 0 failed, 0 disabled"));
  EXPECT_EQ(fileBytes(folder / "r.xml"),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<report source=\"host.xml\">\n"
            "  <p name=\"a\" x=\"1\"/>\n  <p x=\"2\"/>\n</report>\n");
}

TEST_F(AgentTest, EncryptedCopyReplacesTheOldOneAndLeavesNothingElse) {
  makeFile(folder / "plain", "secret");
  makeFile(folder / "copy", "old");
  Result const result =
      runTasks("<task type='encrypt' enabled='true' path='plain' output='copy'/>");
  EXPECT_EQ(result.output, firstSummary("  encrypt   plain          -         done      6 bytes "
                                        "sealed in 47",
                                        "1 done, 0 failed, 0 disabled"));
  EXPECT_EQ(fileBytes(folder / "copy").size(), 47U);
  EXPECT_EQ(names(), (Lines{"agent.xml", "copy", "plain"}));
}

TEST_F(AgentTest, EncryptReplacesNeitherPipeNorLink) {
  makeFile(folder / "plain", "secret");
  ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
  fs::create_symlink("plain", folder / "link");
  Result const result = runTasks(
      "<task type='encrypt' enabled='true' path='plain' output='pipe'/>"
      "<task type='encrypt' enabled='true' path='plain' output='link'/>");
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(fs::is_fifo(folder / "pipe"));
  EXPECT_TRUE(fs::is_symlink(folder / "link"));
  EXPECT_EQ(fileBytes(folder / "plain"), "secret");
  EXPECT_EQ(names(), (Lines{"agent.xml", "link", "pipe", "plain"}));
}

TEST_F(AgentTest, EncryptedCopyThatCannotBeWrittenLeavesTheOldOne) {
  makeFile(folder / "plain", std::string(20000, 'x'));
  makeFile(folder / "copy", "old");
  makeFile(folder / "agent.xml",
           "<agent version='1'><task type='encrypt' enabled='true' path='plain' output='copy'/>"
           "</agent>");
  Result const result = run("agent.xml", kSmallFilesOnly);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output, firstSummary("  encrypt   plain          -         failed    the copy "
                                        "cannot be written",
                                        "0 done, 1 failed, 0 disabled"));
  EXPECT_EQ(lastError(), "error [Agent]   File too large");
  EXPECT_EQ(fileBytes(folder / "copy"), "old");
  EXPECT_EQ(names(), (Lines{"agent.xml", "copy", "plain"}));
}

TEST_F(AgentTest, FileThatCannotBeWrittenBackStaysAsItIs) {
  std::string const before = "<agent version=\"1\"><!--" + std::string(20000, 'x') + "--></agent>";
  makeFile(folder / "agent.xml", before);
  Result const result = run("agent.xml", kSmallFilesOnly);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output,
            std::string("Last run: never\n") + kHeading + "0 done, 0 failed, 0 disabled\n");
  EXPECT_EQ(result.errors, "agent: cannot write agent.xml (see the log)\n");
  EXPECT_EQ(lastError(),
            "error [Xml]   Exception writing file: cannot write agent.xml: File too large");
  EXPECT_EQ(fileBytes(folder / "agent.xml"), before);
  EXPECT_EQ(names(), Lines{"agent.xml"});
}

TEST_F(AgentTest, WithoutAKeyTheFileStaysAsItIs) {
  makeFile(data / "keys", "a file in the folder's place");
  Result const result = runTasks("");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.errors, "agent: cannot write agent.xml (see the log)\n");
  EXPECT_EQ(fileBytes(folder / "agent.xml"), "<agent version=\"1\"></agent>");
}

TEST_F(AgentTest, MakeConfigDoesNotTouchWhatIsThere) {
  makeFile(folder / "agent.xml", "mine");
  Result const result = run("--make-config agent.xml");
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.errors, "agent: exists already: agent.xml\n");
  EXPECT_EQ(fileBytes(folder / "agent.xml"), "mine");
}

TEST_F(AgentTest, MakeConfigNeedsTheFolder) {
  Result const result = run("--make-config no/agent.xml");
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.errors, "agent: cannot write no/agent.xml (see the log)\n");
  EXPECT_EQ(lastError(),
            "error [Xml]   Exception writing file: cannot open the folder of no/agent.xml: No "
            "such file or directory");
}

TEST_F(AgentTest, PipeIsNotWaitedFor) {
  ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
  Result const result = runTasks("<task type='checksum' enabled='true' path='pipe'/>");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(lastError(), "error [Agent]   not a regular file");
}

TEST_F(AgentTest, TooLargeFileIsNotRead) {
  constexpr off_t kLimit = 64L * 1024 * 1024;
  makeFile(folder / "large", "");
  ASSERT_EQ(::truncate((folder / "large").c_str(), kLimit + 1), 0);
  Result const result = runTasks("<task type='checksum' enabled='true' path='large'/>");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(lastError(), "error [Agent]   File too large");
}

/// A task that has the plug-in of this path look at `nine`, a file of two lines.
std::string plugInTask(std::string const& library, std::string const& more = "") {
  return "<task type='plugin' enabled='true' path='nine' library='" + library + "' " + more + "/>";
}

/// What the agent prints of it.
std::string plugInSummary(char const* status, std::string const& text) {
  bool const done = std::string(status) == "done";
  return firstSummary("  plugin    nine           -         " + padded(status, 9) + text,
                      done ? "1 done, 0 failed, 0 disabled" : "0 done, 1 failed, 0 disabled");
}

class AgentPlugInTest : public AgentTest {
protected:
  AgentPlugInTest() { makeFile(folder / "nine", "1234\n6789"); }
};

TEST_F(AgentPlugInTest, IsLoadedByItsPlainNameAndAsked) {
  Result const result = runTasks(plugInTask(AGENT_PLUG_INS "/line_counter"));
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output, plugInSummary("done", "lines: 2 (plug-in 1.2.0.0)"));
  EXPECT_EQ(log(), Lines{"info [Log] Exit program"});
}

TEST_F(AgentPlugInTest, RelativePathStartsAtTheFolderOfTheConfiguration) {
  fs::create_directory(folder / "plugins");
  for (auto const& file : fs::directory_iterator(AGENT_PLUG_INS)) {
    fs::copy(file, folder / "plugins");
  }
  Result const result = runTasks(plugInTask("plugins/line_counter"));
  EXPECT_EQ(result.output, plugInSummary("done", "lines: 2 (plug-in 1.2.0.0)"));
}

TEST_F(AgentPlugInTest, LineWithoutAnEndCounts) {
  std::string const task = plugInTask(AGENT_PLUG_INS "/line_counter");
  for (auto const& [contents, lines] :
       {std::pair{"", "0"}, {"\n", "1"}, {"a", "1"}, {"a\n", "1"}, {"a\n\nb", "3"}}) {
    makeFile(folder / "nine", contents);
    EXPECT_EQ(runTasks(task).output,
              plugInSummary("done", std::string("lines: ") + lines + " (plug-in 1.2.0.0)"));
  }
}

struct LeastVersion {
  char const* name;
  char const* minimum;
  char const* refusal;
};

void PrintTo(LeastVersion const& row, std::ostream* out) { *out << row.name; }

class AgentPlugInVersionTest : public AgentPlugInTest,
                               public testing::WithParamInterface<LeastVersion> {};

TEST_P(AgentPlugInVersionTest, DecidesWhetherThePlugInIsAcceptable) {
  auto const& [name, minimum, refusal] = GetParam();
  Result const result = runTasks(
      plugInTask(AGENT_PLUG_INS "/line_counter", std::string("minimum='") + minimum + "'"));
  bool const accepted = *refusal == '\0';
  EXPECT_EQ(result.status, accepted ? 0 : 1);
  EXPECT_EQ(result.output, accepted ? plugInSummary("done", "lines: 2 (plug-in 1.2.0.0)")
                                    : plugInSummary("failed", refusal));
  EXPECT_EQ(lastError(), accepted ? "" : std::string("error [Agent]   ") + refusal);
}

INSTANTIATE_TEST_SUITE_P(
    Least, AgentPlugInVersionTest,
    testing::Values(LeastVersion{"Lower", "1.1.65535", ""}, LeastVersion{"TheSame", "1.2", ""},
                    LeastVersion{"NoNumber", "any", ""},
                    LeastVersion{"HigherByTheLastPart", "1.2.0.1",
                                 "the plug-in has version 1.2.0.0, wanted is 1.2.0.1"},
                    LeastVersion{"HigherAsANumber", "1.10",
                                 "the plug-in has version 1.2.0.0, wanted is 1.10.0.0"}),
    testing::PrintToStringParamName());

constexpr char kUnusable[] = "the plug-in cannot be used";

TEST_F(AgentPlugInTest, MissingLibraryIsReported) {
  Result const result = runTasks(plugInTask("no/plug_in"));
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output, plugInSummary("failed", kUnusable));
  EXPECT_NE(lastError().find("[Library]   no/libplug_in."), std::string::npos) << lastError();
  EXPECT_NE(lastError().find("No such file or directory"), std::string::npos) << lastError();
}

TEST_F(AgentPlugInTest, FileThatIsNoLibraryIsReported) {
  makeFile(folder / "libtext.dylib", "text");
  Result const result = runTasks(plugInTask("./text"));
  EXPECT_EQ(result.output, plugInSummary("failed", kUnusable));
  EXPECT_EQ(lastError().rfind("error [Library]   ", 0), 0U) << lastError();
}

TEST_F(AgentPlugInTest, LibraryWithoutTheFunctionIsReported) {
  Result const result = runTasks(plugInTask(AGENT_BAD_PLUG_INS "/no_plug_in"));
  EXPECT_EQ(result.output, plugInSummary("failed", kUnusable));
  EXPECT_NE(lastError().find("agentPlugInExamine"), std::string::npos) << lastError();
}

TEST_F(AgentPlugInTest, ItsFailureIsReported) {
  makeFile(folder / "nine", "");
  Result const result = runTasks(plugInTask(AGENT_BAD_PLUG_INS "/unruly_plug_in"));
  EXPECT_EQ(result.output, plugInSummary("failed", "the plug-in has failed"));
  EXPECT_EQ(lastError(), "error [Agent]   the plug-in has failed");
}

TEST_F(AgentPlugInTest, TextWithoutAnEndIsEnded) {
  Result const result = runTasks(plugInTask(AGENT_BAD_PLUG_INS "/unruly_plug_in"));
  EXPECT_EQ(result.output, plugInSummary("done", std::string(199, 'x') + " (plug-in 0.9.0.0)"));
}

TEST_F(AgentPlugInTest, FileThatCannotBeReadIsReported) {
  fs::remove(folder / "nine");
  Result const result = runTasks(plugInTask(AGENT_PLUG_INS "/line_counter"));
  EXPECT_EQ(result.output, plugInSummary("failed", kNoFile));
}

// --- The binary record of the results ----------------------------------------

constexpr char kTime[] = "2026-11-21T05:00:00Z";

std::string bigEndian(unsigned long value, unsigned bytes) {
  std::string text;
  while (bytes-- > 0) text += static_cast<char>(value >> (8 * bytes));
  return text;
}

std::string counted(std::string const& text) { return bigEndian(text.size(), 2) + text; }

std::string withChecksum(std::string const& record) {
  return record + bigEndian(agent::crc32(ABuffer(record)), 4);
}

/// The head of a record of `count` tasks.
std::string recordHead(unsigned long count) {
  return std::string("VRXR") + bigEndian(1, 2) + kTime + bigEndian(count, 4);
}

/// Two tasks, without the checksum.
std::string sampleRecord() {
  return recordHead(2) + "d" + counted("set") + counted("a.xml") + counted("\xC3\xA4") + "-" +
         counted("") + counted("b") + counted("");
}

class AgentResultsTest : public AgentTest {
protected:
  std::string file() const { return data / "results.bin"; }

  /// Reads a record back.
  Result show(std::string const& record, std::string const& before = "") {
    makeFile(file(), record);
    return run("--results", before);
  }
};

TEST_F(AgentResultsTest, AreWrittenAfterEachRun) {
  makeFile(folder / "nine", "123456789");
  runTasks(
      "<task type='checksum' enabled='true' path='nine'/><task type='dance' enabled='true'/>"
      "<task type='set' path='\xC3\xA4'/>",
      "export LC_ALL=C.UTF-8");
  std::string record = fileBytes(file());
  ASSERT_GT(record.size(), 26U);
  std::string const time = record.substr(6, 20);
  EXPECT_EQ(time[10], 'T');
  EXPECT_EQ(time[19], 'Z');
  record.replace(6, 20, kTime);
  record.resize(record.size() - 4);
  EXPECT_EQ(record, recordHead(3) + "d" + counted("checksum") + counted("nine") +
                        counted("crc32 cbf43926, 9 bytes, seen for the first time") + "f" +
                        counted("dance") + counted("?") + counted("unknown type of task: dance") +
                        "-" + counted("set") + counted("\xC3\xA4") + counted(""));
  EXPECT_EQ(run("--results").status, 0);
}

TEST_F(AgentResultsTest, AreReadBackWithTheirBase64) {
  Result const result = show(
      withChecksum(recordHead(1) + "d" + counted("set") + counted("a.xml") + counted("set b=c")));
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output,
            "Results of 2026-11-21T05:00:00Z\n"
            "  set       a.xml          done      set b=c\n"
            "Base64: VlJYUgABMjAyNi0xMS0yMVQwNTowMDowMFoAAAABZAADc2V0AAVhLnhtbAAHc2V0IGI9Yxe"
            "CReY=\n");
  EXPECT_EQ(result.errors, "");
}

TEST_F(AgentResultsTest, StatusIsInWords) {
  Result const result = show(withChecksum(sampleRecord()), "export LC_ALL=C.UTF-8");
  EXPECT_NE(result.output.find("\n  set       a.xml          done      \xC3\xA4\n"
                               "            b              disabled  \nBase64: "),
            std::string::npos)
      << result.output;
}

TEST_F(AgentResultsTest, LongTextsAreCutToAThousandCharacters) {
  std::string path;
  for (int i = 0; i < 1001; ++i) path += "\xE2\x82\xAC";
  runTasks("<task type='set' path='" + path + "'/>");
  std::string const record = fileBytes(file());
  path.resize(3000);
  std::string expected = "-";
  for (std::string const& text : {std::string("set"), path, std::string()}) {
    expected += counted(text);
  }
  EXPECT_EQ(record.substr(0, record.size() - 4).substr(30), expected);
}

TEST_F(AgentResultsTest, MissingFileIsRefused) {
  Result const result = run("--results");
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.errors, "agent: results refused: " + file() + " (see the log)\n");
  EXPECT_EQ(lastError(), "error [Agent]   No such file or directory");
}

TEST_F(AgentResultsTest, FileThatCannotBeWrittenIsReported) {
  fs::create_directory(file());
  Result const result = runTasks("");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.errors, "agent: cannot write " + file() + " (see the log)\n");
  EXPECT_EQ(lastError(), "error [Agent]   not a regular file");
}

TEST_F(AgentResultsTest, AnyChangedByteIsNoticed) {
  std::string const record = withChecksum(sampleRecord());
  for (std::size_t i = 0; i < record.size(); ++i) {
    std::string changed = record;
    changed[i] = static_cast<char>(changed[i] ^ 1);
    EXPECT_EQ(show(changed).status, 2) << i;
  }
}

TEST_F(AgentResultsTest, AnyCutIsNoticed) {
  std::string const record = withChecksum(sampleRecord());
  for (std::size_t size = 0; size < record.size(); ++size) {
    EXPECT_EQ(show(record.substr(0, size)).status, 2) << size;
  }
}

struct RefusedRecord {
  char const* name;
  std::string record;
  char const* error;
};

void PrintTo(RefusedRecord const& row, std::ostream* out) { *out << row.name; }

class AgentRefusedResultsTest : public AgentResultsTest,
                                public testing::WithParamInterface<RefusedRecord> {};

// Whoever made them knew how to make the checksum.
TEST_P(AgentRefusedResultsTest, AreLoggedWithTheReason) {
  Result const result = show(withChecksum(GetParam().record));
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(lastError(), std::string("error ") + GetParam().error);
}

std::string replaced(std::size_t at, std::string const& bytes) {
  std::string record = sampleRecord();
  return record.replace(at, bytes.size(), bytes);
}

INSTANTIATE_TEST_SUITE_P(
    Refused, AgentRefusedResultsTest,
    testing::Values(
        RefusedRecord{"Nothing", "", "[Agent]   no record of results: too short"},
        RefusedRecord{"HalfAHead", recordHead(0).substr(0, 29),
                      "[Agent]   no record of results: too short"},
        RefusedRecord{"AnotherMark", replaced(0, "VRXQ"),
                      "[Agent]   no record of results: another kind of file"},
        RefusedRecord{"AnotherVersion", replaced(4, bigEndian(2, 2)),
                      "[Agent]   no record of results: another version of the format"},
        RefusedRecord{"TooManyTasks", replaced(26, bigEndian(3, 4)),
                      "[Agent]   no record of results: a task has no status"},
        RefusedRecord{"FarTooManyTasks", replaced(26, bigEndian(0xFFFFFFFF, 4)),
                      "[Agent]   no record of results: a task has no status"},
        RefusedRecord{"TooFewTasks", replaced(26, bigEndian(1, 4)),
                      "[Agent]   no record of results: something follows"},
        RefusedRecord{"UnknownStatus", replaced(30, "x"),
                      "[Agent]   no record of results: a task has no status"},
        RefusedRecord{"TextBeyondTheEnd",
                      recordHead(1) + "d" + counted("") + counted("") + bigEndian(7, 2) + "123456",
                      "[BinStrm] internal error: Tried to write past buffer end by 1"},
        RefusedRecord{"NoUtf8", recordHead(1) + "d" + counted("\xFF") + counted("") + counted(""),
                      "[Xml]   invalid UTF-8 at byte offset 0, line 1, column 1"}),
    testing::PrintToStringParamName());

/// The agent with nothing to do but to list its work folder.
class AgentWorkFolderTest : public AgentTest {
protected:
  AgentWorkFolderTest() {
    fs::create_directory(data / "etc");
    fs::create_directory(data / "work");
  }

  void set(std::string const& settings) { makeFile(settingsFile(), settings); }

  std::string settingsFile() const { return data / "etc/agent.ini"; }

  /// What is printed below the totals.
  std::string lastLine(std::string const& before = "") {
    result = runTasks("", before);
    std::string const top =
        std::string("Last run: never\n") + kHeading + "0 done, 0 failed, 0 disabled\n";
    EXPECT_EQ(result.output.substr(0, top.size()), top);
    return result.output.substr(std::min(top.size(), result.output.size()));
  }

  std::string listed(std::string const& files, std::string const& before,
                     std::string const& list = "work.txt") const {
    return "Work folder: " + files + " files, " + before + " before, listed in " + data / list +
           "\n";
  }

  Result result;
};

constexpr char kWorkFolderFailed[] = "Work folder: it cannot be listed (see the log)\n";

TEST_F(AgentWorkFolderTest, IsListedInTheOrderOfTheNames) {
  makeFile(data / "work/b", "123456789");
  makeFile(data / "work/a", "");
  makeFile(data / "work/\xC3\xA4 \xE2\x82\xAC", "x");
  fs::create_directory(data / "work/folder");
  EXPECT_EQ(lastLine("export LC_ALL=C.UTF-8"), listed("3", "0"));
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(fileBytes(data / "work.txt"),
            "00000000 0 a\ncbf43926 9 b\n8cdc1683 1 \xC3\xA4 \xE2\x82\xAC\n");
  EXPECT_EQ(fileBytes(settingsFile()), "[work]\nfiles=3\n\n");
  EXPECT_FALSE(fs::exists(data / "scratch"));
}

TEST_F(AgentWorkFolderTest, NumberOfFilesIsKnownAtTheNextRun) {
  makeFile(data / "work/a", "");
  EXPECT_EQ(lastLine(), listed("1", "0"));
  makeFile(data / "work/b", "");
  EXPECT_EQ(lastLine(), listed("2", "1"));
}

TEST_F(AgentWorkFolderTest, EmptyFolderGivesAnEmptyList) {
  EXPECT_EQ(lastLine(), listed("0", "0"));
  EXPECT_EQ(fileBytes(data / "work.txt"), "");
}

TEST_F(AgentWorkFolderTest, MissingFolderIsNotMentioned) {
  fs::remove(data / "work");
  fs::remove(data / "etc");
  EXPECT_EQ(lastLine(), "");
  EXPECT_EQ(result.status, 0);
  EXPECT_FALSE(fs::exists(data / "work.txt"));
  EXPECT_FALSE(fs::exists(settingsFile()));
  EXPECT_EQ(log(), Lines{"info [Log] Exit program"});
}

TEST_F(AgentWorkFolderTest, SettingsChooseFolderFilesAndList) {
  set("[work]\nfolder = " + folder.path() + "\npattern = *.job\nlist = jobs\n[other]\nk=v\n");
  makeFile(folder / "a.job", "1");
  makeFile(folder / "b.txt", "2");
  EXPECT_EQ(lastLine(), listed("1", "0", "jobs"));
  EXPECT_EQ(fileBytes(data / "jobs"), "83dcefb7 1 a.job\n");
  EXPECT_EQ(fileBytes(settingsFile()), "[other]\nk=v\n\n[work]\nfiles=1\nfolder=" + folder.path() +
                                           "\nlist=jobs\npattern=*.job\n\n");
}

TEST_F(AgentWorkFolderTest, WhatACrashHasLeftIsRemoved) {
  fs::create_directories(data / "scratch/deep/er");
  makeFile(data / "scratch/new", "old");
  makeFile(data / "scratch/deep/er/file", "old");
  EXPECT_EQ(lastLine(), listed("0", "0"));
  EXPECT_FALSE(fs::exists(data / "scratch"));
}

TEST_F(AgentWorkFolderTest, FileThatCannotBeReadIsLeftOutAndReported) {
  makeFile(data / "work/a", "");
  ASSERT_EQ(::mkfifo((data / "work/pipe").c_str(), 0600), 0);
  EXPECT_EQ(lastLine(), listed("1", "0"));
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.errors, kWorkFolderFailed);
  EXPECT_EQ(fileBytes(data / "work.txt"), "00000000 0 a\n");
  EXPECT_EQ(lastError(), "error [Agent]   not a regular file");
}

TEST_F(AgentWorkFolderTest, ListThatCannotBeWrittenIsReported) {
  set("[work]\nlist=no/list\n");
  EXPECT_EQ(lastLine(), "");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.errors, kWorkFolderFailed);
  EXPECT_EQ(lastError(), "error [Filer]   Failed");
  EXPECT_EQ(fileBytes(settingsFile()), "[work]\nlist=no/list\n");
  EXPECT_FALSE(fs::exists(data / "scratch"));
}

TEST_F(AgentWorkFolderTest, SettingsThatCannotBeWrittenAreReported) {
  fs::remove(data / "etc");
  makeFile(data / "etc", "a file in the folder's place");
  EXPECT_EQ(lastLine(), listed("0", "0"));
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.errors, "agent: cannot write " + settingsFile() + " (see the log)\n");
}

struct RefusedSettings {
  char const* name;
  char const* contents;
  char const* reason;
};

void PrintTo(RefusedSettings const& row, std::ostream* out) { *out << row.name; }

class AgentSettingsTest : public AgentWorkFolderTest,
                          public testing::WithParamInterface<RefusedSettings> {};

TEST_P(AgentSettingsTest, AreRefusedAndLeftAlone) {
  set(GetParam().contents);
  makeFile(folder / "agent.xml", "<agent version='1'/>");
  result = run("agent.xml");
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.errors, "agent: settings refused: " + settingsFile() + " (see the log)\n");
  Lines const expected{
      "error [ini] internal error: " + std::string(GetParam().reason) + settingsFile() + " line 3",
      "error [ini] internal error: Ini file not parsed in AnIni2",
      "info [Log] Exit program",
  };
  EXPECT_EQ(log(), expected);
  EXPECT_EQ(fileBytes(settingsFile()), GetParam().contents);
  EXPECT_EQ(fileBytes(folder / "agent.xml"), "<agent version='1'/>");
  EXPECT_FALSE(fs::exists(data / "work.txt"));
}

INSTANTIATE_TEST_SUITE_P(
    Refused, AgentSettingsTest,
    testing::Values(RefusedSettings{"KeyAlone", "[work]\n\nfiles\n", "Unexpected: new line "},
                    RefusedSettings{"NoKey", "[work]\n\n= 2\n", "Unexpected: '=' "},
                    RefusedSettings{"NoSection", "[work]\n\n[]\n", "Unexpected: empty section "}),
    testing::PrintToStringParamName());

TEST_F(AgentWorkFolderTest, SettingsThatMayNotBeReadAreRefused) {
  set("[work]\nfiles=5\n");
  if (::geteuid() == 0) GTEST_SKIP() << "root may read everything";
  fs::permissions(settingsFile(), fs::perms::none);
  makeFile(folder / "agent.xml", "<agent version='1'/>");
  result = run("agent.xml");
  fs::permissions(settingsFile(), fs::perms::owner_all);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(lastError(), "error [Agent]   no right to read " + settingsFile());
  EXPECT_EQ(fileBytes(settingsFile()), "[work]\nfiles=5\n");
}

/// The environment of a language, for a shell.
std::string speaking(std::string const& language, std::string const& catalogues) {
  return "export LC_ALL=" + language + ".UTF-8 LOCPATH='" AGENT_LOCALES "' NLSPATH='" + catalogues +
         "/%L/%N.cat'";
}

constexpr char kTask[] = "<task type='checksum' enabled='true' path='nine'/>";

TEST_F(AgentTest, SpeaksGerman) {
  makeFile(folder / "nine", "123456789");
  Result const result = runTasks(kTask, speaking("de_DE", AGENT_CATALOGUES));
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output,
            "Letzter Lauf: nie\n  Aufgabe   Datei          vorher    jetzt     Ergebnis\n"
            "  checksum  nine           -         erledigt  zum ersten Mal gesehen: crc32 "
            "cbf43926, 9 Bytes\n1 erledigt, 0 gescheitert, 0 abgeschaltet\n");
}

TEST_F(AgentTest, SpeaksFrench) {
  Result const result = run("missing.xml", speaking("fr_FR", AGENT_CATALOGUES));
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.errors,
            "agent : configuration refus\xC3\xA9"
            "e : missing.xml (voir le journal)\n");
}

TEST_F(AgentTest, SpeaksEnglishWithoutACatalogue) {
  Result const result = run("--help", speaking("de_DE", folder.path()));
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output, kUsage);
  EXPECT_EQ(log().size(), 6U);  // an error trace of four lines that ends with:
  EXPECT_EQ(lastError().substr(0, 17), "error [RcFile]   ");
}

// Else the placeholder of a translation would reach people, or an argument not.
TEST(AgentMessagesTest, CataloguesHaveThePlaceholdersOfTheBuiltInTexts) {
  auto const placeholders = [](AString const& text) {
    std::multiset<wchar_t> found;
    for (wchar_t const* c = text; *c != 0; ++c) {
      if (c[0] == L'%') found.insert(c[1]);
    }
    return found;
  };
  for (std::string const language : {"de_DE", "fr_FR"}) {
    AResourceFile catalogue;
    std::string const path = AGENT_CATALOGUES "/" + language + ".UTF-8/agent.cat";
    ASSERT_TRUE(catalogue.openExisting(AString(path.c_str()), 0));
    for (int id = 1; id <= agent::kMessageCount; ++id) {
      ASSERT_EQ(ALocalizedString::DefaultResourceFile, nullptr);
      AString const builtIn = agent::text(static_cast<agent::Message>(id));
      AString const translated = ALocalizedString(id, &catalogue);
      EXPECT_EQ(placeholders(translated), placeholders(builtIn)) << language << ' ' << id;
      AString const missing = AString(L"<") << id << L">";
      EXPECT_NE(translated.const_cpp_str(), missing.const_cpp_str()) << language << ' ' << id;
    }
  }
}

TEST(AgentMessagesTest, MessageThatTheCatalogueLacksIsBuiltIn) {
  AResourceFile empty;
  ALocalizedString::setDefaultResourceFile(&empty);
  EXPECT_EQ(agent::text(agent::Message::never).const_cpp_str(), L"never");
  ALocalizedString::setDefaultResourceFile(nullptr);
}

}  // namespace

// The sample counter as its user sees it: arguments, the file, what it prints, its exit
// status, and what it leaves of its lock.

#include "tests/file/file_support.h"
#include "tests/lock/lock_support.h"
#include "tests/support/other_user.h"
#include "tests/support/temporary_folder.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <ostream>
#include <string>

#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using vrxutil::test::exists;
using vrxutil::test::expectAllowedInChild;
using vrxutil::test::expectInWorld;
using vrxutil::test::expectNothingLeft;
using vrxutil::test::fileBytes;
using vrxutil::test::leaveAsNotAllowed;
using vrxutil::test::leaveRoot;
using vrxutil::test::makeFile;
using vrxutil::test::TemporaryFolder;

constexpr char kUsage[] =
    "usage: shared_counter FILE UPDATES WRITERS READERS\n"
    "       shared_counter --kill FILE UPDATES WRITERS READERS\n";

struct Result {
  int status;
  std::string output;
  std::string errors;
};

/// A folder for the counter to work in.
class SharedCounterTest : public testing::Test {
protected:
  /// Runs it in the folder; `arguments` are text for a shell.
  Result run(std::string const& arguments) const {
    std::string const command =
        "cd '" + folder.path() + "' && '" COUNTER_PROGRAM "' " + arguments + " >out 2>err";
    int const status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, fileBytes(folder / "out"),
            fileBytes(folder / "err")};
  }

  /// Expects the exact output, and what the file says then.
  void expectRun(std::string const& arguments, std::string const& output,
                 std::string const& contents) const {
    Result const result = run(arguments);
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.output, output);
    EXPECT_EQ(fileBytes(folder / "count"), contents);
    expectNothingLeft();
  }

  TemporaryFolder folder;
};

struct WrongArguments {
  char const* name;
  char const* arguments;
};

void PrintTo(WrongArguments const& row, std::ostream* out) { *out << row.name; }

class SharedCounterArgumentsTest : public SharedCounterTest,
                                   public testing::WithParamInterface<WrongArguments> {};

TEST_P(SharedCounterArgumentsTest, GivesTheUsage) {
  Result const result = run(GetParam().arguments);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.output, "");
  EXPECT_TRUE(result.errors.starts_with(kUsage)) << result.errors;
}

INSTANTIATE_TEST_SUITE_P(All, SharedCounterArgumentsTest,
                         testing::Values(WrongArguments{"None", ""},
                                         WrongArguments{"TooFew", "count 1 1"},
                                         WrongArguments{"TooMany", "count 1 1 1 1"},
                                         WrongArguments{"NoNumber", "count x 1 1"},
                                         WrongArguments{"MoreThanANumber", "count 1 1x 1"},
                                         WrongArguments{"Negative", "count 1 1 -1"},
                                         WrongArguments{"TooManyProcesses", "count 1 1001 1"},
                                         WrongArguments{"KillAlone", "--kill"}),
                         [](auto const& row) { return std::string(row.param.name); });

TEST_F(SharedCounterTest, IsForRoot) {
  fs::permissions(folder.path(), fs::perms::all);
  expectAllowedInChild("other users may not run the example here", [&] {
    ASSERT_TRUE(leaveRoot());
    if (::access(COUNTER_PROGRAM, X_OK) != 0) leaveAsNotAllowed();
    Result const result = run("count 1 1 1");
    EXPECT_EQ(result.status, 2);
    EXPECT_TRUE(
        result.errors.starts_with("shared_counter: only root's processes can share a lock\n"))
        << result.errors;
    EXPECT_FALSE(exists(folder / "count"));
  });
}

TEST_F(SharedCounterTest, NeedsTheLockFolder) {
  expectInWorld([&] {
    fs::remove_all("/Library");
    Result const result = run("count 1 1 1");
    EXPECT_EQ(result.status, 2);
    EXPECT_TRUE(
        result.errors.starts_with("shared_counter: no lock folder: /Library/Vornix/oxa/scratch/\n"))
        << result.errors;
    EXPECT_FALSE(exists(folder / "count"));
  });
}

TEST_F(SharedCounterTest, CountsEveryUpdate) {
  expectInWorld([&] {
    expectRun("count 100 4 2",
              "4 writers, 2 readers: 0 killed, 0 failed\n"
              "0 before, 400 updates completed: the file says 400\n",
              "400\n");
  });
}

TEST_F(SharedCounterTest, GoesOnFromWhatTheFileSays) {
  makeFile(folder / "count", "17\n");
  expectInWorld([&] {
    expectRun("count 1 3 0",
              "3 writers, 0 readers: 0 killed, 0 failed\n"
              "17 before, 3 updates completed: the file says 20\n",
              "20\n");
  });
}

TEST_F(SharedCounterTest, GoesOnWhenAWriterIsKilledInTheMiddle) {
  expectInWorld([&] {
    expectRun("--kill count 100 4 2",
              "4 writers, 2 readers: 1 killed, 0 failed\n"
              "0 before, 350 updates completed: the file says 350\n",
              "350\n");
  });
}

TEST_F(SharedCounterTest, DoesNotCountTheHalfMadeUpdate) {
  expectInWorld([&] {
    expectRun("--kill count 10 1 0",
              "1 writers, 0 readers: 1 killed, 0 failed\n"
              "0 before, 5 updates completed: the file says 5\n",
              "5\n");
    EXPECT_EQ(fileBytes(folder / "count.new"), "6\n");
    expectRun("count 2 1 0",
              "1 writers, 0 readers: 0 killed, 0 failed\n"
              "5 before, 2 updates completed: the file says 7\n",
              "7\n");
    EXPECT_FALSE(exists(folder / "count.new"));
  });
}

struct NoCount {
  char const* name;
  char const* contents;
};

void PrintTo(NoCount const& row, std::ostream* out) { *out << row.name; }

class SharedCounterFileTest : public SharedCounterTest,
                              public testing::WithParamInterface<NoCount> {};

TEST_P(SharedCounterFileTest, IsLeftAlone) {
  makeFile(folder / "count", GetParam().contents);
  expectInWorld([&] {
    Result const result = run("count 1 1 1");
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.output, "");
    EXPECT_NE(result.errors.find("error [Counter]   no count: count\n"), std::string::npos)
        << result.errors;
    EXPECT_NE(result.errors.find("shared_counter: nothing has been done; the log says why\n"),
              std::string::npos)
        << result.errors;
    EXPECT_EQ(fileBytes(folder / "count"), GetParam().contents);
    expectNothingLeft();
  });
}

INSTANTIATE_TEST_SUITE_P(All, SharedCounterFileTest,
                         testing::Values(NoCount{"Empty", ""}, NoCount{"Words", "many\n"},
                                         NoCount{"Negative", "-1\n"}, NoCount{"NoLineFeed", "1"},
                                         NoCount{"TwoLines", "1\n2\n"},
                                         NoCount{"TooGreat", "9223372036854775808\n"}),
                         [](auto const& row) { return std::string(row.param.name); });

TEST_F(SharedCounterTest, TellsOfWritersThatFail) {
  fs::create_directory(folder / "count.new");  // in the neighbour's place
  makeFile(folder / "count", "3\n");
  expectInWorld([&] {
    Result const result = run("count 1 2 1");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output,
              "2 writers, 1 readers: 0 killed, 2 failed\n"
              "3 before, 0 updates completed: the file says 3\n");
    EXPECT_EQ(fileBytes(folder / "count"), "3\n");
    expectNothingLeft();
  });
}

}  // namespace

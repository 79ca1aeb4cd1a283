// vrxtool lock, in a world of each test's own.

#include "tests/lock/lock_support.h"
#include "tests/tools/tool_support.h"

#include <array>
#include <filesystem>
#include <string>
#include <vector>

#include <sys/sem.h>
#include <sys/stat.h>

namespace {

using vrxutil::test::answeredNo;
using vrxutil::test::done;
using vrxutil::test::expectInWorld;
using vrxutil::test::expectNothingLeft;
using vrxutil::test::failed;
using vrxutil::test::kDiskFull;
using vrxutil::test::keyFile;
using vrxutil::test::kLockFolder;
using vrxutil::test::kOutputClosed;
using vrxutil::test::makeSet;
using vrxutil::test::SemaphoreArgument;
using vrxutil::test::ToolResult;
using vrxutil::test::ToolTest;
using vrxutil::test::valuesOf;

class LockCommandTest : public ToolTest {
protected:
  /// Shell functions: `hold` keeps the lock jobs as a writer until `release`; `ended PROCESS`
  /// gives the status of what ran in the background.
  static constexpr char kHolder[] =
      "mkfifo ready go\n"
      "hold() {\n"
      "  vrxtool lock write jobs -- sh -c 'echo >ready; read line <go' & holder=$!\n"
      "  read line <ready\n"
      "}\n"
      "release() { echo >go; wait $holder; }\n"
      "ended() { { wait $1; } 2>/dev/null; echo $?; }\n";

  /// A shell's way to wait until `count` objects are attached to the lock jobs.
  static std::string untilAttached(int count) {
    return "until vrxtool lock status jobs --json | grep -q '\"attached\": " +
           std::to_string(count) + ",'; do :; done\n";
  }
};

constexpr char kConflict[] = "the lock jobs is held by others";
constexpr char kHeading[] = "NAME  USERS  WRITER  ATTACHED  OWNER  MODE  LAST PROCESSES\n";

TEST_F(LockCommandTest, TheCommandsStatusIsReturned) {
  expectInWorld([this] {
    for (std::string const mode : {"read", "write"}) {
      EXPECT_EQ(run("lock " + mode + " jobs -- sh -c 'echo out; echo err >&2; exit 7'"),
                (ToolResult{7, "out\n", "err\n"}));
      EXPECT_EQ(run("lock " + mode + " jobs --try -- true"), done());
      EXPECT_EQ(run("lock " + mode + " jobs --wait 60 -- sh -c 'kill -KILL $$'").status, 137);
    }
    expectNothingLeft();
  });
}

TEST_F(LockCommandTest, TheCommandGetsItsArgumentsAsTheyAre) {
  expectInWorld([this] {
    EXPECT_EQ(run("lock read jobs -- printf '<%s>' --help -- '' '{}' '[a,b]' status"),
              done("<--help><--><><{}><[a,b]><status>"));
    EXPECT_EQ(run("lock read status -- printf x"), done("x"));
    EXPECT_EQ(run("--trace lock read jobs -- printf x").output, "x");
    EXPECT_EQ(shell("echo in | vrxtool lock read jobs -- cat"), done("in\n"));
  });
}

TEST_F(LockCommandTest, TheCommandGetsEnvironmentAndSignalsAsTheyWere) {
  expectInWorld([this] {
    EXPECT_EQ(shell("LC_ALL=C vrxtool lock read jobs -- sh -c 'echo $LC_ALL'"), done("C\n"));
    EXPECT_EQ(shell("unset LC_ALL; LANG=C vrxtool lock read jobs -- sh -c 'echo ${LC_ALL-none}'"),
              done("none\n"));
    for (std::string const name : {"PIPE", "TERM", "INT", "HUP", "ALRM", "XFSZ"}) {
      int const status = run("lock read jobs --wait 60 -- sh -c 'kill -" + name + " $$'").status;
      EXPECT_GT(status, 128) << name;
    }
    EXPECT_EQ(shell("trap '' PIPE HUP\n"
                    "vrxtool lock read jobs -- sh -c 'kill -PIPE $$; kill -HUP $$; echo on'"),
              done("on\n"));
    EXPECT_EQ(run("lock read jobs -- test -e /proc/self/fd/1 >&-").status, 1);
  });
}

TEST_F(LockCommandTest, TheCommandSeesNothingOfTheTool) {
  // What a shell looks at, and what it would change for itself.
  constexpr char kLook[] =
      "cat >look <<'END'\n"
      "ls /proc/self/fd; cut -d' ' -f5,6,7 /proc/$$/stat; umask; env; pwd\n"
      "END\n"
      "exec 7<look\n"
      "under() { \"$@\" $place sh look; \"$@\" $place grep -E '^(Sig[BIC]|Shd)' /proc/self/status; "
      "}\n"
      "compare() { under \"$@\" >direct; place=\"vrxtool lock read jobs $wait --\"\n"
      "            under \"$@\" | cmp - direct; }\n";
  expectInWorld([&] {
    for (std::string const settings :
         {"", "wait='--wait 60'", "export LC_ALL=C", "export LC_ALL=C.UTF-8", "umask 077",
          "trap '' HUP PIPE TERM", "set -- --block-signal=USR1,ALRM,TERM; wait='--wait 60'",
          "set -- --ignore-signal=XFSZ,INT,ALRM,QUIT"}) {
      EXPECT_EQ(shell(kLook + settings + "\ncompare env \"$@\""), done()) << settings;
    }
  });
}

TEST_F(LockCommandTest, TheStatusIsKnownWhereEndedChildrenAreForgotten) {
  expectInWorld([this] {
    EXPECT_EQ(run("host >/dev/null").status, 0);
    EXPECT_EQ(shell("env --ignore-signal=CHLD vrxtool lock read jobs -- sh -c 'exit 7'"),
              (ToolResult{7, "", ""}));
    expectNothingLeft();
  });
}

TEST_F(LockCommandTest, ATimeToWaitIsNoneForTheCommand) {
  expectInWorld([this] { EXPECT_EQ(run("lock read jobs --wait 0.01 -- sleep 0.05"), done()); });
}

TEST_F(LockCommandTest, TheLockIsThatOfForeignProcesses) {
  expectInWorld([this] {
    auto const foreign = vrxutil::test::foreignProcess();
    ASSERT_EQ(foreign.ask("attach jobs"), "ok");
    ASSERT_EQ(foreign.ask("tryread"), "ok");
    EXPECT_EQ(run("lock read jobs --try -- echo in"), done("in\n"));
    EXPECT_EQ(run("lock write jobs --try -- echo in"), answeredNo(kConflict));
    ASSERT_EQ(foreign.ask("unread"), "ok");
    ASSERT_EQ(foreign.ask("trywrite"), "ok");
    EXPECT_EQ(run("lock read jobs --wait 0.01 -- echo in"), answeredNo(kConflict));
    EXPECT_EQ(run("lock status jobs | cut -c1-30"), done("NAME  USERS  WRITER  ATTACHED \n"
                                                         "jobs  1      yes     1        \n"));
    ASSERT_EQ(foreign.ask("unwrite"), "ok");
    EXPECT_EQ(run("lock write jobs -- sh -c \"printf 'attach jobs\\ntryread\\ndetach\\n' | "
                  "'" FOREIGN_PROCESS "'\""),
              done("ok\nno\nok\n"));
    ASSERT_EQ(foreign.ask("detach"), "ok");
    expectNothingLeft();
  });
}

TEST_F(LockCommandTest, AToolThatIsKilledGivesTheLockBack) {
  expectInWorld([this] {
    EXPECT_EQ(
        shell(std::string(kHolder) + "hold; kill -KILL $holder; ended $holder\n"
                                     "vrxtool lock write jobs --wait 60 -- echo next; echo >go"),
        done("137\nnext\n"));
    expectNothingLeft();
  });
}

TEST_F(LockCommandTest, TheLockIsHeldWhileTheCommandRuns) {
  expectInWorld([this] {
    EXPECT_EQ(run("lock write jobs -- vrxtool lock read jobs --try -- echo in"),
              (ToolResult{1, "", std::string("vrxtool: ") + kConflict + "\n"}));
    EXPECT_EQ(run("lock read jobs -- vrxtool lock write jobs --try -- echo in"),
              answeredNo(kConflict));
    EXPECT_EQ(run("lock read jobs -- vrxtool lock read jobs --try -- echo in"), done("in\n"));
    EXPECT_EQ(run("lock write jobs -- vrxtool lock write other --try -- echo in"), done("in\n"));
    expectNothingLeft();
  });
}

TEST_F(LockCommandTest, TheConflictsStatusCanBeChosen) {
  expectInWorld([this] {
    ToolResult const expected{9, "", std::string("vrxtool: ") + kConflict + "\n"};
    EXPECT_EQ(run("lock write jobs -- vrxtool lock read jobs --try --conflict-exit-code 9 -- true"),
              expected);
    EXPECT_EQ(
        run("lock write jobs -- vrxtool lock read jobs --wait 0.05 --conflict-exit-code 9 -- true"),
        expected);
    EXPECT_EQ(run("lock write jobs -- vrxtool lock write jobs --wait 0 -- true"),
              answeredNo(kConflict));
    EXPECT_EQ(run("lock write jobs -- vrxtool lock write jobs --try --conflict-exit-code 0 -- "
                  "echo in")
                  .status,
              0);
    EXPECT_EQ(run("lock write jobs -- vrxtool lock write jobs --try --conflict-exit-code 255 -- "
                  "true")
                  .status,
              255);
    EXPECT_EQ(run("lock read jobs --conflict-exit-code 256 -- true").status, 2);
  });
}

TEST_F(LockCommandTest, AWaitEndsWhenTheLockIsFree) {
  for (std::string const limit : {"", "--wait 200"}) {
    expectInWorld([&] {
      EXPECT_EQ(
          shell("mkfifo ready go\n"
                "vrxtool lock write jobs -- sh -c 'echo >ready; read line <go; echo first' &\n"
                "read line <ready\n"
                "vrxtool lock read jobs " +
                limit + " -- echo second &\n" + untilAttached(2) + "echo >go; wait; rm ready go"),
          done("first\nsecond\n"));
      expectNothingLeft();
    });
  }
}

TEST_F(LockCommandTest, AStopDoesNotEndAWait) {
  for (std::string const limit : {"", "--wait 200"}) {
    expectInWorld([&] {
      EXPECT_EQ(shell(std::string(kHolder) + "hold\nvrxtool lock read jobs " + limit +
                      " -- echo second & waiting=$!\n" + untilAttached(2) +
                      "is() { grep -q \"^State:.$1\" /proc/$waiting/status; }\n"
                      "kill -STOP $waiting; until is T; do :; done\n"
                      "kill -CONT $waiting; until is S; do :; done\n"
                      "echo first; release; wait; rm ready go"),
                done("first\nsecond\n"));
    });
  }
}

TEST_F(LockCommandTest, ASignalThatAsksForTheEndIsHandedOn) {
  expectInWorld([this] {
    file("command",
         "trap 'exit 5' $1\n"
         "until grep -q '^State:.S' /proc/$PPID/status; do :; done\n"  // it waits for this
         "kill -$1 $PPID; while :; do :; done\n");
    for (std::string const name : {"TERM", "INT", "HUP", "QUIT"}) {
      EXPECT_EQ(run("lock write jobs -- sh command " + name).status, 5);
    }
    expectNothingLeft();
  });
}

TEST_F(LockCommandTest, ASignalEndsAWaitAndLeavesNothing) {
  expectInWorld([this] {
    EXPECT_EQ(shell("mkfifo ready go\n"
                    "vrxtool lock write jobs -- sh -c 'echo >ready; read line <go' &\n"
                    "read line <ready\n"
                    "vrxtool lock write jobs -- echo never &\n" +
                    untilAttached(2) + "kill -TERM $!; { wait $!; } 2>/dev/null; echo $?\n" +
                    untilAttached(1) + "echo >go; wait"),
              done("143\n"));
    expectNothingLeft();
  });
}

// While the tool makes the lock ready, which takes as long as the folder is held.
TEST_F(LockCommandTest, ASignalBeforeTheWaitIsNotLost) {
  for (std::string const limit : {"", "--wait 200"}) {
    expectInWorld([&] {
      EXPECT_EQ(shell(std::string(kHolder) + "hold; exec 9<" + kLockFolder + "; flock 9\n" +
                      "vrxtool lock write jobs " + limit +
                      " -- echo never 9<&- & waiting=$!\n"
                      "until grep -q '^SigCgt:.*4...$' /proc/$waiting/status; do :; done\n"
                      "kill -TERM $waiting; exec 9<&-; ended $waiting; release; rm ready go"),
                done("143\n"));
      expectNothingLeft();
    });
  }
}

TEST_F(LockCommandTest, AWaitEndsWhereTheAlarmIsBlocked) {
  expectInWorld([this] {
    EXPECT_EQ(run("lock write jobs -- env --block-signal=ALRM vrxtool lock read jobs --wait 0.01 "
                  "-- true"),
              answeredNo(kConflict));
  });
}

// The kernel refuses one more at once.
TEST_F(LockCommandTest, ALockWithoutRoomIsWaitedFor) {
  constexpr int kMostReaders = 32767;
  expectInWorld([&] {
    auto const foreign = vrxutil::test::foreignProcess();
    ASSERT_EQ(foreign.ask("attach jobs"), "ok");
    int const set = vrxutil::test::setOf("jobs");
    auto const haveUsers = [&](int count) {
      return ::semctl(set, 1, SETVAL, SemaphoreArgument{.value = count}) == 0;
    };
    ASSERT_TRUE(haveUsers(kMostReaders));
    EXPECT_EQ(run("lock read jobs --wait 0.05 -- true"), answeredNo(kConflict));
    EXPECT_EQ(shell("vrxtool lock read jobs -- echo second & waiting=$!\n" + untilAttached(2) +
                    "kill -TERM $waiting; { wait $waiting; } 2>/dev/null; echo $?"),
              done("143\n"));
    ASSERT_TRUE(haveUsers(0));
    ASSERT_EQ(foreign.ask("detach"), "ok");
    expectNothingLeft();
  });
}

// The tool is stopped until the command has had the signal of the terminal, lest one that
// is handed on becomes one with it.
TEST_F(LockCommandTest, AKeyThatSignalsBothIsNotHandedOn) {
  if (shell("script -qec true /dev/null").status != 0) {
    GTEST_SKIP() << "the host has no terminals for tests";
  }
  file("count",
       "is() { grep -q \"^$1\" /proc/$PPID/status; }\n"
       "trap 'n=$((n+1))' INT QUIT\n"
       "kill -STOP $PPID; until is State:.T; do :; done\n"
       "echo >ready; until [ \"$n\" ]; do :; done\n"
       "kill -CONT $PPID; until is 'ShdPnd:.0*$' && is State:.S; do :; done\n"
       "echo $n >counted; exit 5\n");
  file("terminal", "trap : INT QUIT; vrxtool lock read jobs -- sh count; exit $?\n");
  expectInWorld([this] {
    for (std::string const key : {"003", "034"}) {  // those of SIGINT and SIGQUIT
      EXPECT_EQ(shell("mkfifo ready; { read line <ready; printf '\\" + key +
                      "'; } | script -qec 'exec sh terminal' /dev/null "
                      ">/dev/null; echo $?; cat counted; rm ready"),
                done("5\n1\n"));
    }
    expectNothingLeft();
  });
}

TEST_F(LockCommandTest, ALockThatIsRemovedMeanwhileIsAFailure) {
  expectInWorld([this] {
    EXPECT_EQ(shell("mkfifo ready go\n"
                    "vrxtool lock write jobs -- sh -c 'echo >ready; read line <go' &\n"
                    "read line <ready\n"
                    "vrxtool lock write jobs -- echo never & waiting=$!\n" +
                    untilAttached(2) +
                    "vrxtool lock clean jobs --force; wait $waiting; echo $?; echo >go; wait"),
              (ToolResult{0, "2\n", "vrxtool: the lock jobs was removed meanwhile\n"}));
    expectNothingLeft();
  });
}

TEST_F(LockCommandTest, ACommandThatCannotRunIsAFailure) {
  expectInWorld([this] {
    EXPECT_EQ(run("lock read jobs -- ./none"),
              failed("cannot run ./none: No such file or directory"));
    EXPECT_EQ(run("lock read jobs -- /"), failed("cannot run /: Permission denied"));
    expectNothingLeft();
  });
}

TEST_F(LockCommandTest, ALockThatCannotBeHadIsAFailure) {
  constexpr char kHint[] =
      "; locks need the rights of root and the folder /Library/Vornix/oxa/scratch/";
  expectInWorld([&] {
    EXPECT_EQ(run("lock read ../jobs -- true"),
              failed("Failed to create the file  /Library/Vornix/oxa/scratch/../jobs" +
                     std::string(kHint)));
    std::filesystem::remove(kLockFolder);
    EXPECT_EQ(
        run("lock write jobs -- true"),
        failed("Failed to create the file  /Library/Vornix/oxa/scratch/jobs" + std::string(kHint)));
    EXPECT_EQ(run("lock status"),
              failed("cannot read /Library/Vornix/oxa/scratch/: No such file or directory"));
    EXPECT_EQ(run("lock status jobs"), answeredNo("no lock jobs"));
    EXPECT_EQ(run("lock clean jobs"), answeredNo("no lock jobs"));
  });
}

TEST_F(LockCommandTest, StatusShowsALockWithoutTouchingIt) {
  expectInWorld([this] {
    EXPECT_EQ(run("lock status"), done(kHeading));
    ToolResult const written = run("lock write jobs -- sh -c 'echo $PPID; vrxtool lock status'");
    std::string const process = written.output.substr(0, written.output.find('\n'));
    EXPECT_EQ(written,
              done(process + "\n" + kHeading + "jobs  1      yes     1         root   0600  " +
                   process + " " + process + " " + process + "\n"));
    ToolResult const read = run("lock read jobs -- vrxtool lock status jobs");
    EXPECT_EQ(read.status, 0);
    EXPECT_TRUE(read.output.starts_with(std::string(kHeading) +
                                        "jobs  1      no      1         root   0600  "))
        << read.output;
    expectNothingLeft();
  });
}

TEST_F(LockCommandTest, StatusShowsEachNumberInItsPlace) {
  expectInWorld([this] {
    int const set = makeSet("jobs", 3, 0040);
    std::array<std::string, 3> processes;
    for (int number = 0; number < 3; ++number) {
      auto const changed = vrxutil::test::runInChild([&] {
        EXPECT_EQ(::semctl(set, number, SETVAL, SemaphoreArgument{.value = number + 1}), 0);
      });
      ASSERT_EQ(changed.status, 0) << changed.standardError;
      processes[static_cast<std::size_t>(number)] = std::to_string(changed.process);
    }
    auto const& [writer, users, attached] = processes;
    EXPECT_EQ(run("lock status jobs"),
              done(std::string(kHeading) + "jobs  2      yes     3         root   0040  " + users +
                   " " + writer + " " + attached + "\n"));
    EXPECT_EQ(run("lock status jobs --json"), done("[\n"
                                                   "  {\n"
                                                   "    \"name\": \"jobs\",\n"
                                                   "    \"set\": " +
                                                   std::to_string(set) +
                                                   ",\n"
                                                   "    \"users\": 2,\n"
                                                   "    \"writer\": true,\n"
                                                   "    \"attached\": 3,\n"
                                                   "    \"owner\": 0,\n"
                                                   "    \"mode\": \"0040\",\n"
                                                   "    \"lastUserProcess\": " +
                                                   users +
                                                   ",\n"
                                                   "    \"lastWriterProcess\": " +
                                                   writer +
                                                   ",\n"
                                                   "    \"lastAttachedProcess\": " +
                                                   attached +
                                                   ",\n"
                                                   "    \"lastOperation\": 0\n"
                                                   "  }\n"
                                                   "]\n"));
    EXPECT_EQ(runOn("n\n", "lock clean jobs").errors.substr(0, 74),
              "vrxtool: the lock jobs is in use (users 2, writer yes, attached 3); remove");
  });
}

/// Everything that the kernel knows of a lock, and of its key file and the folder.
struct Traces {
  std::vector<int> values;
  std::vector<int> processes;
  std::array<time_t, 2> times;
  std::array<std::array<time_t, 6>, 2> files;

  explicit Traces(std::string const& name) : values(valuesOf(name)) {
    int const set = vrxutil::test::setOf(name);
    for (int i = 0; i < 3; ++i) processes.push_back(::semctl(set, i, GETPID));
    semid_ds status{};
    ::semctl(set, 0, IPC_STAT, SemaphoreArgument{.status = &status});
    times = {status.sem_otime, status.sem_ctime};
    files = {timesOf(keyFile(name)), timesOf(kLockFolder)};
  }

  bool operator==(Traces const&) const = default;

private:
  static std::array<time_t, 6> timesOf(std::string const& path) {
    struct stat status {};

    ::stat(path.c_str(), &status);
    return {status.st_atim.tv_sec,  status.st_atim.tv_nsec, status.st_mtim.tv_sec,
            status.st_mtim.tv_nsec, status.st_ctim.tv_sec,  status.st_ctim.tv_nsec};
  }
};

TEST_F(LockCommandTest, StatusLeavesNoTrace) {
  expectInWorld([this] {
    auto const foreign = vrxutil::test::foreignProcess();
    ASSERT_EQ(foreign.ask("attach jobs"), "ok");
    ASSERT_EQ(foreign.ask("trywrite"), "ok");
    EXPECT_EQ(run("lock status").status, 0);  // the folder has been read by now
    Traces const before("jobs");
    EXPECT_EQ(before.processes, (std::vector<int>(3, foreign.process())));
    for (std::string const arguments : {"", "jobs", "--json", "jobs --json"}) {
      EXPECT_EQ(run("lock status " + arguments).status, 0);
      EXPECT_TRUE(Traces("jobs") == before) << arguments;
    }
    EXPECT_EQ(run("lock status none"), answeredNo("no lock none"));
    EXPECT_TRUE(Traces("jobs") == before);
    EXPECT_EQ(vrxutil::test::setCount(), 1);
    ASSERT_EQ(foreign.ask("detach"), "ok");
  });
}

TEST_F(LockCommandTest, StatusListsAllLocks) {
  expectInWorld([this] {
    std::filesystem::create_directory(keyFile("folder"));
    vrxutil::test::makeFile(keyFile("stale"), "");
    vrxutil::test::makeFile(keyFile("folder/deep\tname"), "");
    EXPECT_EQ(run("lock read jobs -- vrxtool lock read more -- vrxtool lock status | cut -c1-30"),
              done("NAME               USERS  WRIT\n"
                   "folder/deep\\tname  -      -   \n"
                   "jobs               1      no  \n"
                   "more               1      no  \n"
                   "stale              -      -   \n"));
  });
}

TEST_F(LockCommandTest, StatusAsJson) {
  expectInWorld([this] {
    EXPECT_EQ(run("lock status --json"), done("[]\n"));
    vrxutil::test::makeFile(keyFile("stale"), "");
    EXPECT_EQ(run("lock status stale --json"),
              done("[\n  {\n    \"name\": \"stale\",\n    \"set\": null\n  }\n]\n"));
    ToolResult const held =
        run("lock write jobs -- vrxtool lock status jobs --json | "
            "sed -E '/lastOperation/s/: [0-9]+/: N/; s/(set|Process)\": [0-9]+/\\1\": N/'");
    EXPECT_EQ(held, done("[\n"
                         "  {\n"
                         "    \"name\": \"jobs\",\n"
                         "    \"set\": N,\n"
                         "    \"users\": 1,\n"
                         "    \"writer\": true,\n"
                         "    \"attached\": 1,\n"
                         "    \"owner\": 0,\n"
                         "    \"mode\": \"0600\",\n"
                         "    \"lastUserProcess\": N,\n"
                         "    \"lastWriterProcess\": N,\n"
                         "    \"lastAttachedProcess\": N,\n"
                         "    \"lastOperation\": N\n"
                         "  }\n"
                         "]\n"));
  });
}

TEST_F(LockCommandTest, WhatTheFolderHasBesideKeyFilesIsNotListed) {
  expectInWorld([this] {
    std::filesystem::create_directory(keyFile("folder"));
    std::filesystem::create_symlink("nowhere", keyFile("dangling"));
    std::filesystem::create_symlink("folder", keyFile("way"));
    std::filesystem::create_symlink("circle", keyFile("circle"));
    ASSERT_EQ(::mkfifo(keyFile("fifo").c_str(), 0600), 0);
    vrxutil::test::makeFile(keyFile("a"), "");
    std::filesystem::create_symlink("a", keyFile("alias"));
    EXPECT_EQ(run("lock status | cut -c1-5"), done("NAME \na    \nalias\n"));
    EXPECT_EQ(run("lock status dangling"), answeredNo("no lock dangling"));
    EXPECT_EQ(run("lock status fifo"), answeredNo("no lock fifo"));
    EXPECT_EQ(run("lock status circle"),
              failed("Failed to look at the lock circle: Too many levels of symbolic links"));
    EXPECT_EQ(run("lock clean circle"),
              failed("Failed to look at the lock circle: Too many levels of symbolic links"));
  });
}

TEST_F(LockCommandTest, AnyNameIsALock) {
  expectInWorld([this] {
    std::filesystem::create_directory(keyFile("sub"));
    struct {
      char const* name;
      char const* shown;
    } constexpr kNames[] = {{"'a b'", "a b "},
                            {"sub/x", "sub/x "},
                            {"/jobs", "jobs "},
                            {"./sub//y", "sub/y "},
                            {"\"$(printf 'a\\tb\\nc')\"", "a\\tb\\nc "},
                            {"\"$(printf 'a\\\\b')\"", "a\\\\b "},
                            {"\"$(printf 'a\\377')\"", "a\\xff "},
                            {"$(printf %0255d 0)", "0000"},
                            {"./-x", "-x "}};
    for (auto const& [name, shown] : kNames) {
      ToolResult const result = run(std::string("lock read ") + name + " -- vrxtool lock status");
      EXPECT_EQ(result.status, 0) << name;
      EXPECT_NE(result.output.find(std::string("\n") + shown), std::string::npos)
          << name << ": " << result.output;
      EXPECT_EQ(run(std::string("lock write ") + name + " -- vrxtool lock read " + name +
                    " --try -- true")
                    .status,
                1)
          << name;
    }
    std::filesystem::remove(keyFile("sub"));
    expectNothingLeft();
  });
}

TEST_F(LockCommandTest, NamesThatLeaveTheFolderAreNone) {
  expectInWorld([this] {
    vrxutil::test::makeFile("/Library/Vornix/oxa/outside", "");
    for (std::string const name : {"../outside", "../scratch/x", "a/../../outside", "..", "none/x",
                                   "$(printf %0256d 0)", "$(printf %05000d 0)"}) {
      EXPECT_EQ(run("lock read " + name + " -- echo in").status, 2) << name;
      for (std::string const command : {"status", "clean --force"}) {
        ToolResult const result = run("lock " + command + " " + name);
        EXPECT_EQ(result.status, 1) << name;
        EXPECT_TRUE(result.errors.starts_with("vrxtool: no lock ")) << result.errors;
      }
    }
    expectNothingLeft();
  });
}

/// A shell's way to run a command as a root without the rights to what others keep.
constexpr char kPowerless[] = "setpriv --bounding-set=-all --inh-caps=-all ";

TEST_F(LockCommandTest, WhatMayNotBeLookedAtIsAFailure) {
  expectInWorld([this] {
    if (shell(std::string(kPowerless) + "true").status != 0) vrxutil::test::leaveAsNotAllowed();
    makeSet("jobs", 3, 0);
    makeSet("other", 3);
    constexpr char kNoRight[] = "Failed to look at the lock jobs: Permission denied";
    EXPECT_EQ(shell(std::string(kPowerless) + "vrxtool lock status jobs"), failed(kNoRight));
    EXPECT_EQ(shell(std::string(kPowerless) + "vrxtool lock clean jobs --force"), failed(kNoRight));
    ToolResult const list = shell(std::string(kPowerless) + "vrxtool lock status | cut -c1-13");
    EXPECT_EQ(list.output, "NAME   USERS \nother  0     \n");
    EXPECT_EQ(list.errors, "vrxtool: " + std::string(kNoRight) + "\n");
    EXPECT_EQ(shell(std::string(kPowerless) + "vrxtool lock status --json").status, 2);
    std::filesystem::permissions(kLockFolder, std::filesystem::perms::none);
    EXPECT_EQ(shell(std::string(kPowerless) + "vrxtool lock status jobs"), failed(kNoRight));
    EXPECT_EQ(shell(std::string(kPowerless) + "vrxtool lock status none"),
              failed("Failed to look at the lock none: Permission denied"));
    EXPECT_EQ(shell(std::string(kPowerless) + "vrxtool lock status"),
              failed("cannot read /Library/Vornix/oxa/scratch/: Permission denied"));
  });
}

TEST_F(LockCommandTest, WhatMayNotBeRemovedIsAFailure) {
  constexpr char kOther[] = "setpriv --reuid 65534 --regid 65534 --clear-groups ";
  if (shell(std::string(kOther) + "vrxtool --version").status != 0) {
    GTEST_SKIP() << "no other user can run the tool here";
  }
  expectInWorld([&] {
    std::filesystem::permissions(kLockFolder, std::filesystem::perms{0755});
    int const set = makeSet("jobs", 3, 0644);
    semid_ds status{};
    ASSERT_EQ(::semctl(set, 0, IPC_STAT, SemaphoreArgument{.status = &status}), 0);
    status.sem_perm.uid = 12345;  // nobody's
    ASSERT_EQ(::semctl(set, 0, IPC_SET, SemaphoreArgument{.status = &status}), 0);
    EXPECT_EQ(run("lock status jobs | cut -c32-44"), done("OWNER  MODE  \n12345  0644  \n"));
    EXPECT_EQ(shell(std::string(kOther) + "vrxtool lock clean jobs"),
              failed("cannot remove the lock jobs: that takes the rights of root, or of the set's "
                     "owner"));
    EXPECT_EQ(vrxutil::test::setCount(), 1);
  });
}

TEST_F(LockCommandTest, StatusOfAnothersSetIsAFailure) {
  expectInWorld([this] {
    makeSet("odd", 2);
    makeSet("jobs", 3);
    EXPECT_EQ(run("lock status"),
              (ToolResult{2,
                          std::string(kHeading) + "jobs  0      no      0         root   0600  "
                                                  "0 0 0\n",
                          "vrxtool: Failed to look at the lock odd: its set is no lock's\n"}));
    EXPECT_EQ(run("lock status odd"),
              failed("Failed to look at the lock odd: its set is no lock's"));
    EXPECT_EQ(run("lock clean odd --force"),
              failed("Failed to look at the lock odd: its set is no lock's"));
  });
}

TEST_F(LockCommandTest, CleanRemovesALockThatNobodyUses) {
  expectInWorld([this] {
    makeSet("jobs", 3);
    EXPECT_EQ(runOn("n\n", "lock clean jobs"), done());
    expectNothingLeft();
    EXPECT_EQ(run("lock clean jobs"), answeredNo("no lock jobs"));
    vrxutil::test::makeFile(keyFile("stale"), "");
    EXPECT_EQ(run("lock clean stale"), answeredNo("the lock stale has no set, only a key file"));
  });
}

TEST_F(LockCommandTest, CleanAsksBeforeItRemovesALockInUse) {
  expectInWorld([this] {
    std::string const question =
        "vrxtool: the lock jobs is in use (users 1, writer yes, attached 1); remove it all the "
        "same? [y/N] \n";
    ToolResult const refused{1, "", question + "vrxtool: the lock jobs was not removed\n"};
    for (std::string const answer : {"n", "", "yess", "j"}) {
      EXPECT_EQ(run("lock write jobs -- sh -c 'echo " + answer + " | vrxtool lock clean jobs'"),
                refused)
          << answer;
    }
    EXPECT_EQ(run("lock write jobs -- vrxtool lock clean jobs </dev/null"), refused);
    for (std::string const answer : {"y", "Y", "yes"}) {
      EXPECT_EQ(run("lock write jobs -- sh -c 'echo " + answer +
                    " | vrxtool lock clean jobs; vrxtool lock status jobs'")
                    .errors,
                question + "vrxtool: no lock jobs\n")
          << answer;
    }
    EXPECT_EQ(run("lock write jobs -- vrxtool lock clean jobs --force </dev/null"), done());
    expectNothingLeft();
  });
}

TEST_F(LockCommandTest, ALockIsInUseWhereSomebodyIsAttached) {
  expectInWorld([this] {
    auto const foreign = vrxutil::test::foreignProcess();
    ASSERT_EQ(foreign.ask("attach jobs"), "ok");
    EXPECT_EQ(
        runOn("n\n", "lock clean jobs"),
        (ToolResult{1, "",
                    "vrxtool: the lock jobs is in use (users 0, writer no, attached 1); remove "
                    "it all the same? [y/N] \nvrxtool: the lock jobs was not removed\n"}));
    ASSERT_EQ(foreign.ask("detach"), "ok");
  });
}

TEST_F(LockCommandTest, CleanDoesNotReadAnswersWithoutEnd) {
  expectInWorld([this] {
    EXPECT_EQ(run("lock write jobs -- vrxtool lock clean jobs </dev/zero").status, 1);
  });
}

TEST_F(LockCommandTest, CleanRemovesNoOtherLockThanItAskedAbout) {
  expectInWorld([this] {
    ToolResult const result = shell(std::string(kHolder) +
                                    "hold; mkfifo answer; >errors\n"
                                    "vrxtool lock clean jobs <answer 2>errors & cleaning=$!\n"
                                    "exec 3>answer; until grep -q 'y/N' errors; do :; done\n"
                                    "release; hold; echo y >&3; ended $cleaning\n"
                                    "vrxtool lock status jobs --json | grep users; release\n"
                                    "cut -d] -f2 errors");
    EXPECT_EQ(result, done("1\n    \"users\": 1,\n \nvrxtool: the lock jobs was not removed: it is "
                           "gone, or another one by now\n"));
    expectNothingLeft();
  });
}

TEST_F(LockCommandTest, NamesOfFoldersAreRefused) {
  expectInWorld([this] {
    std::filesystem::create_directory(keyFile("sub"));
    for (std::string const name : {"", ".", "sub", "sub/", "./sub/."}) {
      EXPECT_EQ(run("lock write '" + name + "' -- true"),
                failed("no lock " + name + ": it is the name of a folder"));
    }
    std::filesystem::remove(keyFile("sub"));
    expectNothingLeft();
  });
}

TEST_F(LockCommandTest, ANameMayComeAfterTheMark) {
  expectInWorld([this] {
    EXPECT_EQ(run("lock status -- none"), answeredNo("no lock none"));
    EXPECT_EQ(run("lock clean -- -x"), answeredNo("no lock -x"));
  });
}

TEST_F(LockCommandTest, WrongUseIsAFailure) {
  constexpr char kNoCommand[] = "a command is missing, after a --; try --help";
  EXPECT_EQ(run("lock read jobs"), failed(kNoCommand));
  EXPECT_EQ(run("lock write jobs --"), failed(kNoCommand));
  EXPECT_EQ(run("lock read -- true"), failed("NAME is required; try --help"));
  EXPECT_EQ(run("lock read jobs true"),
            failed("The following argument was not expected: true; try --help"));
  EXPECT_EQ(run("lock read jobs --try --wait 1 -- true"),
            failed("--try and --wait exclude each other"));
  EXPECT_EQ(run("lock read jobs --wait -1 -- true").status, 2);
  EXPECT_EQ(run("lock read jobs --wait soon -- true").status, 2);
  EXPECT_EQ(run("lock read jobs --wait nan -- true"),
            failed("--wait: nan is no number; try --help"));
  EXPECT_EQ(run("lock read jobs --conflict-exit-code -1 -- true"),
            failed("--conflict-exit-code: -1 is less than 0; try --help"));
  EXPECT_EQ(run("lock clean jobs -- junk"),
            failed("The following argument was not expected: junk; try --help"));
  EXPECT_EQ(run("lock"), failed("a command is missing; try --help"));
}

TEST_F(LockCommandTest, WhatCannotBeWrittenIsAFailure) {
  expectInWorld([this] {
    EXPECT_EQ(run("lock status >/dev/full"), failed(kDiskFull));
    EXPECT_EQ(run("lock status --json >&-"), failed(kOutputClosed));
  });
}

}  // namespace

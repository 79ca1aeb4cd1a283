// Runs vrxtool as its user does: from a shell, in a folder, with data of its own.

#pragma once

#include "tests/support/temporary_folder.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <ostream>
#include <string>
#include <string_view>

#include <sys/wait.h>

namespace vrxutil::test {

/// How a command ended, and what it wrote.
struct ToolResult {
  int status;
  std::string output;
  std::string errors;

  bool operator==(ToolResult const&) const = default;
};

inline void PrintTo(ToolResult const& result, std::ostream* out) {
  *out << "status " << result.status << "\noutput: " << result.output
       << "\nerrors: " << result.errors;
}

/// What a command that has done its work gives: 0, and no errors.
inline ToolResult done(std::string const& output = "") { return {0, output, ""}; }

/// "No", with a line that says so.
inline ToolResult answeredNo(std::string const& line) { return {1, "", "vrxtool: " + line + "\n"}; }

/// A failure, with a line that says why.
inline ToolResult failed(std::string const& line) { return {2, "", "vrxtool: " + line + "\n"}; }

class ToolTest : public testing::Test {
protected:
  /// Runs lines of a shell in the folder; `vrxtool` is a command there. What starts shells on
  /// its own, as script(1) does, starts this one, too.
  ToolResult shell(std::string const& lines) const {
    std::string const command = "cd '" + folder.path() +
                                "' && export SHELL=/bin/sh VRX_DATA_DIR='" + data.path() +
                                "' PATH='" + VRXTOOL_FOLDER + "':\"$PATH\" && {\n" + lines +
                                "\n} >'" + outputs_ / "out" + "' 2>'" + outputs_ / "err" + "'";
    int const status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, fileBytes(outputs_ / "out"),
            fileBytes(outputs_ / "err")};
  }

  /// Runs the tool; `arguments` are text for the shell.
  ToolResult run(std::string const& arguments) const { return shell("vrxtool " + arguments); }

  /// Runs the tool with `file`, text for the shell, in the place of FILE.
  ToolResult runWithFile(std::string arguments, std::string const& file) const {
    constexpr std::string_view kPlace = "FILE";
    return run(arguments.replace(arguments.find(kPlace), kPlace.size(), file));
  }

  /// What cannot be read is a failure, with the system's reason.
  void expectFailuresOfReading(std::string const& arguments) const {
    auto const with = [&](std::string const& file) { return runWithFile(arguments, file); };
    makeFile(folder / "no folder", "");
    EXPECT_EQ(with("none"), failed("cannot open none: No such file or directory"));
    EXPECT_EQ(with("''"), failed("cannot open : No such file or directory"));
    EXPECT_EQ(with("."), failed("cannot read .: Is a directory"));
    EXPECT_EQ(with("'no folder/x'"), failed("cannot open no folder/x: Not a directory"));
    EXPECT_EQ(with("- <&-"), failed("cannot read standard input: Bad file descriptor"));
    EXPECT_EQ(with("\"$(printf 'no\\033[2J\\n\\377')\""),
              failed("cannot open no\\x1b[2J\\n\\xff: No such file or directory"));
  }

  /// What is no regular file is not changed.
  void expectFailuresOfChanging(std::string const& arguments) const {
    ASSERT_EQ(shell("rm -f pipe; mkfifo pipe").status, 0);
    for (std::string const file : {"pipe", "/dev/null"}) {
      EXPECT_EQ(runWithFile(arguments, file),
                failed("cannot change " + file + ": it is no regular file"));
    }
  }

  /// The same, with `bytes` on standard input.
  ToolResult runOn(std::string const& bytes, std::string const& arguments) const {
    makeFile(outputs_ / "in", bytes);
    return shell("vrxtool " + arguments + " <'" + outputs_ / "in" + "'");
  }

  /// Runs lines of a shell in a folder with room for nothing more than the files of the
  /// test's folder, which are copied there; status 99 where the host allows no mounts.
  ToolResult shellOnFullDisk(std::string const& lines) const {
    return shellWithMounts(
        "mkdir disk && mount -t tmpfs -o size=64k tmpfs disk || exit 99\n"
        "cp -p [!d]* disk\n"
        "cd disk && dd if=/dev/zero of=.rest bs=4096 2>/dev/null\n" +
        lines);
  }

  /// Runs lines of a shell that may mount as it likes; status 99 where the host allows none.
  ToolResult shellWithMounts(std::string const& lines) const {
    makeFile(outputs_ / "mounts.sh", lines + "\n");
    return shell(
        "[ \"$(id -u)\" = 0 ] && flags=-m || flags=-rm\n"
        "unshare $flags true 2>/dev/null || exit 99\n"
        "unshare $flags sh '" +
        outputs_ / "mounts.sh'");
  }

  void file(std::string const& name, std::string const& bytes) const {
    makeFile(folder / name, bytes);
  }

  std::string bytesOf(std::string const& name) const { return fileBytes(folder / name); }

  TemporaryFolder folder;
  TemporaryFolder data;

private:
  TemporaryFolder outputs_;
};

inline constexpr int kNoMountsStatus = 99;

/// What all commands say where standard output cannot be written.
inline constexpr char kDiskFull[] = "cannot write standard output: No space left on device";
inline constexpr char kOutputClosed[] = "cannot write standard output: Bad file descriptor";

/// The status that a shell gives a command that SIGPIPE has ended.
inline constexpr int kReaderGoneStatus = 128 + SIGPIPE;

}  // namespace vrxutil::test

#include "tests/platform/child_process.h"
#include "tests/platform/system_call_fault.h"
#include "tests/support/other_user.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/umask_scope.h"

#include <zulral/zulral.h>

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vrxutil {

namespace {

using test::fileBytes;
using test::makeFile;
using test::TemporaryFolder;
using test::UmaskScope;

constexpr int kReplace = 0;
constexpr int kRefuse = 1;

/// "success", or what errno says.
std::string copy(std::string const& source, std::string const& target, int refuse = kReplace) {
  errno = 0;
  return zulCopyFile(source.c_str(), target.c_str(), refuse) != 0 ? "success"
                                                                  : std::strerror(errno);
}

struct stat statusOf(std::string const& path) {
  struct stat status {};

  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path << ": " << std::strerror(errno);
  return status;
}

mode_t modeOf(std::string const& path) { return statusOf(path).st_mode & 07777; }

std::size_t countIn(std::string const& folder) {
  std::filesystem::directory_iterator const entries(folder);
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

std::string pattern(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 31 >> 3);
  return bytes;
}

TEST(CopyFileTest, CopiesAllBytesOfAllSizes) {
  TemporaryFolder const folder;
  for (std::size_t const size : {0U, 1U, 131071U, 131072U, 131073U, 3000000U}) {
    std::string const bytes = pattern(size);
    makeFile(folder / "source", bytes);
    ASSERT_EQ(copy(folder / "source", folder / "target"), "success");
    EXPECT_TRUE(fileBytes(folder / "target") == bytes) << size;
    EXPECT_TRUE(fileBytes(folder / "source") == bytes) << size;
  }
  EXPECT_EQ(countIn(folder.path()), 2U);
}

TEST(CopyFileTest, CopiesThePermissionBitsWhateverTheUmask) {
  TemporaryFolder const folder;
  UmaskScope const umask(077);
  makeFile(folder / "source", "x");
  for (mode_t const mode : {0644U, 0600U, 0755U, 0666U, 0400U}) {
    ASSERT_EQ(::chmod((folder / "source").c_str(), mode), 0);
    for (char const* const name : {"old", "new"}) {
      EXPECT_EQ(copy(folder / "source", folder / name), "success");
      EXPECT_EQ(modeOf(folder / name), mode) << name;
    }
    ASSERT_EQ(::unlink((folder / "new").c_str()), 0);
  }
}

TEST(CopyFileTest, DoesNotCopySetIdBits) {
  TemporaryFolder const folder;
  makeFile(folder / "source", "x");
  makeFile(folder / "old", "x");
  ASSERT_EQ(::chmod((folder / "source").c_str(), 07755), 0);
  ASSERT_EQ(::chmod((folder / "old").c_str(), 06711), 0);
  EXPECT_EQ(copy(folder / "source", folder / "new"), "success");
  EXPECT_EQ(copy(folder / "source", folder / "old"), "success");
  EXPECT_EQ(modeOf(folder / "new"), 0755U);
  EXPECT_EQ(modeOf(folder / "old"), 0755U);
}

TEST(CopyFileTest, ReplacedFileKeepsItsOwner) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  TemporaryFolder const folder;
  makeFile(folder / "source", "new");
  makeFile(folder / "target", "old");
  ASSERT_EQ(::chmod((folder / "source").c_str(), 0640), 0);
  ASSERT_EQ(::chown((folder / "target").c_str(), 12345, 12346), 0);
  EXPECT_EQ(copy(folder / "source", folder / "target"), "success");
  EXPECT_EQ(statusOf(folder / "target").st_uid, 12345U);
  EXPECT_EQ(statusOf(folder / "target").st_gid, 12346U);
  EXPECT_EQ(modeOf(folder / "target"), 0640U);
}

TEST(CopyFileTest, FollowsSymbolicLinksOnBothSides) {
  TemporaryFolder const folder;
  ASSERT_EQ(::mkdir((folder / "sub").c_str(), 0700), 0);
  makeFile(folder / "source", "contents");
  ASSERT_EQ(::symlink("source", (folder / "from").c_str()), 0);
  ASSERT_EQ(::symlink("sub/target", (folder / "to").c_str()), 0);
  for (int i = 0; i < 2; ++i) {  // made, then replaced
    EXPECT_EQ(copy(folder / "from", folder / "to"), "success");
    EXPECT_TRUE(std::filesystem::is_symlink(folder / "to"));
    EXPECT_EQ(fileBytes(folder / "sub/target"), "contents");
  }
  EXPECT_FALSE(std::filesystem::is_symlink(folder / "sub/target"));
}

TEST(CopyFileTest, CopyToItselfChangesNothing) {
  TemporaryFolder const folder;
  makeFile(folder / "file", "contents");
  EXPECT_EQ(copy(folder / "file", folder / "file"), "success");
  EXPECT_EQ(fileBytes(folder / "file"), "contents");
  EXPECT_EQ(copy(folder / "file", folder / "file", kRefuse), std::strerror(EEXIST));
}

TEST(CopyFileTest, RefusesToReplaceWhatExists) {
  TemporaryFolder const folder;
  makeFile(folder / "source", "new");
  makeFile(folder / "file", "old");
  ASSERT_EQ(::mkdir((folder / "folder").c_str(), 0700), 0);
  ASSERT_EQ(::symlink("nothing", (folder / "dangling").c_str()), 0);
  ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
  for (char const* const name : {"file", "folder", "dangling", "fifo"}) {
    EXPECT_EQ(copy(folder / "source", folder / name, kRefuse), std::strerror(EEXIST)) << name;
    EXPECT_EQ(copy(folder / "source", folder / name, -1), std::strerror(EEXIST)) << name;
  }
  EXPECT_EQ(fileBytes(folder / "file"), "old");
  EXPECT_EQ(countIn(folder.path()), 5U);
  EXPECT_EQ(copy(folder / "source", folder / "new", kRefuse), "success");
  EXPECT_EQ(fileBytes(folder / "new"), "new");
  EXPECT_EQ(statusOf(folder / "new").st_nlink, 1U);
  EXPECT_EQ(countIn(folder.path()), 6U);
}

TEST(CopyFileTest, OfCopiesThatRefuseAtOnceOneSucceeds) {
  TemporaryFolder const folder;
  constexpr std::size_t kCopies = 6;
  std::array<std::string, kCopies> results;
  std::string const target = folder / "target";
  for (std::size_t i = 0; i < kCopies; ++i) {
    makeFile(folder / std::to_string(i), std::string(300000, static_cast<char>('a' + i)));
  }
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < kCopies; ++i) {
    threads.emplace_back(
        [&, i] { results[i] = copy(folder / std::to_string(i), target, kRefuse); });
  }
  for (std::thread& thread : threads) thread.join();
  std::size_t winners = 0;
  for (std::size_t i = 0; i < kCopies; ++i) {
    bool const isTheTarget = fileBytes(target) == fileBytes(folder / std::to_string(i));
    EXPECT_EQ(results[i], isTheTarget ? "success" : std::strerror(EEXIST));
    winners += isTheTarget ? 1 : 0;
  }
  EXPECT_EQ(winners, 1U);
  EXPECT_EQ(countIn(folder.path()), kCopies + 1);
}

TEST(CopyFileTest, FailuresAreInErrnoAndLeaveTheTarget) {
  TemporaryFolder const folder;
  makeFile(folder / "file", "old");
  makeFile(folder / "source", "new");
  ASSERT_EQ(::mkdir((folder / "folder").c_str(), 0700), 0);
  ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
  ASSERT_EQ(::symlink("loop", (folder / "loop").c_str()), 0);
  std::size_t const count = countIn(folder.path());

  struct Row {
    std::string source, target;
    int number;
  };

  std::string const source = folder / "source";
  std::string const file = folder / "file";
  std::vector<Row> const rows{
      {folder / "missing", file, ENOENT},
      {"", file, ENOENT},
      {folder / "folder", file, EISDIR},
      {folder / "fifo", file, EINVAL},
      {"/dev/zero", file, EINVAL},
      {folder / "loop", file, ELOOP},
      {folder / "file/x", file, ENOTDIR},
      {folder / std::string(300, 'n'), file, ENAMETOOLONG},
      {source, folder / "folder", EISDIR},
      {source, folder / "fifo", ENXIO},
      {source, folder / "loop", ELOOP},
      {source, folder / "missing/x", ENOENT},
      {source, folder / "file/x", ENOTDIR},
      {source, folder / std::string(300, 'n'), ENAMETOOLONG},
      {source, "", ENOENT},
      {source, "/dev/full", ENOSPC},
  };
  for (Row const& row : rows) {
    EXPECT_EQ(copy(row.source, row.target), std::strerror(row.number))
        << row.source << " to " << row.target;
  }
  EXPECT_EQ(fileBytes(file), "old");
  EXPECT_EQ(countIn(folder.path()), count);
}

TEST(CopyFileTest, NullsAreErrors) {
  for (auto const& [source, target] : {std::pair<char const*, char const*>{nullptr, "/dev/null"},
                                       {"/etc/passwd", nullptr},
                                       {nullptr, nullptr}}) {
    errno = 0;
    EXPECT_EQ(zulCopyFile(source, target, kReplace), 0);
    EXPECT_EQ(errno, EINVAL);
  }
}

TEST(CopyFileTest, WhatIsNoRegularFileIsWrittenInPlace) {
  TemporaryFolder const folder;
  std::string const fifo = folder / "fifo";
  makeFile(folder / "source", "contents");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  int const reader = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(reader, 0);
  EXPECT_EQ(copy(folder / "source", fifo), "success");
  EXPECT_EQ(test::readToEnd(reader), "contents");
  ::close(reader);
  EXPECT_EQ(copy(folder / "source", "/dev/null"), "success");
}

TEST(CopyFileTest, AnothersFileInAStickyFolderIsAnErrorExceptForRoot) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can make a file of another user";
  constexpr uid_t kOwner = 23456;
  TemporaryFolder const folder;
  makeFile(folder / "target", "old");
  ASSERT_EQ(::chmod((folder / "target").c_str(), 0666), 0);
  ASSERT_EQ(::chown((folder / "target").c_str(), kOwner, kOwner), 0);
  ASSERT_EQ(::chmod(folder.path().c_str(), 01777), 0);
  test::ChildResult const result = test::runInChild([&] {
    test::becomeOtherUser();
    makeFile(folder / "source", "new");
    EXPECT_EQ(copy(folder / "source", folder / "target"), std::strerror(EPERM));
    EXPECT_EQ(copy(folder / "source", folder / "target", kRefuse), std::strerror(EEXIST));
  });
  EXPECT_EQ(result.status, 0) << result.standardError;
  EXPECT_EQ(fileBytes(folder / "target"), "old");
  EXPECT_EQ(copy(folder / "source", folder / "target"), "success");
  EXPECT_EQ(fileBytes(folder / "target"), "new");
  EXPECT_EQ(statusOf(folder / "target").st_uid, kOwner);
  EXPECT_EQ(countIn(folder.path()), 2U);
}

TEST(CopyFileTest, FolderThatMayBeChangedButNotReadIsEnough) {
  TemporaryFolder const folder;
  makeFile(folder / "source", "new");
  ASSERT_EQ(::chmod((folder / "source").c_str(), 0644), 0);
  ASSERT_EQ(::chmod(folder.path().c_str(), 0333), 0);
  test::ChildResult const result = test::runInChild([&] {
    test::becomeOtherUser();
    EXPECT_EQ(copy(folder / "source", folder / "target"), "success");
    EXPECT_EQ(copy(folder / "source", folder / "target"), "success");
    EXPECT_EQ(copy(folder / "source", folder / "second", kRefuse), "success");
    EXPECT_EQ(copy(folder / "source", folder / "second", kRefuse), std::strerror(EEXIST));
  });
  EXPECT_EQ(result.status, 0) << result.standardError;
  ASSERT_EQ(::chmod(folder.path().c_str(), 0700), 0);
  EXPECT_EQ(fileBytes(folder / "target"), "new");
  EXPECT_EQ(countIn(folder.path()), 3U);
}

TEST(CopyFileTest, LeavesNoDescriptorOpen) {
  TemporaryFolder const folder;
  makeFile(folder / "source", "x");
  int const free = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ::close(free);
  copy(folder / "source", folder / "target");
  copy(folder / "source", folder / "target");
  copy(folder / "source", folder / "target", kRefuse);
  copy(folder / "source", folder.path());
  copy(folder / "missing", folder / "target");
  int const next = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ::close(next);
  EXPECT_EQ(next, free);
}

TEST(CopyFileTest, FullFileSystemLeavesTheTarget) {
  TemporaryFolder const folder;
  makeFile(folder / "source", pattern(1 << 20));
  makeFile(folder / "target", "old");
  test::ChildResult const result = test::runInChild([&] {
    rlimit const limit{300000, 300000};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    EXPECT_EQ(copy(folder / "source", folder / "target"), std::strerror(EFBIG));
    EXPECT_EQ(copy(folder / "source", folder / "new"), std::strerror(EFBIG));
  });
  EXPECT_EQ(result.status, 0) << result.standardError;
  EXPECT_EQ(fileBytes(folder / "target"), "old");
  EXPECT_EQ(countIn(folder.path()), 2U);
}

TEST(CopyFileTest, MissingPermissionsAreErrors) {
  TemporaryFolder const folder;
  makeFile(folder / "secret", "x");
  makeFile(folder / "source", "x");
  ASSERT_EQ(::chmod((folder / "secret").c_str(), 0), 0);
  ASSERT_EQ(::chmod((folder / "source").c_str(), 0644), 0);
  ASSERT_EQ(::chmod(folder.path().c_str(), 0555), 0);
  test::ChildResult const result = test::runInChild([&] {
    test::becomeOtherUser();
    EXPECT_EQ(copy(folder / "secret", "/dev/null"), std::strerror(EACCES));
    EXPECT_EQ(copy(folder / "source", folder / "target"), std::strerror(EACCES));
  });
  EXPECT_EQ(result.status, 0) << result.standardError;
  ASSERT_EQ(::chmod(folder.path().c_str(), 0755), 0);
  EXPECT_EQ(countIn(folder.path()), 2U);
}

#ifdef __linux__

std::vector<long> renameCalls() {
  return {
#ifdef SYS_rename
      SYS_rename,
#endif
#ifdef SYS_renameat
      SYS_renameat,
#endif
      SYS_renameat2,
  };
}

TEST(CopyFileTest, FailuresOfTheDiskLeaveTheTarget) {
  TemporaryFolder const folder;
  UmaskScope const umask(022);  // else there might be no mode to change
  makeFile(folder / "source", "new");
  makeFile(folder / "target", "old");
  std::vector<test::Fault> const faults{
      {"write", {SYS_write}, test::failsWith(EIO)},
      {"fsync", {SYS_fsync}, test::failsWith(EIO)},
      {"chmod", {SYS_fchmod}, test::failsWith(EIO)},
      {"rename", renameCalls(), test::failsWith(EIO)},
      {"read", {SYS_read}, test::failsWith(EIO)},
  };
  for (test::Fault const& fault : faults) {
    pid_t const child = ::fork();
    if (child == 0) {
      if (!test::inject(fault)) ::_exit(3);
      bool const isTold =
          zulCopyFile((folder / "source").c_str(), (folder / "target").c_str(), kReplace) == 0 &&
          errno == EIO;
      ::_exit(isTold ? 0 : 4);
    }
    int const status = test::waitFor(child);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 3) GTEST_SKIP() << test::kNotInjected;
    EXPECT_EQ(status, 0) << fault.name;
    EXPECT_EQ(fileBytes(folder / "target"), "old") << fault.name;
    EXPECT_EQ(countIn(folder.path()), 2U) << fault.name;
  }
}

#endif

}  // namespace

}  // namespace vrxutil

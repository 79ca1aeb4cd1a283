// How what AnIni2 writes gets to its place, and what is there when it does not.

#include "tests/file/file_support.h"
#include "tests/ini/ini_support.h"
#include "tests/platform/child_process.h"
#include "tests/platform/system_call_fault.h"
#include "tests/support/log_recorder.h"
#include "tests/support/other_user.h"
#include "tests/support/own_logger.h"
#include "tests/support/private_mounts.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/umask_scope.h"

#include <vrxutil/ini.h>

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vrxutil::test {
namespace {

namespace fs = std::filesystem;

Records const kNothing;
Records const kWritten{detailRecord(L"Xml", L"ConvertBufferToUtf8")};

constexpr char kOld[] = "[a]\nk=old, and longer than the new one\n";
constexpr char kNew[] = "[a]\nk=new\n\n";

constexpr char kOnlyRoot[] = "only root can give files to others";
constexpr uid_t kForeignOwner = 1234;
constexpr gid_t kForeignGroup = 5678;

/// The records of a write that fails at `path`.
Records failed(wchar_t const* action, std::wstring const& path, int number) {
  return kWritten +
         errorInside({detailRecord(L"ini", action + (L"," + path))}, L"ini", reason(number));
}

/// Changes the file; what its write() logs. After that nothing is to be written any
/// more, whatever came of it.
Records change(std::wstring const& path, std::wstring const& value = L"new") {
  AnIni2 ini{AString(path)};
  EXPECT_TRUE(ini.parsed());
  EXPECT_TRUE(ini.insert(L"a", L"k", value));
  LogRecorder recorder;
  ini.write();
  Records records = recorder.records();
  recorder.clear();
  ini.close();
  EXPECT_EQ(recorder.records(), kNothing);
  return records;
}

struct stat statusOf(std::string const& path) {
  struct stat status {};

  EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
  return status;
}

class AnIni2WriteTest : public IniFileTest {
protected:
  AnIni2WriteTest() {
    // Others may come here, where the tests run as root.
    EXPECT_EQ(::chmod(folder.path().c_str(), 0755), 0);
  }

  /// Makes an old file, which belongs to whom holdsUnprivileged() is, in a folder of
  /// the mode `folderMode`; its inode.
  ino_t makeOwnFile(mode_t folderMode) const {
    makeFile(path, kOld);
    if (::geteuid() == 0) {
      EXPECT_EQ(::chown(path.c_str(), kOtherUser, kOtherGroup), 0);
    }
    EXPECT_EQ(::chmod(folder.path().c_str(), folderMode), 0);
    return statusOf(path).st_ino;
  }
};

// Replaced.

TEST_F(AnIni2WriteTest, FileIsReplacedWithItsMode) {
  makeFile(path, kOld);
  ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
  ino_t const before = statusOf(path).st_ino;
  EXPECT_EQ(change(widePath), kWritten);
  EXPECT_NE(statusOf(path).st_ino, before);
  EXPECT_EQ(statusOf(path).st_mode & 07777U, 0640U);
  EXPECT_EQ(fileBytes(path), kNew);
  EXPECT_EQ(entries(), 1U);
}

TEST_F(AnIni2WriteTest, RootKeepsTheOwnerAndTheSetIdBits) {
  if (::geteuid() != 0) GTEST_SKIP() << kOnlyRoot;
  makeFile(path, kOld);
  ASSERT_EQ(::chown(path.c_str(), kForeignOwner, kForeignGroup), 0);
  ASSERT_EQ(::chmod(path.c_str(), 06751), 0);
  auto const before = statusOf(path);
  EXPECT_EQ(change(widePath), kWritten);
  auto const after = statusOf(path);
  EXPECT_NE(after.st_ino, before.st_ino);
  EXPECT_EQ(after.st_uid, kForeignOwner);
  EXPECT_EQ(after.st_gid, kForeignGroup);
  EXPECT_EQ(after.st_mode & 07777U, 06751U);
}

TEST_F(AnIni2WriteTest, NewFileTakesTheUmask) {
  UmaskScope const mask(027);
  EXPECT_EQ(change(widePath), kWritten);
  EXPECT_EQ(fileBytes(path), kNew);
  EXPECT_EQ(statusOf(path).st_mode & 07777U, 0640U);
  EXPECT_EQ(entries(), 1U);
}

TEST_F(AnIni2WriteTest, NewFileInTheCurrentFolderIsMade) {
  EXPECT_TRUE(holdsInChild([&] {
    ASSERT_EQ(::chdir(folder.path().c_str()), 0);
    EXPECT_EQ(change(L"file.ini"), kWritten);
  }));
  EXPECT_EQ(fileBytes(path), kNew);
}

TEST_F(AnIni2WriteTest, SymbolicLinksStayAndTheirTargetIsReplaced) {
  fs::create_directory(folder / "other");
  makeFile(folder / "other/target", kOld);
  fs::create_symlink("other/link", path);
  fs::create_symlink(folder / "other/target", folder / "other/link");
  ino_t const before = statusOf(path).st_ino;
  EXPECT_EQ(change(widePath), kWritten);
  EXPECT_TRUE(fs::is_symlink(path));
  EXPECT_TRUE(fs::is_symlink(folder / "other/link"));
  EXPECT_EQ(fileBytes(folder / "other/target"), kNew);
  EXPECT_NE(statusOf(path).st_ino, before);
  EXPECT_EQ(entryCount(folder / "other"), 2U);
}

TEST_F(AnIni2WriteTest, TargetOfASymbolicLinkIsMade) {
  fs::create_directory(folder / "other");
  fs::create_symlink("other/target", path);
  EXPECT_EQ(change(widePath), kWritten);
  EXPECT_TRUE(fs::is_symlink(path));
  EXPECT_EQ(fileBytes(folder / "other/target"), kNew);
}

// In place.

TEST_F(AnIni2WriteTest, FileWithTwoNamesIsWrittenInPlace) {
  makeFile(path, kOld);
  fs::create_hard_link(path, folder / "second");
  ino_t const before = statusOf(path).st_ino;
  EXPECT_EQ(change(widePath), kWritten);
  EXPECT_EQ(statusOf(path).st_ino, before);
  EXPECT_EQ(fileBytes(path), kNew);
  EXPECT_EQ(fileBytes(folder / "second"), kNew);
  EXPECT_EQ(entries(), 2U);
}

TEST_F(AnIni2WriteTest, FileInAReadOnlyFolderIsWrittenInPlace) {
  ino_t const before = makeOwnFile(0555);
  EXPECT_TRUE(holdsUnprivileged([&] {
    EXPECT_EQ(change(widePath), kWritten);
    EXPECT_EQ(change(folder.wide("new.ini")), kNothing);
  }));
  EXPECT_EQ(statusOf(path).st_ino, before);
  EXPECT_EQ(fileBytes(path), kNew);
  EXPECT_EQ(entries(), 1U);
  EXPECT_EQ(::chmod(folder.path().c_str(), 0755), 0);
}

/// A file that others may write, and the mode of its folder.
struct Foreign {
  char const* name;
  uid_t owner;
  gid_t group;
  mode_t folderMode;
};

class ForeignFileTest : public AnIni2WriteTest, public testing::WithParamInterface<Foreign> {};

TEST_P(ForeignFileTest, IsWrittenInPlace) {
  if (::geteuid() != 0) GTEST_SKIP() << kOnlyRoot;
  Foreign const& foreign = GetParam();
  makeFile(path, kOld);
  ASSERT_EQ(::chown(path.c_str(), foreign.owner, foreign.group), 0);
  ASSERT_EQ(::chmod(path.c_str(), 0666), 0);
  ASSERT_EQ(::chmod(folder.path().c_str(), foreign.folderMode), 0);
  ino_t const before = statusOf(path).st_ino;
  EXPECT_TRUE(holdsUnprivileged([&] { EXPECT_EQ(change(widePath), kWritten); }));
  auto const after = statusOf(path);
  EXPECT_EQ(after.st_ino, before);
  EXPECT_EQ(after.st_uid, foreign.owner);
  EXPECT_EQ(after.st_gid, foreign.group);
  EXPECT_EQ(fileBytes(path), kNew);
  EXPECT_EQ(entries(), 1U);
}

INSTANTIATE_TEST_SUITE_P(
    AnIni2, ForeignFileTest,
    testing::Values(Foreign{"InAnOpenFolder", kForeignOwner, kOtherGroup, 0777},
                    Foreign{"InAStickyFolder", kForeignOwner, kOtherGroup, 01777},
                    Foreign{"OfAForeignGroup", kOtherUser, kForeignGroup, 0777}),
    [](auto const& tested) { return std::string(tested.param.name); });

TEST_F(AnIni2WriteTest, FileOfAnyOfOurGroupsIsReplaced) {
  if (::geteuid() != 0) GTEST_SKIP() << kOnlyRoot;
  makeFile(path, kOld);
  ASSERT_EQ(::chown(path.c_str(), kOtherUser, kForeignGroup), 0);
  ASSERT_EQ(::chmod(folder.path().c_str(), 0777), 0);
  ino_t const before = statusOf(path).st_ino;
  EXPECT_TRUE(holdsInChild([&] {
    ASSERT_TRUE(leaveRoot(kOtherUser, {kForeignGroup + 1, kForeignGroup}));
    EXPECT_EQ(change(widePath), kWritten);
  }));
  EXPECT_NE(statusOf(path).st_ino, before);
  EXPECT_EQ(statusOf(path).st_uid, kOtherUser);
  EXPECT_EQ(statusOf(path).st_gid, kForeignGroup);
}

TEST_F(AnIni2WriteTest, OwnFileInAStickyFolderIsReplaced) {
  ino_t const before = makeOwnFile(01777);
  EXPECT_TRUE(holdsUnprivileged([&] { EXPECT_EQ(change(widePath), kWritten); }));
  EXPECT_NE(statusOf(path).st_ino, before);
  EXPECT_EQ(fileBytes(path), kNew);
}

// That of a neighbour with a longer name is too long.
TEST_F(AnIni2WriteTest, FileWithTheLongestPathIsWritten) {
  EXPECT_TRUE(holdsInChild([&] {
    std::string deep = folder.path();
    while (deep.size() + 201 < PATH_MAX - 3) deep += "/" + std::string(199, 'd');
    deep += "/" + std::string(static_cast<std::size_t>(PATH_MAX - 4) - deep.size(), 'e');
    fs::create_directories(deep);
    std::string const file = deep + "/f";
    ASSERT_EQ(file.size(), static_cast<std::size_t>(PATH_MAX - 1));
    makeFile(file, kOld);
    EXPECT_EQ(change({file.begin(), file.end()}), kWritten);
    EXPECT_EQ(fileBytes(file), kNew);
  }));
}

TEST_F(AnIni2WriteTest, DeviceIsWrittenInPlace) {
  fs::create_symlink("/dev/null", path);
  EXPECT_EQ(change(widePath), kWritten);
  EXPECT_TRUE(fs::is_character_file("/dev/null"));
}

TEST_F(AnIni2WriteTest, FifoWithAReaderGetsTheText) {
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  int const reader = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(reader, 0);
  EXPECT_EQ(change(widePath), kWritten);
  std::string text(100, '\0');
  ssize_t const size = ::read(reader, text.data(), text.size());
  EXPECT_EQ(text.substr(0, size > 0 ? static_cast<std::size_t>(size) : 0), kNew);
  ::close(reader);
  EXPECT_TRUE(fs::is_fifo(path));
}

// Not opened.

TEST_F(AnIni2WriteTest, FileThatCannotBeOpenedLosesTheChangesQuietly) {
  fs::create_directory(folder / "folder");
  ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
  fs::create_symlink("nowhere/target", folder / "link");
  fs::create_symlink("loop", folder / "loop");
  std::string const tooLong(NAME_MAX + 1, 'n');
  for (std::string const& name :
       {std::string("folder"), std::string("fifo"), tooLong, std::string("missing/file.ini"),
        std::string("missing/"), std::string("link"), std::string("loop"),
        std::string("fifo/file.ini")}) {
    EXPECT_EQ(change(folder.wide(name)), kNothing) << name;
    EXPECT_EQ(entries(), 4U) << name;
  }
}

TEST_F(AnIni2WriteTest, EmptyFileNameLosesTheChangesQuietly) { EXPECT_EQ(change(L""), kNothing); }

TEST_F(AnIni2WriteTest, FileThatMayNotBeWrittenStaysQuietly) {
  makeFile(path, kOld);
  ASSERT_EQ(::chmod(path.c_str(), 0444), 0);
  if (::geteuid() == 0) {
    ASSERT_EQ(::chown(folder.path().c_str(), kOtherUser, kOtherGroup), 0);
  }
  EXPECT_TRUE(holdsUnprivileged([&] { EXPECT_EQ(change(widePath), kNothing); }));
  EXPECT_EQ(fileBytes(path), kOld);
  EXPECT_EQ(entries(), 1U);
}

TEST_F(AnIni2WriteTest, TextWithoutUtf8FormLeavesTheFile) {
  makeFile(path, kOld);
  ino_t const before = statusOf(path).st_ino;
  Records const records = change(widePath, L"\xD800");
  ASSERT_GE(records.size(), 2U);
  EXPECT_EQ(records.front(), kWritten.front());
  for (auto const& record : records) EXPECT_EQ(record.group, L"Xml");
  EXPECT_EQ(statusOf(path).st_ino, before);
  EXPECT_EQ(fileBytes(path), kOld);
  fs::remove(path);
  change(widePath, L"\xD800");
  EXPECT_EQ(entries(), 0U);
}

TEST_F(AnIni2WriteTest, TextWithoutUtf8FormLeavesAFileWithTwoNames) {
  makeFile(path, kOld);
  fs::create_hard_link(path, folder / "second");
  change(widePath, L"\xD800");
  EXPECT_EQ(fileBytes(path), kOld);
}

/// A logger that takes no errors.
class ThrowingLogger final : public OwnLogger {
public:
  void logMessage(LogLevel const& level, std::wstring const& /*group*/,
                  std::wstring const& /*message*/) override {
    struct NoException {};

    if (level != LogLevel::error) return;
    ++thrown;
    throw NoException();
  }

  int thrown = 0;
};

TEST_F(AnIni2WriteTest, DestructorLetsOutNothingThatTheLoggerThrows) {
  makeFile(path, kOld);
  EXPECT_TRUE(holdsInChild([&] {
    auto ini = std::make_unique<AnIni2>(AString(widePath));
    ASSERT_TRUE(ini->insert(L"a", L"k", L"\xD800"));
    ThrowingLogger const logger;
    ini.reset();
    EXPECT_EQ(logger.thrown, 1);
  }));
  EXPECT_EQ(fileBytes(path), kOld);
}

// Not written.

TEST_F(AnIni2WriteTest, FullDeviceIsLogged) {
  if (!fs::exists("/dev/full")) GTEST_SKIP() << "the host has no /dev/full";
  fs::create_symlink("/dev/full", path);
  EXPECT_EQ(change(widePath), failed(L"write", widePath, ENOSPC));
}

TEST_F(AnIni2WriteTest, LimitOfFileSizesLeavesTheFile) {
  makeFile(path, kOld);
  EXPECT_TRUE(holdsInChild([&] {
    rlimit const limit{8, 8};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    EXPECT_EQ(change(widePath), failed(L"write", widePath, EFBIG));
    EXPECT_EQ(change(folder.wide("new.ini")), failed(L"write", folder.wide("new.ini"), EFBIG));
  }));
  EXPECT_EQ(fileBytes(path), kOld);
  EXPECT_EQ(entries(), 1U);
}

#ifdef __linux__

TEST_F(AnIni2WriteTest, FileThatSomethingIsMountedOnIsWrittenInPlace) {
  makeFile(path, kOld);
  expectAllowedInChild(kNoMounts, [&] {
    if (!enterMountNamespace() ||
        ::mount(path.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) != 0) {
      leaveAsNotAllowed();
    }
    EXPECT_EQ(change(widePath), kWritten);
  });
  if (IsSkipped()) return;
  EXPECT_EQ(fileBytes(path), kNew);
  EXPECT_EQ(entries(), 1U);
}

TEST_F(AnIni2WriteTest, ReadOnlyFileSystemLosesTheChangesQuietly) {
  auto const prepare = [&] { makeFile(path, kOld); };
  expectOnMount(folder.path(), MS_RDONLY, prepare, [&] {
    EXPECT_EQ(change(widePath), kNothing);
    EXPECT_EQ(change(folder.wide("new.ini")), kNothing);
    EXPECT_EQ(fileBytes(path), kOld);
  });
}

TEST_F(AnIni2WriteTest, FullFileSystemLeavesTheFile) {
  auto const prepare = [&] {
    makeFile(path, kOld);
    std::ofstream(folder / "rest") << std::string(100000, 'r') << std::flush;
  };
  expectOnMount(folder.path(), 0, prepare, [&] {
    EXPECT_EQ(change(widePath), failed(L"write", widePath, ENOSPC));
    EXPECT_EQ(change(folder.wide("new.ini")), failed(L"write", folder.wide("new.ini"), ENOSPC));
    EXPECT_EQ(fileBytes(path), kOld);
    EXPECT_EQ(entries(), 2U);
  });
}

TEST_F(AnIni2WriteTest, FullFileSystemCutsAFileWithTwoNames) {
  auto const prepare = [&] {
    makeFile(path, kOld);
    fs::create_hard_link(path, folder / "second");
    std::ofstream(folder / "rest") << std::string(100000, 'r') << std::flush;
  };
  expectOnMount(folder.path(), 0, prepare, [&] {
    std::wstring const value(50000, L'v');
    EXPECT_EQ(change(widePath, value), failed(L"write", widePath, ENOSPC));
    std::string const bytes = fileBytes(path);
    EXPECT_LT(bytes.size(), value.size());
    EXPECT_TRUE(("[a]\nk=" + std::string(50000, 'v')).starts_with(bytes));
  });
}

/// A call that fails, and what is in the file then.
struct FailingCall {
  char const* name;
  wchar_t const* action;
  std::vector<long> calls;
  bool hasTwoNames;  // is written in place
  char const* bytes;
};

void PrintTo(FailingCall const& call, std::ostream* out) { *out << call.name; }

class FailingCallTest : public AnIni2WriteTest, public testing::WithParamInterface<FailingCall> {};

TEST_P(FailingCallTest, IsLogged) {
  makeFile(path, kOld);
  FailingCall const& failing = GetParam();
  if (failing.hasTwoNames) fs::create_hard_link(path, folder / "second");
  std::size_t const before = entries();
  expectAllowedInChild(kNotInjected, [&] {
    if (!inject({failing.name, failing.calls, failsWith(EIO)})) {
      leaveAsNotAllowed();
    }
    EXPECT_EQ(change(widePath), failed(failing.action, widePath, EIO));
  });
  if (IsSkipped()) return;
  EXPECT_EQ(fileBytes(path), failing.bytes);
  EXPECT_EQ(entries(), before);
}

std::vector<FailingCall> failingCalls() {
  std::vector<long> renames{SYS_renameat, SYS_renameat2};
#ifdef SYS_rename
  renames.push_back(SYS_rename);
#endif
  return {
      {"Flush", L"flush", {SYS_fsync}, false, kOld},
      {"Close", L"close", {SYS_close}, false, kOld},
      {"Rename", L"replace", renames, false, kOld},
      {"CutInPlace", L"cut", {SYS_ftruncate}, true, kOld},
      {"CloseInPlace", L"close", {SYS_close}, true, kNew},
  };
}

INSTANTIATE_TEST_SUITE_P(AnIni2, FailingCallTest, testing::ValuesIn(failingCalls()),
                         [](auto const& tested) { return std::string(tested.param.name); });

#endif

// Killed.

/// Writes two values in turn, of different lengths, until it is killed; tells by a
/// byte that it has begun.
[[noreturn]] void writeForEver(std::wstring const& path, int begun) {
  AnIni2 ini{AString(path)};
  std::array<std::wstring, 2> const values{std::wstring(100, L'a'), std::wstring(60000, L'b')};
  for (std::size_t i = 0;; ++i) {
    if (!ini.insert(L"s", L"k", values.at(i % 2))) ::_exit(1);
    ini.write();
    if (i == 0 && ::write(begun, "x", 1) != 1) ::_exit(2);
  }
}

TEST_F(AnIni2WriteTest, KilledWriterLeavesTheOldFileOrTheNewOne) {
  constexpr int kRounds = 200;
  std::string const first = "[s]\nk=" + std::string(100, 'a') + "\n\n";
  std::string const second = "[s]\nk=" + std::string(60000, 'b') + "\n\n";
  makeFile(path, first);
  std::mt19937 random(20261121);
  for (int round = 0; round < kRounds; ++round) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe(ends.data()), 0);
    pid_t const child = ::fork();
    if (child == 0) writeForEver(widePath, ends[1]);
    ::close(ends[1]);
    char begun = '\0';
    EXPECT_EQ(::read(ends[0], &begun, 1), 1);
    ::close(ends[0]);
    // Not to wait for anything, but to meet it anywhere.
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 6000));
    ASSERT_EQ(::kill(child, SIGKILL), 0);
    int const status = waitFor(child);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    std::string const bytes = fileBytes(path);
    ASSERT_TRUE(bytes == first || bytes == second) << round << ": " << bytes.size();
  }
}

}  // namespace
}  // namespace vrxutil::test

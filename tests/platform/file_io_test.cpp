#include "platform/common/file_io.h"

#include "tests/platform/child_process.h"
#include "tests/platform/system_call_fault.h"
#include "tests/support/locale_scope.h"
#include "tests/support/other_user.h"
#include "tests/support/private_mounts.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/umask_scope.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#ifdef __linux__
#include <sys/mount.h>
#include <sys/syscall.h>
#endif

namespace vrxutil::detail {

namespace {

using test::fileBytes;
using test::kOtherGroup;
using test::kOtherUser;
using test::LocaleScope;
using test::makeFile;
using test::TemporaryFolder;
using test::UmaskScope;

constexpr std::size_t kNoLimit = 1 << 30;

/// The error as text; "success" for none.
std::string told(std::optional<FileError> const& error) {
  return error ? describe(*error) : "success";
}

/// "cannot ACTION PATH: " and the system's text for `number`.
std::string failure(std::string const& action, std::string const& path, int number) {
  return "cannot " + action + ' ' + path + ": " + std::strerror(number);
}

/// What readFile says, or what it reads.
std::string readBack(std::string const& path, std::size_t limit = kNoLimit) {
  std::string bytes = "what was there before";
  std::optional<FileError> const error = readFile(path, limit, bytes);
  return error ? describe(*error) : bytes;
}

std::vector<std::string> namesIn(std::string const& folder) {
  std::vector<std::string> names;
  for (auto const& entry : std::filesystem::directory_iterator(folder)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

using Names = std::vector<std::string>;

struct stat statusOf(std::string const& path) {
  struct stat status {};

  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path << ": " << std::strerror(errno);
  return status;
}

mode_t modeOf(std::string const& path) { return statusOf(path).st_mode & 07777; }

bool isRoot() { return ::geteuid() == 0; }

/// Bytes that differ at every place, as far as that goes.
std::string pattern(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 31 >> 3);
  return bytes;
}

struct ChildResult {
  int status;        // as waitpid gives it
  std::string told;  // what `work` returned
};

/// Runs `work` in a process of its own, which may give up rights or be killed.
ChildResult runInChild(std::function<std::string()> const& work) {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return {-1, "no pipe"};
  pid_t const child = ::fork();
  if (child == 0) {
    std::string const result = work();
    ssize_t const size = ::write(ends[1], result.data(), result.size());
    ::_exit(size == static_cast<ssize_t>(result.size()) ? 0 : 1);
  }
  ::close(ends[1]);
  ChildResult result{-1, test::readToEnd(ends[0])};
  ::close(ends[0]);
  result.status = test::waitFor(child);
  return result;
}

/// What `work` returns in a process without root's rights; nothing of it where
/// the rights cannot be given up.
std::string runAsOtherUser(std::function<std::string()> const& work) {
  return runInChild([&] { return test::leaveRoot() ? work() : std::string("still root"); }).told;
}

TEST(DescribeTest, TellsActionPathAndReason) {
  LocaleScope const locale("C");
  EXPECT_EQ(describe({"open", "/path/x.xml", ENOENT}),
            "cannot open /path/x.xml: No such file or directory");
}

TEST(DescriptorTest, ClosesAtTheEndOfItsScope) {
  int fd = -1;
  {
    Descriptor const file(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    fd = file.get();
    ASSERT_TRUE(file);
    ASSERT_GE(::fcntl(fd, F_GETFD), 0);
  }
  EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
}

TEST(DescriptorTest, HoldsNoneByDefaultAndClosesNothingThen) {
  Descriptor file;
  EXPECT_FALSE(file);
  EXPECT_EQ(file.get(), -1);
  EXPECT_TRUE(file.close());
}

TEST(DescriptorTest, MovesItsDescriptorAndClosesTheOneBefore) {
  Descriptor first(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  Descriptor second(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  int const firstFd = first.get();
  int const secondFd = second.get();
  second = std::move(first);
  EXPECT_EQ(second.get(), firstFd);
  EXPECT_EQ(::fcntl(secondFd, F_GETFD), -1);
  Descriptor third(std::move(second));
  EXPECT_EQ(third.get(), firstFd);
  Descriptor& same = third;
  third = std::move(same);
  EXPECT_EQ(third.get(), firstFd);
  EXPECT_GE(::fcntl(firstFd, F_GETFD), 0);
  EXPECT_EQ(third.release(), firstFd);
  EXPECT_FALSE(third);
  EXPECT_EQ(::close(firstFd), 0);
}

TEST(DescriptorTest, CloseTellsFailure) {
  Descriptor file(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(::close(file.get()), 0);
  errno = 0;
  EXPECT_FALSE(file.close());
  EXPECT_EQ(errno, EBADF);
  EXPECT_FALSE(file);
}

TEST(NarrowFileNameTest, ConvertsToTheEncodingOfTheLocale) {
  LocaleScope const locale("C.UTF-8");
  EXPECT_EQ(narrowFileName(L"/a b/\u00E9\u20AC\U0001F600"),
            "/a b/\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
  EXPECT_EQ(narrowFileName(L""), "");
}

TEST(NarrowFileNameTest, RefusesWhatTheEncodingLacks) {
  {
    LocaleScope const locale("C");
    EXPECT_EQ(narrowFileName(L"/plain"), "/plain");
    EXPECT_EQ(narrowFileName(L"/\u00E9"), std::nullopt);
  }
  LocaleScope const locale("C.UTF-8");
  EXPECT_EQ(narrowFileName(std::wstring(1, static_cast<wchar_t>(0xD800))), std::nullopt);
  EXPECT_EQ(narrowFileName(std::wstring(1, static_cast<wchar_t>(-1))), std::nullopt);
}

TEST(NarrowFileNameTest, RefusesNul) {
  EXPECT_EQ(narrowFileName(std::wstring_view(L"/etc/passwd\0.xml", 16)), std::nullopt);
}

TEST(WideMessageTest, ConvertsFromTheEncodingOfTheLocale) {
  LocaleScope const locale("C.UTF-8");
  EXPECT_EQ(wideMessage("a \xC3\xA9\xF0\x9F\x98\x80"), L"a \u00E9\U0001F600");
  EXPECT_EQ(wideMessage(""), L"");
  EXPECT_EQ(wideMessage(std::string_view("a\0b", 3)), std::wstring(L"a\0b", 3));
}

TEST(WideMessageTest, ReplacesBytesThatMeanNothing) {
  LocaleScope const locale("C.UTF-8");
  EXPECT_EQ(wideMessage("a\xFFz"), L"a\uFFFDz");
  EXPECT_EQ(wideMessage("a\xE2\x82"), L"a\uFFFD\uFFFD");
  EXPECT_EQ(wideMessage("\xE2z\xC3\xA9"), L"\uFFFDz\u00E9");
}

TEST(WideFileNameTest, NarrowsToTheSameBytesWhereTheyAreText) {
  LocaleScope const locale("C.UTF-8");
  std::string const name = "/a \xC3\xA9\xF0\x9F\x98\x80";
  EXPECT_EQ(wideFileName(name), L"/a \u00E9\U0001F600");
  EXPECT_EQ(narrowFileName(wideFileName(name)), name);
  EXPECT_EQ(wideFileName(""), L"");
}

TEST(WideFileNameTest, BytesThatMeanNothingMakeANameThatIsRefused) {
  LocaleScope const locale("C.UTF-8");
  EXPECT_EQ(wideFileName("a\xFFz"), (std::wstring{L'a', static_cast<wchar_t>(0xDCFF), L'z'}));
  EXPECT_EQ(wideFileName("\xE2\x82"),
            (std::wstring{static_cast<wchar_t>(0xDCE2), static_cast<wchar_t>(0xDC82)}));
  EXPECT_EQ(narrowFileName(wideFileName("a\xFFz")), std::nullopt);
}

TEST(ReadFileTest, ReadsAllBytesOfAllSizes) {
  TemporaryFolder const folder;
  std::string const path = folder / "file";
  for (std::size_t const size : {0U, 1U, 16383U, 16384U, 16385U, 16386U, 100000U, 1U << 20}) {
    std::string const bytes = pattern(size);
    makeFile(path, bytes);
    EXPECT_TRUE(readBack(path) == bytes) << size;
  }
}

TEST(ReadFileTest, ReadsFilesThatDoNotTellTheirSize) {
  EXPECT_TRUE(readBack("/proc/self/status").starts_with("Name:"));
  EXPECT_EQ(readBack("/dev/null"), "");
}

TEST(ReadFileTest, LimitIsTheLargestSize) {
  TemporaryFolder const folder;
  std::string const path = folder / "file";
  std::string const tooLarge = failure("read", path, EFBIG);
  for (std::size_t const size : {1U, 10U, 16384U, 40000U}) {
    std::string const bytes = pattern(size);
    makeFile(path, bytes);
    EXPECT_TRUE(readBack(path, size) == bytes) << size;
    EXPECT_EQ(readBack(path, size - 1), tooLarge) << size;
  }
  makeFile(path, "");
  EXPECT_EQ(readBack(path, 0), "");
  EXPECT_EQ(readBack(path, SIZE_MAX), "");
}

TEST(ReadFileTest, EndlessFilesEndAtTheLimit) {
  for (std::size_t const limit : {0U, 1U, 16384U, 16385U, 1000000U}) {
    EXPECT_EQ(readBack("/dev/zero", limit), failure("read", "/dev/zero", EFBIG)) << limit;
  }
}

TEST(ReadFileTest, HugeFilesAreRefusedBeforeMemoryIsTaken) {
  TemporaryFolder const folder;
  std::string const path = folder / "sparse";
  makeFile(path, "");
  ASSERT_EQ(::truncate(path.c_str(), off_t{1} << 40), 0) << std::strerror(errno);
  std::string bytes;
  EXPECT_EQ(told(readFile(path, kNoLimit, bytes)), failure("read", path, EFBIG));
  EXPECT_LT(bytes.capacity(), 1000U);
}

TEST(ReadFileTest, FailuresTellWhatFailed) {
  TemporaryFolder const folder;
  makeFile(folder / "file", "x");
  ASSERT_EQ(::symlink("loop", (folder / "loop").c_str()), 0);
  ASSERT_EQ(::symlink("nothing", (folder / "dangling").c_str()), 0);

  struct Row {
    std::string path;
    char const* action;
    int number;
  };

  std::vector<Row> const rows{
      {folder.path(), "read", EISDIR},
      {folder / "missing", "open", ENOENT},
      {folder / "missing/file", "open", ENOENT},
      {folder / "file/file", "open", ENOTDIR},
      {folder / "loop", "open", ELOOP},
      {folder / "dangling", "open", ENOENT},
      {folder / std::string(300, 'n'), "open", ENAMETOOLONG},
      {"", "open", ENOENT},
  };
  for (Row const& row : rows) {
    EXPECT_EQ(readBack(row.path), failure(row.action, row.path, row.number));
  }
}

TEST(ReadFileTest, UnreadableFileIsAnError) {
  TemporaryFolder const folder;
  std::string const path = folder / "secret";
  makeFile(path, "secret");
  ASSERT_EQ(::chmod(path.c_str(), 0), 0);
  ASSERT_EQ(::chmod(folder.path().c_str(), 0755), 0);
  std::string const result = runAsOtherUser([&] { return readBack(path); });
  EXPECT_EQ(result, failure("open", path, EACCES));
}

TEST(ReadFileTest, FollowsSymbolicLinks) {
  TemporaryFolder const folder;
  makeFile(folder / "file", "contents");
  ASSERT_EQ(::symlink("file", (folder / "link").c_str()), 0);
  EXPECT_EQ(readBack(folder / "link"), "contents");
}

TEST(ReadFileTest, FifoWithoutWriterReadsAsEmpty) {
  TemporaryFolder const folder;
  ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
  EXPECT_EQ(readBack(folder / "fifo"), "");
}

TEST(ReadFileTest, FifoWithWriterIsReadToItsEnd) {
  TemporaryFolder const folder;
  std::string const path = folder / "fifo";
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  // Both ends, so that the writer is there first; more than a FIFO holds, so
  // that the reader has to wait for it.
  Descriptor fifo(::open(path.c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_TRUE(fifo);
  std::string const bytes = pattern(1 << 20);
  std::thread writer([&] {
    for (std::size_t count = 0; count < bytes.size();) {
      ssize_t const size = ::write(fifo.get(), bytes.data() + count, bytes.size() - count);
      if (size <= 0) break;
      count += static_cast<std::size_t>(size);
    }
    fifo.close();
  });
  std::string const read = readBack(path);
  writer.join();
  EXPECT_TRUE(read == bytes) << read.size();
}

/// The process's descriptors of a file.
std::vector<int> descriptorsOf(std::string const& path) {
  std::vector<int> descriptors;
  for (std::string const& name : namesIn("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink("/proc/self/fd/" + name, gone) == path) {
      descriptors.push_back(std::stoi(name));
    }
  }
  return descriptors;
}

TEST(ReadFileTest, OtherProgramsDoNotInheritTheDescriptor) {
  TemporaryFolder const folder;
  std::string const path = std::filesystem::canonical(folder.path()).string() + "/fifo";
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  Descriptor fifo(::open(path.c_str(), O_RDWR | O_CLOEXEC));
  std::thread reader([&] { EXPECT_EQ(readBack(path), ""); });
  // It waits for the end, which comes when it has been looked at.
  std::vector<int> descriptors;
  while (descriptors.size() < 2) descriptors = descriptorsOf(path);
  for (int const fd : descriptors) EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
  fifo.close();
  reader.join();
}

TEST(ReadFileTest, SocketIsAnError) {
  TemporaryFolder const folder;
  std::string const path = folder / "socket";
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ASSERT_LT(path.size(), sizeof address.sun_path);
  std::copy(path.begin(), path.end(), std::begin(address.sun_path));
  Descriptor const socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  void const* const generic = &address;
  ASSERT_EQ(::bind(socket.get(), static_cast<sockaddr const*>(generic), sizeof address), 0);
  EXPECT_EQ(readBack(path), failure("open", path, ENXIO));
  EXPECT_EQ(told(replaceFile(path, "x")), failure("open", path, ENXIO));
}

TEST(ReadFileTest, SignalsDoNotInterrupt) {
  TemporaryFolder const folder;
  std::string const path = folder / "fifo";
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);

  struct sigaction handler {};

  struct sigaction before {};

  handler.sa_handler = [](int) {};  // without SA_RESTART
  ASSERT_EQ(::sigaction(SIGUSR1, &handler, &before), 0);
  Descriptor fifo(::open(path.c_str(), O_RDWR | O_CLOEXEC));
  pthread_t const reader = ::pthread_self();
  std::thread writer([&] {
    for (int i = 0; i < 2000; ++i) {
      ::pthread_kill(reader, SIGUSR1);
      if (::write(fifo.get(), "x", 1) != 1) break;
    }
    // What nobody has read by then would go with the last descriptor.
    int unread = 1;
    while (::ioctl(fifo.get(), FIONREAD, &unread) == 0 && unread > 0) std::this_thread::yield();
    fifo.close();
  });
  EXPECT_EQ(readBack(path), std::string(2000, 'x'));
  writer.join();
  ::sigaction(SIGUSR1, &before, nullptr);
}

TEST(ReplaceFileTest, MakesNewFilesWithTheUmasksMode) {
  TemporaryFolder const folder;

  struct Row {
    mode_t mask, mode;
  };

  for (auto const& [mask, mode] : {Row{022, 0644}, Row{0, 0666}, Row{077, 0600}, Row{027, 0640}}) {
    UmaskScope const umask(mask);
    std::string const path = folder / std::to_string(mask);
    ASSERT_EQ(told(replaceFile(path, "contents")), "success");
    EXPECT_EQ(fileBytes(path), "contents");
    EXPECT_EQ(modeOf(path), mode) << mask;
  }
  EXPECT_EQ(namesIn(folder.path()).size(), 4U);
}

TEST(ReplaceFileTest, ReplacesContentsOfAllSizes) {
  TemporaryFolder const folder;
  std::string const path = folder / "file";
  for (std::size_t const size : {0U, 1U, 4096U, 1U << 22, 3U, 0U}) {
    std::string const bytes = pattern(size);
    ASSERT_EQ(told(replaceFile(path, bytes)), "success");
    EXPECT_TRUE(fileBytes(path) == bytes) << size;
  }
  EXPECT_EQ(namesIn(folder.path()), Names{"file"});
}

TEST(ReplaceFileTest, KeepsTheMode) {
  TemporaryFolder const folder;
  UmaskScope const umask(022);
  std::string const path = folder / "file";
  for (mode_t const mode : {0666U, 0600U, 0400U, 0755U, 0U, 06755U, 01644U}) {
    makeFile(path, "old");
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
    ASSERT_EQ(told(replaceFile(path, "new")), "success");
    EXPECT_EQ(modeOf(path), mode);
    ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
    EXPECT_EQ(fileBytes(path), "new");
  }
}

TEST(ReplaceFileTest, KeepsOwnerGroupAndSetIdBits) {
  if (!isRoot()) GTEST_SKIP() << "only root may give files away";
  TemporaryFolder const folder;
  std::string const path = folder / "file";
  makeFile(path, "old");
  ASSERT_EQ(::chown(path.c_str(), kOtherUser, kOtherGroup), 0);
  ASSERT_EQ(::chmod(path.c_str(), 06750), 0);
  ASSERT_EQ(told(replaceFile(path, "new")), "success");
  EXPECT_EQ(statusOf(path).st_uid, kOtherUser);
  EXPECT_EQ(statusOf(path).st_gid, kOtherGroup);
  EXPECT_EQ(modeOf(path), mode_t{06750});
  EXPECT_EQ(fileBytes(path), "new");
}

TEST(ReplaceFileTest, OwnerThatMayNotBeKeptCostsTheSetIdBits) {
  if (!isRoot()) GTEST_SKIP() << "only root may make files of two users";
  TemporaryFolder const folder;
  std::string const path = folder / "file";
  makeFile(path, "old");
  ASSERT_EQ(::chown(path.c_str(), 0, kOtherGroup), 0);
  ASSERT_EQ(::chmod(path.c_str(), 06754), 0);
  ASSERT_EQ(::chown(folder.path().c_str(), kOtherUser, 0), 0);
  EXPECT_EQ(runAsOtherUser([&] { return told(replaceFile(path, "new")); }), "success");
  EXPECT_EQ(statusOf(path).st_uid, kOtherUser);
  EXPECT_EQ(statusOf(path).st_gid, kOtherGroup);
  EXPECT_EQ(modeOf(path), mode_t{0754});
  EXPECT_EQ(fileBytes(path), "new");
}

TEST(ReplaceFileTest, GroupIsKeptWhereTheOwnerMayNotBe) {
  if (!isRoot()) GTEST_SKIP() << "only root may make files of two users";
  TemporaryFolder const folder;
  std::string const path = folder / "file";
  constexpr gid_t kSecondGroup = 12347;
  makeFile(path, "old");
  ASSERT_EQ(::chown(path.c_str(), 0, kSecondGroup), 0);
  ASSERT_EQ(::chmod(path.c_str(), 0660), 0);
  ASSERT_EQ(::chown(folder.path().c_str(), kOtherUser, 0), 0);
  ChildResult const result = runInChild([&]() -> std::string {
    if (!test::leaveRoot(kOtherUser, {kSecondGroup})) return "still root";
    return told(replaceFile(path, "new"));
  });
  EXPECT_EQ(result.told, "success");
  EXPECT_EQ(statusOf(path).st_uid, kOtherUser);
  EXPECT_EQ(statusOf(path).st_gid, kSecondGroup);
  EXPECT_EQ(modeOf(path), mode_t{0660});
}

TEST(ReplaceFileTest, ReadersOfTheOldFileKeepIt) {
  TemporaryFolder const folder;
  std::string const path = folder / "file";
  makeFile(path, "old");
  Descriptor const before(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  ino_t const inode = statusOf(path).st_ino;
  ASSERT_EQ(told(replaceFile(path, "new")), "success");
  EXPECT_NE(statusOf(path).st_ino, inode);
  std::array<char, 8> bytes{};
  EXPECT_EQ(::read(before.get(), bytes.data(), bytes.size()), 3);
  EXPECT_STREQ(bytes.data(), "old");
}

TEST(ReplaceFileTest, ReadersSeeOneOrTheOtherWhileManyReplace) {
  TemporaryFolder const folder;
  std::string const path = folder / "file";
  std::string const first(50000, 'a');
  std::string const second(70000, 'b');
  makeFile(path, first);
  std::atomic<int> faults = 0;
  auto const replace = [&](std::string const& bytes) {
    for (int i = 0; i < 30; ++i) faults += replaceFile(path, bytes).has_value() ? 1 : 0;
  };
  std::thread one([&] { replace(first); });
  std::thread other([&] { replace(second); });
  for (int i = 0; i < 200; ++i) {
    std::string const bytes = readBack(path);
    faults += bytes != first && bytes != second ? 1 : 0;
  }
  one.join();
  other.join();
  EXPECT_EQ(faults, 0);
  EXPECT_EQ(namesIn(folder.path()), Names{"file"});
}

TEST(ReplaceFileTest, FollowsChainsOfSymbolicLinks) {
  TemporaryFolder const folder;
  std::filesystem::create_directories(folder / "deep/er");
  makeFile(folder / "deep/er/file", "old");
  ASSERT_EQ(::symlink("er/file", (folder / "deep/relative").c_str()), 0);
  ASSERT_EQ(::symlink((folder / "deep/relative").c_str(), (folder / "absolute").c_str()), 0);
  ASSERT_EQ(::symlink("deep/../absolute", (folder / "first").c_str()), 0);
  ASSERT_EQ(told(replaceFile(folder / "first", "new")), "success");
  EXPECT_EQ(fileBytes(folder / "deep/er/file"), "new");
  for (char const* const name : {"first", "absolute", "deep/relative"}) {
    EXPECT_TRUE(S_ISLNK(statusOf(folder / name).st_mode)) << name;
  }
  EXPECT_TRUE(S_ISREG(statusOf(folder / "deep/er/file").st_mode));
  EXPECT_EQ(namesIn(folder.path()), (Names{"absolute", "deep", "first"}));
  EXPECT_EQ(namesIn(folder / "deep/er"), Names{"file"});
}

TEST(ReplaceFileTest, LinkedFolderIsFollowed) {
  TemporaryFolder const folder;
  std::filesystem::create_directory(folder / "real");
  ASSERT_EQ(::symlink("real", (folder / "link").c_str()), 0);
  ASSERT_EQ(told(replaceFile(folder / "link/file", "new")), "success");
  EXPECT_EQ(fileBytes(folder / "real/file"), "new");
}

TEST(ReplaceFileTest, MakesTheTargetOfADanglingLink) {
  TemporaryFolder const folder;
  std::filesystem::create_directory(folder / "deep");
  ASSERT_EQ(::symlink("deep/second", (folder / "first").c_str()), 0);
  ASSERT_EQ(::symlink("target", (folder / "deep/second").c_str()), 0);
  UmaskScope const umask(022);
  ASSERT_EQ(told(replaceFile(folder / "first", "new")), "success");
  EXPECT_TRUE(S_ISLNK(statusOf(folder / "first").st_mode));
  EXPECT_EQ(fileBytes(folder / "deep/target"), "new");
  EXPECT_EQ(modeOf(folder / "deep/target"), mode_t{0644});
  EXPECT_EQ(namesIn(folder / "deep"), (Names{"second", "target"}));
}

TEST(ReplaceFileTest, FollowsAsManyLinksAsTheKernelDoes) {
  TemporaryFolder const folder;
  makeFile(folder / "0", "old");
  for (int i = 1; i <= 41; ++i) {
    std::string const target = std::to_string(i - 1);
    ASSERT_EQ(::symlink(target.c_str(), (folder / std::to_string(i)).c_str()), 0);
  }
  EXPECT_EQ(told(replaceFile(folder / "39", "new")), "success");
  EXPECT_EQ(fileBytes(folder / "0"), "new");
  EXPECT_EQ(told(replaceFile(folder / "41", "newer")), failure("open", folder / "41", ELOOP));
  EXPECT_EQ(fileBytes(folder / "0"), "new");
}

TEST(ReplaceFileTest, FailuresTellWhatFailedAndLeaveNothing) {
  TemporaryFolder const folder;
  makeFile(folder / "file", "old");
  std::filesystem::create_directory(folder / "folder");
  ASSERT_EQ(::symlink("loop", (folder / "loop").c_str()), 0);
  ASSERT_EQ(::symlink("folder", (folder / "link").c_str()), 0);
  ASSERT_EQ(::symlink("missing/target", (folder / "dangling").c_str()), 0);
  std::string const longName = folder / std::string(300, 'n');

  struct Row {
    std::string path;
    std::string error;
  };

  std::vector<Row> const rows{
      {folder / "folder", failure("write", folder / "folder", EISDIR)},
      {folder / "folder/", failure("write", folder / "folder/", EISDIR)},
      {folder / "link", failure("write", folder / "link", EISDIR)},
      {folder / "file/x", failure("open", folder / "file/x", ENOTDIR)},
      {folder / "file/", failure("open", folder / "file/", ENOTDIR)},
      {folder / "missing/x", failure("open the folder of", folder / "missing/x", ENOENT)},
      {folder / "missing/", failure("open the folder of", folder / "missing/", ENOENT)},
      {folder / "loop", failure("open", folder / "loop", ELOOP)},
      {folder / "dangling", failure("open the folder of", folder / "missing/target", ENOENT)},
      {longName, failure("open", longName, ENAMETOOLONG)},
      {"", failure("open", "", ENOENT)},
  };
  Names const before = namesIn(folder.path());
  for (Row const& row : rows) EXPECT_EQ(told(replaceFile(row.path, "new")), row.error);
  EXPECT_EQ(namesIn(folder.path()), before);
  EXPECT_EQ(namesIn(folder / "folder"), Names{});
  EXPECT_EQ(fileBytes(folder / "file"), "old");
}

TEST(ReplaceFileTest, LongAndHardNamesAreAccepted) {
  LocaleScope const locale("C.UTF-8");
  TemporaryFolder const folder;
  std::vector<std::string> const names{
      std::string(255, 'n'), "a b  c",   "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", "-rf", "*?[a]\\",
      "new\nline",           "\xFF\xFE",
  };
  for (std::string const& name : names) {
    std::string const path = folder / name;
    EXPECT_EQ(told(replaceFile(path, "first")), "success") << name;
    EXPECT_EQ(told(replaceFile(path, "second")), "success") << name;
    EXPECT_EQ(readBack(path), "second") << name;
  }
  EXPECT_EQ(namesIn(folder.path()).size(), names.size());
}

TEST(ReplaceFileTest, NamesWithoutFolderAreInTheCurrentOne) {
  TemporaryFolder const folder;
  ASSERT_EQ(::symlink("target", (folder / "link").c_str()), 0);
  ChildResult const result = runInChild([&]() -> std::string {
    if (::chdir(folder.path().c_str()) != 0) return "no such folder";
    return told(replaceFile("file", "new")) + ", " + told(replaceFile("link", "linked"));
  });
  EXPECT_EQ(result.told, "success, success");
  EXPECT_EQ(fileBytes(folder / "file"), "new");
  EXPECT_EQ(fileBytes(folder / "target"), "linked");
  EXPECT_EQ(namesIn(folder.path()), (Names{"file", "link", "target"}));
}

TEST(ReplaceFileTest, DevicesAreWrittenInPlace) {
  if (::access("/dev/full", F_OK) != 0) GTEST_SKIP() << "no /dev/full here";
  // Never as root: code that fails this test would replace the host's devices.
  auto const work = [] {
    return told(replaceFile("/dev/null", "bytes")) + "\n" + told(replaceFile("/dev/full", "bytes"));
  };
  EXPECT_EQ(runAsOtherUser(work), "success\n" + failure("write", "/dev/full", ENOSPC));
}

TEST(ReplaceFileTest, FifoWithoutReaderIsAnErrorAndStays) {
  TemporaryFolder const folder;
  std::string const path = folder / "fifo";
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(told(replaceFile(path, "new")), failure("open", path, ENXIO));
  EXPECT_TRUE(S_ISFIFO(statusOf(path).st_mode));
}

TEST(ReplaceFileTest, FifoWithReaderGetsAllBytes) {
  TemporaryFolder const folder;
  std::string const path = folder / "fifo";
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  Descriptor const fifo(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  ASSERT_TRUE(fifo);
  ASSERT_EQ(::fcntl(fifo.get(), F_SETFL, 0), 0);
  std::string const bytes = pattern(1 << 20);  // more than a FIFO holds
  std::string result;
  std::atomic<bool> isDone = false;
  std::thread writer([&] {
    result = told(replaceFile(path, bytes));
    isDone = true;
  });
  std::string read(bytes.size(), '\0');
  for (std::size_t count = 0; count < read.size();) {
    bool const isLast = isDone;
    ssize_t const size = ::read(fifo.get(), read.data() + count, read.size() - count);
    if (size < 0 || (size == 0 && isLast)) break;
    count += static_cast<std::size_t>(size);  // 0 as long as there is no writer yet
  }
  writer.join();
  EXPECT_EQ(result, "success");
  EXPECT_TRUE(read == bytes);
  EXPECT_EQ(namesIn(folder.path()), Names{"fifo"});
}

TEST(ReplaceFileTest, FifoWhoseReaderLeavesIsAnErrorAndNoSignal) {
  TemporaryFolder const folder;
  std::string const path = folder / "fifo";
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  Descriptor fifo(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  ASSERT_TRUE(fifo);
  std::thread reader([&] {
    char byte = 0;
    while (::read(fifo.get(), &byte, 1) != 1) std::this_thread::yield();
    fifo.close();
  });
  std::string const result = told(replaceFile(path, pattern(1 << 20)));
  reader.join();
  EXPECT_EQ(result, failure("write", path, EPIPE));
  sigset_t pending;
  ::sigemptyset(&pending);
  ASSERT_EQ(::sigpending(&pending), 0);
  EXPECT_EQ(::sigismember(&pending, SIGPIPE), 0);
}

TEST(ReplaceFileTest, PendingSignalsOfOthersStay) {
  TemporaryFolder const folder;
  ChildResult const result = runInChild([&]() -> std::string {
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    ::raise(SIGPIPE);
    std::string const written = told(replaceFile(folder / "file", "bytes"));
    sigset_t pending;
    ::sigemptyset(&pending);
    ::sigpending(&pending);
    return written + (::sigismember(&pending, SIGPIPE) == 1 ? ", pending" : ", taken");
  });
  EXPECT_EQ(result.told, "success, pending");
}

TEST(ReplaceFileTest, SignalMaskIsRestored) {
  TemporaryFolder const folder;
  sigset_t mask;
  sigset_t outside;
  ::sigemptyset(&mask);
  ::sigaddset(&mask, SIGXFSZ);
  ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, &mask, &outside), 0);
  EXPECT_EQ(told(replaceFile(folder / "file", "bytes")), "success");
  sigset_t after;
  ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, &outside, &after), 0);
  EXPECT_EQ(::sigismember(&after, SIGXFSZ), 1);
  EXPECT_EQ(::sigismember(&after, SIGPIPE), 0);
  EXPECT_EQ(::sigismember(&after, SIGTERM), 0);
}

TEST(ReplaceFileTest, WriteThatFailsHalfwayLeavesTheOldFile) {
  TemporaryFolder const folder;
  std::string const path = folder / "file";
  makeFile(path, "old");
  // The first write is cut at the limit, the second one fails.
  ChildResult const result = runInChild([&]() -> std::string {
    rlimit const limit{10000, 10000};
    if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) return "no limit";
    return told(replaceFile(path, pattern(20000))) + "\n" +
           told(replaceFile(folder / "new", pattern(20000)));
  });
  EXPECT_EQ(result.status, 0);  // SIGXFSZ would have killed it
  EXPECT_EQ(result.told,
            failure("write", path, EFBIG) + "\n" + failure("write", folder / "new", EFBIG));
  EXPECT_EQ(fileBytes(path), "old");
  EXPECT_EQ(namesIn(folder.path()), Names{"file"});
}

TEST(ReplaceFileTest, FolderWithoutWritePermissionIsAnError) {
  TemporaryFolder const folder;
  std::string const path = folder / "file";
  makeFile(path, "old");
  ASSERT_EQ(::chmod(folder.path().c_str(), 0555), 0);
  auto const work = [&] {
    return told(replaceFile(path, "new")) + "\n" + told(replaceFile(folder / "new", "new"));
  };
  std::string const result = runAsOtherUser(work);
  std::string const action = "create a temporary file beside";
  EXPECT_EQ(result, failure(action, path, EACCES) + "\n" + failure(action, folder / "new", EACCES));
  ASSERT_EQ(::chmod(folder.path().c_str(), 0755), 0);
  EXPECT_EQ(fileBytes(path), "old");
  EXPECT_EQ(namesIn(folder.path()), Names{"file"});
}

TEST(ReplaceFileTest, FolderThatMayNotBeReadIsEnough) {
  TemporaryFolder const folder;
  std::string const path = folder / "file";
  ASSERT_EQ(::chmod(folder.path().c_str(), 0333), 0);
  auto const work = [&] { return told(replaceFile(path, "new")); };
  std::string const result = runAsOtherUser(work);
  ASSERT_EQ(::chmod(folder.path().c_str(), 0755), 0);
  EXPECT_EQ(result, "success");
  EXPECT_EQ(namesIn(folder.path()), Names{"file"});
  EXPECT_EQ(fileBytes(path), "new");
}

TEST(ReplaceFileTest, DescriptorsAreClosed) {
  TemporaryFolder const folder;
  std::size_t const before = namesIn("/proc/self/fd").size();
  for (char const* const bytes : {"first", "second"}) {
    ASSERT_EQ(told(replaceFile(folder / "file", bytes)), "success");
    ASSERT_EQ(readBack(folder / "file"), bytes);
  }
  ASSERT_NE(told(replaceFile(folder.path(), "x")), "success");
  EXPECT_EQ(namesIn("/proc/self/fd").size(), before);
}

#ifdef __linux__

using test::Argument;
using test::failsWith;
using test::Fault;
using test::inject;
using test::kNotInjected;

std::vector<long> const& renameCalls() {
  static std::vector<long> const calls{
#ifdef SYS_rename
      SYS_rename,
#endif
#ifdef SYS_renameat
      SYS_renameat,
#endif
      SYS_renameat2,
  };
  return calls;
}

/// Every step of replacing a file once it exists, in order.
std::vector<Fault> steps(std::uint32_t action) {
  return {{"create a temporary file beside", {SYS_getrandom}, action},
          {"write", {SYS_write}, action},
          {"keep the owner and mode of", {SYS_fchmod}, action},
          {"flush", {SYS_fsync}, action},
          {"close", {SYS_close}, action},
          {"replace", renameCalls(), action}};
}

TEST(ReplaceFileFaultTest, FailureOfEachStepLeavesTheOldFileAndNoNeighbour) {
  TemporaryFolder const folder;
  std::string const path = folder / "file";
  makeFile(path, "old");
  ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
  for (Fault const& fault : steps(failsWith(EIO))) {
    // The result is handed over through memory: write(2) may be what fails.
    std::string expected = failure(fault.name, path, EIO);
    ChildResult const result = runInChild([&]() -> std::string {
      if (!inject(fault)) ::_exit(3);
      std::string const error = told(replaceFile(path, "new"));
      ::_exit(error == expected ? 0 : 4);
    });
    if (result.status == 3 << 8) GTEST_SKIP() << kNotInjected;
    EXPECT_EQ(result.status, 0) << fault.name;
    EXPECT_EQ(fileBytes(path), "old") << fault.name;
    EXPECT_EQ(modeOf(path), mode_t{0640}) << fault.name;
    EXPECT_EQ(namesIn(folder.path()), Names{"file"}) << fault.name;
  }
}

TEST(ReplaceFileFaultTest, FailureOfEachStepLeavesNoNewFile) {
  TemporaryFolder const folder;
  std::string const path = folder / "file";
  for (Fault const& fault : steps(failsWith(EDQUOT))) {
    if (fault.calls.front() == SYS_fchmod) continue;  // a new file needs none
    std::string const expected = failure(fault.name, path, EDQUOT);
    ChildResult const result = runInChild([&]() -> std::string {
      if (!inject(fault)) ::_exit(3);
      std::string const error = told(replaceFile(path, "new"));
      ::_exit(error == expected ? 0 : 4);
    });
    if (result.status == 3 << 8) GTEST_SKIP() << kNotInjected;
    EXPECT_EQ(result.status, 0) << fault.name;
    EXPECT_EQ(namesIn(folder.path()), Names{}) << fault.name;
  }
}

TEST(ReplaceFileFaultTest, DeathAtEachStepLeavesTheOldFile) {
  TemporaryFolder const folder;
  std::string const path = folder / "file";
  for (Fault const& fault : steps(SECCOMP_RET_KILL_PROCESS)) {
    makeFile(path, "old");
    ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
    ChildResult const result = runInChild([&]() -> std::string {
      if (!inject(fault)) ::_exit(3);
      ::_exit(replaceFile(path, "new") ? 4 : 5);
    });
    if (result.status == 3 << 8) GTEST_SKIP() << kNotInjected;
    EXPECT_TRUE(WIFSIGNALED(result.status)) << fault.name;
    EXPECT_EQ(fileBytes(path), "old") << fault.name;
    EXPECT_EQ(modeOf(path), mode_t{0640}) << fault.name;
  }
}

/// The descriptor that the next open will return.
int nextDescriptor() {
  Descriptor const file(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  return file.get();
}

TEST(ReplaceFileFaultTest, FolderThatCannotBeFlushedIsAnErrorUnlessNoneCan) {
  TemporaryFolder const folder;
  std::string const path = folder / "file";

  struct Row {
    int number;
    std::string told;
  };

  for (auto const& [number, expected] :
       {Row{EIO, failure("flush the folder of", path, EIO)}, Row{EINVAL, "success"}}) {
    makeFile(path, "old");
    ChildResult const result = runInChild([&, number = number]() -> std::string {
      // The folder is the first thing that is opened.
      if (!inject({"fsync", {SYS_fsync}, failsWith(number), Argument{0, nextDescriptor()}}))
        return kNotInjected;
      return told(replaceFile(path, "new"));
    });
    if (result.told == kNotInjected) GTEST_SKIP() << kNotInjected;
    EXPECT_EQ(result.told, expected);
    EXPECT_EQ(fileBytes(path), "new");
    EXPECT_EQ(namesIn(folder.path()), Names{"file"});
  }
}

TEST(ReplaceFileFaultTest, BytesAreFlushedBeforeTheNameIsTakenAndTheNameAfterwards) {
  TemporaryFolder const folder;
  std::string const path = folder / "file";
  makeFile(path, "old");
  // Death at a flush shows what has happened by then. The folder is opened first,
  // the neighbour second.
  for (auto const& [offset, contents] : {std::pair{1, "old"}, std::pair{0, "new"}}) {
    ChildResult const result = runInChild([&, offset = offset]() -> std::string {
      Fault const fault{
          "fsync", {SYS_fsync}, SECCOMP_RET_KILL_PROCESS, Argument{0, nextDescriptor() + offset}};
      if (!inject(fault)) ::_exit(3);
      ::_exit(replaceFile(path, "new") ? 4 : 5);
    });
    if (result.status == 3 << 8) GTEST_SKIP() << kNotInjected;
    EXPECT_TRUE(WIFSIGNALED(result.status)) << result.status;
    EXPECT_EQ(fileBytes(path), contents);
  }
}

TEST(ReplaceFileFaultTest, OwnerThatCannotBeKeptForAnotherReasonIsAnError) {
  if (!isRoot()) GTEST_SKIP() << "only root may give files away";
  TemporaryFolder const folder;
  std::string const path = folder / "file";
  makeFile(path, "old");
  ASSERT_EQ(::chown(path.c_str(), kOtherUser, kOtherGroup), 0);
  ChildResult const result = runInChild([&]() -> std::string {
    if (!inject({"chown", {SYS_fchown}, failsWith(EIO)})) return kNotInjected;
    return told(replaceFile(path, "new"));
  });
  if (result.told == kNotInjected) GTEST_SKIP() << kNotInjected;
  EXPECT_EQ(result.told, failure("keep the owner and mode of", path, EIO));
  EXPECT_EQ(fileBytes(path), "old");
  EXPECT_EQ(namesIn(folder.path()), Names{"file"});
}

TEST(ReplaceFileFaultTest, ModeThatNeedsNoChangeIsNotChanged) {
  TemporaryFolder const folder;
  std::string const path = folder / "file";
  makeFile(path, "old");
  ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
  // As on file systems without modes.
  ChildResult const result = runInChild([&]() -> std::string {
    if (!inject({"chmod", {SYS_fchmod, SYS_fchown}, failsWith(EPERM)})) return kNotInjected;
    return told(replaceFile(path, "new"));
  });
  if (result.told == kNotInjected) GTEST_SKIP() << kNotInjected;
  EXPECT_EQ(result.told, "success");
  EXPECT_EQ(fileBytes(path), "new");
}

TEST(ReplaceFileFaultTest, OwnerThatNeedsNoChangeIsNotChanged) {
  TemporaryFolder const folder;
  std::string const path = folder / "file";
  makeFile(path, "old");
  ChildResult const result = runInChild([&]() -> std::string {
    if (!inject({"chown", {SYS_fchown}, failsWith(EIO)})) return kNotInjected;
    return told(replaceFile(path, "new"));
  });
  if (result.told == kNotInjected) GTEST_SKIP() << kNotInjected;
  EXPECT_EQ(result.told, "success");
  EXPECT_EQ(fileBytes(path), "new");
}

TEST(ReplaceFileFaultTest, CloseThatIsInterruptedHasClosed) {
  TemporaryFolder const folder;
  std::string const path = folder / "file";
  ChildResult const result = runInChild([&]() -> std::string {
    if (!inject({"close", {SYS_close}, failsWith(EINTR)})) return kNotInjected;
    return told(replaceFile(path, "new"));
  });
  if (result.told == kNotInjected) GTEST_SKIP() << kNotInjected;
  EXPECT_EQ(result.told, "success");
  EXPECT_EQ(fileBytes(path), "new");
}

TEST(ReplaceFileFaultTest, NeighbourIsNeverAFileThatIsThereAlready) {
  TemporaryFolder const folder;
  std::string const path = folder / "file";
  ChildResult const result = runInChild([&]() -> std::string {
    // Only the opening that makes a file of its own fails.
    Argument const flags{2, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC};
    if (!inject({"open", {SYS_openat}, failsWith(EEXIST), flags})) return kNotInjected;
    return told(replaceFile(path, "new"));
  });
  if (result.told == kNotInjected) GTEST_SKIP() << kNotInjected;
  EXPECT_EQ(result.told, failure("create a temporary file beside", path, EEXIST));
  EXPECT_EQ(namesIn(folder.path()), Names{});
}

/// Runs `work` where it may mount. What it mounts goes with it.
ChildResult runInMountNamespace(std::function<std::string()> const& work) {
  return runInChild(
      [&] { return test::enterMountNamespace() ? work() : std::string("no mounts"); });
}

TEST(ReplaceFileFaultTest, OwnerUnknownToTheUserNamespaceIsNotKept) {
  if (!isRoot()) GTEST_SKIP() << "only root may give files away";
  TemporaryFolder const folder;
  std::string const path = folder / "file";
  makeFile(path, "old");
  ASSERT_EQ(::chown(path.c_str(), kOtherUser, kOtherGroup), 0);
  ASSERT_EQ(::chmod(path.c_str(), 04640), 0);
  ChildResult const result = runInChild([&]() -> std::string {
    if (!test::enterUserNamespace()) return "no user namespaces";
    return told(replaceFile(path, "new"));
  });
  if (result.told == "no user namespaces") GTEST_SKIP() << "the host does not allow namespaces";
  EXPECT_EQ(result.told, "success");
  EXPECT_EQ(statusOf(path).st_uid, ::geteuid());
  EXPECT_EQ(modeOf(path), mode_t{0640});
  EXPECT_EQ(fileBytes(path), "new");
}

TEST(ReplaceFileFaultTest, FullFileSystemLeavesTheOldFile) {
  TemporaryFolder const folder;
  std::string const path = folder / "file";
  ChildResult const result = runInMountNamespace([&]() -> std::string {
    if (::mount("tmpfs", folder.path().c_str(), "tmpfs", 0, "size=65536") != 0) return "no mounts";
    std::string const first = told(replaceFile(path, "old"));
    std::string const second = told(replaceFile(path, pattern(200000)));
    std::string const third = told(replaceFile(folder / "other", pattern(200000)));
    return first + "\n" + second + "\n" + third + "\n" + readBack(path) + " in " +
           std::to_string(namesIn(folder.path()).size());
  });
  if (result.told == "no mounts") GTEST_SKIP() << test::kNoMounts;
  EXPECT_EQ(result.told, "success\n" + failure("write", path, ENOSPC) + "\n" +
                             failure("write", folder / "other", ENOSPC) + "\nold in 1");
}

TEST(ReplaceFileFaultTest, FileThatIsAMountPointIsAnErrorAndStays) {
  TemporaryFolder const folder;
  std::string const path = folder / "file";
  makeFile(path, "old");
  ChildResult const result = runInMountNamespace([&]() -> std::string {
    if (::mount(path.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) != 0) return "no mounts";
    return told(replaceFile(path, "new"));
  });
  if (result.told == "no mounts") GTEST_SKIP() << test::kNoMounts;
  EXPECT_EQ(result.told, failure("replace", path, EBUSY));
  EXPECT_EQ(fileBytes(path), "old");
  EXPECT_EQ(namesIn(folder.path()), Names{"file"});
}

TEST(ReplaceFileFaultTest, ReadOnlyFileSystemIsAnError) {
  TemporaryFolder const folder;
  std::string const path = folder / "file";
  ChildResult const result = runInMountNamespace([&]() -> std::string {
    if (::mount("tmpfs", folder.path().c_str(), "tmpfs", MS_RDONLY, nullptr) != 0) {
      return "no mounts";
    }
    return told(replaceFile(path, "new")) + "\n" + told(makeFolders(path, 0755));
  });
  if (result.told == "no mounts") GTEST_SKIP() << test::kNoMounts;
  EXPECT_EQ(result.told, failure("create a temporary file beside", path, EROFS) + "\n" +
                             failure("make", path, EROFS));
}

TEST(ReadFileFaultTest, LeaseOfAnotherProcessIsWaitedFor) {
  TemporaryFolder const folder;
  std::string const path = folder / "file";
  makeFile(path, "contents");
  std::array<int, 2> ready{};
  ASSERT_EQ(::pipe2(ready.data(), O_CLOEXEC), 0);
  pid_t const holder = ::fork();
  if (holder == 0) {
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGIO);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    int const fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    bool const isHeld = ::fcntl(fd, F_SETLEASE, F_WRLCK) == 0;
    if (::write(ready[1], isHeld ? "y" : "n", 1) != 1 || !isHeld) ::_exit(0);
    int number = 0;
    ::sigwait(&signals, &number);
    ::fcntl(fd, F_SETLEASE, F_UNLCK);
    ::_exit(0);
  }
  char isHeld = 'n';
  ASSERT_EQ(::read(ready[0], &isHeld, 1), 1);
  std::string const read = readBack(path);
  ::waitpid(holder, nullptr, 0);
  ::close(ready[0]);
  ::close(ready[1]);
  if (isHeld != 'y') GTEST_SKIP() << "the file system has no leases";
  EXPECT_EQ(read, "contents");
}

TEST(ReplaceFileFaultTest, WriteThatTakesNothingIsAnError) {
  TemporaryFolder const folder;
  std::string const path = folder / "file";
  makeFile(path, "old");
  ChildResult const result = runInChild([&]() -> std::string {
    if (!inject({"write", {SYS_write}, failsWith(0)})) ::_exit(3);
    std::string const error = told(replaceFile(path, "new"));
    ::_exit(error == failure("write", path, EIO) ? 0 : 4);
  });
  if (result.status == 3 << 8) GTEST_SKIP() << kNotInjected;
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(fileBytes(path), "old");
  EXPECT_EQ(namesIn(folder.path()), Names{"file"});
}

TEST(ReadFileFaultTest, OnlyRegularFilesAreWaitedFor) {
  TemporaryFolder const folder;
  makeFile(folder / "file", "contents");
  ChildResult const result = runInChild([&]() -> std::string {
    // What is opened without waiting is not to be had.
    Argument const flags{2, O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC};
    if (!inject({"open", {SYS_openat}, failsWith(EWOULDBLOCK), flags})) return kNotInjected;
    return readBack(folder / "file") + "\n" + readBack("/dev/null");
  });
  if (result.told == kNotInjected) GTEST_SKIP() << kNotInjected;
  EXPECT_EQ(result.told, "contents\n" + failure("open", "/dev/null", EWOULDBLOCK));
}

TEST(ReadFileFaultTest, FailedReadIsAnError) {
  // Reading where no memory is mapped; /proc/self/mem opens all the same.
  EXPECT_EQ(readBack("/proc/self/mem"), failure("read", "/proc/self/mem", EIO));
}

#endif

TEST(MakeFoldersTest, MakesEachMissingLevelWithItsMode) {
  TemporaryFolder const folder;
  UmaskScope const umask(0);
  ASSERT_EQ(told(makeFolders(folder / "a/b/c", 0750)), "success");
  for (char const* const name : {"a", "a/b", "a/b/c"}) {
    EXPECT_EQ(modeOf(folder / name), mode_t{0750}) << name;
  }
  EXPECT_EQ(told(makeFolders(folder / "a/b/c/d", 0700)), "success");
  EXPECT_EQ(modeOf(folder / "a/b/c/d"), mode_t{0700});
  EXPECT_EQ(modeOf(folder / "a"), mode_t{0750});
}

TEST(MakeFoldersTest, UmaskIsRespected) {
  TemporaryFolder const folder;
  UmaskScope const umask(027);
  ASSERT_EQ(told(makeFolders(folder / "a/b", 0777)), "success");
  EXPECT_EQ(modeOf(folder / "a"), mode_t{0750});
  EXPECT_EQ(modeOf(folder / "a/b"), mode_t{0750});
}

TEST(MakeFoldersTest, ExistingFoldersAndLinksToThemAreSuccess) {
  TemporaryFolder const folder;
  std::filesystem::create_directory(folder / "real");
  ASSERT_EQ(::symlink("real", (folder / "link").c_str()), 0);
  EXPECT_EQ(told(makeFolders(folder.path(), 0755)), "success");
  EXPECT_EQ(told(makeFolders(folder / "link", 0755)), "success");
  EXPECT_EQ(told(makeFolders(folder / "link/below", 0755)), "success");
  EXPECT_EQ(namesIn(folder / "real"), Names{"below"});
  EXPECT_EQ(told(makeFolders("/", 0755)), "success");
  EXPECT_EQ(told(makeFolders("///", 0755)), "success");
}

TEST(MakeFoldersTest, SlashesMayBeRepeatedAndEndThePath) {
  TemporaryFolder const folder;
  EXPECT_EQ(told(makeFolders(folder / "/a///b//", 0755)), "success");
  EXPECT_EQ(namesIn(folder / "a"), Names{"b"});
}

TEST(MakeFoldersTest, RelativePathsAreInTheCurrentFolder) {
  TemporaryFolder const folder;
  ChildResult const result = runInChild([&]() -> std::string {
    if (::chdir(folder.path().c_str()) != 0) return "no such folder";
    return told(makeFolders("a/b", 0755)) + ", " + told(makeFolders(".", 0755));
  });
  EXPECT_EQ(result.told, "success, success");
  EXPECT_EQ(namesIn(folder / "a"), Names{"b"});
}

TEST(MakeFoldersTest, WhatIsInTheWayIsAnError) {
  TemporaryFolder const folder;
  makeFile(folder / "file", "old");
  ASSERT_EQ(::symlink("nothing", (folder / "dangling").c_str()), 0);
  std::string const longName = folder / std::string(300, 'n');
  EXPECT_EQ(told(makeFolders(folder / "file", 0755)), failure("make", folder / "file", EEXIST));
  EXPECT_EQ(told(makeFolders(folder / "file/a", 0755)), failure("make", folder / "file", EEXIST));
  EXPECT_EQ(told(makeFolders(folder / "dangling", 0755)),
            failure("make", folder / "dangling", EEXIST));
  EXPECT_EQ(told(makeFolders(longName, 0755)), failure("make", longName, ENAMETOOLONG));
  EXPECT_EQ(told(makeFolders("", 0755)), failure("make", "", ENOENT));
  EXPECT_EQ(fileBytes(folder / "file"), "old");
}

TEST(MakeFoldersTest, FolderWithoutWritePermissionIsAnError) {
  TemporaryFolder const folder;
  ASSERT_EQ(::chmod(folder.path().c_str(), 0555), 0);
  auto const work = [&] { return told(makeFolders(folder / "a/b", 0755)); };
  std::string const result = runAsOtherUser(work);
  EXPECT_EQ(result, failure("make", folder / "a", EACCES));
  ASSERT_EQ(::chmod(folder.path().c_str(), 0755), 0);
  EXPECT_EQ(namesIn(folder.path()), Names{});
}

TEST(MakeFoldersTest, SeveralAtOnceAllSucceed) {
  TemporaryFolder const folder;
  for (int round = 0; round < 50; ++round) {
    std::string const path = folder / (std::to_string(round) + "/a/b/c/d");
    std::array<std::string, 4> results;
    std::vector<std::thread> threads;
    for (std::string& result : results) {
      threads.emplace_back([&] { result = told(makeFolders(path, 0755)); });
    }
    for (std::thread& thread : threads) thread.join();
    for (std::string const& result : results) ASSERT_EQ(result, "success");
  }
}

}  // namespace

}  // namespace vrxutil::detail

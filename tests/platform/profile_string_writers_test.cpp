// Several writers of one file: they wait for each other, lose nothing, and leave
// nothing behind that stops the next one.

#include "platform/zulral/profile_lock.h"
#include "tests/platform/child_process.h"
#include "tests/platform/profile_calls.h"
#include "tests/platform/system_call_fault.h"
#include "tests/support/temporary_folder.h"

#include <zulral/zulral.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vrxutil {

namespace {

using detail::ProfileLock;
using test::countIn;
using test::exists;
using test::fileBytes;
using test::makeFile;
using test::TemporaryFolder;
using test::valueOf;
using test::write;

/// An exclusive lock on a file, as any program can hold it.
class HeldLock {
public:
  explicit HeldLock(std::string const& path) : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    EXPECT_EQ(::flock(fd_, LOCK_EX), 0);
  }

  ~HeldLock() { ::close(fd_); }

  HeldLock(HeldLock const&) = delete;
  HeldLock& operator=(HeldLock const&) = delete;

private:
  int fd_;
};

/// Another process that holds the lock on a file, until it is told to end.
class LockingProcess {
public:
  explicit LockingProcess(std::string const& path) {
    std::array<int, 2> ready{};
    std::array<int, 2> end{};
    EXPECT_EQ(::pipe2(ready.data(), O_CLOEXEC), 0);
    EXPECT_EQ(::pipe2(end.data(), O_CLOEXEC), 0);
    process_ = ::fork();
    if (process_ == 0) hold(path, ready[1], end);
    ::close(ready[1]);
    ::close(end[0]);
    end_ = end[1];
    char isReady = '\0';
    EXPECT_EQ(::read(ready[0], &isReady, 1), 1);
    ::close(ready[0]);
  }

  ~LockingProcess() {
    ::close(end_);
    EXPECT_EQ(test::waitFor(process_), 0);
  }

  LockingProcess(LockingProcess const&) = delete;
  LockingProcess& operator=(LockingProcess const&) = delete;

private:
  [[noreturn]] static void hold(std::string const& path, int ready, std::array<int, 2> end) {
    ::close(end[1]);
    HeldLock const lock(path);
    char byte = 'x';
    if (::write(ready, &byte, 1) != 1) ::_exit(1);
    ::_exit(::read(end[0], &byte, 1) == 0 ? 0 : 1);
  }

  pid_t process_;
  int end_;
};

constexpr std::chrono::milliseconds kShortWait{20};

/// "success", or what errno's number says.
std::string acquire(ProfileLock& lock, std::string const& path,
                    ProfileLock::Missing missing = ProfileLock::Missing::make) {
  int const number = lock.acquire(path, missing, kShortWait);
  return number == 0 ? "success" : std::strerror(number);
}

TEST(ProfileLockTest, GivesUpWaitingForALockThatIsNeverReleased) {
  EXPECT_EQ(ProfileLock::kLongestWait, std::chrono::seconds(10));
  TemporaryFolder const folder;
  makeFile(folder / "f", "[s]\nk=v\n");
  LockingProcess const process(folder / "f");
  ProfileLock lock;
  EXPECT_EQ(acquire(lock, folder / "f"), std::strerror(ETIMEDOUT));
  EXPECT_EQ(valueOf(folder.wide("f"), L"s", L"k"), L"v");  // readers do not wait
}

TEST(ProfileLockTest, IsReleasedWithTheObjectAndExcludesAnother) {
  TemporaryFolder const folder;
  makeFile(folder / "f", "");
  {
    ProfileLock first;
    EXPECT_EQ(acquire(first, folder / "f"), "success");
    ProfileLock second;
    EXPECT_EQ(acquire(second, folder / "f"), std::strerror(ETIMEDOUT));
  }
  ProfileLock third;
  EXPECT_EQ(acquire(third, folder / "f"), "success");
}

TEST(ProfileLockTest, SharedLocksAreWaitedForAsWell) {
  TemporaryFolder const folder;
  makeFile(folder / "f", "");
  int const fd = ::open((folder / "f").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::flock(fd, LOCK_SH), 0);
  {
    ProfileLock lock;
    EXPECT_EQ(acquire(lock, folder / "f"), std::strerror(ETIMEDOUT));
  }
  ::close(fd);
  ProfileLock lock;
  EXPECT_EQ(acquire(lock, folder / "f"), "success");
}

TEST(ProfileLockTest, NewFileThatStaysEmptyGoes) {
  TemporaryFolder const folder;
  {
    ProfileLock lock;
    EXPECT_EQ(acquire(lock, folder / "f", ProfileLock::Missing::fail), std::strerror(ENOENT));
    EXPECT_FALSE(exists(folder / "f"));
  }
  {
    ProfileLock lock;
    EXPECT_EQ(acquire(lock, folder / "f"), "success");
    EXPECT_TRUE(exists(folder / "f"));
  }
  EXPECT_FALSE(exists(folder / "f"));
}

TEST(ProfileLockTest, FilesThatAreNotNewAndEmptyStay) {
  TemporaryFolder const folder;
  makeFile(folder / "old", "");
  makeFile(folder / "neighbour", "");
  {
    ProfileLock old;
    EXPECT_EQ(acquire(old, folder / "old"), "success");
    ProfileLock filled;
    EXPECT_EQ(acquire(filled, folder / "filled"), "success");
    makeFile(folder / "filled", "[s]\n");
    ProfileLock replaced;
    EXPECT_EQ(acquire(replaced, folder / "replaced"), "success");
    ASSERT_EQ(::rename((folder / "neighbour").c_str(), (folder / "replaced").c_str()), 0);
  }
  EXPECT_EQ(fileBytes(folder / "old"), "");
  EXPECT_EQ(fileBytes(folder / "filled"), "[s]\n");
  EXPECT_EQ(fileBytes(folder / "replaced"), "");
}

#ifdef __linux__

/// How many descriptors of this process lead to the file of that path.
std::size_t countOpen(std::string const& path) {
  std::size_t count = 0;
  for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code closed;  // meanwhile
    if (std::filesystem::read_symlink(entry.path(), closed) == path) ++count;
  }
  return count;
}

/// A thread that writes "[new] k=v" to a file whose lock another process holds;
/// waits for that when it is made.
class WaitingWriter {
public:
  WaitingWriter(std::wstring const& file, std::string const& path)
      : thread_([this, file] {
          EXPECT_EQ(write(file, L"new", L"k", L"v"), "success");
          isOver_ = true;
        }) {
    while (countOpen(path) == 0 && !isOver_) std::this_thread::yield();
    EXPECT_FALSE(isOver_);
  }

  ~WaitingWriter() { thread_.join(); }

  WaitingWriter(WaitingWriter const&) = delete;
  WaitingWriter& operator=(WaitingWriter const&) = delete;

private:
  std::atomic<bool> isOver_{false};
  std::thread thread_;
};

TEST(ProfileWritersTest, LockOfAnotherProcessIsWaitedFor) {
  TemporaryFolder const folder;
  makeFile(folder / "f", "[old]\n");
  std::optional<LockingProcess> process(folder / "f");
  {
    WaitingWriter const writer(folder.wide("f"), folder / "f");
    EXPECT_EQ(fileBytes(folder / "f"), "[old]\n");
    process.reset();
  }
  EXPECT_EQ(fileBytes(folder / "f"), "[old]\n[new]\nk=v\n");
}

TEST(ProfileWritersTest, FileThatIsReplacedMeanwhileIsStartedAgainWith) {
  TemporaryFolder const folder;
  makeFile(folder / "f", "[old]\n");
  makeFile(folder / "neighbour", "[new]\n");
  // For ever: the file without a name is nothing to wait for.
  LockingProcess const process(folder / "f");
  {
    WaitingWriter const writer(folder.wide("f"), folder / "f");
    ASSERT_EQ(::rename((folder / "neighbour").c_str(), (folder / "f").c_str()), 0);
  }
  EXPECT_EQ(fileBytes(folder / "f"), "[new]\nk=v\n");
}

TEST(ProfileWritersTest, FileThatIsRemovedMeanwhileIsMade) {
  TemporaryFolder const folder;
  makeFile(folder / "f", "[old]\n");
  LockingProcess const process(folder / "f");
  {
    WaitingWriter const writer(folder.wide("f"), folder / "f");
    ASSERT_EQ(::unlink((folder / "f").c_str()), 0);
  }
  EXPECT_EQ(fileBytes(folder / "f"), "[new]\nk=v\n");
}

TEST(ProfileWritersTest, FolderThatIsReplacedMeanwhileIsStartedAgainWith) {
  TemporaryFolder const folder;
  ASSERT_EQ(::mkdir((folder / "a").c_str(), 0700), 0);
  ASSERT_EQ(::mkdir((folder / "b").c_str(), 0700), 0);
  makeFile(folder / "a/f", "[old]\n");
  makeFile(folder / "b/f", "[new]\n");
  {
    std::optional<LockingProcess> process(folder / "a/f");
    WaitingWriter const writer(folder.wide("a/f"), folder / "a/f");
    ASSERT_EQ(::rename((folder / "a").c_str(), (folder / "c").c_str()), 0);
    ASSERT_EQ(::rename((folder / "b").c_str(), (folder / "a").c_str()), 0);
    process.reset();
  }
  EXPECT_EQ(fileBytes(folder / "c/f"), "[old]\n");
  EXPECT_EQ(fileBytes(folder / "a/f"), "[new]\nk=v\n");
}

TEST(ProfileWritersTest, LinkThatLeadsElsewhereMeanwhileIsFollowedAgain) {
  TemporaryFolder const folder;
  makeFile(folder / "a", "[old]\n");
  makeFile(folder / "b", "[new]\n");
  ASSERT_EQ(::symlink("a", (folder / "f").c_str()), 0);
  ASSERT_EQ(::symlink("b", (folder / "g").c_str()), 0);
  LockingProcess const process(folder / "a");
  {
    WaitingWriter const writer(folder.wide("f"), folder / "a");
    ASSERT_EQ(::rename((folder / "g").c_str(), (folder / "f").c_str()), 0);
  }
  EXPECT_EQ(fileBytes(folder / "a"), "[old]\n");
  EXPECT_EQ(fileBytes(folder / "b"), "[new]\nk=v\n");
}

/// Exchanges two names, again and again, for as long as it lives.
class Exchanger {
public:
  Exchanger(std::string const& first, std::string const& second)
      : thread_([this, first, second] {
          while (!isOver_) {
            ::renameat2(AT_FDCWD, first.c_str(), AT_FDCWD, second.c_str(), RENAME_EXCHANGE);
          }
        }) {}

  ~Exchanger() {
    isOver_ = true;
    thread_.join();
  }

  Exchanger(Exchanger const&) = delete;
  Exchanger& operator=(Exchanger const&) = delete;

private:
  std::atomic<bool> isOver_{false};
  std::thread thread_;
};

/// A large file "mine/f" and a small one "other/f", of other modes, and two names of
/// which one is a link to the other's place.
class Exchange {
public:
  Exchange(std::string const& first, std::string const& second, char const* linkTarget)
      : first_(folder_ / first), second_(folder_ / second) {
    for (char const* const name : {"mine", "other"}) {
      EXPECT_EQ(::mkdir((folder_ / name).c_str(), 0700), 0);
    }
    makeFile(folder_ / "mine/f", "[mine]\n" + std::string(1 << 20, ';') + "\n");
    makeFile(folder_ / "other/f", "[other]\n");
    EXPECT_EQ(::chmod((folder_ / "mine/f").c_str(), 0666), 0);
    EXPECT_EQ(::chmod((folder_ / "other/f").c_str(), 0600), 0);
    EXPECT_EQ(::symlink(linkTarget, second_.c_str()), 0);
  }

  /// Whether the file system exchanges names.
  bool isPossible() const {
    constexpr auto kHere = AT_FDCWD;
    return ::renameat2(kHere, first_.c_str(), kHere, second_.c_str(), RENAME_EXCHANGE) == 0;
  }

  void writeMeanwhile() const {
    Exchanger const exchanger(first_, second_);
    for (int i = 0; i < 10; ++i) {
      write(folder_.wide("mine/f"), L"s", L"k", std::to_wstring(i).c_str());
    }
  }

  void expectNoMixture() const {
    struct stat status {};

    EXPECT_EQ(fileBytes(folder_ / "other/f").substr(0, 8), "[other]\n");
    EXPECT_EQ(::stat((folder_ / "other/f").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
  }

private:
  TemporaryFolder folder_;
  std::string first_;
  std::string second_;
};

// Whoever may change the folders on the way decides which file a write goes to, but
// cannot bring the contents, owner and mode of one into another.
TEST(ProfileWritersTest, NamesThatBecomeLinksMeanwhileNeverMixTwoFiles) {
  constexpr int kRounds = 10;
  for (int round = 0; round < kRounds; ++round) {
    Exchange const ofFolders("mine", "link", "other");
    Exchange const ofFiles("mine/f", "mine/link", "../other/f");
    if (!ofFolders.isPossible()) GTEST_SKIP() << "the file system does not exchange names";
    for (Exchange const* const exchange : {&ofFolders, &ofFiles}) {
      exchange->writeMeanwhile();
      exchange->expectNoMixture();
    }
  }
}

/// The steps of a write that can fail, in order.
std::vector<test::Fault> stepsOfAWrite(std::uint32_t action) {
  return {
      {"lock", {SYS_flock}, action},
      {"read", {SYS_read}, action},
      {"random", {SYS_getrandom}, action},
      {"write", {SYS_write}, action},
      {"flush", {SYS_fsync}, action},
      {"rename",
       {
#ifdef SYS_renameat
           SYS_renameat,
#endif
           SYS_renameat2,
       },
       action},
  };
}

TEST(ProfileWritersTest, FailureOfEachStepIsInErrnoAndLeavesTheOldFile) {
  for (test::Fault const& fault : stepsOfAWrite(test::failsWith(EIO))) {
    TemporaryFolder const folder;
    makeFile(folder / "f", "[s]\nk=v\n");
    std::wstring const old = folder.wide("f");
    std::wstring const fresh = folder.wide("new");
    pid_t const child = ::fork();
    if (child == 0) {
      if (!test::inject(fault)) ::_exit(3);
      bool const isTold = write(old, L"s", L"k", L"w") == std::strerror(EIO) &&
                          write(fresh, L"s", L"k", L"w") == std::strerror(EIO);
      ::_exit(isTold ? 0 : 4);
    }
    int const status = test::waitFor(child);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 3) GTEST_SKIP() << test::kNotInjected;
    EXPECT_EQ(status, 0) << fault.name;
    EXPECT_EQ(fileBytes(folder / "f"), "[s]\nk=v\n") << fault.name;
    // What could not be locked is not removed: it may be another's by then.
    bool const isLockFault = fault.calls.front() == SYS_flock;
    EXPECT_EQ(exists(folder / "new"), isLockFault) << fault.name;
    EXPECT_EQ(countIn(folder.path()), isLockFault ? 2U : 1U) << fault.name;
  }
}

TEST(ProfileLockTest, FilesThatOthersMakeOrMakeLinksOfMeanwhileAreStartedAgainWith) {
  constexpr int kOpen = O_RDWR | O_NOCTTY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;
  TemporaryFolder const folder;
  std::string const path = folder / "f";
  for (auto const& [number, flags] :
       {std::pair{EEXIST, kOpen | O_CREAT | O_EXCL}, {ELOOP, kOpen}}) {
    pid_t const child = ::fork();
    if (child == 0) {
      test::Argument const argument{2, flags};
      if (!test::inject({"open", {SYS_openat}, test::failsWith(number), argument})) ::_exit(3);
      ProfileLock lock;
      ::_exit(acquire(lock, path) == std::strerror(ETIMEDOUT) ? 0 : 4);
    }
    int const status = test::waitFor(child);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 3) GTEST_SKIP() << test::kNotInjected;
    EXPECT_EQ(status, 0) << std::strerror(number);
  }
}

TEST(ProfileWritersTest, DeathAtEachStepLeavesTheOldFileAndNoLock) {
  for (test::Fault const& fault : stepsOfAWrite(SECCOMP_RET_KILL_PROCESS)) {
    TemporaryFolder const folder;
    makeFile(folder / "f", "[s]\nk=v\n");
    std::wstring const file = folder.wide("f");
    pid_t const child = ::fork();
    if (child == 0) {
      if (!test::inject(fault)) ::_exit(3);
      write(file, L"s", L"k", L"w");
      ::_exit(4);
    }
    int const status = test::waitFor(child);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 3) GTEST_SKIP() << test::kNotInjected;
    EXPECT_TRUE(WIFSIGNALED(status)) << fault.name;
    EXPECT_EQ(fileBytes(folder / "f"), "[s]\nk=v\n") << fault.name;
    EXPECT_EQ(write(file, L"s", L"k", L"x"), "success") << fault.name;
  }
}

#endif

constexpr int kWriters = 8;
constexpr int kKeysOfAWriter = 25;

std::wstring keyOf(int writer, int number) {
  return L"key" + std::to_wstring(writer) + L"-" + std::to_wstring(number);
}

/// False where a write has failed.
bool writeKeys(std::wstring const& file, int writer) {
  bool isGood = true;
  for (int i = 0; i < kKeysOfAWriter; ++i) {
    std::wstring const key = keyOf(writer, i);
    isGood = write(file, L"s", key.c_str(), key.c_str()) == "success" && isGood;
  }
  return isGood;
}

void expectAllKeys(std::wstring const& file) {
  for (int writer = 0; writer < kWriters; ++writer) {
    for (int i = 0; i < kKeysOfAWriter; ++i) {
      std::wstring const key = keyOf(writer, i);
      EXPECT_EQ(valueOf(file, L"s", key.c_str()), key);
    }
  }
}

TEST(ProfileWritersTest, ProcessesThatWriteAtOnceLoseNothing) {
  TemporaryFolder const folder;
  std::wstring const file = folder.wide("f");
  std::vector<pid_t> children;
  for (int writer = 0; writer < kWriters; ++writer) {
    pid_t const child = ::fork();
    if (child == 0) ::_exit(writeKeys(file, writer) ? 0 : 1);
    children.push_back(child);
  }
  for (pid_t const child : children) EXPECT_EQ(test::waitFor(child), 0);
  expectAllKeys(file);
  EXPECT_EQ(countIn(folder.path()), 1U);
}

TEST(ProfileWritersTest, ThreadsThatWriteAtOnceLoseNothing) {
  TemporaryFolder const folder;
  std::wstring const file = folder.wide("f");
  std::vector<std::thread> threads;
  for (int writer = 0; writer < kWriters; ++writer) {
    threads.emplace_back([&file, writer] { EXPECT_TRUE(writeKeys(file, writer)); });
  }
  for (std::thread& thread : threads) thread.join();
  expectAllKeys(file);
}

/// Writes two values in turn, of different lengths, until it is killed; tells by a
/// byte that it has begun.
[[noreturn]] void writeForEver(std::wstring const& file, int begun) {
  std::array<std::wstring, 2> const values{std::wstring(100, L'a'), std::wstring(60000, L'b')};
  for (std::size_t i = 0;; ++i) {
    if (write(file, L"s", L"k", values[i % 2].c_str()) != "success") ::_exit(1);
    if (i == 0 && ::write(begun, "x", 1) != 1) ::_exit(2);
  }
}

TEST(ProfileWritersTest, KilledWriterLeavesTheOldFileOrTheNewOne) {
  constexpr int kRounds = 60;
  TemporaryFolder const folder;
  std::string const frame = "; top\n[s]\nk=";
  std::string const first = frame + std::string(100, 'a') + "\n; end\n";
  std::string const second = frame + std::string(60000, 'b') + "\n; end\n";
  makeFile(folder / "f", first);
  std::mt19937 random(20261121);
  for (int round = 0; round < kRounds; ++round) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    pid_t const child = ::fork();
    if (child == 0) writeForEver(folder.wide("f"), ends[1]);
    ::close(ends[1]);
    char begun = '\0';
    EXPECT_EQ(::read(ends[0], &begun, 1), 1);
    ::close(ends[0]);
    // Not to wait for anything, but to meet it anywhere.
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 8000));
    ASSERT_EQ(::kill(child, SIGKILL), 0);
    int const status = test::waitFor(child);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    std::string const bytes = fileBytes(folder / "f");
    ASSERT_TRUE(bytes == first || bytes == second) << round << ": " << bytes.size();
    // Nor does it leave a lock.
    ASSERT_EQ(write(folder.wide("f"), L"t", L"k", L"v"), "success");
    ASSERT_EQ(write(folder.wide("f"), L"t", nullptr, nullptr), "success");
  }
}

}  // namespace

}  // namespace vrxutil

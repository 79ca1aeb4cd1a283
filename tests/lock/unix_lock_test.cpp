#include "tests/lock/lock_support.h"
#include "tests/support/other_user.h"
#include "tests/support/temporary_folder.h"

#include <vrxutil/lock.h>

#include <atomic>
#include <bit>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <thread>
#include <type_traits>
#include <typeinfo>

#include <linux/capability.h>
#include <pthread.h>

namespace {

/// Whether whoever asks for memory finds another errno afterwards, as he may.
constinit thread_local bool spoilsErrno = false;

}  // namespace

[[gnu::noinline]] void* operator new(std::size_t size, std::nothrow_t const&) noexcept {
  void* const memory = std::malloc(size);
  if (spoilsErrno) errno = EDOM;
  return memory;
}

[[gnu::noinline]] void* operator new(std::size_t size) {
  void* const memory = ::operator new(size, std::nothrow);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }

[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

using namespace vrxutil::test;
using vornix_com::oxa::lock::ILock;
using vornix_com::oxa::lock::UnixLock;

constexpr char kName[] = "test-lock";

LogRecord detail(std::wstring const& text) { return detailRecord(L"IPLock", text); }

LogRecord info(std::wstring const& text) { return infoRecord(L"IPLock", text); }

/// What one logError() leaves.
Records failure(std::wstring const& text) { return errorInside({}, L"IPLock", text); }

std::wstring const kReadFailed = L"readLock - Timeout occured , failed to acquire the lock";
std::wstring const kWriteFailed = L"writeLock - Timeout occured , failed to acquire the lock";
std::wstring const kUnlockFailed = L"writeUnLock - decreasing the semaphore value failed";
std::wstring const kNotRoots = L"A non-root instance of this semaphore encountered so deleting it";

Records const kReadTaken{detail(L"readLock - providing read lock")};
Records const kWriteTaken{detail(L"writeLock - providing write lock")};
Records const kReadGivenBack{detail(L"readUnLock - unlocking the read lock successful")};
Records const kWriteGivenBack{detail(L"writeUnLock - unlocking the write lock successful")};

std::wstring wide(std::string const& text) { return {text.begin(), text.end()}; }

/// That the constructor throws std::exception itself, once it has logged `records`.
void expectRefused(std::string const& name, Records const& records) {
  LogRecorder const log;
  try {
    spoilsErrno = true;
    UnixLock const lock(name);
    spoilsErrno = false;
    ADD_FAILURE() << "made: " << name;
  } catch (std::exception const& exception) {
    spoilsErrno = false;
    EXPECT_EQ(typeid(exception), typeid(std::exception));
  }
  EXPECT_EQ(log.records(), records);
}

void expectNoFile(std::string const& name) {
  expectRefused(name, failure(L"Failed to create the file  " + wide(kLockFolder + name)));
}

semid_ds statusOf(int id) {
  semid_ds status{};
  EXPECT_EQ(::semctl(id, 0, IPC_STAT, SemaphoreArgument{.status = &status}), 0);
  return status;
}

void setValue(std::string const& name, int semaphore, int value) {
  ASSERT_EQ(::semctl(setOf(name), semaphore, SETVAL, SemaphoreArgument{.value = value}), 0);
}

void removeSetOf(std::string const& name) { ASSERT_EQ(::semctl(setOf(name), 0, IPC_RMID), 0); }

// ---- types

TEST(UnixLockTest, IsALock) {
  EXPECT_TRUE((std::is_base_of_v<ILock, UnixLock>));
  EXPECT_TRUE(std::is_abstract_v<ILock>);
  EXPECT_TRUE(std::has_virtual_destructor_v<ILock>);
  EXPECT_FALSE(std::is_copy_constructible_v<UnixLock>);
  EXPECT_FALSE(std::is_copy_assignable_v<UnixLock>);
}

/// Where the calls of a virtual function look in the table, counted in functions: what a
/// pointer to it says (Itanium C++ ABI, 2.3).
template <class Function>
std::ptrdiff_t placeOf(Function function) {
  static_assert(sizeof function == sizeof(std::array<std::ptrdiff_t, 2>));
  auto const parts = std::bit_cast<std::array<std::ptrdiff_t, 2>>(function);
  return parts[0] / std::ptrdiff_t{sizeof(void*)};
}

TEST(ILockTest, OperationsFollowTheDestructorInTheirOrder) {
  // The destructor has two places.
  EXPECT_EQ(placeOf(&ILock::tryReadLock), 2);
  EXPECT_EQ(placeOf(&ILock::tryWriteLock), 3);
  EXPECT_EQ(placeOf(&ILock::readLock), 4);
  EXPECT_EQ(placeOf(&ILock::writeLock), 5);
  EXPECT_EQ(placeOf(&ILock::readUnlock), 6);
  EXPECT_EQ(placeOf(&ILock::writeUnlock), 7);
}

TEST(ILockTest, HasTheseSixOperationsAlone) {
  class Lock final : public ILock {
  public:
    bool tryReadLock() override { return true; }

    bool tryWriteLock() override { return true; }

    bool readLock(unsigned int) override { return true; }

    bool writeLock(unsigned int) override { return true; }

    bool readUnlock() override { return true; }

    bool writeUnlock() override { return true; }
  };

  EXPECT_FALSE(std::is_abstract_v<Lock>);
  EXPECT_EQ(sizeof(Lock), sizeof(void*));
}

// ---- coming and going

TEST(UnixLockTest, MakesKeyFileAndSet) {
  expectInWorld([] {
    ::umask(0);
    LogRecorder const log;
    {
      UnixLock const lock(kName);
      struct stat file {};
      ASSERT_EQ(::stat(keyFile(kName).c_str(), &file), 0);
      EXPECT_EQ(file.st_mode, mode_t{S_IFREG | 0600});
      EXPECT_EQ(file.st_size, 0);
      EXPECT_EQ(valuesOf(kName), (Values{0, 0, 1}));
      semid_ds const set = statusOf(setOf(kName));
      EXPECT_EQ(set.sem_perm.mode & 0777, 0600);
      EXPECT_EQ(set.sem_perm.uid, 0U);
      EXPECT_EQ(set.sem_perm.cuid, 0U);
    }
    expectNothingLeft();
    EXPECT_EQ(log.records(), Records{});
  });
}

TEST(UnixLockTest, KeyIsMadeOfTheFileAndTheLowByteOfTheProject) {
  expectInWorld([] {
    UnixLock const lock(kName);
    struct stat file {};
    ASSERT_EQ(::stat(keyFile(kName).c_str(), &file), 0);
    auto const bits = static_cast<unsigned>((file.st_ino & 0xffff) | (file.st_dev & 0xff) << 16);
    EXPECT_NE(::semget(std::bit_cast<key_t>(bits | 0x99U << 24), 3, 0), -1);
  });
}

TEST(UnixLockTest, LeavesAKeyFileThatIsThereAsItIs) {
  expectInWorld([] {
    makeFile(keyFile(kName), "mine");
    ASSERT_EQ(::chmod(keyFile(kName).c_str(), 0644), 0);
    {
      UnixLock const lock(kName);
      EXPECT_EQ(fileBytes(keyFile(kName)), "mine");
      struct stat file {};
      ASSERT_EQ(::stat(keyFile(kName).c_str(), &file), 0);
      EXPECT_EQ(file.st_mode & 0777U, 0644U);
    }
    expectNothingLeft();
  });
}

TEST(UnixLockTest, LastObjectOfAProcessRemovesSetAndKeyFile) {
  expectInWorld([] {
    LogRecorder const log;
    auto first = std::make_unique<UnixLock>(kName);
    int const set = setOf(kName);
    auto second = std::make_unique<UnixLock>(kName);
    EXPECT_EQ(setOf(kName), set);
    EXPECT_EQ(valuesOf(kName), (Values{0, 0, 2}));
    first.reset();
    EXPECT_EQ(setOf(kName), set);
    EXPECT_EQ(valuesOf(kName), (Values{0, 0, 1}));
    second.reset();
    expectNothingLeft();
    EXPECT_EQ(log.records(), Records{});
  });
}

TEST(UnixLockTest, NamesAreLocksOfTheirOwn) {
  expectInWorld([] {
    UnixLock one("one");
    UnixLock two("two");
    EXPECT_NE(setOf("one"), setOf("two"));
    EXPECT_TRUE(one.tryWriteLock());
    EXPECT_TRUE(two.tryWriteLock());
  });
}

TEST(UnixLockTest, LastObjectRemovesALockThatIsHeld) {
  expectInWorld([] {
    {
      UnixLock lock(kName);
      ASSERT_TRUE(lock.tryWriteLock());
    }
    expectNothingLeft();
  });
}

/// What a set of a lock counts once `lock` has done something.
struct Operation {
  char const* name;
  bool (*run)(UnixLock&);
  Values before;
  Values after;
  Records records;
};

std::vector<Operation> const& operations() {
  static std::vector<Operation> const all{
      {"tryReadLock",
       [](UnixLock& lock) { return lock.tryReadLock(); },
       {0, 0, 1},
       {0, 1, 1},
       kReadTaken},
      {"tryReadLock besides readers",
       [](UnixLock& lock) { return lock.tryReadLock(); },
       {0, 7, 1},
       {0, 8, 1},
       kReadTaken},
      {"readLock",
       [](UnixLock& lock) { return lock.readLock(5); },
       {0, 0, 1},
       {0, 1, 1},
       kReadTaken},
      {"readLock besides readers",
       [](UnixLock& lock) { return lock.readLock(0); },
       {0, 7, 1},
       {0, 8, 1},
       kReadTaken},
      {"tryWriteLock",
       [](UnixLock& lock) { return lock.tryWriteLock(); },
       {0, 0, 1},
       {1, 1, 1},
       kWriteTaken},
      {"writeLock",
       [](UnixLock& lock) { return lock.writeLock(5); },
       {0, 0, 1},
       {1, 1, 1},
       kWriteTaken},
      {"readUnlock",
       [](UnixLock& lock) { return lock.readUnlock(); },
       {0, 3, 1},
       {0, 2, 1},
       kReadGivenBack},
      {"writeUnlock",
       [](UnixLock& lock) { return lock.writeUnlock(); },
       {1, 1, 1},
       {0, 0, 1},
       kWriteGivenBack},
      // Refused: nothing changes.
      {"tryReadLock against a writer",
       [](UnixLock& lock) { return lock.tryReadLock(); },
       {1, 1, 1},
       {1, 1, 1},
       failure(kReadFailed)},
      {"tryWriteLock against a writer",
       [](UnixLock& lock) { return lock.tryWriteLock(); },
       {1, 1, 1},
       {1, 1, 1},
       failure(kWriteFailed)},
      {"tryWriteLock against a reader",
       [](UnixLock& lock) { return lock.tryWriteLock(); },
       {0, 1, 1},
       {0, 1, 1},
       failure(kWriteFailed)},
      {"tryWriteLock against a writer that is no user",
       [](UnixLock& lock) { return lock.tryWriteLock(); },
       {1, 0, 1},
       {1, 0, 1},
       failure(kWriteFailed)},
      // More users than a semaphore counts.
      {"tryReadLock beyond all room",
       [](UnixLock& lock) { return lock.tryReadLock(); },
       {0, 32767, 1},
       {0, 32767, 1},
       failure(kReadFailed)},
      {"readLock beyond all room",
       [](UnixLock& lock) { return lock.readLock(5); },
       {0, 32767, 1},
       {0, 32767, 1},
       {info(kReadFailed)}},
  };
  return all;
}

/// What an operation logs that cannot be done.
Records whenRefused(Operation const& operation) {
  std::string const all = operation.name;
  std::string const name = all.substr(0, all.find(' '));
  auto const has = [&](char const* part) { return name.find(part) != std::string::npos; };
  if (has("Unlock")) return failure(kUnlockFailed);
  if (has("rite")) return failure(kWriteFailed);
  return has("try") ? failure(kReadFailed) : Records{info(kReadFailed)};
}

TEST(UnixLockTest, OperationsChangeTheSetAsAWhole) {
  expectInWorld([] {
    for (Operation const& operation : operations()) {
      SCOPED_TRACE(operation.name);
      UnixLock lock(kName);
      setValue(kName, 0, operation.before[0]);
      setValue(kName, 1, operation.before[1]);
      LogRecorder const log;
      EXPECT_EQ(operation.run(lock), operation.before != operation.after);
      EXPECT_EQ(valuesOf(kName), operation.after);
      EXPECT_EQ(log.records(), operation.records);
    }
    expectNothingLeft();
  });
}

TEST(UnixLockTest, ThreadsOfAProcessAreUsersLikeProcesses) {
  expectInWorld([] {
    LogRecorder const log;
    UnixLock lock(kName);
    std::thread([&] { EXPECT_TRUE(lock.tryReadLock()); }).join();
    EXPECT_EQ(valuesOf(kName), (Values{0, 1, 1}));  // the thread's end gave nothing back
    EXPECT_FALSE(lock.tryWriteLock());
    EXPECT_TRUE(lock.readUnlock());
    EXPECT_TRUE(lock.tryWriteLock());
    std::thread([&] { EXPECT_FALSE(lock.tryReadLock()); }).join();
    EXPECT_TRUE(lock.writeUnlock());
  });
}

// ---- waiting

/// A call in a thread of its own, for a call that waits.
class Waiter {
public:
  template <class Call>
  explicit Waiter(Call call) : thread_([this, call] { result_ = call(); }) {}

  bool result() {
    thread_.join();
    return result_;
  }

  void interrupt(int signal = SIGUSR1) { ::pthread_kill(thread_.native_handle(), signal); }

  void cancel() { ::pthread_cancel(thread_.native_handle()); }

private:
  bool result_ = false;
  std::thread thread_;
};

/// A child that comes to its end.
pid_t endingChild() {
  pid_t const child = ::fork();
  if (child == 0) ::_exit(0);
  return child;
}

struct Wait {
  char const* name;
  char const* inTheWay;  // what a foreign process has done
  char const* outOfTheWay;
  int semaphore;  // waited for to become 0
  bool isRead;
  unsigned timeout;
  Values meanwhile;
};

constexpr unsigned kLongest = std::numeric_limits<unsigned>::max();

std::vector<Wait> const& waits() {
  static std::vector<Wait> const all{
      {"read for a writer", "trywrite", "unwrite", 0, true, 5, {1, 1, 2}},
      {"read for a writer, no time", "trywrite", "unwrite", 0, true, 0, {1, 1, 2}},
      {"read for a writer, all time", "trywrite", "unwrite", 0, true, kLongest, {1, 1, 2}},
      {"write for a writer", "trywrite", "unwrite", 0, false, 5, {1, 1, 2}},
      {"write for a reader", "tryread", "unread", 1, false, 5, {0, 1, 2}},
      {"write for a reader, no time", "tryread", "unread", 1, false, 0, {0, 1, 2}},
      {"write for a reader, all time", "tryread", "unread", 1, false, kLongest, {0, 1, 2}},
  };
  return all;
}

/// Has `lock` wait for a foreign process, and does `meanwhile` when it does.
template <class Meanwhile>
void whileWaiting(Wait const& wait, Meanwhile meanwhile) {
  SCOPED_TRACE(wait.name);
  UnixLock lock(kName);
  Peer const other = foreignProcess();
  ASSERT_EQ(other.ask(std::string("attach ") + kName), "ok");
  ASSERT_EQ(other.ask(wait.inTheWay), "ok");
  Waiter waiter(
      [&] { return wait.isRead ? lock.readLock(wait.timeout) : lock.writeLock(wait.timeout); });
  EXPECT_TRUE(comesTrue([&] { return waitingForZero(kName, wait.semaphore) == 1; }));
  EXPECT_EQ(valuesOf(kName), wait.meanwhile);
  meanwhile(other, waiter);
}

TEST(UnixLockTest, WaitsUntilNobodyIsInTheWayWhateverTheTimeout) {
  expectInWorld([] {
    for (Wait const& wait : waits()) {
      LogRecorder const log;
      whileWaiting(wait, [&](Peer const& other, Waiter& waiter) {
        EXPECT_EQ(other.ask(wait.outOfTheWay), "ok");
        EXPECT_TRUE(waiter.result());
        EXPECT_EQ(valuesOf(kName), (wait.isRead ? Values{0, 1, 2} : Values{1, 1, 2}));
      });
      EXPECT_EQ(log.records(), wait.isRead ? kReadTaken : kWriteTaken);
    }
  });
}

/// Sets what a signal does, for a child.
void setAction(int signal, void (*handler)(int), int flags = 0) {
  struct sigaction action {};

  action.sa_handler = handler;
  action.sa_flags = flags;
  ASSERT_EQ(::sigaction(signal, &action, nullptr), 0) << signal;
}

void doNothing(int) {}

TEST(UnixLockTest, ASignalEndsAWait) {
  expectInWorld([] {
    for (Wait const& wait : waits()) {
      // SA_RESTART does not help (signal(7)).
      setAction(SIGUSR1, doNothing, wait.timeout == 5 ? 0 : SA_RESTART);
      LogRecorder const log;
      whileWaiting(wait, [&](Peer const&, Waiter& waiter) {
        waiter.interrupt();
        EXPECT_FALSE(waiter.result());
        EXPECT_EQ(valuesOf(kName), wait.meanwhile);
      });
      EXPECT_EQ(log.records(), wait.isRead ? Records{info(kReadFailed)} : failure(kWriteFailed));
    }
  });
}

/// All signals that a program may have a handler for.
std::vector<int> signals() {
  std::vector<int> all;
  for (int signal = 1; signal <= SIGRTMAX; ++signal) {
    bool const isTheLibrarys = signal > SIGSYS && signal < SIGRTMIN;
    if (signal != SIGKILL && signal != SIGSTOP && !isTheLibrarys) all.push_back(signal);
  }
  return all;
}

/// A wait for another object of this process.
template <class Meanwhile>
void whileWaitingAtHome(bool isRead, Meanwhile meanwhile) {
  UnixLock other(kName);
  ASSERT_TRUE(other.tryWriteLock());
  UnixLock lock(kName);
  Waiter waiter([&] { return isRead ? lock.readLock(5) : lock.writeLock(5); });
  EXPECT_TRUE(comesTrue([] { return waitingForZero(kName, 0) == 1; }));
  meanwhile(other, waiter);
}

TEST(UnixLockTest, EverySignalWithAHandlerEndsAWait) {
  expectInWorld([] {
    for (int const signal : signals()) {
      SCOPED_TRACE(signal);
      for (bool const isRead : {true, false}) {
        setAction(signal, doNothing, isRead ? SA_RESTART : 0);
        LogRecorder log;
        whileWaitingAtHome(isRead, [&](UnixLock&, Waiter& waiter) {
          log.clear();
          waiter.interrupt(signal);
          EXPECT_FALSE(waiter.result());
          EXPECT_EQ(log.records(), isRead ? Records{info(kReadFailed)} : failure(kWriteFailed));
          EXPECT_EQ(valuesOf(kName), (Values{1, 1, 2}));
        });
      }
      setAction(signal, SIG_DFL);
    }
  });
}

TEST(UnixLockTest, SignalsThatNobodyHandlesDoNotEndAWait) {
  expectInWorld([] {
    for (int const signal : signals()) {
      if (signal != SIGCHLD && signal != SIGALRM) setAction(signal, SIG_IGN);
    }
    LogRecorder const log;
    for (bool const isRead : {true, false}) {
      whileWaitingAtHome(isRead, [&](UnixLock& other, Waiter& waiter) {
        for (int const signal : signals()) {
          if (signal != SIGALRM) waiter.interrupt(signal);  // the end of a child that hangs
        }
        for (int i = 0; i < 50; ++i) waitFor(endingChild());
        EXPECT_EQ(waitingForZero(kName, 0), 1);
        EXPECT_TRUE(other.writeUnlock());
        EXPECT_TRUE(waiter.result());
      });
    }
  });
}

TEST(UnixLockTest, TheEndOfAChildEndsAWaitWhereItIsHandled) {
  expectInWorld([] {
    setAction(SIGCHLD, doNothing, SA_RESTART | SA_NOCLDSTOP);
    LogRecorder const log;
    whileWaitingAtHome(true, [&](UnixLock& other, Waiter& waiter) {
      sigset_t children;
      ::sigemptyset(&children);
      ::sigaddset(&children, SIGCHLD);
      ::pthread_sigmask(SIG_BLOCK, &children, nullptr);  // the waiter alone takes them
      std::vector<pid_t> burst;
      for (int i = 0; i < 50; ++i) burst.push_back(endingChild());
      EXPECT_FALSE(waiter.result());
      for (pid_t const child : burst) waitFor(child);
      EXPECT_TRUE(other.writeUnlock());
    });
  });
}

TEST(UnixLockTest, AStoppedProcessWaitsNoLongerWhenItGoesOn) {
  expectInWorld([] {
    UnixLock lock(kName);
    ASSERT_TRUE(lock.tryWriteLock());
    for (char const* const wait : {"read", "write"}) {
      Peer const waiter = ownProcess();
      ASSERT_EQ(waiter.ask(std::string("attach ") + kName), "ok");
      waiter.tell(wait);
      EXPECT_TRUE(comesTrue([] { return waitingForZero(kName, 0) == 1; }));
      ::kill(waiter.process(), SIGSTOP);
      int status = 0;
      ASSERT_EQ(::waitpid(waiter.process(), &status, WUNTRACED), waiter.process());
      ASSERT_TRUE(WIFSTOPPED(status));
      ::kill(waiter.process(), SIGCONT);
      EXPECT_EQ(waiter.answer(), "no");
      EXPECT_EQ(valuesOf(kName), (Values{1, 1, 2}));
    }
  });
}

TEST(UnixLockTest, RemovalOfTheSetEndsAWait) {
  expectInWorld([] {
    std::wstring const path = wide(keyFile(kName));
    for (Wait const& wait : waits()) {
      LogRecorder const log;
      whileWaiting(wait, [](Peer const&, Waiter& waiter) {
        removeSetOf(kName);
        EXPECT_FALSE(waiter.result());
      });
      EXPECT_EQ(log.records(), (wait.isRead ? Records{info(kReadFailed)} : failure(kWriteFailed)) +
                                   failure(L"Failed to decrease the refrence count " + path));
    }
  });
}

TEST(UnixLockTest, GivingBackWhatNobodyHoldsWaitsForSomebody) {
  expectInWorld([] {
    LogRecorder const log;
    UnixLock lock(kName);
    Waiter waiter([&] { return lock.readUnlock(); });
    EXPECT_TRUE(comesTrue([] { return waitingForMore(kName, 1) == 1; }));
    EXPECT_TRUE(lock.readLock(5));
    EXPECT_TRUE(waiter.result());
    EXPECT_EQ(valuesOf(kName), (Values{0, 0, 1}));
  });
}

TEST(UnixLockTest, DetachingFromASetWithoutReferencesWaitsForOne) {
  expectInWorld([] {
    LogRecorder const log;
    auto lock = std::make_unique<UnixLock>(kName);
    setValue(kName, 2, 0);
    Waiter waiter([&] { return lock.reset(), true; });
    EXPECT_TRUE(comesTrue([] { return waitingForMore(kName, 2) == 1; }));
    setValue(kName, 2, 1);
    EXPECT_TRUE(waiter.result());
    expectNothingLeft();
    EXPECT_EQ(log.records(), Records{});
  });
}

TEST(UnixLockTest, ASignalEndsTheWaitOfADestructor) {
  expectInWorld([] {
    setAction(SIGUSR1, doNothing);
    LogRecorder const log;
    auto lock = std::make_unique<UnixLock>(kName);
    setValue(kName, 2, 0);
    Waiter waiter([&] { return lock.reset(), true; });
    EXPECT_TRUE(comesTrue([] { return waitingForMore(kName, 2) == 1; }));
    waiter.interrupt();
    EXPECT_TRUE(waiter.result());
    EXPECT_EQ(log.records(),
              failure(L"Failed to decrease the refrence count " + wide(keyFile(kName))));
    EXPECT_EQ(valuesOf(kName), (Values{0, 0, 0}));  // and the key file is still there
  });
}

// ---- sets that are there already

struct FoundSet {
  char const* name;
  uid_t owner;
  unsigned mode;
  bool isKept;
};

TEST(UnixLockTest, KeepsOnlyASetOfRootThatIsNotClosed) {
  expectInWorld([] {
    constexpr FoundSet kSets[] = {
        {"of root", 0, 0600, true},
        {"to be read", 0, 0400, true},
        {"to be changed", 0, 0200, true},
        {"of root for all", 0, 0666, true},
        {"closed", 0, 0, false},
        {"closed to its owner", 0, 0066, false},
        {"of another", kOtherUser, 0600, false},
    };
    bool const hasOtherUsers = ::seteuid(kOtherUser) == 0 && ::seteuid(0) == 0;
    for (FoundSet const& found : kSets) {
      if (found.owner != 0 && !hasOtherUsers) continue;  // a world of one user
      SCOPED_TRACE(found.name);
      int const id = makeSet(kName, 3);
      ASSERT_NE(id, -1);
      semid_ds status{};
      status.sem_perm.uid = found.owner;
      status.sem_perm.mode = static_cast<decltype(status.sem_perm.mode)>(found.mode);
      ASSERT_EQ(::semctl(id, 0, IPC_SET, SemaphoreArgument{.status = &status}), 0);
      LogRecorder const log;
      {
        UnixLock const lock(kName);
        EXPECT_EQ(setOf(kName) == id, found.isKept);
        EXPECT_EQ(valuesOf(kName), (Values{0, 0, 1}));
        semid_ds const now = statusOf(setOf(kName));
        EXPECT_EQ(now.sem_perm.uid, 0U);
        EXPECT_EQ(now.sem_perm.mode & 0777U, found.isKept ? found.mode : 0600U);
      }
      EXPECT_EQ(log.records(), found.isKept ? Records{} : failure(kNotRoots));
      expectNothingLeft();
    }
  });
}

constexpr char kNoOtherUser[] = "needs root, private mounts and semaphores";

/// As expectInWorld(), where there are users beside root.
template <class Scenario>
void expectInWorldOfUsers(Scenario scenario) {
  expectAllowedInChild(kNoOtherUser, [&] {
    if (::geteuid() != 0 || !enterWorld()) leaveAsNotAllowed();
    ASSERT_EQ(::chmod(kLockFolder, 0777), 0);
    scenario();
  });
}

/// Makes a set in a process of the user; its creator stays who he is.
void makeSetAs(uid_t user, std::string const& name) {
  ASSERT_TRUE(holdsInChild([&] {
    becomeOtherUser(user);
    ASSERT_NE(makeSet(name, 3, 0666), -1);
  }));
}

TEST(UnixLockTest, ReplacesASetThatAnotherUserHasMadeEvenIfItIsGivenToRoot) {
  expectInWorldOfUsers([] {
    makeSetAs(kOtherUser, kName);
    int const id = setOf(kName);
    semid_ds status{};
    status.sem_perm.mode = 0600;
    ASSERT_EQ(::semctl(id, 0, IPC_SET, SemaphoreArgument{.status = &status}), 0);
    ASSERT_EQ(statusOf(id).sem_perm.uid, 0U);
    LogRecorder const log;
    {
      UnixLock const lock(kName);
      EXPECT_NE(setOf(kName), id);
      EXPECT_EQ(statusOf(setOf(kName)).sem_perm.cuid, 0U);
    }
    EXPECT_EQ(log.records(), failure(kNotRoots));
    expectNothingLeft();
  });
}

TEST(UnixLockTest, UsesAnUntrustedSetThatItCannotRemove) {
  expectInWorldOfUsers([] {
    makeSetAs(kOtherUser + 1, kName);
    int const id = setOf(kName);
    becomeOtherUser();
    LogRecorder const log;
    {
      UnixLock const lock(kName);
      EXPECT_EQ(setOf(kName), id);
      EXPECT_EQ(valuesOf(kName), (Values{0, 0, 1}));
    }
    EXPECT_EQ(log.records(),
              failure(kNotRoots) +
                  Records{detail(L"Failed to delete the semaphore on 0 refrence count")});
    EXPECT_EQ(valuesOf(kName), (Values{0, 0, 0}));  // and the key file is still there
  });
}

TEST(UnixLockTest, LastObjectThatCannotRemoveTheSetLeavesTheKeyFile) {
  expectInWorldOfUsers([] {
    makeFile(keyFile(kName), "");
    ASSERT_NE(makeSet(kName, 3, 0666), -1);
    becomeOtherUser();
    LogRecorder const log;
    { UnixLock const lock(kName); }
    EXPECT_EQ(log.records(),
              Records{detail(L"Failed to delete the semaphore on 0 refrence count")});
    EXPECT_EQ(valuesOf(kName), (Values{0, 0, 0}));
  });
}

TEST(UnixLockTest, RefusesASetThatIsClosedToIt) {
  expectInWorldOfUsers([] {
    ASSERT_NE(makeSet(kName, 3, 0600), -1);
    std::wstring const key = std::to_wstring(keyOf(keyFile(kName)));
    becomeOtherUser();
    expectRefused(kName, failure(L"Failed to create the semaphore due to " + reason(EACCES) +
                                 L" first parameter is " + key));
  });
}

TEST(UnixLockTest, RefusesASetThatIsTooSmall) {
  expectInWorld([] {
    for (int const count : {1, 2}) {
      std::string const name = "of-" + std::to_string(count);
      int const id = makeSet(name, count);
      ASSERT_NE(id, -1);
      expectRefused(name, failure(L"Failed to create the semaphore due to " + reason(EINVAL) +
                                  L" first parameter is " + std::to_wstring(keyOf(keyFile(name)))));
      EXPECT_EQ(valuesOfSet(id), Values(static_cast<std::size_t>(count)));
      EXPECT_TRUE(exists(keyFile(name)));
    }
  });
}

TEST(UnixLockTest, UsesTheFirstThreeOfALargerSet) {
  expectInWorld([] {
    ASSERT_NE(makeSet(kName, 17), -1);
    LogRecorder const log;
    {
      UnixLock lock(kName);
      EXPECT_TRUE(lock.tryWriteLock());
      Values expected(17);
      expected[0] = expected[1] = expected[2] = 1;
      EXPECT_EQ(valuesOf(kName), expected);
    }
    EXPECT_EQ(log.records(), kWriteTaken);
    expectNothingLeft();
  });
}

TEST(UnixLockTest, FailsToAttachToASetWithTooManyReferences) {
  expectInWorld([] {
    ASSERT_NE(makeSet(kName, 3), -1);
    setValue(kName, 2, 32767);
    expectRefused(kName,
                  failure(L"Failed to increase the refrence count due to " + reason(ERANGE)));
    EXPECT_EQ(valuesOf(kName), (Values{0, 0, 32767}));
    EXPECT_TRUE(exists(keyFile(kName)));
  });
}

/// Lets no more sets be made.
void useUpTheSets() {
  std::ofstream("/proc/sys/kernel/sem") << "32000 1024000000 500 3" << std::flush;
  while (::semget(IPC_PRIVATE, 1, 0600) != -1) {
  }
  ASSERT_EQ(errno, ENOSPC);
}

TEST(UnixLockTest, FailsWhereThereIsNoRoomForASet) {
  expectInWorld([] {
    useUpTheSets();
    LogRecorder const log;
    EXPECT_THROW(UnixLock{kName}, std::exception);
    ASSERT_TRUE(exists(keyFile(kName)));
    EXPECT_EQ(log.records(),
              failure(L"Failed to create the semaphore due to " + reason(ENOSPC) +
                      L" first parameter is " + std::to_wstring(keyOf(keyFile(kName)))));
  });
}

// ---- key files

TEST(UnixLockTest, FailsWithoutTheFolder) {
  expectInWorld([] {
    std::filesystem::remove(kLockFolder);
    expectNoFile(kName);
    EXPECT_FALSE(exists(kLockFolder));
  });
}

TEST(UnixLockTest, FailsWithAFileInTheFoldersPlace) {
  expectInWorld([] {
    std::string const path(kLockFolder, std::strlen(kLockFolder) - 1);
    std::filesystem::remove(path);
    makeFile(path, "");
    expectNoFile(kName);
    LogRecorder const log;
    UnixLock::cleanSemaphore(kName);
    EXPECT_EQ(log.records(), Records{});
    EXPECT_TRUE(std::filesystem::is_regular_file(path));
  });
}

/// Makes root subject to the modes of files.
void obeyFileModes() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> rights{};
  ASSERT_EQ(::syscall(SYS_capget, &header, rights.data()), 0);
  rights[0].effective &= ~(1U << CAP_DAC_OVERRIDE | 1U << CAP_DAC_READ_SEARCH);
  ASSERT_EQ(::syscall(SYS_capset, &header, rights.data()), 0);
}

TEST(UnixLockTest, GoesOnWithoutAFolderThatCannotBeOpened) {
  expectInWorld([] {
    ASSERT_EQ(::chmod(kLockFolder, 0300), 0);
    obeyFileModes();
    ASSERT_EQ(::open(kLockFolder, O_RDONLY | O_CLOEXEC), -1);
    LogRecorder const log;
    {
      UnixLock lock(kName);
      EXPECT_EQ(valuesOf(kName), (Values{0, 0, 1}));
      EXPECT_TRUE(lock.tryReadLock());
    }
    EXPECT_EQ(setCount(), 0);
    EXPECT_FALSE(exists(keyFile(kName)));
    ASSERT_NE(makeSet(kName, 3), -1);
    UnixLock::cleanSemaphore(kName);
    EXPECT_EQ(setCount(), 0);
    EXPECT_FALSE(exists(keyFile(kName)));
    EXPECT_EQ(log.records(), kReadTaken);
  });
}

TEST(UnixLockTest, KeepsNoDescriptor) {
  expectInWorld([] {
    LogRecorder const log;
    { UnixLock const first(kName); }
    std::size_t const before = entryCount("/proc/self/fd");
    UnixLock const lock(kName);
    EXPECT_THROW(UnixLock("no-folder/name"), std::exception);
    ASSERT_NE(makeSet("too-small", 1), -1);
    EXPECT_THROW(UnixLock("too-small"), std::exception);
    UnixLock::cleanSemaphore("no-lock");
    { UnixLock const other("other"); }
    EXPECT_EQ(entryCount("/proc/self/fd"), before);
  });
}

TEST(UnixLockTest, FailsWhereTheKeyFileCannotBeMade) {
  expectInWorld([] {
    std::filesystem::create_symlink("/nowhere/at-all", keyFile("link"));
    makeFile(keyFile("file"), "");
    for (std::string const& name : {std::string("no-folder/name"), std::string(300, 'n'),
                                    std::string("link"), std::string("file/name")}) {
      expectNoFile(name);
    }
    EXPECT_EQ(setCount(), 0);
  });
}

TEST(UnixLockTest, RefusesNamesThatLeadOutOfTheFolder) {
  expectInWorld([] {
    std::filesystem::create_directory(keyFile("sub"));
    std::size_t const entries = entryCount(kLockFolder);
    for (char const* const name :
         {"..", "../name", "sub/..", "sub/../name", "/..", "sub//../name", "../", "sub/../.."}) {
      expectNoFile(name);
    }
    EXPECT_EQ(entryCount(kLockFolder), entries);
    EXPECT_EQ(setCount(), 0);
  });
}

TEST(UnixLockTest, RefusesANulInAName) {
  expectInWorld([] {
    std::wstring const cut = L"Failed to create the file  " + wide(keyFile("name"));
    for (std::string const& name : {std::string("name\0", 5), std::string("name\0more", 9)}) {
      expectRefused(name, failure(cut));
    }
    EXPECT_TRUE(std::filesystem::is_empty(kLockFolder));
  });
}

TEST(UnixLockTest, UsesOtherNamesAsTheyAre) {
  expectInWorld([] {
    std::filesystem::create_directory(keyFile("sub"));
    for (std::string const& name :
         {std::string("..."), std::string("..a"), std::string("a.."), std::string("a..b"),
          std::string(".hidden"), std::string("two words"), std::string("sub/name"),
          std::string("./name"), std::string("/name"), std::string(255, 'n')}) {
      SCOPED_TRACE(name);
      LogRecorder const log;
      {
        UnixLock const lock(name);
        EXPECT_TRUE(exists(kLockFolder + name));
        EXPECT_EQ(valuesOf(name), (Values{0, 0, 1}));
      }
      EXPECT_FALSE(exists(kLockFolder + name));
      EXPECT_EQ(log.records(), Records{});
    }
    EXPECT_EQ(setCount(), 0);
  });
}

TEST(UnixLockTest, AFolderServesAsKeyFileAndStays) {
  expectInWorld([] {
    std::filesystem::create_directory(keyFile("folder"));
    for (char const* const name : {"folder", "folder/", ""}) {
      SCOPED_TRACE(name);
      LogRecorder const log;
      {
        UnixLock const lock(name);
        EXPECT_EQ(valuesOf(name), (Values{0, 0, 1}));
      }
      EXPECT_EQ(log.records(), Records{});
      EXPECT_TRUE(std::filesystem::is_directory(keyFile(name)));
      EXPECT_EQ(setCount(), 0);
    }
  });
}

TEST(UnixLockTest, AFifoServesAsKeyFileUnopened) {
  expectInWorld([] {
    ASSERT_EQ(::mkfifo(keyFile(kName).c_str(), 0600), 0);
    {
      UnixLock const lock(kName);
      EXPECT_TRUE(std::filesystem::is_fifo(keyFile(kName)));
      EXPECT_EQ(valuesOf(kName), (Values{0, 0, 1}));
    }
    expectNothingLeft();
  });
}

TEST(UnixLockTest, MakesTheTargetOfALinkAndRemovesTheLink) {
  expectInWorld([] {
    std::filesystem::create_symlink("target", keyFile(kName));
    {
      UnixLock const lock(kName);
      EXPECT_TRUE(std::filesystem::is_symlink(keyFile(kName)));
      EXPECT_TRUE(std::filesystem::is_regular_file(keyFile("target")));
      EXPECT_EQ(valuesOf("target"), (Values{0, 0, 1}));
    }
    EXPECT_FALSE(exists(keyFile(kName)));
    EXPECT_TRUE(exists(keyFile("target")));
    EXPECT_EQ(setCount(), 0);
  });
}

// ---- sets that go

TEST(UnixLockTest, EverythingFailsOnceTheSetIsGone) {
  expectInWorld([] {
    for (Operation const& operation : operations()) {
      SCOPED_TRACE(operation.name);
      LogRecorder log;
      std::wstring const path = wide(keyFile(kName));
      {
        UnixLock lock(kName);
        removeSetOf(kName);
        EXPECT_FALSE(operation.run(lock));
        EXPECT_EQ(log.records(), whenRefused(operation));
        log.clear();
      }
      EXPECT_EQ(log.records(), failure(L"Failed to decrease the refrence count " + path));
      EXPECT_TRUE(exists(keyFile(kName)));
      EXPECT_EQ(setCount(), 0);
    }
  });
}

/// Makes a set whose number is that of one that is gone; false where the host does not
/// let the next number be chosen.
bool makeStranger(int id) {
  std::ofstream next("/proc/sys/kernel/sem_next_id");
  if (!(next << id << std::flush)) return false;
  return ::semget(IPC_PRIVATE, 3, 0600) == id;
}

TEST(UnixLockTest, LeavesAStrangersSetWithTheSameNumberAlone) {
  expectAllowedInChild("the host does not let the number of a set be chosen", [] {
    if (!enterWorld()) leaveAsNotAllowed();
    auto const setUp = [](Values const& values, int& id) {
      if (!makeStranger(id)) leaveAsNotAllowed();
      for (int i = 0; i < 3; ++i) {
        ::semctl(id, i, SETVAL, SemaphoreArgument{.value = values[static_cast<std::size_t>(i)]});
      }
    };
    for (Operation const& operation : operations()) {
      SCOPED_TRACE(operation.name);
      LogRecorder const log;
      int id = -1;
      {
        UnixLock lock(kName);
        id = setOf(kName);
        removeSetOf(kName);
        EXPECT_FALSE(lock.tryReadLock());  // EINVAL: the set is known to be gone
        setUp(operation.before, id);
        EXPECT_FALSE(operation.run(lock));
        EXPECT_EQ(valuesOfSet(id), operation.before);
      }
      EXPECT_EQ(valuesOfSet(id), operation.before);
      ASSERT_EQ(::semctl(id, 0, IPC_RMID), 0);
    }
  });
}

TEST(UnixLockTest, LeavesAStrangersSetAloneAfterAWaitThatRemovalHasEnded) {
  expectAllowedInChild("the host does not let the number of a set be chosen", [] {
    if (!enterWorld()) leaveAsNotAllowed();
    LogRecorder const log;
    whileWaiting(waits()[0], [](Peer const&, Waiter& waiter) {
      int const id = setOf(kName);
      removeSetOf(kName);
      EXPECT_FALSE(waiter.result());  // EIDRM
      if (!makeStranger(id)) leaveAsNotAllowed();
      ::semctl(id, 2, SETVAL, SemaphoreArgument{.value = 1});
    });
    EXPECT_EQ(setCount(), 1);  // neither detached from nor removed
  });
}

TEST(UnixLockTest, ThreadsMayFindTheSetGoneAtOnce) {
  expectInWorld([] {
    LogRecorder const log;
    UnixLock lock(kName);
    std::atomic<int> running{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
      threads.emplace_back([&] {
        ++running;
        while (lock.tryReadLock()) EXPECT_TRUE(lock.readUnlock() || setCount() == 0);
        EXPECT_FALSE(lock.tryWriteLock());
      });
    }
    EXPECT_TRUE(comesTrue([&] { return running == 8; }));
    removeSetOf(kName);
    for (std::thread& thread : threads) thread.join();
  });
}

// ---- processes that die

TEST(UnixLockTest, TheKernelGivesBackWhatAKilledProcessHeld) {
  expectInWorld([] {
    for (char const* const hold : {"tryread", "read", "trywrite", "write", ""}) {
      SCOPED_TRACE(hold);
      Peer holder = ownProcess();
      ASSERT_EQ(holder.ask(std::string("attach ") + kName), "ok");
      if (*hold != '\0') {
        ASSERT_EQ(holder.ask(hold), "ok");
      }
      int const id = setOf(kName);
      holder.kill();
      EXPECT_EQ(setOf(kName), id);
      EXPECT_EQ(valuesOf(kName), (Values{0, 0, 0}));
      EXPECT_TRUE(exists(keyFile(kName)));
      LogRecorder const log;
      {
        UnixLock lock(kName);
        EXPECT_EQ(setOf(kName), id);
        EXPECT_TRUE(lock.tryWriteLock());
      }
      EXPECT_EQ(log.records(), kWriteTaken);
      expectNothingLeft();
    }
  });
}

TEST(UnixLockTest, AProcessThatExitsGivesBackWhatItHeld) {
  expectInWorld([] {
    UnixLock const lock(kName);
    ASSERT_TRUE(holdsInChild([] {
      auto* const held = new UnixLock(kName);
      EXPECT_TRUE(held->tryWriteLock());
      EXPECT_EQ(valuesOf(kName), (Values{1, 1, 2}));
      ::_exit(testing::Test::HasFailure() ? 1 : 0);
    }));
    EXPECT_EQ(valuesOf(kName), (Values{0, 0, 1}));
  });
}

TEST(UnixLockTest, AKilledWaiterLeavesNoTrace) {
  expectInWorld([] {
    UnixLock lock(kName);
    ASSERT_TRUE(lock.tryWriteLock());
    for (char const* const wait : {"read", "write"}) {
      Peer waiter = ownProcess();
      ASSERT_EQ(waiter.ask(std::string("attach ") + kName), "ok");
      waiter.tell(wait);
      EXPECT_TRUE(comesTrue([] { return waitingForZero(kName, 0) == 1; }));
      waiter.kill();
      EXPECT_EQ(valuesOf(kName), (Values{1, 1, 1}));
      EXPECT_EQ(waitingForZero(kName, 0), 0);
    }
  });
}

TEST(UnixLockTest, DeathOfAWriterLetsAWaiterIn) {
  expectInWorld([] {
    LogRecorder const log;
    Peer holder = ownProcess();
    ASSERT_EQ(holder.ask(std::string("attach ") + kName), "ok");
    ASSERT_EQ(holder.ask("write"), "ok");
    UnixLock lock(kName);
    Waiter waiter([&] { return lock.writeLock(5); });
    EXPECT_TRUE(comesTrue([] { return waitingForZero(kName, 0) == 1; }));
    holder.kill();
    EXPECT_TRUE(waiter.result());
    EXPECT_EQ(valuesOf(kName), (Values{1, 1, 1}));
  });
}

// ---- forked children

TEST(UnixLockTest, AForkedChildTakesNothingFromItsParent) {
  expectInWorld([] {
    for (Operation const& operation : operations()) {
      SCOPED_TRACE(operation.name);
      auto lock = std::make_unique<UnixLock>(kName);
      ASSERT_TRUE(lock->tryReadLock());
      EXPECT_TRUE(holdsInChild([&] {
        LogRecorder log;
        EXPECT_FALSE(operation.run(*lock));
        EXPECT_EQ(log.records(), whenRefused(operation));
        log.clear();
        lock.reset();
        EXPECT_EQ(log.records(), Records{});
      }));
      EXPECT_EQ(valuesOf(kName), (Values{0, 1, 1}));
      EXPECT_TRUE(lock->readUnlock());
    }
    expectNothingLeft();
  });
}

TEST(UnixLockTest, AForkedChildMakesALockOfItsOwn) {
  expectInWorld([] {
    UnixLock const lock(kName);
    EXPECT_TRUE(holdsInChild([] {
      LogRecorder const log;
      UnixLock own(kName);
      EXPECT_EQ(valuesOf(kName), (Values{0, 0, 2}));
      EXPECT_TRUE(own.tryWriteLock());
      EXPECT_TRUE(holdsInChild([&] { EXPECT_FALSE(own.writeUnlock()); }));  // a grandchild
      EXPECT_TRUE(own.writeUnlock());
    }));
    EXPECT_EQ(valuesOf(kName), (Values{0, 0, 1}));
  });
}

// ---- cleanSemaphore

TEST(UnixLockTest, CleaningRemovesSetAndKeyFileOfALockThatIsLeft) {
  expectInWorld([] {
    Peer holder = ownProcess();
    ASSERT_EQ(holder.ask(std::string("attach ") + kName), "ok");
    holder.kill();
    LogRecorder const log;
    UnixLock::cleanSemaphore(kName);
    expectNothingLeft();
    EXPECT_EQ(log.records(), Records{});
  });
}

TEST(UnixLockTest, CleaningRemovesEvenALockThatIsHeld) {
  expectInWorld([] {
    LogRecorder const log;
    UnixLock lock(kName);
    ASSERT_TRUE(lock.tryReadLock());
    UnixLock::cleanSemaphore(kName);
    expectNothingLeft();
    EXPECT_EQ(log.records(), kReadTaken);
    EXPECT_FALSE(lock.readUnlock());
  });
}

TEST(UnixLockTest, CleaningWhatIsNotThereDoesNothing) {
  expectInWorld([] {
    makeFile(keyFile("no-set"), "");
    ASSERT_NE(makeSet("too-small", 2), -1);
    LogRecorder const log;
    for (char const* const name : {"no-file", "no-set", "too-small", "no-folder/name", ""}) {
      UnixLock::cleanSemaphore(name);
    }
    EXPECT_EQ(log.records(), Records{});
    EXPECT_TRUE(exists(keyFile("no-set")));
    EXPECT_TRUE(exists(keyFile("too-small")));
    EXPECT_EQ(setCount(), 1);
  });
}

TEST(UnixLockTest, CleaningRemovesASetThatIsLargerOrUntrusted) {
  expectInWorld([] {
    ASSERT_NE(makeSet(kName, 17, 0), -1);
    UnixLock::cleanSemaphore(kName);
    expectNothingLeft();
  });
}

TEST(UnixLockTest, CleaningLeavesTheKeyFileOfASetThatItCannotRemove) {
  expectInWorldOfUsers([] {
    ASSERT_NE(makeSet(kName, 3, 0666), -1);
    becomeOtherUser();
    LogRecorder const log;
    UnixLock::cleanSemaphore(kName);
    EXPECT_EQ(log.records(), Records{});
    EXPECT_EQ(valuesOf(kName), (Values{0, 0, 0}));
  });
}

TEST(UnixLockTest, CleaningRefusesNamesThatLeadOutOfTheFolderQuietly) {
  expectInWorld([] {
    std::filesystem::create_directory(keyFile("sub"));
    ASSERT_NE(makeSet("../outside", 3), -1);
    ASSERT_NE(makeSet("inside", 3), -1);
    LogRecorder const log;
    for (std::string const& name :
         {std::string("../outside"), std::string("sub/../inside"), std::string(".."),
          std::string("inside\0", 7), std::string("inside\0more", 11)}) {
      UnixLock::cleanSemaphore(name);
    }
    EXPECT_EQ(setCount(), 2);
    EXPECT_TRUE(exists(keyFile("../outside")));
    EXPECT_TRUE(exists(keyFile("inside")));
    EXPECT_EQ(log.records(), Records{});
  });
}

TEST(UnixLockTest, CleaningTurnsToTheTemporaryFolderOnlyWithoutTheFolder) {
  expectInWorld([] {
    ASSERT_EQ(::mount("tmpfs", "/tmp", "tmpfs", 0, nullptr), 0);
    std::string const file = std::string("/tmp/") + kName;
    makeFile(file, "");
    ASSERT_NE(::semget(keyOf(file), 3, IPC_CREAT | 0600), -1);
    LogRecorder const log;
    UnixLock::cleanSemaphore(kName);
    EXPECT_TRUE(exists(file));
    EXPECT_EQ(setCount(), 1);
    std::filesystem::remove(kLockFolder);
    UnixLock::cleanSemaphore("another");
    EXPECT_EQ(setCount(), 1);
    UnixLock::cleanSemaphore(kName);
    EXPECT_FALSE(exists(file));
    EXPECT_EQ(setCount(), 0);
    EXPECT_EQ(log.records(), Records{});
  });
}

// ---- system calls

bool isSemop(SystemCall const& call) {
#ifdef SYS_semop
  if (call.number == SYS_semop) return true;
#endif
  // A null time is no time at all.
  return call.number == SYS_semtimedop && call.arguments[3] == 0;
}

bool removes(SystemCall const& call) {
  return call.number == SYS_semctl && (call.arguments[2] & 0xff) == IPC_RMID;
}

/// Whether somebody has the folder of the key files.
bool isFolderHeld() {
  int const folder = ::open(kLockFolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  bool const isFree = ::flock(folder, LOCK_EX | LOCK_NB) == 0;
  ::close(folder);
  return !isFree;
}

/// How many descriptors of the folder this process has.
int openFolders() {
  std::error_code error;
  int count = 0;
  for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    count += std::filesystem::read_symlink(entry, error).string() + "/" == kLockFolder ? 1 : 0;
  }
  return count;
}

/// Runs `scenario`, and `see` for each of its calls that concern semaphores, or that
/// remove files.
template <class Scenario, class See>
void follow(Scenario scenario, See see) {
  TracedChild child(scenario);
  if (!child.isTraced()) leaveAsNotAllowed();
  auto const concerns = [](SystemCall const& call) {
    return isSemop(call) || call.number == SYS_semget || call.number == SYS_semctl ||
           call.number == SYS_unlink || call.number == SYS_unlinkat;
  };
  while (child.stepTo(concerns)) see(child, *child.call());
}

/// All numbers of sets that the calls of `scenario` operate on.
template <class Scenario>
std::vector<int> setsOperatedOn(Scenario scenario) {
  std::vector<int> sets;
  follow(scenario, [&](TracedChild const&, SystemCall const& call) {
    if (isSemop(call)) sets.push_back(static_cast<int>(call.arguments[0]));
  });
  return sets;
}

TEST(UnixLockTest, NumberOfASetThatIsGoneIsNotUsedAgain) {
  expectAllowedInChild(kNoTrace, [] {
    if (!enterWorld()) leaveAsNotAllowed();
    int const first = ::semget(IPC_PRIVATE, 1, 0600);
    ASSERT_NE(first, -1);
    for (Operation const& operation : operations()) {
      SCOPED_TRACE(operation.name);
      std::vector<int> const sets = setsOperatedOn([&] {
        LogRecorder const log;
        UnixLock lock(kName);
        removeSetOf(kName);
        EXPECT_FALSE(operation.run(lock));
        EXPECT_FALSE(operation.run(lock));
      });
      ASSERT_EQ(sets.size(), 4U);  // attached, twice the operation, detached
      EXPECT_GT(sets[0], 0);
      EXPECT_EQ(sets, (std::vector<int>{sets[0], sets[0], -1, -1}));
    }
  });
}

TEST(UnixLockTest, NumberOfASetIsKeptWhereAnOperationFailsForAnotherReason) {
  expectInWorld([] {
    LogRecorder const log;
    UnixLock lock(kName);
    setAction(SIGUSR1, doNothing);
    Waiter waiter([&] { return lock.readUnlock(); });
    EXPECT_TRUE(comesTrue([] { return waitingForMore(kName, 1) == 1; }));
    waiter.interrupt();  // EINTR
    EXPECT_FALSE(waiter.result());
    setValue(kName, 1, 32767);
    EXPECT_FALSE(lock.tryReadLock());   // ERANGE
    EXPECT_FALSE(lock.tryWriteLock());  // EAGAIN
    setValue(kName, 1, 0);
    EXPECT_TRUE(lock.tryWriteLock());
  });
}

TEST(UnixLockTest, GroupsOperationsAndFlagsAsAllProcessesDo) {
  expectAllowedInChild(kNoTrace, [] {
    if (!enterWorld()) leaveAsNotAllowed();
    std::vector<std::string> groups;
    std::vector<unsigned long long> gets;
    follow(
        [] {
          LogRecorder const log;
          UnixLock lock(kName);
          UnixLock const other(kName);
          lock.tryReadLock();
          lock.readUnlock();
          lock.tryWriteLock();
          lock.writeUnlock();
          lock.readLock(5);
          lock.readUnlock();
          lock.writeLock(5);
          lock.writeUnlock();
          UnixLock::cleanSemaphore(kName);
          makeFile(keyFile(kName), "");
          UnixLock::cleanSemaphore(kName);
        },
        [&](TracedChild const& child, SystemCall const& call) {
          if (isSemop(call)) groups.push_back(child.groupOf(call));
          if (call.number == SYS_semget) {
            EXPECT_EQ(call.arguments[1], 3U);
            gets.push_back(call.arguments[2]);
          }
        });
    EXPECT_EQ(gets, (std::vector<unsigned long long>{1920, 1920, 896, 384, 384}));
    EXPECT_EQ(groups, (std::vector<std::string>{
                          "{2,1,4096}", "{2,1,4096}", "{0,0,6144} {1,1,6144}", "{1,-1,4096}",
                          "{0,0,6144} {1,0,6144} {0,1,6144} {1,1,6144}", "{0,-1,4096} {1,-1,4096}",
                          "{0,0,4096} {1,1,4096}", "{1,-1,4096}",
                          "{0,0,4096} {1,0,4096} {0,1,4096} {1,1,4096}", "{0,-1,4096} {1,-1,4096}",
                          "{2,-1,4096}", "{2,-1,4096}"}));
    EXPECT_EQ(setCount(), 0);
  });
}

TEST(UnixLockTest, HoldsTheFolderWhileItComesAndGoesAndCleansButNotWhileItIsUsed) {
  expectAllowedInChild(kNoTrace, [] {
    if (!enterWorld()) leaveAsNotAllowed();
    int changes = 0;
    follow(
        [] {
          { UnixLock const lock(kName); }
          EXPECT_FALSE(isFolderHeld());
          makeFile(keyFile("cleaned"), "");
          auto* const left = new UnixLock("cleaned");
          UnixLock::cleanSemaphore("cleaned");
          EXPECT_FALSE(isFolderHeld());
          EXPECT_FALSE(left->tryReadLock());
          EXPECT_THROW(UnixLock("no-folder/name"), std::exception);
          EXPECT_FALSE(isFolderHeld());
        },
        [&](TracedChild const& child, SystemCall const& call) {
          bool const isUse = isSemop(call) && child.groupOf(call)[1] != '2';
          EXPECT_EQ(isFolderHeld(), !isUse) << call.number;
          ++changes;
        });
    // semget, attach, detach, GETVAL, RMID, unlink; semget, attach; semget, RMID,
    // unlink; the attempt on the set that is gone.
    EXPECT_EQ(changes, 12);
  });
}

TEST(UnixLockTest, GoesOnAfterTwoSecondsWithoutAFolderThatAnotherKeeps) {
  expectInWorld([] {
    Peer const holder = foreignProcess();
    ASSERT_EQ(holder.ask("hold"), "ok");
    LogRecorder const log;
    auto const start = std::chrono::steady_clock::now();
    {
      UnixLock const lock(kName);
      EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
      EXPECT_EQ(valuesOf(kName), (Values{0, 0, 1}));
    }
    expectNothingLeft();
    ASSERT_NE(makeSet(kName, 3), -1);
    UnixLock::cleanSemaphore(kName);
    expectNothingLeft();
    EXPECT_EQ(log.records(), Records{});
    EXPECT_EQ(holder.ask("release"), "ok");
  });
}

bool isPause(SystemCall const& call) { return call.number == SYS_clock_nanosleep; }

TEST(UnixLockTest, WaitsForAFolderThatAnotherHolds) {
  expectAllowedInChild(kNoTrace, [] {
    if (!enterWorld()) leaveAsNotAllowed();
    Peer const holder = foreignProcess();
    ASSERT_EQ(holder.ask("hold"), "ok");
    TracedChild child([] { UnixLock const lock(kName); });
    if (!child.isTraced()) leaveAsNotAllowed();
    long long longest = 0;
    for (int i = 0; i < 20; ++i) {
      ASSERT_TRUE(child.stepTo(isPause));
      timespec const pause = child.objectsAt<timespec>(child.call()->arguments[2], 1)[0];
      EXPECT_EQ(pause.tv_sec, 0);
      EXPECT_GE(pause.tv_nsec, longest);
      EXPECT_LE(pause.tv_nsec, i == 0 ? 10'000 : 10'000'000);  // neither a delay
      longest = pause.tv_nsec;
    }
    EXPECT_GE(longest, 100'000);  // nor a burden
    EXPECT_FALSE(exists(keyFile(kName)));
    ASSERT_EQ(holder.ask("release"), "ok");
    ASSERT_TRUE(child.stepTo(isSemop));
    EXPECT_TRUE(isFolderHeld());
    child.finish();
    expectNothingLeft();
  });
}

/// Comes and goes, and logs nothing.
void useOnce() {
  LogRecorder const log;
  {
    UnixLock const lock(kName);
    EXPECT_EQ(valuesOf(kName)[2], 1);
  }
  EXPECT_EQ(log.records(), Records{});
}

TEST(UnixLockTest, WhoComesWaitsUntilTheLastHasGone) {
  expectAllowedInChild(kNoTrace, [] {
    if (!enterWorld()) leaveAsNotAllowed();
    auto const asks = [](SystemCall const& call) {
      return call.number == SYS_semctl && (call.arguments[2] & 0xff) == GETVAL;
    };
    auto const unlinks = [](SystemCall const& call) { return call.number == SYS_unlink; };
    for (bool (*const last)(SystemCall const&) : {+asks, removes, +unlinks}) {
      TracedChild going(useOnce);
      TracedChild coming(useOnce);
      if (!going.isTraced() || !coming.isTraced()) leaveAsNotAllowed();
      ASSERT_TRUE(going.stepTo(last));
      ASSERT_TRUE(coming.stepTo(isPause));
      going.finish();
      coming.finish();
      expectNothingLeft();
    }
  });
}

TEST(UnixLockTest, TheLastGoesWhenWhoComesIsAttached) {
  expectAllowedInChild(kNoTrace, [] {
    if (!enterWorld()) leaveAsNotAllowed();
    auto const gets = [](SystemCall const& call) { return call.number == SYS_semget; };
    for (bool (*const first)(SystemCall const&) : {+gets, isSemop}) {
      auto lock = std::make_unique<UnixLock>(kName);
      int const set = setOf(kName);
      TracedChild coming([=] {
        LogRecorder const log;
        {
          UnixLock own(kName);
          EXPECT_EQ(setOf(kName), set);
          EXPECT_TRUE(own.tryWriteLock());
        }
        EXPECT_EQ(log.records(), kWriteTaken);
      });
      if (!coming.isTraced()) leaveAsNotAllowed();
      ASSERT_TRUE(coming.stepTo(first));
      Waiter going([&] { return lock.reset(), true; });
      // The one that goes has the folder open, too.
      EXPECT_TRUE(comesTrue([] { return openFolders() == 1; }));
      coming.finish();
      EXPECT_TRUE(going.result());
      expectNothingLeft();
    }
  });
}

TEST(UnixLockTest, MakesTheKeyFileAsAllProcessesDo) {
  expectAllowedInChild(kNoTrace, [] {
    if (!enterWorld()) leaveAsNotAllowed();
    TracedChild child([] { UnixLock const lock(kName); });
    if (!child.isTraced()) leaveAsNotAllowed();
    std::vector<std::pair<unsigned long long, unsigned long long>> made;
    while (child.stepTo([](SystemCall const& call) {
      return call.number == SYS_openat && (call.arguments[2] & O_CREAT) != 0;
    })) {
      SystemCall const call = *child.call();
      made.emplace_back(call.arguments[2], call.arguments[3]);
    }
    EXPECT_EQ(made, (decltype(made){{O_RDWR | O_CREAT | O_CLOEXEC, 0600}}));
  });
}

TEST(UnixLockTest, HoldsTheFolderByADescriptorThatProgramsDoNotInherit) {
  expectAllowedInChild(kNoTrace, [] {
    if (!enterWorld()) leaveAsNotAllowed();
    int holds = 0;
    TracedChild child([] {
      { UnixLock const lock(kName); }
      UnixLock::cleanSemaphore(kName);
    });
    if (!child.isTraced()) leaveAsNotAllowed();
    auto const isHold = [](SystemCall const& call) {
      return call.number == SYS_flock && call.arguments[1] != LOCK_UN;
    };
    while (child.stepTo(isHold)) {
      SystemCall const call = *child.call();
      EXPECT_EQ(call.arguments[1], unsigned{LOCK_EX | LOCK_NB});
      std::string const process = "/proc/" + std::to_string(child.process());
      std::string const descriptor = std::to_string(call.arguments[0]);
      EXPECT_EQ(std::filesystem::read_symlink(process + "/fd/" + descriptor).string() + "/",
                kLockFolder);
      std::ifstream description(process + "/fdinfo/" + descriptor);
      std::string word;
      while (description >> word && word != "flags:") {
      }
      unsigned flags = 0;
      description >> std::oct >> flags;
      EXPECT_EQ(flags & (O_ACCMODE | O_CLOEXEC | O_DIRECTORY), O_RDONLY | O_CLOEXEC | O_DIRECTORY);
      ++holds;
    }
    EXPECT_EQ(holds, 3);
  });
}

TEST(UnixLockTest, GivesTheFolderBackEvenIfAForkedChildHasItOpen) {
  expectInWorld([] {
    ASSERT_NE(makeSet(kName, 3, 0), -1);
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    pid_t child = -1;
    ActingLogger const log([&](std::wstring const& message) {
      if (message.find(kNotRoots) == std::wstring::npos) return;
      EXPECT_TRUE(isFolderHeld());
      child = ::fork();
      if (child != 0) return;
      ::close(ends[1]);
      readToEnd(ends[0]);  // lives until the parent lets it go
      ::_exit(0);
    });
    UnixLock const lock(kName);
    EXPECT_GT(child, 0);
    EXPECT_FALSE(isFolderHeld());
    ::close(ends[1]);
    EXPECT_EQ(waitFor(child), 0);
  });
}

/// What the `scenario` of a process leaves when it is killed at each of its stops: looks
/// at it with `check`.
template <class Prepare, class Scenario, class Check>
void killAtEachStop(Prepare prepare, Scenario scenario, Check check) {
  bool hasEnded = false;
  for (int stops = 1; !hasEnded; ++stops) {
    SCOPED_TRACE(stops);
    prepare();
    TracedChild child(scenario);
    if (!child.isTraced()) leaveAsNotAllowed();
    int done = 0;
    while (done < stops && child.step()) ++done;
    hasEnded = done < stops;
    child.kill();
    check();
    ASSERT_FALSE(testing::Test::HasFailure());
  }
}

/// The next process gets the lock and leaves nothing.
void expectLockForTheNext() {
  {
    UnixLock lock(kName);
    EXPECT_TRUE(lock.tryWriteLock());
    EXPECT_EQ(valuesOf(kName), (Values{1, 1, 1}));
  }
  EXPECT_EQ(setCount(), 0);
  EXPECT_FALSE(exists(keyFile(kName)));
}

TEST(UnixLockTest, AProcessKilledAtAnySystemCallLeavesALockForTheNext) {
  expectAllowedInChild(kNoTrace, [] {
    if (!enterWorld()) leaveAsNotAllowed();
    LogRecorder const log;
    killAtEachStop([] {}, [] { UnixLock const lock(kName); }, expectLockForTheNext);
    EXPECT_EQ(log.errors(), Records{});
  });
}

TEST(UnixLockTest, AProcessKilledAtAnySystemCallWithTheLockLeavesItForTheNext) {
  expectAllowedInChild(kNoTrace, [] {
    if (!enterWorld()) leaveAsNotAllowed();
    LogRecorder const log;
    killAtEachStop([] {},
                   [] {
                     UnixLock lock(kName);
                     lock.writeLock(5);
                     lock.writeUnlock();
                     lock.readLock(5);
                   },
                   expectLockForTheNext);
    EXPECT_EQ(log.errors(), Records{});
  });
}

TEST(UnixLockTest, AProcessKilledAtAnySystemCallTakesNothingFromOthers) {
  expectAllowedInChild(kNoTrace, [] {
    if (!enterWorld()) leaveAsNotAllowed();
    LogRecorder const log;
    auto other = std::make_unique<UnixLock>(kName);
    ASSERT_TRUE(other->tryReadLock());
    int const set = setOf(kName);
    killAtEachStop([] {},
                   [] {
                     UnixLock lock(kName);
                     lock.readLock(5);
                   },
                   [=] {
                     EXPECT_EQ(setOf(kName), set);
                     EXPECT_EQ(valuesOf(kName), (Values{0, 1, 1}));
                     EXPECT_FALSE(isFolderHeld());
                   });
    EXPECT_TRUE(other->readUnlock());
    other.reset();
    expectNothingLeft();
    EXPECT_EQ(log.errors(), Records{});
  });
}

TEST(UnixLockTest, AProcessKilledWhileItCleansLeavesALockForTheNext) {
  expectAllowedInChild(kNoTrace, [] {
    if (!enterWorld()) leaveAsNotAllowed();
    LogRecorder const log;
    killAtEachStop(
        [] {
          if (setOf(kName) == -1) makeSet(kName, 3);
        },
        [] { UnixLock::cleanSemaphore(kName); }, expectLockForTheNext);
    EXPECT_EQ(log.errors(), Records{});
  });
}

/// Stops the scenario at the first call that `isThere` says, does `meanwhile`, and lets
/// it come to its end, with its checks as this test's.
template <class Scenario, class IsThere, class Meanwhile>
void interfereAt(IsThere isThere, Meanwhile meanwhile, Scenario scenario) {
  TracedChild child(scenario);
  if (!child.isTraced()) leaveAsNotAllowed();
  ASSERT_TRUE(child.stepTo(isThere));
  meanwhile();
  child.finish();
}

TEST(UnixLockTest, FailsWhereTheKeyFileVanishesMeanwhile) {
  expectAllowedInChild(kNoTrace, [] {
    if (!enterWorld()) leaveAsNotAllowed();
    makeFile(keyFile(kName), "");
    bool isMissing = false;
    // ftok looks at the file again: it goes before the process's second look.
    interfereAt(
        [&, looks = 0](SystemCall const& call) mutable {
          bool const isLook = call.number == SYS_newfstatat || call.number == SYS_statx;
          return isLook && ++looks == 2;
        },
        [&] { isMissing = std::filesystem::remove(keyFile(kName)); },
        [] {
          expectRefused(kName, failure(L"Failed to get the semaphore id due to " + reason(ENOENT)));
        });
    EXPECT_TRUE(isMissing);
    EXPECT_EQ(setCount(), 0);
  });
}

/// Whether it is the call of semget(2) that comes as number `count`.
auto isGet(int count) {
  return [=, gets = 0](SystemCall const& call) mutable {
    return call.number == SYS_semget && ++gets == count;
  };
}

TEST(UnixLockTest, MakesASetThatGoesBeforeItIsJoined) {
  expectAllowedInChild(kNoTrace, [] {
    if (!enterWorld()) leaveAsNotAllowed();
    ASSERT_NE(makeSet(kName, 3), -1);
    interfereAt(
        isGet(2), [] { removeSetOf(kName); },
        [] {
          LogRecorder const log;
          UnixLock const lock(kName);
          EXPECT_EQ(valuesOf(kName), (Values{0, 0, 1}));
          EXPECT_EQ(log.records(), Records{});
        });
    expectNothingLeft();
  });
}

TEST(UnixLockTest, JoinsOnlyASetThatIsThere) {
  expectAllowedInChild(kNoTrace, [] {
    if (!enterWorld()) leaveAsNotAllowed();
    useUpTheSets();
    int gets = 0;
    follow(
        [] {
          LogRecorder const log;
          EXPECT_THROW(UnixLock{kName}, std::exception);
        },
        [&](TracedChild const&, SystemCall const& call) {
          gets += call.number == SYS_semget ? 1 : 0;
        });
    EXPECT_EQ(gets, 1);
  });
}

TEST(UnixLockTest, FailsWhereAnotherIsFasterToReplaceASet) {
  expectAllowedInChild(kNoTrace, [] {
    if (!enterWorld()) leaveAsNotAllowed();
    ASSERT_NE(makeSet(kName, 3, 0), -1);
    interfereAt(
        isGet(3), [] { makeSet(kName, 3); },
        [] {
          std::wstring const key = std::to_wstring(keyOf(keyFile(kName)));
          expectRefused(
              kName, failure(kNotRoots) + failure(L"Failed to create the semaphore due "
                                                  L"to " +
                                                  reason(EEXIST) + L" first parameter is " + key));
        });
    EXPECT_EQ(valuesOf(kName), (Values{0, 0, 0}));
  });
}

TEST(UnixLockTest, DoesNotTrustASetThatDoesNotTell) {
  expectAllowedInChild(kNoTrace, [] {
    if (!enterWorld()) leaveAsNotAllowed();
    ASSERT_NE(makeSet(kName, 3), -1);
    interfereAt(
        [](SystemCall const& call) { return call.number == SYS_semctl; },
        [] { removeSetOf(kName); },
        [] {
          expectRefused(
              kName, failure(kNotRoots) + failure(L"Failed to increase the refrence count due to " +
                                                  reason(EINVAL)));
        });
    EXPECT_TRUE(exists(keyFile(kName)));
    EXPECT_EQ(setCount(), 0);
  });
}

TEST(UnixLockTest, LeavesTheKeyFileOfASetThatGoesWhileItDetaches) {
  expectAllowedInChild(kNoTrace, [] {
    if (!enterWorld()) leaveAsNotAllowed();
    for (bool const beforeRemoval : {false, true}) {
      interfereAt(
          [=](SystemCall const& call) {
            return call.number == SYS_semctl && removes(call) == beforeRemoval;
          },
          [] { removeSetOf(kName); },
          [=] {
            LogRecorder const log;
            { UnixLock const lock(kName); }
            EXPECT_EQ(log.records(),
                      beforeRemoval
                          ? Records{detail(L"Failed to delete the semaphore on 0 refrence count")}
                          : Records{});
          });
      EXPECT_TRUE(exists(keyFile(kName)));
      EXPECT_EQ(setCount(), 0);
    }
  });
}

// ---- threads that are cancelled, records that cannot be made

TEST(UnixLockTest, OperationsHoldWhereTheyCannotBeLogged) {
  expectInWorld([] {
    int count = 0;
    ActingLogger const log([&](std::wstring const&) {
      ++count;
      throw std::bad_alloc();
    });
    {
      UnixLock lock(kName);
      EXPECT_TRUE(lock.tryReadLock());
      EXPECT_FALSE(lock.tryWriteLock());
      EXPECT_EQ(valuesOf(kName), (Values{0, 1, 1}));
      removeSetOf(kName);
      EXPECT_FALSE(lock.readUnlock());
      EXPECT_FALSE(lock.readLock(5));
      EXPECT_EQ(count, 4);
    }
    EXPECT_EQ(count, 5);
    EXPECT_THROW(UnixLock(".."), std::bad_alloc);
    interfereAt(
        removes, [] { removeSetOf(kName); }, [] { UnixLock const lock(kName); });
  });
}

TEST(UnixLockTest, ACancelledThreadGoesOnUntilItHasLeft) {
  expectInWorld([] {
    ActingLogger const log([](std::wstring const&) { ::pthread_testcancel(); });  // as writing is
    UnixLock gone("gone");
    removeSetOf("gone");
    std::atomic<int> done{0};
    std::thread thread([&] {
      ::pthread_cancel(::pthread_self());
      auto lock = std::make_unique<UnixLock>(kName);
      EXPECT_THROW(UnixLock(".."), std::exception);
      for (Operation const& operation : operations()) {
        EXPECT_FALSE(operation.run(gone));
        ++done;
      }
      EXPECT_TRUE(lock->tryWriteLock());
      EXPECT_TRUE(lock->writeUnlock());
      removeSetOf(kName);
      lock.reset();
      UnixLock::cleanSemaphore(kName);
      ++done;
      ::pthread_testcancel();
      ADD_FAILURE() << "not cancelled";
    });
    thread.join();
    EXPECT_EQ(done, static_cast<int>(operations().size()) + 1);
  });
}

TEST(UnixLockTest, AWaitOutlastsCancellation) {
  expectInWorld([] {
    ActingLogger const log([](std::wstring const&) { ::pthread_testcancel(); });  // as writing is
    whileWaitingAtHome(true, [](UnixLock& other, Waiter& waiter) {
      waiter.cancel();
      EXPECT_EQ(waitingForZero(kName, 0), 1);
      EXPECT_TRUE(other.writeUnlock());
      EXPECT_TRUE(waiter.result());
      EXPECT_EQ(valuesOf(kName), (Values{0, 1, 2}));
    });
  });
}

}  // namespace

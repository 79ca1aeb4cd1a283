#include "tests/lock/lock_support.h"

#include <vrxutil/lock.h>

#include <memory>
#include <thread>
#include <type_traits>

namespace {

using namespace vrxutil::test;
using vornix_com::oxa::lock::ILock;
using vornix_com::oxa::lock::InterProcessReadLock;
using vornix_com::oxa::lock::InterProcessWriteLock;

constexpr char kName[] = "test-lock";

/// What the two kinds of locks differ in.
template <class Lock>
struct Kind;

template <>
struct Kind<InterProcessReadLock> {
  static Values held() { return {0, 1, 1}; }

  static Records taken() { return {detailRecord(L"IPLock", L"readLock - providing read lock")}; }

  static Records givenBack() {
    return {detailRecord(L"IPLock", L"readUnLock - unlocking the read lock successful")};
  }

  static Records tryFailed() {
    return errorInside({}, L"IPLock", L"readLock - Timeout occured , failed to acquire the lock");
  }

  static Records lockFailed() {
    return {infoRecord(L"IPLock", L"readLock - Timeout occured , failed to acquire the lock")};
  }
};

template <>
struct Kind<InterProcessWriteLock> {
  static Values held() { return {1, 1, 1}; }

  static Records taken() { return {detailRecord(L"IPLock", L"writeLock - providing write lock")}; }

  static Records givenBack() {
    return {detailRecord(L"IPLock", L"writeUnLock - unlocking the write lock successful")};
  }

  static Records tryFailed() {
    return errorInside({}, L"IPLock", L"writeLock - Timeout occured , failed to acquire the lock");
  }

  static Records lockFailed() { return tryFailed(); }
};

Records unlockFailed() {
  return errorInside({}, L"IPLock", L"writeUnLock - decreasing the semaphore value failed");
}

Records detachFailed() {
  return errorInside({}, L"IPLock",
                     L"Failed to decrease the refrence count "
                     L"/Library/Vornix/oxa/scratch/test-lock");
}

template <class Lock>
class InterProcessLockTest : public testing::Test {};

using Locks = testing::Types<InterProcessReadLock, InterProcessWriteLock>;
TYPED_TEST_SUITE(InterProcessLockTest, Locks);

TYPED_TEST(InterProcessLockTest, StandsAlone) {
  EXPECT_FALSE((std::is_base_of_v<ILock, TypeParam>));
  EXPECT_FALSE(std::is_polymorphic_v<TypeParam>);
  EXPECT_FALSE(std::is_copy_constructible_v<TypeParam>);
  EXPECT_FALSE(std::is_copy_assignable_v<TypeParam>);
  EXPECT_TRUE((std::is_constructible_v<TypeParam, std::string const&>));
}

TYPED_TEST(InterProcessLockTest, TakesTheLockAndGivesItBack) {
  expectInWorld([] {
    using K = Kind<TypeParam>;
    LogRecorder const log;
    {
      TypeParam lock(kName);
      EXPECT_EQ(valuesOf(kName), (Values{0, 0, 1}));
      EXPECT_TRUE(lock.tryLock());
      EXPECT_EQ(valuesOf(kName), K::held());
      EXPECT_TRUE(lock.unlock());
      EXPECT_EQ(valuesOf(kName), (Values{0, 0, 1}));
      EXPECT_TRUE(lock.lock(5));
      EXPECT_EQ(valuesOf(kName), K::held());
      EXPECT_TRUE(lock.unlock());
      EXPECT_TRUE(lock.unlock());  // nothing is held
      EXPECT_EQ(valuesOf(kName), (Values{0, 0, 1}));
    }
    expectNothingLeft();
    EXPECT_EQ(log.records(), K::taken() + K::givenBack() + K::taken() + K::givenBack());
  });
}

TYPED_TEST(InterProcessLockTest, UnlockingWhatWasNeverLockedIsDone) {
  expectInWorld([] {
    LogRecorder const log;
    {
      TypeParam lock(kName);
      EXPECT_TRUE(lock.unlock());
      EXPECT_EQ(valuesOf(kName), (Values{0, 0, 1}));
    }
    expectNothingLeft();
    EXPECT_EQ(log.records(), Records{});
  });
}

TYPED_TEST(InterProcessLockTest, DestructionGivesBackWhatIsHeld) {
  expectInWorld([] {
    using K = Kind<TypeParam>;
    LogRecorder const log;
    Peer const other = foreignProcess();
    ASSERT_EQ(other.ask(std::string("attach ") + kName), "ok");
    {
      TypeParam lock(kName);
      EXPECT_TRUE(lock.lock(5));
      EXPECT_EQ(other.ask("trywrite"), "no");
    }
    EXPECT_EQ(valuesOf(kName), (Values{0, 0, 1}));
    EXPECT_EQ(other.ask("trywrite"), "ok");
    EXPECT_EQ(log.records(), K::taken() + K::givenBack());
  });
}

TYPED_TEST(InterProcessLockTest, IsUnusableWithoutTheFolder) {
  expectInWorld([] {
    std::filesystem::remove(kLockFolder);
    LogRecorder log;
    {
      TypeParam lock(kName);
      EXPECT_EQ(log.records(), errorInside({}, L"IPLock",
                                           L"Failed to create the file  "
                                           L"/Library/Vornix/oxa/scratch/test-lock"));
      log.clear();
      EXPECT_FALSE(lock.tryLock());
      EXPECT_FALSE(lock.lock(5));
      EXPECT_FALSE(lock.unlock());
      EXPECT_FALSE(lock.tryLock());
    }
    EXPECT_EQ(log.records(), Records{});
  });
}

TYPED_TEST(InterProcessLockTest, ThrowsNothingWhateverItsConstructionThrows) {
  expectInWorld([] {
    EXPECT_TRUE((std::is_nothrow_constructible_v<TypeParam, std::string const&>));
    int count = 0;
    ActingLogger const log([&](std::wstring const&) {
      ++count;
      throw 1;  // no exception of the library's
    });
    TypeParam lock("..");
    EXPECT_EQ(count, 1);
    EXPECT_FALSE(lock.tryLock());
    EXPECT_FALSE(lock.lock(5));
    EXPECT_FALSE(lock.unlock());
    EXPECT_EQ(count, 1);
  });
}

TYPED_TEST(InterProcessLockTest, AFailedTryHoldsNothing) {
  expectInWorld([] {
    using K = Kind<TypeParam>;
    LogRecorder const log;
    Peer const other = foreignProcess();
    ASSERT_EQ(other.ask(std::string("attach ") + kName), "ok");
    ASSERT_EQ(other.ask("write"), "ok");
    {
      TypeParam lock(kName);
      EXPECT_FALSE(lock.tryLock());
      EXPECT_TRUE(lock.unlock());
    }
    EXPECT_EQ(valuesOf(kName), (Values{1, 1, 1}));
    EXPECT_EQ(log.records(), K::tryFailed());
  });
}

TYPED_TEST(InterProcessLockTest, WaitsForAWriterWhateverTheTimeout) {
  expectInWorld([] {
    using K = Kind<TypeParam>;
    for (unsigned const timeout : {0U, 5U, ~0U}) {
      LogRecorder const log;
      Peer const other = foreignProcess();
      ASSERT_EQ(other.ask(std::string("attach ") + kName), "ok");
      ASSERT_EQ(other.ask("write"), "ok");
      TypeParam lock(kName);
      std::thread waiter([&] { EXPECT_TRUE(lock.lock(timeout)); });
      EXPECT_TRUE(comesTrue([] { return waitingForZero(kName, 0) == 1; }));
      EXPECT_EQ(log.records(), Records{});
      EXPECT_EQ(other.ask("unwrite"), "ok");
      waiter.join();
      EXPECT_EQ(log.records(), K::taken());
      EXPECT_TRUE(lock.unlock());
    }
  });
}

TYPED_TEST(InterProcessLockTest, AFailedLockForgetsAnEarlierHold) {
  expectInWorld([] {
    using K = Kind<TypeParam>;
    for (bool const isTry : {false, true}) {
      LogRecorder const log;
      {
        TypeParam lock(kName);
        EXPECT_TRUE(lock.tryLock());
        ASSERT_EQ(::semctl(setOf(kName), 0, IPC_RMID), 0);
        EXPECT_FALSE(isTry ? lock.tryLock() : lock.lock(5));
        EXPECT_TRUE(lock.unlock());  // nothing is held
      }
      EXPECT_EQ(log.records(),
                K::taken() + (isTry ? K::tryFailed() : K::lockFailed()) + detachFailed());
    }
  });
}

TYPED_TEST(InterProcessLockTest, AFailedUnlockHoldsOn) {
  expectInWorld([] {
    using K = Kind<TypeParam>;
    LogRecorder const log;
    {
      TypeParam lock(kName);
      EXPECT_TRUE(lock.lock(5));
      ASSERT_EQ(::semctl(setOf(kName), 0, IPC_RMID), 0);
      EXPECT_FALSE(lock.unlock());
      EXPECT_FALSE(lock.unlock());
    }  // tries once more
    EXPECT_EQ(log.records(),
              K::taken() + unlockFailed() + unlockFailed() + unlockFailed() + detachFailed());
  });
}

TYPED_TEST(InterProcessLockTest, AForkedChildGivesNothingBack) {
  expectInWorld([] {
    using K = Kind<TypeParam>;
    auto lock = std::make_unique<TypeParam>(kName);
    ASSERT_TRUE(lock->lock(5));
    EXPECT_TRUE(holdsInChild([&] {
      LogRecorder const log;
      lock.reset();
      EXPECT_EQ(log.records(), Records{});
    }));
    EXPECT_TRUE(holdsInChild([&] {
      LogRecorder const log;
      EXPECT_FALSE(lock->unlock());
      EXPECT_FALSE(lock->tryLock());
      EXPECT_FALSE(lock->lock(5));
      EXPECT_TRUE(lock->unlock());  // a failed lock holds nothing
      lock.reset();
      EXPECT_EQ(log.records(), unlockFailed() + K::tryFailed() + K::lockFailed());
    }));
    EXPECT_EQ(valuesOf(kName), K::held());
    EXPECT_TRUE(lock->unlock());
    lock.reset();
    expectNothingLeft();
  });
}

TYPED_TEST(InterProcessLockTest, CleansALock) {
  expectInWorld([] {
    ASSERT_NE(makeSet(kName, 3), -1);
    LogRecorder const log;
    TypeParam::cleanSemaphore("no-lock");
    EXPECT_EQ(setCount(), 1);
    TypeParam::cleanSemaphore(kName);
    expectNothingLeft();
    EXPECT_EQ(log.records(), Records{});
  });
}

TEST(InterProcessReadLockTest, TakingItTwiceCountsTwiceButIsGivenBackOnce) {
  expectInWorld([] {
    LogRecorder const log;
    InterProcessReadLock lock(kName);
    EXPECT_TRUE(lock.lock(5));
    EXPECT_TRUE(lock.tryLock());
    EXPECT_EQ(valuesOf(kName), (Values{0, 2, 1}));
    EXPECT_TRUE(lock.unlock());
    EXPECT_TRUE(lock.unlock());
    EXPECT_EQ(valuesOf(kName), (Values{0, 1, 1}));
  });
}

TEST(InterProcessWriteLockTest, TryingTwiceForgetsTheFirstHold) {
  expectInWorld([] {
    LogRecorder const log;
    InterProcessWriteLock lock(kName);
    EXPECT_TRUE(lock.lock(5));
    EXPECT_FALSE(lock.tryLock());
    EXPECT_TRUE(lock.unlock());
    EXPECT_EQ(valuesOf(kName), (Values{1, 1, 1}));
  });
}

TEST(InterProcessWriteLockTest, DestructionLetsAWaitingReaderIn) {
  expectInWorld([] {
    LogRecorder const log;
    for (char const* const program : {FOREIGN_PROCESS, OWN_PROCESS}) {
      Peer const reader(program);
      ASSERT_EQ(reader.ask(std::string("attach ") + kName), "ok");
      auto lock = std::make_unique<InterProcessWriteLock>(kName);
      ASSERT_TRUE(lock->lock(5));
      reader.tell("read");
      EXPECT_TRUE(comesTrue([] { return waitingForZero(kName, 0) == 1; }));
      lock.reset();
      EXPECT_EQ(reader.answer(), "ok");
      EXPECT_EQ(valuesOf(kName), (Values{0, 1, 1}));
    }
  });
}

// ---- processes with and without the library

TEST(InterProcessLockProtocolTest, ForeignProcessesSeeWhatLocksHold) {
  expectInWorld([] {
    LogRecorder const log;
    Peer const other = foreignProcess();
    ASSERT_EQ(other.ask(std::string("attach ") + kName), "ok");
    {
      InterProcessReadLock reader(kName);
      InterProcessWriteLock writer(kName);
      EXPECT_EQ(other.ask("status"), "writer 0 users 0 references 3");
      EXPECT_TRUE(writer.lock(5));
      EXPECT_EQ(other.ask("status"), "writer 1 users 1 references 3");
      EXPECT_TRUE(writer.unlock());
      EXPECT_TRUE(reader.lock(5));
      EXPECT_EQ(other.ask("tryread"), "ok");
      EXPECT_EQ(other.ask("status"), "writer 0 users 2 references 3");
      EXPECT_EQ(other.ask("unread"), "ok");
    }
    EXPECT_EQ(other.ask("status"), "writer 0 users 0 references 1");
    EXPECT_EQ(other.ask("detach"), "ok");
    EXPECT_EQ(other.ask("status"), "none");
    expectNothingLeft();
  });
}

TEST(InterProcessLockProtocolTest, ForeignProcessesSeeTheFirstThreeOfALargerSet) {
  expectInWorld([] {
    ASSERT_NE(makeSet(kName, 17), -1);
    Peer const other = foreignProcess();
    ASSERT_EQ(other.ask(std::string("attach ") + kName), "ok");
    EXPECT_EQ(other.ask("trywrite"), "ok");
    EXPECT_EQ(other.ask("status"), "writer 1 users 1 references 1");
  });
}

TEST(InterProcessLockProtocolTest, EachCleansTheLockOfTheOther) {
  expectInWorld([] {
    for (char const* const a : {OWN_PROCESS, FOREIGN_PROCESS}) {
      for (char const* const b : {OWN_PROCESS, FOREIGN_PROCESS}) {
        SCOPED_TRACE(std::string(a) + " and " + b);
        Peer const holder(a);
        Peer const cleaner(b);
        ASSERT_EQ(holder.ask(std::string("attach ") + kName), "ok");
        ASSERT_EQ(holder.ask("read"), "ok");
        EXPECT_EQ(cleaner.ask(std::string("clean ") + kName), "ok");
        expectNothingLeft();
        EXPECT_EQ(holder.ask("unread"), "no");
        EXPECT_EQ(holder.ask("tryread"), "no");
      }
    }
  });
}

/// What two processes answer to commands, "a COMMAND" or "b COMMAND", and what the set
/// then counts. "a? COMMAND" waits until it is seen to wait, "a!" takes its answer.
std::vector<std::string> transcript(char const* programOfA, char const* programOfB,
                                    std::vector<std::string> const& commands) {
  Peer a(programOfA);
  Peer b(programOfB);
  std::vector<std::string> lines;
  for (std::string const& command : commands) {
    Peer& peer = command[0] == 'a' ? a : b;
    std::string line = command;
    if (command.ends_with("crash")) {
      peer.tell("crash");
      peer.kill();
    } else if (command[1] == '?') {
      peer.tell(command.substr(3));
      EXPECT_TRUE(comesTrue([] {
        return waitingForZero(kName, 0) + waitingForZero(kName, 1) == 1;
      })) << command;
    } else {
      line += ": " + (command[1] == '!' ? peer.answer() : peer.ask(command.substr(2)));
    }
    for (int const value : valuesOf(kName)) line.append(" ").append(std::to_string(value));
    lines.push_back(line + (exists(keyFile(kName)) ? " file" : ""));
  }
  return lines;
}

TEST(InterProcessLockProtocolTest, ProcessesWithAndWithoutTheLibraryAreAlike) {
  expectInWorld([] {
    std::vector<std::string> const commands{
        "a attach test-lock",
        "b attach test-lock",
        "a tryread",
        "b tryread",
        "b trywrite",
        "a unread",
        "b unread",
        "b trywrite",
        "a trywrite",
        "a tryread",
        "a? read",
        "b unwrite",
        "a!",
        "b? write",
        "a unread",
        "b!",
        "a? write",
        "b crash",
        "a!",
        "a unwrite",
        "a detach",
        "a attach test-lock",
        "a write",
        "a crash",
    };
    std::vector<std::string> const expected{
        "a attach test-lock: ok 0 0 1 file",
        "b attach test-lock: ok 0 0 2 file",
        "a tryread: ok 0 1 2 file",
        "b tryread: ok 0 2 2 file",
        "b trywrite: no 0 2 2 file",
        "a unread: ok 0 1 2 file",
        "b unread: ok 0 0 2 file",
        "b trywrite: ok 1 1 2 file",
        "a trywrite: no 1 1 2 file",
        "a tryread: no 1 1 2 file",
        "a? read 1 1 2 file",
        "b unwrite: ok 0 1 2 file",
        "a!: ok 0 1 2 file",
        "b? write 0 1 2 file",
        "a unread: ok 1 1 2 file",
        "b!: ok 1 1 2 file",
        "a? write 1 1 2 file",
        "b crash 1 1 1 file",
        "a!: ok 1 1 1 file",
        "a unwrite: ok 0 0 1 file",
        "a detach: ok",
        "a attach test-lock: ok 0 0 1 file",
        "a write: ok 1 1 1 file",
        "a crash 0 0 0 file",
    };
    for (char const* const a : {OWN_PROCESS, FOREIGN_PROCESS}) {
      for (char const* const b : {OWN_PROCESS, FOREIGN_PROCESS}) {
        SCOPED_TRACE(std::string(a) + " and " + b);
        EXPECT_EQ(transcript(a, b, commands), expected);
      }
    }
  });
}

}  // namespace

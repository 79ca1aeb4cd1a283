// The counters are read under the lock's own mutex. A thread that is counted as waiting has
// given the mutex back, and so really waits: no test needs to sleep until another has come.

#include <vrxutil/lock.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <ostream>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

struct Counters {
  int readers = 0;
  int writers = 0;
  int waitingReaders = 0;
  int waitingWriters = 0;

  bool operator==(Counters const&) const = default;
};

void PrintTo(Counters const& counters, std::ostream* out) {
  *out << "readers " << counters.readers << ", writers " << counters.writers << ", waiting readers "
       << counters.waitingReaders << ", waiting writers " << counters.waitingWriters;
}

/// What is private in a CReadWriteSync.
struct CReadWriteSyncState {
  static Counters of(CReadWriteSync& sync) {
    ::pthread_mutex_lock(&sync.mutex);
    Counters const counters{sync.readers, sync.writers, sync.waitingReaders, sync.waitingWriters};
    ::pthread_mutex_unlock(&sync.mutex);
    return counters;
  }

  static void set(CReadWriteSync& sync, Counters const& counters) {
    ::pthread_mutex_lock(&sync.mutex);
    sync.readers = counters.readers;
    sync.writers = counters.writers;
    sync.waitingReaders = counters.waitingReaders;
    sync.waitingWriters = counters.waitingWriters;
    ::pthread_mutex_unlock(&sync.mutex);
  }

  static pthread_cond_t& readCondition(CReadWriteSync& sync) { return sync.readCondition; }

  static pthread_cond_t& writeCondition(CReadWriteSync& sync) { return sync.writeCondition; }

  static pthread_mutex_t& mutex(CReadWriteSync& sync) { return sync.mutex; }

  static constexpr std::array<std::size_t, 8> kOffsets{
      offsetof(CReadWriteSync, readers),        offsetof(CReadWriteSync, writers),
      offsetof(CReadWriteSync, waitingReaders), offsetof(CReadWriteSync, waitingWriters),
      offsetof(CReadWriteSync, readCondition),  offsetof(CReadWriteSync, writeCondition),
      offsetof(CReadWriteSync, mutex),          sizeof(CReadWriteSync)};

  static_assert(std::is_same_v<decltype(CReadWriteSync::readers), int>);
  static_assert(std::is_same_v<decltype(CReadWriteSync::writers), int>);
  static_assert(std::is_same_v<decltype(CReadWriteSync::waitingReaders), int>);
  static_assert(std::is_same_v<decltype(CReadWriteSync::waitingWriters), int>);
};

namespace {

using State = CReadWriteSyncState;
using Calls = std::vector<std::string>;

/// The calls that were made for one lock's conditions and mutex, as long as it lives: those
/// below take the place of the C library's.
class CallRecorder {
public:
  explicit CallRecorder(CReadWriteSync& sync)
      : readCondition_(&State::readCondition(sync)),
        writeCondition_(&State::writeCondition(sync)),
        mutex_(&State::mutex(sync)) {
    current.store(this);
  }

  ~CallRecorder() { current.store(nullptr); }

  CallRecorder(CallRecorder const&) = delete;
  CallRecorder& operator=(CallRecorder const&) = delete;

  /// Says, too, when the mutex was not free. All other threads must be known to wait.
  static void noteWakeUp(char const* what, pthread_cond_t* condition) {
    CallRecorder* const recorder = current.load();
    if (recorder == nullptr || !recorder->isOurs(condition)) return;
    if (::pthread_mutex_trylock(recorder->mutex_) == EBUSY) {
      recorder->add(std::string("under the mutex: ") + what, condition);
    } else {
      ::pthread_mutex_unlock(recorder->mutex_);
      recorder->add(what, condition);
    }
  }

  static void note(char const* what, void* object) {
    CallRecorder* const recorder = current.load();
    if (recorder != nullptr && recorder->isOurs(object)) recorder->add(what, object);
  }

  /// What has been recorded since the last time.
  Calls take() {
    std::lock_guard const guard(callsMutex_);
    return std::exchange(calls_, {});
  }

private:
  bool isOurs(void const* object) const {
    return object == readCondition_ || object == writeCondition_ || object == mutex_;
  }

  void add(std::string const& what, void const* object) {
    char const* const name = object == readCondition_    ? " readers"
                             : object == writeCondition_ ? " writer"
                                                         : " mutex";
    std::lock_guard const guard(callsMutex_);
    calls_.push_back(what + name);
  }

  static inline std::atomic<CallRecorder*> current{nullptr};

  void const* readCondition_;
  void const* writeCondition_;
  pthread_mutex_t* mutex_;
  std::mutex callsMutex_;
  Calls calls_;
};

template <class Object>
int callNext(char const* name, Object* object) {
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): what dlsym(3) is made for
  return reinterpret_cast<int (*)(Object*)>(::dlsym(RTLD_NEXT, name))(object);
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int pthread_cond_signal(pthread_cond_t* condition) noexcept {
  CallRecorder::noteWakeUp("signal", condition);
  return callNext("pthread_cond_signal", condition);
}

__attribute__((visibility("default"))) int pthread_cond_broadcast(
    pthread_cond_t* condition) noexcept {
  CallRecorder::noteWakeUp("broadcast", condition);
  return callNext("pthread_cond_broadcast", condition);
}

__attribute__((visibility("default"))) int pthread_cond_destroy(
    pthread_cond_t* condition) noexcept {
  CallRecorder::note("destroy", condition);
  return callNext("pthread_cond_destroy", condition);
}

__attribute__((visibility("default"))) int pthread_mutex_destroy(pthread_mutex_t* mutex) noexcept {
  CallRecorder::note("destroy", mutex);
  return callNext("pthread_mutex_destroy", mutex);
}
}

namespace {

/// Whether `state` comes. It must; the bound only keeps a broken lock from hanging the tests.
bool comes(std::function<bool()> const& state) {
  auto const giveUp = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  while (!state()) {
    if (std::chrono::steady_clock::now() > giveUp) return false;
    ::sched_yield();
  }
  return true;
}

bool become(CReadWriteSync& sync, Counters const& counters) {
  return comes([&] { return State::of(sync) == counters; });
}

/// A lock that tests end the program for: a thread that hangs in it cannot be joined.
void require(bool holds, char const* what) {
  if (holds) return;
  ADD_FAILURE() << what << " never came";
  std::abort();
}

/// A thread that takes a lock, says so, and holds it until it is told to give it back.
class Holder {
public:
  enum class Kind { reader, writer };

  Holder(CReadWriteSync& sync, Kind kind, Calls* entries = nullptr, std::string name = {})
      : sync_(sync), kind_(kind), entries_(entries), name_(std::move(name)), thread_([this] {
          run();
        }) {}

  ~Holder() {
    giveBack();
    thread_.join();
  }

  Holder(Holder const&) = delete;
  Holder& operator=(Holder const&) = delete;

  bool holds() const { return holds_; }

  void waitUntilItHolds() const {
    require(comes([&] { return holds(); }), "the hold");
  }

  void giveBack() { mayGo_ = true; }

  void waitUntilGone() {
    giveBack();
    require(comes([&] { return isGone_.load(); }), "the end of the hold");
  }

  long threadId() const {
    require(comes([&] { return threadId_ != 0; }), "the thread");
    return threadId_;
  }

  void cancel() { ::pthread_cancel(thread_.native_handle()); }

private:
  void run() {
    threadId_ = ::syscall(SYS_gettid);
    bool const isReader = kind_ == Kind::reader;
    isReader ? sync_.ReadLock() : sync_.WriteLock();
    if (entries_ != nullptr) entries_->push_back(name_);
    holds_ = true;
    while (!mayGo_) ::sched_yield();
    isReader ? sync_.ReadUnlock() : sync_.WriteUnlock();
    isGone_ = true;
  }

  CReadWriteSync& sync_;
  Kind kind_;
  Calls* entries_;
  std::string name_;
  std::atomic<long> threadId_{0};
  std::atomic<bool> holds_{false};
  std::atomic<bool> mayGo_{false};
  std::atomic<bool> isGone_{false};
  std::thread thread_;
};

constexpr auto kReader = Holder::Kind::reader;
constexpr auto kWriter = Holder::Kind::writer;

/// How often a thread has gone to sleep.
long sleepsOf(long threadId) {
  std::ifstream status("/proc/self/task/" + std::to_string(threadId) + "/status");
  std::string const key = "voluntary_ctxt_switches:";
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(key, 0) == 0) return std::stol(line.substr(key.size()));
  }
  return -1;
}

// How it is made.

TEST(CReadWriteSyncTest, MembersLieInTheDocumentedOrder) {
  std::size_t const conditions = 4 * sizeof(int);
  std::array<std::size_t, 8> const expected{
      0,
      sizeof(int),
      2 * sizeof(int),
      3 * sizeof(int),
      conditions,
      conditions + sizeof(pthread_cond_t),
      conditions + 2 * sizeof(pthread_cond_t),
      conditions + 2 * sizeof(pthread_cond_t) + sizeof(pthread_mutex_t)};
  EXPECT_EQ(State::kOffsets, expected);
  EXPECT_TRUE(std::is_standard_layout_v<CReadWriteSync>);
}

TEST(CReadWriteSyncTest, IsNeitherCopiedNorMoved) {
  EXPECT_FALSE(std::is_copy_constructible_v<CReadWriteSync>);
  EXPECT_FALSE(std::is_copy_assignable_v<CReadWriteSync>);
  EXPECT_FALSE(std::is_move_constructible_v<CReadWriteSync>);
  EXPECT_FALSE(std::is_move_assignable_v<CReadWriteSync>);
}

/// A lock in memory that was full of something else.
class LockInUsedMemory {
public:
  LockInUsedMemory() {
    memory_.fill(std::byte{0xAA});
    sync_ = new (memory_.data()) CReadWriteSync;
  }

  ~LockInUsedMemory() { destroy(); }

  LockInUsedMemory(LockInUsedMemory const&) = delete;
  LockInUsedMemory& operator=(LockInUsedMemory const&) = delete;

  CReadWriteSync& operator*() { return *sync_; }

  void destroy() {
    if (sync_ != nullptr) std::destroy_at(std::exchange(sync_, nullptr));
  }

private:
  alignas(CReadWriteSync) std::array<std::byte, sizeof(CReadWriteSync)> memory_{};
  CReadWriteSync* sync_ = nullptr;
};

TEST(CReadWriteSyncTest, ConstructorZeroesTheCounters) {
  LockInUsedMemory sync;
  EXPECT_EQ(State::of(*sync), (Counters{0, 0, 0, 0}));
}

/// The bytes of a mutex or condition that init() has made where there was something else.
template <class Object, class Init>
std::string bytesOfDefault(Init const& init) {
  Object object;
  std::memset(&object, 0xAA, sizeof object);
  init(&object, nullptr);
  std::string bytes(sizeof object, '\0');
  std::memcpy(bytes.data(), &object, sizeof object);
  return bytes;
}

template <class Object>
std::string bytesOf(Object const& object) {
  std::string bytes(sizeof object, '\0');
  std::memcpy(bytes.data(), &object, sizeof object);
  return bytes;
}

TEST(CReadWriteSyncTest, ConditionsAndMutexHaveDefaultAttributes) {
  LockInUsedMemory sync;
  std::string const condition = bytesOfDefault<pthread_cond_t>(::pthread_cond_init);
  EXPECT_EQ(bytesOf(State::readCondition(*sync)), condition);
  EXPECT_EQ(bytesOf(State::writeCondition(*sync)), condition);
  EXPECT_EQ(bytesOf(State::mutex(*sync)), bytesOfDefault<pthread_mutex_t>(::pthread_mutex_init));
}

TEST(CReadWriteSyncTest, DestructorDestroysConditionsAndMutex) {
  LockInUsedMemory sync;
  CallRecorder recorder(*sync);
  sync.destroy();
  Calls calls = recorder.take();
  std::sort(calls.begin(), calls.end());
  EXPECT_EQ(calls, (Calls{"destroy mutex", "destroy readers", "destroy writer"}));
}

// What each operation does to the counters, and whom it wakes.

TEST(CReadWriteSyncTest, ReadLockCountsAReader) {
  CReadWriteSync sync;
  CallRecorder recorder(sync);
  sync.ReadLock();
  EXPECT_EQ(State::of(sync), (Counters{.readers = 1}));
  sync.ReadLock();
  EXPECT_EQ(State::of(sync), (Counters{.readers = 2}));
  EXPECT_EQ(recorder.take(), Calls{});
}

TEST(CReadWriteSyncTest, WriteLockCountsAWriter) {
  CReadWriteSync sync;
  CallRecorder recorder(sync);
  sync.WriteLock();
  EXPECT_EQ(State::of(sync), (Counters{.writers = 1}));
  EXPECT_EQ(recorder.take(), Calls{});
}

TEST(CReadWriteSyncTest, OperationsLeaveTheMutexFree) {
  CReadWriteSync sync;
  auto const isFree = [&] {
    if (::pthread_mutex_trylock(&State::mutex(sync)) != 0) return false;
    ::pthread_mutex_unlock(&State::mutex(sync));
    return true;
  };
  EXPECT_TRUE(isFree());
  sync.ReadLock();
  EXPECT_TRUE(isFree());
  sync.ReadUnlock();
  EXPECT_TRUE(isFree());
  sync.WriteLock();
  EXPECT_TRUE(isFree());
  sync.WriteUnlock();
  EXPECT_TRUE(isFree());
}

/// All mixtures of up to `most` holders and waiting threads.
std::vector<Counters> mixtures(int most) {
  std::vector<Counters> all;
  int const base = most + 1;
  for (int number = 0; number < base * base * base * base; ++number) {
    all.push_back({number % base, number / base % base, number / base / base % base,
                   number / base / base / base});
  }
  return all;
}

class OneOperation {
public:
  OneOperation(Counters const& before, void (CReadWriteSync::*operation)()) {
    State::set(sync_, before);
    CallRecorder recorder(sync_);
    (sync_.*operation)();
    after = State::of(sync_);
    wakeUps = recorder.take();
  }

  Counters after;
  Calls wakeUps;

private:
  CReadWriteSync sync_;
};

TEST(CReadWriteSyncTest, ReadUnlockWakesOneWriterWhenTheLastReaderGoes) {
  for (Counters const& before : mixtures(3)) {
    SCOPED_TRACE(testing::PrintToString(before));
    Counters after = before;
    --after.readers;
    bool const wakesWriter = after.readers == 0 && before.waitingWriters > 0;
    OneOperation const unlocked(before, &CReadWriteSync::ReadUnlock);
    EXPECT_EQ(unlocked.after, after);
    EXPECT_EQ(unlocked.wakeUps, wakesWriter ? Calls{"signal writer"} : Calls{});
  }
}

TEST(CReadWriteSyncTest, WriteUnlockWakesOneWriterOrElseAllReaders) {
  for (Counters const& before : mixtures(3)) {
    SCOPED_TRACE(testing::PrintToString(before));
    Counters after = before;
    --after.writers;
    Calls expected;
    if (before.waitingWriters >= 1) {
      expected = {"signal writer"};
    } else if (before.waitingReaders > 0) {
      expected = {"broadcast readers"};
    }
    OneOperation const unlocked(before, &CReadWriteSync::WriteUnlock);
    EXPECT_EQ(unlocked.after, after);
    EXPECT_EQ(unlocked.wakeUps, expected);
  }
}

TEST(CReadWriteSyncTest, ReadLockEntersWhereNoWriterHoldsOrWaits) {
  for (Counters const& before : mixtures(3)) {
    if (before.writers >= 1 || before.waitingWriters >= 1) continue;
    SCOPED_TRACE(testing::PrintToString(before));
    Counters after = before;
    ++after.readers;
    OneOperation const locked(before, &CReadWriteSync::ReadLock);
    EXPECT_EQ(locked.after, after);
    EXPECT_EQ(locked.wakeUps, Calls{});
  }
}

/// Writers that wait do not keep a writer out.
TEST(CReadWriteSyncTest, WriteLockEntersWhereNobodyHolds) {
  for (Counters const& before : mixtures(3)) {
    if (before.readers >= 1 || before.writers >= 1) continue;
    SCOPED_TRACE(testing::PrintToString(before));
    Counters after = before;
    ++after.writers;
    OneOperation const locked(before, &CReadWriteSync::WriteLock);
    EXPECT_EQ(locked.after, after);
    EXPECT_EQ(locked.wakeUps, Calls{});
  }
}

/// Nobody asks whose the hold is.
TEST(CReadWriteSyncTest, GivingBackWhatIsNotHeldSpoilsTheCounters) {
  CReadWriteSync sync;
  sync.ReadUnlock();
  EXPECT_EQ(State::of(sync), (Counters{.readers = -1}));
  sync.WriteUnlock();
  EXPECT_EQ(State::of(sync), (Counters{.readers = -1, .writers = -1}));
  sync.ReadLock();
  sync.WriteLock();
  EXPECT_EQ(State::of(sync), Counters{});
}

TEST(CReadWriteSyncTest, AnotherThreadMayGiveBack) {
  CReadWriteSync sync;
  sync.WriteLock();
  std::thread([&] { sync.WriteUnlock(); }).join();
  EXPECT_EQ(State::of(sync), Counters{});
}

// Who waits for whom.

struct WaitRow {
  char const* name;
  Counters holders;
  Holder::Kind waiter;
  void (CReadWriteSync::*giveBack)();
  Calls wakeUps;
};

class WaitTest : public testing::TestWithParam<WaitRow> {};

TEST_P(WaitTest, WaitsUntilTheLastHolderHasGone) {
  WaitRow const& row = GetParam();
  bool const isReader = row.waiter == kReader;
  CReadWriteSync sync;
  State::set(sync, row.holders);
  CallRecorder recorder(sync);
  Holder waiter(sync, row.waiter);
  Counters waiting = row.holders;
  ++(isReader ? waiting.waitingReaders : waiting.waitingWriters);
  require(become(sync, waiting), "the waiting thread");
  for (int left = row.holders.readers + row.holders.writers; left > 0; --left) {
    EXPECT_FALSE(waiter.holds());
    EXPECT_EQ(recorder.take(), Calls{});
    (sync.*row.giveBack)();
  }
  waiter.waitUntilItHolds();
  EXPECT_EQ(recorder.take(), row.wakeUps);
  EXPECT_EQ(State::of(sync), (Counters{.readers = isReader ? 1 : 0, .writers = isReader ? 0 : 1}));
  waiter.waitUntilGone();
  EXPECT_EQ(State::of(sync), Counters{});
}

INSTANTIATE_TEST_SUITE_P(CReadWriteSync, WaitTest,
                         testing::Values(WaitRow{"WriterForOneReader",
                                                 {.readers = 1},
                                                 kWriter,
                                                 &CReadWriteSync::ReadUnlock,
                                                 {"signal writer"}},
                                         WaitRow{"WriterForThreeReaders",
                                                 {.readers = 3},
                                                 kWriter,
                                                 &CReadWriteSync::ReadUnlock,
                                                 {"signal writer"}},
                                         WaitRow{"WriterForWriter",
                                                 {.writers = 1},
                                                 kWriter,
                                                 &CReadWriteSync::WriteUnlock,
                                                 {"signal writer"}},
                                         WaitRow{"ReaderForWriter",
                                                 {.writers = 1},
                                                 kReader,
                                                 &CReadWriteSync::WriteUnlock,
                                                 {"broadcast readers"}}),
                         [](auto const& row) { return std::string(row.param.name); });

TEST(CReadWriteSyncTest, ReadersShareTheLock) {
  CReadWriteSync sync;
  Holder first(sync, kReader);
  Holder second(sync, kReader);
  first.waitUntilItHolds();
  second.waitUntilItHolds();
  EXPECT_EQ(State::of(sync), (Counters{.readers = 2}));
}

TEST(CReadWriteSyncTest, WaitingWriterKeepsAThirdReaderOutUntilItHasComeAndGone) {
  CReadWriteSync sync;
  Calls entries;
  Holder first(sync, kReader);
  Holder second(sync, kReader);
  first.waitUntilItHolds();
  second.waitUntilItHolds();
  Holder writer(sync, kWriter, &entries, "writer");
  require(become(sync, {.readers = 2, .waitingWriters = 1}), "the waiting writer");
  Holder third(sync, kReader, &entries, "third reader");
  require(become(sync, {.readers = 2, .waitingReaders = 1, .waitingWriters = 1}), "the reader");

  first.waitUntilGone();
  EXPECT_EQ(State::of(sync), (Counters{.readers = 1, .waitingReaders = 1, .waitingWriters = 1}));
  EXPECT_FALSE(third.holds());
  second.waitUntilGone();
  writer.waitUntilItHolds();
  EXPECT_EQ(State::of(sync), (Counters{.writers = 1, .waitingReaders = 1}));
  EXPECT_FALSE(third.holds());
  writer.waitUntilGone();
  third.waitUntilItHolds();
  EXPECT_EQ(State::of(sync), (Counters{.readers = 1}));
  EXPECT_EQ(entries, (Calls{"writer", "third reader"}));
}

TEST(CReadWriteSyncTest, AllWaitingReadersProceedAtOnceWhenTheLastWriterGoes) {
  constexpr int kReaders = 8;
  CReadWriteSync sync;
  sync.WriteLock();
  std::vector<std::unique_ptr<Holder>> readers;
  for (int i = 0; i < kReaders; ++i) readers.push_back(std::make_unique<Holder>(sync, kReader));
  require(become(sync, {.writers = 1, .waitingReaders = kReaders}), "the waiting readers");
  CallRecorder recorder(sync);
  sync.WriteUnlock();
  for (auto const& reader : readers) reader->waitUntilItHolds();
  EXPECT_EQ(State::of(sync), (Counters{.readers = kReaders}));
  EXPECT_EQ(recorder.take(), Calls{"broadcast readers"});
}

TEST(CReadWriteSyncTest, WriterHandsOverToOneWriterBeforeAnyReader) {
  CReadWriteSync sync;
  Calls entries;
  sync.WriteLock();
  Holder reader(sync, kReader, &entries, "reader");
  require(become(sync, {.writers = 1, .waitingReaders = 1}), "the reader");
  Holder second(sync, kWriter, &entries, "writer");
  Holder third(sync, kWriter, &entries, "writer");
  require(become(sync, {.writers = 1, .waitingReaders = 1, .waitingWriters = 2}), "the writers");

  CallRecorder recorder(sync);
  sync.WriteUnlock();
  require(become(sync, {.writers = 1, .waitingReaders = 1, .waitingWriters = 1}), "the hand-over");
  EXPECT_EQ(recorder.take(), Calls{"signal writer"});
  require(comes([&] { return second.holds() || third.holds(); }), "the next writer");
  Holder& next = second.holds() ? second : third;
  Holder& last = second.holds() ? third : second;
  next.waitUntilGone();
  last.waitUntilItHolds();
  EXPECT_EQ(State::of(sync), (Counters{.writers = 1, .waitingReaders = 1}));
  EXPECT_EQ(recorder.take(), Calls{"signal writer"});
  last.waitUntilGone();
  reader.waitUntilItHolds();
  EXPECT_EQ(recorder.take(), Calls{"broadcast readers"});
  EXPECT_EQ(entries, (Calls{"writer", "writer", "reader"}));
}

TEST(CReadWriteSyncTest, WritersWithoutEndStarveAReader) {
  CReadWriteSync sync;
  auto writer = std::make_unique<Holder>(sync, kWriter);
  writer->waitUntilItHolds();
  Holder reader(sync, kReader);
  require(become(sync, {.writers = 1, .waitingReaders = 1}), "the reader");
  for (int i = 0; i < 20; ++i) {
    auto next = std::make_unique<Holder>(sync, kWriter);
    require(become(sync, {.writers = 1, .waitingReaders = 1, .waitingWriters = 1}), "the writer");
    writer = std::move(next);
    writer->waitUntilItHolds();
    EXPECT_EQ(State::of(sync), (Counters{.writers = 1, .waitingReaders = 1}));
    EXPECT_FALSE(reader.holds());
  }
  writer.reset();
  reader.waitUntilItHolds();
}

/// A condition may wake a thread for nothing, or too late: another was faster.
void expectToWaitAgain(Holder::Kind kind, int (*wake)(pthread_cond_t*), Counters waiting) {
  CReadWriteSync sync;
  sync.WriteLock();
  Holder waiter(sync, kind);
  require(become(sync, waiting), "the waiting thread");
  pthread_cond_t& condition =
      kind == kReader ? State::readCondition(sync) : State::writeCondition(sync);
  for (int i = 0; i < 3; ++i) {
    long const before = sleepsOf(waiter.threadId());
    wake(&condition);
    require(comes([&] { return sleepsOf(waiter.threadId()) > before; }), "the second sleep");
    require(become(sync, waiting), "the waiting thread");
    EXPECT_FALSE(waiter.holds());
  }
  sync.WriteUnlock();
  waiter.waitUntilItHolds();
}

TEST(CReadWriteSyncTest, ReaderWokenForNothingWaitsAgain) {
  expectToWaitAgain(kReader, ::pthread_cond_broadcast, {.writers = 1, .waitingReaders = 1});
}

TEST(CReadWriteSyncTest, WriterWokenForNothingWaitsAgain) {
  expectToWaitAgain(kWriter, ::pthread_cond_signal, {.writers = 1, .waitingWriters = 1});
}

/// A reader that a waiting writer alone keeps out waits on when it is woken.
TEST(CReadWriteSyncTest, ReaderWokenWhileAWriterWaitsWaitsAgain) {
  CReadWriteSync sync;
  sync.ReadLock();
  Holder writer(sync, kWriter);
  require(become(sync, {.readers = 1, .waitingWriters = 1}), "the writer");
  Holder reader(sync, kReader);
  Counters const waiting{.readers = 1, .waitingReaders = 1, .waitingWriters = 1};
  require(become(sync, waiting), "the reader");
  long const before = sleepsOf(reader.threadId());
  ::pthread_cond_broadcast(&State::readCondition(sync));
  require(comes([&] { return sleepsOf(reader.threadId()) > before; }), "the second sleep");
  require(become(sync, waiting), "the reader");
  EXPECT_FALSE(reader.holds());
  sync.ReadUnlock();
  writer.waitUntilGone();
  reader.waitUntilItHolds();
}

TEST(CReadWriteSyncTest, CancelledThreadWaitsOnUntilItHasTheLock) {
  for (auto const kind : {kReader, kWriter}) {
    CReadWriteSync sync;
    sync.WriteLock();
    Holder waiter(sync, kind);
    Counters const waiting{.writers = 1,
                           .waitingReaders = kind == kReader ? 1 : 0,
                           .waitingWriters = kind == kWriter ? 1 : 0};
    require(become(sync, waiting), "the waiting thread");
    waiter.cancel();
    EXPECT_EQ(State::of(sync), waiting);
    sync.WriteUnlock();
    waiter.waitUntilItHolds();
    waiter.waitUntilGone();
    EXPECT_EQ(State::of(sync), Counters{});
  }
}

// The holder.

struct HolderFields {
  void const* sync = nullptr;
  std::int32_t locked = 0;
  std::int32_t isWriter = 0;
};

HolderFields fieldsOf(CReadWriteSyncAuto const& holder) {
  static_assert(sizeof(CReadWriteSyncAuto) == sizeof(HolderFields));
  HolderFields fields;
  std::memcpy(&fields, static_cast<void const*>(&holder), sizeof fields);
  return fields;
}

void expectFields(CReadWriteSyncAuto const& holder, std::int32_t locked, std::int32_t isWriter) {
  EXPECT_EQ(fieldsOf(holder).locked, locked);
  EXPECT_EQ(fieldsOf(holder).isWriter, isWriter);
}

TEST(CReadWriteSyncAutoTest, HasTheLockFirstAndTwoFlagsAsInts) {
  CReadWriteSync sync;
  CReadWriteSyncAuto const holder(sync);
  EXPECT_EQ(fieldsOf(holder).sync, &sync);
  expectFields(holder, 0, 0);
}

TEST(CReadWriteSyncAutoTest, IsNotCopied) {
  EXPECT_FALSE(std::is_copy_constructible_v<CReadWriteSyncAuto>);
  EXPECT_FALSE(std::is_copy_assignable_v<CReadWriteSyncAuto>);
}

TEST(CReadWriteSyncAutoTest, ThatNeverLockedGivesNothingBack) {
  CReadWriteSync sync;
  {
    CReadWriteSyncAuto const holder(sync);
    EXPECT_EQ(State::of(sync), Counters{});
  }
  EXPECT_EQ(State::of(sync), Counters{});
}

TEST(CReadWriteSyncAutoTest, UnlockWithoutAHoldDoesNothing) {
  CReadWriteSync sync;
  CReadWriteSyncAuto holder(sync);
  holder.Unlock();
  EXPECT_EQ(State::of(sync), Counters{});
  expectFields(holder, 0, 0);
}

struct HoldRow {
  char const* name;
  void (CReadWriteSyncAuto::*lock)();
  Counters held;
  std::int32_t isWriter;
};

class HoldTest : public testing::TestWithParam<HoldRow> {};

TEST_P(HoldTest, IsTakenAndRemembered) {
  CReadWriteSync sync;
  CReadWriteSyncAuto holder(sync);
  (holder.*GetParam().lock)();
  EXPECT_EQ(State::of(sync), GetParam().held);
  expectFields(holder, 1, GetParam().isWriter);
}

TEST_P(HoldTest, IsGivenBackOnceByTwoUnlocks) {
  CReadWriteSync sync;
  {
    CReadWriteSyncAuto holder(sync);
    (holder.*GetParam().lock)();
    holder.Unlock();
    EXPECT_EQ(State::of(sync), Counters{});
    expectFields(holder, 0, GetParam().isWriter);
    holder.Unlock();
    EXPECT_EQ(State::of(sync), Counters{});
  }
  EXPECT_EQ(State::of(sync), Counters{});
}

TEST_P(HoldTest, IsGivenBackByTheDestructor) {
  CReadWriteSync sync;
  {
    CReadWriteSyncAuto holder(sync);
    (holder.*GetParam().lock)();
  }
  EXPECT_EQ(State::of(sync), Counters{});
}

TEST_P(HoldTest, CanBeTakenAfterAHoldOfTheOtherKind) {
  CReadWriteSync sync;
  CReadWriteSyncAuto holder(sync);
  GetParam().isWriter != 0 ? holder.ReadLock() : holder.WriteLock();
  holder.Unlock();
  (holder.*GetParam().lock)();
  EXPECT_EQ(State::of(sync), GetParam().held);
  expectFields(holder, 1, GetParam().isWriter);
  holder.Unlock();
  EXPECT_EQ(State::of(sync), Counters{});
}

INSTANTIATE_TEST_SUITE_P(
    CReadWriteSyncAuto, HoldTest,
    testing::Values(HoldRow{"Read", &CReadWriteSyncAuto::ReadLock, {.readers = 1}, 0},
                    HoldRow{"Write", &CReadWriteSyncAuto::WriteLock, {.writers = 1}, 1}),
    [](auto const& row) { return std::string(row.param.name); });

TEST(CReadWriteSyncAutoTest, RemembersOneHoldOfTwo) {
  CReadWriteSync sync;
  CReadWriteSyncAuto holder(sync);
  holder.ReadLock();
  holder.ReadLock();
  EXPECT_EQ(State::of(sync), (Counters{.readers = 2}));
  holder.Unlock();
  holder.Unlock();
  EXPECT_EQ(State::of(sync), (Counters{.readers = 1}));
}

TEST(CReadWriteSyncAutoTest, WakesWhomTheLockWakes) {
  CReadWriteSync sync;
  CReadWriteSyncAuto holder(sync);
  holder.WriteLock();
  Holder reader(sync, kReader);
  require(become(sync, {.writers = 1, .waitingReaders = 1}), "the reader");
  CallRecorder recorder(sync);
  holder.Unlock();
  reader.waitUntilItHolds();
  EXPECT_EQ(recorder.take(), Calls{"broadcast readers"});
}

// Many threads at once.

/// Numbers that are all alike whenever nobody writes. They are not atomic: only the lock
/// keeps their writers and readers apart.
struct Guarded {
  std::array<long, 16> numbers{};
  std::atomic<int> writersInside{0};
  std::atomic<int> readersInside{0};
  std::atomic<int> overlaps{0};

  void write() {
    if (++writersInside != 1 || readersInside != 0) ++overlaps;
    for (long& number : numbers) ++number;
    --writersInside;
  }

  void read() {
    ++readersInside;
    if (writersInside != 0) ++overlaps;
    for (long const number : numbers) {
      if (number != numbers.front()) ++overlaps;
    }
    --readersInside;
  }
};

TEST(CReadWriteSyncTest, ThirtyTwoThreadsKeepOutOfEachOthersWay) {
  constexpr int kThreads = 32;
  constexpr int kHolds = 1500;
  constexpr int kWritesEvery = 5;
  CReadWriteSync sync;
  Guarded guarded;
  auto const work = [&](int first) {
    CReadWriteSyncAuto holder(sync);
    for (int i = first; i < first + kHolds; ++i) {
      if (i % kWritesEvery == 0) {
        holder.WriteLock();
        guarded.write();
      } else {
        holder.ReadLock();
        guarded.read();
      }
      holder.Unlock();
    }
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) threads.emplace_back(work, i);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(guarded.overlaps, 0);
  EXPECT_EQ(guarded.numbers.front(), long{kThreads} * kHolds / kWritesEvery);
  EXPECT_EQ(State::of(sync), Counters{});
}

}  // namespace

// What the torture of the locks between processes stands on: memory that its processes
// share, in which each of them says where it is, so that whatever goes wrong shows.

#pragma once

#include "tests/support/own_logger.h"

#include <array>
#include <atomic>
#include <chrono>
#include <new>
#include <random>
#include <stdexcept>
#include <string>

#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

namespace vrxutil::test {

using SteadyClock = std::chrono::steady_clock;
using Nanoseconds = std::chrono::nanoseconds;

inline constexpr int kMaxProcesses = 64;
inline constexpr int kNowhere = -1;

/// The locks that are fought for. One is seldom without anybody, three often are.
inline constexpr std::array<char const*, 3> kLockNames = {"torture", "torture.2", "torture.3"};
inline constexpr int kLockCount = static_cast<int>(kLockNames.size());

enum class Kind { read, write };

/// Where in its life a process is.
enum class Step { pausing, coming, locking, inside, givingBack, going };

inline constexpr std::array<char const*, 6> kStepNames = {"pausing", "coming",      "locking",
                                                          "inside",  "giving back", "going"};

/// Pauses and choices, the same again for the same seed.
class Choice {
public:
  explicit Choice(unsigned seed) : engine_(seed) {}

  int below(int end) {
    return static_cast<int>(engine_() % static_cast<std::mt19937::result_type>(end));
  }

  bool oneIn(int count) { return below(count) == 0; }

  Kind kind() { return oneIn(3) ? Kind::write : Kind::read; }

  /// Nothing, a moment of work, a turn of others, or up to a tenth of a millisecond.
  void pause() {
    int const choice = below(256);
    if (choice == 0) {
      ::usleep(static_cast<useconds_t>(1 + below(100)));
    } else if (choice < 8) {
      ::sched_yield();
    } else {
      for (int rounds = choice; rounds > 0; --rounds) {
        std::atomic_signal_fence(std::memory_order_seq_cst);  // keeps the rounds
      }
    }
  }

private:
  std::mt19937 engine_;
};

/// Where a process is, for the others to see. All of it is set by the process but
/// isDoomed, which its parent sets before it kills it: what the process then leaves here
/// says nothing any more.
struct alignas(64) Place {
  std::atomic<bool> isDoomed{false};
  std::atomic<int> reads{kNowhere};   // the lock that it believes to hold
  std::atomic<int> writes{kNowhere};  // likewise
  std::atomic<int> lock{0};           // the lock that it is about
  std::atomic<Step> step{Step::pausing};
  std::atomic<unsigned long> moves{0};  // grows as long as it gets on

  /// For the next process; the parent's, when the last one is gone.
  void clear() {
    reads = kNowhere;
    writes = kNowhere;
    isDoomed = false;  // last: who has seen it false must not see the old values
  }
};

/// What a lock guards: numbers that are the same but in a write section. They count these.
struct Guarded {
  std::array<long volatile, 3> numbers{};
  std::atomic<long> begun{0};
  std::atomic<long> ended{0};

  bool isTorn() const { return numbers[0] != numbers[1] || numbers[0] != numbers[2]; }

  /// How many write sections have left no trace. A process that is killed leaves one
  /// begun and not ended.
  long lost() const {
    long const count = numbers[0];
    if (count < ended) return ended - count;
    return count > begun ? count - begun : 0;
  }
};

/// Figures that grow in all processes.
struct Figures {
  std::atomic<long> cycles{0};
  std::atomic<long> firsts{0};  // of these, found neither set nor key file
  std::atomic<long> reads{0};
  std::atomic<long> writes{0};
  std::atomic<long> busy{0};  // tries while somebody was in the way
  std::atomic<long> overlaps{0};
  std::atomic<long> torn{0};
  std::atomic<long> refused{0};     // constructions, blocking locks, unlocks
  std::atomic<long> complaints{0};  // records of something that should not have been
  std::atomic<long> longestComing{0};
  std::atomic<long> longestLock{0};
};

/// The memory that is shared.
struct Arena {
  std::array<Place, kMaxProcesses> places;
  std::array<Guarded, kLockCount> guarded;
  Figures figures;
  int processCount = 0;
  std::atomic<long> turns{0};
  std::atomic<long> wanted{0};
  std::atomic<bool> isOver{false};
  bool mayTear = false;  // where processes are killed in the middle of a write section
  std::array<char, 200> firstComplaint{};

  /// Whether there is one more to do.
  bool takesTurn() { return !isOver && turns.fetch_add(1) < wanted; }
};

/// Lives as long as the process.
inline Arena& makeArena() {
  void* const memory = ::mmap(nullptr, sizeof(Arena), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, /*fd=*/-1, /*offset=*/0);
  if (memory == MAP_FAILED) throw std::runtime_error("no shared memory");
  return *new (memory) Arena;
}

inline void raiseTo(std::atomic<long>& longest, Nanoseconds time) {
  long known = longest;
  while (known < time.count() && !longest.compare_exchange_weak(known, time.count())) {
  }
}

/// Counts the records that a lock in order never logs, and keeps the first one.
class ComplaintCounter final : public OwnLogger {
public:
  explicit ComplaintCounter(Arena& arena) : arena_(arena) {}

  bool isDetailLoggingEnabled() override { return true; }

  void logMessage(LogLevel const& /*level*/, std::wstring const& /*group*/,
                  std::wstring const& message) override {
    bool const isComplaint = message.find(L"Failed to ") != std::wstring::npos ||
                             message.find(L"non-root") != std::wstring::npos ||
                             message.ends_with(L" value failed");
    if (!isComplaint || arena_.figures.complaints++ != 0) return;
    for (std::size_t i = 0; i < message.size() && i + 1 < arena_.firstComplaint.size(); ++i) {
      arena_.firstComplaint[i] = static_cast<char>(message[i]);
    }
  }

private:
  Arena& arena_;
};

/// What takes a lock and gives it back; it may do so as one of several kinds of object.
template <class Try, class Take, class GiveBack>
struct Ways {
  Try tryLock;
  Take lock;
  GiveBack giveBack;
};

template <class Try, class Take, class GiveBack>
Ways(Try, Take, GiveBack) -> Ways<Try, Take, GiveBack>;

/// One process of the torture: its choices, and its place.
class Actor {
public:
  Actor(Arena& arena, int index, unsigned seed)
      : choice(seed),
        arena_(arena),
        place_(arena.places[static_cast<std::size_t>(index)]),
        figures_(arena.figures) {}

  bool takesTurn() {
    choice.pause();
    return arena_.takesTurn();
  }

  void at(Step step) {
    place_.step = step;
    ++place_.moves;
  }

  void turnTo(int lock) { place_.lock = lock; }

  void refuse() { ++figures_.refused; }

  void countCycle(bool isFirst) {
    ++figures_.cycles;
    if (isFirst) ++figures_.firsts;
  }

  /// Whether `come` has succeeded; one that takes long is noted.
  template <class Come>
  bool hasCome(Come come) {
    at(Step::coming);
    SteadyClock::time_point const start = SteadyClock::now();
    bool const isThere = come();
    raiseTo(figures_.longestComing, SteadyClock::now() - start);
    if (!isThere) refuse();
    return isThere;
  }

  /// Takes the lock, does what it is for, and gives it back.
  template <class WaysToLock>
  void section(Kind kind, WaysToLock const& ways) {
    at(Step::locking);
    if (!hasTaken(ways)) return refuse();
    at(Step::inside);
    if (kind == Kind::read) {
      read();
    } else {
      write();
    }
    at(Step::givingBack);
    if (!ways.giveBack()) refuse();
  }

  Choice choice;

private:
  template <class WaysToLock>
  bool hasTaken(WaysToLock const& ways) {
    if (choice.oneIn(2)) {
      if (ways.tryLock()) return true;
      ++figures_.busy;
    }
    SteadyClock::time_point const start = SteadyClock::now();
    bool const isTaken = ways.lock();
    raiseTo(figures_.longestLock, SteadyClock::now() - start);
    return isTaken;
  }

  void read() {
    Guarded const& guarded = this->guarded();
    place_.reads = place_.lock.load();
    if (!isAlone(Kind::read)) ++figures_.overlaps;
    long const before = guarded.numbers[0];
    choice.pause();
    if (!arena_.mayTear && (guarded.numbers[0] != before || guarded.isTorn())) ++figures_.torn;
    ++figures_.reads;
    place_.reads = kNowhere;
  }

  void write() {
    Guarded& guarded = this->guarded();
    place_.writes = place_.lock.load();
    if (!isAlone(Kind::write)) ++figures_.overlaps;
    if (!arena_.mayTear && guarded.isTorn()) ++figures_.torn;
    ++guarded.begun;
    long const next = guarded.numbers[0] + 1;
    for (long volatile& number : guarded.numbers) {
      choice.pause();
      number = next;
    }
    ++guarded.ended;
    ++figures_.writes;
    place_.writes = kNowhere;
  }

  /// Of two that hold the lock against each other, the later one sees the other here.
  bool isAlone(Kind kind) const {
    for (int i = 0; i < arena_.processCount; ++i) {
      Place const& other = arena_.places[static_cast<std::size_t>(i)];
      if (&other == &place_ || other.isDoomed) continue;  // in this order, see clear()
      if (other.writes == place_.lock) return false;
      if (kind == Kind::write && other.reads == place_.lock) return false;
    }
    return true;
  }

  Guarded& guarded() { return arena_.guarded[static_cast<std::size_t>(place_.lock.load())]; }

  Arena& arena_;
  Place& place_;
  Figures& figures_;
};

}  // namespace vrxutil::test

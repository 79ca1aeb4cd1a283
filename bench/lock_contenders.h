// How reader/writer locks are timed, one and the same way for all of them.
//
// A Contender is a lock with the members readLock, readUnlock, writeLock, writeUnlock.

#pragma once

#include <benchmark/benchmark.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <pthread.h>
#include <sched.h>

namespace vrxutil::bench {

/// Starts a thread that lives as long as the program: the C library has shorter ways for
/// processes that have one thread only, and no daemon that needs a lock is one.
void haveSecondThread();

/// One uncontended hold for reading, taken and given back.
template <class Contender>
void measureReading(benchmark::State& state) {
  haveSecondThread();
  static Contender lock;
  for (auto _ : state) {
    lock.readLock();
    lock.readUnlock();
    benchmark::ClobberMemory();
  }
}

/// One uncontended hold for writing, taken and given back.
template <class Contender>
void measureWriting(benchmark::State& state) {
  haveSecondThread();
  static Contender lock;
  for (auto _ : state) {
    lock.writeLock();
    lock.writeUnlock();
    benchmark::ClobberMemory();
  }
}

/// What the lock guards when threads contend: a line of numbers that are all alike
/// whenever nobody writes.
class GuardedNumbers {
public:
  void change() {
    for (std::uint64_t& number : numbers_) ++number;
  }

  void check() const {
    for (std::uint64_t const number : numbers_) {
      if (number != numbers_.front()) std::abort();
    }
  }

private:
  std::array<std::uint64_t, 8> numbers_{};
};

/// Numbers of Marsaglia's xorshift64, another row for each seed.
class RandomRow {
public:
  explicit RandomRow(std::uint64_t seed) : state_(seed * 0x9E3779B97F4A7C15U) {}

  std::uint64_t next() {
    state_ ^= state_ << 13U;
    state_ ^= state_ >> 7U;
    state_ ^= state_ << 17U;
    return state_;
  }

private:
  std::uint64_t state_;
};

/// Keeps the thread on a processor of its own: where two share one, they seldom meet.
class OwnProcessor {
public:
  explicit OwnProcessor(int thread) {
    ::pthread_getaffinity_np(::pthread_self(), sizeof before_, &before_);
    std::size_t processor = 0;
    for (int left = thread % CPU_COUNT(&before_); left >= 0; ++processor) {
      if (CPU_ISSET(processor, &before_)) --left;
    }
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(processor - 1, &one);
    ::pthread_setaffinity_np(::pthread_self(), sizeof one, &one);
  }

  ~OwnProcessor() { ::pthread_setaffinity_np(::pthread_self(), sizeof before_, &before_); }

  OwnProcessor(OwnProcessor const&) = delete;
  OwnProcessor& operator=(OwnProcessor const&) = delete;

private:
  cpu_set_t before_;
};

/// Holds one after the other in each thread, without a pause; of 100, state.range(0) write.
template <class Contender>
void measureContention(benchmark::State& state) {
  static Contender lock;
  static GuardedNumbers numbers;
  auto const writes = static_cast<std::uint64_t>(state.range(0));
  RandomRow row(static_cast<std::uint64_t>(state.thread_index()) + 1);
  OwnProcessor const processor(state.thread_index());
  for (auto _ : state) {
    if ((row.next() >> 32U) % 100 < writes) {
      lock.writeLock();
      numbers.change();
      lock.writeUnlock();
    } else {
      lock.readLock();
      numbers.check();
      lock.readUnlock();
    }
  }
}

/// A Contender of what meets the standard's requirements of a shared mutex.
template <class Mutex>
class SharedLockable {
public:
  void readLock() { mutex_.lock_shared(); }

  void readUnlock() { mutex_.unlock_shared(); }

  void writeLock() { mutex_.lock(); }

  void writeUnlock() { mutex_.unlock(); }

private:
  Mutex mutex_;
};

/// Registers the three benchmarks of a lock, BM_NAMEUncontendedRead and so on.
template <class Contender>
bool addContender(std::string const& name) {
  using benchmark::RegisterBenchmark;
  RegisterBenchmark(("BM_" + name + "UncontendedRead").c_str(), measureReading<Contender>);
  RegisterBenchmark(("BM_" + name + "UncontendedWrite").c_str(), measureWriting<Contender>);
  RegisterBenchmark(("BM_" + name + "Contended").c_str(), measureContention<Contender>)
      ->ArgName("writes")
      ->Arg(5)
      ->Arg(20)
      ->Arg(50)
      ->Threads(2)
      ->UseRealTime();
  return true;
}

}  // namespace vrxutil::bench

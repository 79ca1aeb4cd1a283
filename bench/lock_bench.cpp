// What a hold of CReadWriteSync costs, alone and with a second thread that wants it, too,
// beside the standard library's lock and the least that any lock on a mutex can cost.

#include "bench/lock_contenders.h"

#include <vrxutil/lock.h>

#include <shared_mutex>
#include <thread>

#include <pthread.h>
#include <unistd.h>

namespace vrxutil::bench {

namespace {

/// A mutex that guards four counters, taken as often as a reader/writer lock on a mutex has
/// to: once to take the hold, and once to give it back.
class MutexAndCounters {
public:
  void readLock() { count(readers_, +1); }

  void readUnlock() { count(readers_, -1); }

  void writeLock() { count(writers_, +1); }

  void writeUnlock() { count(writers_, -1); }

private:
  void count(int& counter, int step) {
    ::pthread_mutex_lock(&mutex_);
    counter += step;
    ::pthread_mutex_unlock(&mutex_);
  }

  int readers_ = 0;
  int writers_ = 0;
  [[maybe_unused]] int waitingReaders_ = 0;
  [[maybe_unused]] int waitingWriters_ = 0;
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

class OwnLock {
public:
  void readLock() { lock_.ReadLock(); }

  void readUnlock() { lock_.ReadUnlock(); }

  void writeLock() { lock_.WriteLock(); }

  void writeUnlock() { lock_.WriteUnlock(); }

private:
  CReadWriteSync lock_;
};

/// One hold of the bare mutex is no hold of a lock: it is not timed with two threads.
[[maybe_unused]] bool const kMutex = [] {
  benchmark::RegisterBenchmark("BM_MutexUncontendedRead", measureReading<MutexAndCounters>);
  benchmark::RegisterBenchmark("BM_MutexUncontendedWrite", measureWriting<MutexAndCounters>);
  return true;
}();
[[maybe_unused]] bool const kOwn = addContender<OwnLock>("ReadWriteSync");
[[maybe_unused]] bool const kSharedMutex =
    addContender<SharedLockable<std::shared_mutex>>("SharedMutex");

}  // namespace

void haveSecondThread() {
  static bool const isThere = [] {
    std::thread([] {
      for (;;) ::pause();
    }).detach();
    return true;
  }();
  benchmark::DoNotOptimize(isThere);
}

}  // namespace vrxutil::bench

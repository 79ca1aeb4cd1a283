// What a hold of a lock between processes costs, beside the system calls that it is made of
// and the records that it logs, which the built-in logger drops until it is told else.

#include "tests/lock/lock_world.h"

#include <vrxutil/lock.h>
#include <vrxutil/log.h>

#include <benchmark/benchmark.h>

#include <array>
#include <cstdio>
#include <cstdlib>

#include <sys/ipc.h>
#include <sys/sem.h>

namespace vrxutil::bench {
namespace {

using vornix_com::oxa::lock::UnixLock;

constexpr wchar_t kGroup[] = L"IPLock";

/// A set as a lock has it.
class SemaphoreSet {
public:
  SemaphoreSet() : id_(::semget(IPC_PRIVATE, 3, 0600)) {}

  ~SemaphoreSet() { ::semctl(id_, 0, IPC_RMID); }

  SemaphoreSet(SemaphoreSet const&) = delete;
  SemaphoreSet& operator=(SemaphoreSet const&) = delete;

  template <std::size_t kSize>
  void operate(std::array<sembuf, kSize> operations) const {
    if (::semop(id_, operations.data(), operations.size()) != 0) std::abort();
  }

  void read() const {
    operate(std::array<sembuf, 2>{{{0, 0, SEM_UNDO}, {1, +1, SEM_UNDO}}});
    operate(std::array<sembuf, 1>{{{1, -1, SEM_UNDO}}});
  }

  void write() const {
    operate(std::array<sembuf, 4>{
        {{0, 0, SEM_UNDO}, {1, 0, SEM_UNDO}, {0, +1, SEM_UNDO}, {1, +1, SEM_UNDO}}});
    operate(std::array<sembuf, 2>{{{0, -1, SEM_UNDO}, {1, -1, SEM_UNDO}}});
  }

private:
  int id_;
};

void logReadRecords() {
  logDetail(kGroup, L"readLock - providing read lock");
  logDetail(kGroup, L"readUnLock - unlocking the read lock successful");
}

void logWriteRecords() {
  logDetail(kGroup, L"writeLock - providing write lock");
  logDetail(kGroup, L"writeUnLock - unlocking the write lock successful");
}

void BM_SemopRead(benchmark::State& state) {
  SemaphoreSet const set;
  for (auto _ : state) set.read();
}

BENCHMARK(BM_SemopRead);

void BM_SemopWrite(benchmark::State& state) {
  SemaphoreSet const set;
  for (auto _ : state) set.write();
}

BENCHMARK(BM_SemopWrite);

void BM_ReadRecords(benchmark::State& state) {
  for (auto _ : state) logReadRecords();
}

BENCHMARK(BM_ReadRecords);

void BM_WriteRecords(benchmark::State& state) {
  for (auto _ : state) logWriteRecords();
}

BENCHMARK(BM_WriteRecords);

void BM_SemopReadAndRecords(benchmark::State& state) {
  SemaphoreSet const set;
  for (auto _ : state) {
    set.read();
    logReadRecords();
  }
}

BENCHMARK(BM_SemopReadAndRecords);

void BM_SemopWriteAndRecords(benchmark::State& state) {
  SemaphoreSet const set;
  for (auto _ : state) {
    set.write();
    logWriteRecords();
  }
}

BENCHMARK(BM_SemopWriteAndRecords);

void BM_UnixLockRead(benchmark::State& state) {
  UnixLock lock("bench");
  for (auto _ : state) {
    if (!lock.readLock(0) || !lock.readUnlock()) return state.SkipWithError("refused");
  }
}

BENCHMARK(BM_UnixLockRead);

void BM_UnixLockWrite(benchmark::State& state) {
  UnixLock lock("bench");
  for (auto _ : state) {
    if (!lock.writeLock(0) || !lock.writeUnlock()) return state.SkipWithError("refused");
  }
}

BENCHMARK(BM_UnixLockWrite);

void BM_UnixLockComeAndGo(benchmark::State& state) {
  UnixLock const staying("bench");
  for (auto _ : state) UnixLock const other("bench");
}

BENCHMARK(BM_UnixLockComeAndGo);

void BM_UnixLockFirstAndLast(benchmark::State& state) {
  for (auto _ : state) UnixLock const lock("bench");
}

BENCHMARK(BM_UnixLockFirstAndLast);

}  // namespace
}  // namespace vrxutil::bench

// The folder of the locks is where only this process sees it.
int main(int argc, char** argv) {
  if (!vrxutil::test::enterWorld()) {
    std::fprintf(stderr, "%s\n", vrxutil::test::kNoWorld);
    return EXIT_SUCCESS;  // without figures
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}

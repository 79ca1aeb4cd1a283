// How much a benchmark takes from the free store.

#pragma once

#include "tests/support/block_count.h"

#include <benchmark/benchmark.h>

namespace vrxutil::bench {

using test::blocksTaken;

/// Reports the blocks that are taken during its life as the counter "allocs" of
/// a benchmark, on average of an iteration.
class AllocationCount {
public:
  explicit AllocationCount(benchmark::State& state) : state_(state), before_(blocksTaken()) {}

  ~AllocationCount() {
    auto const taken = static_cast<double>(blocksTaken() - before_);
    state_.counters["allocs"] = benchmark::Counter(taken, benchmark::Counter::kAvgIterations);
  }

  AllocationCount(AllocationCount const&) = delete;
  AllocationCount& operator=(AllocationCount const&) = delete;

private:
  benchmark::State& state_;
  long before_;
};

}  // namespace vrxutil::bench

// How much a benchmark takes from the free store. A program that links this has
// an operator new that counts.

#pragma once

#include <benchmark/benchmark.h>

namespace vrxutil::bench {

/// Number of blocks that this thread has taken with new since its start.
long blocksTaken() noexcept;

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

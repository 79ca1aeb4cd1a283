// How whole documents and files are timed.

#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include <time.h>

namespace vrxutil::bench {

/// Makes the C library do now what it puts off when many small blocks are freed.
/// It would do so in the middle of the next work that takes a large block, at that
/// one's expense.
void settleFreedMemory();

/// Processor time of this thread that `work` takes, in seconds: what other
/// processes do meanwhile does not count.
template <class Work>
double secondsOf(Work const& work) {
  auto const now = [] {
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
  };
  double const start = now();
  work();
  return now() - start;
}

/// The middle one of `values`, of which there is at least one.
inline double median(std::vector<double> values) {
  auto const middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

/// Times `own` in turn with `peer`, so that both meet the same machine, and reports
/// the median of their ratios as `counter`. Each returns the seconds it took. For
/// benchmarks with manual time.
template <class Own, class Peer>
void measureBeside(benchmark::State& state, std::string const& counter, Peer const& peer,
                   Own const& own) {
  std::vector<double> ratios;
  for (auto _ : state) {
    double const peers = peer();
    double const seconds = own();
    state.SetIterationTime(seconds);
    ratios.push_back(seconds / peers);
  }
  state.counters[counter] = median(std::move(ratios));
}

}  // namespace vrxutil::bench

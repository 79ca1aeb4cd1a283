// The documents that the XML benchmarks work on, and how they are timed: the
// library's benchmarks and those of its peers share both.

#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include <time.h>

namespace vrxutil::bench {

/// A task list of an agent, 1 MiB: ASCII, indented, mostly short attributes,
/// nested tasks, some text. The same in each run.
std::string const& configuration();

/// A root with `count` children <task name="task-00042" enabled="true"/>.
std::string taskList(std::size_t count);

/// The value of `name` in the child of that number.
std::string taskName(std::size_t number);

/// ASCII as wide text.
inline std::wstring widened(std::string const& ascii) { return {ascii.begin(), ascii.end()}; }

/// How many children the benchmarks of lookups look through.
inline constexpr std::size_t kManyTasks = 10000;

/// Lets Expat go through configuration() with handlers that do nothing, in blocks
/// of `blockSize` bytes: what any parser on top of it costs at least.
void readEvents(std::size_t blockSize);

/// Makes the C library do now what it puts off when many small blocks are freed.
/// It would do so in the middle of the next work that takes a large block, at that
/// one's expense.
void settleFreedMemory();

/// Processor time of this thread that `work` takes, in seconds: what other
/// processes do meanwhile does not count.
template <class Work>
double secondsOf(Work work) {
  auto const now = [] {
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
  };
  double const start = now();
  work();
  settleFreedMemory();
  return now() - start;
}

/// The middle one of `values`, of which there is at least one.
inline double median(std::vector<double> values) {
  auto const middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

/// Times `work` in turn with Expat's bare events, so that both meet the same
/// machine, and reports their ratio as the counter "toExpat": the median of all
/// pairs. For benchmarks with manual time.
template <class Work>
void measureBesideExpat(benchmark::State& state, Work work) {
  std::vector<double> ratios;
  for (auto _ : state) {
    double const events = secondsOf([] { readEvents(configuration().size()); });
    double const own = secondsOf(work);
    state.SetIterationTime(own);
    ratios.push_back(own / events);
  }
  state.counters["toExpat"] = median(std::move(ratios));
}

/// Times the removal of all children one by one. `build` makes a document with
/// that many; `removeAll` empties it. The counter "perChild" is in seconds. For
/// benchmarks with manual time; the range is the number of children.
template <class Build, class RemoveAll>
void measureRemoval(benchmark::State& state, Build build, RemoveAll removeAll) {
  std::string const text = taskList(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    auto document = build(text);
    state.SetIterationTime(secondsOf([&] { removeAll(document); }));
  }
  state.counters["perChild"] = benchmark::Counter(
      static_cast<double>(state.range(0)),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

}  // namespace vrxutil::bench

// The documents that the XML benchmarks work on, and how they are timed: the
// library's benchmarks and those of its peers share both.

#pragma once

#include "bench/measuring.h"

#include <benchmark/benchmark.h>

#include <cstddef>
#include <string>

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

/// Seconds that `work` takes, with what freeing its blocks leaves behind.
template <class Work>
double secondsAndSettling(Work const& work) {
  return secondsOf([&] {
    work();
    settleFreedMemory();
  });
}

/// Times `work` in turn with Expat's bare events, as the counter "toExpat".
template <class Work>
void measureBesideExpat(benchmark::State& state, Work const& work) {
  measureBeside(
      state, "toExpat",
      [] { return secondsAndSettling([] { readEvents(configuration().size()); }); },
      [&] { return secondsAndSettling(work); });
}

/// Times the removal of all children one by one. `build` makes a document with
/// that many; `removeAll` empties it. The counter "perChild" is in seconds. For
/// benchmarks with manual time; the range is the number of children.
template <class Build, class RemoveAll>
void measureRemoval(benchmark::State& state, Build build, RemoveAll removeAll) {
  std::string const text = taskList(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    auto document = build(text);
    state.SetIterationTime(secondsAndSettling([&] { removeAll(document); }));
  }
  state.counters["perChild"] = benchmark::Counter(
      static_cast<double>(state.range(0)),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

}  // namespace vrxutil::bench

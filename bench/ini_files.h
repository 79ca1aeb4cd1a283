// The files that the INI benchmarks read, what they look up, and how they are
// timed: beside GLib's GKeyFile doing the same, so that both meet the same machine.

#pragma once

#include "bench/measuring.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace vrxutil::bench {

/// How many pairs a file has: 30 MiB with a line of 40 bytes each.
inline constexpr std::size_t kPairsOfLargeFile = (30U << 20) / 40;

/// How many pairs the file has that values are looked up in.
inline constexpr std::size_t kPairsOfSmallFile = 20000;

/// A file of pairs with keys of 14 characters and values of 24, spread evenly over
/// its sections.
struct IniFile {
  std::size_t pairs;
  std::size_t sections;
  bool isShuffled;  // sections, and the keys in each; else both ascend

  std::string sectionOf(std::size_t pair) const;
  std::string keyOf(std::size_t pair) const;
  std::string valueOf(std::size_t pair) const;

  /// Path of the file, which is made where it is asked for first.
  std::string const& path() const;
};

/// The large file with range(0) sections, shuffled where range(1) says so.
inline IniFile largeFileOf(benchmark::State const& state) {
  return {kPairsOfLargeFile, static_cast<std::size_t>(state.range(0)), state.range(1) != 0};
}

/// Each number of sections with both orders.
inline void largeFiles(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgNames({"sections", "shuffled"})->ArgsProduct({{1, 1000, 100000}, {0, 1}});
}

template <class Text>
using NamesOf = std::vector<std::unique_ptr<std::pair<Text, Text>>>;

/// The names of a file's pairs, as text of the kind that a library takes, each in a block
/// of its own. They are asked for in the order of the blocks, or at random.
template <class Text, class MakeText>
NamesOf<Text> namesOf(IniFile const& file, bool isRandom, MakeText makeText) {
  std::vector<std::size_t> order(file.pairs);
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::mt19937 random(2);
  if (isRandom) std::shuffle(order.begin(), order.end(), random);
  NamesOf<Text> names;
  for (std::size_t const pair : order) {
    names.push_back(std::make_unique<std::pair<Text, Text>>(makeText(file.sectionOf(pair)),
                                                            makeText(file.keyOf(pair))));
  }
  if (isRandom) std::shuffle(names.begin(), names.end(), random);
  return names;
}

/// Seconds that GKeyFile takes to read a file; freeing it is not counted.
double readWithGKeyFile(std::string const& path);

/// Seconds that reading takes: `read` returns what holds the file's contents.
template <class Read>
double secondsOfReading(Read const& read) {
  settleFreedMemory();
  decltype(read()) contents{};
  return secondsOf([&] { contents = read(); });
}

/// Times reading a large file.
template <class Read>
void measureReading(benchmark::State& state, Read const& read) {
  std::string const& path = largeFileOf(state).path();
  measureBeside(
      state, "toGKeyFile", [&] { return readWithGKeyFile(path); },
      [&] { return secondsOfReading([&] { return read(path); }); });
}

/// The file that values are looked up in: range(0) sections, in random order.
inline IniFile smallFileOf(benchmark::State const& state) {
  return {kPairsOfSmallFile, static_cast<std::size_t>(state.range(0)), /*isShuffled=*/true};
}

inline bool isAskedAtRandom(benchmark::State const& state) { return state.range(1) != 0; }

inline void smallFiles(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgNames({"sections", "random"})->ArgsProduct({{1, 1000}, {0, 1}});
}

/// What looks up all pairs of a file with GKeyFile and returns the seconds it took.
std::function<double()> lookupsWithGKeyFile(IniFile const& file, bool isRandom);

/// Seconds that looking up each of `names` takes; `lookUp` returns whether a pair was
/// found.
template <class Names, class LookUp>
double secondsOfLookups(Names const& names, LookUp const& lookUp) {
  return secondsOf([&] {
    for (auto const& pair : names) {
      if (!lookUp(pair->first, pair->second)) std::abort();
    }
  });
}

/// Times looking up all pairs of a small file, beside GKeyFile; the counter
/// "perLookup" is in seconds.
template <class Names, class LookUp>
void measureLookups(benchmark::State& state, Names const& names, LookUp const& lookUp) {
  auto const peer = lookupsWithGKeyFile(smallFileOf(state), isAskedAtRandom(state));
  measureBeside(state, "toGKeyFile", peer, [&] { return secondsOfLookups(names, lookUp); });
  state.counters["perLookup"] = benchmark::Counter(
      static_cast<double>(names.size()),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

}  // namespace vrxutil::bench

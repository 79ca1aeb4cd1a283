// Wildcards, those that make a simple matcher go back again and again and ordinary
// ones, and versions read from text; beside them, the C library.

#include "tests/support/locale_scope.h"

#include <vrxutil/system.h>

#include <benchmark/benchmark.h>

#include <array>
#include <cstddef>
#include <cwchar>
#include <string>

#include <fnmatch.h>

namespace vrxutil::bench {
namespace {

using test::LocaleScope;

constexpr char const* localeOf(bool isUtf8) { return isUtf8 ? "C.UTF-8" : "C"; }

bool matchedByFnmatch(std::string const& pattern, std::string const& text) {
  return ::fnmatch(pattern.c_str(), text.c_str(), FNM_CASEFOLD) == 0;
}

/// Many stars and a text of one letter, with at most one "b" in the middle. The first
/// argument is the length, the second whether there is that "b", the third whether
/// the locale is of UTF-8.
template <class Match>
void matchManyStars(benchmark::State& state, Match match) {
  LocaleScope const locale(localeOf(state.range(2) != 0));
  std::string const pattern = "*a*a*a*a*b";
  auto const length = static_cast<std::size_t>(state.range(0));
  std::string text(length, 'a');
  if (state.range(1) != 0) text[length / 2] = 'b';
  for (auto _ : state) benchmark::DoNotOptimize(match(pattern, text));
}

void BM_MatchManyStars(benchmark::State& state) { matchManyStars(state, MatchWildcard); }

void BM_FnmatchManyStars(benchmark::State& state) { matchManyStars(state, matchedByFnmatch); }

void lengthsAndLocales(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgNames({"bytes", "b", "utf8"})
      ->ArgsProduct({{4 << 10, 16 << 10, 64 << 10}, {0, 1}, {0, 1}});
}

BENCHMARK(BM_MatchManyStars)->Apply(lengthsAndLocales);
BENCHMARK(BM_FnmatchManyStars)->Apply(lengthsAndLocales);

/// Names of files. The argument is whether the locale is of UTF-8.
template <class Match>
void matchNames(benchmark::State& state, Match match) {
  LocaleScope const locale(localeOf(state.range(0) != 0));
  std::string const pattern = "*.TXT";
  std::array<std::string, 4> const names{"readme.txt", "Setup.exe", "release notes.TXT", "a.log"};
  std::size_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(match(pattern, names[next++ % names.size()]));
  }
}

void BM_MatchName(benchmark::State& state) { matchNames(state, MatchWildcard); }

void BM_FnmatchName(benchmark::State& state) { matchNames(state, matchedByFnmatch); }

BENCHMARK(BM_MatchName)->ArgName("utf8")->Arg(0)->Arg(1);
BENCHMARK(BM_FnmatchName)->ArgName("utf8")->Arg(0)->Arg(1);

constexpr std::array<wchar_t const*, 4> kVersions{L"4.6.0.1234", L"10.15", L"2.0.14.65535",
                                                  L" 1. 2. 3. 4"};

void BM_ParseVersion(benchmark::State& state) {
  LocaleScope const locale(localeOf(true));
  std::size_t next = 0;
  for (auto _ : state) {
    AVersion version(kVersions[next++ % kVersions.size()]);
    benchmark::DoNotOptimize(version);
  }
}

void BM_SwscanfVersion(benchmark::State& state) {
  LocaleScope const locale(localeOf(true));
  std::size_t next = 0;
  for (auto _ : state) {
    std::array<int, 4> parts{};
    std::swscanf(kVersions[next++ % kVersions.size()], L"%d.%d.%d.%d", &parts[0], &parts[1],
                 &parts[2], &parts[3]);
    AVersion version(parts[0], parts[1], parts[2], parts[3]);
    benchmark::DoNotOptimize(version);
  }
}

BENCHMARK(BM_ParseVersion);
BENCHMARK(BM_SwscanfVersion);

}  // namespace
}  // namespace vrxutil::bench

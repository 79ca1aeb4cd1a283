// Reading INI files and looking values up. The peers' counterparts are in peers/.

#include "bench/allocations.h"
#include "bench/ini_files.h"

#include <vrxutil/ini.h>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>
#include <string>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace vrxutil::bench {
namespace {

std::unique_ptr<AnIni2> readFrom(std::string const& path) {
  auto ini = std::make_unique<AnIni2>(AString(path.c_str()));
  if (!ini->parsed()) std::abort();
  return ini;
}

AString textOf(std::string const& ascii) { return {ascii.c_str()}; }

/// Blocks of memory, in bytes, that this process has.
double memoryInUse() {
#if defined(__GLIBC__)
  struct mallinfo2 const use = ::mallinfo2();
  return static_cast<double>(use.uordblks + use.hblkhd);
#else
  return 0;
#endif
}

/// Memory of a file that has been looked into, to what a copy of its maps takes.
double memoryToMaps(std::string const& path) {
  double const before = memoryInUse();
  std::unique_ptr<AnIni2> const ini = readFrom(path);
  AString value;
  ini->tryGet(AString(L"section"), AString(L"key"), value);
  double const used = memoryInUse();
  AnIni2::SectionMap map;
  if (!ini->getIniMap(map)) std::abort();
  return (used - before) / (memoryInUse() - used);
}

// First: what reading large files leaves behind scatters the maps over the heap.
void BM_GetIniValue(benchmark::State& state) {
  IniFile const file = smallFileOf(state);
  auto const ini = readFrom(file.path());
  AString value;
  ini->tryGet(AString(L"section"), AString(L"key"), value);  // makes the index
  measureLookups(state, namesOf<AString>(file, isAskedAtRandom(state), textOf),
                 [&](AString const& section, AString const& key) {
                   return ini->get(/*required=*/false, section, key, value);
                 });
}

BENCHMARK(BM_GetIniValue)->Apply(smallFiles)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_ReadIni(benchmark::State& state) {
  long const before = blocksTaken();
  measureReading(state, readFrom);
  auto const reads = static_cast<double>(state.iterations());
  state.counters["allocsPerPair"] =
      static_cast<double>(blocksTaken() - before) / reads / static_cast<double>(kPairsOfLargeFile);
  state.counters["memoryToMaps"] = memoryToMaps(largeFileOf(state).path());
}

BENCHMARK(BM_ReadIni)->Apply(largeFiles)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace vrxutil::bench

// ini_bench's figures for POCO's IniFileConfiguration.

#include "bench/ini_files.h"

#include <Poco/AutoPtr.h>
#include <Poco/Util/IniFileConfiguration.h>
#include <benchmark/benchmark.h>

#include <string>

namespace vrxutil::bench {
namespace {

using Configuration = Poco::AutoPtr<Poco::Util::IniFileConfiguration>;

Configuration readFrom(std::string const& path) {
  return {new Poco::Util::IniFileConfiguration(path)};
}

void BM_PocoReadIni(benchmark::State& state) { measureReading(state, readFrom); }

void BM_PocoGetIniValue(benchmark::State& state) {
  IniFile const file = smallFileOf(state);
  Configuration const ini = readFrom(file.path());
  auto const same = [](std::string const& text) { return text; };
  measureLookups(state, namesOf<std::string>(file, isAskedAtRandom(state), same),
                 [&](std::string const& section, std::string const& key) {
                   return !ini->getRawString(section + '.' + key).empty();
                 });
}

// Slow enough for a few to tell.
BENCHMARK(BM_PocoReadIni)
    ->Apply(largeFiles)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(3);
BENCHMARK(BM_PocoGetIniValue)
    ->Apply(smallFiles)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(3);

}  // namespace
}  // namespace vrxutil::bench

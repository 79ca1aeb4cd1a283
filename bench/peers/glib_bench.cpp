// ini_bench's figures for GLib's GKeyFile, which all others are compared with.

#include "bench/ini_files.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>
#include <string>

#include <glib.h>

namespace vrxutil::bench {

namespace {

struct KeyFileDeleter {
  void operator()(GKeyFile* file) const { g_key_file_free(file); }
};

using KeyFile = std::unique_ptr<GKeyFile, KeyFileDeleter>;

KeyFile readFrom(std::string const& path) {
  KeyFile file(g_key_file_new());
  if (g_key_file_load_from_file(file.get(), path.c_str(), G_KEY_FILE_NONE, nullptr) == FALSE) {
    std::abort();
  }
  return file;
}

bool lookUp(GKeyFile* file, std::string const& section, std::string const& key) {
  char* const value = g_key_file_get_string(file, section.c_str(), key.c_str(), nullptr);
  bool const isThere = value != nullptr;
  g_free(value);
  return isThere;
}

std::string same(std::string const& text) { return text; }

void BM_GKeyFileRead(benchmark::State& state) { measureReading(state, readFrom); }

void BM_GKeyFileGetString(benchmark::State& state) {
  IniFile const file = smallFileOf(state);
  KeyFile const keyFile = readFrom(file.path());
  measureLookups(state, namesOf<std::string>(file, isAskedAtRandom(state), same),
                 [&](std::string const& section, std::string const& key) {
                   return lookUp(keyFile.get(), section, key);
                 });
}

BENCHMARK(BM_GKeyFileRead)->Apply(largeFiles)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GKeyFileGetString)->Apply(smallFiles)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

double readWithGKeyFile(std::string const& path) {
  return secondsOfReading([&] { return readFrom(path); });
}

std::function<double()> lookupsWithGKeyFile(IniFile const& file, bool isRandom) {
  // Shared, as what a std::function holds has to be copyable.
  std::shared_ptr<GKeyFile> const keyFile = readFrom(file.path());
  auto const names =
      std::make_shared<NamesOf<std::string>>(namesOf<std::string>(file, isRandom, same));
  return [=] {
    return secondsOfLookups(*names, [&](std::string const& section, std::string const& key) {
      return lookUp(keyFile.get(), section, key);
    });
  };
}

}  // namespace vrxutil::bench

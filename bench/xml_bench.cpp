// Parsing, looking up, changing, writing XML. The peers' counterparts of each are
// in peers/. Parsing includes freeing the tree, everywhere.

#include "bench/data_folder.h"
#include "bench/xml_documents.h"

#include <vrxcomn/xml_parser.h>
#include <vrxutil/xml.h>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>
#include <string>

namespace vrxutil::bench {
namespace {

using AdvXMLParser::Document;
using AdvXMLParser::Parser;

std::unique_ptr<Document> parsed(std::wstring const& text) {
  return std::unique_ptr<Document>(Parser().Parse(text.data(), static_cast<int>(text.size())));
}

std::wstring const& wideConfiguration() {
  static std::wstring const text = widened(configuration());
  return text;
}

void BM_ExpatEvents(benchmark::State& state) {
  measureBesideExpat(state, [] { readEvents(configuration().size()); });
}

void BM_ExpatEventsInBlocks(benchmark::State& state) {
  measureBesideExpat(state, [] { readEvents(64 << 10); });
}

void BM_Parse(benchmark::State& state) {
  std::wstring const& text = wideConfiguration();
  measureBesideExpat(state, [&] { benchmark::DoNotOptimize(parsed(text).get()); });
  state.counters["memoryPerByte"] = static_cast<double>(parsed(text)->MemoryInUse()) /
                                    static_cast<double>(configuration().size());
}

/// As a program does it: with the scope, and the root's name looked at.
void BM_UseString(benchmark::State& state) {
  std::wstring const& text = wideConfiguration();
  measureBesideExpat(state, [&] {
    AnXml xml;
    if (!xml.useString(text.c_str(), L"agent", L"version", nullptr)) std::abort();
  });
}

BENCHMARK(BM_ExpatEvents)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ExpatEventsInBlocks)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Parse)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_UseString)->UseManualTime()->Unit(benchmark::kMillisecond);

// Looking up a child among 10,000, by name and an attribute's value.

void findTask(benchmark::State& state, std::string const& name, bool isThere) {
  auto const document = parsed(widened(taskList(kManyTasks)));
  AnXmlNode const root(document.get());
  std::wstring const wanted = widened(name);
  for (auto _ : state) {
    AnXmlNode found;
    bool const result =
        root.tryGetChild(&found, L"task", L"name", wanted.c_str(), nullptr, nullptr);
    if (result != isThere) std::abort();
  }
}

void BM_FindLastChild(benchmark::State& state) {
  findTask(state, taskName(kManyTasks - 1), /*isThere=*/true);
}

void BM_FindMissingChild(benchmark::State& state) {
  findTask(state, taskName(kManyTasks), /*isThere=*/false);
}

BENCHMARK(BM_FindLastChild)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FindMissingChild)->Unit(benchmark::kMicrosecond);

void BM_GetValue(benchmark::State& state) {
  auto const document = parsed(widened(taskList(1)));
  AnXmlNode task;
  AnXmlNode(document.get()).tryGetChild(&task, L"task", nullptr, nullptr, nullptr, nullptr);
  AString value;
  for (auto _ : state) {
    benchmark::DoNotOptimize(task.tryGetValue(L"enabled", &value));
  }
}

void BM_SetAttribute(benchmark::State& state) {
  auto const document = parsed(widened(taskList(1)));
  AnXmlNode task;
  AnXmlNode(document.get()).tryGetChild(&task, L"task", nullptr, nullptr, nullptr, nullptr);
  bool enabled = false;
  for (auto _ : state) {
    task.setValue(L"enabled", enabled ? L"true" : L"false");
    enabled = !enabled;
  }
  state.counters["memory"] = static_cast<double>(document->MemoryInUse());
}

BENCHMARK(BM_GetValue);
BENCHMARK(BM_SetAttribute);

// Removing all children one by one, while walking.

void BM_RemoveChildren(benchmark::State& state) {
  measureRemoval(
      state, [](std::string const& text) { return parsed(widened(text)); },
      [](std::unique_ptr<Document> const& document) {
        AnXmlNode const root(document.get());
        AnXmlChildIndex tasks(&root, L"task");
        while (tasks.moveNext(nullptr, nullptr)) tasks.remove();
      });
}

BENCHMARK(BM_RemoveChildren)->Arg(1000)->Arg(10000)->Arg(100000)->UseManualTime();

// Writing.

void generate(benchmark::State& state, bool indented) {
  auto const document = parsed(wideConfiguration());
  for (auto _ : state) benchmark::DoNotOptimize(document->GenerateXML(indented).data());
}

void BM_Generate(benchmark::State& state) { generate(state, /*indented=*/false); }

void BM_GenerateIndented(benchmark::State& state) { generate(state, /*indented=*/true); }

void BM_GenerateUtf8(benchmark::State& state) {
  auto const document = parsed(wideConfiguration());
  for (auto _ : state) {
    std::string utf8;
    auto encoding = AdvXMLParser::UTF_8;
    AdvXMLParser::ConvertBufferToUtf8(document->GenerateXML(/*indented=*/false), utf8, encoding);
    benchmark::DoNotOptimize(utf8.data());
  }
}

BENCHMARK(BM_Generate)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GenerateIndented)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GenerateUtf8)->Unit(benchmark::kMillisecond);

// Files. Writing is in real time: it waits for the disk.

void writeConfiguration(std::wstring const& path, bool encrypt) {
  AnXml xml;
  if (!xml.useString(wideConfiguration().c_str(), nullptr, nullptr, nullptr) ||
      !xml.writeFile(path.c_str(), encrypt, /*generateFlag=*/false)) {
    std::abort();
  }
}

void useFile(benchmark::State& state, bool encrypted) {
  std::wstring const path = DataFolder::instance().wide("configuration.xml");
  writeConfiguration(path, encrypted);
  for (auto _ : state) {
    AnXml xml;
    if (!xml.useExistingFile(path.c_str(), L"agent", nullptr, nullptr)) std::abort();
  }
}

void BM_UseExistingFile(benchmark::State& state) { useFile(state, /*encrypted=*/false); }

void BM_UseEncryptedFile(benchmark::State& state) { useFile(state, /*encrypted=*/true); }

void writeFile(benchmark::State& state, bool encrypt) {
  std::wstring const path = DataFolder::instance().wide("written.xml");
  AnXml xml;
  if (!xml.useString(wideConfiguration().c_str(), nullptr, nullptr, nullptr)) std::abort();
  for (auto _ : state) {
    if (!xml.writeFile(path.c_str(), encrypt, /*generateFlag=*/true)) std::abort();
  }
}

void BM_WriteFile(benchmark::State& state) { writeFile(state, /*encrypt=*/false); }

void BM_WriteEncryptedFile(benchmark::State& state) { writeFile(state, /*encrypt=*/true); }

BENCHMARK(BM_UseExistingFile)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_UseEncryptedFile)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WriteFile)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WriteEncryptedFile)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace vrxutil::bench

// xml_bench's figures for pugixml.

#include "bench/xml_documents.h"

#include <benchmark/benchmark.h>
#include <pugixml.hpp>

#include <cstdlib>
#include <memory>
#include <string>

namespace vrxutil::bench {
namespace {

std::unique_ptr<pugi::xml_document> parsed(std::string const& text) {
  auto document = std::make_unique<pugi::xml_document>();
  // With white space between elements, as the others keep it.
  document->load_buffer(text.data(), text.size(), pugi::parse_full | pugi::parse_ws_pcdata);
  return document;
}

void BM_PugixmlParse(benchmark::State& state) {
  measureBesideExpat(state, [] { benchmark::DoNotOptimize(parsed(configuration()).get()); });
}

BENCHMARK(BM_PugixmlParse)->UseManualTime()->Unit(benchmark::kMillisecond);

void findTask(benchmark::State& state, std::string const& name, bool isThere) {
  auto const document = parsed(taskList(kManyTasks));
  pugi::xml_node const root = document->document_element();
  for (auto _ : state) {
    pugi::xml_node const found = root.find_child_by_attribute("task", "name", name.c_str());
    if (found.empty() == isThere) std::abort();
  }
}

void BM_PugixmlFindLastChild(benchmark::State& state) {
  findTask(state, taskName(kManyTasks - 1), /*isThere=*/true);
}

void BM_PugixmlFindMissingChild(benchmark::State& state) {
  findTask(state, taskName(kManyTasks), /*isThere=*/false);
}

BENCHMARK(BM_PugixmlFindLastChild)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PugixmlFindMissingChild)->Unit(benchmark::kMicrosecond);

void BM_PugixmlSetAttribute(benchmark::State& state) {
  auto const document = parsed(taskList(1));
  pugi::xml_node task = document->document_element().first_child();
  bool enabled = false;
  for (auto _ : state) {
    task.attribute("enabled").set_value(enabled ? "true" : "false");
    enabled = !enabled;
  }
}

BENCHMARK(BM_PugixmlSetAttribute);

void BM_PugixmlRemoveChildren(benchmark::State& state) {
  measureRemoval(state, parsed, [](std::unique_ptr<pugi::xml_document> const& document) {
    pugi::xml_node root = document->document_element();
    for (pugi::xml_node node = root.child("task"); !node.empty();) {
      pugi::xml_node const next = node.next_sibling("task");
      root.remove_child(node);
      node = next;
    }
  });
}

BENCHMARK(BM_PugixmlRemoveChildren)->Arg(1000)->Arg(10000)->Arg(100000)->UseManualTime();

class StringWriter final : public pugi::xml_writer {
public:
  void write(void const* data, std::size_t size) override {
    text.append(static_cast<char const*>(data), size);
  }

  std::string text;
};

void BM_PugixmlGenerateUtf8(benchmark::State& state) {
  auto const document = parsed(configuration());
  for (auto _ : state) {
    StringWriter writer;
    document->save(writer, "", pugi::format_raw, pugi::encoding_utf8);
    benchmark::DoNotOptimize(writer.text.data());
  }
}

BENCHMARK(BM_PugixmlGenerateUtf8)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace vrxutil::bench

// xml_bench's figures for libxml2's tree.

#include "bench/xml_documents.h"

#include <benchmark/benchmark.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <cstdlib>
#include <memory>
#include <string>

namespace vrxutil::bench {
namespace {

struct Free {
  void operator()(xmlDoc* document) const { xmlFreeDoc(document); }

  void operator()(xmlChar* text) const { xmlFree(text); }
};

using DocumentHandle = std::unique_ptr<xmlDoc, Free>;

DocumentHandle parsed(std::string const& text) {
  return DocumentHandle(
      xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr, XML_PARSE_NONET));
}

xmlChar const* asXml(char const* text) { return reinterpret_cast<xmlChar const*>(text); }

void BM_Libxml2Parse(benchmark::State& state) {
  measureBesideExpat(state, [] { benchmark::DoNotOptimize(parsed(configuration()).get()); });
}

BENCHMARK(BM_Libxml2Parse)->UseManualTime()->Unit(benchmark::kMillisecond);

/// Compares the attribute in place: xmlGetProp would copy it.
bool hasValue(xmlNode* node, char const* name, char const* value) {
  xmlAttr const* const attribute = xmlHasProp(node, asXml(name));
  return attribute != nullptr && attribute->children != nullptr &&
         xmlStrEqual(attribute->children->content, asXml(value)) != 0;
}

xmlNode* findChild(xmlNode* parent, char const* name, char const* attribute, char const* value) {
  for (xmlNode* node = parent->children; node != nullptr; node = node->next) {
    if (node->type == XML_ELEMENT_NODE && xmlStrEqual(node->name, asXml(name)) != 0 &&
        hasValue(node, attribute, value)) {
      return node;
    }
  }
  return nullptr;
}

void findTask(benchmark::State& state, std::string const& name, bool isThere) {
  auto const document = parsed(taskList(kManyTasks));
  xmlNode* const root = xmlDocGetRootElement(document.get());
  for (auto _ : state) {
    if ((findChild(root, "task", "name", name.c_str()) != nullptr) != isThere) std::abort();
  }
}

void BM_Libxml2FindLastChild(benchmark::State& state) {
  findTask(state, taskName(kManyTasks - 1), /*isThere=*/true);
}

void BM_Libxml2FindMissingChild(benchmark::State& state) {
  findTask(state, taskName(kManyTasks), /*isThere=*/false);
}

BENCHMARK(BM_Libxml2FindLastChild)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Libxml2FindMissingChild)->Unit(benchmark::kMicrosecond);

void BM_Libxml2GetValue(benchmark::State& state) {
  auto const document = parsed(taskList(1));
  xmlNode* const task = xmlDocGetRootElement(document.get())->children;
  for (auto _ : state) {
    std::unique_ptr<xmlChar, Free> const value(xmlGetProp(task, asXml("enabled")));
    benchmark::DoNotOptimize(value.get());
  }
}

void BM_Libxml2SetAttribute(benchmark::State& state) {
  auto const document = parsed(taskList(1));
  xmlNode* const task = xmlDocGetRootElement(document.get())->children;
  bool enabled = false;
  for (auto _ : state) {
    xmlSetProp(task, asXml("enabled"), asXml(enabled ? "true" : "false"));
    enabled = !enabled;
  }
}

BENCHMARK(BM_Libxml2GetValue);
BENCHMARK(BM_Libxml2SetAttribute);

void removeTasks(DocumentHandle const& document) {
  xmlNode* node = xmlDocGetRootElement(document.get())->children;
  while (node != nullptr) {
    xmlNode* const next = node->next;
    if (xmlStrEqual(node->name, asXml("task")) != 0) {
      xmlUnlinkNode(node);
      xmlFreeNode(node);
    }
    node = next;
  }
}

void BM_Libxml2RemoveChildren(benchmark::State& state) {
  measureRemoval(state, parsed, removeTasks);
}

BENCHMARK(BM_Libxml2RemoveChildren)->Arg(1000)->Arg(10000)->Arg(100000)->UseManualTime();

void BM_Libxml2GenerateUtf8(benchmark::State& state) {
  auto const document = parsed(configuration());
  for (auto _ : state) {
    xmlChar* text = nullptr;
    int size = 0;
    xmlDocDumpMemory(document.get(), &text, &size);
    std::unique_ptr<xmlChar, Free> const owner(text);
    benchmark::DoNotOptimize(text);
  }
}

BENCHMARK(BM_Libxml2GenerateUtf8)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace vrxutil::bench

// xml_bench's figures for POCO's DOM.

#include "bench/xml_documents.h"

#include <Poco/AutoPtr.h>
#include <Poco/DOM/DOMParser.h>
#include <Poco/DOM/DOMWriter.h>
#include <Poco/DOM/Document.h>
#include <Poco/DOM/Element.h>
#include <Poco/SAX/XMLReader.h>
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <sstream>
#include <string>

namespace vrxutil::bench {
namespace {

using Poco::AutoPtr;
using Poco::XML::Document;
using Poco::XML::Element;
using Poco::XML::Node;

AutoPtr<Document> parsed(std::string const& text) {
  Poco::XML::DOMParser parser;
  // Nobody else here looks at namespaces.
  parser.setFeature(Poco::XML::XMLReader::FEATURE_NAMESPACES, false);
  return {parser.parseString(text)};
}

void BM_PocoParse(benchmark::State& state) {
  measureBesideExpat(state, [] { benchmark::DoNotOptimize(parsed(configuration()).get()); });
}

BENCHMARK(BM_PocoParse)->UseManualTime()->Unit(benchmark::kMillisecond);

Node* findChild(Element* parent, std::string const& name, std::string const& attribute,
                std::string const& value) {
  for (Node* node = parent->firstChild(); node != nullptr; node = node->nextSibling()) {
    if (node->nodeType() == Node::ELEMENT_NODE && node->nodeName() == name &&
        static_cast<Element*>(node)->getAttribute(attribute) == value) {
      return node;
    }
  }
  return nullptr;
}

void findTask(benchmark::State& state, std::string const& name, bool isThere) {
  auto const document = parsed(taskList(kManyTasks));
  for (auto _ : state) {
    Node const* const found = findChild(document->documentElement(), "task", "name", name);
    if ((found != nullptr) != isThere) std::abort();
  }
}

void BM_PocoFindLastChild(benchmark::State& state) {
  findTask(state, taskName(kManyTasks - 1), /*isThere=*/true);
}

void BM_PocoFindMissingChild(benchmark::State& state) {
  findTask(state, taskName(kManyTasks), /*isThere=*/false);
}

BENCHMARK(BM_PocoFindLastChild)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PocoFindMissingChild)->Unit(benchmark::kMicrosecond);

void BM_PocoGenerateUtf8(benchmark::State& state) {
  auto const document = parsed(configuration());
  for (auto _ : state) {
    std::ostringstream text;
    Poco::XML::DOMWriter().writeNode(text, document.get());
    benchmark::DoNotOptimize(text.str().data());
  }
}

BENCHMARK(BM_PocoGenerateUtf8)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace vrxutil::bench

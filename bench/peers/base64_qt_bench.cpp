// binary_bench's figures for Qt's QByteArray, whose results are arrays of their own.

#include "bench/base64_texts.h"

#include <benchmark/benchmark.h>

#include <QtCore/QByteArray>

namespace vrxutil::bench {
namespace {

template <class Convert>
void measure(benchmark::State& state, std::string const& source, std::string const& expected,
             Convert const& convert) {
  auto const bytes = QByteArray::fromRawData(source.data(), static_cast<qsizetype>(source.size()));
  for (auto _ : state) benchmark::DoNotOptimize(convert(bytes).constData());
  if (convert(bytes).toStdString() != expected) state.SkipWithError("wrong result");
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

void BM_QtBase64Encode(benchmark::State& state) {
  auto const size = static_cast<std::size_t>(state.range(0));
  measure(state, base64Bytes(size), base64Text(size),
          [](QByteArray const& bytes) { return bytes.toBase64(); });
}

void BM_QtBase64Decode(benchmark::State& state) {
  auto const size = static_cast<std::size_t>(state.range(0));
  measure(state, base64Text(size), base64Bytes(size),
          [](QByteArray const& text) { return QByteArray::fromBase64(text); });
}

BENCHMARK(BM_QtBase64Encode)->Apply(base64Sizes);
BENCHMARK(BM_QtBase64Decode)->Apply(base64Sizes);

}  // namespace
}  // namespace vrxutil::bench

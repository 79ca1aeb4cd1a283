// What binary_bench and its peers encode and decode as Base64.

#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>
#include <string>

namespace vrxutil::bench {

/// The sizes in bytes of what is encoded.
inline void base64Sizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->Arg(16)->Arg(1 << 10)->Arg(1 << 20);
}

/// `size` bytes in no order.
std::string base64Bytes(std::size_t size);

/// The same as one line of Base64.
std::string base64Text(std::size_t size);

/// Encodes or decodes `source` again and again: `convert` takes it and a target with
/// room for whatever comes out, and returns how much that is. What is not `expected`
/// is an error.
template <class Convert>
void measureBase64(benchmark::State& state, std::string const& source, std::string const& expected,
                   Convert const& convert) {
  std::string target(2 * source.size() + 64, '\0');
  for (auto _ : state) {
    std::size_t const size = convert(source, target.data());
    benchmark::DoNotOptimize(size);
    benchmark::ClobberMemory();
  }
  if (target.substr(0, convert(source, target.data())) != expected) {
    state.SkipWithError("wrong result");
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

template <class Convert>
void measureBase64Encoding(benchmark::State& state, Convert const& convert) {
  auto const size = static_cast<std::size_t>(state.range(0));
  measureBase64(state, base64Bytes(size), base64Text(size), convert);
}

template <class Convert>
void measureBase64Decoding(benchmark::State& state, Convert const& convert) {
  auto const size = static_cast<std::size_t>(state.range(0));
  measureBase64(state, base64Text(size), base64Bytes(size), convert);
}

}  // namespace vrxutil::bench

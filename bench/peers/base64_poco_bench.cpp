// binary_bench's figures for POCO's Base64 streams.

#include "bench/base64_texts.h"

#include <Poco/Base64Decoder.h>
#include <Poco/Base64Encoder.h>
#include <benchmark/benchmark.h>

#include <sstream>

namespace vrxutil::bench {
namespace {

void BM_PocoBase64Encode(benchmark::State& state) {
  measureBase64Encoding(state, [](std::string const& bytes, char* target) {
    std::ostringstream text;
    Poco::Base64Encoder encoder(text);
    encoder.rdbuf()->setLineLength(0);
    encoder.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    encoder.close();
    std::string const result = text.str();
    return result.copy(target, result.size());
  });
}

void BM_PocoBase64Decode(benchmark::State& state) {
  measureBase64Decoding(state, [](std::string const& text, char* target) {
    std::istringstream source(text);
    Poco::Base64Decoder decoder(source);
    decoder.read(target, static_cast<std::streamsize>(text.size()));
    return static_cast<std::size_t>(decoder.gcount());
  });
}

BENCHMARK(BM_PocoBase64Encode)->Apply(base64Sizes);
BENCHMARK(BM_PocoBase64Decode)->Apply(base64Sizes);

}  // namespace
}  // namespace vrxutil::bench

// binary_bench's figures for GLib's Base64 in steps.

#include "bench/base64_texts.h"

#include <benchmark/benchmark.h>

#include <glib.h>

namespace vrxutil::bench {
namespace {

void BM_GlibBase64Encode(benchmark::State& state) {
  measureBase64Encoding(state, [](std::string const& bytes, char* target) {
    int step = 0;
    int saved = 0;
    auto const* const source = reinterpret_cast<guchar const*>(bytes.data());
    std::size_t const size =
        g_base64_encode_step(source, bytes.size(), FALSE, target, &step, &saved);
    return size + g_base64_encode_close(FALSE, target + size, &step, &saved);
  });
}

void BM_GlibBase64Decode(benchmark::State& state) {
  measureBase64Decoding(state, [](std::string const& text, char* target) {
    int step = 0;
    guint saved = 0;
    return g_base64_decode_step(text.data(), text.size(), reinterpret_cast<guchar*>(target), &step,
                                &saved);
  });
}

BENCHMARK(BM_GlibBase64Encode)->Apply(base64Sizes);
BENCHMARK(BM_GlibBase64Decode)->Apply(base64Sizes);

}  // namespace
}  // namespace vrxutil::bench

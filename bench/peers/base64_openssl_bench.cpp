// binary_bench's figures for OpenSSL's Base64: by one call, its fastest way, and by a
// context, which writes lines of 64 characters.

#include "bench/base64_texts.h"

#include <benchmark/benchmark.h>

#include <memory>

#include <openssl/evp.h>

namespace vrxutil::bench {
namespace {

struct ContextDeleter {
  void operator()(EVP_ENCODE_CTX* context) const { EVP_ENCODE_CTX_free(context); }
};

using Context = std::unique_ptr<EVP_ENCODE_CTX, ContextDeleter>;

unsigned char const* sourceOf(std::string const& bytes) {
  return reinterpret_cast<unsigned char const*>(bytes.data());
}

unsigned char* targetOf(char* target) { return reinterpret_cast<unsigned char*>(target); }

std::size_t paddingOf(std::string const& text) {
  return text.size() - (text.find_last_not_of('=') + 1);
}

void BM_OpensslBase64EncodeBlock(benchmark::State& state) {
  measureBase64Encoding(state, [](std::string const& bytes, char* target) {
    return static_cast<std::size_t>(
        EVP_EncodeBlock(targetOf(target), sourceOf(bytes), static_cast<int>(bytes.size())));
  });
}

void BM_OpensslBase64DecodeBlock(benchmark::State& state) {
  auto const padding = paddingOf(base64Text(static_cast<std::size_t>(state.range(0))));
  measureBase64Decoding(state, [=](std::string const& text, char* target) {
    // It gives zero bytes for the padding.
    return static_cast<std::size_t>(
               EVP_DecodeBlock(targetOf(target), sourceOf(text), static_cast<int>(text.size()))) -
           padding;
  });
}

void BM_OpensslBase64EncodeUpdate(benchmark::State& state) {
  Context const context(EVP_ENCODE_CTX_new());
  auto const size = static_cast<std::size_t>(state.range(0));
  std::string const bytes = base64Bytes(size);
  std::string target(2 * size + 64, '\0');
  for (auto _ : state) {
    int written = 0;
    int rest = 0;
    EVP_EncodeInit(context.get());
    EVP_EncodeUpdate(context.get(), targetOf(target.data()), &written, sourceOf(bytes),
                     static_cast<int>(bytes.size()));
    EVP_EncodeFinal(context.get(), targetOf(target.data() + written), &rest);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

void BM_OpensslBase64DecodeUpdate(benchmark::State& state) {
  Context const context(EVP_ENCODE_CTX_new());
  measureBase64Decoding(state, [&](std::string const& text, char* target) {
    int written = 0;
    int rest = 0;
    EVP_DecodeInit(context.get());
    EVP_DecodeUpdate(context.get(), targetOf(target), &written, sourceOf(text),
                     static_cast<int>(text.size()));
    EVP_DecodeFinal(context.get(), targetOf(target + written), &rest);
    return static_cast<std::size_t>(written) + static_cast<std::size_t>(rest);
  });
}

BENCHMARK(BM_OpensslBase64EncodeBlock)->Apply(base64Sizes);
BENCHMARK(BM_OpensslBase64EncodeUpdate)->Apply(base64Sizes);
BENCHMARK(BM_OpensslBase64DecodeBlock)->Apply(base64Sizes);
BENCHMARK(BM_OpensslBase64DecodeUpdate)->Apply(base64Sizes);

}  // namespace
}  // namespace vrxutil::bench

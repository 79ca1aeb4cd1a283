// A buffer that grows in small steps, as records are put together; beside it, the
// standard string.

#include "bench/allocations.h"

#include <vrxutil/binary.h>

#include <benchmark/benchmark.h>

#include <array>
#include <string>

namespace vrxutil::bench {
namespace {

constexpr std::array<unsigned char, 16> kStep{};
constexpr std::size_t kSize = 64 << 10;

void BM_BufferExpandInSmallSteps(benchmark::State& state) {
  AllocationCount const allocations(state);
  for (auto _ : state) {
    ABuffer buffer(0UL, nullptr);
    while (buffer.size() < kSize) {
      benchmark::DoNotOptimize(buffer.tryExpandBy(kStep.size(), kStep.data()));
    }
    benchmark::DoNotOptimize(buffer.getBytes());
  }
}

/// The same with zero bytes, which the caller overwrites.
void BM_BufferExpandByZeros(benchmark::State& state) {
  AllocationCount const allocations(state);
  for (auto _ : state) {
    ABuffer buffer(0UL, nullptr);
    while (buffer.size() < kSize) {
      benchmark::DoNotOptimize(buffer.tryExpandBy(kStep.size(), nullptr));
    }
    benchmark::DoNotOptimize(buffer.getBytes());
  }
}

void BM_StringAppendInSmallSteps(benchmark::State& state) {
  std::string const step(kStep.size(), '\0');
  AllocationCount const allocations(state);
  for (auto _ : state) {
    std::string bytes;
    while (bytes.size() < kSize) bytes.append(step);
    benchmark::DoNotOptimize(bytes.data());
  }
}

BENCHMARK(BM_BufferExpandInSmallSteps);
BENCHMARK(BM_BufferExpandByZeros);
BENCHMARK(BM_StringAppendInSmallSteps);

}  // namespace
}  // namespace vrxutil::bench

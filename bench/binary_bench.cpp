// A buffer that grows in small steps, as records are put together, beside the standard
// string; records of fields, beside copies by hand; Base64, beside other libraries and,
// where the text is not clean, a plain loop.

#include "bench/allocations.h"
#include "bench/base64_texts.h"

#include <vrxutil/binary.h>

#include <benchmark/benchmark.h>

#include <array>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <string_view>

namespace vrxutil::bench {

std::string base64Bytes(std::size_t size) {
  std::mt19937 random(1);
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

std::string base64Text(std::size_t size) {
  std::string const bytes = base64Bytes(size);
  std::string text(2 * size + 4, '\0');
  text.resize(Base64Encode(bytes.data(), size, text.data(), text.size(), nullptr, nullptr));
  return text;
}

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

// --- Records ----------------------------------------------------------------------

constexpr unsigned long kNameSize = 16;
constexpr std::size_t kBlockSize = 32;
constexpr std::size_t kRecordSize = 4 * 4 + 2 * 2 + 2 + kNameSize + kBlockSize;

using Record = std::array<unsigned char, kRecordSize>;

/// Ten fields: four long numbers, two short ones, two characters, a text, a block.
struct Values {
  std::array<unsigned long, 4> longs{1, 0x1234, 0xABCDEF, 0xFFFFFFFF};
  std::array<unsigned short, 2> shorts{7, 0xBEEF};
  std::array<char, 2> characters{'a', 'z'};
  std::string name = "processor";
  AnObjectBuffer<unsigned char> block{std::string(kBlockSize, '\xA7')};

  bool equals(Values const& other) const {
    return longs == other.longs && shorts == other.shorts && characters == other.characters &&
           name == other.name && block.cpp_str() == other.block.cpp_str();
  }
};

void writeByStream(Record& record, Values const& values, AString const& name, bool littleEndian) {
  ABinaryStream stream(record.data(), record.size(), littleEndian);
  stream.writeLong(values.longs[0]);
  stream.writeShort(values.shorts[0]);
  stream.writeChar(values.characters[0]);
  stream.writeLong(values.longs[1]);
  stream.writeString(kNameSize, name);
  stream.writeLong(values.longs[2]);
  stream.writeShort(values.shorts[1]);
  stream.writeChar(values.characters[1]);
  stream.writeBuffer(values.block, 0);
  stream.writeLong(values.longs[3]);
  if (stream.pastEndError()) std::abort();
}

void readByStream(Record& record, Values& values, bool littleEndian) {
  ABinaryStream stream(record.data(), record.size(), littleEndian);
  values.longs[0] = stream.readLong();
  values.shorts[0] = stream.readShort();
  values.characters[0] = stream.readChar();
  values.longs[1] = stream.readLong();
  stream.readString(kNameSize, values.name);
  values.longs[2] = stream.readLong();
  values.shorts[1] = stream.readShort();
  values.characters[1] = stream.readChar();
  stream.readBuffer(kBlockSize, values.block);
  values.longs[3] = stream.readLong();
  if (stream.pastEndError()) std::abort();
}

/// Copies by hand, which know neither an end nor an order that is chosen at run time.
class Copies {
public:
  Copies(unsigned char* place, bool littleEndian)
      : place_(place), swaps_(littleEndian != (std::endian::native == std::endian::little)) {}

  void writeLong(unsigned long value) {
    auto const number = static_cast<std::uint32_t>(value);
    copyIn(swaps_ ? __builtin_bswap32(number) : number);
  }

  void writeShort(unsigned short value) { copyIn(swaps_ ? __builtin_bswap16(value) : value); }

  void writeChar(char value) { copyIn(value); }

  /// In a field of `size` bytes, which it fits in.
  void writeText(std::string_view text, std::size_t size) {
    std::memcpy(place_, text.data(), text.size());
    std::memset(place_ + text.size(), 0, size - text.size());
    place_ += size;
  }

  std::uint32_t readLong() {
    auto const number = copyOut<std::uint32_t>();
    return swaps_ ? __builtin_bswap32(number) : number;
  }

  std::uint16_t readShort() {
    auto const number = copyOut<std::uint16_t>();
    return swaps_ ? __builtin_bswap16(number) : number;
  }

  char readChar() { return copyOut<char>(); }

  std::string_view readBytes(std::size_t size) {
    std::string_view const bytes(reinterpret_cast<char const*>(place_), size);
    place_ += size;
    return bytes;
  }

private:
  template <class T>
  void copyIn(T value) {
    std::memcpy(place_, &value, sizeof value);
    place_ += sizeof value;
  }

  template <class T>
  T copyOut() {
    T value;
    std::memcpy(&value, place_, sizeof value);
    place_ += sizeof value;
    return value;
  }

  unsigned char* place_;
  bool swaps_;
};

void writeByHand(Record& record, Values const& values, std::string const& name, bool littleEndian) {
  Copies copies(record.data(), littleEndian);
  copies.writeLong(values.longs[0]);
  copies.writeShort(values.shorts[0]);
  copies.writeChar(values.characters[0]);
  copies.writeLong(values.longs[1]);
  copies.writeText(name, kNameSize);
  copies.writeLong(values.longs[2]);
  copies.writeShort(values.shorts[1]);
  copies.writeChar(values.characters[1]);
  copies.writeText(values.block.cpp_str(), kBlockSize);
  copies.writeLong(values.longs[3]);
}

void readByHand(Record& record, Values& values, bool littleEndian) {
  Copies copies(record.data(), littleEndian);
  values.longs[0] = copies.readLong();
  values.shorts[0] = copies.readShort();
  values.characters[0] = copies.readChar();
  values.longs[1] = copies.readLong();
  std::string_view const name = copies.readBytes(kNameSize);
  values.name = name.substr(0, name.find('\0'));
  values.longs[2] = copies.readLong();
  values.shorts[1] = copies.readShort();
  values.characters[1] = copies.readChar();
  values.block.cpp_str() = copies.readBytes(kBlockSize);
  values.longs[3] = copies.readLong();
}

template <class Name, class Write>
void measureWriting(benchmark::State& state, Name const& name, Write const& write) {
  bool const littleEndian = state.range(0) != 0;
  Values const values;
  Record record{};
  for (auto _ : state) {
    benchmark::DoNotOptimize(&values);
    write(record, values, name, littleEndian);
    benchmark::DoNotOptimize(record.data());
    benchmark::ClobberMemory();
  }
  Values back;
  readByStream(record, back, littleEndian);
  if (!back.equals(values)) state.SkipWithError("wrong result");
}

template <class Read>
void measureReading(benchmark::State& state, Read const& read) {
  bool const littleEndian = state.range(0) != 0;
  Values const values;
  Record record{};
  writeByHand(record, values, values.name, littleEndian);
  Values back;
  for (auto _ : state) {
    benchmark::DoNotOptimize(record.data());
    read(record, back, littleEndian);
    benchmark::DoNotOptimize(&back);
    benchmark::ClobberMemory();
  }
  if (!back.equals(values)) state.SkipWithError("wrong result");
}

void BM_WriteRecord(benchmark::State& state) {
  measureWriting(state, AString(Values().name.c_str()), writeByStream);
}

void BM_WriteRecordByHand(benchmark::State& state) {
  measureWriting(state, Values().name, writeByHand);
}

void BM_ReadRecord(benchmark::State& state) { measureReading(state, readByStream); }

void BM_ReadRecordByHand(benchmark::State& state) { measureReading(state, readByHand); }

BENCHMARK(BM_WriteRecord)->ArgName("little")->Arg(0)->Arg(1);
BENCHMARK(BM_WriteRecordByHand)->ArgName("little")->Arg(0)->Arg(1);
BENCHMARK(BM_ReadRecord)->ArgName("little")->Arg(0)->Arg(1);
BENCHMARK(BM_ReadRecordByHand)->ArgName("little")->Arg(0)->Arg(1);

// --- Base64 -----------------------------------------------------------------------

unsigned long decode(std::string const& text, char* target) {
  return Base64Decode(text.data(), text.size(), target, 2 * text.size(), nullptr, nullptr);
}

void BM_Base64Encode(benchmark::State& state) {
  measureBase64Encoding(state, [](std::string const& bytes, char* target) {
    return Base64Encode(bytes.data(), bytes.size(), target, 2 * bytes.size(), nullptr, nullptr);
  });
}

void BM_Base64Decode(benchmark::State& state) { measureBase64Decoding(state, decode); }

BENCHMARK(BM_Base64Encode)->Apply(base64Sizes);
BENCHMARK(BM_Base64Decode)->Apply(base64Sizes);

/// The value of each byte as Base64, 64 and above where there is none.
constexpr auto kValues = [] {
  std::array<unsigned char, 256> values{};
  values.fill(0xFF);
  unsigned char value = 0;
  for (char const character :
       std::string_view("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/")) {
    values[static_cast<unsigned char>(character)] = value++;
  }
  return values;
}();

/// A character at a time, whatever it is.
[[gnu::noinline]] unsigned long decodeByPlainLoop(std::string const& text, char* target) {
  auto const put = [&target](unsigned byte) { *target++ = static_cast<char>(byte); };
  char const* const start = target;
  unsigned phase = 0;
  unsigned carry = 0;
  for (char const character : text) {
    if (character == '=') phase = 0;
    unsigned const value = kValues[static_cast<unsigned char>(character)];
    if (value >= 64) continue;
    switch (phase) {
      case 0:
        carry = value << 2;
        break;
      case 1:
        put(carry | value >> 4);
        carry = value << 4;
        break;
      case 2:
        put(carry | value >> 2);
        carry = value << 6;
        break;
      default:
        put(carry | value);
    }
    phase = (phase + 1) % 4;
  }
  return static_cast<unsigned long>(target - start);
}

/// 64 KiB of clean text in runs of the benchmark's argument, with `junk` between them.
std::string dirtyText(benchmark::State const& state, std::string_view junk) {
  std::string const clean = base64Text(48 << 10);
  auto const run = static_cast<std::size_t>(state.range(0));
  std::string text;
  for (std::size_t i = 0; i < clean.size(); i += run) text.append(clean, i, run).append(junk);
  return text;
}

/// 64 KiB of anything.
std::string randomText() { return base64Bytes(64 << 10); }

template <class Decode>
void measureDirty(benchmark::State& state, std::string const& text, Decode const& decode) {
  std::string expected(text.size(), '\0');
  expected.resize(decodeByPlainLoop(text, expected.data()));
  measureBase64(state, text, expected, decode);
}

void BM_Base64DecodeLines(benchmark::State& state) {
  measureDirty(state, dirtyText(state, "\n"), decode);
}

void BM_PlainDecodeLines(benchmark::State& state) {
  measureDirty(state, dirtyText(state, "\n"), decodeByPlainLoop);
}

void BM_Base64DecodeBetweenRuns(benchmark::State& state) {
  measureDirty(state, dirtyText(state, std::string(1000, ' ')), decode);
}

void BM_PlainDecodeBetweenRuns(benchmark::State& state) {
  measureDirty(state, dirtyText(state, std::string(1000, ' ')), decodeByPlainLoop);
}

void BM_Base64DecodeRandom(benchmark::State& state) { measureDirty(state, randomText(), decode); }

void BM_PlainDecodeRandom(benchmark::State& state) {
  measureDirty(state, randomText(), decodeByPlainLoop);
}

void lineLengths(benchmark::internal::Benchmark* benchmark) {
  for (int const length : {1, 2, 8, 20, 76}) benchmark->Arg(length);
}

BENCHMARK(BM_Base64DecodeLines)->Apply(lineLengths);
BENCHMARK(BM_PlainDecodeLines)->Apply(lineLengths);
BENCHMARK(BM_Base64DecodeBetweenRuns)->Arg(100);
BENCHMARK(BM_PlainDecodeBetweenRuns)->Arg(100);
BENCHMARK(BM_Base64DecodeRandom)->Arg(0);
BENCHMARK(BM_PlainDecodeRandom)->Arg(0);

}  // namespace
}  // namespace vrxutil::bench

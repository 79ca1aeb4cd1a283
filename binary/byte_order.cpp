#include <vrxutil/binary.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>

// NOLINTBEGIN(readability-identifier-naming): the names of the interface

namespace {

constexpr bool ComputerIsLe = std::endian::native == std::endian::little;

template <class Value>
constexpr Value ReverseBytes(Value value) {
  auto bytes = std::bit_cast<std::array<unsigned char, sizeof(Value)>>(value);
  std::reverse(bytes.begin(), bytes.end());
  return std::bit_cast<Value>(bytes);
}

constexpr std::uint32_t ReverseBytes4(std::uint32_t value) { return ReverseBytes(value); }

constexpr std::uint16_t ReverseBytes2(std::uint16_t value) { return ReverseBytes(value); }

static_assert(ReverseBytes4(0x12345678) == 0x78563412);
static_assert(ReverseBytes2(0x1234) == 0x3412);

constexpr std::uint32_t ReverseBytesWhenComputerIsBe4(std::uint32_t value) {
  return ComputerIsLe ? value : ReverseBytes4(value);
}

constexpr std::uint32_t ReverseBytesWhenComputerIsLe4(std::uint32_t value) {
  return ComputerIsLe ? ReverseBytes4(value) : value;
}

constexpr std::uint16_t ReverseBytesWhenComputerIsBe2(std::uint16_t value) {
  return ComputerIsLe ? value : ReverseBytes2(value);
}

constexpr std::uint16_t ReverseBytesWhenComputerIsLe2(std::uint16_t value) {
  return ComputerIsLe ? ReverseBytes2(value) : value;
}

}  // namespace

std::uint32_t Host2Le4(std::uint32_t value) { return ReverseBytesWhenComputerIsBe4(value); }

std::uint32_t Le2Host4(std::uint32_t value) { return ReverseBytesWhenComputerIsBe4(value); }

std::uint32_t Host2Be4(std::uint32_t value) { return ReverseBytesWhenComputerIsLe4(value); }

std::uint32_t Be2Host4(std::uint32_t value) { return ReverseBytesWhenComputerIsLe4(value); }

std::uint16_t Host2Le2(std::uint16_t value) { return ReverseBytesWhenComputerIsBe2(value); }

std::uint16_t Le2Host2(std::uint16_t value) { return ReverseBytesWhenComputerIsBe2(value); }

std::uint16_t Host2Be2(std::uint16_t value) { return ReverseBytesWhenComputerIsLe2(value); }

std::uint16_t Be2Host2(std::uint16_t value) { return ReverseBytesWhenComputerIsLe2(value); }

// NOLINTEND(readability-identifier-naming)

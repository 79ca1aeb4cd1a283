#include <vrxutil/binary.h>

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include <dlfcn.h>

namespace vrxutil::test {
namespace {

using Convert4 = std::uint32_t(std::uint32_t);
using Convert2 = std::uint16_t(std::uint16_t);

static_assert(std::is_same_v<decltype(Host2Le4), Convert4>);
static_assert(std::is_same_v<decltype(Le2Host4), Convert4>);
static_assert(std::is_same_v<decltype(Host2Be4), Convert4>);
static_assert(std::is_same_v<decltype(Be2Host4), Convert4>);
static_assert(std::is_same_v<decltype(Host2Le2), Convert2>);
static_assert(std::is_same_v<decltype(Le2Host2), Convert2>);
static_assert(std::is_same_v<decltype(Host2Be2), Convert2>);
static_assert(std::is_same_v<decltype(Be2Host2), Convert2>);

template <class Function>
struct Row {
  char const* name;
  Function* function;
  std::endian order;  // the one that it converts to and from
};

constexpr Row<Convert4> kFourByteFunctions[] = {
    {"Host2Le4", Host2Le4, std::endian::little},
    {"Le2Host4", Le2Host4, std::endian::little},
    {"Host2Be4", Host2Be4, std::endian::big},
    {"Be2Host4", Be2Host4, std::endian::big},
};

constexpr Row<Convert2> kTwoByteFunctions[] = {
    {"Host2Le2", Host2Le2, std::endian::little},
    {"Le2Host2", Le2Host2, std::endian::little},
    {"Host2Be2", Host2Be2, std::endian::big},
    {"Be2Host2", Be2Host2, std::endian::big},
};

// The number whose bytes in memory are those of `value` in the given order.
template <class Number>
Number expected(Number value, std::endian order) {
  std::array<unsigned char, sizeof(Number)> bytes{};
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    std::size_t const place = order == std::endian::little ? i : bytes.size() - 1 - i;
    bytes[place] = static_cast<unsigned char>(value >> (8 * i));
  }
  return std::bit_cast<Number>(bytes);
}

TEST(ByteOrderTest, KnownValues) {
  constexpr bool kLittle = std::endian::native == std::endian::little;
  for (auto const& [name, function, order] : kFourByteFunctions) {
    bool const reverses = (order == std::endian::little) != kLittle;
    EXPECT_EQ(function(0x12345678U), reverses ? 0x78563412U : 0x12345678U) << name;
    EXPECT_EQ(function(0xFF000000U), reverses ? 0x000000FFU : 0xFF000000U) << name;
  }
  for (auto const& [name, function, order] : kTwoByteFunctions) {
    bool const reverses = (order == std::endian::little) != kLittle;
    EXPECT_EQ(function(0x1234U), reverses ? 0x3412U : 0x1234U) << name;
    EXPECT_EQ(function(0xFF00U), reverses ? 0x00FFU : 0xFF00U) << name;
  }
}

TEST(ByteOrderTest, FourByteValuesHaveTheBytesOfTheirOrder) {
  for (auto const& [name, function, order] : kFourByteFunctions) {
    SCOPED_TRACE(name);
    for (std::uint64_t value = 0; value <= 0xFFFFFFFFU; value += 65521) {
      auto const argument = static_cast<std::uint32_t>(value);
      ASSERT_EQ(function(argument), expected(argument, order)) << argument;
      ASSERT_EQ(function(~argument), expected(~argument, order)) << ~argument;
      ASSERT_EQ(function(function(argument)), argument);
    }
    for (int bit = 0; bit < 32; ++bit) {
      std::uint32_t const argument = 1U << bit;
      EXPECT_EQ(function(argument), expected(argument, order)) << argument;
    }
  }
}

TEST(ByteOrderTest, TwoByteValuesHaveTheBytesOfTheirOrder) {
  for (auto const& [name, function, order] : kTwoByteFunctions) {
    SCOPED_TRACE(name);
    for (std::uint32_t value = 0; value <= 0xFFFFU; ++value) {
      auto const argument = static_cast<std::uint16_t>(value);
      ASSERT_EQ(function(argument), expected(argument, order)) << argument;
      ASSERT_EQ(function(function(argument)), argument);
    }
  }
}

// A caller that takes the result for a wider number sees no bits above the value's.
TEST(ByteOrderTest, TwoByteResultsCarryNoBitsAboveTheLowSixteen) {
  for (auto const& [name, function, order] : kTwoByteFunctions) {
    SCOPED_TRACE(name);
    for (std::uint32_t const wide : {0x51234U, 0xFFFF8000U, 0xFFFFFFFFU, 0xABCD00FFU}) {
      auto const low = static_cast<std::uint16_t>(wide);
      std::uint32_t const result = function(low);
      EXPECT_LE(result, 0xFFFFU);
      EXPECT_EQ(result, expected(low, order));
    }
  }
}

template <class Function>
Function* exportedFunction(char const* name) {
  return std::bit_cast<Function*>(::dlsym(RTLD_DEFAULT, name));
}

TEST(ByteOrderTest, FunctionsAreExportedUnderTheirPlainNames) {
  for (auto const& [name, function, order] : kFourByteFunctions) {
    auto* const found = exportedFunction<Convert4>(name);
    ASSERT_NE(found, nullptr) << name;
    EXPECT_EQ(found, function) << name;
    EXPECT_EQ(found(0x12345678U), expected(std::uint32_t{0x12345678U}, order)) << name;
  }
  for (auto const& [name, function, order] : kTwoByteFunctions) {
    auto* const found = exportedFunction<Convert2>(name);
    ASSERT_NE(found, nullptr) << name;
    EXPECT_EQ(found, function) << name;
    EXPECT_EQ(found(0x1234U), expected(std::uint16_t{0x1234U}, order)) << name;
  }
}

TEST(ByteOrderTest, InternalFunctionsAreNotExported) {
  char const* const names[] = {
      "ComputerIsLe",
      "ReverseBytes4",
      "ReverseBytes2",
      "ReverseBytesWhenComputerIsBe4",
      "ReverseBytesWhenComputerIsLe4",
      "ReverseBytesWhenComputerIsBe2",
      "ReverseBytesWhenComputerIsLe2",
      // the same as C++ functions
      "_Z12ComputerIsLev",
      "_Z13ReverseBytes4j",
      "_Z13ReverseBytes2t",
      "_Z29ReverseBytesWhenComputerIsBe4j",
      "_Z29ReverseBytesWhenComputerIsLe4j",
      "_Z29ReverseBytesWhenComputerIsBe2t",
      "_Z29ReverseBytesWhenComputerIsLe2t",
  };
  for (char const* const name : names) EXPECT_EQ(::dlsym(RTLD_DEFAULT, name), nullptr) << name;
}

}  // namespace
}  // namespace vrxutil::test

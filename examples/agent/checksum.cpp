#include "examples/agent/checksum.h"

#include <array>

namespace agent {

namespace {

constexpr std::uint32_t kPolynomial = 0xEDB88320;  // V.42, 8.1.1.6.2, bits reversed

using Table = std::array<std::uint32_t, 256>;

/// What each value of a byte contributes.
constexpr Table makeTable() {
  Table table{};
  for (std::uint32_t byte = 0; byte < table.size(); ++byte) {
    std::uint32_t rest = byte;
    for (int bit = 0; bit < 8; ++bit) rest = (rest >> 1) ^ ((rest & 1) != 0 ? kPolynomial : 0);
    table[byte] = rest;
  }
  return table;
}

constexpr Table kTable = makeTable();
static_assert(kTable[1] == 0x77073096 && kTable[255] == 0x2D02EF8D);

}  // namespace

std::uint32_t crc32(ABuffer const& bytes) {
  std::uint32_t rest = 0xFFFFFFFF;
  for (char const c : bytes.cpp_str()) {
    rest = (rest >> 8) ^ kTable[(rest ^ static_cast<unsigned char>(c)) & 0xFF];
  }
  return ~rest;
}

}  // namespace agent

// Numbers appended to a string that has room take nothing from the free store,
// as seen by an operator new of this program's own.

#include "tests/support/block_count.h"

#include <vrxutil/text.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <string>

namespace vrxutil::test {
namespace {

TEST(NumberAllocationTest, ProgramSeesTheStringsOwnAllocations) {
  AString text;
  long const before = blocksTaken();
  text << L"longer than what a string holds within itself";
  EXPECT_GT(blocksTaken(), before);
}

TEST(NumberAllocationTest, AppendedNumberTakesNoBlock) {
  AString text;
  text.cpp_str().reserve(1000);
  text << 1L << 2 << 3UL << static_cast<void*>(&text);

  long const before = blocksTaken();
  text << 42L << LONG_MIN << LONG_MAX << -7 << INT_MIN << 5UL << ULONG_MAX
       << static_cast<void*>(&text);
  EXPECT_EQ(blocksTaken(), before);
}

}  // namespace
}  // namespace vrxutil::test

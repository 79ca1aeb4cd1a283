// What reading a line takes from the free store, and in records, seen by an
// operator new of this program's own: neither grows by the byte.

#include "tests/support/block_count.h"
#include "tests/support/own_logger.h"
#include "tests/support/temporary_folder.h"

#include <vrxutil/file.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <string>

namespace vrxutil::test {
namespace {

constexpr std::size_t kLong = 10 << 20;

/// Counts records and keeps none.
class CountingLogger final : public OwnLogger {
public:
  void logMessage(LogLevel const& level, std::wstring const& /*group*/,
                  std::wstring const& /*message*/) override {
    ++(level == LogLevel::error ? errors : others);
  }

  long errors = 0;
  long others = 0;
};

/// What one readLine() has taken.
struct Cost {
  long blocks;
  long records;
  bool operator==(Cost const&) const = default;
};

void PrintTo(Cost const& cost, std::ostream* out) {
  *out << cost.blocks << " blocks, " << cost.records << " records";
}

/// Reads a line of `length` letters into a string that has room for `room`.
Cost costOfLine(std::size_t length, std::size_t room) {
  TemporaryFolder const folder;
  makeFile(folder / "file", "warm up\n" + std::string(length, 'x') + "\n");
  CountingLogger const log;
  AFile file;
  EXPECT_TRUE(file.open(true, folder.wide("file")));
  AString line;
  EXPECT_TRUE(file.readLine(line));
  line.cpp_str().reserve(room);

  Cost const before{blocksTaken(), log.others};
  bool const isRead = file.readLine(line);
  Cost const cost{blocksTaken() - before.blocks, log.others - before.records};
  EXPECT_TRUE(isRead);
  EXPECT_EQ(line.size(), length);
  EXPECT_EQ(log.errors, 0);
  return cost;
}

TEST(AFileAllocationTest, ProgramSeesTheLibrarysAllocations) {
  EXPECT_GT(costOfLine(1000, 0).blocks, 0);
}

TEST(AFileAllocationTest, LengthOfALineTakesNeitherBlockNorRecord) {
  Cost const ofShort = costOfLine(1, kLong);
  EXPECT_EQ(ofShort.records, 1);
  EXPECT_EQ(costOfLine(kLong, kLong), ofShort);
}

// A string at least doubles when it grows: at most 24 times to 10 MiB.
TEST(AFileAllocationTest, LineWithoutRoomGrowsBySteps) {
  Cost const ofShort = costOfLine(1, 0);
  Cost const ofLong = costOfLine(kLong, 0);
  EXPECT_EQ(ofLong.records, 1);
  EXPECT_LE(ofLong.blocks, ofShort.blocks + 24);
}

TEST(AFileAllocationTest, OnlyNulsInALongLineAreReported) {
  constexpr long kNuls = 100;
  std::string bytes(kLong, 'x');
  for (std::size_t i = 0; i < kNuls; ++i) bytes[i * (kLong / kNuls)] = '\0';
  TemporaryFolder const folder;
  makeFile(folder / "file", bytes + "\nnext\n");
  AFile file;
  ASSERT_TRUE(file.open(true, folder.wide("file")));
  CountingLogger const log;
  AString line;
  EXPECT_TRUE(file.readLine(line));
  EXPECT_TRUE(line.const_cpp_str() == std::wstring(bytes.begin(), bytes.end()));
  EXPECT_EQ(log.errors, kNuls * 3);  // the heading, the scope, the message
  EXPECT_EQ(log.others, 1);
  EXPECT_TRUE(file.readLine(line));
  EXPECT_EQ(line.const_cpp_str(), L"next");
}

TEST(AFileAllocationTest, FileWithoutALineFeedIsOneLine) {
  TemporaryFolder const folder;
  makeFile(folder / "file", std::string(kLong, 'x'));
  AFile file;
  ASSERT_TRUE(file.open(true, folder.wide("file")));
  CountingLogger const log;
  AString line;
  EXPECT_TRUE(file.readLine(line));
  EXPECT_TRUE(line.const_cpp_str() == std::wstring(kLong, L'x'));
  EXPECT_FALSE(file.readLine(line));
  EXPECT_EQ(line.const_cpp_str(), L"");
  EXPECT_EQ(log.errors, 0);
  EXPECT_EQ(log.others, 2);
}

}  // namespace
}  // namespace vrxutil::test

// The text of a line, at times that a test chooses.

#include "platform/vrxcomn/log_line.h"

#include "tests/platform/child_process.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include <time.h>
#include <unistd.h>

namespace vrxutil::detail {

namespace {

using namespace std::chrono_literals;
using std::chrono::system_clock;

struct TimeRow {
  char const* name;
  char const* zone;  // as in the environment variable TZ
  std::chrono::microseconds sinceEpoch;
  char const* text;
};

class LogLineTest : public testing::TestWithParam<TimeRow> {};

TEST_P(LogLineTest, BeginsWithTheTime) {
  test::ChildResult const result = test::runInChild([] {
    ::setenv("TZ", GetParam().zone, 1);
    ::tzset();
    std::string const line = logLine(system_clock::time_point(GetParam().sinceEpoch), "rest");
    std::string const start = GetParam().text + (" " + std::to_string(::getpid()) + "/");
    EXPECT_EQ(start, line.substr(0, start.size()));
    EXPECT_TRUE(line.ends_with(" rest\n")) << line;
  });
  EXPECT_EQ(0, result.status);
}

INSTANTIATE_TEST_SUITE_P(
    Times, LogLineTest,
    testing::Values(
        TimeRow{"Epoch", "UTC0", 0us, "1970-01-01T00:00:00.000+00:00"},
        TimeRow{"MillisecondsAreCut", "UTC0", 1714559696789999us, "2024-05-01T10:34:56.789+00:00"},
        TimeRow{"NumbersArePadded", "UTC0", 1709694245006000us, "2024-03-06T03:04:05.006+00:00"},
        TimeRow{"LastOfAYear", "UTC0", 4102444799999999us, "2099-12-31T23:59:59.999+00:00"},
        TimeRow{"BeforeTheEpoch", "UTC0", -1us, "1969-12-31T23:59:59.999+00:00"},
        TimeRow{"East", "AAA-5:30", 1714559696789000us, "2024-05-01T16:04:56.789+05:30"},
        TimeRow{"West", "AAA+9:05", 1714559696789000us, "2024-05-01T01:29:56.789-09:05"},
        TimeRow{"LessThanAMinuteWest", "AAA+0:00:30", 0us, "1969-12-31T23:59:30.000+00:00"},
        TimeRow{"Summer", "AAA-1BBB,M3.5.0,M10.5.0/3", 1714559696789000us,
                "2024-05-01T12:34:56.789+02:00"},
        TimeRow{"Winter", "AAA-1BBB,M3.5.0,M10.5.0/3", 1704067200000000us,
                "2024-01-01T01:00:00.000+01:00"}),
    [](testing::TestParamInfo<TimeRow> const& row) { return std::string(row.param.name); });

}  // namespace

}  // namespace vrxutil::detail

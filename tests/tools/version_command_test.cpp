// vrxtool version.

#include "tests/tools/tool_support.h"

namespace {

using vrxutil::test::done;
using vrxutil::test::failed;
using vrxutil::test::kDiskFull;
using vrxutil::test::kOutputClosed;
using vrxutil::test::ToolResult;
using vrxutil::test::ToolTest;

class VersionCommandTest : public ToolTest {};

TEST_F(VersionCommandTest, ComparesNumberByNumber) {
  struct {
    char const* lower;
    char const* higher;
  } constexpr kRows[] = {
      {"4.6.0.1234", "4.10"},       {"65535", "65535.0.0.1"},   {"0", "0.0.0.1"},
      {"0.0.0.65535", "0.0.1"},     {"0.0.65535.65535", "0.1"}, {"9", "10"},
      {"0.65535.65535.65535", "1"}, {"32767", "32768"},         {"1.2.3.4", "1.2.4.3"}};

  for (auto const& [lower, higher] : kRows) {
    std::string const low = lower;
    std::string const high = higher;
    EXPECT_EQ(run("version compare " + low + " " + high), done("lower\n")) << low;
    EXPECT_EQ(run("version compare " + high + " " + low), done("higher\n")) << low;
    EXPECT_EQ(run("version compare " + low + " " + low), done("equal\n")) << low;
    for (std::string const relation : {"lower", "equal", "higher"}) {
      EXPECT_EQ(run("version compare " + low + " " + high + " --is " + relation),
                (ToolResult{relation == "lower" ? 0 : 1, "", ""}))
          << low;
    }
  }
  EXPECT_EQ(run("version compare 4.6 4.6.0.0"), done("equal\n"));
  EXPECT_EQ(run("version compare 04.0010 4.10"), done("equal\n"));
}

TEST_F(VersionCommandTest, AnswersWithItsStatus) {
  EXPECT_EQ(run("version compare 1.2 1.10 --is lower"), done());
  EXPECT_EQ(run("version compare 1.2 1.10 --is equal"), (ToolResult{1, "", ""}));
  EXPECT_EQ(run("version compare --is higher 2 1"), done());
  EXPECT_EQ(run("version compare --is equal 2 2.0"), done());
  EXPECT_EQ(run("version compare 1 2 --is lower >&-"), done());
}

TEST_F(VersionCommandTest, RefusesWhatIsNoVersion) {
  for (std::string const text : {"''", "1.", ".1", "1..2", "1.2.3.4.5", "65536", "-- -1", "+1",
                                 "' 1'", "1x", "1.2-3", "99999999999999999999", "1.2.3.4.", "0x1",
                                 "1,2", "\"$(printf '1\\n')x\"", "1.65536", "1.2.3.65536"}) {
    EXPECT_EQ(run("version compare " + text + " 1").status, 2) << text;
    ToolResult const result = run("version compare 1 " + text);
    EXPECT_EQ(result.status, 2) << text;
    EXPECT_EQ(result.output, "");
    EXPECT_TRUE(
        result.errors.starts_with("vrxtool: no version of one to four numbers from 0 to 65535: "))
        << result.errors;
  }
}

TEST_F(VersionCommandTest, WrongUseIsAFailure) {
  EXPECT_EQ(run("version compare 1.2.x 1"),
            failed("no version of one to four numbers from 0 to 65535: 1.2.x"));
  EXPECT_EQ(run("version compare 1"), failed("B is required; try --help"));
  EXPECT_EQ(run("version compare 1 2 3"),
            failed("The following argument was not expected: 3; try --help"));
  EXPECT_EQ(run("version compare 1 2 --is newer"),
            failed("--is: newer not in {lower,equal,higher}; try --help"));
  EXPECT_EQ(run("version compare 1 2 >/dev/full"), failed(kDiskFull));
  EXPECT_EQ(run("version compare 1 2 >&-"), failed(kOutputClosed));
}

}  // namespace

// The log front end as a build with NDEBUG has it: this program holds a copy of
// linux/log.cpp compiled so, which takes the place of the library's own.

#include "tests/linux/null_arguments.h"
#include "tests/support/log_recorder.h"

#include <vrxutil/log.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <vector>

#ifndef NDEBUG
#error "to be compiled without assertions"
#endif

namespace vrxutil::test {
namespace {

using Records = std::vector<LogRecord>;

TEST(LogWithoutAssertionsTest, NullGroupOrMessageDropsTheRecord) {
  for (NullArgumentCall const& row : kNullArgumentCalls) {
    SCOPED_TRACE(row.name);
    LogRecorder const recorder;
    row.call();
    EXPECT_EQ(recorder.records(), Records());
  }
}

TEST(LogWithoutAssertionsTest, RecordsAfterADroppedOneAreWritten) {
  LogRecorder recorder;
  for (NullArgumentCall const& row : kNullArgumentCalls) {
    SCOPED_TRACE(row.name);
    row.call();
    recorder.clear();
    logInfo(L"Group", L"text");
    EXPECT_EQ(recorder.records(), Records({infoRecord(L"Group", L"text")}));
  }
}

TEST(LogWithoutAssertionsTest, ErrnoIfStillTellsItsCondition) {
  LogRecorder const recorder;
  errno = ENOENT;
  EXPECT_TRUE(logErrnoIf(nullptr, true));
  EXPECT_FALSE(logErrnoIf(nullptr, false));
}

TEST(LogWithoutAssertionsTest, ScopesWithNullTextsShowThemAsText) {
  LogRecorder recorder;
  AnInfoTrace scope(nullptr, nullptr);
  logError(L"Group", L"text");
  EXPECT_EQ(recorder.records(),
            Records({infoRecord(L"(null)", L"(null)"), errorRecord(L"Group", L"Error trace:"),
                     errorRecord(L"(null)", L" [(null)]->"), errorRecord(L"Group", L"  text")}));
}

}  // namespace
}  // namespace vrxutil::test

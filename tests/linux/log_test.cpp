#include "tests/linux/null_arguments.h"
#include "tests/support/log_recorder.h"

#include <vrxutil/log.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <latch>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace vrxutil::test {
namespace {

using vornix_com::oxa::logger::ILogger;
using vornix_com::oxa::logger::LogLevel;

using Records = std::vector<LogRecord>;
using Calls = std::vector<std::wstring>;
using TwoTexts = void(wchar_t const*, wchar_t const*);

static_assert(
    std::is_same_v<decltype(logMessage), void(LogLevel const&, wchar_t const*, wchar_t const*)>);
static_assert(std::is_same_v<decltype(logDetail), TwoTexts>);
static_assert(std::is_same_v<decltype(logInfo), TwoTexts>);
static_assert(std::is_same_v<decltype(logErrorNoStack), TwoTexts>);
static_assert(std::is_same_v<decltype(logError), TwoTexts>);
static_assert(std::is_same_v<decltype(logResult), TwoTexts>);
static_assert(std::is_same_v<decltype(logInternalError), TwoTexts>);
static_assert(std::is_same_v<decltype(logErrno), void(wchar_t const*)>);
static_assert(std::is_same_v<decltype(logErrnoIf), bool(wchar_t const*, bool)>);
static_assert(std::is_same_v<decltype(setupLog), void(wchar_t const*, wchar_t const*, bool, bool)>);
static_assert(std::is_same_v<decltype(finishLog), void()>);
static_assert(std::is_same_v<decltype(setLogLevelDetailed), void(bool)>);
static_assert(std::is_same_v<decltype(isDetailLoggingEnabled), bool()>);
static_assert(std::is_same_v<decltype(logDetailListContains), bool(char*)>);
static_assert(
    std::is_same_v<decltype(runMainWithLogging),
                   int(int (*)(int, char**), int, char**, wchar_t const*, wchar_t const*, bool)>);
static_assert(std::is_same_v<decltype(setupMainThreadForLogging), int(void (*)())>);

// The text that logErrno() gives for an error number, in the current locale.
std::wstring errnoText(int number) {
  return AString(static_cast<char const*>(std::strerror(number))).const_cpp_str();
}

// What logError() writes outside of every scope.
Records errorWithoutScopes(std::wstring const& group, std::wstring const& message) {
  return {errorRecord(group, L"Error trace:"), errorRecord(group, L"  " + message)};
}

// A logger that is in use for as long as it lives, for tests to derive from.
class ScopedLogger : public ILogger {
public:
  ~ScopedLogger() override { SetLogger(before_); }

  void start() override {}

  void attach(std::wstring const&) override {}

  void setMinLogLevel(LogLevel const&) override {}

  bool isDetailLoggingEnabled() override { return false; }

  ScopedLogger(ScopedLogger const&) = delete;
  ScopedLogger& operator=(ScopedLogger const&) = delete;

protected:
  ScopedLogger() : before_(SetLogger(this)) {}

private:
  ILogger* before_;
};

// Keeps calls of all kinds in one list. A record reads "LEVEL [GROUP] MESSAGE",
// followed by " (in scope)" if a scope was open when it came.
class CallRecorder final : public ScopedLogger {
public:
  void start() override { calls.emplace_back(L"start"); }

  void attach(std::wstring const& name) override { calls.push_back(L"attach " + name); }

  void setMinLogLevel(LogLevel const& level) override {
    calls.push_back(L"level " + std::to_wstring(static_cast<int>(level)));
  }

  void logMessage(LogLevel const& level, std::wstring const& group,
                  std::wstring const& message) override {
    calls.push_back(std::to_wstring(static_cast<int>(level)) + L" [" + group + L"] " + message);
    if (getThreadTraceStack()->top != nullptr) calls.back() += L" (in scope)";
  }

  Calls calls;
};

// Keeps records, after running an action of the test's for each.
class ActingLogger final : public ScopedLogger {
public:
  explicit ActingLogger(std::function<void(std::wstring const& message)> action)
      : action_(std::move(action)) {}

  void logMessage(LogLevel const& level, std::wstring const& group,
                  std::wstring const& message) override {
    if (depth_ < maximumDepth) {
      ++depth_;
      action_(message);
      --depth_;
    }
    records.push_back({level, group, message});
  }

  Records records;
  // How far the logger may call itself.
  int maximumDepth = 1;

private:
  std::function<void(std::wstring const&)> action_;
  int depth_ = 0;
};

// Throws instead of taking one of the records, keeps the others.
class ThrowingLogger final : public ScopedLogger {
public:
  // Takes `count` records before it throws.
  explicit ThrowingLogger(int count) : taken_(count) {}

  void logMessage(LogLevel const& level, std::wstring const& group,
                  std::wstring const& message) override {
    if (taken_-- == 0) throw std::runtime_error("no room for the record");
    records.push_back({level, group, message});
  }

  Records records;

private:
  int taken_;
};

// --- What each function sends ---------------------------------------------------

struct TextFunction {
  char const* name;
  TwoTexts* function;
  LogLevel level;
  wchar_t const* prefix;
};

constexpr TextFunction kSingleRecordFunctions[] = {
    {"logDetail", logDetail, LogLevel::detail, L""},
    {"logInfo", logInfo, LogLevel::info, L""},
    {"logErrorNoStack", logErrorNoStack, LogLevel::error, L""},
    {"logResult", logResult, LogLevel::detail, L"="},
    {"logInternalError", logInternalError, LogLevel::error, L"internal error: "},
};

struct Text {
  char const* name;
  std::wstring text;
};

std::vector<Text> const& texts() {
  static std::vector<Text> const all = {
      {"short", L"disk full"},
      {"empty", L""},
      {"blanks", L"  a  "},
      {"percent signs", L"%s%n%d"},
      {"control characters", L"a\nb\rc\t\x1b[0m"},
      {"beyond ASCII", L"\u00fcber \u20ac \U0001F600"},
      {"no Unicode scalar values", {L'\xD800', L'a', static_cast<wchar_t>(0x7FFFFFFF)}},
      {"64 characters", std::wstring(64, L'm')},
      {"65 characters", std::wstring(65, L'n')},
      {"a mebibyte", std::wstring(262144, L'o')},
  };
  return all;
}

TEST(LogTest, EachFunctionSendsOneRecordAtItsLevelWithItsPrefix) {
  LogRecorder recorder;
  for (auto const& [name, function, level, prefix] : kSingleRecordFunctions) {
    for (Text const& message : texts()) {
      SCOPED_TRACE(std::string(name) + ", message: " + message.name);
      recorder.clear();
      function(L"Group", message.text.c_str());
      EXPECT_EQ(recorder.records(), Records({{level, L"Group", prefix + message.text}}));
    }
  }
}

TEST(LogTest, EveryGroupReachesTheLoggerAsItIs) {
  LogRecorder recorder;
  for (auto const& [name, function, level, prefix] : kSingleRecordFunctions) {
    for (Text const& group : texts()) {
      SCOPED_TRACE(std::string(name) + ", group: " + group.name);
      recorder.clear();
      function(group.text.c_str(), L"text");
      EXPECT_EQ(recorder.records(), Records({{level, group.text, prefix + std::wstring(L"text")}}));
    }
  }
}

TEST(LogTest, ShortTextAfterALongOneIsNotMixedWithIt) {
  LogRecorder recorder;
  for (auto const& [name, function, level, prefix] : kSingleRecordFunctions) {
    SCOPED_TRACE(name);
    recorder.clear();
    std::wstring const longText(1000, L'x');
    function(longText.c_str(), longText.c_str());
    function(L"G", L"m");
    function(L"", L"");
    EXPECT_EQ(recorder.records(), Records({{level, longText, prefix + longText},
                                           {level, L"G", prefix + std::wstring(L"m")},
                                           {level, L"", prefix}}));
  }
}

TEST(LogTest, LogMessagePassesEveryLevelAsGiven) {
  LogRecorder recorder;
  for (int const number : {0, 1, 2, 3, 4, 5, -1, 2147483647}) {
    SCOPED_TRACE(number);
    recorder.clear();
    auto const level = static_cast<LogLevel>(number);
    logMessage(level, L"Group", L"text");
    EXPECT_EQ(recorder.records(), Records({{level, L"Group", L"text"}}));
  }
}

TEST(LogTest, LevelsAreZeroOneAndFour) {
  LogRecorder recorder;
  logDetail(L"G", L"d");
  logInfo(L"G", L"i");
  logErrorNoStack(L"G", L"e");
  std::vector<int> levels;
  for (LogRecord const& record : recorder.records()) {
    levels.push_back(static_cast<int>(record.level));
  }
  EXPECT_EQ(levels, (std::vector<int>{0, 1, 4}));
}

TEST(LogTest, ResultIsTheMessageAfterAnEqualsSign) {
  LogRecorder recorder;
  logResult(L"Group", L"42");
  EXPECT_EQ(recorder.records(), Records({detailRecord(L"Group", L"=42")}));
}

TEST(LogTest, InternalErrorIsOneRecordEvenInsideAScope) {
  LogRecorder recorder;
  ATrace const scope(L"Log", L"working", false, false);
  logInternalError(L"Group", L"bad");
  EXPECT_EQ(recorder.records(), Records({errorRecord(L"Group", L"internal error: bad")}));
}

TEST(LogTest, ErrorNoStackIsOneRecordEvenInsideAScope) {
  LogRecorder recorder;
  ATrace const scope(L"Log", L"working", false, false);
  logErrorNoStack(L"Group", L"bad");
  EXPECT_EQ(recorder.records(), Records({errorRecord(L"Group", L"bad")}));
}

TEST(LogTest, ErrorOutsideOfScopesIsATitleAndTheIndentedMessage) {
  LogRecorder recorder;
  for (Text const& message : texts()) {
    SCOPED_TRACE(message.name);
    recorder.clear();
    logError(L"Group", message.text.c_str());
    EXPECT_EQ(recorder.records(), errorWithoutScopes(L"Group", message.text));
  }
}

TEST(LogTest, ErrorInsideAScopeShowsTheScope) {
  LogRecorder recorder;
  ATrace const scope(L"Log", L"working", false, false);
  logError(L"File", L"disk full");
  EXPECT_EQ(recorder.records(),
            Records({errorRecord(L"File", L"Error trace:"), errorRecord(L"Log", L" [working]->"),
                     errorRecord(L"File", L"  disk full")}));
}

TEST(LogTest, CallersTextsMayChangeAfterTheCall) {
  LogRecorder recorder;
  std::wstring group = L"Group";
  std::wstring message = L"message";
  logInfo(group.c_str(), message.c_str());
  group.assign(5, L'?');
  message.assign(7, L'?');
  EXPECT_EQ(recorder.records(), Records({infoRecord(L"Group", L"message")}));
}

TEST(LogTest, NothingIsFilteredHere) {
  LogRecorder recorder;
  recorder.answerDetailEnabled(false);
  setLogLevelDetailed(false);
  logDetail(L"G", L"detail");
  logResult(L"G", L"result");
  logInfo(L"G", L"info");
  EXPECT_EQ(recorder.records(),
            Records({detailRecord(L"G", L"detail"), detailRecord(L"G", L"=result"),
                     infoRecord(L"G", L"info")}));
}

// --- errno ------------------------------------------------------------------------

TEST(LogTest, ErrnoIsLoggedAsItsTextThroughTheTrace) {
  LogRecorder recorder;
  for (int const number : {ENOENT, EACCES, ENOSPC, EINTR, 0, 12345}) {
    SCOPED_TRACE(number);
    recorder.clear();
    errno = number;
    logErrno(L"File");
    EXPECT_EQ(recorder.records(), errorWithoutScopes(L"File", errnoText(number)));
  }
}

TEST(LogTest, ErrnoInsideAScopeShowsTheScope) {
  LogRecorder recorder;
  ATrace const scope(L"Log", L"opening", false, false);
  errno = ENOENT;
  logErrno(L"File");
  EXPECT_EQ(recorder.records(),
            Records({errorRecord(L"File", L"Error trace:"), errorRecord(L"Log", L" [opening]->"),
                     errorRecord(L"File", L"  " + errnoText(ENOENT))}));
}

TEST(LogTest, ErrnoIsTakenBeforeALoggerChangesIt) {
  ActingLogger logger([](std::wstring const&) { errno = EBADF; });
  errno = ENOENT;
  logErrno(L"File");
  EXPECT_EQ(logger.records, errorWithoutScopes(L"File", errnoText(ENOENT)));
  errno = EACCES;
  EXPECT_TRUE(logErrnoIf(L"File", true));
  EXPECT_EQ(logger.records.back(), errorRecord(L"File", L"  " + errnoText(EACCES)));
}

TEST(LogTest, ErrnoIsTakenBeforeAThreadsFirstUseOfItsStack) {
  LogRecorder recorder;
  std::thread([] {
    errno = ENOSPC;
    logErrno(L"File");
  }).join();
  EXPECT_EQ(recorder.records(), errorWithoutScopes(L"File", errnoText(ENOSPC)));
}

TEST(LogTest, ErrnoIfLogsOnlyWhenTheConditionHolds) {
  LogRecorder recorder;
  errno = ENOENT;
  EXPECT_FALSE(logErrnoIf(L"File", false));
  EXPECT_EQ(recorder.records(), Records());
  EXPECT_TRUE(logErrnoIf(L"File", true));
  EXPECT_EQ(recorder.records(), errorWithoutScopes(L"File", errnoText(ENOENT)));
}

// --- Set-up and queries -------------------------------------------------------------

struct SetupRow {
  char const* name;
  wchar_t const* logName;
  wchar_t const* second;
  bool third;
  bool alreadyAttached;
  Calls expected;
};

TEST(LogTest, SetupAttachesUnlessAttachedThenStartsThenSetsTheLevel) {
  SetupRow const setups[] = {
      {"plain", L"agent", L"", false, false, {L"attach agent", L"start", L"level 1"}},
      {"second given", L"agent", L"x", false, false, {L"attach agent", L"start", L"level 1"}},
      {"second null", L"agent", nullptr, false, false, {L"attach agent", L"start", L"level 1"}},
      {"third true", L"agent", L"", true, false, {L"attach agent", L"start", L"level 1"}},
      {"empty name", L"", L"", false, false, {L"attach ", L"start", L"level 1"}},
      {"null name", nullptr, L"", false, false, {L"attach (null)", L"start", L"level 1"}},
      {"attached", L"agent", L"", false, true, {L"start", L"level 1"}},
      {"attached, third true", L"agent", L"x", true, true, {L"start", L"level 1"}},
      {"attached, no name", nullptr, nullptr, false, true, {L"start", L"level 1"}},
  };
  for (SetupRow const& setup : setups) {
    SCOPED_TRACE(setup.name);
    CallRecorder recorder;
    setupLog(setup.logName, setup.second, setup.third, setup.alreadyAttached);
    EXPECT_EQ(recorder.calls, setup.expected);
  }
}

TEST(LogTest, FinishLogDoesNothing) {
  CallRecorder recorder;
  finishLog();
  finishLog();
  EXPECT_EQ(recorder.calls, Calls());
}

TEST(LogTest, DetailedSetsTheMinimumLevelToDetailOrInfo) {
  CallRecorder recorder;
  setLogLevelDetailed(true);
  setLogLevelDetailed(false);
  EXPECT_EQ(recorder.calls, Calls({L"level 0", L"level 1"}));
}

TEST(LogTest, DetailLoggingIsWhatTheLoggerSays) {
  LogRecorder recorder;
  for (bool const enabled : {true, false, true}) {
    recorder.answerDetailEnabled(enabled);
    EXPECT_EQ(isDetailLoggingEnabled(), enabled);
  }
  EXPECT_EQ(recorder.records(), Records());
}

TEST(LogTest, NoNameIsInTheDetailList) {
  CallRecorder recorder;
  char name[] = "Xml";
  EXPECT_FALSE(logDetailListContains(name));
  EXPECT_FALSE(logDetailListContains(nullptr));
  EXPECT_EQ(recorder.calls, Calls());
}

// --- The logger is asked for afresh ---------------------------------------------------

TEST(LogTest, ReplacedLoggerGetsTheNextRecord) {
  LogRecorder first;
  logInfo(L"G", L"one");
  {
    LogRecorder second;
    logInfo(L"G", L"two");
    setLogLevelDetailed(true);
    EXPECT_EQ(second.records(), Records({infoRecord(L"G", L"two")}));
    EXPECT_EQ(second.setupCalls(), Calls({L"level 0"}));
  }
  logInfo(L"G", L"three");
  EXPECT_EQ(first.records(), Records({infoRecord(L"G", L"one"), infoRecord(L"G", L"three")}));
  EXPECT_EQ(first.setupCalls(), Calls());
}

TEST(LogTest, LoggerReplacedInsideAScopeGetsTheErrorAndItsTrace) {
  LogRecorder first;
  AnInfoTrace const scope(L"Xml", L"write");
  LogRecorder second;
  logError(L"File", L"disk full");
  EXPECT_EQ(first.records(), Records({infoRecord(L"Xml", L"write")}));
  EXPECT_EQ(second.records(),
            Records({errorRecord(L"File", L"Error trace:"), errorRecord(L"Xml", L" [write]->"),
                     errorRecord(L"File", L"  disk full")}));
}

TEST(LogTest, LoggerReplacedBetweenTheRecordsOfAnErrorGetsTheRest) {
  LogRecorder rest;
  ILogger* const replacement = ILogger::GetLogger();
  ActingLogger first([&](std::wstring const&) { ILogger::SetLogger(replacement); });
  logError(L"File", L"disk full");
  EXPECT_EQ(first.records, Records({errorRecord(L"File", L"Error trace:")}));
  EXPECT_EQ(rest.records(), Records({errorRecord(L"File", L"  disk full")}));
}

// --- runMainWithLogging, setupMainThreadForLogging --------------------------------------

// What the last main function was called with.
struct MainCall {
  int count = -1;
  char** vector = nullptr;
};

MainCall lastMainCall;

template <int kResult>
int mainFunction(int count, char** vector) {
  lastMainCall = {count, vector};
  logInfo(L"Main", L"running");
  return kResult;
}

int throwingMain(int, char**) { throw std::runtime_error("main failed"); }

void throwingBody() { throw std::runtime_error("body failed"); }

Calls const kFrameOfMain = {L"0 [Log] Main thread (in scope)", L"1 [Main] running (in scope)",
                            L"1 [Log] Exit program (in scope)"};

Calls operator+(Calls first, Calls const& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

TEST(RunMainTest, SetsUpLoggingOpensTheScopeCallsAndSaysGoodbye) {
  CallRecorder recorder;
  char name[] = "agent";
  char* arguments[] = {name, nullptr};
  EXPECT_EQ(runMainWithLogging(mainFunction<7>, 1, arguments, L"agentlog", L"ignored", false), 7);
  EXPECT_EQ(lastMainCall.count, 1);
  EXPECT_EQ(lastMainCall.vector, arguments);
  EXPECT_EQ(recorder.calls, Calls({L"attach agentlog", L"start", L"level 1"}) + kFrameOfMain);
  EXPECT_EQ(getThreadTraceStack()->top, nullptr);
}

TEST(RunMainTest, AttachesNothingWhenAttachedAlready) {
  CallRecorder recorder;
  EXPECT_EQ(runMainWithLogging(mainFunction<0>, 0, nullptr, L"agentlog", nullptr, true), 0);
  EXPECT_EQ(lastMainCall.count, 0);
  EXPECT_EQ(lastMainCall.vector, nullptr);
  EXPECT_EQ(recorder.calls, Calls({L"start", L"level 1"}) + kFrameOfMain);
}

TEST(RunMainTest, ResultIsPassedOnUnchanged) {
  LogRecorder const recorder;
  auto const run = [](int (*function)(int, char**)) {
    return runMainWithLogging(function, 0, nullptr, L"agent", nullptr, true);
  };
  EXPECT_EQ(run(mainFunction<0>), 0);
  EXPECT_EQ(run(mainFunction<-1>), -1);
  EXPECT_EQ(run(mainFunction<256>), 256);
  EXPECT_EQ(run(mainFunction<-2147483647 - 1>), -2147483647 - 1);
  EXPECT_EQ(run(mainFunction<2147483647>), 2147483647);
}

TEST(RunMainTest, ErrorInMainShowsTheScopeOfTheMainThread) {
  LogRecorder recorder;
  auto const failingMain = [](int, char**) {
    logError(L"File", L"disk full");
    return 1;
  };
  EXPECT_EQ(runMainWithLogging(failingMain, 0, nullptr, L"agent", nullptr, true), 1);
  EXPECT_EQ(recorder.records(),
            Records({detailRecord(L"Log", L"Main thread"), errorRecord(L"File", L"Error trace:"),
                     errorRecord(L"Log", L" [Main thread]->"), errorRecord(L"File", L"  disk full"),
                     infoRecord(L"Log", L"Exit program")}));
}

TEST(RunMainTest, ExceptionPassesAndClosesTheScopeWithoutAGoodbye) {
  CallRecorder recorder;
  EXPECT_THROW(runMainWithLogging(throwingMain, 0, nullptr, L"agent", nullptr, true),
               std::runtime_error);
  logError(L"G", L"afterwards");
  EXPECT_EQ(recorder.calls, Calls({L"start", L"level 1", L"0 [Log] Main thread (in scope)",
                                   L"4 [G] Error trace:", L"4 [G]   afterwards"}));
}

TEST(RunMainTest, ExceptionOfAnyTypePasses) {
  LogRecorder recorder;
  auto const throwingNumber = [](int, char**) -> int { throw 42; };
  int caught = 0;
  try {
    runMainWithLogging(throwingNumber, 0, nullptr, L"agent", nullptr, true);
  } catch (int number) {
    caught = number;
  }
  EXPECT_EQ(caught, 42);
  EXPECT_EQ(recorder.records(), Records({detailRecord(L"Log", L"Main thread")}));
  EXPECT_EQ(getThreadTraceStack()->top, nullptr);
}

TEST(RunMainTest, ExceptionOfTheLoggerAtTheGoodbyeClosesTheScope) {
  ThrowingLogger logger(2);
  EXPECT_THROW(runMainWithLogging(mainFunction<0>, 0, nullptr, L"agent", nullptr, true),
               std::runtime_error);
  EXPECT_EQ(getThreadTraceStack()->top, nullptr);
  EXPECT_EQ(logger.records,
            Records({detailRecord(L"Log", L"Main thread"), infoRecord(L"Main", L"running")}));
}

TEST(RunMainTest, CallInsideAnotherNests) {
  LogRecorder recorder;
  auto const outer = [](int, char**) {
    return setupMainThreadForLogging([] { logError(L"G", L"deep"); });
  };
  EXPECT_EQ(runMainWithLogging(outer, 0, nullptr, L"agent", nullptr, true), 1);
  EXPECT_EQ(recorder.errors(),
            Records({errorRecord(L"G", L"Error trace:"), errorRecord(L"Log", L" [Main thread]->"),
                     errorRecord(L"Log", L" [Main thread]->"), errorRecord(L"G", L"  deep")}));
}

TEST(MainThreadTest, OpensTheScopeCallsAndSaysGoodbyeWithoutSetup) {
  CallRecorder recorder;
  EXPECT_EQ(setupMainThreadForLogging([] { logInfo(L"Main", L"running"); }), 1);
  EXPECT_EQ(recorder.calls, kFrameOfMain);
  EXPECT_EQ(getThreadTraceStack()->top, nullptr);
}

TEST(MainThreadTest, ExceptionPassesAndClosesTheScopeWithoutAGoodbye) {
  CallRecorder recorder;
  EXPECT_THROW(setupMainThreadForLogging(throwingBody), std::runtime_error);
  logError(L"G", L"afterwards");
  EXPECT_EQ(recorder.calls, Calls({L"0 [Log] Main thread (in scope)", L"4 [G] Error trace:",
                                   L"4 [G]   afterwards"}));
}

// --- Loggers that log, and loggers that throw ---------------------------------------------

TEST(LoggerThatLogsTest, InfoFromInsideLeavesTheOuterRecordsIntact) {
  ActingLogger logger([](std::wstring const&) { logInfo(L"Inner group", L"inner message"); });
  LogRecord const inner = infoRecord(L"Inner group", L"inner message");
  for (auto const& [name, function, level, prefix] : kSingleRecordFunctions) {
    SCOPED_TRACE(name);
    logger.records.clear();
    function(L"Outer group", L"outer message");
    EXPECT_EQ(logger.records,
              Records({inner, {level, L"Outer group", prefix + std::wstring(L"outer message")}}));
  }
}

TEST(LoggerThatLogsTest, ErrorFromInsideShowsTheScopesAndLeavesTheOuterRecordsIntact) {
  ActingLogger logger([](std::wstring const&) { logError(L"Inner", L"lost"); });
  Records const inner = {errorRecord(L"Inner", L"Error trace:"), errorRecord(L"Xml", L" [write]->"),
                         errorRecord(L"Inner", L"  lost")};
  ATrace const scope(L"Xml", L"write", false, false);
  logError(L"File", L"disk full");

  Records expected;
  for (LogRecord const& outer :
       {errorRecord(L"File", L"Error trace:"), errorRecord(L"Xml", L" [write]->"),
        errorRecord(L"File", L"  disk full")}) {
    expected.insert(expected.end(), inner.begin(), inner.end());
    expected.push_back(outer);
  }
  EXPECT_EQ(logger.records, expected);
}

TEST(LoggerThatLogsTest, ScopeFromInsideLeavesTheOuterRecordsIntact) {
  ActingLogger logger([](std::wstring const&) {
    AnInfoTrace scope(L"Inner", L"taking a record");
    scope.set(L"almost there", /*logNow=*/false);
    logError(L"Inner", L"lost");
  });
  logResult(L"Outer", L"42");
  EXPECT_EQ(
      logger.records,
      Records({infoRecord(L"Inner", L"taking a record"), errorRecord(L"Inner", L"Error trace:"),
               errorRecord(L"Inner", L" [almost there]->"), errorRecord(L"Inner", L"  lost"),
               detailRecord(L"Outer", L"=42")}));
  EXPECT_EQ(getThreadTraceStack()->top, nullptr);
}

TEST(LoggerThatLogsTest, OpeningAScopeSurvivesALoggerThatOpensScopes) {
  ActingLogger logger([](std::wstring const&) { ADetailTrace const scope(L"Inner", L"inner"); });
  {
    AnInfoTrace const outer(L"Outer", L"outer");
    EXPECT_EQ(getThreadTraceStack()->top, &outer);
    EXPECT_EQ(logger.records,
              Records({detailRecord(L"Inner", L"inner"), infoRecord(L"Outer", L"outer")}));
  }
  EXPECT_EQ(getThreadTraceStack()->top, nullptr);
}

TEST(LoggerThatLogsTest, RecordsAreIntactAtEveryDepth) {
  ActingLogger logger([](std::wstring const& message) {
    logInternalError((L"in " + message).c_str(), (message + L"+").c_str());
  });
  logger.maximumDepth = 6;
  logInfo(L"Group", L"0");

  Records expected = {infoRecord(L"Group", L"0")};
  std::wstring message = L"0";
  for (int depth = 0; depth < logger.maximumDepth; ++depth) {
    std::wstring const group = L"in " + message;
    message = L"internal error: " + message + L"+";
    expected.insert(expected.begin(), errorRecord(group, message));
  }
  EXPECT_EQ(logger.records, expected);
}

TEST(LoggerThatLogsTest, LongAndShortTextsFromInsideDoNotMix) {
  for (std::size_t const length : {0U, 1U, 64U, 65U, 1000U, 100000U}) {
    SCOPED_TRACE(length);
    std::wstring const innerText(length, L'i');
    ActingLogger logger([&](std::wstring const&) { logInfo(L"Inner", innerText.c_str()); });
    std::wstring const outerText(100, L'o');
    logResult(L"Outer", outerText.c_str());
    EXPECT_EQ(logger.records,
              Records({infoRecord(L"Inner", innerText), detailRecord(L"Outer", L"=" + outerText)}));
  }
}

TEST(LoggerThatThrowsTest, ExceptionPassesAndLaterRecordsAreRight) {
  for (auto const& [name, function, level, prefix] : kSingleRecordFunctions) {
    SCOPED_TRACE(name);
    ThrowingLogger logger(0);
    EXPECT_THROW(function(L"Group of the lost record", L"lost"), std::runtime_error);
    function(L"G", L"kept");
    EXPECT_EQ(logger.records, Records({{level, L"G", prefix + std::wstring(L"kept")}}));
  }
}

TEST(LoggerThatThrowsTest, ErrorWithTraceMayBreakOffAtEveryRecord) {
  Records const whole = {errorRecord(L"File", L"Error trace:"), errorRecord(L"Log", L" [outer]->"),
                         errorRecord(L"Xml", L" [inner]->"), errorRecord(L"File", L"  disk full")};
  ATrace const outer(L"Log", L"outer", false, false);
  ATrace const inner(L"Xml", L"inner", false, false);
  for (int taken = 0; taken < 4; ++taken) {
    SCOPED_TRACE(taken);
    ThrowingLogger logger(taken);
    EXPECT_THROW(logError(L"File", L"disk full"), std::runtime_error);
    EXPECT_EQ(logger.records, Records(whole.begin(), whole.begin() + taken));
    logger.records.clear();
    logError(L"File", L"disk full");
    EXPECT_EQ(logger.records, whole);
  }
}

TEST(LoggerThatThrowsTest, ScopeThatCannotLogIsNotOpen) {
  ATrace outer(L"Log", L"outer", false, false);
  ThrowingLogger logger(0);
  EXPECT_THROW(AnInfoTrace(L"Xml", L"inner"), std::runtime_error);
  ATrace const* const top = std::exchange(getThreadTraceStack()->top, &outer);
  ASSERT_EQ(top, &outer);
  logError(L"File", L"disk full");
  EXPECT_EQ(logger.records,
            Records({errorRecord(L"File", L"Error trace:"), errorRecord(L"Log", L" [outer]->"),
                     errorRecord(L"File", L"  disk full")}));
}

TEST(LoggerThatThrowsTest, ScopeKeepsTheMessageThatCouldNotBeLogged) {
  ATrace scope(L"Xml", L"before", false, false);
  ThrowingLogger logger(0);
  EXPECT_THROW(scope.set(L"after", /*logNow=*/true), std::runtime_error);
  EXPECT_EQ(getThreadTraceStack()->top, &scope);
  scope.log();
  EXPECT_EQ(logger.records, Records({infoRecord(L"Xml", L"after")}));
}

// --- Threads ------------------------------------------------------------------------------

constexpr int kThreads = 8;
constexpr int kRounds = 50;

// One round of a thread whose group is `group`, and what it leaves in the log.
void logOneRound(std::wstring const& group) {
  ADetailTrace const outer(group.c_str(), L"outer");
  logInfo(group.c_str(), L"info");
  {
    AnInfoTrace inner(group.c_str(), L"inner");
    inner.set(group.c_str(), /*logNow=*/false);
    logError(group.c_str(), L"error");
  }
  logResult(group.c_str(), L"result");
  logInternalError(group.c_str(), L"internal");
}

Records recordsOfOneRound(std::wstring const& group) {
  return {detailRecord(group, L"outer"),
          infoRecord(group, L"info"),
          infoRecord(group, L"inner"),
          errorRecord(group, L"Error trace:"),
          errorRecord(group, L" [outer]->"),
          errorRecord(group, L" [" + group + L"]->"),
          errorRecord(group, L"  error"),
          detailRecord(group, L"=result"),
          errorRecord(group, L"internal error: internal")};
}

TEST(LogThreadsTest, EachThreadLogsItsOwnRecordsInOrderWithItsOwnScopes) {
  LogRecorder recorder;
  std::latch gate(kThreads);
  std::vector<std::thread> threads;
  for (int number = 0; number < kThreads; ++number) {
    threads.emplace_back([&gate, group = L"T" + std::to_wstring(number)] {
      gate.arrive_and_wait();
      for (int round = 0; round < kRounds; ++round) logOneRound(group);
    });
  }
  for (std::thread& thread : threads) thread.join();

  Records const all = recorder.records();
  for (int number = 0; number < kThreads; ++number) {
    std::wstring const group = L"T" + std::to_wstring(number);
    SCOPED_TRACE(number);
    Records own;
    for (LogRecord const& record : all) {
      if (record.group == group) own.push_back(record);
    }
    Records expected;
    for (int round = 0; round < kRounds; ++round) {
      Records const one = recordsOfOneRound(group);
      expected.insert(expected.end(), one.begin(), one.end());
    }
    EXPECT_EQ(own, expected);
  }
  EXPECT_EQ(all.size(), kThreads * kRounds * recordsOfOneRound(L"").size());
}

// --- Null arguments -------------------------------------------------------------------------

TEST(LogTest, NullGroupDoesNotMatterWhereNothingIsLogged) {
  LogRecorder const recorder;
  EXPECT_FALSE(logErrnoIf(nullptr, false));
  EXPECT_EQ(recorder.records(), Records());
}

#ifdef NDEBUG

TEST(LogTest, NullGroupOrMessageDropsTheRecord) {
  for (NullArgumentCall const& row : kNullArgumentCalls) {
    SCOPED_TRACE(row.name);
    LogRecorder const recorder;
    row.call();
    EXPECT_EQ(recorder.records(), Records());
  }
}

#else

TEST(LogDeathTest, NullGroupOrMessageFailsTheAssertion) {
  for (NullArgumentCall const& row : kNullArgumentCalls) {
    SCOPED_TRACE(row.name);
    LogRecorder const recorder;
    EXPECT_EXIT(row.call(), testing::KilledBySignal(SIGABRT), "linux/log:116.*logGroup && message");
  }
}

#endif

}  // namespace
}  // namespace vrxutil::test

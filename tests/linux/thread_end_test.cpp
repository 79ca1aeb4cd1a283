// Logging and tracing while a thread or the process ends.

#include "tests/linux/key_rounds.h"
#include "tests/support/log_recorder.h"

#include <vrxutil/log.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <latch>
#include <memory>
#include <ostream>
#include <semaphore>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <cxxabi.h>
#include <pthread.h>
#include <unistd.h>

namespace vrxutil::test {
namespace {

using vornix_com::oxa::logger::ILogger;
using vornix_com::oxa::logger::LogLevel;

using Records = std::vector<LogRecord>;
using Names = std::vector<std::wstring>;
using Action = std::function<void()>;

// A scope that runs an action when it is destroyed.
class ActingScope : public ATrace {
public:
  explicit ActingScope(Action action)
      : ATrace(L"Scope", L"acting", /*detail=*/false, /*logNow=*/false),
        action_(std::move(action)) {}

  ActingScope(ActingScope const&) = delete;
  ActingScope& operator=(ActingScope const&) = delete;

  ~ActingScope() override { action_(); }

private:
  Action action_;
};

// A scope made by new that nobody closes.
// NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): the thread's end deletes it
void leaveScope(Action action) { new ActingScope(std::move(action)); }

// What code that runs late may do: log an error, open a scope, log one inside.
void workLate() {
  logError(L"Late", L"error");
  AnInfoTrace scope(L"Late", L"scope");
  scope.set(L"new text", /*logNow=*/false);
  logError(L"Late", L"inner");
}

// What workLate() leaves in the log where no other scope is open.
Records recordsOfLateWork() {
  return {errorRecord(L"Late", L"Error trace:"),  errorRecord(L"Late", L"  error"),
          infoRecord(L"Late", L"scope"),          errorRecord(L"Late", L"Error trace:"),
          errorRecord(L"Late", L" [new text]->"), errorRecord(L"Late", L"  inner")};
}

// The same, without the lines of the trace.
Records plainErrorsOfLateWork() {
  return {errorRecord(L"Late", L"error"), errorRecord(L"Late", L"inner")};
}

Records times(int count, Records const& records) {
  Records all;
  for (int i = 0; i < count; ++i) all.insert(all.end(), records.begin(), records.end());
  return all;
}

// --- The end of a thread ------------------------------------------------------------

void runOnStdThread(Action const& body) { std::thread(body).join(); }

void* callAction(void* action) {
  (*static_cast<Action const*>(action))();
  return nullptr;
}

void* callActionAndExit(void* action) {
  (*static_cast<Action const*>(action))();
  pthread_exit(nullptr);
}

void runOnPosixThread(void* (*start)(void*), Action body) {
  pthread_t thread{};
  ASSERT_EQ(pthread_create(&thread, nullptr, start, &body), 0);
  ASSERT_EQ(pthread_join(thread, nullptr), 0);
}

// How a thread is made and ends.
struct ThreadKind {
  char const* name;
  void (*run)(Action const& body);
};

void PrintTo(ThreadKind const& kind, std::ostream* out) { *out << kind.name; }

constexpr ThreadKind kThreadKinds[] = {
    {"StdThread", runOnStdThread},
    {"PosixThread", [](Action const& body) { runOnPosixThread(callAction, body); }},
    {"PosixThreadThatCallsExit",
     [](Action const& body) { runOnPosixThread(callActionAndExit, body); }},
};

class ThreadEndTest : public testing::TestWithParam<ThreadKind> {
protected:
  static void runOnThread(Action const& body) { GetParam().run(body); }

  LogRecorder recorder;
};

INSTANTIATE_TEST_SUITE_P(Threads, ThreadEndTest, testing::ValuesIn(kThreadKinds),
                         [](auto const& kind) { return std::string(kind.param.name); });

TEST_P(ThreadEndTest, LeftOverScopeIsDeleted) {
  int deleted = 0;
  runOnThread([&] { leaveScope([&] { ++deleted; }); });
  EXPECT_EQ(deleted, 1);
  EXPECT_EQ(recorder.records(), Records());
}

TEST_P(ThreadEndTest, LeftOverScopesAreDeletedInnermostFirst) {
  Names deleted;
  runOnThread([&] {
    for (wchar_t const* const name : {L"outer", L"middle", L"inner"}) {
      leaveScope([&deleted, name] { deleted.emplace_back(name); });
    }
    EXPECT_TRUE(deleted.empty());
  });
  EXPECT_EQ(deleted, Names({L"inner", L"middle", L"outer"}));
}

TEST_P(ThreadEndTest, ClosedScopesAreNotDeletedAgain) {
  Names deleted;
  runOnThread([&] {
    leaveScope([&] { deleted.emplace_back(L"left over"); });
    ActingScope const closed([&] { deleted.emplace_back(L"closed"); });
  });
  EXPECT_EQ(deleted, Names({L"closed", L"left over"}));
}

TEST_P(ThreadEndTest, DepthOfLeftOverScopesIsBoundedByMemoryAlone) {
  int deleted = 0;
  runOnThread([&] {
    for (int depth = 0; depth < 100000; ++depth) leaveScope([&] { ++deleted; });
  });
  EXPECT_EQ(deleted, 100000);
}

TEST_P(ThreadEndTest, LeftOverScopesOfTheLibrarysClassesAreDeleted) {
  runOnThread([] {  // a leak checker tells whether
    // NOLINTBEGIN(clang-analyzer-cplusplus.NewDeleteLeaks): as above
    new ADetailTrace(L"A", L"detail");
    new AnInfoTrace(L"B", L"info");
    new ATrace();
  });
  // NOLINTEND(clang-analyzer-cplusplus.NewDeleteLeaks)
  EXPECT_EQ(recorder.records(),
            Records({detailRecord(L"A", L"detail"), infoRecord(L"B", L"info")}));
}

TEST_P(ThreadEndTest, LeftOverScopeMayLogAndOpenScopesWhenDeleted) {
  runOnThread([] { leaveScope(workLate); });
  EXPECT_EQ(recorder.plainErrors(), plainErrorsOfLateWork());
}

TEST_P(ThreadEndTest, EachOfSeveralLeftOverScopesMayLogAndOpenScopesWhenDeleted) {
  int deleted = 0;
  runOnThread([&] {
    for (int depth = 0; depth < 3; ++depth) {
      leaveScope([&] {
        ++deleted;
        workLate();
      });
    }
  });
  EXPECT_EQ(deleted, 3);
  EXPECT_EQ(recorder.plainErrors(), times(3, plainErrorsOfLateWork()));
}

TEST_P(ThreadEndTest, LeftOverScopeStillFindsAStackWhenDeleted) {
  bool found = false;
  runOnThread([&] { leaveScope([&] { found = getThreadTraceStack() != nullptr; }); });
  EXPECT_TRUE(found);
}

// Runs its action when its thread ends.
struct AtThreadEnd {
  AtThreadEnd() = default;
  AtThreadEnd(AtThreadEnd const&) = delete;
  AtThreadEnd& operator=(AtThreadEnd const&) = delete;

  ~AtThreadEnd() {
    if (action) action();
  }

  Action action;
};

// The calling thread's own object, made at the first call.
AtThreadEnd& atThreadEnd() {
  thread_local AtThreadEnd object;
  return object;
}

TEST_P(ThreadEndTest, ThreadLocalObjectMadeBeforeTheFirstScopeMayLogWhenDestroyed) {
  runOnThread([&] {
    atThreadEnd().action = workLate;
    { ATrace const firstUse; }
  });
  EXPECT_EQ(recorder.records(), recordsOfLateWork());
}

TEST_P(ThreadEndTest, ThreadLocalObjectMadeAfterTheFirstScopeMayLogWhenDestroyed) {
  runOnThread([] {
    { ATrace const firstUse; }
    atThreadEnd().action = workLate;
  });
  EXPECT_EQ(recorder.records(), recordsOfLateWork());
}

TEST_P(ThreadEndTest, ThreadLocalObjectMayBeTheFirstToLog) {
  runOnThread([] { atThreadEnd().action = workLate; });
  EXPECT_EQ(recorder.records(), recordsOfLateWork());
}

TEST_P(ThreadEndTest, ThreadLocalObjectFindsAStackWhenDestroyed) {
  bool found = false;
  runOnThread([&] {
    atThreadEnd().action = [&] { found = getThreadTraceStack() != nullptr; };
    getThreadTraceStack();
  });
  EXPECT_TRUE(found);
}

TEST_P(ThreadEndTest, ScopeThatAThreadLocalObjectLeavesIsDeleted) {
  for (bool const madeFirst : {true, false}) {
    SCOPED_TRACE(madeFirst);
    int deleted = 0;
    runOnThread([&] {
      if (!madeFirst) getThreadTraceStack();
      atThreadEnd().action = [&] { leaveScope([&] { ++deleted; }); };
      getThreadTraceStack();
    });
    EXPECT_EQ(deleted, 1);
  }
}

TEST_P(ThreadEndTest, ThreadLocalObjectMayCloseAScope) {
  int closed = 0;
  runOnThread([&] {
    getThreadTraceStack();
    auto scope = std::make_shared<ActingScope>([&] { ++closed; });
    atThreadEnd().action = [scope]() mutable { scope.reset(); };
  });
  EXPECT_EQ(closed, 1);
}

// A value of a POSIX key: its destructor runs an action, in several rounds.
struct KeyRounds {
  pthread_key_t key;
  int roundsLeft;
  Action action;
};

void endRound(void* value) {
  auto* const rounds = static_cast<KeyRounds*>(value);
  rounds->action();
  if (--rounds->roundsLeft > 0) pthread_setspecific(rounds->key, rounds);
}

// A POSIX key for the length of a scope.
class KeyScope {
public:
  KeyScope(int rounds, Action action) : rounds_{{}, rounds, std::move(action)} {
    EXPECT_EQ(pthread_key_create(&rounds_.key, endRound), 0);
  }

  ~KeyScope() { EXPECT_EQ(pthread_key_delete(rounds_.key), 0); }

  KeyScope(KeyScope const&) = delete;
  KeyScope& operator=(KeyScope const&) = delete;

  void setOnThisThread() { EXPECT_EQ(pthread_setspecific(rounds_.key, &rounds_), 0); }

private:
  KeyRounds rounds_;
};

TEST_P(ThreadEndTest, KeyDestructorMayLog) {
  KeyScope key(1, workLate);
  runOnThread([&] {
    { ATrace const firstUse; }
    key.setOnThisThread();
  });
  EXPECT_EQ(recorder.records(), recordsOfLateWork());
}

TEST_P(ThreadEndTest, KeyDestructorMayBeTheFirstToLog) {
  KeyScope key(1, workLate);
  runOnThread([&] { key.setOnThisThread(); });
  EXPECT_EQ(recorder.records(), recordsOfLateWork());
}

TEST_P(ThreadEndTest, KeyDestructorMayLogInEveryRound) {
  KeyScope key(kKeyRounds, workLate);
  runOnThread([&] {
    { ATrace const firstUse; }
    key.setOnThisThread();
  });
  EXPECT_EQ(recorder.records(), times(kKeyRounds, recordsOfLateWork()));
}

TEST_P(ThreadEndTest, KeyDestructorFindsAStack) {
  bool found = true;
  KeyScope key(kKeyRounds, [&] { found = found && getThreadTraceStack() != nullptr; });
  runOnThread([&] { key.setOnThisThread(); });
  EXPECT_TRUE(found);
}

TEST_P(ThreadEndTest, ScopeThatAKeyDestructorLeavesIsDeleted) {
  int deleted = 0;
  KeyScope key(1, [&] { leaveScope([&] { ++deleted; }); });
  runOnThread([&] {
    getThreadTraceStack();
    key.setOnThisThread();
  });
  EXPECT_EQ(deleted, 1);
}

TEST_P(ThreadEndTest, EverythingAtOnceMayLog) {
  KeyScope key(2, workLate);
  runOnThread([&] {
    atThreadEnd().action = workLate;
    leaveScope(workLate);
    leaveScope(workLate);
    key.setOnThisThread();
  });
  EXPECT_EQ(recorder.plainErrors(), times(5, plainErrorsOfLateWork()));
}

TEST(ThreadsEndTest, ManyThreadsMayEndAtOnce) {
  LogRecorder const recorder;
  std::vector<std::thread> threads;
  for (int number = 0; number < 8; ++number) {
    threads.emplace_back([] {
      atThreadEnd().action = workLate;
      leaveScope(workLate);
    });
  }
  for (std::thread& thread : threads) thread.join();
  Records const all = recorder.records();
  for (wchar_t const* const message : {L"  error", L"scope", L"  inner"}) {
    EXPECT_EQ(std::count_if(all.begin(), all.end(),
                            [&](LogRecord const& record) { return record.message == message; }),
              16);
  }
}

TEST(ThreadsEndTest, PosixThreadExitClosesTheScopesOfItsStack) {
  LogRecorder const recorder;
  Names closed;
  runOnPosixThread(
      [](void* action) -> void* {
        ActingScope const scope(*static_cast<Action const*>(action));
        pthread_exit(nullptr);
      },
      [&] { closed.emplace_back(L"closed"); });
  EXPECT_EQ(closed, Names({L"closed"}));
}

// --- The end of the process -----------------------------------------------------------

// Writes records to standard error, a line each: "LEVEL [GROUP] MESSAGE".
class StandardErrorLogger final : public ILogger {
public:
  void start() override {}

  void attach(std::wstring const&) override {}

  void setMinLogLevel(LogLevel const&) override {}

  bool isDetailLoggingEnabled() override { return true; }

  void logMessage(LogLevel const& level, std::wstring const& group,
                  std::wstring const& message) override {
    std::string line = std::to_string(static_cast<int>(level)) + " [";
    for (wchar_t const c : group) line += static_cast<char>(c);  // ASCII in these tests
    line += "] ";
    for (wchar_t const c : message) line += static_cast<char>(c);
    say(line);
  }

  static void say(std::string const& line) {
    std::string const whole = line + "\n";
    if (::write(STDERR_FILENO, whole.data(), whole.size()) < 0) std::abort();
  }
};

void say(std::string const& line) { StandardErrorLogger::say(line); }

// Puts a logger in use that outlives the process's static objects.
void logToStandardError() {
  static auto* const logger = new StandardErrorLogger;
  ILogger::SetLogger(logger);
}

constexpr char kLateWork[] =
    "4 [Late] Error trace:\n"
    "4 [Late]   error\n"
    "1 [Late] scope\n"
    "4 [Late] Error trace:\n"
    "4 [Late]  [new text]->\n"
    "4 [Late]   inner\n";

// The same once there are no stacks any more.
constexpr char kLateWorkWithoutTrace[] =
    "4 [Late] error\n"
    "1 [Late] scope\n"
    "4 [Late] inner\n";

// The same where other scopes may show, or where there is no trace any more.
constexpr char kLateWorkAmongScopes[] =
    "(4 [^\n]*\n)*"
    "4 \\[Late\\] +error\n"
    "1 \\[Late\\] scope\n"
    "(4 [^\n]*\n)*"
    "4 \\[Late\\] +inner\n";

// A regular expression for the whole of the lines.
std::string exactly(std::string const& lines) { return "^" + lines + "$"; }

void useLibrary() { ATrace const scope; }

// Runs its action when the process's static objects are destroyed.
struct AtProcessEnd {
  ~AtProcessEnd() {
    if (action != nullptr) action();
  }

  void (*action)() = nullptr;
};

constinit AtProcessEnd atStaticEnd;

AtProcessEnd& atLocalStaticEnd() {
  static AtProcessEnd object;
  return object;
}

// Called when the program has no static objects any more, but its libraries have.
void (*afterProgram)() = nullptr;

[[gnu::destructor]] void callAfterProgram() {
  if (afterProgram != nullptr) afterProgram();
}

#ifdef __linux__

// Called when the libraries have no static objects any more either.
void (*afterLibraries)() = nullptr;

void callAfterLibraries(void*) {
  if (afterLibraries != nullptr) afterLibraries();
}

// What is registered first is called last. This runs before the libraries make
// their objects; of no library, it is not called at the end of one.
void registerAfterLibraries() { abi::__cxa_atexit(callAfterLibraries, nullptr, nullptr); }

[[gnu::used,
  gnu::section(".preinit_array")]] void (*const kBeforeLibraries)() = registerAfterLibraries;

#endif

// Each test's statement runs in a fresh process, in which nothing has used the
// library before.
class ProcessEndDeathTest : public testing::Test {
protected:
  ProcessEndDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  ~ProcessEndDeathTest() override { GTEST_FLAG_SET(death_test_style, styleBefore_); }

private:
  std::string styleBefore_ = GTEST_FLAG_GET(death_test_style);
};

auto exitsWell() { return testing::ExitedWithCode(0); }

TEST_F(ProcessEndDeathTest, ExitHandlerRegisteredAfterTheFirstUseMayLog) {
  EXPECT_EXIT(
      {
        logToStandardError();
        useLibrary();
        std::atexit(workLate);
        std::exit(0);
      },
      exitsWell(), testing::Eq(kLateWork));
}

TEST_F(ProcessEndDeathTest, ExitHandlerRegisteredBeforeTheFirstUseMayLog) {
  EXPECT_EXIT(
      {
        std::atexit(workLate);
        logToStandardError();
        useLibrary();
        std::exit(0);
      },
      exitsWell(), testing::Eq(kLateWork));
}

TEST_F(ProcessEndDeathTest, ExitHandlerMayBeTheFirstToLog) {
  EXPECT_EXIT(
      {
        logToStandardError();
        std::atexit(workLate);
        std::exit(0);
      },
      exitsWell(), testing::Eq(kLateWork));
}

TEST_F(ProcessEndDeathTest, LocalStaticObjectMadeAfterTheFirstUseMayLog) {
  EXPECT_EXIT(
      {
        logToStandardError();
        useLibrary();
        atLocalStaticEnd().action = workLate;
        std::exit(0);
      },
      exitsWell(), testing::Eq(kLateWork));
}

TEST_F(ProcessEndDeathTest, LocalStaticObjectMadeBeforeTheFirstUseMayLog) {
  EXPECT_EXIT(
      {
        atLocalStaticEnd().action = workLate;
        logToStandardError();
        useLibrary();
        std::exit(0);
      },
      exitsWell(), testing::Eq(kLateWork));
}

TEST_F(ProcessEndDeathTest, StaticObjectMayLog) {
  EXPECT_EXIT(
      {
        logToStandardError();
        useLibrary();
        atStaticEnd.action = workLate;
        std::exit(0);
      },
      exitsWell(), testing::Eq(kLateWork));
}

TEST_F(ProcessEndDeathTest, ThreadLocalObjectOfTheMainThreadMayLog) {
  EXPECT_EXIT(
      {
        logToStandardError();
        atThreadEnd().action = workLate;
        useLibrary();
        std::exit(0);
      },
      exitsWell(), testing::Eq(kLateWork));
}

TEST_F(ProcessEndDeathTest, CodeThatRunsAfterTheProgramsStaticObjectsMayLog) {
  EXPECT_EXIT(
      {
        logToStandardError();
        useLibrary();
        afterProgram = workLate;
        std::exit(0);
      },
      exitsWell(), exactly(kLateWorkAmongScopes));
}

#ifdef __linux__

TEST_F(ProcessEndDeathTest, CodeThatRunsAfterAllStaticObjectsLogsWithoutATrace) {
  EXPECT_EXIT(
      {
        logToStandardError();
        useLibrary();
        afterLibraries = [] {
          if (getThreadTraceStack() == nullptr) say("no stack");
          workLate();
        };
        std::exit(0);
      },
      exitsWell(), testing::Eq(std::string("no stack\n") + kLateWorkWithoutTrace));
}

TEST_F(ProcessEndDeathTest, FirstUseOfAllMayComeAfterAllStaticObjects) {
  EXPECT_EXIT(
      {
        logToStandardError();
        afterLibraries = workLate;
        std::exit(0);
      },
      exitsWell(), testing::Eq(kLateWorkWithoutTrace));
}

TEST_F(ProcessEndDeathTest, CodeThatRunsAfterAllStaticObjectsMayLogToTheBuiltInLogger) {
  EXPECT_EXIT(
      {
        ILogger::SetLogger(nullptr);
        useLibrary();
        afterLibraries = workLate;
        std::exit(0);
      },
      exitsWell(),
      " error \\[Late\\] error\n.* info \\[Late\\] scope\n.* error \\[Late\\] inner\n$");
}

#endif

TEST_F(ProcessEndDeathTest, EveryMomentInTurnMayLog) {
  std::string lateWork = kLateWorkAmongScopes;
  lateWork += lateWork;
  lateWork += lateWork;
  EXPECT_EXIT(
      {
        std::atexit(workLate);
        logToStandardError();
        leaveScope(workLate);
        atStaticEnd.action = workLate;
        afterProgram = workLate;
        std::exit(0);
      },
      exitsWell(), exactly(lateWork));
}

TEST_F(ProcessEndDeathTest, StaticObjectMayLogToTheBuiltInLogger) {
  EXPECT_EXIT(
      {
        ILogger::SetLogger(nullptr);
        useLibrary();
        atStaticEnd.action = workLate;
        std::exit(0);
      },
      exitsWell(), "Late.*Error trace:.*\n.*  error.*\n.*Late.*scope.*\n(.*\n)*.*  inner");
}

TEST_F(ProcessEndDeathTest, ExitInsideAMainFunctionLeavesTheScopesOfItsStackAlone) {
  EXPECT_EXIT(
      {
        logToStandardError();
        auto const leavingMain = [](int, char**) -> int {
          ActingScope const scope([] { say("closed"); });
          AnInfoTrace const inner(L"A", L"inner");
          std::exit(0);
        };
        runMainWithLogging(leavingMain, 0, nullptr, L"agent", nullptr, /*alreadyAttached=*/true);
      },
      exitsWell(), testing::Eq("0 [Log] Main thread\n1 [A] inner\n"));
}

TEST_F(ProcessEndDeathTest, LateWorkMayFollowAnExitWithOpenScopes) {
  EXPECT_EXIT(
      {
        std::atexit(workLate);
        logToStandardError();
        std::atexit(workLate);
        atStaticEnd.action = workLate;
        auto const leavingMain = [](int, char**) -> int {
          ATrace const scope(L"A", L"inner", /*detail=*/false, /*logNow=*/false);
          std::exit(0);
        };
        runMainWithLogging(leavingMain, 0, nullptr, L"agent", nullptr, /*alreadyAttached=*/true);
      },
      exitsWell(),
      exactly(std::string("0 \\[Log\\] Main thread\n") + kLateWorkAmongScopes +
              kLateWorkAmongScopes + kLateWorkAmongScopes));
}

TEST_F(ProcessEndDeathTest, LeftOverScopesOfTheMainThreadAreDeletedInnermostFirst) {
  EXPECT_EXIT(
      {
        logToStandardError();
        leaveScope([] { say("outer"); });
        leaveScope([] { say("inner"); });
        std::exit(0);
      },
      exitsWell(), testing::Eq("inner\nouter\n"));
}

TEST_F(ProcessEndDeathTest, LeftOverScopesAreToldFromThoseOfTheStack) {
  EXPECT_EXIT(
      {
        logToStandardError();
        leaveScope([] { say("outermost"); });
        ActingScope const onStack([] { say("closed"); });
        leaveScope([] { say("middle"); });
        ActingScope const onStackToo([] { say("closed"); });
        leaveScope([] { say("innermost"); });
        std::exit(0);
      },
      exitsWell(), testing::Eq("innermost\nmiddle\noutermost\n"));
}

TEST_F(ProcessEndDeathTest, LeftOverScopeMayLogAndOpenScopesWhenDeleted) {
  EXPECT_EXIT(
      {
        logToStandardError();
        ATrace const onStack(L"Stack", L"on the stack", /*detail=*/false, /*logNow=*/false);
        leaveScope(workLate);
        std::exit(0);
      },
      exitsWell(), exactly(kLateWorkAmongScopes));
}

TEST_F(ProcessEndDeathTest, ThreadThatCallsExitKeepsItsStackAndLosesItsLeftOvers) {
  EXPECT_EXIT(
      {
        logToStandardError();
        ActingScope const ofTheMainThread([] { say("closed"); });
        std::thread([] {
          ActingScope const onStack([] { say("closed"); });
          leaveScope([] { say("deleted"); });
          std::exit(0);
        }).join();
      },
      exitsWell(), testing::Eq("deleted\n"));
}

// Memory for a thread's stack with room for a scope right above it.
constexpr std::size_t kStackSize = 1024 * 1024;
alignas(4096) std::array<std::byte, kStackSize + 4096> stackAndMore;

// A scope in that room.
class ScopeAboveTheStack : public ActingScope {
public:
  using ActingScope::ActingScope;

  static void* operator new(std::size_t) { return stackAndMore.data() + kStackSize; }

  static void operator delete(void*) {}
};

TEST_F(ProcessEndDeathTest, LeftOverScopeAboveTheStackIsDeleted) {
  EXPECT_EXIT(
      {
        logToStandardError();
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstack(&attributes, stackAndMore.data(), kStackSize);
        pthread_t thread{};
        auto const leave = [](void*) -> void* {
          new ScopeAboveTheStack([] { say("deleted"); });
          ActingScope const onStack([] { say("closed"); });
          std::exit(0);
        };
        if (pthread_create(&thread, &attributes, leave, nullptr) == 0) {
          pthread_join(thread, nullptr);
        }
      },
      exitsWell(), testing::Eq("deleted\n"));
}

// Drops every record.
class SilentLogger final : public ILogger {
public:
  void start() override {}

  void attach(std::wstring const&) override {}

  void setMinLogLevel(LogLevel const&) override {}

  bool isDetailLoggingEnabled() override { return false; }

  void logMessage(LogLevel const&, std::wstring const&, std::wstring const&) override {}
};

// Starts a thread that logs, and waits until it has. The thread is born detached:
// where the process ends before it is joined, ThreadSanitizer sees a leak.
void startShortThread() {
  thread_local std::binary_semaphore hasLogged(0);  // outlives release()
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  auto const logAndTell = [](void* semaphore) -> void* {
    workLate();
    static_cast<std::binary_semaphore*>(semaphore)->release();
    return nullptr;
  };
  pthread_t thread{};
  if (pthread_create(&thread, &attributes, logAndTell, &hasLogged) == 0) hasLogged.acquire();
  pthread_attr_destroy(&attributes);
}

// Ends the process while some threads log without end, and others come and go.
[[noreturn]] void exitAmongBusyThreads() {
  static auto* const logger = new SilentLogger;
  static auto* const busy = new std::latch(4);
  ILogger::SetLogger(logger);
  auto const workForEver = [] {
    workLate();
    busy->count_down();
    while (true) workLate();
  };
  auto const startForEver = [] {
    startShortThread();
    busy->count_down();
    while (true) startShortThread();
  };
  std::thread(workForEver).detach();
  std::thread(workForEver).detach();
  std::thread(startForEver).detach();
  std::thread(startForEver).detach();
  busy->wait();
  atStaticEnd.action = workLate;
  afterProgram = workLate;
  std::exit(0);
}

TEST_F(ProcessEndDeathTest, OtherThreadsMayLogWhileTheProcessEnds) {
  for (int run = 0; run < 10; ++run) {
    SCOPED_TRACE(run);
    EXPECT_EXIT(exitAmongBusyThreads(), exitsWell(), testing::Eq(""));
  }
}

TEST_F(ProcessEndDeathTest, EarlyKeyOfAThreadMayLogInEveryRound) {
  EXPECT_EXIT(
      {
        KeyScope key(kKeyRounds, [] { logError(L"Late", L"error"); });
        logToStandardError();
        runOnPosixThread(callAction, [&] {
          useLibrary();
          key.setOnThisThread();
        });
        std::exit(testing::Test::HasFailure() ? 1 : 0);
      },
      exitsWell(), testing::Eq([] {
        std::string all;
        for (int round = 0; round < kKeyRounds; ++round) {
          all += "4 [Late] Error trace:\n4 [Late]   error\n";
        }
        return all;
      }()));
}

}  // namespace
}  // namespace vrxutil::test

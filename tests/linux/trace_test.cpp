#include "tests/support/log_recorder.h"

#include <vrxutil/log.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace vrxutil::test {
namespace {

using Records = std::vector<LogRecord>;

// --- Types ------------------------------------------------------------------------

static_assert(std::is_polymorphic_v<ATrace>);
static_assert(std::has_virtual_destructor_v<ATrace>);
static_assert(std::is_convertible_v<ADetailTrace*, ATrace*>);
static_assert(std::is_convertible_v<AnInfoTrace*, ATrace*>);
static_assert(sizeof(ADetailTrace) == sizeof(ATrace));
static_assert(sizeof(AnInfoTrace) == sizeof(ATrace));
// Table of virtual operations, stack, previous, group, isDetail, message.
static_assert(sizeof(ATrace) == 4 * sizeof(void*) + 2 * sizeof(AString));
// NOLINTNEXTLINE(bugprone-sizeof-expression): a pointer is what is meant
static_assert(sizeof(ATraceStack) == sizeof(ATrace*));
static_assert(std::is_same_v<decltype(ATraceStack::top), ATrace*>);
static_assert(!std::is_polymorphic_v<ATraceStack>);
static_assert(std::is_same_v<decltype(getThreadTraceStack), ATraceStack*()>);

template <class T>
constexpr bool kCanBeCopiedOrMoved =
    std::is_copy_constructible_v<T> || std::is_copy_assignable_v<T> ||
    std::is_move_constructible_v<T> || std::is_move_assignable_v<T>;

static_assert(!kCanBeCopiedOrMoved<ATrace>);
static_assert(!kCanBeCopiedOrMoved<ADetailTrace>);
static_assert(!kCanBeCopiedOrMoved<AnInfoTrace>);
static_assert(!kCanBeCopiedOrMoved<ATraceStack>);

static_assert(std::is_constructible_v<ATrace, wchar_t const*, wchar_t const*, bool, bool>);
static_assert(std::is_default_constructible_v<ATrace>);
static_assert(!std::is_default_constructible_v<ADetailTrace>);
static_assert(!std::is_default_constructible_v<AnInfoTrace>);

// A scope that writes nothing when it opens.
class QuietScope : public ATrace {
public:
  QuietScope(wchar_t const* logGroup, wchar_t const* logText)
      : ATrace(logGroup, logText, /*detail=*/false, /*logNow=*/false) {}
};

ATrace* top() { return getThreadTraceStack()->top; }

// --- Errors with their trace --------------------------------------------------------

TEST(TraceTest, ErrorWithoutScopesIsTwoRecords) {
  LogRecorder recorder;
  logError(L"File", L"disk full");
  EXPECT_EQ(recorder.records(),
            Records({errorRecord(L"File", L"Error trace:"), errorRecord(L"File", L"  disk full")}));
}

TEST(TraceTest, ErrorInTwoScopesShowsThemOutermostFirstUnderTheirOwnGroups) {
  LogRecorder recorder;
  ADetailTrace const outer(L"Log", L"Main thread");
  ADetailTrace const inner(L"Xml", L"write");
  recorder.clear();
  logError(L"File", L"disk full");
  EXPECT_EQ(
      recorder.records(),
      Records({errorRecord(L"File", L"Error trace:"), errorRecord(L"Log", L" [Main thread]->"),
               errorRecord(L"Xml", L" [write]->"), errorRecord(L"File", L"  disk full")}));
}

TEST(TraceTest, ScopesOfEveryKindAreShown) {
  LogRecorder recorder;
  ADetailTrace const first(L"A", L"1");
  AnInfoTrace const second(L"B", L"2");
  QuietScope const third(L"C", L"3");
  recorder.clear();
  logError(L"D", L"4");
  EXPECT_EQ(recorder.records(), Records({errorRecord(L"D", L"Error trace:"),
                                         errorRecord(L"A", L" [1]->"), errorRecord(L"B", L" [2]->"),
                                         errorRecord(L"C", L" [3]->"), errorRecord(L"D", L"  4")}));
}

TEST(TraceTest, ClosedScopesAreNotShown) {
  LogRecorder recorder;
  QuietScope const outer(L"A", L"outer");
  { QuietScope const closed(L"B", L"closed"); }
  QuietScope const inner(L"C", L"inner");
  logError(L"D", L"error");
  EXPECT_EQ(recorder.records(),
            Records({errorRecord(L"D", L"Error trace:"), errorRecord(L"A", L" [outer]->"),
                     errorRecord(L"C", L" [inner]->"), errorRecord(L"D", L"  error")}));
}

TEST(TraceTest, StackLogsAnErrorAsLogErrorDoes) {
  LogRecorder recorder;
  QuietScope const scope(L"Xml", L"write");
  getThreadTraceStack()->log(L"File", L"disk full");
  Records const fromStack = recorder.records();
  recorder.clear();
  logError(L"File", L"disk full");
  EXPECT_EQ(fromStack, recorder.records());
  EXPECT_EQ(fromStack,
            Records({errorRecord(L"File", L"Error trace:"), errorRecord(L"Xml", L" [write]->"),
                     errorRecord(L"File", L"  disk full")}));
}

TEST(TraceTest, ChainLogWritesTheScopeAndTheOuterOnesOnly) {
  LogRecorder recorder;
  QuietScope outer(L"A", L"outer");
  QuietScope middle(L"B", L"middle");
  QuietScope inner(L"C", L"inner");
  middle.chainLog();
  EXPECT_EQ(recorder.records(),
            Records({errorRecord(L"A", L" [outer]->"), errorRecord(L"B", L" [middle]->")}));
  recorder.clear();
  outer.chainLog();
  EXPECT_EQ(recorder.records(), Records({errorRecord(L"A", L" [outer]->")}));
}

TEST(TraceTest, LongTextsAreShownInFull) {
  LogRecorder recorder;
  for (std::size_t const length : {0U, 1U, 16U, 17U, 64U, 65U, 128U, 1000U, 262144U}) {
    SCOPED_TRACE(length);
    std::wstring const group(length, L'g');
    std::wstring const message(length, L'm');
    recorder.clear();
    AnInfoTrace const scope(group.c_str(), message.c_str());
    logError(L"E", message.c_str());
    EXPECT_EQ(recorder.records(),
              Records({infoRecord(group, message), errorRecord(L"E", L"Error trace:"),
                       errorRecord(group, L" [" + message + L"]->"),
                       errorRecord(L"E", L"  " + message)}));
  }
}

// --- Opening, closing, changing -------------------------------------------------------

TEST(TraceTest, DetailTraceWritesOneDetailRecordWhenItOpensAndNoneWhenItCloses) {
  LogRecorder recorder;
  { ADetailTrace const scope(L"Xml", L"write"); }
  EXPECT_EQ(recorder.records(), Records({detailRecord(L"Xml", L"write")}));
}

TEST(TraceTest, InfoTraceWritesOneInfoRecordWhenItOpensAndNoneWhenItCloses) {
  LogRecorder recorder;
  { AnInfoTrace const scope(L"Xml", L"write"); }
  EXPECT_EQ(recorder.records(), Records({infoRecord(L"Xml", L"write")}));
}

struct Opening {
  char const* name;
  bool detail;
  bool logNow;
  Records onOpening;
  LogRecord onLog;
};

TEST(TraceTest, ScopeWritesAtItsLevelWhenItOpensOrIsAskedTo) {
  LogRecord const detail = detailRecord(L"Xml", L"write");
  LogRecord const info = infoRecord(L"Xml", L"write");
  Opening const openings[] = {
      {"detail, logged", true, true, {detail}, detail},
      {"detail, silent", true, false, {}, detail},
      {"info, logged", false, true, {info}, info},
      {"info, silent", false, false, {}, info},
  };
  LogRecorder recorder;
  for (Opening const& row : openings) {
    SCOPED_TRACE(row.name);
    recorder.clear();
    std::optional<ATrace> scope;
    scope.emplace(L"Xml", L"write", row.detail, row.logNow);
    EXPECT_EQ(recorder.records(), row.onOpening);
    recorder.clear();
    scope->log();
    EXPECT_EQ(recorder.records(), Records({row.onLog}));
    recorder.clear();
    scope.reset();
    EXPECT_EQ(recorder.records(), Records());
  }
}

TEST(TraceTest, DefaultScopeIsSilentAndShowsEmptyTexts) {
  LogRecorder recorder;
  {
    ATrace const scope;
    EXPECT_EQ(top(), &scope);
    EXPECT_EQ(recorder.records(), Records());
    logError(L"File", L"disk full");
  }
  EXPECT_EQ(recorder.records(),
            Records({errorRecord(L"File", L"Error trace:"), errorRecord(L"", L" []->"),
                     errorRecord(L"File", L"  disk full")}));
}

TEST(TraceTest, DefaultScopeLogsAtLevelInfo) {
  LogRecorder recorder;
  ATrace scope;
  scope.log();
  scope.set(L"named", /*logNow=*/true);
  EXPECT_EQ(recorder.records(), Records({infoRecord(L"", L""), infoRecord(L"", L"named")}));
}

TEST(TraceTest, MessageSetSilentlyShowsInALaterError) {
  LogRecorder recorder;
  ADetailTrace scope(L"Xml", L"before");
  recorder.clear();
  scope.set(L"after", /*logNow=*/false);
  EXPECT_EQ(recorder.records(), Records());
  logError(L"File", L"disk full");
  EXPECT_EQ(recorder.records(),
            Records({errorRecord(L"File", L"Error trace:"), errorRecord(L"Xml", L" [after]->"),
                     errorRecord(L"File", L"  disk full")}));
}

TEST(TraceTest, LatestOfSeveralMessagesShows) {
  LogRecorder recorder;
  QuietScope outer(L"A", L"outer");
  QuietScope inner(L"B", L"inner");
  for (std::size_t const length : {1000U, 3U, 65U, 0U}) {
    SCOPED_TRACE(length);
    std::wstring const message(length, L's');
    outer.set(message.c_str(), /*logNow=*/false);
    recorder.clear();
    logError(L"E", L"e");
    EXPECT_EQ(
        recorder.records(),
        Records({errorRecord(L"E", L"Error trace:"), errorRecord(L"A", L" [" + message + L"]->"),
                 errorRecord(L"B", L" [inner]->"), errorRecord(L"E", L"  e")}));
  }
}

TEST(TraceTest, MessageSetAloudIsWrittenAtTheScopesLevel) {
  LogRecorder recorder;
  ADetailTrace detail(L"A", L"one");
  AnInfoTrace info(L"B", L"two");
  recorder.clear();
  detail.set(L"three", /*logNow=*/true);
  info.set(L"four", /*logNow=*/true);
  EXPECT_EQ(recorder.records(), Records({detailRecord(L"A", L"three"), infoRecord(L"B", L"four")}));
}

TEST(TraceTest, NullTextsReadAsNullText) {
  LogRecorder recorder;
  ATrace scope(nullptr, nullptr, /*detail=*/true, /*logNow=*/true);
  scope.set(L"set", /*logNow=*/false);
  scope.set(nullptr, /*logNow=*/true);
  logError(L"E", L"e");
  EXPECT_EQ(recorder.records(),
            Records({detailRecord(L"(null)", L"(null)"), detailRecord(L"(null)", L"(null)"),
                     errorRecord(L"E", L"Error trace:"), errorRecord(L"(null)", L" [(null)]->"),
                     errorRecord(L"E", L"  e")}));
}

TEST(TraceTest, ScopeKeepsCopiesOfItsTexts) {
  LogRecorder recorder;
  std::wstring group = L"Group";
  std::wstring message = L"first";
  QuietScope scope(group.c_str(), message.c_str());
  group.assign(5, L'?');
  message = L"second";
  scope.set(message.c_str(), /*logNow=*/false);
  message.assign(6, L'?');
  scope.log();
  EXPECT_EQ(recorder.records(), Records({infoRecord(L"Group", L"second")}));
}

// --- The stack ------------------------------------------------------------------------

template <class Member>
Member const& memberAt(ATrace const& scope, std::size_t offset) {
  return *reinterpret_cast<Member const*>(reinterpret_cast<std::byte const*>(&scope) + offset);
}

TEST(TraceTest, MembersStandInTheirOrderAfterTheTableOfVirtualOperations) {
  constexpr std::size_t kWord = sizeof(void*);
  LogRecorder const recorder;
  QuietScope const outer(L"A", L"outer");
  ATrace const inner(L"B", L"inner", /*detail=*/true, /*logNow=*/false);
  EXPECT_EQ(memberAt<ATraceStack*>(inner, kWord), getThreadTraceStack());
  EXPECT_EQ(memberAt<ATrace*>(inner, 2 * kWord), &outer);
  EXPECT_EQ(memberAt<ATrace*>(outer, 2 * kWord), nullptr);
  EXPECT_EQ(memberAt<AString>(inner, 3 * kWord).const_cpp_str(), L"B");
  EXPECT_TRUE(memberAt<bool>(inner, 3 * kWord + sizeof(AString)));
  EXPECT_FALSE(memberAt<bool>(outer, 3 * kWord + sizeof(AString)));
  EXPECT_EQ(memberAt<AString>(inner, 4 * kWord + sizeof(AString)).const_cpp_str(), L"inner");
}

TEST(TraceTest, ThreadHasOneStackThatStartsEmpty) {
  LogRecorder const recorder;
  ATraceStack const* const mine = getThreadTraceStack();
  ASSERT_NE(mine, nullptr);
  EXPECT_EQ(getThreadTraceStack(), mine);
  EXPECT_EQ(mine->top, nullptr);
  std::thread([mine] {
    ATraceStack const* const its = getThreadTraceStack();
    ASSERT_NE(its, nullptr);
    EXPECT_NE(its, mine);
    EXPECT_EQ(its->top, nullptr);
    EXPECT_EQ(getThreadTraceStack(), its);
  }).join();
  EXPECT_EQ(recorder.records(), Records());
}

TEST(TraceTest, TopIsTheScopeOpenedLast) {
  LogRecorder const recorder;
  {
    ADetailTrace const outer(L"A", L"outer");
    EXPECT_EQ(top(), &outer);
    {
      AnInfoTrace const inner(L"B", L"inner");
      EXPECT_EQ(top(), &inner);
    }
    EXPECT_EQ(top(), &outer);
  }
  EXPECT_EQ(top(), nullptr);
}

TEST(TraceTest, ScopeIsOpenBeforeItsRecordIsWritten) {
  class TopRecorder final : public vornix_com::oxa::logger::ILogger {
  public:
    void start() override {}

    void attach(std::wstring const&) override {}

    void setMinLogLevel(vornix_com::oxa::logger::LogLevel const&) override {}

    bool isDetailLoggingEnabled() override { return true; }

    void logMessage(vornix_com::oxa::logger::LogLevel const&, std::wstring const&,
                    std::wstring const&) override {
      topAtRecord = top();
    }

    ATrace* topAtRecord = nullptr;
  };

  LogRecorder const restoresTheLogger;
  TopRecorder recorder;
  TopRecorder::SetLogger(&recorder);
  AnInfoTrace const scope(L"A", L"a");
  EXPECT_EQ(recorder.topAtRecord, &scope);
}

TEST(TraceTest, ExceptionClosesTheScopesItLeaves) {
  LogRecorder recorder;
  QuietScope const outer(L"A", L"outer");
  try {
    QuietScope const inner(L"B", L"inner");
    throw std::runtime_error("leave");
  } catch (std::runtime_error const&) {
    logError(L"E", L"e");
  }
  EXPECT_EQ(recorder.records(),
            Records({errorRecord(L"E", L"Error trace:"), errorRecord(L"A", L" [outer]->"),
                     errorRecord(L"E", L"  e")}));
}

TEST(TraceTest, ClosingUncoversTheScopeOpenedBefore) {
  LogRecorder const recorder;
  auto outer = std::make_unique<QuietScope>(L"A", L"outer");
  auto middle = std::make_unique<QuietScope>(L"B", L"middle");
  auto inner = std::make_unique<QuietScope>(L"C", L"inner");
  middle.reset();  // whether it is the top is not checked
  EXPECT_EQ(top(), outer.get());
  getThreadTraceStack()->top = outer.get();
  inner.reset();
  getThreadTraceStack()->top = outer.get();
  outer.reset();
  EXPECT_EQ(top(), nullptr);
}

TEST(TraceTest, ScopeDeletedThroughItsBaseIsDestroyedWhole) {
  class Counted : public QuietScope {
  public:
    explicit Counted(int& destroyed) : QuietScope(L"A", L"a"), destroyed_(&destroyed) {}

    Counted(Counted const&) = delete;
    Counted& operator=(Counted const&) = delete;

    ~Counted() override { ++*destroyed_; }

  private:
    int* destroyed_;
  };

  LogRecorder const recorder;
  int destroyed = 0;
  std::unique_ptr<ATrace> scope = std::make_unique<Counted>(destroyed);
  scope.reset();
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(top(), nullptr);
}

TEST(TraceTest, DestroyedStackDeletesItsScopesInnermostFirst) {
  class Named : public QuietScope {
  public:
    Named(wchar_t const* name, std::vector<std::wstring>& gone)
        : QuietScope(L"A", name), name_(name), gone_(&gone) {}

    Named(Named const&) = delete;
    Named& operator=(Named const&) = delete;

    ~Named() override { gone_->push_back(name_); }

  private:
    std::wstring name_;
    std::vector<std::wstring>* gone_;
  };

  LogRecorder const recorder;
  std::vector<std::wstring> gone;
  {
    ATraceStack stack;
    EXPECT_EQ(stack.top, nullptr);
    new Named(L"outer", gone);
    new Named(L"middle", gone);
    new Named(L"inner", gone);
    stack.top = std::exchange(getThreadTraceStack()->top, nullptr);
    EXPECT_TRUE(gone.empty());
  }
  EXPECT_EQ(gone, (std::vector<std::wstring>{L"inner", L"middle", L"outer"}));
  EXPECT_EQ(top(), nullptr);
}

// --- Depth ------------------------------------------------------------------------------

TEST(TraceTest, DepthIsBoundedByMemoryAlone) {
  constexpr std::size_t kDepth = 100000;
  LogRecorder recorder;
  std::vector<std::unique_ptr<QuietScope>> scopes;
  scopes.reserve(kDepth);
  for (std::size_t depth = 0; depth < kDepth; ++depth) {
    scopes.push_back(std::make_unique<QuietScope>(L"Deep", std::to_wstring(depth).c_str()));
  }
  logError(L"E", L"e");
  while (!scopes.empty()) scopes.pop_back();
  EXPECT_EQ(top(), nullptr);

  Records expected = {errorRecord(L"E", L"Error trace:")};
  for (std::size_t depth = 0; depth < kDepth; ++depth) {
    expected.push_back(errorRecord(L"Deep", L" [" + std::to_wstring(depth) + L"]->"));
  }
  expected.push_back(errorRecord(L"E", L"  e"));
  EXPECT_TRUE(recorder.records() == expected);  // too many to print
}

// --- Threads ------------------------------------------------------------------------------

TEST(TraceTest, ThreadSeesItsOwnScopesOnly) {
  LogRecorder recorder;
  QuietScope const outer(L"Main", L"of the main thread");
  std::thread([] {
    QuietScope const scope(L"Other", L"of the other thread");
    logError(L"E", L"other");
  }).join();
  logError(L"E", L"main");
  EXPECT_EQ(
      recorder.records(),
      Records({errorRecord(L"E", L"Error trace:"),
               errorRecord(L"Other", L" [of the other thread]->"), errorRecord(L"E", L"  other"),
               errorRecord(L"E", L"Error trace:"), errorRecord(L"Main", L" [of the main thread]->"),
               errorRecord(L"E", L"  main")}));
}

}  // namespace
}  // namespace vrxutil::test

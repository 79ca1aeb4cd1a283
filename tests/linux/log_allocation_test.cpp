// What logging and tracing take from the free store, seen by an operator new of
// this program's own.

#include "tests/linux/key_rounds.h"
#include "tests/support/log_recorder.h"

#include <vrxutil/log.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include <pthread.h>

namespace {

// Blocks taken by this thread so far.
constinit thread_local unsigned long blocksTaken = 0;

// How many blocks this thread still gets before the free store says once that it
// has none; below zero, it never does.
constinit thread_local long blocksBeforeFailure = -1;

// Bytes taken and not given back, by all threads.
constinit std::atomic<long> bytesInUse = 0;

// The size of a block stands at the start of the space before it.
std::size_t spaceBefore(std::size_t alignment) {
  return std::max(alignment, alignof(std::max_align_t));
}

void* take(std::size_t size, std::size_t alignment) noexcept {
  if (blocksBeforeFailure >= 0 && blocksBeforeFailure-- == 0) return nullptr;
  std::size_t const space = spaceBefore(alignment);
  std::size_t const whole = (size + 2 * space - 1) / space * space;
  void* const memory = std::aligned_alloc(space, whole);
  if (memory == nullptr) return nullptr;
  ++blocksTaken;
  bytesInUse += static_cast<long>(size);
  ::new (memory) std::size_t(size);
  return static_cast<std::byte*>(memory) + space;
}

void* takeOrThrow(std::size_t size, std::size_t alignment) {
  void* const block = take(size, alignment);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

void giveBack(void* block, std::size_t alignment) noexcept {
  if (block == nullptr) return;
  void* const memory = static_cast<std::byte*>(block) - spaceBefore(alignment);
  bytesInUse -= static_cast<long>(*static_cast<std::size_t*>(memory));
  std::free(memory);
}

constexpr std::size_t kUsual = __STDCPP_DEFAULT_NEW_ALIGNMENT__;

std::size_t number(std::align_val_t alignment) { return static_cast<std::size_t>(alignment); }

}  // namespace

void* operator new(std::size_t size) { return takeOrThrow(size, kUsual); }

void* operator new[](std::size_t size) { return takeOrThrow(size, kUsual); }

void* operator new(std::size_t size, std::nothrow_t const&) noexcept { return take(size, kUsual); }

void* operator new[](std::size_t size, std::nothrow_t const&) noexcept {
  return take(size, kUsual);
}

void* operator new(std::size_t size, std::align_val_t alignment) {
  return takeOrThrow(size, number(alignment));
}

void* operator new[](std::size_t size, std::align_val_t alignment) {
  return takeOrThrow(size, number(alignment));
}

void* operator new(std::size_t size, std::align_val_t alignment, std::nothrow_t const&) noexcept {
  return take(size, number(alignment));
}

void* operator new[](std::size_t size, std::align_val_t alignment, std::nothrow_t const&) noexcept {
  return take(size, number(alignment));
}

void operator delete(void* block) noexcept { giveBack(block, kUsual); }

void operator delete[](void* block) noexcept { giveBack(block, kUsual); }

void operator delete(void* block, std::size_t) noexcept { giveBack(block, kUsual); }

void operator delete[](void* block, std::size_t) noexcept { giveBack(block, kUsual); }

void operator delete(void* block, std::nothrow_t const&) noexcept { giveBack(block, kUsual); }

void operator delete[](void* block, std::nothrow_t const&) noexcept { giveBack(block, kUsual); }

void operator delete(void* block, std::align_val_t alignment) noexcept {
  giveBack(block, number(alignment));
}

void operator delete[](void* block, std::align_val_t alignment) noexcept {
  giveBack(block, number(alignment));
}

void operator delete(void* block, std::size_t, std::align_val_t alignment) noexcept {
  giveBack(block, number(alignment));
}

void operator delete[](void* block, std::size_t, std::align_val_t alignment) noexcept {
  giveBack(block, number(alignment));
}

void operator delete(void* block, std::align_val_t alignment, std::nothrow_t const&) noexcept {
  giveBack(block, number(alignment));
}

void operator delete[](void* block, std::align_val_t alignment, std::nothrow_t const&) noexcept {
  giveBack(block, number(alignment));
}

namespace vrxutil::test {
namespace {

using vornix_com::oxa::logger::ILogger;
using vornix_com::oxa::logger::LogLevel;

using Records = std::vector<LogRecord>;

// Drops every record; the logger in use for as long as it lives.
class DroppingLogger final : public ILogger {
public:
  DroppingLogger() : before_(SetLogger(this)) {}

  ~DroppingLogger() override { SetLogger(before_); }

  DroppingLogger(DroppingLogger const&) = delete;
  DroppingLogger& operator=(DroppingLogger const&) = delete;

  void start() override {}

  void attach(std::wstring const&) override {}

  void setMinLogLevel(LogLevel const&) override {}

  bool isDetailLoggingEnabled() override { return false; }

  void logMessage(LogLevel const&, std::wstring const&, std::wstring const&) override {}

private:
  ILogger* before_;
};

constexpr wchar_t kGroup[] = L"sixteen letters.";
constexpr wchar_t kMessage[] = L"a message of sixty-four characters, counted by the static_assert";
constexpr wchar_t kOtherMessage[] =
    L"another message of sixty-four letters, for a scope to change to.";

static_assert(std::size(kGroup) == 16 + 1);
static_assert(std::size(kMessage) == 64 + 1);
static_assert(std::size(kOtherMessage) == 64 + 1);

template <class Scope>
void nestTenDeep() {
  std::array<std::optional<Scope>, 10> scopes;
  for (std::optional<Scope>& scope : scopes) scope.emplace(kGroup, kMessage);
  // NOLINTNEXTLINE(modernize-loop-convert): clang 14 has no reverse view
  for (auto scope = scopes.rbegin(); scope != scopes.rend(); ++scope) scope->reset();
}

struct Operation {
  char const* name;
  void (*run)();
};

// The operations that write detail records alone, which the built-in logger drops.
constexpr Operation kDetailOperations[] = {
    {"logDetail", [] { logDetail(kGroup, kMessage); }},
    {"logResult", [] { logResult(kGroup, kMessage); }},
    {"logMessage", [] { logMessage(LogLevel::detail, kGroup, kMessage); }},
    {"ADetailTrace", [] { ADetailTrace const scope(kGroup, kMessage); }},
    {"ADetailTrace, set and logged",
     [] {
       ADetailTrace scope(kGroup, kMessage);
       scope.set(kOtherMessage, /*logNow=*/true);
       scope.log();
     }},
    {"ADetailTrace, ten deep", nestTenDeep<ADetailTrace>},
    {"ATrace with nothing", [] { ATrace const scope; }},
    {"short texts", [] { ADetailTrace const scope(L"a", L""); }},
};

constexpr Operation kOtherOperations[] = {
    {"logInfo", [] { logInfo(kGroup, kMessage); }},
    {"logErrorNoStack", [] { logErrorNoStack(kGroup, kMessage); }},
    {"logInternalError", [] { logInternalError(kGroup, kMessage); }},
    {"logError", [] { logError(kGroup, kMessage); }},
    {"logErrno",
     [] {
       errno = ENOENT;
       logErrno(kGroup);
     }},
    {"AnInfoTrace", [] { AnInfoTrace const scope(kGroup, kMessage); }},
    {"AnInfoTrace, set and logged",
     [] {
       AnInfoTrace scope(kGroup, kMessage);
       scope.set(kOtherMessage, /*logNow=*/true);
       scope.log();
     }},
    {"AnInfoTrace, ten deep", nestTenDeep<AnInfoTrace>},
    {"logError in a scope",
     [] {
       AnInfoTrace const scope(kGroup, kMessage);
       logError(kGroup, kMessage);
     }},
};

// Blocks that a hundred runs take once some have gone before.
unsigned long blocksTakenBy(Operation const& operation) {
  for (int run = 0; run < 5; ++run) operation.run();
  unsigned long const before = blocksTaken;
  for (int run = 0; run < 100; ++run) operation.run();
  return blocksTaken - before;
}

TEST(LogAllocationTest, CountingSeesAllocations) {
  constexpr Operation kAllocates = {"", [] { ::operator delete(::operator new(1)); }};
  EXPECT_EQ(blocksTakenBy(kAllocates), 100U);
}

TEST(LogAllocationTest, NothingIsAllocatedForRecordsThatTheLoggerDrops) {
  DroppingLogger const logger;
  for (auto const& operations : {std::span<Operation const>(kDetailOperations),
                                 std::span<Operation const>(kOtherOperations)}) {
    for (Operation const& operation : operations) {
      EXPECT_EQ(blocksTakenBy(operation), 0U) << operation.name;
    }
  }
}

TEST(LogAllocationTest, NothingIsAllocatedOnOtherThreadsEither) {
  DroppingLogger const logger;
  std::thread([] {
    for (Operation const& operation : kDetailOperations) {
      EXPECT_EQ(blocksTakenBy(operation), 0U) << operation.name;
    }
  }).join();
}

TEST(LogAllocationTest, NothingIsAllocatedForDetailsThatTheBuiltInLoggerDrops) {
  LogRecorder const restoresTheLogger;
  ILogger::SetLogger(nullptr);
  setLogLevelDetailed(false);
  for (Operation const& operation : kDetailOperations) {
    EXPECT_EQ(blocksTakenBy(operation), 0U) << operation.name;
  }
}

TEST(LogAllocationTest, NothingIsAllocatedForShortTextsAfterLongOnes) {
  DroppingLogger const logger;
  std::wstring const longText(100000, L'l');
  { ADetailTrace const scope(longText.c_str(), longText.c_str()); }
  logResult(longText.c_str(), longText.c_str());
  for (Operation const& operation : kDetailOperations) {
    EXPECT_EQ(blocksTakenBy(operation), 0U) << operation.name;
  }
}

TEST(LogAllocationTest, NothingIsAllocatedForAnErrorInSixtyFourScopes) {
  DroppingLogger const logger;
  std::array<std::optional<ADetailTrace>, 64> scopes;
  for (auto& scope : scopes) scope.emplace(kGroup, kMessage);
  EXPECT_EQ(blocksTakenBy({"", [] { logError(kGroup, kMessage); }}), 0U);
  // NOLINTNEXTLINE(modernize-loop-convert): clang 14 has no reverse view
  for (auto scope = scopes.rbegin(); scope != scopes.rend(); ++scope) scope->reset();
}

TEST(LogAllocationTest, TextsOfEveryLengthAreRightWhenMemoryIsUsedAgain) {
  LogRecorder recorder;
  for (std::size_t const length : {0U,  15U,  16U,  17U,  63U,   64U,     65U, 66U, 79U, 80U,
                                   81U, 127U, 128U, 129U, 1000U, 100000U, 5U,  64U, 70U, 0U}) {
    SCOPED_TRACE(length);
    std::wstring const group(length, L'g');
    std::wstring const message(length, L'm');
    std::wstring const later(length + 1, L'n');
    recorder.clear();
    {
      ADetailTrace scope(group.c_str(), message.c_str());
      scope.set(later.c_str(), /*logNow=*/true);
      logResult(group.c_str(), message.c_str());
      logInternalError(group.c_str(), message.c_str());
      logError(group.c_str(), message.c_str());
    }
    EXPECT_TRUE(
        recorder.records() ==
        Records({detailRecord(group, message), detailRecord(group, later),
                 detailRecord(group, L"=" + message),
                 errorRecord(group, L"internal error: " + message),
                 errorRecord(group, L"Error trace:"), errorRecord(group, L" [" + later + L"]->"),
                 errorRecord(group, L"  " + message)}));
  }
}

// --- Lack of memory -------------------------------------------------------------------------

// Runs the operation as the first thing that its thread logs, with a free store
// that fails after `blocks` more; whether it was told.
bool isTold(Operation const& operation, long blocks) {
  bool told = false;
  std::thread([&] {
    blocksBeforeFailure = blocks;
    try {
      operation.run();
    } catch (std::bad_alloc const&) {
      told = true;
    }
    bool const hasFailed = blocksBeforeFailure < 0;
    blocksBeforeFailure = -1;
    EXPECT_TRUE(hasFailed || !told);
    operation.run();
    EXPECT_EQ(getThreadTraceStack()->top, nullptr);
  }).join();
  return told;
}

TEST(LogAllocationTest, LackOfMemoryIsToldAndLeavesNothingBehind) {
  DroppingLogger const logger;
  for (auto const& operations : {std::span<Operation const>(kDetailOperations),
                                 std::span<Operation const>(kOtherOperations)}) {
    for (Operation const& operation : operations) {
      EXPECT_TRUE(isTold(operation, 0)) << operation.name;
      long const before = bytesInUse;
      for (long blocks = 0; blocks < 40; ++blocks) isTold(operation, blocks);
      EXPECT_EQ(bytesInUse, before) << operation.name;
    }
  }
}

// --- What stays allocated -----------------------------------------------------------------

constexpr long kSmall = 256L * 1024;

std::wstring const& mebibyte() {
  static std::wstring const text(1024 * 1024 / sizeof(wchar_t), L'M');
  return text;
}

// What a few runs of the operation add to the bytes in use.
long growthBy(void (*run)()) {
  mebibyte();
  { ADetailTrace const warmUp(kGroup, kMessage); }
  logResult(kGroup, kMessage);
  long const before = bytesInUse;
  for (int count = 0; count < 10; ++count) run();
  return bytesInUse - before;
}

template <int kDepth>
void nest(wchar_t const* message) {
  std::vector<std::unique_ptr<ATrace>> scopes;
  for (int depth = 0; depth < kDepth; ++depth) {
    scopes.push_back(std::make_unique<AnInfoTrace>(message, message));
    scopes.back()->set(message, /*logNow=*/true);
  }
  while (!scopes.empty()) scopes.pop_back();
}

TEST(LogAllocationTest, LongTextsAreGivenBack) {
  constexpr Operation kOperations[] = {
      {"one scope", [] { nest<1>(mebibyte().c_str()); }},
      {"twenty scopes", [] { nest<20>(mebibyte().c_str()); }},
      {"set", [] { ADetailTrace(L"G", L"m").set(mebibyte().c_str(), /*logNow=*/true); }},
      {"logDetail", [] { logDetail(mebibyte().c_str(), mebibyte().c_str()); }},
      {"logInfo", [] { logInfo(mebibyte().c_str(), mebibyte().c_str()); }},
      {"logResult", [] { logResult(mebibyte().c_str(), mebibyte().c_str()); }},
      {"logErrorNoStack", [] { logErrorNoStack(mebibyte().c_str(), mebibyte().c_str()); }},
      {"logInternalError", [] { logInternalError(mebibyte().c_str(), mebibyte().c_str()); }},
      {"logError in a scope",
       [] {
         AnInfoTrace const scope(mebibyte().c_str(), mebibyte().c_str());
         logError(mebibyte().c_str(), mebibyte().c_str());
       }},
  };
  DroppingLogger const logger;
  for (Operation const& operation : kOperations) {
    EXPECT_LT(growthBy(operation.run), kSmall) << operation.name;
  }
}

TEST(LogAllocationTest, ManyScopesAreGivenBack) {
  DroppingLogger const logger;
  EXPECT_LT(growthBy([] { nest<10000>(kMessage); }), kSmall);
}

pthread_key_t lastRecordsKey;

// Logs in each round of the destructors of a thread's keys; `left` counts them.
void logLastRecord(void* left) {
  logResult(kGroup, kMessage);
  if (--*static_cast<int*>(left) > 0) pthread_setspecific(lastRecordsKey, left);
}

TEST(LogAllocationTest, EndedThreadsLeaveNothing) {
  constexpr Operation kThreadBodies[] = {
      {"nests and logs",
       [] {
         nest<20>(kMessage);
         logResult(kGroup, kMessage);
         logError(kGroup, kMessage);
       }},
      {"logs an error only", [] { logError(kGroup, kMessage); }},
      {"logs and leaves a scope", [] { new ADetailTrace(kGroup, kMessage); }},
      {"logs to the end of its keys",
       [] {
         static thread_local constinit int rounds = kKeyRounds;
         pthread_setspecific(lastRecordsKey, &rounds);
       }},
      {"leaves a scope that logs nothing",
       [] { new ATrace(kGroup, kMessage, /*detail=*/true, /*logNow=*/false); }},
  };
  ASSERT_EQ(pthread_key_create(&lastRecordsKey, logLastRecord), 0);
  DroppingLogger const logger;
  for (Operation const& body : kThreadBodies) {
    auto const runThreads = [&](int count) {
      for (int thread = 0; thread < count; ++thread) std::thread(body.run).join();
    };
    runThreads(10);
    long const before = bytesInUse;
    runThreads(100);
    EXPECT_EQ(bytesInUse, before) << body.name;
  }
  pthread_key_delete(lastRecordsKey);
}

}  // namespace
}  // namespace vrxutil::test

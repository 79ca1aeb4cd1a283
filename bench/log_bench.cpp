// What a record costs that nobody wants to see, a scope around it, and an error
// with its trace. spdlog's own way to drop a record is there for orientation: it
// gets a narrow message and copies nothing.

#include "bench/allocations.h"
#include "bench/data_folder.h"

#include <vrxcomn/logger.h>
#include <vrxutil/log.h>

#include <benchmark/benchmark.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/null_sink.h>

#include <memory>
#include <string>

namespace vrxutil::bench {
namespace {

using vornix_com::oxa::logger::ILogger;
using vornix_com::oxa::logger::LogLevel;

constexpr wchar_t kGroup[] = L"Xml";
constexpr wchar_t kMessage[] = L"useExistingFile,/etc/agent.xml";
constexpr char kNarrowMessage[] = "useExistingFile,/etc/agent.xml";
static_assert(std::size(kMessage) == 30 + 1);

/// The logger in use for as long as it lives: takes every record and keeps none.
class CountingLogger final : public ILogger {
public:
  CountingLogger() : before_(SetLogger(this)) {}

  ~CountingLogger() override { SetLogger(before_); }

  CountingLogger(CountingLogger const&) = delete;
  CountingLogger& operator=(CountingLogger const&) = delete;

  void start() override {}

  void attach(std::wstring const& /*name*/) override {}

  void setMinLogLevel(LogLevel const& /*level*/) override {}

  bool isDetailLoggingEnabled() override { return true; }

  void logMessage(LogLevel const& /*level*/, std::wstring const& /*group*/,
                  std::wstring const& message) override {
    ++records_;
    benchmark::DoNotOptimize(message.data());
  }

  long records() const { return records_; }

private:
  ILogger* before_;
  long records_ = 0;
};

/// The built-in logger drops detail records, as it does until it is told else.
void BM_DroppedDetailRecord(benchmark::State& state) {
  logDetail(kGroup, kMessage);
  AllocationCount const allocations(state);
  for (auto _ : state) logDetail(kGroup, kMessage);
}

BENCHMARK(BM_DroppedDetailRecord);

/// The part of the logger service in that: the texts are strings already.
void BM_DroppedByServiceAlone(benchmark::State& state) {
  std::wstring const group = kGroup;
  std::wstring const message = kMessage;
  AllocationCount const allocations(state);
  for (auto _ : state) ILogger::GetLogger()->logMessage(LogLevel::detail, group, message);
}

BENCHMARK(BM_DroppedByServiceAlone);

void BM_SpdlogDroppedRecord(benchmark::State& state) {
  spdlog::logger logger("bench", std::make_shared<spdlog::sinks::null_sink_mt>());
  logger.set_level(spdlog::level::info);
  AllocationCount const allocations(state);
  for (auto _ : state) logger.debug(kNarrowMessage);
}

BENCHMARK(BM_SpdlogDroppedRecord);

void BM_DetailScope(benchmark::State& state) {
  { ADetailTrace const warmUp(kGroup, kMessage); }
  AllocationCount const allocations(state);
  for (auto _ : state) {
    ADetailTrace const scope(kGroup, kMessage);
    benchmark::DoNotOptimize(&scope);
  }
}

BENCHMARK(BM_DetailScope);

void openThreeScopes() {
  ADetailTrace const outer(L"Log", L"Main thread");
  ADetailTrace const middle(kGroup, kMessage);
  ADetailTrace const inner(L"File", L"fopen,/etc/agent.xml,r");
  benchmark::DoNotOptimize(&inner);
}

void BM_ThreeNestedScopes(benchmark::State& state) {
  openThreeScopes();
  AllocationCount const allocations(state);
  for (auto _ : state) openThreeScopes();
}

BENCHMARK(BM_ThreeNestedScopes);

/// Five records: the heading, a line a scope, the message.
void BM_ErrorInThreeScopes(benchmark::State& state) {
  CountingLogger logger;
  ADetailTrace const outer(L"Log", L"Main thread");
  ADetailTrace const middle(kGroup, kMessage);
  ADetailTrace const inner(L"File", L"fopen,/etc/agent.xml,r");
  logError(L"File", L"No such file or directory");
  long const before = logger.records();
  {
    AllocationCount const allocations(state);
    for (auto _ : state) logError(L"File", L"No such file or directory");
  }
  auto const records = static_cast<double>(logger.records() - before);
  state.counters["records"] = benchmark::Counter(records, benchmark::Counter::kAvgIterations);
}

BENCHMARK(BM_ErrorInThreeScopes);

/// A record that is kept, in the log file.
void BM_InfoRecordToFile(benchmark::State& state) {
  DataFolder::instance();
  static bool isAttached = false;
  if (!isAttached) setupLog(L"bench", nullptr, /*third=*/false, /*alreadyAttached=*/false);
  isAttached = true;
  logInfo(kGroup, kMessage);
  AllocationCount const allocations(state);
  for (auto _ : state) logInfo(kGroup, kMessage);
}

BENCHMARK(BM_InfoRecordToFile);

/// Each line of the log file is written when the call returns: so it is here.
void BM_SpdlogRecordToFile(benchmark::State& state) {
  auto const path = DataFolder::instance() / "spdlog.log";
  spdlog::logger logger("bench", std::make_shared<spdlog::sinks::basic_file_sink_mt>(path));
  logger.flush_on(spdlog::level::info);
  AllocationCount const allocations(state);
  for (auto _ : state) logger.info(kNarrowMessage);
}

BENCHMARK(BM_SpdlogRecordToFile);

}  // namespace
}  // namespace vrxutil::bench

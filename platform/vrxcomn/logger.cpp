#include "platform/common/file_io.h"
#include "platform/common/utf8.h"
#include "platform/vrxcomn/log_file.h"
#include "platform/vrxcomn/log_line.h"
#include "platform/vrxcomn/service_slot.h"
#include "platform/vrxcomn/undisturbed.h"

#include <vrxcomn/configuration.h>
#include <vrxcomn/logger.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <exception>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include <poll.h>
#include <pthread.h>
#include <time.h>
#include <unistd.h>

namespace vornix_com::oxa::logger {

namespace {

using configuration::IConfiguration;
using vrxutil::detail::LogFile;
using vrxutil::detail::logLine;
using vrxutil::detail::logLineTail;
using vrxutil::detail::Undisturbed;

constexpr int kPatienceInMilliseconds = 100;

bool waitUntilWritable() {
  pollfd waiting{.fd = STDERR_FILENO, .events = POLLOUT, .revents = 0};
  return ::poll(&waiting, 1, kPatienceInMilliseconds) == 1;
}

/// As far as standard error takes it: where it is closed, or the reader of a pipe
/// is gone or, with O_NONBLOCK, asleep, there is nobody left to tell.
void writeToStandardError(std::string_view line) {
  while (!line.empty()) {
    ssize_t const written = ::write(STDERR_FILENO, line.data(), line.size());
    if (written > 0) {
      line.remove_prefix(static_cast<std::size_t>(written));
      continue;
    }
    bool const again = written < 0 && (errno == EINTR || (errno == EAGAIN && waitUntilWritable()));
    if (!again) return;
  }
}

/// A reason as wide text. It names paths and quotes the system, both in the C
/// locale's encoding, or in UTF-8 where that lacks a character of theirs.
std::wstring widen(std::string const& reason) {
  std::wstring text;
  bool const isUtf8 = vrxutil::detail::appendWide(reason, text) == reason.size();
  return isUtf8 ? text : vrxutil::detail::wideMessage(reason);
}

/// The boundary that no exception passes.
template <class Action>
void contain(Action action) noexcept {
  Undisturbed const undisturbed;
  try {
    action();
  } catch (...) {  // out of memory, as a rule
    writeToStandardError("The logger failed; what it was to write is lost.\n");
  }
}

std::string narrowPath(std::wstring const& path) {
  if (auto narrow = vrxutil::detail::narrowFileName(path)) return *narrow;
  throw std::runtime_error("the locale cannot express the path " +
                           vrxutil::detail::lossyUtf8(path));
}

/// The file of the log `name`. Whatever the name, it lies in the folder `log` of
/// the data folder, and is not hidden.
std::string logPath(std::wstring name) {
  std::replace_if(
      name.begin(), name.end(),
      [](wchar_t c) { return c == L'/' || vrxutil::detail::isLogControl(c); }, L'_');
  if (name.empty()) name = L"_";
  if (name.front() == L'.') name.front() = L'_';
  name += L".log";
  std::string const folder =
      narrowPath(IConfiguration::GetConfiguration()->GetFrameworkDataDirectory());
  auto const file = vrxutil::detail::narrowFileName(name);
  // The name is for people: UTF-8 is better than no log.
  return folder + "/log/" + (file ? *file : vrxutil::detail::lossyUtf8(name));
}

/// A mutex that its thread may lock again. std::recursive_mutex would not do: it
/// remembers its owner by a number that is another in a child after fork, which
/// then could not unlock it.
class Lock {
public:
  void lock() {
    if (depth == 0) mutex_.lock();
    ++depth;
  }

  void unlock() {
    --depth;
    if (depth == 0) mutex_.unlock();
  }

  /// Whether the calling thread, which holds the lock, held it already.
  static bool isNested() { return depth > 1; }

private:
  static thread_local constinit int depth;  // nothing to destroy: outlives the thread's objects

  std::mutex mutex_;
};

thread_local constinit int Lock::depth = 0;

class BuiltInLogger final : public ILogger {
public:
  BuiltInLogger() noexcept;

  void start() override;
  void attach(std::wstring const& name) override;
  void setMinLogLevel(LogLevel const& level) override;
  bool isDetailLoggingEnabled() override;
  void logMessage(LogLevel const& level, std::wstring const& group,
                  std::wstring const& message) override;

private:
  using Guard = std::lock_guard<Lock>;

  void switchTo(std::string const& path);
  void fallBack(std::string const& reason);
  void writeRecord(std::string const& tail);
  [[nodiscard]] bool writeToFile(std::string const& line);
  static void warn(std::string const& reason);

  std::atomic<int> minLevel_{static_cast<int>(LogLevel::info)};
  Lock lock_;  // guards all below
  std::optional<LogFile> file_;
  bool isFileFailing_ = false;  // warned already
};

using Slot = vrxutil::detail::ServiceSlot<ILogger, BuiltInLogger>;

std::string lineOfNow(std::string_view tail) {
  return logLine(std::chrono::system_clock::now(), tail);
}

BuiltInLogger::BuiltInLogger() noexcept {
  // A child after fork has only the thread that forked: were the lock held by
  // another one, it would be held for ever. Registering fails for lack of memory
  // only; such a child may then wait for ever, and nothing else can be done.
  ::pthread_atfork([] { Slot::builtIn().lock_.lock(); }, [] { Slot::builtIn().lock_.unlock(); },
                   [] { Slot::builtIn().lock_.unlock(); });
}

/// Records are written through, so that there is nothing to start; but a process
/// that sets itself up again takes over a time zone changed meanwhile.
void BuiltInLogger::start() { ::tzset(); }

void BuiltInLogger::attach(std::wstring const& name) {
  contain([&] {
    try {
      switchTo(logPath(name));  // not under the lock: the configuration in use may log
    } catch (std::exception const& exception) {
      fallBack(exception.what());
    }
  });
}

void BuiltInLogger::setMinLogLevel(LogLevel const& level) {
  minLevel_.store(static_cast<int>(level), std::memory_order_relaxed);
}

bool BuiltInLogger::isDetailLoggingEnabled() {
  return minLevel_.load(std::memory_order_relaxed) <= static_cast<int>(LogLevel::detail);
}

void BuiltInLogger::logMessage(LogLevel const& level, std::wstring const& group,
                               std::wstring const& message) {
  int const number = static_cast<int>(level);
  if (number < minLevel_.load(std::memory_order_relaxed)) return;
  contain([&] { writeRecord(logLineTail(number, group, message)); });
}

void BuiltInLogger::switchTo(std::string const& path) {
  Guard const guard(lock_);
  if (Lock::isNested()) return;  // the file is in use further up this thread's stack
  file_.emplace(path);
  auto const problem = file_->open();
  isFileFailing_ = problem.has_value();
  if (problem) warn(*problem);
}

/// To standard error, for lack of a path.
void BuiltInLogger::fallBack(std::string const& reason) {
  Guard const guard(lock_);
  if (Lock::isNested()) return;
  file_.reset();
  warn(reason);
}

void BuiltInLogger::writeRecord(std::string const& tail) {
  Guard const guard(lock_);  // before the time is taken: the times in a file ascend
  std::string const line = lineOfNow(tail);
  // Nested when memory management or a handler of fork logs, say.
  if (Lock::isNested() || !writeToFile(line)) writeToStandardError(line);
}

/// False when there is no file, or it cannot be written; then it has warned.
bool BuiltInLogger::writeToFile(std::string const& line) {
  if (!file_) return false;
  auto problem = file_->write(line);
  if (problem && !isFileFailing_) {
    warn(*problem);
    problem = file_->write(line);  // what failed may have been the rotation alone
  }
  isFileFailing_ = problem.has_value();
  return !isFileFailing_;
}

/// Says why, on standard error.
void BuiltInLogger::warn(std::string const& reason) {
  std::wstring const text =
      widen(reason) + L"; records go to standard error while the log cannot be written";
  writeToStandardError(lineOfNow(logLineTail(static_cast<int>(LogLevel::error), L"Log", text)));
}

}  // namespace

ILogger* ILogger::GetLogger() { return Slot::inUse(); }

ILogger* ILogger::SetLogger(ILogger* logger) { return Slot::replace(logger); }

}  // namespace vornix_com::oxa::logger

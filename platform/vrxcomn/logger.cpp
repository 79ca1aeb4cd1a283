#include <vrxcomn/logger.h>

#include "platform/common/file_io.h"
#include "platform/common/utf8.h"
#include "platform/vrxcomn/log_file.h"
#include "platform/vrxcomn/log_line.h"
#include "platform/vrxcomn/service_slot.h"
#include "platform/vrxcomn/undisturbed.h"

#include <vrxcomn/configuration.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <exception>
#include <mutex>
#include <optional>
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
using vrxutil::detail::logLineHead;
using vrxutil::detail::logLineTail;
using vrxutil::detail::Undisturbed;

constexpr int kPatienceInMilliseconds = 100;

bool waitUntilWritable(int fd) {
  pollfd waiting{.fd = fd, .events = POLLOUT, .revents = 0};
  return ::poll(&waiting, 1, kPatienceInMilliseconds) == 1;
}

/// As far as standard error takes it: where it is closed, or the reader of a pipe
/// is gone or, with O_NONBLOCK, asleep, there is nobody left to tell.
void writeToStandardError(std::string_view line) {
  while (!line.empty()) {
    ssize_t const written = ::write(STDERR_FILENO, line.data(), line.size());
    if (written > 0) {
      line.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN) {
      if (!waitUntilWritable(STDERR_FILENO)) return;
    } else if (errno != EINTR) {
      return;
    }
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

  void openFile(std::string const& path);
  void writeRecord(std::string const& tail);
  [[nodiscard]] bool writeToFile(std::string const& line);
  void warn(std::string const& reason);

  std::atomic<int> minLevel_{static_cast<int>(LogLevel::info)};
  Lock lock_;  // guards all below
  std::optional<LogFile> file_;
  bool isFileFailing_ = false;  // warned already
};

using Slot = vrxutil::detail::ServiceSlot<ILogger, BuiltInLogger>;

// Log records as a test sees them.

#pragma once

#include <vrxcomn/logger.h>

#include <mutex>
#include <ostream>
#include <string>
#include <vector>

namespace vrxutil::test {

/// One record that reached the logger.
struct LogRecord {
  vornix_com::oxa::logger::LogLevel level;
  std::wstring group;
  std::wstring message;

  bool operator==(LogRecord const&) const = default;
};

using Records = std::vector<LogRecord>;

inline LogRecord detailRecord(std::wstring group, std::wstring message) {
  return {vornix_com::oxa::logger::LogLevel::detail, std::move(group), std::move(message)};
}

inline LogRecord infoRecord(std::wstring group, std::wstring message) {
  return {vornix_com::oxa::logger::LogLevel::info, std::move(group), std::move(message)};
}

inline LogRecord errorRecord(std::wstring group, std::wstring message) {
  return {vornix_com::oxa::logger::LogLevel::error, std::move(group), std::move(message)};
}

/// For failure messages of GoogleTest.
void PrintTo(LogRecord const& record, std::ostream* out);

/// The logger in use from construction to destruction: keeps every record of
/// every thread, whatever its level.
class LogRecorder final : public vornix_com::oxa::logger::ILogger {
public:
  LogRecorder() : before_(SetLogger(this)) {}

  ~LogRecorder() override { SetLogger(before_); }

  void start() override;
  void attach(std::wstring const& name) override;
  void setMinLogLevel(vornix_com::oxa::logger::LogLevel const& level) override;
  bool isDetailLoggingEnabled() override;
  void logMessage(vornix_com::oxa::logger::LogLevel const& level, std::wstring const& group,
                  std::wstring const& message) override;

  /// All records since the last clear(), in order.
  Records records() const;

  /// Those at level error alone.
  Records errors() const;

  /// The errors without the lines of the trace: an error logged by logError()
  /// counts as one record, its message without the indent.
  Records plainErrors() const;

  void clear();

  /// The set-up calls in order: L"attach NAME", L"start", L"level N".
  std::vector<std::wstring> setupCalls() const;

  /// What isDetailLoggingEnabled() answers.
  void answerDetailEnabled(bool enabled);

private:
  vornix_com::oxa::logger::ILogger* before_;
  mutable std::mutex mutex_;
  Records records_;
  std::vector<std::wstring> setupCalls_;
  bool detailEnabled_ = false;
};

}  // namespace vrxutil::test

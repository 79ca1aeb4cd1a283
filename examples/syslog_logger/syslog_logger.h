// A logger that sends records to the host's syslog (POSIX syslog) in place of the
// library's own log files.
//
// A record goes as "[GROUP] MESSAGE" in UTF-8, to the facility daemon. A level below info
// has the priority debug, below error info, all others err. Control characters, line
// separators and backslashes are escaped ("\n", "\x1b", "\u2028", "\\"), so that no message
// can forge a second record. What is longer than 900 bytes is split between characters:
// receivers may cut a datagram at 1,024 bytes (RFC 3164). All parts but the first begin
// with "... "; those of several threads may come mixed.
//
// A host without a syslog daemon loses the records; one that is slow is waited for.

#pragma once

#include <vrxcomn/logger.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

namespace syslog_logger {

/// Put it in use by ILogger::SetLogger, which does not own it. A process has one
/// connection to syslog, hence at most one such object at a time. All operations may be
/// called from any thread at once.
class SyslogLogger final : public vornix_com::oxa::logger::ILogger {
public:
  using LogLevel = vornix_com::oxa::logger::LogLevel;

  /// `options` are those of openlog(), LOG_PERROR for a copy on standard error.
  explicit SyslogLogger(int options);

  /// It must be in use no more, and no call be running in it.
  ~SyslogLogger() override;

  SyslogLogger(SyslogLogger const&) = delete;
  SyslogLogger& operator=(SyslogLogger const&) = delete;

  /// Does nothing: the first record connects.
  void start() override;

  /// Records have the tag `name` from now on; until then, the program's own name.
  void attach(std::wstring const& name) override;

  void setMinLogLevel(LogLevel const& level) override;
  bool isDetailLoggingEnabled() override;
  void logMessage(LogLevel const& level, std::wstring const& group,
                  std::wstring const& message) override;

private:
  std::atomic<int> minLevel_{static_cast<int>(LogLevel::info)};
  int options_;
  std::mutex mutex_;                   // for attach()
  std::unique_ptr<std::string> name_;  // openlog() keeps its address
};

}  // namespace syslog_logger

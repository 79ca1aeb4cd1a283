// The agent's logger service: one object a process takes every log record.
//
// The built-in logger works with nothing configured. Its minimum level starts
// at info. Before attach() its records go to standard error; after it, to
// NAME.log in the folder `log` of the framework data folder (configuration.h),
// rotated by size. A folder that cannot be written falls back to standard error
// with one warning. One record is one line of UTF-8: time with zone, process and
// thread, level, group, message; control characters are escaped, so that no
// message can forge a second record. An error record is flushed at once.
//
// A process may put its own logger in the built-in one's place; see SetLogger.

#pragma once

#include <vrxcomn/export.h>

#include <string>

namespace vornix_com::oxa::logger {

/// How much a record matters. Any number may be passed; these are in use.
enum class LogLevel : int { detail = 0, info = 1, error = 4 };

/// A process-wide sink of log records. Every operation may be called from any
/// thread, at any time between the process's start and its end: also while a
/// thread or the process ends, and from inside a call of the logger itself.
class VRXCOMN_EXPORT ILogger {
public:
  /// Makes the logger ready to write; called once by each set-up of logging.
  virtual void start() = 0;

  /// Connects the process to the log called `name`. The built-in logger takes "_"
  /// for each "/" and control character, and for a "." at the start.
  virtual void attach(std::wstring const& name) = 0;

  /// Records below `level` are dropped from now on.
  virtual void setMinLogLevel(LogLevel const& level) = 0;

  /// Whether detail records are kept.
  virtual bool isDetailLoggingEnabled() = 0;

  /// Writes one record, unless its level is below the minimum.
  virtual void logMessage(LogLevel const& level, std::wstring const& group,
                          std::wstring const& message) = 0;

  virtual ~ILogger() = default;

  /// The logger in use; never null.
  static ILogger* GetLogger();

  /// Puts `logger` in use and returns the one in use before. Null brings the
  /// built-in logger back. The caller keeps `logger`, which must live until it
  /// is replaced and no call is running in it. Safe from any thread.
  static ILogger* SetLogger(ILogger* logger);

protected:
  /// For derived classes alone.
  ///@{
  ILogger() = default;
  ILogger(ILogger const&) = default;
  ILogger& operator=(ILogger const&) = default;
  ///@}
};

}  // namespace vornix_com::oxa::logger

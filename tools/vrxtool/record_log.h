// The tool's own logger: keeps the library's errors, from which a failure's reason is
// taken, and shows every record where `--trace` asks for it.

#pragma once

#include <vrxcomn/logger.h>

#include <mutex>
#include <string>
#include <vector>

namespace vrxtool {

/// The process's logger as long as it lives.
class RecordLog final : public vornix_com::oxa::logger::ILogger {
public:
  RecordLog() : before_(SetLogger(this)) {}

  ~RecordLog() override { SetLogger(before_); }

  RecordLog(RecordLog const&) = delete;
  RecordLog& operator=(RecordLog const&) = delete;

  /// From now on every record is a line "LEVEL [GROUP] MESSAGE" on standard error.
  void showAll();

  /// Forgets the errors so far.
  void clear();

  /// The errors since the last clear(), in UTF-8: without the lines of traces, indents
  /// and the mark of internal errors.
  std::vector<std::string> errors() const;

  /// The last of them, or `otherwise` where there is none.
  std::string reason(std::string const& otherwise) const;

  void start() override {}

  void attach(std::wstring const& /*name*/) override {}

  void setMinLogLevel(vornix_com::oxa::logger::LogLevel const& /*level*/) override {}

  bool isDetailLoggingEnabled() override;
  void logMessage(vornix_com::oxa::logger::LogLevel const& level, std::wstring const& group,
                  std::wstring const& message) override;

private:
  ILogger* before_;
  mutable std::mutex mutex_;
  std::vector<std::string> errors_;
  bool showsAll_ = false;
};

}  // namespace vrxtool

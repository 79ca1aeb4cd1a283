// What the fuzz targets share: how they complain, and a logger that keeps quiet.

#pragma once

#include <vrxcomn/logger.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace vrxutil::fuzz {

/// Ends the process, which the fuzzer takes for a finding, unless `holds`.
inline void require(bool holds, char const* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

/// The logger in use for as long as it lives: counts errors and writes nothing.
class QuietLogger final : public vornix_com::oxa::logger::ILogger {
public:
  QuietLogger() : before_(SetLogger(this)) {}

  ~QuietLogger() override { SetLogger(before_); }

  QuietLogger(QuietLogger const&) = delete;
  QuietLogger& operator=(QuietLogger const&) = delete;

  void start() override {}

  void attach(std::wstring const& /*name*/) override {}

  void setMinLogLevel(vornix_com::oxa::logger::LogLevel const& /*level*/) override {}

  bool isDetailLoggingEnabled() override { return true; }

  void logMessage(vornix_com::oxa::logger::LogLevel const& level, std::wstring const& /*group*/,
                  std::wstring const& message) override {
    bool const isHeading = message == L"Error trace:";
    if (level == vornix_com::oxa::logger::LogLevel::error && !isHeading) ++errors_;
  }

  /// Error records, without the headings of error traces, since the start.
  long errors() const { return errors_; }

private:
  ILogger* before_;
  long errors_ = 0;
};

}  // namespace vrxutil::fuzz

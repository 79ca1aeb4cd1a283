// A logger of a test's own, which does with records what LogRecorder does not.

#pragma once

#include <vrxcomn/logger.h>

#include <string>

namespace vrxutil::test {

/// The logger in use from construction to destruction; derived classes say what it
/// does with a record. For tests in which nobody else logs meanwhile.
class OwnLogger : public vornix_com::oxa::logger::ILogger {
public:
  using LogLevel = vornix_com::oxa::logger::LogLevel;

  OwnLogger() : before_(SetLogger(this)) {}

  ~OwnLogger() override { SetLogger(before_); }

  OwnLogger(OwnLogger const&) = delete;
  OwnLogger& operator=(OwnLogger const&) = delete;

  void start() override {}

  void attach(std::wstring const& /*name*/) override {}

  void setMinLogLevel(LogLevel const& /*level*/) override {}

  bool isDetailLoggingEnabled() override { return false; }

private:
  ILogger* before_;
};

}  // namespace vrxutil::test

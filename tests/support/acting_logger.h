// A logger that does something at each message: what a message announces has not been
// done yet, and what it tells of has just been.

#pragma once

#include "tests/support/log_recorder.h"
#include "tests/support/own_logger.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace vrxutil::test {

/// The logger in use from construction to destruction, which gives each message to `act`.
class ActingLogger final : public OwnLogger {
public:
  using Action = std::function<void(std::wstring const&)>;

  explicit ActingLogger(Action action) : act_(std::move(action)) {}

  bool isDetailLoggingEnabled() override { return true; }

  void logMessage(LogLevel const& level, std::wstring const& group,
                  std::wstring const& message) override {
    if (level == LogLevel::error) errors.push_back({level, group, message});
    act_(message);
  }

  std::vector<LogRecord> errors;

private:
  Action act_;
};

}  // namespace vrxutil::test

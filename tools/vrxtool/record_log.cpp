#include "tools/vrxtool/record_log.h"

#include "tools/vrxtool/text.h"

#include <string_view>

#include <unistd.h>

namespace vrxtool {

namespace {

using vornix_com::oxa::logger::LogLevel;
using Lock = std::lock_guard<std::mutex>;

/// A line that logError() writes before the message.
bool isTraceLine(std::wstring_view message) {
  return message == L"Error trace:" || (message.starts_with(L" [") && message.ends_with(L"]->"));
}

/// The message as its writer meant it.
std::wstring_view plain(std::wstring_view message) {
  constexpr std::wstring_view kIndent = L"  ";
  constexpr std::wstring_view kInternal = L"internal error: ";
  for (std::wstring_view const mark : {kIndent, kInternal}) {
    if (message.starts_with(mark)) message.remove_prefix(mark.size());
  }
  return message;
}

std::string levelName(LogLevel level) {
  switch (level) {
    case LogLevel::detail:
      return "detail";
    case LogLevel::info:
      return "info";
    case LogLevel::error:
      return "error";
  }
  return std::to_string(static_cast<int>(level));
}

}  // namespace

void RecordLog::showAll() {
  Lock const hold(mutex_);
  showsAll_ = true;
}

void RecordLog::clear() {
  Lock const hold(mutex_);
  errors_.clear();
}

std::vector<std::string> RecordLog::errors() const {
  Lock const hold(mutex_);
  return errors_;
}

std::string RecordLog::reason(std::string const& otherwise) const {
  Lock const hold(mutex_);
  return errors_.empty() ? otherwise : errors_.back();
}

bool RecordLog::isDetailLoggingEnabled() {
  Lock const hold(mutex_);
  return showsAll_;
}

void RecordLog::logMessage(LogLevel const& level, std::wstring const& group,
                           std::wstring const& message) {
  Lock const hold(mutex_);
  if (showsAll_) {
    std::string const line =
        printable(levelName(level) + " [" + utf8(group) + "] " + utf8(message), Backslash::doubled);
    static_cast<void>(!::write(STDERR_FILENO, (line + "\n").c_str(), line.size() + 1));
  }
  if (level == LogLevel::error && !isTraceLine(message)) errors_.push_back(utf8(plain(message)));
}

}  // namespace vrxtool

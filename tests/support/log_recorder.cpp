#include "tests/support/log_recorder.h"

#include <algorithm>
#include <iterator>

namespace vrxutil::test {

namespace {

using vornix_com::oxa::logger::LogLevel;

std::string readable(std::wstring const& text) {
  std::string narrow;
  for (wchar_t const c : text) {
    if (c >= 0x20 && c < 0x7F) {
      narrow += static_cast<char>(c);
    } else {
      narrow += "\\u{" + std::to_string(static_cast<long>(c)) + "}";
    }
  }
  return narrow;
}

bool isScopeLine(std::wstring const& message) {
  return message.starts_with(L" [") && message.ends_with(L"]->");
}

}  // namespace

void PrintTo(LogRecord const& record, std::ostream* out) {
  *out << static_cast<int>(record.level) << " [" << readable(record.group) << "] \""
       << readable(record.message) << '"';
}

void LogRecorder::start() {
  std::lock_guard const lock(mutex_);
  setupCalls_.emplace_back(L"start");
}

void LogRecorder::attach(std::wstring const& name) {
  std::lock_guard const lock(mutex_);
  setupCalls_.push_back(L"attach " + name);
}

void LogRecorder::setMinLogLevel(LogLevel const& level) {
  std::lock_guard const lock(mutex_);
  setupCalls_.push_back(L"level " + std::to_wstring(static_cast<int>(level)));
}

bool LogRecorder::isDetailLoggingEnabled() {
  std::lock_guard const lock(mutex_);
  return detailEnabled_;
}

void LogRecorder::logMessage(LogLevel const& level, std::wstring const& group,
                             std::wstring const& message) {
  std::lock_guard const lock(mutex_);
  records_.push_back({level, group, message});
}

Records LogRecorder::records() const {
  std::lock_guard const lock(mutex_);
  return records_;
}

Records LogRecorder::errors() const {
  Records const all = records();
  Records found;
  std::copy_if(all.begin(), all.end(), std::back_inserter(found),
               [](LogRecord const& record) { return record.level == LogLevel::error; });
  return found;
}

Records LogRecorder::plainErrors() const {
  Records plain;
  bool inTrace = false;
  for (LogRecord record : errors()) {
    if (record.message == L"Error trace:") {
      inTrace = true;
      continue;
    }
    if (inTrace && isScopeLine(record.message)) continue;
    if (inTrace) record.message.erase(0, 2);
    inTrace = false;
    plain.push_back(std::move(record));
  }
  return plain;
}

void LogRecorder::clear() {
  std::lock_guard const lock(mutex_);
  records_.clear();
}

std::vector<std::wstring> LogRecorder::setupCalls() const {
  std::lock_guard const lock(mutex_);
  return setupCalls_;
}

void LogRecorder::answerDetailEnabled(bool enabled) {
  std::lock_guard const lock(mutex_);
  detailEnabled_ = enabled;
}

}  // namespace vrxutil::test

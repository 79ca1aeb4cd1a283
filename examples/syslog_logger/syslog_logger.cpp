#include "examples/syslog_logger/syslog_logger.h"

#include <cerrno>
#include <cstddef>
#include <string_view>
#include <utility>

#include <syslog.h>

namespace syslog_logger {

namespace {

constexpr std::size_t kPartSize = 900;
constexpr std::string_view kContinued = "... ";

int priorityOf(int level) {
  if (level >= static_cast<int>(SyslogLogger::LogLevel::error)) return LOG_ERR;
  return level >= static_cast<int>(SyslogLogger::LogLevel::info) ? LOG_INFO : LOG_DEBUG;
}

bool isControl(char32_t c) {
  return c < 0x20 || (c >= 0x7F && c < 0xA0) || c == 0x2028 || c == 0x2029;
}

void appendEscape(char32_t c, std::string& out) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  if (c == U'\n') {
    out += "\\n";
    return;
  }
  out += c <= 0xFF ? "\\x" : "\\u";
  for (int shift = c <= 0xFF ? 4 : 12; shift >= 0; shift -= 4) out += kDigits[c >> shift & 0xF];
}

/// RFC 3629; what is no Unicode scalar value reads as U+FFFD.
void appendUtf8(char32_t c, std::string& out) {
  if (c > 0x10FFFF || (c >= 0xD800 && c < 0xE000)) c = 0xFFFD;
  auto const append = [&out](char32_t bits) { out += static_cast<char>(bits); };
  if (c < 0x80) {
    append(c);
    return;
  }
  int const more = c < 0x800 ? 1 : (c < 0x10000 ? 2 : 3);  // bytes after the first
  append((0xFF00U >> (more + 1) & 0xFF) | c >> (6 * more));
  for (int shift = 6 * (more - 1); shift >= 0; shift -= 6) append(0x80 | (c >> shift & 0x3F));
}

/// `text` as one line of UTF-8. Nothing is logged for what it cannot express, as the
/// library's conversions would: this is the logger.
std::string lineOf(std::wstring const& text) {
  std::string line;
  line.reserve(text.size());
  for (wchar_t const wide : text) {
    auto const c = static_cast<char32_t>(wide);
    if (c == U'\\') {
      line += "\\\\";
    } else if (isControl(c)) {
      appendEscape(c, line);
    } else {
      appendUtf8(c, line);
    }
  }
  return line;
}

/// How much of `text` fits in `size` bytes without cutting a character.
std::size_t fittingSize(std::string_view text, std::size_t size) {
  if (text.size() <= size) return text.size();
  while ((static_cast<unsigned char>(text[size]) & 0xC0) == 0x80) --size;
  return size;
}

}  // namespace

SyslogLogger::SyslogLogger(int options) : options_(options) {
  ::openlog(nullptr, options_, LOG_DAEMON);
}

// closelog() forgets the name's address, too.
SyslogLogger::~SyslogLogger() { ::closelog(); }

void SyslogLogger::start() {}

void SyslogLogger::attach(std::wstring const& name) {
  auto newName = std::make_unique<std::string>(lineOf(name));
  std::scoped_lock const guard(mutex_);
  ::openlog(newName->c_str(), options_, LOG_DAEMON);
  name_ = std::move(newName);  // the old one goes when nobody looks at it any more
}

void SyslogLogger::setMinLogLevel(LogLevel const& level) { minLevel_ = static_cast<int>(level); }

bool SyslogLogger::isDetailLoggingEnabled() {
  return minLevel_ <= static_cast<int>(LogLevel::detail);
}

void SyslogLogger::logMessage(LogLevel const& level, std::wstring const& group,
                              std::wstring const& message) {
  if (static_cast<int>(level) < minLevel_) return;
  int const errnoBefore = errno;  // the caller may still want it
  std::string const line = lineOf(L"[" + group + L"] " + message);
  std::string_view rest = line;
  do {
    std::string_view const mark = rest.size() == line.size() ? "" : kContinued;
    std::size_t const size = fittingSize(rest, kPartSize - mark.size());
    // Never as the format: what is logged may hold a "%".
    ::syslog(priorityOf(static_cast<int>(level)), "%s%.*s", mark.data(), static_cast<int>(size),
             rest.data());
    rest.remove_prefix(size);
  } while (!rest.empty());
  errno = errnoBefore;
}

}  // namespace syslog_logger

#include "platform/vrxcomn/log_line.h"

#include "platform/common/utf8.h"

#include <vrxcomn/logger.h>

#include <spdlog/details/os.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <limits>

#include <time.h>
#include <unistd.h>

namespace vrxutil::detail {

namespace {

using vornix_com::oxa::logger::LogLevel;

/// "2024-05-01T12:34:56.789+02:00 1234567/1234567 "
constexpr std::size_t kUsualHeadSize = 46;

/// What stands around group and message where nothing is escaped: "detail [] ".
constexpr std::size_t kUsualFrameSize = 10;

struct CharacterRange {
  wchar_t first;
  wchar_t last;
};

constexpr std::array<CharacterRange, 7> kControls{{
    {0x0000, 0x001F},  // C0
    {0x007F, 0x009F},  // DEL, C1
    {0x061C, 0x061C},  // Arabic letter mark
    {0x200E, 0x200F},  // left-to-right mark, right-to-left mark
    {0x2028, 0x2029},  // line separator, paragraph separator
    {0x202A, 0x202E},  // embeddings and overrides of direction
    {0x2066, 0x2069},  // isolates of direction
}};

void appendHex(wchar_t c, int digits, std::wstring& out) {
  constexpr std::wstring_view kDigits = L"0123456789abcdef";
  auto const bits = static_cast<unsigned>(c);
  for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4) out += kDigits[(bits >> shift) & 0xF];
}

void appendEscape(wchar_t c, std::wstring& out) {
  out += L'\\';
  switch (c) {
    case L'\\':
      out += c;
      return;
    case L'\n':
      out += L'n';
      return;
    case L'\r':
      out += L'r';
      return;
    case L'\t':
      out += L't';
      return;
    default:
      break;
  }
  bool const isShort = c <= 0xFF;
  out += isShort ? L'x' : L'u';
  appendHex(c, isShort ? 2 : 4, out);
}

/// Appends `text` with escapes for controls, the backslash and `closing`, the
/// character that ends the field; 0 where only the line's end does.
void appendField(std::wstring_view text, wchar_t closing, std::wstring& out) {
  for (wchar_t const c : text) {
    if (c == L'\\' || c == closing || isLogControl(c)) {
      appendEscape(c, out);
    } else {
      out += c;
    }
  }
}

struct NumberField {
  long value;
  int digits;  // at least
  char mark;   // after it
};

/// By hand: a general formatter takes longer than the record's way to the file.
void appendNumber(NumberField const& field, std::string& out) {
  std::array<char, std::numeric_limits<long>::digits10 + 2> text;
  char* const start = text.data();
  char* const end = std::to_chars(start, start + text.size(), field.value).ptr;
  for (auto digits = end - start; digits < field.digits; ++digits) out += '0';
  out.append(start, end);
  out += field.mark;
}

void appendLevel(int level, std::wstring& out) {
  switch (static_cast<LogLevel>(level)) {
    case LogLevel::detail:
      out += L"detail";
      return;
    case LogLevel::info:
      out += L"info";
      return;
    case LogLevel::error:
      out += L"error";
      return;
  }
  out += std::to_wstring(level);
}

}  // namespace

bool isLogControl(wchar_t c) noexcept {
  if (c >= 0x20 && c < 0x7F) return false;
  return std::any_of(kControls.begin(), kControls.end(), [c](CharacterRange const& range) {
    return c >= range.first && c <= range.last;
  });
}

std::string logLineTail(int level, std::wstring_view group, std::wstring_view message) {
  std::wstring line;
  line.reserve(kUsualFrameSize + group.size() + message.size());
  appendLevel(level, line);
  line += L" [";
  appendField(group, L']', line);
  line += L"] ";
  appendField(message, L'\0', line);
  return lossyUtf8(line);
}

std::string logLine(std::chrono::system_clock::time_point time, std::string_view tail) {
  using std::chrono::milliseconds;
  auto const sinceEpoch = std::chrono::floor<milliseconds>(time.time_since_epoch());
  auto const seconds = std::chrono::floor<std::chrono::seconds>(sinceEpoch);
  auto const wholeSeconds = static_cast<time_t>(seconds.count());
  tm local{};
  ::localtime_r(&wholeSeconds, &local);  // fails only for a year beyond int
  long const offset = local.tm_gmtoff / 60;
  auto const millisecond = static_cast<long>((sinceEpoch - seconds).count());
  // Process and thread are asked for afresh, since a child after fork has others.
  std::array<NumberField, 11> const head{{
      {local.tm_year + 1900L, 4, '-'},
      {local.tm_mon + 1L, 2, '-'},
      {local.tm_mday, 2, 'T'},
      {local.tm_hour, 2, ':'},
      {local.tm_min, 2, ':'},
      {local.tm_sec, 2, '.'},
      {millisecond, 3, offset < 0 ? '-' : '+'},
      {std::labs(offset) / 60, 2, ':'},
      {std::labs(offset) % 60, 2, ' '},
      {::getpid(), 1, '/'},
      {static_cast<long>(spdlog::details::os::_thread_id()), 1, ' '},
  }};
  std::string line;
  line.reserve(kUsualHeadSize + tail.size() + 1);
  for (NumberField const& field : head) appendNumber(field, line);
  line += tail;
  line += '\n';
  return line;
}

}  // namespace vrxutil::detail

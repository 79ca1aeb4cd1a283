#include "platform/vrxcomn/log_line.h"

#include "platform/common/utf8.h"

#include <vrxcomn/logger.h>

#include <spdlog/details/os.h>
#include <spdlog/fmt/fmt.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iterator>

#include <time.h>
#include <unistd.h>

namespace vrxutil::detail {

namespace {

using vornix_com::oxa::logger::LogLevel;

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

std::wstring levelWord(int level) {
  switch (static_cast<LogLevel>(level)) {
    case LogLevel::detail:
      return L"detail";
    case LogLevel::info:
      return L"info";
    case LogLevel::error:
      return L"error";
  }
  return std::to_wstring(level);
}

}  // namespace

bool isLogControl(wchar_t c) noexcept {
  if (c >= 0x20 && c < 0x7F) return false;
  return std::any_of(kControls.begin(), kControls.end(), [c](CharacterRange const& range) {
    return c >= range.first && c <= range.last;
  });
}

std::string logLineTail(int level, std::wstring_view group, std::wstring_view message) {
  std::wstring line = levelWord(level);
  line.reserve(line.size() + group.size() + message.size() + 8);
  line += L" [";
  appendField(group, L']', line);
  line += L"] ";
  appendField(message, L'\0', line);
  return lossyUtf8(line);
}

std::string logLineHead(std::chrono::system_clock::time_point time) {
  using std::chrono::milliseconds;
  auto const sinceEpoch = std::chrono::floor<milliseconds>(time.time_since_epoch());
  auto const seconds = std::chrono::floor<std::chrono::seconds>(sinceEpoch);
  auto const wholeSeconds = static_cast<time_t>(seconds.count());
  tm local{};
  ::localtime_r(&wholeSeconds, &local);  // fails only for a year beyond int
  long const offsetMinutes = local.tm_gmtoff / 60;
  std::string head;
  // The thread's number is asked for afresh, since a child after fork has another.
  fmt::format_to(std::back_inserter(head),
                 "{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}{}{:02}:{:02} {}/{} ",
                 local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
                 local.tm_sec, (sinceEpoch - seconds).count(), offsetMinutes < 0 ? '-' : '+',
                 std::labs(offsetMinutes) / 60, std::labs(offsetMinutes) % 60, ::getpid(),
                 spdlog::details::os::_thread_id());
  return head;
}

}  // namespace vrxutil::detail

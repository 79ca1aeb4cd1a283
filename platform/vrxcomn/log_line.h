// The text of a log record: one line of UTF-8.
//
//   2024-05-01T12:34:56.789+02:00 1234/1240 error [Xml] root node missing
//
// that is local time with its offset from UTC, process and thread, level, group,
// message. The fields before the group hold no blank; the group ends at the first
// "]". What a reader could take for the end of a line or of the group, or that
// makes a line look different from what it says, is escaped, and so is the
// backslash: nothing in a record can pass for another record or field.

#pragma once

#include <chrono>
#include <string>
#include <string_view>

namespace vrxutil::detail {

/// Whether `c` is written as an escape: a control character (C0, DEL, C1), a line
/// or paragraph separator, or a control of the direction of text.
bool isLogControl(wchar_t c) noexcept;

/// The line from the level on, without its end. An unknown level is its number.
std::string logLineTail(int level, std::wstring_view group, std::wstring_view message);

/// The whole line, with its end: a record of the calling thread at `time`.
std::string logLine(std::chrono::system_clock::time_point time, std::string_view tail);

}  // namespace vrxutil::detail

// The tool's texts. Arguments, files and output are UTF-8, whatever the locale says:
// main() sees to it that names of files are, too.
//
// Nothing is logged.

#pragma once

#include <string>
#include <string_view>

namespace vrxtool {

/// Wide text as UTF-8; what has no UTF-8 form becomes U+FFFD.
std::string utf8(std::wstring_view text);

/// The character that a file may begin with.
inline constexpr wchar_t kByteOrderMark = 0xFEFF;

/// An argument as wide text, a byte-order mark included. Throws Failure where it is not UTF-8;
/// `what` names it there.
std::wstring wide(std::string_view argument, std::string_view what);

/// What printable() does with "\": left alone, or doubled, so that no escape is ambiguous.
enum class Backslash { asItIs, doubled };

/// `bytes` for people, on one line: control characters and what changes the direction
/// of text read \n, \r, \t, \xHH or \uHHHH, a byte that is not UTF-8 \xHH.
std::string printable(std::string_view bytes, Backslash backslash);

}  // namespace vrxtool

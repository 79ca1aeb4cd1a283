// Conversion between wide text and the C locale's encoding, without logging.

#pragma once

#include <cstddef>
#include <string>

namespace vrxutil::detail {

/// What mbstowcs gives for a text that is not valid in the C locale.
inline constexpr std::size_t kInvalid = static_cast<std::size_t>(-1);

/// Whether each byte from 1 to 0x7F is a character of its own in the C locale, the
/// one that it is in ASCII. False where that is not known.
bool lowerHalfIsAscii();

/// Number of wide characters that `text` converts to, or kInvalid.
std::size_t wideLength(char const* text);

/// mbstowcs(target, text, count).
std::size_t widen(char const* text, wchar_t* target, std::size_t count);

/// Whether `text` points at one of the characters of `owner`, or its NUL.
bool pointsInto(std::wstring const& owner, wchar_t const* text);

}  // namespace vrxutil::detail

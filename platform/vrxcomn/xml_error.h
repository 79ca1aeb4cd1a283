// The message that GetLastXmlErrorMessage() returns.
//
// Internal; not installed.

#pragma once

#include <string_view>

namespace vrxutil::detail {

/// Keeps `message` as this thread's last one. Never fails, and may be called
/// while a thread ends. The middle of a message beyond 1,023 characters gives
/// way to "..."; a NUL becomes U+FFFD.
void setLastXmlError(std::wstring_view message) noexcept;

}  // namespace vrxutil::detail

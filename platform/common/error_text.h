// The system's text for an error number, from any thread.
//
// Internal; not installed.

#pragma once

#include <array>
#include <string>

#include <string.h>

namespace vrxutil::detail {

// strerror_r comes in two forms: POSIX's fills the buffer and returns a status,
// GNU's returns the text. Overloading takes either.
inline char const* errorTextOf(int status, char const* buffer) {
  return status == 0 ? buffer : "Unknown error";
}

inline char const* errorTextOf(char const* text, char const* /*buffer*/) { return text; }

/// What strerror(number) says; that itself need not be safe from every thread.
inline std::string errorText(int number) {
  std::array<char, 256> buffer{};
  return errorTextOf(::strerror_r(number, buffer.data(), buffer.size()), buffer.data());
}

}  // namespace vrxutil::detail

// The system's text for an error number, from any thread.
//
// Internal; not installed.

#pragma once

#include <array>

#include <string.h>

namespace vrxutil::detail {

// strerror_r comes in two forms: POSIX's fills the buffer and returns a status,
// GNU's returns the text. Overloading takes either.
inline char const* errorTextOf(int status, char const* buffer) {
  return status == 0 ? buffer : "Unknown error";
}

inline char const* errorTextOf(char const* text, char const* /*buffer*/) { return text; }

/// What strerror(number) says; that itself need not be safe from every thread.
class ErrorText {
public:
  explicit ErrorText(int number)
      : text_(errorTextOf(::strerror_r(number, buffer_.data(), buffer_.size()), buffer_.data())) {}

  ErrorText(ErrorText const&) = delete;
  ErrorText& operator=(ErrorText const&) = delete;

  char const* c_str() const { return text_; }

private:
  std::array<char, 256> buffer_{};
  char const* text_;
};

}  // namespace vrxutil::detail

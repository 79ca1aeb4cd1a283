// The profile functions as tests call them.

#pragma once

#include <zulral/zulral.h>

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <cwchar>
#include <filesystem>
#include <iterator>
#include <string>

#include <unistd.h>

namespace vrxutil::test {

inline constexpr wchar_t kNone[] = L"(none)";

/// The value of a key, of up to 999 characters, or "(none)".
inline std::wstring valueOf(std::wstring const& fileName, wchar_t const* section,
                            wchar_t const* key) {
  std::array<wchar_t, 1000> buffer{};
  unsigned long const length = ZuDB_GetPrivateProfileStringW(section, key, kNone, buffer.data(),
                                                             buffer.size(), fileName.c_str());
  EXPECT_EQ(length, std::wcslen(buffer.data()));
  return buffer.data();
}

/// "success", or what errno says.
inline std::string write(std::wstring const& fileName, wchar_t const* section, wchar_t const* key,
                         wchar_t const* value) {
  errno = 0;
  int const result = ZuDB_WritePrivateProfileStringW(section, key, value, fileName.c_str());
  return result != 0 ? "success" : std::strerror(errno);
}

inline bool exists(std::string const& path) { return ::access(path.c_str(), F_OK) == 0; }

/// Number of entries.
inline std::size_t countIn(std::string const& folder) {
  std::filesystem::directory_iterator const entries(folder);
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

}  // namespace vrxutil::test

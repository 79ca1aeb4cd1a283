// The plug-ins as tests use them. They are built for this program: PLUG_IN,
// PLUG_IN_OLD and PLUG_IN_UNRESOLVED are the paths of their files, PLUG_IN_FOLDER is
// where PLUG_IN is.

#pragma once

#include "tests/support/temporary_folder.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <sys/wait.h>
#include <unistd.h>

namespace vrxutil::test {

using PlugInVersion = char const* (*)();
using PlugInCountUnloading = void (*)(int*);

/// Where a file of its own, and so a library of its own, is for each test.
class PlugInFolder {
public:
  /// Copies the plug-in in the file `plugIn` to a new file; returns its path.
  std::string place(std::string const& name, char const* plugIn = PLUG_IN) const {
    std::string path = folder_ / name;
    std::filesystem::copy_file(plugIn, path);
    return path;
  }

  /// Makes a file of the first `size` bytes of the plug-in; returns its path.
  std::string placeStart(std::string const& name, std::size_t size) const {
    std::string path = folder_ / name;
    makeFile(path, fileBytes(PLUG_IN).substr(0, size));
    return path;
  }

  std::string operator/(std::string const& name) const { return folder_ / name; }

  std::wstring wide(std::string const& name) const { return folder_.wide(name); }

private:
  TemporaryFolder folder_;
};

inline constexpr char kLibraryPath[] = "LD_LIBRARY_PATH";

inline std::string libraryPath() {
  char const* const path = std::getenv(kLibraryPath);
  return path != nullptr ? path : "";
}

/// Whether this process looks for libraries in PLUG_IN_FOLDER first.
inline bool looksInPlugInFolder() { return libraryPath().starts_with(PLUG_IN_FOLDER); }

/// Runs the current test alone in this program started anew, as one that looks for
/// libraries in PLUG_IN_FOLDER: the loader reads the variable when a program starts.
/// Returns the status of waitpid(2).
inline int runAgainInPlugInFolder() {
  testing::TestInfo const& test = *testing::UnitTest::GetInstance()->current_test_info();
  std::string const filter =
      std::string("--gtest_filter=") + test.test_suite_name() + '.' + test.name();
  std::fflush(nullptr);
  pid_t const child = ::fork();
  if (child == 0) {
    ::setenv(kLibraryPath, (PLUG_IN_FOLDER ":" + libraryPath()).c_str(), /*overwrite=*/1);
    for (char const* const name : {"GTEST_TOTAL_SHARDS", "GTEST_SHARD_INDEX", "GTEST_OUTPUT"}) {
      ::unsetenv(name);
    }
    ::execl("/proc/self/exe", "test", filter.c_str(), nullptr);
    ::_exit(EXIT_FAILURE);
  }
  int status = -1;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

}  // namespace vrxutil::test

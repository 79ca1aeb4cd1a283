// What the tests of files and folders share: the records that operations leave.

#pragma once

#include "tests/platform/child_process.h"
#include "tests/support/log_recorder.h"

#include <vrxutil/text.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#ifdef __linux__
#include <sched.h>
#include <sys/mount.h>
#endif

namespace vrxutil::test {

using Records = std::vector<LogRecord>;

/// What strerror says of an error, as the log has it.
inline std::wstring reason(int number) { return AString(std::strerror(number)).const_cpp_str(); }

inline Records operator+(Records left, Records const& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

/// The records of scopes that open, one after the other.
inline Records scopes(std::wstring const& group, std::vector<std::wstring> const& texts) {
  Records records;
  for (std::wstring const& text : texts) records.push_back(detailRecord(group, text));
  return records;
}

/// The records of one logError() inside the scopes `open`, outermost first.
inline Records errorInside(Records const& open, std::wstring const& group,
                           std::wstring const& message) {
  Records records{errorRecord(group, L"Error trace:")};
  for (LogRecord const& scope : open) {
    records.push_back(errorRecord(scope.group, L" [" + scope.message + L"]->"));
  }
  records.push_back(errorRecord(group, L"  " + message));
  return records;
}

/// The records of an operation with one scope, in which it fails.
inline Records failedCall(std::wstring const& group, std::wstring const& text,
                          std::wstring const& message) {
  Records const open = scopes(group, {text});
  return open + errorInside(open, group, message);
}

/// All that `operation` logs.
template <class Operation>
Records recordsOf(Operation operation) {
  LogRecorder const log;
  operation();
  return log.records();
}

/// Runs `scenario` in a child without root's rights; whether its checks held.
template <class Scenario>
bool holdsUnprivileged(Scenario scenario) {
  constexpr unsigned kOther = 65534;
  return runInChild([&] {
           bool const isOther =
               ::geteuid() != 0 ||
               (::setgroups(0, nullptr) == 0 && ::setgid(kOther) == 0 && ::setuid(kOther) == 0);
           ASSERT_TRUE(isOther) << "the rights of root stay";
           scenario();
         }).status == 0;
}

#ifdef __linux__

enum class MountOutcome { held, failed, notAllowed };

/// Whether this process, a child, may now mount what goes with it.
inline bool enterMountNamespace() {
  auto const writeTo = [](char const* path, std::string const& text) {
    return static_cast<bool>(std::ofstream(path) << text << std::flush);
  };
  auto const mappedToRoot = [](unsigned id) { return "0 " + std::to_string(id) + " 1"; };
  std::string const user = mappedToRoot(::geteuid());
  std::string const group = mappedToRoot(::getegid());
  bool const isAlone = ::geteuid() == 0 ? ::unshare(CLONE_NEWNS) == 0
                                        : ::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0 &&
                                              writeTo("/proc/self/setgroups", "deny") &&
                                              writeTo("/proc/self/uid_map", user) &&
                                              writeTo("/proc/self/gid_map", group);
  return isAlone && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

/// Runs `scenario` in a child for which a file system in memory is mounted at
/// `folder`: filled by `prepare`, then changed to `flags` of mount(2).
template <class Prepare, class Scenario>
MountOutcome runOnMount(std::string const& folder, unsigned long flags, Prepare prepare,
                        Scenario scenario) {
  constexpr int kNotAllowed = 77;
  char const* const path = folder.c_str();
  int const status =
      runInChild([&] {
        if (!enterMountNamespace() || ::mount("tmpfs", path, "tmpfs", 0, "size=65536") != 0) {
          std::exit(kNotAllowed);
        }
        prepare();
        ASSERT_EQ(::mount(nullptr, path, nullptr, MS_REMOUNT | flags, "size=65536"), 0);
        scenario();
      }).status;
  if (status == 0) return MountOutcome::held;
  bool const isNotAllowed = WIFEXITED(status) && WEXITSTATUS(status) == kNotAllowed;
  return isNotAllowed ? MountOutcome::notAllowed : MountOutcome::failed;
}

inline constexpr char kNoMounts[] = "the host does not allow private mounts";

#endif

}  // namespace vrxutil::test

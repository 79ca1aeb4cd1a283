// What the tests of files and folders share: the records that operations leave, and
// scenarios in processes of their own.

#pragma once

#include "tests/platform/child_process.h"
#include "tests/support/log_recorder.h"
#include "tests/support/other_user.h"
#include "tests/support/private_mounts.h"

#include <vrxutil/text.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

#ifdef __linux__
#include <sys/mount.h>
#endif

namespace vrxutil::test {

/// Whether T has neither virtual functions nor copies.
template <class T>
inline constexpr bool kIsPlainAndUnique =
    !std::is_polymorphic_v<T> && !std::is_copy_constructible_v<T> && !std::is_copy_assignable_v<T>;

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

/// Runs `scenario` in a child; whether its checks held.
template <class Scenario>
testing::AssertionResult holdsInChild(Scenario scenario) {
  ChildResult const child = runInChild(scenario);
  if (child.status == 0) return testing::AssertionSuccess();
  return testing::AssertionFailure() << "status " << child.status << ": " << child.standardError;
}

/// The same without root's rights.
template <class Scenario>
testing::AssertionResult holdsUnprivileged(Scenario scenario) {
  return holdsInChild([&] {
    becomeOtherUser();
    if (!testing::Test::HasFatalFailure()) scenario();
  });
}

/// Exit status of a child whose scenario the host does not allow.
inline constexpr int kNotAllowed = 77;

/// Ends a child at once, for expectAllowedInChild() to skip the test.
[[noreturn]] inline void leaveAsNotAllowed() { ::_exit(kNotAllowed); }

/// Runs `scenario` in a child. Its checks count as this test's, which is skipped for
/// the reason `whyNot` where the child has called leaveAsNotAllowed().
template <class Scenario>
void expectAllowedInChild(char const* whyNot, Scenario scenario) {
  ChildResult const child = runInChild(scenario);
  if (WIFEXITED(child.status) && WEXITSTATUS(child.status) == kNotAllowed) {
    GTEST_SKIP() << whyNot;
  }
  EXPECT_EQ(child.status, 0) << child.standardError;
}

#ifdef __linux__

/// Runs `scenario` in a child for which a file system in memory is mounted at
/// `folder`: filled by `prepare`, then changed to `flags` of mount(2). Its checks
/// count as this test's, which is skipped where the host allows no mounts: the last
/// step of a test.
template <class Prepare, class Scenario>
void expectOnMount(std::string const& folder, unsigned long flags, Prepare prepare,
                   Scenario scenario) {
  char const* const path = folder.c_str();
  expectAllowedInChild(kNoMounts, [&] {
    if (!enterMountNamespace() || ::mount("tmpfs", path, "tmpfs", 0, "size=65536") != 0) {
      leaveAsNotAllowed();
    }
    prepare();
    ASSERT_EQ(::mount(nullptr, path, nullptr, MS_REMOUNT | flags, "size=65536"), 0);
    scenario();
  });
}

#endif

}  // namespace vrxutil::test

// A scenario in a process of its own, which ends as a program does: for what
// shows only at the end of a process, what must be the first call in one, and
// what might kill it.

#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>
#include <utility>

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vrxutil::test {

struct ChildResult {
  pid_t process;
  int status;  // of waitpid(2); 0 after a normal end without a failed check
  std::string standardError;
};

inline std::string readToEnd(int fd) {
  std::string bytes;
  std::array<char, 4096> part{};
  for (;;) {
    ssize_t const count = ::read(fd, part.data(), part.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return bytes;
    bytes.append(part.data(), static_cast<std::size_t>(count));
  }
}

/// Status of waitpid(2) for `process`.
inline int waitFor(pid_t process) {
  int status = -1;
  while (::waitpid(process, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

/// Runs `scenario` and leaves by std::exit; 0 if every check has held.
template <class Scenario>
[[noreturn]] void runAndExit(Scenario scenario) {
  constexpr unsigned kLongestSeconds = 240;
  ::alarm(kLongestSeconds);  // a child that hangs fails
  try {
    scenario();
  } catch (std::exception const& exception) {
    ADD_FAILURE() << exception.what();
  }
  std::exit(testing::Test::HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
}

/// Runs `scenario` in a child whose standard error is a pipe to this process.
template <class Scenario>
ChildResult runInChild(Scenario scenario) {
  std::array<int, 2> ends{};
  if (::pipe(ends.data()) != 0) throw std::runtime_error("no pipe");
  std::fflush(stdout);  // else the child writes it as well
  pid_t const child = ::fork();
  if (child == 0) {
    ::dup2(ends[1], STDERR_FILENO);
    ::close(ends[0]);
    ::close(ends[1]);
    runAndExit(scenario);
  }
  ::close(ends[1]);
  std::string text = readToEnd(ends[0]);
  ::close(ends[0]);
  return {child, waitFor(child), std::move(text)};
}

}  // namespace vrxutil::test

// Running a part of a test where it can do no harm: in a child process, and on a
// small stack.

#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <exception>
#include <functional>

#include <pthread.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vrxutil::test {

/// Runs `body` in a child process; its failed expectations and its death fail
/// the test.
inline void runInChild(std::function<void()> const& body) {
  std::fflush(nullptr);
  pid_t const child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    try {
      body();
    } catch (std::exception const& exception) {
      ADD_FAILURE() << "exception: " << exception.what();
    }
    std::fflush(nullptr);
    ::_exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status)) << "ended by signal " << WTERMSIG(status);
  if (WIFEXITED(status)) {
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the child's output says why";
  }
}

/// The most memory that this process has had at once.
inline long peakMemoryInMiB() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss / 1024;  // Linux counts in KiB
}

/// Runs `body` in a child process that may take `limitInMiB` of memory more than
/// it had. The sanitizers keep freed memory for a while, so this is no fine
/// measure.
inline void runWithinMemory(long limitInMiB, std::function<void()> const& body) {
  runInChild([&] {
    long const before = peakMemoryInMiB();
    body();
    EXPECT_LT(peakMemoryInMiB() - before, limitInMiB);
  });
}

/// Runs `body` in a thread whose stack holds no recursion into a deep tree.
inline void runOnSmallStack(std::function<void()> body) {
  constexpr std::size_t kStackInBytes = std::size_t{512} * 1024;
  pthread_attr_t attributes;
  ASSERT_EQ(::pthread_attr_init(&attributes), 0);
  ASSERT_EQ(::pthread_attr_setstacksize(&attributes, kStackInBytes), 0);
  auto const run = [](void* argument) -> void* {
    (*static_cast<std::function<void()>*>(argument))();
    return nullptr;
  };
  pthread_t thread;
  ASSERT_EQ(::pthread_create(&thread, &attributes, run, &body), 0);
  EXPECT_EQ(::pthread_join(thread, nullptr), 0);
  ::pthread_attr_destroy(&attributes);
}

}  // namespace vrxutil::test

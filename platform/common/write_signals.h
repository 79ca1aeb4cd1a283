// Writes that fail without a signal.
//
// Internal; not installed.

#pragma once

#include <algorithm>
#include <array>
#include <cerrno>

#include <pthread.h>
#include <signal.h>
#include <time.h>

namespace vrxutil::detail {

/// While it lives, the signals that a failing write sends to the thread that
/// calls it, and that would end the process, do not arrive: SIGPIPE and, at the
/// limit of a file's size (RLIMIT_FSIZE), SIGXFSZ. What the write itself returns
/// says as much. Those that others have sent stay pending. errno stays as it is.
class WriteSignalsBlocked {
public:
  WriteSignalsBlocked() noexcept {
    sigset_t signals;
    ::sigemptyset(&signals);
    for (int const number : kSignals) ::sigaddset(&signals, number);
    ::pthread_sigmask(SIG_BLOCK, &signals, &before_);
    ::sigemptyset(&foreign_);
    // What is not blocked does not stay pending.
    bool const mayBePending = std::any_of(kSignals.begin(), kSignals.end(), [this](int number) {
      return ::sigismember(&before_, number) == 1;
    });
    if (mayBePending) ::sigpending(&foreign_);
  }

  ~WriteSignalsBlocked() {
    int const errorNumber = errno;
    sigset_t pending;
    ::sigemptyset(&pending);
    ::sigpending(&pending);
    for (int const number : kSignals) {
      bool const isOurs =
          ::sigismember(&pending, number) == 1 && ::sigismember(&foreign_, number) == 0;
      if (isOurs) take(number);
    }
    ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    errno = errorNumber;
  }

  WriteSignalsBlocked(WriteSignalsBlocked const&) = delete;
  WriteSignalsBlocked& operator=(WriteSignalsBlocked const&) = delete;

private:
  static constexpr std::array kSignals{SIGPIPE, SIGXFSZ};

  /// Consumes a pending signal.
  static void take(int number) noexcept {
    sigset_t signal;
    ::sigemptyset(&signal);
    ::sigaddset(&signal, number);
#ifdef __APPLE__  // has no sigtimedwait
    ::sigwait(&signal, &number);
#else
    // Does not wait: what was pending for the process may be another thread's now.
    timespec const noTime{};
    while (::sigtimedwait(&signal, nullptr, &noTime) < 0 && errno == EINTR) {
    }
#endif
  }

  sigset_t before_;   // the thread's mask
  sigset_t foreign_;  // pending before, for others to take
};

}  // namespace vrxutil::detail

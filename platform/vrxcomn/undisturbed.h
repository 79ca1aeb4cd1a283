// Calls that write, kept from disturbing the thread that makes them.

#pragma once

#include <array>
#include <cerrno>

#include <pthread.h>
#include <signal.h>
#include <time.h>

namespace vrxutil::detail {

/// While it lives, what the calling thread writes has no effect on it but its
/// result: a broken pipe and a file beyond RLIMIT_FSIZE raise no signal, a
/// pending pthread_cancel waits. errno is at the end what it was at the start.
class Undisturbed {
public:
  Undisturbed() noexcept {
    sigset_t blocked;
    ::sigemptyset(&blocked);
    for (int const signal : kSignals) ::sigaddset(&blocked, signal);
    ::sigpending(&pendingBefore_);
    ::pthread_sigmask(SIG_BLOCK, &blocked, &maskBefore_);
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelStateBefore_);
  }

  ~Undisturbed() {
    consumeSignals();
    ::pthread_sigmask(SIG_SETMASK, &maskBefore_, nullptr);
    ::pthread_setcancelstate(cancelStateBefore_, nullptr);
    errno = errnoBefore_;
  }

  Undisturbed(Undisturbed const&) = delete;
  Undisturbed& operator=(Undisturbed const&) = delete;

private:
  static constexpr std::array<int, 2> kSignals{SIGPIPE, SIGXFSZ};

  /// Takes back the signals that were raised meanwhile; write(2) sends them to
  /// the thread that calls it.
  void consumeSignals() const noexcept {
    sigset_t pending;
    ::sigpending(&pending);
    for (int const signal : kSignals) {
      bool const isOurs =
          ::sigismember(&pending, signal) == 1 && ::sigismember(&pendingBefore_, signal) == 0;
      if (isOurs) consume(signal);
    }
  }

  static void consume(int signal) noexcept {
    sigset_t one;
    ::sigemptyset(&one);
    ::sigaddset(&one, signal);
#ifdef __APPLE__  // has no sigtimedwait
    ::sigwait(&one, &signal);
#else
    // Does not wait: what was pending for the process may be another thread's now.
    timespec const noTime{};
    ::sigtimedwait(&one, nullptr, &noTime);
#endif
  }

  int errnoBefore_ = errno;
  int cancelStateBefore_ = PTHREAD_CANCEL_ENABLE;
  sigset_t pendingBefore_{};
  sigset_t maskBefore_{};
};

}  // namespace vrxutil::detail

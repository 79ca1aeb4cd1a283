// Signals that come at a bad time.

#pragma once

#include <csignal>

namespace vrxtool {

/// All signals wait as long as it lives.
class SignalsBlocked {
public:
  SignalsBlocked() {
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_BLOCK, &all, &before_);
  }

  ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

  SignalsBlocked(SignalsBlocked const&) = delete;
  SignalsBlocked& operator=(SignalsBlocked const&) = delete;

  sigset_t const& before() const { return before_; }

private:
  sigset_t before_;
};

}  // namespace vrxtool

// A thread kept from being cancelled.
//
// Internal; not installed.

#pragma once

#include <pthread.h>

namespace vrxutil::detail {

/// Keeps a pending pthread_cancel waiting while it lives.
class CancellationDisabled {
public:
  CancellationDisabled() noexcept { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }

  ~CancellationDisabled() { ::pthread_setcancelstate(before_, nullptr); }

  CancellationDisabled(CancellationDisabled const&) = delete;
  CancellationDisabled& operator=(CancellationDisabled const&) = delete;

private:
  int before_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace vrxutil::detail

// Calls that write, kept from disturbing the thread that makes them.

#pragma once

#include "platform/common/cancellation.h"
#include "platform/common/write_signals.h"

#include <cerrno>

namespace vrxutil::detail {

/// While it lives, what the calling thread writes has no effect on it but its
/// result: no signal, no cancellation. errno is at the end what it was at the
/// start.
class Undisturbed {
public:
  Undisturbed() noexcept = default;

  ~Undisturbed() { errno = errnoBefore_; }

  Undisturbed(Undisturbed const&) = delete;
  Undisturbed& operator=(Undisturbed const&) = delete;

private:
  int errnoBefore_ = errno;
  // Ends last: taking signals back is a point of cancellation.
  CancellationDisabled cancellation_;
  WriteSignalsBlocked signals_;
};

}  // namespace vrxutil::detail

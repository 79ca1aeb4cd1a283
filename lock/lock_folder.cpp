#include "lock/lock_folder.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>

namespace vrxutil::detail {

namespace {

using std::chrono::microseconds;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience{2};
constexpr microseconds kFirstPause{2};
constexpr microseconds kLongestPause{1000};

/// Waits in pauses, since a wait for flock itself has no end.
void lockPatiently(int folder) noexcept {
  Clock::time_point const end = Clock::now() + kPatience;
  microseconds pause = kFirstPause;
  while (::flock(folder, LOCK_EX | LOCK_NB) != 0) {
    bool const isTaken = errno == EWOULDBLOCK || errno == EINTR;
    if (!isTaken || Clock::now() >= end) return;
    std::this_thread::sleep_for(pause);
    pause = std::min(2 * pause, kLongestPause);
  }
}

}  // namespace

LockFolderHold::LockFolderHold() noexcept
    : folder_(::open(kLockFolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  if (folder_.get() >= 0) lockPatiently(folder_.get());
}

// Closing alone would not do: a child forked meanwhile has the lock open, too.
LockFolderHold::~LockFolderHold() {
  if (folder_.get() >= 0) static_cast<void>(::flock(folder_.get(), LOCK_UN));
}

}  // namespace vrxutil::detail

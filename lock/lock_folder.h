// The folder of the key files, and how processes of this library keep out of each
// other's way in it.
//
// Internal; not installed.

#pragma once

#include "platform/common/cancellation.h"
#include "platform/common/file_io.h"

namespace vrxutil::detail {

/// Part of the protocol between processes: a name is appended to it as it is.
inline constexpr char kLockFolder[] = "/Library/Vornix/oxa/scratch/";

/// The folder, held by an advisory lock (flock(2)) as long as the object lives.
///
/// Making and removing a lock takes several system calls, between which other processes
/// may do the same. This keeps those of this library apart; others know nothing of it.
/// So it is waited for up to two seconds and then done without, as where the folder
/// cannot be opened. The thread that made it is not cancelled while it lives.
class LockFolderHold {
public:
  LockFolderHold() noexcept;
  ~LockFolderHold();

  LockFolderHold(LockFolderHold const&) = delete;
  LockFolderHold& operator=(LockFolderHold const&) = delete;

private:
  CancellationDisabled undisturbed_;  // ends last: closing is a point of cancellation
  Descriptor folder_;
};

}  // namespace vrxutil::detail

// Whether a process is still the one that made an object.
//
// Internal; not installed.

#pragma once

namespace vrxutil::detail {

/// Begins to count forks, once for the process. Throws std::bad_alloc where the system
/// has no room to.
void countForks();

/// How many forks lie between this process and the one that called countForks() first;
/// it costs no system call. Children made by vfork() or by the bare system call are not
/// counted.
unsigned forkGeneration() noexcept;

}  // namespace vrxutil::detail

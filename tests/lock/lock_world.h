// A world of a process's own for the locks between processes: the folder of their key files
// is fixed, and semaphore sets are everybody's.

#pragma once

#include "tests/support/private_mounts.h"

#include <filesystem>
#include <string>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vrxutil::test {

inline constexpr char kLockFolder[] = "/Library/Vornix/oxa/scratch/";

/// Why there is none.
inline constexpr char kNoWorld[] = "the host allows no private mounts, semaphores and root folder";

/// Makes `stage` a root folder with all that the present one has, but without what the lock
/// folder lies in, and with room for more.
inline bool buildRoot(std::filesystem::path const& stage) {
  namespace fs = std::filesystem;
  // Seen through this handle when the new root covers it.
  int const covered = ::open(stage.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (::mount("tmpfs", stage.c_str(), "tmpfs", 0, "mode=755") != 0) return false;
  for (fs::directory_entry const& entry : fs::directory_iterator("/")) {
    if (entry.path() == "/Library") continue;
    fs::path const copy = stage / entry.path().filename();
    if (entry.is_symlink()) {
      fs::copy_symlink(entry.path(), copy);
    } else if (entry.is_directory()) {
      fs::create_directory(copy);
      std::string const source = entry.path() == stage ? "/proc/self/fd/" + std::to_string(covered)
                                                       : entry.path().string();
      if (::mount(source.c_str(), copy.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
        return false;
      }
    }
  }
  return true;
}

/// Brings this process where nobody else's semaphores and an empty lock folder are.
/// Nothing of it stays on the host.
inline bool enterWorld() {
  bool const isAlone = ::geteuid() == 0
                           ? ::unshare(CLONE_NEWIPC) == 0 && enterMountNamespace()
                           : enterUserNamespace(CLONE_NEWNS | CLONE_NEWIPC) &&
                                 ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
  constexpr char kStage[] = "/mnt";
  ::umask(022);  // scenarios have other users, too
  if (!isAlone || !buildRoot(kStage)) return false;
  std::filesystem::path const here = std::filesystem::current_path();
  if (::chroot(kStage) != 0 || ::chdir(here.c_str()) != 0) return false;
  std::filesystem::create_directories(kLockFolder);
  return true;
}

}  // namespace vrxutil::test

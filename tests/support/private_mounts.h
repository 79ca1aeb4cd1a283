// Mounts that only this process sees, and that go with it: for child processes,
// of root or, in a user namespace, of anybody.

#pragma once

#ifdef __linux__

#include <fstream>
#include <string>

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

namespace vrxutil::test {

/// Why a test that needs mounts is skipped.
inline constexpr char kNoMounts[] = "the host does not allow private mounts";

/// Enters a user namespace in which there is root, who is this process's user,
/// and nobody else; other new namespaces with it (flags of clone(2)).
inline bool enterUserNamespace(int moreNamespaces = 0) {
  auto const writeTo = [](char const* path, std::string const& text) {
    return static_cast<bool>(std::ofstream(path) << text << std::flush);
  };
  auto const mappedToRoot = [](unsigned id) { return "0 " + std::to_string(id) + " 1"; };
  std::string const user = mappedToRoot(::geteuid());
  std::string const group = mappedToRoot(::getegid());
  return ::unshare(CLONE_NEWUSER | moreNamespaces) == 0 &&
         writeTo("/proc/self/setgroups", "deny") && writeTo("/proc/self/uid_map", user) &&
         writeTo("/proc/self/gid_map", group);
}

/// Whether this process may now mount what only it sees.
inline bool enterMountNamespace() {
  bool const isAlone =
      ::geteuid() == 0 ? ::unshare(CLONE_NEWNS) == 0 : enterUserNamespace(CLONE_NEWNS);
  return isAlone && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

}  // namespace vrxutil::test

#endif

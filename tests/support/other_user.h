// A process without root's rights: for child processes.

#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <iterator>

#include <grp.h>
#include <unistd.h>

namespace vrxutil::test {

inline constexpr uid_t kOtherUser = 12345;
inline constexpr gid_t kOtherGroup = 12346;

/// Gives up root's rights for good, if the process has them, and goes on as
/// `user` with these groups beside its own; false where that fails.
[[nodiscard]] inline bool leaveRoot(uid_t user = kOtherUser,
                                    std::initializer_list<gid_t> moreGroups = {}) {
  if (::geteuid() != 0) return true;
  return ::setgroups(moreGroups.size(), std::data(moreGroups)) == 0 && ::setgid(kOtherGroup) == 0 &&
         ::setuid(user) == 0;
}

/// The same as a check that ends the function.
inline void becomeOtherUser(uid_t user = kOtherUser) {
  ASSERT_TRUE(leaveRoot(user)) << "the rights of root stay";
}

}  // namespace vrxutil::test

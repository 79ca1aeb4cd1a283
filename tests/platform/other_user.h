// A process without root's rights.

#pragma once

#include <gtest/gtest.h>

#include <grp.h>
#include <unistd.h>

namespace vrxutil::test {

/// Gives up root's rights, if the process has them: for child processes.
inline void becomeOtherUser() {
  constexpr uid_t kOtherUser = 12345;
  constexpr gid_t kOtherGroup = 12346;
  if (::geteuid() != 0) return;
  ASSERT_EQ(::setgroups(0, nullptr), 0);
  ASSERT_EQ(::setgid(kOtherGroup), 0);
  ASSERT_EQ(::setuid(kOtherUser), 0);
}

}  // namespace vrxutil::test

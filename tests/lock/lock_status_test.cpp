// UnixLock::getStatus: a lock seen from outside.

#include "tests/lock/lock_support.h"
#include "tests/support/temporary_folder.h"

#include <vrxutil/lock.h>

#include <array>
#include <string>

#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

using vornix_com::oxa::lock::LockStatus;
using vornix_com::oxa::lock::UnixLock;
using vrxutil::test::errorInside;
using vrxutil::test::expectInWorld;
using vrxutil::test::keyFile;
using vrxutil::test::kLockFolder;
using vrxutil::test::LogRecorder;
using vrxutil::test::makeSet;
using vrxutil::test::Records;
using vrxutil::test::setOf;
using vrxutil::test::Values;
using vrxutil::test::valuesOf;

/// Leaves of root's rights those of any user; users that are not root have them in a world
/// of their own, too, where there is nobody else to become.
bool giveUpPrivileges() {
  __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
  std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> none{};
  return ::syscall(SYS_capset, &header, none.data()) == 0;
}

/// Checks that the lock jobs cannot be looked at.
void expectDeniedWithoutPrivileges() {
  EXPECT_TRUE(vrxutil::test::holdsInChild([] {
    ASSERT_TRUE(giveUpPrivileges());
    LockStatus status;
    LogRecorder const log;
    EXPECT_FALSE(UnixLock::getStatus("jobs", status));
    EXPECT_EQ(log.records(),
              errorInside({}, L"IPLock", L"Failed to look at the lock jobs: Permission denied"));
  }));
}

TEST(LockStatusTest, TheKeyFolderIsThatOfTheProtocol) {
  EXPECT_STREQ(UnixLock::getKeyFolder(), kLockFolder);
}

TEST(LockStatusTest, ShowsWhoHasTheLock) {
  expectInWorld([] {
    UnixLock first("jobs");
    UnixLock const second("jobs");
    ASSERT_TRUE(first.tryWriteLock());
    LockStatus status;
    ASSERT_TRUE(UnixLock::getStatus("jobs", status));
    EXPECT_TRUE(status.hasSet);
    EXPECT_EQ(status.semaphoreId, setOf("jobs"));
    EXPECT_EQ(status.writers, 1U);
    EXPECT_EQ(status.users, 1U);
    EXPECT_EQ(status.references, 2U);
    EXPECT_EQ(status.lastWriterProcess, ::getpid());
    EXPECT_EQ(status.lastUserProcess, ::getpid());
    EXPECT_EQ(status.lastReferenceProcess, ::getpid());
    EXPECT_EQ(status.owner, ::geteuid());
    EXPECT_EQ(status.creator, ::geteuid());
    EXPECT_EQ(status.mode, 0600U);
    EXPECT_GT(status.lastOperationTime, 0);
    first.writeUnlock();
  });
}

TEST(LockStatusTest, ShowsTheProcessesThatOperatedLast) {
  expectInWorld([] {
    UnixLock ours("jobs");
    ASSERT_TRUE(ours.tryReadLock());
    auto const reader = vrxutil::test::runInChild([] {
      UnixLock lock("jobs");
      EXPECT_TRUE(lock.tryReadLock() && lock.readUnlock());
    });
    ASSERT_EQ(reader.status, 0) << reader.standardError;
    EXPECT_TRUE(ours.readUnlock());
    auto const visitor = vrxutil::test::runInChild([] { UnixLock const lock("jobs"); });
    ASSERT_EQ(visitor.status, 0) << visitor.standardError;
    LockStatus status;
    ASSERT_TRUE(UnixLock::getStatus("jobs", status));
    EXPECT_EQ(status.lastWriterProcess, reader.process);  // it saw that there was none
    EXPECT_EQ(status.lastUserProcess, ::getpid());
    EXPECT_EQ(status.lastReferenceProcess, visitor.process);
    EXPECT_EQ(status.users, 0U);
    EXPECT_EQ(status.references, 1U);
  });
}

TEST(LockStatusTest, ChangesNothing) {
  expectInWorld([] {
    UnixLock const lock("jobs");
    LockStatus status;
    LogRecorder const log;
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(UnixLock::getStatus("jobs", status));
    EXPECT_EQ(valuesOf("jobs"), (Values{0, 0, 1}));
    EXPECT_FALSE(UnixLock::getStatus("none", status));
    EXPECT_FALSE(vrxutil::test::exists(keyFile("none")));
    EXPECT_EQ(log.records(), Records{});
  });
}

TEST(LockStatusTest, AKeyFileAloneHasNoSet) {
  expectInWorld([] {
    vrxutil::test::makeFile(keyFile("stale"), "");
    LockStatus status;
    status.hasSet = true;
    EXPECT_TRUE(UnixLock::getStatus("stale", status));
    EXPECT_FALSE(status.hasSet);
    EXPECT_EQ(status.semaphoreId, -1);
    EXPECT_EQ(vrxutil::test::setCount(), 0);
  });
}

TEST(LockStatusTest, NamesThatNoFileCanHaveAreNoLocks) {
  expectInWorld([] {
    vrxutil::test::makeFile(keyFile("file"), "");
    LockStatus status;
    LogRecorder const log;
    for (std::string const& name : {std::string(256, 'x'), std::string(5000, 'x'),
                                    std::string("file/x"), std::string("a/..")}) {
      EXPECT_FALSE(UnixLock::getStatus(name, status)) << name;
    }
    EXPECT_EQ(log.records(), Records{});
  });
}

TEST(LockStatusTest, AKeyFileThatCannotBeFoundOutIsLogged) {
  expectInWorld([] {
    std::filesystem::create_symlink("circle", keyFile("circle"));
    LockStatus status;
    status.users = 7;
    LogRecorder const log;
    EXPECT_FALSE(UnixLock::getStatus("circle", status));
    EXPECT_EQ(status.users, 7U);
    EXPECT_EQ(log.records(), errorInside({}, L"IPLock",
                                         L"Failed to look at the lock circle: Too many levels of "
                                         L"symbolic links"));
  });
}

TEST(LockStatusTest, AFolderThatMayNotBeEnteredIsLogged) {
  expectInWorld([] {
    makeSet("jobs", 3);
    std::filesystem::permissions(kLockFolder, std::filesystem::perms::none);
    expectDeniedWithoutPrivileges();
  });
}

TEST(LockStatusTest, NamesThatAreNoneAreNoLocks) {
  expectInWorld([] {
    std::filesystem::create_directory(keyFile("folder"));
    vrxutil::test::makeFile(keyFile("file"), "");
    LockStatus status;
    LogRecorder const log;
    for (std::string const name : {"", "folder", "../scratch/x", "../scratch/file", "..", "a/b"}) {
      EXPECT_FALSE(UnixLock::getStatus(name, status)) << name;
    }
    EXPECT_FALSE(UnixLock::getStatus(std::string("a\0b", 3), status));
    EXPECT_EQ(log.records(), Records{});
  });
}

TEST(LockStatusTest, ASetOfAnotherSizeIsLogged) {
  expectInWorld([] {
    makeSet("odd", 2);
    LockStatus status;
    status.users = 7;
    LogRecorder const log;
    EXPECT_FALSE(UnixLock::getStatus("odd", status));
    EXPECT_EQ(status.users, 7U);
    EXPECT_EQ(log.records(),
              errorInside({}, L"IPLock", L"Failed to look at the lock odd: its set is no lock's"));
  });
}

TEST(LockStatusTest, ASetThatMayNotBeReadIsLogged) {
  expectInWorld([] {
    makeSet("jobs", 3, 0);
    expectDeniedWithoutPrivileges();
  });
}

}  // namespace

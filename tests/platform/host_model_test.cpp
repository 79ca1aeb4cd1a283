#include "tests/platform/child_process.h"
#include "tests/support/other_user.h"
#include "tests/support/private_mounts.h"
#include "tests/support/temporary_folder.h"

#include <zulral/zulral.h>

#include <gtest/gtest.h>

#ifndef __APPLE__

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <ostream>
#include <string>
#include <thread>

#include <sys/stat.h>
#include <unistd.h>

namespace vrxutil::test {
namespace {

/// The whole answer to "hw.model"; nothing with errno set where there is none.
std::optional<std::string> model() {
  std::size_t size = 0;
  if (::sysctlbyname("hw.model", nullptr, &size, nullptr, 0) != 0) return std::nullopt;
  std::string text(size, '?');
  if (::sysctlbyname("hw.model", text.data(), &size, nullptr, 0) != 0) return std::nullopt;
  EXPECT_EQ(size, text.size());
  EXPECT_EQ(text.back(), '\0');
  text.pop_back();
  return text;
}

constexpr int kNotPossible = 77;  // a child's exit status

/// What fails with this number of errno.
void expectFailure(int number) {
  std::array<char, 64> text{};
  std::size_t size = text.size();
  errno = 0;
  EXPECT_EQ(::sysctlbyname("hw.model", text.data(), &size, nullptr, 0), -1);
  EXPECT_EQ(errno, number);
}

/// The firmware's tables as the test has them.
class HostModelTest : public testing::Test {
protected:
  HostModelTest() : before_(zulSetFirmwareFolder(folder_.path().c_str())) {}

  ~HostModelTest() override { zulSetFirmwareFolder(before_); }

  void have(std::string const& productName, std::string const& chassisType) {
    makeFile(folder_ / "product_name", productName);
    makeFile(folder_ / "chassis_type", chassisType);
  }

  TemporaryFolder folder_;

private:
  char const* before_;
};

// --- What is answered -------------------------------------------------------------------

TEST_F(HostModelTest, DesktopIsItsProductName) {
  have("OptiPlex 7010\n", "3\n");
  EXPECT_EQ(model(), "OptiPlex 7010");
}

// DMTF DSP0134, table 17.
TEST_F(HostModelTest, PortableChassisIsNamed) {
  constexpr std::array kPortable = {8, 9, 10, 11, 14, 30, 31, 32};
  for (int type = 0; type <= 40; ++type) {
    have("Latitude\n", std::to_string(type) + "\n");
    bool const isPortable = std::find(kPortable.begin(), kPortable.end(), type) != kPortable.end();
    EXPECT_EQ(model(), isPortable ? "Latitude (notebook)" : "Latitude") << type;
  }
}

TEST_F(HostModelTest, ChassisThatIsNoNumberIsNotPortable) {
  for (char const* const type : {"", "\n", "notebook\n", "-10\n", "10000000000000000000010\n",
                                 "100\n", "1\n0\n", "0x0A\n"}) {
    have("Latitude\n", type);
    EXPECT_EQ(model(), "Latitude") << type;
  }
}

TEST_F(HostModelTest, LineEndIsNoPartOfTheName) {
  have("Latitude", "10");
  EXPECT_EQ(model(), "Latitude (notebook)");
  have("Latitude\nmore\n", "10\nmore\n");
  EXPECT_EQ(model(), "Latitude (notebook)");
  have("\n", "3\n");
  EXPECT_EQ(model(), "");
  have("", "10\n");
  EXPECT_EQ(model(), " (notebook)");
}

TEST_F(HostModelTest, NameIsNotChanged) {
  have("  X\xC3\xA4 \xFF, Rev. 2 \n", "3\n");
  EXPECT_EQ(model(), "  X\xC3\xA4 \xFF, Rev. 2 ");
}

TEST_F(HostModelTest, TablesAreReadAnew) {
  have("Old\n", "3\n");
  EXPECT_EQ(model(), "Old");
  have("New\n", "9\n");
  EXPECT_EQ(model(), "New (notebook)");
}

// --- Tables that cannot be read ---------------------------------------------------------

TEST_F(HostModelTest, AbsentTablesAreMissing) {
  expectFailure(ENOENT);
  makeFile(folder_ / "product_name", "Latitude\n");
  expectFailure(ENOENT);
  makeFile(folder_ / "chassis_type", "10\n");
  EXPECT_EQ(model(), "Latitude (notebook)");
  std::filesystem::remove(folder_ / "product_name");
  expectFailure(ENOENT);
}

TEST_F(HostModelTest, AbsentFolderIsMissing) {
  std::string const absent = folder_ / "absent";
  zulSetFirmwareFolder(absent.c_str());
  expectFailure(ENOENT);
  zulSetFirmwareFolder("");
  expectFailure(ENOENT);
}

TEST_F(HostModelTest, FolderIsNoTable) {
  for (char const* const name : {"product_name", "chassis_type"}) {
    have("Latitude\n", "10\n");
    std::filesystem::remove(folder_ / name);
    std::filesystem::create_directory(folder_ / name);
    expectFailure(EISDIR);
    std::filesystem::remove(folder_ / name);
  }
}

TEST_F(HostModelTest, LinkToItselfIsNoTable) {
  have("Latitude\n", "10\n");
  std::filesystem::remove(folder_ / "chassis_type");
  std::filesystem::create_symlink("chassis_type", folder_ / "chassis_type");
  expectFailure(ELOOP);
}

TEST_F(HostModelTest, TableThatMayNotBeReadIsAFailure) {
  for (char const* const name : {"product_name", "chassis_type"}) {
    have("Latitude\n", "10\n");
    ASSERT_EQ(::chmod(folder_.path().c_str(), 0755), 0);
    ASSERT_EQ(::chmod((folder_ / name).c_str(), 0), 0);
    ChildResult const child = runInChild([] {
      becomeOtherUser();
      expectFailure(EACCES);
    });
    EXPECT_EQ(child.status, 0) << name;
    ASSERT_EQ(::chmod((folder_ / name).c_str(), 0600), 0);
  }
}

TEST_F(HostModelTest, TableOfMoreThan4096BytesIsAFailure) {
  have(std::string(4095, 'x') + "\n", "3\n");
  EXPECT_EQ(model(), std::string(4095, 'x'));
  have(std::string(4096, 'x') + "\n", "3\n");
  expectFailure(EFBIG);
  have("Latitude\n", "10\n" + std::string(4094, '\n'));
  expectFailure(EFBIG);
}

TEST_F(HostModelTest, EndlessTableIsAFailure) {
  have("Latitude\n", "10\n");
  std::filesystem::remove(folder_ / "product_name");
  std::filesystem::create_symlink("/dev/zero", folder_ / "product_name");
  EXPECT_EQ(model(), std::nullopt);
}

// --- The call ---------------------------------------------------------------------------

TEST_F(HostModelTest, NullBufferAsksForTheSize) {
  have("Latitude\n", "3\n");
  std::size_t size = 0;
  EXPECT_EQ(::sysctlbyname("hw.model", nullptr, &size, nullptr, 0), 0);
  EXPECT_EQ(size, sizeof "Latitude");
}

TEST_F(HostModelTest, TextAndNulAreCopied) {
  have("Latitude\n", "3\n");
  for (std::size_t const room : {sizeof "Latitude", sizeof "Latitude" + 5}) {
    std::string text(room + 1, '?');
    std::size_t size = room;
    EXPECT_EQ(::sysctlbyname("hw.model", text.data(), &size, nullptr, 0), 0);
    EXPECT_EQ(size, sizeof "Latitude");
    std::string expected(room + 1, '?');
    expected.replace(0, sizeof "Latitude", "Latitude", sizeof "Latitude");
    EXPECT_EQ(text, expected);
  }
}

TEST_F(HostModelTest, SmallBufferGetsWhatFits) {
  have("Latitude\n", "3\n");
  for (std::size_t room = 0; room < sizeof "Latitude"; ++room) {
    std::string text(20, '?');
    std::size_t size = room;
    errno = 0;
    EXPECT_EQ(::sysctlbyname("hw.model", text.data(), &size, nullptr, 0), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(size, room);
    EXPECT_EQ(text, std::string("Latitude").substr(0, room) + std::string(20 - room, '?'));
  }
}

TEST_F(HostModelTest, BufferNeedsASize) {
  have("Latitude\n", "3\n");
  char text = '?';
  errno = 0;
  EXPECT_EQ(::sysctlbyname("hw.model", &text, nullptr, nullptr, 0), -1);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_EQ(text, '?');
  EXPECT_EQ(::sysctlbyname("hw.model", nullptr, nullptr, nullptr, 0), 0);
}

TEST_F(HostModelTest, OtherNamesAreUnknown) {
  have("Latitude\n", "3\n");
  for (char const* const name :
       {"hw.machine", "hw.mode", "hw.model.x", "HW.MODEL", "", static_cast<char const*>(nullptr)}) {
    std::array<char, 16> text{};
    std::size_t size = text.size();
    errno = 0;
    EXPECT_EQ(::sysctlbyname(name, text.data(), &size, nullptr, 0), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(text, (std::array<char, 16>{}));
  }
}

TEST_F(HostModelTest, ModelCannotBeSet) {
  have("Latitude\n", "3\n");
  char const newModel[] = "Other";
  errno = 0;
  EXPECT_EQ(::sysctlbyname("hw.model", nullptr, nullptr, newModel, sizeof newModel), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(model(), "Latitude");
}

// --- Where the tables are ---------------------------------------------------------------

TEST_F(HostModelTest, FolderBeforeIsReturned) {
  EXPECT_EQ(zulSetFirmwareFolder("/a"), folder_.path().c_str());
  EXPECT_STREQ(zulSetFirmwareFolder(nullptr), "/a");
  EXPECT_EQ(zulSetFirmwareFolder(nullptr), nullptr);
}

#ifdef __linux__

TEST_F(HostModelTest, NullFolderIsTheKernels) {
  zulSetFirmwareFolder(nullptr);
  std::ifstream productName("/sys/class/dmi/id/product_name");
  std::ifstream const chassisType("/sys/class/dmi/id/chassis_type");
  std::optional<std::string> const answer = model();
  EXPECT_EQ(answer.has_value(), productName.is_open() && chassisType.is_open());
  std::string line;
  std::getline(productName, line);
  EXPECT_TRUE(answer.value_or(line).starts_with(line));
}

// In a folder of this process's own in the place of the kernel's.
TEST_F(HostModelTest, KernelShowsTheTables) {
  zulSetFirmwareFolder(nullptr);
  ChildResult const result = runInChild([] {
    bool const isMounted =
        enterMountNamespace() && ::mount("none", "/sys", "tmpfs", 0, nullptr) == 0;
    if (!isMounted) ::_exit(kNotPossible);
    std::filesystem::create_directories("/sys/class/dmi/id");
    expectFailure(ENOENT);
    makeFile("/sys/class/dmi/id/product_name", "Latitude\n");
    makeFile("/sys/class/dmi/id/chassis_type", "10\n");
    EXPECT_EQ(model(), "Latitude (notebook)");
  });
  if (result.status == kNotPossible << 8) GTEST_SKIP() << kNoMounts;
  EXPECT_EQ(result.status, 0) << result.standardError;
}

#endif

TEST_F(HostModelTest, FolderMayChangeDuringQueries) {
  have("First\n", "3\n");
  TemporaryFolder const other;
  makeFile(other / "product_name", "Second\n");
  makeFile(other / "chassis_type", "3\n");
  std::thread querying([] {
    for (int i = 0; i < 200; ++i) {
      std::array<char, 16> text{};
      std::size_t size = text.size();
      EXPECT_EQ(::sysctlbyname("hw.model", text.data(), &size, nullptr, 0), 0);
      EXPECT_TRUE(std::string(text.data()) == "First" || std::string(text.data()) == "Second");
    }
  });
  for (int i = 0; i < 200; ++i) {
    zulSetFirmwareFolder(i % 2 == 0 ? other.path().c_str() : folder_.path().c_str());
  }
  querying.join();
}

}  // namespace
}  // namespace vrxutil::test

#endif

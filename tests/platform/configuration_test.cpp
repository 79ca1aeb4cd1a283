#include "tests/platform/child_process.h"
#include "tests/support/locale_scope.h"
#include "tests/support/other_user.h"
#include "tests/support/private_mounts.h"
#include "tests/support/temporary_folder.h"

#include <vrxcomn/configuration.h>

#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <filesystem>
#include <map>
#include <optional>
#include <string>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#ifdef __linux__
#include <sys/auxv.h>
#include <sys/mount.h>
#endif

namespace vrxutil::test {

namespace {

using vornix_com::oxa::configuration::IConfiguration;

namespace fs = std::filesystem;

using Environment = std::map<std::string, std::string>;

constexpr uid_t kNobody = 65534;
constexpr uid_t kStranger = 54321;  // not in the user database

std::wstring dataFolder() {
  return IConfiguration::GetConfiguration()->GetFrameworkDataDirectory();
}

std::wstring updaterFolder() { return IConfiguration::GetConfiguration()->GetUpdaterDataDir(); }

/// `path` as the system's calls take it; nothing where the locale cannot express it.
std::optional<std::string> narrowed(std::wstring const& path) {
  std::string bytes(path.size() * MB_LEN_MAX + 1, '\0');
  std::size_t const length = std::wcstombs(bytes.data(), path.c_str(), bytes.size());
  if (length == static_cast<std::size_t>(-1)) return std::nullopt;
  bytes.resize(length);
  return bytes;
}

/// Sets exactly these of the variables that the configuration reads.
void setEnvironment(Environment const& environment) {
  for (char const* name : {"VRX_DATA_DIR", "VRX_UPDATER_DIR", "XDG_STATE_HOME", "HOME"}) {
    auto const variable = environment.find(name);
    if (variable == environment.end()) {
      ::unsetenv(name);
    } else {
      ::setenv(name, variable->second.c_str(), 1);
    }
  }
}

/// Runs `checks` in a child, so that environment, locale and user stay this
/// process's.
template <class Checks>
void runChecks(Environment const& environment, Checks checks) {
  ChildResult const result = runInChild([&] {
    setEnvironment(environment);
    checks();
  });
  EXPECT_EQ(0, result.status);
  EXPECT_EQ("", result.standardError);
}

struct VariableRow {
  char const* name;
  char const* value;
  std::wstring folder;
};

class VariableTest : public testing::TestWithParam<VariableRow> {};

TEST_P(VariableTest, NamesTheFolder) {
  runChecks({{"VRX_DATA_DIR", GetParam().value}, {"VRX_UPDATER_DIR", "/u"}}, [] {
    EXPECT_EQ(GetParam().folder, dataFolder());
    EXPECT_EQ(L"/u", updaterFolder());
  });
  runChecks({{"VRX_DATA_DIR", "/d"}, {"VRX_UPDATER_DIR", GetParam().value}}, [] {
    EXPECT_EQ(L"/d", dataFolder());
    EXPECT_EQ(GetParam().folder, updaterFolder());
  });
}

template <class Row>
std::string rowName(testing::TestParamInfo<Row> const& row) {
  return row.param.name;
}

INSTANTIATE_TEST_SUITE_P(Folders, VariableTest,
                         testing::Values(VariableRow{"Plain", "/srv/agent", L"/srv/agent"},
                                         VariableRow{"SlashAtTheEnd", "/srv/agent/", L"/srv/agent"},
                                         VariableRow{"Slashes", "/srv//agent///", L"/srv//agent"},
                                         VariableRow{"Root", "/", L"/"},
                                         VariableRow{"RootTwice", "//", L"/"},
                                         VariableRow{"Blank", "/ a ", L"/ a "},
                                         VariableRow{"Dots", "/a/../b/.", L"/a/../b/."}),
                         rowName<VariableRow>);

class UnusableVariableTest : public testing::TestWithParam<char const*> {};

TEST_P(UnusableVariableTest, CountsAsUnset) {
  runChecks({{"HOME", "/h"}, {"VRX_DATA_DIR", GetParam()}, {"VRX_UPDATER_DIR", GetParam()}}, [] {
    std::wstring const data = dataFolder();
    std::wstring const updater = updaterFolder();
    setEnvironment({{"HOME", "/h"}});
    EXPECT_EQ(dataFolder(), data);
    EXPECT_EQ(updaterFolder(), updater);
  });
}

INSTANTIATE_TEST_SUITE_P(Values, UnusableVariableTest,
                         testing::Values("", "relative", "./a", "~/a", " /a"));

#ifdef __APPLE__

TEST(ConfigurationTest, FoldersOfMacOsLieInTheLibrary) {
  runChecks({}, [] {
    EXPECT_EQ(L"/Library/Vornix/oxa", dataFolder());
    EXPECT_EQ(L"/Library/Vornix/updater", updaterFolder());
  });
}

#else

TEST(ConfigurationTest, RootUsesTheSystemsFolders) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can be root";
  runChecks({{"HOME", "/h"}, {"XDG_STATE_HOME", "/s"}}, [] {
    EXPECT_EQ(L"/var/lib/vornix/oxa", dataFolder());
    EXPECT_EQ(L"/var/lib/vornix/updater", updaterFolder());
  });
}

struct UserRow {
  char const* name;
  Environment environment;
  std::wstring state;
};

class UserTest : public testing::TestWithParam<UserRow> {};

TEST_P(UserTest, UsesTheXdgStateFolder) {
  runChecks(GetParam().environment, [] {
    becomeOtherUser(kNobody);
    EXPECT_EQ(GetParam().state + L"/vornix/oxa", dataFolder());
    EXPECT_EQ(GetParam().state + L"/vornix/updater", updaterFolder());
  });
}

INSTANTIATE_TEST_SUITE_P(
    Environments, UserTest,
    testing::Values(
        UserRow{"State", {{"XDG_STATE_HOME", "/s"}, {"HOME", "/h"}}, L"/s"},
        UserRow{"StateIsRoot", {{"XDG_STATE_HOME", "/"}}, L""},
        UserRow{"StateWithSlash", {{"XDG_STATE_HOME", "/s/"}}, L"/s"},
        UserRow{"StateIsEmpty", {{"XDG_STATE_HOME", ""}, {"HOME", "/h"}}, L"/h/.local/state"},
        UserRow{"StateIsRelative", {{"XDG_STATE_HOME", "s"}, {"HOME", "/h"}}, L"/h/.local/state"},
        UserRow{"Home", {{"HOME", "/h"}}, L"/h/.local/state"},
        UserRow{"HomeWithSlash", {{"HOME", "/h/"}}, L"/h/.local/state"},
        UserRow{"HomeIsRoot", {{"HOME", "/"}}, L"/.local/state"}),
    rowName<UserRow>);

class HomelessTest : public testing::TestWithParam<Environment> {};

TEST_P(HomelessTest, HomeComesFromTheUserDatabase) {
  runChecks(GetParam(), [] {
    becomeOtherUser(kNobody);
    passwd const* const entry = ::getpwuid(::geteuid());
    std::string const home = entry != nullptr ? entry->pw_dir : "";
    std::wstring const state(home.begin(), home.end());
    // Whoever runs the tests may have no entry.
    EXPECT_EQ(entry != nullptr ? state + L"/.local/state/vornix/oxa" : L"/var/lib/vornix/oxa",
              dataFolder());
  });
}

INSTANTIATE_TEST_SUITE_P(Environments, HomelessTest,
                         testing::Values(Environment{}, Environment{{"HOME", ""}},
                                         Environment{{"HOME", "h"}, {"XDG_STATE_HOME", "s"}}));

TEST(ConfigurationTest, EffectiveUserCounts) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become somebody else and back";
  runChecks({{"XDG_STATE_HOME", "/s"}}, [] {
    ASSERT_EQ(0, ::seteuid(kNobody));
    EXPECT_EQ(L"/s/vornix/oxa", dataFolder());
    ASSERT_EQ(0, ::seteuid(0));
  });
  runChecks({}, [] {
    ASSERT_EQ(0, ::seteuid(kStranger));
    EXPECT_EQ(L"/var/lib/vornix/oxa", dataFolder());  // root would have a home
    ASSERT_EQ(0, ::seteuid(0));
  });
}

TEST(ConfigurationTest, UserWithoutAHomeGetsTheSystemsFolders) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become a user without an entry";
  runChecks({}, [] {
    ASSERT_EQ(nullptr, ::getpwuid(kStranger));
    becomeOtherUser(kStranger);
    EXPECT_EQ(L"/var/lib/vornix/oxa", dataFolder());
    EXPECT_EQ(L"/var/lib/vornix/updater", updaterFolder());
  });
}

#endif

#ifdef __linux__

/// The exit status of a child that could not do what its check rests on.
constexpr int kNotPossible = 77;

TEST(ConfigurationTest, EntryOfTheUserDatabaseMayBeLong) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can put a user database in the other's place";
  TemporaryFolder const folder;
  makeFile(folder / "passwd",
           "stranger:x:54321:54321:" + std::string(20000, 'n') + ":/home/stranger:/bin/false\n");
  ChildResult const result = runInChild([&] {
    setEnvironment({});
    bool const isMounted =
        enterMountNamespace() &&
        ::mount((folder / "passwd").c_str(), "/etc/passwd", nullptr, MS_BIND, nullptr) == 0;
    if (!isMounted) ::_exit(kNotPossible);
    fs::permissions(folder.path(), fs::perms::all);
    fs::permissions(folder / "passwd", fs::perms::all);
    becomeOtherUser(kStranger);
    EXPECT_EQ(L"/home/stranger/.local/state/vornix/oxa", dataFolder());
  });
  if (result.status == kNotPossible << 8) GTEST_SKIP() << kNoMounts;
  EXPECT_EQ(0, result.status) << result.standardError;
}

/// Runs this test once more as a set-uid program, with an environment that it is
/// to ignore.
[[noreturn]] void runAsSetUidProgram(std::string const& program) {
  std::array<char const*, 3> const arguments{
      program.c_str(), "--gtest_filter=ConfigurationTest.RaisedPrivilegesIgnoreTheEnvironment",
      nullptr};
  std::array<char const*, 4> const environment{"VRX_DATA_DIR=/d", "XDG_STATE_HOME=/s", "HOME=/h",
                                               nullptr};
  ::dup2(STDERR_FILENO, STDOUT_FILENO);  // where this test's failures go
  if (::setuid(kNobody) == 0) {
    ::execve(program.c_str(), const_cast<char* const*>(arguments.data()),
             const_cast<char* const*>(environment.data()));
  }
  ::_exit(kNotPossible);
}

TEST(ConfigurationTest, RaisedPrivilegesIgnoreTheEnvironment) {
  if (::getauxval(AT_SECURE) != 0) {
    EXPECT_EQ(L"/var/lib/vornix/oxa", dataFolder());
    std::fputs("checked\n", stderr);
    std::fflush(stdout);
    ::_exit(HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);  // no leak checker may look in here
  }
  if (::geteuid() != 0) GTEST_SKIP() << "only root can make a program of another user";
  TemporaryFolder const folder;
  std::string const program = folder / "program";
  fs::copy_file("/proc/self/exe", program);
  fs::permissions(folder.path(), fs::perms::all);
  ASSERT_EQ(0, ::chown(program.c_str(), kStranger, kStranger));
  ASSERT_EQ(0, ::chmod(program.c_str(), 04755));
  ChildResult const result = runInChild([&] { runAsSetUidProgram(program); });
  if (result.standardError.find("checked") == std::string::npos) {
    GTEST_SKIP() << "the host runs no set-uid program here: " << result.standardError;
  }
  EXPECT_EQ(0, result.status) << result.standardError;
}

#endif

TEST(ConfigurationTest, EnvironmentIsAskedEachTime) {
  runChecks({{"VRX_DATA_DIR", "/a"}}, [] {
    EXPECT_EQ(L"/a", dataFolder());
    setEnvironment({{"VRX_DATA_DIR", "/b"}});
    EXPECT_EQ(L"/b", dataFolder());
  });
}

struct BytesRow {
  char const* name;
  char const* locale;
  std::string path;
  std::wstring wide;
  bool narrows;  // to the same bytes
};

class EncodingTest : public testing::TestWithParam<BytesRow> {};

TEST_P(EncodingTest, PathNarrowsToItsBytesOrNotAtAll) {
  runChecks({{"VRX_DATA_DIR", GetParam().path}}, [] {
    LocaleScope const locale(GetParam().locale);
    EXPECT_EQ(GetParam().wide, dataFolder());
    std::optional<std::string> const expected =
        GetParam().narrows ? std::optional(GetParam().path) : std::nullopt;
    EXPECT_EQ(expected, narrowed(dataFolder()));
  });
}

/// A byte that is no text in the locale.
wchar_t loneByte(unsigned char byte) { return static_cast<wchar_t>(0xDC00 + byte); }

INSTANTIATE_TEST_SUITE_P(
    Bytes, EncodingTest,
    testing::Values(
        BytesRow{"Ascii", "C", "/a~", L"/a~", true},
        BytesRow{"TwoToFourBytes", "C.UTF-8", "/\xC3\x84\xE2\x82\xAC\xF0\x90\x8D\x88",
                 L"/\u00C4\u20AC\U00010348", true},
        BytesRow{
            "NoUtf8", "C.UTF-8", "/\xE9t\xE9", {L'/', loneByte(0xE9), L't', loneByte(0xE9)}, false},
        BytesRow{"CutUtf8", "C.UTF-8", "/\xE2\x82", {L'/', loneByte(0xE2), loneByte(0x82)}, false},
        BytesRow{"CutInTheMiddle",
                 "C.UTF-8",
                 "/\xE2\x82/\xC3\x84",
                 {L'/', loneByte(0xE2), loneByte(0x82), L'/', L'\u00C4'},
                 false}),
    rowName<BytesRow>);

TEST(ConfigurationTest, BytesBeyondAsciiInTheCLocaleNeverNameAnotherFolder) {
  std::string const path = "/\xC3\x84";
  runChecks({{"VRX_DATA_DIR", path}}, [&] {
    LocaleScope const locale("C");
    // Some C libraries take every byte for a character here.
    EXPECT_EQ(path, narrowed(dataFolder()).value_or(path));
    EXPECT_EQ(3U, dataFolder().size());
  });
}

class OtherConfiguration final : public IConfiguration {
public:
  std::wstring GetFrameworkDataDirectory() override { return L"/other/data"; }

  std::wstring GetUpdaterDataDir() override { return L"/other/updater"; }
};

TEST(ConfigurationSlotTest, SetConfigurationReturnsTheOneBeforeAndNullBringsTheBuiltInBack) {
  IConfiguration* const builtIn = IConfiguration::GetConfiguration();
  ASSERT_NE(nullptr, builtIn);
  OtherConfiguration first;
  OtherConfiguration second;
  EXPECT_EQ(builtIn, IConfiguration::SetConfiguration(&first));
  EXPECT_EQ(&first, IConfiguration::GetConfiguration());
  EXPECT_EQ(L"/other/data", dataFolder());
  EXPECT_EQ(L"/other/updater", updaterFolder());
  EXPECT_EQ(&first, IConfiguration::SetConfiguration(&second));
  EXPECT_EQ(&second, IConfiguration::SetConfiguration(nullptr));
  EXPECT_EQ(builtIn, IConfiguration::GetConfiguration());
  EXPECT_EQ(builtIn, IConfiguration::SetConfiguration(&first));
  EXPECT_EQ(&first, IConfiguration::SetConfiguration(builtIn));
  EXPECT_EQ(builtIn, IConfiguration::SetConfiguration(nullptr));
}

}  // namespace

}  // namespace vrxutil::test

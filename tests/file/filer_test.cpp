#include "tests/file/file_support.h"
#include "tests/platform/system_call_fault.h"
#include "tests/support/locale_scope.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/umask_scope.h"

#include <vrxcomn/configuration.h>
#include <vrxutil/file.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vrxutil::test {
namespace {

using namespace std::string_literals;
namespace fs = std::filesystem;

static_assert(!std::is_default_constructible_v<AFiler>);
static_assert(std::is_same_v<std::underlying_type_t<AFiler::AFileAccess>, int>);
static_assert(AFiler::readAccess == 1 && AFiler::writeAccess == 2 && AFiler::executeAccess == 4 &&
              AFiler::changeAccess == 8);

constexpr wchar_t kGroup[] = L"Filer";

Records called(std::wstring const& text) { return scopes(kGroup, {text}); }

Records failed(std::wstring const& text, int number) {
  return failedCall(kGroup, text, reason(number));
}

/// Folders as a test wants them.
class FakeConfiguration final : public vornix_com::oxa::configuration::IConfiguration {
public:
  explicit FakeConfiguration(std::wstring frameworkFolder, std::wstring updaterFolder = L"")
      : framework(std::move(frameworkFolder)), updater(std::move(updaterFolder)) {
    SetConfiguration(this);
  }

  ~FakeConfiguration() override { SetConfiguration(nullptr); }

  std::wstring GetFrameworkDataDirectory() override {
    ++asked;
    if (comesBack) {
      EXPECT_STREQ(AFiler::getUpdaterDataPath(), L"/updater");
    }
    return framework;
  }

  std::wstring GetUpdaterDataDir() override {
    ++askedForUpdater;
    return updater;
  }

  std::wstring framework;
  std::wstring updater;
  std::atomic<int> asked = 0;
  std::atomic<int> askedForUpdater = 0;
  bool comesBack = false;
};

/// Runs in a child, where no path is kept yet; whether the checks held.
template <class Scenario>
bool holdsAfresh(Scenario scenario) {
  return runInChild(scenario).status == 0;
}

TEST(AFilerPathTest, FrameworkFolderIsAskedForOnce) {
  EXPECT_TRUE(holdsAfresh([] {
    FakeConfiguration configuration(L"/framework", L"/updater");
    LogRecorder const log;
    wchar_t const* const path = AFiler::getOxaDataPath();
    EXPECT_STREQ(path, L"/framework");
    configuration.framework = L"/other";
    EXPECT_EQ(AFiler::getOxaDataPath(), path);
    EXPECT_STREQ(path, L"/framework");
    EXPECT_EQ(configuration.asked, 1);
    EXPECT_EQ(configuration.askedForUpdater, 0);
    EXPECT_EQ(log.records(), Records());
  }));
}

TEST(AFilerPathTest, UpdaterFolderIsAskedForOnce) {
  EXPECT_TRUE(holdsAfresh([] {
    FakeConfiguration configuration(L"/framework", L"/updater");
    wchar_t const* const path = AFiler::getUpdaterDataPath();
    EXPECT_STREQ(path, L"/updater");
    configuration.updater = L"/other";
    EXPECT_EQ(AFiler::getUpdaterDataPath(), path);
    EXPECT_STREQ(path, L"/updater");
    EXPECT_EQ(configuration.asked, 0);
    EXPECT_EQ(configuration.askedForUpdater, 1);
  }));
}

TEST(AFilerPathTest, EmptyAnswersAreAskedForAgain) {
  EXPECT_TRUE(holdsAfresh([] {
    FakeConfiguration configuration(L"");
    EXPECT_STREQ(AFiler::getOxaDataPath(), L"");
    EXPECT_STREQ(AFiler::getUpdaterDataPath(), L"");
    EXPECT_STREQ(AFiler::getAlternateDataPath(), L"etc");
    configuration.framework = L"/framework";
    configuration.updater = L"/updater";
    EXPECT_STREQ(AFiler::getOxaDataPath(), L"/framework");
    EXPECT_STREQ(AFiler::getUpdaterDataPath(), L"/updater");
    EXPECT_STREQ(AFiler::getAlternateDataPath(), L"/framework/etc");
  }));
}

TEST(AFilerPathTest, AlternateFolderIsEtcInTheFrameworkFolder) {
  for (wchar_t const* const folder : {L"/framework", L"/framework/"}) {
    EXPECT_TRUE(holdsAfresh([&] {
      FakeConfiguration configuration(folder);
      wchar_t const* const path = AFiler::getAlternateDataPath();
      EXPECT_STREQ(path, L"/framework/etc");
      configuration.framework = L"/other";
      EXPECT_EQ(AFiler::getAlternateDataPath(), path);
      EXPECT_STREQ(path, L"/framework/etc");
      EXPECT_EQ(configuration.asked, 1);
    }));
  }
}

TEST(AFilerPathTest, ThreadsGetTheSamePath) {
  EXPECT_TRUE(holdsAfresh([] {
    FakeConfiguration const configuration(L"/framework");
    std::vector<wchar_t const*> paths(8);
    std::vector<std::thread> threads;
    for (wchar_t const*& path : paths) {
      threads.emplace_back([&path] { path = AFiler::getAlternateDataPath(); });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(std::set<void const*>(paths.begin(), paths.end()).size(), 1U);
    EXPECT_STREQ(paths.front(), L"/framework/etc");
  }));
}

TEST(AFilerPathTest, ConfigurationMayAskForAPathItself) {
  EXPECT_TRUE(holdsAfresh([] {
    FakeConfiguration configuration(L"/framework", L"/updater");
    configuration.comesBack = true;
    EXPECT_STREQ(AFiler::getOxaDataPath(), L"/framework");
  }));
}

TEST(AFilerTest, TemporaryPathIsFreeAndNotTaken) {
  EXPECT_TRUE(holdsAfresh([] {
    ::unsetenv("TMPDIR");
    AString path(L"old");
    EXPECT_EQ(recordsOf([&] { EXPECT_TRUE(AFiler::getTempFilePath(path)); }), called(L"tempnam"));
    std::wstring const name = path.const_cpp_str();
    EXPECT_TRUE(name.starts_with(L"/var/tmp/vrx")) << testing::PrintToString(name);
    EXPECT_GT(name.size(), std::wstring(L"/var/tmp/vrx").size());
    EXPECT_EQ(name.find(L'/', 9), std::wstring::npos);
    EXPECT_FALSE(fs::exists(fs::symlink_status(name)));
  }));
}

TEST(AFilerTest, TemporaryPathFollowsTheEnvironment) {
  TemporaryFolder const folder;
  EXPECT_TRUE(holdsAfresh([&] {
    ::setenv("TMPDIR", folder.path().c_str(), /*overwrite=*/1);
    AString path;
    EXPECT_TRUE(AFiler::getTempFilePath(path));
    EXPECT_TRUE(path.const_cpp_str().starts_with(folder.wide("vrx")));
  }));
}

#ifdef __linux__

TEST(AFilerTest, NoFolderForTemporaryFilesIsReported) {
  std::vector<long> calls{SYS_newfstatat, SYS_statx};
#ifdef SYS_stat
  calls.push_back(SYS_stat);
#endif
  int const status = runInChild([&] {
                       if (!inject({"stat", calls, failsWith(ENOENT)})) std::exit(77);
                       AString path(L"old");
                       EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(AFiler::getTempFilePath(path)); }),
                                 failed(L"tempnam", ENOENT));
                       EXPECT_EQ(path.const_cpp_str(), L"old");
                     }).status;
  if (WIFEXITED(status) && WEXITSTATUS(status) == 77) GTEST_SKIP() << kNotInjected;
  EXPECT_EQ(status, 0);
}

#endif

/// A folder "d" with a file "f", a file, links, an empty folder.
class AFilerFolderTest : public testing::Test {
protected:
  AFilerFolderTest() {
    fs::create_directories(folder / "d");
    fs::create_directories(folder / "empty");
    makeFile(folder / "d/f", "inside");
    makeFile(folder / "file", "bytes");
    fs::create_symlink("loop", folder / "loop");
    fs::create_symlink("none", folder / "dangling");
  }

  std::wstring path(std::string const& name) const { return folder.wide(name); }

  bool exists(std::string const& name) const {
    return fs::exists(fs::symlink_status(folder / name));
  }

  TemporaryFolder folder;
  std::string const longName = std::string(300, 'n');
};

TEST_F(AFilerFolderTest, DeletesFilesAndLinks) {
  for (char const* const name : {"file", "loop", "dangling"}) {
    EXPECT_EQ(recordsOf([&] { EXPECT_TRUE(AFiler::deleteFile(path(name))); }),
              called(L"unlink," + path(name)));
    EXPECT_FALSE(exists(name));
  }
}

TEST_F(AFilerFolderTest, DeletingAMissingFileIsAQuietSuccess) {
  for (char const* const name : {"none", "none/x"}) {
    EXPECT_EQ(recordsOf([&] { EXPECT_TRUE(AFiler::deleteFile(path(name))); }),
              called(L"unlink," + path(name)));
  }
}

TEST_F(AFilerFolderTest, FileThatCannotBeDeletedIsReported) {
  struct Row {
    std::string name;
    int number;
  };

  for (Row const& row : {Row{"file/x", ENOTDIR}, Row{"loop/x", ELOOP}, Row{longName, ENAMETOOLONG},
                         Row{"empty", EISDIR}}) {
    EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(AFiler::deleteFile(path(row.name))); }),
              failed(L"unlink," + path(row.name), row.number));
  }
  EXPECT_TRUE(exists("empty"));
}

TEST_F(AFilerFolderTest, CreatesOneFolderForItsOwner) {
  UmaskScope const mask(0);
  EXPECT_EQ(recordsOf([&] { EXPECT_TRUE(AFiler::createDirectory(path("new"))); }),
            called(L"mkdir," + path("new")));

  struct stat status {};

  ASSERT_EQ(::stat((folder / "new").c_str(), &status), 0);
  EXPECT_TRUE(S_ISDIR(status.st_mode));
  EXPECT_EQ(status.st_mode & 07777U, 0700U);
}

TEST_F(AFilerFolderTest, CreatingWhatExistsIsAQuietSuccess) {
  for (char const* const name : {"d", "file", "loop", "dangling"}) {
    EXPECT_EQ(recordsOf([&] { EXPECT_TRUE(AFiler::createDirectory(path(name))); }),
              called(L"mkdir," + path(name)));
  }
  EXPECT_EQ(fileBytes(folder / "file"), "bytes");
  EXPECT_FALSE(exists("none"));
}

TEST_F(AFilerFolderTest, FolderThatCannotBeCreatedIsReported) {
  struct Row {
    std::string name;
    int number;
  };

  for (Row const& row : {Row{"none/x", ENOENT}, Row{"file/x", ENOTDIR}, Row{"loop/x", ELOOP},
                         Row{longName, ENAMETOOLONG}}) {
    EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(AFiler::createDirectory(path(row.name))); }),
              failed(L"mkdir," + path(row.name), row.number));
  }
  EXPECT_FALSE(exists("none"));
}

TEST_F(AFilerFolderTest, CopiesAFile) {
  EXPECT_EQ(recordsOf([&] { EXPECT_TRUE(AFiler::copyFile(path("file"), path("copy"))); }),
            called(L"CopyFile," + path("file") + L"," + path("copy")));
  EXPECT_EQ(fileBytes(folder / "copy"), "bytes");
  EXPECT_EQ(fileBytes(folder / "file"), "bytes");
  EXPECT_TRUE(AFiler::copyFile(path("d/f"), path("copy")));
  EXPECT_EQ(fileBytes(folder / "copy"), "inside");
}

TEST_F(AFilerFolderTest, CopyThatFailsIsReported) {
  for (char const* const name : {"none", "d", "loop"}) {
    std::wstring const text = L"CopyFile," + path(name) + L"," + path("copy");
    EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(AFiler::copyFile(path(name), path("copy"))); }),
              failedCall(kGroup, text, L"Failed"));
    EXPECT_FALSE(exists("copy"));
  }
  std::wstring const text = L"CopyFile," + path("file") + L"," + path("none/copy");
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(AFiler::copyFile(path("file"), path("none/copy"))); }),
            failedCall(kGroup, text, L"Failed"));
}

TEST_F(AFilerFolderTest, RenamesNothing) {
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(AFiler::renameFile(path("file"), path("new"))); }),
            Records{errorRecord(kGroup, L"internal error: Test ")});
  EXPECT_TRUE(exists("file"));
  EXPECT_FALSE(exists("new"));
}

struct FolderDeletion {
  char const* label;
  bool (*run)(AString const&);
};

void PrintTo(FolderDeletion const& row, std::ostream* out) { *out << row.label; }

class AFilerDeleteFolderTest : public AFilerFolderTest,
                               public testing::WithParamInterface<FolderDeletion> {
protected:
  static bool run(std::wstring const& folderPath) { return GetParam().run(folderPath); }
};

TEST_P(AFilerDeleteFolderTest, DeletesAnEmptyFolder) {
  EXPECT_EQ(recordsOf([&] { EXPECT_TRUE(run(path("empty"))); }), called(L"rmdir," + path("empty")));
  EXPECT_FALSE(exists("empty"));
}

TEST_P(AFilerDeleteFolderTest, WhatIsMissingOrNoFolderIsAQuietSuccess) {
  for (char const* const name : {"none", "none/x", "file", "file/x", "dangling"}) {
    EXPECT_EQ(recordsOf([&] { EXPECT_TRUE(run(path(name))); }), called(L"rmdir," + path(name)));
  }
  EXPECT_TRUE(exists("file"));
  EXPECT_TRUE(exists("dangling"));
}

TEST_P(AFilerDeleteFolderTest, OtherErrorsAreReported) {
  struct Row {
    std::string name;
    int number;
  };

  for (Row const& row :
       {Row{"loop/x", ELOOP}, Row{longName, ENAMETOOLONG}, Row{"empty/.", EINVAL}}) {
    EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(run(path(row.name))); }),
              failed(L"rmdir," + path(row.name), row.number));
  }
  EXPECT_TRUE(exists("empty"));
}

INSTANTIATE_TEST_SUITE_P(Operations, AFilerDeleteFolderTest,
                         testing::Values(FolderDeletion{"DeleteFolder", &AFiler::deleteFolder},
                                         FolderDeletion{"DeleteEmptyFolder",
                                                        &AFiler::deleteEmptyFolder}),
                         [](auto const& test) { return std::string(test.param.label); });

TEST_F(AFilerFolderTest, FolderWithEntriesStays) {
  EXPECT_EQ(recordsOf([&] { EXPECT_TRUE(AFiler::deleteEmptyFolder(path("d"))); }),
            called(L"rmdir," + path("d")));
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(AFiler::deleteFolder(path("d"))); }),
            failed(L"rmdir," + path("d"), ENOTEMPTY));
  EXPECT_EQ(fileBytes(folder / "d/f"), "inside");
}

TEST_F(AFilerFolderTest, RightsOfTheFolderCount) {
  for (std::string const& closed : {folder.path(), folder / "d"}) {
    ASSERT_EQ(::chmod(closed.c_str(), 0555), 0);
  }
  EXPECT_TRUE(holdsUnprivileged([&] {
    EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(AFiler::deleteFile(path("d/f"))); }),
              failed(L"unlink," + path("d/f"), EACCES));
    EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(AFiler::createDirectory(path("d/x"))); }),
              failed(L"mkdir," + path("d/x"), EACCES));
    EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(AFiler::deleteEmptyFolder(path("empty"))); }),
              failed(L"rmdir," + path("empty"), EACCES));
  }));
  for (std::string const& closed : {folder.path(), folder / "d"}) {
    EXPECT_EQ(::chmod(closed.c_str(), 0755), 0);
  }
}

struct Accessibility {
  bool result;
  bool exists;
  bool accessible;
  bool operator==(Accessibility const&) const = default;
};

void PrintTo(Accessibility const& answer, std::ostream* out) {
  *out << answer.result << ' ' << answer.exists << ' ' << answer.accessible;
}

/// The answer; `before` stands in the outputs.
Accessibility ask(std::wstring const& path, int access, bool before) {
  Accessibility answer{false, before, before};
  answer.result = AFiler::getFileAccessibility(path, static_cast<AFiler::AFileAccess>(access),
                                               answer.exists, answer.accessible);
  bool exists = before;
  LogRecorder const dropped;
  EXPECT_EQ(AFiler::getFileAccessibility(path, static_cast<AFiler::AFileAccess>(access), exists),
            answer.result);
  EXPECT_EQ(exists, answer.exists);
  return answer;
}

struct AccessKind {
  int access;
  wchar_t const* mode;
  mode_t permission;  // of the owner
};

constexpr AccessKind kAccessKinds[] = {{AFiler::readAccess, L"4", 0400},
                                       {AFiler::writeAccess, L"2", 0200},
                                       {AFiler::executeAccess, L"1", 0100},
                                       {AFiler::changeAccess, L"2", 0200}};

TEST_F(AFilerFolderTest, AccessKindsAreTestedAsTheirModes) {
  ASSERT_EQ(::chmod((folder / "file").c_str(), 0777), 0);
  for (AccessKind const& kind : kAccessKinds) {
    EXPECT_EQ(recordsOf([&] {
                EXPECT_EQ(ask(path("file"), kind.access, false), (Accessibility{true, true, true}));
              }),
              called(L"access," + path("file") + L"," + kind.mode));
  }
}

TEST_F(AFilerFolderTest, FileWithoutTheRightExistsButIsNotAccessible) {
  ASSERT_EQ(::chmod(folder.path().c_str(), 0755), 0);
  EXPECT_TRUE(holdsUnprivileged([&] {
    TemporaryFolder const own;
    makeFile(own / "file", "");
    for (AccessKind const& held : kAccessKinds) {
      ASSERT_EQ(::chmod((own / "file").c_str(), held.permission), 0);
      for (AccessKind const& asked : kAccessKinds) {
        std::wstring const file = own.wide("file");
        bool const isAllowed = held.permission == asked.permission;
        EXPECT_EQ(recordsOf([&] {
                    EXPECT_EQ(ask(file, asked.access, !isAllowed),
                              (Accessibility{true, true, isAllowed}));
                  }),
                  called(L"access," + file + L"," + asked.mode));
      }
    }
  }));
}

TEST_F(AFilerFolderTest, WhatIsMissingIsNeitherThereNorAccessible) {
  for (char const* const name : {"none", "none/x", "file/x", "dangling"}) {
    for (AccessKind const& kind : kAccessKinds) {
      EXPECT_EQ(
          recordsOf([&] {
            EXPECT_EQ(ask(path(name), kind.access, true), (Accessibility{true, false, false}));
          }),
          called(L"access," + path(name) + L"," + kind.mode));
    }
  }
}

TEST_F(AFilerFolderTest, AccessThatCannotBeTestedIsReportedAndLeavesTheOutputs) {
  for (bool const before : {false, true}) {
    EXPECT_EQ(recordsOf([&] {
                EXPECT_EQ(ask(path("loop"), AFiler::readAccess, before),
                          (Accessibility{false, before, before}));
              }),
              failed(L"access," + path("loop") + L",4", ELOOP));
    EXPECT_EQ(recordsOf([&] {
                EXPECT_EQ(ask(path(longName), AFiler::writeAccess, before),
                          (Accessibility{false, before, before}));
              }),
              failed(L"access," + path(longName) + L",2", ENAMETOOLONG));
  }
}

TEST_F(AFilerFolderTest, UnknownAccessIsAnInternalError) {
  for (int const access : {16, 0, 3, 7, -1}) {
    for (bool const before : {false, true}) {
      EXPECT_EQ(
          recordsOf([&] {
            EXPECT_EQ(ask(path("file"), access, before), (Accessibility{false, before, before}));
          }),
          Records{
              errorRecord(kGroup, L"internal error: getFileAccessibility had unexpected access " +
                                      std::to_wstring(access))});
    }
  }
}

struct SizeQuestion {
  char const* label;
  bool (*run)(AString const&, long&);
  bool reportsMissing;
};

void PrintTo(SizeQuestion const& row, std::ostream* out) { *out << row.label; }

class AFilerSizeTest : public AFilerFolderTest, public testing::WithParamInterface<SizeQuestion> {
protected:
  /// The size, or the failure's 77.
  static long sizeOf(std::wstring const& filePath, bool expected) {
    long size = 77;
    EXPECT_EQ(GetParam().run(filePath, size), expected);
    return size;
  }
};

TEST_P(AFilerSizeTest, TellsTheSize) {
  EXPECT_EQ(recordsOf([&] { EXPECT_EQ(sizeOf(path("file"), true), 5L); }),
            scopes(L"filer", {L"stat," + path("file")}));
  makeFile(folder / "file", "");
  EXPECT_EQ(sizeOf(path("file"), true), 0L);
  EXPECT_NE(sizeOf(path("d"), true), 77L);
}

TEST_P(AFilerSizeTest, CutsTheSizeTo32Bits) {
  struct Row {
    std::int64_t size;
    long told;
  };

  constexpr std::int64_t kGiB = 1 << 30;
  for (Row const& row : {Row{2 * kGiB - 1, 2147483647L}, Row{2 * kGiB, -2147483648L},
                         Row{3 * kGiB, -1073741824L}, Row{4 * kGiB, 0L}, Row{4 * kGiB + 5, 5L}}) {
    if (::truncate((folder / "file").c_str(), row.size) != 0) {
      GTEST_SKIP() << "no large files on this file system";
    }
    EXPECT_EQ(sizeOf(path("file"), true), row.told);
  }
}

TEST_P(AFilerSizeTest, MissingFileIsReportedWhereItMustExist) {
  for (char const* const name : {"none", "dangling"}) {
    std::wstring const text = L"stat," + path(name);
    EXPECT_EQ(recordsOf([&] { EXPECT_EQ(sizeOf(path(name), false), 77L); }),
              GetParam().reportsMissing ? failedCall(L"filer", text, reason(ENOENT))
                                        : scopes(L"filer", {text}));
  }
}

TEST_P(AFilerSizeTest, OtherErrorsAreReported) {
  struct Row {
    std::string name;
    int number;
  };

  for (Row const& row : {Row{"file/x", ENOTDIR}, Row{"loop", ELOOP}, Row{longName, ENAMETOOLONG}}) {
    EXPECT_EQ(recordsOf([&] { EXPECT_EQ(sizeOf(path(row.name), false), 77L); }),
              failedCall(L"filer", L"stat," + path(row.name), reason(row.number)));
  }
}

INSTANTIATE_TEST_SUITE_P(Questions, AFilerSizeTest,
                         testing::Values(SizeQuestion{"Existing", &AFiler::getExistingFileSize,
                                                      true},
                                         SizeQuestion{"Try", &AFiler::tryGetFileSize, false}),
                         [](auto const& test) { return std::string(test.param.label); });

#ifdef __linux__

TEST_F(AFilerFolderTest, ReadOnlyFileSystemAllowsNoChange) {
  std::wstring const file = path("empty/file");
  std::wstring const inner = path("empty/folder");
  std::wstring const fresh = path("empty/new");
  MountOutcome const outcome = runOnMount(
      folder / "empty", MS_RDONLY,
      [&] {
        makeFile(folder / "empty/file", "");
        fs::create_directory(folder / "empty/folder");
      },
      [&] {
        EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(AFiler::deleteFile(file)); }),
                  failed(L"unlink," + file, EROFS));
        EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(AFiler::createDirectory(fresh)); }),
                  failed(L"mkdir," + fresh, EROFS));
        EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(AFiler::deleteEmptyFolder(inner)); }),
                  failed(L"rmdir," + inner, EROFS));
        for (AccessKind const& kind : {kAccessKinds[1], kAccessKinds[3]}) {
          EXPECT_EQ(recordsOf([&] {
                      EXPECT_EQ(ask(file, kind.access, false), (Accessibility{true, true, false}));
                    }),
                    called(L"access," + file + L",2"));
        }
        EXPECT_EQ(ask(file, AFiler::readAccess, false), (Accessibility{true, true, true}));
        EXPECT_FALSE(AFiler::deleteFolders(path("empty")));
        EXPECT_TRUE(exists("empty/file"));
      });
  if (outcome == MountOutcome::notAllowed) GTEST_SKIP() << kNoMounts;
  EXPECT_EQ(outcome, MountOutcome::held);
}

#endif

class AFilerTreeTest : public testing::Test {
protected:
  std::wstring path(std::string const& name) const { return folder.wide(name); }

  bool exists(std::string const& name) const {
    return fs::exists(fs::symlink_status(folder / name));
  }

  /// Makes "tree" and a folder in it, each with a file.
  void makeTree(std::string const& top) const {
    fs::create_directories(folder / (top + "/d"));
    makeFile(folder / (top + "/f"), "");
    makeFile(folder / (top + "/d/f"), "");
  }

  TemporaryFolder folder;
};

TEST_F(AFilerTreeTest, ShortPathsAreRefusedSilently) {
  EXPECT_TRUE(holdsAfresh([&] {
    ASSERT_EQ(::chdir(folder.path().c_str()), 0);
    for (char const* const name : {"a", "ab", "abc"}) fs::create_directory(folder / name);
    for (wchar_t const* const shortPath : {L"", L"/", L"/a", L"..", L"a", L"ab", L"abc"}) {
      EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(AFiler::deleteFolders(shortPath)); }), Records());
    }
    EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(AFiler::deleteFolders(L"abc\0defg"s)); }), Records());
    for (char const* const name : {"a", "ab", "abc"}) EXPECT_TRUE(exists(name));
    fs::create_directory(folder / "abcd");
    EXPECT_TRUE(AFiler::deleteFolders(L"abcd"));
    EXPECT_FALSE(exists("abcd"));
  }));
}

TEST_F(AFilerTreeTest, RecordsTellTheStepsInOrder) {
  fs::create_directories(folder / "tree/d");
  makeFile(folder / "tree/d/f", "");
  std::wstring const top = path("tree");
  EXPECT_EQ(
      recordsOf([&] { EXPECT_TRUE(AFiler::deleteFolders(top)); }),
      scopes(L"FileInx", {L"glob," + top + L"/*", L"glob," + top + L"/d/*"}) +
          scopes(kGroup, {L"unlink," + top + L"/d/f", L"rmdir," + top + L"/d", L"rmdir," + top}));
  EXPECT_FALSE(exists("tree"));
}

TEST_F(AFilerTreeTest, DeletesFilesAndFoldersAndNothingElse) {
  makeTree("tree");
  makeTree("tree/d/e");
  makeTree("tree2");
  fs::create_directory(folder / "tree/empty");
  EXPECT_TRUE(AFiler::deleteFolders(path("tree")));
  EXPECT_FALSE(exists("tree"));
  EXPECT_TRUE(exists("tree2/d/f"));
  EXPECT_TRUE(AFiler::deleteFolders(path("tree2/")));
  EXPECT_FALSE(exists("tree2"));
}

TEST_F(AFilerTreeTest, MissingFolderAndPlainFileAreSuccesses) {
  makeFile(folder / "file", "bytes");
  for (char const* const name : {"none", "file"}) {
    EXPECT_EQ(recordsOf([&] { EXPECT_TRUE(AFiler::deleteFolders(path(name))); }),
              scopes(L"FileInx", {L"glob," + path(name) + L"/*"}) + called(L"rmdir," + path(name)));
  }
  EXPECT_EQ(fileBytes(folder / "file"), "bytes");
}

TEST_F(AFilerTreeTest, HiddenEntriesStayAndAreReported) {
  makeTree("tree");
  makeFile(folder / "tree/d/.hidden", "bytes");
  LogRecorder const log;
  EXPECT_FALSE(AFiler::deleteFolders(path("tree")));
  EXPECT_EQ(log.errors(),
            errorInside(called(L"rmdir," + path("tree/d")), kGroup, reason(ENOTEMPTY)) +
                errorInside(called(L"rmdir," + path("tree")), kGroup, reason(ENOTEMPTY)));
  EXPECT_EQ(fileBytes(folder / "tree/d/.hidden"), "bytes");
  EXPECT_FALSE(exists("tree/d/f"));
  EXPECT_FALSE(exists("tree/f"));
}

TEST_F(AFilerTreeTest, GoesOnAfterAFailureInAnyOrder) {
  for (char const* const name : {"a", "b", "c", "x", "y", "z"}) makeTree("tree/"s + name);
  makeFile(folder / "tree/c/.hidden", "");
  LogRecorder const log;
  EXPECT_FALSE(AFiler::deleteFolders(path("tree")));
  for (char const* const name : {"a", "b", "c/d", "c/f", "x", "y", "z"}) {
    EXPECT_FALSE(exists("tree/"s + name)) << name;
  }
  EXPECT_TRUE(exists("tree/c/.hidden"));
}

TEST_F(AFilerTreeTest, LinksInTheTreeAreRemovedAndNotFollowed) {
  makeTree("outside");
  makeFile(folder / "file", "bytes");
  fs::create_directory(folder / "tree");
  fs::create_symlink("../outside", folder / "tree/to-folder");
  fs::create_symlink(folder / "outside", folder / "tree/to-folder-in-full");
  fs::create_symlink("../file", folder / "tree/to-file");
  fs::create_symlink("none", folder / "tree/dangling");
  fs::create_symlink("loop", folder / "tree/loop");
  fs::create_symlink("..", folder / "tree/up");
  LogRecorder const log;
  EXPECT_TRUE(AFiler::deleteFolders(path("tree")));
  EXPECT_EQ(log.errors(), Records());
  EXPECT_FALSE(exists("tree"));
  EXPECT_TRUE(exists("outside/f"));
  EXPECT_TRUE(exists("outside/d/f"));
  EXPECT_EQ(fileBytes(folder / "file"), "bytes");
}

TEST_F(AFilerTreeTest, LinkInTheFoldersPlaceIsRemovedAndNotFollowed) {
  makeTree("outside");
  for (std::string const end : {"", "/", "//"}) {
    fs::create_symlink("outside", folder / "link");
    EXPECT_EQ(recordsOf([&] { EXPECT_TRUE(AFiler::deleteFolders(path("link" + end))); }),
              called(L"unlink," + path("link")));
    EXPECT_FALSE(exists("link"));
  }
  EXPECT_TRUE(exists("outside/d/f"));
}

class AFilerOddNameTest : public AFilerTreeTest, public testing::WithParamInterface<char const*> {};

TEST_P(AFilerOddNameTest, IsDeletedAndItsSiblingsStay) {
  std::string const name = GetParam();
  for (char const* const sibling : {"a", "b", "ab", "a\\", "axb", "[", "x", "~x"}) {
    if (sibling != name) makeTree(sibling);
  }
  makeTree(name);
  makeTree(name + "/" + name);
  std::vector<std::string> before;
  for (auto const& entry : fs::recursive_directory_iterator(folder.path())) {
    std::string const other = entry.path().string();
    bool const isInside = other == folder / name || other.starts_with(folder / (name + "/"));
    if (!isInside) before.push_back(other);
  }
  LogRecorder const log;
  EXPECT_TRUE(AFiler::deleteFolders(path(name)));
  EXPECT_EQ(log.errors(), Records());
  EXPECT_FALSE(exists(name));
  for (std::string const& other : before) EXPECT_TRUE(fs::exists(other)) << other;
}

INSTANTIATE_TEST_SUITE_P(Names, AFilerOddNameTest,
                         testing::Values("*", "?", "[", "]", "[ab]", "[!a]", "\\", "a\\", "\\*",
                                         "a\\b", "\\\\", "a*b", "{a,b}", "~", " ", "a\nb", "-rf",
                                         "[[:alpha:]]", "[a", "a]"));

TEST_F(AFilerTreeTest, PathThatTheLocaleCannotExpressIsRefused) {
  makeTree("tree-x");
  LocaleScope const locale("C");
  std::wstring const odd = path("tree-") + L"\u00e4";
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(AFiler::deleteFolders(odd)); }),
            failed(L"deleteFolders," + odd, EILSEQ));
  EXPECT_TRUE(exists("tree-x/d/f"));
}

TEST_F(AFilerTreeTest, NamesInTheLocalesEncodingAreDeleted) {
  LocaleScope const locale("C.UTF-8");
  makeTree("\xC3\xA4*");
  makeTree("\xC3\xA4x");
  EXPECT_TRUE(AFiler::deleteFolders(folder.wide("") + L"\u00e4*"));
  EXPECT_FALSE(exists("\xC3\xA4*"));
  EXPECT_TRUE(exists("\xC3\xA4x/d/f"));
}

TEST_F(AFilerTreeTest, NameThatTheLocaleCannotReadStaysAndIsReported) {
  LocaleScope const locale("C.UTF-8");
  makeTree("tree");
  makeFile(folder / "tree/\xFF", "bytes");
  LogRecorder const log;
  EXPECT_FALSE(AFiler::deleteFolders(path("tree")));
  EXPECT_EQ(log.plainErrors(),
            (Records{errorRecord(L"String", L"couldn't query space for wide character conversion"),
                     errorRecord(kGroup, reason(ENOTEMPTY))}));
  EXPECT_EQ(fileBytes(folder / "tree/\xFF"), "bytes");
  EXPECT_FALSE(exists("tree/d"));
}

/// With few descriptors, and the little stack of a thread.
bool deleteFrugally(std::wstring const& path) {
  EXPECT_TRUE(holdsAfresh([&] {
    rlimit const limit{16, 16};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    pthread_attr_t attributes;
    ::pthread_attr_init(&attributes);
    ::pthread_attr_setstacksize(&attributes, 512 * 1024);
    pthread_t thread{};
    auto const body = [](void* argument) -> void* {
      auto const& top = *static_cast<std::wstring const*>(argument);
      EXPECT_TRUE(AFiler::deleteFolders(top));
      return nullptr;
    };
    std::wstring top = path;
    ASSERT_EQ(::pthread_create(&thread, &attributes, body, &top), 0);
    ASSERT_EQ(::pthread_join(thread, nullptr), 0);
  }));
  return !fs::exists(path);
}

TEST_F(AFilerTreeTest, ManyEntriesAreDeleted) {
  fs::create_directory(folder / "tree");
  for (int i = 0; i < 100'000; ++i) {
    ASSERT_EQ(::mknod((folder / ("tree/" + std::to_string(i))).c_str(), S_IFREG | 0600, 0), 0);
  }
  EXPECT_TRUE(deleteFrugally(path("tree")));
}

/// Makes a chain of folders below the current one, which it leaves there.
void makeChain(int count, std::string const& name) {
  for (int i = 0; i < count; ++i) {
    ASSERT_EQ(::mkdir(name.c_str(), 0700), 0);
    ASSERT_EQ(::chdir(name.c_str()), 0);
  }
}

TEST_F(AFilerTreeTest, ManyLevelsAreDeleted) {
  EXPECT_TRUE(holdsAfresh([&] {
    ASSERT_EQ(::chdir(folder.path().c_str()), 0);
    makeChain(1000, "d");
  }));
  ASSERT_TRUE(exists("d/d/d"));
  EXPECT_TRUE(deleteFrugally(path("d")));
}

TEST_F(AFilerTreeTest, LevelsBeyondTheLongestPathAreReported) {
  EXPECT_TRUE(holdsAfresh([&] {
    ASSERT_EQ(::chdir(folder.path().c_str()), 0);
    makeChain(25, std::string(200, 'd'));
  }));
  LogRecorder const log;
  EXPECT_FALSE(AFiler::deleteFolders(path(std::string(200, 'd'))));
  Records const errors = log.plainErrors();
  ASSERT_FALSE(errors.empty());
  EXPECT_EQ(errors.front(), errorRecord(kGroup, reason(ENAMETOOLONG)));
  EXPECT_EQ(errors.back(), errorRecord(kGroup, reason(ENOTEMPTY)));
  EXPECT_TRUE(exists(std::string(200, 'd')));
}

TEST_F(AFilerTreeTest, FoldersThatMayNotBeReadAreReported) {
  EXPECT_TRUE(holdsUnprivileged([&] {
    TemporaryFolder const own;
    fs::create_directories(own / "tree/closed/inside");
    fs::create_directories(own / "tree/open");
    ASSERT_EQ(::chmod((own / "tree/closed").c_str(), 0), 0);
    LogRecorder const log;
    EXPECT_FALSE(AFiler::deleteFolders(own.wide("tree")));
    EXPECT_EQ(log.plainErrors(), Records(2, errorRecord(kGroup, reason(ENOTEMPTY))));
    EXPECT_FALSE(fs::exists(own / "tree/open"));
    ASSERT_EQ(::chmod((own / "tree/closed").c_str(), 0700), 0);
    EXPECT_TRUE(fs::exists(own / "tree/closed/inside"));
  }));
}

}  // namespace
}  // namespace vrxutil::test

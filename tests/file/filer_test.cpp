#include "tests/file/file_support.h"
#include "tests/support/acting_logger.h"
#include "tests/support/locale_scope.h"
#include "tests/support/private_mounts.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/umask_scope.h"
#include "tests/text/made_locale.h"

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
#include <utility>
#include <vector>

#include <fcntl.h>
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

struct KnownFolder {
  char const* label;
  wchar_t const* (*path)();
  wchar_t const* expected;
  wchar_t const* framework = L"/framework";
  int asked = 1;
  int askedForUpdater = 0;
};

void PrintTo(KnownFolder const& row, std::ostream* out) { *out << row.label; }

// In a child, where no path is kept yet.
class AFilerKnownFolderTest : public testing::TestWithParam<KnownFolder> {};

TEST_P(AFilerKnownFolderTest, IsAskedForOnce) {
  KnownFolder const& row = GetParam();
  EXPECT_TRUE(holdsInChild([&] {
    FakeConfiguration configuration(row.framework, L"/updater");
    LogRecorder const log;
    wchar_t const* const path = row.path();
    EXPECT_STREQ(path, row.expected);
    configuration.framework = L"/other";
    configuration.updater = L"/other";
    EXPECT_EQ(row.path(), path);
    EXPECT_STREQ(path, row.expected);
    EXPECT_EQ(configuration.asked, row.asked);
    EXPECT_EQ(configuration.askedForUpdater, row.askedForUpdater);
    EXPECT_EQ(log.records(), Records());
  }));
}

INSTANTIATE_TEST_SUITE_P(
    Folders, AFilerKnownFolderTest,
    testing::Values(KnownFolder{"Framework", &AFiler::getOxaDataPath, L"/framework"},
                    KnownFolder{"Updater", &AFiler::getUpdaterDataPath, L"/updater", L"/framework",
                                /*asked=*/0, /*askedForUpdater=*/1},
                    KnownFolder{"Alternate", &AFiler::getAlternateDataPath, L"/framework/etc"},
                    KnownFolder{"AlternateAfterSeparator", &AFiler::getAlternateDataPath,
                                L"/framework/etc", L"/framework/"}),
    [](auto const& test) { return std::string(test.param.label); });

TEST(AFilerPathTest, EmptyAnswersAreAskedForAgain) {
  EXPECT_TRUE(holdsInChild([] {
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

TEST(AFilerPathTest, ThreadsGetTheSamePath) {
  EXPECT_TRUE(holdsInChild([] {
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
  EXPECT_TRUE(holdsInChild([] {
    FakeConfiguration configuration(L"/framework", L"/updater");
    configuration.comesBack = true;
    EXPECT_STREQ(AFiler::getOxaDataPath(), L"/framework");
  }));
}

TEST(AFilerTest, TemporaryPathIsFreeAndNotTaken) {
  EXPECT_TRUE(holdsInChild([] {
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
  EXPECT_TRUE(holdsInChild([&] {
    ::setenv("TMPDIR", folder.path().c_str(), /*overwrite=*/1);
    AString path;
    EXPECT_TRUE(AFiler::getTempFilePath(path));
    EXPECT_TRUE(path.const_cpp_str().starts_with(folder.wide("vrx")));
  }));
}

TEST(AFilerTest, TemporaryPathIsWidenedInTheLocale) {
  TemporaryFolder const folder;
  fs::create_directory(folder / "\xC3\xA4");
  EXPECT_TRUE(holdsInChild([&] {
    LocaleScope const locale("C.UTF-8");
    ::setenv("TMPDIR", (folder / "\xC3\xA4").c_str(), /*overwrite=*/1);
    AString path;
    EXPECT_TRUE(AFiler::getTempFilePath(path));
    EXPECT_TRUE(path.const_cpp_str().starts_with(folder.wide("") + L"\u00e4/vrx"));
  }));
}

#ifdef __linux__

TEST(AFilerTest, NoFolderForTemporaryFilesIsReported) {
  TemporaryFolder const folder;
  expectAllowedInChild("the host does not allow another root folder", [&] {
    // A host without any folder at all.
    int const root = ::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
    bool const isInside = (::geteuid() == 0 || enterUserNamespace()) &&
                          ::chroot(folder.path().c_str()) == 0 && ::chdir("/") == 0;
    if (!isInside) leaveAsNotAllowed();
    AString path(L"old");
    EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(AFiler::getTempFilePath(path)); }),
              failed(L"tempnam", ENOENT));
    EXPECT_EQ(path.const_cpp_str(), L"old");
    // A leak checker wants /proc when the process ends.
    EXPECT_TRUE(::fchdir(root) == 0 && ::chroot(".") == 0);
    ::close(root);
  });
}

#endif

std::string longName() {
  std::string name;
  return name.append(300, 'n');
}

class AFilerEmptyFolderTest : public testing::Test {
protected:
  std::wstring path(std::string const& name) const { return folder.wide(name); }

  bool exists(std::string const& name) const {
    return fs::exists(fs::symlink_status(folder / name));
  }

  TemporaryFolder folder;
};

/// A folder "d" with a file "f", a file, links, an empty folder.
class AFilerFolderTest : public AFilerEmptyFolderTest {
protected:
  AFilerFolderTest() {
    fs::create_directories(folder / "d");
    fs::create_directories(folder / "empty");
    makeFile(folder / "d/f", "inside");
    makeFile(folder / "file", "bytes");
    fs::create_symlink("loop", folder / "loop");
    fs::create_symlink("none", folder / "dangling");
  }
};

TEST_F(AFilerFolderTest, DeletesFilesAndLinks) {
  for (char const* const name : {"file", "loop", "dangling"}) {
    EXPECT_EQ(recordsOf([&] { EXPECT_TRUE(AFiler::deleteFile(path(name))); }),
              called(L"unlink," + path(name)));
    EXPECT_FALSE(exists(name));
  }
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

/// A name that an operation fails on, and why.
struct Failure {
  std::string name;
  int number;
};

/// An operation on one path: what it takes for a success without a record, and what
/// it reports. Neither changes anything.
struct PathOperation {
  char const* label;
  bool (*run)(AString const&);
  wchar_t const* call;
  std::vector<std::string> quiet;
  std::vector<Failure> reported;
};

void PrintTo(PathOperation const& row, std::ostream* out) { *out << row.label; }

class AFilerPathOperationTest : public AFilerFolderTest,
                                public testing::WithParamInterface<PathOperation> {
protected:
  static bool run(std::wstring const& onPath) { return GetParam().run(onPath); }

  static std::wstring scopeText(std::wstring const& onPath) {
    return GetParam().call + L","s + onPath;
  }

  std::set<fs::path> all() const {
    return {fs::recursive_directory_iterator(folder.path()), fs::recursive_directory_iterator()};
  }

  std::set<fs::path> const before = all();
};

TEST_P(AFilerPathOperationTest, HasQuietSuccesses) {
  for (std::string const& name : GetParam().quiet) {
    EXPECT_EQ(recordsOf([&] { EXPECT_TRUE(run(path(name))); }), called(scopeText(path(name))));
  }
  EXPECT_EQ(all(), before);
  EXPECT_EQ(fileBytes(folder / "file"), "bytes");
}

TEST_P(AFilerPathOperationTest, ReportsOtherFailures) {
  for (Failure const& row : GetParam().reported) {
    EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(run(path(row.name))); }),
              failed(scopeText(path(row.name)), row.number));
  }
  EXPECT_EQ(all(), before);
}

INSTANTIATE_TEST_SUITE_P(
    Operations, AFilerPathOperationTest,
    testing::Values(
        PathOperation{"DeleteFile",
                      &AFiler::deleteFile,
                      L"unlink",
                      {"none", "none/x"},
                      {{"file/x", ENOTDIR},
                       {"loop/x", ELOOP},
                       {longName(), ENAMETOOLONG},
                       {"empty", EISDIR}}},
        PathOperation{"CreateDirectory",
                      &AFiler::createDirectory,
                      L"mkdir",
                      {"d", "file", "loop", "dangling"},
                      {{"none/x", ENOENT},
                       {"file/x", ENOTDIR},
                       {"loop/x", ELOOP},
                       {longName(), ENAMETOOLONG}}},
        PathOperation{
            "DeleteFolder",
            &AFiler::deleteFolder,
            L"rmdir",
            {"none", "none/x", "file", "file/x", "dangling"},
            {{"loop/x", ELOOP}, {longName(), ENAMETOOLONG}, {"empty/.", EINVAL}, {"d", ENOTEMPTY}}},
        PathOperation{"DeleteEmptyFolder",
                      &AFiler::deleteEmptyFolder,
                      L"rmdir",
                      {"none", "none/x", "file", "file/x", "dangling", "d"},
                      {{"loop/x", ELOOP}, {longName(), ENAMETOOLONG}, {"empty/.", EINVAL}}}),
    [](auto const& test) { return std::string(test.param.label); });

TEST_F(AFilerFolderTest, DeletesEmptyFolders) {
  for (auto const run : {&AFiler::deleteFolder, &AFiler::deleteEmptyFolder}) {
    fs::create_directories(folder / "empty");
    EXPECT_EQ(recordsOf([&] { EXPECT_TRUE(run(path("empty"))); }),
              called(L"rmdir," + path("empty")));
    EXPECT_FALSE(exists("empty"));
  }
}

TEST_F(AFilerFolderTest, CopiesAFile) {
  EXPECT_EQ(recordsOf([&] { EXPECT_TRUE(AFiler::copyFile(path("file"), path("copy"))); }),
            called(L"CopyFile," + path("file") + L"," + path("copy")));
  EXPECT_EQ(fileBytes(folder / "copy"), "bytes");
  EXPECT_EQ(fileBytes(folder / "file"), "bytes");
  EXPECT_TRUE(AFiler::copyFile(path("d/f"), path("copy")));
  EXPECT_EQ(fileBytes(folder / "copy"), "inside");
}

Records failedCopy(std::wstring const& source, std::wstring const& target) {
  return failedCall(kGroup, L"CopyFile," + source + L"," + target, L"Failed");
}

TEST_F(AFilerFolderTest, CopyThatFailsIsReported) {
  struct Row {
    std::string source;
    std::string target;
  };

  ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
  for (Row const& row :
       {Row{"none", "copy"}, Row{"d", "copy"}, Row{"loop", "copy"}, Row{"fifo", "copy"},
        Row{"file/x", "copy"}, Row{"file", "none/copy"}, Row{"file", "d"}, Row{"file", "loop"},
        Row{"file", "fifo"}, Row{"file", longName()}}) {
    EXPECT_EQ(
        recordsOf([&] { EXPECT_FALSE(AFiler::copyFile(path(row.source), path(row.target))); }),
        failedCopy(path(row.source), path(row.target)));
  }
  EXPECT_FALSE(exists("copy"));
  EXPECT_FALSE(exists("none"));
  EXPECT_EQ(fileBytes(folder / "file"), "bytes");
}

TEST_F(AFilerFolderTest, CopyWithoutTheRightToReadIsReported) {
  EXPECT_TRUE(holdsUnprivileged([] {
    TemporaryFolder const own;
    makeFile(own / "file", "bytes");
    ASSERT_EQ(::chmod((own / "file").c_str(), 0), 0);
    EXPECT_EQ(
        recordsOf([&] { EXPECT_FALSE(AFiler::copyFile(own.wide("file"), own.wide("copy"))); }),
        failedCopy(own.wide("file"), own.wide("copy")));
    EXPECT_FALSE(fs::exists(own / "copy"));
  }));
}

TEST_F(AFilerFolderTest, PathsAreNarrowedInTheLocale) {
  LocaleScope const locale("C.UTF-8");
  std::wstring const euro = path("") + L"\u20ac";
  std::wstring const umlaut = path("") + L"\u00e4";
  EXPECT_TRUE(AFiler::copyFile(path("file"), euro));
  EXPECT_EQ(fileBytes(folder / "\xE2\x82\xAC"), "bytes");
  long size = 0;
  EXPECT_TRUE(AFiler::getExistingFileSize(euro, size));
  EXPECT_EQ(size, 5L);
  bool exists = false;
  EXPECT_TRUE(AFiler::getFileAccessibility(euro, AFiler::readAccess, exists));
  EXPECT_TRUE(exists);
  EXPECT_TRUE(AFiler::copyFile(euro, path("copy")));
  EXPECT_TRUE(AFiler::deleteFile(euro));
  EXPECT_FALSE(fs::exists(folder / "\xE2\x82\xAC"));
  EXPECT_TRUE(AFiler::createDirectory(umlaut));
  EXPECT_TRUE(fs::is_directory(folder / "\xC3\xA4"));
  EXPECT_TRUE(AFiler::deleteFolder(umlaut));
  EXPECT_FALSE(fs::exists(folder / "\xC3\xA4"));
}

TEST_F(AFilerFolderTest, RenamesNothing) {
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(AFiler::renameFile(path("file"), path("new"))); }),
            Records{errorRecord(kGroup, L"internal error: Test ")});
  EXPECT_TRUE(exists("file"));
  EXPECT_FALSE(exists("new"));
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
  wchar_t const* mode;
  int access;
  mode_t permission;  // of the owner
};

constexpr AccessKind kAccessKinds[] = {{L"4", AFiler::readAccess, 0400},
                                       {L"2", AFiler::writeAccess, 0200},
                                       {L"1", AFiler::executeAccess, 0100},
                                       {L"2", AFiler::changeAccess, 0200}};

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
                EXPECT_EQ(ask(path(longName()), AFiler::writeAccess, before),
                          (Accessibility{false, before, before}));
              }),
              failed(L"access," + path(longName()) + L",2", ENAMETOOLONG));
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
  for (Failure const& row :
       {Failure{"file/x", ENOTDIR}, Failure{"loop", ELOOP}, Failure{longName(), ENAMETOOLONG}}) {
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
  expectOnMount(
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
}

#endif

class AFilerTreeTest : public AFilerEmptyFolderTest {
protected:
  /// Makes "tree" and a folder in it, each with a file.
  void makeTree(std::string const& top) const {
    fs::create_directories(folder / (top + "/d"));
    makeFile(folder / (top + "/f"), "");
    makeFile(folder / (top + "/d/f"), "");
  }
};

TEST_F(AFilerTreeTest, ShortPathsAreRefusedSilently) {
  EXPECT_TRUE(holdsInChild([&] {
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
  std::wstring const top = path("tree");
  for (std::wstring const end : {L"", L"/"}) {
    fs::create_directories(folder / "tree/d");
    makeFile(folder / "tree/d/f", "");
    EXPECT_EQ(recordsOf([&] { EXPECT_TRUE(AFiler::deleteFolders(top + end)); }),
              scopes(L"FileInx", {L"glob," + top + L"/*", L"glob," + top + L"/d/*"}) +
                  scopes(kGroup, {L"unlink," + top + L"/d/f", L"rmdir," + top + L"/d",
                                  L"rmdir," + top + end}));
    EXPECT_FALSE(exists("tree"));
  }
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
  EXPECT_EQ(log.records().size(), 4U * 2U + 4U);  // of four folders and four files
  for (LogRecord const& record : log.records()) {
    std::wstring const entry = record.message.substr(record.message.find(L',') + 1);
    EXPECT_TRUE((entry + L"/").starts_with(path(name) + L"/")) << testing::PrintToString(entry);
  }
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

// Bytes of their characters are those that patterns have: "[" and the backslash.
TEST_F(AFilerTreeTest, NamesInAnEncodingThatSharesBytesWithPatternsAreDeleted) {
  ChosenLocale const locale(kShiftJis);
  if (!locale.whyMissing().empty()) GTEST_SKIP() << locale.whyMissing();
  char const* const siblings[] = {"\x95", "\x95x", "\203a", "\x95[", "x", "ab"};
  for (std::string const name :
       {"\x95\\", "\x95\\x", "\x83[", "\203[a]", "\x95\\\x83[", "\\", "a*"}) {
    makeTree(name);
    makeTree(name + "/" + name);
    for (char const* const sibling : siblings) makeTree(sibling);
    LogRecorder const log;
    EXPECT_TRUE(AFiler::deleteFolders(AString((folder / name).c_str())));
    EXPECT_EQ(log.errors(), Records());
    EXPECT_FALSE(exists(name)) << testing::PrintToString(name);
    for (char const* const sibling : siblings) {
      EXPECT_TRUE(exists(sibling + "/f"s)) << testing::PrintToString(sibling);
      EXPECT_TRUE(exists(sibling + "/d/f"s)) << testing::PrintToString(sibling);
    }
  }
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
  EXPECT_TRUE(holdsInChild([&] {
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
  EXPECT_TRUE(holdsInChild([&] {
    ASSERT_EQ(::chdir(folder.path().c_str()), 0);
    makeChain(1000, "d");
  }));
  ASSERT_TRUE(exists("d/d/d"));
  EXPECT_TRUE(deleteFrugally(path("d")));
}

TEST_F(AFilerTreeTest, LevelsBeyondTheLongestPathAreReported) {
  EXPECT_TRUE(holdsInChild([&] {
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

/// A folder "tree/d" that becomes a link to "outside" while it is deleted.
struct Swap {
  char const* label;
  char const* call;      // the step before which that happens
  char const* entry;     // and its path
  char const* newPlace;  // of the folder
  int number;            // what is reported; 0 for nothing
};

void PrintTo(Swap const& row, std::ostream* out) { *out << row.label; }

class AFilerSwapTest : public AFilerTreeTest, public testing::WithParamInterface<Swap> {};

TEST_P(AFilerSwapTest, LinkIsNotFollowed) {
  Swap const& row = GetParam();
  makeTree("outside");
  fs::create_directories(folder / "tree/d/e");
  makeFile(folder / "tree/d/f", "");
  makeFile(folder / "tree/d/e/f", "");
  bool isSwapped = false;
  AString const message = AString(row.call) << path(row.entry).c_str();
  ActingLogger const log([&](std::wstring const& announced) {
    if (isSwapped || announced != message.const_cpp_str()) return;
    fs::rename(folder / "tree/d", folder / row.newPlace);
    fs::create_directory_symlink(folder / "outside", folder / "tree/d");
    isSwapped = true;
  });
  EXPECT_FALSE(AFiler::deleteFolders(path("tree")));
  EXPECT_TRUE(isSwapped);
  EXPECT_TRUE(exists("outside/f"));
  EXPECT_TRUE(exists("outside/d/f"));
  ASSERT_FALSE(log.errors.empty());
  EXPECT_EQ(log.errors.back(), errorRecord(kGroup, L"  " + reason(row.number)));
}

INSTANTIATE_TEST_SUITE_P(
    Moments, AFilerSwapTest,
    testing::Values(Swap{"BeforeEnumeration", "glob,", "tree/d/*", "moved", ESTALE},
                    Swap{"BeforeEnumerationInPlace", "glob,", "tree/d/*", "tree/.d", ENOTEMPTY},
                    Swap{"BeforeAFile", "unlink,", "tree/d/f", "moved", ESTALE},
                    Swap{"BeforeAFileInPlace", "unlink,", "tree/d/f", "tree/.d", ENOTEMPTY},
                    Swap{"BeforeAFileBelow", "unlink,", "tree/d/e/f", "moved", ESTALE},
                    Swap{"BeforeAFolderBelow", "rmdir,", "tree/d/e", "moved", ESTALE},
                    Swap{"BeforeTheFolderItself", "rmdir,", "tree/d", "tree/.d", ENOTEMPTY}),
    [](auto const& test) { return std::string(test.param.label); });

TEST_F(AFilerTreeTest, LinkThatComesInTheTopsPlaceIsNotFollowed) {
  makeTree("outside");
  makeTree("tree");
  ActingLogger const log([&](std::wstring const& announced) {
    if (announced != L"glob," + path("tree/*")) return;
    fs::rename(folder / "tree", folder / "moved");
    fs::create_directory_symlink("outside", folder / "tree");
  });
  AFiler::deleteFolders(path("tree"));
  EXPECT_TRUE(exists("moved"));
  EXPECT_TRUE(exists("outside/f"));
  EXPECT_TRUE(exists("outside/d/f"));
}

TEST_F(AFilerTreeTest, LinkThatComesInAMissingFoldersPlaceIsNotFollowed) {
  makeTree("outside");
  ActingLogger const log([&](std::wstring const& announced) {
    if (!announced.starts_with(L"glob,")) return;
    fs::create_directory_symlink("outside", folder / "tree");
  });
  EXPECT_TRUE(AFiler::deleteFolders(path("tree")));
  EXPECT_EQ(log.errors, Records());
  EXPECT_TRUE(exists("outside/f"));
  EXPECT_TRUE(exists("outside/d/f"));
}

/// Puts something else in the place of a folder of "tree", which has been listed
/// as such, when the first entry of the other one is deleted.
template <class Replace>
void deleteWhileReplacing(TemporaryFolder const& folder, Replace replace) {
  bool isReplaced = false;
  ActingLogger const log([&](std::wstring const& announced) {
    if (isReplaced || !announced.starts_with(L"unlink,")) return;
    isReplaced = true;
    std::string const other = folder / (announced.ends_with(L"tree/a/f") ? "tree/b" : "tree/a");
    fs::rename(other, folder / "moved");
    replace(other);
  });
  EXPECT_TRUE(AFiler::deleteFolders(folder.wide("tree")));
  EXPECT_TRUE(isReplaced);
  EXPECT_EQ(log.errors, Records());
  EXPECT_FALSE(fs::exists(folder / "tree"));
  EXPECT_TRUE(fs::exists(folder / "moved/f"));
}

class AFilerReplacedFolderTest : public AFilerTreeTest {
protected:
  AFilerReplacedFolderTest() {
    for (char const* const name : {"tree/a", "tree/b"}) {
      fs::create_directories(folder / name);
      makeFile(folder / name + "/f", "");
    }
  }
};

TEST_F(AFilerReplacedFolderTest, LinkIsRemovedAndNotFollowed) {
  makeTree("outside");
  deleteWhileReplacing(folder, [&](std::string const& place) {
    fs::create_directory_symlink(folder / "outside", place);
  });
  EXPECT_TRUE(exists("outside/f"));
  EXPECT_TRUE(exists("outside/d/f"));
}

TEST_F(AFilerReplacedFolderTest, FifoIsRemovedAndNotWaitedFor) {
  EXPECT_TRUE(holdsInChild([&] {
    deleteWhileReplacing(
        folder, [](std::string const& place) { EXPECT_EQ(::mkfifo(place.c_str(), 0600), 0); });
  }));
}

TEST_F(AFilerReplacedFolderTest, MissingFolderIsNoError) {
  deleteWhileReplacing(folder, [](std::string const&) {});
}

TEST_F(AFilerTreeTest, EntriesThatOthersDeleteMeanwhileAreNoErrors) {
  makeTree("tree");
  ActingLogger const log([&](std::wstring const& announced) {
    if (announced == L"unlink," + path("tree/d/f")) fs::remove_all(folder / "tree");
  });
  EXPECT_TRUE(AFiler::deleteFolders(path("tree")));
  EXPECT_EQ(log.errors, Records());
}

TEST_F(AFilerTreeTest, FailureCountsEvenIfTheFolderGoesInTheEnd) {
  fs::create_directory(folder / "tree");
  makeFile(folder / "tree/f", "");
  ActingLogger const log([&](std::wstring const& announced) {
    if (announced == L"unlink," + path("tree/f")) {
      fs::remove(folder / "tree/f");
      fs::create_directory(folder / "tree/f");
    } else if (announced == L"rmdir," + path("tree")) {
      fs::remove(folder / "tree/f");
    }
  });
  EXPECT_FALSE(AFiler::deleteFolders(path("tree")));
  EXPECT_EQ(log.errors, errorInside(called(L"unlink," + path("tree/f")), kGroup, reason(EISDIR)));
  EXPECT_FALSE(exists("tree"));
}

TEST_F(AFilerTreeTest, WantOfDescriptorsIsReported) {
  makeTree("tree");
  EXPECT_TRUE(holdsInChild([&] {
    // A sanitizer needs descriptors where it meets the types of scopes and logger first.
    EXPECT_FALSE(recordsOf([&] { EXPECT_FALSE(AFiler::deleteFile(path("tree"))); }).empty());
    LogRecorder const log;
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit const none{0, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_FALSE(AFiler::deleteFolders(path("tree")));
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);  // sanitizers open files at the end
    EXPECT_EQ(log.plainErrors(), (Records{errorRecord(kGroup, reason(ENOTEMPTY))}));
  }));
  EXPECT_TRUE(exists("tree/f"));
}

TEST_F(AFilerTreeTest, FoldersThatMayNotBeReadAreReported) {
  EXPECT_TRUE(holdsUnprivileged([&] {
    TemporaryFolder const own;
    fs::create_directories(own / "tree/closed/inside");
    fs::create_directories(own / "tree/open");
    fs::create_directories(own / "tree/empty");
    ASSERT_EQ(::chmod((own / "tree/closed").c_str(), 0), 0);
    ASSERT_EQ(::chmod((own / "tree/empty").c_str(), 0), 0);
    LogRecorder const log;
    EXPECT_FALSE(AFiler::deleteFolders(own.wide("tree")));
    EXPECT_EQ(log.plainErrors(), Records(2, errorRecord(kGroup, reason(ENOTEMPTY))));
    EXPECT_FALSE(fs::exists(own / "tree/open"));
    EXPECT_FALSE(fs::exists(own / "tree/empty"));
    ASSERT_EQ(::chmod((own / "tree/closed").c_str(), 0700), 0);
    EXPECT_TRUE(fs::exists(own / "tree/closed/inside"));
  }));
}

}  // namespace
}  // namespace vrxutil::test

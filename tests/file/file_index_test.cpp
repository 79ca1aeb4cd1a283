#include "tests/file/file_support.h"
#include "tests/support/locale_scope.h"
#include "tests/support/own_malloc.h"
#include "tests/support/temporary_folder.h"

#include <vrxutil/file.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <type_traits>
#include <vector>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vrxutil::test {
namespace {

using namespace std::string_literals;
namespace fs = std::filesystem;

static_assert(kIsPlainAndUnique<AFileIndex>);
static_assert(sizeof(AFileIndex) == sizeof(AString) + sizeof(glob_t) + 2 * sizeof(void*));
static_assert(std::is_same_v<decltype(&AFileIndex::open),
                             bool (AFileIndex::*)(bool, wchar_t const*, wchar_t const*)>);
static_assert(std::is_same_v<decltype(&AFileIndex::moveNext),
                             bool (AFileIndex::*)(AString*, bool*, AString*, unsigned long*)>);

constexpr wchar_t kGroup[] = L"FileInx";

struct Entry {
  std::wstring path;
  bool isFolder;
  std::wstring name;
  // NOLINTNEXTLINE(modernize-use-nullptr): the check takes what is made here for a 0
  auto operator<=>(Entry const&) const = default;
};

void PrintTo(Entry const& entry, std::ostream* out) {
  *out << testing::PrintToString(entry.path) << ' ' << entry.isFolder << ' '
       << testing::PrintToString(entry.name);
}

using Entries = std::vector<Entry>;

/// The entries that are left, sorted; checks that each has size 0.
Entries rest(AFileIndex& index) {
  Entries entries;
  AString path;
  bool isFolder = false;
  AString name;
  unsigned long size = 77;
  while (index.moveNext(&path, &isFolder, &name, &size)) {
    EXPECT_EQ(size, 0UL);
    size = 77;
    entries.push_back({path.const_cpp_str(), isFolder, name.const_cpp_str()});
  }
  EXPECT_EQ(size, 77UL);
  std::sort(entries.begin(), entries.end());
  return entries;
}

std::vector<std::wstring> names(std::wstring const& folder, std::wstring const& pattern) {
  AFileIndex index(false, folder.c_str(), pattern.c_str());
  std::vector<std::wstring> found;
  for (Entry const& entry : rest(index)) found.push_back(entry.name);
  return found;
}

using Names = std::vector<std::wstring>;

/// A folder with a file and a folder.
class SampleFolder {
public:
  SampleFolder() {
    makeFile(folder / "a", "bytes");
    fs::create_directory(folder / "d");
    makeFile(folder / "d/inside", "");
    makeFile(folder / ".hidden", "");
    path = folder.wide("");
    path.pop_back();
  }

  Entries visible() const { return {{path + L"/a", false, L"a"}, {path + L"/d", true, L"d"}}; }

  TemporaryFolder folder;
  std::wstring path;
};

Records opened(std::wstring const& pattern) { return scopes(kGroup, {L"glob," + pattern}); }

Records failed(std::wstring const& pattern, int number) {
  return failedCall(kGroup, L"glob," + pattern, reason(number));
}

TEST(AFileIndexTest, NothingIsOpenAtFirst) {
  EXPECT_EQ(recordsOf([] {
              AFileIndex index;
              EXPECT_EQ(rest(index), Entries());
              index.close();
              index.close();
              EXPECT_EQ(rest(index), Entries());
            }),
            Records());
}

TEST(AFileIndexTest, ListsFilesAndFoldersButNoHiddenOnes) {
  SampleFolder const sample;
  AFileIndex index;
  EXPECT_EQ(recordsOf([&] { EXPECT_TRUE(index.open(true, sample.path.c_str(), L"*")); }),
            opened(sample.path + L"/*"));
  EXPECT_EQ(recordsOf([&] { EXPECT_EQ(rest(index), sample.visible()); }), Records());
  for (int i = 0; i < 3; ++i) EXPECT_EQ(rest(index), Entries());
}

TEST(AFileIndexTest, ConstructorOpens) {
  SampleFolder const sample;
  EXPECT_EQ(recordsOf([&] {
              AFileIndex index(true, sample.path.c_str(), L"*");
              EXPECT_EQ(rest(index), sample.visible());
            }),
            opened(sample.path + L"/*"));
}

TEST(AFileIndexTest, FailedOpenInTheConstructorShowsInMoveNext) {
  SampleFolder const sample;
  EXPECT_EQ(recordsOf([&] {
              AFileIndex index(true, sample.path.c_str(), L"none*");
              EXPECT_EQ(rest(index), Entries());
            }),
            failed(sample.path + L"/none*", ENOENT));
}

TEST(AFileIndexTest, NoMatchIsQuietUnlessAsked) {
  SampleFolder const sample;
  AFileIndex index;
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(index.open(false, sample.path.c_str(), L"none*")); }),
            opened(sample.path + L"/none*"));
  EXPECT_EQ(rest(index), Entries());
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(index.open(true, sample.path.c_str(), L"none*")); }),
            failed(sample.path + L"/none*", ENOENT));
  EXPECT_EQ(rest(index), Entries());
}

TEST(AFileIndexTest, MissingAndEmptyFoldersMatchNothing) {
  TemporaryFolder const folder;
  fs::create_directory(folder / "empty");
  makeFile(folder / "file", "");
  for (wchar_t const* const name : {L"missing", L"empty"}) {
    std::wstring const path = folder.wide("") + name;
    AFileIndex index;
    EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(index.open(false, path.c_str(), L"*")); }),
              opened(path + L"/*"));
    EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(index.open(true, path.c_str(), L"*")); }),
              failed(path + L"/*", ENOENT));
  }
  EXPECT_EQ(names(folder.wide("file"), L"*"), Names());
}

TEST(AFileIndexTest, UnreadableFolderMatchesNothing) {
  EXPECT_TRUE(holdsUnprivileged([] {
    TemporaryFolder const own;
    makeFile(own / "file", "");
    ASSERT_EQ(::chmod(own.path().c_str(), 0300), 0);
    std::wstring const pattern = own.wide("*");
    AFileIndex index;
    EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(index.open(false, own.wide("").c_str(), L"*")); }),
              opened(pattern));
    EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(index.open(true, own.wide("").c_str(), L"*")); }),
              failed(pattern, EACCES));
    ASSERT_EQ(::chmod(own.path().c_str(), 0700), 0);
  }));
}

TEST(AFileIndexTest, OutputsMayBeNull) {
  SampleFolder const sample;
  AFileIndex index(true, sample.path.c_str(), L"a");
  EXPECT_TRUE(index.moveNext(nullptr, nullptr, nullptr, nullptr));
  EXPECT_FALSE(index.moveNext(nullptr, nullptr, nullptr, nullptr));

  AString path;
  ASSERT_TRUE(index.open(true, sample.path.c_str(), L"d"));
  EXPECT_TRUE(index.moveNext(&path, nullptr, nullptr, nullptr));
  EXPECT_EQ(path.const_cpp_str(), sample.path + L"/d");

  bool isFolder = false;
  ASSERT_TRUE(index.open(true, sample.path.c_str(), L"d"));
  EXPECT_TRUE(index.moveNext(nullptr, &isFolder, nullptr, nullptr));
  EXPECT_TRUE(isFolder);

  AString name;
  ASSERT_TRUE(index.open(true, sample.path.c_str(), L"d"));
  EXPECT_TRUE(index.moveNext(nullptr, nullptr, &name, nullptr));
  EXPECT_EQ(name.const_cpp_str(), L"d");

  unsigned long size = 77;
  ASSERT_TRUE(index.open(true, sample.path.c_str(), L"a"));
  EXPECT_TRUE(index.moveNext(nullptr, nullptr, nullptr, &size));
  EXPECT_EQ(size, 0UL);
}

TEST(AFileIndexTest, LastCallsLeaveTheOutputsAlone) {
  AFileIndex index;
  AString path(L"old");
  bool isFolder = true;
  AString name(L"old");
  unsigned long size = 77;
  EXPECT_FALSE(index.moveNext(&path, &isFolder, &name, &size));
  EXPECT_EQ(path.const_cpp_str(), L"old");
  EXPECT_TRUE(isFolder);
  EXPECT_EQ(name.const_cpp_str(), L"old");
  EXPECT_EQ(size, 77UL);
}

TEST(AFileIndexTest, CloseEndsTheList) {
  SampleFolder const sample;
  AFileIndex index(true, sample.path.c_str(), L"*");
  EXPECT_TRUE(index.moveNext(nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(recordsOf([&] { index.close(); }), Records());
  EXPECT_EQ(rest(index), Entries());
  index.close();
  EXPECT_EQ(rest(index), Entries());
}

TEST(AFileIndexTest, OpenStartsAfresh) {
  SampleFolder const sample;
  AFileIndex index(true, sample.path.c_str(), L"*");
  EXPECT_TRUE(index.moveNext(nullptr, nullptr, nullptr, nullptr));
  EXPECT_TRUE(index.open(true, sample.path.c_str(), L"*"));
  EXPECT_EQ(rest(index), sample.visible());
  EXPECT_TRUE(index.open(true, sample.path.c_str(), L"*"));
  EXPECT_FALSE(index.open(false, sample.path.c_str(), L"none*"));
  EXPECT_EQ(rest(index), Entries());
}

struct PatternCase {
  wchar_t const* folder;
  wchar_t const* pattern;
  Names names;
};

TEST(AFileIndexTest, PatternsAreThoseOfTheShell) {
  TemporaryFolder const folder;
  for (char const* const name : {"a", "ab", "b.txt", ".dot", "[x]", "x", "*"}) {
    makeFile(folder / name, "");
  }
  PatternCase const cases[] = {
      {L"", L"a", {L"a"}},         {L"", L"a*", {L"a", L"ab"}},  {L"", L"?", {L"*", L"a", L"x"}},
      {L"", L"*.txt", {L"b.txt"}}, {L"", L"[ax]", {L"a", L"x"}}, {L"", L"[!ax]", {L"*"}},
      {L"", L"[x]", {L"x"}},       {L"", L"\\[x]", {L"[x]"}},    {L"", L"\\*", {L"*"}},
      {L"", L".d*", {L".dot"}},    {L"", L"{a,ab}", {}},         {L"", L"~", {}}};
  for (PatternCase const& row : cases) {
    EXPECT_EQ(names(folder.wide("") + row.folder, row.pattern), row.names)
        << testing::PrintToString(std::wstring(row.pattern));
  }
}

TEST(AFileIndexTest, FolderIsPartOfThePattern) {
  TemporaryFolder const folder;
  fs::create_directory(folder / "one");
  fs::create_directory(folder / "two");
  fs::create_directory(folder / "o*");
  makeFile(folder / "one/a", "");
  makeFile(folder / "two/b", "");
  makeFile(folder / "o*/c", "");
  EXPECT_EQ(names(folder.wide("*"), L"*"), (Names{L"c", L"a", L"b"}));
  EXPECT_EQ(names(folder.wide("o\\*"), L"*"), Names{L"c"});
}

TEST(AFileIndexTest, TildeIsNoHomeFolder) {
  EXPECT_TRUE(holdsInChild([] {
    TemporaryFolder const folder;
    ASSERT_EQ(::chdir(folder.path().c_str()), 0);
    EXPECT_FALSE(AFileIndex().open(false, L"", L"~"));
    EXPECT_EQ(names(L"~", L"*"), Names());
    makeFile("~", "");
    AFileIndex index(true, L"", L"~");
    EXPECT_EQ(rest(index), (Entries{{L"~", false, L""}}));  // as splitPath() has it
  }));
}

TEST(AFileIndexTest, PartsAreJoinedAsPaths) {
  SampleFolder const sample;
  EXPECT_EQ(names(sample.path + L"/", L"a"), Names{L"a"});
  EXPECT_EQ(names(sample.path, L"/a"), Names{L"a"});
  EXPECT_EQ(names(sample.path + L"/", L"/a"), Names{L"a"});
  AFileIndex index;
  EXPECT_TRUE(index.open(true, nullptr, (sample.path + L"/a").c_str()));
  EXPECT_TRUE(index.open(true, (sample.path + L"/a").c_str(), nullptr));
  EXPECT_EQ(rest(index), (Entries{{sample.path + L"/a", false, L"a"}}));
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(index.open(true, nullptr, nullptr)); }),
            failed(L"", ENOENT));
}

TEST(AFileIndexTest, OneFinalSeparatorIsRemoved) {
  SampleFolder const sample;
  AFileIndex index(true, sample.path.c_str(), L"d/");
  EXPECT_EQ(rest(index), (Entries{{sample.path + L"/d", true, L"d"}}));
  ASSERT_TRUE(index.open(true, L"/", nullptr));  // which glob marks as "//"
  EXPECT_EQ(rest(index), (Entries{{L"/", true, L""}}));
}

TEST(AFileIndexTest, LinksToFoldersAreFolders) {
  TemporaryFolder const folder;
  fs::create_directory(folder / "d");
  makeFile(folder / "f", "");
  fs::create_symlink("d", folder / "to-folder");
  fs::create_symlink("f", folder / "to-file");
  fs::create_symlink("none", folder / "to-nothing");
  std::wstring const path = folder.wide("");
  AFileIndex index(true, path.c_str(), L"to-*");
  EXPECT_EQ(rest(index), (Entries{{path + L"to-file", false, L"to-file"},
                                  {path + L"to-folder", true, L"to-folder"},
                                  {path + L"to-nothing", false, L"to-nothing"}}));
}

TEST(AFileIndexTest, NamesAreInTheLocalesEncoding) {
  LocaleScope const locale("C.UTF-8");
  TemporaryFolder const folder;
  makeFile(folder / "\xC3\xA4\xE2\x82\xAC", "");
  EXPECT_EQ(names(folder.wide(""), L"\u00e4*"), Names{L"\u00e4\u20ac"});
}

TEST(AFileIndexTest, NameThatTheLocaleCannotExpressIsReportedAndEmpty) {
  LocaleScope const locale("C.UTF-8");
  TemporaryFolder const folder;
  fs::create_directory(folder / "\xFF");
  AFileIndex index(true, folder.wide("").c_str(), L"*");
  LogRecorder const log;
  EXPECT_EQ(rest(index), (Entries{{L"", false, L""}}));
  EXPECT_EQ(log.plainErrors(),
            Records{errorRecord(L"String", L"couldn't query space for wide character conversion")});
}

TEST(AFileIndexTest, LongPatternIsNoMatch) {
  std::wstring const path = L"/" + std::wstring(300, L'n');
  AFileIndex index;
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(index.open(true, path.c_str(), L"*")); }),
            failed(path + L"/*", ENAMETOOLONG));
}

/// Makes `count` files with names as long as they can be.
void makeLongNames(TemporaryFolder const& folder, int count) {
  for (int i = 0; i < count; ++i) {
    std::string name = std::to_string(i);
    name.append(255 - name.size(), 'n');
    ASSERT_EQ(::mknod((folder / name).c_str(), S_IFREG | 0600, 0), 0);
  }
}

/// From now on this process finds hardly more than a megabyte of memory. (Inlined,
/// the stack that it takes would not be where its caller needs it next.)
[[gnu::noinline]] void leaveOneMegabyte() {
  constexpr std::size_t kBlock = 65536;  // malloc maps no memory for a block of this size
  // By a pointer that nobody knows: clang leaves out blocks that are not used.
  void* (*const volatile take)(std::size_t) = std::malloc;
  std::array<void*, 16> left{};
  for (void*& block : left) block = take(kBlock);
  std::array<char volatile, 4 * kBlock> stack;  // cannot grow later
  for (std::size_t i = 0; i < stack.size(); i += 1024) stack[i] = 1;
  rlimit const limit{1, 1};
  ASSERT_EQ(::setrlimit(RLIMIT_AS, &limit), 0);
  for (std::size_t size = kBlock; size >= 1024; size /= 2) {
    // NOLINTNEXTLINE(clang-analyzer-unix.Malloc): it is to be gone
    while (take(size) != nullptr) {
    }
  }
  for (void* const block : left) std::free(block);
}

TEST(AFileIndexTest, WantOfMemoryIsReported) {
#ifdef VRXUTIL_OWN_MALLOC
  GTEST_SKIP() << kOwnMalloc;
#endif
  TemporaryFolder const folder;
  makeLongNames(folder, 10'000);
  EXPECT_TRUE(holdsInChild([&] {
    AFileIndex index(true, folder.wide("").c_str(), L"1nnn*");
    leaveOneMegabyte();
    for (bool const reportNoMatch : {false, true}) {
      EXPECT_EQ(recordsOf([&] {
                  EXPECT_FALSE(index.open(reportNoMatch, folder.wide("").c_str(), L"*"));
                }),
                failed(folder.wide("*"), ENOMEM));
      EXPECT_EQ(rest(index), Entries());
    }
  }));
}

/// Names of the entries, in the order in which they come.
Names namesInOrder(std::wstring const& folder) {
  AFileIndex index(true, folder.c_str(), L"*");
  Names found;
  for (AString name; index.moveNext(nullptr, nullptr, &name, nullptr);) {
    found.push_back(name.const_cpp_str());
  }
  return found;
}

TEST(AFileIndexTest, OrderIsNotThatOfTheNames) {
  TemporaryFolder const folder;
  for (int i = 0; i < 200; ++i) makeFile(folder / std::to_string(i), "");
  std::vector<fs::path> const given{fs::directory_iterator(folder.path()),
                                    fs::directory_iterator()};
  if (std::is_sorted(given.begin(), given.end())) GTEST_SKIP() << "the file system sorts names";
  Names const found = namesInOrder(folder.wide(""));
  EXPECT_EQ(found.size(), given.size());
  EXPECT_FALSE(std::is_sorted(found.begin(), found.end()));
}

TEST(AFileIndexTest, ManyEntriesAreListed) {
  constexpr int kCount = 5000;
  TemporaryFolder const folder;
  for (int i = 0; i < kCount; ++i) {
    ASSERT_EQ(::mknod((folder / std::to_string(i)).c_str(), S_IFREG | 0600, 0), 0);
  }
  EXPECT_EQ(names(folder.wide(""), L"*").size(), static_cast<std::size_t>(kCount));
}

}  // namespace
}  // namespace vrxutil::test

#include <vrxutil/file.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <type_traits>
#include <vector>

namespace vrxutil::test {
namespace {

using namespace std::string_literals;

static_assert(std::is_base_of_v<AString, APath>);
static_assert(sizeof(APath) == sizeof(AString));
static_assert(!std::is_polymorphic_v<APath>);
static_assert(std::is_constructible_v<APath, AString const&, AString const&>);
static_assert(std::is_convertible_v<APath&, AString const&>);
static_assert(!std::is_default_constructible_v<APath>);
static_assert(std::is_same_v<decltype(splitPath), bool(wchar_t const*, AString*, AString*)>);
static_assert(
    std::is_same_v<decltype(joinPath), wchar_t const*(AString*, wchar_t const*, wchar_t const*)>);

struct SplitCase {
  wchar_t const* path;
  wchar_t const* folder;
  wchar_t const* name;
  bool found;
};

TEST(SplitPathTest, SplitsAtTheLastSeparator) {
  SplitCase const cases[] = {{L"/tmp/a.txt", L"/tmp", L"a.txt", true},
                             {L"/a", L"", L"a", true},
                             {L"a.txt", L"a.txt", L"", false},
                             {L"/tmp/", L"/tmp", L"", true},
                             {L"", L"", L"", false},
                             {L"/", L"", L"", true},
                             {L"//", L"/", L"", true},
                             {L"//a", L"/", L"a", true},
                             {L"a//b", L"a/", L"b", true},
                             {L"a/b/c", L"a/b", L"c", true},
                             {L"a/..", L"a", L"..", true},
                             {L"./a", L".", L"a", true},
                             {L"..", L"..", L"", false},
                             {L"a\\b", L"a\\b", L"", false},
                             {L"a/b\\c", L"a", L"b\\c", true},
                             {L"\u00e4/\u20ac", L"\u00e4", L"\u20ac", true},
                             {L"a\u2215b", L"a\u2215b", L"", false}};
  for (SplitCase const& row : cases) {
    AString folder(L"old");
    AString name(L"old");
    EXPECT_EQ(splitPath(row.path, &folder, &name), row.found);
    EXPECT_EQ(folder.const_cpp_str(), row.folder) << std::wstring(row.path);
    EXPECT_EQ(name.const_cpp_str(), row.name) << std::wstring(row.path);
  }
}

TEST(SplitPathTest, NullOutputsAreNotWritten) {
  AString folder;
  AString name(L"old");
  EXPECT_TRUE(splitPath(L"/tmp/a", &folder, nullptr));
  EXPECT_EQ(folder.const_cpp_str(), L"/tmp");
  EXPECT_TRUE(splitPath(L"/tmp/a", nullptr, &name));
  EXPECT_EQ(name.const_cpp_str(), L"a");
  EXPECT_TRUE(splitPath(L"/tmp/a", nullptr, nullptr));
  EXPECT_FALSE(splitPath(L"a", &folder, nullptr));
  EXPECT_EQ(folder.const_cpp_str(), L"a");
  EXPECT_FALSE(splitPath(L"a", nullptr, &name));
  EXPECT_EQ(name.const_cpp_str(), L"");
  EXPECT_FALSE(splitPath(L"a", nullptr, nullptr));
}

TEST(SplitPathTest, FolderMayOwnThePath) {
  AString folder(L"/a/folder/with/a name of some length");
  AString name;
  EXPECT_TRUE(splitPath(folder, &folder, &name));
  EXPECT_EQ(folder.const_cpp_str(), L"/a/folder/with");
  EXPECT_EQ(name.const_cpp_str(), L"a name of some length");
  EXPECT_TRUE(splitPath(folder, &folder, nullptr));
  EXPECT_EQ(folder.const_cpp_str(), L"/a/folder");
  AString alone(L"name");
  EXPECT_FALSE(splitPath(alone, &alone, &name));
  EXPECT_EQ(alone.const_cpp_str(), L"name");
  EXPECT_EQ(name.const_cpp_str(), L"");
}

TEST(SplitPathTest, NameMayOwnThePath) {
  AString folder;
  AString name(L"/a/folder/with/a name of some length");
  EXPECT_TRUE(splitPath(name, &folder, &name));
  EXPECT_EQ(folder.const_cpp_str(), L"/a/folder/with");
  EXPECT_EQ(name.const_cpp_str(), L"a name of some length");
  EXPECT_FALSE(splitPath(name, &folder, &name));
  EXPECT_EQ(folder.const_cpp_str(), L"a name of some length");
  EXPECT_EQ(name.const_cpp_str(), L"");
  AString only(L"/a/b");
  EXPECT_TRUE(splitPath(only, nullptr, &only));
  EXPECT_EQ(only.const_cpp_str(), L"b");
}

struct JoinCase {
  wchar_t const* folder;
  wchar_t const* name;
  wchar_t const* path;
};

constexpr JoinCase kJoins[] = {{L"/tmp", L"a", L"/tmp/a"},
                               {L"/tmp/", L"a", L"/tmp/a"},
                               {L"/tmp", L"/a", L"/tmp/a"},
                               {L"/tmp/", L"/a", L"/tmp/a"},
                               {L"/tmp/", L"//a", L"/tmp//a"},
                               {L"/tmp//", L"/a", L"/tmp//a"},
                               {L"/tmp//", L"//a", L"/tmp///a"},
                               {L"/tmp//", L"a", L"/tmp//a"},
                               {L"/tmp", L"//a", L"/tmp//a"},
                               {L"", L"a", L"a"},
                               {L"", L"/a", L"/a"},
                               {L"/tmp", L"", L"/tmp"},
                               {L"/tmp/", L"", L"/tmp/"},
                               {L"", L"", L""},
                               {L"/", L"a", L"/a"},
                               {L"/", L"/", L"/"},
                               {L"/", L"", L"/"},
                               {L"", L"/", L"/"},
                               {L"a", L"/", L"a/"},
                               {L"a/", L"/", L"a/"},
                               {L".", L"..", L"./.."},
                               {L"a\\", L"b", L"a\\/b"},
                               {L"\u00e4", L"\u20ac", L"\u00e4/\u20ac"}};

TEST(JoinPathTest, PutsOneSeparatorBetweenTheParts) {
  for (JoinCase const& row : kJoins) {
    AString result(L"old");
    wchar_t const* const joined = joinPath(&result, row.folder, row.name);
    EXPECT_EQ(joined, static_cast<wchar_t const*>(result));
    EXPECT_EQ(result.const_cpp_str(), row.path)
        << std::wstring(row.folder) << L" and " << std::wstring(row.name);
  }
}

TEST(JoinPathTest, NullPartsAreEmpty) {
  AString result(L"old");
  EXPECT_STREQ(joinPath(&result, nullptr, nullptr), L"");
  EXPECT_EQ(result.const_cpp_str(), L"");
  EXPECT_STREQ(joinPath(&result, nullptr, L"/a"), L"/a");
  EXPECT_STREQ(joinPath(&result, L"/tmp/", nullptr), L"/tmp/");
  EXPECT_STREQ(joinPath(&result, nullptr, L""), L"");
  EXPECT_STREQ(joinPath(&result, L"", nullptr), L"");
}

TEST(JoinPathTest, ResultMayOwnTheParts) {
  for (JoinCase const& row : kJoins) {
    AString folder(row.folder);
    joinPath(&folder, folder, row.name);
    EXPECT_EQ(folder.const_cpp_str(), row.path);
    AString name(row.name);
    joinPath(&name, row.folder, name);
    EXPECT_EQ(name.const_cpp_str(), row.path);
  }
  AString both(L"/some/folder/that/is/long");
  joinPath(&both, both, both);
  EXPECT_EQ(both.const_cpp_str(), L"/some/folder/that/is/long/some/folder/that/is/long");
  AString part(L"/tmp/a");
  joinPath(&part, L"x", static_cast<wchar_t const*>(part) + 4);
  EXPECT_EQ(part.const_cpp_str(), L"x/a");
  AString split(L"/tmp/a");
  joinPath(&split, static_cast<wchar_t const*>(split) + 5, split);
  EXPECT_EQ(split.const_cpp_str(), L"a/tmp/a");
}

// All texts over two characters, up to a length.
std::vector<std::wstring> shortPaths(std::size_t longest) {
  std::vector<std::wstring> paths = {L""};
  for (std::size_t i = 0; i < paths.size(); ++i) {
    if (paths[i].size() == longest) continue;
    paths.push_back(paths[i] + L'/');
    paths.push_back(paths[i] + L'a');
  }
  return paths;
}

std::wstring joinedStepByStep(std::wstring const& folder, std::wstring const& name) {
  if (folder.empty()) return name;
  if (name.empty()) return folder;
  bool const ends = folder.back() == L'/';
  bool const begins = name.front() == L'/';
  if (ends && begins) return folder + name.substr(1);
  if (ends || begins) return folder + name;
  return folder + L"/" + name;
}

TEST(JoinPathTest, EveryPairOfShortParts) {
  std::vector<std::wstring> const parts = shortPaths(4);
  for (std::wstring const& folder : parts) {
    for (std::wstring const& name : parts) {
      AString result;
      joinPath(&result, folder.c_str(), name.c_str());
      ASSERT_EQ(result.const_cpp_str(), joinedStepByStep(folder, name)) << folder << L" " << name;
      ASSERT_EQ(APath(AString(folder), AString(name)).const_cpp_str(), result.const_cpp_str());
    }
  }
}

TEST(SplitPathTest, EveryShortPath) {
  for (std::wstring const& path : shortPaths(8)) {
    std::size_t const last = path.rfind(L'/');
    bool const found = last != std::wstring::npos;
    AString folder;
    AString name;
    ASSERT_EQ(splitPath(path.c_str(), &folder, &name), found) << path;
    ASSERT_EQ(folder.const_cpp_str(), found ? path.substr(0, last) : path) << path;
    ASSERT_EQ(name.const_cpp_str(), found ? path.substr(last + 1) : L"") << path;
  }
}

TEST(SplitPathTest, LongPathsAreSplit) {
  std::wstring const folderText = L"/" + std::wstring(500000, L'f');
  std::wstring const nameText(500000, L'n');
  AString folder;
  AString name;
  EXPECT_TRUE(splitPath((folderText + L"/" + nameText).c_str(), &folder, &name));
  EXPECT_TRUE(folder.const_cpp_str() == folderText);
  EXPECT_TRUE(name.const_cpp_str() == nameText);
  EXPECT_TRUE(std::wstring(joinPath(&folder, folder, name)) == folderText + L"/" + nameText);
}

TEST(APathTest, IsTheJoinedString) {
  for (JoinCase const& row : kJoins) {
    APath const path(row.folder, row.name);
    EXPECT_EQ(path.const_cpp_str(), row.path);
  }
}

TEST(APathTest, PartsEndAtTheirFirstNul) {
  APath const path(AString(L"/tmp\0x"s), AString(L"a\0y"s));
  EXPECT_EQ(path.const_cpp_str(), L"/tmp/a");
}

TEST(APathTest, IsAStringLikeAnyOther) {
  AString const folder(L"/tmp");
  APath path(folder, L"a");
  path << L".txt";
  AString const copy = path;
  EXPECT_EQ(copy.const_cpp_str(), L"/tmp/a.txt");
  path = APath(path, L"b");
  EXPECT_EQ(path.const_cpp_str(), L"/tmp/a.txt/b");
  EXPECT_EQ(folder.const_cpp_str(), L"/tmp");
}

}  // namespace
}  // namespace vrxutil::test

// AnIni2 as a store: values by name, and the text that is written.

#include "tests/ini/ini_support.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temporary_folder.h"

#include <vrxutil/ini.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <type_traits>

namespace vrxutil::test {
namespace {

namespace fs = std::filesystem;

using Map = AnIni2::SectionMap;

static_assert(std::is_base_of_v<AnIni, AnIni2>);
static_assert(
    std::is_same_v<Map, std::multimap<std::wstring, std::map<std::wstring, std::wstring>>>);

constexpr wchar_t kNotParsed[] = L"internal error: Ini file not parsed in AnIni2";

LogRecord const kWriting = detailRecord(L"Xml", L"ConvertBufferToUtf8");

class AnIni2Test : public IniFileTest {
protected:
  /// An object over a file of these bytes.
  std::unique_ptr<AnIni2> open(std::string const& text) {
    makeFile(path, text);
    return openQuietly();
  }

  std::unique_ptr<AnIni2> openMissing() { return openQuietly(); }

  LogRecorder recorder;

private:
  std::unique_ptr<AnIni2> openQuietly() {
    auto ini = std::make_unique<AnIni2>(AString(widePath));
    recorder.clear();
    return ini;
  }
};

std::wstring valueOf(AnIni2& ini, wchar_t const* section, wchar_t const* key) {
  AString value(L"unset");
  return ini.get(false, AString(section), AString(key), value) ? value.const_cpp_str() : L"missing";
}

void set(AnIni2& ini, wchar_t const* section, wchar_t const* key, wchar_t const* value) {
  ini.set(AString(section), AString(key), AString(value));
}

// Reading values.

TEST_F(AnIni2Test, GivesTheValueOfAKeyInItsSection) {
  auto const ini = open("k=none\n[a]\nk=in a\n[b]\nk=in b\n");
  EXPECT_EQ(valueOf(*ini, L"", L"k"), L"none");
  EXPECT_EQ(valueOf(*ini, L"a", L"k"), L"in a");
  EXPECT_EQ(valueOf(*ini, L"b", L"k"), L"in b");
  EXPECT_TRUE(recorder.records().empty());
}

TEST_F(AnIni2Test, NamesAreExactInCase) {
  auto const ini = open("[a]\nk=v\n");
  EXPECT_EQ(valueOf(*ini, L"A", L"k"), L"missing");
  EXPECT_EQ(valueOf(*ini, L"a", L"K"), L"missing");
}

TEST_F(AnIni2Test, MissingValueIsEmptyAndQuiet) {
  auto const ini = open("[a]\nk=v\n");
  AString value(L"before");
  EXPECT_FALSE(ini->get(false, AString(L"a"), AString(L"x"), value));
  EXPECT_EQ(value.const_cpp_str(), L"");
  value = L"before";
  EXPECT_FALSE(ini->tryGet(AString(L"x"), AString(L"k"), value));
  EXPECT_EQ(value.const_cpp_str(), L"");
  EXPECT_TRUE(recorder.records().empty());
}

TEST_F(AnIni2Test, MissingRequiredValueIsAnError) {
  auto const ini = open("[a]\nk=v\n");
  AString value(L"before");
  Records const expected{
      errorRecord(L"ini", L"Error trace:"),
      errorRecord(L"ini", L"  Couldn't read required section \"a\", setting \"x\" from file \"" +
                              widePath + L"\"")};
  EXPECT_FALSE(ini->get(true, AString(L"a"), AString(L"x"), value));
  EXPECT_EQ(value.const_cpp_str(), L"");
  EXPECT_EQ(recorder.records(), expected);
  recorder.clear();
  EXPECT_FALSE(ini->getExisting(AString(L"a"), AString(L"x"), value));
  EXPECT_EQ(recorder.records(), expected);
}

TEST_F(AnIni2Test, ValuesOfAnyLengthAreRead) {
  auto const ini = open("k=" + std::string(100000, 'v') + "\n");
  EXPECT_EQ(valueOf(*ini, L"", L"k"), std::wstring(100000, L'v'));
}

TEST_F(AnIni2Test, BaseClassReachesTheStore) {
  auto const ini = open("[a]\nk=v\n");
  AnIni& base = *ini;
  AString value;
  EXPECT_TRUE(base.tryGet(AString(L"a"), AString(L"k"), value));
  EXPECT_EQ(value.const_cpp_str(), L"v");
  EXPECT_TRUE(base.getExisting(AString(L"a"), AString(L"k"), value));
  base.set(AString(L"a"), AString(L"k"), AString(L"w"));
  base.close();
  EXPECT_EQ(bytes(), "[a]\nk=w\n\n");
}

// Storing values.

TEST_F(AnIni2Test, InsertSaysWhatItRefuses) {
  auto const ini = openMissing();
  EXPECT_FALSE(ini->insert(L"s", L"", L"v"));
  EXPECT_FALSE(ini->insert(L"", L"", L"v"));
  EXPECT_FALSE(ini->insert(L"", L"", L""));
  Records const expected{
      errorRecord(L"ini", L"internal error: Unable to insert s, , and v into the map."),
      errorRecord(L"ini", L"internal error: Unable to insert , , and v into the map."),
      errorRecord(L"ini", L"internal error: Unable to insert , , and  into the map.")};
  EXPECT_EQ(recorder.records(), expected);
  EXPECT_TRUE(mapOf(*ini).empty());
  ini->close();
  EXPECT_FALSE(fs::exists(path));
}

TEST_F(AnIni2Test, InsertOfASectionAloneMakesIt) {
  auto const ini = openMissing();
  EXPECT_TRUE(ini->insert(L"s", L"", L""));
  EXPECT_EQ(mapOf(*ini), (Map{{L"s", {{L"", L""}}}}));
  EXPECT_TRUE(recorder.records().empty());
  ini->close();
  EXPECT_EQ(bytes(), "[s]\n=\n\n");
}

TEST_F(AnIni2Test, InsertAddsAndReplaces) {
  auto const ini = openMissing();
  EXPECT_TRUE(ini->insert(L"s", L"k", L"1"));
  EXPECT_TRUE(ini->insert(L"s", L"k", L"2"));
  EXPECT_TRUE(ini->insert(L"s", L"k", L"2"));
  EXPECT_TRUE(ini->insert(L"s", L"j", L"3"));
  EXPECT_TRUE(ini->insert(L"r", L"k", L"4"));
  EXPECT_EQ(mapOf(*ini), (Map{{L"r", {{L"k", L"4"}}}, {L"s", {{L"j", L"3"}, {L"k", L"2"}}}}));
}

TEST_F(AnIni2Test, RandomChangesAgreeWithAMap) {
  auto const ini = openMissing();
  std::map<std::wstring, std::map<std::wstring, std::wstring>> oracle;
  std::mt19937 random(17);
  std::uniform_int_distribution<int> number(0, 60);
  for (int i = 0; i < 20000; ++i) {
    std::wstring const section = L"s" + std::to_wstring(number(random) / 8);
    std::wstring const key = L"k" + std::to_wstring(number(random) * i / 500);
    auto const known = oracle[section].find(key);
    ASSERT_EQ(valueOf(*ini, section.c_str(), key.c_str()),
              known == oracle[section].end() ? L"missing" : known->second);
    std::wstring const value = std::to_wstring(i);
    oracle[section][key] = value;
    set(*ini, section.c_str(), key.c_str(), value.c_str());
    ASSERT_EQ(valueOf(*ini, section.c_str(), key.c_str()), value);
  }
  EXPECT_EQ(mapOf(*ini), Map(oracle.begin(), oracle.end()));
}

TEST_F(AnIni2Test, MapIsACopy) {
  auto const ini = open("[a]\nk=v\n");
  Map map = mapOf(*ini);
  map.clear();
  EXPECT_EQ(valueOf(*ini, L"a", L"k"), L"v");
}

// Writing.

TEST_F(AnIni2Test, WritesSectionsAndKeysInOrder) {
  auto const ini = open("; comment\r\n[b]\r\ny = 2 \r\nx=1\r\n[a]\r\nk=v\r\n[b]\r\nz=\r\n");
  set(*ini, L"c", L"\u00E4", L"\U0001F600 [;=");
  ini->close();
  EXPECT_EQ(bytes(), "[a]\nk=v\n\n[b]\nx=1\ny=2\nz=\n\n[c]\n\xC3\xA4=\xF0\x9F\x98\x80 [;=\n\n");
  EXPECT_EQ(recorder.records(), Records{kWriting});
  EXPECT_EQ(entries(), 1U);
}

/// The example of docs/formats.md.
TEST_F(AnIni2Test, ChangedFileLosesCommentsAndOrder) {
  auto const ini = open(
      "; limits\nsize = 1 MB\n[net]\nport=80\n[log] level = 2 ; not a comment\n[net]\nhost =\n"
      "port=81\n");
  EXPECT_EQ(mapOf(*ini), (Map{{L"", {{L"size", L"1 MB"}}},
                              {L"log", {{L"level", L"2 ; not a comment"}}},
                              {L"net", {{L"host", L""}, {L"port", L"81"}}}}));
  set(*ini, L"net", L"port", L"82");
  ini->close();
  EXPECT_EQ(bytes(),
            "[]\nsize=1 MB\n\n[log]\nlevel=2 ; not a comment\n\n[net]\nhost=\nport=82\n\n");
}

TEST_F(AnIni2Test, UnchangedStoreIsNotWritten) {
  auto const ini = open("[b]\nk=v\n[a]\nk=v\n");
  set(*ini, L"b", L"k", L"v");
  ini->close();
  EXPECT_EQ(bytes(), "[b]\nk=v\n[a]\nk=v\n");
  EXPECT_TRUE(recorder.records().empty());
}

TEST_F(AnIni2Test, WritesOnceForAChange) {
  auto const ini = open("[b]\nk=v\n");
  set(*ini, L"b", L"k", L"w");
  ini->write();
  EXPECT_EQ(bytes(), "[b]\nk=w\n\n");
  fs::remove(path);
  ini->write();
  ini->close();
  EXPECT_FALSE(fs::exists(path));
  EXPECT_EQ(recorder.records(), Records{kWriting});
}

TEST_F(AnIni2Test, WriteKeepsTheStore) {
  auto const ini = openMissing();
  set(*ini, L"a", L"k", L"v");
  ini->write();
  EXPECT_TRUE(ini->parsed());
  EXPECT_EQ(valueOf(*ini, L"a", L"k"), L"v");
}

TEST_F(AnIni2Test, DestructorWrites) {
  open("")->set(AString(L"a"), AString(L"k"), AString(L"v"));
  EXPECT_EQ(bytes(), "[a]\nk=v\n\n");
}

TEST_F(AnIni2Test, CloseForgetsEverything) {
  auto const ini = open("[a]\nk=v\n");
  ini->close();
  EXPECT_FALSE(ini->parsed());
  AString value(L"before");
  EXPECT_FALSE(ini->get(true, AString(L"a"), AString(L"k"), value));
  EXPECT_EQ(value.const_cpp_str(), L"before");
  EXPECT_EQ(recorder.records(),
            Records{errorRecord(L"ini", L"internal error: No file name in AnIni::tryGet")});
}

TEST_F(AnIni2Test, OpenWritesTheFileBefore) {
  auto const ini = open("[a]\nk=v\n");
  makeFile(folder / "other.ini", "[o]\nk=other\n");
  set(*ini, L"a", L"k", L"w");
  EXPECT_TRUE(ini->open(AString(folder.wide("other.ini"))));
  EXPECT_EQ(bytes(), "[a]\nk=w\n\n");
  EXPECT_EQ(mapOf(*ini), (Map{{L"o", {{L"k", L"other"}}}}));
  EXPECT_EQ(valueOf(*ini, L"a", L"k"), L"missing");
}

TEST_F(AnIni2Test, OpenCallsTheCloseOfADerivedClass) {
  class Derived final : public AnIni2 {
  public:
    using AnIni2::AnIni2;

    void close() override {
      ++closed;
      AnIni2::close();
    }

    int closed = 0;
  };

  Derived ini{AString(widePath)};
  ini.open(AString(widePath));
  EXPECT_EQ(ini.closed, 1);
}

TEST_F(AnIni2Test, OpenSaysWhetherTheFileWasParsed) {
  auto const ini = openMissing();
  makeFile(folder / "bad.ini", "]");
  EXPECT_FALSE(ini->open(AString(folder.wide("bad.ini"))));
  EXPECT_FALSE(ini->parsed());
  EXPECT_TRUE(ini->open(AString(widePath)));
  EXPECT_TRUE(ini->parsed());
}

TEST_F(AnIni2Test, SectionWithoutNameCannotBeReadBack) {
  auto ini = openMissing();
  set(*ini, L"", L"k", L"v");
  ini->close();
  EXPECT_EQ(bytes(), "[]\nk=v\n\n");
  recorder.clear();
  EXPECT_FALSE(ini->open(AString(widePath)));
  EXPECT_EQ(recorder.errors(),
            (Records{errorRecord(L"ini", L"internal error: Unexpected: empty section " + widePath +
                                             L" line 1"),
                     errorRecord(L"ini", kNotParsed)}));
}

/// A pair that is written as it is and means something else to the reader.
struct Unreadable {
  char const* name;
  wchar_t const* section;
  wchar_t const* key;
  wchar_t const* value;
  char const* bytes;
  bool isParsed;
  Map map;
};

void PrintTo(Unreadable const& pair, std::ostream* out) { *out << pair.name; }

class UnreadablePairTest : public AnIni2Test, public testing::WithParamInterface<Unreadable> {};

TEST_P(UnreadablePairTest, IsWrittenAsItIs) {
  Unreadable const& pair = GetParam();
  auto ini = openMissing();
  EXPECT_TRUE(ini->insert(pair.section, pair.key, pair.value));
  ini->close();
  EXPECT_EQ(bytes(), pair.bytes);
  EXPECT_EQ(ini->open(AString(widePath)), pair.isParsed);
  if (pair.isParsed) {
    EXPECT_EQ(mapOf(*ini), pair.map);
  }
}

INSTANTIATE_TEST_SUITE_P(
    AnIni2, UnreadablePairTest,
    testing::Values(Unreadable{"BlanksAroundValue", L"s", L"k", L" v ", "[s]\nk= v \n\n", true,
                               Map{{L"s", {{L"k", L"v"}}}}},
                    Unreadable{"BlanksAroundSection", L" s ", L"k", L"v", "[ s ]\nk=v\n\n", true,
                               Map{{L"s", {{L"k", L"v"}}}}},
                    Unreadable{"EqualSignInKey", L"s", L"a=b", L"c", "[s]\na=b=c\n\n", true,
                               Map{{L"s", {{L"a", L"b=c"}}}}},
                    Unreadable{"LineInValue", L"s", L"k", L"v\nl=w", "[s]\nk=v\nl=w\n\n", true,
                               Map{{L"s", {{L"k", L"v"}, {L"l", L"w"}}}}},
                    Unreadable{"LineEndInValue", L"s", L"k", L"v\rw", "[s]\nk=v\rw\n\n", false, {}},
                    Unreadable{"BracketInKey", L"s", L"a[b", L"c", "[s]\na[b=c\n\n", false, {}},
                    Unreadable{"BracketInSection", L"s]", L"k", L"v", "[s]]\nk=v\n\n", false, {}},
                    Unreadable{"SemicolonBeforeKey", L"s", L";k", L"v", "[s]\n;k=v\n\n", false, {}},
                    Unreadable{"BlankKey", L"s", L" ", L"v", "[s]\n =v\n\n", false, {}},
                    Unreadable{"SectionAlone", L"s", L"", L"", "[s]\n=\n\n", false, {}}),
    [](auto const& tested) { return std::string(tested.param.name); });

TEST_F(AnIni2Test, WrittenTextEndsAtItsFirstNul) {
  auto const ini = openMissing();
  ini->insert(L"a", L"k", std::wstring(L"v\0w", 3));
  ini->insert(L"b", L"k", L"v");
  ini->close();
  EXPECT_EQ(bytes(), "[a]\nk=v");
}

// Not parsed.

TEST_F(AnIni2Test, BrokenFileHasNoMap) {
  auto const ini = open("[a]\nk=v\n]\n");
  Map map{{L"kept", {}}};
  EXPECT_FALSE(ini->getIniMap(map));
  EXPECT_EQ(map, (Map{{L"kept", {}}}));
  EXPECT_EQ(recorder.records(), Records{errorRecord(L"ini", kNotParsed)});
}

TEST_F(AnIni2Test, InsertReplacesABrokenFile) {
  auto const ini = open("[a]\nk=v\n]\n");
  EXPECT_TRUE(ini->insert(L"b", L"new", L"value"));
  EXPECT_EQ(valueOf(*ini, L"b", L"new"), L"missing");  // the file has none yet
  ini->write();
  EXPECT_EQ(bytes(), "[b]\nnew=value\n\n");
  EXPECT_FALSE(ini->parsed());
}

// What was inserted counts as a change all the same.
TEST_F(AnIni2Test, AskingForTheMapOfABrokenFileForgetsWhatWasInserted) {
  auto const ini = open("[a]\nk=v\n]\n");
  EXPECT_TRUE(ini->insert(L"b", L"new", L"value"));
  Map map;
  EXPECT_FALSE(ini->getIniMap(map));
  ini->write();
  EXPECT_EQ(bytes(), "");
}

TEST_F(AnIni2Test, BrokenFileIsReadByTheProfileFunctions) {
  auto const ini = open("[a]\nk=v\n]\n");
  EXPECT_EQ(valueOf(*ini, L"A", L"K"), L"v");
  AString value;
  recorder.clear();
  EXPECT_FALSE(ini->getExisting(AString(L"a"), AString(L"x"), value));
  EXPECT_EQ(recorder.plainErrors(),
            Records{errorRecord(L"ini",
                                L"Couldn't read required section \"a\", setting \"x\" of file \"" +
                                    widePath + L"\"")});
}

TEST_F(AnIni2Test, BrokenFileIsWrittenByTheProfileFunctions) {
  auto const ini = open("; comment\n[a]\nk=v\n]\n");
  set(*ini, L"a", L"k", L"w");
  EXPECT_EQ(bytes(), "; comment\n[a]\nk=w\n]\n");
  ini->close();
  EXPECT_EQ(bytes(), "; comment\n[a]\nk=w\n]\n");
}

}  // namespace
}  // namespace vrxutil::test

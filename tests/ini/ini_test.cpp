#include "tests/support/locale_scope.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temporary_folder.h"

#include <vrxutil/ini.h>
#include <vrxutil/log.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <ostream>
#include <string>

namespace vrxutil::test {
namespace {

Records const kNothing;

/// An INI file in a folder of its own.
class IniFile {
public:
  explicit IniFile(std::string const& contents) { makeFile(folder_ / "file.ini", contents); }

  AString name() const { return {folder_.wide("file.ini")}; }

  std::string bytes() const { return fileBytes(folder_ / "file.ini"); }

private:
  TemporaryFolder folder_;
};

/// What a call of get() gave.
struct Got {
  bool result;
  std::wstring value;

  bool operator==(Got const&) const = default;
};

void PrintTo(Got const& got, std::ostream* out) {
  *out << got.result << " \"" << std::string(got.value.begin(), got.value.end()) << '"';
}

Got get(AnIni& ini, bool required, AString const& section, AString const& key) {
  AString value(L"before");
  bool const result = ini.get(required, section, key, value);
  return {result, value.const_cpp_str()};
}

Got tryGet(AnIni& ini, AString const& section, AString const& key) {
  AString value(L"before");
  bool const result = ini.tryGet(section, key, value);
  return {result, value.const_cpp_str()};
}

Got getExisting(AnIni& ini, AString const& section, AString const& key) {
  AString value(L"before");
  bool const result = ini.getExisting(section, key, value);
  return {result, value.const_cpp_str()};
}

/// The scope that get() opens.
std::wstring scopeOf(wchar_t const* section, wchar_t const* key, AString const& file) {
  return std::wstring(L"GetPrivateProfileString,") + section + L"," + key + L"," +
         file.const_cpp_str();
}

TEST(AnIniTest, ReadsValuesInsideATraceScope) {
  IniFile const file("[a]\nk=v\n[b]\nk = \"w\" \n");
  AnIni ini(file.name());
  for (bool const required : {false, true}) {
    LogRecorder const log;
    EXPECT_EQ(get(ini, required, L"b", L"k"), (Got{true, L"w"}));
    EXPECT_EQ(log.records(), Records{detailRecord(L"ini", scopeOf(L"b", L"k", file.name()))});
  }
  EXPECT_EQ(tryGet(ini, L"A", L"K"), (Got{true, L"v"}));
  EXPECT_EQ(getExisting(ini, L"a", L"k"), (Got{true, L"v"}));
}

TEST(AnIniTest, EmptyValueIsNotMissing) {
  IniFile const file("[a]\nk=\n");
  AnIni ini(file.name());
  EXPECT_EQ(getExisting(ini, L"a", L"k"), (Got{true, L""}));
}

TEST(AnIniTest, MissingValueIsQuietUnlessRequired) {
  IniFile const file("[a]\nk=v\n");
  AnIni ini(file.name());
  LogRecorder const log;
  EXPECT_EQ(get(ini, /*required=*/false, L"a", L"none"), (Got{false, L""}));
  EXPECT_EQ(tryGet(ini, L"none", L"k"), (Got{false, L""}));
  EXPECT_EQ(log.records(), (Records{detailRecord(L"ini", scopeOf(L"a", L"none", file.name())),
                                    detailRecord(L"ini", scopeOf(L"none", L"k", file.name()))}));
}

TEST(AnIniTest, MissingRequiredValueIsAnErrorInsideTheScope) {
  IniFile const file("[a]\nk=v\n");
  AnIni ini(file.name());
  std::wstring const scope = scopeOf(L"a", L"none", file.name());
  std::wstring const message =
      L"Couldn't read required section \"a\", setting \"none\" of file \"" +
      file.name().const_cpp_str() + L"\"";
  Records const expected{
      detailRecord(L"ini", scope),
      errorRecord(L"ini", L"Error trace:"),
      errorRecord(L"ini", L" [" + scope + L"]->"),
      errorRecord(L"ini", L"  " + message),
  };
  {
    LogRecorder const log;
    EXPECT_EQ(get(ini, /*required=*/true, L"a", L"none"), (Got{false, L""}));
    EXPECT_EQ(log.records(), expected);
  }
  LogRecorder const log;
  EXPECT_EQ(getExisting(ini, L"a", L"none"), (Got{false, L""}));
  EXPECT_EQ(log.records(), expected);
}

TEST(AnIniTest, FileThatCannotBeReadHasNoValues) {
  TemporaryFolder const folder;
  for (AString const& name : {AString(folder.wide("missing")), AString(folder.wide(""))}) {
    AnIni ini(name);
    LogRecorder const log;
    EXPECT_EQ(tryGet(ini, L"a", L"k"), (Got{false, L""}));
    EXPECT_EQ(log.errors(), kNothing);
    EXPECT_EQ(getExisting(ini, L"a", L"k"), (Got{false, L""}));
    EXPECT_EQ(log.plainErrors(),
              Records{errorRecord(L"ini",
                                  L"Couldn't read required section \"a\", setting \"k\" of "
                                  L"file \"" +
                                      name.const_cpp_str() + L"\"")});
  }
}

TEST(AnIniTest, NewObjectTouchesNoFile) {
  TemporaryFolder const folder;
  LogRecorder const log;
  {
    AnIni const ini(AString(folder.wide("missing/file.ini")));
    AnIni const other(AString(folder.wide("new.ini")));
  }
  EXPECT_EQ(log.records(), kNothing);
  EXPECT_FALSE(std::filesystem::exists(folder / "new.ini"));
}

TEST(AnIniTest, ScopeEndsWithTheCall) {
  IniFile const file("[a]\nk=v\n");
  AnIni ini(file.name());
  tryGet(ini, L"a", L"k");
  tryGet(ini, L"a", L"none");
  LogRecorder const log;
  ini.close();
  tryGet(ini, L"a", L"k");
  // An error outside of any scope has no trace.
  EXPECT_EQ(log.records(),
            Records{errorRecord(L"ini", L"internal error: No file name in AnIni::tryGet")});
}

TEST(AnIniTest, WithoutAFileNameNothingIsReadOrChanged) {
  Records const expected{errorRecord(L"ini", L"internal error: No file name in AnIni::tryGet")};
  AnIni ini(AString(L""));
  for (auto const operation : {tryGet, getExisting}) {
    LogRecorder const log;
    EXPECT_EQ(operation(ini, L"a", L"k"), (Got{false, L"before"}));
    EXPECT_EQ(log.records(), expected);
  }
}

TEST(AnIniTest, WithoutAFileNameNothingIsWritten) {
  AnIni ini(AString(L""));
  LogRecorder const log;
  ini.set(L"a", L"k", L"v");
  EXPECT_EQ(log.records(),
            Records{errorRecord(L"ini", L"internal error: No file name in AnIni::set")});
}

TEST(AnIniTest, CloseForgetsTheNameQuietly) {
  IniFile const file("[a]\nk=v\n");
  AnIni ini(file.name());
  LogRecorder log;
  ini.close();
  EXPECT_EQ(log.records(), kNothing);
  EXPECT_EQ(getExisting(ini, L"a", L"k"), (Got{false, L"before"}));
  ini.set(L"a", L"k", L"w");
  EXPECT_EQ(log.records(),
            (Records{errorRecord(L"ini", L"internal error: No file name in AnIni::tryGet"),
                     errorRecord(L"ini", L"internal error: No file name in AnIni::set")}));
  EXPECT_EQ(file.bytes(), "[a]\nk=v\n");
}

TEST(AnIniTest, OpenTakesAnotherFileWithoutTouchingIt) {
  IniFile const first("[a]\nk=1\n");
  IniFile const second("[a]\nk=2\n");
  AnIni ini(first.name());
  LogRecorder const log;
  EXPECT_TRUE(ini.open(second.name()));
  EXPECT_TRUE(ini.open(AString(L"/nowhere/at all")));
  EXPECT_TRUE(ini.open(AString(L"")));
  EXPECT_TRUE(ini.open(second.name()));
  EXPECT_EQ(log.records(), kNothing);
  EXPECT_EQ(getExisting(ini, L"a", L"k"), (Got{true, L"2"}));
}

TEST(AnIniTest, SetStoresTheValueWithoutARecord) {
  IniFile const file("; comment\r\n[a]\r\nk = v\r\n");
  AnIni ini(file.name());
  LogRecorder const log;
  ini.set(L"A", L"K", L"w");
  ini.set(L"b", L"l", L"\"x\"");
  EXPECT_EQ(log.records(), kNothing);
  EXPECT_EQ(file.bytes(), "; comment\r\n[a]\r\nk = w\r\n[b]\r\nl=\"x\"\r\n");
  EXPECT_EQ(getExisting(ini, L"b", L"l"), (Got{true, L"x"}));
}

TEST(AnIniTest, SetMakesTheFile) {
  TemporaryFolder const folder;
  AnIni ini(AString(folder.wide("new.ini")));
  ini.set(L"a", L"k", L"v");
  EXPECT_EQ(fileBytes(folder / "new.ini"), "[a]\nk=v\n");
}

TEST(AnIniTest, FailureToSetIsNotReported) {
  TemporaryFolder const folder;
  AnIni ini(AString(folder.wide("missing/file.ini")));
  LogRecorder const log;
  ini.set(L"a", L"k", L"v");
  ini.set(L"a]", L"k", L"v");
  EXPECT_EQ(log.records(), kNothing);
}

TEST(AnIniTest, MarkerOfMissingValuesReadsAsMissing) {
  IniFile const file("[a]\nk=`~`~\nl=x\n");
  AnIni ini(file.name());
  LogRecorder const log;
  EXPECT_EQ(tryGet(ini, L"a", L"k"), (Got{false, L""}));
  EXPECT_EQ(getExisting(ini, L"a", L"k"), (Got{false, L""}));
  EXPECT_EQ(log.plainErrors().size(), 1U);
  ini.set(L"a", L"l", L"`~`~");
  EXPECT_EQ(tryGet(ini, L"a", L"l"), (Got{false, L""}));
  ini.set(L"a", L"l", L"`~`~x");
  EXPECT_EQ(tryGet(ini, L"a", L"l"), (Got{true, L"`~`~x"}));
}

TEST(AnIniTest, ValueIsCutTo4094Characters) {
  for (std::size_t const length : {4093U, 4094U, 4095U, 4096U, 100000U}) {
    IniFile const file("[a]\nk=" + std::string(length, 'x') + "\n");
    AnIni ini(file.name());
    Got const got = getExisting(ini, L"a", L"k");
    EXPECT_TRUE(got.result);
    EXPECT_EQ(got.value, std::wstring(std::min<std::size_t>(length, 4094), L'x')) << length;
  }
}

TEST(AnIniTest, TextOfAllPlanesComesBack) {
  LocaleScope const locale("C.UTF-8");
  IniFile const file("");
  AnIni ini(file.name());
  ini.set(L"\u00E4", L"\u20AC", L"\U0001F600");
  EXPECT_EQ(file.bytes(), "[\xC3\xA4]\n\xE2\x82\xAC=\xF0\x9F\x98\x80\n");
  EXPECT_EQ(getExisting(ini, L"\u00C4", L"\u20AC"), (Got{true, L"\U0001F600"}));
}

/// A class of its own that answers everything.
class Answering : public AnIni {
public:
  using AnIni::AnIni;

  bool get(bool required, AString const& section, AString const& key, AString& value) override {
    value = section;
    value << L"." << key << (required ? L" required" : L" tried");
    return true;
  }
};

TEST(AnIniTest, OtherFormsOfGetCallTheDerivedOne) {
  Answering ini(AString(L""));
  EXPECT_EQ(tryGet(ini, L"a", L"k"), (Got{true, L"a.k tried"}));
  EXPECT_EQ(getExisting(ini, L"a", L"k"), (Got{true, L"a.k required"}));
}

/// Counts the calls of close().
class Closing : public AnIni {
public:
  explicit Closing(int& count) : AnIni(AString(L"")), count_(count) {}

  void close() override { ++count_; }

private:
  int& count_;
};

TEST(AnIniTest, DestructorIsVirtualAndClosesItsOwnPart) {
  int count = 0;
  AnIni* const ini = new Closing(count);
  delete ini;
  EXPECT_EQ(count, 0);
}

}  // namespace
}  // namespace vrxutil::test

// When AnIni2 takes the locale of the environment: this program's own setlocale()
// leaves a record among the others.

#include "tests/ini/ini_support.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temporary_folder.h"

#include <vrxutil/ini.h>
#include <vrxutil/log.h>

#include <gtest/gtest.h>

#include <clocale>
#include <filesystem>
#include <string>

#include <dlfcn.h>
#include <sys/stat.h>

extern "C" [[gnu::visibility("default")]] char* setlocale(int category, char const* locale) {
  using Function = char* (*)(int, char const*);
  static auto const next = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "setlocale"));
  if (category == LC_ALL && locale != nullptr) {
    logDetail(L"locale", AString(L"\"") << locale << L"\"");
  }
  return next(category, locale);
}

namespace vrxutil::test {
namespace {

Records const kNothing;
LogRecord const kTaken = detailRecord(L"locale", L"\"\"");
LogRecord const kEncoding = detailRecord(L"Xml", L"ConvertBufferToUtf8");

LogRecord decoding(std::size_t size) {
  return detailRecord(L"Xml", L"ConvertBufferToUnicode," + std::to_wstring(size));
}

class AnIni2LocaleTest : public IniFileTest {
protected:
  static std::string locale() { return std::setlocale(LC_ALL, nullptr); }
};

TEST_F(AnIni2LocaleTest, IsTakenAfterTheConversionAndBeforeTheFirstLine) {
  makeFile(path, "]");
  runWithLocale("C.UTF-8", [&] {
    LogRecorder const recorder;
    AnIni2 const ini{AString(widePath)};
    EXPECT_EQ(
        recorder.records(),
        (Records{decoding(1), kTaken,
                 errorRecord(L"ini", L"internal error: Unexpected: ']' " + widePath + L" line 1"),
                 errorRecord(L"ini", L"internal error: Ini file not parsed in AnIni2")}));
    EXPECT_EQ(locale(), "C.UTF-8");
  });
}

TEST_F(AnIni2LocaleTest, IsTakenOnceForEachReading) {
  makeFile(path, "[a]\nk=v\n");
  runWithLocale("C.UTF-8", [&] {
    LogRecorder const recorder;
    AnIni2 ini{AString(widePath)};
    EXPECT_EQ(recorder.records(), (Records{decoding(8), kTaken}));
    ini.open(AString(widePath));
    EXPECT_EQ(recorder.records(), (Records{decoding(8), kTaken, decoding(8), kTaken}));
  });
}

TEST_F(AnIni2LocaleTest, IsTakenForAnEmptyStoreToo) {
  makeFile(path, "");
  ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
  runWithLocale("C.UTF-8", [&] {
    for (char const* const name : {"file.ini", "missing.ini", "fifo", ""}) {
      std::setlocale(LC_ALL, "C");
      LogRecorder const recorder;
      AnIni2 const ini{AString(folder.wide(name))};
      EXPECT_EQ(recorder.records(), Records{kTaken}) << name;
      EXPECT_EQ(locale(), "C.UTF-8") << name;
    }
  });
}

TEST_F(AnIni2LocaleTest, StaysWhereTheTextIsNotUtf8) {
  makeFile(path, "k=v\n\xFF");
  runWithLocale("C.UTF-8", [&] {
    LogRecorder const recorder;
    AnIni2 const ini{AString(widePath)};
    EXPECT_FALSE(ini.parsed());
    for (LogRecord const& record : recorder.records()) EXPECT_NE(record, kTaken);
    EXPECT_EQ(locale(), "C");
  });
}

TEST_F(AnIni2LocaleTest, IsTakenBeforeTheConversionThatWrites) {
  makeFile(path, "[a]\nk=v\n");
  runWithLocale("C.UTF-8", [&] {
    AnIni2 ini{AString(widePath)};
    for (wchar_t const* const value : {L"new", L"\xD800"}) {
      ini.insert(L"a", L"k", value);
      std::setlocale(LC_ALL, "C");
      LogRecorder const recorder;
      ini.write();
      Records const records = recorder.records();
      ASSERT_GE(records.size(), 2U);
      EXPECT_EQ(records[0], kTaken);
      EXPECT_EQ(records[1], kEncoding);
      EXPECT_EQ(locale(), "C.UTF-8");
    }
  });
}

TEST_F(AnIni2LocaleTest, StaysWhereNothingIsReadOrWritten) {
  makeFile(path, "[a]\nk=v\n");
  runWithLocale("C.UTF-8", [&] {
    AnIni2 ini{AString(widePath)};
    std::setlocale(LC_ALL, "C");
    LogRecorder const recorder;
    AString value;
    EXPECT_TRUE(ini.tryGet(AString(L"a"), AString(L"k"), value));
    ini.set(AString(L"a"), AString(L"k"), AString(L"v"));
    AnIni2::SectionMap map;
    EXPECT_TRUE(ini.getIniMap(map));
    ini.close();
    EXPECT_EQ(recorder.records(), kNothing);
    EXPECT_EQ(locale(), "C");
  });
}

TEST_F(AnIni2LocaleTest, StaysWhereTheFileCannotBeOpened) {
  runWithLocale("C.UTF-8", [&] {
    AnIni2 ini{AString(folder.wide("missing/file.ini"))};
    ini.insert(L"a", L"k", L"v");
    std::setlocale(LC_ALL, "C");
    LogRecorder const recorder;
    ini.close();
    EXPECT_EQ(recorder.records(), kNothing);
    EXPECT_EQ(locale(), "C");
  });
}

// The file's name reaches the system before that, in the locale as it is.
TEST_F(AnIni2LocaleTest, IsTakenAfterTheNameOfTheFile) {
  makeFile(folder / "?", "[a]\nk=v\n");
  runWithLocale("C.UTF-8", [&] {
    AnIni2 ini{AString(folder.wide("") + L"\u00E4")};
    AString value;
    EXPECT_TRUE(ini.tryGet(AString(L"a"), AString(L"k"), value));
    ini.insert(L"a", L"k", L"new");
    std::setlocale(LC_ALL, "C");
    ini.write();
    EXPECT_EQ(fileBytes(folder / "?"), "[a]\nk=new\n\n");
    EXPECT_FALSE(std::filesystem::exists(folder / "\xC3\xA4"));
  });
}

}  // namespace
}  // namespace vrxutil::test

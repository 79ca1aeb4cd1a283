#include "tests/support/locale_scope.h"
#include "tests/support/log_recorder.h"
#include "tests/support/own_logger.h"
#include "tests/system/plug_in/plug_in_support.h"

#include <vrxutil/log.h>
#include <vrxutil/system.h>
#include <zulral/zulral.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <sys/stat.h>

namespace vrxutil::test {
namespace {

using Records = std::vector<LogRecord>;

static_assert(!std::is_copy_constructible_v<ALibrary> && !std::is_copy_assignable_v<ALibrary>);
static_assert(!std::is_polymorphic_v<ALibrary>);

constexpr wchar_t kGroup[] = L"Library";

// Of the plug-ins that are never unloaded, to be valid when the process ends.
int unloadings = 0;

std::wstring widened(std::string const& ascii) { return {ascii.begin(), ascii.end()}; }

std::wstring textOf(void const* handle) {
  char digits[9];
  std::snprintf(digits, sizeof digits, "%08x",
                static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(handle) & 0xFFFFFFFFU));
  return widened(digits);
}

/// The handle of a library that is loaded.
void* handleOf(std::string const& path) {
  char const* error = nullptr;
  void* const handle = zulLoadLibrary(path.c_str(), &error);
  EXPECT_NE(handle, nullptr);
  zulFreeLibrary(handle);
  return handle;
}

/// The runtime layer's text for a library that it cannot load.
std::wstring loadError(std::string const& path) {
  char const* error = nullptr;
  EXPECT_EQ(zulLoadLibrary(path.c_str(), &error), nullptr);
  return widened(error);
}

/// The same for a symbol that the library does not have.
std::wstring symbolError(void* handle, char const* symbol) {
  char const* error = nullptr;
  EXPECT_EQ(zulGetProcAddress(handle, symbol, &error), nullptr);
  return widened(error);
}

std::wstring loadCall(std::wstring const& fileName) { return L"portable LoadLibrary," + fileName; }

std::wstring getCall(void const* handle, std::wstring const& symbol) {
  return L"portable GetProcAddress," + textOf(handle) + L"," + symbol;
}

std::wstring freeCall(void const* handle) { return L"portable FreeLibrary," + textOf(handle); }

/// What a failed call leaves: its scope, and the error with the trace.
Records failed(std::wstring const& call, std::wstring const& error) {
  return {detailRecord(kGroup, call), errorRecord(kGroup, L"Error trace:"),
          errorRecord(kGroup, L" [" + call + L"]->"), errorRecord(kGroup, L"  " + error)};
}

bool open(ALibrary& library, std::string const& path, bool keepLoaded = false) {
  return library.open(/*required=*/true, widened(path).c_str(), /*decorate=*/false, keepLoaded);
}

bool openDecorated(ALibrary& library, std::wstring const& name) {
  return library.open(/*required=*/true, name.c_str(), /*decorate=*/true, /*keepLoaded=*/false);
}

std::string versionText(ALibrary& library) {
  PlugInVersion version = nullptr;
  if (!library.get(/*required=*/true, "plugInVersion", &version)) return "no version";
  return version();
}

void countUnloadings(ALibrary& library, int& count) {
  PlugInCountUnloading countIn = nullptr;
  ASSERT_TRUE(library.get(/*required=*/true, "plugInCountUnloading", &countIn));
  countIn(&count);
}

constexpr char kPlugIn[] = "plugin.so";

class ALibraryTest : public testing::Test {
protected:
  /// Opens a plug-in of the test's own, the file kPlugIn, and forgets the records of
  /// that; returns its handle. `count`, where given, counts its unloadings.
  void* openPlugIn(ALibrary& library, int* count = nullptr, bool keepLoaded = false) {
    std::string const path = folder_.place(kPlugIn);
    EXPECT_TRUE(open(library, path, keepLoaded));
    if (count != nullptr) countUnloadings(library, *count);
    recorder_.clear();
    return handleOf(path);
  }

  PlugInFolder folder_;
  LogRecorder recorder_;
};

// --- Opening ----------------------------------------------------------------------------

TEST_F(ALibraryTest, OpenLogsCallAndHandle) {
  std::string const path = folder_.place("agent.plugin");
  ALibrary library;
  ASSERT_TRUE(open(library, path));
  EXPECT_EQ(recorder_.records(), (Records{detailRecord(kGroup, loadCall(widened(path))),
                                          detailRecord(kGroup, L"=" + textOf(handleOf(path)))}));
  EXPECT_EQ(versionText(library), "4.6.0.1234");
}

TEST_F(ALibraryTest, ALibraryNeedNotBeRequired) {
  std::string const path = folder_.place(kPlugIn);
  ALibrary library;
  EXPECT_TRUE(library.open(/*required=*/false, widened(path).c_str(), /*decorate=*/false,
                           /*keepLoaded=*/false));
  EXPECT_EQ(versionText(library), "4.6.0.1234");
}

TEST_F(ALibraryTest, MissingLibraryIsAnErrorRequiredOrNot) {
  std::wstring const name = folder_.wide("missing.so");
  for (bool const required : {false, true}) {
    recorder_.clear();
    ALibrary library;
    EXPECT_FALSE(library.open(required, name.c_str(), /*decorate=*/false, /*keepLoaded=*/false));
    std::wstring const error = loadError(folder_ / "missing.so");
    EXPECT_NE(error.find(name), std::wstring::npos);
    EXPECT_EQ(recorder_.records(), failed(loadCall(name), error)) << required;
  }
}

TEST_F(ALibraryTest, ErrorShowsTheScopesAroundIt) {
  std::wstring const name = folder_.wide("missing.so");
  ADetailTrace const scope(L"Agent", L"start plug-ins");
  recorder_.clear();
  ALibrary library;
  EXPECT_FALSE(open(library, folder_ / "missing.so"));
  Records expected = failed(loadCall(name), loadError(folder_ / "missing.so"));
  expected.insert(expected.begin() + 2, errorRecord(L"Agent", L" [start plug-ins]->"));
  EXPECT_EQ(recorder_.records(), expected);
}

TEST_F(ALibraryTest, ScopesEndWithTheirOperations) {
  ALibrary library;
  openPlugIn(library);
  EXPECT_EQ(versionText(library), "4.6.0.1234");
  library.close();
  recorder_.clear();
  logError(L"Agent", L"other");
  EXPECT_EQ(recorder_.records(),
            (Records{errorRecord(L"Agent", L"Error trace:"), errorRecord(L"Agent", L"  other")}));
}

TEST_F(ALibraryTest, NullNameReadsAsNullText) {
  ALibrary library;
  EXPECT_FALSE(library.open(/*required=*/true, nullptr, /*decorate=*/false, /*keepLoaded=*/false));
  EXPECT_EQ(recorder_.records(), failed(loadCall(L"(null)"), loadError("(null)")));
  recorder_.clear();
  EXPECT_FALSE(library.open(/*required=*/true, nullptr, /*decorate=*/true, /*keepLoaded=*/false));
  EXPECT_EQ(recorder_.records().at(0), detailRecord(kGroup, loadCall(L"lib(null).dylib")));
}

TEST_F(ALibraryTest, NameIsNarrowedInTheLocale) {
  std::wstring const name = folder_.wide("") + L"pl\u00FCg.so";
  folder_.place("pl\u00FCg.so", PLUG_IN);
  folder_.place("pl?g.so", PLUG_IN_OLD);
  for (auto const& [locale, version] :
       {std::pair{"C.UTF-8", "4.6.0.1234"}, std::pair{"C", "4.5.65535.65535"}}) {
    LocaleScope const scope(locale);
    ALibrary library;
    recorder_.clear();
    ASSERT_TRUE(library.open(/*required=*/true, name.c_str(), /*decorate=*/false,
                             /*keepLoaded=*/false));
    EXPECT_EQ(recorder_.records().at(0), detailRecord(kGroup, loadCall(name)));
    EXPECT_EQ(versionText(library), version);
  }
}

// --- Decorated names --------------------------------------------------------------------

struct DecoratedName {
  char const* label;
  wchar_t const* name;
  bool decorate;
  wchar_t const* fileName;
};

void PrintTo(DecoratedName const& row, std::ostream* out) { *out << row.label; }

class ALibraryNameTest : public testing::TestWithParam<DecoratedName> {};

TEST_P(ALibraryNameTest, IsTheFileNameOfTheCall) {
  LogRecorder const recorder;
  ALibrary library;
  EXPECT_FALSE(library.open(/*required=*/false, GetParam().name, GetParam().decorate,
                            /*keepLoaded=*/false));
  EXPECT_EQ(recorder.records().at(0), detailRecord(kGroup, loadCall(GetParam().fileName)));
}

INSTANTIATE_TEST_SUITE_P(
    Names, ALibraryNameTest,
    testing::Values(DecoratedName{"NameAlone", L"vrx-none", true, L"libvrx-none.dylib"},
                    DecoratedName{"Path", L"/vrx-none/x/foo", true, L"/vrx-none/x/libfoo.dylib"},
                    DecoratedName{"RelativePath", L"vrx-none/foo", true, L"vrx-none/libfoo.dylib"},
                    DecoratedName{"TwoSlashes", L"vrx-none//foo", true, L"vrx-none/libfoo.dylib"},
                    DecoratedName{"RootFolderIsLost", L"/vrx-none", true, L"libvrx-none.dylib"},
                    DecoratedName{"SlashAtLast", L"/vrx-none/", true, L"/vrx-none/lib.dylib"},
                    DecoratedName{"Empty", L"", true, L"lib.dylib"},
                    DecoratedName{"DecoratedAlready", L"/vrx-none/libfoo.dylib", true,
                                  L"/vrx-none/liblibfoo.dylib.dylib"},
                    DecoratedName{"BeyondAscii", L"/vrx-none/\u00FC", true,
                                  L"/vrx-none/lib\u00FC.dylib"},
                    DecoratedName{"PlainName", L"vrx-none", false, L"vrx-none"},
                    DecoratedName{"PlainPath", L"/vrx-none//foo.so", false, L"/vrx-none//foo.so"},
                    DecoratedName{"PlainEmpty", L"", false, L""}),
    [](testing::TestParamInfo<DecoratedName> const& test) { return test.param.label; });

TEST_F(ALibraryTest, DecoratedPathIsTheFileItNames) {
  folder_.place("libfoo.dylib", PLUG_IN_OLD);
  folder_.place("libfoo.so", PLUG_IN);
  folder_.place("foo", PLUG_IN);
  ALibrary library;
  ASSERT_TRUE(openDecorated(library, folder_.wide("foo")));
  EXPECT_EQ(versionText(library), "4.5.65535.65535");
}

#ifndef __APPLE__

TEST_F(ALibraryTest, DecoratedPathFindsTheHostsOwnEnding) {
  std::string const path = folder_.place("libfoo.so");
  ALibrary library;
  ASSERT_TRUE(openDecorated(library, folder_.wide("foo")));
  EXPECT_EQ(recorder_.records(),
            (Records{detailRecord(kGroup, loadCall(folder_.wide("libfoo.dylib"))),
                     detailRecord(kGroup, L"=" + textOf(handleOf(path)))}));
  EXPECT_EQ(versionText(library), "4.6.0.1234");
}

TEST_F(ALibraryTest, DecoratedNameIsLookedForWhereTheHostKeepsLibraries) {
  if (!looksInPlugInFolder()) {
    EXPECT_EQ(runAgainInPlugInFolder(), 0) << "the output of the new process says why";
    return;
  }
  ALibrary library;
  ASSERT_TRUE(openDecorated(library, L"test_plug_in"));
  EXPECT_EQ(recorder_.records().at(0), detailRecord(kGroup, loadCall(L"libtest_plug_in.dylib")));
  EXPECT_EQ(versionText(library), "4.6.0.1234");
}

#endif

// --- What is no library -----------------------------------------------------------------

struct WrongFile {
  char const* label;
  std::function<void(PlugInFolder const& folder)> make;  // the entry "wrong"
};

void PrintTo(WrongFile const& row, std::ostream* out) { *out << row.label; }

class ALibraryWrongFileTest : public testing::TestWithParam<WrongFile> {};

TEST_P(ALibraryWrongFileTest, IsAnErrorAndNothingIsLoaded) {
  PlugInFolder const folder;
  GetParam().make(folder);
  LogRecorder recorder;
  ALibrary library;
  EXPECT_FALSE(open(library, folder / "wrong"));
  std::wstring const error = loadError(folder / "wrong");
  EXPECT_FALSE(error.empty());
  EXPECT_EQ(recorder.records(), failed(loadCall(folder.wide("wrong")), error));
  recorder.clear();
  library.close();
  EXPECT_EQ(recorder.records(), Records{});
}

INSTANTIATE_TEST_SUITE_P(
    Files, ALibraryWrongFileTest,
    testing::Values(
        WrongFile{"Text", [](auto& folder) { makeFile(folder / "wrong", "no library\n"); }},
        WrongFile{"Empty", [](auto& folder) { makeFile(folder / "wrong", ""); }},
        WrongFile{"Folder",
                  [](auto& folder) { std::filesystem::create_directory(folder / "wrong"); }},
        WrongFile{"Fifo",
                  [](auto& folder) { ASSERT_EQ(::mkfifo((folder / "wrong").c_str(), 0600), 0); }},
        WrongFile{
            "Device",
            [](auto& folder) { std::filesystem::create_symlink("/dev/null", folder / "wrong"); }},
        WrongFile{"StartOfALibrary", [](auto& folder) { folder.placeStart("wrong", 64); }},
        WrongFile{"HalfALibrary",
                  [](auto& folder) {
                    folder.placeStart("wrong", std::filesystem::file_size(PLUG_IN) / 8);
                  }},
        WrongFile{"LibraryWithoutItsSymbols",
                  [](auto& folder) { folder.place("wrong", PLUG_IN_UNRESOLVED); }}),
    [](testing::TestParamInfo<WrongFile> const& test) { return test.param.label; });

// --- Symbols ----------------------------------------------------------------------------

/// What get() leaves where there is no such symbol.
void expectNoSymbol(ALibrary& library, bool required, char const* symbol) {
  int something = 0;
  int* slot = &something;
  EXPECT_FALSE(library.get(required, symbol, &slot));
  EXPECT_EQ(slot, nullptr);
}

TEST_F(ALibraryTest, GetStoresTheAddress) {
  ALibrary library;
  void* const handle = openPlugIn(library);
  for (bool const required : {false, true}) {
    int* answer = nullptr;
    EXPECT_TRUE(library.get(required, "plugInAnswer", &answer));
    ASSERT_NE(answer, nullptr);
    EXPECT_EQ(*answer, 42);
  }
  LogRecord const call = detailRecord(kGroup, getCall(handle, L"plugInAnswer"));
  EXPECT_EQ(recorder_.records(), (Records{call, call}));
}

struct NoSymbol {
  char const* label;
  char const* symbol;
  wchar_t const* shown;
  wchar_t const* error;  // a part of it
};

void PrintTo(NoSymbol const& row, std::ostream* out) { *out << row.label; }

class ALibraryNoSymbolTest : public ALibraryTest, public testing::WithParamInterface<NoSymbol> {};

TEST_P(ALibraryNoSymbolTest, IsAnErrorWhereRequired) {
  ALibrary library;
  void* const handle = openPlugIn(library);
  expectNoSymbol(library, /*required=*/true, GetParam().symbol);
  std::wstring const error = symbolError(handle, GetParam().symbol);
  EXPECT_NE(error.find(GetParam().error), std::wstring::npos) << testing::PrintToString(error);
  EXPECT_EQ(recorder_.records(), failed(getCall(handle, GetParam().shown), error));
}

TEST_P(ALibraryNoSymbolTest, IsSilentWhereNotRequired) {
  ALibrary library;
  void* const handle = openPlugIn(library);
  expectNoSymbol(library, /*required=*/false, GetParam().symbol);
  EXPECT_EQ(recorder_.records(),
            (Records{detailRecord(kGroup, getCall(handle, GetParam().shown))}));
}

constexpr NoSymbol kNoSymbols[] = {
    {"Missing", "plugInMissing", L"plugInMissing", L"plugInMissing"},
    {"Empty", "", L"", L""},
    {"Null", nullptr, L"(null)", L"no name of a symbol"},
#ifndef __APPLE__
    {"NullAddress", "plugInNothing", L"plugInNothing", L"the symbol has no address"},
#endif
};

INSTANTIATE_TEST_SUITE_P(Symbols, ALibraryNoSymbolTest, testing::ValuesIn(kNoSymbols),
                         [](testing::TestParamInfo<NoSymbol> const& test) {
                           return test.param.label;
                         });

TEST_F(ALibraryTest, NothingLoadedHasNoSymbols) {
  ALibrary library;
  expectNoSymbol(library, /*required=*/true, "malloc");
  EXPECT_EQ(recorder_.records(), failed(getCall(nullptr, L"malloc"), L"no library is loaded"));
  recorder_.clear();
  expectNoSymbol(library, /*required=*/false, "malloc");
  EXPECT_EQ(recorder_.records(), (Records{detailRecord(kGroup, getCall(nullptr, L"malloc"))}));
}

// --- Closing ----------------------------------------------------------------------------

TEST_F(ALibraryTest, NothingLoadedClosesInSilence) {
  {
    ALibrary library;
    library.close();
  }
  EXPECT_EQ(recorder_.records(), Records{});
}

TEST_F(ALibraryTest, CloseUnloadsOnce) {
  int count = 0;
  ALibrary library;
  void* const handle = openPlugIn(library, &count);
  library.close();
  EXPECT_EQ(count, 1);
  library.close();
  EXPECT_EQ(recorder_.records(), (Records{detailRecord(kGroup, freeCall(handle))}));
  expectNoSymbol(library, /*required=*/false, "plugInAnswer");
}

TEST_F(ALibraryTest, DestructorUnloads) {
  int count = 0;
  void* handle = nullptr;
  {
    ALibrary library;
    handle = openPlugIn(library, &count);
    EXPECT_EQ(count, 0);
  }
  EXPECT_EQ(count, 1);
  EXPECT_EQ(recorder_.records(), (Records{detailRecord(kGroup, freeCall(handle))}));
}

TEST_F(ALibraryTest, OpensAgainAfterClose) {
  std::string const path = folder_.place(kPlugIn);
  int count = 0;
  ALibrary library;
  for (int round = 0; round < 3; ++round) {
    ASSERT_TRUE(open(library, path));
    countUnloadings(library, count);
    library.close();
    EXPECT_EQ(count, round + 1);
  }
}

// Its counter goes on counting at the end of the process, so it is no local one.
TEST_F(ALibraryTest, KeptLibraryIsNeverUnloaded) {
  unloadings = 0;
  int* answer = nullptr;
  void* handle = nullptr;
  {
    ALibrary library;
    handle = openPlugIn(library, &unloadings, /*keepLoaded=*/true);
    ASSERT_TRUE(library.get(/*required=*/true, "plugInAnswer", &answer));
    *answer = 43;
    recorder_.clear();
    library.close();
    EXPECT_EQ(recorder_.records(), (Records{detailRecord(kGroup, freeCall(handle))}));
    library.close();
    EXPECT_EQ(recorder_.records().size(), 1U);
    EXPECT_EQ(unloadings, 0);
    EXPECT_EQ(*answer, 43);
    ASSERT_TRUE(open(library, folder_ / kPlugIn, /*keepLoaded=*/true));
    recorder_.clear();
  }
  EXPECT_EQ(recorder_.records(), (Records{detailRecord(kGroup, freeCall(handle))}));
  EXPECT_EQ(unloadings, 0);
  ALibrary again;
  ASSERT_TRUE(open(again, folder_ / kPlugIn));
  int* sameAnswer = nullptr;
  ASSERT_TRUE(again.get(/*required=*/true, "plugInAnswer", &sameAnswer));
  EXPECT_EQ(sameAnswer, answer);
  EXPECT_EQ(*sameAnswer, 43);
}

TEST_F(ALibraryTest, EachOpenDecidesWhetherToKeep) {
  unloadings = 0;
  int count = 0;
  ALibrary library;
  openPlugIn(library, &unloadings, /*keepLoaded=*/true);
  library.close();
  ASSERT_TRUE(open(library, folder_.place("other.so"), /*keepLoaded=*/false));
  countUnloadings(library, count);
  library.close();
  EXPECT_EQ(unloadings, 0);
  EXPECT_EQ(count, 1);
}

TEST_F(ALibraryTest, SecondOpenForgetsTheFirstLibrary) {
  std::string const second = folder_.place("second.so", PLUG_IN_OLD);
  int firstCount = 0;
  int secondCount = 0;
  ALibrary library;
  void* const forgotten = openPlugIn(library, &firstCount);
  ASSERT_TRUE(open(library, second));
  EXPECT_EQ(recorder_.records(), (Records{detailRecord(kGroup, loadCall(widened(second))),
                                          detailRecord(kGroup, L"=" + textOf(handleOf(second)))}));
  countUnloadings(library, secondCount);
  EXPECT_EQ(versionText(library), "4.5.65535.65535");
  library.close();
  EXPECT_EQ(firstCount, 0);
  EXPECT_EQ(secondCount, 1);
  EXPECT_NE(zulFreeLibrary(forgotten), 0);
  EXPECT_EQ(firstCount, 1);
}

TEST_F(ALibraryTest, FailedSecondOpenForgetsTheFirstLibrary) {
  int count = 0;
  ALibrary library;
  void* const forgotten = openPlugIn(library, &count);
  EXPECT_FALSE(open(library, folder_ / "missing.so"));
  recorder_.clear();
  library.close();
  EXPECT_EQ(recorder_.records(), Records{});
  EXPECT_EQ(count, 0);
  EXPECT_NE(zulFreeLibrary(forgotten), 0);
  EXPECT_EQ(count, 1);
}

#ifdef __GLIBC__

// What a program needs stays in it, whoever gives it back: the loader then answers
// that it is not open.
class ALibraryGivenBackTest : public ALibraryTest {
protected:
  void openAndGiveBack(ALibrary& library, bool keepLoaded) {
    constexpr char kAlwaysThere[] = "libm.so.6";
    ASSERT_TRUE(open(library, kAlwaysThere, keepLoaded));
    handle_ = handleOf(kAlwaysThere);
    ASSERT_NE(zulFreeLibrary(handle_), 0);
    recorder_.clear();
  }

  void* handle_ = nullptr;
};

TEST_F(ALibraryGivenBackTest, FailedUnloadingIsAnErrorAndForgetsTheLibrary) {
  ALibrary library;
  openAndGiveBack(library, /*keepLoaded=*/false);
  library.close();
  EXPECT_EQ(recorder_.records(), failed(freeCall(handle_), L"failed"));
  recorder_.clear();
  library.close();
  EXPECT_EQ(recorder_.records(), Records{});
}

TEST_F(ALibraryGivenBackTest, KeptLibraryIsNotGivenBackAtAll) {
  ALibrary library;
  openAndGiveBack(library, /*keepLoaded=*/true);
  library.close();
  EXPECT_EQ(recorder_.records(), (Records{detailRecord(kGroup, freeCall(handle_))}));
}

#endif

// A logger whose disk is full, say.
class ThrowingLogger final : public OwnLogger {
public:
  bool isDetailLoggingEnabled() override { return true; }

  void logMessage(LogLevel const& /*level*/, std::wstring const& /*group*/,
                  std::wstring const& /*message*/) override {
    throw std::runtime_error("no log");
  }
};

// Counts go on at the end of the process where the library is kept.
TEST_F(ALibraryTest, DestructorOutlivesALoggerThatThrows) {
  for (bool const keepLoaded : {false, true}) {
    unloadings = 0;
    std::filesystem::remove(folder_ / kPlugIn);
    std::optional<ALibrary> library(std::in_place);
    openPlugIn(*library, &unloadings, keepLoaded);
    {
      ThrowingLogger const logger;
      library.reset();
    }
    EXPECT_EQ(unloadings, keepLoaded ? 0 : 1);
  }
}

// --- Versions of plug-ins ---------------------------------------------------------------

TEST_F(ALibraryTest, VersionDecidesWhetherAPlugInIsAcceptable) {
  AVersion const least(L"4.6");
  ALibrary current;
  ALibrary old;
  ASSERT_TRUE(open(current, folder_.place("current.so")));
  ASSERT_TRUE(open(old, folder_.place("old.so", PLUG_IN_OLD)));
  AVersion const currentVersion(AString(versionText(current).c_str()));
  AVersion const oldVersion(AString(versionText(old).c_str()));
  EXPECT_EQ(currentVersion.compare(&least), 1);
  EXPECT_EQ(oldVersion.compare(&least), -1);
  EXPECT_EQ(currentVersion.getString().const_cpp_str(), L"4.6.0.1234");
  EXPECT_EQ(oldVersion.getString().const_cpp_str(), L"4.5.65535.65535");
}

}  // namespace
}  // namespace vrxutil::test

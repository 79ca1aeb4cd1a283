#include "tests/platform/child_process.h"
#include "tests/support/locale_scope.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temporary_folder.h"
#include "tests/text/made_locale.h"

#include <vrxcomn/configuration.h>
#include <vrxcomn/logger.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <latch>
#include <map>
#include <new>
#include <numeric>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <pthread.h>
#include <regex.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

namespace {

/// What an allocation does to the thread that makes it.
enum class OnAllocation { nothing, count, log, attach, fail };

thread_local constinit OnAllocation onAllocation = OnAllocation::nothing;
thread_local constinit int allocations = 0;

void interfere();

}  // namespace

// The whole process allocates through these, the libraries too. Inlined, one of a
// pair would look to g++ as if it did not fit the other.

// NOLINTNEXTLINE(misc-no-recursion): a record logged by an allocation allocates with
// `onAllocation` put off.
[[gnu::noinline]] void* operator new(std::size_t size) {
  interfere();
  if (void* const memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }

[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}

namespace vrxutil::test {

namespace {

using std::chrono::milliseconds;
using std::chrono::system_clock;
using vornix_com::oxa::configuration::IConfiguration;
using vornix_com::oxa::logger::ILogger;
using vornix_com::oxa::logger::LogLevel;

namespace fs = std::filesystem;

constexpr std::size_t kMaxFileSize = std::size_t{8} * 1024 * 1024;

void log(LogLevel level, std::wstring const& group, std::wstring const& message) {
  ILogger::GetLogger()->logMessage(level, group, message);
}

void logInfo(std::wstring const& message) { log(LogLevel::info, L"Test", message); }

void attach(std::wstring const& name) { ILogger::GetLogger()->attach(name); }

/// A line of a log, taken apart.
struct Line {
  std::string time;
  pid_t process;
  long thread;
  std::string rest;  // "LEVEL [GROUP] MESSAGE"
};

/// What the groups of the extended regular expression `pattern` (POSIX regcomp)
/// match, if all of `text` matches. std::regex would recurse with the length.
std::vector<std::string> matchGroups(std::string const& text, std::string const& pattern) {
  constexpr std::size_t kMaxGroups = 8;
  regex_t expression{};
  EXPECT_EQ(0, ::regcomp(&expression, ("^" + pattern + "$").c_str(), REG_EXTENDED));
  std::array<regmatch_t, kMaxGroups> matches{};
  bool const isMatch = ::regexec(&expression, text.c_str(), matches.size(), matches.data(), 0) == 0;
  std::vector<std::string> groups;
  for (std::size_t i = 1; isMatch && i <= expression.re_nsub; ++i) {
    auto const start = static_cast<std::size_t>(matches.at(i).rm_so);
    groups.push_back(text.substr(start, static_cast<std::size_t>(matches.at(i).rm_eo) - start));
  }
  ::regfree(&expression);
  return groups;
}

constexpr char kTimePattern[] =
    "(20[0-9]{2}-[01][0-9]-[0-3][0-9]T[0-2][0-9]:[0-5][0-9]:[0-6][0-9][.][0-9]{3}"
    "[+-][01][0-9]:[0-5][0-9])";

Line parseLine(std::string const& line) {
  std::string const head = line.substr(0, line.find("] ") + 2);
  std::vector<std::string> const fields = matchGroups(
      head, std::string(kTimePattern) + " ([0-9]+)/([0-9]+) (-?[a-z0-9]+ \\[[^]]*\\] )");
  if (fields.empty()) {
    ADD_FAILURE() << "no log line: " << line.substr(0, 1000);
    return {};
  }
  return {fields[0], static_cast<pid_t>(std::stol(fields[1])), std::stol(fields[2]),
          fields[3] + line.substr(head.size())};
}

std::vector<Line> parseLog(std::string const& text) {
  std::vector<Line> lines;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t const end = text.find('\n', start);
    if (end == std::string::npos) {
      ADD_FAILURE() << "no end of line: " << text.substr(start, 1000);
      break;
    }
    lines.push_back(parseLine(text.substr(start, end - start)));
    start = end + 1;
  }
  return lines;
}

using Texts = std::vector<std::string>;

/// The lines of a log without what differs from run to run.
Texts records(std::string const& text) {
  Texts rests;
  for (Line const& line : parseLog(text)) rests.push_back(line.rest);
  return rests;
}

std::string warning(std::string const& reason) {
  return "error [Log] " + reason + "; records go to standard error while the log cannot be written";
}

/// Each test's log is written by a child: the parent is never attached, and so
/// every child starts with a fresh logger.
class LoggerTest : public testing::Test {
protected:
  /// Runs `scenario` with the data folder `data` of this test.
  template <class Scenario>
  ChildResult run(Scenario scenario) {
    return runInChild([&] {
      ::setenv("VRX_DATA_DIR", data().c_str(), 1);
      ::umask(022);
      scenario();
    });
  }

  std::string data() const { return folder_ / "data"; }

  std::string logFolder() const { return data() + "/log"; }

  std::string logFile(std::string const& name) const { return logFolder() + "/" + name; }

  /// Records of a log file.
  Texts logged(std::string const& name) const { return records(fileBytes(logFile(name))); }

  std::string inFolder(std::string const& name) const { return folder_ / name; }

private:
  TemporaryFolder folder_;
};

void expectSuccess(ChildResult const& result) {
  EXPECT_EQ(0, result.status) << result.standardError;
}

/// The log file has the records and standard error has nothing.
#define EXPECT_LOGGED_QUIETLY(result, name, expected) \
  do {                                                \
    expectSuccess(result);                            \
    EXPECT_EQ("", (result).standardError);            \
    EXPECT_EQ((expected), logged(name));              \
  } while (false)

template <class Row>
std::string rowName(testing::TestParamInfo<Row> const& row) {
  return row.param.name;
}

mode_t modeOf(std::string const& path) {
  struct stat status {};

  EXPECT_EQ(0, ::stat(path.c_str(), &status)) << path;
  return status.st_mode & 07777;
}

// --- Where records go -------------------------------------------------------

TEST_F(LoggerTest, RecordsGoToStandardErrorBeforeAttach) {
  ChildResult const result = run([] { logInfo(L"early"); });
  expectSuccess(result);
  EXPECT_EQ(Texts{"info [Test] early"}, records(result.standardError));
  EXPECT_FALSE(fs::exists(data()));
}

TEST_F(LoggerTest, RecordsGoToTheFileAfterAttach) {
  ChildResult const result = run([] {
    attach(L"agent");
    logInfo(L"one");
    log(LogLevel::error, L"Xml", L"two");
  });
  EXPECT_LOGGED_QUIETLY(result, "agent.log", (Texts{"info [Test] one", "error [Xml] two"}));
}

TEST_F(LoggerTest, AttachMakesFolderAndFileForOwnerAndGroupOnly) {
  expectSuccess(run([] { attach(L"agent"); }));
  EXPECT_EQ(mode_t{0750}, modeOf(logFolder()));
  EXPECT_EQ(mode_t{0640}, modeOf(logFile("agent.log")));
  EXPECT_EQ("", fileBytes(logFile("agent.log")));
}

TEST_F(LoggerTest, AttachAgainSwitchesToTheNewLog) {
  ChildResult const result = run([] {
    attach(L"first");
    logInfo(L"1");
    attach(L"second");
    logInfo(L"2");
    attach(L"first");
    logInfo(L"3");
  });
  EXPECT_LOGGED_QUIETLY(result, "first.log", (Texts{"info [Test] 1", "info [Test] 3"}));
  EXPECT_EQ(Texts{"info [Test] 2"}, logged("second.log"));
}

TEST_F(LoggerTest, LogsOfEarlierProcessesAreContinued) {
  for (int i = 0; i < 2; ++i) {
    expectSuccess(run([i] {
      attach(L"agent");
      logInfo(std::to_wstring(i));
    }));
  }
  EXPECT_EQ((Texts{"info [Test] 0", "info [Test] 1"}), logged("agent.log"));
}

TEST_F(LoggerTest, LineCutOffByACrashIsEndedFirst) {
  fs::create_directories(logFolder());
  makeFile(logFile("agent.log"), "cut o");
  expectSuccess(run([] {
    attach(L"agent");
    logInfo(L"new");
  }));
  std::string const text = fileBytes(logFile("agent.log"));
  ASSERT_TRUE(text.starts_with("cut o\n")) << text;
  EXPECT_EQ(Texts{"info [Test] new"}, records(text.substr(6)));
}

struct NameRow {
  char const* name;
  std::wstring logName;
  std::string file;
};

class LoggerNameTest : public LoggerTest, public testing::WithParamInterface<NameRow> {};

TEST_P(LoggerNameTest, StaysInTheLogFolder) {
  ChildResult const result = run([] {
    attach(GetParam().logName);
    logInfo(L"here");
  });
  EXPECT_LOGGED_QUIETLY(result, GetParam().file, Texts{"info [Test] here"});
  std::set<std::string> paths;
  for (auto const& entry : fs::recursive_directory_iterator(data())) paths.insert(entry.path());
  EXPECT_EQ((std::set<std::string>{logFolder(), logFile(GetParam().file)}), paths);
}

INSTANTIATE_TEST_SUITE_P(Names, LoggerNameTest,
                         testing::Values(NameRow{"Plain", L"agent 2.x", "agent 2.x.log"},
                                         NameRow{"Empty", L"", "_.log"},
                                         NameRow{"Dot", L".", "_.log"},
                                         NameRow{"DotDot", L"..", "_..log"},
                                         NameRow{"Hidden", L".agent", "_agent.log"},
                                         NameRow{"Up", L"../up", "_._up.log"},
                                         NameRow{"Absolute", L"/tmp/agent", "_tmp_agent.log"},
                                         NameRow{"Below", L"a/b", "a_b.log"},
                                         NameRow{"Controls",
                                                 L"a\nb\x7F"
                                                 L"c\x85"
                                                 L"d\u2028e\u202Ef",
                                                 "a_b_c_d_e_f.log"},
                                         NameRow{"Nul", std::wstring(L"a\0b", 3), "a_b.log"},
                                         NameRow{"Backslash", L"a\\b", "a\\b.log"}),
                         rowName<NameRow>);

TEST_F(LoggerTest, NameThatTheLocaleLacksIsTakenInUtf8) {
  ChildResult const result = run([] {
    LocaleScope const locale("C");
    attach(L"\u0416");
    logInfo(L"here");
  });
  EXPECT_LOGGED_QUIETLY(result, "\xD0\x96.log", Texts{"info [Test] here"});
}

TEST_F(LoggerTest, NameIsTakenInTheLocalesEncoding) {
  ChosenLocale const locale(kLatin1);
  if (!locale.whyMissing().empty()) GTEST_SKIP() << locale.whyMissing();
  ChildResult const result = run([] {
    attach(L"\u00E4");
    logInfo(L"here");
  });
  EXPECT_LOGGED_QUIETLY(result, "\xE4.log", Texts{"info [Test] here"});
}

// --- The line ---------------------------------------------------------------

TEST_F(LoggerTest, LineHasTimeProcessThreadLevelGroupAndMessage) {
  ChildResult const result = run([] {
    ::setenv("TZ", "UTC0", 1);
    ::tzset();
    log(LogLevel::error, L"Xml", L"root node missing");
  });
  expectSuccess(result);
  std::string const process = std::to_string(result.process);
#ifdef __linux__
  std::string const& thread = process;  // the first thread's number
#else
  std::string const thread = "[0-9]+";
#endif
  std::string const pattern = std::string(kTimePattern) + " " + process + "/" + thread +
                              " error \\[Xml\\] root node missing\n";
  EXPECT_EQ(1U, matchGroups(result.standardError, pattern).size()) << result.standardError;
}

TEST_F(LoggerTest, EachThreadHasItsNumber) {
  ChildResult const result = run([] {
    logInfo(L"1");
    std::thread([] { logInfo(L"2"); }).join();
    logInfo(L"3");
  });
  std::vector<Line> const lines = parseLog(result.standardError);
  ASSERT_EQ(3U, lines.size());
  EXPECT_EQ(lines[0].thread, lines[2].thread);
  EXPECT_NE(lines[0].thread, lines[1].thread);
  EXPECT_EQ(result.process, lines[1].process);
}

TEST_F(LoggerTest, ChildAfterForkWritesItsOwnNumbers) {
  ChildResult const result = run([] {
    logInfo(L"parent");
    pid_t const child = ::fork();
    if (child == 0) {
      logInfo(std::to_wstring(::getpid()));
      ::_exit(0);
    }
    EXPECT_EQ(0, waitFor(child));
  });
  expectSuccess(result);
  std::vector<Line> const lines = parseLog(result.standardError);
  ASSERT_EQ(2U, lines.size());
  EXPECT_EQ("info [Test] " + std::to_string(lines[1].process), lines[1].rest);
  EXPECT_NE(lines[0].process, lines[1].process);
  EXPECT_NE(lines[0].thread, lines[1].thread);
}

/// The instant that the text of a time says.
milliseconds instant(std::string const& time) {
  tm fields{};
  int millisecond = 0;
  int offsetHours = 0;
  int offsetMinutes = 0;
  char sign = ' ';
  EXPECT_EQ(10, std::sscanf(time.c_str(), "%d-%d-%dT%d:%d:%d.%d%c%d:%d", &fields.tm_year,
                            &fields.tm_mon, &fields.tm_mday, &fields.tm_hour, &fields.tm_min,
                            &fields.tm_sec, &millisecond, &sign, &offsetHours, &offsetMinutes));
  fields.tm_year -= 1900;
  fields.tm_mon -= 1;
  auto const offset =
      std::chrono::minutes((sign == '-' ? -1 : 1) * (60 * offsetHours + offsetMinutes));
  return std::chrono::seconds(::timegm(&fields)) + milliseconds(millisecond) - offset;
}

milliseconds now() {
  return std::chrono::floor<milliseconds>(system_clock::now().time_since_epoch());
}

struct ZoneRow {
  char const* name;
  char const* zone;
  char const* offset;
};

class LoggerZoneTest : public LoggerTest, public testing::WithParamInterface<ZoneRow> {};

TEST_P(LoggerZoneTest, TimeIsLocalWithItsOffset) {
  milliseconds const before = now();
  ChildResult const result = run([] {
    ::setenv("TZ", GetParam().zone, 1);
    ::tzset();
    logInfo(L"");
  });
  milliseconds const after = now();
  std::vector<Line> const lines = parseLog(result.standardError);
  ASSERT_EQ(1U, lines.size());
  std::string const& time = lines[0].time;
  EXPECT_TRUE(time.ends_with(GetParam().offset)) << time;
  EXPECT_LE(before, instant(time)) << time;
  EXPECT_GE(after, instant(time)) << time;
}

INSTANTIATE_TEST_SUITE_P(Zones, LoggerZoneTest,
                         testing::Values(ZoneRow{"Utc", "UTC0", "+00:00"},
                                         ZoneRow{"East", "AAA-5:30", "+05:30"},
                                         ZoneRow{"West", "AAA+3:30", "-03:30"},
                                         ZoneRow{"LittleWest", "AAA+0:15", "-00:15"}),
                         rowName<ZoneRow>);

TEST_F(LoggerTest, StartTakesOverAChangedTimeZone) {
  ChildResult const result = run([] {
    ::setenv("TZ", "AAA-1", 1);
    ::tzset();
    logInfo(L"");
    ::setenv("TZ", "AAA-2", 1);
    ILogger::GetLogger()->start();
    logInfo(L"");
  });
  std::vector<Line> const lines = parseLog(result.standardError);
  ASSERT_EQ(2U, lines.size());
  EXPECT_TRUE(lines[0].time.ends_with("+01:00")) << lines[0].time;
  EXPECT_TRUE(lines[1].time.ends_with("+02:00")) << lines[1].time;
}

struct TextRow {
  char const* name;
  std::wstring group;
  std::wstring message;
  std::string record;
};

class LoggerTextTest : public LoggerTest, public testing::WithParamInterface<TextRow> {};

TEST_P(LoggerTextTest, IsWrittenInEveryLocale) {
  for (char const* locale : {"C", "C.UTF-8"}) {
    ChildResult const result = run([locale] {
      LocaleScope const scope(locale);
      log(LogLevel::info, GetParam().group, GetParam().message);
    });
    expectSuccess(result);
    EXPECT_EQ(Texts{GetParam().record}, records(result.standardError)) << locale;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Texts, LoggerTextTest,
    testing::Values(
        TextRow{"Empty", L"", L"", "info [] "}, TextRow{"Blanks", L" ", L"  a ", "info [ ]   a "},
        TextRow{"NewLineInMessage", L"A", L"a\nb", R"(info [A] a\nb)"},
        TextRow{"NewLineInGroup", L"A\nB", L"c", R"(info [A\nB] c)"},
        TextRow{"ReturnAndTab", L"A\tB", L"\r\t", R"(info [A\tB] \r\t)"},
        TextRow{"Backslash", L"A\\", L"\\n", R"(info [A\\] \\n)"},
        TextRow{"FirstAndLastOfC0", L"A", std::wstring(L"\0\x01\x1B\x1F ", 5),
                R"(info [A] \x00\x01\x1b\x1f )"},
        TextRow{"DelAndC1", L"A", L"~\x7F\x80\x85\x9F\u00A0",
                "info [A] ~\\x7f\\x80\\x85\\x9f\xC2\xA0"},
        TextRow{"Separators", L"A\u2028", L"\u2027\u2028\u2029",
                "info [A\\u2028] \xE2\x80\xA7\\u2028\\u2029"},
        TextRow{
            "Directions", L"A",
            L"\u061C\u200E\u200F\u202A\u202B\u202C\u202D\u202E\u2066\u2067\u2068\u2069",
            R"(info [A] \u061c\u200e\u200f\u202a\u202b\u202c\u202d\u202e\u2066\u2067\u2068\u2069)"},
        TextRow{"BesideDirections", L"A", L"\u061B\u061D\u200D\u2010\u202F\u2065\u206A",
                "info [A] "
                "\xD8\x9B\xD8\x9D\xE2\x80\x8D\xE2\x80\x90\xE2\x80\xAF\xE2\x81\xA5\xE2\x81\xAA"},
        TextRow{"GroupCannotEndEarly", L"A] b", L"c] d", R"(info [A\x5d b] c] d)"},
        TextRow{"BracketOpens", L"[A", L"[B", "info [[A] [B"},
        TextRow{"TwoToFourBytes", L"\u00C4", L"\u20AC\U00010348",
                "info [\xC3\x84] \xE2\x82\xAC\xF0\x90\x8D\x88"},
        TextRow{"NoCharacters", L"A",
                std::wstring{static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0x110000),
                             static_cast<wchar_t>(-1), L'z'},
                "info [A] \xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBDz"}),
    rowName<TextRow>);

// --- Levels -----------------------------------------------------------------

TEST_F(LoggerTest, MinimumLevelStartsAtInfo) {
  ChildResult const result = run([] {
    EXPECT_FALSE(ILogger::GetLogger()->isDetailLoggingEnabled());
    log(LogLevel::detail, L"A", L"dropped");
    log(LogLevel::info, L"A", L"kept");
    log(LogLevel::error, L"A", L"kept");
  });
  expectSuccess(result);
  EXPECT_EQ((Texts{"info [A] kept", "error [A] kept"}), records(result.standardError));
}

TEST_F(LoggerTest, RecordsBelowTheMinimumLevelAreDropped) {
  ChildResult const result = run([] {
    for (LogLevel const minimum :
         {LogLevel::detail, LogLevel::error, LogLevel{5}, LogLevel::info}) {
      ILogger::GetLogger()->setMinLogLevel(minimum);
      EXPECT_EQ(minimum == LogLevel::detail, ILogger::GetLogger()->isDetailLoggingEnabled());
      for (LogLevel const level : {LogLevel::detail, LogLevel::info, LogLevel::error}) {
        log(level, L"A", std::to_wstring(static_cast<int>(minimum)));
      }
    }
  });
  expectSuccess(result);
  EXPECT_EQ((Texts{"detail [A] 0", "info [A] 0", "error [A] 0", "error [A] 4", "info [A] 1",
                   "error [A] 1"}),
            records(result.standardError));
}

TEST_F(LoggerTest, UnknownLevelIsWrittenAsItsNumber) {
  ChildResult const result = run([] {
    ILogger::GetLogger()->setMinLogLevel(LogLevel{-7});
    for (int const level : {-7, -8, 2, 3, 5, 2147483647}) log(LogLevel{level}, L"A", L"");
    EXPECT_TRUE(ILogger::GetLogger()->isDetailLoggingEnabled());
  });
  expectSuccess(result);
  EXPECT_EQ((Texts{"-7 [A] ", "2 [A] ", "3 [A] ", "5 [A] ", "2147483647 [A] "}),
            records(result.standardError));
}

TEST_F(LoggerTest, DroppedRecordAllocatesNothing) {
  expectSuccess(run([] {
    std::wstring const group = L"a group of some length";
    std::wstring const message = L"a message that is longer than any short string";
    ILogger* const logger = ILogger::GetLogger();
    onAllocation = OnAllocation::count;
    for (int i = 0; i < 100; ++i) logger->logMessage(LogLevel::detail, group, message);
    onAllocation = OnAllocation::nothing;
    EXPECT_EQ(0, allocations);
    onAllocation = OnAllocation::count;
    logger->logMessage(LogLevel::info, group, message);
    onAllocation = OnAllocation::nothing;
    EXPECT_LT(0, allocations) << "the counter does not count";
  }));
}

// --- What cannot be written -------------------------------------------------

struct FallbackRow {
  char const* name;
  void (*prepare)(std::string const& data);
  std::wstring logName;
  std::string path;  // below the data folder, of what the warning names
  char const* action;
  char const* reason;
};

class LoggerFallbackTest : public LoggerTest, public testing::WithParamInterface<FallbackRow> {};

TEST_P(LoggerFallbackTest, WarnsOnceAndWritesToStandardError) {
  GetParam().prepare(data());
  ChildResult const result = run([] {
    attach(GetParam().logName);
    logInfo(L"one");
    log(LogLevel::error, L"Test", L"two");
  });
  expectSuccess(result);
  std::string const reason = "cannot " + std::string(GetParam().action) + " " + data() +
                             GetParam().path + ": " + GetParam().reason;
  EXPECT_EQ((Texts{warning(reason), "info [Test] one", "error [Test] two"}),
            records(result.standardError));
}

void makeLogFolder(std::string const& data) { fs::create_directories(data + "/log"); }

INSTANTIATE_TEST_SUITE_P(
    Obstacles, LoggerFallbackTest,
    testing::Values(
        FallbackRow{"FileInTheDataFoldersPlace",
                    [](std::string const& data) { makeFile(data, ""); }, L"agent", "", "make",
                    "File exists"},
        FallbackRow{"FileInTheLogFoldersPlace",
                    [](std::string const& data) {
                      fs::create_directories(data);
                      makeFile(data + "/log", "");
                    },
                    L"agent", "/log", "make", "File exists"},
        FallbackRow{
            "FolderInTheFilesPlace",
            [](std::string const& data) { fs::create_directories(data + "/log/agent.log"); },
            L"agent", "/log/agent.log", "open", "Is a directory"},
        FallbackRow{"FifoInTheFilesPlace",
                    [](std::string const& data) {
                      makeLogFolder(data);
                      ASSERT_EQ(0, ::mkfifo((data + "/log/agent.log").c_str(), 0600));
                    },
                    L"agent", "/log/agent.log", "open", "not a regular file"},
        FallbackRow{"LinkThatLeadsToItself",
                    [](std::string const& data) {
                      makeLogFolder(data);
                      fs::create_symlink("agent.log", data + "/log/agent.log");
                    },
                    L"agent", "/log/agent.log", "open", "Too many levels of symbolic links"},
        FallbackRow{"NameTooLong", makeLogFolder, std::wstring(300, L'n'),
                    "/log/" + std::string(300, 'n') + ".log", "open", "File name too long"}),
    rowName<FallbackRow>);

TEST_F(LoggerTest, FolderWithoutPermissionFallsBackToStandardError) {
  fs::create_directories(logFolder());
  fs::permissions(logFolder(), fs::perms::owner_read | fs::perms::owner_exec);
  ChildResult const result = run([this] {
    if (::geteuid() == 0) {  // root ignores modes
      for (std::string const& above : {inFolder("."), data()}) {
        fs::permissions(above, fs::perms::group_exec | fs::perms::others_exec,
                        fs::perm_options::add);
      }
      ASSERT_EQ(0, ::setuid(65534));
    }
    attach(L"agent");
    logInfo(L"one");
  });
  expectSuccess(result);
  EXPECT_EQ((Texts{warning("cannot open " + logFile("agent.log") + ": Permission denied"),
                   "info [Test] one"}),
            records(result.standardError));
  fs::permissions(logFolder(), fs::perms::owner_all);
}

/// A configuration of the host's.
class OwnConfiguration : public IConfiguration {
public:
  OwnConfiguration() { SetConfiguration(this); }

  ~OwnConfiguration() override { SetConfiguration(nullptr); }

  std::wstring GetUpdaterDataDir() override { return L""; }
};

TEST_F(LoggerTest, PathThatTheLocaleLacksFallsBackToStandardError) {
  struct Foreign final : OwnConfiguration {
    std::wstring GetFrameworkDataDirectory() override { return L"/tmp/\u0416"; }
  };

  ChildResult const result = run([] {
    LocaleScope const locale("C");
    Foreign const configuration;
    attach(L"agent");
    logInfo(L"one");
  });
  expectSuccess(result);
  EXPECT_EQ((Texts{warning("the locale cannot express the path /tmp/\xD0\x96"), "info [Test] one"}),
            records(result.standardError));
}

TEST_F(LoggerTest, ConfigurationThatThrowsFallsBackToStandardError) {
  struct Throwing final : OwnConfiguration {
    std::wstring GetFrameworkDataDirectory() override { throw std::runtime_error("no data"); }
  };

  ChildResult const result = run([] {
    attach(L"before");
    Throwing const configuration;
    attach(L"agent");
    logInfo(L"one");
  });
  expectSuccess(result);
  EXPECT_EQ((Texts{warning("no data"), "info [Test] one"}), records(result.standardError));
  EXPECT_EQ(Texts{}, logged("before.log"));
}

TEST_F(LoggerTest, ConfigurationThatThrowsNoStandardExceptionIsContained) {
  struct Throwing final : OwnConfiguration {
    std::wstring GetFrameworkDataDirectory() override { throw 1; }
  };

  ChildResult const result = run([] {
    Throwing const configuration;
    attach(L"agent");
  });
  expectSuccess(result);
  EXPECT_EQ("The logger failed; what it was to write is lost.\n", result.standardError);
}

TEST_F(LoggerTest, ConfigurationThatLogsDoesNotBlockAttach) {
  struct Logging final : OwnConfiguration {
    explicit Logging(std::string const& data) : folder(data.begin(), data.end()) {}

    std::wstring GetFrameworkDataDirectory() override {
      logInfo(L"asked");
      return folder;
    }

    std::wstring folder;
  };

  ChildResult const result = run([this] {
    Logging const configuration(data());
    attach(L"first");
    attach(L"second");
  });
  expectSuccess(result);
  EXPECT_EQ(Texts{"info [Test] asked"}, records(result.standardError));
  EXPECT_EQ(Texts{"info [Test] asked"}, logged("first.log"));
  EXPECT_EQ(Texts{}, logged("second.log"));
}

TEST_F(LoggerTest, WarningIsOneLineWhateverThePath) {
  makeFile(inFolder("a\nb"), "");
  ChildResult const result = run([this] {
    ::setenv("VRX_DATA_DIR", inFolder("a\nb").c_str(), 1);
    attach(L"agent");
  });
  expectSuccess(result);
  EXPECT_EQ(Texts{warning("cannot make " + inFolder("a\\nb") + ": File exists")},
            records(result.standardError));
}

TEST_F(LoggerTest, WarningNamesAPathThatIsNoUtf8) {
  ChosenLocale const locale(kLatin1);
  if (!locale.whyMissing().empty()) GTEST_SKIP() << locale.whyMissing();
  makeFile(inFolder("\xE4"), "");
  ChildResult const result = run([this] {
    ::setenv("VRX_DATA_DIR", inFolder("\xE4").c_str(), 1);
    attach(L"agent");
  });
  expectSuccess(result);
  EXPECT_EQ(Texts{warning("cannot make " + inFolder("\xC3\xA4") + ": File exists")},
            records(result.standardError));
}

TEST_F(LoggerTest, WarningIsWrittenWhateverTheMinimumLevel) {
  makeFile(data(), "");
  ChildResult const result = run([] {
    ILogger::GetLogger()->setMinLogLevel(LogLevel{9});
    attach(L"agent");
    log(LogLevel::error, L"Test", L"dropped");
  });
  expectSuccess(result);
  EXPECT_EQ(Texts{warning("cannot make " + data() + ": File exists")},
            records(result.standardError));
}

TEST_F(LoggerTest, EachAttachThatFailsWarns) {
  makeFile(data(), "");
  ChildResult const result = run([] {
    attach(L"agent");
    attach(L"other");
  });
  std::string const text = warning("cannot make " + data() + ": File exists");
  EXPECT_EQ((Texts{text, text}), records(result.standardError));
}

TEST_F(LoggerTest, FileIsTakenAgainOnceItCanBeWritten) {
  makeFile(data(), "");
  ChildResult const result = run([this] {
    attach(L"agent");
    logInfo(L"lost");
    fs::remove(data());
    logInfo(L"found");
  });
  expectSuccess(result);
  EXPECT_EQ((Texts{warning("cannot make " + data() + ": File exists"), "info [Test] lost"}),
            records(result.standardError));
  EXPECT_EQ(Texts{"info [Test] found"}, logged("agent.log"));
}

TEST_F(LoggerTest, FullDiskWarnsOnceAndRecordsGoToStandardError) {
  if (!fs::exists("/dev/full")) GTEST_SKIP() << "this host has no /dev/full";
  fs::create_directories(logFolder());
  std::string const file = logFile("agent.log");
  fs::create_symlink("/dev/full", file);
  ChildResult const result = run([&] {
    attach(L"agent");
    logInfo(L"1");
    log(LogLevel::error, L"Test", L"2");
    fs::remove(file);
    logInfo(L"3");
  });
  expectSuccess(result);
  EXPECT_EQ((Texts{warning("Failed writing to file " + file + ": No space left on device"),
                   "info [Test] 1", "error [Test] 2"}),
            records(result.standardError));
  EXPECT_EQ(Texts{"info [Test] 3"}, logged("agent.log"));
}

void limitFileSize(rlim_t size) {
  rlimit const limit{.rlim_cur = size, .rlim_max = RLIM_INFINITY};
  ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &limit));
}

TEST_F(LoggerTest, LimitOfFileSizeKillsNothingAndWarnsOncePerOutage) {
  ChildResult const result = run([] {
    ::signal(SIGXFSZ, SIG_DFL);
    attach(L"agent");
    limitFileSize(100);
    logInfo(std::wstring(200, L'a'));
    logInfo(L"b");
    limitFileSize(RLIM_INFINITY);
    logInfo(L"c");
    limitFileSize(100);
    logInfo(L"d");
    sigset_t pending;
    ::sigpending(&pending);
    EXPECT_EQ(0, ::sigismember(&pending, SIGXFSZ));
  });
  expectSuccess(result);
  std::string const failed =
      warning("Failed writing to file " + logFile("agent.log") + ": File too large");
  EXPECT_EQ((Texts{failed, "info [Test] " + std::string(200, 'a'), "info [Test] b", failed,
                   "info [Test] d"}),
            records(result.standardError));
  // What fitted is ended; the next record has a line of its own.
  std::string const text = fileBytes(logFile("agent.log"));
  ASSERT_EQ('\n', text.at(100)) << text;
  EXPECT_EQ(Texts{"info [Test] c"}, records(text.substr(101)));
}

// --- Rotation ---------------------------------------------------------------

/// A message that begins with its number; a line of it has about 1 MiB.
std::wstring bigMessage(int number) {
  return std::to_wstring(number) + L":" + std::wstring(1024 * 1024 - 200, L'x');
}

/// The numbers of big messages in a log file.
std::vector<int> numbersIn(std::string const& path) {
  std::vector<int> numbers;
  for (Line const& line : parseLog(fileBytes(path))) {
    numbers.push_back(std::stoi(line.rest.substr(std::string("info [Test] ").size())));
  }
  return numbers;
}

TEST_F(LoggerTest, FileIsRotatedBySizeAndFiveOldOnesAreKept) {
  ChildResult const result = run([] {
    attach(L"agent");
    for (int i = 0; i < 60; ++i) logInfo(bigMessage(i));
  });
  expectSuccess(result);
  EXPECT_EQ("", result.standardError);
  std::vector<int> kept;
  for (char const* name :
       {"agent.5.log", "agent.4.log", "agent.3.log", "agent.2.log", "agent.1.log", "agent.log"}) {
    std::string const path = logFile(name);
    EXPECT_GE(kMaxFileSize, fs::file_size(path)) << name;
    EXPECT_EQ(mode_t{0640}, modeOf(path)) << name;
    std::vector<int> const numbers = numbersIn(path);
    EXPECT_EQ(name == std::string("agent.log") ? 4U : 8U, numbers.size()) << name;
    kept.insert(kept.end(), numbers.begin(), numbers.end());
  }
  std::vector<int> last(44);
  std::iota(last.begin(), last.end(), 60 - 44);
  EXPECT_EQ(last, kept);
  EXPECT_EQ(6, std::distance(fs::directory_iterator(logFolder()), fs::directory_iterator()));
}

TEST_F(LoggerTest, SizeOfAnEarlierProcesssFileCounts) {
  fs::create_directories(logFolder());
  makeFile(logFile("agent.log"), std::string(kMaxFileSize - 1, 'x') + "\n");
  expectSuccess(run([] {
    attach(L"agent");
    logInfo(L"new");
  }));
  EXPECT_EQ(Texts{"info [Test] new"}, logged("agent.log"));
  EXPECT_EQ(kMaxFileSize, fs::file_size(logFile("agent.1.log")));
}

TEST_F(LoggerTest, RecordBeyondTheSizeOfAFileStaysWhole) {
  constexpr std::size_t kSize = kMaxFileSize + 1000;
  expectSuccess(run([] {
    attach(L"agent");
    logInfo(L"before");
    logInfo(std::wstring(kSize, L'x'));
    logInfo(L"after");
  }));
  EXPECT_EQ(Texts{"info [Test] before"}, logged("agent.2.log"));
  EXPECT_EQ(Texts{"info [Test] " + std::string(kSize, 'x')}, logged("agent.1.log"));
  EXPECT_EQ(Texts{"info [Test] after"}, logged("agent.log"));
}

TEST_F(LoggerTest, RotationThatCannotRenameWarnsAndGoesOn) {
  fs::create_directories(logFile("agent.5.log/full"));
  makeFile(logFile("agent.4.log"), "old\n");
  ChildResult const result = run([] {
    attach(L"agent");
    for (int i = 0; i < 9; ++i) logInfo(bigMessage(i));
    logInfo(L"9");
  });
  expectSuccess(result);
  EXPECT_EQ(Texts{warning("rotating_file_sink: failed renaming " + logFile("agent.4.log") + " to " +
                          logFile("agent.5.log") + ": Is a directory")},
            records(result.standardError));
  EXPECT_EQ((std::vector<int>{8, 9}), numbersIn(logFile("agent.log")));
}

TEST_F(LoggerTest, RotationThatCannotOpenFallsBackToStandardError) {
  constexpr std::size_t kTwoMiB = std::size_t{2} * 1024 * 1024;
  std::string const elsewhere = inFolder("elsewhere");
  ChildResult const result = run([&] {
    attach(L"agent");
    for (int i = 0; i < 7; ++i) logInfo(bigMessage(i));
    fs::rename(logFolder(), elsewhere);
    makeFile(logFolder(), "");
    logInfo(std::wstring(kTwoMiB, L'y'));  // rotates
    logInfo(L"short");                     // would fit into the file there was
    fs::remove(logFolder());
    logInfo(L"again");
  });
  expectSuccess(result);
  EXPECT_EQ((Texts{warning("cannot make " + logFolder() + ": File exists"),
                   "info [Test] " + std::string(kTwoMiB, 'y'), "info [Test] short"}),
            records(result.standardError));
  EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 4, 5, 6}), numbersIn(elsewhere + "/agent.log"));
  EXPECT_EQ(Texts{"info [Test] again"}, logged("agent.log"));
}

// --- Threads, and the end of threads and processes --------------------------

TEST_F(LoggerTest, RecordsOfSeveralThreadsStayWholeAndInOrder) {
  constexpr int kThreads = 8;
  constexpr int kRecords = 300;
  ChildResult const result = run([] {
    attach(L"agent");
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int thread = 0; thread < kThreads; ++thread) {
      threads.emplace_back([thread] {
        for (int i = 0; i < kRecords; ++i) {
          log(LogLevel::info, std::to_wstring(thread), std::to_wstring(i));
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
  });
  expectSuccess(result);
  EXPECT_EQ("", result.standardError);
  std::map<std::string, int> next;
  milliseconds last{};
  for (Line const& line : parseLog(fileBytes(logFile("agent.log")))) {
    std::string const group = line.rest.substr(6, 1);
    EXPECT_EQ("info [" + group + "] " + std::to_string(next[group]++), line.rest);
    EXPECT_LE(last, instant(line.time));
    last = instant(line.time);
  }
  EXPECT_EQ(std::size_t{kThreads}, next.size());
  for (auto const& [group, count] : next) EXPECT_EQ(kRecords, count) << group;
}

TEST_F(LoggerTest, LogAndLevelMayChangeWhileThreadsLog) {
  constexpr int kThreads = 4;
  constexpr int kRecords = 300;
  ChildResult const result = run([] {
    attach(L"a");
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int thread = 0; thread < kThreads; ++thread) {
      threads.emplace_back([] {
        for (int i = 0; i < kRecords; ++i) {
          logInfo(L"x");
          log(LogLevel::detail, L"Detail", L"");
        }
      });
    }
    for (int i = 0; i < 100; ++i) {
      attach(i % 2 == 0 ? L"b" : L"a");
      ILogger::GetLogger()->setMinLogLevel(i % 2 == 0 ? LogLevel::detail : LogLevel::info);
      ILogger::GetLogger()->start();
    }
    for (std::thread& thread : threads) thread.join();
  });
  expectSuccess(result);
  EXPECT_EQ("", result.standardError);
  Texts all = logged("a.log");
  Texts const others = logged("b.log");
  all.insert(all.end(), others.begin(), others.end());
  EXPECT_EQ(kThreads * kRecords, std::count(all.begin(), all.end(), "info [Test] x"));
}

TEST_F(LoggerTest, EveryRecordIsInTheFileWhenTheCallReturns) {
  ChildResult const result = run([this] {
    attach(L"agent");
    for (LogLevel const level : {LogLevel::info, LogLevel::error}) {
      log(level, L"Test", L"a");
      EXPECT_EQ(static_cast<int>(level) == 1 ? 1U : 2U, logged("agent.log").size());
    }
    std::fflush(stdout);
    ::_exit(testing::Test::HasFailure() ? 1 : 0);
  });
  EXPECT_LOGGED_QUIETLY(result, "agent.log", (Texts{"info [Test] a", "error [Test] a"}));
}

/// Logs its name when it goes.
struct Farewell {
  explicit Farewell(wchar_t const* text) : name(text) {}

  Farewell(Farewell const&) = delete;
  Farewell& operator=(Farewell const&) = delete;

  ~Farewell() { logInfo(name); }

  wchar_t const* name;
};

pthread_key_t farewellKey;

/// Of a thread's end; `round` points to its number.
void sayThreadFarewell(void* round) {
  int& number = *static_cast<int*>(round);
  logInfo(L"thread key " + std::to_wstring(number));
  // Again, when the thread's objects are gone for certain.
  if (++number <= 3) ::pthread_setspecific(farewellKey, round);
}

TEST_F(LoggerTest, RecordsOfAnEndingThreadArrive) {
  ChildResult const result = run([] {
    attach(L"agent");
    ASSERT_EQ(0, ::pthread_key_create(&farewellKey, sayThreadFarewell));
    static int round = 1;
    std::thread([] {
      ::pthread_setspecific(farewellKey, &round);
      static thread_local Farewell const farewell(L"thread object");
      EXPECT_STREQ(L"thread object", farewell.name);  // made by being used
    }).join();
  });
  EXPECT_LOGGED_QUIETLY(result, "agent.log",
                        (Texts{"info [Test] thread object", "info [Test] thread key 1",
                               "info [Test] thread key 2", "info [Test] thread key 3"}));
}

TEST_F(LoggerTest, RecordsOfAnEndingProcessArrive) {
  ChildResult const result = run([] {
    std::atexit([] { logInfo(L"first registered"); });
    static Farewell const early(L"object from before the logger");
    attach(L"agent");
    logInfo(L"running");
    static Farewell const late(L"object from after the logger");
    static thread_local Farewell const ofThread(L"object of the main thread");
    EXPECT_STREQ(L"object of the main thread", ofThread.name);
    std::atexit([] { log(LogLevel::error, L"Test", L"last registered"); });
  });
  EXPECT_LOGGED_QUIETLY(
      result, "agent.log",
      (Texts{"info [Test] running", "info [Test] object of the main thread",
             "error [Test] last registered", "info [Test] object from after the logger",
             "info [Test] object from before the logger", "info [Test] first registered"}));
}

TEST_F(LoggerTest, FirstRecordMayComeWhileTheProcessEnds) {
  ChildResult const result = run([] {
    std::atexit([] {
      attach(L"agent");
      logInfo(L"late");
    });
  });
  EXPECT_LOGGED_QUIETLY(result, "agent.log", Texts{"info [Test] late"});
}

TEST_F(LoggerTest, ThreadThatLogsWhileTheProcessEndsDoesNoHarm) {
  constexpr int kRecords = 50000;  // fit into one file, and take longer than the end
  ChildResult const result = run([] {
    attach(L"agent");
    static std::atomic<bool> isLogging{false};
    std::thread([] {
      for (int i = 0; i < kRecords; ++i) {
        log(LogLevel::info, L"Thread", L"on and on");
        isLogging = true;
      }
      ::pause();
    }).detach();
    while (!isLogging) std::this_thread::yield();
    std::atexit([] { logInfo(L"end"); });
  });
  expectSuccess(result);
  EXPECT_EQ("", result.standardError);
  Texts const all = logged("agent.log");
  EXPECT_EQ(1, std::count(all.begin(), all.end(), "info [Test] end"));
}

TEST_F(LoggerTest, ChildOfAProcessWithSeveralThreadsLogs) {
  constexpr int kChildren = 40;
  constexpr int kThreads = 3;
  constexpr int kRecords = 5000;  // of all threads they fit into one file
  ChildResult const result = run([] {
    attach(L"agent");
    std::latch everyChildIsGone(1);
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int thread = 0; thread < kThreads; ++thread) {
      threads.emplace_back([&everyChildIsGone] {
        for (int i = 0; i < kRecords; ++i) log(LogLevel::info, L"Thread", L"x");
        everyChildIsGone.wait();  // ended but not joined, it would be a leak in the children
      });
    }
    for (int i = 0; i < kChildren; ++i) {
      pid_t const child = ::fork();
      if (child == 0) {
        ::alarm(60);
        logInfo(L"child");
        ::_exit(0);
      }
      EXPECT_EQ(0, waitFor(child));
    }
    everyChildIsGone.count_down();
    for (std::thread& thread : threads) thread.join();
  });
  expectSuccess(result);
  EXPECT_EQ("", result.standardError);
  Texts const all = logged("agent.log");
  EXPECT_EQ(kChildren, std::count(all.begin(), all.end(), "info [Test] child"));
  EXPECT_EQ(kThreads * kRecords, std::count(all.begin(), all.end(), "info [Thread] x"));
}

TEST_F(LoggerTest, CancellationWaitsForTheEndOfTheCall) {
  ChildResult const result = run([] {
    attach(L"agent");
    std::thread([] {
      ::pthread_cancel(::pthread_self());  // the thread would end in the next write(2)
      logInfo(L"one");
      int state = PTHREAD_CANCEL_DISABLE;
      ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
      EXPECT_EQ(PTHREAD_CANCEL_ENABLE, state);
      logInfo(L"two");
      ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
      EXPECT_EQ(PTHREAD_CANCEL_DISABLE, state);
    }).join();
  });
  EXPECT_LOGGED_QUIETLY(result, "agent.log", (Texts{"info [Test] one", "info [Test] two"}));
}

// --- Standard error that is not there ---------------------------------------

/// Puts a pipe without a reader in the place of standard error.
void breakStandardError() {
  std::array<int, 2> ends{};
  ASSERT_EQ(0, ::pipe(ends.data()));
  ASSERT_EQ(STDERR_FILENO, ::dup2(ends[1], STDERR_FILENO));
  ::close(ends[0]);
  ::close(ends[1]);
}

bool isPipeSignalPending() {
  sigset_t pending;
  ::sigpending(&pending);
  return ::sigismember(&pending, SIGPIPE) == 1;
}

TEST_F(LoggerTest, BrokenPipeDoesNotKillTheProcess) {
  expectSuccess(run([] {
    ::signal(SIGPIPE, SIG_DFL);
    breakStandardError();
    logInfo(L"lost");
    EXPECT_FALSE(isPipeSignalPending());
    sigset_t mask;
    ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    EXPECT_EQ(0, ::sigismember(&mask, SIGPIPE));
    EXPECT_EQ(0, ::sigismember(&mask, SIGXFSZ));
  }));
}

TEST_F(LoggerTest, PipeSignalThatWasPendingStaysPending) {
  expectSuccess(run([] {
    ::signal(SIGPIPE, SIG_DFL);
    sigset_t pipe;
    ::sigemptyset(&pipe);
    ::sigaddset(&pipe, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    breakStandardError();
    logInfo(L"lost");
    EXPECT_FALSE(isPipeSignalPending());
    ::raise(SIGPIPE);
    logInfo(L"lost");
    EXPECT_TRUE(isPipeSignalPending());
    sigset_t mask;
    ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    EXPECT_EQ(1, ::sigismember(&mask, SIGPIPE));
  }));
}

TEST_F(LoggerTest, FullPipeThatDoesNotBlockDoesNotHoldTheProcessUp) {
  expectSuccess(run([] {
    std::array<int, 2> ends{};
    ASSERT_EQ(0, ::pipe(ends.data()));
    ASSERT_EQ(0, ::fcntl(ends[1], F_SETFL, O_NONBLOCK));
    ASSERT_EQ(STDERR_FILENO, ::dup2(ends[1], STDERR_FILENO));
    logInfo(std::wstring(std::size_t{4} * 1024 * 1024, L'x'));  // more than a pipe holds
  }));
}

TEST_F(LoggerTest, SlowReaderOfAPipeThatDoesNotBlockGetsEverything) {
  constexpr std::size_t kSize = std::size_t{4} * 1024 * 1024;
  ChildResult const result = run([] {
    ASSERT_EQ(0, ::fcntl(STDERR_FILENO, F_SETFL, O_NONBLOCK));
    logInfo(std::wstring(kSize, L'x'));
  });
  expectSuccess(result);
  EXPECT_EQ(Texts{"info [Test] " + std::string(kSize, 'x')}, records(result.standardError));
}

TEST_F(LoggerTest, SignalsDoNotInterrupt) {
  constexpr std::size_t kSize = std::size_t{4} * 1024 * 1024;  // more than a pipe holds
  ChildResult const result = run([] {
    struct sigaction handler {};
    handler.sa_handler = [](int) {};  // without SA_RESTART
    ASSERT_EQ(0, ::sigaction(SIGUSR1, &handler, nullptr));
    std::atomic<bool> isWritten{false};
    std::thread disturber([&isWritten, writer = ::pthread_self()] {
      while (!isWritten) ::pthread_kill(writer, SIGUSR1);
    });
    logInfo(std::wstring(kSize, L'x'));
    isWritten = true;
    disturber.join();
  });
  expectSuccess(result);
  EXPECT_EQ(Texts{"info [Test] " + std::string(kSize, 'x')}, records(result.standardError));
}

TEST_F(LoggerTest, ClosedStandardDescriptorsAreNotTakenForTheLog) {
  std::string const marker = inFolder("done");
  ChildResult const result = run([&] {
    for (int const fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) ::close(fd);
    logInfo(L"lost");
    attach(L"agent");
    for (int i = 0; i < 9; ++i) logInfo(bigMessage(i));  // rotates
    bool isClosed = true;
    for (int const fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
      isClosed = isClosed && ::fcntl(fd, F_GETFD) == -1;
    }
    if (isClosed) makeFile(marker, "");
  });
  expectSuccess(result);
  EXPECT_TRUE(fs::exists(marker));
  EXPECT_EQ(std::vector<int>{8}, numbersIn(logFile("agent.log")));
}

TEST_F(LoggerTest, ProgramsThatAreStartedDoNotInheritTheFile) {
  expectSuccess(run([this] {
    attach(L"agent");
    struct stat log {};
    ASSERT_EQ(0, ::stat(logFile("agent.log").c_str(), &log));
    int found = 0;
    for (int fd = 0; fd < 256; ++fd) {
      struct stat open {};
      if (::fstat(fd, &open) != 0 || open.st_ino != log.st_ino || open.st_dev != log.st_dev)
        continue;
      ++found;
      EXPECT_EQ(FD_CLOEXEC, ::fcntl(fd, F_GETFD));
    }
    EXPECT_EQ(1, found);
  }));
}

// --- What the caller notices ------------------------------------------------

TEST_F(LoggerTest, ErrnoStaysWhatItWas) {
  makeFile(inFolder("file"), "");
  expectSuccess(run([this] {
    errno = ERANGE;
    logInfo(L"standard error");
    EXPECT_EQ(ERANGE, errno);
    attach(L"agent");
    EXPECT_EQ(ERANGE, errno);
    logInfo(L"file");
    EXPECT_EQ(ERANGE, errno);
    ::setenv("VRX_DATA_DIR", inFolder("file").c_str(), 1);
    errno = ERANGE;
    attach(L"agent");
    EXPECT_EQ(ERANGE, errno);
    logInfo(L"fallback");
    EXPECT_EQ(ERANGE, errno);
  }));
}

TEST_F(LoggerTest, LackOfMemoryIsContained) {
  ChildResult const result = run([] {
    attach(L"agent");
    std::wstring const name = L"other";
    std::wstring const message(1000, L'x');
    ILogger* const logger = ILogger::GetLogger();
    onAllocation = OnAllocation::fail;
    logger->logMessage(LogLevel::info, name, message);
    onAllocation = OnAllocation::nothing;
    logInfo(L"after a record");
    onAllocation = OnAllocation::fail;
    logger->attach(name);
    onAllocation = OnAllocation::nothing;
    logInfo(L"after attach");
  });
  expectSuccess(result);
  EXPECT_EQ(Texts{"info [Test] after a record"}, logged("agent.log"));
  std::string const failed = "The logger failed; what it was to write is lost.\n";
  ASSERT_TRUE(result.standardError.starts_with(failed + failed)) << result.standardError;
  EXPECT_EQ(Texts{"info [Test] after attach"},
            records(result.standardError.substr(2 * failed.size())));
}

TEST_F(LoggerTest, MemoryManagementMayLog) {
  ChildResult const result = run([] {
    attach(L"agent");
    std::wstring const group = L"Test";
    std::wstring const message(1000, L'x');
    ILogger* const logger = ILogger::GetLogger();
    onAllocation = OnAllocation::log;
    logger->logMessage(LogLevel::info, group, message);
    onAllocation = OnAllocation::nothing;
  });
  expectSuccess(result);
  // Before the outer call has begun to write, the inner ones reach the file.
  Texts all = logged("agent.log");
  ASSERT_FALSE(all.empty());
  EXPECT_EQ("info [Test] " + std::string(1000, 'x'), all.back());
  Texts const loud = records(result.standardError);
  EXPECT_FALSE(loud.empty()) << "nothing was allocated while the file was in use";
  all.pop_back();
  all.insert(all.end(), loud.begin(), loud.end());
  EXPECT_EQ(Texts(all.size(), "info [Memory] new"), all);
}

TEST_F(LoggerTest, MemoryManagementMayAttachButNotTakeAFileInUseAway) {
  ChildResult const result = run([] {
    attach(L"agent");
    std::wstring const group = L"Test";
    std::wstring const message(1000, L'x');  // more than is handed on without an allocation
    ILogger* const logger = ILogger::GetLogger();
    onAllocation = OnAllocation::attach;
    logger->logMessage(LogLevel::info, group, message);
    onAllocation = OnAllocation::nothing;
    logInfo(L"last");
  });
  EXPECT_LOGGED_QUIETLY(result, "other.log",
                        (Texts{"info [Test] " + std::string(1000, 'x'), "info [Test] last"}));
}

TEST(LoggerSlotTest, BuiltInLoggerIsInUseAtFirst) {
  ILogger* const builtIn = ILogger::GetLogger();
  ASSERT_NE(nullptr, builtIn);
  EXPECT_EQ(builtIn, ILogger::GetLogger());
}

TEST(LoggerSlotTest, SetLoggerReturnsTheOneBefore) {
  ILogger* const builtIn = ILogger::GetLogger();
  {
    LogRecorder first;
    EXPECT_EQ(&first, ILogger::GetLogger());
    {
      LogRecorder second;
      EXPECT_EQ(&second, ILogger::GetLogger());
      log(LogLevel::detail, L"A", L"b");
      EXPECT_EQ(std::vector{detailRecord(L"A", L"b")}, second.records());
      EXPECT_EQ(&second, ILogger::SetLogger(&first));
    }
    EXPECT_TRUE(first.records().empty());
    EXPECT_EQ(&first, ILogger::SetLogger(builtIn));
    EXPECT_EQ(builtIn, ILogger::GetLogger());
  }
  EXPECT_EQ(builtIn, ILogger::SetLogger(nullptr));
}

TEST(LoggerSlotTest, NullBringsTheBuiltInLoggerBack) {
  ILogger* const builtIn = ILogger::GetLogger();
  LogRecorder recorder;
  EXPECT_EQ(&recorder, ILogger::SetLogger(nullptr));
  EXPECT_EQ(builtIn, ILogger::GetLogger());
  EXPECT_EQ(builtIn, ILogger::SetLogger(nullptr));
}

TEST(LoggerSlotTest, SetLoggerIsSafeFromSeveralThreads) {
  std::array<LogRecorder, 4> recorders;
  ILogger::SetLogger(nullptr);
  std::vector<std::thread> threads;
  threads.reserve(recorders.size());
  for (LogRecorder& recorder : recorders) {
    threads.emplace_back([&recorder] {
      for (int i = 0; i < 200; ++i) {
        EXPECT_NE(nullptr, ILogger::SetLogger(&recorder));
        log(LogLevel::detail, L"A", L"");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  ILogger::SetLogger(nullptr);
  std::size_t count = 0;
  for (LogRecorder const& recorder : recorders) count += recorder.records().size();
  EXPECT_EQ(800U, count);
}

}  // namespace

}  // namespace vrxutil::test

namespace {

// NOLINTNEXTLINE(misc-no-recursion): see operator new
void interfere() {
  OnAllocation const action = onAllocation;
  if (action == OnAllocation::nothing) return;
  ++allocations;
  if (action == OnAllocation::fail) throw std::bad_alloc();
  if (action == OnAllocation::count) return;
  onAllocation = OnAllocation::nothing;  // for what the logger allocates itself
  if (action == OnAllocation::log) {
    vrxutil::test::log(vornix_com::oxa::logger::LogLevel::info, L"Memory", L"new");
  } else {
    vrxutil::test::attach(L"other");
  }
  onAllocation = action;
}

}  // namespace

// The sample logger for syslog: what it sends, told by the copy on standard error that
// syslog(3) makes and, where the host allows a /dev of the test's own, by the datagrams.

#include "examples/syslog_logger/syslog_logger.h"

#include "tests/file/file_support.h"
#include "tests/platform/child_process.h"
#include "tests/support/private_mounts.h"

#include <vrxutil/log.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <ostream>
#include <regex>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

namespace {

using syslog_logger::SyslogLogger;
using vornix_com::oxa::logger::ILogger;
using vornix_com::oxa::logger::LogLevel;
using vrxutil::test::ChildResult;
using vrxutil::test::expectAllowedInChild;
using vrxutil::test::leaveAsNotAllowed;
using vrxutil::test::runInChild;

/// Hides the host's /dev from this process.
bool enterOwnDev() {
#ifdef __linux__
  return vrxutil::test::enterMountNamespace() &&
         ::mount("none", "/dev", "tmpfs", 0, "mode=755") == 0;
#else
  return false;
#endif
}

/// The lines of standard error in a child that does `work`.
std::vector<std::string> linesOf(std::function<void()> const& work) {
  ChildResult const result = runInChild([&work] {
    static_cast<void>(enterOwnDev());  // so as not to bother the host's syslog, if that can be
    work();
  });
  EXPECT_EQ(result.status, 0) << result.standardError;
  std::istringstream stream(result.standardError);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

using Lines = std::vector<std::string>;

/// What one record is copied as, with "test: " before each line.
Lines copyOf(std::wstring const& group, std::wstring const& message) {
  return linesOf([&] {
    SyslogLogger logger(LOG_PERROR);
    logger.attach(L"test");
    logger.logMessage(LogLevel::info, group, message);
  });
}

struct TextRow {
  char const* name;
  std::wstring message;
  char const* line;
};

void PrintTo(TextRow const& row, std::ostream* out) { *out << row.name; }

class SyslogLoggerTextTest : public testing::TestWithParam<TextRow> {};

TEST_P(SyslogLoggerTextTest, IsOneLineOfUtf8) {
  EXPECT_EQ(copyOf(L"Group", GetParam().message),
            Lines{std::string("test: [Group] ") + GetParam().line});
}

INSTANTIATE_TEST_SUITE_P(
    All, SyslogLoggerTextTest,
    testing::Values(
        TextRow{"Empty", L"", ""},  //
        TextRow{"FormatDirectives", L"100%s %n %", "100%s %n %"},
        TextRow{"LineFeed", L"a\nb", "a\\nb"},
        TextRow{"Control", L"\x1b[2J\r\x7f\x9b", R"(\x1b[2J\x0d\x7f\x9b)"},
        TextRow{"Nul", std::wstring(L"a\0b", 3), "a\\x00b"},
        TextRow{"LineSeparator", L"\u2028\u2029", "\\u2028\\u2029"},
        TextRow{"Backslash", L"\\n", "\\\\n"},
        TextRow{"TwoBytes", L"\u00e9\u07ff", "\xc3\xa9\xdf\xbf"},
        TextRow{"ThreeBytes", L"\u0800\u20ac\uffff", "\xe0\xa0\x80\xe2\x82\xac\xef\xbf\xbf"},
        TextRow{"FourBytes", L"\U00010000\U0010ffff", "\xf0\x90\x80\x80\xf4\x8f\xbf\xbf"},
        TextRow{"NoCharacters",
                {L'\xd800', L'\xdfff', static_cast<wchar_t>(0x110000)},
                "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd"}),
    [](auto const& row) { return std::string(row.param.name); });

TEST(SyslogLoggerTest, GroupIsEscapedToo) {
  EXPECT_EQ(copyOf(L"a\nb", L"text"), Lines{"test: [a\\nb] text"});
}

TEST(SyslogLoggerTest, RecordOf900BytesIsWhole) {
  std::string const text(900 - 4, 'x');
  EXPECT_EQ(copyOf(L"G", std::wstring(text.begin(), text.end())), Lines{"test: [G] " + text});
}

TEST(SyslogLoggerTest, LongerRecordIsSplit) {
  std::string const text(896 + 896 + 1, 'x');
  EXPECT_EQ(copyOf(L"G", std::wstring(text.begin(), text.end())),
            (Lines{"test: [G] " + text.substr(0, 896), "test: ... " + text.substr(0, 896),
                   "test: ... x"}));
}

// The euro sign has three bytes; 900 is the second of one.
TEST(SyslogLoggerTest, NoCharacterIsSplit) {
  Lines const lines = copyOf(L"GG", std::wstring(600, L'\u20ac'));
  std::string const euro = "\xe2\x82\xac";
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0].size(), std::string_view("test: ").size() + 5 + 298 * euro.size());
  std::string joined;
  for (std::string const& line : lines) {
    std::size_t const mark = line.find(euro);
    EXPECT_TRUE(line.starts_with(&line == lines.data() ? "test: [GG] " : "test: ... ")) << line;
    EXPECT_LE(line.size() - std::string_view("test: ").size(), 900U);
    joined += line.substr(mark);
  }
  std::string whole;
  for (int i = 0; i < 600; ++i) whole += euro;
  EXPECT_EQ(joined, whole);
}

TEST(SyslogLoggerTest, MinimumLevelIsInfoAtFirst) {
  EXPECT_EQ(linesOf([] {
              SyslogLogger logger(LOG_PERROR);
              logger.attach(L"test");
              EXPECT_FALSE(logger.isDetailLoggingEnabled());
              logger.logMessage(LogLevel::detail, L"G", L"dropped");
              logger.setMinLogLevel(LogLevel::detail);
              EXPECT_TRUE(logger.isDetailLoggingEnabled());
              logger.logMessage(LogLevel::detail, L"G", L"kept");
              logger.setMinLogLevel(LogLevel::error);
              logger.logMessage(LogLevel::info, L"G", L"dropped");
              logger.logMessage(LogLevel::error, L"G", L"kept");
            }),
            (Lines{"test: [G] kept", "test: [G] kept"}));
}

TEST(SyslogLoggerTest, LastNameAttachedIsTheTag) {
  EXPECT_EQ(linesOf([] {
              SyslogLogger logger(LOG_PERROR);
              logger.attach(L"first name of more than a few characters");
              logger.attach(L"sec\u00f3nd\n");
              logger.start();
              logger.logMessage(LogLevel::info, L"G", L"text");
            }),
            Lines{"sec\xc3\xb3nd\\n: [G] text"});
}

TEST(SyslogLoggerTest, SeveralThreadsLogAndAttach) {
  constexpr int kThreads = 4;
  constexpr std::size_t kRecords = 200;
  Lines const lines = linesOf([] {
    SyslogLogger logger(LOG_PERROR);
    logger.attach(L"test");
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&logger] {
        for (std::size_t record = 0; record < kRecords; ++record) {
          logger.attach(L"test");
          logger.logMessage(LogLevel::info, L"G", L"text");
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
  });
  EXPECT_EQ(lines, Lines(kThreads * kRecords, "test: [G] text"));
}

/// A socket at /dev/log, as a syslog daemon has one, which keeps what it gets.
class Receiver {
public:
  Receiver() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    constexpr std::string_view kPath = "/dev/log";
    std::copy(kPath.begin(), kPath.end(), address.sun_path);
    EXPECT_EQ(::bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }

  ~Receiver() { ::close(socket_); }

  Receiver(Receiver const&) = delete;
  Receiver& operator=(Receiver const&) = delete;

  /// All that has come, without time and process, as in "<30>test: text".
  Lines datagrams() const {
    Lines all;
    std::array<char, 4096> bytes{};
    while (true) {
      ssize_t const size = ::recv(socket_, bytes.data(), bytes.size(), 0);
      if (size < 0) return all;
      std::string const text(bytes.data(), static_cast<std::size_t>(size));
      static std::regex const kHead("^(<[0-9]+>)[A-Z][a-z]{2} [ 0-9]{2} [0-9:]{8} ");
      static std::regex const kProcess("^([^ ]*)\\[[0-9]+\\]: ");
      all.push_back(std::regex_replace(std::regex_replace(text, kHead, "$1"), kProcess, "$1: "));
    }
  }

private:
  int socket_;
};

constexpr char kNoDev[] = "the host does not allow a /dev of the test's own";

/// Expects what a child that does `work` sends to syslog; skips the test where that cannot
/// be seen: its last step.
void expectDatagrams(std::function<void()> const& work, Lines const& expected) {
  expectAllowedInChild(kNoDev, [&] {
    if (!enterOwnDev()) leaveAsNotAllowed();
    Receiver const receiver;
    work();
    EXPECT_EQ(receiver.datagrams(), expected);
  });
}

// The facility daemon is 24.
TEST(SyslogLoggerSocketTest, LevelsBecomePriorities) {
  auto const logAtEachLevel = [] {
    SyslogLogger logger(LOG_PID);
    logger.attach(L"test");
    logger.setMinLogLevel(static_cast<LogLevel>(-1));
    for (int level = -1; level <= 5; ++level) {
      logger.logMessage(static_cast<LogLevel>(level), L"G", std::to_wstring(level));
    }
  };
  expectDatagrams(logAtEachLevel,
                  {"<31>test: [G] -1", "<31>test: [G] 0", "<30>test: [G] 1", "<30>test: [G] 2",
                   "<30>test: [G] 3", "<27>test: [G] 4", "<27>test: [G] 5"});
}

TEST(SyslogLoggerSocketTest, RecordsOfTheLibraryArrive) {
  auto const logThroughLibrary = [] {
    SyslogLogger logger(0);
    ILogger* const before = ILogger::SetLogger(&logger);
    setupLog(L"test", nullptr, false, false);
    logErrorNoStack(L"G", L"100%n\n");
    EXPECT_EQ(ILogger::SetLogger(before), &logger);
  };
  expectDatagrams(logThroughLibrary, {"<27>test: [G] 100%n\\n"});
}

TEST(SyslogLoggerSocketTest, NoDatagramIsLongerThanReceiversTake) {
  auto const logLongRecord = [] {
    SyslogLogger logger(LOG_PID);
    logger.attach(L"test");
    logger.logMessage(LogLevel::info, L"G", std::wstring(1000, L'x'));
  };
  expectDatagrams(logLongRecord, {"<30>test: [G] " + std::string(896, 'x'),
                                  "<30>test: ... " + std::string(104, 'x')});
}

TEST(SyslogLoggerSocketTest, KeepsErrnoWhereTheDaemonHasGone) {
  expectAllowedInChild(kNoDev, [] {
    if (!enterOwnDev()) leaveAsNotAllowed();
    SyslogLogger logger(0);
    {
      Receiver const receiver;
      logger.logMessage(LogLevel::error, L"G", L"taken");
    }
    errno = EXDEV;
    logger.logMessage(LogLevel::error, L"G", L"lost");
    EXPECT_EQ(errno, EXDEV);
  });
}

/// Runs the program with `argument`; its exit status.
int runProgram(char const* argument) {
  std::string const command = std::string("'" SYSLOG_PROGRAM "' ") + argument;
  int const status = std::system(command.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(SyslogLoggerProgramTest, SendsItsRecordsToSyslog) {
  expectDatagrams([] { EXPECT_EQ(runProgram(""), 0); },
                  {"<30>sample: [Sample] 100%s of it\\ndone", "<27>sample: [Sample] Error trace:",
                   "<27>sample: [Sample]  [work]->", "<27>sample: [Sample]   nothing left to do"});
}

TEST(SyslogLoggerProgramTest, CopiesThemAndBringsTheBuiltInLoggerBack) {
  Lines lines = linesOf([] { EXPECT_EQ(runProgram("--copy"), 0); });
  std::regex const process("sample\\[[0-9]+\\]");
  std::regex const head("^[-+0-9T:.]+ [0-9]+/[0-9]+ ");
  for (std::string& line : lines) {
    line = std::regex_replace(std::regex_replace(line, process, "sample"), head, "TIME ");
  }
  EXPECT_EQ(lines, (Lines{"sample: [Sample] 100%s of it\\ndone", "sample: [Sample] Error trace:",
                          "sample: [Sample]  [work]->", "sample: [Sample]   nothing left to do",
                          "TIME info [Sample] the built-in logger again"}));
}

TEST(SyslogLoggerProgramTest, WithoutCopyOnlyTheBuiltInLoggerWritesToStandardError) {
  Lines const lines = linesOf([] { EXPECT_EQ(runProgram(""), 0); });
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_TRUE(lines[0].ends_with(" info [Sample] the built-in logger again")) << lines[0];
}

TEST(SyslogLoggerProgramTest, RefusesOtherArguments) {
  for (char const* const argument : {"--other", "--copy more"}) {
    EXPECT_EQ(linesOf([argument] { EXPECT_EQ(runProgram(argument), 2); }),
              Lines{"usage: syslog_logger [--copy]"});
  }
}

}  // namespace

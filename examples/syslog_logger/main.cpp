// Sends the records of its few actions to syslog.
//
//   syslog_logger [--copy]      with --copy, to standard error, too
//
// The last record goes to standard error in any case: the built-in logger is back then.

#include "examples/syslog_logger/syslog_logger.h"

#include <vrxutil/log.h>

#include <cstdio>
#include <string_view>

#include <syslog.h>

namespace {

using syslog_logger::SyslogLogger;
using vornix_com::oxa::logger::ILogger;

constexpr wchar_t kGroup[] = L"Sample";

/// A logger that is in use as long as this object lives. No thread may log beyond that.
class LoggerInUse {
public:
  explicit LoggerInUse(ILogger& logger) : before_(ILogger::SetLogger(&logger)) {}

  ~LoggerInUse() { ILogger::SetLogger(before_); }

  LoggerInUse(LoggerInUse const&) = delete;
  LoggerInUse& operator=(LoggerInUse const&) = delete;

private:
  ILogger* before_;
};

void work() {
  ADetailTrace const trace(kGroup, L"work");
  logInfo(kGroup, L"100%s of it\ndone");
  logDetail(kGroup, L"below the level");
  logError(kGroup, L"nothing left to do");
}

void logToSyslog(int options) {
  SyslogLogger logger(options);
  LoggerInUse const inUse(logger);  // declared after `logger`, so that it ends first
  setupLog(L"sample", nullptr, false, /*alreadyAttached=*/false);
  work();
}

}  // namespace

int main(int argc, char** argv) {
  bool const copies = argc == 2 && std::string_view(argv[1]) == "--copy";
  if (argc != 1 && !copies) {
    static_cast<void>(std::fputs("usage: syslog_logger [--copy]\n", stderr));
    return 2;
  }
  logToSyslog(copies ? LOG_PID | LOG_PERROR : LOG_PID);
  logInfo(kGroup, L"the built-in logger again");
  return 0;
}

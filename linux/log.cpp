#include "linux/spare_text.h"
#include "platform/common/error_text.h"

#include <vrxutil/log.h>

#include <cassert>
#include <cerrno>
#include <utility>

namespace {

using vornix_com::oxa::logger::ILogger;
using vornix_com::oxa::logger::LogLevel;
using vrxutil::detail::SpareText;

constexpr wchar_t kGroup[] = L"Log";
constexpr wchar_t kMainThread[] = L"Main thread";
constexpr wchar_t kExitProgram[] = L"Exit program";

/// False for a record without a group or message, unless assertions are on.
bool isComplete(wchar_t const* logGroup, wchar_t const* message);

void logPrefixed(LogLevel level, wchar_t const* group, wchar_t const* prefix,
                 wchar_t const* message) {
  if (message == nullptr) return logMessage(level, group, message);
  SpareText text(prefix);
  *text += message;
  logMessage(level, group, (*text).c_str());
}

}  // namespace

void logMessage(LogLevel const& level, wchar_t const* group, wchar_t const* message) {
  if (!isComplete(group, message)) return;
  SpareText groupText(group);
  SpareText messageText(message);
  ILogger::GetLogger()->logMessage(level, *groupText, *messageText);
}

void logDetail(wchar_t const* group, wchar_t const* message) {
  logMessage(LogLevel::detail, group, message);
}

void logInfo(wchar_t const* group, wchar_t const* message) {
  logMessage(LogLevel::info, group, message);
}

void logErrorNoStack(wchar_t const* group, wchar_t const* message) {
  logMessage(LogLevel::error, group, message);
}

void logError(wchar_t const* group, wchar_t const* message) {
  if (ATraceStack* const stack = getThreadTraceStack()) {
    stack->log(group, message);
  } else {
    logErrorNoStack(group, message);
  }
}

void logResult(wchar_t const* group, wchar_t const* message) {
  logPrefixed(LogLevel::detail, group, L"=", message);
}

void logInternalError(wchar_t const* group, wchar_t const* message) {
  logPrefixed(LogLevel::error, group, L"internal error: ", message);
}

void logErrno(wchar_t const* group) {
  vrxutil::detail::ErrorText const reason(errno);
  AString text;
  text.cpp_str() = vrxutil::detail::takeSpareText();
  text = reason.c_str();
  logError(group, text);
  vrxutil::detail::giveSpareText(std::move(text.cpp_str()));
}

bool logErrnoIf(wchar_t const* group, bool condition) {
  if (condition) logErrno(group);
  return condition;
}

void setupLog(wchar_t const* logName, wchar_t const* /*second*/, bool /*third*/,
              bool alreadyAttached) {
  if (!alreadyAttached) ILogger::GetLogger()->attach(AString(logName).const_cpp_str());
  ILogger::GetLogger()->start();
  setLogLevelDetailed(false);
}

void finishLog() {}

void setLogLevelDetailed(bool detailed) {
  ILogger::GetLogger()->setMinLogLevel(detailed ? LogLevel::detail : LogLevel::info);
}

bool isDetailLoggingEnabled() { return ILogger::GetLogger()->isDetailLoggingEnabled(); }

bool logDetailListContains(char* /*name*/) { return false; }

int runMainWithLogging(int (*mainFunction)(int, char**), int argumentCount, char** argumentVector,
                       wchar_t const* logName, wchar_t const* second, bool alreadyAttached) {
  setupLog(logName, second, /*third=*/false, alreadyAttached);
  ADetailTrace const scope(kGroup, kMainThread);
  int const result = mainFunction(argumentCount, argumentVector);
  logInfo(kGroup, kExitProgram);
  return result;
}

int setupMainThreadForLogging(void (*threadBody)()) {
  ADetailTrace const scope(kGroup, kMainThread);
  threadBody();
  logInfo(kGroup, kExitProgram);
  return 1;
}

namespace {

// Stays last: from here on, lines and file are those that the failed assertion
// has always named.
bool isComplete(wchar_t const* logGroup, wchar_t const* message) {
#line 116 "linux/log"
  assert(logGroup && message);
  return logGroup != nullptr && message != nullptr;
}

}  // namespace

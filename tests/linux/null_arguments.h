// Every way to hand the log front end a group or message that may not be null.

#pragma once

#include <vrxutil/log.h>

namespace vrxutil::test {

struct NullArgumentCall {
  char const* name;
  void (*call)();
};

inline constexpr NullArgumentCall kNullArgumentCalls[] = {
    {"logMessage, group",
     [] { logMessage(vornix_com::oxa::logger::LogLevel::info, nullptr, L"text"); }},
    {"logMessage, message",
     [] { logMessage(vornix_com::oxa::logger::LogLevel::info, L"Group", nullptr); }},
    {"logMessage, both",
     [] { logMessage(vornix_com::oxa::logger::LogLevel::error, nullptr, nullptr); }},
    {"logDetail, group", [] { logDetail(nullptr, L"text"); }},
    {"logDetail, message", [] { logDetail(L"Group", nullptr); }},
    {"logInfo, group", [] { logInfo(nullptr, L"text"); }},
    {"logInfo, message", [] { logInfo(L"Group", nullptr); }},
    {"logErrorNoStack, group", [] { logErrorNoStack(nullptr, L"text"); }},
    {"logErrorNoStack, message", [] { logErrorNoStack(L"Group", nullptr); }},
    {"logError, group", [] { logError(nullptr, L"text"); }},
    {"logError, message", [] { logError(L"Group", nullptr); }},
    {"logError, both", [] { logError(nullptr, nullptr); }},
    {"logResult, group", [] { logResult(nullptr, L"text"); }},
    {"logResult, message", [] { logResult(L"Group", nullptr); }},
    {"logInternalError, group", [] { logInternalError(nullptr, L"text"); }},
    {"logInternalError, message", [] { logInternalError(L"Group", nullptr); }},
    {"logErrno, group", [] { logErrno(nullptr); }},
    {"logErrnoIf, group", [] { logErrnoIf(nullptr, true); }},
    {"ATraceStack::log, group", [] { getThreadTraceStack()->log(nullptr, L"text"); }},
    {"ATraceStack::log, message", [] { getThreadTraceStack()->log(L"Group", nullptr); }},
};

}  // namespace vrxutil::test

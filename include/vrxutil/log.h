// Log records and error traces.
//
// Every record is a pair of texts, group then message: the group is a short word
// that names the component, the message says what happened. Records go to the
// agent's logger service (vrxcomn/logger.h), which formats, filters and keeps
// them; nothing is filtered here.
//
// A function that wants to appear in error traces declares an ADetailTrace or
// AnInfoTrace as its first local object. logError() then writes the scopes open
// on the calling thread, outermost first:
//
//   [File] Error trace:
//   [Log]   [Main thread]->
//   [Xml]   [useExistingFile,/etc/agent.xml]->
//   [File]   disk full
//
// Group and message may not be null: that is an assertion, and without
// assertions (NDEBUG) the record is dropped.
// Errors: nothing is reported; only std::bad_alloc and what the logger throws
// pass through. With a logger that drops a record, neither the record nor a
// scope with a short text (group to 16, message to 64 characters) allocates
// memory once a thread has warmed up.
// Threads: all functions may be called from any thread, also while a thread or
// the process ends; a scope belongs to the thread that opened it.

#pragma once

#include <vrxcomn/logger.h>
#include <vrxutil/export.h>
#include <vrxutil/text.h>

/// Writes one record at the given level.
VRXUTIL_EXPORT void logMessage(vornix_com::oxa::logger::LogLevel const& level, wchar_t const* group,
                               wchar_t const* message);

/// Writes one record at level detail.
VRXUTIL_EXPORT void logDetail(wchar_t const* group, wchar_t const* message);

/// Writes one record at level info.
VRXUTIL_EXPORT void logInfo(wchar_t const* group, wchar_t const* message);

/// Writes one record at level error, without the trace.
VRXUTIL_EXPORT void logErrorNoStack(wchar_t const* group, wchar_t const* message);

/// Writes "Error trace:", a line for each scope open on this thread, and the
/// message indented by two blanks, all at level error.
VRXUTIL_EXPORT void logError(wchar_t const* group, wchar_t const* message);

/// Writes "=" and the message at level detail.
VRXUTIL_EXPORT void logResult(wchar_t const* group, wchar_t const* message);

/// Writes "internal error: " and the message at level error, without the trace.
VRXUTIL_EXPORT void logInternalError(wchar_t const* group, wchar_t const* message);

/// logError() with the text of strerror(errno).
VRXUTIL_EXPORT void logErrno(wchar_t const* group);

/// logErrno() if `condition`; returns `condition`.
VRXUTIL_EXPORT bool logErrnoIf(wchar_t const* group, bool condition);

/// Attaches the process to the log `logName`, unless `alreadyAttached`; starts
/// the logger; sets the minimum level to info. To be called once, before
/// logging. The second and third argument are ignored.
VRXUTIL_EXPORT void setupLog(wchar_t const* logName, wchar_t const* second, bool third,
                             bool alreadyAttached);

/// Does nothing; the counterpart of setupLog().
VRXUTIL_EXPORT void finishLog();

/// Sets the logger's minimum level to detail, or to info.
VRXUTIL_EXPORT void setLogLevelDetailed(bool detailed);

/// Whether the logger keeps detail records.
VRXUTIL_EXPORT bool isDetailLoggingEnabled();

/// Always false: there is no list of names to log in detail.
VRXUTIL_EXPORT bool logDetailListContains(char* name);

/// Sets up logging and calls `mainFunction` inside the scope "Main thread";
/// logs "Exit program" and returns its result. An exception passes through,
/// without that record. `second` is ignored.
VRXUTIL_EXPORT int runMainWithLogging(int (*mainFunction)(int, char**), int argumentCount,
                                      char** argumentVector, wchar_t const* logName,
                                      wchar_t const* second, bool alreadyAttached);

/// Calls `threadBody` inside the scope "Main thread" and logs "Exit program";
/// returns 1. Sets nothing up. An exception passes through.
VRXUTIL_EXPORT int setupMainThreadForLogging(void (*threadBody)());

class ATrace;

/// The chain of scopes open on one thread.
///
/// A thread's stack lives from its first scope or logError() to the thread's
/// end, which deletes the scopes still linked: they must have come from new.
/// The process's exit treats the thread that called exit() likewise, but leaves
/// alone the scopes that lie on that thread's stack: exit() may be called from
/// inside a function that has a scope open.
class VRXUTIL_EXPORT ATraceStack {
public:
  ATraceStack() = default;
  ~ATraceStack();
  ATraceStack(ATraceStack const&) = delete;
  ATraceStack& operator=(ATraceStack const&) = delete;

  /// What logError() does.
  void log(wchar_t const* logGroup, wchar_t const* logText);

  /// Takes the scopes in this thread's automatic storage out of the chain. The
  /// process's end alone has a use for it.
  void leaveAutomaticScopes() noexcept;

  /// The scope opened last of those still open; null when there is none.
  ATrace* top = nullptr;
};

/// The calling thread's stack, made on first use. Null only after the process's
/// static objects are gone.
VRXUTIL_EXPORT ATraceStack* getThreadTraceStack();

/// A scope: states what the thread is doing from here to the end of the block.
///
/// Scopes close in the reverse order of opening, on the thread that opened them.
class VRXUTIL_EXPORT ATrace {
public:
  /// A scope with empty group and message that writes nothing.
  ATrace();

  /// Opens a scope and, if `logNow`, writes its message.
  ATrace(wchar_t const* logGroup, wchar_t const* logText, bool detail, bool logNow);

  /// Closes the scope; nothing is written.
  virtual ~ATrace();
  ATrace(ATrace const&) = delete;
  ATrace& operator=(ATrace const&) = delete;

  /// Replaces the message; if `logNow`, writes it.
  void set(wchar_t const* logText, bool logNow);

  /// Writes the message at the scope's level, detail or info.
  void log();

  /// Writes a line " [message]->" for each scope from the outermost to this one,
  /// at level error, each under its own group.
  void chainLog();

private:
  friend class ATraceStack;

  ATraceStack* stack;
  ATrace* previous;
  AString group;
  bool isDetail;
  AString message;
};

/// A scope that writes its message as a detail record when it opens.
class VRXUTIL_EXPORT ADetailTrace : public ATrace {
public:
  /// Opens the scope and writes `logText`.
  ADetailTrace(wchar_t const* logGroup, wchar_t const* logText);
  ~ADetailTrace() override;
};

/// A scope that writes its message as an info record when it opens.
class VRXUTIL_EXPORT AnInfoTrace : public ATrace {
public:
  /// Opens the scope and writes `logText`.
  AnInfoTrace(wchar_t const* logGroup, wchar_t const* logText);
  ~AnInfoTrace() override;
};

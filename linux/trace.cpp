#include "linux/spare_text.h"
#include "linux/thread_stack.h"

#include <vrxutil/log.h>

#include <boost/thread/tss.hpp>

#include <atomic>
#include <utility>
#include <vector>

namespace {

using vrxutil::detail::SpareText;

boost::thread_specific_ptr<ATraceStack> t_Stack;

// What t_Stack holds for this thread, without its lookup. It has no destructor
// and is reset when the stack goes, so that it may be read at any time.
constinit thread_local ATraceStack* cachedStack = nullptr;

constinit std::atomic<bool> stacksAreGone = false;

/// Goes before t_Stack, at the process's end.
struct StacksEnd {
  ~StacksEnd() {
    if (cachedStack != nullptr) cachedStack->leaveAutomaticScopes();
    stacksAreGone = true;
  }
};

StacksEnd const stacksEnd;

}  // namespace

ATraceStack* getThreadTraceStack() {
  if (cachedStack != nullptr) return cachedStack;
  if (stacksAreGone) return nullptr;
  if (t_Stack.get() == nullptr) t_Stack.reset(new ATraceStack);
  return cachedStack = t_Stack.get();
}

ATraceStack::~ATraceStack() {
  for (ATrace* scope = top; scope != nullptr;) {
    ATrace* const outer = scope->previous;
    delete scope;
    scope = outer;
  }
  if (cachedStack == this) cachedStack = nullptr;
}

void ATraceStack::leaveAutomaticScopes() noexcept {
  ATrace** link = &top;
  while (*link != nullptr) {
    if (vrxutil::detail::isOnThreadStack(*link)) {
      *link = (*link)->previous;
    } else {
      link = &(*link)->previous;
    }
  }
}

void ATraceStack::log(wchar_t const* logGroup, wchar_t const* logText) {
  if (logText == nullptr) return logErrorNoStack(logGroup, logText);
  logErrorNoStack(logGroup, L"Error trace:");
  if (top != nullptr) top->chainLog();
  SpareText indented(L"  ");
  *indented += logText;
  logErrorNoStack(logGroup, (*indented).c_str());
}

ATrace::ATrace() : ATrace(L"", L"", /*detail=*/false, /*logNow=*/false) {}

ATrace::ATrace(wchar_t const* logGroup, wchar_t const* logText, bool detail, bool logNow)
    : stack(getThreadTraceStack()), previous(nullptr), isDetail(detail) {
  group.cpp_str() = vrxutil::detail::takeSpareText();
  message.cpp_str() = vrxutil::detail::takeSpareText();
  group = logGroup;
  if (stack != nullptr) previous = std::exchange(stack->top, this);
  set(logText, logNow);
}

ATrace::~ATrace() {
  if (stack != nullptr) stack->top = previous;
  vrxutil::detail::giveSpareText(std::move(message.cpp_str()));
  vrxutil::detail::giveSpareText(std::move(group.cpp_str()));
}

void ATrace::set(wchar_t const* logText, bool logNow) {
  message = logText;
  if (logNow) log();
}

void ATrace::log() {
  if (isDetail) {
    logDetail(group, message);
  } else {
    logInfo(group, message);
  }
}

void ATrace::chainLog() {
  // Not by recursion: scopes from new may be many more than a stack has room for.
  std::vector<ATrace const*> scopes;
  for (ATrace const* scope = this; scope != nullptr; scope = scope->previous) {
    scopes.push_back(scope);
  }
  for (auto scope = scopes.rbegin(); scope != scopes.rend(); ++scope) {
    SpareText line(L" [");
    *line += (*scope)->message;
    *line += L"]->";
    logErrorNoStack((*scope)->group, (*line).c_str());
  }
}

ADetailTrace::ADetailTrace(wchar_t const* logGroup, wchar_t const* logText)
    : ATrace(logGroup, logText, /*detail=*/true, /*logNow=*/true) {}

ADetailTrace::~ADetailTrace() = default;

AnInfoTrace::AnInfoTrace(wchar_t const* logGroup, wchar_t const* logText)
    : ATrace(logGroup, logText, /*detail=*/false, /*logNow=*/true) {}

AnInfoTrace::~AnInfoTrace() = default;

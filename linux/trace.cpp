#include "linux/spare_text.h"
#include "linux/thread_stack.h"

#include <vrxutil/log.h>

#include <boost/thread/tss.hpp>

#include <array>
#include <atomic>
#include <cstddef>
#include <memory>
#include <span>
#include <utility>
#include <vector>

namespace {

using vrxutil::detail::SpareText;

/// Scopes that chainLog() writes without asking for memory.
constexpr std::size_t kUsualDepth = 64;

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

StacksEnd stacksEnd;

}  // namespace

ATraceStack* getThreadTraceStack() {
  if (cachedStack != nullptr) return cachedStack;
  if (stacksAreGone) return nullptr;
  cachedStack = t_Stack.get();
  if (cachedStack != nullptr) return cachedStack;
  auto made = std::make_unique<ATraceStack>();
  t_Stack.reset(made.get());  // may fail for lack of memory
  return cachedStack = made.release();
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

ATrace::ATrace() : stack(getThreadTraceStack()), previous(nullptr), isDetail(false) {
  group.cpp_str() = vrxutil::detail::takeSpareText();
  message.cpp_str() = vrxutil::detail::takeSpareText();
  if (stack != nullptr) previous = std::exchange(stack->top, this);
}

// Once the delegated constructor is through, a logger that throws closes the
// scope.
ATrace::ATrace(wchar_t const* logGroup, wchar_t const* logText, bool detail, bool logNow)
    : ATrace() {
  group = logGroup;
  isDetail = detail;
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
  std::array<ATrace const*, kUsualDepth> few;
  std::vector<ATrace const*> many;
  std::size_t depth = 0;
  for (ATrace const* scope = this; scope != nullptr; scope = scope->previous) ++depth;
  if (depth > few.size()) many.resize(depth);
  std::span<ATrace const*> const outermostFirst(depth > few.size() ? many.data() : few.data(),
                                                depth);
  for (ATrace const* scope = this; scope != nullptr; scope = scope->previous) {
    outermostFirst[--depth] = scope;
  }
  for (ATrace const* const scope : outermostFirst) {
    SpareText line(L" [");
    *line += scope->message;
    *line += L"]->";
    logErrorNoStack(scope->group, (*line).c_str());
  }
}

ADetailTrace::ADetailTrace(wchar_t const* logGroup, wchar_t const* logText)
    : ATrace(logGroup, logText, /*detail=*/true, /*logNow=*/true) {}

ADetailTrace::~ADetailTrace() = default;

AnInfoTrace::AnInfoTrace(wchar_t const* logGroup, wchar_t const* logText)
    : ATrace(logGroup, logText, /*detail=*/false, /*logNow=*/true) {}

AnInfoTrace::~AnInfoTrace() = default;

// A plug-in that fails at an empty file, and else leaves its text without an end.

#include "examples/agent/plug_in.h"

#include <vrxutil/export.h>

#include <algorithm>

extern "C" {

VRXUTIL_EXPORT AgentPlugInVersion agentPlugInVersion;
VRXUTIL_EXPORT AgentPlugInExamine agentPlugInExamine;

wchar_t const* agentPlugInVersion() { return L"0.9"; }

bool agentPlugInExamine(unsigned char const* /*bytes*/, unsigned long size, wchar_t* text,
                        unsigned long capacity) {
  std::fill_n(text, capacity, L'x');
  return size > 0;
}
}

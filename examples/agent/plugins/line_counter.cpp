// A plug-in of the sample agent that counts the lines of a file.

#include "examples/agent/plug_in.h"

#include <vrxutil/export.h>

#include <algorithm>
#include <cwchar>

extern "C" {

VRXUTIL_EXPORT AgentPlugInVersion agentPlugInVersion;
VRXUTIL_EXPORT AgentPlugInExamine agentPlugInExamine;

wchar_t const* agentPlugInVersion() { return L"1.2.0.0"; }

bool agentPlugInExamine(unsigned char const* bytes, unsigned long size, wchar_t* text,
                        unsigned long capacity) {
  auto lines = std::count(bytes, bytes + size, static_cast<unsigned char>('\n'));
  // A last line may lack its end.
  if (size > 0 && bytes[size - 1] != '\n') ++lines;
  return std::swprintf(text, capacity, L"lines: %td", lines) >= 0;
}
}

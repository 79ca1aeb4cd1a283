// A library with the version of a plug-in, but not with the function that does the work.

#include "examples/agent/plug_in.h"

#include <vrxutil/export.h>

extern "C" {

VRXUTIL_EXPORT AgentPlugInVersion agentPlugInVersion;

wchar_t const* agentPlugInVersion() { return L"1.0"; }
}

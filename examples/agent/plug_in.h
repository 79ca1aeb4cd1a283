// What a plug-in of the agent is: a dynamic library with these two functions, which
// must not throw.
//
// A task of type `plugin` names the library and the least version that will do.

#pragma once

extern "C" {

/// The version of the plug-in, as in L"1.2.0.0". It is asked before anything else.
using AgentPlugInVersion = wchar_t const*();

/// Looks at the `size` bytes of a file and says in at most `capacity` characters,
/// the terminator included, what it found; false when it could not. The agent calls
/// it from one thread at a time.
using AgentPlugInExamine = bool(unsigned char const* bytes, unsigned long size, wchar_t* text,
                                unsigned long capacity);
}

namespace agent {

constexpr char kPlugInVersionSymbol[] = "agentPlugInVersion";
constexpr char kPlugInExamineSymbol[] = "agentPlugInExamine";

}  // namespace agent

// The work folder, where other programs leave files for the agent.

#pragma once

#include "examples/agent/settings.h"

#include <vrxutil/text.h>

namespace agent {

/// Writes a line "CRC-32 SIZE NAME" for each file in the work folder, in the
/// order of the names, to the list of the settings, and notes their number there.
/// Folders are left out.
///
/// The list is made in a scratch folder and copied over the old one, so that nobody
/// sees a half of it. True with `summary` unchanged when there is no work folder.
/// False, with the reason in the log, when a file cannot be read, which is left out
/// then, or the list cannot be written.
bool listWorkFolder(Settings& settings, AString* summary);

}  // namespace agent

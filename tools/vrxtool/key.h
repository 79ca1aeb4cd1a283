// The agent's key, of which the crypto service only says that something has failed.

#pragma once

#include "tools/vrxtool/failure.h"

namespace vrxtool {

/// Whether there is a key; it is made where there is none yet.
bool hasKey();

/// The failure where there is none to be had.
Failure noKey();

}  // namespace vrxtool

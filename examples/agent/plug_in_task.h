// Tasks that are left to a plug-in (plug_in.h).

#pragma once

#include <vrxutil/text.h>

namespace agent {

/// Has the plug-in look at the file, and gives what it says as `text`. The library has
/// its plain name, as in plugins/line_counter for the file plugins/libline_counter.so.
/// False when the plug-in or the file cannot be used; `text` says why, the log in more
/// detail.
bool runPlugIn(wchar_t const* library, wchar_t const* minimumVersion, wchar_t const* fileName,
               AString* text);

}  // namespace agent

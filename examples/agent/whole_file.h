// Files read and written whole, as bytes.
//
// Errors: logged under "Agent" or "File", with the system's text; the result is
// false.

#pragma once

#include <vrxutil/binary.h>

namespace agent {

/// Gives what the file holds. What is no regular file, as a pipe or a device, and
/// a file beyond 64 MiB are errors.
bool readWholeFile(wchar_t const* fileName, ABuffer* bytes);

/// Writes a temporary neighbour and renames it over the file: after a failure,
/// even a crash, the file is the old one. What is no regular file, as a device or
/// a symbolic link, is not replaced: an error.
bool writeWholeFile(wchar_t const* fileName, ABuffer const& bytes);

}  // namespace agent

// Files read and written whole, as bytes.
//
// Errors: logged under "Agent", with the system's text; the result is false.

#pragma once

#include <vrxutil/binary.h>

namespace agent {

/// Appends what the file holds to `bytes`. A file beyond 64 MiB is an error.
bool readWholeFile(wchar_t const* fileName, ABuffer* bytes);

/// Writes a temporary neighbour, NAME.new, and renames it over the file: after a
/// failure the file is the old one.
bool writeWholeFile(wchar_t const* fileName, ABuffer const& bytes);

}  // namespace agent

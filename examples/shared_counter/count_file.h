// A file that holds one number, as a line of text.
//
// It is written in two steps, a neighbour and its renaming, so that it is whole at every
// moment: a process that is killed in between leaves the old number. Whoever writes must
// be alone, for all write the same neighbour.
//
// Errors: logged under "Counter" or "File"; the result is false, or none.

#pragma once

#include <vrxutil/text.h>

#include <optional>

namespace shared_counter {

/// The number in the file, 0 where there is no file. What holds anything else is an error.
std::optional<long> readCount(AString const& fileName);

/// Writes the number to the neighbour, whatever a killed process has left there.
bool prepareCount(AString const& fileName, long count);

/// Puts the neighbour in the place of the file.
bool commitCount(AString const& fileName);

}  // namespace shared_counter

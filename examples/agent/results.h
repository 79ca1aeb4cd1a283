// The results of a run, kept as a binary record: the file results.bin in the agent's
// data folder, for programs that read no XML. docs/formats.md has its format.

#pragma once

#include <vrxutil/binary.h>
#include <vrxutil/text.h>

#include <vector>

namespace agent {

/// What became of one task.
struct TaskResult {
  enum class Status : char { done = 'd', failed = 'f', disabled = '-' };

  Status status;
  AString type;
  AString path;
  AString text;
};

struct Results {
  AString time;  ///< of the run, in UTC, as in 2026-11-21T05:00:00Z
  std::vector<TaskResult> tasks;
};

AString resultsFileName();

/// Replaces the file; false, with the reason in the log, when that fails, and the old
/// file stays. Texts are cut to 1,000 characters.
bool saveResults(Results const& results);

/// Reads the file back, and gives its bytes, too. False, with the reason in the log,
/// for one that cannot be read or is not whole and unchanged.
bool loadResults(Results* results, AnObjectBuffer<unsigned char>* bytes);

}  // namespace agent

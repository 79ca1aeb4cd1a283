// How the tool fails: exit statuses, and one line for each failure.

#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace vrxtool {

/// Exit statuses. `lock` returns those of the command that it runs, too.
enum Answer : int {
  yes = 0,
  no = 1,       // also: not found
  failure = 2,  // also: wrong use
};

/// What was used wrongly or could not be done, in UTF-8, on one line and without the
/// tool's name. It ends the tool with the status `failure`.
class Failure : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

/// The reader of standard output has gone, as `head` does when it has seen enough.
class ReaderGone : public Failure {
public:
  using Failure::Failure;
};

/// "cannot ACTION NAME: REASON" for the error number of the system.
Failure cannot(std::string_view action, std::string_view name, int errorNumber);

/// Writes "vrxtool: TEXT" as one line to standard error: what might break the line or
/// command a terminal is escaped. Where that fails nobody is left to tell.
void complain(std::string_view text);

/// complain(), for an answer that is not a failure; gives `no`.
int sayNo(std::string_view text);

}  // namespace vrxtool

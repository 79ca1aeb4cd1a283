#include "tools/vrxtool/failure.h"

#include "tools/vrxtool/text.h"

#include <system_error>

#include <unistd.h>

namespace vrxtool {

Failure cannot(std::string_view action, std::string_view name, int errorNumber) {
  std::string text("cannot ");
  text.append(action).append(" ").append(name).append(": ");
  Failure reason(text.append(std::generic_category().message(errorNumber)));
  return reason;
}

void complain(std::string_view text) {
  std::string const line = "vrxtool: " + printable(text, Backslash::asItIs) + "\n";
  static_cast<void>(!::write(STDERR_FILENO, line.data(), line.size()));
}

int sayNo(std::string_view text) {
  complain(text);
  return no;
}

}  // namespace vrxtool

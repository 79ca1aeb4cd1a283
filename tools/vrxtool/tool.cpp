#include "tools/vrxtool/tool.h"

#include "tools/vrxtool/failure.h"
#include "tools/vrxtool/input.h"

namespace vrxtool {

void tellChange(Tool& tool, std::string const& file, bool isChanged) {
  char const* const text = isChanged ? "changed" : "unchanged";
  if (!isStandardStream(file)) return tool.output.line(text);
  tool.output.flush();  // what cannot be written has changed nothing
  complain(text);
}

}  // namespace vrxtool

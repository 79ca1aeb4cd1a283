// vrxtool version: versions of four parts.

#include "tools/vrxtool/command_line.h"
#include "tools/vrxtool/failure.h"
#include "tools/vrxtool/text.h"
#include "tools/vrxtool/tool.h"

#include <vrxutil/system.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <string>
#include <string_view>

namespace vrxtool {

namespace {

struct Arguments {
  std::string a;
  std::string b;
  std::string relation;
};

/// AVersion reads as 0 what is no number, which would compare as something else.
bool isVersion(std::string_view text) {
  constexpr int kMostParts = 4;
  for (int parts = 1; parts <= kMostParts; ++parts) {
    std::uint16_t part = 0;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), part);
    if (error != std::errc()) return false;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    if (text.empty()) return true;
    if (!text.starts_with('.')) return false;
    text.remove_prefix(1);
  }
  return false;
}

AVersion versionOf(std::string const& text) {
  if (isVersion(text)) return {wide(text, "the version").c_str()};
  throw Failure("no version of one to four numbers from 0 to 65535: " + text);
}

int compare(Tool& tool, Arguments const& arguments) {
  AVersion const a = versionOf(arguments.a);
  AVersion const b = versionOf(arguments.b);
  int const order = a.compare(&b);
  std::string const relation = order < 0 ? "lower" : order == 0 ? "equal" : "higher";
  if (!arguments.relation.empty()) return relation == arguments.relation ? yes : no;
  tool.output.line(relation);
  return yes;
}

constexpr CommandText kCompare{"compare", "Say whether A is lower than B, equal or higher",
                               "Parts that are missing are 0. With --is nothing is written, and "
                               "the exit status is\nthe answer.",
                               "vrxtool version compare 4.6.0.1234 4.10\n"
                               "vrxtool version compare 4.6 4.10 --is lower"};

}  // namespace

void addVersionCommands(CommandLine& line, Tool& tool) {
  Actions<Arguments> const does(tool);
  Arguments& a = does.arguments();
  line.family("version", "Versions of up to four parts")
      .command(kCompare)
      .argument("A", a.a, "A version, as in 4.6.0.1234")
      .argument("B", a.b, "Another")
      .option("--is", "RELATION", a.relation, {"lower", "equal", "higher"},
              "Ask: is A lower, equal or higher?")
      .action(does(compare));
}

}  // namespace vrxtool

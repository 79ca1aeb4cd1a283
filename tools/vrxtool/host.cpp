// vrxtool host: what the library knows of the machine.

#include "tools/vrxtool/command_line.h"
#include "tools/vrxtool/failure.h"
#include "tools/vrxtool/json.h"
#include "tools/vrxtool/text.h"
#include "tools/vrxtool/tool.h"

#include <vrxutil/system.h>
#include <vrxutil/text.h>
#include <zulral/zulral.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <optional>
#include <string>

#include <unistd.h>

namespace vrxtool {

namespace {

/// Nothing where the host does not tell.
std::optional<std::string> model() {
  std::size_t size = 0;
  if (::sysctlbyname("hw.model", nullptr, &size, nullptr, 0) != 0) return std::nullopt;
  std::string text(size, '\0');
  if (::sysctlbyname("hw.model", text.data(), &size, nullptr, 0) != 0) return std::nullopt;
  return text.c_str();  // without the NUL
}

std::string shortName() {
  std::array<char, 256> text{};
  if (::gethostname(text.data(), text.size() - 1) != 0) throw cannot("get", "the name", errno);
  std::wstring name = AString(text.data()).const_cpp_str();
  convertFqdnToNetbios(name);
  return utf8(name);
}

struct Arguments {
  bool json = false;
};

int show(Tool& tool, Arguments const& arguments) {
  std::optional<std::string> const kind = model();
  bool isPortable = false;
  CEnclosureType::iIsAPortableComputer(isPortable);
  if (arguments.json) {
    Json host{{"model", nullptr}, {"portable", isPortable}, {"name", shortName()}};
    if (kind) host["model"] = *kind;
    writeJson(tool.output, host);
    return yes;
  }
  tool.output.line("model: " + (kind ? printable(*kind, Backslash::asItIs) : "unknown"));
  tool.output.line(std::string("portable: ") + (isPortable ? "yes" : "no"));
  tool.output.line("name: " + printable(shortName(), Backslash::asItIs));
  return yes;
}

constexpr CommandText kHost{"host", "Show the host's model, whether it is portable, its short name",
                            "The model is that of the firmware, where it tells.",
                            "vrxtool host --json"};

}  // namespace

void addHostCommand(CommandLine& line, Tool& tool) {
  Actions<Arguments> const does(tool);
  line.command(kHost).flag("--json", does.arguments().json, "An object").action(does(show));
}

}  // namespace vrxtool

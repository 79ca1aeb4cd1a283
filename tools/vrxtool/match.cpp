// vrxtool match: a filter of lines.

#include "tools/vrxtool/command_line.h"
#include "tools/vrxtool/failure.h"
#include "tools/vrxtool/input.h"
#include "tools/vrxtool/tool.h"

#include <vrxutil/system.h>

#include <array>
#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace vrxtool {

namespace {

struct Arguments {
  std::string pattern;
  std::optional<std::string> file;
};

/// Writes the lines that match.
class Filter {
public:
  Filter(Output& output, std::string const& pattern, std::string const& title)
      : output_(output), pattern_(pattern), title_(title) {}

  /// The next part of the text, which may end within a line.
  void add(std::string_view text) {
    while (true) {
      std::size_t const end = text.find('\n');
      line_ += text.substr(0, end);
      if (line_.size() > kMostBytes) throw cannot("read", title_, EFBIG);
      if (end == std::string_view::npos) return;
      finishLine();
      text.remove_prefix(end + 1);
    }
  }

  /// At the end of the text; whether any line has matched.
  bool finish() {
    if (!line_.empty()) finishLine();
    return anyMatches_;
  }

private:
  void finishLine() {
    if (MatchWildcard(pattern_, line_)) {
      output_.line(line_);
      anyMatches_ = true;
    }
    line_.clear();
  }

  Output& output_;
  std::string const& pattern_;
  std::string const& title_;
  std::string line_;
  bool anyMatches_ = false;
};

int match(Tool& tool, Arguments const& arguments) {
  Input input(arguments.file.value_or("-"));
  Filter filter(tool.output, arguments.pattern, input.title());
  auto const block = std::make_unique<std::array<char, 65536>>();
  while (std::size_t const size = input.read(block->data(), block->size())) {
    filter.add({block->data(), size});
    tool.output.flush();  // more may be long in coming
  }
  return filter.finish() ? yes : no;
}

constexpr CommandText kMatch{
    "match", "Show the lines that match a pattern",
    "In PATTERN * stands for any run of characters; all others stand for themselves,\n"
    "without regard to the case of ASCII letters. A line matches as a whole. A * at the\n"
    "end of the pattern stands for one character at least: abc* does not match abc.\n"
    "The exit status is 0 where a line has matched.",
    "ls | vrxtool match 'agent*.xml'"};

}  // namespace

void addMatchCommand(CommandLine& line, Tool& tool) {
  Actions<Arguments> const does(tool);
  Arguments& a = does.arguments();
  line.command(kMatch)
      .argument("PATTERN", a.pattern, "The pattern")
      .optionalArgument("FILE", a.file, "What is read; without it, standard input")
      .action(does(match));
}

}  // namespace vrxtool

// The command line: families of commands, what each takes, and what it does. From the
// same description come `--help`, the man page and the completion of bash.

#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace vrxtool {

/// What is said of a command.
struct CommandText {
  char const* name;
  char const* summary;  // a line without a full stop
  char const* details;  // paragraphs, in lines of at most 78 characters
  char const* example;  // command lines
};

/// What a command does; the result is the exit status.
using Action = std::function<int()>;

/// A command that is being described. Variables must live until it has run. An option
/// that is not given leaves its variable alone.
class Command {
public:
  Command(CLI::App& app, Action& chosen) : app_(app), chosen_(chosen) {}

  Command& argument(char const* name, std::string& value, char const* text);
  Command& optionalArgument(char const* name, std::optional<std::string>& value, char const* text);
  Command& flag(char const* names, bool& value, char const* text);
  Command& option(char const* names, char const* valueName, std::optional<std::string>& value,
                  char const* text);
  Command& option(char const* names, char const* valueName, std::optional<double>& value,
                  double least, double greatest, char const* text);
  Command& option(char const* names, char const* valueName, unsigned long& value,
                  unsigned long least, unsigned long greatest, char const* text);
  Command& option(char const* names, char const* valueName, std::string& value,
                  std::vector<std::string> const& choices, char const* text);

  Command& requiredOption(char const* names, char const* valueName, std::string& value,
                          char const* text);

  /// Shows as "-- TEXT" where the usage is told; main() cuts it off before.
  Command& rest(char const* text);

  void action(Action action);

private:
  CLI::App& app_;
  Action& chosen_;
};

/// Commands under one name.
class Family {
public:
  Family(CLI::App& app, Action& chosen) : app_(app), chosen_(chosen) {}

  Command command(CommandText const& text);

private:
  CLI::App& app_;
  Action& chosen_;
};

/// All that the tool understands.
class CommandLine {
public:
  CommandLine();
  ~CommandLine();
  CommandLine(CommandLine const&) = delete;
  CommandLine& operator=(CommandLine const&) = delete;

  Family family(char const* name, char const* summary);

  /// A family of one command that has no name of its own.
  Command command(CommandText const& text);

  using Show = std::function<void(std::string_view)>;

  /// Adds the commands, which help does not tell of, that show the man page and the
  /// completion of bash. They, help and version are shown through `show`.
  void addOwnDocumentation(Show show);

  /// What the arguments, without the program's name, ask for. Throws Failure for wrong
  /// use.
  Action parse(std::vector<std::string> arguments);

  /// Whether `--trace` was given.
  bool tracing() const { return tracing_; }

private:
  Action showing(std::function<std::string()> text) const;
  void addHidden(char const* name, std::function<std::string()> text);

  std::unique_ptr<CLI::App> app_;
  Action chosen_;
  Show show_;
  bool tracing_ = false;
};

}  // namespace vrxtool

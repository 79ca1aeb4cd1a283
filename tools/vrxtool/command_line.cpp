#include "tools/vrxtool/command_line.h"

#include "tools/vrxtool/documentation.h"
#include "tools/vrxtool/failure.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <sstream>
#include <string>
#include <utility>

namespace vrxtool {

namespace {

constexpr char kSummary[] = "See and mend what the agent keeps: XML and INI files, locks, records";

/// What help calls them.
constexpr char kCommands[] = "Commands";

constexpr char kGeneral[] =
    "A FILE that is - stands for standard input, or standard output where it is\n"
    "written. A value that begins with - comes after a --. Arguments, names of files\n"
    "and output are UTF-8, whatever the locale says.\n"
    "\n"
    "Exit status:\n"
    "  0  yes, done\n"
    "  1  no, not found\n"
    "  2  wrong use, or a failure: a line on standard error says why\n"
    "\n"
    "lock read and lock write end with the exit status of the command that they run.\n"
    "Where the reader of standard output goes before the end, as head does, SIGPIPE\n"
    "ends the tool without a word, as it ends other filters.\n"
    "\n"
    "Environment:\n"
    "  VRX_DATA_DIR  the folder with the agent's data, its keys among them\n"
    "  TMPDIR        where temporary files are made\n"
    "\n"
    "Files:\n"
    "  /var/lib/vornix/oxa/           the agent's data, where VRX_DATA_DIR is not set\n"
    "  ~/.local/state/vornix/oxa/     the same for users other than root\n"
    "  /Library/Vornix/oxa/scratch/   the locks' key files\n"
    "\n"
    "vrxtool man shows the man page, vrxtool bash-completion what completes commands.\n";

std::string footerOf(CommandText const& text) {
  std::string footer = text.details;
  if (!footer.empty()) footer += "\n\n";
  footer += "Example:\n";
  std::istringstream lines(text.example);
  for (std::string line; std::getline(lines, line);) footer += "  " + line + "\n";
  footer.pop_back();
  return footer;
}

/// CLI11 would only say that a command is missing.
void refuseUnknownCommand(CLI::App const* app, std::vector<std::string> const& arguments) {
  for (std::string const& word : arguments) {
    if (app->get_require_subcommand_min() == 0) return;
    if (word.starts_with('-')) continue;
    std::vector<CLI::App const*> const named =
        app->get_subcommands([&](CLI::App const* command) { return command->get_name() == word; });
    if (named.empty()) throw Failure("no command " + word + "; try --help");
    app = named.front();
  }
}

/// CLI11 would say that what should have been there in its place is missing.
void refuseUnknownOption(CLI::App const& app) {
  for (std::string const& word : app.remaining(/*recurse=*/true)) {
    if (!word.starts_with('-')) continue;
    throw Failure("no option " + word + "; a value that begins with - comes after a --");
  }
}

void describe(CLI::Option* option, char const* valueName) { option->option_text(valueName); }

/// The value of an option that may be missing, as CLI11 converts it.
template <class T>
CLI::Option* addOptional(CLI::App& app, char const* names, std::optional<T>& value,
                         char const* text) {
  return app.add_option_function<T>(
      names, [&value](T const& given) { value = given; }, text);
}

}  // namespace

Command& Command::argument(char const* name, std::string& value, char const* text) {
  app_.add_option(name, value, text)->required();
  return *this;
}

Command& Command::optionalArgument(char const* name, std::optional<std::string>& value,
                                   char const* text) {
  addOptional(app_, name, value, text);
  return *this;
}

Command& Command::flag(char const* names, bool& value, char const* text) {
  app_.add_flag(names, value, text)->disable_flag_override();
  return *this;
}

Command& Command::option(char const* names, char const* valueName,
                         std::optional<std::string>& value, char const* text) {
  describe(addOptional(app_, names, value, text), valueName);
  return *this;
}

Command& Command::option(char const* names, char const* valueName, std::optional<double>& value,
                         double least, double greatest, char const* text) {
  // "nan" is a number to CLI11, and in every range.
  auto const refuseNan = [](std::string const& given) {
    return given.find_first_of("nN") == std::string::npos ? "" : given + " is no number";
  };
  describe(
      addOptional(app_, names, value, text)->check(refuseNan)->check(CLI::Range(least, greatest)),
      valueName);
  return *this;
}

Command& Command::option(char const* names, char const* valueName, unsigned long& value,
                         unsigned long least, unsigned long greatest, char const* text) {
  // -1 is the greatest number to CLI11.
  auto const refuseSign = [](std::string const& given) {
    return given.starts_with('-') ? given + " is less than 0" : "";
  };
  describe(
      app_.add_option(names, value, text)->check(refuseSign)->check(CLI::Range(least, greatest)),
      valueName);
  return *this;
}

Command& Command::option(char const* names, char const* valueName, std::string& value,
                         std::vector<std::string> const& choices, char const* text) {
  describe(app_.add_option(names, value, text)->check(CLI::IsMember(choices)), valueName);
  return *this;
}

Command& Command::requiredOption(char const* names, char const* valueName, std::string& value,
                                 char const* text) {
  describe(app_.add_option(names, value, text)->required(), valueName);
  return *this;
}

Command& Command::rest(char const* text) {
  setRest(app_, text);
  return *this;
}

void Command::action(Action action) {
  app_.callback([&chosen = chosen_, action = std::move(action)] { chosen = action; });
}

Command Family::command(CommandText const& text) {
  CLI::App* const app = app_.add_subcommand(text.name, text.summary)->group(kCommands);
  app->footer(footerOf(text));
  return {*app, chosen_};
}

CommandLine::CommandLine() : app_(std::make_unique<CLI::App>(kSummary, "vrxtool")) {
  app_->formatter(helpFormatter());
  app_->footer(kGeneral);
  app_->require_subcommand(1);
  app_->set_help_flag("-h,--help", "Show this help");
  app_->set_version_flag("--version", "vrxtool " VRXTOOL_VERSION, "Show the version");
  app_->add_flag("--trace", tracing_, "Show all log records on standard error");
  app_->fallthrough();  // --trace may stand after a command
}

CommandLine::~CommandLine() = default;

Family CommandLine::family(char const* name, char const* summary) {
  CLI::App* const app = app_->add_subcommand(name, summary)->group(kCommands);
  app->require_subcommand(1);
  app->footer("");  // else the general text, once more
  return {*app, chosen_};
}

Command CommandLine::command(CommandText const& text) {
  return Family(*app_, chosen_).command(text);
}

Action CommandLine::showing(std::function<std::string()> text) const {
  return [this, text = std::move(text)] {
    show_(text());
    return yes;
  };
}

void CommandLine::addHidden(char const* name, std::function<std::string()> text) {
  CLI::App* const app = app_->add_subcommand(name, "")->group("");
  app->callback([this, text = std::move(text)] { chosen_ = showing(text); });
}

void CommandLine::addOwnDocumentation(Show show) {
  show_ = std::move(show);
  addHidden("man", [this] { return manPage(*app_); });
  addHidden("bash-completion", [this] { return bashCompletion(*app_); });
}

Action CommandLine::parse(std::vector<std::string> arguments) {
  refuseUnknownCommand(app_.get(), arguments);
  std::reverse(arguments.begin(), arguments.end());  // as CLI11 takes them
  try {
    app_->parse(std::move(arguments));
  } catch (CLI::CallForHelp const&) {
    return showing([this] { return app_->help(); });
  } catch (CLI::CallForVersion const&) {
    return showing([this] { return app_->version() + "\n"; });
  } catch (CLI::ParseError const& error) {
    refuseUnknownOption(*app_);
    std::string const text = error.what();
    bool const isCommand = text == "A subcommand is required";
    throw Failure((isCommand ? "a command is missing" : text) + "; try --help");
  }
  return chosen_;
}

}  // namespace vrxtool

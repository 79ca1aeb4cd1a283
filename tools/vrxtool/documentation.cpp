#include "tools/vrxtool/documentation.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cctype>
#include <sstream>
#include <string_view>
#include <utility>
#include <vector>

namespace vrxtool {

namespace {

/// CLI11's, without what it says of types.
class HelpFormatter : public CLI::Formatter {
public:
  explicit HelpFormatter(std::string rest = "") : rest_(std::move(rest)) {
    constexpr std::size_t kColumn = 28;
    label("Positionals", "Arguments");
    label("SUBCOMMAND", "COMMAND");
    column_width(kColumn);
  }

  std::string make_usage(CLI::App const* app, std::string name) const override {
    std::string usage = "\n" + CLI::Formatter::make_usage(app, std::move(name));
    if (!rest_.empty()) usage.insert(usage.size() - 1, " -- " + rest_);
    return usage;
  }

  std::string make_option_opts(CLI::Option const* option) const override {
    std::string text = option->get_option_text();
    return text.empty() ? text : text.insert(0, " ");
  }

private:
  std::string rest_;
};

using Apps = std::vector<CLI::App const*>;

/// Hidden commands have no group.
Apps commandsOf(CLI::App const& app) {
  return app.get_subcommands([](CLI::App const* command) { return !command->get_group().empty(); });
}

std::vector<CLI::Option const*> optionsOf(CLI::App const& app) {
  std::vector<CLI::Option const*> const options = app.get_options();
  std::vector<CLI::Option const*> found(options.size());
  auto const end = std::copy_if(options.begin(), options.end(), found.begin(),
                                [](CLI::Option const* option) { return option->nonpositional(); });
  found.erase(end, found.end());
  return found;
}

std::vector<std::string> linesOf(std::string const& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// ---- the man page

std::string roff(std::string_view text) {
  std::string escaped = text.starts_with('.') || text.starts_with('\'') ? "\\&" : "";
  for (char const character : text) {
    if (character == '\\') {
      escaped += "\\e";
    } else if (character == '-') {
      escaped += "\\-";
    } else {
      escaped += character;
    }
  }
  return escaped;
}

std::string upper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}

/// Text as help has it: paragraphs, and blocks that are indented below a line "HEADING:".
class RoffText {
public:
  /// `heading` is the macro of headings.
  explicit RoffText(std::string heading) : heading_(std::move(heading)) {}

  std::string convert(std::string const& text) {
    for (std::string const& line : linesOf(text)) add(line);
    endBlock();
    return roff_;
  }

private:
  void add(std::string const& line) {
    bool const isBlock = line.starts_with("  ");
    if (!isBlock) endBlock();
    if (isBlock) {
      if (!inBlock_) roff_ += ".nf\n";
      inBlock_ = true;
      roff_ += roff(line.substr(2)) + "\n";
    } else if (line.empty()) {
      atParagraph_ = true;
    } else if (line.ends_with(':') && std::isupper(static_cast<unsigned char>(line.front()))) {
      std::string const title = line.substr(0, line.size() - 1);
      roff_ += heading_ + " " + roff(heading_ == ".SH" ? upper(title) : title) + "\n";
      atParagraph_ = false;
    } else {
      if (std::exchange(atParagraph_, false)) roff_ += ".PP\n";
      roff_ += roff(line) + "\n";
    }
  }

  void endBlock() {
    if (inBlock_) roff_ += ".fi\n";
    inBlock_ = false;
  }

  std::string heading_;
  std::string roff_;
  bool inBlock_ = false;
  bool atParagraph_ = false;
};

/// "NAME ARGUMENTS" as the usage says it.
std::string usageOf(CLI::App const& app, std::string const& name) {
  std::string usage = app.get_formatter()->make_help(&app, name, CLI::AppFormatMode::Normal);
  constexpr std::string_view kStart = "Usage: ";
  usage.erase(0, usage.find(kStart) + kStart.size());
  return usage.substr(0, usage.find('\n'));
}

std::string manEntry(std::string const& term, std::string const& text) {
  return ".TP\n.B " + roff(term) + "\n" + roff(text) + "\n";
}

std::string manOptions(CLI::App const& app) {
  std::string text;
  for (CLI::Option const* const option : app.get_options()) {
    if (option->get_lnames() == std::vector<std::string>{"help"} && app.get_parent() != nullptr) {
      continue;  // is told once
    }
    std::string name = option->get_name(option->get_positional(), true);
    if (!option->get_option_text().empty()) name.append(" ").append(option->get_option_text());
    text += manEntry(name, option->get_description());
  }
  return text;
}

// NOLINTNEXTLINE(misc-no-recursion): two levels, family and command
std::string manCommand(CLI::App const& app, std::string const& name) {
  Apps const commands = commandsOf(app);
  std::string page;
  if (commands.empty()) {
    page = ".SS " + roff(usageOf(app, name)) + "\n" + roff(app.get_description()) + ".\n";
    page += manOptions(app) + ".PP\n" + RoffText(".PP\n.B").convert(app.get_footer());
  }
  for (CLI::App const* const command : commands) {
    page += manCommand(*command, name + " " + command->get_name());
  }
  return page;
}

// ---- the completion

/// The words that may follow those that lead to `app`.
std::string wordsAfter(CLI::App const& app) {
  std::string words;
  for (CLI::App const* const command : commandsOf(app)) words += command->get_name() + " ";
  for (CLI::Option const* const option : optionsOf(app)) {
    for (std::string const& name : option->get_lnames()) words += "--" + name + " ";
    for (std::string const& name : option->get_snames()) words += "-" + name + " ";
  }
  if (app.get_parent() != nullptr) words += "--trace ";
  words.pop_back();
  return words;
}

// NOLINTNEXTLINE(misc-no-recursion): two levels, family and command
void addCases(CLI::App const& app, std::string const& path, std::string& cases) {
  cases += "    '" + path + "') words='" + wordsAfter(app) + "' ;;\n";
  for (CLI::App const* const command : commandsOf(app)) {
    addCases(*command, path + " " + command->get_name(), cases);
  }
}

}  // namespace

std::shared_ptr<CLI::FormatterBase> helpFormatter() { return std::make_shared<HelpFormatter>(); }

void setRest(CLI::App& app, std::string const& text) {
  app.formatter(std::make_shared<HelpFormatter>(text));
}

std::string manPage(CLI::App const& app) {
  std::string const& name = app.get_name();
  std::string page = ".TH " + upper(name) + R"( 1 "" ")" + roff(app.version()) + "\"\n";
  page += ".SH NAME\n" + name + " \\- " + roff(app.get_description()) + "\n";
  page += ".SH SYNOPSIS\n.B " + roff(usageOf(app, name)) + "\n";
  std::string const general = app.get_footer();
  std::size_t const endOfText = general.find("\n\n");
  page += ".SH DESCRIPTION\n" + RoffText(".SH").convert(general.substr(0, endOfText));
  page += ".SH OPTIONS\n" + manOptions(app);
  page += ".SH COMMANDS\n" + manCommand(app, name);
  return page + RoffText(".SH").convert(general.substr(endOfText + 2));
}

// A word before the cursor is a command as long as it leads to one.
std::string bashCompletion(CLI::App const& app) {
  std::string cases;
  addCases(app, app.get_name(), cases);
  return "# Completion of vrxtool for bash.\n"
         "\n"
         "_vrxtool_words() {\n"
         "  case $1 in\n" +
         cases +
         "    *) return 1 ;;\n"
         "  esac\n"
         "}\n"
         "\n"
         "_vrxtool() {\n"
         "  local path=vrxtool words= i word=${COMP_WORDS[COMP_CWORD]}\n"
         "  for ((i = 1; i < COMP_CWORD; ++i)); do\n"
         "    [[ ${COMP_WORDS[i]} == -- ]] && { compopt -o default; COMPREPLY=(); return; }\n"
         "    _vrxtool_words \"$path ${COMP_WORDS[i]}\" && path=\"$path ${COMP_WORDS[i]}\"\n"
         "  done\n"
         "  _vrxtool_words \"$path\"\n"
         "  # Options come last, and where a - asks for them; else names of files complete.\n"
         "  [[ $word == -* ]] || words=\" $words\" words=${words%% -*}\n"
         "  mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$word\")\n"
         "}\n"
         "\n"
         "complete -o default -F _vrxtool vrxtool\n";
}

}  // namespace vrxtool

// How a command line is told about: help, man page, completion.

#pragma once

#include <memory>
#include <string>

namespace CLI {
class App;
class FormatterBase;
}  // namespace CLI

namespace vrxtool {

/// What shows `--help`.
std::shared_ptr<CLI::FormatterBase> helpFormatter();

/// Says what follows a "--" in the usage of a command.
void setRest(CLI::App& app, std::string const& text);

/// The same texts for man(1), in the macros of man(7).
std::string manPage(CLI::App const& app);

/// A script for bash: commands, options, and names of files for the rest.
std::string bashCompletion(CLI::App const& app);

}  // namespace vrxtool

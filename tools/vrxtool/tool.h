// What every command gets, and the list of the families.

#pragma once

#include "tools/vrxtool/output.h"
#include "tools/vrxtool/record_log.h"

#include <memory>
#include <string>
#include <vector>

namespace vrxtool {

class CommandLine;

/// What the process has, for all commands.
struct Tool {
  Output output;
  RecordLog records;

  // What commands that are run get, as the tool itself found it.
  std::vector<std::string> environment;
  std::vector<int> signalsWithDefault;  // of those whose handling the tool changes

  /// What follows the first "--" of `lock read` and `lock write`.
  std::vector<std::string> commandToRun;
};

/// Makes actions of the functions that do a family's commands.
template <class Arguments>
class Actions {
public:
  explicit Actions(Tool& tool) : tool_(&tool), arguments_(std::make_shared<Arguments>()) {}

  /// What the command line is read into. Actions keep it alive.
  Arguments& arguments() const { return *arguments_; }

  auto operator()(int (*command)(Tool&, Arguments const&)) const {
    return [tool = tool_, arguments = arguments_, command] { return command(*tool, *arguments); };
  }

private:
  Tool* tool_;
  std::shared_ptr<Arguments> arguments_;
};

/// Says "changed" or "unchanged": on standard error where standard output, which is written
/// before, has the file.
void tellChange(Tool& tool, std::string const& file, bool isChanged);

// Each describes the commands of a family to `line`; `tool` must outlive that.
void addXmlCommands(CommandLine& line, Tool& tool);
void addIniCommands(CommandLine& line, Tool& tool);
void addLockCommands(CommandLine& line, Tool& tool);
void addBase64Commands(CommandLine& line, Tool& tool);
void addCryptCommands(CommandLine& line, Tool& tool);
void addMatchCommand(CommandLine& line, Tool& tool);
void addVersionCommands(CommandLine& line, Tool& tool);
void addHostCommand(CommandLine& line, Tool& tool);
void addRecordCommands(CommandLine& line, Tool& tool);

}  // namespace vrxtool

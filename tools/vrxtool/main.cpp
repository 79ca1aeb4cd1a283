// vrxtool: the operator's hand on what the library keeps on disk and in the kernel.

#include "tools/vrxtool/command_line.h"
#include "tools/vrxtool/failure.h"
#include "tools/vrxtool/tool.h"

#include <algorithm>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <langinfo.h>
#include <unistd.h>

extern char** environ;

namespace {

using vrxtool::Action;
using vrxtool::complain;
using vrxtool::Tool;

/// A standard stream that is closed would become the next file that is opened. It gets
/// something in its place that fails as it would; a command that is run finds it closed.
void keepStandardStreams() {
  constexpr int kFlags[] = {O_WRONLY, O_RDONLY, O_RDONLY};
  for (int stream = 0; stream < 3; ++stream) {
    if (::fcntl(stream, F_GETFD) != -1) continue;
    // The lowest that is free: this one.
    static_cast<void>(!::open("/dev/null", kFlags[stream] | O_CLOEXEC));
  }
}

/// A write that fails says so itself, and what a command keeps elsewhere is tidied up
/// before the process ends.
void ignoreWriteSignals(Tool& tool) {
  for (int const number : {SIGPIPE, SIGXFSZ}) {
    if (std::signal(number, SIG_IGN) == SIG_DFL) tool.signalsWithDefault.push_back(number);
  }
}

/// The library's names of files are in the encoding of the locale; here that is UTF-8.
void useUtf8() {
  // NOLINTBEGIN(concurrency-mt-unsafe): there is no other thread
  auto const isUtf8 = [] {
    return std::setlocale(LC_ALL, "") != nullptr &&
           std::strcmp(::nl_langinfo(CODESET), "UTF-8") == 0;
  };
  if (isUtf8()) return;
  ::setenv("LC_ALL", "C.UTF-8", /*overwrite=*/1);
  // NOLINTEND(concurrency-mt-unsafe)
  if (!isUtf8()) throw vrxtool::Failure("the host has no locale C.UTF-8");
}

std::vector<std::string> environment() {
  std::vector<std::string> variables;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    variables.emplace_back(*variable);
  }
  return variables;
}

/// Cuts off the command that `lock read` and `lock write` are to run: CLI11 must not look
/// for options in it.
std::vector<std::string> cutCommand(std::vector<std::string>& arguments) {
  auto const nextWord = [&](auto from) {
    return std::find_if(from, arguments.end(),
                        [](std::string_view word) { return !word.starts_with('-'); });
  };
  auto const family = nextWord(arguments.begin());
  if (family == arguments.end() || *family != "lock") return {};
  auto const command = nextWord(family + 1);
  if (command == arguments.end() || (*command != "read" && *command != "write")) return {};
  auto const mark = std::find(command, arguments.end(), "--");
  if (mark == arguments.end()) return {};
  std::vector<std::string> cut(mark + 1, arguments.end());
  arguments.erase(mark, arguments.end());
  return cut;
}

void addFamilies(vrxtool::CommandLine& line, Tool& tool) {
  vrxtool::addXmlCommands(line, tool);
  vrxtool::addIniCommands(line, tool);
  vrxtool::addLockCommands(line, tool);
  vrxtool::addBase64Commands(line, tool);
  vrxtool::addCryptCommands(line, tool);
  vrxtool::addMatchCommand(line, tool);
  vrxtool::addVersionCommands(line, tool);
  vrxtool::addHostCommand(line, tool);
  vrxtool::addRecordCommands(line, tool);
}

int run(Tool& tool, std::vector<std::string> arguments) {
  vrxtool::CommandLine line;
  addFamilies(line, tool);
  line.addOwnDocumentation([&tool](std::string_view text) { tool.output.write(text); });
  tool.commandToRun = cutCommand(arguments);
  Action const action = line.parse(std::move(arguments));
  if (line.tracing()) tool.records.showAll();
  int const status = action();
  tool.output.flush();
  return status;
}

/// Ends the process as any filter ends whose reader has gone: without a word, by SIGPIPE.
/// Returns where whoever started the tool ignores or blocks that.
void endWithReader(Tool const& tool) {
  auto const& numbers = tool.signalsWithDefault;
  if (std::find(numbers.begin(), numbers.end(), SIGPIPE) == numbers.end()) return;
  std::signal(SIGPIPE, SIG_DFL);
  std::raise(SIGPIPE);
}

/// What was there before a failure is not held back; the failure counts.
void flushRest(Tool& tool) {
  try {
    tool.output.flush();
  } catch (std::exception const&) {
    return;
  }
}

int runAndReport(Tool& tool, std::vector<std::string> const& arguments) {
  try {
    return run(tool, arguments);
  } catch (std::bad_alloc const&) {
    complain("not enough memory");
  } catch (vrxtool::ReaderGone const& gone) {
    endWithReader(tool);
    complain(gone.what());
  } catch (std::exception const& exception) {
    flushRest(tool);
    complain(exception.what());
  }
  return vrxtool::failure;
}

}  // namespace

int main(int argumentCount, char** arguments) {
  keepStandardStreams();
  try {
    Tool tool;
    tool.environment = environment();
    useUtf8();
    ignoreWriteSignals(tool);
    return runAndReport(tool, {arguments + std::min(argumentCount, 1), arguments + argumentCount});
  } catch (std::exception const& exception) {
    complain(exception.what());
    return vrxtool::failure;
  }
}

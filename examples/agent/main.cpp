// A sample agent: one pass over the tasks of a configuration file, as a scheduler
// would start it.
//
//   agent CONFIG                 carries out the enabled tasks, keeps what became of
//                                them in the file, and prints a summary
//   agent --make-config CONFIG   writes a configuration to begin with
//   agent --help                 prints these three lines
//
// The log is agent.log in the folder `log` of the agent's data folder; it says
// why something failed. Exit status: 0 when all is well, 1 when a task failed or
// the file could not be written back, 2 when the arguments or the configuration
// were refused and nothing has been done.

#include "examples/agent/configuration.h"
#include "examples/agent/tasks.h"

#include <vrxutil/log.h>
#include <vrxutil/text.h>
#include <vrxutil/xml.h>

#include <clocale>
#include <cstdio>
#include <ctime>
#include <exception>
#include <string_view>

#include <time.h>
#include <unistd.h>

namespace {

using agent::Configuration;
using agent::Outcome;

enum ExitStatus { allDone = 0, taskFailed = 1, refused = 2 };

constexpr wchar_t kGroup[] = L"Agent";
constexpr wchar_t kUsage[] =
    L"usage: agent CONFIG\n"
    L"       agent --make-config CONFIG\n"
    L"       agent --help";

/// One line for people, in the encoding of the locale.
void print(std::FILE* stream, AString const& line) {
  // Nobody is left to tell when this fails.
  static_cast<void>(std::fprintf(stream, "%s\n", static_cast<char const*>(ACharString(line))));
}

/// The time in UTC, as in 2026-11-21T05:00:00Z.
AString now() {
  std::time_t const seconds = std::time(nullptr);
  std::tm parts{};
  ::gmtime_r(&seconds, &parts);
  char text[sizeof "2026-11-21T05:00:00Z"] = "";
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text;
}

AString valueOr(AnXmlNode const& node, wchar_t const* name, wchar_t const* fallback) {
  AString value(fallback);
  node.tryGetValue(name, &value);
  return value;
}

/// One row of the summary.
AString row(AString type, AString path, AString before, AString after, AString const& result) {
  AStringList cells(L" ", /*afterEach=*/false);
  cells << L" " << type.format(L"-", 9, -1) << path.format(L"-", 14, -1);
  cells << before.format(L"-", 9, -1) << after.format(L"-", 9, -1) << result;
  return {cells};
}

/// Carries out the enabled tasks and notes in each what became of it.
class Pass {
public:
  explicit Pass(Configuration& configuration)
      : root_(configuration.root()), folder_(configuration.folder()) {}

  void run() {
    table_ << (AString(L"Last run: ") << valueOr(root_, L"last-run", L"never"));
    table_ << row(L"task", L"file", L"before", L"now", L"result");
    AnXmlChildIndex tasks(&root_, L"task");
    while (tasks.moveNext(nullptr, nullptr)) runOne(tasks);
    root_.setValue(L"last-run", now());
  }

  /// A row for each task, and the totals.
  AString summary() const {
    AString text(table_);
    text << done_ << L" done, " << failed_ << L" failed, " << disabled_ << L" disabled";
    return text;
  }

  bool anyFailed() const { return failed_ > 0; }

private:
  void runOne(AnXmlNode& task) {
    AString const before = valueOr(task, L"status", L"-");
    AString result;
    if (task.hasValue(/*required=*/false, L"enabled", L"true")) {
      Outcome const outcome = agent::runTask(task, folder_);
      ++(outcome.succeeded ? done_ : failed_);
      task.setValue(L"status", outcome.succeeded ? L"done" : L"failed");
      task.setValue(L"result", outcome.text);
      result = outcome.text;
    } else {
      ++disabled_;
      task.setValue(L"status", L"disabled");
    }
    table_ << row(valueOr(task, L"type", L"?"), valueOr(task, L"path", L"?"), before,
                  valueOr(task, L"status", L"?"), result);
  }

  AnXmlNode root_;
  AString folder_;
  AStringList table_{L"\n", /*afterEach=*/true};
  long done_ = 0;
  long failed_ = 0;
  long disabled_ = 0;
};

ExitStatus runAgent(AString const& fileName) {
  Configuration configuration;
  if (!configuration.load(fileName)) {
    print(stderr, AString(L"agent: configuration refused: ") << fileName << L" (see the log)");
    return refused;
  }
  Pass pass(configuration);
  pass.run();
  bool const saved = configuration.save();
  print(stdout, pass.summary());
  if (!saved) print(stderr, AString(L"agent: cannot write ") << fileName << L" (see the log)");
  return saved && !pass.anyFailed() ? allDone : taskFailed;
}

ExitStatus makeConfiguration(AString const& fileName) {
  if (::access(ACharString(fileName), F_OK) == 0) {
    print(stderr, AString(L"agent: exists already: ") << fileName);
    return refused;
  }
  if (agent::writeStarterConfiguration(fileName)) return allDone;
  print(stderr, AString(L"agent: cannot write ") << fileName << L" (see the log)");
  return refused;
}

int run(int argumentCount, char** arguments) {
  ADetailTrace const trace(kGroup, L"run");
  std::string_view const first = argumentCount > 1 ? arguments[1] : "";
  if (argumentCount == 3 && first == "--make-config") {
    return makeConfiguration(AString(arguments[2]));
  }
  if (argumentCount == 2 && first == "--help") {
    print(stdout, kUsage);
    return allDone;
  }
  if (argumentCount == 2 && !first.empty() && first[0] != '-') {
    return runAgent(AString(arguments[1]));
  }
  print(stderr, kUsage);
  return refused;
}

}  // namespace

int main(int argc, char** argv) {
  // Text on the command line, and in the names of files, is in the encoding of
  // the user's locale.
  // NOLINTNEXTLINE(concurrency-mt-unsafe): there is no other thread yet
  std::setlocale(LC_ALL, "");
  try {
    return runMainWithLogging(run, argc, argv, L"agent", nullptr, /*alreadyAttached=*/false);
  } catch (std::exception const& exception) {
    static_cast<void>(std::fprintf(stderr, "agent: %s\n", exception.what()));
    return taskFailed;
  }
}

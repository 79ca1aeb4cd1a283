// A sample agent: one pass over the tasks of a configuration file, as a scheduler
// would start it.
//
//   agent CONFIG                 carries out the enabled tasks, keeps what became of
//                                them in the file, and prints a summary
//   agent --make-config CONFIG   writes a configuration to begin with
//   agent --results              prints the results of the last run, from their binary
//                                record (results.h), and that record as Base64
//   agent --help                 prints these lines
//
// Then it lists the files of its work folder (work_folder.h), as its settings say
// (settings.h). What it prints is in the language of the locale (messages.h).
//
// The log is agent.log in the folder `log` of the agent's data folder; it says
// why something failed. Exit status: 0 when all is well, 1 when a task or the list
// failed or a file could not be written back, 2 when the arguments, the
// configuration or the settings were refused and nothing has been done.

#include "examples/agent/configuration.h"
#include "examples/agent/messages.h"
#include "examples/agent/results.h"
#include "examples/agent/settings.h"
#include "examples/agent/tasks.h"
#include "examples/agent/work_folder.h"

#include <vrxutil/binary.h>
#include <vrxutil/log.h>
#include <vrxutil/text.h>
#include <vrxutil/xml.h>

#include <clocale>
#include <cstdio>
#include <ctime>
#include <exception>
#include <string_view>
#include <utility>

#include <time.h>
#include <unistd.h>

namespace {

using agent::Configuration;
using agent::Message;
using agent::Outcome;
using agent::Results;
using agent::Settings;
using agent::TaskResult;

enum ExitStatus { allDone = 0, taskFailed = 1, refused = 2 };

constexpr wchar_t kGroup[] = L"Agent";

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

/// One row of results.
AString resultRow(AString type, AString path, AString status, AString const& result) {
  AStringList cells(L" ", /*afterEach=*/false);
  cells << L" " << type.format(L"-", 9, -1) << path.format(L"-", 14, -1);
  cells << status.format(L"-", 9, -1) << result;
  return {cells};
}

/// What people read for the status that a task has in the configuration.
AString statusText(AString const& status) {
  constexpr std::pair<wchar_t const*, Message> kTexts[] = {
      {L"done", Message::statusDone},
      {L"failed", Message::statusFailed},
      {L"disabled", Message::statusDisabled},
  };
  for (auto const& [name, message] : kTexts) {
    if (status.const_cpp_str() == name) return agent::text(message);
  }
  return status;
}

/// The status as it stands in the configuration.
wchar_t const* statusName(TaskResult::Status status) {
  switch (status) {
    case TaskResult::Status::done:
      return L"done";
    case TaskResult::Status::failed:
      return L"failed";
    case TaskResult::Status::disabled:
      break;
  }
  return L"disabled";
}

/// Carries out the enabled tasks and notes in each what became of it.
class Pass {
public:
  explicit Pass(Configuration& configuration)
      : root_(configuration.root()), folder_(configuration.folder()) {}

  void run() {
    table_ << (agent::text(Message::lastRun)
               << valueOr(root_, L"last-run", agent::text(Message::never)));
    table_ << row(agent::text(Message::taskColumn), agent::text(Message::fileColumn),
                  agent::text(Message::beforeColumn), agent::text(Message::nowColumn),
                  agent::text(Message::resultColumn));
    AnXmlChildIndex tasks(&root_, L"task");
    while (tasks.moveNext(nullptr, nullptr)) runOne(tasks);
    results_.time = now();
    root_.setValue(L"last-run", results_.time);
  }

  Results const& results() const { return results_; }

  /// A row for each task, and the totals.
  AString summary() const {
    return AString(table_) << (agent::text(Message::totals) << done_ << failed_ << disabled_);
  }

  bool anyFailed() const { return failed_ > 0; }

private:
  void runOne(AnXmlNode& task) {
    AString const before = valueOr(task, L"status", L"-");
    TaskResult result{.status = TaskResult::Status::disabled,
                      .type = valueOr(task, L"type", L"?"),
                      .path = valueOr(task, L"path", L"?"),
                      .text{}};
    if (task.hasValue(/*required=*/false, L"enabled", L"true")) {
      Outcome const outcome = agent::runTask(task, folder_);
      ++(outcome.succeeded ? done_ : failed_);
      result.status = outcome.succeeded ? TaskResult::Status::done : TaskResult::Status::failed;
      result.text = outcome.text;
      task.setValue(L"result", outcome.text);
    } else {
      ++disabled_;
    }
    task.setValue(L"status", statusName(result.status));
    table_ << row(result.type, result.path, statusText(before),
                  statusText(statusName(result.status)), result.text);
    results_.tasks.push_back(result);
  }

  AnXmlNode root_;
  AString folder_;
  AStringList table_{L"\n", /*afterEach=*/true};
  Results results_;
  int done_ = 0;
  int failed_ = 0;
  int disabled_ = 0;
};

/// Tells about a file, and gives the status.
ExitStatus complain(Message message, AString const& fileName, ExitStatus status) {
  print(stderr, agent::text(message) << fileName);
  return status;
}

/// A line about the work folder, if there is one; false when something failed.
bool runWorkFolder(Settings& settings) {
  AString summary;
  bool const listed = agent::listWorkFolder(settings, &summary);
  if (summary.size() > 0) print(stdout, summary);
  if (!listed) print(stderr, agent::text(Message::workFolderFailed));
  return listed;
}

ExitStatus runAgent(AString const& fileName) {
  Configuration configuration;
  Settings settings;
  if (!configuration.load(fileName)) {
    return complain(Message::configurationRefused, fileName, refused);
  }
  if (!settings.load()) return complain(Message::settingsRefused, settings.fileName(), refused);

  Pass pass(configuration);
  pass.run();
  ExitStatus status = pass.anyFailed() ? taskFailed : allDone;
  bool const saved = configuration.save();
  print(stdout, pass.summary());
  if (!saved) status = complain(Message::cannotWrite, fileName, taskFailed);
  if (!agent::saveResults(pass.results())) {
    status = complain(Message::cannotWrite, agent::resultsFileName(), taskFailed);
  }
  if (!runWorkFolder(settings)) status = taskFailed;
  if (!settings.save()) status = complain(Message::cannotWrite, settings.fileName(), taskFailed);
  return status;
}

ExitStatus makeConfiguration(AString const& fileName) {
  if (::access(ACharString(fileName), F_OK) == 0) {
    return complain(Message::existsAlready, fileName, refused);
  }
  if (agent::writeStarterConfiguration(fileName)) return allDone;
  return complain(Message::cannotWrite, fileName, refused);
}

ExitStatus showResults() {
  Results results;
  AnObjectBuffer<unsigned char> bytes(0, nullptr);
  if (!agent::loadResults(&results, &bytes)) {
    return complain(Message::resultsRefused, agent::resultsFileName(), refused);
  }
  print(stdout, agent::text(Message::resultsOf) << results.time);
  for (TaskResult const& task : results.tasks) {
    print(stdout, resultRow(task.type, task.path, statusText(statusName(task.status)), task.text));
  }
  print(stdout, agent::text(Message::base64) << ABase64Encode::encode(bytes));
  return allDone;
}

int run(int argumentCount, char** arguments) {
  ADetailTrace const trace(kGroup, L"run");
  agent::openMessages();
  std::string_view const first = argumentCount > 1 ? arguments[1] : "";
  if (argumentCount == 3 && first == "--make-config") {
    return makeConfiguration(AString(arguments[2]));
  }
  if (argumentCount == 2 && first == "--results") return showResults();
  if (argumentCount == 2 && first == "--help") {
    print(stdout, agent::text(Message::usage));
    return allDone;
  }
  if (argumentCount == 2 && !first.empty() && first[0] != '-') {
    return runAgent(AString(arguments[1]));
  }
  print(stderr, agent::text(Message::usage));
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

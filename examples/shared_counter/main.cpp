// A counter in a file, which several processes share by a named lock.
//
//   shared_counter FILE UPDATES WRITERS READERS
//       starts writers, each of which adds 1 to the number in the file UPDATES times, and
//       readers, each of which reads it as often meanwhile; tells what came of it
//   shared_counter --kill FILE UPDATES WRITERS READERS
//       the same, and the first writer is killed in the middle of an update, while it
//       holds the lock: the others go on, and its half-made update does not count
//
// Locks between processes are for root; their folder must exist. Exit status: 0 when the
// file says what it should, 1 when it does not or a process failed, 2 when nothing has been
// done. Standard error has the log.

#include "examples/shared_counter/count_file.h"

#include <vrxutil/file.h>
#include <vrxutil/lock.h>
#include <vrxutil/log.h>
#include <vrxutil/text.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <exception>
#include <functional>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace {

using shared_counter::commitCount;
using shared_counter::prepareCount;
using shared_counter::readCount;
using vornix_com::oxa::lock::InterProcessReadLock;
using vornix_com::oxa::lock::InterProcessWriteLock;

enum ExitStatus { allRight = 0, wrong = 1, refused = 2 };

constexpr wchar_t kGroup[] = L"Counter";
constexpr char kLockName[] = "shared_counter";
constexpr wchar_t kLockFolder[] = L"/Library/Vornix/oxa/scratch/";
constexpr unsigned kIgnored = 0;  // the locks wait as long as it takes

constexpr char kUsage[] =
    "usage: shared_counter FILE UPDATES WRITERS READERS\n"
    "       shared_counter --kill FILE UPDATES WRITERS READERS\n";

struct Task {
  AString fileName;
  long updates = 0;
  int writers = 0;
  int readers = 0;
  bool kills = false;
};

/// Counts the completed updates of all processes, those of a killed one too.
class Tally {
public:
  Tally() : isOpen_(::pipe(ends_.data()) == 0) { static_cast<void>(logErrnoIf(kGroup, !isOpen_)); }

  ~Tally() {
    if (!isOpen_) return;
    ::close(ends_[0]);
    ::close(ends_[1]);
  }

  Tally(Tally const&) = delete;
  Tally& operator=(Tally const&) = delete;

  bool isOpen() const { return isOpen_; }

  bool addOne() const { return ::write(ends_[1], "+", 1) == 1; }

  /// Waits until all other processes have ended.
  long total() {
    ::close(std::exchange(ends_[1], -1));  // else the pipe had no end
    long sum = 0;
    char part[4096];
    while (true) {
      ssize_t const count = ::read(ends_[0], part, sizeof part);
      if (count < 0 && errno == EINTR) continue;
      if (count <= 0) return sum;
      sum += count;
    }
  }

private:
  std::array<int, 2> ends_{-1, -1};
  bool isOpen_;
};

/// Adds one under `lock`; dies in the middle of it if it is to.
bool addOne(InterProcessWriteLock& lock, AString const& fileName, bool dies) {
  if (!lock.lock(kIgnored)) return false;
  std::optional<long> const count = readCount(fileName);
  bool const isPrepared = count && prepareCount(fileName, *count + 1);
  if (dies) std::raise(SIGKILL);
  bool const isDone = isPrepared && commitCount(fileName);
  return lock.unlock() && isDone;
}

bool writeUpdates(Task const& task, Tally const& tally, bool dies) {
  InterProcessWriteLock lock(kLockName);  // one for all its life: coming and going costs
  for (long i = 0; i < task.updates; ++i) {
    if (!addOne(lock, task.fileName, dies && i == task.updates / 2) || !tally.addOne())
      return false;
  }
  return true;
}

std::optional<long> readUnder(InterProcessReadLock& lock, AString const& fileName) {
  if (!lock.lock(kIgnored)) return std::nullopt;
  std::optional<long> const count = readCount(fileName);
  return lock.unlock() ? count : std::nullopt;
}

/// Whether the count never went back.
bool readUpdates(Task const& task) {
  InterProcessReadLock lock(kLockName);
  long before = 0;
  for (long i = 0; i < task.updates; ++i) {
    std::optional<long> const count = readUnder(lock, task.fileName);
    if (!count || *count < before) return false;
    before = *count;
  }
  return true;
}

/// Starts a process that does `work`; -1, which is logged, where there is no room for it.
pid_t start(std::function<bool()> const& work) {
  pid_t const process = ::fork();
  if (process == 0) ::_exit(work() ? allRight : wrong);
  static_cast<void>(logErrnoIf(kGroup, process < 0));
  return process;
}

std::vector<pid_t> startAll(Task const& task, Tally const& tally) {
  std::vector<pid_t> processes;
  for (int i = 0; i < task.writers; ++i) {
    bool const dies = task.kills && i == 0;
    processes.push_back(start([&, dies] { return writeUpdates(task, tally, dies); }));
  }
  for (int i = 0; i < task.readers; ++i) {
    processes.push_back(start([&] { return readUpdates(task); }));
  }
  return processes;
}

/// Waits for a process; its status as waitpid(2) has it.
int statusOf(pid_t process) {
  int status = -1;
  while (process > 0 && ::waitpid(process, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

int complain(char const* text, char const* detail = "") {
  static_cast<void>(std::fprintf(stderr, "shared_counter: %s%s\n", text, detail));
  return refused;
}

struct Outcome {
  long killed = 0;
  long failed = 0;
};

Outcome outcomeOf(std::vector<pid_t> const& processes) {
  Outcome outcome;
  for (pid_t const process : processes) {
    int const status = statusOf(process);
    bool const isKilled = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    if (isKilled) ++outcome.killed;
    if (!isKilled && status != 0) ++outcome.failed;
  }
  return outcome;
}

int runTask(Task const& task) {
  InterProcessReadLock lock(kLockName);  // stays, so that the last to go clears up
  std::optional<long> const before = readUnder(lock, task.fileName);
  Tally tally;
  if (!before || !tally.isOpen()) return complain("nothing has been done; the log says why");

  std::vector<pid_t> const processes = startAll(task, tally);
  long const completed = tally.total();
  Outcome const outcome = outcomeOf(processes);
  long const after = readUnder(lock, task.fileName).value_or(-1);

  std::printf("%d writers, %d readers: %ld killed, %ld failed\n", task.writers, task.readers,
              outcome.killed, outcome.failed);
  std::printf("%ld before, %ld updates completed: the file says %ld\n", *before, completed, after);
  return outcome.failed == 0 && after == *before + completed ? allRight : wrong;
}

/// A number from 0 to `most`.
template <class Number>
bool parse(std::string_view text, Number most, Number* number) {
  char const* const end = text.data() + text.size();
  auto const [rest, error] = std::from_chars(text.data(), end, *number);
  return error == std::errc() && rest == end && *number >= 0 && *number <= most;
}

std::optional<Task> taskOf(std::vector<char*> arguments) {
  Task task;
  task.kills = !arguments.empty() && std::string_view(arguments[0]) == "--kill";
  if (task.kills) arguments.erase(arguments.begin());
  if (arguments.size() != 4) return std::nullopt;
  task.fileName = AString(arguments[0]);
  constexpr long kMostUpdates = 1'000'000'000;
  constexpr int kMostProcesses = 1000;
  bool const isUsable = parse(arguments[1], kMostUpdates, &task.updates) &&
                        parse(arguments[2], kMostProcesses, &task.writers) &&
                        parse(arguments[3], kMostProcesses, &task.readers);
  return isUsable ? std::optional(task) : std::nullopt;
}

bool hasLockFolder() {
  bool exists = false;
  return AFiler::getFileAccessibility(kLockFolder, AFiler::readAccess, exists) && exists;
}

int run(int argumentCount, char** arguments) {
  std::optional<Task> const task =
      taskOf(std::vector<char*>(arguments + 1, arguments + argumentCount));
  if (!task) {
    static_cast<void>(std::fputs(kUsage, stderr));
    return refused;
  }
  if (::geteuid() != 0) return complain("only root's processes can share a lock");
  if (!hasLockFolder()) return complain("no lock folder: ", ACharString(kLockFolder));
  return runTask(*task);
}

}  // namespace

int main(int argc, char** argv) {
  // The name of the file is in the encoding of the user's locale.
  // NOLINTNEXTLINE(concurrency-mt-unsafe): there is no other thread yet
  std::setlocale(LC_ALL, "");
  try {
    return runMainWithLogging(run, argc, argv, L"shared_counter", nullptr,
                              /*alreadyAttached=*/true);
  } catch (std::exception const& exception) {
    return complain(exception.what());
  }
}

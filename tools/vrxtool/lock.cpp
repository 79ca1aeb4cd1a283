// vrxtool lock: the locks between processes.

#include "tools/vrxtool/command_line.h"
#include "tools/vrxtool/failure.h"
#include "tools/vrxtool/json.h"
#include "tools/vrxtool/signals.h"
#include "tools/vrxtool/text.h"
#include "tools/vrxtool/tool.h"

#include <vrxutil/lock.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include <pwd.h>
#include <spawn.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vrxtool {

namespace {

using vornix_com::oxa::lock::LockStatus;
using vornix_com::oxa::lock::UnixLock;

struct Arguments {
  std::string name;
  std::optional<std::string> someName;
  bool tryOnly = false;
  std::optional<double> wait;
  unsigned long conflictStatus = no;
  bool json = false;
  bool force = false;
};

// ---- signals

/// The signal that came last and would end the tool; 0 before.
volatile std::sig_atomic_t endingSignal = 0;

/// What is to get that signal, too; 0 for nobody.
volatile std::sig_atomic_t childProcess = 0;

/// Whether the tool waits for a lock.
volatile std::sig_atomic_t isWaiting = 0;

/// Sends SIGALRM after `first`, and then again and again: one signal might come just before
/// the wait that it is to end. Bare system calls, which handlers of signals may do.
void ringAfter(timeval first) {
  itimerval const timer{.it_interval = {.tv_sec = 0, .tv_usec = 10'000}, .it_value = first};
  ::setitimer(ITIMER_REAL, &timer, nullptr);
}

/// Whether the command gets a signal anyway: a terminal sends those of its keys to all that
/// are in its foreground.
bool comesFromKeyboard(int number, siginfo_t const& signal, pid_t process) {
  bool const isKey = number == SIGINT || number == SIGQUIT;
  bool const isSent = signal.si_code == SI_USER || signal.si_code == SI_QUEUE;
  return isKey && !isSent && ::getpgid(process) == ::getpgrp();
}

void handleEnding(int number, siginfo_t* signal, void* /*context*/) {
  int const errorNumber = errno;
  endingSignal = number;
  if (isWaiting != 0) ringAfter({.tv_sec = 0, .tv_usec = 1});
  auto const process = static_cast<pid_t>(childProcess);
  if (process != 0 && !comesFromKeyboard(number, *signal, process)) ::kill(process, number);
  errno = errorNumber;
}

void handleNothing(int /*number*/) {}

/// From now on what would end the tool does not at once: it gives the lock back first, and
/// not before the command, which would go on without it, has ended.
void holdUpEndingSignals(Tool& tool) {
  struct sigaction action {};

  action.sa_sigaction = handleEnding;
  action.sa_flags = SA_SIGINFO;  // without SA_RESTART: waits are to end
  for (int const number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
    struct sigaction before {};

    ::sigaction(number, nullptr, &before);
    if (before.sa_handler == SIG_IGN) continue;
    tool.signalsWithDefault.push_back(number);
    ::sigaction(number, &action, nullptr);
  }
}

/// Ends the tool by the signal that it has held up.
[[noreturn]] void endBySignal() {
  int const number = static_cast<int>(endingSignal);
  std::signal(number, SIG_DFL);
  std::raise(number);
  ::_exit(128 + number);
}

// ---- taking the lock

/// As long as it lives it ends waits: from a point in time on, and once a signal has asked
/// for the end.
class Alarm {
public:
  explicit Alarm(std::optional<double> seconds) {
    sigset_t alarm;
    ::sigemptyset(&alarm);
    ::sigaddset(&alarm, SIGALRM);
    ::pthread_sigmask(SIG_UNBLOCK, &alarm, &maskBefore_);

    struct sigaction action {};

    action.sa_handler = handleNothing;
    ::sigaction(SIGALRM, &action, &actionBefore_);
    isWaiting = 1;
    if (seconds) set(*seconds);
  }

  ~Alarm() {
    isWaiting = 0;  // first: nobody rings any more
    itimerval const none{};
    ::setitimer(ITIMER_REAL, &none, nullptr);
    ::sigaction(SIGALRM, &actionBefore_, nullptr);
    ::pthread_sigmask(SIG_SETMASK, &maskBefore_, nullptr);
  }

  Alarm(Alarm const&) = delete;
  Alarm& operator=(Alarm const&) = delete;

  bool isOver() const { return end_ && Clock::now() >= *end_; }

private:
  using Clock = std::chrono::steady_clock;

  void set(double seconds) {
    std::chrono::duration<double> const time(seconds);
    end_ = Clock::now() + std::chrono::duration_cast<Clock::duration>(time);
    auto const whole = static_cast<time_t>(seconds);
    auto const part = static_cast<suseconds_t>((seconds - static_cast<double>(whole)) * 1e6);
    ringAfter({.tv_sec = whole, .tv_usec = std::max<suseconds_t>(part, 1)});
  }

  std::optional<Clock::time_point> end_;
  sigset_t maskBefore_;

  struct sigaction actionBefore_ {};
};

/// Readers share a lock, a writer has it alone.
enum class Mode { read, write };

/// The library would take a folder for a key file, which then nobody sees as one.
void refuseFolder(std::string const& name) {
  std::error_code error;
  if (!std::filesystem::is_directory(UnixLock::getKeyFolder() + name, error)) return;
  throw Failure("no lock " + name + ": it is the name of a folder");
}

/// A lock that the tool takes part in.
class Lock {
public:
  Lock(Tool& tool, std::string const& name, Mode mode) : name_(name), mode_(mode) {
    refuseFolder(name);
    tool.records.clear();
    try {
      lock_ = std::make_unique<UnixLock>(name);
    } catch (std::exception const&) {
      throw Failure(tool.records.reason("no lock " + name) +
                    "; locks need the rights of root and the folder " + UnixLock::getKeyFolder());
    }
    setId_ = currentSet();
  }

  ~Lock() {
    if (!isHeld_) return;
    static_cast<void>(mode_ == Mode::read ? lock_->readUnlock() : lock_->writeUnlock());
  }

  Lock(Lock const&) = delete;
  Lock& operator=(Lock const&) = delete;

  bool tryTake() {
    return isHeld_ = mode_ == Mode::read ? lock_->tryReadLock() : lock_->tryWriteLock();
  }

  /// Waits for the lock; false when the time is over or a signal asks for the end.
  bool take(Alarm const& alarm) {
    constexpr std::chrono::milliseconds kPause{10};
    while (endingSignal == 0) {
      if (takeOnce()) return true;
      if (alarm.isOver()) return false;
      if (currentSet() != setId_) throw Failure("the lock " + name_ + " was removed meanwhile");
      // The process was stopped for a while, or the kernel has no room: without a pause the
      // second would keep it busy.
      std::this_thread::sleep_for(kPause);
    }
    return false;
  }

private:
  bool takeOnce() {
    constexpr unsigned kNoTimeout = 0;  // which the library does not heed
    return isHeld_ =
               mode_ == Mode::read ? lock_->readLock(kNoTimeout) : lock_->writeLock(kNoTimeout);
  }

  int currentSet() const {
    LockStatus status;
    return UnixLock::getStatus(name_, status) && status.hasSet ? status.semaphoreId : -1;
  }

  std::string name_;
  Mode mode_;
  std::unique_ptr<UnixLock> lock_;
  int setId_ = -1;
  bool isHeld_ = false;
};

// ---- the command

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

/// Starts the command, which gets environment and signals as the tool got them, but for a
/// SIGCHLD that is ignored; not when a signal has asked for the end.
std::optional<pid_t> start(Tool& tool) {
  SignalsBlocked const blocked;  // until it is known whom to hand them to
  if (endingSignal != 0) return std::nullopt;
  sigset_t defaults;
  ::sigemptyset(&defaults);
  for (int const number : tool.signalsWithDefault) ::sigaddset(&defaults, number);
  posix_spawnattr_t attributes;
  ::posix_spawnattr_init(&attributes);
  ::posix_spawnattr_setsigdefault(&attributes, &defaults);
  ::posix_spawnattr_setsigmask(&attributes, &blocked.before());
  ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  pid_t process = -1;
  std::string const& program = tool.commandToRun.front();
  int const error =
      ::posix_spawnp(&process, program.c_str(), nullptr, &attributes,
                     pointersTo(tool.commandToRun).data(), pointersTo(tool.environment).data());
  ::posix_spawnattr_destroy(&attributes);
  if (error != 0) throw cannot("run", program, error);
  childProcess = process;
  return process;
}

/// The status that a shell would give the command; nothing where it was not started.
std::optional<int> run(Tool& tool) {
  std::optional<pid_t> const process = start(tool);
  if (!process) return std::nullopt;
  siginfo_t ended{};
  // Left unburied: until then no other process can have its number, and get its signals.
  while (::waitid(P_PID, static_cast<id_t>(*process), &ended, WEXITED | WNOWAIT) != 0) {
    if (errno != EINTR) throw cannot("wait for", tool.commandToRun.front(), errno);
  }
  childProcess = 0;
  constexpr int kSignalled = 128;
  return ended.si_code == CLD_EXITED ? ended.si_status : kSignalled + ended.si_status;
}

bool takeLock(Lock& lock, Arguments const& arguments) {
  if (arguments.tryOnly) return lock.tryTake();
  Alarm const alarm(arguments.wait);
  return lock.take(alarm);
}

/// Runs the command under the lock; nothing where that cannot be had.
std::optional<int> runUnderLock(Tool& tool, Arguments const& arguments, Mode mode) {
  Lock lock(tool, arguments.name, mode);
  if (!takeLock(lock, arguments)) return std::nullopt;
  return run(tool);
}

template <Mode mode>
int runUnder(Tool& tool, Arguments const& arguments) {
  if (tool.commandToRun.empty()) throw Failure("a command is missing, after a --; try --help");
  if (arguments.tryOnly && arguments.wait) throw Failure("--try and --wait exclude each other");
  holdUpEndingSignals(tool);
  std::signal(SIGCHLD, SIG_DFL);  // ignored, it would let nobody know how the command ended
  if (std::optional<int> const status = runUnderLock(tool, arguments, mode)) return *status;
  if (endingSignal != 0) endBySignal();
  complain("the lock " + arguments.name + " is held by others");
  return static_cast<int>(arguments.conflictStatus);
}

// ---- looking at locks

std::string userName(std::uint32_t id) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the tool has one thread
  passwd const* const user = ::getpwuid(id);
  return user != nullptr ? user->pw_name : std::to_string(id);
}

std::string octal(std::uint32_t mode) {
  std::array<char, 8> text{};
  std::snprintf(text.data(), text.size(), "%04o", mode);
  return text.data();
}

/// The names of all locks that have a key file, in order.
std::vector<std::string> names() {
  namespace fs = std::filesystem;
  fs::path const folder = UnixLock::getKeyFolder();
  std::vector<std::string> found;
  std::error_code error;
  for (fs::recursive_directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    if (entry->is_regular_file(error)) {
      found.push_back(entry->path().lexically_relative(folder).string());
    }
  }
  if (error) throw cannot("read", folder.string(), error.value());
  std::sort(found.begin(), found.end());
  return found;
}

using Row = std::vector<std::string>;

Row rowOf(std::string const& name, LockStatus const& status) {
  Row row{printable(name, Backslash::doubled)};
  if (!status.hasSet) return {row.front(), "-", "-", "-", "-", "-", "-"};
  row.push_back(std::to_string(status.users));
  row.push_back(status.writers != 0 ? "yes" : "no");
  row.push_back(std::to_string(status.references));
  row.push_back(userName(status.owner));
  row.push_back(octal(status.mode));
  row.push_back(std::to_string(status.lastUserProcess) + " " +
                std::to_string(status.lastWriterProcess) + " " +
                std::to_string(status.lastReferenceProcess));
  return row;
}

Json jsonOf(std::string const& name, LockStatus const& status) {
  Json lock{{"name", name}, {"set", nullptr}};
  if (!status.hasSet) return lock;
  lock["set"] = status.semaphoreId;
  lock["users"] = status.users;
  lock["writer"] = status.writers != 0;
  lock["attached"] = status.references;
  lock["owner"] = status.owner;
  lock["mode"] = octal(status.mode);
  lock["lastUserProcess"] = status.lastUserProcess;
  lock["lastWriterProcess"] = status.lastWriterProcess;
  lock["lastAttachedProcess"] = status.lastReferenceProcess;
  lock["lastOperation"] = status.lastOperationTime;
  return lock;
}

/// Columns as wide as they must be.
void writeTable(Output& output, std::vector<Row> const& rows) {
  std::vector<std::size_t> widths(rows.front().size());
  for (Row const& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  for (Row const& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) line.append(widths[i] + 2 - row[i].size(), ' ');
    }
    output.line(line);
  }
}

/// Locks as people or programs read them.
class StatusList {
public:
  explicit StatusList(bool json) : isJson_(json) {}

  void add(std::string const& name, LockStatus const& status) {
    if (isJson_) {
      json_.push_back(jsonOf(name, status));
    } else {
      rows_.push_back(rowOf(name, status));
    }
  }

  void write(Output& output) const {
    if (isJson_) {
      writeJson(output, json_);
    } else {
      writeTable(output, rows_);
    }
  }

private:
  bool isJson_;
  Json json_ = Json::array();
  std::vector<Row> rows_{
      {"NAME", "USERS", "WRITER", "ATTACHED", "OWNER", "MODE", "LAST PROCESSES"}};
};

/// Nothing where there is no such lock (any more). Throws Failure where it cannot be told.
std::optional<LockStatus> statusOf(Tool& tool, std::string const& name) {
  LockStatus status;
  tool.records.clear();
  if (UnixLock::getStatus(name, status)) return status;
  if (!tool.records.errors().empty()) throw Failure(tool.records.reason(""));
  return std::nullopt;
}

int sayNoLock(std::string const& name) { return sayNo("no lock " + name); }

int showOne(Tool& tool, std::string const& name, bool json) {
  std::optional<LockStatus> const status = statusOf(tool, name);
  if (!status) return sayNoLock(name);
  StatusList list(json);
  list.add(name, *status);
  list.write(tool.output);
  return yes;
}

/// One that cannot be looked at does not keep the others from being shown.
int showAll(Tool& tool, bool json) {
  StatusList list(json);
  Answer answer = yes;
  for (std::string const& name : names()) {
    try {
      if (std::optional<LockStatus> const status = statusOf(tool, name)) list.add(name, *status);
    } catch (Failure const& reason) {
      complain(reason.what());
      answer = failure;
    }
  }
  list.write(tool.output);
  return answer;
}

int showStatus(Tool& tool, Arguments const& arguments) {
  if (arguments.someName) return showOne(tool, *arguments.someName, arguments.json);
  return showAll(tool, arguments.json);
}

// ---- removing one

void endLine() { static_cast<void>(!::write(STDERR_FILENO, "\n", 1)); }

/// Whether the user, on standard input, answers with yes.
bool asksUser(std::string const& question) {
  std::string const text = "vrxtool: " + printable(question, Backslash::asItIs) + " [y/N] ";
  static_cast<void>(!::write(STDERR_FILENO, text.data(), text.size()));
  constexpr std::size_t kLongEnough = 4;  // to be none of the three
  std::string answer;
  for (char c = 0; answer.size() < kLongEnough && ::read(STDIN_FILENO, &c, 1) == 1 && c != '\n';) {
    answer += c;
  }
  if (::isatty(STDIN_FILENO) != 1) endLine();
  return answer == "y" || answer == "Y" || answer == "yes";
}

std::string describe(std::string const& name, LockStatus const& status) {
  return "the lock " + name + " is in use (users " + std::to_string(status.users) + ", writer " +
         (status.writers != 0 ? "yes" : "no") + ", attached " + std::to_string(status.references) +
         ")";
}

bool isInUse(LockStatus const& status) {
  return status.users != 0 || status.writers != 0 || status.references != 0;
}

/// Whether the lock still has the set that was `seen`.
bool hasSet(Tool& tool, std::string const& name, LockStatus const& seen) {
  std::optional<LockStatus> const now = statusOf(tool, name);
  return now && now->hasSet && now->semaphoreId == seen.semaphoreId;
}

int clean(Tool& tool, Arguments const& arguments) {
  std::string const& name = arguments.name;
  std::optional<LockStatus> const seen = statusOf(tool, name);
  if (!seen) return sayNoLock(name);
  if (!seen->hasSet) return sayNo("the lock " + name + " has no set, only a key file");
  if (isInUse(*seen) && !arguments.force) {
    if (!asksUser(describe(name, *seen) + "; remove it all the same?")) {
      return sayNo("the lock " + name + " was not removed");
    }
    // The answer may have taken its time.
    if (!hasSet(tool, name, *seen)) {
      return sayNo("the lock " + name + " was not removed: it is gone, or another one by now");
    }
  }
  UnixLock::cleanSemaphore(name);
  if (!hasSet(tool, name, *seen)) return yes;
  throw Failure("cannot remove the lock " + name +
                ": that takes the rights of root, or of the set's owner");
}

constexpr char kRunText[] =
    "The tool keeps the lock as long as COMMAND runs, and returns its exit status, or\n"
    "128 and the number of the signal that ended it. It waits for the lock as long as\n"
    "it takes, where neither --try nor --wait is given. When it cannot have the lock,\n"
    "COMMAND is not run, and the exit status is that of a conflict. Signals that ask\n"
    "for the end are handed to COMMAND; if the tool is killed all the same, the lock is\n"
    "given back while COMMAND goes on.";

constexpr CommandText kRead{"read", "Run a command while sharing a lock with other readers",
                            kRunText, "vrxtool lock read jobs --wait 10 -- cp jobs.xml /backup"};

constexpr CommandText kWrite{"write", "Run a command while having a lock alone", kRunText,
                             "vrxtool lock write jobs --try -- vi jobs.xml"};

constexpr CommandText kStatus{
    "status", "Show a lock, or all of them, without touching them",
    "USERS hold the lock, a WRITER among them; ATTACHED objects are those that may take\n"
    "it. LAST PROCESSES are the ids of those that last operated on users, writer and\n"
    "attached objects; they may have ended. A lock with - has a key file alone. With\n"
    "--json, owner is a user id, lastOperation in seconds since 1970, and set null where\n"
    "there is a key file alone.",
    "vrxtool lock status"};

constexpr CommandText kClean{
    "clean", "Remove a lock's semaphore set and key file",
    "Of a lock in use it is asked first whether that is meant: those who use it then\n"
    "fail. Any answer but y or yes leaves the lock alone, with the exit status 1.",
    "vrxtool lock clean jobs"};

}  // namespace

void addLockCommands(CommandLine& line, Tool& tool) {
  Actions<Arguments> const does(tool);
  Arguments& a = does.arguments();
  Family family = line.family("lock", "Locks between processes");
  auto const addRunning = [&](CommandText const& text, int (*run)(Tool&, Arguments const&)) {
    constexpr double kLongestWait = 1e8;  // three years
    constexpr unsigned long kLastStatus = 255;
    family.command(text)
        .argument("NAME", a.name, "The lock")
        .flag("--try", a.tryOnly, "Do not wait for the lock")
        .option("--wait", "SECONDS", a.wait, 0, kLongestWait, "Wait for so long, as in 2.5")
        .option("--conflict-exit-code", "N", a.conflictStatus, 0, kLastStatus,
                "The exit status of a conflict, else 1")
        .rest("COMMAND ...")
        .action(does(run));
  };
  addRunning(kRead, runUnder<Mode::read>);
  addRunning(kWrite, runUnder<Mode::write>);
  family.command(kStatus)
      .optionalArgument("NAME", a.someName, "The lock; without it, all locks")
      .flag("--json", a.json, "An array of objects")
      .action(does(showStatus));
  family.command(kClean)
      .argument("NAME", a.name, "The lock")
      .flag("--force", a.force, "Do not ask")
      .action(does(clean));
}

}  // namespace vrxtool

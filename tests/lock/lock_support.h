// What the tests of the locks between processes share: a world of a test's own, in which
// the folder of the key files is; the semaphore sets as everybody sees them; processes
// that obey commands; processes stopped at their system calls.

#pragma once

#include "tests/file/file_support.h"
#include "tests/lock/lock_world.h"
#include "tests/platform/child_process.h"
#include "tests/support/acting_logger.h"
#include "tests/support/log_recorder.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/ptrace.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vrxutil::test {

inline constexpr int kProject = 3737;

/// Tries `isSo` until it holds; false after very many tries.
template <class Condition>
bool comesTrue(Condition isSo) {
  time_t const end = ::time(nullptr) + 120;  // only a state that never comes gets there
  while (!isSo()) {
    if (::time(nullptr) > end) return false;
    ::sched_yield();
  }
  return true;
}

// ---- the world

/// Runs `scenario` in a child in such a world, with its checks as this test's: the last
/// step of a test, which is skipped where the host does not allow it.
template <class Scenario>
void expectInWorld(Scenario scenario) {
  expectAllowedInChild(kNoWorld, [&] {
    if (!enterWorld()) leaveAsNotAllowed();
    scenario();
  });
}

// ---- what everybody sees

inline std::string keyFile(std::string const& name) { return kLockFolder + name; }

inline bool exists(std::string const& path) {
  struct stat status;
  return ::lstat(path.c_str(), &status) == 0;
}

/// Union of semctl(2), which its callers define.
union SemaphoreArgument {
  int value;
  semid_ds* status;
  unsigned short* values;
  seminfo* info;
};

inline key_t keyOf(std::string const& path) { return ::ftok(path.c_str(), kProject); }

/// The set that a lock has; -1 for none.
inline int setOf(std::string const& name) {
  key_t const key = keyOf(keyFile(name));
  return key == -1 ? -1 : ::semget(key, 0, 0);
}

/// The values of a set, first to last; empty where it is gone.
inline std::vector<int> valuesOfSet(int id) {
  semid_ds status{};
  if (::semctl(id, 0, IPC_STAT, SemaphoreArgument{.status = &status}) != 0) return {};
  std::vector<unsigned short> values(status.sem_nsems);
  if (::semctl(id, 0, GETALL, SemaphoreArgument{.values = values.data()}) != 0) return {};
  return {values.begin(), values.end()};
}

/// Writer, users and references of a lock; empty where it has no set.
inline std::vector<int> valuesOf(std::string const& name) { return valuesOfSet(setOf(name)); }

using Values = std::vector<int>;

/// How many wait for a semaphore of the lock to become 0, and to grow.
inline int waitingForZero(std::string const& name, int semaphore) {
  return ::semctl(setOf(name), semaphore, GETZCNT);
}

inline int waitingForMore(std::string const& name, int semaphore) {
  return ::semctl(setOf(name), semaphore, GETNCNT);
}

/// How many semaphore sets this world has.
inline int setCount() {
  seminfo info{};
  bool const isKnown = ::semctl(0, 0, SEM_INFO, SemaphoreArgument{.info = &info}) >= 0;
  return isKnown ? info.semusz : -1;
}

/// Neither a set nor a key file is left of anybody.
inline void expectNothingLeft() {
  EXPECT_EQ(setCount(), 0);
  EXPECT_TRUE(std::filesystem::is_empty(kLockFolder));
}

/// A set for the lock with `count` semaphores, as a foreigner may have left it.
inline int makeSet(std::string const& name, int count, int mode = 0600) {
  std::ofstream(keyFile(name)).flush();
  return ::semget(keyOf(keyFile(name)), count, IPC_CREAT | IPC_EXCL | mode);
}

// ---- processes that obey

/// A process that runs `program`, as the tests' foreign process explains it.
class Peer {
public:
  explicit Peer(char const* program) {
    std::array<int, 2> commands{};
    std::array<int, 2> answers{};
    if (::pipe2(commands.data(), O_CLOEXEC) != 0 || ::pipe2(answers.data(), O_CLOEXEC) != 0) {
      throw std::runtime_error("no pipe");
    }
    process_ = ::fork();
    if (process_ == 0) {
      ::dup2(commands[0], STDIN_FILENO);
      ::dup2(answers[1], STDOUT_FILENO);
      ::execl(program, program, nullptr);
      ::_exit(127);
    }
    ::close(commands[0]);
    ::close(answers[1]);
    commands_ = commands[1];
    answers_ = answers[0];
  }

  /// Lets the process come to its end.
  ~Peer() {
    ::close(commands_);
    if (process_ > 0) waitFor(process_);
    ::close(answers_);
  }

  Peer(Peer const&) = delete;
  Peer& operator=(Peer const&) = delete;

  pid_t process() const { return process_; }

  /// Gives a command without waiting for its answer.
  void tell(std::string const& command) const {
    std::string const line = command + "\n";
    if (::write(commands_, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
      ADD_FAILURE() << "the process takes no command: " << command;
    }
  }

  std::string answer() const {
    std::string line;
    char character = 0;
    while (::read(answers_, &character, 1) == 1 && character != '\n') line += character;
    return line;
  }

  std::string ask(std::string const& command) const {
    tell(command);
    return answer();
  }

  /// Ends it as kill -9 does, and waits until the kernel has cleared up.
  void kill() {
    ::kill(process_, SIGKILL);
    waitFor(process_);
    process_ = -1;
  }

private:
  pid_t process_ = -1;
  int commands_ = -1;
  int answers_ = -1;
};

/// A process without the library, and one with it.
inline Peer foreignProcess() { return Peer(FOREIGN_PROCESS); }

inline Peer ownProcess() { return Peer(OWN_PROCESS); }

// ---- processes stopped at their system calls

/// A system call of a traced process: before it runs, or after.
struct SystemCall {
  unsigned long long number;
  std::array<unsigned long long, 6> arguments;
};

/// Why a test that follows system calls is skipped.
inline constexpr char kNoTrace[] = "the host does not let a process be traced";

/// A child that runs a scenario and stops before and after each of its system calls.
class TracedChild {
public:
  template <class Scenario>
  explicit TracedChild(Scenario scenario) {
    process_ = ::fork();
    if (process_ != 0) {
      int const status = waitFor(process_, __WALL);
      isTraced_ = WIFSTOPPED(status);
      if (isTraced_) {
        ::ptrace(PTRACE_SETOPTIONS, process_, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
      }
      return;
    }
    if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) ::_exit(kNotAllowed);
    std::raise(SIGSTOP);
    scenario();
    ::_exit(testing::Test::HasFailure() ? 1 : 0);  // a traced process cannot look for leaks
  }

  ~TracedChild() { kill(); }

  TracedChild(TracedChild const&) = delete;
  TracedChild& operator=(TracedChild const&) = delete;

  bool isTraced() const { return isTraced_; }

  pid_t process() const { return process_; }

  /// Goes on to the next stop; false when the process has ended.
  bool step() {
    if (process_ <= 0) return false;
    ::ptrace(PTRACE_SYSCALL, process_, nullptr, nullptr);
    int const status = waitFor(process_, __WALL);
    if (WIFSTOPPED(status)) return true;
    EXPECT_EQ(status, 0) << "the checks of the traced process";
    process_ = -1;
    return false;
  }

  /// Goes on until `isThere` says so of a call that is about to run.
  template <class IsThere>
  bool stepTo(IsThere isThere) {
    while (step()) {
      std::optional<SystemCall> const next = call();
      if (next && isThere(*next)) return true;
    }
    return false;
  }

  void finish() {
    while (step()) {
    }
  }

  /// The call before which it has stopped; none when it stopped after one.
  std::optional<SystemCall> call() const {
    __ptrace_syscall_info info{};
    ::ptrace(PTRACE_GET_SYSCALL_INFO, process_, sizeof info, &info);
    if (info.op != PTRACE_SYSCALL_INFO_ENTRY) return std::nullopt;
    SystemCall call{info.entry.nr, {}};
    for (std::size_t i = 0; i < call.arguments.size(); ++i) call.arguments[i] = info.entry.args[i];
    return call;
  }

  /// `count` objects that an argument of a call points to.
  template <class T>
  std::vector<T> objectsAt(unsigned long long address, std::size_t count) const {
    std::vector<T> objects(count);
    std::string const memory = "/proc/" + std::to_string(process_) + "/mem";
    std::ifstream(memory, std::ios::binary)
        .seekg(static_cast<std::streamoff>(address))
        .read(reinterpret_cast<char*>(objects.data()),
              static_cast<std::streamsize>(objects.size() * sizeof(T)));
    return objects;
  }

  /// The operations of a call of semop(2), as it would be written.
  std::string groupOf(SystemCall const& call) const {
    std::string text;
    auto const count = static_cast<std::size_t>(call.arguments[2]);
    for (sembuf const& operation : objectsAt<sembuf>(call.arguments[1], count)) {
      text += (text.empty() ? "{" : " {") + std::to_string(operation.sem_num) + "," +
              std::to_string(operation.sem_op) + "," + std::to_string(operation.sem_flg) + "}";
    }
    return text;
  }

  void kill() {
    if (process_ <= 0) return;
    ::kill(process_, SIGKILL);
    waitFor(process_, __WALL);
    process_ = -1;
  }

private:
  static int waitFor(pid_t process, int options) {
    int status = -1;
    while (::waitpid(process, &status, options) < 0 && errno == EINTR) {
    }
    return status;
  }

  pid_t process_ = -1;
  bool isTraced_ = false;
};

}  // namespace vrxutil::test

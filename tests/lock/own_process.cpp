// The counterpart of the foreign process: a process that obeys the same commands, about
// a lock of the library. The names of the verbs are explained there.

#include "tests/support/log_recorder.h"

#include <vrxutil/lock.h>

#include <csignal>
#include <exception>
#include <iostream>
#include <memory>
#include <string>

namespace {

using vornix_com::oxa::lock::UnixLock;

std::unique_ptr<UnixLock> attached;

bool attach(std::string const& name) {
  try {
    attached = std::make_unique<UnixLock>(name);
    return true;
  } catch (std::exception const&) {
    return false;
  }
}

bool obey(std::string const& verb, std::string const& name) {
  constexpr unsigned kIgnored = 5;
  if (verb == "attach") return attach(name);
  if (verb == "clean") return UnixLock::cleanSemaphore(name), true;
  if (verb == "crash") return std::raise(SIGKILL), true;
  if (!attached) return false;
  if (verb == "detach") return attached.reset(), true;
  if (verb == "tryread") return attached->tryReadLock();
  if (verb == "trywrite") return attached->tryWriteLock();
  if (verb == "read") return attached->readLock(kIgnored);
  if (verb == "write") return attached->writeLock(kIgnored);
  if (verb == "unread") return attached->readUnlock();
  if (verb == "unwrite") return attached->writeUnlock();
  std::cerr << "unknown command: " << verb << '\n';
  std::exit(EXIT_FAILURE);
}

}  // namespace

int main() {
  vrxutil::test::LogRecorder const log;  // keeps standard error free of records

  struct sigaction action {};

  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, nullptr);
  for (std::string line; std::getline(std::cin, line);) {
    std::size_t const blank = line.find(' ');
    std::string const name = blank == std::string::npos ? "" : line.substr(blank + 1);
    std::cout << (obey(line.substr(0, blank), name) ? "ok" : "no") << std::endl;
  }
  attached.reset();  // before the recorder ends
}

#include "platform/zulral/profile_lock.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vrxutil::detail {

namespace {

using Clock = std::chrono::steady_clock;
using Status = struct stat;

constexpr std::chrono::milliseconds kFirstPause{1};
constexpr std::chrono::milliseconds kLongestPause{8};
constexpr unsigned kNewFileMode = 0666;

/// What the wait for another's turn looks like: short pauses up to an end. A lock
/// that waits by itself could not be given up without a signal.
class Pauses {
public:
  explicit Pauses(std::chrono::milliseconds all) : end_(Clock::now() + all) {}

  /// Sleeps; false when the time is over.
  bool pause() {
    if (Clock::now() >= end_) return false;
    std::this_thread::sleep_for(length_);
    length_ = std::min(2 * length_, kLongestPause);
    return true;
  }

private:
  Clock::time_point end_;
  std::chrono::milliseconds length_ = kFirstPause;
};

/// 0 for a regular file, else errno's number.
int kindError(Descriptor const& file) {
  Status status{};
  if (::fstat(file.get(), &status) != 0) return errno;
  if (S_ISDIR(status.st_mode)) return EISDIR;
  return S_ISREG(status.st_mode) ? 0 : EINVAL;
}

}  // namespace

// Only while it is held: another may have replaced the file otherwise. A file that
// is empty then is still the one that was made.
ProfileLock::~ProfileLock() {
  Status held{};
  if (!isMade_ || !isHeld_ || ::fstat(file_.get(), &held) != 0 || held.st_size != 0) return;
  if (isNamed(entry_.path)) ::unlinkat(entry_.folder.get(), entry_.name.c_str(), 0);
}

/// Whether `path` leads to the file that is open.
bool ProfileLock::isNamed(std::string const& path) const {
  Status named{};
  Status held{};
  return ::stat(path.c_str(), &named) == 0 && ::fstat(file_.get(), &held) == 0 &&
         named.st_dev == held.st_dev && named.st_ino == held.st_ino;
}

/// 0, or errno's number: EWOULDBLOCK where another has made it meanwhile, or made a
/// link of it.
int ProfileLock::open(std::string const& path, Missing missing) {
  if (std::optional<FileError> const error = openEntry(path, entry_)) return error->number;
  file_ = openWithoutWaiting(entry_, O_RDWR);
  isMade_ = !file_ && errno == ENOENT && missing == Missing::make;
  if (isMade_) file_ = openWithoutWaiting(entry_, O_RDWR | O_CREAT | O_EXCL, kNewFileMode);
  if (file_) return kindError(file_);
  return errno == EEXIST || errno == ELOOP ? EWOULDBLOCK : errno;
}

/// 0, or errno's number: EWOULDBLOCK where it is another's turn.
int ProfileLock::attempt(std::string const& path, Missing missing) {
  int const number = open(path, missing);
  if (number != 0) return number;
  if (::flock(file_.get(), LOCK_EX | LOCK_NB) != 0) return errno;
  // Else another has replaced it between the two.
  isHeld_ = isNamed(path);
  return isHeld_ ? 0 : EWOULDBLOCK;
}

int ProfileLock::acquire(std::string const& path, Missing missing,
                         std::chrono::milliseconds longestWait) {
  Pauses pauses(longestWait);
  while (true) {
    int const number = attempt(path, missing);
    if (number != EWOULDBLOCK) return number;
    if (!pauses.pause()) return ETIMEDOUT;
  }
}

}  // namespace vrxutil::detail

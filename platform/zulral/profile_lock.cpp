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

constexpr std::chrono::seconds kLongestWait{10};
constexpr std::chrono::milliseconds kFirstPause{1};
constexpr std::chrono::milliseconds kLongestPause{8};
constexpr unsigned kNewFileMode = 0666;

/// What the wait for another's turn looks like: short pauses up to an end. A lock
/// that waits by itself could not be given up without a signal.
class Pauses {
public:
  /// Sleeps; false when the time is over.
  bool pause() {
    if (Clock::now() >= end_) return false;
    std::this_thread::sleep_for(length_);
    length_ = std::min(2 * length_, kLongestPause);
    return true;
  }

private:
  Clock::time_point end_ = Clock::now() + kLongestWait;
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

ProfileLock::~ProfileLock() { removeIfUnused(); }

/// Whether the name still leads to the file that is open.
bool ProfileLock::hasName() const {
  Status named{};
  Status held{};
  return ::stat(path_.c_str(), &named) == 0 && ::fstat(file_.get(), &held) == 0 &&
         named.st_dev == held.st_dev && named.st_ino == held.st_ino;
}

// Nobody else can have written to it since: they wait for the lock.
void ProfileLock::removeIfUnused() const {
  Status held{};
  if (!isMade_ || !file_ || !hasName()) return;
  if (::fstat(file_.get(), &held) == 0 && held.st_size == 0) ::unlink(path_.c_str());
}

/// 0, or errno's number. EEXIST: another has made it meanwhile.
int ProfileLock::open(std::string const& path, Missing missing) {
  path_ = path;
  if (std::optional<FileError> const error = followLinks(path_)) return error->number;
  file_ = openWithoutWaiting(path_, O_RDWR);
  isMade_ = !file_ && errno == ENOENT && missing == Missing::make;
  if (isMade_) file_ = openWithoutWaiting(path_, O_RDWR | O_CREAT | O_EXCL, kNewFileMode);
  if (file_) return kindError(file_);
  isMade_ = false;
  return errno;
}

int ProfileLock::acquire(std::string const& path, Missing missing) {
  Pauses pauses;
  while (true) {
    int number = open(path, missing);
    if (number == 0) {
      number = ::flock(file_.get(), LOCK_EX | LOCK_NB) == 0 ? 0 : errno;
      if (number == 0 && hasName()) return 0;
    }
    bool const isOthersTurn = number == 0 || number == EWOULDBLOCK || number == EEXIST;
    if (!isOthersTurn) return number;
    if (!pauses.pause()) return ETIMEDOUT;
  }
}

}  // namespace vrxutil::detail

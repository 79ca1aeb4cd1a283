#include "platform/vrxcomn/key_file.h"

#include "platform/common/file_io.h"
#include "platform/common/write_signals.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <string>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vrxutil::detail {

namespace {

constexpr unsigned kDataFolderMode = 0750;
constexpr unsigned kKeyFolderMode = 0700;
constexpr mode_t kForbiddenBits = S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH;

enum class Reading { done, missing, refused };

/// read(2) or write(2) of exactly the key, in parts if need be.
template <class Call, class Byte>
bool transferKey(Call call, int fd, Byte* bytes) {
  std::size_t done = 0;
  while (done < SecretKey::size()) {
    ssize_t const count = call(fd, bytes + done, SecretKey::size() - done);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    done += static_cast<std::size_t>(count);
  }
  return true;
}

bool flushFolder(std::string const& folder) {
  Descriptor const descriptor(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  // EINVAL: this file system does not flush folders (fsync(2)).
  return descriptor && (::fsync(descriptor.get()) == 0 || errno == EINVAL);
}

bool isTrustworthy(struct stat const& status) {
  return S_ISREG(status.st_mode) && (status.st_mode & kForbiddenBits) == 0 &&
         (status.st_uid == 0 || status.st_uid == ::geteuid()) &&
         status.st_size == off_t{SecretKey::size()};
}

Reading readKey(std::string const& folder, std::string const& path, SecretKey& key) {
  // O_NONBLOCK: a FIFO would be waited for.
  Descriptor const file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file) return errno == ENOENT ? Reading::missing : Reading::refused;

  struct stat status {};

  if (::fstat(file.get(), &status) != 0 || !isTrustworthy(status)) return Reading::refused;
  // A second name means that its maker may not have flushed the folder yet.
  if (status.st_nlink > 1 && !flushFolder(folder)) return Reading::refused;
  return transferKey(::read, file.get(), key.data()) ? Reading::done : Reading::refused;
}

bool writeKey(int fd) {
  SecretKey key;
  randombytes_buf(key.data(), SecretKey::size());
  WriteSignalsBlocked const blocked;
  return transferKey(::write, fd, key.data()) && ::fsync(fd) == 0;
}

/// A file with a name of its own, removed at the end of its scope.
class TemporaryFile {
public:
  /// Of mode 0600.
  explicit TemporaryFile(std::string pattern) : path_(std::move(pattern)) {
    file_ = Descriptor(::mkostemp(path_.data(), O_CLOEXEC));
  }

  ~TemporaryFile() {
    if (file_) ::unlink(path_.c_str());  // a file that stays does no harm
  }

  TemporaryFile(TemporaryFile const&) = delete;
  TemporaryFile& operator=(TemporaryFile const&) = delete;

  int fd() const { return file_.get(); }

  std::string const& path() const { return path_; }

private:
  std::string path_;
  Descriptor file_;
};

/// Makes the key, unless somebody else has made one meanwhile.
bool makeKey(std::string const& folder, std::string const& path) {
  TemporaryFile const complete(path + ".XXXXXX");
  if (complete.fd() < 0 || !writeKey(complete.fd())) return false;
  // Unlike rename(2), link(2) never replaces the key that another has put there.
  if (::link(complete.path().c_str(), path.c_str()) != 0 && errno != EEXIST) return false;
  return flushFolder(folder);
}

}  // namespace

bool readOrMakeKey(std::string const& dataFolder, SecretKey& key) {
  std::string const folder = dataFolder + "/keys";
  std::string const path = folder + "/type3.key";
  Reading reading = readKey(folder, path, key);
  if (reading == Reading::missing) {
    if (makeFolders(dataFolder, kDataFolderMode) || makeFolders(folder, kKeyFolderMode))
      return false;
    if (!makeKey(folder, path)) return false;
    reading = readKey(folder, path, key);
  }
  return reading == Reading::done;
}

}  // namespace vrxutil::detail

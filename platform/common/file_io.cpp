#include "platform/common/file_io.h"

#include "platform/common/error_text.h"
#include "platform/common/utf8.h"
#include "platform/common/write_signals.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <span>
#include <utility>

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vrxutil::detail {

namespace {

using Failure = std::optional<FileError>;
using Status = struct stat;

/// What errno says of the call before.
FileError lastError(char const* action, std::string const& path) {
  int const number = errno;
  return {action, path, number};
}

constexpr auto kInvalidSize = static_cast<std::size_t>(-1);  // of wcrtomb
constexpr std::size_t kFirstRead = 16384;
constexpr std::size_t kCopyBlock = 131072;
constexpr int kMaxLinks = 40;  // as many as the kernel follows
constexpr mode_t kNewFileMode = 0666;
constexpr mode_t kPrivateMode = 0600;
constexpr mode_t kAllModeBits = 07777;
constexpr mode_t kPermissionBits = 0777;

/// Calls `function` again for as long as signals interrupt it.
template <class Function>
auto uninterrupted(Function function) {
  while (true) {
    auto const result = function();
    if (result >= 0 || errno != EINTR) return result;
  }
}

Descriptor openIn(int folder, std::string const& name, int flags, mode_t mode = 0) {
  return Descriptor(
      uninterrupted([&] { return ::openat(folder, name.c_str(), flags | O_CLOEXEC, mode); }));
}

Descriptor openFile(std::string const& path, int flags) { return openIn(AT_FDCWD, path, flags); }

bool isRegular(int folder, std::string const& name) {
  Status status{};
  return ::fstatat(folder, name.c_str(), &status, 0) == 0 && S_ISREG(status.st_mode);
}

Descriptor openInWithoutWaiting(int folder, std::string const& name, int flags, unsigned mode) {
  auto const bits = static_cast<mode_t>(mode);
  Descriptor file = openIn(folder, name, flags | O_NOCTTY | O_NONBLOCK, bits);
  // Another process holds a lease on the file: the kernel has asked it to give
  // way, and bounds the time that this may take (fcntl(2), F_SETLEASE).
  if (!file && errno == EWOULDBLOCK && isRegular(folder, name)) {
    return openIn(folder, name, flags | O_NOCTTY, bits);
  }
  if (!file) return file;
  int const status = ::fcntl(file.get(), F_GETFL);
  if (status < 0 || ::fcntl(file.get(), F_SETFL, status & ~O_NONBLOCK) < 0) return Descriptor();
  return file;
}

bool isFolder(std::string const& path) {
  Status status{};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

Failure readToEnd(Descriptor const& file, std::string const& path, std::size_t expected,
                  std::size_t limit, std::string& bytes) {
  // One byte more than expected: the end shows without growing once more.
  bytes.resize(std::min(std::max(expected, kFirstRead), limit) + 1);
  std::size_t count = 0;
  while (true) {
    ssize_t const size = uninterrupted(
        [&] { return ::read(file.get(), bytes.data() + count, bytes.size() - count); });
    if (size < 0) return lastError("read", path);
    if (size == 0) break;
    count += static_cast<std::size_t>(size);
    if (count > limit) return FileError{"read", path, EFBIG};
    if (count == bytes.size()) bytes.resize(std::min(2 * count, limit) + 1);
  }
  bytes.resize(count);
  return std::nullopt;
}

/// False with errno set.
bool flush(int fd) {
#ifdef F_FULLFSYNC
  // fsync leaves the bytes in the drive's own memory on such hosts. File systems
  // that cannot do better refuse this.
  if (::fcntl(fd, F_FULLFSYNC) == 0) return true;
#endif
  return uninterrupted([&] { return ::fsync(fd); }) == 0;
}

/// The folder that holds `path`, with its final "/", or "" for the current one.
std::string_view folderOf(std::string_view path) { return path.substr(0, path.rfind('/') + 1); }

/// Fills `name` with letters and digits that nobody can guess; false with errno
/// set.
bool makeUnpredictable(std::span<char> name) {
  constexpr std::string_view kDigits = "abcdefghijklmnopqrstuvwxyz012345";
  static_assert(kDigits.size() == 32);
  if (::getentropy(name.data(), name.size()) != 0) return false;
  for (char& c : name) c = kDigits[static_cast<unsigned char>(c) % kDigits.size()];
  return true;
}

/// A new file beside an entry that it is to replace; removed at the end of its
/// scope unless it has.
class Neighbour {
public:
  explicit Neighbour(Entry const& target) : target_(target) {}

  ~Neighbour() {
    if (!name_.empty()) ::unlinkat(folder(), name_.c_str(), 0);  // nobody is left to hear of it
  }

  Neighbour(Neighbour const&) = delete;
  Neighbour& operator=(Neighbour const&) = delete;

  int get() const { return file_.get(); }

  /// False with errno set.
  bool create(mode_t mode);

  bool close() { return file_.close(); }

  /// Takes the name of the target; false with errno set.
  bool rename();

  /// The same where nothing has the name yet, else EEXIST.
  bool renameToFree();

private:
  int folder() const { return target_.folder.get(); }

  Entry const& target_;
  std::string name_;
  Descriptor file_;
};

bool Neighbour::create(mode_t mode) {
  // A name of constant length: one made from the target's could be too long.
  std::array<char, 16> random;
  if (!makeUnpredictable(random)) return false;
  std::string name(".vrxutil-");
  name.append(random.data(), random.size());
  file_ = openIn(folder(), name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, mode);
  if (file_) name_ = std::move(name);
  return static_cast<bool>(file_);
}

bool Neighbour::rename() {
  if (::renameat(folder(), name_.c_str(), folder(), target_.name.c_str()) != 0) return false;
  name_.clear();
  return true;
}

// A link decides in one step; the destructor takes the first name away.
bool Neighbour::renameToFree() {
  return ::linkat(folder(), name_.c_str(), folder(), target_.name.c_str(), 0) == 0;
}

/// Whether a change of owner failed for want of a right to it, or of a name for
/// the owner in this user namespace.
bool isNotAllowed(int number) { return number == EPERM || number == EINVAL; }

/// Gives a file the owner and group of the one that it replaces, as far as is
/// allowed, and takes the set-id bits from `mode` where it is not. False with
/// errno set.
bool takeOverOwner(int fd, Status const& old, mode_t& mode) {
  if (::fchown(fd, old.st_uid, old.st_gid) == 0) return true;
  if (!isNotAllowed(errno)) return false;
  mode &= kPermissionBits;
  constexpr auto kSameOwner = static_cast<uid_t>(-1);
  return ::fchown(fd, kSameOwner, old.st_gid) == 0 || isNotAllowed(errno);
}

/// Gives a file the owner, group and mode of the one that it replaces. What is
/// right already is not touched: some file systems refuse any change. False with
/// errno set.
bool takeOver(int fd, Status const& old) {
  Status now{};
  if (::fstat(fd, &now) != 0) return false;
  mode_t mode = old.st_mode & kAllModeBits;
  bool const isOurs = now.st_uid == old.st_uid && now.st_gid == old.st_gid;
  // The owner first: a change of owner clears set-id bits.
  if (!isOurs && !takeOverOwner(fd, old, mode)) return false;
  return (now.st_mode & kAllModeBits) == mode || ::fchmod(fd, mode) == 0;
}

/// What a folder is opened with that may be changed but not read.
#if defined O_PATH
constexpr int kSearchOnly = O_PATH;
#elif defined O_SEARCH
constexpr int kSearchOnly = O_SEARCH;
#else
constexpr int kSearchOnly = O_RDONLY;  // then that is an error here
#endif

/// The entry that `path` names; a symbolic link is one itself.
Failure openEntryItself(std::string const& path, Entry& entry) {
  std::string_view const folder = folderOf(path);
  std::string const name = folder.empty() ? "." : std::string(folder);
  entry.folder = openFile(name, O_RDONLY | O_DIRECTORY);
  if (!entry.folder && errno == EACCES) entry.folder = openFile(name, kSearchOnly | O_DIRECTORY);
  if (!entry.folder) return lastError("open the folder of", path);
  entry.name = path.ends_with('/') ? "." : path.substr(folder.size());
  entry.path = path;
  return std::nullopt;
}

/// Looks at what is to be replaced; `old` stays null where there is nothing.
/// ELOOP: it has become a link, or something else again, since it was followed.
Failure lookAt(Entry const& entry, std::optional<Status>& old) {
  Status status{};
  if (::fstatat(entry.folder.get(), entry.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT ? Failure() : lastError("replace", entry.path);
  }
  if (!S_ISREG(status.st_mode)) return FileError{"replace", entry.path, ELOOP};
  old = status;
  return std::nullopt;
}

/// What to do with a name that is taken.
enum class Taken { replace, refuse };

/// Flushes what has happened to the names in a folder, where that can be done.
Failure flushFolder(Entry const& entry) {
  // EINVAL: this file system does not flush folders (fsync(2)). EBADF: the folder
  // may not be read.
  if (flush(entry.folder.get()) || errno == EINVAL || errno == EBADF) return std::nullopt;
  return lastError("flush the folder of", entry.path);
}

/// Puts a new file in the place of a regular one, or of none. It is made with
/// `mode`, and `fill(descriptor)` gives it contents, owner and mode.
template <class Fill>
Failure replaceRegular(Entry const& target, mode_t mode, Taken taken, Fill fill) {
  Neighbour neighbour(target);
  if (!neighbour.create(mode)) return lastError("create a temporary file beside", target.path);
  if (Failure failure = fill(neighbour.get())) return failure;
  if (!flush(neighbour.get())) return lastError("flush", target.path);
  if (!neighbour.close()) return lastError("close", target.path);
  bool const isInPlace = taken == Taken::refuse ? neighbour.renameToFree() : neighbour.rename();
  return isInPlace ? flushFolder(target) : lastError("replace", target.path);
}

/// Fills a file with `bytes` and makes it like `old`, where that is not null.
Failure fillWith(int fd, std::string const& target, std::string_view bytes, Status const* old) {
  if (!writeAll(fd, bytes)) return lastError("write", target);
  // After the writing, which clears set-id bits as well.
  if (old == nullptr || takeOver(fd, *old)) return std::nullopt;
  return lastError("keep the owner and mode of", target);
}

Failure writeInPlace(std::string const& path, std::string_view bytes) {
  Descriptor file = openWithoutWaiting(path, O_WRONLY);
  if (!file) return lastError("open", path);
  if (!writeAll(file.get(), bytes)) return lastError("write", path);
  if (!file.close()) return lastError("close", path);
  return std::nullopt;
}

/// Copies what is left of `source` to the file `fd`.
Failure copyContents(Descriptor const& source, std::string const& sourcePath, int fd,
                     std::string const& target) {
  std::string block(kCopyBlock, '\0');
  while (true) {
    ssize_t const size =
        uninterrupted([&] { return ::read(source.get(), block.data(), block.size()); });
    if (size < 0) return lastError("read", sourcePath);
    if (size == 0) return std::nullopt;
    if (!writeAll(fd, {block.data(), static_cast<std::size_t>(size)})) {
      return lastError("write", target);
    }
  }
}

/// Gives a copy the permission bits of its source and the owner of `old`, the
/// file that it replaces, where that is not null. False with errno set.
bool finishCopy(int fd, Status const& source, Status const* old) {
  Status like{};
  if (old != nullptr) {
    like = *old;
  } else if (::fstat(fd, &like) != 0) {
    return false;
  }
  like.st_mode = source.st_mode & kPermissionBits;
  return takeOver(fd, like);
}

/// A file to copy from.
struct Source {
  std::string const& path;
  Descriptor file{};
  Status status{};
};

/// Opens a regular file.
Failure openSource(Source& source) {
  source.file = openWithoutWaiting(source.path, O_RDONLY);
  if (!source.file) return lastError("open", source.path);
  if (::fstat(source.file.get(), &source.status) != 0) return lastError("read", source.path);
  if (S_ISDIR(source.status.st_mode)) return FileError{"read", source.path, EISDIR};
  if (!S_ISREG(source.status.st_mode)) return FileError{"read", source.path, EINVAL};
  return std::nullopt;
}

/// Copies to the place of a regular file that is like `old`, or to a new one where
/// that is null.
Failure copyToRegular(Source const& source, Entry const& target, Taken taken, Status const* old) {
  return replaceRegular(target, kPrivateMode, taken, [&](int fd) -> Failure {
    if (Failure failure = copyContents(source.file, source.path, fd, target.path)) return failure;
    if (finishCopy(fd, source.status, old)) return std::nullopt;
    return lastError("set the owner and mode of", target.path);
  });
}

Failure copyInPlace(Source const& source, std::string const& target) {
  Descriptor file = openWithoutWaiting(target, O_WRONLY);
  if (!file) return lastError("open", target);
  if (Failure failure = copyContents(source.file, source.path, file.get(), target)) return failure;
  if (!file.close()) return lastError("close", target);
  return std::nullopt;
}

/// From the C locale's encoding; `replacementOf` gives the character for a byte
/// that means nothing in it.
template <class ReplacementOf>
std::wstring widen(std::string_view text, ReplacementOf replacementOf) {
  std::wstring wide;
  wide.reserve(text.size());
  std::mbstate_t state{};
  while (!text.empty()) {
    wchar_t c = L'\0';
    // NOLINTNEXTLINE(concurrency-mt-unsafe): safe with a state of its own (POSIX)
    std::size_t size = std::mbrtowc(&c, text.data(), text.size(), &state);
    if (size > text.size()) {  // -1 or -2: invalid, or cut
      c = replacementOf(text.front());
      size = 1;
      state = {};
    }
    wide += c;
    text.remove_prefix(std::max<std::size_t>(size, 1));  // 0 stands for a NUL
  }
  return wide;
}

/// wcrtomb; kInvalidSize for what the encoding lacks. `target` has room for
/// MB_LEN_MAX bytes.
std::size_t narrowOne(wchar_t c, char* target, std::mbstate_t& state) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): safe with a state of its own (POSIX)
  return std::wcrtomb(target, c, &state);
}

/// Makes one folder; false with errno set.
bool makeFolder(std::string const& path, mode_t mode) {
  if (isFolder(path) || ::mkdir(path.c_str(), mode) == 0) return true;
  int const number = errno;
  if (number == EEXIST && isFolder(path)) return true;  // another was faster
  errno = number;
  return false;
}

}  // namespace

std::string describe(FileError const& error) {
  return std::string("cannot ") + error.action + ' ' + error.path + ": " +
         ErrorText(error.number).c_str();
}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  if (this != &other) {
    close();
    fd_ = other.release();
  }
  return *this;
}

int Descriptor::release() noexcept { return std::exchange(fd_, -1); }

bool Descriptor::close() noexcept {
  int const fd = release();
  // Not retried on EINTR: the descriptor is closed, and may be another's by then.
  return fd < 0 || ::close(fd) == 0 || errno == EINTR;
}

Descriptor openWithoutWaiting(std::string const& path, int flags, unsigned mode) {
  return openInWithoutWaiting(AT_FDCWD, path, flags, mode);
}

Descriptor openWithoutWaiting(Entry const& entry, int flags, unsigned mode) {
  return openInWithoutWaiting(entry.folder.get(), entry.name, flags | O_NOFOLLOW, mode);
}

bool writeAll(int fd, std::string_view bytes) {
  WriteSignalsBlocked const blocked;
  while (!bytes.empty()) {
    ssize_t const size = uninterrupted([&] { return ::write(fd, bytes.data(), bytes.size()); });
    if (size == 0) errno = EIO;  // nor will it take more the next time
    if (size <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(size));
  }
  return true;
}

std::optional<std::string> narrowFileName(std::wstring_view fileName) {
  std::string name;
  std::mbstate_t state{};
  std::array<char, MB_LEN_MAX> buffer;
  for (wchar_t const c : fileName) {
    std::size_t const size = c == L'\0' ? kInvalidSize : narrowOne(c, buffer.data(), state);
    if (size == kInvalidSize) return std::nullopt;
    name.append(buffer.data(), size);
  }
  // Encodings with states end in the first one, by bytes before the NUL.
  std::size_t const size = narrowOne(L'\0', buffer.data(), state);
  name.append(buffer.data(), size - 1);
  return name;
}

std::wstring wideFileName(std::string_view fileName) {
  return widen(fileName, [](char byte) {
    return static_cast<wchar_t>(0xDC00 + static_cast<unsigned char>(byte));
  });
}

std::wstring wideMessage(std::string_view text) {
  return widen(text, [](char /*byte*/) { return kReplacementCharacter; });
}

Failure readFile(std::string const& path, std::size_t limit, std::string& bytes) {
  Descriptor const file = openWithoutWaiting(path, O_RDONLY);
  if (!file) return lastError("open", path);
  return readFile(file, path, limit, bytes);
}

Failure readFile(Descriptor const& file, std::string const& path, std::size_t limit,
                 std::string& bytes) {
  Status status{};
  if (::fstat(file.get(), &status) != 0) return lastError("read", path);
  auto const size = S_ISREG(status.st_mode) ? static_cast<std::uintmax_t>(status.st_size) : 0;
  if (size > limit) return FileError{"read", path, EFBIG};
  return readToEnd(file, path, static_cast<std::size_t>(size), limit, bytes);
}

Failure followLinks(std::string& path) {
  std::string const start = path;
  for (int links = 0; links < kMaxLinks; ++links) {
    std::array<char, PATH_MAX> target;
    ssize_t const size = ::readlink(path.c_str(), target.data(), target.size());
    if (size < 0 && (errno == EINVAL || errno == ENOENT)) return std::nullopt;  // no link
    if (size < 0) return lastError("follow", start);
    std::string_view const text(target.data(), static_cast<std::size_t>(size));
    if (text.size() == target.size()) return FileError{"follow", start, ENAMETOOLONG};
    path = text.starts_with('/') ? std::string(text) : std::string(folderOf(path)).append(text);
  }
  return FileError{"follow", start, ELOOP};
}

Failure openEntry(std::string const& path, Entry& entry) {
  std::string end = path;
  if (Failure failure = followLinks(end)) return failure;
  return openEntryItself(end, entry);
}

Failure replaceFile(std::string const& path, std::string_view bytes) {
  Status named{};
  bool const exists = ::stat(path.c_str(), &named) == 0;
  if (!exists && (errno != ENOENT || path.empty())) return lastError("open", path);
  if (exists && S_ISDIR(named.st_mode)) return FileError{"write", path, EISDIR};
  if (exists && !S_ISREG(named.st_mode)) return writeInPlace(path, bytes);
  Entry target;
  std::optional<Status> old;
  if (Failure failure = openEntry(path, target)) return failure;
  if (Failure failure = lookAt(target, old)) return failure;
  return replaceRegular(target, old ? kPrivateMode : kNewFileMode, Taken::replace, [&](int fd) {
    return fillWith(fd, target.path, bytes, old ? &*old : nullptr);
  });
}

Failure replaceFile(Entry const& target, Descriptor const& file, std::string_view bytes) {
  Status old{};
  if (::fstat(file.get(), &old) != 0) return lastError("read", target.path);
  return replaceRegular(target, kPrivateMode, Taken::replace,
                        [&](int fd) { return fillWith(fd, target.path, bytes, &old); });
}

Failure copyFile(std::string const& source, std::string const& target, bool refuseReplacing) {
  Source from{source};
  if (Failure failure = openSource(from)) return failure;
  Status named{};
  bool const exists =
      (refuseReplacing ? ::lstat(target.c_str(), &named) : ::stat(target.c_str(), &named)) == 0;
  if (!exists && (errno != ENOENT || target.empty())) return lastError("open", target);
  if (exists && refuseReplacing) return FileError{"replace", target, EEXIST};
  if (exists && S_ISDIR(named.st_mode)) return FileError{"write", target, EISDIR};
  if (exists && !S_ISREG(named.st_mode)) return copyInPlace(from, target);
  Entry entry;
  std::optional<Status> old;
  if (refuseReplacing) {
    if (Failure failure = openEntryItself(target, entry)) return failure;
    return copyToRegular(from, entry, Taken::refuse, nullptr);
  }
  if (Failure failure = openEntry(target, entry)) return failure;
  if (Failure failure = lookAt(entry, old)) return failure;
  return copyToRegular(from, entry, Taken::replace, old ? &*old : nullptr);
}

Failure makeFolders(std::string const& path, unsigned mode) {
  std::size_t end = 0;
  do {
    end = path.find('/', path.find_first_not_of('/', end));
    std::string const folder = path.substr(0, end);
    if (!makeFolder(folder, static_cast<mode_t>(mode))) return lastError("make", folder);
  } while (end < path.size());
  return std::nullopt;
}

}  // namespace vrxutil::detail

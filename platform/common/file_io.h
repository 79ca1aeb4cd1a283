// Whole files: reading, and replacing so that a crash leaves the old one or the
// new one.
//
// Internal; not installed. Nothing is logged: a failure is a
// value that says which call failed on what. Only std::bad_alloc is thrown.
// Threads: all functions may run anywhere, on the same file too; of several that
// replace a file at once one wins, and no reader sees a mixture.

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace vrxutil::detail {

/// A failed operation: what was done to which file, and errno.
struct FileError {
  char const* action;  // "open", "write", ...: fits "cannot ACTION PATH: REASON"
  std::string path;
  int number;  // errno
};

/// "cannot ACTION PATH: REASON", with the text of strerror.
std::string describe(FileError const& error);

/// A file descriptor, closed at the end of its scope.
class Descriptor {
public:
  explicit Descriptor(int fd = -1) noexcept : fd_(fd) {}

  ~Descriptor() { close(); }

  Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}

  Descriptor& operator=(Descriptor&& other) noexcept;

  int get() const noexcept { return fd_; }

  explicit operator bool() const noexcept { return fd_ >= 0; }

  int release() noexcept;

  /// Closes now; false with errno set where close(2) fails. Closed either way.
  bool close() noexcept;

private:
  int fd_;
};

/// open(2) with O_CLOEXEC, of what may be a FIFO or a device: waits for nobody at
/// the other end (a FIFO without a reader is ENXIO for writing); what follows does
/// wait. `mode` is for O_CREAT. None with errno set on failure.
Descriptor openWithoutWaiting(std::string const& path, int flags, unsigned mode = 0);

/// An entry of a folder that is held open. What becomes of the folders above, and
/// of symbolic links on the way, leads what is done with it nowhere else: who may
/// change those may not turn a write to a file of another folder.
struct Entry {
  Descriptor folder;
  std::string name;
  std::string path;  // for errors
};

/// The same of an entry. A symbolic link is not followed: ELOOP.
Descriptor openWithoutWaiting(Entry const& entry, int flags, unsigned mode = 0);

/// Writes all bytes to what is open; false with errno set. A write that takes fewer
/// bytes is followed by another. Neither SIGPIPE nor SIGXFSZ reaches the process.
bool writeAll(int fd, std::string_view bytes);

/// `fileName` in the C locale's encoding; nothing where it has a character that
/// the encoding lacks, or a NUL.
std::optional<std::string> narrowFileName(std::wstring_view fileName);

/// The reverse: `fileName` from the C locale's encoding. A byte that means nothing
/// in it becomes U+DC80 to U+DCFF, which no encoding has: narrowFileName() refuses
/// the name, instead of another one being taken for it.
std::wstring wideFileName(std::string_view fileName);

/// The same for messages, with U+FFFD for each byte that means nothing.
std::wstring wideMessage(std::string_view text);

/// Reads a whole file, up to `limit` bytes (EFBIG beyond it; `bytes` is then, as
/// after any failure, unspecified). A folder is EISDIR. A FIFO without a writer
/// reads as empty; it is not waited for. One with writers is read until the last
/// of them closes it.
std::optional<FileError> readFile(std::string const& path, std::size_t limit, std::string& bytes);

/// The same for what is open at its beginning; `path` is for the error.
std::optional<FileError> readFile(Descriptor const& file, std::string const& path,
                                  std::size_t limit, std::string& bytes);

/// Follows the symbolic link that `path` may be, and those that it leads to; the
/// last one need not lead to anything. Replaces `path`.
std::optional<FileError> followLinks(std::string& path);

/// Follows `path` as followLinks() does and opens the folder that holds its end,
/// which need not exist.
std::optional<FileError> openEntry(std::string const& path, Entry& entry);

/// Replaces the contents of a file, or makes it.
///
/// A regular file is replaced by renaming a neighbour over it that has been
/// flushed to disk, with the old one's mode and, where allowed, owner and group;
/// where they are not, it loses its set-id bits. A new file gets 0666 less the
/// umask. A symbolic link is followed and its target replaced, or made. After a
/// failure there is the old file, or still none, and no neighbour; only "flush
/// the folder of" comes when the new file is in place, though not safely so.
///
/// What is no regular file is written in place: a FIFO without a reader is
/// ENXIO, one whose reader leaves is EPIPE. A folder is EISDIR. Neither SIGPIPE
/// nor SIGXFSZ reaches the process. ELOOP also comes where the file is replaced by
/// something that is none, while it is looked at.
std::optional<FileError> replaceFile(std::string const& path, std::string_view bytes);

/// The same for a regular file that is open as `file`, whose name is `target`.
std::optional<FileError> replaceFile(Entry const& target, Descriptor const& file,
                                     std::string_view bytes);

/// Copies the contents and the permission bits of a regular file, block by block.
///
/// The target is made or replaced as replaceFile() does it, and left alone where
/// that fails; it keeps its owner and group where that is allowed. Set-id bits are
/// not copied. With `refuseReplacing` a target that exists, a symbolic link that
/// leads nowhere included, is EEXIST: two copies that start at once do not replace
/// each other. A folder is EISDIR on either side, a source that is no regular file
/// otherwise EINVAL.
std::optional<FileError> copyFile(std::string const& source, std::string const& target,
                                  bool refuseReplacing);

/// Makes a folder and those above it that are missing, with `mode` less the
/// umask. A folder that exists, or a link to one, is a success; anything else in
/// the way is EEXIST.
std::optional<FileError> makeFolders(std::string const& path, unsigned mode);

}  // namespace vrxutil::detail

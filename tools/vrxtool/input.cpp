#include "tools/vrxtool/input.h"

#include "tools/vrxtool/failure.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vrxtool {

namespace {

constexpr std::size_t kFirstBlock = 65536;

void writeAll(int file, std::string_view bytes, char const* title) {
  while (!bytes.empty()) {
    ssize_t const count = ::write(file, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw cannot("write", title, errno);
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
}

/// A file without a name, as open as it may be.
int openNameless() {
#ifdef __linux__
  return ::memfd_create("vrxtool", MFD_CLOEXEC);
#else
  std::FILE* const file = std::tmpfile();
  if (file == nullptr) return -1;
  int const descriptor = ::fcntl(::fileno(file), F_DUPFD_CLOEXEC, 3);
  std::fclose(file);
  return descriptor;
#endif
}

}  // namespace

std::string titleOf(std::string const& name) {
  return isStandardStream(name) ? "standard input" : name;
}

void refuseIrregular(std::string const& name) {
  struct stat status {};

  if (isStandardStream(name) || ::stat(name.c_str(), &status) != 0) return;
  if (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode)) return;
  throw Failure("cannot change " + name + ": it is no regular file");
}

Input::Input(std::string const& name)
    : title_(titleOf(name)),
      file_(isStandardStream(name) ? STDIN_FILENO : ::open(name.c_str(), O_RDONLY | O_CLOEXEC)) {
  if (file_ < 0) throw cannot("open", title_, errno);
}

Input::~Input() {
  if (file_ != STDIN_FILENO) ::close(file_);
}

std::optional<std::uint64_t> Input::sizeInBytes() const {
  struct stat status {};

  if (::fstat(file_, &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  return static_cast<std::uint64_t>(status.st_size);
}

std::size_t Input::read(char* target, std::size_t size) {
  while (true) {
    ssize_t const count = ::read(file_, target, size);
    if (count >= 0) return static_cast<std::size_t>(count);
    if (errno != EINTR) throw cannot("read", title_, errno);
  }
}

std::size_t Input::readFully(char* target, std::size_t size) {
  std::size_t total = 0;
  while (total < size) {
    std::size_t const count = read(target + total, size - total);
    if (count == 0) break;
    total += count;
  }
  return total;
}

std::string Input::readAll() {
  std::string bytes(kFirstBlock, '\0');
  std::size_t size = 0;
  while (true) {
    std::size_t const count = readFully(bytes.data() + size, bytes.size() - size);
    size += count;
    bool const isEnd = size < bytes.size();
    if (size > kMostBytes) throw cannot("read", title_, EFBIG);
    bytes.resize(isEnd ? size : std::min(2 * size, kMostBytes + 1));
    if (isEnd) return bytes;
  }
}

MemoryFile::MemoryFile(std::string_view bytes) : file_(openNameless()) {
  if (file_ < 0) throw cannot("make", "a temporary file", errno);
  try {
    writeAll(file_, bytes, "a temporary file");
    // Nobody who takes the name of a file could open it where the host has no /dev/fd.
    if (::access(path().c_str(), R_OK) != 0) throw cannot("open", path(), errno);
  } catch (...) {
    ::close(file_);
    throw;
  }
  ::lseek(file_, 0, SEEK_SET);  // where /dev/fd/N is no new opening
}

MemoryFile::~MemoryFile() { ::close(file_); }

ScratchFile::ScratchFile(std::string_view bytes) {
  std::error_code error;
  std::string folder = std::filesystem::temp_directory_path(error) / "vrxtool-XXXXXX";
  if (error) folder = "/tmp/vrxtool-XXXXXX";
  if (::mkdtemp(folder.data()) == nullptr) throw cannot("make", folder, errno);
  folder_ = folder;
  int const file = ::open(path().c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  try {
    if (file < 0) throw cannot("make", path(), errno);
    writeAll(file, bytes, path().c_str());
  } catch (...) {
    if (file >= 0) ::close(file);
    std::filesystem::remove_all(folder_, error);
    throw;
  }
  ::close(file);
}

ScratchFile::~ScratchFile() {
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

}  // namespace vrxtool

#include "examples/agent/whole_file.h"

#include <vrxutil/file.h>
#include <vrxutil/log.h>
#include <vrxutil/text.h>

#include <cerrno>
#include <cstdio>
#include <memory>

#include <sys/stat.h>
#include <unistd.h>

namespace agent {

namespace {

constexpr wchar_t kGroup[] = L"Agent";
constexpr off_t kMaxSizeInBytes = 64L * 1024 * 1024;

struct CloseFile {
  // What was written has been flushed, and that was checked.
  void operator()(std::FILE* file) const { static_cast<void>(std::fclose(file)); }
};

using File = std::unique_ptr<std::FILE, CloseFile>;

/// The system call at work and its file, as one trace text.
AString traceText(wchar_t const* call, wchar_t const* fileName) {
  return {AStringList(L",", /*afterEach=*/false) << call << fileName};
}

bool isRegular(struct stat const& status) {
  if (S_ISREG(status.st_mode)) return true;
  logError(kGroup, L"not a regular file");
  return false;
}

bool mayBeRead(wchar_t const* fileName) {
  ADetailTrace const trace(kGroup, traceText(L"stat", fileName));
  struct stat status;
  if (logErrnoIf(kGroup, ::stat(ACharString(fileName), &status) != 0)) return false;
  if (!isRegular(status)) return false;
  bool const isTooLarge = status.st_size > kMaxSizeInBytes;
  if (isTooLarge) errno = EFBIG;
  return !logErrnoIf(kGroup, isTooLarge);
}

bool mayBeReplaced(wchar_t const* fileName) {
  ADetailTrace const trace(kGroup, traceText(L"lstat", fileName));
  struct stat status;
  if (::lstat(ACharString(fileName), &status) != 0) return !logErrnoIf(kGroup, errno != ENOENT);
  return isRegular(status);
}

/// Makes the file, which must not exist yet, and sees it to the disk.
bool writeNewFile(wchar_t const* fileName, ABuffer const& bytes) {
  ADetailTrace const trace(kGroup, traceText(L"fwrite", fileName));
  File const file(std::fopen(ACharString(fileName), "wbx"));
  if (logErrnoIf(kGroup, file == nullptr)) return false;
  bool const complete =
      std::fwrite(bytes.getBytes(), 1, bytes.size(), file.get()) == bytes.size() &&
      std::fflush(file.get()) == 0 && ::fsync(::fileno(file.get())) == 0;
  return !logErrnoIf(kGroup, !complete);
}

}  // namespace

bool readWholeFile(wchar_t const* fileName, ABuffer* bytes) {
  return mayBeRead(fileName) && AFile::read(/*reportMissing=*/true, fileName, *bytes);
}

bool writeWholeFile(wchar_t const* fileName, ABuffer const& bytes) {
  if (!mayBeReplaced(fileName)) return false;
  // The process's number keeps two agents from writing the same neighbour.
  AString const newName = AString(fileName) << L"." << static_cast<long>(::getpid()) << L".new";
  ACharString const newPath(newName);
  static_cast<void>(std::remove(newPath));  // what a crash has left, if anything
  if (writeNewFile(newName, bytes)) {
    ADetailTrace const trace(kGroup, traceText(L"rename", fileName));
    if (!logErrnoIf(kGroup, std::rename(newPath, ACharString(fileName)) != 0)) return true;
  }
  static_cast<void>(std::remove(newPath));  // what failed has been logged
  return false;
}

}  // namespace agent

#include "linux/call_text.h"
#include "platform/common/file_io.h"
#include "platform/common/write_signals.h"
#include "text/conversion.h"

#include <vrxutil/file.h>
#include <vrxutil/log.h>

#include <cerrno>
#include <string>
#include <utility>

#include <fcntl.h>

namespace {

using vrxutil::detail::callText;
using vrxutil::detail::Descriptor;
using vrxutil::detail::WriteSignalsBlocked;

constexpr wchar_t kGroup[] = L"File";
constexpr unsigned kNewFileMode = 0666;  // as fopen(3) has it

/// fopen(3) that neither waits for the other end of a FIFO nor lets programs
/// that are started from here inherit the file. Null with errno set.
std::FILE* openStream(std::string const& path, char const* mode, int flags) {
  Descriptor file = vrxutil::detail::openWithoutWaiting(path, flags, kNewFileMode);
  std::FILE* const stream = file ? ::fdopen(file.get(), mode) : nullptr;
  if (stream != nullptr) file.release();
  return stream;
}

/// Logs the errno `number`; returns false.
bool failed(int number) {
  errno = number;
  logErrno(kGroup);
  return false;
}

}  // namespace

AFile::AFile() = default;

AFile::~AFile() {
  try {
    close();
  } catch (...) {  // what cannot be logged is not worth the process
  }
}

void AFile::close() { closeStream(); }

bool AFile::closeStream() {
  path = L"";
  std::FILE* const stream = std::exchange(handle, nullptr);
  if (stream == nullptr) return true;
  WriteSignalsBlocked const blocked;
  return !logErrnoIf(kGroup, std::fclose(stream) != 0);
}

bool AFile::openAs(char const* mode, int flags, AString const& newPath, bool reportMissing) {
  close();
  path = newPath;
  ADetailTrace const scope(kGroup, callText(L"fopen", mode, path));
  std::string const narrowPath = static_cast<char const*>(ACharString(path));
  handle = openStream(narrowPath, mode, flags);
  if (isOpen()) return true;
  logErrnoIf(kGroup, reportMissing || errno != ENOENT);
  return false;
}

bool AFile::open(bool reportMissing, AString const& newPath) {
  return openAs("r", O_RDONLY, newPath, reportMissing);
}

bool AFile::openWrite(AString const& newPath, bool append) {
  int const flags = O_WRONLY | O_CREAT | (append ? O_APPEND : O_TRUNC);
  return openAs(append ? "a" : "w", flags, newPath, /*reportMissing=*/true);
}

bool AFile::openAlways(AString const& newPath) { return openWrite(newPath, /*append=*/false); }

bool AFile::readLine(AString& line) {
  line.cpp_str().clear();
  ADetailTrace const scope(kGroup, callText(L"getc", path));
  if (!isOpen()) return failed(EBADF);

  bool const asciiAsItIs = vrxutil::detail::lowerHalfIsAscii();
  while (true) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread uses the stream
    int const byte = ::getc_unlocked(handle);
    if (byte == EOF) break;
    if (byte == '\n') return true;
    if (asciiAsItIs && byte > 0 && byte < 0x80) {
      line << static_cast<wchar_t>(byte);
    } else {
      line << static_cast<char>(byte);
    }
  }
  if (std::ferror(handle) != 0) return failed(errno);
  return line.size() > 0;
}

bool AFile::writeLine(AString const& line) {
  if (!isOpen()) return failed(EBADF);
  ACharString const text(line);
  WriteSignalsBlocked const blocked;
  bool const isWritten = std::fputs(text, handle) >= 0 && std::fputs("\n", handle) >= 0;
  return !logErrnoIf(kGroup, !isWritten);
}

bool AFile::seek(int origin) {
  ADetailTrace const scope(kGroup, callText(L"fseek", origin, path));
  if (!isOpen()) return failed(EBADF);
  WriteSignalsBlocked const blocked;  // output that is waiting goes out first
  return !logErrnoIf(kGroup, std::fseek(handle, 0, origin) != 0);
}

bool AFile::seekBegin() { return seek(SEEK_SET); }

bool AFile::seekEnd() { return seek(SEEK_END); }

bool AFile::read(ABuffer& contents) {
  ADetailTrace scope(kGroup, callText(L"ftell", path));
  if (!seekEnd()) return false;
  long const position = std::ftell(handle);
  if (logErrnoIf(kGroup, position < 0)) return false;
  if (!seekBegin()) return false;
  auto const size = static_cast<unsigned long>(position);
  if (!contents.tryAllocate(size, nullptr)) return false;
  scope.set(callText(L"fread", path), /*logNow=*/true);
  errno = EIO;  // of a file that has been cut meanwhile
  // Callers of a buffer write through what getBytes() returns.
  auto* const bytes = const_cast<unsigned char*>(contents.getBytes());
  if (logErrnoIf(kGroup, std::fread(bytes, 1, size, handle) < size)) return false;
  return contents.checkAllocation();
}

bool AFile::write(unsigned char const* bytes, int count) {
  if (count >= 0) return writeBytes(bytes, static_cast<unsigned long>(count));
  ADetailTrace const scope(kGroup, callText(L"fwrite", count, path));
  return failed(EINVAL);
}

bool AFile::write(ABuffer const& contents) {
  return writeBytes(contents.getBytes(), contents.size());
}

bool AFile::writeBytes(unsigned char const* bytes, unsigned long count) {
  ADetailTrace const scope(kGroup, callText(L"fwrite", AString(count), path));
  if (!isOpen()) return failed(EBADF);
  if (count == 0) return true;
  if (bytes == nullptr) return failed(EINVAL);
  WriteSignalsBlocked const blocked;
  return !logErrnoIf(kGroup, std::fwrite(bytes, 1, count, handle) < count);
}

bool AFile::read(bool reportMissing, AString const& name, ABuffer& contents) {
  AFile file;
  return file.open(reportMissing, name) && file.read(contents);
}

bool AFile::write(AString const& name, unsigned char const* bytes, int count) {
  AFile file;
  bool const isWritten = file.openAlways(name) && file.write(bytes, count);
  return file.closeStream() && isWritten;
}

bool AFile::write(AString const& name, ABuffer const& contents) {
  AFile file;
  bool const isWritten = file.openAlways(name) && file.write(contents);
  return file.closeStream() && isWritten;
}

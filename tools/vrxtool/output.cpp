#include "tools/vrxtool/output.h"

#include "tools/vrxtool/failure.h"

#include <cerrno>
#include <cstddef>

#include <poll.h>
#include <unistd.h>

namespace vrxtool {

namespace {

constexpr std::size_t kBlock = 65536;

/// Waits until somebody who shares the output, and made it non-blocking, gives way.
void waitForRoom() {
  pollfd output{.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
  static_cast<void>(::poll(&output, 1, -1));
}

[[noreturn]] void throwWriteError(int number) {
  if (number != EPIPE) throw cannot("write", "standard output", number);
  throw ReaderGone(cannot("write", "standard output", number).what());
}

void writeAll(std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t const count = ::write(STDOUT_FILENO, bytes.data(), bytes.size());
    if (count >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno == EAGAIN) {
      waitForRoom();
    } else if (errno != EINTR) {
      throwWriteError(errno);
    }
  }
}

}  // namespace

void Output::write(std::string_view bytes) {
  if (waiting_.size() + bytes.size() > kBlock) flush();
  if (bytes.size() > kBlock) return writeAll(bytes);
  waiting_ += bytes;
}

void Output::line(std::string_view text) {
  write(text);
  write("\n");
}

void Output::flush() {
  std::string const bytes = std::move(waiting_);
  waiting_.clear();
  writeAll(bytes);
}

}  // namespace vrxtool

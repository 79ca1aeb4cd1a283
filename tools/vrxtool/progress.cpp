#include "tools/vrxtool/progress.h"

#include <string>

#include <unistd.h>

namespace vrxtool {

namespace {

constexpr std::uint64_t kMebibyte = 1 << 20;
constexpr std::uint64_t kStep = 64 * kMebibyte;

void tell(std::string const& text) {
  static_cast<void>(!::write(STDERR_FILENO, text.data(), text.size()));
}

}  // namespace

Progress::Progress(std::optional<std::uint64_t> total)
    : total_(total), isVisible_(::isatty(STDERR_FILENO) == 1 && ::isatty(STDOUT_FILENO) != 1) {}

Progress::~Progress() {
  constexpr std::size_t kLongestLine = 60;
  if (shown_ > 0) tell("\r" + std::string(kLongestLine, ' ') + "\r");
}

void Progress::advance(std::uint64_t bytes) {
  done_ += bytes;
  if (isVisible_ && done_ - shown_ >= kStep) show();
}

void Progress::show() {
  shown_ = done_;
  std::string text = "\rvrxtool: " + std::to_string(done_ / kMebibyte) + " MiB";
  if (total_ && *total_ >= done_) {
    text += " of " + std::to_string(*total_ / kMebibyte) + " MiB, ";
    text += std::to_string(done_ * 100 / *total_) + " %";
  }
  tell(text);
}

}  // namespace vrxtool

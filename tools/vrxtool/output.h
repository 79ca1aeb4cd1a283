// Standard output, where nothing is lost without a word: what cannot be written, as to a
// full disk, is a failure. A reader that has gone is ReaderGone.

#pragma once

#include <string>
#include <string_view>

namespace vrxtool {

/// Gathers what goes to standard output. Operations throw Failure.
class Output {
public:
  void write(std::string_view bytes);

  /// write(), then a line feed.
  void line(std::string_view text);

  /// Hands everything to the system.
  void flush();

private:
  std::string waiting_;
};

}  // namespace vrxtool

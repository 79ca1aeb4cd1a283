// How far long work is, on a terminal.

#pragma once

#include <cstdint>
#include <optional>

namespace vrxtool {

/// A line on standard error that tells how much is done, from the first 64 MiB on; only
/// where that is a terminal, and standard output none.
class Progress {
public:
  /// `total` bytes are to come; none where that is not known.
  explicit Progress(std::optional<std::uint64_t> total);

  /// Wipes the line out.
  ~Progress();

  Progress(Progress const&) = delete;
  Progress& operator=(Progress const&) = delete;

  void advance(std::uint64_t bytes);

private:
  void show();

  std::optional<std::uint64_t> total_;
  std::uint64_t done_ = 0;
  std::uint64_t shown_ = 0;
  bool isVisible_;
};

}  // namespace vrxtool

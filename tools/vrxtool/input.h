// What commands read: files, and standard input where the name is "-".

#pragma once

#include "tools/vrxtool/signals.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vrxtool {

/// More than this is not held in memory: what has no end would fill it.
inline constexpr std::size_t kMostBytes = 512UL << 20;

/// Whether a FILE stands for standard input, or output.
inline bool isStandardStream(std::string_view name) { return name == "-"; }

/// What messages call a FILE that is read.
std::string titleOf(std::string const& name);

/// Throws Failure for a FILE that is there but cannot be changed by giving it new
/// contents: a FIFO would wait for somebody, a device would take what is written elsewhere.
/// A folder is left to who reads it.
void refuseIrregular(std::string const& name);

/// A FILE that is read from its beginning to its end. Operations throw Failure.
class Input {
public:
  explicit Input(std::string const& name);
  ~Input();
  Input(Input const&) = delete;
  Input& operator=(Input const&) = delete;

  std::string const& title() const { return title_; }

  /// The size of a regular file.
  std::optional<std::uint64_t> sizeInBytes() const;

  /// Reads what is there, at most `size` bytes; 0 at the end.
  std::size_t read(char* target, std::size_t size);

  /// Reads `size` bytes; fewer only at the end.
  std::size_t readFully(char* target, std::size_t size);

  /// Everything that is left, at most 512 MiB: a device may never end.
  std::string readAll();

private:
  std::string title_;
  int file_;
};

/// Bytes as a file for operations that take the name of one; for reading only. They
/// reach no disk where the host can avoid it.
class MemoryFile {
public:
  explicit MemoryFile(std::string_view bytes);
  ~MemoryFile();
  MemoryFile(MemoryFile const&) = delete;
  MemoryFile& operator=(MemoryFile const&) = delete;

  std::string path() const { return "/dev/fd/" + std::to_string(file_); }

private:
  int file_;
};

/// A file that operations may replace, in a folder of its own that only this user may
/// enter, and that goes with the object. Signals wait so long.
class ScratchFile {
public:
  explicit ScratchFile(std::string_view bytes);
  ~ScratchFile();
  ScratchFile(ScratchFile const&) = delete;
  ScratchFile& operator=(ScratchFile const&) = delete;

  std::string path() const { return folder_ + "/file"; }

  std::string bytes() const { return Input(path()).readAll(); }

private:
  SignalsBlocked blocked_;  // else what ends the tool would leave it behind
  std::string folder_;
};

}  // namespace vrxtool

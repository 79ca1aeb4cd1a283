// The file behind the logger once it is attached.

#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace vrxutil::detail {

/// A log file that is rotated by size: PATH.log, and up to five older ones,
/// PATH.1.log the youngest of them.
///
/// Each line is one write(2) of its own: it is in the file when write() returns,
/// however the process ends, a child after fork inherits nothing unwritten, and
/// lines of processes that share a file do not mix.
///
/// Used by one thread at a time. Nothing is thrown but std::bad_alloc.
class LogFile {
public:
  /// Nothing is opened yet.
  explicit LogFile(std::string path);
  ~LogFile();
  LogFile(LogFile const&) = delete;
  LogFile& operator=(LogFile const&) = delete;

  /// Opens the file unless it is open, making it and its folders as needed. Why
  /// it cannot be, naming the path.
  [[nodiscard]] std::optional<std::string> open();

  /// Appends `line`, which has its end, opening the file if it is not open. After
  /// a failure, whose reason is returned, the file is closed: the next call
  /// tries it anew.
  [[nodiscard]] std::optional<std::string> write(std::string_view line);

private:
  struct Sink;

  std::string path_;
  std::unique_ptr<Sink> sink_;
};

}  // namespace vrxutil::detail

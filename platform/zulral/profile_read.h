// Reading a profile file line by line, as far as it is needed.
//
// Internal; not installed. Only std::bad_alloc is thrown.

#pragma once

#include "platform/common/file_io.h"
#include "platform/zulral/profile_line.h"

#include <optional>
#include <string>
#include <string_view>

namespace vrxutil::detail {

/// The lines of a regular file, from the first on.
class ProfileReader {
public:
  /// A file that cannot be opened, or is no regular file, has no lines.
  explicit ProfileReader(std::string const& path);

  /// Takes the next line apart; its texts live until the next call. False at the
  /// end of the file, and after a failure.
  bool next(ProfileLine& line);

private:
  std::string_view rest() const;
  bool readMore();
  std::optional<std::string_view> nextText();

  Descriptor file_;
  std::string buffer_;
  std::size_t begin_ = 0;  // of what has not been taken from the buffer yet
  bool isFirst_ = true;
};

/// Moves to the first section of that name; false where there is none.
bool findSection(ProfileReader& reader, ProfileName const& section);

/// The value of the first pair of that name up to the next header.
std::optional<std::wstring> findValue(ProfileReader& reader, ProfileName const& key);

/// The names of all headers, or of the pairs up to the next header, each followed by
/// a NUL; no more once the list has `enough` characters.
std::wstring listNames(ProfileReader& reader, LineKind kind, std::size_t enough);

}  // namespace vrxutil::detail

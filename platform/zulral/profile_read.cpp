#include "platform/zulral/profile_read.h"

#include "platform/common/utf8.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vrxutil::detail {

namespace {

constexpr std::size_t kBlock = 16384;

bool isRegular(Descriptor const& file) {
  struct stat status {};

  return ::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode);
}

ssize_t readSome(Descriptor const& file, char* target, std::size_t size) {
  while (true) {
    ssize_t const count = ::read(file.get(), target, size);
    if (count >= 0 || errno != EINTR) return count;
  }
}

}  // namespace

ProfileReader::ProfileReader(std::string const& path) : file_(openWithoutWaiting(path, O_RDONLY)) {
  if (file_ && !isRegular(file_)) file_.close();
}

std::string_view ProfileReader::rest() const { return std::string_view(buffer_).substr(begin_); }

/// False where there is nothing more. After a failure what has been read of a line
/// is dropped: half a line is none.
bool ProfileReader::readMore() {
  if (!file_) return false;
  buffer_.erase(0, begin_);
  begin_ = 0;
  std::size_t const old = buffer_.size();
  std::size_t const room = std::min(std::max(old, kBlock), kLongestLine + 1 - old);
  buffer_.resize(old + room);
  ssize_t const size = room == 0 ? -1 : readSome(file_, buffer_.data() + old, room);
  buffer_.resize(size < 0 ? 0 : old + static_cast<std::size_t>(size));
  if (size <= 0) file_.close();
  return size > 0;
}

/// The next line without its LF.
std::optional<std::string_view> ProfileReader::nextText() {
  std::size_t length = rest().find('\n');
  while (length == std::string_view::npos) {
    std::size_t const searched = rest().size();
    if (!readMore()) break;
    length = rest().find('\n', searched);
  }
  std::string_view const text = rest().substr(0, length);
  bool const isLast = length == std::string_view::npos;
  if (isLast && text.empty()) return std::nullopt;
  begin_ += isLast ? text.size() : length + 1;
  return text;
}

bool ProfileReader::next(ProfileLine& line) {
  std::optional<std::string_view> text = nextText();
  if (!text) return false;
  if (isFirst_ && text->starts_with(kByteOrderMark)) text->remove_prefix(kByteOrderMark.size());
  isFirst_ = false;
  line = parseProfileLine(*text);
  return true;
}

bool findSection(ProfileReader& reader, ProfileName const& section) {
  ProfileLine line;
  while (reader.next(line)) {
    if (line.kind == LineKind::header && section.matches(line.name)) return true;
  }
  return false;
}

std::optional<std::wstring> findValue(ProfileReader& reader, ProfileName const& key) {
  ProfileLine line;
  while (reader.next(line) && line.kind != LineKind::header) {
    if (line.kind == LineKind::pair && key.matches(line.name)) return profileValue(line.rest);
  }
  return std::nullopt;
}

std::wstring listNames(ProfileReader& reader, LineKind kind, std::size_t enough) {
  std::wstring list;
  ProfileLine line;
  while (list.size() < enough && reader.next(line)) {
    if (line.kind == kind) {
      list.append(lossyWide(line.name)) += L'\0';
    } else if (line.kind == LineKind::header) {
      break;
    }
  }
  return list;
}

}  // namespace vrxutil::detail

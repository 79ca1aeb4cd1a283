#include "platform/common/file_io.h"
#include "platform/common/utf8.h"
#include "platform/zulral/profile_edit.h"
#include "platform/zulral/profile_line.h"
#include "platform/zulral/profile_lock.h"
#include "platform/zulral/profile_read.h"

#include <zulral/zulral.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string>
#include <string_view>

namespace vrxutil::detail {

namespace {

/// The largest file that is edited, in bytes.
constexpr std::size_t kLargestProfile = std::size_t{256} << 20;

/// Copies as much of `text` as there is room for, with a terminator.
unsigned long copyText(std::wstring_view text, wchar_t* buffer, unsigned long size) {
  if (buffer == nullptr || size == 0) return 0;
  std::size_t const length = std::min<std::size_t>(text.size(), size - 1);
  text.copy(buffer, length);
  buffer[length] = L'\0';
  return length;
}

/// Copies a list of texts that each end in a NUL; one more ends the list.
unsigned long copyList(std::wstring_view list, wchar_t* buffer, unsigned long size) {
  if (size < 2 || list.size() < size) {
    unsigned long const length = copyText(list, buffer, size);
    if (list.empty() && buffer != nullptr && size >= 2) buffer[1] = L'\0';
    return length;
  }
  unsigned long const length = copyText(list.substr(0, size - 2), buffer, size);
  if (buffer != nullptr) buffer[size - 1] = L'\0';
  return length;
}

/// The value; nothing where there is none.
std::optional<std::wstring> readValue(std::string const& path, wchar_t const* section,
                                      wchar_t const* key) {
  ProfileReader reader(path);
  if (!findSection(reader, ProfileName(section))) return std::nullopt;
  return findValue(reader, ProfileName(key));
}

/// The names of the sections, or with a `section` of its keys; `enough` characters
/// of them.
std::wstring readList(std::string const& path, wchar_t const* section, std::size_t enough) {
  ProfileReader reader(path);
  if (section == nullptr) return listNames(reader, LineKind::header, enough);
  if (!findSection(reader, ProfileName(section))) return {};
  return listNames(reader, LineKind::pair, enough);
}

bool hasAnyOf(std::wstring_view text, wchar_t const* characters) {
  return text.find_first_of(characters) != std::wstring_view::npos;
}

/// What is to be written; without key or value, what is to be removed.
struct Change {
  std::wstring_view section{};
  std::optional<std::wstring_view> key{};
  std::optional<std::wstring_view> value{};

  bool isRemoval() const { return !key || !value; }
};

/// Whether a file can hold that.
bool isValid(Change const& change) {
  if (hasAnyOf(change.section, L"\r\n]")) return false;
  if (change.value && hasAnyOf(*change.value, L"\r\n")) return false;
  if (!change.key) return true;
  std::wstring_view const key = *change.key;
  return !key.empty() && key.front() != L';' && key.front() != L'[' && !hasAnyOf(key, L"\r\n=");
}

/// False where the text has no UTF-8 form.
bool encode(std::optional<std::wstring_view> text, std::string& utf8) {
  return !text || appendUtf8(*text, utf8) == text->size();
}

/// Whether the pair, or a header for it, would be a line that cannot be read.
bool isTooLong(ProfilePair const& pair) {
  constexpr std::size_t kMost = kLongestLine - std::string_view("[]\r").size();
  return pair.section.size() > kMost || pair.key.size() + pair.value.size() > kMost;
}

std::string edited(std::string_view bytes, Change const& change, ProfilePair const& pair) {
  ProfileName const section(change.section);
  if (!change.key) return withoutSection(bytes, section);
  ProfileName const key(*change.key);
  return change.value ? withPair(bytes, section, key, pair) : withoutKey(bytes, section, key);
}

/// 0, or errno's number.
int writeChange(std::string const& path, Change const& change) {
  if (!isValid(change)) return EINVAL;
  ProfilePair pair;
  bool const isText = encode(change.section, pair.section) && encode(change.key, pair.key) &&
                      encode(change.value, pair.value);
  if (!isText) return EILSEQ;
  if (isTooLong(pair)) return EFBIG;

  ProfileLock lock;
  bool const isRemoval = change.isRemoval();
  int const number =
      lock.acquire(path, isRemoval ? ProfileLock::Missing::fail : ProfileLock::Missing::make);
  if (number == ENOENT && isRemoval) return 0;
  if (number != 0) return number;

  std::string bytes;
  std::optional<FileError> error = readFile(lock.file(), lock.entry().path, kLargestProfile, bytes);
  if (error) return error->number;
  std::string const text = edited(bytes, change, pair);
  if (text.size() > kLargestProfile) return EFBIG;
  if (text != bytes) error = replaceFile(lock.entry(), lock.file(), text);
  return error ? error->number : 0;
}

std::optional<std::wstring_view> trimmedUnlessNull(wchar_t const* text) {
  if (text == nullptr) return std::nullopt;
  return trimmed(std::wstring_view(text));
}

/// 0, or errno's number.
int writeProfile(wchar_t const* section, wchar_t const* key, wchar_t const* value,
                 wchar_t const* fileName) {
  if (section == nullptr || fileName == nullptr || *fileName == L'\0') return EINVAL;
  std::optional<std::string> const path = narrowFileName(fileName);
  if (!path) return EILSEQ;
  Change change{trimmed(std::wstring_view(section)), trimmedUnlessNull(key)};
  if (value != nullptr) change.value = value;
  return writeChange(*path, change);
}

}  // namespace

}  // namespace vrxutil::detail

using namespace vrxutil::detail;

unsigned long ZuDB_GetPrivateProfileStringW(wchar_t const* section, wchar_t const* key,
                                            wchar_t const* defaultText, wchar_t* buffer,
                                            unsigned long size, wchar_t const* fileName) {
  std::optional<std::string> const path = narrowFileName(fileName == nullptr ? L"" : fileName);
  if (section == nullptr || key == nullptr) {
    return copyList(path ? readList(*path, section, size) : std::wstring(), buffer, size);
  }
  std::optional<std::wstring> const value = path ? readValue(*path, section, key) : std::nullopt;
  if (value) return copyText(*value, buffer, size);
  return copyText(defaultText == nullptr ? L"" : defaultText, buffer, size);
}

int ZuDB_WritePrivateProfileStringW(wchar_t const* section, wchar_t const* key,
                                    wchar_t const* value, wchar_t const* fileName) {
  int const number = writeProfile(section, key, value, fileName);
  if (number == 0) return 1;
  errno = number;  // last: what is destroyed above may change it
  return 0;
}

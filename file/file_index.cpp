#include "linux/call_text.h"

#include <vrxutil/file.h>
#include <vrxutil/log.h>

#include <cerrno>
#include <string>
#include <string_view>
#include <utility>

namespace {

constexpr wchar_t kGroup[] = L"FileInx";

/// What glob(3) means by a result where it has not set errno.
constexpr int errnoOf(int result) {
  switch (result) {
    case GLOB_NOSPACE:
      return ENOMEM;
    case GLOB_NOMATCH:
      return ENOENT;
    default:
      return EIO;
  }
}

/// `path` as a pattern that matches nothing else. Byte by byte, as glob(3) takes
/// the marks off again: in some encodings they are parts of characters.
std::string quoted(std::string_view path) {
  std::string pattern;
  for (char const byte : path) {
    if (std::string_view("*?[\\").find(byte) != std::string_view::npos) pattern += '\\';
    pattern += byte;
  }
  return pattern;
}

}  // namespace

AFileIndex::AFileIndex() : matches{}, cursor(nullptr), held(0) {}

AFileIndex::AFileIndex(bool reportNoMatch, wchar_t const* folder, wchar_t const* pattern)
    : AFileIndex() {
  open(reportNoMatch, folder, pattern);
}

AFileIndex::~AFileIndex() { close(); }

bool AFileIndex::open(bool reportNoMatch, wchar_t const* folder, wchar_t const* pattern) {
  close();
  AString path;
  joinPath(&path, folder, pattern);
  ADetailTrace const scope(kGroup, vrxutil::detail::callText(L"glob", path));
  return find(reportNoMatch, ACharString(path));
}

bool AFileIndex::openFolder(AString const& folder) {
  close();
  APath const path(folder, L"*");
  ADetailTrace const scope(kGroup, vrxutil::detail::callText(L"glob", path));
  ACharString const narrowPath(path);
  std::string_view narrowFolder(narrowPath);
  narrowFolder.remove_suffix(1);  // the "*"
  return find(/*reportNoMatch=*/false, (quoted(narrowFolder) + '*').c_str());
}

bool AFileIndex::find(bool reportNoMatch, char const* pattern) {
  errno = 0;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): safe (POSIX); no tilde asks for users
  int const result = ::glob(pattern, GLOB_MARK | GLOB_NOSORT, nullptr, &matches);
  if (result == 0) {
    held = 1;
    cursor = matches.gl_pathv;
    return true;
  }
  int const number = errno != 0 ? errno : errnoOf(result);
  ::globfree(&matches);  // what was found before it failed
  errno = number;
  logErrnoIf(kGroup, result != GLOB_NOMATCH || reportNoMatch);
  return false;
}

bool AFileIndex::moveNext(AString* path, bool* isFolder, AString* name, unsigned long* size) {
  if (cursor == nullptr || *cursor == nullptr) return false;
  AString match(*cursor++);
  bool const isMarked = match.const_cpp_str().ends_with(L'/');
  if (isMarked) match.cpp_str().pop_back();
  if (isFolder != nullptr) *isFolder = isMarked;
  if (size != nullptr) *size = 0;
  if (name != nullptr) splitPath(match, nullptr, name);
  if (path != nullptr) *path = std::move(match);
  return true;
}

void AFileIndex::close() {
  cursor = nullptr;
  if (std::exchange(held, 0) != 0) ::globfree(&matches);
}

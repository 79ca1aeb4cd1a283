#include "linux/call_text.h"

#include <vrxutil/file.h>
#include <vrxutil/log.h>

#include <cerrno>
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
  ACharString const narrowPath(path);
  errno = 0;
  int const result = ::glob(narrowPath, GLOB_MARK | GLOB_NOSORT, nullptr, &matches);
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

#include "linux/call_text.h"
#include "platform/common/file_io.h"

#include <vrxcomn/configuration.h>
#include <vrxutil/file.h>
#include <vrxutil/log.h>
#include <zulral/zulral.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <deque>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using vornix_com::oxa::configuration::IConfiguration;
using vrxutil::detail::callText;
using vrxutil::detail::Descriptor;
using Status = struct stat;

constexpr wchar_t kGroup[] = L"Filer";
constexpr wchar_t kSizeGroup[] = L"filer";
constexpr wchar_t kAlternateFolder[] = L"etc";
constexpr wchar_t kSeparator = L'/';
constexpr mode_t kFolderMode = 0700;

/// A path with fewer characters is refused by deleteFolders().
constexpr std::size_t kShortestTree = 4;

/// A path that is asked for until there is one, and then stays.
class KeptPath {
public:
  /// The path; where there is none yet, what `ask` answers. It is asked without
  /// holding the lock: the service behind it may itself come here.
  template <class Ask>
  wchar_t const* get(Ask ask) {
    wchar_t const* const known = keep(std::wstring());
    return *known != L'\0' ? known : keep(ask());
  }

private:
  /// Keeps `answer` if nothing is kept; the characters of what is.
  wchar_t const* keep(std::wstring const& answer) {
    std::lock_guard const lock(mutex_);
    if (path_.size() == 0) path_ = answer.c_str();
    return path_.size() > 0 ? static_cast<wchar_t const*>(path_) : L"";
  }

  std::mutex mutex_;
  AString path_;
};

/// Logs why the call before failed, unless errno is one of `quiet`; returns
/// whether it is.
bool isQuiet(std::initializer_list<int> quiet) {
  for (int const number : quiet) {
    if (errno == number) return true;
  }
  logErrno(kGroup);
  return false;
}

char const* lastComponent(char const* path) {
  char const* const separator = std::strrchr(path, '/');
  return separator != nullptr ? separator + 1 : path;
}

/// unlinkat(2) of `path`; where `folder` is not AT_FDCWD, of its last component in
/// that folder, if the path as a whole is not too long.
int removeEntry(int folder, AString const& path, int flags) {
  ACharString const narrowPath(path);
  if (folder == AT_FDCWD) return ::unlinkat(folder, narrowPath, flags);
  if (narrowPath.size() < PATH_MAX) return ::unlinkat(folder, lastComponent(narrowPath), flags);
  errno = ENAMETOOLONG;
  return -1;
}

bool privateDeleteFile(AString const& path, int folder = AT_FDCWD) {
  ADetailTrace const scope(kGroup, callText(L"unlink", path));
  return removeEntry(folder, path, 0) == 0 || isQuiet({ENOENT});
}

bool privateDeleteFolder(bool emptyOnly, AString const& path, int folder = AT_FDCWD) {
  ADetailTrace const scope(kGroup, callText(L"rmdir", path));
  if (removeEntry(folder, path, AT_REMOVEDIR) == 0) return true;
  // Some systems say EEXIST of a folder that has entries (POSIX rmdir).
  if (emptyOnly) return isQuiet({ENOENT, ENOTDIR, ENOTEMPTY, EEXIST});
  return isQuiet({ENOENT, ENOTDIR});
}

bool getFileSize(bool mustExist, AString const& path, long& size) {
  ADetailTrace const scope(kSizeGroup, callText(L"stat", path));
  ACharString const narrowPath(path);
  Status status{};
  if (::stat(narrowPath, &status) != 0) {
    logErrnoIf(kSizeGroup, mustExist || errno != ENOENT);
    return false;
  }
  size = static_cast<std::int32_t>(status.st_size);
  return true;
}

/// What access(2) is to test; nothing for an unknown kind.
std::optional<int> accessMode(AFiler::AFileAccess access) {
  switch (access) {
    case AFiler::readAccess:
      return R_OK;
    case AFiler::executeAccess:
      return X_OK;
    case AFiler::writeAccess:
    case AFiler::changeAccess:
      return W_OK;
  }
  return std::nullopt;
}

/// Whether the C locale can express every character of `path`: one that it
/// cannot becomes "?", which is another name and, in a pattern, any character.
bool isExpressible(wchar_t const* path) {
  return AString(static_cast<char const*>(ACharString(path))).const_cpp_str() == path;
}

bool isLink(AString const& path) {
  ACharString const narrowPath(path);
  Status status{};
  return ::lstat(narrowPath, &status) == 0 && S_ISLNK(status.st_mode);
}

/// `path` without the "/" at its end, which would lead through a link.
AString withoutFinalSeparators(wchar_t const* path) {
  AString entry(path);
  std::wstring& text = entry.cpp_str();
  while (text.size() > 1 && text.back() == kSeparator) text.pop_back();
  return entry;
}

/// Opens a folder by its path, or by its name in `folder` where that is not
/// AT_FDCWD. A symbolic link in its place is ENOTDIR or ELOOP.
Descriptor openFolder(int folder, char const* name) {
  return Descriptor(::openat(folder, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

}  // namespace

namespace vrxutil::detail {

/// Removes a folder and what is in it. Not recursive: levels may be many.
///
/// Paths serve the records and the enumeration alone, since others may put a link
/// in a folder's place at any time. Entries are removed from the folder that has
/// been opened, and that no link led to. One is open at a time, the innermost; ".."
/// leads back from it, if to the same folder as before.
class TreeDeletion {
public:
  /// `top` without "/" at its end, so that no link is followed, and as it was given.
  bool run(AString const& top, AString const& givenTop) {
    enter(givenTop, openFolder(AT_FDCWD, ACharString(top)));
    while (!levels_.empty()) step();
    return isDeleted_;
  }

private:
  /// A folder that is being emptied.
  struct Level {
    AString path;
    Status status{};
    AFileIndex entries;
  };

  void enter(AString const& path, Descriptor folder) {
    Level& level = levels_.emplace_back();
    level.path = path;
    level.entries.openFolder(path);
    folder_ = std::move(folder);
    // One that cannot be opened may still be empty, or missing.
    if (!folder_ || ::fstat(folder_.get(), &level.status) != 0) level.entries.close();
  }

  void step() {
    AString path;
    bool isFolder = false;
    if (!levels_.back().entries.moveNext(&path, &isFolder, nullptr, nullptr)) {
      leave();
    } else if (isFolder) {
      removeMarked(path);
    } else {
      note(privateDeleteFile(path, folder_.get()));
    }
  }

  /// What glob takes for a folder may be a link to one, or have become one.
  void removeMarked(AString const& path) {
    ACharString const narrowPath(path);
    Descriptor folder = openFolder(folder_.get(), lastComponent(narrowPath));
    if (folder) {
      enter(path, std::move(folder));
    } else if (errno == ENOTDIR || errno == ELOOP) {
      note(privateDeleteFile(path, folder_.get()));
    } else {
      note(privateDeleteFolder(/*emptyOnly=*/false, path, folder_.get()));
    }
  }

  /// Removes the innermost folder from the one that holds it.
  void leave() {
    AString const path = std::move(levels_.back().path);
    levels_.pop_back();
    if (levels_.empty()) {
      note(AFiler::deleteFolder(path));
    } else if (goUp()) {
      note(privateDeleteFolder(/*emptyOnly=*/false, path, folder_.get()));
    } else {
      ADetailTrace const scope(kGroup, callText(L"rmdir", path));
      note(isQuiet({}));
      levels_.clear();
    }
  }

  /// False with errno set.
  bool goUp() {
    Descriptor above = openFolder(folder_.get(), "..");
    Status status{};
    if (!above || ::fstat(above.get(), &status) != 0) return false;
    Status const& expected = levels_.back().status;
    errno = ESTALE;
    if (status.st_dev != expected.st_dev || status.st_ino != expected.st_ino) return false;
    folder_ = std::move(above);
    return true;
  }

  void note(bool isRemoved) { isDeleted_ = isRemoved && isDeleted_; }

  std::deque<Level> levels_;  // an AFileIndex stays where it is made
  Descriptor folder_;
  bool isDeleted_ = true;
};

}  // namespace vrxutil::detail

// The paths are never destroyed: they are asked for to the very end of a process.

wchar_t const* AFiler::getOxaDataPath() {
  static auto& path = *new KeptPath;
  return path.get([] { return IConfiguration::GetConfiguration()->GetFrameworkDataDirectory(); });
}

wchar_t const* AFiler::getUpdaterDataPath() {
  static auto& path = *new KeptPath;
  return path.get([] { return IConfiguration::GetConfiguration()->GetUpdaterDataDir(); });
}

wchar_t const* AFiler::getAlternateDataPath() {
  static auto& path = *new KeptPath;
  wchar_t const* const folder = getOxaDataPath();
  if (*folder == L'\0') return kAlternateFolder;  // not kept: the folder may come yet
  return path.get([folder] { return APath(folder, kAlternateFolder).const_cpp_str(); });
}

bool AFiler::getTempFilePath(AString& path) {
  ADetailTrace const scope(kGroup, L"tempnam");
  // NOLINTNEXTLINE(concurrency-mt-unsafe): safe (POSIX), but for the name's race
  std::unique_ptr<char, decltype(&std::free)> const name(::tempnam("/var/tmp/", "vrx"), &std::free);
  if (logErrnoIf(kGroup, name == nullptr)) return false;
  path = static_cast<char const*>(name.get());
  return true;
}

bool AFiler::deleteFile(AString const& path) { return privateDeleteFile(path); }

bool AFiler::createDirectory(AString const& path) {
  ADetailTrace const scope(kGroup, callText(L"mkdir", path));
  ACharString const narrowPath(path);
  return ::mkdir(narrowPath, kFolderMode) == 0 || isQuiet({EEXIST});
}

bool AFiler::copyFile(AString const& source, AString const& target) {
  ADetailTrace const scope(kGroup, callText(L"CopyFile", source, target));
  ACharString const narrowSource(source);
  ACharString const narrowTarget(target);
  if (zulCopyFile(narrowSource, narrowTarget, /*refuseReplacing=*/0) != 0) return true;
  logError(kGroup, L"Failed");
  return false;
}

bool AFiler::renameFile(AString const& /*from*/, AString const& /*to*/) {
  logInternalError(kGroup, L"Test ");
  return false;
}

bool AFiler::deleteFolder(AString const& path) {
  return privateDeleteFolder(/*emptyOnly=*/false, path);
}

bool AFiler::deleteEmptyFolder(AString const& path) {
  return privateDeleteFolder(/*emptyOnly=*/true, path);
}

bool AFiler::deleteFolders(AString const& path) {
  if (std::wcslen(path) < kShortestTree) return false;
  if (!isExpressible(path)) {
    ADetailTrace const scope(kGroup, callText(L"deleteFolders", path));
    errno = EILSEQ;
    logErrno(kGroup);
    return false;
  }
  AString const entry = withoutFinalSeparators(path);
  return isLink(entry) ? deleteFile(entry) : vrxutil::detail::TreeDeletion().run(entry, path);
}

bool AFiler::getFileAccessibility(AString const& path, AFileAccess access, bool& exists,
                                  bool& accessible) {
  std::optional<int> const mode = accessMode(access);
  if (!mode) {
    logInternalError(kGroup, AString(L"getFileAccessibility had unexpected access ")
                                 << static_cast<int>(access));
    return false;
  }
  ADetailTrace const scope(kGroup, callText(L"access", path, *mode));
  ACharString const narrowPath(path);
  bool const isAllowed = ::access(narrowPath, *mode) == 0;
  bool const isThere = isAllowed || errno == EACCES || errno == EROFS;
  if (!isThere && !isQuiet({ENOENT, ENOTDIR})) return false;
  exists = isThere;
  accessible = isAllowed;
  return true;
}

bool AFiler::getFileAccessibility(AString const& path, AFileAccess access, bool& exists) {
  bool accessible = false;
  return getFileAccessibility(path, access, exists, accessible);
}

bool AFiler::getExistingFileSize(AString const& path, long& size) {
  return getFileSize(/*mustExist=*/true, path, size);
}

bool AFiler::tryGetFileSize(AString const& path, long& size) {
  return getFileSize(/*mustExist=*/false, path, size);
}

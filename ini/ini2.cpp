// The store of AnIni2, and its writer.

#include "ini/pair_index.h"
#include "ini/parsed_pairs.h"
#include "linux/call_text.h"
#include "platform/common/file_io.h"

#include <vrxutil/binary.h>
#include <vrxutil/ini.h>
#include <vrxutil/log.h>
#include <vrxutil/xml.h>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using vrxutil::detail::Descriptor;
using vrxutil::detail::FileError;

constexpr wchar_t kGroup[] = L"ini";

std::wstring textOf(AnIni2::SectionMap const& sections) {
  std::size_t size = 0;
  for (auto const& [name, pairs] : sections) {
    size += name.size() + 4;  // "[", "]" and two line feeds
    for (auto const& [key, value] : pairs) size += key.size() + value.size() + 2;
  }
  std::wstring text;
  text.reserve(size);
  for (auto const& [name, pairs] : sections) {
    text.append(1, L'[').append(name).append(L"]\n");
    for (auto const& [key, value] : pairs) {
      text.append(key).append(1, L'=').append(value).append(1, L'\n');
    }
    text += L'\n';
  }
  return text;
}

/// Whether a file that does not exist can be made in its folder, or in that of
/// what a symbolic link leads to.
bool canBeMade(std::string path) {
  if (path.empty() || vrxutil::detail::followLinks(path)) return false;
  std::string const folder = path.substr(0, path.rfind('/') + 1);
  return ::faccessat(AT_FDCWD, folder.empty() ? "." : folder.c_str(), W_OK | X_OK, AT_EACCESS) == 0;
}

/// Whether the process may give its files the group `group`.
bool hasGroup(gid_t group) {
  if (group == ::getegid()) return true;
  int const count = std::max(::getgroups(0, nullptr), 0);
  std::vector<gid_t> groups(static_cast<std::size_t>(count));
  return ::getgroups(count, groups.data()) == count &&
         std::find(groups.begin(), groups.end(), group) != groups.end();
}

/// Whether another file can take the place of this one and be like it to all who
/// know it: it has no other name, and its owner and group can be kept.
bool isReplaceable(struct stat const& status) {
  bool const isOurs = status.st_uid == ::geteuid() && hasGroup(status.st_gid);
  return S_ISREG(status.st_mode) && status.st_nlink == 1 && (isOurs || ::geteuid() == 0);
}

/// Whether the folder, or the place in it, allows no replacing: no right to it, a
/// read-only folder, a file that something is mounted on.
bool isRefusal(int number) {
  return number == EACCES || number == EPERM || number == EROFS || number == EBUSY;
}

/// What errno says of the call before.
FileError lastError(char const* action, std::string const& path) {
  int const number = errno;
  return {action, path, number};
}

std::optional<FileError> writeInPlace(Descriptor& file, bool isRegular, std::string const& path,
                                      std::string_view bytes) {
  if (isRegular && ::ftruncate(file.get(), 0) != 0) return lastError("cut", path);
  if (!vrxutil::detail::writeAll(file.get(), bytes)) return lastError("write", path);
  if (!file.close()) return lastError("close", path);
  return std::nullopt;
}

/// Gives the file at `path` new contents; `file` is open for it, or none where it
/// does not exist yet.
std::optional<FileError> rewrite(Descriptor& file, std::string const& path,
                                 std::string_view bytes) {
  if (!file) return vrxutil::detail::replaceFile(path, bytes);

  struct stat status {};

  if (::fstat(file.get(), &status) != 0) return lastError("write", path);
  if (isReplaceable(status)) {
    std::optional<FileError> failure = vrxutil::detail::replaceFile(path, bytes);
    if (!failure || !isRefusal(failure->number)) return failure;
  }
  return writeInPlace(file, S_ISREG(status.st_mode), path, bytes);
}

void logFailure(FileError const& error, AString const& fileName) {
  AString const action(error.action);
  ATrace const scope(kGroup, vrxutil::detail::callText(action, fileName), /*detail=*/true,
                     /*logNow=*/false);
  errno = error.number;
  logErrno(kGroup);
}

}  // namespace

AnIni2::AnIni2(AString const& name) : AnIni(name) { initialize(); }

AnIni2::~AnIni2() {
  try {
    AnIni2::close();
  } catch (std::exception const& exception) {
    logLostChanges(exception);
  } catch (...) {
    return;  // of a logger, which is not called once more
  }
}

bool AnIni2::open(AString const& name) {
  // It may be the present one, which close() empties.
  // NOLINTNEXTLINE(performance-unnecessary-copy-initialization)
  AString const newName(name);
  close();
  AnIni::open(newName);
  initialize();
  return parsed();
}

void AnIni2::close() {
  write();
  clear();
  parsed_ = 0;
  AnIni::close();
}

void AnIni2::clear() {
  index_.reset();
  sections_.clear();
  recent_ = sections_.end();
}

// NOLINTNEXTLINE(bugprone-exception-escape): the second exception is for nobody
void AnIni2::logLostChanges(std::exception const& exception) noexcept {
  try {
    logInternalError(kGroup, AString(L"Exception ")
                                 << exception.what() << L" trying to write " << fileName);
  } catch (...) {
    return;  // for lack of memory or by the logger: nobody can be told
  }
}

bool AnIni2::get(bool required, AString const& section, AString const& key, AString& value) {
  if (!parsed()) return AnIni::get(required, section, key, value);

  value.cpp_str().clear();
  if (std::wstring const* const found = find(section.const_cpp_str(), key.const_cpp_str())) {
    value.cpp_str() = *found;
    return true;
  }
  if (required) {
    logError(kGroup, AString(L"Couldn't read required section \"")
                         << section << L"\", setting \"" << key << L"\" from file \"" << fileName
                         << L"\"");
  }
  return false;
}

std::wstring const* AnIni2::find(std::wstring const& section, std::wstring const& key) {
  if (makeIndex()) return index_->find(section, key);
  if (!findSection(section)) return nullptr;
  auto const found = recent_->second.find(key);
  return found == recent_->second.end() ? nullptr : &found->second;
}

bool AnIni2::makeIndex() {
  try {
    if (!index_) index_ = std::make_unique<vrxutil::detail::PairIndex>(sections_);
  } catch (std::bad_alloc const&) {
    return false;  // the maps know as much
  }
  return index_->isUsable();
}

void AnIni2::addToIndex(KeyMap::value_type const& pair) {
  try {
    if (index_) index_->add(*recent_, pair);
  } catch (std::bad_alloc const&) {
    index_.reset();
  }
}

void AnIni2::set(AString const& section, AString const& key, AString const& value) {
  if (!parsed()) return AnIni::set(section, key, value);
  insert(section.const_cpp_str(), key.const_cpp_str(), value.const_cpp_str());
}

bool AnIni2::getIniMap(SectionMap& out) {
  if (!parsed()) {
    logInternalError(kGroup, L"Ini file not parsed in AnIni2");
    clear();
    return false;
  }
  out = sections_;
  return true;
}

bool AnIni2::insert(std::wstring const& section, std::wstring const& key,
                    std::wstring const& value) {
  auto const items = [&] {
    return AString(section) << L", " << key.c_str() << L", and " << value.c_str();
  };
  bool const isSectionAlone = key.empty() && value.empty() && !section.empty();
  if (key.empty() && !isSectionAlone) {
    logInternalError(kGroup, AString(L"Unable to insert ") << items() << L" into the map.");
    return false;
  }
  try {
    store(section, key, value);
  } catch (std::exception const& exception) {
    logInternalError(kGroup, AString(L"Exception ") << exception.what() << L" trying to insert "
                                                    << items() << L" into the map");
    return false;
  }
  return true;
}

bool AnIni2::findSection(std::wstring const& name) {
  if (recent_ != sections_.end() && recent_->first == name) return true;
  auto const found = sections_.find(name);
  if (found == sections_.end()) return false;
  recent_ = found;
  return true;
}

// Entries that come in ascending order, as write() leaves them, are found to
// belong at the end without a search.
void AnIni2::store(std::wstring const& section, std::wstring const& key,
                   std::wstring const& value) {
  if (!findSection(section)) {
    KeyMap pairs;
    pairs.emplace(key, value);
    recent_ = sections_.emplace_hint(sections_.end(), section, std::move(pairs));
    addToIndex(*recent_->second.begin());
    dirty_ = 1;
    return;
  }
  KeyMap& pairs = recent_->second;
  std::size_t const before = pairs.size();
  auto const pair = pairs.try_emplace(pairs.end(), key, value);
  bool const isNew = pairs.size() != before;
  if (!isNew && pair->second == value) return;
  if (isNew) {
    addToIndex(*pair);
  } else {
    pair->second = value;
  }
  dirty_ = 1;
}

void AnIni2::write() {
  if (dirty_ == 0) return;
  std::wstring const text = textOf(sections_);
  std::string const path = ACharString(fileName).operator char const*();
  Descriptor file = vrxutil::detail::openWithoutWaiting(path, O_WRONLY);
  if (file || (errno == ENOENT && canBeMade(path))) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): documented in the header
    std::setlocale(LC_ALL, "");
    AnObjectBuffer<unsigned char> bytes(0, nullptr);
    if (AnXml::convertUnicodeToUtf8(text.c_str(), bytes)) {
      std::optional<FileError> const failure = rewrite(file, path, bytes.cpp_str());
      if (failure) logFailure(*failure, fileName);
    }
  }
  dirty_ = 0;
}

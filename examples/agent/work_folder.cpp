#include "examples/agent/work_folder.h"

#include "examples/agent/checksum.h"
#include "examples/agent/messages.h"
#include "examples/agent/whole_file.h"

#include <vrxutil/binary.h>
#include <vrxutil/file.h>
#include <vrxutil/xml.h>

#include <map>

namespace agent {

namespace {

/// A folder that is there, empty, while the object lives. What a crash has left
/// in it is removed before.
class ScratchFolder {
public:
  explicit ScratchFolder(AString const& path)
      : path_(path), isReady_(AFiler::deleteFolders(path) && AFiler::createDirectory(path)) {}

  // What cannot be removed has been logged, and the next run tries again.
  ~ScratchFolder() { static_cast<void>(AFiler::deleteFolders(path_)); }

  ScratchFolder(ScratchFolder const&) = delete;
  ScratchFolder& operator=(ScratchFolder const&) = delete;

  bool isReady() const { return isReady_; }

  AString operator/(wchar_t const* name) const { return APath(path_, name); }

private:
  AString path_;
  bool isReady_;
};

/// Name to path, in the order of the names.
std::map<AString, AString, AString::CaseSensitiveLess> filesIn(AString const& folder,
                                                               AString const& pattern) {
  std::map<AString, AString, AString::CaseSensitiveLess> files;
  AFileIndex entries(/*reportNoMatch=*/false, folder, pattern);
  AString path;
  AString name;
  for (bool isFolder = false; entries.moveNext(&path, &isFolder, &name, nullptr);) {
    if (!isFolder) files.emplace(name, path);
  }
  return files;
}

/// The line of one file; false for one that cannot be read.
bool addLine(AStringList& lines, AString const& name, AString const& path) {
  ABuffer bytes("");
  if (!readWholeFile(path, &bytes)) return false;
  AString line = AFormat(static_cast<long>(crc32(bytes)), L"x0", 8);
  lines << (line << L" " << bytes.size() << L" " << name);
  return true;
}

/// Whoever reads the file meanwhile sees the old text or the new one.
bool replaceText(AString const& fileName, wchar_t const* text) {
  AnObjectBuffer<unsigned char> utf8(0, nullptr);
  ScratchFolder const scratch(APath(AFiler::getOxaDataPath(), L"scratch"));
  AString const newFile = scratch / L"new";
  return AnXml::convertUnicodeToUtf8(text, utf8) && scratch.isReady() &&
         AFile::write(newFile, utf8) && AFiler::copyFile(newFile, fileName);
}

}  // namespace

bool listWorkFolder(Settings& settings, AString* summary) {
  AString const folder = settings.workFolder();
  bool exists = false;
  if (!AFiler::getFileAccessibility(folder, AFiler::readAccess, exists)) return false;
  if (!exists) return true;

  int count = 0;
  bool isComplete = true;
  AStringList lines(L"\n", /*afterEach=*/true);
  for (auto const& [name, path] : filesIn(folder, settings.pattern())) {
    if (addLine(lines, name, path)) {
      ++count;
    } else {
      isComplete = false;
    }
  }
  if (!replaceText(settings.listName(), lines)) return false;

  *summary = text(Message::workFolder) << count << settings.fileCount() << settings.listName();
  settings.setFileCount(count);
  return isComplete;
}

}  // namespace agent

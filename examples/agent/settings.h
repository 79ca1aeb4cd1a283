// The agent's own settings: agent.ini in the folder `etc` of its data folder.
//
//   [work]
//   folder = work           relative paths start at the data folder
//   pattern = *             which files in it are listed, as for a shell
//   list = work.txt         where they are listed
//   files = 2               how many there were at the last run; the agent writes it
//
// What is missing has the values shown, files 0, and no file at all is fine.

#pragma once

#include <vrxutil/ini.h>
#include <vrxutil/text.h>

namespace agent {

class Settings {
public:
  /// Reads the file; false, with the reason in the log, for one that cannot be
  /// read or has an error in it. It stays as it is then.
  bool load();

  /// Writes the file back, if anything changed; false when it does not hold what
  /// it should. Making its folder is left to the first run.
  bool save();

  AString const& fileName() const { return fileName_; }

  AString workFolder() { return path(L"folder", L"work"); }

  AString listName() { return path(L"list", L"work.txt"); }

  AString pattern() { return value(L"pattern", L"*"); }

  AString fileCount() { return value(L"files", L"0"); }

  void setFileCount(long count);

private:
  AString value(wchar_t const* key, wchar_t const* fallback);
  AString path(wchar_t const* key, wchar_t const* fallback);

  AString fileName_;
  AnIni2 file_{AString()};
};

}  // namespace agent

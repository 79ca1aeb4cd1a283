#include "examples/agent/settings.h"

#include <vrxutil/file.h>
#include <vrxutil/log.h>

namespace agent {

namespace {

constexpr wchar_t kGroup[] = L"Agent";
constexpr wchar_t kSection[] = L"work";

}  // namespace

bool Settings::load() {
  fileName_ = APath(AFiler::getAlternateDataPath(), L"agent.ini");
  // To AnIni2 a file that may not be read is an empty one, to be written over.
  bool exists = false;
  bool mayRead = false;
  if (!AFiler::getFileAccessibility(fileName_, AFiler::readAccess, exists, mayRead)) return false;
  if (exists && !mayRead) {
    logError(kGroup, AString(L"no right to read ") << fileName_);
    return false;
  }
  return file_.open(fileName_);
}

void Settings::setFileCount(long count) { file_.set(kSection, L"files", AString(count)); }

bool Settings::save() {
  // A failure shows below: the file cannot be written then.
  static_cast<void>(AFiler::createDirectory(AFiler::getAlternateDataPath()));
  AnIni2::SectionMap wanted;
  AnIni2::SectionMap written;
  file_.getIniMap(wanted);
  file_.write();
  AnIni2 copy(fileName_);
  return copy.getIniMap(written) && written == wanted;
}

AString Settings::value(wchar_t const* key, wchar_t const* fallback) {
  AString found;
  return file_.tryGet(kSection, key, found) ? found : AString(fallback);
}

AString Settings::path(wchar_t const* key, wchar_t const* fallback) {
  AString const name = value(key, fallback);
  bool const isAbsolute = name.size() > 0 && name[0] == L'/';
  return isAbsolute ? name : APath(AFiler::getOxaDataPath(), name);
}

}  // namespace agent

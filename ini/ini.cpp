#include "linux/call_text.h"

#include <vrxutil/ini.h>
#include <vrxutil/log.h>
#include <zulral/zulral.h>

#include <array>

namespace {

using vrxutil::detail::callText;

constexpr wchar_t kGroup[] = L"ini";

/// What the profile functions give where there is no value.
constexpr wchar_t kMissing[] = L"`~`~";

constexpr unsigned long kBufferSize = 4096;

}  // namespace

AnIni::AnIni(AString const& name) : fileName(name) {}

bool AnIni::get(bool required, AString const& section, AString const& key, AString& value) {
  if (fileName.size() == 0) {
    logInternalError(kGroup, L"No file name in AnIni::tryGet");
    return false;
  }
  value = L"";
  std::array<wchar_t, kBufferSize> buffer{};
  ADetailTrace const trace(kGroup, callText(L"GetPrivateProfileString", section, key, fileName));
  ZuDB_GetPrivateProfileStringW(section, key, kMissing, buffer.data(), kBufferSize - 1, fileName);
  if (wcsicmp(buffer.data(), kMissing) != 0) {
    value = buffer.data();
    return true;
  }
  if (required) {
    AString message(L"Couldn't read required section \"");
    message << section << L"\", setting \"" << key << L"\" of file \"" << fileName << L"\"";
    logError(kGroup, message);
  }
  return false;
}

AnIni::~AnIni() {
  AnIni::close();  // whatever a derived class makes of it
}

bool AnIni::open(AString const& name) {
  fileName = name;
  return true;
}

void AnIni::close() { fileName = L""; }

bool AnIni::tryGet(AString const& section, AString const& key, AString& value) {
  return get(/*required=*/false, section, key, value);
}

bool AnIni::getExisting(AString const& section, AString const& key, AString& value) {
  return get(/*required=*/true, section, key, value);
}

void AnIni::set(AString const& section, AString const& key, AString const& value) {
  if (fileName.size() == 0) {
    logInternalError(kGroup, L"No file name in AnIni::set");
    return;
  }
  ZuDB_WritePrivateProfileStringW(section, key, value, fileName);
}

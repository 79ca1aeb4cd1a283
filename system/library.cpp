#include "linux/call_text.h"

#include <vrxutil/file.h>
#include <vrxutil/log.h>
#include <vrxutil/system.h>
#include <zulral/zulral.h>

#include <cstring>
#include <utility>

namespace {

using vrxutil::detail::callText;

constexpr wchar_t kGroup[] = L"Library";

AString decorated(wchar_t const* name) {
  AString folder;
  AString file;
  bool const hasFolder = splitPath(name, &folder, &file);
  AString const fileName = AString(L"lib") << (hasFolder ? file : AString(name)) << L".dylib";
  return hasFolder ? APath(folder, fileName) : fileName;
}

}  // namespace

ALibrary::~ALibrary() {
  try {
    close();
  } catch (...) {  // what cannot be logged is not worth the process
    if (handle != nullptr && !keepLoaded_) zulFreeLibrary(handle);
  }
}

bool ALibrary::open(bool /*required*/, wchar_t const* name, bool decorate, bool keepLoaded) {
  keepLoaded_ = keepLoaded;
  AString const fileName = decorate ? decorated(name) : AString(name);
  ADetailTrace const trace(kGroup, callText(L"portable LoadLibrary", fileName));
  char const* error = nullptr;
  handle = zulLoadLibrary(ACharString(fileName), &error);
  if (handle == nullptr) {
    logError(kGroup, AString(error));
    return false;
  }
  logResult(kGroup, AString(handle));
  return true;
}

bool ALibrary::get(bool required, char const* symbol, void* out) {
  ADetailTrace const trace(kGroup, callText(L"portable GetProcAddress", handle, symbol));
  char const* error = nullptr;
  void* const address = zulGetProcAddress(handle, symbol, &error);
  std::memcpy(out, &address, sizeof address);  // a slot of any pointer's type
  if (address == nullptr && required) logError(kGroup, AString(error));
  return address != nullptr;
}

void ALibrary::close() {
  if (handle == nullptr) return;
  ADetailTrace const trace(kGroup, callText(L"portable FreeLibrary", handle));
  void* const library = std::exchange(handle, nullptr);
  if (!keepLoaded_ && zulFreeLibrary(library) == 0) logError(kGroup, L"failed");
}

// Changes one value of a file that people edit, and keeps a program's own file.

#include <vrxutil/file.h>
#include <vrxutil/ini.h>

#include <clocale>
#include <cstdio>

namespace {

bool printFile(AString const& path) {
  ABuffer bytes("");
  if (!AFile::read(/*reportMissing=*/true, path, bytes)) return false;
  std::printf("%s:\n%s", static_cast<char const*>(ACharString(path)), bytes.cpp_str().c_str());
  return true;
}

/// Single values: comments, order and all other bytes stay.
bool changePort(AString const& path, AString const& port) {
  AnIni settings(path);
  settings.set(L"net", L"port", port);
  AString now;  // set() does not tell whether it could write
  return settings.getExisting(L"NET", L"Port", now) && wcscmp(now, port) == 0;
}

/// A whole file, exact in case: what has changed is written when the object goes.
bool countStart(AString const& path) {
  AnIni2 state(path);
  if (!state.parsed()) return false;  // the log says where the file is wrong
  AString starts;
  state.tryGet(L"agent", L"starts", starts);  // stays empty, which is 0, at first
  return state.insert(L"agent", L"starts", AString(starts.toInt() + 1).const_cpp_str());
}

}  // namespace

int main() {
  std::setlocale(LC_ALL, "");  // AnIni2 does the same, for the whole process
  if (!AFile::write(L"net.ini", ABuffer("; by hand\n[net]\nPort = 80\n"))) return 1;
  if (!changePort(L"net.ini", L"8080") || !printFile(L"net.ini")) return 1;
  if (!countStart(L"state.ini") || !printFile(L"state.ini")) return 1;
  if (!AFile::write(L"bad.ini", ABuffer("[agent]\nstarts\n"))) return 1;
  std::puts(countStart(L"bad.ini") ? "counted" : "bad.ini refused");
}

// Makes a folder with files, lists some, reads one, and removes all.

#include <vrxutil/file.h>

#include <clocale>
#include <cstdio>

namespace {

void print(wchar_t const* line) { std::puts(ACharString(line)); }

/// What is written waits in a buffer, and close() can only log that it does not fit.
/// Where that matters, use AFile::write(), which tells.
bool writeNotes(AString const& path) {
  AFile file;
  return file.openAlways(path) && file.writeLine(L"first") && file.writeLine(L"second");
}

bool printLines(AString const& path) {
  AFile file;
  if (!file.open(/*reportMissing=*/true, path)) return false;
  for (AString line; file.readLine(line);) print(AString(L"  ") << line);
  return true;
}

bool printNotes(AString const& folder) {
  AFileIndex files;
  if (!files.open(/*reportNoMatch=*/true, folder, L"*.txt")) return false;
  AString path;
  AString name;
  while (files.moveNext(&path, nullptr, &name, nullptr)) {
    print(name);
    if (!printLines(path)) return false;
  }
  return true;
}

}  // namespace

int main() {
  std::setlocale(LC_ALL, "");  // paths are in the encoding of the user's locale
  AString const folder = L"notes";
  if (!AFiler::createDirectory(folder)) return 1;
  if (!writeNotes(APath(folder, L"a.txt"))) return 1;
  if (!AFile::write(APath(folder, L"b.bin"), ABuffer("whole"))) return 1;
  if (!printNotes(folder)) return 1;

  ABuffer contents("");
  if (!AFile::read(/*reportMissing=*/true, APath(folder, L"c.txt"), contents)) print(L"no c.txt");
  return AFiler::deleteFolders(folder) ? 0 : 1;
}

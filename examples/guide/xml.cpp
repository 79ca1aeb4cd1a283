// Reads a configuration, changes it, and keeps it encrypted.

#include <vrxutil/xml.h>

#include <clocale>
#include <cstdio>

namespace {

constexpr wchar_t kFile[] = L"agent.xml";
constexpr wchar_t kText[] =
    L"<agent version='2'><task name='backup' every='60'/><task name='scan'/></agent>";

void print(wchar_t const* line) { std::puts(ACharString(line)); }

/// Sets what the tasks leave out, and writes the file.
bool save() {
  AnXml config;
  if (!config.useString(kText, L"agent", L"version", L"2")) return false;
  AnXmlNode root(&config);
  AnXmlChildIndex tasks(&root, L"task");
  AString name;
  while (tasks.moveNext(L"name", &name)) {
    if (!tasks.hasValue(/*required=*/false, L"every", nullptr)) tasks.setValue(L"every", L"10");
    print(AString(L"task ") << name);
  }
  return config.writeFile(kFile, /*encrypt=*/true, /*generateFlag=*/true);
}

/// The file is decrypted where it is encrypted; a wrong version would be refused.
bool load() {
  AnXml config;
  if (!config.useExistingFile(kFile, L"agent", L"version", L"2")) return false;
  AnXmlNode root(&config);
  AString every;
  if (root.getChild(/*required=*/true, L"task", L"name", L"scan", L"every", &every)) print(every);
  if (!root.getChild(/*required=*/true, L"task", L"name", L"restore", nullptr, nullptr))
    print(L"no such task");
  return true;
}

}  // namespace

int main() {
  std::setlocale(LC_ALL, "");  // names of files are in the encoding of the user's locale
  if (!load()) print(L"no configuration yet");
  if (!save() || !load()) return 1;
  AnXml broken;
  return broken.useString(L"<agent>\n<task></agent>", L"agent", nullptr, nullptr) ? 1 : 0;
}

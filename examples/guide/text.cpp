// Lays out a report, takes a line of settings apart, and fills a message in.

#include <vrxutil/text.h>

#include <clocale>
#include <cstdio>

namespace {

/// Narrow text for the system is in the encoding of the locale.
void print(wchar_t const* line) { std::puts(ACharString(line)); }

/// A row of the report: the name padded on the right, the size on the left.
AString row(AString name, long size) {
  name.format(L"-", 12, -1);
  return name << AFormat(size, L"", 8) << L" bytes";
}

/// Takes "name=value; name=value" apart.
void printSettings(wchar_t const* line) {
  AStringParser settings(line, L";");
  while (!settings.atEnd()) {
    AString name;
    AString value;
    parseInTwo(settings.get(nullptr), &name, L"=", &value);
    settings.skip(L" ");
    if (wcsicmp(name, L"port") == 0) value = AString(value.toInt() + 1);
    print(AString(L"[") << name << L"] [" << value << L"]");
  }
}

}  // namespace

int main() {
  std::setlocale(LC_ALL, "");  // the library leaves the locale to its program
  print(row(L"agent.xml", 1834));
  print(row(L"agent.log", 70112));
  printSettings(L"host=db1; Port=5432; user");
  print(ALocalizedString(L"File %1 not found in %2, sent %2") << "agent.xml" << L"/etc");
  print(AString(L"mode ") << AFormat(255, L"z0x", 4));  // "z" is no flag: see the record
}

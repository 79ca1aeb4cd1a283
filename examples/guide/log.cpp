// A daemon's main function, scopes that explain an error, and the levels.

#include <vrxutil/log.h>

#include <cstdio>

namespace {

constexpr wchar_t kGroup[] = L"Sample";

/// The scope costs little, and says in the trace of an error what was going on.
bool store(AString const& name, int value) {
  ADetailTrace const trace(kGroup, AString(L"store,") << name << L"," << value);
  if (value >= 0) return true;
  logError(kGroup, L"negative value");
  return false;
}

/// Whether there is such a file; logs why not, with the system's words.
bool find(char const* path) {
  std::FILE* const file = std::fopen(path, "r");
  if (logErrnoIf(kGroup, file == nullptr)) return false;
  return std::fclose(file) == 0;
}

int run(int /*argumentCount*/, char** /*arguments*/) {
  AnInfoTrace const trace(kGroup, L"first pass");
  bool const isStored = store(L"size", 3) && store(L"age", -1);
  bool const isFound = find("no/such/file");

  logDetail(kGroup, L"dropped: the level is info");
  setLogLevelDetailed(true);
  logResult(kGroup, L"42");  // a detail record, which is kept now
  setLogLevelDetailed(false);
  logErrorNoStack(kGroup, L"one record\nin one line");
  return isStored || isFound ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  // With alreadyAttached false the records go to sample.log in the data folder.
  return runMainWithLogging(run, argc, argv, L"sample", nullptr, /*alreadyAttached=*/true);
}

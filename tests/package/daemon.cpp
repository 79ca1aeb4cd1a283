// A daemon in small, run by root: leaves a record, a key and, while it runs, a lock in
// the folders that the package has made.

#include <vrxutil/lock.h>
#include <vrxutil/log.h>
#include <vrxutil/xml.h>

#include <cstdio>

namespace {

using vornix_com::oxa::lock::InterProcessWriteLock;

constexpr char kLock[] = "package";
constexpr char kKeyFile[] = "/Library/Vornix/oxa/scratch/package";

bool exists(char const* path) {
  std::FILE* const file = std::fopen(path, "r");
  if (file == nullptr) return false;
  std::fclose(file);
  return true;
}

int run(int /*argumentCount*/, char** /*arguments*/) {
  AnXml xml;
  if (!xml.useString(L"<agent/>", L"agent", nullptr, nullptr)) return 1;
  if (!xml.writeFile(L"/root/agent.xml", /*encrypt=*/true, /*generateFlag=*/false)) return 2;
  InterProcessWriteLock lock(kLock);
  if (!lock.tryLock()) return 3;
  return exists(kKeyFile) ? 0 : 4;
}

}  // namespace

int main(int argc, char** argv) {
  return runMainWithLogging(run, argc, argv, L"daemon", nullptr, /*alreadyAttached=*/false);
}

// A program as a user of the installed package writes it: touches each family.

#include "other.h"

#include <vrxutil/binary.h>
#include <vrxutil/file.h>
#include <vrxutil/ini.h>
#include <vrxutil/log.h>
#include <vrxutil/system.h>
#include <vrxutil/text.h>
#include <vrxutil/xml.h>
#include <zulral/zulral.h>

#include <cstdio>

namespace {

int run(int /*argumentCount*/, char** /*arguments*/) {
  AnXml xml;
  if (!xml.useString(L"<agent version='5'><task name='backup'/></agent>", L"agent", L"version",
                     L"5")) {
    return 1;
  }
  AnXmlNode task(&xml);
  if (!task.getChildMove(/*required=*/true, L"task", L"name", L"backup", nullptr, nullptr)) {
    return 2;
  }
  AString const path = APath(AString(L"/tmp"), AString(L"a")) << AFormat(7, L"0", 3);
  ABuffer const buffer("abc");
  if (!canReplaceServices()) return 3;
  AnIni ini(AString(L"/dev/null"));
  AString value;
  if (ini.tryGet(L"agent", L"task", value)) return 4;
  if (zulCopyFile("/dev/null", "/dev/null", /*refuseReplacing=*/1) != 0) return 5;
  std::printf("%s %s %lx\n", static_cast<char const*>(ACharString(task.asLogString())),
              static_cast<char const*>(ACharString(path)),
              static_cast<unsigned long>(Host2Be4(Host2Be4(0x12345678))) + buffer.size());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  return runMainWithLogging(run, argc, argv, L"consumer", nullptr, /*alreadyAttached=*/true);
}

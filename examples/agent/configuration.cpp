#include "examples/agent/configuration.h"

#include <vrxutil/file.h>

namespace agent {

namespace {

constexpr wchar_t kRootName[] = L"agent";
constexpr wchar_t kVersionName[] = L"version";
constexpr wchar_t kVersion[] = L"1";

constexpr wchar_t kStarter[] =
    LR"(
<agent version="1">
  <!-- What is on this host? Says whether the file has changed since the last run. -->
  <task type="checksum" enabled="true" path="inventory.xml"/>

  <!-- Copies the packages that are outdated into a report. -->
  <task type="collect" enabled="true" path="inventory.xml" element="software/package"
        where="state=outdated" report="report.xml"/>

  <!-- Edits another program's settings. -->
  <task type="set" enabled="true" path="service.xml" element="server/listener"
        values="port=8443, tls=on"/>

  <!-- Keeps an encrypted copy of a file. -->
  <task type="encrypt" enabled="false" path="password.txt" output="password.sealed"/>

  <!-- Has a plug-in, plugins/libline_counter.so, look at a file. -->
  <task type="plugin" enabled="false" path="service.xml" library="plugins/line_counter"
        minimum="1.0"/>
</agent>
)";

bool writeEncrypted(AnXml& document, AString const& fileName) {
  return document.writeFile(fileName, /*encrypt=*/true, /*generateFlag=*/true);
}

}  // namespace

bool Configuration::load(AString const& fileName) {
  fileName_ = fileName;
  return document_.useExistingFile(fileName, kRootName, kVersionName, kVersion);
}

bool Configuration::save() { return writeEncrypted(document_, fileName_); }

AString Configuration::folder() const {
  AString folder;
  if (!splitPath(fileName_, &folder, nullptr)) return {};
  if (folder.size() == 0) folder = L"/";
  return folder;
}

bool writeStarterConfiguration(AString const& fileName) {
  AnXml document;
  return document.useString(kStarter, kRootName, kVersionName, kVersion) &&
         writeEncrypted(document, fileName);
}

}  // namespace agent

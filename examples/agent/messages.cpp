#include "examples/agent/messages.h"

#include <clocale>
#include <string_view>

namespace agent {

namespace {

constexpr wchar_t const* builtIn(Message message) {
  switch (message) {
    case Message::usage:
      return L"usage: agent CONFIG\n"
             L"       agent --make-config CONFIG\n"
             L"       agent --results\n"
             L"       agent --help";
    case Message::configurationRefused:
      return L"agent: configuration refused: %1 (see the log)";
    case Message::settingsRefused:
      return L"agent: settings refused: %1 (see the log)";
    case Message::cannotWrite:
      return L"agent: cannot write %1 (see the log)";
    case Message::existsAlready:
      return L"agent: exists already: %1";
    case Message::lastRun:
      return L"Last run: %1";
    case Message::never:
      return L"never";
    case Message::taskColumn:
      return L"task";
    case Message::fileColumn:
      return L"file";
    case Message::beforeColumn:
      return L"before";
    case Message::nowColumn:
      return L"now";
    case Message::resultColumn:
      return L"result";
    case Message::totals:
      return L"%1 done, %2 failed, %3 disabled";
    case Message::statusDone:
      return L"done";
    case Message::statusFailed:
      return L"failed";
    case Message::statusDisabled:
      return L"disabled";
    case Message::noType:
      return L"the task has no type";
    case Message::unknownType:
      return L"unknown type of task: %1";
    case Message::noPath:
      return L"the task has no path";
    case Message::taskIncomplete:
      return L"the task is incomplete";
    case Message::fileUnreadable:
      return L"the file cannot be read";
    case Message::noSuchElement:
      return L"the file has no such element";
    case Message::noReport:
      return L"no report";
    case Message::reportUnwritable:
      return L"the report cannot be written";
    case Message::nothingToChange:
      return L"nothing to change";
    case Message::valueWithoutName:
      return L"a value has no name";
    case Message::fileUnwritable:
      return L"the file cannot be written";
    case Message::valuesSet:
      return L"set %1";
    case Message::encryptionFailed:
      return L"encryption failed";
    case Message::copyUnwritable:
      return L"the copy cannot be written";
    case Message::copyUnreadable:
      return L"the copy cannot be read";
    case Message::copyDoesNotDecrypt:
      return L"the copy does not decrypt";
    case Message::sealed:
      return L"%1 bytes sealed in %2";
    case Message::checksum:
      return L"crc32 %1, %2 bytes, %3";
    case Message::firstSeen:
      return L"seen for the first time";
    case Message::unchanged:
      return L"unchanged";
    case Message::changed:
      return L"changed";
    case Message::copied:
      return L"%1 of %2 copied";
    case Message::copiedWithList:
      return L"%1 of %2 copied: %3";
    case Message::workFolder:
      return L"Work folder: %1 files, %2 before, listed in %3";
    case Message::workFolderFailed:
      return L"Work folder: it cannot be listed (see the log)";
    case Message::plugInUnusable:
      return L"the plug-in cannot be used";
    case Message::plugInTooOld:
      return L"the plug-in has version %1, wanted is %2";
    case Message::plugInFailed:
      return L"the plug-in has failed";
    case Message::plugInDone:
      return L"%1 (plug-in %2)";
    case Message::resultsRefused:
      return L"agent: results refused: %1 (see the log)";
    case Message::resultsOf:
      return L"Results of %1";
    case Message::base64:
      return L"Base64: %1";
  }
  return L"";
}

/// Whether the locale names no language: C, POSIX and C.UTF-8 do not.
bool isPlain(std::string_view locale) {
  return locale == "POSIX" || locale == "C" || locale.substr(0, 2) == "C.";
}

}  // namespace

void openMessages() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): there is no other thread yet
  if (isPlain(std::setlocale(LC_MESSAGES, nullptr))) return;
  static AResourceFile catalogue;
  if (catalogue.openExisting(L"agent", 0)) ALocalizedString::setDefaultResourceFile(&catalogue);
}

ALocalizedString text(Message message) {
  if (ALocalizedString::DefaultResourceFile == nullptr) return {builtIn(message)};
  int const id = static_cast<int>(message);
  ALocalizedString translated(id);
  // As a message that the catalogue does not have comes.
  AString const missing = AString(L"<") << id << L">";
  if (translated.const_cpp_str() == missing.const_cpp_str()) return {builtIn(message)};
  return translated;
}

}  // namespace agent

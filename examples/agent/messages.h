// What the agent says to people, in their language.
//
// Each message has a number and a built-in text. openMessages() looks for a
// catalogue "agent" in the language of the locale; what it has replaces the
// built-in texts. The catalogues are made from catalogues/LANGUAGE.msg.

#pragma once

#include <vrxutil/text.h>

namespace agent {

/// The number of a message in the catalogue. Numbers stay; new ones go at the end.
enum class Message : int {
  usage = 1,
  configurationRefused,  // %1: file
  settingsRefused,       // %1: file
  cannotWrite,           // %1: file
  existsAlready,         // %1: file
  lastRun,               // %1: time or `never`
  never,
  taskColumn,
  fileColumn,
  beforeColumn,
  nowColumn,
  resultColumn,
  totals,  // %1: done; %2: failed; %3: disabled
  statusDone,
  statusFailed,
  statusDisabled,
  noType,
  unknownType,  // %1: type
  noPath,
  taskIncomplete,
  fileUnreadable,
  noSuchElement,
  noReport,
  reportUnwritable,
  nothingToChange,
  valueWithoutName,
  fileUnwritable,
  valuesSet,  // %1: list
  encryptionFailed,
  copyUnwritable,
  copyUnreadable,
  copyDoesNotDecrypt,
  sealed,    // %1: bytes; %2: bytes of the copy
  checksum,  // %1: CRC-32; %2: bytes; %3: one of the next three
  firstSeen,
  unchanged,
  changed,
  copied,          // %1: elements copied; %2: elements seen
  copiedWithList,  // the same; %3: list
  workFolder,      // %1: files; %2: files at the run before; %3: list
  workFolderFailed,
  plugInUnusable,
  plugInTooOld,  // %1: its version; %2: the least that will do
  plugInFailed,
  plugInDone,      // %1: what it has found; %2: its version
  resultsRefused,  // %1: file
  resultsOf,       // %1: time
  base64,          // %1: Base64
};

/// How many there are.
constexpr int kMessageCount = static_cast<int>(Message::base64);

/// Opens the catalogue, unless the locale has no language (C, POSIX). Where there
/// is none the log says so, and the built-in texts serve. Call it once, after
/// setlocale() and before any other thread.
void openMessages();

/// The message, ready to take its arguments.
ALocalizedString text(Message message);

}  // namespace agent

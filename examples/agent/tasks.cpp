#include "examples/agent/tasks.h"

#include "examples/agent/checksum.h"
#include "examples/agent/messages.h"
#include "examples/agent/plug_in_task.h"
#include "examples/agent/whole_file.h"

#include <vrxutil/binary.h>
#include <vrxutil/file.h>
#include <vrxutil/log.h>
#include <vrxutil/system.h>

#include <array>

namespace agent {

namespace {

constexpr wchar_t kGroup[] = L"Agent";

bool equal(AString const& a, AString const& b) { return a.const_cpp_str() == b.const_cpp_str(); }

Outcome done(AString const& text) { return {.succeeded = true, .text = text}; }

/// A failure that the log explains already.
Outcome failed(AString const& text) { return {.succeeded = false, .text = text}; }

/// A failure that has still to be logged.
Outcome logFailure(AString const& text) {
  logError(kGroup, text);
  return failed(text);
}

/// Reads an attribute that holds a path. A missing one is an error.
bool getPath(AnXmlNode const& task, wchar_t const* name, AString const& folder, AString* path) {
  AString value;
  if (!task.getExistingValue(name, &value)) return false;
  bool const absolute = value.size() > 0 && value[0] == L'/';
  *path = absolute ? value : APath(folder, value);
  return true;
}

/// Whether there is a name at all; AnXmlChildIndex takes the empty one for any.
bool isNamed(AString const& elementName) {
  if (elementName.size() > 0) return true;
  logError(kGroup, L"the path of an element has an empty step");
  return false;
}

/// Moves down by the names in `path`, parted by "/". A missing child is an error.
bool descend(AnXmlNode* node, wchar_t const* path) {
  AStringParser names(path, L"/");
  while (!names.atEnd()) {
    AString const name = names.get(nullptr);
    if (!isNamed(name) ||
        !node->getChildMove(/*required=*/true, name, nullptr, nullptr, nullptr, nullptr)) {
      return false;
    }
  }
  return true;
}

Outcome checksum(AnXmlNode& task, AString const& folder) {
  AString path;
  if (!getPath(task, L"path", folder, &path)) return failed(text(Message::noPath));
  ABuffer bytes("");
  if (!readWholeFile(path, &bytes)) return failed(text(Message::fileUnreadable));

  AString const now = AFormat(static_cast<long>(crc32(bytes)), L"x0", 8);
  AString before;
  Message verdict = Message::firstSeen;
  if (task.tryGetValue(L"crc32", &before)) {
    verdict = equal(before, now) ? Message::unchanged : Message::changed;
  }
  task.setValue(L"crc32", now);
  return done(text(Message::checksum) << now << AString(bytes.size()) << text(verdict));
}

/// Appends copies of the wanted children to `report`; gives their names as a list.
AString copyMatches(AnXmlNode const& parent, wchar_t const* name, wchar_t const* where,
                    AnXmlNode* report) {
  AString attribute;
  AString value;
  parseInTwo(where, &attribute, L"=", &value);
  wchar_t const* const expected = value.size() > 0 ? static_cast<wchar_t const*>(value) : nullptr;

  unsigned long total = 0;
  unsigned long copied = 0;
  AStringList names(L", ", /*afterEach=*/false);
  AnXmlChildIndex children(&parent, name);
  for (AString label(L"?"); children.moveNext(L"name", &label); label = L"?") {
    ++total;
    if (attribute.size() > 0 && !children.hasValue(/*required=*/false, attribute, expected)) {
      continue;
    }
    ++copied;
    names << label;
    report->copyAsChild(&children);
  }
  return text(copied > 0 ? Message::copiedWithList : Message::copied)
         << AString(copied) << AString(total) << names;
}

Outcome collect(AnXmlNode& task, AString const& folder) {
  AString path;
  AString reportPath;
  AString element;
  AString where;
  if (!getPath(task, L"path", folder, &path) || !getPath(task, L"report", folder, &reportPath) ||
      !task.getExistingValue(L"element", &element)) {
    return failed(text(Message::taskIncomplete));
  }
  task.tryGetValue(L"where", &where);

  AnXml source;
  if (!source.useExistingFile(path, nullptr, nullptr, nullptr)) {
    return failed(text(Message::fileUnreadable));
  }
  AString parents;
  AString name;
  parseInTwoFromRight(element, &parents, L"/", &name, /*wholeToLeft=*/false);
  AnXmlNode parent(&source);
  if (!isNamed(name) || !descend(&parent, parents)) return failed(text(Message::noSuchElement));

  AnXml report;
  if (!report.useNew(L"report", L"source", path)) return failed(text(Message::noReport));
  AnXmlNode reportRoot(&report);
  AString const summary = copyMatches(parent, name, where, &reportRoot);
  if (!report.writeFile(reportPath, /*encrypt=*/false, /*generateFlag=*/true)) {
    return failed(text(Message::reportUnwritable));
  }
  return done(summary);
}

/// Sets each "NAME=VALUE"; gives what has changed as a list.
bool setValues(AnXmlNode* node, wchar_t const* values, AStringList* changes) {
  AStringParser pairs(values, L",");
  while (!pairs.atEnd()) {
    pairs.skip(L" ");
    AString name;
    AString value;
    AString before;
    parseInTwo(pairs.get(nullptr), &name, L"=", &value);
    // The empty name would be the element's text.
    if (name.size() == 0) return false;
    if (node->tryGetValue(name, &before) && equal(before, value)) continue;
    node->setValue(name, value);
    *changes << (name << L"=" << value);
  }
  return true;
}

Outcome set(AnXmlNode& task, AString const& folder) {
  AString path;
  AString element;
  AString values;
  if (!getPath(task, L"path", folder, &path) || !task.getExistingValue(L"element", &element) ||
      !task.getExistingValue(L"values", &values)) {
    return failed(text(Message::taskIncomplete));
  }

  AnXml document;
  if (!document.useExistingFile(path, nullptr, nullptr, nullptr)) {
    return failed(text(Message::fileUnreadable));
  }
  AnXmlNode node(&document);
  if (!descend(&node, element)) return failed(text(Message::noSuchElement));

  AStringList changes(L", ", /*afterEach=*/false);
  if (!setValues(&node, values, &changes)) return logFailure(text(Message::valueWithoutName));
  AString const changed(changes);
  if (changed.size() == 0) return done(text(Message::nothingToChange));
  if (!document.writeFile(path, /*encrypt=*/false, /*generateFlag=*/true)) {
    return failed(text(Message::fileUnwritable));
  }
  return done(text(Message::valuesSet) << changed);
}

Outcome encrypt(AnXmlNode& task, AString const& folder) {
  using Bytes = AnObjectBuffer<unsigned char>;
  AString path;
  AString outputPath;
  if (!getPath(task, L"path", folder, &path) || !getPath(task, L"output", folder, &outputPath)) {
    return failed(text(Message::taskIncomplete));
  }
  Bytes plain(0, nullptr);
  if (!readWholeFile(path, &plain)) return failed(text(Message::fileUnreadable));

  Bytes sealed(0, nullptr);
  if (!ACryptWrap::encryptDataBuffer(plain, sealed))
    return logFailure(text(Message::encryptionFailed));
  if (!writeWholeFile(outputPath, sealed)) return failed(text(Message::copyUnwritable));

  // The copy is of use only if it can be opened again.
  Bytes written(0, nullptr);
  Bytes opened(0, nullptr);
  if (!readWholeFile(outputPath, &written)) return failed(text(Message::copyUnreadable));
  if (!ACryptWrap::decryptDataBuffer(written, opened) || opened.cpp_str() != plain.cpp_str()) {
    return logFailure(text(Message::copyDoesNotDecrypt));
  }
  return done(text(Message::sealed) << AString(plain.size()) << AString(sealed.size()));
}

Outcome plugIn(AnXmlNode& task, AString const& folder) {
  AString path;
  AString library;
  if (!getPath(task, L"path", folder, &path) || !getPath(task, L"library", folder, &library)) {
    return failed(text(Message::taskIncomplete));
  }
  AString minimum;
  task.tryGetValue(L"minimum", &minimum);
  Outcome outcome{};
  outcome.succeeded = runPlugIn(library, minimum, path, &outcome.text);
  return outcome;
}

struct TaskType {
  wchar_t const* name;
  Outcome (*run)(AnXmlNode& task, AString const& folder);
};

constexpr std::array<TaskType, 5> kTaskTypes{{
    {L"checksum", checksum},
    {L"collect", collect},
    {L"set", set},
    {L"encrypt", encrypt},
    {L"plugin", plugIn},
}};

}  // namespace

Outcome runTask(AnXmlNode& task, AString const& folder) {
  AString name;
  if (!task.getExistingValue(L"type", &name)) return failed(text(Message::noType));
  ADetailTrace const trace(kGroup, AStringList(L",", /*afterEach=*/false) << L"runTask" << name);
  for (TaskType const& type : kTaskTypes) {
    if (equal(name, type.name)) return type.run(task, folder);
  }
  return logFailure(text(Message::unknownType) << name);
}

}  // namespace agent

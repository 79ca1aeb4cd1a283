// The agent's configuration: an XML file, encrypted on disk, that lists tasks and
// keeps what became of them.
//
//   <agent version="1" last-run="2026-11-21T05:00:00Z">
//     <task type="checksum" enabled="true" path="inventory.xml"
//           status="done" result="crc32 cbf43926, 9 bytes, unchanged"/>
//   </agent>
//
// tasks.h has the types of tasks. A task without enabled="true" is left alone. A
// plain file is readable too; it is encrypted when it is written back.

#pragma once

#include <vrxutil/text.h>
#include <vrxutil/xml.h>

namespace agent {

class Configuration {
public:
  /// Reads the file; false, with the reason in the log, for one that cannot be
  /// read or is no configuration of version 1. The file stays as it is.
  bool load(AString const& fileName);

  /// Replaces the file, encrypted.
  bool save();

  AnXmlNode root() { return &document_; }

  /// The folder of the file; relative paths in tasks start there.
  AString folder() const;

private:
  AnXml document_;
  AString fileName_;
};

/// Writes a configuration with one task of each type, to be edited. It replaces
/// what is there.
bool writeStarterConfiguration(AString const& fileName);

}  // namespace agent

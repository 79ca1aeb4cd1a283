// What the agent can do. A task is an element of the configuration; the type is
// one of
//
//   checksum  path                          the CRC-32 of a file, kept in the task;
//                                           says whether it has changed
//   collect   path element [where] report   copies the elements of an XML file into
//                                           another; where="NAME=VALUE" takes those
//                                           with that attribute, "NAME" with any
//   set       path element values           sets attributes, "NAME=VALUE, ...", in an
//                                           XML file, which is written plain
//   encrypt   path output                   writes an encrypted copy
//   plugin    path library [minimum]        has a plug-in (plug_in.h) look at a file;
//                                           library="plugins/foo" is the file
//                                           plugins/libfoo.so, minimum="1.2" the least
//                                           version that will do
//
// `element` is a path from the root, "software/package"; each step but the last
// of collect takes the first child of that name. The empty path is the root
// itself; collect needs a name.

#pragma once

#include <vrxutil/text.h>
#include <vrxutil/xml.h>

namespace agent {

/// What became of a task, in words for people.
struct Outcome {
  bool succeeded;
  AString text;
};

/// Carries a task out; relative paths start at `folder`. The log says why a task
/// failed.
Outcome runTask(AnXmlNode& task, AString const& folder);

}  // namespace agent

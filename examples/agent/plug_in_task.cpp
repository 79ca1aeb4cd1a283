#include "examples/agent/plug_in_task.h"

#include "examples/agent/messages.h"
#include "examples/agent/plug_in.h"
#include "examples/agent/whole_file.h"

#include <vrxutil/binary.h>
#include <vrxutil/log.h>
#include <vrxutil/system.h>

#include <iterator>

namespace agent {

namespace {

constexpr wchar_t kGroup[] = L"Agent";

/// The functions of a plug-in that is loaded as long as the object lives.
class PlugIn {
public:
  bool open(wchar_t const* library) {
    return library_.open(/*required=*/true, library, /*decorate=*/true, /*keepLoaded=*/false) &&
           library_.get(/*required=*/true, kPlugInVersionSymbol, &version_) &&
           library_.get(/*required=*/true, kPlugInExamineSymbol, &examine_);
  }

  AVersion version() const { return version_(); }

  bool examine(ABuffer const& bytes, AString* text) const {
    wchar_t found[200] = L"";
    if (!examine_(bytes.getBytes(), bytes.size(), found, std::size(found))) return false;
    found[std::size(found) - 1] = L'\0';
    *text = found;
    return true;
  }

private:
  ALibrary library_;
  AgentPlugInVersion* version_ = nullptr;
  AgentPlugInExamine* examine_ = nullptr;
};

/// A failure that has still to be logged.
bool logFailure(AString const& reason, AString* text) {
  logError(kGroup, reason);
  *text = reason;
  return false;
}

}  // namespace

bool runPlugIn(wchar_t const* library, wchar_t const* minimumVersion, wchar_t const* fileName,
               AString* text) {
  PlugIn plugIn;
  if (!plugIn.open(library)) {
    *text = agent::text(Message::plugInUnusable);
    return false;
  }
  AVersion const version = plugIn.version();
  AVersion const minimum(minimumVersion);
  if (version.compare(&minimum) < 0) {
    return logFailure(
        agent::text(Message::plugInTooOld) << version.getString() << minimum.getString(), text);
  }
  ABuffer bytes("");
  if (!readWholeFile(fileName, &bytes)) {
    *text = agent::text(Message::fileUnreadable);
    return false;
  }
  AString found;
  if (!plugIn.examine(bytes, &found)) {
    return logFailure(agent::text(Message::plugInFailed), text);
  }
  *text = agent::text(Message::plugInDone) << found << version.getString();
  return true;
}

}  // namespace agent

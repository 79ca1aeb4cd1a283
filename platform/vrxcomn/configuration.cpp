#include "platform/common/file_io.h"
#include "platform/vrxcomn/service_slot.h"

#include <vrxcomn/configuration.h>

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <pwd.h>
#include <unistd.h>

namespace vornix_com::oxa::configuration {

namespace {

/// The value of an environment variable; null where it is not set, or the
/// program runs with raised privileges: then the environment is not its own.
char const* environmentVariable(char const* name) {
#if defined(__GLIBC__)
  return ::secure_getenv(name);
#elif defined(__APPLE__) || defined(__FreeBSD__)
  return ::issetugid() != 0 ? nullptr : std::getenv(name);
#else
  bool const isRaised = ::getuid() != ::geteuid() || ::getgid() != ::getegid();
  return isRaised ? nullptr : std::getenv(name);
#endif
}

/// `path` without "/" at the end. Nothing for one that is empty or relative: the
/// latter would mean another folder in each process, so that it is ignored, as
/// the XDG Base Directory Specification demands.
std::optional<std::string> absoluteFolder(char const* path) {
  if (path == nullptr || *path != '/') return std::nullopt;
  std::string_view folder = path;
  while (folder.size() > 1 && folder.back() == '/') folder.remove_suffix(1);
  return std::string(folder);
}

std::optional<std::string> folderFromEnvironment(char const* variable) {
  return absoluteFolder(environmentVariable(variable));
}

/// The home folder of the effective user by the user database.
std::optional<std::string> homeFromDatabase() {
  std::vector<char> buffer(1024);
  for (;;) {
    passwd entry{};
    passwd* found = nullptr;
    int const error = ::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &found);
    if (error == 0) return found != nullptr ? absoluteFolder(entry.pw_dir) : std::nullopt;
    if (error == EINTR) continue;
    if (error != ERANGE) return std::nullopt;
    buffer.resize(buffer.size() * 2);
  }
}

std::string below(std::string const& folder, std::string_view path) {
  return (folder == "/" ? "" : folder) + "/" + std::string(path);
}

/// Where programs of the effective user keep what they must not lose.
std::optional<std::string> xdgStateFolder() {
  if (auto folder = folderFromEnvironment("XDG_STATE_HOME")) return folder;
  auto home = folderFromEnvironment("HOME");
  if (!home) home = homeFromDatabase();
  if (!home) return std::nullopt;
  return below(*home, ".local/state");
}

std::string defaultFolder(std::string_view name) {
#if defined(__APPLE__)
  return below("/Library/Vornix", name);
#else
  std::string const systemFolder = "/var/lib/vornix";
  if (::geteuid() == 0) return below(systemFolder, name);
  auto const state = xdgStateFolder();
  // A user without a home meets an error when writing there.
  return below(state ? below(*state, "vornix") : systemFolder, name);
#endif
}

std::wstring folder(char const* variable, std::string_view defaultName) {
  auto const chosen = folderFromEnvironment(variable);
  return vrxutil::detail::wideFileName(chosen ? *chosen : defaultFolder(defaultName));
}

/// Asks the environment each time: it is cheap, and nothing can go stale.
class BuiltInConfiguration final : public IConfiguration {
public:
  std::wstring GetFrameworkDataDirectory() override { return folder("VRX_DATA_DIR", "oxa"); }

  std::wstring GetUpdaterDataDir() override { return folder("VRX_UPDATER_DIR", "updater"); }
};

using Slot = vrxutil::detail::ServiceSlot<IConfiguration, BuiltInConfiguration>;

}  // namespace

IConfiguration* IConfiguration::GetConfiguration() { return Slot::inUse(); }

IConfiguration* IConfiguration::SetConfiguration(IConfiguration* configuration) {
  return Slot::replace(configuration);
}

}  // namespace vornix_com::oxa::configuration

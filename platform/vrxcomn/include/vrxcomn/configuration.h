// The agent's configuration service: where its data lives.
//
// The built-in configuration takes the folders from the environment variables
// VRX_DATA_DIR and VRX_UPDATER_DIR where they are set (a program that runs with
// raised privileges ignores them). Else they are /var/lib/vornix/oxa and
// /var/lib/vornix/updater for root, and vornix/oxa and vornix/updater below the
// XDG state folder ($XDG_STATE_HOME, by default ~/.local/state) for others; on
// macOS, /Library/Vornix/oxa and /Library/Vornix/updater.

#pragma once

#include <vrxcomn/export.h>

#include <string>

namespace vornix_com::oxa::configuration {

/// Where the agent's data lives. Operations may be called from any thread.
class VRXCOMN_EXPORT IConfiguration {
public:
  /// Absolute path of the framework's data folder, without a final "/".
  virtual std::wstring GetFrameworkDataDirectory() = 0;

  /// Absolute path of the updater's data folder, without a final "/".
  virtual std::wstring GetUpdaterDataDir() = 0;

  virtual ~IConfiguration() = default;

  /// The configuration in use; never null.
  static IConfiguration* GetConfiguration();

  /// Puts `configuration` in use and returns the one in use before. Null brings
  /// the built-in one back. The caller keeps `configuration`, which must live
  /// until it is replaced and no call is running in it. Safe from any thread.
  static IConfiguration* SetConfiguration(IConfiguration* configuration);

protected:
  /// For derived classes alone.
  ///@{
  IConfiguration() = default;
  IConfiguration(IConfiguration const&) = default;
  IConfiguration& operator=(IConfiguration const&) = default;
  ///@}
};

}  // namespace vornix_com::oxa::configuration

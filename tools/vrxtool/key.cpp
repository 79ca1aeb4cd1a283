#include "tools/vrxtool/key.h"

#include "tools/vrxtool/text.h"

#include <vrxcomn/configuration.h>
#include <vrxutil/system.h>

#include <string>

namespace vrxtool {

bool hasKey() {
  std::string ignored;
  return ACryptWrap::encrypt_data("", ignored);
}

Failure noKey() {
  using vornix_com::oxa::configuration::IConfiguration;
  std::wstring const folder = IConfiguration::GetConfiguration()->GetFrameworkDataDirectory();
  Failure reason("the agent's key cannot be had: see the folder " + utf8(folder) + "/keys");
  return reason;
}

}  // namespace vrxtool

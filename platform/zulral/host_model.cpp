// sysctlbyname() for hosts that have none.

#include <zulral/zulral.h>

#ifndef __APPLE__

#include "platform/common/file_io.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <optional>
#include <string>
#include <string_view>

namespace {

/// Where the kernel shows the firmware's tables (sysfs-firmware-dmi-tables).
constexpr char kFirmwareFolder[] = "/sys/class/dmi/id";

/// An entry is a line; no firmware has longer ones.
constexpr std::size_t kMostBytes = 4096;

constinit std::atomic<char const*> firmwareFolder{nullptr};

/// The first line of an entry; nothing with errno set.
std::optional<std::string> readEntry(char const* name) {
  char const* const folder = firmwareFolder.load();
  std::string text;
  auto const failure = vrxutil::detail::readFile(
      std::string(folder != nullptr ? folder : kFirmwareFolder) + '/' + name, kMostBytes, text);
  if (failure) {
    errno = failure->number;
    return std::nullopt;
  }
  text.resize(std::min(text.find('\n'), text.size()));
  return text;
}

/// DMTF DSP0134, System Management BIOS, table 17: portable, laptop, notebook, hand
/// held, sub notebook, tablet, convertible, detachable.
bool isPortable(std::string_view chassisType) {
  constexpr int kPortable[] = {8, 9, 10, 11, 14, 30, 31, 32};
  int type = 0;
  std::from_chars(chassisType.data(), chassisType.data() + chassisType.size(), type);
  return std::find(std::begin(kPortable), std::end(kPortable), type) != std::end(kPortable);
}

/// The answer to "hw.model"; nothing with errno set.
std::optional<std::string> hostModel() {
  std::optional<std::string> model = readEntry("product_name");
  std::optional<std::string> const chassisType = model ? readEntry("chassis_type") : std::nullopt;
  if (!chassisType) return std::nullopt;
  if (isPortable(*chassisType)) *model += " (notebook)";
  return model;
}

}  // namespace

char const* zulSetFirmwareFolder(char const* folder) { return firmwareFolder.exchange(folder); }

int sysctlbyname(char const* name, void* value, std::size_t* size, void const* newValue,
                 std::size_t /*newSize*/) {
  if (name == nullptr || std::string_view(name) != "hw.model") {
    errno = ENOENT;
    return -1;
  }
  if (newValue != nullptr) {
    errno = EPERM;
    return -1;
  }
  if (value != nullptr && size == nullptr) {
    errno = EFAULT;
    return -1;
  }
  std::optional<std::string> const model = hostModel();
  if (!model) return -1;
  if (size == nullptr) return 0;
  std::size_t const needed = model->size() + 1;
  std::size_t const copied = value != nullptr ? std::min(*size, needed) : needed;
  if (value != nullptr) std::copy_n(model->c_str(), copied, static_cast<char*>(value));
  *size = copied;
  if (copied == needed) return 0;
  errno = ENOMEM;
  return -1;
}

#endif

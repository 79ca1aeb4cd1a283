#include "platform/common/file_io.h"

#include <zulral/zulral.h>

#include <cerrno>

namespace {

/// errno's number; 0 for a success.
int numberOf(std::optional<vrxutil::detail::FileError> const& error) {
  return error ? error->number : 0;
}

}  // namespace

int zulCopyFile(char const* source, char const* target, int refuseReplacing) {
  // Set last: what is destroyed here may change errno.
  int const number =
      source == nullptr || target == nullptr
          ? EINVAL
          : numberOf(vrxutil::detail::copyFile(source, target, refuseReplacing != 0));
  if (number == 0) return 1;
  errno = number;
  return 0;
}

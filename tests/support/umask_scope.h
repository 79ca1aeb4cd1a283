// The process's umask, for the length of a scope.

#pragma once

#include <sys/stat.h>

namespace vrxutil::test {

class UmaskScope {
public:
  explicit UmaskScope(mode_t mask) : before_(::umask(mask)) {}

  ~UmaskScope() { ::umask(before_); }

  UmaskScope(UmaskScope const&) = delete;
  UmaskScope& operator=(UmaskScope const&) = delete;

private:
  mode_t before_;
};

}  // namespace vrxutil::test

// A variable of the environment, for the length of a scope.

#pragma once

#include <cstdlib>
#include <optional>
#include <string>

namespace vrxutil::test {

class VariableScope {
public:
  VariableScope(char const* name, std::string const& value) : name_(name) {
    if (char const* const before = std::getenv(name)) before_ = before;
    ::setenv(name, value.c_str(), /*overwrite=*/1);
  }

  ~VariableScope() {
    if (before_) {
      ::setenv(name_, before_->c_str(), /*overwrite=*/1);
    } else {
      ::unsetenv(name_);
    }
  }

  VariableScope(VariableScope const&) = delete;
  VariableScope& operator=(VariableScope const&) = delete;

private:
  char const* name_;
  std::optional<std::string> before_;
};

}  // namespace vrxutil::test

// The process's locale, for the length of a scope.

#pragma once

#include <clocale>
#include <stdexcept>
#include <string>

namespace vrxutil::test {

class LocaleScope {
public:
  /// Throws where the host does not have the locale `name`.
  explicit LocaleScope(char const* name) : before_(std::setlocale(LC_ALL, nullptr)) {
    if (std::setlocale(LC_ALL, name) == nullptr) {
      throw std::runtime_error(std::string("no locale ") + name);
    }
  }

  ~LocaleScope() { std::setlocale(LC_ALL, before_.c_str()); }

  LocaleScope(LocaleScope const&) = delete;
  LocaleScope& operator=(LocaleScope const&) = delete;

private:
  std::string before_;
};

}  // namespace vrxutil::test

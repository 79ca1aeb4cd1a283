#include <vrxutil/system.h>
#include <vrxutil/text.h>
#include <zulral/zulral.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <string_view>

#include <arpa/inet.h>
#include <netinet/in.h>

int CEnclosureType::iIsAPortableComputer(bool& portable) {
  portable = false;
  std::array<char, 256> model{};
  std::size_t size = model.size();
  if (::sysctlbyname("hw.model", model.data(), &size, nullptr, 0) != 0) return 0;
  model.back() = '\0';
  std::transform(model.begin(), model.end(), model.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  portable = std::string_view(model.data()).find("book") != std::string_view::npos;
  return 0;
}

bool convertFqdnToNetbios(std::wstring& name) {
  if (::inet_addr(ACharString(name.c_str())) != INADDR_NONE) return false;
  std::size_t const dot = name.find(L'.');
  if (dot == std::wstring::npos) return false;
  name.erase(dot);
  return true;
}

void percentEncodeSpaceInPath(std::string& path) {
  std::string encoded;
  encoded.reserve(path.size() +
                  2 * static_cast<std::size_t>(std::count(path.begin(), path.end(), ' ')));
  for (char const c : path) {
    if (c == ' ') {
      encoded += "%20";
    } else {
      encoded += c;
    }
  }
  path.swap(encoded);
}

#include "platform/vrxcomn/xml_name.h"

#include "platform/common/ascii.h"
#include "platform/common/utf8.h"

#include <expat.h>

#include <cwchar>
#include <memory>
#include <new>

namespace AdvXMLParser {

namespace {

constexpr bool isNameStart(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':';
}

constexpr bool isNameCharacter(char c) {
  return isNameStart(c) || (c >= '0' && c <= '9') || c == '-' || c == '.';
}

bool isAsciiName(std::string_view name) {
  if (name.empty() || !isNameStart(name.front())) return false;
  for (char const c : name) {
    if (!isNameCharacter(c)) return false;
  }
  return true;
}

/// Asks the parser itself, whose tables of letters are those of an older
/// edition of XML 1.0 than the current one.
bool isParsedAsName(std::string_view name) {
  if (name.find_first_of("<>/=\"'& \t\r\n") != std::string_view::npos) return false;
  std::unique_ptr<std::remove_pointer_t<XML_Parser>, decltype(&XML_ParserFree)> const parser(
      XML_ParserCreate("UTF-8"), &XML_ParserFree);
  if (parser == nullptr) throw std::bad_alloc();
  std::string document;
  document.append("<").append(name).append("/>");
  return XML_Parse(parser.get(), document.data(), static_cast<int>(document.size()),
                   /*isFinal=*/1) == XML_STATUS_OK;
}

}  // namespace

bool isXmlName(std::string_view utf8) {
  constexpr std::size_t kLongestName = 1U << 20;
  if (utf8.size() > kLongestName) return false;
  if (vrxutil::detail::asciiPrefix(utf8.data(), utf8.size()) == utf8.size()) {
    return isAsciiName(utf8);
  }
  return isParsedAsName(utf8);
}

Utf8Name::Utf8Name(wchar_t const* name) {
  std::size_t const length = name != nullptr ? std::wcslen(name) : 0;
  if (length <= short_.size() && vrxutil::detail::asciiPrefix(name, length) == length) {
    vrxutil::detail::copyAscii(name, length, short_.data());
    view_ = {short_.data(), length};
  } else {
    long_ = vrxutil::detail::lossyUtf8({name, length});
    view_ = long_;
  }
}

}  // namespace AdvXMLParser

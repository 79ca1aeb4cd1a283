// XML names.

#pragma once

#include <array>
#include <string>
#include <string_view>

namespace AdvXMLParser {

/// Whether the parser takes `utf8` for a name, so that a document written with
/// it can be read again.
bool isXmlName(std::string_view utf8);

/// `name` in UTF-8, with U+FFFD for what is no Unicode; short ones without
/// allocation.
class Utf8Name {
public:
  explicit Utf8Name(wchar_t const* name);
  Utf8Name(Utf8Name const&) = delete;
  Utf8Name& operator=(Utf8Name const&) = delete;

  operator std::string_view() const { return view_; }

private:
  std::array<char, 64> short_;
  std::string long_;
  std::string_view view_;
};

}  // namespace AdvXMLParser

// Access to the parser's tree that nodes and indexes share.

#pragma once

#include <vrxcomn/xml_parser.h>
#include <vrxutil/text.h>

#include <string_view>

namespace vrxutil::detail {

/// The internal error of a cursor that stands on none.
inline constexpr wchar_t kUninitializedNode[] = L"Used uninitialized node";

inline std::wstring_view valueOf(AdvXMLParser::Attribute const& attribute) {
  return {attribute.GetValue(), attribute.GetLength()};
}

/// Sets an output that the caller may have left out.
inline void assign(AString* output, std::wstring_view text) {
  if (output != nullptr) output->cpp_str().assign(text);
}

}  // namespace vrxutil::detail

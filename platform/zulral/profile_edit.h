// Changing the text of a profile file and nothing else in it.
//
// Internal; not installed. Each function returns the whole new text, which is the
// old one where nothing was to be done. Only std::bad_alloc is thrown.

#pragma once

#include "platform/zulral/profile_line.h"

#include <string>
#include <string_view>

namespace vrxutil::detail {

/// Without the sections of that name, each up to the next header.
std::string withoutSection(std::string_view bytes, ProfileName const& section);

/// Without the pairs of that key in the first section of that name.
std::string withoutKey(std::string_view bytes, ProfileName const& section, ProfileName const& key);

/// A pair as it is to be stored, in UTF-8. No part has a line end, the names have
/// no blanks around them.
struct ProfilePair {
  std::string section;
  std::string key;
  std::string value;
};

/// With the value of the pair changed, or with the pair, or the section and the
/// pair, added. `section` and `key` are the names of `pair`.
std::string withPair(std::string_view bytes, ProfileName const& section, ProfileName const& key,
                     ProfilePair const& pair);

}  // namespace vrxutil::detail

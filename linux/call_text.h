// The text of a trace scope around a call.
//
// Internal; not installed.

#pragma once

#include <vrxutil/text.h>

namespace vrxutil::detail {

/// The call's name and its arguments, joined by ",".
template <class... Items>
AStringList callText(wchar_t const* name, Items const&... arguments) {
  AStringList list(L",", /*afterEach=*/false);
  list << name;
  (list << ... << arguments);
  return list;
}

}  // namespace vrxutil::detail

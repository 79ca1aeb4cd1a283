#include "text/conversion.h"

#include <vrxutil/text.h>

AStringList::AStringList(wchar_t const* itemSeparator, bool afterEach)
    : separator(itemSeparator), separatorAfterEach(afterEach) {
  clear();
}

void AStringList::clear() {
  text.cpp_str().clear();
  atFirst = 1;
}

template <class Item>
AStringList& AStringList::add(Item const& item) {
  wchar_t const* before = nullptr;
  wchar_t const* after = nullptr;
  setup(&before, &after);
  text << before << item << after;
  return *this;
}

AStringList& AStringList::operator<<(wchar_t const* item) {
  // The list's own text moves while it grows.
  if (vrxutil::detail::pointsInto(text.const_cpp_str(), item)) return add(AString(item));
  return add(item);
}

AStringList& AStringList::operator<<(char const* item) { return add(item); }

AStringList& AStringList::operator<<(int item) { return add(item); }

AStringList& AStringList::operator<<(void* item) { return add(item); }

// Formatted first, since text and flags may be the list's own text.
AStringList& AStringList::operator<<(AFormat const& item) { return add(AString(item)); }

void AStringList::setup(wchar_t const** before, wchar_t const** after) {
  *before = L"";
  *after = L"";
  if (separatorAfterEach) {
    *after = separator;
  } else if (atFirst != 0) {
    atFirst = 0;
  } else {
    *before = separator;
  }
}

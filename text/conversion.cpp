#include "text/conversion.h"

#include "platform/common/ascii.h"

#include <vrxutil/log.h>
#include <vrxutil/text.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <functional>
#include <string_view>

#include <langinfo.h>

namespace vrxutil::detail {

namespace {

/// Whether bytes below 0x80 are ASCII in the current locale, so that runs of
/// them need no call into the C library. Encodings that are not listed take the
/// library's way alone: in some of them, such as Shift JIS, they are not.
bool lowerHalfIsAscii() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): as safe as the conversions themselves
  std::string_view const codeset = nl_langinfo(CODESET);
  return codeset == "UTF-8" || codeset == "ANSI_X3.4-1968" || codeset == "US-ASCII" ||
         codeset.starts_with("ISO-8859-") || codeset.starts_with("ISO8859-");
}

std::size_t asciiStart(char const* text, std::size_t size) {
  return lowerHalfIsAscii() ? asciiPrefix(text, size) : 0;
}

/// wcrtomb, with "?" for a character that the locale's encoding lacks.
std::size_t narrowOne(wchar_t character, char* target, std::mbstate_t& state) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): safe with a state of its own
  std::size_t const size = std::wcrtomb(target, character, &state);
  if (size != kInvalid) return size;
  *target = '?';
  return 1;
}

}  // namespace

std::size_t wideLength(char const* text) {
  std::size_t const size = std::strlen(text);
  std::size_t const start = asciiStart(text, size);
  if (start == size) return size;
  std::size_t const rest = std::mbstowcs(nullptr, text + start, INT_MAX);
  return rest == kInvalid ? kInvalid : start + rest;
}

std::size_t widen(char const* text, wchar_t* target, std::size_t count) {
  std::size_t const start = asciiStart(text, ::strnlen(text, count));
  copyAscii(text, start, target);
  if (start == count) return start;
  std::size_t const rest = std::mbstowcs(target + start, text + start, count - start);
  return rest == kInvalid ? kInvalid : start + rest;
}

bool pointsInto(std::wstring const& owner, wchar_t const* text) {
  std::less_equal<wchar_t const*> const notAfter;
  return notAfter(owner.data(), text) && notAfter(text, owner.data() + owner.size());
}

}  // namespace vrxutil::detail

using vrxutil::detail::asciiPrefix;
using vrxutil::detail::copyAscii;
using vrxutil::detail::kInvalid;
using vrxutil::detail::lowerHalfIsAscii;
using vrxutil::detail::narrowOne;

unsigned long conversionSpaceRequired(char const* text) {
  std::size_t const length = vrxutil::detail::wideLength(text);
  if (length != kInvalid) return length;
  logError(L"String", L"couldn't query space for wide character conversion");
  return 0;
}

wchar_t convertOne(char byte) {
  wchar_t character = 0;
  std::mbstate_t state{};
  // NOLINTNEXTLINE(concurrency-mt-unsafe): safe with a state of its own
  std::size_t const result = std::mbrtowc(&character, &byte, 1, &state);
  if (result == 1) return character;
  logError(L"String", L"couldn't convert a wide character");
  return 0;
}

int conversionSpaceRequired(wchar_t const* text) {
  bool const asciiAsItIs = lowerHalfIsAscii();
  std::size_t const length = std::wcslen(text);
  std::array<char, MB_LEN_MAX> scratch;
  std::mbstate_t state{};
  std::size_t size = 1;  // the terminator
  for (std::size_t i = 0; i < length;) {
    std::size_t const run = asciiAsItIs ? asciiPrefix(text + i, length - i) : 0;
    size += run;
    i += run;
    if (i < length) size += narrowOne(text[i++], scratch.data(), state);
  }
  return static_cast<int>(size);
}

void convert(wchar_t const* text, char* target) {
  bool const asciiAsItIs = lowerHalfIsAscii();
  std::size_t const length = std::wcslen(text);
  std::mbstate_t state{};
  for (std::size_t i = 0; i < length;) {
    std::size_t const run = asciiAsItIs ? asciiPrefix(text + i, length - i) : 0;
    copyAscii(text + i, run, target);
    target += run;
    i += run;
    if (i < length) target += narrowOne(text[i++], target, state);
  }
  *target = '\0';
}

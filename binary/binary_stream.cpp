#include "text/conversion.h"

#include <vrxutil/binary.h>
#include <vrxutil/log.h>

#include <algorithm>
#include <string_view>

using vrxutil::detail::lowerHalfIsAscii;

namespace {

/// Where ASCII is part of the locale's encoding, it is not converted.
bool isAscii(wchar_t character) { return character > 0 && character < 0x80; }

void fillWithNul(unsigned char* begin, unsigned char const* end) {
  std::fill_n(begin, end - begin, static_cast<unsigned char>(0));
}

}  // namespace

void ABinaryStream::reportExcess(long count) {
  logInternalError(L"BinStrm", AString(L"Tried to write past buffer end by ") << count);
}

void ABinaryStream::assign(AString& out, std::string_view field) {
  out = std::string(field).c_str();
}

void ABinaryStream::writeField(unsigned char* field, unsigned long length, AString const& text) {
  wchar_t const* next = text;
  unsigned char* const end = field + length;
  unsigned char* place = field;
  while (place != end && isAscii(*next)) *place++ = static_cast<unsigned char>(*next++);
  if ((place == end || *next == 0) && lowerHalfIsAscii()) return fillWithNul(place, end);
  ACharString const narrow(text);
  auto const size = std::min(length, static_cast<unsigned long>(narrow.size()));
  fillWithNul(std::copy_n(static_cast<char const*>(narrow), size, field), end);
}

unsigned long ABinaryStream::narrowLength(AString const& text) {
  wchar_t const* const start = text;
  wchar_t const* end = start;
  while (isAscii(*end)) ++end;
  if (*end == 0 && lowerHalfIsAscii()) return static_cast<unsigned long>(end - start);
  return static_cast<unsigned long>(ACharString(text).size());
}

#include <vrxutil/text.h>

#include <algorithm>
#include <climits>
#include <stdexcept>

ACharString::ACharString() : ACharString("", 0) {}

ACharString::ACharString(wchar_t const* text) {
  wchar_t const* const source = text != nullptr ? text : L"";
  int const size = conversionSpaceRequired(source);
  buffer = checkNewChar(size);
  convert(source, buffer);
  length = size - 1;
}

ACharString::ACharString(char const* bytes, int sizeInBytes) : length(std::max(sizeInBytes, 0)) {
  if (length == INT_MAX) throw std::length_error("a narrow text has no room for its terminator");
  buffer = checkNewChar(length + 1);
  if (bytes == nullptr) return;
  std::copy_n(bytes, length, buffer);
  buffer[length] = '\0';
}

ACharString::~ACharString() { delete[] buffer; }

char* checkNewChar(int size) { return new char[static_cast<std::size_t>(size)]; }

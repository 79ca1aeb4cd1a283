#include <vrxutil/text.h>

#include <algorithm>

ACharString::ACharString() : ACharString("", 0) {}

ACharString::ACharString(wchar_t const* text) {
  wchar_t const* const source = text != nullptr ? text : L"";
  int const size = conversionSpaceRequired(source);
  buffer = checkNewChar(size);
  convert(source, buffer);
  length = size - 1;
}

ACharString::ACharString(char const* bytes, int sizeInBytes)
    : buffer(checkNewChar(sizeInBytes + 1)), length(sizeInBytes) {
  if (bytes == nullptr) return;
  std::copy_n(bytes, sizeInBytes, buffer);
  buffer[sizeInBytes] = '\0';
}

ACharString::~ACharString() { delete[] buffer; }

char* checkNewChar(int size) { return new char[static_cast<std::size_t>(size)]; }

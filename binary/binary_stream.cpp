#include <vrxutil/binary.h>
#include <vrxutil/log.h>

#include <algorithm>
#include <bit>

ABinaryStream::ABinaryStream(bool isLittleEndian) noexcept {
  construct(nullptr, nullptr, isLittleEndian);
}

ABinaryStream::ABinaryStream(unsigned char* start, unsigned long length,
                             bool isLittleEndian) noexcept {
  construct(start, start, isLittleEndian);
  setPointer(start, length);
}

void ABinaryStream::construct(unsigned char* start, unsigned char* rangeEnd,
                              bool isLittleEndian) noexcept {
  cursor = start;
  end = rangeEnd;
  hostIsLittleEndian = std::endian::native == std::endian::little ? 1 : 0;
  littleEndian = isLittleEndian ? 1 : 0;
  overflow = 0;
}

// A length that no memory has comes round: nothing fits then.
void ABinaryStream::setPointer(unsigned char* start, unsigned long length) noexcept {
  cursor = start;
  end = reinterpret_cast<unsigned char*>(addressOf(start) + length);
  overflow = 0;
}

bool ABinaryStream::pastEndError() const {
  if (overflow == 0) return false;
  auto const excess = static_cast<long>(addressOf(cursor) - addressOf(end));
  logInternalError(L"BinStrm", AString(L"Tried to write past buffer end by ") << excess);
  return true;
}

/// The next field, which the cursor stays before; nothing where it does not fit.
std::string_view ABinaryStream::nextBytes(int length) noexcept {
  auto const count = static_cast<unsigned long>(length);
  if (pastEndWith(count)) return {};
  return {reinterpret_cast<char const*>(cursor), count};
}

// A result for which there is no memory leaves the cursor before its field.

void ABinaryStream::readString(int length, AString& out) {
  std::string_view const bytes = nextBytes(length);
  out = std::string(bytes).c_str();
  skip(bytes.size());
}

void ABinaryStream::readString(int length, std::string& out) {
  std::string_view const bytes = nextBytes(length);
  out = bytes.substr(0, bytes.find('\0'));
  skip(bytes.size());
}

void ABinaryStream::readBuffer(int length, AnObjectBuffer<unsigned char>& out) {
  std::string_view const bytes = nextBytes(length);
  out.allocate(bytes.size(), reinterpret_cast<unsigned char const*>(bytes.data()));
  skip(bytes.size());
}

void ABinaryStream::writeString(unsigned long length, AString const& text) {
  if (pastEndWith(length)) return;
  ACharString const narrow(text);
  auto const copied = std::min(length, static_cast<unsigned long>(narrow.size()));
  std::fill_n(std::copy_n(static_cast<char const*>(narrow), copied, cursor), length - copied,
              static_cast<unsigned char>(0));
  skip(length);
}

void ABinaryStream::writeString(AString const& text) {
  ACharString const narrow(text);
  writeBytes(static_cast<char const*>(narrow), static_cast<unsigned long>(narrow.size()));
}

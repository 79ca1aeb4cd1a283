// Writes a record of fields, shows its bytes, and reads it back with all checks.

#include <vrxutil/binary.h>

#include <cstdio>

namespace {

using Bytes = AnObjectBuffer<unsigned char>;

/// Format: long count, text of 6 bytes, short length, block. Big-endian.
bool write(Bytes& record, Bytes const& block) {
  if (block.size() > 0xFFFF) return false;  // its length would not fit
  if (!record.tryToChangeSizeTo(4 + 6 + 2 + block.size())) return false;
  auto* const bytes = const_cast<unsigned char*>(record.getBytes());
  ABinaryStream stream(bytes, record.size(), /*littleEndian=*/false);
  stream.writeLong(3);
  stream.writeString(6, L"tasks");
  stream.writeShort(static_cast<unsigned short>(block.size()));
  stream.writeBuffer(block, /*maximum=*/0);
  return !stream.pastEndError();  // one question after all fields
}

/// The bytes come from elsewhere: nothing in them is believed.
bool read(Bytes& record) {
  auto* const bytes = const_cast<unsigned char*>(record.getBytes());
  ABinaryStream stream(bytes, record.size(), /*littleEndian=*/false);
  AString name;
  Bytes block(0, nullptr);
  unsigned long const count = stream.readLong();
  stream.readString(6, name);
  stream.readBuffer(stream.readShort(), block);
  if (stream.pastEndError() || !stream.atEnd()) return false;
  std::printf("%lu %s, %lu bytes\n", count, static_cast<char const*>(ACharString(name)),
              block.size());
  return true;
}

}  // namespace

int main() {
  Bytes record(0, nullptr);
  if (!write(record, Bytes("abc"))) return 1;
  AString const text = ABase64Encode::encode(record);
  std::puts(ACharString(text));
  Bytes copy = ABase64Encode::decode(text);
  if (!read(copy)) return 1;
  copy.shrinkTo(13);
  std::puts(read(copy) ? "complete" : "cut");
}

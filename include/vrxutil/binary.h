// Bytes: growable buffers, records of binary fields, byte-order conversion, Base64.
//
// Sizes are in bytes. A buffer's size is exactly what was asked for.
// Errors: the `try` operations log under "Buffer" and return false; the others
// let std::bad_alloc and std::length_error pass.
// Threads: a buffer belongs to one thread at a time; the byte-order functions
// may run anywhere.

#pragma once

#include <vrxutil/export.h>
#include <vrxutil/text.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

/// A growable buffer of arbitrary bytes, copied by value.
///
/// Callers write through getBytes() after sizing the buffer, casting the const
/// away. A zero byte stands after the last byte; checkAllocation() takes a
/// change of it for an overrun.
class VRXUTIL_EXPORT ABuffer {
public:
  /// The bytes of `text` without its terminator. Null is an empty text here.
  ABuffer(char const* text);

  /// `size` bytes from `source`; zero bytes where `source` is null.
  ABuffer(unsigned long size, unsigned char const* source);

  /// The bytes as they are.
  ABuffer(std::string const& bytes);

  /// The first byte; the zero byte after the contents when the size is 0.
  unsigned char const* getBytes() const;

  /// Number of bytes.
  unsigned long size() const { return bytes_.size(); }

  /// The bytes themselves, for calls that want or change a string of C++.
  std::string& cpp_str() { return bytes_; }

  /// The bytes themselves, to read.
  std::string const& cpp_str() const { return bytes_; }

  /// Sets the size: bytes beyond the old size are zero, those beyond `size` are
  /// dropped. Then copies `size` bytes from `source` unless that is null, which
  /// may point into this buffer. Returns getBytes(). A failure to obtain memory
  /// is thrown, not logged, and leaves the buffer as it was.
  unsigned char const* allocate(unsigned long size, unsigned char const* source);

  /// Sets the size as allocate() does. On failure logs
  /// "Exception WHAT trying to allocate SIZE bytes" and returns false, with the
  /// buffer unchanged.
  bool tryToChangeSizeTo(unsigned long size);

  /// tryToChangeSizeTo(), then copies `size` bytes from `source` unless that is
  /// null. False also when checkAllocation() fails after the copy.
  bool tryAllocate(unsigned long size, unsigned char const* source);

  /// Appends `count` bytes from `source`; zero bytes where that is null.
  /// Otherwise as tryAllocate(). The new size is the plain sum: with a null
  /// source a sum beyond the range of unsigned long wraps round, and the buffer
  /// shrinks. With a source such a sum is refused like a size that cannot be
  /// had.
  bool tryExpandBy(unsigned long count, unsigned char const* source);

  /// Cuts the buffer to `size` bytes; a smaller one stays as it is.
  void shrinkTo(unsigned long size);

  /// True while the byte after the contents is zero. False, with the internal
  /// error "Buffer overflow" under "Buffer", when something wrote past the end;
  /// the byte stays as it is.
  bool checkAllocation();

private:
  std::string bytes_;
};

template <class T>
class AnObjectBuffer;

/// The typed face of ABuffer that most signatures take.
template <>
class VRXUTIL_EXPORT AnObjectBuffer<unsigned char> : public ABuffer {
public:
  /// `size` bytes from `source`; zero bytes where `source` is null.
  AnObjectBuffer(unsigned int size, unsigned char const* source);

  /// The bytes as they are.
  AnObjectBuffer(std::string bytes);

  /// getBytes().
  operator unsigned char const*() const { return getBytes(); }
};

/// Reads and writes fields at a cursor that moves over memory of the caller's.
///
/// A record is its fields one after the other, without header, padding or lengths:
/// the reader must know them in advance. Numbers are in the byte order of the
/// stream, on every host.
///
/// A field that does not fit latches an overflow. From then on reads give 0 or
/// empty values and writes are left out, even of what would fit, while the cursor
/// goes on, so that it tells in the end how much was missing. Ask once, by
/// pastEndError(), after all fields. A negative length, as a number beyond the
/// range of memory, never fits.
///
/// Nothing is logged but by pastEndError(), and by conversions of text under
/// "String". Only std::bad_alloc is thrown, by what takes memory for its result.
class VRXUTIL_EXPORT ABinaryStream {
public:
  /// A stream over nothing; setPointer() gives it a range.
  explicit ABinaryStream(bool littleEndian) noexcept;

  /// A stream over the `length` bytes from `start`, which must outlive its use.
  ABinaryStream(unsigned char* start, unsigned long length, bool littleEndian) noexcept;

  /// Starts afresh over the bytes from `start` up to `rangeEnd`.
  void construct(unsigned char* start, unsigned char* rangeEnd, bool littleEndian) noexcept;

  /// The cursor, which may be beyond the range.
  unsigned char* getPointer() const noexcept { return cursor; }

  /// A new range; the byte order stays, an overflow is forgotten.
  void setPointer(unsigned char* start, unsigned long length) noexcept;

  /// Whether `count` bytes from the cursor on do not fit, or anything before did
  /// not: the overflow is latched then, and the cursor moved by `count`. Otherwise
  /// the cursor stays.
  bool pastEndWith(unsigned long count) noexcept;

  /// Whether nothing fits any more.
  bool atEnd() const noexcept { return addressOf(cursor) >= addressOf(end) || overflow != 0; }

  /// Whether anything did not fit; then logs the internal error "Tried to write
  /// past buffer end by N" under "BinStrm", also after reading. N is how far the
  /// cursor stands beyond the end.
  bool pastEndError() const;

  /// An unsigned number of 4 bytes.
  unsigned long readLong() noexcept;

  /// An unsigned number of 2 bytes.
  unsigned short readShort() noexcept;

  /// One byte.
  char readChar() noexcept;

  /// Narrow text in a field of `length` bytes; it ends at the first NUL in it. It is
  /// converted from the C locale.
  void readString(int length, AString& out);

  /// The same, with the bytes as they are.
  void readString(int length, std::string& out);

  /// The next `length` bytes.
  void readBuffer(int length, AnObjectBuffer<unsigned char>& out);

  /// One byte.
  void writeChar(char value) noexcept;

  /// The low 32 bits of `value`.
  void writeLong(unsigned long value) noexcept;

  /// A number of 2 bytes.
  void writeShort(unsigned short value) noexcept;

  /// The text in the encoding of the C locale, in a field of `length` bytes: cut at
  /// its end, perhaps within a character, or filled with NUL.
  void writeString(unsigned long length, AString const& text);

  /// The text in the encoding of the C locale, without a terminator.
  void writeString(AString const& text);

  /// The bytes of `block`, at most `maximum` unless that is 0. They may be part of
  /// the range.
  void writeBuffer(AnObjectBuffer<unsigned char> const& block, unsigned long maximum) noexcept;

private:
  static std::uintptr_t addressOf(unsigned char const* place) noexcept {
    return reinterpret_cast<std::uintptr_t>(place);
  }

  void skip(unsigned long count) noexcept;

  static std::uint32_t join(unsigned high, unsigned b2, unsigned b1, unsigned low) noexcept;
  template <std::size_t kSize>
  void put(unsigned char const (&bytes)[kSize]) noexcept;
  std::string_view nextBytes(int length) noexcept;
  void writeBytes(void const* bytes, unsigned long count) noexcept;

  // What takes no part in moving the cursor. As nothing outside gets the stream's
  // address, compilers keep a whole record's cursor in a register.
  static void assign(AString& out, std::string_view field);
  static void writeField(unsigned char* field, unsigned long length, AString const& text);
  static unsigned long narrowLength(AString const& text);
  static void reportExcess(long count);

  unsigned char* cursor;
  unsigned char* end;
  std::uint32_t hostIsLittleEndian;  // kept for the layout; the fields do not ask
  std::uint32_t littleEndian;
  std::uint32_t overflow;
};

extern "C" {

/// Conversion between the host's byte order and a fixed one, little-endian (Le)
/// or big-endian (Be), of values of 4 or 2 bytes. Both functions of a pair do the
/// same; applying either twice gives back the argument.
///@{
VRXUTIL_EXPORT std::uint32_t Host2Le4(std::uint32_t value);
VRXUTIL_EXPORT std::uint32_t Le2Host4(std::uint32_t value);
VRXUTIL_EXPORT std::uint32_t Host2Be4(std::uint32_t value);
VRXUTIL_EXPORT std::uint32_t Be2Host4(std::uint32_t value);
VRXUTIL_EXPORT std::uint16_t Host2Le2(std::uint16_t value);
VRXUTIL_EXPORT std::uint16_t Le2Host2(std::uint16_t value);
VRXUTIL_EXPORT std::uint16_t Host2Be2(std::uint16_t value);
VRXUTIL_EXPORT std::uint16_t Be2Host2(std::uint16_t value);
///@}
}

/// Encodes bytes as Base64 (RFC 4648, section 4) piece by piece; returns the number of
/// characters written to `target`, which is not terminated.
///
/// Encoding goes on until `source` is used up or `target` is full; `consumed` gets the
/// number of bytes used. When the source is used up, the text is ended at once, with
/// padding, if there is room for all that this takes; else the rest waits in `state`
/// for the next call. So pieces of a longer text must be multiples of three bytes. A
/// null `source` only writes what waits. `state` is 0 at the start of a text, else as
/// the call before left it; null stands for a text of this call alone. `consumed` may
/// be null.
///
/// Of the six bits that may wait in `state`, the call takes back the upper four.
VRXUTIL_EXPORT unsigned long Base64Encode(void const* source, unsigned long sourceLength,
                                          char* target, unsigned long targetLength, int* state,
                                          unsigned long* consumed);

/// Decodes Base64 piece by piece; returns the number of bytes written to `target`.
///
/// Decoding goes on until `source` is used up or `target` is full; `consumed` gets the
/// number of characters used. Characters outside the alphabet are left out, "=" begins
/// a new text: there are no errors. A `sourceLength` beyond 0x7FFFFFFE stands for the
/// length up to the NUL. `state` and `consumed` are as for Base64Encode().
VRXUTIL_EXPORT unsigned long Base64Decode(char const* source, unsigned long sourceLength,
                                          void* target, unsigned long targetLength, int* state,
                                          unsigned long* consumed);

/// Base64 of whole buffers. Lack of memory for the array that the result is worked out
/// in gives an empty result; for anything else, such as the copy of `bytes`, the narrow
/// form of `text` or the result itself, it is thrown: std::bad_alloc, or
/// std::length_error for a length that no buffer has. Texts are converted as AString
/// does it, with its records under "String".
class VRXUTIL_EXPORT ABase64Encode {
public:
  ABase64Encode() = delete;

  /// The Base64 text of the bytes, with padding and without line breaks.
  ///@{
  static AString encode(AnObjectBuffer<unsigned char> const& data);
  static AString encode(unsigned char const* bytes, unsigned long const& length);
  ///@}

  /// The bytes that `text` stands for; what is not in the alphabet is left out.
  static AnObjectBuffer<unsigned char> decode(AString const& text);
};

inline ABinaryStream::ABinaryStream(bool isLittleEndian) noexcept {
  construct(nullptr, nullptr, isLittleEndian);
}

inline ABinaryStream::ABinaryStream(unsigned char* start, unsigned long length,
                                    bool isLittleEndian) noexcept {
  construct(start, start, isLittleEndian);
  setPointer(start, length);
}

inline void ABinaryStream::construct(unsigned char* start, unsigned char* rangeEnd,
                                     bool isLittleEndian) noexcept {
  std::uint32_t const one = 1;
  unsigned char firstByte = 0;
  std::memcpy(&firstByte, &one, sizeof firstByte);
  cursor = start;
  end = rangeEnd;
  hostIsLittleEndian = firstByte;
  littleEndian = isLittleEndian ? 1 : 0;
  overflow = 0;
}

// Addresses are added as numbers, which pointers must not be where they leave the
// range. A length that no memory has comes round: nothing fits then.
inline void ABinaryStream::setPointer(unsigned char* start, unsigned long length) noexcept {
  cursor = start;
  // NOLINTNEXTLINE(performance-no-int-to-ptr): see above
  end = reinterpret_cast<unsigned char*>(addressOf(start) + length);
  overflow = 0;
}

// The cursor may leave the range, and even come round: addresses are added as
// numbers, which pointers must not be.
inline void ABinaryStream::skip(unsigned long count) noexcept {
  // NOLINTNEXTLINE(performance-no-int-to-ptr): see above
  cursor = reinterpret_cast<unsigned char*>(addressOf(cursor) + count);
}

inline bool ABinaryStream::pastEndWith(unsigned long count) noexcept {
  std::uintptr_t const next = addressOf(cursor) + count;
  if (overflow == 0 && next <= addressOf(end) && next >= addressOf(cursor)) return false;
  overflow = 1;
  skip(count);
  return true;
}

inline bool ABinaryStream::pastEndError() const {
  if (overflow == 0) return false;
  reportExcess(static_cast<long>(addressOf(cursor) - addressOf(end)));
  return true;
}

// Numbers are put together and taken apart by shifts, which compilers make one load
// or store of.
inline std::uint32_t ABinaryStream::join(unsigned high, unsigned b2, unsigned b1,
                                         unsigned low) noexcept {
  return high << 24 | b2 << 16 | b1 << 8 | low;
}

inline unsigned long ABinaryStream::readLong() noexcept {
  if (pastEndWith(4)) return 0;
  unsigned char const* const b = cursor;
  skip(4);
  return littleEndian != 0 ? join(b[3], b[2], b[1], b[0]) : join(b[0], b[1], b[2], b[3]);
}

inline unsigned short ABinaryStream::readShort() noexcept {
  if (pastEndWith(2)) return 0;
  unsigned char const* const b = cursor;
  skip(2);
  return static_cast<unsigned short>(littleEndian != 0 ? join(0, 0, b[1], b[0])
                                                       : join(0, 0, b[0], b[1]));
}

inline char ABinaryStream::readChar() noexcept {
  if (pastEndWith(1)) return 0;
  auto const value = static_cast<char>(*cursor);
  skip(1);
  return value;
}

/// The next field, which the cursor stays before; nothing where it does not fit.
inline std::string_view ABinaryStream::nextBytes(int length) noexcept {
  auto const count = static_cast<unsigned long>(length);
  if (pastEndWith(count)) return {};
  return {reinterpret_cast<char const*>(cursor), count};
}

// A result for which there is no memory leaves the cursor before its field.

inline void ABinaryStream::readString(int length, AString& out) {
  std::string_view const bytes = nextBytes(length);
  assign(out, bytes);
  skip(bytes.size());
}

inline void ABinaryStream::readString(int length, std::string& out) {
  std::string_view const bytes = nextBytes(length);
  out = bytes.substr(0, bytes.find('\0'));
  skip(bytes.size());
}

inline void ABinaryStream::readBuffer(int length, AnObjectBuffer<unsigned char>& out) {
  std::string_view const bytes = nextBytes(length);
  out.allocate(bytes.size(), reinterpret_cast<unsigned char const*>(bytes.data()));
  skip(bytes.size());
}

inline void ABinaryStream::writeChar(char value) noexcept {
  if (pastEndWith(1)) return;
  *cursor = static_cast<unsigned char>(value);
  skip(1);
}

inline void ABinaryStream::writeLong(unsigned long value) noexcept {
  if (pastEndWith(4)) return;
  auto const part = [=](int shift) { return static_cast<unsigned char>(value >> shift); };
  if (littleEndian != 0) {
    put({part(0), part(8), part(16), part(24)});
  } else {
    put({part(24), part(16), part(8), part(0)});
  }
}

inline void ABinaryStream::writeShort(unsigned short value) noexcept {
  if (pastEndWith(2)) return;
  auto const low = static_cast<unsigned char>(value);
  auto const high = static_cast<unsigned char>(value >> 8);
  if (littleEndian != 0) {
    put({low, high});
  } else {
    put({high, low});
  }
}

template <std::size_t kSize>
void ABinaryStream::put(unsigned char const (&bytes)[kSize]) noexcept {
  std::memcpy(cursor, bytes, kSize);
  skip(kSize);
}

inline void ABinaryStream::writeString(unsigned long length, AString const& text) {
  if (pastEndWith(length)) return;
  writeField(cursor, length, text);
  skip(length);
}

inline void ABinaryStream::writeString(AString const& text) {
  writeString(narrowLength(text), text);
}

inline void ABinaryStream::writeBuffer(AnObjectBuffer<unsigned char> const& block,
                                       unsigned long maximum) noexcept {
  unsigned long const size = block.size();
  writeBytes(block.getBytes(), maximum != 0 && maximum < size ? maximum : size);
}

inline void ABinaryStream::writeBytes(void const* bytes, unsigned long count) noexcept {
  if (pastEndWith(count) || count == 0) return;
  std::memmove(cursor, bytes, count);
  skip(count);
}

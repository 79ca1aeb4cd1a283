// Bytes: growable buffers and byte-order conversion.
//
// Sizes are in bytes. A buffer's size is exactly what was asked for.
// Errors: the `try` operations log under "Buffer" and return false; the others
// let std::bad_alloc and std::length_error pass.
// Threads: a buffer belongs to one thread at a time; the byte-order functions
// may run anywhere.

#pragma once

#include <vrxutil/export.h>

#include <cstdint>
#include <string>

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

  ABuffer(std::string const& bytes);

  /// The first byte; the zero byte after the contents when the size is 0.
  unsigned char const* getBytes() const;

  unsigned long size() const { return bytes_.size(); }

  std::string& cpp_str() { return bytes_; }

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

  AnObjectBuffer(std::string bytes);

  operator unsigned char const*() const { return getBytes(); }
};

// Conversion between the host's byte order and a fixed one, little-endian (Le)
// or big-endian (Be), of values of 4 or 2 bytes. Both functions of a pair do the
// same; applying either twice gives back the argument.
extern "C" {
VRXUTIL_EXPORT std::uint32_t Host2Le4(std::uint32_t value);
VRXUTIL_EXPORT std::uint32_t Le2Host4(std::uint32_t value);
VRXUTIL_EXPORT std::uint32_t Host2Be4(std::uint32_t value);
VRXUTIL_EXPORT std::uint32_t Be2Host4(std::uint32_t value);
VRXUTIL_EXPORT std::uint16_t Host2Le2(std::uint16_t value);
VRXUTIL_EXPORT std::uint16_t Le2Host2(std::uint16_t value);
VRXUTIL_EXPORT std::uint16_t Host2Be2(std::uint16_t value);
VRXUTIL_EXPORT std::uint16_t Be2Host2(std::uint16_t value);
}

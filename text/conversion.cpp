#include "text/conversion.h"

#include "platform/common/ascii.h"
#include "platform/common/utf8.h"

#include <vrxutil/log.h>
#include <vrxutil/text.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <functional>
#include <stdexcept>
#include <string_view>

#include <langinfo.h>

namespace vrxutil::detail {

namespace {

/// How the current locale encodes text, as far as that allows for a shorter way
/// than the C library's.
enum class Encoding {
  /// RFC 3629, for each Unicode scalar value; what else the C library takes for a
  /// character is its own affair.
  utf8,
  /// Bytes below 0x80 are ASCII.
  asciiBelow,
  /// Not known; in some encodings, such as Shift JIS, they are not.
  other,
};

Encoding currentEncoding() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): as safe as the conversions themselves
  std::string_view const codeset = nl_langinfo(CODESET);
  if (codeset == "UTF-8") return Encoding::utf8;
  bool const asciiBelow = codeset == "ANSI_X3.4-1968" || codeset == "US-ASCII" ||
                          codeset.starts_with("ISO-8859-") || codeset.starts_with("ISO8859-");
  return asciiBelow ? Encoding::asciiBelow : Encoding::other;
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

constexpr std::size_t utf8Size(wchar_t c) {
  return std::size_t{1} + (c >= 0x80 ? 1 : 0) + (c >= 0x800 ? 1 : 0) + (c >= 0x10000 ? 1 : 0);
}

/// Counts the bytes of narrow text. The add functions take as much of `text` as
/// can be had their way, and return how much that was.
class ByteCount {
public:
  std::size_t bytes() const { return bytes_; }

  std::size_t addAscii(std::wstring_view text) {
    std::size_t const size = asciiPrefix(text.data(), text.size());
    bytes_ += size;
    return size;
  }

  std::size_t addUtf8(std::wstring_view text) {
    std::size_t read = addAscii(text);
    for (; read < text.size() && isScalarValue(text[read]); ++read) bytes_ += utf8Size(text[read]);
    return read;
  }

  void addOne(wchar_t c) { bytes_ += narrowOne(c, scratch_.data(), state_); }

private:
  std::size_t bytes_ = 0;
  std::mbstate_t state_{};
  std::array<char, MB_LEN_MAX> scratch_;
};

/// Writes narrow text to where there is room for it, as ByteCount counts it.
class ByteTarget {
public:
  explicit ByteTarget(char* target) : end_(target) {}

  char* end() const { return end_; }

  std::size_t addAscii(std::wstring_view text) {
    std::size_t const size = asciiPrefix(text.data(), text.size());
    copyAscii(text.data(), size, end_);
    end_ += size;
    return size;
  }

  std::size_t addUtf8(std::wstring_view text) {
    Converted const converted = encodeUtf8(text, end_);
    end_ += converted.written;
    return converted.read;
  }

  void addOne(wchar_t c) { end_ += narrowOne(c, end_, state_); }

private:
  char* end_;
  std::mbstate_t state_{};
};

/// Converts `text`: stretches that have a shorter way by that, to the result that
/// the C library has, the characters between them one by one. None of the shorter
/// ways is taken in an encoding with shift states.
template <class Output>
void narrow(std::wstring_view text, Output& output) {
  Encoding const encoding = currentEncoding();
  while (true) {
    if (encoding == Encoding::utf8) text.remove_prefix(output.addUtf8(text));
    if (encoding == Encoding::asciiBelow) text.remove_prefix(output.addAscii(text));
    if (text.empty()) return;
    output.addOne(text.front());
    text.remove_prefix(1);
  }
}

}  // namespace

bool lowerHalfIsAscii() { return currentEncoding() != Encoding::other; }

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
  std::less_equal<> const notAfter;
  return notAfter(owner.data(), text) && notAfter(text, owner.data() + owner.size());
}

}  // namespace vrxutil::detail

using vrxutil::detail::ByteCount;
using vrxutil::detail::ByteTarget;
using vrxutil::detail::kInvalid;
using vrxutil::detail::narrow;

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
  ByteCount count;
  narrow(text, count);
  if (count.bytes() >= INT_MAX) {
    throw std::length_error("a narrow text is longer than an int can say");
  }
  return static_cast<int>(count.bytes() + 1);
}

void convert(wchar_t const* text, char* target) {
  ByteTarget output(target);
  narrow(text, output);
  *output.end() = '\0';
}

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
  return currentEncoding() != Encoding::other ? asciiPrefix(text, size) : 0;
}

/// wcrtomb, with "?" for a character that the locale's encoding lacks.
std::size_t narrowOne(wchar_t character, char* target, std::mbstate_t& state) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): safe with a state of its own
  std::size_t const size = std::wcrtomb(target, character, &state);
  if (size != kInvalid) return size;
  *target = '?';
  return 1;
}

/// Number of scalar values that `text` begins with, looked for up to a block's end.
std::size_t scalarPrefix(std::wstring_view text) {
  text = text.substr(0, kAsciiBlock);
  if (text.size() == kAsciiBlock) {
    bool allAre = true;
    for (std::size_t i = 0; i < kAsciiBlock; ++i) allAre &= isScalarValue(text[i]);
    if (allAre) return kAsciiBlock;
  }
  return static_cast<std::size_t>(std::ranges::find_if_not(text, isScalarValue) - text.begin());
}

constexpr std::size_t utf8Size(char32_t c) {
  return std::size_t{1} + (c >= 0x80 ? 1 : 0) + (c >= 0x800 ? 1 : 0) + (c >= 0x10000 ? 1 : 0);
}

/// Writes a scalar value in UTF-8; returns the end.
constexpr char* putUtf8(char32_t c, char* target) {
  constexpr std::array<char32_t, kMaxUtf8Size + 1> kLeads{0, 0x00, 0xC0, 0xE0, 0xF0};  // by size
  std::size_t const size = utf8Size(c);
  std::size_t shift = 6 * (size - 1);
  *target++ = static_cast<char>(kLeads[size] | c >> shift);
  while (shift > 0) {
    shift -= 6;
    *target++ = static_cast<char>(0x80 | (c >> shift & 0x3F));
  }
  return target;
}

/// Counts the bytes of narrow text.
class ByteCount {
public:
  std::size_t bytes() const { return bytes_; }

  void addAscii(std::wstring_view text) { bytes_ += text.size(); }

  void addUtf8(std::wstring_view text) {
    for (wchar_t const c : text) bytes_ += utf8Size(static_cast<char32_t>(c));
  }

  void addOne(wchar_t c) { bytes_ += narrowOne(c, scratch_.data(), state_); }

private:
  std::size_t bytes_ = 0;
  std::mbstate_t state_{};
  std::array<char, MB_LEN_MAX> scratch_;
};

/// Writes narrow text to where there is room for it.
class ByteTarget {
public:
  explicit ByteTarget(char* target) : end_(target) {}

  char* end() const { return end_; }

  void addAscii(std::wstring_view text) {
    copyAscii(text.data(), text.size(), end_);
    end_ += text.size();
  }

  void addUtf8(std::wstring_view text) {
    for (wchar_t const c : text) end_ = putUtf8(static_cast<char32_t>(c), end_);
  }

  void addOne(wchar_t c) { end_ += narrowOne(c, end_, state_); }

private:
  char* end_;
  std::mbstate_t state_{};
};

/// Converts `text` from one stretch to the next, each by the shortest way that
/// gives what the C library gives character by character. None of the shorter
/// ways is taken in an encoding with shift states.
template <class Output>
void narrow(std::wstring_view text, Output& output) {
  Encoding const encoding = currentEncoding();
  auto const take = [&text](std::size_t size) {
    std::wstring_view const taken = text.substr(0, size);
    text.remove_prefix(size);
    return taken;
  };
  while (!text.empty()) {
    if (encoding != Encoding::other) {
      output.addAscii(take(asciiPrefix(text.data(), text.size())));
    }
    std::size_t const scalars = encoding == Encoding::utf8 ? scalarPrefix(text) : 0;
    if (scalars > 0) {
      output.addUtf8(take(scalars));
    } else if (!text.empty()) {
      output.addOne(take(1).front());
    }
  }
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

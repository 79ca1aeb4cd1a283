#include "platform/common/utf8.h"

#include "platform/common/ascii.h"

#include <algorithm>
#include <array>

namespace vrxutil::detail {

namespace {

/// ASCII is looked for in stretches that stay in the processor's nearest cache
/// until they are copied.
constexpr std::size_t kStretch = 4096;

/// After a character that is not ASCII, this many are converted one by one
/// before a run of ASCII is looked for again: in mixed text the search fails
/// more often than it helps.
constexpr std::size_t kSingles = kAsciiBlock;

/// Strings grow by pieces of this many elements, converted beside them: neither
/// is the result counted beforehand nor its memory filled twice.
constexpr std::size_t kPiece = 1024;

/// Where decoded characters go when only the input is of interest.
class Discard {
public:
  void addAscii(char const* /*source*/, std::size_t /*length*/) {}

  void add(char32_t /*c*/) {}
};

class WideTarget {
public:
  explicit WideTarget(wchar_t* target) : begin_(target), end_(target) {}

  std::size_t length() const { return static_cast<std::size_t>(end_ - begin_); }

  void addAscii(char const* source, std::size_t length) {
    copyAscii(source, length, end_);
    end_ += length;
  }

  void add(char32_t c) { *end_++ = static_cast<wchar_t>(c); }

private:
  wchar_t* begin_;
  wchar_t* end_;
};

constexpr char32_t bits(char byte, unsigned mask) {
  return static_cast<unsigned char>(byte) & mask;
}

constexpr bool isContinuation(char byte) { return bits(byte, 0xC0) == 0x80; }

struct Character {
  char32_t value;
  std::size_t size;  // 0 for no valid character
};

constexpr Character kInvalid{0, 0};

constexpr Character twoBytes(char const* p) {
  if (!isContinuation(p[1])) return kInvalid;
  char32_t const value = bits(p[0], 0x1F) << 6 | bits(p[1], 0x3F);
  return value >= 0x80 ? Character{value, 2} : kInvalid;
}

constexpr Character threeBytes(char const* p) {
  if (!isContinuation(p[1]) || !isContinuation(p[2])) return kInvalid;
  char32_t const value = bits(p[0], 0x0F) << 12 | bits(p[1], 0x3F) << 6 | bits(p[2], 0x3F);
  bool const isValid = value >= 0x800 && isScalarValue(static_cast<wchar_t>(value));
  return isValid ? Character{value, 3} : kInvalid;
}

constexpr Character fourBytes(char const* p) {
  if (!isContinuation(p[1]) || !isContinuation(p[2]) || !isContinuation(p[3])) return kInvalid;
  char32_t const value =
      bits(p[0], 0x07) << 18 | bits(p[1], 0x3F) << 12 | bits(p[2], 0x3F) << 6 | bits(p[3], 0x3F);
  bool const isValid = value >= 0x10000 && isScalarValue(static_cast<wchar_t>(value));
  return isValid ? Character{value, 4} : kInvalid;
}

/// The character that `left` bytes, at least one, begin with.
constexpr Character firstCharacter(char const* p, std::size_t left) {
  char32_t const lead = bits(*p, 0xFF);
  if (lead < 0x80) return {lead, 1};
  if (lead < 0xC0) return kInvalid;
  if (lead < 0xE0) return left >= 2 ? twoBytes(p) : kInvalid;
  if (lead < 0xF0) return left >= 3 ? threeBytes(p) : kInvalid;
  return lead < 0xF8 && left >= 4 ? fourBytes(p) : kInvalid;
}

/// Decodes into `target`; returns how many bytes were valid.
template <class Target>
std::size_t decodeTo(std::string_view utf8, Target& target) {
  char const* const data = utf8.data();
  std::size_t read = 0;
  while (read < utf8.size()) {
    std::size_t const stretch = std::min(utf8.size() - read, kStretch);
    std::size_t const ascii = asciiPrefix(data + read, stretch);
    target.addAscii(data + read, ascii);
    read += ascii;
    if (ascii == stretch) continue;
    for (std::size_t i = 0; i < kSingles && read < utf8.size(); ++i) {
      Character const character = firstCharacter(data + read, utf8.size() - read);
      if (character.size == 0) return read;
      target.add(character.value);
      read += character.size;
    }
  }
  return read;
}

constexpr char continuation(char32_t c, unsigned shift) {
  return static_cast<char>(0x80 | (c >> shift & 0x3F));
}

/// Writes a scalar value; returns its size in bytes.
std::size_t encodeOne(char32_t c, char* target) {
  if (c < 0x80) {
    target[0] = static_cast<char>(c);
    return 1;
  }
  if (c < 0x800) {
    target[0] = static_cast<char>(0xC0 | c >> 6);
    target[1] = continuation(c, 0);
    return 2;
  }
  if (c < 0x10000) {
    target[0] = static_cast<char>(0xE0 | c >> 12);
    target[1] = continuation(c, 6);
    target[2] = continuation(c, 0);
    return 3;
  }
  target[0] = static_cast<char>(0xF0 | c >> 18);
  target[1] = continuation(c, 12);
  target[2] = continuation(c, 6);
  target[3] = continuation(c, 0);
  return 4;
}

/// Makes room for `length` more elements. Many small pieces cost no more than
/// one large one, whatever the library's reserve does.
template <class String>
void makeRoom(String& string, std::size_t length) {
  std::size_t const needed = string.size() + length;
  if (needed > string.capacity()) string.reserve(std::max(needed, 2 * string.capacity()));
}

}  // namespace

Converted encodeUtf8(std::wstring_view text, char* target) {
  wchar_t const* const data = text.data();
  std::size_t read = 0;
  std::size_t written = 0;
  while (read < text.size()) {
    std::size_t const stretch = std::min(text.size() - read, kStretch);
    std::size_t const ascii = asciiPrefix(data + read, stretch);
    copyAscii(data + read, ascii, target + written);
    read += ascii;
    written += ascii;
    if (ascii == stretch) continue;
    for (std::size_t i = 0; i < kSingles && read < text.size(); ++i, ++read) {
      if (!isScalarValue(data[read])) return {read, written};
      written += encodeOne(static_cast<char32_t>(data[read]), target + written);
    }
  }
  return {read, written};
}

Converted decodeUtf8(std::string_view utf8, wchar_t* target) {
  WideTarget wide(target);
  std::size_t const read = decodeTo(utf8, wide);
  return {read, wide.length()};
}

std::size_t validUtf8Size(std::string_view utf8) {
  Discard nothing;
  return decodeTo(utf8, nothing);
}

std::size_t appendUtf8(std::wstring_view text, std::string& utf8) {
  std::array<char, kPiece * kMaxUtf8Size> buffer;
  makeRoom(utf8, text.size());
  std::size_t read = 0;
  while (read < text.size()) {
    Converted const converted = encodeUtf8(text.substr(read, kPiece), buffer.data());
    if (converted.read == 0) break;
    utf8.append(buffer.data(), converted.written);
    read += converted.read;
  }
  return read;
}

std::size_t appendWide(std::string_view utf8, std::wstring& text) {
  std::array<wchar_t, kPiece> buffer;
  makeRoom(text, utf8.size());
  std::size_t read = 0;
  while (read < utf8.size()) {
    // A character that the end of the piece cuts is the start of the next piece.
    Converted const converted = decodeUtf8(utf8.substr(read, kPiece), buffer.data());
    if (converted.read == 0) break;
    text.append(buffer.data(), converted.written);
    read += converted.read;
  }
  return read;
}

std::string lossyUtf8(std::wstring_view text) {
  std::string utf8(text.size() * kMaxUtf8Size, '\0');
  char* end = utf8.data();
  while (true) {
    Converted const converted = encodeUtf8(text, end);
    end += converted.written;
    text.remove_prefix(converted.read);
    if (text.empty()) break;
    end += encodeOne(static_cast<char32_t>(kReplacementCharacter), end);
    text.remove_prefix(1);
  }
  utf8.resize(static_cast<std::size_t>(end - utf8.data()));
  return utf8;
}

std::wstring lossyWide(std::string_view utf8) {
  std::wstring text(utf8.size(), L'\0');
  wchar_t* end = text.data();
  while (true) {
    Converted const converted = decodeUtf8(utf8, end);
    end += converted.written;
    utf8.remove_prefix(converted.read);
    if (utf8.empty()) break;
    *end++ = kReplacementCharacter;
    utf8.remove_prefix(1);
  }
  text.resize(static_cast<std::size_t>(end - text.data()));
  return text;
}

}  // namespace vrxutil::detail

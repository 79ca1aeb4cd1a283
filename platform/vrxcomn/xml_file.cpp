#include "platform/common/file_io.h"
#include "platform/common/utf8.h"
#include "platform/vrxcomn/xml_error.h"

#include <vrxcomn/xml_parser.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <tuple>
#include <utility>

namespace vrxutil::detail {

namespace {

using namespace std::string_view_literals;
using AdvXMLParser::UTF_ENCODINGS;

constexpr long kFailure = -1;
constexpr std::size_t kMaxFileSize = 512UL << 20;

/// What an encrypted file starts with: a byte that no text starts with (in UTF-8
/// it may only continue a character, and the other encodings start with a mark),
/// a name, line ends of two kinds and an end-of-file character, which show what
/// has been through a text mode on its way, and the version of what follows. In
/// version 1 that is what the encoding callback made, to the end of the file.
constexpr std::string_view kHeader = "\x89VRX\r\n\x1A\x01"sv;
/// The part of it that tells an encrypted file from others.
constexpr std::string_view kHeaderName = kHeader.substr(0, 4);

struct Mark {
  std::string_view bytes;
  UTF_ENCODINGS encoding;
  wchar_t const* name;
};

/// The byte-order marks. That of UTF-16LE is the start of UTF-32LE's.
constexpr std::array kMarks{
    Mark{"\xEF\xBB\xBF"sv, UTF_ENCODINGS::UTF_8, L"UTF-8"},
    Mark{"\xFF\xFE\0\0"sv, UTF_ENCODINGS::UTF_32_LE, L"UTF-32"},
    Mark{"\0\0\xFE\xFF"sv, UTF_ENCODINGS::UTF_32_BE, L"UTF-32"},
    Mark{"\xFF\xFE"sv, UTF_ENCODINGS::UTF_16_LE, L"UTF-16"},
    Mark{"\xFE\xFF"sv, UTF_ENCODINGS::UTF_16_BE, L"UTF-16"},
};

constexpr Mark kNoMark{""sv, UTF_ENCODINGS::UTF_8, L"UTF-8"};

Mark findMark(std::string_view bytes) {
  auto const mark = std::find_if(kMarks.begin(), kMarks.end(),
                                 [&](Mark const& m) { return bytes.starts_with(m.bytes); });
  return mark == kMarks.end() ? kNoMark : *mark;
}

constinit thread_local std::array<wchar_t, 1024> lastError{};

long fail(std::wstring_view message, long result = kFailure) {
  setLastXmlError(message);
  return result;
}

/// "cannot ACTION FILE: REASON"
std::wstring cannot(std::wstring_view action, std::wstring const& fileName,
                    std::wstring_view reason) {
  std::wstring message = L"cannot ";
  return message.append(action).append(L" ").append(fileName).append(L": ").append(reason);
}

constexpr std::wstring_view kOnlyUtf8 = L"UTF-8 is the only encoding that can be asked for";
constexpr std::wstring_view kBadName =
    L"the name cannot be expressed in the encoding of the locale";

/// "line L, column C" of the end of `text`, from 1, in characters. CR LF, CR and
/// LF end a line (XML 1.0, 2.11).
std::wstring positionAfter(std::wstring_view text) {
  std::size_t line = 1;
  std::size_t column = 1;
  for (std::size_t i = 0; i < text.size(); ++i) {
    bool const isInsideLineEnd = text[i] == L'\r' && i + 1 < text.size() && text[i + 1] == L'\n';
    bool const isLineEnd = !isInsideLineEnd && (text[i] == L'\n' || text[i] == L'\r');
    line += isLineEnd ? 1 : 0;
    column = isLineEnd ? 1 : column + 1;
  }
  return L"line " + std::to_wstring(line) + L", column " + std::to_wstring(column);
}

/// What is wrong with bytes of which `valid` were converted, to `text`.
std::wstring invalidBytes(Mark const& mark, std::size_t valid, std::wstring_view text) {
  return std::wstring(L"invalid ") + mark.name + L" at byte offset " +
         std::to_wstring(mark.bytes.size() + valid) + L", " + positionAfter(text);
}

/// What is wrong with a text of which `valid` characters could be converted.
std::wstring invalidCharacter(std::wstring_view text, std::size_t valid) {
  std::array<char, 8> digits;
  auto const value = static_cast<std::uint32_t>(text[valid]);
  auto const [end, error] = std::to_chars(digits.begin(), digits.end(), value, 16);
  return L"character 0x" + std::wstring(digits.begin(), end) + L" at " +
         positionAfter(text.substr(0, valid)) + L" is no Unicode character";
}

std::uint32_t unitAt(std::string_view bytes, std::size_t offset, std::size_t size,
                     std::endian order) {
  std::uint32_t unit = 0;
  for (std::size_t i = 0; i < size; ++i) {
    std::size_t const at = order == std::endian::big ? i : size - 1 - i;
    unit = unit << 8 | static_cast<unsigned char>(bytes[offset + at]);
  }
  return unit;
}

/// Appends UTF-16 as far as it is valid; returns how many bytes that was.
std::size_t appendUtf16(std::string_view bytes, std::endian order, std::wstring& text) {
  text.reserve(text.size() + bytes.size() / 2);
  std::size_t read = 0;
  while (bytes.size() - read >= 2) {
    std::uint32_t character = unitAt(bytes, read, 2, order);
    std::size_t size = 2;
    if (character >= 0xD800 && character < 0xDC00 && bytes.size() - read >= 4) {
      std::uint32_t const low = unitAt(bytes, read + 2, 2, order);
      if (low < 0xDC00 || low >= 0xE000) break;
      character = 0x10000 + ((character - 0xD800) << 10 | (low - 0xDC00));
      size = 4;
    }
    if (!isScalarValue(static_cast<wchar_t>(character))) break;
    text += static_cast<wchar_t>(character);
    read += size;
  }
  return read;
}

/// Appends UTF-32 as far as it is valid; returns how many bytes that was.
std::size_t appendUtf32(std::string_view bytes, std::endian order, std::wstring& text) {
  text.reserve(text.size() + bytes.size() / 4);
  std::size_t read = 0;
  for (; bytes.size() - read >= 4; read += 4) {
    auto const character = static_cast<wchar_t>(unitAt(bytes, read, 4, order));
    if (!isScalarValue(character)) break;
    text += character;
  }
  return read;
}

/// Appends bytes as far as they are valid; returns how many that was.
std::size_t appendEncoded(std::string_view bytes, UTF_ENCODINGS encoding, std::wstring& text) {
  switch (encoding) {
    case UTF_ENCODINGS::UTF_16_BE:
      return appendUtf16(bytes, std::endian::big, text);
    case UTF_ENCODINGS::UTF_16_LE:
      return appendUtf16(bytes, std::endian::little, text);
    case UTF_ENCODINGS::UTF_32_BE:
      return appendUtf32(bytes, std::endian::big, text);
    case UTF_ENCODINGS::UTF_32_LE:
      return appendUtf32(bytes, std::endian::little, text);
    case UTF_ENCODINGS::UTF_8:
      break;
  }
  return appendWide(bytes, text);
}

/// Converts what a file holds, without its mark; what is wrong with it, if
/// anything is.
std::optional<std::wstring> decodeText(std::string_view bytes, Mark const& mark,
                                       std::wstring& text) {
  bytes.remove_prefix(mark.bytes.size());
  text.clear();
  std::size_t const valid = appendEncoded(bytes, mark.encoding, text);
  if (valid == bytes.size()) return std::nullopt;
  return invalidBytes(mark, valid, text);
}

/// Puts what an encrypted file holds in place of its bytes; other files stay.
long decrypt(std::wstring const& fileName, bool (*decode)(std::string const&, std::string&),
             std::string& bytes) {
  if (!bytes.starts_with(kHeaderName)) return 0;
  if (!bytes.starts_with(kHeader)) {
    return fail(cannot(L"read", fileName, L"it is encrypted in an unknown way, or damaged"));
  }
  if (decode == nullptr) return fail(cannot(L"read", fileName, L"it is encrypted"));
  bytes.erase(0, kHeader.size());
  std::string plain;
  if (!decode(bytes, plain)) return fail(cannot(L"read", fileName, L"it cannot be decrypted"));
  bytes = std::move(plain);
  return 0;
}

/// Reads a file and decrypts it if it is encrypted.
long readBytes(std::wstring const& fileName, UTF_ENCODINGS encoding, unsigned long* sizeInBytes,
               bool (*decode)(std::string const&, std::string&), std::string& bytes) {
  if (encoding != UTF_ENCODINGS::UTF_8) return fail(cannot(L"read", fileName, kOnlyUtf8));
  std::optional<std::string> const name = narrowFileName(fileName);
  if (!name) return fail(cannot(L"read", fileName, kBadName));
  if (std::optional<FileError> const error = readFile(*name, kMaxFileSize, bytes)) {
    bool const isMissing = error->number == ENOENT || error->number == ENOTDIR;
    return fail(wideMessage(describe(*error)), isMissing ? AdvXMLParser::kFileMissing : kFailure);
  }
  if (sizeInBytes != nullptr) *sizeInBytes = static_cast<unsigned long>(bytes.size());
  return decrypt(fileName, decode, bytes);
}

[[noreturn]] void refuse(std::wstring_view message) {
  setLastXmlError(message);
  throw AdvXMLParser::ReadWriteException();
}

/// What is to be written behind a header, after it.
std::string encrypt(std::wstring const& fileName, std::string const& plain,
                    bool (*encode)(std::string const&, std::string&)) {
  std::string encrypted;
  if (!encode(plain, encrypted)) refuse(cannot(L"write", fileName, L"it cannot be encrypted"));
  return encrypted.insert(0, kHeader);
}

}  // namespace

void setLastXmlError(std::wstring_view message) noexcept {
  constexpr std::wstring_view kGap = L"...";
  constexpr std::size_t kMaxLength = std::tuple_size_v<decltype(lastError)> - 1;
  constexpr std::size_t kTail = kMaxLength / 2;
  auto end = lastError.begin();
  if (message.size() > kMaxLength) {
    // What it was about stands at the start, and the reason at the end.
    end = std::copy_n(message.begin(), kMaxLength - kGap.size() - kTail, end);
    end = std::copy(kGap.begin(), kGap.end(), end);
    message.remove_prefix(message.size() - kTail);
  }
  end = std::copy(message.begin(), message.end(), end);
  std::replace(lastError.begin(), end, L'\0', kReplacementCharacter);
  *end = L'\0';
}

}  // namespace vrxutil::detail

namespace AdvXMLParser {

using namespace vrxutil::detail;

ReadWriteException::~ReadWriteException() = default;

char const* ReadWriteException::what() const noexcept {
  return "cannot write XML; GetLastXmlErrorMessage() says why";
}

long ReadBufferFromFileNoExp(std::wstring const& fileName, std::wstring& text,
                             UTF_ENCODINGS& encoding, unsigned long* sizeInBytes,
                             bool (*decode)(std::string const&, std::string&)) {
  std::string bytes;
  if (long const result = readBytes(fileName, encoding, sizeInBytes, decode, bytes); result != 0) {
    return result;
  }
  Mark const mark = findMark(bytes);
  if (auto const problem = decodeText(bytes, mark, text)) {
    return fail(cannot(L"read", fileName, *problem));
  }
  encoding = mark.encoding;
  return 0;
}

long ReadUtf8BufferFromFileNoExp(std::wstring const& fileName, std::string& utf8,
                                 UTF_ENCODINGS& encoding, unsigned long* sizeInBytes,
                                 bool (*decode)(std::string const&, std::string&)) {
  std::string bytes;
  if (long const result = readBytes(fileName, encoding, sizeInBytes, decode, bytes); result != 0) {
    return result;
  }
  Mark const mark = findMark(bytes);
  std::string_view const content = std::string_view(bytes).substr(mark.bytes.size());
  if (mark.encoding == UTF_8 && validUtf8Size(content) == content.size()) {
    bytes.erase(0, mark.bytes.size());
    utf8 = std::move(bytes);
    return 0;
  }
  std::wstring text;
  if (auto const problem = decodeText(bytes, mark, text)) {
    return fail(cannot(L"read", fileName, *problem));
  }
  utf8.clear();
  appendUtf8(text, utf8);
  encoding = mark.encoding;
  return 0;
}

void WriteBufferToFile(std::wstring const& fileName, std::wstring const& text,
                       UTF_ENCODINGS encoding, bool (*encode)(std::string const&, std::string&),
                       bool (*inspect)(std::string&)) {
  if (encoding != UTF_8) refuse(cannot(L"write", fileName, kOnlyUtf8));
  std::optional<std::string> const name = narrowFileName(fileName);
  if (!name) refuse(cannot(L"write", fileName, kBadName));
  std::string bytes;
  std::size_t const valid = appendUtf8(text, bytes);
  if (valid != text.size()) refuse(cannot(L"write", fileName, invalidCharacter(text, valid)));
  if (inspect != nullptr && !inspect(bytes)) {
    refuse(cannot(L"write", fileName, L"the contents have been refused"));
  }
  if (encode != nullptr) bytes = encrypt(fileName, bytes, encode);
  std::optional<FileError> const error =
      bytes.size() > kMaxFileSize ? FileError{"write", *name, EFBIG} : replaceFile(*name, bytes);
  if (error) refuse(wideMessage(describe(*error)));
}

long ConvertBufferToUnicode(char const* utf8, unsigned long sizeInBytes, std::wstring& text,
                            UTF_ENCODINGS& encoding) {
  if (encoding != UTF_8) return fail(kOnlyUtf8);
  std::string_view const bytes(utf8, sizeInBytes);
  Mark const mark = bytes.starts_with(kMarks[0].bytes) ? kMarks[0] : kNoMark;
  std::wstring converted;
  if (auto const problem = decodeText(bytes, mark, converted)) return fail(*problem);
  text = std::move(converted);
  return 0;
}

bool ConvertBufferToUtf8(std::wstring const& text, std::string& utf8, UTF_ENCODINGS& encoding) {
  if (encoding != UTF_8) {
    setLastXmlError(kOnlyUtf8);
    return false;
  }
  std::string converted;
  std::size_t const valid = appendUtf8(text, converted);
  if (valid != text.size()) {
    setLastXmlError(invalidCharacter(text, valid));
    return false;
  }
  utf8 = std::move(converted);
  return true;
}

wchar_t const* GetLastXmlErrorMessage() { return lastError.data(); }

}  // namespace AdvXMLParser

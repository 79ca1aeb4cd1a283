// Formatting against swprintf, conversion against mbstowcs and wcrtomb, replacing
// and cutting against plain loops. Each input goes through all of them.

#include "fuzz/support.h"

#include <vrxutil/text.h>

#include <algorithm>
#include <climits>
#include <clocale>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cwchar>
#include <string>

#include <fuzzer/FuzzedDataProvider.h>

namespace {

using vrxutil::fuzz::require;

constexpr std::size_t kNumberFieldSize = 34;
constexpr std::size_t kInvalid = static_cast<std::size_t>(-1);

vrxutil::fuzz::QuietLogger& logger() {
  static vrxutil::fuzz::QuietLogger quiet;
  return quiet;
}

std::wstring foldedAs(std::wstring text, bool upper, bool lower) {
  for (wchar_t& c : text) {
    auto const folded = static_cast<wint_t>(c);
    if (upper) {
      c = static_cast<wchar_t>(towupper(folded));
    } else if (lower) {
      c = static_cast<wchar_t>(towlower(folded));
    }
  }
  return text;
}

template <class... Arguments>
std::wstring printed(std::wstring const& format, Arguments... arguments) {
  std::wstring buffer(4096, L'\0');
  int const length = std::swprintf(buffer.data(), buffer.size(), format.c_str(), arguments...);
  require(length >= 0, "swprintf succeeds");
  buffer.resize(static_cast<std::size_t>(length));
  return buffer;
}

struct Field {
  bool upper;
  bool lower;
  bool zero;
  bool left;
  wchar_t conversion;  // 0 for none
  int width;
  int precision;
};

Field fieldFrom(FuzzedDataProvider& data) {
  unsigned const bits = data.ConsumeIntegral<std::uint8_t>();
  constexpr wchar_t kConversions[] = {L'\0', L'u', L'x', L'x'};
  return {(bits & 1) != 0,
          (bits & 2) != 0,
          (bits & 4) != 0,
          (bits & 8) != 0,
          kConversions[bits >> 4 & 3],
          data.ConsumeIntegralInRange(-100, 100),
          data.ConsumeIntegralInRange(-1, 60)};
}

std::wstring flagsOf(Field const& field) {
  std::wstring flags;
  if (field.upper) flags += L'^';
  if (field.lower) flags += L'_';
  if (field.zero) flags += L'0';
  if (field.left) flags += L'-';
  if (field.conversion != 0) flags += field.conversion;
  return flags;
}

/// The printf specification without its conversion.
std::wstring specification(Field const& field, bool zero) {
  std::wstring format = L"%";
  if (field.left) format += L'-';
  if (zero) format += L'0';
  if (field.width != -1) format += std::to_wstring(field.width);
  if (field.precision != -1) format += L"." + std::to_wstring(field.precision);
  return format;
}

std::wstring expectedNumber(Field const& field, long number) {
  std::wstring const format = specification(field, field.zero);
  std::wstring text;
  if (field.conversion == 0) {
    text = printed(format + L"ld", number);
  } else if (number >= INT_MIN && number <= static_cast<long>(UINT_MAX)) {
    text = printed(format + field.conversion, static_cast<unsigned>(number));
  } else {
    text = printed(format + L"l" + field.conversion, static_cast<unsigned long>(number));
  }
  text = text.substr(0, kNumberFieldSize);
  return foldedAs(text, field.upper, field.lower);
}

void checkNumberField(FuzzedDataProvider& data) {
  Field const field = fieldFrom(data);
  long const number = data.ConsumeBool() ? data.ConsumeIntegral<long>()
                                         : static_cast<long>(data.ConsumeIntegral<int>());
  std::wstring const flags = flagsOf(field);
  AFormat format(number, flags.c_str(), field.width);
  format.precision = field.precision;
  std::wstring const expected = expectedNumber(field, number);
  AString text(L"before");
  text << format;
  require(text.const_cpp_str() == L"before" + expected, "a number field reads as swprintf's");
  require(text.execute(format) == expected, "execute() formats as << does");
}

void checkPlainNumbers(FuzzedDataProvider& data) {
  auto const number = data.ConsumeIntegral<long>();
  auto const bits = static_cast<unsigned long>(number);
  require(AString(number).const_cpp_str() == printed(L"%ld", number), "long");
  require(AString(bits).const_cpp_str() == printed(L"%lu", bits), "unsigned long");
  // NOLINTNEXTLINE(performance-no-int-to-ptr): any bits may stand in a pointer
  AString const pointer(reinterpret_cast<void*>(bits));
  require(pointer.const_cpp_str() == printed(L"%08x", static_cast<unsigned>(bits)), "pointer");
}

/// A text field has room for its text and for a width that is not negative.
std::wstring expectedText(Field const& field, std::wstring const& text) {
  std::wstring const all = printed(specification(field, /*zero=*/false) + L"ls", text.c_str());
  std::size_t const room =
      std::max(text.size(), static_cast<std::size_t>(std::max(field.width, 0)));
  return foldedAs(all.substr(0, room), field.upper, field.lower);
}

void checkTextField(FuzzedDataProvider& data, std::wstring const& text) {
  Field const field = fieldFrom(data);
  std::wstring const shortText = std::wstring(text.substr(0, 500).c_str());
  std::wstring const flags = flagsOf(field);
  AFormat const format(shortText.c_str(), flags.c_str(), field.width, field.precision);
  require(AString(format).const_cpp_str() == expectedText(field, shortText),
          "a text field reads as swprintf's");
}

void checkWidening(std::string const& narrow) {
  long const errorsBefore = logger().errors();
  AString const converted(narrow.c_str());
  std::size_t const length = std::mbstowcs(nullptr, narrow.c_str(), 0);
  bool const isValid = length != kInvalid;
  std::wstring expected(isValid ? length : 0, L'\0');
  if (isValid) std::mbstowcs(expected.data(), narrow.c_str(), length);
  require(converted.const_cpp_str() == expected, "narrow text converts as by mbstowcs");
  require(logger().errors() == errorsBefore + (isValid ? 0 : 1), "one error for what is invalid");
}

/// Arbitrary 32-bit characters, mostly of few bits.
std::wstring wideFrom(std::string const& bytes) {
  std::wstring text;
  for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
    unsigned const low = static_cast<unsigned char>(bytes[i + 1]);
    unsigned const shift = static_cast<unsigned char>(bytes[i]) % 25;
    unsigned const c = low << shift;
    text += static_cast<wchar_t>(c);
  }
  return text;
}

void checkNarrowing(std::wstring const& wide) {
  std::string expected;
  char buffer[MB_LEN_MAX];
  std::mbstate_t state{};
  for (wchar_t const* c = wide.c_str(); *c != 0; ++c) {
    std::size_t const size = std::wcrtomb(buffer, *c, &state);
    expected += size == kInvalid ? std::string("?") : std::string(buffer, size);
  }
  ACharString const narrow(wide.c_str());
  require(std::string(narrow) == expected, "wide text converts as by wcrtomb");
  require(static_cast<std::size_t>(narrow.size()) == expected.size(), "the size is the text's");
}

void checkReplacing(FuzzedDataProvider& data, std::wstring const& text) {
  auto const at = data.ConsumeIntegralInRange<std::size_t>(0, text.size());
  std::wstring const find = text.substr(at, data.ConsumeIntegralInRange<std::size_t>(0, 64));
  std::wstring const replacement = data.ConsumeBool() ? find + find.substr(0, 2) : L"";
  std::wstring expected = text;
  if (!find.empty()) {
    for (std::size_t hit = expected.find(find); hit != std::wstring::npos;
         hit = expected.find(find, hit + replacement.size())) {
      expected.replace(hit, find.size(), replacement);
    }
  }
  AString replaced(text);
  replaced.findAndReplace(AString(find), AString(replacement));
  require(replaced.const_cpp_str() == expected, "replacing as by std::wstring::replace");
}

void checkParsing(std::wstring const& text, std::wstring const& delimiters) {
  std::wstring const line = text.c_str();  // up to a NUL
  AStringParser parser(line.c_str(), delimiters.c_str());
  std::size_t start = 0;
  while (!parser.atEnd()) {
    std::size_t const end = std::min(line.find_first_of(delimiters.c_str(), start), line.size());
    require(parser.get(nullptr) == line.substr(start, end - start), "tokens end at delimiters");
    require(parser.lastDelimiter == (end < line.size() ? line[end] : L'\0'), "the delimiter");
    start = std::min(end + 1, line.size());
  }
  require(start == line.size(), "the parser ends where the text does");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  static char const* const locale = std::setlocale(LC_ALL, "C.UTF-8");
  require(locale != nullptr, "there is a locale C.UTF-8");
  logger();

  std::string const bytes(data, data + size);
  std::wstring const wide = wideFrom(bytes);
  checkWidening(bytes);
  checkNarrowing(wide);
  FuzzedDataProvider fields(data, size);
  checkPlainNumbers(fields);
  checkNumberField(fields);
  checkTextField(fields, wide);
  checkReplacing(fields, wide);
  checkParsing(wide, wide.substr(0, 3));
  return 0;
}

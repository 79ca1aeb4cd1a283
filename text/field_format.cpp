#include "text/field_format.h"

#include <vrxutil/log.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cwchar>
#include <limits>

#include <wctype.h>

namespace vrxutil::detail {

namespace {

/// Characters that a number field may have.
constexpr std::size_t kNumberFieldSize = 34;

struct Flags {
  wchar_t conversion = L'd';
  bool upper = false;
  bool lower = false;
  bool zeroFill = false;
  bool leftJustify = false;
};

Flags parseFlags(wchar_t const* characters) {
  Flags flags;
  for (; *characters != 0; ++characters) {
    switch (*characters) {
      case L'_':
        flags.lower = true;
        break;
      case L'^':
        flags.upper = true;
        break;
      case L'0':
        flags.zeroFill = true;
        break;
      case L'-':
        flags.leftJustify = true;
        break;
      case L'u':
      case L'x':
        flags.conversion = *characters;
        break;
      default:
        logInternalError(L"String", AString(L"unknown format character [") << *characters << L"]");
    }
  }
  return flags;
}

/// The decimal or hexadecimal digits of a number, most significant first.
class Digits {
public:
  Digits(unsigned long magnitude, int base) {
    std::array<char, kMost> narrow;
    auto const result = std::to_chars(narrow.begin(), narrow.end(), magnitude, base);
    size_ = static_cast<std::size_t>(result.ptr - narrow.begin());
    std::copy_n(narrow.begin(), size_, digits_.begin());
  }

  std::size_t size() const { return size_; }

  wchar_t const* data() const { return digits_.data(); }

private:
  static constexpr std::size_t kMost = std::numeric_limits<unsigned long>::digits10 + 1;

  std::array<wchar_t, kMost> digits_;
  std::size_t size_;
};

constexpr unsigned long magnitudeOf(long number) {
  return number < 0 ? 0UL - static_cast<unsigned long>(number) : static_cast<unsigned long>(number);
}

/// The bits of a number for conversion u or x: 32 where it fits in 32. That makes a
/// difference to negative numbers alone.
constexpr unsigned long unsignedBits(long number) {
  constexpr auto kLowest = static_cast<std::int64_t>(std::numeric_limits<std::int32_t>::min());
  bool const isShort = number < 0 && number >= kLowest;
  return isShort ? static_cast<std::uint32_t>(number) : static_cast<unsigned long>(number);
}

static_assert(unsignedBits(-1) == 0xFFFFFFFF);

/// A field that is filled from the left and drops what has no room.
class NumberField {
public:
  void add(std::size_t count, wchar_t character) {
    std::size_t const fitting = std::min(count, kNumberFieldSize - size_);
    std::fill_n(characters_.begin() + size_, fitting, character);
    size_ += fitting;
  }

  void add(Digits const& digits) {
    std::size_t const fitting = std::min(digits.size(), kNumberFieldSize - size_);
    std::copy_n(digits.data(), fitting, characters_.begin() + size_);
    size_ += fitting;
  }

  wchar_t const* data() const { return characters_.data(); }

  std::size_t size() const { return size_; }

private:
  std::array<wchar_t, kNumberFieldSize> characters_;
  std::size_t size_ = 0;
};

/// How wide a field is at least, and on which side it is padded.
struct Width {
  std::size_t size = 0;
  bool leftJustify = false;
};

/// A negative width other than -1 reads as the flag "-" and a width, as it does
/// in a printf specification.
Width widthOf(AFormat const& field, Flags const& flags) {
  if (field.width >= 0) return {static_cast<std::size_t>(field.width), flags.leftJustify};
  if (field.width == -1) return {0, flags.leftJustify};
  return {static_cast<std::size_t>(-static_cast<std::int64_t>(field.width)), true};
}

/// How much of `wanted` is missing.
constexpr std::size_t missing(std::size_t wanted, std::size_t present) {
  return wanted > present ? wanted - present : 0;
}

NumberField formatNumber(AFormat const& field, Flags const& flags) {
  bool const isDecimal = flags.conversion == L'd';
  long const number = field.value.number;
  bool const isNegative = isDecimal && number < 0;
  Digits const digits(isDecimal ? magnitudeOf(number) : unsignedBits(number),
                      flags.conversion == L'x' ? 16 : 10);

  // A negative precision counts as none. Where there is one, zero has no digits but
  // those that the precision asks for.
  bool const hasPrecision = field.precision >= 0;
  std::size_t const digitCount = hasPrecision && number == 0 ? 0 : digits.size();
  std::size_t const ownSize = digitCount + (isNegative ? 1 : 0);
  Width const width = widthOf(field, flags);
  std::size_t zeros = 0;
  if (hasPrecision) {
    zeros = missing(static_cast<std::size_t>(field.precision), digitCount);
  } else if (flags.zeroFill && !width.leftJustify) {
    zeros = missing(width.size, ownSize);
  }
  std::size_t const blanks = missing(width.size, ownSize + zeros);

  NumberField result;
  if (!width.leftJustify) result.add(blanks, L' ');
  if (isNegative) result.add(1, L'-');
  result.add(zeros, L'0');
  if (digitCount > 0) result.add(digits);
  if (width.leftJustify) result.add(blanks, L' ');
  return result;
}

/// Appends a text field. It has room for the text and for the width; a negative
/// width makes no room, so that its padding ends where the text ended.
void appendTextField(std::wstring& out, AFormat const& field, Flags const& flags) {
  std::size_t const length = std::wcslen(field.value.text);
  std::size_t const room = std::max(length, static_cast<std::size_t>(std::max(field.width, 0)));
  std::size_t const shown =
      field.precision >= 0 ? std::min(length, static_cast<std::size_t>(field.precision)) : length;
  Width const width = widthOf(field, flags);
  std::size_t const blanks = missing(std::min(width.size, room), shown);
  if (!width.leftJustify) out.append(blanks, L' ');
  out.append(field.value.text, shown);
  if (width.leftJustify) out.append(blanks, L' ');
}

void foldCase(Flags const& flags, wchar_t* begin, wchar_t const* end) {
  if (!flags.upper && !flags.lower) return;
  for (; begin != end; ++begin) {
    auto const c = static_cast<wint_t>(*begin);
    *begin = static_cast<wchar_t>(flags.upper ? towupper(c) : towlower(c));
  }
}

}  // namespace

void appendDecimal(std::wstring& text, unsigned long number) {
  Digits const digits(number, 10);
  text.append(digits.data(), digits.size());
}

void appendDecimal(std::wstring& text, long number) {
  if (number < 0) text += L'-';
  appendDecimal(text, magnitudeOf(number));
}

void appendPointer(std::wstring& text, void const* pointer) {
  constexpr std::size_t kDigits = 8;
  Digits const digits(reinterpret_cast<std::uintptr_t>(pointer) & 0xFFFFFFFF, 16);
  text.append(kDigits - digits.size(), L'0').append(digits.data(), digits.size());
}

void appendField(std::wstring& text, AFormat const& field) {
  Flags const flags = parseFlags(field.flags);
  std::size_t const start = text.size();
  if (field.isNumber != 0) {
    NumberField const number = formatNumber(field, flags);
    text.append(number.data(), number.size());
  } else {
    appendTextField(text, field, flags);
  }
  foldCase(flags, text.data() + start, text.data() + text.size());
}

}  // namespace vrxutil::detail

AFormat::AFormat(long number, wchar_t const* formatFlags, int fieldWidth) noexcept
    : flags(formatFlags), width(fieldWidth), precision(-1), isNumber(1) {
  value.number = number;
}

AFormat::AFormat(wchar_t const* text, wchar_t const* formatFlags, int fieldWidth,
                 int fieldPrecision) noexcept
    : flags(formatFlags), width(fieldWidth), precision(fieldPrecision), isNumber(0) {
  value.text = text;
}

static_assert(sizeof(long) != 4 || sizeof(void*) != 4 || sizeof(AFormat) == 20);

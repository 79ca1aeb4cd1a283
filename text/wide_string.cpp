#include "text/conversion.h"
#include "text/field_format.h"

#include <vrxutil/log.h>
#include <vrxutil/text.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cwchar>
#include <vector>

namespace {

constexpr wchar_t kGroup[] = L"String";
constexpr wchar_t kGuard = 0xABCD;

/// Search texts from here on are found by Knuth, Morris and Pratt's method, whose
/// time is linear whatever the texts; below, the plain search costs at most this
/// factor and is faster.
constexpr std::size_t kLongSearchText = 32;

template <class T>
T const* orNullText(T const* text, T const* nullText) {
  return text != nullptr ? text : nullText;
}

/// For each start of `find`, the length of the longest proper prefix of `find`
/// that it ends in.
std::vector<std::size_t> bordersOf(std::wstring const& find) {
  std::vector<std::size_t> borders(find.size());
  for (std::size_t i = 1, matched = 0; i < find.size(); ++i) {
    while (matched > 0 && find[i] != find[matched]) matched = borders[matched - 1];
    if (find[i] == find[matched]) ++matched;
    borders[i] = matched;
  }
  return borders;
}

template <class OnHit>
void forEachHitOfLong(std::wstring const& text, std::wstring const& find, OnHit onHit) {
  std::vector<std::size_t> const borders = bordersOf(find);
  for (std::size_t i = 0, matched = 0; i < text.size(); ++i) {
    while (matched > 0 && text[i] != find[matched]) matched = borders[matched - 1];
    if (text[i] == find[matched]) ++matched;
    if (matched < find.size()) continue;
    onHit(i + 1 - matched);
    matched = 0;
  }
}

/// Calls `onHit(position)` for each occurrence of `find`, none overlapping.
template <class OnHit>
void forEachHit(std::wstring const& text, std::wstring const& find, OnHit onHit) {
  if (find.size() >= kLongSearchText) return forEachHitOfLong(text, find, onHit);
  for (std::size_t at = text.find(find); at != std::wstring::npos;
       at = text.find(find, at + find.size())) {
    onHit(at);
  }
}

}  // namespace

static_assert(sizeof(AString) == sizeof(std::wstring));
static_assert(sizeof(wchar_t) == 4, "a wchar_t is a character of UTF-32");

bool AString::CaseSensitiveLess::operator()(AString const& a, AString const& b) const {
  return std::wcscmp(a, b) < 0;
}

bool AString::CaseInsensitiveLess::operator()(AString const& a, AString const& b) const {
  return wcsicmp(a, b) < 0;
}

AString::AString(std::wstring const& text) : value_(text) {}

AString::AString(wchar_t const* text) : value_(orNullText(text, L"(null)")) {}

AString::AString(char const* text) { *this << text; }

AString::AString(wchar_t character) : value_(1, character) {}

AString::AString(char byte) : value_(1, convertOne(byte)) {}

AString::AString(long number) { *this << number; }

AString::AString(int number) { *this << number; }

AString::AString(unsigned long number) { *this << number; }

AString::AString(void* pointer) { *this << pointer; }

AString::AString(AFormat const& field) { execute(field); }

AString& AString::operator=(wchar_t const* text) {
  value_.assign(orNullText(text, L"(null)"));
  return *this;
}

AString& AString::operator=(char const* text) {
  value_.clear();
  return *this << text;
}

AString& AString::operator=(wchar_t character) {
  value_.assign(1, character);
  return *this;
}

AString& AString::operator=(char byte) { return *this = convertOne(byte); }

AString& AString::operator=(long number) {
  value_.clear();
  return *this << number;
}

AString& AString::operator=(unsigned long number) {
  value_.clear();
  return *this << number;
}

AString& AString::operator=(void* pointer) {
  value_.clear();
  return *this << pointer;
}

AString& AString::operator=(AFormat const& field) {
  execute(field);
  return *this;
}

AString& AString::operator<<(wchar_t const* text) {
  value_.append(orNullText(text, L"(null)"));
  return *this;
}

AString& AString::operator<<(char const* text) {
  char const* const source = orNullText(text, "(null)");
  std::size_t const oldSize = value_.size();
  std::size_t const added = conversionSpaceRequired(source);
  value_.resize(oldSize + added);
  if (vrxutil::detail::widen(source, value_.data() + oldSize, added) == vrxutil::detail::kInvalid) {
    logError(kGroup, L"couldn't convert to wide characters");
  }
  return *this;
}

AString& AString::operator<<(wchar_t character) {
  value_ += character;
  return *this;
}

AString& AString::operator<<(char byte) { return *this << convertOne(byte); }

AString& AString::operator<<(long number) {
  vrxutil::detail::appendDecimal(value_, number);
  return *this;
}

AString& AString::operator<<(int number) { return *this << static_cast<long>(number); }

AString& AString::operator<<(unsigned long number) {
  vrxutil::detail::appendDecimal(value_, number);
  return *this;
}

AString& AString::operator<<(void* pointer) {
  vrxutil::detail::appendPointer(value_, pointer);
  return *this;
}

AString& AString::operator<<(AFormat const& field) {
  if (field.isNumber == 0 && vrxutil::detail::pointsInto(value_, field.value.text)) {
    return *this << AString(field);
  }
  vrxutil::detail::appendField(value_, field);
  return *this;
}

int AString::toInt() const {
  ACharString const narrow(value_.c_str());
  return static_cast<int>(std::strtol(narrow, nullptr, 10));
}

void AString::findAndReplace(AString const& find, AString const& replacement) {
  if (find.value_.empty()) return;
  // A guess: the number of hits is not known yet.
  std::size_t const growth = replacement.size() > find.size() ? value_.size() / 2 : 0;
  std::wstring result;
  std::size_t copied = 0;
  forEachHit(value_, find.value_, [&](std::size_t hit) {
    if (copied == 0) result.reserve(value_.size() + growth);
    result.append(value_, copied, hit - copied).append(replacement.value_);
    copied = hit + find.value_.size();
  });
  if (copied == 0) return;  // no hit ends at the very start
  result.append(value_, copied);
  value_ = std::move(result);
}

void AString::shrinkTo(unsigned long length) {
  if (value_.size() > length) value_.resize(length);
}

wchar_t* AString::allocate(int length) {
  if (length < 0) {
    logError(kGroup, L"Received invalid negative memory allocation request");
    return value_.data();
  }
  value_.resize(static_cast<std::size_t>(length) + 1);
  value_.back() = kGuard;
  return value_.data();
}

bool AString::checkAllocation() {
  if (value_.empty() || value_.back() != kGuard) {
    logInternalError(kGroup, L"End of string overwritten");
    return false;
  }
  value_.resize(std::wcslen(value_.c_str()));
  return true;
}

wchar_t const* AString::execute(AFormat const& field) {
  std::wstring formatted;
  vrxutil::detail::appendField(formatted, field);
  value_ = std::move(formatted);
  return value_.c_str();
}

wchar_t const* AString::format(AString const& flags, int width, int precision) {
  return execute(AFormat(value_.c_str(), flags, width, precision));
}

void AString::convert(char const* source, wchar_t* target, int offset, int count) {
  if (count <= 0) return;
  std::size_t const converted =
      vrxutil::detail::widen(source, target + offset, static_cast<std::size_t>(count));
  if (converted == vrxutil::detail::kInvalid) {
    logError(kGroup, L"couldn't convert to wide characters");
  }
}

int wcsicmp(wchar_t const* a, wchar_t const* b) {
  // As int, the type of the difference: a number beyond Unicode may be negative, and
  // the difference of two such numbers too large.
  auto const upper = [](wchar_t c) -> std::int64_t {
    return static_cast<int>(towupper(static_cast<wint_t>(c)));
  };
  for (;; ++a, ++b) {
    std::int64_t const difference = upper(*a) - upper(*b);
    if (difference != 0 || *a == 0 || *b == 0) {
      return static_cast<int>(std::clamp<std::int64_t>(difference, INT_MIN, INT_MAX));
    }
  }
}
